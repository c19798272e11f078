#include "platform/directories.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "platform/codepage.h"
#include "platform/files.h"

namespace kv::platform {

namespace {

// Removes the entries of the open directory dir_fd; closes it.
bool RemoveEntries(int dir_fd) {
    DIR* dir = fdopendir(dir_fd);
    if (!dir) {
        close(dir_fd);
        return false;
    }
    bool ok = true;
    while (ok) {
        errno = 0;
        dirent* entry = readdir(dir);
        if (!entry) {
            ok = errno == 0;
            break;
        }
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        struct stat st;
        if (fstatat(dirfd(dir), name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            ok = false;
            break;
        }
        if (S_ISDIR(st.st_mode)) {
            int child = openat(dirfd(dir), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            ok = child >= 0 && RemoveEntries(child) && unlinkat(dirfd(dir), name, AT_REMOVEDIR) == 0;
        } else {
            ok = unlinkat(dirfd(dir), name, 0) == 0;
        }
    }
    closedir(dir);
    return ok;
}

}  // namespace

PathKind GetPathKind(const wbstring& path) {
    std::string name = PathFromWide(path);
    // "dir/" must not hide a file named "dir".
    while (name.size() > 1 && name.back() == '/') name.pop_back();
    struct stat st;
    if (name.empty() || lstat(name.c_str(), &st) != 0) return PathKind::kNone;
    return S_ISDIR(st.st_mode) ? PathKind::kDirectory : PathKind::kFile;
}

bool MakeDirectory(const wbstring& path) {
    std::string name = PathFromWide(path);
    return !name.empty() && mkdir(name.c_str(), 0700) == 0;
}

bool RemoveDirectoryTree(const wbstring& path, bool content_only) {
    std::string name = PathFromWide(path);
    if (name.empty()) return false;
    while (name.size() > 1 && name.back() == '/') name.pop_back();
    int fd = open(name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return false;
    if (!RemoveEntries(fd)) return false;
    return content_only || rmdir(name.c_str()) == 0;
}

wbstring TempDirectory() {
    std::error_code error;
    std::string dir = std::filesystem::temp_directory_path(error).string();
    wbstring result;
    if (error || dir.empty()) return result;
    if (dir.back() != '/') dir += '/';
    bstring bytes(dir.data(), int32_t(dir.size()));
    result.import_bstring(bytes, 65001);
    return result;
}

bool RegularFileExists(const wbstring& path) {
    std::string name = PathFromWide(path);
    struct stat st;
    return !name.empty() && stat(name.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

int OpenAndLockFile(const wbstring& path, int32_t lock_length) {
    std::string name = PathFromWide(path);
    if (name.empty()) return -1;
    int fd = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) return -1;
    struct flock lock;
    std::memset(&lock, 0, sizeof lock);
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = lock_length;
    if (fcntl(fd, F_SETLK, &lock) != 0) {
        close(fd);
        return -2;
    }
    return fd;
}

}  // namespace kv::platform
