// The panel's serial port: open and close with their checks, reads, and writes with a deadline.
#include "link/dev_port.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "core/utils.h"
#include "link/exchange.h"
#include "link/link_record.h"
#include "link/port_line.h"

std::atomic<int> USB{0};
pthread_mutex_t port_mutex = PTHREAD_MUTEX_INITIALIZER;
unsigned char pbuf[1024];
uint64_t bytesRead = 0;
std::atomic<uint64_t> no_read_ms{0};

// Changes (under port_mutex) with every open and close, so that a write waiting
// outside the lock can tell that USB no longer names the port it began on.
static uint64_t port_generation = 0;

// Ports opened so far; the device thread compares it with the last one it saw
// to tell that a new link began.
static std::atomic<uint64_t> links_opened{0};

uint64_t port_links_opened() {
    return links_opened;
}

// port_mutex starts statically initialised; it only needs a fresh init after
// dev_destroy, never while another thread may hold it.
static std::atomic<bool> port_mutex_destroyed{false};

static constexpr const char* TITLE_OUT_SRC = " >>>PK7_OUT_SRC       ";
static constexpr const char* TITLE_IN_SRC = " <<<PK7_IN_SRC       ";

static constexpr int READ_WAIT_MS = 100;
// A frame the port does not take within this time counts as a failed write.
static constexpr uint64_t WRITE_DEADLINE_MS = 1000;

static uint64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

int dev_init() {
    if (!port_mutex_destroyed) return 1;
    if (pthread_mutex_init(&port_mutex, nullptr) != 0) {
        console_line("Port mutex_init error");
        return 0;
    }
    port_mutex_destroyed = false;
    return 1;
}

int dev_destroy() {
    if (port_mutex_destroyed.exchange(true)) return 1;
    pthread_mutex_destroy(&port_mutex);
    return 1;
}

// The path goes into a shell command run as root: only plain device paths are
// let through, so a crafted "&com=" value cannot run anything.
static bool plain_device_path(const std::string& path) {
    if (path.empty() || path[0] == '-') return false;
    for (unsigned char c : path) {
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                  c == '.' || c == '_' || c == '-' || c == '+' || c == ':' || c == '@' || c == ',' ||
                  c == '=';
        if (!ok) return false;
    }
    return true;
}

bool is_panel_device_number(dev_t device) {
    const unsigned kind = major(device);
    return kind == 188 || kind == 166 || (kind >= 136 && kind <= 143);
}

// The terminal the engine itself runs on: "stty raw" on it would take over
// the installer's own console.
static bool is_engine_terminal(dev_t device) {
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        struct stat own {};
        if (fstat(fd, &own) == 0 && S_ISCHR(own.st_mode) && own.st_rdev == device) return true;
    }
    return false;
}

// The engine runs as root: the port must be a device a panel can be, of root
// or of the invoking user. "stty raw" on another user's terminal would take it
// over, frames written to /dev/tty or a console would land on a screen, and
// into a regular file they would append to it.
static bool is_our_terminal_node(const struct stat& node) {
    return S_ISCHR(node.st_mode) && (node.st_uid == 0 || node.st_uid == invoking_uid()) &&
           is_panel_device_number(node.st_rdev) && !is_engine_terminal(node.st_rdev);
}

// The path (links followed) names a terminal we may use; `node` describes it.
static bool port_path_allowed(const std::string& path, struct stat& node) {
    return stat(path.c_str(), &node) == 0 && is_our_terminal_node(node);
}

// The descriptor is the device that was checked (not something swapped in
// since) and a terminal.
static bool opened_the_checked_port(int fd, const struct stat& checked) {
    struct stat node {};
    return fstat(fd, &node) == 0 && is_our_terminal_node(node) && node.st_rdev == checked.st_rdev &&
           isatty(fd) == 1;
}

int open_dev(std::string& path) {
    struct stat node {};
    if (!plain_device_path(path) || !port_path_allowed(path, node)) {
        console_line("Error. Don't open device (w)" + path);
        return 0;
    }
    prepare_line(path);

    int fd = open_line(path);
    if (fd >= 0 && !opened_the_checked_port(fd, node)) {
        close(fd);
        fd = -1;
    }
    // Before the device thread can see the new port, so that nothing of the
    // old link is ever written to it.
    if (fd >= 0) forget_previous_link();

    int replaced = 0;
    {
        MutexLock lock(port_mutex);
        ++port_generation;
        if (fd < 0) {
            replaced = USB.exchange(0);
        } else {
            // Counted before the port is published: a device thread that sees
            // the new port also sees that the link is new.
            ++links_opened;
            replaced = USB.exchange(fd);
            SetReadCount();
            send_sf_cnt = 0;
        }
        // A second open must not leak the first descriptor.
        if (replaced != 0) {
            close(replaced);
            link_record_close();
        }
        if (fd >= 0) link_record_open(path);
        // A port that was open is gone now: its link is forgotten as on close.
        if (fd < 0 && replaced != 0) forget_previous_link();
    }
    if (fd < 0) {
        console_line("Error. Don't open device (w)" + path);
        return 0;
    }
    console_line("Open device (" + std::to_string(fd) + ") " + path);
    return 1;
}

