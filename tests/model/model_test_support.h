// Test helpers for the device image: a pseudo-terminal standing in for the
// panel's port, and packets as the reader hands them over.
#pragma once

#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <string>

#include "link/link_test_support.h"

// Makes a pseudo-terminal's master the engine's device (no stty wait), so that
// the engine's receipts really go out and can be read back from the slave.
class PtyPort {
public:
    PtyPort() {
        openpty(&master_, &slave_, nullptr, nullptr, nullptr);
        termios raw{};
        tcgetattr(slave_, &raw);
        cfmakeraw(&raw);
        tcsetattr(slave_, TCSANOW, &raw);
        USB = master_;
    }
    ~PtyPort() {
        // The engine may have closed the master itself (close_dev sets USB to 0).
        if (USB == master_) {
            USB = 0;
            close(master_);
        }
        close(slave_);
    }
    // Everything the engine wrote, waiting at most wait_ms for the first byte.
    std::string read_all(int wait_ms = 200) {
        std::string out;
        char chunk[512];
        pollfd readable{slave_, POLLIN, 0};
        while (poll(&readable, 1, out.empty() ? wait_ms : 20) > 0) {
            ssize_t got = read(slave_, chunk, sizeof chunk);
            if (got <= 0) break;
            out.append(chunk, static_cast<size_t>(got));
        }
        return out;
    }

private:
    int master_ = -1, slave_ = -1;
};

// A frame body as the reader stores it: four length digits, type, payload.
inline std::string packet(char type, const std::string& payload) {
    std::string length = std::to_string(payload.size() + 5);
    return std::string(4 - length.size(), '0') + length + type + payload;
}

// A binary block body: kind (or block type), number, data.
inline std::string block(int kind, int number, const std::string& data) {
    return packet('B', std::string{static_cast<char>(kind), static_cast<char>(number)} + data);
}
