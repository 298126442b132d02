// Configuration history: snapshots of the image kept as configuration files, one folder per installer.
#include "model/history.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <set>
#include <vector>

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "core/unique_fd.h"
#include "model/dev_parser.h"
#include "model/dev_parser_helpers.h"

namespace {

// "YYYYMMDD-HHMMSS-mmm": unique in the folder, whatever the kind.
constexpr size_t kStampLength = 19;
constexpr size_t kModelLength = 16;
// Snapshots captured but not yet written; a device thread that captures while
// no request comes cannot fill the memory.
constexpr size_t kMaxPending = 16;
// Attempts at a free stamp before a snapshot is given up.
constexpr int kStampTries = 1000;

const char* const kind_words[] = {"read", "write", "file", "model", "kept"};

struct Entry {
    uint64_t bytes = 0;
    size_t settings = 0;
};

struct Pending {
    int64_t epoch_ms = 0;
    SnapshotKind kind = SnapshotKind::kept;
    std::string td;
    std::string text;
};

// The HTTP thread's view of the folder.
struct Store {
    UniqueFd dir;
    std::string path;  // for console lines
    uid_t uid = 0;
    gid_t gid = static_cast<gid_t>(-1);
    bool give_away = false;              // running as root: files go to uid
    std::map<std::string, Entry> index;  // plain snapshot files, by name
    std::set<std::string> stamps;        // of every snapshot name seen, links included
    uint64_t total_bytes = 0;
    std::string newest_text;  // the bytes of the newest snapshot
};

Store store;
std::atomic<bool> opened{false};
std::atomic<bool> usable{false};
std::vector<Pending> pending;  // guarded by http_mutex

const char* kind_word(SnapshotKind kind) {
    return kind_words[static_cast<int>(kind)];
}

bool all_digits(const std::string& text, size_t from, size_t count) {
    for (size_t i = from; i < from + count; ++i)
        if (i >= text.size() || text[i] < '0' || text[i] > '9') return false;
    return true;
}

bool is_model_char(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

int64_t now_ms() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The kind and model parts of a valid name.
void split_name(const std::string& name, std::string& kind, std::string& model) {
    const std::string core = name.substr(kStampLength + 1, name.size() - kStampLength - 1 - 4);
    const size_t minus = core.find('-');
    kind = core.substr(0, minus);
    model = minus == std::string::npos ? std::string() : core.substr(minus + 1);
}

void report(const std::string& text) {
    console_stamped("History: " + text);
}

void write_failed(const std::string& what, int error) {
    report(what + " failed (" + std::strerror(error) + ")");
    usable = false;
}

bool is_plain_file(const struct stat& about) {
    return S_ISREG(about.st_mode) && about.st_nlink == 1;
}

// Reads a file of the folder only when it is a plain file with one link, and
// never through a link: a name swapped for anything else is refused.
bool read_plain_file(int dir, const std::string& name, std::string& out) {
    struct stat before {};
    if (fstatat(dir, name.c_str(), &before, AT_SYMLINK_NOFOLLOW) != 0 || !is_plain_file(before)) return false;
    UniqueFd file(openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat now {};
    if (!file.valid() || fstat(file.get(), &now) != 0 || !is_plain_file(now)) return false;
    if (now.st_ino != before.st_ino || now.st_dev != before.st_dev) return false;
    if (static_cast<uint64_t>(now.st_size) > HISTORY_MAX_BYTES) return false;
    out.clear();
    char chunk[65536];
    for (;;) {
        ssize_t got = read(file.get(), chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        if (got == 0) return true;
        if (out.size() + static_cast<size_t>(got) > HISTORY_MAX_BYTES) return false;
        out.append(chunk, static_cast<size_t>(got));
    }
}

bool write_all(int fd, const std::string& data) {
    for (size_t done = 0; done < data.size();) {
        ssize_t wrote = write(fd, data.data() + done, data.size() - done);
        if (wrote < 0 && errno == EINTR) continue;
        if (wrote == 0) errno = EIO;
        if (wrote <= 0) return false;
        done += static_cast<size_t>(wrote);
    }
    return true;
}

// ---- Opening the folder -----------------------------------------------------

bool allowed_owner(uid_t owner, uid_t uid) {
    return owner == 0 || owner == geteuid() || owner == uid;
}

// Opens (creating it with `mode` when missing) the folder `name` inside
// `parent`, never through a link. Invalid, with `problem` set, when it cannot
// be used.
UniqueFd open_folder(int parent, const std::string& name, mode_t mode, uid_t uid, std::string& problem) {
    const bool created = mkdirat(parent, name.c_str(), mode) == 0;
    if (!created && errno != EEXIST) {
        problem = std::string("cannot be made (") + std::strerror(errno) + ")";
        return UniqueFd();
    }
    UniqueFd dir(openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat about {};
    if (!dir.valid() || fstat(dir.get(), &about) != 0 || !S_ISDIR(about.st_mode)) {
        problem = "is a link or not a folder";
        return UniqueFd();
    }
    if (!allowed_owner(about.st_uid, uid)) {
        problem = "belongs to user " + std::to_string(about.st_uid);
        return UniqueFd();
    }
    // The creation mode passed through the umask.
    if (created) fchmod(dir.get(), mode);
    return dir;
}

// Every snapshot of the folder that is a plain file goes into the index; the
// stamps of all snapshot names are remembered, so no new name repeats one.
void index_folder() {
    UniqueFd listing(dup(store.dir.get()));
    DIR* walk = listing.valid() ? fdopendir(listing.get()) : nullptr;
    if (walk == nullptr) return;
    listing.release();  // closedir closes it
    rewinddir(walk);
    std::string text;
    while (const dirent* item = readdir(walk)) {
        const std::string name = item->d_name;
        if (!is_snapshot_name(name)) continue;
        store.stamps.insert(name.substr(0, kStampLength));
        if (!read_plain_file(store.dir.get(), name, text)) continue;
        store.index[name] = Entry{text.size(), snapshot_settings(text)};
        store.total_bytes += text.size();
    }
    closedir(walk);
    if (!store.index.empty())
        read_plain_file(store.dir.get(), store.index.rbegin()->first, store.newest_text);
}

// ---- Writing ----------------------------------------------------------------

// Removes the oldest snapshots while the folder is over either bound; the
// newest always stays.
void keep_within_bounds() {
    while (store.index.size() > 1 &&
           (store.index.size() > HISTORY_MAX_SNAPSHOTS || store.total_bytes > HISTORY_MAX_BYTES)) {
        auto oldest = store.index.begin();
        const std::string& name = oldest->first;
        struct stat about {};
        // Only the plain file that was indexed is removed, never a link put in its place.
        if (fstatat(store.dir.get(), name.c_str(), &about, AT_SYMLINK_NOFOLLOW) == 0 &&
            is_plain_file(about) && unlinkat(store.dir.get(), name.c_str(), 0) == 0) {
            report(name + " removed: the folder keeps at most 500 snapshots and 64 MiB");
            store.stamps.erase(name.substr(0, kStampLength));
        }
        store.total_bytes -= oldest->second.bytes;
        store.index.erase(oldest);
    }
}

// Creates the file of a snapshot under a stamp no name of the folder has yet.
UniqueFd create_snapshot_file(Pending& snapshot, std::string& name) {
    for (int tries = 0; tries < kStampTries; ++tries, ++snapshot.epoch_ms) {
        name = snapshot_name(snapshot.epoch_ms, snapshot.kind, snapshot.td);
        const std::string stamp = name.substr(0, kStampLength);
        if (store.stamps.count(stamp) != 0) continue;
        UniqueFd file(openat(store.dir.get(), name.c_str(),
                             O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
        if (file.valid() || errno != EEXIST) return file;
        store.stamps.insert(stamp);
    }
    errno = EEXIST;
    return UniqueFd();
}

void write_snapshot(Pending& snapshot) {
    if (!store.dir.valid() || snapshot.text == store.newest_text) return;
    std::string name;
    UniqueFd file = create_snapshot_file(snapshot, name);
    if (!file.valid()) {
        write_failed("creating a snapshot in " + store.path, errno);
        return;
    }
    if ((store.give_away && fchown(file.get(), store.uid, store.gid) != 0) ||
        !write_all(file.get(), snapshot.text)) {
        const int error = errno;
        unlinkat(store.dir.get(), name.c_str(), 0);
        write_failed("writing " + store.path + "/" + name, error == 0 ? EIO : error);
        return;
    }
    store.index[name] = Entry{snapshot.text.size(), snapshot_settings(snapshot.text)};
    store.total_bytes += snapshot.text.size();
    store.stamps.insert(name.substr(0, kStampLength));
    store.newest_text = std::move(snapshot.text);
    keep_within_bounds();
}

}  // namespace

// ---- The folder -------------------------------------------------------------------

bool history_open(const std::string& folder, uid_t uid, gid_t gid) {
    history_close();
    std::string problem;
    const std::string mine = std::to_string(uid);
    UniqueFd top = open_folder(AT_FDCWD, folder, 0711, uid, problem);
    std::string where = folder;
    UniqueFd dir;
    if (top.valid()) {
        where += "/" + mine;
        dir = open_folder(top.get(), mine, 0700, uid, problem);
    }
    if (!dir.valid()) {
        report(where + " " + problem + ": the engine works on without history");
        return false;
    }
    store.give_away = geteuid() == 0;
    // One installer's configurations hold user codes: no other local user reads them.
    if (store.give_away && fchown(dir.get(), uid, gid) != 0)
        report(where + " cannot be given to user " + mine + " (" + std::strerror(errno) + ")");
    fchmod(dir.get(), 0700);
    store.dir = std::move(dir);
    store.path = where;
    store.uid = uid;
    store.gid = gid;
    index_folder();
    opened = true;
    usable = true;
    return true;
}

void history_close() {
    opened = false;
    usable = false;
    {
        MutexLock lock(http_mutex);
        pending.clear();
    }
    store = Store();
}

bool history_usable() {
    return usable;
}

// ---- Taking snapshots ----------------------------------------------------------------

void history_capture_locked(const DevParser& image, SnapshotKind kind) {
    if (!opened || image.cfg.empty()) return;
    Pending snapshot;
    snapshot.epoch_ms = now_ms();
    snapshot.kind = kind;
    const auto td = image.cfg.find("td");
    if (td != image.cfg.end()) snapshot.td = td->second.second;
    image.cfg_file_text(snapshot.text);
    if (pending.size() >= kMaxPending) {
        pending.erase(pending.begin());
        console_stamped("History: a snapshot not yet written was dropped (too many waiting)");
    }
    pending.push_back(std::move(snapshot));
}

void history_capture(SnapshotKind kind) {
    MutexLock lock(http_mutex);
    history_capture_locked(parser, kind);
}

void history_flush() {
    std::vector<Pending> batch;
    {
        MutexLock lock(http_mutex);
        batch.swap(pending);
    }
    for (Pending& snapshot : batch) write_snapshot(snapshot);
}

void history_take(SnapshotKind kind) {
    history_capture(kind);
    history_flush();
}

void load_config_text(std::string& text, SnapshotKind kind) {
    history_take(SnapshotKind::kept);
    parser.file_to_cfg(text);
    history_take(kind);
}

// ---- Reading ------------------------------------------------------------------------

std::string history_json() {
    std::string out = "{\"result\":{\"history\":[";
    bool first = true;
    std::string kind, model;
    for (auto item = store.index.rbegin(); item != store.index.rend(); ++item) {
        const std::string& name = item->first;
        split_name(name, kind, model);
        if (!first) out += ',';
        first = false;
        out += "{\"name\":\"" + name + "\",\"kind\":\"" + kind + "\",\"date\":\"";
        out += name.substr(6, 2) + "." + name.substr(4, 2) + "." + name.substr(0, 4);
        out += "\",\"time\":\"" + name.substr(9, 2) + ":" + name.substr(11, 2) + ":" + name.substr(13, 2);
        out +=
            "\",\"model\":\"" + model + "\",\"settings\":\"" + std::to_string(item->second.settings) + "\"}";
    }
    return out + "]}}";
}

bool history_read(const std::string& name, std::string& bytes) {
    auto item = store.index.find(name);
    if (item == store.index.end()) return false;
    if (read_plain_file(store.dir.get(), name, bytes)) return true;
    // No longer a snapshot this engine wrote or indexed: never listed again.
    store.total_bytes -= item->second.bytes;
    store.index.erase(item);
    return false;
}

// ---- A snapshot against the image -----------------------------------------------------

void snapshot_to_json(const std::string& bytes, std::string& out) {
    DevParser scratch;
    std::string text = bytes;
    scratch.file_to_cfg(text);
    scratch.cfg_to_json(out);
}

std::map<std::string, std::string> snapshot_differences(const std::string& bytes) {
    static const std::set<std::string> frame_keys = {"vorlane", "fe", "!!", "bc", "ec", "sv"};
    DevParser scratch;
    std::string text = bytes;
    scratch.file_to_cfg(text);
    std::map<std::string, std::string> differing;
    MutexLock lock(http_mutex);
    for (const auto& [key, value] : scratch.cfg_send) {
        if (frame_keys.count(key) != 0) continue;
        const auto held = parser.cfg.find(parser.sort_fit(key));
        if (held == parser.cfg.end() || held->second.second != value) differing[key] = value;
    }
    return differing;
}

// ---- Names and contents -----------------------------------------------------------------

bool is_snapshot_name(const std::string& name) {
    if (name.size() < kStampLength + 1 + 4 + 4 || !name.ends_with(".ini")) return false;
    if (!all_digits(name, 0, 8) || name[8] != '-' || !all_digits(name, 9, 6) || name[15] != '-' ||
        !all_digits(name, 16, 3) || name[19] != '-')
        return false;
    std::string kind, model;
    split_name(name, kind, model);
    bool known = false;
    for (const char* word : kind_words) known = known || kind == word;
    if (!known) return false;
    if (name.size() == kStampLength + 1 + kind.size() + 4) return true;  // no model part
    if (model.empty() || model.size() > kModelLength) return false;
    for (char c : model)
        if (!is_model_char(c)) return false;
    return true;
}

std::string snapshot_name(int64_t epoch_ms, SnapshotKind kind, const std::string& td) {
    const time_t seconds = static_cast<time_t>(epoch_ms / 1000);
    tm utc{};
    gmtime_r(&seconds, &utc);
    char stamp[40];
    snprintf(stamp, sizeof stamp, "%04d%02d%02d-%02d%02d%02d-%03d", utc.tm_year + 1900, utc.tm_mon + 1,
             utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<int>(epoch_ms % 1000));
    std::string model;
    for (char c : to_upper(td))
        if (is_model_char(c) && model.size() < kModelLength) model += c;
    return std::string(stamp) + "-" + kind_word(kind) + (model.empty() ? "" : "-" + model) + ".ini";
}

size_t snapshot_settings(const std::string& text) {
    size_t count = 0;
    size_t start = text.find('\n');
    while (start != std::string::npos) {
        const size_t end = text.find('\n', start + 1);
        const size_t stop = end == std::string::npos ? text.size() : end;
        if (text.find('-', start + 1) < stop) ++count;
        start = end;
    }
    return count;
}
