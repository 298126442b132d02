// Helpers shared by the serial link tests: a scratch working directory, the
// simulated panel as the far end of the pty, the device thread, console text.
#pragma once

#include <filesystem>
#include <future>
#include <regex>
#include <string>

#include "core/engine.h"
#include "link/dev_port.h"
#include "link/pk7.h"
#include "panel_sim.h"
#include "support/engine_harness.h"

namespace link_test {

using namespace harness;

inline const std::string kReceiptOK("~0005A\x7f", 7);

// Console text with every line's "hh:mm:ss.mmm " stamp replaced by "@ ", so
// that whole output can be compared while still telling stamped lines apart.
inline std::string stamps_marked(const std::string& out) {
    return std::regex_replace(out, std::regex("(^|\n)\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d "), "$1@ ");
}

// open_dev writes error.log into the working directory: work in a scratch one.
struct ScratchDir {
    ScratchDir() { std::filesystem::current_path(dir.path()); }
    ~ScratchDir() { std::filesystem::current_path(previous); }
    std::filesystem::path previous = std::filesystem::current_path();
    TempDir dir;
};

// A silent simulated panel on a pty with the engine's port open on it (2 s for
// stty) and a fresh link; tests switch on the panel behaviour they need.
class PanelLinkTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(panel_.start()) << panel_.error();
        std::string path = panel_.slave_path();
        testing::internal::CaptureStdout();
        int opened = open_dev(path);
        open_output_ = testing::internal::GetCapturedStdout();
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

}  // namespace link_test
