// The device thread's exchange over a pty with the simulated panel: framing of
// what arrives, stop-and-wait sending, block retries, loss and the watchdog.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/engine.h"
#include "core/mutex_lock.h"
#include "link/dev_port.h"
#include "link/link_test_support.h"
#include "link/pk7.h"
#include "panel_sim.h"

namespace {

using namespace link_test;

const std::string RECEIPT("~0005A\x7f", 7);

size_t count_of(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

std::string frame_of(char* ready_made, size_t len) {
    return std::string(ready_made, len);
}

// A console line with the time stamp "hh:mm:ss.mmm " in front of text.
bool is_stamped_line(const std::string& line, const std::string& text) {
    const std::string shape = "00:00:00.000 ";
    if (line.size() != shape.size() + text.size() + 1 || line.back() != '\n') return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        bool digit = line[i] >= '0' && line[i] <= '9';
        if (shape[i] == '0' ? !digit : line[i] != shape[i]) return false;
    }
    return line.compare(shape.size(), text.size(), text) == 0;
}

// One pty and one open for the suite; the panel starts silent so each test
// decides what it says.
class Exchange : public testing::Test {
protected:
    static void SetUpTestSuite() {
        scratch_ = new ScratchDir;
        panel_ = new PanelSim(quiet_panel());
        ASSERT_TRUE(panel_->start()) << panel_->error();
        ASSERT_TRUE(open_engine_on(*panel_));
    }
    static void TearDownTestSuite() {
        close_dev();
        delete panel_;
        delete scratch_;
    }
    void SetUp() override {
        ASSERT_TRUE(is_open());
        panel_->set_silent(true);
        panel_->set_block_ack(true);
        panel_->set_content(PanelContent::standard());
        reset_link_state();
        panel_->forget_received();
    }

