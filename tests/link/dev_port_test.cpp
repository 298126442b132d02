// Serial port access over a real pseudo-terminal: open, quiet wait, write and loss.
#include "link/dev_port.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "link/link_test_support.h"

namespace {

using namespace link_test;

TEST(DevPort, UnopenablePathIsReportedAndLeavesNoDevice) {
    ScratchDir scratch;
    // The second path would create a file if it ever reached a shell unquoted.
    for (std::string path : {"/nonexistent/ttyUSB9", "/dev/ttyUSB0;touch pwned"}) {
        testing::internal::CaptureStdout();
        int opened = open_dev(path);
        EXPECT_EQ("Error. Don't open device (w)" + path + "\n", testing::internal::GetCapturedStdout());
        EXPECT_EQ(0, opened);
        EXPECT_FALSE(is_open());
        EXPECT_TRUE(dev_no_valid());
    }
    EXPECT_FALSE(std::filesystem::exists("pwned"));
}

TEST(DevPort, WithoutDeviceOnlyEmptyWritesSucceed) {
    ASSERT_FALSE(is_open());
    char frame[] = "~0007FSF\x7f";
    EXPECT_FALSE(write_dev(frame, 9));
    EXPECT_FALSE(write_dev(frame, 1));
    EXPECT_TRUE(write_dev(frame, 0));
}

using DevPortOverPty = PanelLinkTest;

// One device's life: announced on open, a quiet line that only times out, and
// an unplugged panel, which closes the port and clears the image.
TEST_F(DevPortOverPty, OpenQuietReadAndHangUp) {
    EXPECT_EQ("Open device (" + std::to_string(USB.load()) + ") " + panel_.slave_path() + "\n", open_output_);
    testing::internal::CaptureStdout();
    const auto start = Clock::now();
    size_t len = 99;
    EXPECT_EQ(0, read_dev(pbuf, &len));
    const double waited = seconds_since(start);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0u, len);
    EXPECT_GE(waited, 0.09);
    EXPECT_LT(waited, 1.0);
    EXPECT_TRUE(is_open());

    parser.cfg["td"] = {"td", "MD19"};
    panel_.hangup();
    ASSERT_TRUE(wait_for([this] { return panel_.hung_up(); }, 1));
    testing::internal::CaptureStdout();
    EXPECT_EQ(0, read_dev(pbuf, &len));
    EXPECT_EQ("Close device \n", testing::internal::GetCapturedStdout());
    EXPECT_FALSE(is_open());
    EXPECT_TRUE(parser.cfg.empty());
    EXPECT_EQ(1, parser.get_status());
}

}  // namespace
