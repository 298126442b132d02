// Serial port access and the device thread's stop-and-wait exchange with the panel.
#include "link/dev_port.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "core/shell.h"
#include "core/utils.h"
#include "link/pk7.h"

// ---- Serial port ---------------------------------------------------------

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

// port_mutex starts statically initialised; it only needs a fresh init after
// dev_destroy, never while another thread may hold it.
static std::atomic<bool> port_mutex_destroyed{false};

static constexpr const char* TITLE_OUT_SRC = " >>>PK7_OUT_SRC       ";
static constexpr const char* TITLE_OUT_CMD = " >>>PK7_OUT_CMD       ";
static constexpr const char* TITLE_OUT_RECEIPT = " >>>PK7_OUT_RECEIPT   ";
static constexpr const char* TITLE_OUT_FIRMWARE = " >>>PK7_OUT_FIRMWARE   ";
static constexpr const char* TITLE_IN_SRC = " <<<PK7_IN_SRC       ";

static constexpr useconds_t STTY_SETTLE_US = 2000000;
static constexpr int READ_WAIT_MS = 100;
// A frame the port does not take within this time counts as a failed write.
static constexpr uint64_t WRITE_DEADLINE_MS = 1000;
static constexpr useconds_t CYCLE_US = 100000;

static bool channel_on(bool kind_switch) {
    return debug_mode && kind_switch;
}

static void dump(DM_TYPES type, const void* bytes, size_t len, const char* title) {
    pk7.put_bytes(type, static_cast<char*>(const_cast<void*>(bytes)), len, title, 0);
}

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

// Puts the line into raw mode with the system's stty and gives it time to finish.
static void prepare_line(const std::string& path) {
    std::string command = "stty raw -echo -F " + path + " 2> error.log";
    ShellPipe pipe = shell_start(command);
    if (!pipe) return;
    if (channel_on(dm_r1)) console_line(command);
    usleep(STTY_SETTLE_US);
}

