// Reply dispatch of the device image, firmware blocks and the port and disk lists.
#include "model/dev_parser.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "core/engine.h"
#include "model/model_test_support.h"

namespace {

// A well-formed frame body as the reader stores it: length digits, type, payload.
std::string packet(char type, const std::string& payload) {
    char digits[8];
    snprintf(digits, sizeof digits, "0%03zu", payload.size() + 5);
    return std::string(digits) + type + payload;
}

std::string block(unsigned char kind, unsigned char number, const std::string& data) {
    return packet('B', std::string(1, static_cast<char>(kind)) + static_cast<char>(number) + data);
}

class DevParserTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(port.ok());
        parser.clear();
        parser.send_AN1 = parser.send_AN2 = parser.send_AN5 = false;
        parser.pass_accepted = false;
        dev_busy = false;
        wait_receipt_OK = false;
        send_re = false;
        pass_block_written = false;
        queue.pass_sent = false;
        queue.pass_rejected = false;
    }
    void TearDown() override { send_re = false; }

    // Parses one packet and returns the console lines it printed.
    std::vector<std::string> feed(const std::string& body) {
        std::vector<unsigned char> pkt = bytes_of(body);
        testing::internal::CaptureStdout();
        parser.parse_packet(pkt);
        return unstamped_lines(testing::internal::GetCapturedStdout());
    }

    PtyPort port;
};

using Lines = std::vector<std::string>;

TEST_F(DevParserTest, MalformedHeadersAreReportedNotAcknowledged) {
    struct Case {
        std::string body;
        Lines console;
        bool an1, an2, an5;
        std::string sent;
    };
    const Case cases[] = {
        {"000", {"Отсутсвует заголовок пакета"}, false, false, false, ""},
        {"1005L", {"Шифрование не поддерживается"}, false, false, true, ""},
        {"1005A", {"Шифрование не поддерживается"}, false, false, false, ""},
        {"0009Lab",
         {"Несоответствие длины пакета: заявлено 9 байт, получено 7 байт"},
         false,
         true,
         false,
         ""},
        {"0005Lxyz",
         {"Несоответствие длины пакета: заявлено 5 байт, получено 8 байт"},
         true,
         false,
         false,
         ""},
        {"0009A", {"Несоответствие длины пакета: заявлено 9 байт, получено 5 байт"}, false, false, false, ""},
        {"0006AN", {}, false, false, false, ""},
        {"0005L", {}, false, false, false, kReceiptOK},
        {"0006Mx", {}, false, false, false, kReceiptOK},
        {"0005B", {"error: get empty binary block"}, false, false, false, kReceiptOK},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body);
        parser.send_AN1 = parser.send_AN2 = parser.send_AN5 = false;
        EXPECT_EQ(feed(c.body), c.console);
        EXPECT_EQ(parser.send_AN1.load(), c.an1);
        EXPECT_EQ(parser.send_AN2.load(), c.an2);
        EXPECT_EQ(parser.send_AN5.load(), c.an5);
        EXPECT_EQ(port.read_all(c.sent.empty() ? 50 : 500), c.sent);
    }
}

TEST_F(DevParserTest, NothingIsParsedWithoutAnOpenDevice) {
    const int fd = USB;
    USB = 0;
    dev_busy = true;
    EXPECT_EQ(feed("0005A"), Lines{});
    EXPECT_EQ(feed("000"), Lines{});
    EXPECT_TRUE(dev_busy);
    USB = fd;
}

TEST_F(DevParserTest, ReceiptsReleaseTheLinkAndAnswerThePassword) {
    struct Case {
        std::string body;
        bool pass_block;
        bool wait_after;
        bool pass_sent_after;
        bool rejected_after;
        bool accepted_after;
    };
    const Case cases[] = {
        {"0005A", false, false, true, false, false},  {"0007AN3", false, true, false, true, false},
        {"0007AN1", false, true, true, false, false}, {"0005A", true, false, false, false, true},
        {"0007AN3", true, true, false, true, false},  {"0007AN2", true, true, false, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body + (c.pass_block ? " after the password block" : ""));
        dev_busy = true;
        wait_receipt_OK = true;
        pass_block_written = c.pass_block;
        queue.pass_sent = true;
        queue.pass_rejected = false;
        parser.pass_accepted = false;
        EXPECT_EQ(feed(c.body), Lines{});
        EXPECT_FALSE(dev_busy);
        EXPECT_FALSE(pass_block_written);
        EXPECT_EQ(wait_receipt_OK.load(), c.wait_after);
        EXPECT_EQ(queue.pass_sent.load(), c.pass_sent_after);
        EXPECT_EQ(queue.pass_rejected.load(), c.rejected_after);
        EXPECT_EQ(parser.pass_accepted.load(), c.accepted_after);
        EXPECT_EQ(port.read_all(50), "") << "a receipt is never acknowledged";
    }
}

