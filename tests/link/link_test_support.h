// Helpers shared by the serial link and device image tests: a scratch working
// directory, the simulated panel as the far end of the pty, a pty standing in
// for the panel's port, the device thread, and packets as the reader hands them over.
#pragma once

#include <poll.h>

#include <filesystem>
#include <future>
#include <string>

#include "core/engine.h"
#include "link/dev_port.h"
#include "link/exchange.h"
#include "link/pk7.h"
#include "panel_sim.h"
#include "support/engine_harness.h"

namespace link_test {

using namespace harness;

inline const std::string kReceiptOK("~0005A\x7f");

// open_dev writes error.log into the working directory: work in a scratch one.
struct ScratchDir {
    ScratchDir() { std::filesystem::current_path(dir.path()); }
    ~ScratchDir() { std::filesystem::current_path(previous); }
    std::filesystem::path previous = std::filesystem::current_path();
    TempDir dir;
};

// A silent simulated panel on a pty with the engine's port open on it and a
// fresh link; tests switch on the panel behaviour they need.
class PanelLinkTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(panel_.start()) << panel_.error();
        int opened = 0;
        std::string path = panel_.slave_path();
        open_output_ = printed_by([&] { opened = open_dev(path); });
        ASSERT_EQ(1, opened) << open_output_;
        exchange_reset();
        queue.clear();
        bbqueue.clear();
        parser.send_AN1 = parser.send_AN2 = parser.send_AN5 = false;
        parser.set_status(3);
    }
    void TearDown() override { close_dev(); }

    ScratchDir scratch_;
    PanelSim panel_{{.make_link = false, .telemetry_ms = 0, .silent = true}};
    std::string open_output_;
};

// Runs dev_thread as the engine does, from construction until stop().
class DeviceThread {
public:
    ~DeviceThread() { stop(); }
    bool running() const { return loop_.wait_for(std::chrono::seconds(0)) != std::future_status::ready; }
    // Sets is_exit; true when the loop then ends within 3 s.
    bool stop() {
        is_exit = true;
        bool ended = loop_.wait_for(std::chrono::seconds(3)) == std::future_status::ready;
        if (ended) is_exit = false;
        return ended;
    }

private:
    static std::future<void> start() {
        is_exit = false;
        return std::async(std::launch::async, dev_thread);
    }
    std::future<void> loop_ = start();
};

// Makes a pseudo-terminal's master the engine's device (no stty), so that
// the engine's receipts really go out and can be read back from the slave.
struct PtyPort : Pty {
    PtyPort() { USB = master.get(); }
    ~PtyPort() {
        // The engine may have closed the master itself (close_dev sets USB to 0).
        if (USB == master.get())
            USB = 0;
        else
            master.fd_ = -1;
    }
    // Everything the engine wrote, waiting at most wait_ms for the first byte.
    std::string read_all(int wait_ms = 200) {
        std::string out;
        char chunk[512];
        pollfd readable{slave.get(), POLLIN, 0};
        for (ssize_t got; poll(&readable, 1, out.empty() ? wait_ms : 20) > 0; out.append(chunk, got))
            if ((got = read(slave.get(), chunk, sizeof chunk)) <= 0) break;
        return out;
    }
};

// A binary block body: kind (or block type), number, data.
inline std::string block(int kind, int number, const std::string& data) {
    return packet('B', std::string{static_cast<char>(kind), static_cast<char>(number)} + data);
}

}  // namespace link_test
