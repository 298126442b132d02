// Static files kept in memory between requests, read again as soon as they change.
#include "http/file_cache.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <list>

#include "core/unique_fd.h"
#include "core/utils.h"

namespace {

// A file larger than this is read from disk for every request.
const off_t max_file_bytes = 256 * 1024;
// Bytes and number of all files held together; the least recently served go first.
const size_t max_held_bytes = 1024 * 1024;
const size_t max_held_files = 256;
// A file changed this recently may change again within the same tick of the
// file system's clock without its times showing it: it is not kept yet.
const long long settle_ns = 1000000000;

// What tells one version of a file from another.
struct FileVersion {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};
};

bool same_time(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool same_version(const FileVersion& a, const FileVersion& b) {
    return a.device == b.device && a.inode == b.inode && a.size == b.size &&
           same_time(a.modified, b.modified) && same_time(a.changed, b.changed);
}

FileVersion version_of(const struct stat& about) {
    return {about.st_dev, about.st_ino, about.st_size, about.st_mtim, about.st_ctim};
}

struct HeldFile {
    std::string path;
    FileVersion version;
    std::string bytes;
};

// Most recently served first.
std::list<HeldFile> held;
size_t held_bytes = 0;

std::list<HeldFile>::iterator find_held(const std::string& path) {
    for (auto it = held.begin(); it != held.end(); ++it)
        if (it->path == path) return it;
    return held.end();
}

void forget(std::list<HeldFile>::iterator it) {
    held_bytes -= it->bytes.size();
    held.erase(it);
}

long long ns_of(const timespec& t) {
    return static_cast<long long>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

bool settled(const struct stat& about) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return ns_of(now) - ns_of(about.st_mtim) > settle_ns && ns_of(now) - ns_of(about.st_ctim) > settle_ns;
}

// Keeps the bytes read if the file may be held; the bytes to answer with. A
// file whose size changed while it was read is not held: its bytes are not
// the version its times describe, and could be over the limit.
const std::string* hold(const std::string& path, const struct stat& about, std::string& bytes) {
    if (about.st_size > max_file_bytes || static_cast<off_t>(bytes.size()) != about.st_size ||
        !settled(about))
        return &bytes;
    while (!held.empty() && (held_bytes + bytes.size() > max_held_bytes || held.size() >= max_held_files))
        forget(std::prev(held.end()));
    held_bytes += bytes.size();
    held.push_front({path, version_of(about), std::move(bytes)});
    return &held.front().bytes;
}

// Reads the open regular file to its end; false when a read failed on the way.
bool read_all(int fd, off_t size_hint, std::string& bytes) {
    bytes.reserve(static_cast<size_t>(size_hint));
    char chunk[16384];
    for (;;) {
        ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) return true;
        bytes.append(chunk, static_cast<size_t>(got));
    }
}

}  // namespace

// What read_file gives: the file's bytes, or null when it cannot be opened.
const std::string* read_plainly(const std::string& path, std::string& scratch) {
    scratch.clear();
    return read_file(path.c_str(), scratch) ? &scratch : nullptr;
}

const std::string* read_static_file(const std::string& path, std::string& scratch) {
    struct stat about {};
    // Not a plain file (or not there): read exactly as before, nothing kept.
    if (stat(path.c_str(), &about) != 0 || !S_ISREG(about.st_mode)) return read_plainly(path, scratch);

    auto it = find_held(path);
    if (it != held.end() && same_version(it->version, version_of(about))) {
        held.splice(held.begin(), held, it);
        return &it->bytes;
    }
    if (it != held.end()) forget(it);

    UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    // The version read is the one of the descriptor, not of the name looked at before.
    if (!file.valid() || fstat(file.get(), &about) != 0 || !S_ISREG(about.st_mode))
        return read_plainly(path, scratch);
    scratch.clear();
    // Like read_file, a read that fails on the way gives what came before it.
    if (!read_all(file.get(), about.st_size, scratch)) return &scratch;
    return hold(path, about, scratch);
}

void clear_static_files() {
    held.clear();
    held_bytes = 0;
}
