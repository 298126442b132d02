// Reply dispatch of the device image, firmware blocks and the port and disk lists.
#include "model/dev_parser.h"

#include <gtest/gtest.h>

#include <thread>

#include "link/link_test_support.h"

namespace {

using namespace link_test;

struct Dispatch : testing::Test {
    void SetUp() override { parser.clear(); }
    // Parses one packet; returns what it printed, stamps marked "@ ".
    std::string feed(const std::string& body) {
        std::vector<unsigned char> pkt(body.begin(), body.end());
        return printed_by([&] { parser.parse_packet(pkt); });
    }
    PtyPort port_;
};

// A broken header is reported and answered with a negative receipt (never a
// receipt itself); a sound packet is acknowledged at once. What receipts do to
// the link and the password the whole program's tests show.
TEST_F(Dispatch, HeaderIsCheckedBeforeTheAcknowledgement) {
    // Body, console, what goes to the panel by the next write_step.
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"000", "@ Отсутсвует заголовок пакета\n", ""},
        {"1005L", "@ Шифрование не поддерживается\n", "~0007AN5\x7f"},
        {"0009Lab", "@ Несоответствие длины пакета: заявлено 9 байт, получено 7 байт\n", "~0007AN2\x7f"},
        {"0005Lxyz", "@ Несоответствие длины пакета: заявлено 5 байт, получено 8 байт\n", "~0007AN1\x7f"},
        {"0009A", "@ Несоответствие длины пакета: заявлено 9 байт, получено 5 байт\n", ""},
        {"0005L", "", kReceiptOK},
        {"0005A", "", ""},  // a receipt is never acknowledged
    };
    for (const auto& [body, console, sent] : cases) {
        EXPECT_EQ(console, feed(body)) << body;
        write_step();
        EXPECT_EQ(sent, port_.read_all(sent.empty() ? 50 : 500)) << body;
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
