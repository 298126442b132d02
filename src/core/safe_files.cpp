// Files the engine writes as root inside a directory, without following links.
#include "core/safe_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "core/unique_fd.h"

bool write_file_in(int dir, const char* name, const std::string& data) {
    UniqueFd file(openat(dir, name, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666));
    struct stat about {};
    if (!file.valid() || fstat(file.get(), &about) != 0) return false;
    if (!S_ISREG(about.st_mode) || about.st_nlink != 1) return false;
    if (ftruncate(file.get(), 0) != 0) return false;
    for (size_t done = 0; done < data.size();) {
        ssize_t wrote = write(file.get(), data.data() + done, data.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote <= 0) return false;
        done += static_cast<size_t>(wrote);
    }
    return true;
}

bool replace_file_in(int dir, const char* name, const std::string& data) {
    if (write_file_in(dir, name, data)) return true;
    unlinkat(dir, name, 0);
    return write_file_in(dir, name, data);
}
