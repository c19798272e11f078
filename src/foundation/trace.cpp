#include "foundation/trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

#include "platform/codepage.h"

namespace kv {
namespace {

constexpr const char* kDefaultDirectory = "/tmp/korvane";
constexpr const char* kFileName = "korvane_debug.txt";
constexpr int kLineBufferSize = 2048;

// The composed line is per thread, so lines of two threads never mix.
thread_local char t_line[kLineBufferSize];
thread_local int32_t t_position = 0;

std::mutex g_directory_mutex;
std::string g_directory = kDefaultDirectory;
std::atomic<uint64_t> g_generation{0};

// When the directory was last found unusable (coarse monotonic ms), per
// thread: the cheap path for the common case of no trace directory.
thread_local int64_t t_absent_since = -1;
thread_local uint64_t t_absent_generation = 0;

int64_t CoarseMillis() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Opens the directory without following a link and checks that only this
// user can write into it.
int OpenTrustedDirectory() {
    std::string dir;
    {
        std::lock_guard<std::mutex> lock(g_directory_mutex);
        dir = g_directory;
    }
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid() ||
        (st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int OpenTraceFile() {
    uint64_t generation = g_generation.load(std::memory_order_acquire);
    if (t_absent_since >= 0 && t_absent_generation == generation &&
        CoarseMillis() - t_absent_since < 1000)
        return -1;
    int dir = OpenTrustedDirectory();
    if (dir < 0) {
        t_absent_since = CoarseMillis();
        t_absent_generation = generation;
        return -1;
    }
    t_absent_since = -1;
    int fd = openat(dir, kFileName, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
    close(dir);
    if (fd < 0) return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid()) {
        close(fd);
        return -1;
    }
    return fd;
}

// "hh:mm:ss <tid>\t"; returns the length written into out (at most 32).
int FormatPrefix(char* out) {
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    int n = 0;
    auto two = [&](int v) {
        out[n++] = char('0' + v / 10 % 10);
        out[n++] = char('0' + v % 10);
    };
    two(local.tm_hour);
    out[n++] = ':';
    two(local.tm_min);
    out[n++] = ':';
    two(local.tm_sec);
    out[n++] = ' ';
    char digits[16];
    int d = 0;
    auto tid = static_cast<uint64_t>(syscall(SYS_gettid));
    do {
        digits[d++] = "0123456789abcdef"[tid & 15];
        tid >>= 4;
    } while (tid && d < 16);
    while (d) out[n++] = digits[--d];
    out[n++] = '\t';
    return n;
}

void AppendBytes(const char* text, size_t length) {
    int32_t room = kLineBufferSize - 1 - t_position;
    if (room <= 0 || !text) return;
    size_t n = length < size_t(room) ? length : size_t(room);
    std::memcpy(t_line + t_position, text, n);
    t_position += int32_t(n);
}

}  // namespace

void TraceBegin() { t_position = 0; }

void TraceAppend(const char* text) {
    if (text) AppendBytes(text, std::strlen(text));
}

void TraceAppendInt(int64_t value) {
    char digits[24];
    int d = 0;
    uint64_t magnitude = value < 0 ? 0 - uint64_t(value) : uint64_t(value);
    do {
        digits[d++] = char('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude);
    char text[24];
    int n = 0;
    if (value < 0) text[n++] = '-';
    while (d) text[n++] = digits[--d];
    AppendBytes(text, size_t(n));
}

void TraceAppendWide(const char16_t* text) {
    if (!text) return;
    int32_t room = kLineBufferSize - 1 - t_position;
    if (room <= 0) return;
    size_t units = 0;
    while (text[units]) ++units;
    if (units == 0) return;
    // Code page 1252 gives one byte per unit, so the room bounds the units.
    int n = units < size_t(room) ? int(units) : room;
    int written = platform::WideCharToMultiByte(0, 0, text, n, t_line + t_position, room);
    if (written > 0) t_position += written;
}

void Trace(const char* text, int32_t length) {
    if (!text) {
        t_line[t_position] = 0;
        text = t_line;
        length = t_position;
    } else if (length < 0) {
        length = int32_t(std::strlen(text));
    }
    int fd = OpenTraceFile();
    if (fd < 0) return;
    char prefix[48];
    int prefix_length = FormatPrefix(prefix);
    // One writev to an O_APPEND file: lines of two threads never interleave.
    iovec parts[3] = {{prefix, size_t(prefix_length)},
                      {const_cast<char*>(text), size_t(length)},
                      {const_cast<char*>("\r\n"), 2}};
    ssize_t ignored = writev(fd, parts, 3);
    (void)ignored;
    close(fd);
}

void TraceWide(const char16_t* text) {
    if (!text) return;
    int units = 0;
    while (text[units]) ++units;
    if (units == 0) {
        Trace("", 0);
        return;
    }
    std::string bytes(size_t(units), '\0');
    int written = platform::WideCharToMultiByte(0, 0, text, units, bytes.data(), units);
    Trace(bytes.data(), written > 0 ? written : 0);
}

void TraceSetDirectoryForTesting(const char* directory) {
    std::lock_guard<std::mutex> lock(g_directory_mutex);
    g_directory = directory ? directory : kDefaultDirectory;
    g_generation.fetch_add(1, std::memory_order_release);
}

}  // namespace kv