void close_dev() {
    int fd = 0;
    {
        MutexLock lock(port_mutex);
        if (USB != 0) {
            fd = USB.exchange(0);
            if (fd != 0) {
                close(fd);
                link_record_close();
            }
            ++port_generation;
        }
        // Frames queued for a panel that is gone must not wait for the next
        // one, nor count against the queue's bounds meanwhile: forgotten as on
        // connect. Under the port's lock, so that a close on the device thread
        // can never forget what a connect opened and queued after it.
        forget_previous_link();
    }
    if (fd != 0) console_line("Close device ");
}

bool is_open() {
    return USB != 0;
}

bool dev_no_valid() {
    return USB == 0;
}

// Writes what the port takes now of bytes[done, len) under the lock. False
// when the port is gone, was reopened since `generation`, or failed.
static bool write_some(const char* bytes, size_t len, size_t& done, int& fd, uint64_t& generation,
                       const RecordedWrite& recorded) {
    MutexLock lock(port_mutex);
    if (USB == 0) return false;
    if (fd == -1) {
        fd = USB;
        generation = port_generation;
    }
    if (USB != fd || port_generation != generation) return false;
    if (done == len) return true;
    ssize_t wrote = write(fd, bytes + done, len - done);
    if (wrote > 0) {
        recorded.wrote(done, static_cast<size_t>(wrote));
        done += static_cast<size_t>(wrote);
    }
    return wrote >= 0 || errno == EAGAIN || errno == EINTR;
}

// The frame goes out whole within WRITE_DEADLINE_MS or counts as not written
// (a cut one is dropped by the panel's reader at the next start byte). The
// lock is held only for each non-blocking write, never while waiting, so a
// panel that stopped reading cannot keep disconnect or the watchdog waiting.
bool write_dev(void* buf, size_t len) {
    const char* bytes = static_cast<const char*>(buf);
    size_t done = 0;
    int fd = -1;
    uint64_t generation = 0;
    const uint64_t deadline = monotonic_ms() + WRITE_DEADLINE_MS;
    const RecordedWrite recorded(bytes, len);
    for (;;) {
        if (!write_some(bytes, len, done, fd, generation, recorded)) return len == 0 && fd == -1;
        if (done == len) break;
        uint64_t now = monotonic_ms();
        if (now >= deadline) return false;
        // Waits unlocked on the descriptor seen under the lock; write_some
        // checks that it is still the port before writing again.
        pollfd waiting{fd, POLLOUT, 0};
        poll(&waiting, 1, static_cast<int>(deadline - now));
    }
    if (channel_on(dm_s1)) dump_frame(DM_OUT_SRC, buf, len, TITLE_OUT_SRC);
    return true;
}

// The panel went away: forget the link and everything learnt over it.
static void lose_device() {
    if (is_open()) close_dev();
    parser.clear();
    parser.set_status(1);
}

int read_dev(unsigned char* buf, size_t* len) {
    *len = 0;
    int fd = USB;
    if (fd == 0) return 0;

    // poll rather than select: same wait, and no FD_SETSIZE limit on the descriptor.
    pollfd waiting{fd, POLLIN | POLLPRI, 0};
    if (poll(&waiting, 1, READ_WAIT_MS) <= 0) return 0;
    if (waiting.revents & POLLNVAL) return 0;
    if (waiting.revents & POLLPRI) {
        console_line("exceptfds IS SET");
        lose_device();
        return 0;
    }

    ssize_t got = 0;
    int error = 0;
    {
        MutexLock lock(port_mutex);
        // Closed (or reopened) by the HTTP thread during the wait: whoever
        // closed it has already settled the link state.
        if (USB != fd) return 0;
        got = read(fd, buf, sizeof pbuf);
        error = errno;
        if (got > 0) link_record_traffic(LinkDirection::from_panel, buf, static_cast<size_t>(got));
    }
    if (got > 0) {
        *len = static_cast<size_t>(got);
        if (channel_on(dm_r1)) dump_frame(DM_IN_SRC, buf, *len, TITLE_IN_SRC);
        return 1;
    }
    if (got < 0 && (error == EINTR || error == EAGAIN)) return 0;
    lose_device();
    return 0;
}

void SetReadCount() {
    no_read_ms = monotonic_ms();
}

uint64_t GetReadCount() {
    return monotonic_ms() - no_read_ms;
}