    static inline ScratchDir* scratch_ = nullptr;
    static inline PanelSim* panel_ = nullptr;
};

TEST_F(Exchange, ReaderCutsFramesAcrossChunks) {
    struct Step {
        std::string chunk;
        std::string answer;  // what the engine sends back after this chunk
    };
    struct Case {
        const char* name;
        std::vector<Step> steps;
        std::string console;
    };
    const std::vector<Case> cases = {
        {"whole frame", {{"~0007CXY\x7f", RECEIPT}}, ""},
        {"split in the header", {{"~00", ""}, {"07CXY\x7f", RECEIPT}}, ""},
        {"split in the payload", {{"~0007CX", ""}, {"Y", ""}, {"\x7f", RECEIPT}}, ""},
        {"stuffed bytes, split after the escape", {{"~0008C}", ""}, {">}=}?\x7f", RECEIPT}}, ""},
        {"noise outside frames",
         {{"xyz~0007CXY\x7f"
           "abc",
           RECEIPT}},
         ""},
        {"second start drops the first", {{"~0007CAB~0007CXY\x7f", RECEIPT}}, "dev packet loss!\n"},
        {"start split from its loss", {{"~0007CA", ""}, {"~0007CXY\x7f", RECEIPT}}, "dev packet loss!\n"},
        {"lone end byte", {{"\x7f", RECEIPT}}, "dev packet not contain start byte, packet loss!\n"},
        {"two frames in one chunk", {{"~0007CXY\x7f~0005C\x7f", RECEIPT + RECEIPT}}, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        panel_->forget_received();
        std::string expected;
        testing::internal::CaptureStdout();
        for (const Step& step : c.steps) {
            feed(*panel_, step.chunk);
            expected += step.answer;
            if (step.answer.empty()) usleep(30000);
            EXPECT_EQ(expected, panel_got(*panel_, expected.size())) << "after chunk " << step.chunk;
        }
        EXPECT_EQ(c.console, testing::internal::GetCapturedStdout());
        EXPECT_TRUE(current_packet.empty());
        EXPECT_FALSE(parser.send_AN1 || parser.send_AN2 || parser.send_AN5);
    }
}

TEST_F(Exchange, OneFrameInFlightUntilTheReceipt) {
    const std::string pl = frame_of(cmd_pl, cmd_pl_len);
    const std::string mh = frame_of(cmd_mh, cmd_mh_len);
    queue.cmd_to_dev(cmd_pl, cmd_pl_len);
    queue.cmd_to_dev(cmd_mh, cmd_mh_len);
    parser.set_status(5);

    write_step();
    EXPECT_EQ(pl, panel_got(*panel_, pl.size()));
    for (int cycle = 0; cycle < 5; ++cycle) write_step();
    usleep(30000);
    EXPECT_EQ(pl, panel_->received_bytes());
    EXPECT_EQ(1u, queue.size());
    EXPECT_EQ(5, parser.get_status());

    feed(*panel_, RECEIPT);
    EXPECT_FALSE(dev_busy);
    write_step();
    EXPECT_EQ(pl + mh, panel_got(*panel_, pl.size() + mh.size()));
    EXPECT_TRUE(queue.is_empty());
    EXPECT_EQ(3, parser.get_status());  // the configuration write drained
}

TEST_F(Exchange, BusyWaitGivesUpOnTheHundredthCycle) {
    const std::string ls = frame_of(cmd_ls, cmd_ls_len);
    queue.cmd_to_dev(cmd_ls, cmd_ls_len);
    queue.cmd_to_dev(cmd_ls, cmd_ls_len);
    write_step();
    testing::internal::CaptureStdout();
    for (int cycle = 1; cycle < DEV_BUSY_CYCLES; ++cycle) write_step();
    EXPECT_TRUE(dev_busy);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());

    testing::internal::CaptureStdout();
    write_step();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_FALSE(dev_busy);
    EXPECT_TRUE(is_stamped_line(out, "dev busy error")) << out;
    EXPECT_EQ(ls, panel_got(*panel_, ls.size()));

    write_step();
    EXPECT_EQ(ls + ls, panel_got(*panel_, 2 * ls.size()));
}

TEST_F(Exchange, RestartAndNegativeReceiptsGoFirst) {
    queue.cmd_to_dev(cmd_ls, cmd_ls_len);
    need_sf = true;
    parser.send_AN1 = true;
    parser.send_AN2 = true;
    parser.send_AN5 = true;
    const std::string expected =
        frame_of(cmd_sf, cmd_sf_len) + frame_of(acknowledge_AN1, acknowledge_AN1_len) +
        frame_of(acknowledge_AN2, acknowledge_AN2_len) + frame_of(acknowledge_AN5, acknowledge_AN5_len);
    for (int cycle = 0; cycle < 6; ++cycle) write_step();
    EXPECT_EQ("~0007FSF\x7f~0007AN1\x7f~0007AN2\x7f~0007AN5\x7f", expected);
    EXPECT_EQ(expected, panel_got(*panel_, expected.size()));
    EXPECT_FALSE(need_sf);
    EXPECT_FALSE(parser.send_AN1 || parser.send_AN2 || parser.send_AN5);
    EXPECT_TRUE(dev_busy);  // the restart frame still waits for its receipt
    EXPECT_EQ(1u, queue.size());
}

TEST_F(Exchange, UnacknowledgedBlockIsSentThreeTimesThenTheLinkRestarts) {
    char block[] = {static_cast<char>(132), 0, 'a', 0x7E, 'b'};
    ASSERT_EQ(1, bbqueue.add_bb_packet(block, sizeof block));
    bbqueue.start_flag = true;
    parser.fw_blocks_total = 1;
    const std::string wire(
        "~0010B\x84\x00"
        "a}>b\x7f",
        13);

    testing::internal::CaptureStdout();
    for (int cycle = 0; cycle < 3 * DEV_BUSY_CYCLES + 10; ++cycle) write_step();
    std::string out = testing::internal::GetCapturedStdout();

    const std::string expected = wire + wire + wire + frame_of(cmd_sf, cmd_sf_len);
    EXPECT_EQ(expected, panel_got(*panel_, expected.size()));
    // The third count is printed at the decision that aborts, without a fourth send.
    for (const char* n : {"1", "2", "3"})
        EXPECT_EQ(1u, count_of(out, std::string("next try send packet bbqueue.num_try = ") + n + "\n")) << n;
    EXPECT_TRUE(bbqueue.is_empty());
    EXPECT_FALSE(wait_receipt_OK);
    EXPECT_FALSE(need_sf);
    EXPECT_EQ("4", parser.get_ready_text(&StatusDevice::rupd));
    EXPECT_EQ(3, parser.get_status());
}

TEST_F(Exchange, AcknowledgedBlocksAdvanceToTheFirmwareResult) {
    panel_->set_silent(false);
    char first[] = {static_cast<char>(132), 0, 1, 2, 3};
    char second[] = {4, 1, 4, 5};
    char end[] = {4, 2};
    bbqueue.add_bb_packet(first, sizeof first);
    bbqueue.add_bb_packet(second, sizeof second);
    bbqueue.add_bb_packet(end, sizeof end);
    bbqueue.start_flag = true;
    parser.fw_blocks_total = 2;

    std::vector<std::string> progress;
    testing::internal::CaptureStdout();
    for (int cycle = 0; cycle < 40 && parser.get_ready_text(&StatusDevice::rupd) != "2"; ++cycle) {
        write_step();
        usleep(20000);
        read_step();
        std::string upd = parser.get_ready_text(&StatusDevice::upd);
        if (progress.empty() || progress.back() != upd) progress.push_back(upd);
    }
    write_step();  // the end mark's receipt drains the queue
    std::string out = testing::internal::GetCapturedStdout();

    EXPECT_EQ("2", parser.get_ready_text(&StatusDevice::rupd));
    EXPECT_EQ("100", parser.get_ready_text(&StatusDevice::upd));
    EXPECT_EQ((std::vector<std::string>{"0", "50", "100"}), progress);
    EXPECT_EQ(3, parser.get_status());
    EXPECT_TRUE(bbqueue.is_empty());
    EXPECT_NE(std::string::npos, out.find("Load main proc firmware success."));
    std::vector<std::string> blocks;
    for (const SimFrame& frame : panel_->received())
        if (frame.type() == 'B') blocks.push_back(frame.payload());
    EXPECT_EQ((std::vector<std::string>{std::string(first, 5), std::string(second, 4), std::string(end, 2)}),
              blocks);
}

TEST_F(Exchange, PasswordBlockOutcomeFollowsThePanelsReceipt) {
    panel_->set_silent(false);
    for (bool refuse : {false, true}) {
        SCOPED_TRACE(refuse ? "refused" : "accepted");
        reset_link_state();
        PanelContent content = PanelContent::standard();
        content.reject_password = refuse;
        panel_->set_content(content);
        // Access-password block: 0x82 0x00 and 16 enciphered bytes (any will do here).
        std::string payload(
            "\x82\x00"
            "0123456789abcdef",
            18);
        std::vector<char> frame;
        ASSERT_EQ(1, form_pk7_packet_binary('B', payload.data(), payload.size(), frame));
        queue.to_dev(frame);
        queue.pass_sent = true;

        write_step();
        EXPECT_TRUE(pass_block_written);
        ASSERT_TRUE(wait_until(
            [] {
                read_step();
                return !dev_busy;
            },
            2000));
        EXPECT_EQ(!refuse, parser.pass_accepted.load());
        EXPECT_EQ(refuse, queue.pass_rejected.load());
        EXPECT_FALSE(queue.pass_sent);

        queue.cmd_to_dev(cmd_ls, cmd_ls_len);
        write_step();
        EXPECT_FALSE(pass_block_written);
        ASSERT_TRUE(wait_until(
            [] {
                read_step();
                return !dev_busy;
            },
            2000));  // its receipt
    }
}

// The panel goes away while frames wait: writes fail and keep them queued,
// the next read drops the link, and the device thread carries on.
class HungUpPanel : public testing::Test {
protected:
    static void SetUpTestSuite() {
        scratch_ = new ScratchDir;
        panel_ = new PanelSim(quiet_panel());
        ASSERT_TRUE(panel_->start()) << panel_->error();
        ASSERT_TRUE(open_engine_on(*panel_));
        reset_link_state();
        panel_->hangup();
        ASSERT_TRUE(wait_until([] { return panel_->hung_up(); }, 1000));
    }
    static void TearDownTestSuite() {
        close_dev();
        delete panel_;
        delete scratch_;
        reset_link_state();
    }