TEST_F(DevParserTest, ReceivedPacketsAreDumpedOnlyWhenTheirChannelIsOn) {
    struct Case {
        bool* channel;
        std::string body;
        std::string line;
    };
    const Case cases[] = {
        {&dm_r4, "0007AN1", " <<<PK7_IN_RECEIPT   0007AN1"},
        {&dm_r2, "0005L", " <<<PK7_IN_TMT       0005L"},
        {&dm_r3, "0006Gx", " <<<PK7_IN_LOGS      0006Gx"},
        {&dm_r3, "0008Fzn1", " <<<PK7_IN_CFG       0008Fzn1"},
        {&dm_r3, block(0x81, 0, ""), " <<<PK7_IN_EVENTS    0007B<81><00>"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line);
        debug_mode = *c.channel = true;
        EXPECT_EQ(feed(c.body), Lines{c.line});
        debug_mode = false;
        EXPECT_EQ(feed(c.body), Lines{});
        *c.channel = false;
        port.read_all(20);
    }
}

TEST_F(DevParserTest, ReceiptAfterRestartCommandClosesTheLink) {
    send_re = true;
    parser.ready = true;
    parser.set_status(3);
    parser.set_ready_text(&StatusDevice::rupd, "2");
    EXPECT_EQ(feed("0005A"), Lines{"UNSTAMPED:Close device "});
    EXPECT_EQ(USB.load(), 0);
    EXPECT_FALSE(send_re);
    EXPECT_FALSE(parser.ready);
    EXPECT_EQ(parser.get_status(), 1);
    EXPECT_EQ(parser.get_ready_text(&StatusDevice::rupd), "0");
}

TEST_F(DevParserTest, EventBlocksAreCollectedInOrder) {
    const std::string records(13, 'r');
    struct Step {
        std::string body;
        std::string msg, rmsg;
        int status;
        size_t buffered;
    };
    const Step steps[] = {
        // First block announces 2 records (30 bytes); 15 bytes so far.
        {block(0x81, 0, std::string("\x02\x00", 2) + records), "50", "0", 7, 15},
        {block(0x01, 2, std::string(15, 'x')), "50", "0", 7, 15},  // wrong number: ignored
        {block(0x02, 1, std::string(15, 'x')), "50", "0", 7, 15},  // other kind: ignored
        {block(0x81, 1, std::string(15, 'x')), "50", "0", 7, 15},  // first-block mark, not number 0
        {block(0x01, 1, std::string(15, 'e')), "100", "0", 7, 30},
        {block(0x01, 2, ""), "100", "2", 3, 0},  // end of transfer
    };
    parser.set_status(7);
    for (const Step& s : steps) {
        SCOPED_TRACE(static_cast<int>(&s - steps));
        EXPECT_EQ(feed(s.body), Lines{});
        EXPECT_EQ(parser.get_ready_text(&StatusDevice::msg), s.msg);
        EXPECT_EQ(parser.get_ready_text(&StatusDevice::rmsg), s.rmsg);
        EXPECT_EQ(parser.get_status(), s.status);
        EXPECT_EQ(parser.block_buffer.size(), s.buffered);
        EXPECT_EQ(port.read_all(), kReceiptOK);
    }
}

TEST_F(DevParserTest, EventTransferOfNoRecordsLeavesProgressAlone) {
    parser.set_ready_text(&StatusDevice::msg, "7");
    EXPECT_EQ(feed(block(0x81, 0, std::string("\x00\x00", 2))), Lines{});
    EXPECT_EQ(parser.get_ready_text(&StatusDevice::msg), "7");
    EXPECT_EQ(parser.events_bytes_total, 0);
    EXPECT_EQ(port.read_all(), kReceiptOK);
}

TEST_F(DevParserTest, LogCountAndFirmwareResults) {
    struct Case {
        std::string body;
        Lines console;
        int status;
        std::string rlog, logmax, rupd;
        int log_count;
    };
    const Case cases[] = {
        {"0009FTL-0", {}, 3, "0", "0", "1", 0},
        {"0010FTL-12", {}, 6, "1", "12", "1", 12},
        {"0010FUR0-1", {"Load main proc firmware success."}, 6, "1", "0", "2", 0},
        {"0010FUR1-0", {"Load coproc firmware error."}, 6, "1", "0", "4", 0},
        {"0010FUR0-7", {"Load main proc firmware ?"}, 6, "1", "0", "1", 0},
        {"0009FUR0-", {"Load main proc firmware ?"}, 6, "1", "0", "1", 0},
        {"0010FUR2-1", {}, 6, "1", "0", "1", 0},  // not a processor: configuration text
        {"0008FTL-", {}, 6, "1", "0", "1", 0},    // too short: configuration text
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.body);
        parser.log_count = 0;
        parser.set_status(6);
        parser.set_ready_text(&StatusDevice::rlog, "1");
        parser.set_ready_text(&StatusDevice::logmax, "0");
        parser.set_ready_text(&StatusDevice::rupd, "1");
        EXPECT_EQ(feed(c.body), c.console);
        EXPECT_EQ(parser.get_status(), c.status);
        EXPECT_EQ(parser.get_ready_text(&StatusDevice::rlog), c.rlog);
        EXPECT_EQ(parser.get_ready_text(&StatusDevice::logmax), c.logmax);
        EXPECT_EQ(parser.get_ready_text(&StatusDevice::rupd), c.rupd);
        EXPECT_EQ(parser.log_count, c.log_count);
        EXPECT_EQ(port.read_all(), kReceiptOK);
    }
}

