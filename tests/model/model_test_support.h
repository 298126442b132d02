// Test helpers for the device image: a pseudo-terminal standing in for the panel's port, packets, console
// lines.
#pragma once

#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <sstream>
#include <string>
#include <vector>

#include "link/dev_port.h"

// Opens a pseudo-terminal and makes its master the engine's device, so that
// the engine's receipts really go out and can be read back from the slave.
class PtyPort {
public:
    PtyPort() {
        if (openpty(&master_, &slave_, nullptr, nullptr, nullptr) != 0) return;
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
        if (slave_ >= 0) close(slave_);
    }
    PtyPort(const PtyPort&) = delete;
    PtyPort& operator=(const PtyPort&) = delete;

    bool ok() const { return master_ > 0 && slave_ >= 0; }

    // Everything the engine wrote, waiting at most wait_ms for the first byte.
    std::string read_all(int wait_ms = 200) {
        std::string out;
        int timeout = wait_ms;
        for (;;) {
            pollfd p{slave_, POLLIN, 0};
            if (poll(&p, 1, timeout) <= 0 || (p.revents & POLLIN) == 0) return out;
            char chunk[512];
            ssize_t got = read(slave_, chunk, sizeof chunk);
            if (got <= 0) return out;
            out.append(chunk, static_cast<size_t>(got));
            timeout = 20;
        }
    }

private:
    int master_ = -1;
    int slave_ = -1;
};

inline std::vector<unsigned char> bytes_of(const std::string& text) {
    return std::vector<unsigned char>(text.begin(), text.end());
}

inline std::string repeated(const std::string& text, int times) {
    std::string out;
    for (int i = 0; i < times; ++i) out += text;
    return out;
}

// The console lines without their "hh:mm:ss.mmm " stamps; a line without a
// well-formed stamp is returned whole, prefixed with "UNSTAMPED:".
inline bool has_stamp(const std::string& line) {
    const std::string shape = "00:00:00.000 ";
    if (line.size() < shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        const bool digit = isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (shape[i] == '0' ? !digit : line[i] != shape[i]) return false;
    }
    return true;
}

inline std::vector<std::string> unstamped_lines(const std::string& out) {
    std::vector<std::string> lines;
    std::istringstream in(out);
    std::string line;
    while (std::getline(in, line)) lines.push_back(has_stamp(line) ? line.substr(13) : "UNSTAMPED:" + line);
    return lines;
}

inline const std::string kReceiptOK = std::string("~0005A\x7f", 7);