    static inline ScratchDir* scratch_ = nullptr;
    static inline PanelSim* panel_ = nullptr;
};

TEST_F(HungUpPanel, FailedWritesKeepTheCommandQueued) {
    queue.cmd_to_dev(cmd_pl, cmd_pl_len);
    testing::internal::CaptureStdout();
    write_step();
    write_step();
    EXPECT_EQ("write packet queue error\nwrite packet queue error\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(1u, queue.size());
    EXPECT_FALSE(dev_busy);

    need_sf = true;
    testing::internal::CaptureStdout();
    for (int cycle = 0; cycle < 3; ++cycle) write_step();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(is_stamped_line(out, "write sf error")) << out;
    EXPECT_TRUE(need_sf);
    EXPECT_EQ(1u, queue.size());
}

TEST_F(HungUpPanel, LinkDropsAndTheDeviceThreadCarriesOn) {
    ASSERT_TRUE(is_open());
    queue.clear();
    queue.cmd_to_dev(cmd_pl, cmd_pl_len);
    parser.set_status(3);
    DeviceThread device;
    EXPECT_TRUE(wait_until([] { return !is_open() && parser.get_status() == 1; }, 3000));
    usleep(300000);  // a few idle cycles with no device
    EXPECT_EQ(1u, queue.size());
    EXPECT_TRUE(device.stop());
}

// dev_thread in its own thread while this thread queues work, as the HTTP side does.
class ThreadedExchange : public testing::Test {
protected:
    static void SetUpTestSuite() {
        scratch_ = new ScratchDir;
        PanelSimOptions options = quiet_panel();
        options.silent = false;
        options.telemetry_ms = 300;
        options.garbage = true;  // line noise with every telemetry block
        panel_ = new PanelSim(options);
        ASSERT_TRUE(panel_->start()) << panel_->error();
        ASSERT_TRUE(open_engine_on(*panel_));
        reset_link_state();
    }
    static void TearDownTestSuite() {
        close_dev();
        delete panel_;
        delete scratch_;
        reset_link_state();
    }

    static inline ScratchDir* scratch_ = nullptr;
    static inline PanelSim* panel_ = nullptr;
};

TEST_F(ThreadedExchange, CommandsAndBlocksQueuedMeanwhileAllGoThroughLineNoise) {
    testing::internal::CaptureStdout();
    DeviceThread device;
    parser.clear();
    queue.cmd_to_dev(cmd_sf, cmd_sf_len);
    bool ready = wait_until([] { return parser.get_status() == 3 && parser.ready; }, 5000);

    // As the HTTP side does: commands and a firmware image arrive while the
    // device thread is sending.
    for (int i = 0; i < 10; ++i) queue.cmd_to_dev(cmd_ls, cmd_ls_len);
    bool commands_sent = wait_until([] { return queue.is_empty(); }, 8000);
    std::vector<char> image(600, 0x7E);
    parser.firmware_to_dev(0, image);
    bool updated = wait_until([] { return parser.get_ready_text(&StatusDevice::rupd) == "2"; }, 10000);
    bool drained = wait_until([] { return bbqueue.is_empty(); }, 2000);
    bool stopped = device.stop();
    bool closed = !is_open();  // dev_thread closes the device on its way out
    std::string out = testing::internal::GetCapturedStdout();

    EXPECT_TRUE(ready);
    EXPECT_TRUE(commands_sent);
    EXPECT_TRUE(updated);
    EXPECT_TRUE(drained);
    EXPECT_TRUE(stopped);
    EXPECT_TRUE(closed);
    EXPECT_EQ("100", parser.get_ready_text(&StatusDevice::upd));
    size_t commands = 0;
    std::vector<std::string> block_heads;
    for (const SimFrame& frame : panel_->received()) {
        commands += frame.body == "0007FLS";
        if (frame.type() == 'B') block_heads.push_back(frame.payload().substr(0, 2));
    }
    EXPECT_EQ(10u, commands);
    EXPECT_EQ((std::vector<std::string>{std::string("\x84\x00", 2), std::string("\x04\x01", 2),
                                        std::string("\x04\x02", 2), std::string("\x04\x03", 2)}),
              block_heads);
    EXPECT_EQ(0u, count_of(out, "dev busy error")) << out;
    EXPECT_EQ(0u, count_of(out, "dev packet loss!\n")) << out;
    EXPECT_LT(0u, count_of(out, "dev packet not contain start byte, packet loss!\n"));
    EXPECT_EQ(1u, count_of(out, "Load main proc firmware success.\n")) << out;
}

// The only long test: 20 s of silence restarts the link, twice, and the
// third silence gives the panel up.
TEST(SilenceWatchdog, RestartsTwiceThenDropsTheLink) {
    ScratchDir scratch;
    PanelSim panel(quiet_panel());
    ASSERT_TRUE(panel.start()) << panel.error();
    reset_link_state();
    ASSERT_TRUE(open_engine_on(panel));
    auto opened = Clock::now();
    parser.set_status(3);

    testing::internal::CaptureStdout();
    DeviceThread device;
    bool dropped = wait_until([] { return !is_open(); }, 70000);
    long dropped_after = elapsed_ms(opened);
    EXPECT_TRUE(device.stop());
    std::string out = testing::internal::GetCapturedStdout();

    ASSERT_TRUE(dropped);
    EXPECT_GE(dropped_after, 59800);
    EXPECT_LE(dropped_after, 66000);
    std::vector<long> restarts;
    for (const SimFrame& frame : panel.received())
        if (frame.body == "0007FSF")
            restarts.push_back(static_cast<long>(
                std::chrono::duration_cast<std::chrono::milliseconds>(frame.when - opened).count()));
    ASSERT_EQ(2u, restarts.size());
    EXPECT_GE(restarts[0], 19900);
    EXPECT_LE(restarts[0], 22000);
    EXPECT_GE(restarts[1], 39800);
    EXPECT_LE(restarts[1], 44000);
    EXPECT_EQ(2u, count_of(out, "restart dev (send sf)\n"));
    EXPECT_EQ(1u, count_of(out, "\ntry 3 restart (send sf) no sussess\n"));
    EXPECT_EQ(1, parser.get_status());
}

}  // namespace