// The engine runs as root: the port must be a terminal device of root or of
// the invoking user. "stty raw" on another user's terminal would take it over,
// and writing frames into a regular file would append to it.
static bool is_our_terminal_node(const struct stat& node) {
    return S_ISCHR(node.st_mode) && (node.st_uid == 0 || node.st_uid == invoking_uid());
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

// The shell commands and the browser started later must not inherit the
// panel's port, and descriptor 0 would read as "no device".
static int keep_from_children(int fd) {
    if (fd < 0) return fd;
    if (fd == 0) {
        int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
        close(fd);
        return moved;
    }
    fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
    return fd;
}

static void forget_previous_link();

int open_dev(std::string& path) {
    struct stat node {};
    if (!plain_device_path(path) || !port_path_allowed(path, node)) {
        console_line("Error. Don't open device (w)" + path);
        return 0;
    }
    prepare_line(path);

    // Non-blocking: writes have a deadline (write_dev), and opening never
    // waits for a modem line.
    int fd = keep_from_children(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
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
        if (replaced != 0) close(replaced);
    }
    if (fd < 0) {
        console_line("Error. Don't open device (w)" + path);
        return 0;
    }
    console_line("Open device (" + std::to_string(fd) + ") " + path);
    return 1;
}

void close_dev() {
    if (USB == 0) return;
    int fd = 0;
    {
        MutexLock lock(port_mutex);
        fd = USB.exchange(0);
        if (fd != 0) close(fd);
        ++port_generation;
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
static bool write_some(const char* bytes, size_t len, size_t& done, int& fd, uint64_t& generation) {
    MutexLock lock(port_mutex);
    if (USB == 0) return false;
    if (fd == -1) {
        fd = USB;
        generation = port_generation;
    }
    if (USB != fd || port_generation != generation) return false;
    if (done == len) return true;
    ssize_t wrote = write(fd, bytes + done, len - done);
    if (wrote > 0) done += static_cast<size_t>(wrote);
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
    for (;;) {
        if (!write_some(bytes, len, done, fd, generation)) return len == 0 && fd == -1;
        if (done == len) break;
        uint64_t now = monotonic_ms();
        if (now >= deadline) return false;
        // Waits unlocked on the descriptor seen under the lock; write_some
        // checks that it is still the port before writing again.
        pollfd waiting{fd, POLLOUT, 0};
        poll(&waiting, 1, static_cast<int>(deadline - now));
    }
    if (channel_on(dm_s1)) dump(DM_OUT_SRC, buf, len, TITLE_OUT_SRC);
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
    }
    if (got > 0) {
        *len = static_cast<size_t>(got);
        if (channel_on(dm_r1)) dump(DM_IN_SRC, buf, *len, TITLE_IN_SRC);
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

// ---- Exchange state machine ------------------------------------------------

static uint64_t link_seen = 0;  // links_opened when the device thread last looked

std::atomic<bool> need_sf{false};
std::atomic<int> send_sf_cnt{0};
std::atomic<bool> write_sf_error{false};
std::atomic<bool> dev_busy{false};
std::atomic<int> dev_busy_cnt{0};
std::atomic<bool> wait_receipt_OK{false};
bool form_enable = false;
bool next_inv = false;
std::vector<unsigned char> current_packet;
std::atomic<bool> send_re{false};
std::atomic<bool> pass_block_written{false};

// The flags of one link's exchange that either thread may reset: the pending
// abort frame, busy waits, the receipt awaited, restart and password marks.
static void clear_link_flags() {
    need_sf = false;
    write_sf_error = false;
    dev_busy = false;
    dev_busy_cnt = 0;
    wait_receipt_OK = false;
    send_re = false;
    pass_block_written = false;
}

// Called by open_dev (HTTP thread) for a port that is open but not yet
// published, so the device thread does not use the link meanwhile. A frame
// queued for the panel that was there before (a restart, half a configuration,
// firmware blocks) must never reach the next one, a password exchange of the
// old panel must not answer "continue" for ever, and a receipt the old panel
// still owed must not hold back the new link's first frame.
static void forget_previous_link() {
    queue.clear();
    bbqueue.clear();
    queue.pass_sent = false;
    queue.pass_rejected = false;
    clear_link_flags();
    parser.send_AN1 = false;
    parser.send_AN2 = false;
    parser.send_AN5 = false;
}

// The reader's state is the device thread's alone: at its first step on a new
// link it drops a frame the old panel left half sent, and a pending escape.
static void adopt_new_link() {
    uint64_t opened = links_opened;
    if (opened == link_seen) return;
    link_seen = opened;
    form_enable = false;
    next_inv = false;
    current_packet.clear();
}

void exchange_reset() {
    clear_link_flags();
    send_sf_cnt = 0;
    form_enable = false;
    next_inv = false;
    current_packet.clear();
}

void dev_thread() {
    dev_init();
    while (!is_exit) {
        usleep(CYCLE_US);
        if (is_open()) read_step();
        write_step();
    }
    if (is_open()) close_dev();
}

void write_ok() {
    if (!write_dev(acknowledge_OK, acknowledge_OK_len)) {
        console_line("write receipt OK error");
        return;
    }
    if (channel_on(dm_s3)) dump(DM_OUT_RECEIPT, acknowledge_OK, acknowledge_OK_len, TITLE_OUT_RECEIPT);
}

// No data this cycle: after 20 s of silence restart the link, and after the
// third silence in a row give the panel up.
static void watch_silence() {
    if (GetReadCount() < DEV_SILENCE_MS) return;
    if (send_sf_cnt < 2) {
        need_sf = true;
        SetReadCount();
        ++send_sf_cnt;
        console_stamped("restart dev (send sf)");
        parser.set_status(1);
        return;
    }
    console_line("try 3 restart (send sf) no sussess");
    if (is_open()) close_dev();
    parser.clear();
}

// Cuts a chunk into frames; the reader state persists so that a frame may
// span several chunks.
static void collect_frames(const unsigned char* bytes, size_t len) {
    for (size_t i = 0; i < len; ++i) {
        unsigned char b = bytes[i];
        if (b == static_cast<unsigned char>(PK7_START)) {
            if (!current_packet.empty()) {
                console_line("dev packet loss!");
                current_packet.clear();
            }
            form_enable = true;
        } else if (b == static_cast<unsigned char>(PK7_END)) {
            if (!current_packet.empty()) {
                parser.packets.push_back(current_packet);
                current_packet.clear();
            } else {
                write_ok();
                console_line("dev packet not contain start byte, packet loss!");
            }
            form_enable = false;
        } else if (b == static_cast<unsigned char>(PK7_ESCAPE)) {
            next_inv = true;
        } else if (form_enable) {
            if (current_packet.size() < MAX_FRAME_BYTES)
                current_packet.push_back(next_inv ? static_cast<unsigned char>(b ^ 0x40) : b);
            next_inv = false;
        }
    }
}

void read_step() {
    if (dev_no_valid()) return;
    adopt_new_link();
    bytesRead = 0;
    size_t got = 0;
    int result = read_dev(pbuf, &got);
    bytesRead = got;
    if (result != 1 || got == 0) {
        if (result == 1) usleep(CYCLE_US);
        // Lost in this read: the loss path has settled everything already.
        if (dev_no_valid()) return;
        watch_silence();
        return;
    }

    collect_frames(pbuf, got);
    if (dev_no_valid()) {
        parser.packets.clear();
        console_line("clear packet without parsing");
    } else {
        parser.parse_all();
    }
    SetReadCount();
    send_sf_cnt = 0;
}

static bool is_pass_block(const std::vector<char>& frame) {
    return frame.size() >= 8 && frame[5] == 'B' && static_cast<unsigned char>(frame[6]) == 0x82 &&
           frame[7] == 0x00;
}

static void write_restart() {
    if (!write_dev(cmd_sf, cmd_sf_len)) {
        if (write_sf_error) return;
        console_stamped("write sf error");
        write_sf_error = true;
        return;
    }
    dev_busy = true;
    need_sf = false;
    write_sf_error = false;
    pass_block_written = false;
    send_re = false;
    if (channel_on(dm_s2)) dump(DM_OUT_CMD, cmd_sf, cmd_sf_len, TITLE_OUT_CMD);
}

// Sends a negative receipt the dispatcher asked for; false when none was asked.
static bool write_negative_receipt(std::atomic<bool>& request, char* frame, size_t len, const char* error) {
    if (!request) return false;
    if (!write_dev(frame, len)) {
        console_line(error);
        return true;
    }
    request = false;
    if (channel_on(dm_s3)) dump(DM_OUT_RECEIPT, frame, len, TITLE_OUT_RECEIPT);
    return true;
}

// The busy wait: true while still waiting for the receipt of the last frame.
static bool still_busy() {
    if (!dev_busy) {
        dev_busy_cnt = 0;
        return false;
    }
    if (++dev_busy_cnt < DEV_BUSY_CYCLES) return true;
    dev_busy = false;
    console_stamped("dev busy error");
    return true;
}

static void write_command() {
    std::vector<char> frame;
    bool ends_link = false;
    if (!queue.get_copy(frame, ends_link)) {
        if (parser.get_status() == 5) parser.set_status(3);
        return;
    }
    if (!write_dev(frame.data(), frame.size())) {
        console_line("write packet queue error");
        return;
    }
    if (channel_on(dm_s2)) dump(DM_OUT_CMD, frame.data(), frame.size(), TITLE_OUT_CMD);
    pass_block_written = is_pass_block(frame);
    // The next receipt is this frame's own: only if it is the restart or reset
    // queued by commands 21 and 22 does that receipt close the link.
    send_re = ends_link;
    dev_busy = true;
    bool drained = queue.pop();
    if (parser.get_status() == 5 && drained) parser.set_status(3);
}

// Decides on the head block before sending: a new transfer, a resend, or the
// previous block acknowledged and the next one due.
static void advance_block_transfer() {
    if (bbqueue.start_flag) {
        bbqueue.num_try = 0;
        bbqueue.start_flag = false;
        parser.set_status(8);
        parser.set_ready_text(&StatusDevice::rupd, "1");
        parser.set_ready_text(&StatusDevice::upd, "0");
        return;
    }
    if (wait_receipt_OK) {
        ++bbqueue.num_try;
        console_stamped(format_to_str("next try send packet bbqueue.num_try = %d",
                                      static_cast<int>(bbqueue.num_try.load())));
        return;
    }
    if (bbqueue.pop()) {
        parser.set_status(3);
        parser.set_ready_text(&StatusDevice::upd, "100");
        return;
    }
    bbqueue.num_try = 0;
    int sent = ++parser.fw_blocks_sent;
    int total = parser.fw_blocks_total;
    if (total != 0) parser.set_ready_text(&StatusDevice::upd, std::to_string(sent * 100 / total));
}

static void write_block() {
    advance_block_transfer();
    if (bbqueue.num_try == DEV_BLOCK_TRIES) {
        bbqueue.clear();
        wait_receipt_OK = false;
        parser.set_status(3);
        parser.set_ready_text(&StatusDevice::rupd, "4");
        need_sf = true;
        return;
    }
    std::vector<char> frame;
    if (!bbqueue.get_copy(frame)) return;
    pass_block_written = false;
    send_re = false;
    if (!write_dev(frame.data(), frame.size())) {
        console_line("write packet bbqueue error");
        wait_receipt_OK = true;
        return;
    }
    if (channel_on(dm_s2)) dump(DM_OUT_FIRMWARE, frame.data(), frame.size(), TITLE_OUT_FIRMWARE);
    dev_busy = true;
    wait_receipt_OK = true;
}

void write_step() {
    if (dev_no_valid()) return;
    adopt_new_link();
    if (need_sf) {
        write_restart();
        return;
    }
    if (write_negative_receipt(parser.send_AN1, acknowledge_AN1, acknowledge_AN1_len,
                               "write receipt A1 error"))
        return;
    if (write_negative_receipt(parser.send_AN2, acknowledge_AN2, acknowledge_AN2_len,
                               "write receipt A2 error"))
        return;
    if (write_negative_receipt(parser.send_AN5, acknowledge_AN5, acknowledge_AN5_len,
                               "write receipt A5 error"))
        return;
    if (still_busy()) return;
    if (bbqueue.is_empty()) {
        write_command();
        return;
    }
    write_block();
}
