// Serial port access over a real pseudo-terminal: open, wait, read, write and loss.
#include "link/dev_port.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "core/engine.h"
#include "link/link_test_support.h"

namespace {

using link_test::Clock;
using link_test::elapsed_ms;
using link_test::ScratchDir;

TEST(DevPort, UnopenablePathIsReportedAndLeavesNoDevice) {
    ScratchDir scratch;
    const std::string paths[] = {
        "/nonexistent/ttyUSB9",      // stty and open both fail
        "/dev/ttyUSB0;touch pwned",  // never reaches a shell
    };
    for (std::string path : paths) {
        testing::internal::CaptureStdout();
        int opened = open_dev(path);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(0, opened) << path;
        EXPECT_FALSE(is_open());
        EXPECT_TRUE(dev_no_valid());
        EXPECT_EQ("Error. Don't open device (w)" + path + "\n", out);
    }
    EXPECT_FALSE(std::filesystem::exists("pwned"));
}

TEST(DevPort, WithoutDeviceOnlyEmptyWritesSucceed) {
    ASSERT_FALSE(is_open());
    char bytes[] = "~0007FSF\x7f";
    EXPECT_FALSE(write_dev(bytes, 9));
    EXPECT_FALSE(write_dev(bytes, 1));
    EXPECT_TRUE(write_dev(bytes, 0));
    size_t len = 99;
    EXPECT_EQ(0, read_dev(pbuf, &len));
    EXPECT_EQ(0u, len);
}

TEST(DevPort, ReadCountMeasuresMonotonicMilliseconds) {
    SetReadCount();
    EXPECT_LT(GetReadCount(), 50u);
    usleep(150000);
    uint64_t waited = GetReadCount();
    EXPECT_GE(waited, 150u);
    EXPECT_LT(waited, 2000u);
}

// One pty for the suite: open_dev waits 2 s for stty.
class DevPortOverPty : public testing::Test {
protected:
    static void SetUpTestSuite() {
        scratch_ = new ScratchDir;
        char name[256] = {};
        ASSERT_EQ(0, openpty(&master_, &slave_, name, nullptr, nullptr));
        termios mode{};
        tcgetattr(slave_, &mode);
        cfmakeraw(&mode);
        tcsetattr(slave_, TCSANOW, &mode);
        path_ = name;
        testing::internal::CaptureStdout();
        opened_ = open_dev(path_);
        open_output_ = testing::internal::GetCapturedStdout();
    }
    static void TearDownTestSuite() {
        close_dev();
        if (master_ >= 0) close(master_);
        close(slave_);
        delete scratch_;
    }

    static std::string read_master(size_t want) {
        std::string got;
        auto start = Clock::now();
        char buf[256];
        while (got.size() < want && elapsed_ms(start) < 2000) {
            pollfd waiting{master_, POLLIN, 0};
            if (poll(&waiting, 1, 100) <= 0) continue;
            ssize_t n = read(master_, buf, sizeof buf);
            if (n > 0) got.append(buf, static_cast<size_t>(n));
        }
        return got;
    }

    static inline ScratchDir* scratch_ = nullptr;
    static inline int master_ = -1;
    static inline int slave_ = -1;
    static inline std::string path_;
    static inline int opened_ = 0;
    static inline std::string open_output_;
};

TEST_F(DevPortOverPty, OpenAnnouncesDescriptorAndPath) {
    ASSERT_EQ(1, opened_);
    EXPECT_TRUE(is_open());
    EXPECT_FALSE(dev_no_valid());
    EXPECT_EQ("Open device (" + std::to_string(USB.load()) + ") " + path_ + "\n", open_output_);
    EXPECT_LT(GetReadCount(), 10000u);
}

TEST_F(DevPortOverPty, QuietLineTimesOutSilentlyAndStaysOpen) {
    testing::internal::CaptureStdout();
    auto start = Clock::now();
    size_t len = 99;
    int result = read_dev(pbuf, &len);
    long waited = elapsed_ms(start);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, result);
    EXPECT_EQ(0u, len);
    EXPECT_GE(waited, 90);
    EXPECT_LT(waited, 1000);
    EXPECT_TRUE(is_open());
}

TEST_F(DevPortOverPty, BytesPassBothWaysUnchanged) {
    const std::string from_panel("~0010FCF-11\x7f\x00\x0d\x0a\x7d", 16);
    ASSERT_EQ(static_cast<ssize_t>(from_panel.size()), write(master_, from_panel.data(), from_panel.size()));
    std::string got;
    for (int i = 0; i < 20 && got.size() < from_panel.size(); ++i) {
        size_t len = 0;
        if (read_dev(pbuf, &len) == 1) got.append(reinterpret_cast<char*>(pbuf), len);
    }
    EXPECT_EQ(from_panel, got);

    std::string to_panel("~0005A\x7f\x00\xff", 9);
    EXPECT_TRUE(write_dev(to_panel.data(), to_panel.size()));
    EXPECT_EQ(to_panel, read_master(to_panel.size()));
}

// Last in the suite: it ends the link.
TEST_F(DevPortOverPty, HangUpClosesDeviceAndClearsImage) {
    parser.set_status(3);
    close(master_);
    master_ = -1;
    testing::internal::CaptureStdout();
    size_t len = 99;
    int result = read_dev(pbuf, &len);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0, result);
    EXPECT_EQ(0u, len);
    EXPECT_FALSE(is_open());
    EXPECT_EQ(1, parser.get_status());
    EXPECT_EQ("Close device \n", out);
}

}  // namespace