TEST_F(DevParserTest, FirmwareResultTwoClosesTheLink) {
    parser.cfg["td"] = {"td", "MD19"};
    const Lines expected = {"UNSTAMPED:Close device ", "Load coproc firmware success. Close connect device."};
    // The receipt went out before the close; the hang-up discards it from the pty.
    EXPECT_EQ(feed("0010FUR1-2"), expected);
    EXPECT_EQ(USB.load(), 0);
    EXPECT_TRUE(parser.cfg.empty());
    EXPECT_EQ(parser.get_status(), 1);
}

TEST_F(DevParserTest, ParseAllParsesEveryPacketAndEmptiesTheList) {
    EXPECT_EQ(parser.parse_all(), 0);
    dev_busy = true;
    parser.packets = {bytes_of("0005L"), bytes_of("0005A"), bytes_of("0006Gx")};
    EXPECT_EQ(parser.parse_all(), 0);
    EXPECT_TRUE(parser.packets.empty());
    EXPECT_FALSE(dev_busy);
    EXPECT_EQ(port.read_all(), kReceiptOK + kReceiptOK);
}

// ---- Firmware blocks -------------------------------------------------------

struct QueuedBlock {
    int type;
    int number;
    std::string data;
};

// Takes every frame off bbqueue, checking its framing and undoing the stuffing.
std::vector<QueuedBlock> drain_bbqueue() {
    std::vector<QueuedBlock> blocks;
    std::vector<char> frame;
    while (bbqueue.get_copy(frame)) {
        bbqueue.pop();
        EXPECT_GE(frame.size(), 9u);
        EXPECT_EQ(frame.front(), '~');
        EXPECT_EQ(frame.back(), '\x7f');
        std::string body;
        for (size_t i = 1; i + 1 < frame.size(); ++i)
            body += frame[i] == 0x7D ? static_cast<char>(frame[++i] ^ 0x40) : frame[i];
        EXPECT_EQ(atoi(body.substr(0, 4).c_str()), static_cast<int>(body.size()));
        EXPECT_EQ(body[4], 'B');
        blocks.push_back(
            {static_cast<unsigned char>(body[5]), static_cast<unsigned char>(body[6]), body.substr(7)});
    }
    return blocks;
}

TEST(FirmwareBlocks, ImageIsCutIntoNumberedBlocksWithEndMark) {
    struct Case {
        size_t size;
        int target;
        std::vector<std::pair<int, size_t>> blocks;  // (type, data length), numbered from 0
        int total;
    };
    const Case cases[] = {
        {600, 1, {{131, 256}, {3, 256}, {3, 88}, {3, 0}}, 2},
        {512, 0, {{132, 256}, {4, 256}, {4, 0}}, 2},
        {256, 1, {{131, 256}, {3, 0}}, 1},
        {1, 0, {{132, 1}, {4, 0}}, 0},
        {0, 1, {{131, 0}}, 0},
        {0, 0, {{132, 0}}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.size) + " bytes, target " + std::to_string(c.target));
        std::vector<char> image(c.size);
        for (size_t i = 0; i < c.size; ++i)
            image[i] = static_cast<char>(i * 7 + 0x7D);  // passes every byte that needs stuffing
        parser.fw_blocks_sent = 5;
        EXPECT_EQ(parser.firmware_to_dev(c.target, image), 1);
        EXPECT_TRUE(bbqueue.start_flag);
        EXPECT_EQ(parser.fw_blocks_sent.load(), 0);
        EXPECT_EQ(parser.fw_blocks_total.load(), c.total);
        const std::vector<QueuedBlock> got = drain_bbqueue();
        ASSERT_EQ(got.size(), c.blocks.size());
        std::string joined;
        for (size_t i = 0; i < got.size(); ++i) {
            EXPECT_EQ(got[i].type, c.blocks[i].first) << i;
            EXPECT_EQ(got[i].number, static_cast<int>(i));
            EXPECT_EQ(got[i].data.size(), c.blocks[i].second) << i;
            joined += got[i].data;
        }
        EXPECT_EQ(joined, std::string(image.begin(), image.end()));
    }
    bbqueue.clear();
}

