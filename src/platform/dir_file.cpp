#include "platform/dir_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "platform/files.h"

namespace kv::platform {

bool IsPlainFileName(const wbstring& name) {
    if (name.nSize <= 0) return false;
    for (int32_t i = 0; i < name.nSize; ++i)
        if (name.pData[i] == u'/' || name.pData[i] == 0) return false;
    if (name.nSize == 1 && name.pData[0] == u'.') return false;
    if (name.nSize == 2 && name.pData[0] == u'.' && name.pData[1] == u'.') return false;
    return true;
}

bool WriteFileInDirectory(const wbstring& dir, const wbstring& name, const char* data, size_t size) {
    if (!IsPlainFileName(name)) return false;
    std::string dir_path = PathFromWide(dir);
    std::string file_name = PathFromWide(name);
    if (dir_path.empty() || file_name.empty()) return false;

    int dir_fd = open(dir_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_fd < 0) return false;
    // O_NONBLOCK so that a FIFO of that name fails instead of waiting for a
    // reader; anything but a regular file is refused.
    int fd = openat(dir_fd, file_name.c_str(),
                    O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
    close(dir_fd);
    if (fd < 0) return false;
    struct stat st;
    bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    while (ok && size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            ok = false;
            break;
        }
        data += n;
        size -= size_t(n);
    }
    if (close(fd) != 0) ok = false;
    return ok;
}

}  // namespace kv::platform
