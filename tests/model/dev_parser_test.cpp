// Reply dispatch of the device image, firmware blocks and the port and disk lists.
#include "model/dev_parser.h"

#include <gtest/gtest.h>

#include <thread>

#include "model/model_test_support.h"

namespace {

using namespace link_test;

struct Dispatch : testing::Test {
    void SetUp() override { parser.clear(); }
    // Parses one packet; returns what it printed, stamps marked "@ ".
    std::string feed(const std::string& body) {
        std::vector<unsigned char> pkt(body.begin(), body.end());
        testing::internal::CaptureStdout();
        parser.parse_packet(pkt);
        return stamps_marked(testing::internal::GetCapturedStdout());
    }
    PtyPort port_;
};

// A broken header is reported and answered with a negative receipt (never a
// receipt itself); a sound packet is acknowledged at once.
TEST_F(Dispatch, HeaderIsCheckedBeforeTheAcknowledgement) {
    // Body, console, what goes to the panel by the next write_step.
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"000", "@ Отсутсвует заголовок пакета\n", ""},
        {"1005L", "@ Шифрование не поддерживается\n", "~0007AN5\x7f"},
        {"0009Lab", "@ Несоответствие длины пакета: заявлено 9 байт, получено 7 байт\n", "~0007AN2\x7f"},
        {"0005Lxyz", "@ Несоответствие длины пакета: заявлено 5 байт, получено 8 байт\n", "~0007AN1\x7f"},
        {"0009A", "@ Несоответствие длины пакета: заявлено 9 байт, получено 5 байт\n", ""},
        {"0005L", "", kReceiptOK},
    };
    for (const auto& [body, console, sent] : cases) {
        EXPECT_EQ(console, feed(body)) << body;
        write_step();
        EXPECT_EQ(sent, port_.read_all(sent.empty() ? 50 : 500)) << body;
    }
}

// Receipts are never acknowledged. Any one ends the wait for a receipt; a plain
// one also confirms the last block (and the password, if that was the block),
// "AN3" refuses the password, and after a restart command the link closes.
TEST_F(Dispatch, ReceiptsReleaseTheLinkAndSettleThePassword) {
    auto flags = [] {
        return std::string(dev_busy ? "busy " : "") + (wait_receipt_OK ? "wait " : "") +
               (queue.pass_sent ? "sent " : "") + (queue.pass_rejected ? "rejected " : "") +
               (parser.pass_accepted ? "accepted " : "") + std::to_string(parser.get_status());
    };
    // Body, password block out, restart command out, console, flags after.
    const std::tuple<std::string, bool, bool, std::string, std::string> cases[] = {
        {"0005A", false, false, "", "sent 3"},
        {"0007AN3", false, false, "", "wait rejected 3"},
        {"0005A", true, false, "", "accepted 3"},
        {"0005A", false, true, "Close device \n", "sent 1"},
    };
    for (const auto& [body, pass_block, restart, console, after] : cases) {
        parser.set_status(3);
        dev_busy = wait_receipt_OK = queue.pass_sent = parser.ready = true;
        queue.pass_rejected = parser.pass_accepted = false;
        pass_block_written = pass_block;
        send_re = restart;
        EXPECT_EQ(console, feed(body)) << body;
        EXPECT_EQ(after, flags()) << body;
        EXPECT_EQ("", port_.read_all(50)) << body;
    }
}

// The first block announces the records; a continuation must carry the next
// number and the same kind; an empty one ends the transfer. Kinds with bit 7
// set mark a first block.
TEST_F(Dispatch, EventBlocksAreCollectedInOrder) {
    // Block; then the msg progress, rmsg and status.
    const std::tuple<std::string, std::string> steps[] = {
        {block(0x81, 0, std::string(2, '\0')), "7 0 1"},  // no records: progress left alone
        {block(0x81, 0, std::string("\x02\x00", 2) + std::string(13, 'r')), "50 0 1"},
        {block(0x01, 2, std::string(15, 'x')), "50 0 1"},  // wrong number: ignored
        {block(0x01, 1, std::string(15, 'e')), "100 0 1"},
        {block(0x01, 2, ""), "100 2 3"},
    };
    parser.set_ready_text(&StatusDevice::msg, "7");
    for (const auto& [body, state] : steps) {
        EXPECT_EQ("", feed(body));
        EXPECT_EQ(state, parser.get_ready_text(&StatusDevice::msg) + " " +
                             parser.get_ready_text(&StatusDevice::rmsg) + " " +
                             std::to_string(parser.get_status()));
    }
}

