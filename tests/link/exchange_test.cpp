// The serial port and the device thread's exchange over a pty with the simulated
// panel: opening, framing of what arrives, stop-and-wait sending, block retries,
// loss and the watchdog.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "http/get_commands.h"
#include "link/link_test_support.h"

namespace {

using namespace link_test;
using Exchange = PanelLinkTest;

const std::string kRestart("~0007FSF\x7f");

// Hands bytes from the panel to the engine and lets one read_step take them.
void feed(PanelSim& panel, const std::string& bytes) {
    panel.send_raw(bytes);
    ASSERT_TRUE(panel.wait_output_flushed(1000));
    read_step();
}

// What the panel has received once it holds at least len bytes (1 s at most).
std::string panel_got(PanelSim& panel, size_t len) {
    panel.wait_received_bytes(len, 1000);
    return panel.received_bytes();
}

// A device is announced on open; a quiet line only times out.
TEST_F(Exchange, OpenIsAnnouncedAndAQuietReadOnlyTimesOut) {
    EXPECT_EQ("Open device (" + std::to_string(USB.load()) + ") " + panel_.slave_path() + "\n", open_output_);
    const auto start = Clock::now();
    size_t len = 99;
    EXPECT_EQ("", printed_by([&] { EXPECT_EQ(0, read_dev(pbuf, &len)); }));
    EXPECT_EQ(0u, len);
    EXPECT_GE(seconds_since(start), 0.09);
    EXPECT_LT(seconds_since(start), 1.0);
    EXPECT_TRUE(is_open());
}

// Opening waits for stty to end rather than for a fixed time, and gives a
// stty that does not end 2 s before it opens the port all the same.
TEST_F(Exchange, OpenWaitsForSttyAtMostTwoSeconds) {
    const std::string path = panel_.slave_path(), old_path = getenv("PATH");
    const std::tuple<const char*, double, double> cases[] = {
        // stty in PATH (none: the system's), seconds the open takes at least and less than
        {nullptr, 0, 1.5},
        {"#!/bin/sh\nexec sleep 2.5\n", 1.9, 3},
    };
    for (const auto& [fake_stty, at_least, below] : cases) {
        if (fake_stty) {
            std::ofstream(scratch_.dir.path() + "/stty") << fake_stty;
            chmod((scratch_.dir.path() + "/stty").c_str(), 0755);
            setenv("PATH", (scratch_.dir.path() + ":" + old_path).c_str(), 1);
        }
        const auto start = Clock::now();
        int opened = 0;
        std::string port = path;
        std::string printed = printed_by([&] { opened = open_dev(port); });
        const double took = seconds_since(start);
        setenv("PATH", old_path.c_str(), 1);
        EXPECT_EQ(1, opened) << printed;
        EXPECT_GE(took, at_least);
        EXPECT_LT(took, below);
    }
}

TEST_F(Exchange, ReaderCutsFramesAcrossChunks) {
    // Chunks (one read_step each), what the engine answers, what it prints.
    const std::tuple<std::vector<std::string>, std::string, std::string> cases[] = {
        {{"~00", "07CXY\x7f"}, kReceiptOK, ""},
        // An events block with stuffed bytes, split right after an escape.
        {{std::string("~0010B\x81\x00}", 9), ">}=}?\x7f"}, kReceiptOK, ""},
        {{"xy~0007CXY\x7f~0005C\x7f", "z"}, kReceiptOK + kReceiptOK, ""},
        {{"~0007CA", "B~0007CXY\x7f"}, kReceiptOK, "dev packet loss!\n"},
        {{"\x7f"}, kReceiptOK, "dev packet not contain start byte, packet loss!\n"},
    };
    for (const auto& [chunks, answer, console] : cases) {
        SCOPED_TRACE(chunks[0]);
        panel_.forget_received();
        testing::internal::CaptureStdout();
        for (const std::string& chunk : chunks) feed(panel_, chunk);
        EXPECT_EQ(console, testing::internal::GetCapturedStdout());
        EXPECT_EQ(answer, panel_got(panel_, answer.size()));
    }
    // The stuffed bytes of the events block, unstuffed.
    EXPECT_EQ((std::vector<unsigned char>{0x7E, 0x7D, 0x7F}), parser.block_buffer);
}

// A panel that never ends its frame cannot grow the reader without bound; the
// over-long frame still earns the "too long" receipt once it ends.
TEST_F(Exchange, EndlessFrameIsKeptBoundedAndAnsweredTooLong) {
    feed(panel_, "~0007C");
    for (int chunk = 0; chunk < 8; ++chunk) feed(panel_, std::string(1000, 'x'));
    EXPECT_EQ(MAX_FRAME_BYTES, current_packet.size());
    panel_.forget_received();
    feed(panel_, "\x7f");
    write_step();
    EXPECT_EQ("~0007AN1\x7f", panel_got(panel_, 9));
}

// One frame is out at a time: the next waits for the receipt, or for the
// hundredth waiting cycle, which gives the receipt up.
TEST_F(Exchange, NextFrameWaitsForTheReceiptOrTheHundredthCycle) {
    const std::string pl(cmd_pl, cmd_pl_len), mh(cmd_mh, cmd_mh_len), ls(cmd_ls, cmd_ls_len);
    queue.cmd_to_dev(cmd_pl, cmd_pl_len);
    queue.cmd_to_dev(cmd_mh, cmd_mh_len);
    parser.set_status(5);
    for (int cycle = 0; cycle < 5; ++cycle) write_step();
    EXPECT_EQ(1u, queue.size());
    feed(panel_, kReceiptOK);
    write_step();
    EXPECT_EQ(pl + mh, panel_got(panel_, pl.size() + mh.size()));
    EXPECT_EQ(3, parser.get_status());  // the configuration write drained the queue

    queue.cmd_to_dev(cmd_ls, cmd_ls_len);
    testing::internal::CaptureStdout();
    for (int cycle = 1; cycle < 100; ++cycle) write_step();
    bool still_waiting = dev_busy;
    write_step();
    EXPECT_EQ("@ dev busy error\n", stamps_marked(testing::internal::GetCapturedStdout()));
    EXPECT_TRUE(still_waiting);
    write_step();
    EXPECT_EQ(pl + mh + ls, panel_got(panel_, pl.size() + mh.size() + ls.size()));
}

TEST_F(Exchange, RestartAndNegativeReceiptsGoFirstInOrder) {
    queue.cmd_to_dev(cmd_ls, cmd_ls_len);
    need_sf = true;
    parser.send_AN1 = parser.send_AN2 = parser.send_AN5 = true;
    for (int cycle = 0; cycle < 6; ++cycle) write_step();
    const std::string expected = kRestart + "~0007AN1\x7f~0007AN2\x7f~0007AN5\x7f";
    EXPECT_EQ(expected, panel_got(panel_, expected.size()));
    EXPECT_EQ(1u, queue.size());  // the restart frame still waits for its receipt
}

// Written three times in all, each after the busy wait ends; at the next
// decision the transfer is aborted without a fourth send and the link restarted.
TEST_F(Exchange, UnacknowledgedBlockIsWrittenThreeTimesThenTheLinkRestarts) {
    std::vector<char> image{'a', 0x7E, 'b'};
    parser.firmware_to_dev(0, image);
    testing::internal::CaptureStdout();
    for (int cycle = 0; cycle < 310; ++cycle) write_step();
    const std::string retries =
        "@ dev busy error\n@ next try send packet bbqueue.num_try = 1\n"
        "@ dev busy error\n@ next try send packet bbqueue.num_try = 2\n"
        "@ dev busy error\n@ next try send packet bbqueue.num_try = 3\n";
    EXPECT_EQ(retries, stamps_marked(testing::internal::GetCapturedStdout()));
    const std::string wire = std::string("~0010B\x84\x00", 8) + "a}>b\x7f";
    EXPECT_EQ(wire + wire + wire + kRestart, panel_got(panel_, 3 * wire.size() + kRestart.size()));
    EXPECT_TRUE(bbqueue.is_empty());
    EXPECT_EQ("4", parser.get_ready_text(&StatusDevice::rupd));
}

// An unplugged panel: writes fail and keep the command queued while the port
// is open; the device thread's next read drops the link, and with it what was
// queued, and the thread carries on without it.
TEST_F(Exchange, HungUpPanelKeepsCommandsQueuedUntilTheLinkDrops) {
    panel_.hangup();
    ASSERT_TRUE(wait_for([this] { return panel_.hung_up(); }, 1));
    queue.cmd_to_dev(cmd_pl, cmd_pl_len);
    testing::internal::CaptureStdout();
    for (int cycle = 0; cycle < 2; ++cycle) write_step();
    EXPECT_EQ("write packet queue error\nwrite packet queue error\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(1u, queue.size());

    DeviceThread device;
    EXPECT_TRUE(wait_for([] { return !is_open() && parser.get_status() == 1; }, 3));
    EXPECT_TRUE(queue.is_empty());
    usleep(300000);  // a few idle cycles with no device
    EXPECT_TRUE(device.running());
}

// Every way the port closes leaves nothing of the link behind, as a connect
// does: both queues empty (no command counts against the bound for a panel
// that is gone), no password exchange, no receipt awaited. A silence restart
// keeps the port, and keeps what waits for it.
TEST_F(Exchange, EveryCloseForgetsWhatWaitedForThePanel) {
    const std::pair<const char*, std::function<void(PanelSim&)>> closes[] = {
        {"panel unplugged",
         [](PanelSim& panel) {
             panel.hangup();
             wait_for([&] { return panel.hung_up(); }, 1);
             read_step();
         }},
        {"third silence",
         [](PanelSim&) {
             no_read_ms = 0;
             send_sf_cnt = 2;
             read_step();
         }},
        {"restart acknowledged",
         [](PanelSim& panel) {
             send_re = true;
             feed(panel, kReceiptOK);
         }},
        {"firmware end closing the link", [](PanelSim& panel) { feed(panel, sim_frame('F', "UR0-2")); }},
        {"disconnect",
         [](PanelSim&) {
             AnswerStream answer;
             run_command(11, "/tuning/device?id=-1&cmd=11", answer);
         }},
        {"reconnect to a port that fails",
         [](PanelSim&) {
             AnswerStream answer;
             run_command(11, "/tuning/device?id=-1&cmd=11&com=/dev/null", answer);
         }},
        {"silence restart (port kept)",
         [](PanelSim&) {
             no_read_ms = 0;
             read_step();
         }},
    };
    for (const auto& [name, close_port] : closes) {
        SCOPED_TRACE(name);
        PanelSim panel{{.make_link = false, .telemetry_ms = 0, .silent = true}};
        ASSERT_TRUE(panel.start()) << panel.error();
        std::string path = panel.slave_path();
        printed_by([&] { ASSERT_EQ(1, open_dev(path)); });
        for (int i = 0; i < 3; ++i) queue.cmd_to_dev(cmd_ls, cmd_ls_len);
        std::vector<char> image(600, 'x');
        parser.firmware_to_dev(0, image);
        queue.pass_sent = queue.pass_rejected = true;
        dev_busy = wait_receipt_OK = true;
        dev_busy_cnt = 5;
        printed_by([&] { close_port(panel); });
        const bool kept = is_open();
        EXPECT_EQ(kept ? 3u : 0u, queue.size());
        EXPECT_EQ(kept, !bbqueue.is_empty());
        EXPECT_EQ(kept, queue.pass_sent && queue.pass_rejected);
        EXPECT_EQ(kept, dev_busy || wait_receipt_OK);
        close_dev();
    }
}

// dev_thread runs while this thread queues commands and a firmware image, as
// the HTTP side does, with line noise in every telemetry period (run under TSan).
TEST_F(Exchange, WorkQueuedWhileTheDeviceThreadRunsAllGoesThrough) {
    parser.clear();
    panel_.set_telemetry_ms(300);
    panel_.set_garbage(true);
    panel_.set_silent(false);
    testing::internal::CaptureStdout();
    DeviceThread device;
    queue.cmd_to_dev(cmd_sf, cmd_sf_len);
    bool ready = wait_for([] { return parser.get_status() == 3 && parser.ready; }, 5);
    for (int i = 0; i < 10; ++i) queue.cmd_to_dev(cmd_ls, cmd_ls_len);
    bool commands_sent = wait_for([] { return queue.is_empty(); }, 8);
    std::vector<char> image(600, 0x7E);
    parser.firmware_to_dev(0, image);
    bool updated = wait_for([] { return parser.get_ready_text(&StatusDevice::rupd) == "2"; }, 10);
    bool stopped = device.stop();
    std::string out = testing::internal::GetCapturedStdout();

    EXPECT_TRUE(ready && commands_sent && updated && stopped) << ready << commands_sent << updated << out;
    size_t commands = 0;
    std::string block_heads;
    for (const SimFrame& frame : panel_.received()) {
        commands += frame.body == "0007FLS";
        if (frame.type() == 'B') block_heads += frame.payload().substr(0, 2);
    }
    EXPECT_EQ(10u, commands);
    EXPECT_EQ(std::string("\x84\x00\x04\x01\x04\x02\x04\x03", 8), block_heads);
    EXPECT_EQ(std::string::npos, out.find("dev busy error")) << out;
    EXPECT_EQ(std::string::npos, out.find("dev packet loss!")) << out;
}

// The only long test (about 60 s): 20 s of silence restarts the link, twice,
// and the third silence gives the panel up.
TEST_F(Exchange, SilenceRestartsTwiceThenDropsTheLink) {
    const auto opened = Clock::now();
    testing::internal::CaptureStdout();
    DeviceThread device;
    bool dropped = wait_for([] { return !is_open(); }, 70);
    double dropped_after = seconds_since(opened);
    device.stop();
    std::string out = stamps_marked(testing::internal::GetCapturedStdout());

    ASSERT_TRUE(dropped);
    EXPECT_NEAR(63, dropped_after, 3.2);
    std::vector<double> restarts;
    for (const SimFrame& frame : panel_.received())
        if (frame.body == "0007FSF")
            restarts.push_back(std::chrono::duration<double>(frame.when - opened).count());
    ASSERT_EQ(2u, restarts.size());
    EXPECT_NEAR(21, restarts[0], 1.1);
    EXPECT_NEAR(42, restarts[1], 2.2);
    EXPECT_NE(std::string::npos, out.find("@ restart dev (send sf)\n")) << out;
    EXPECT_NE(std::string::npos, out.find("\ntry 3 restart (send sf) no sussess\nClose device \n")) << out;
    EXPECT_EQ(1, parser.get_status());
}

}  // namespace

// A panel is a USB serial device (ttyUSB, ttyACM) or, for the simulator, a pseudo-terminal slave.
TEST(PortKinds, OnlyDevicesAPanelCanBe) {
    const std::tuple<unsigned, bool> majors[] = {
        {188, true}, {166, true}, {136, true}, {143, true}, {135, false}, {144, false},
        {4, false},  {5, false},  {1, false},  {0, false},  {189, false},
    };
    for (const auto& [major_number, allowed] : majors)
        EXPECT_EQ(is_panel_device_number(makedev(major_number, 3)), allowed) << major_number;
}
