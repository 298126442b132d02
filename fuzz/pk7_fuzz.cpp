// Fuzz target: bytes from the panel through the frame reader, the reply
// dispatch (parse_all) and the exchange's answers, over a pseudo-terminal that
// stands in for the serial line (its master is the engine's port, as in the
// link tests).
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdint>

#include "core/unique_fd.h"
#include "fuzz_support.h"
#include "link/dev_port.h"
#include "link/exchange.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start();
    return 0;
}

// Bytes waiting to be read on the engine's side; 0 once it closed the port.
static int waiting_bytes(int fd) {
    if (USB != fd) return 0;
    pollfd readable{fd, POLLIN, 0};
    if (poll(&readable, 1, 0) <= 0) return 0;
    int count = 0;
    return ioctl(fd, FIONREAD, &count) == 0 ? count : 0;
}

// Empties what the engine wrote to the panel, so that its writes never wait.
static void drain(int panel) {
    char sink[4096];
    pollfd readable{panel, POLLIN, 0};
    while (poll(&readable, 1, 0) > 0 && read(panel, sink, sizeof sink) > 0) {
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FreshEngine fresh;
    int master = -1, slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return 0;
    UniqueFd panel(slave);
    termios mode{};
    tcgetattr(slave, &mode);
    cfmakeraw(&mode);
    tcsetattr(slave, TCSANOW, &mode);
    fcntl(master, F_SETFL, O_NONBLOCK);
    fcntl(slave, F_SETFL, O_NONBLOCK);
    USB = master;
    SetReadCount();
    // The input goes in as the line takes it; each read_step takes at most one
    // read's worth, and runs only when bytes wait (it would otherwise wait out
    // its 100 ms).
    size_t sent = 0;
    while (USB == master) {
        if (sent < size) {
            ssize_t wrote = write(slave, data + sent, size - sent);
            if (wrote > 0) sent += static_cast<size_t>(wrote);
        }
        if (waiting_bytes(master) == 0) break;
        read_step();
        write_step();
        drain(slave);
    }
    // The engine closed the port itself (a restart's receipt, a firmware end):
    // the descriptor is already gone.
    if (USB == master) {
        USB = 0;
        close(master);
    }
    return 0;
}