// A connect or configuration read clears the image on the HTTP thread while
// event blocks may still be arriving on the device thread.
TEST_F(Dispatch, EventBlocksSurviveAClearFromTheOtherThread) {
    auto parse = [](const std::string& body) {
        std::vector<unsigned char> pkt(body.begin(), body.end());
        parser.parse_packet(pkt);
    };
    std::thread device([&] {
        for (int round = 0; round < 20; ++round) {
            parse(block(0x81, 0, std::string("\x05\x00", 2) + std::string(60, 'x')));
            for (int n = 1; n <= 5; ++n) parse(block(0x01, n, std::string(n < 5 ? 200 : 0, 'y')));
        }
    });
    for (int i = 0; i < 30; ++i) parser.clear();
    device.join();
    port_.read_all(50);
    parser.clear();
    EXPECT_TRUE(parser.block_buffer.empty());
}

TEST_F(Dispatch, LogCountAndFirmwareResultReachTheStatus) {
    parser.set_status(6);
    parser.set_ready_text(&StatusDevice::rlog, "1");
    EXPECT_EQ("", feed(packet('F', "TL-12")));
    EXPECT_EQ("12", parser.get_ready_text(&StatusDevice::logmax));
    EXPECT_EQ("", feed(packet('F', "TL-0")));
    EXPECT_EQ("0", parser.get_ready_text(&StatusDevice::rlog));
    EXPECT_EQ(3, parser.get_status());
    EXPECT_EQ("@ Load main proc firmware success.\n", feed(packet('F', "UR0-1")));
    EXPECT_EQ("2", parser.get_ready_text(&StatusDevice::rupd));
}

// The image goes out 256 bytes to a block behind a type and a number byte,
// then an end mark of the two header bytes alone.
TEST(FirmwareBlocks, ImageIsCutIntoNumberedBlocksWithEndMark) {
    auto frame = [](int type, int number, size_t data) {
        return "~" + block(type, number, std::string(data, 'f')) + "\x7f";
    };
    // Image size, target, total blocks, the frames queued.
    const std::tuple<size_t, int, int, std::string> cases[] = {
        {600, 1, 2, frame(131, 0, 256) + frame(3, 1, 256) + frame(3, 2, 88) + frame(3, 3, 0)},
        {512, 0, 2, frame(132, 0, 256) + frame(4, 1, 256) + frame(4, 2, 0)},
        {0, 1, 0, frame(131, 0, 0)},
    };
    for (const auto& [size, target, total, frames] : cases) {
        std::vector<char> image(size, 'f');
        parser.firmware_to_dev(target, image);
        EXPECT_EQ(total, parser.fw_blocks_total.load()) << size;
        std::string queued;
        for (std::vector<char> got; bbqueue.get_copy(got); bbqueue.pop())
            queued.append(got.begin(), got.end());
        EXPECT_EQ(frames, queued) << size;
    }
}

// Captured on a workstation with a SATA disk and a USB stick of two partitions.
const std::string kLsblk =
    "NAME=\"/dev/sda\" LABEL=\"\" TRAN=\"sata\" TYPE=\"disk\" MOUNTPOINT=\"\"\n"
    "NAME=\"/dev/sda1\" LABEL=\"\" TRAN=\"\" TYPE=\"part\" MOUNTPOINT=\"/\"\n"
    "NAME=\"/dev/sdb\" LABEL=\"\" TRAN=\"usb\" TYPE=\"disk\" MOUNTPOINT=\"\"\n"
    "NAME=\"/dev/sdb1\" LABEL=\"K\\x5c1\" TRAN=\"\" TYPE=\"part\" MOUNTPOINT=\"/media/my\\x20usb\"\n"
    "NAME=\"/dev/sdb2\" LABEL=\"DATA\" TRAN=\"\" TYPE=\"part\" MOUNTPOINT=\"/media/user/DATA\"\n";

TEST(HostLists, PortsAndDisksFromCapturedOutput) {
    // A blank line is skipped, a last line without a line feed dropped.
    EXPECT_EQ("\"/dev/ttyACM0\",\"/dev/ttyUSB0\"", ports_from_ls("/dev/ttyACM0\n\n/dev/ttyUSB0\n/dev/tty"));
    // lsblk's escapes decoded, the backslash doubled for JSON.
    EXPECT_EQ(R"({"result":{"disks":[ {"name":"/media/my usb","label":"K\\1"}]}})", disks_from_lsblk(kLsblk));
}

}  // namespace
