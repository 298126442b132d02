// Helpers shared by the serial link tests: a scratch working directory, the
// simulated panel as the far end of the pty, bounded waits.
#pragma once

#include <gtest/gtest.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "core/engine.h"
#include "link/dev_port.h"
#include "panel_sim.h"

namespace link_test {

using Clock = std::chrono::steady_clock;

inline long elapsed_ms(Clock::time_point since) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

// Polls until the condition holds; false when timeout_ms passed first.
inline bool wait_until(const std::function<bool()>& condition, int timeout_ms) {
    auto start = Clock::now();
    while (!condition()) {
        if (elapsed_ms(start) > timeout_ms) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// The engine writes error.log into its working directory: run in a scratch one.
class ScratchDir {
public:
    ScratchDir() {
        char pattern[] = "/tmp/vorcore-link-XXXXXX";
        path_ = mkdtemp(pattern);
        previous_ = std::filesystem::current_path();
        std::filesystem::current_path(path_);
    }
    ~ScratchDir() {
        std::filesystem::current_path(previous_);
        std::filesystem::remove_all(path_);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

private:
    std::string path_;
    std::filesystem::path previous_;
};

inline PanelSimOptions quiet_panel() {
    PanelSimOptions options;
    options.make_link = false;
    options.telemetry_ms = 0;
    options.silent = true;
    return options;
}

// Opens the engine side on the panel's pty (2 s for stty), console output swallowed.
inline bool open_engine_on(PanelSim& panel) {
    std::string path = panel.slave_path();
    testing::internal::CaptureStdout();
    int opened = open_dev(path);
    testing::internal::GetCapturedStdout();
    return opened == 1;
}

// Back to a fresh link with nothing queued or pending.
inline void reset_link_state() {
    exchange_reset();
    queue.clear();
    bbqueue.clear();
    parser.send_AN1 = false;
    parser.send_AN2 = false;
    parser.send_AN5 = false;
    parser.pass_accepted = false;
    queue.pass_sent = false;
    queue.pass_rejected = false;
    parser.set_status(3);
    if (USB != 0) tcflush(USB, TCIFLUSH);
}

// Hands bytes from the panel to the engine and lets one read_step take them.
inline void feed(PanelSim& panel, const std::string& bytes) {
    panel.send_raw(bytes);
    ASSERT_TRUE(panel.wait_output_flushed(1000));
    read_step();
}

// What the panel has received once it holds at least len bytes (or after timeout_ms).
inline std::string panel_got(PanelSim& panel, size_t len, int timeout_ms = 1000) {
    panel.wait_received_bytes(len, timeout_ms);
    return panel.received_bytes();
}

// Runs dev_thread for the life of the object; the destructor ends it.
class DeviceThread {
public:
    DeviceThread() {
        is_exit = false;
        thread_ = std::thread([this] {
            dev_thread();
            done_ = true;
        });
    }
    ~DeviceThread() { stop(); }
    // Sets is_exit and waits (bounded) for the loop to end.
    bool stop() {
        if (!thread_.joinable()) return true;
        is_exit = true;
        bool ended = wait_until([this] { return done_.load(); }, 3000);
        if (ended)
            thread_.join();
        else
            thread_.detach();
        is_exit = false;
        return ended;
    }

private:
    std::atomic<bool> done_{false};
    std::thread thread_;
};

}  // namespace link_test
