// Preparing and opening the panel's serial line: stty with a bounded wait, and the open itself.
#include "link/port_line.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <vector>

#include "core/debug.h"
#include "core/shell.h"

static long long monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Reads the command's output until its end (the command exited) or until
// `wait_ms` have passed; true when it ended.
static bool ended_within(FILE* pipe, int wait_ms) {
    const int fd = fileno(pipe);
    const long long deadline = monotonic_ms() + wait_ms;
    char chunk[256];
    for (;;) {
        long long left = deadline - monotonic_ms();
        if (left <= 0) return false;
        pollfd waiting{fd, POLLIN, 0};
        int ready = poll(&waiting, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return true;
    }
}

// A stty that did not end in time is left running and its stream kept open:
// closing it would wait for it, which is what the limit is there to avoid.
static void keep_unfinished(ShellPipe pipe) {
    static std::vector<FILE*> unfinished;
    unfinished.push_back(pipe.release());
}

void prepare_line(const std::string& path) {
    std::string command = "stty raw -echo -F " + path + " 2> error.log";
    ShellPipe pipe = shell_start(command);
    if (!pipe) return;
    if (channel_on(dm_r1)) console_line(command);
    if (!ended_within(pipe.get(), STTY_WAIT_MS)) keep_unfinished(std::move(pipe));
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

int open_line(const std::string& path) {
    // Non-blocking: writes have a deadline (write_dev), and opening never
    // waits for a modem line.
    return keep_from_children(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
}