TEST(FirmwareBlocks, BlockNumbersWrapAfter255) {
    std::vector<char> image(256 * 257, 'f');
    parser.firmware_to_dev(1, image);
    const std::vector<QueuedBlock> got = drain_bbqueue();
    ASSERT_EQ(got.size(), 258u);
    EXPECT_EQ(got[255].number, 255);
    EXPECT_EQ(got[256].number, 0);
    EXPECT_EQ(got[257].number, 1);
    EXPECT_EQ(got[257].data, "");
    bbqueue.clear();
}

// ---- Port and disk lists -------------------------------------------------------

TEST(PortList, EachTerminatedLineBecomesAQuotedItem) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"/dev/ttyUSB0\n", "\"/dev/ttyUSB0\""},
        {"/dev/ttyACM0\n/dev/ttyUSB0\n", "\"/dev/ttyACM0\",\"/dev/ttyUSB0\""},
        {"\n/dev/ttyACM0\n\n/dev/ttyACM1\n", "\"/dev/ttyACM0\",\"/dev/ttyACM1\""},
        {"/dev/ttyACM0\n/dev/ttyACM1", "\"/dev/ttyACM0\""},
    };
    for (const auto& [ls, com] : cases) EXPECT_EQ(ports_from_ls(ls), com) << ls;
}

// Captured from a workstation with a USB stick (two partitions) and a SATA disk.
const std::string kLsblk =
    "NAME=\"/dev/sda\" LABEL=\"\" TRAN=\"sata\" TYPE=\"disk\" MOUNTPOINT=\"\"\n"
    "NAME=\"/dev/sda1\" LABEL=\"\" TRAN=\"\" TYPE=\"part\" MOUNTPOINT=\"/\"\n"
    "NAME=\"/dev/sdb\" LABEL=\"\" TRAN=\"usb\" TYPE=\"disk\" MOUNTPOINT=\"\"\n"
    "NAME=\"/dev/sdb1\" LABEL=\"STICK\" TRAN=\"\" TYPE=\"part\" MOUNTPOINT=\"/media/user/STICK\"\n"
    "NAME=\"/dev/sdb2\" LABEL=\"DATA\" TRAN=\"\" TYPE=\"part\" MOUNTPOINT=\"/media/user/DATA\"\n";

TEST(DiskList, OnlyTheMountedFirstPartitionOfEachUsbDrive) {
    const std::string open = "{\"result\":{\"disks\":[ ";
    const std::pair<std::string, std::string> cases[] = {
        {"", open + "]}}"},
        {kLsblk, open + "{\"name\":\"/media/user/STICK\",\"label\":\"STICK\"}]}}"},
        // First partition not mounted: nothing, even though sdb2 is.
        {"NAME=\"/dev/sdb\" TRAN=\"usb\"\nNAME=\"/dev/sdb1\" MOUNTPOINT=\"\"\n"
         "NAME=\"/dev/sdb2\" MOUNTPOINT=\"/media/b\"\n",
         open + "]}}"},
        // Only the exact name drive + "1" matches.
        {"NAME=\"/dev/sdb\" TRAN=\"usb\"\nNAME=\"/dev/sdb1x\" MOUNTPOINT=\"/media/x\"\n", open + "]}}"},
        // Two drives, listed out of order; a last line without a line feed still counts.
        {"NAME=\"/dev/sdc\" TRAN=\"usb\"\nNAME=\"/dev/sdb\" TRAN=\"usb\"\n"
         "NAME=\"/dev/sdb1\" LABEL=\"B\" MOUNTPOINT=\"/media/b\"\n\n"
         "NAME=\"/dev/sdc1\" LABEL=\"C\" MOUNTPOINT=\"/media/c\"",
         open + "{\"name\":\"/media/c\",\"label\":\"C\"},{\"name\":\"/media/b\",\"label\":\"B\"}]}}"},
        // lsblk escapes: \x20 becomes a blank, Cyrillic bytes become UTF-8, a backslash is doubled.
        {"NAME=\"/dev/sdb\" TRAN=\"usb\"\n"
         "NAME=\"/dev/sdb1\" LABEL=\"\\xd0\\x94\\xd0\\xb0 a\\x5cb\" MOUNTPOINT=\"/media/my\\x20disk\"\n",
         open + "{\"name\":\"/media/my disk\",\"label\":\"Да a\\\\b\"}]}}"},
    };
    for (const auto& [lsblk, json] : cases) EXPECT_EQ(disks_from_lsblk(lsblk), json) << lsblk;
}

}  // namespace
