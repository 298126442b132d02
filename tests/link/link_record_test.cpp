// Tests of the link record: its lines read back as written, passwords masked, the
// ring bounded with whole lines, and both threads appending while it is copied.
#include "link/link_record.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "link/pk7.h"

namespace {

// The record's lines after its four header lines, parsed.
std::vector<RecordLine> traffic_lines(const std::string& text) {
    std::vector<RecordLine> lines;
    std::string error;
    EXPECT_TRUE(parse_link_record(text, lines, error)) << error;
    if (lines.size() >= 4) lines.erase(lines.begin(), lines.begin() + 4);
    return lines;
}

// What the record shows was written to the panel, all lines joined.
std::string recorded_writes() {
    std::string bytes;
    for (const RecordLine& line : traffic_lines(link_record_text()))
        if (line.kind == RecordLine::traffic && line.direction == LinkDirection::to_panel) bytes += line.data;
    return bytes;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// The process's own resident memory (RssAnon): the pages of code it runs are the files' and may
// come and go with the page cache.
size_t resident_bytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with("RssAnon:")) return std::stoul(line.substr(8)) * 1024;
    return 0;
}

TEST(LinkRecord, LinesOfEveryKindReadBackAsWritten) {
    link_record_reset();
    const std::string path = "/dev/tty USB%\x01\xff", chunk("~0005A\x7f\x00\xff", 9);
    link_record_open(path);
    link_record_traffic(LinkDirection::to_panel, chunk.data(), chunk.size());
    link_record_traffic(LinkDirection::from_panel, "\x7e", 1);
    link_record_close();
    const std::string text = link_record_text();
    EXPECT_TRUE(
        std::regex_match(text, std::regex("# vorcore link record 1\n# engine 5\\.2\\.22\n"
                                          "# started \\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\n# dropped 0\n"
                                          "\\d+ open /dev/tty%20USB%25%01%FF\n"
                                          "\\d+ > 7e30303035417f00ff\n"
                                          "\\d+ < 7e\n\\d+ close\n")))
        << text;
    const std::vector<RecordLine> lines = traffic_lines(text);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].data, path);
    EXPECT_EQ(lines[1].data, chunk);
    EXPECT_EQ(lines[3].kind, RecordLine::close);
    for (size_t i = 1; i < lines.size(); ++i) EXPECT_LE(lines[i - 1].ms, lines[i].ms);

    // Lines that are not of the format are refused with their number.
    for (const std::string bad :
         {"12 > 7e7", "12 > 7g", "x > 7e", "12 open %4", "12 shut", "12  > 7e", "12 >"}) {
        std::vector<RecordLine> parsed;
        std::string error;
        EXPECT_FALSE(parse_link_record("# vorcore link record 1\n1 close\n" + bad + "\n", parsed, error))
            << bad;
        EXPECT_EQ(error.substr(0, 7), "line 3:") << bad;
    }
}

// A new panel password shows its six characters as "*"; the access-password block shows as the
// well-formed frame with a zero payload of its unstuffed length, whichever pieces write() took.
TEST(LinkRecord, PasswordsAreMaskedWhateverPiecesTheWriteTakes) {
    const std::string secret(
        "\x82\x00\x7e\x7d\x7f"
        "abcdefghijklm",
        18);
    std::vector<char> block;
    form_pk7_packet_binary('B', const_cast<char*>(secret.data()), secret.size(), block);
    const std::string wire(block.begin(), block.end()),
        masked_block = "~0023B" + std::string(18, '\0') + "\x7f";
    const std::string plain("~0008FAD\x7f");
    // {frame, the pieces write() takes, recorded form}
    const std::tuple<std::string, std::vector<size_t>, std::string> cases[] = {
        {"~0018FPS-123456\r\nec\x7f", {20}, "~0018FPS-******\r\nec\x7f"},
        {"~0018FPS-123456\r\nec\x7f", {3, 5, 12}, "~0018FPS-******\r\nec\x7f"},
        {wire, {wire.size()}, masked_block},
        {wire, {4, 4, 9, wire.size() - 17}, masked_block},
        {wire, {wire.size() - 1, 1}, masked_block},
        {plain, {2, plain.size() - 2}, plain},
    };
    for (const auto& [frame, pieces, recorded] : cases) {
        link_record_reset();
        const RecordedWrite write(frame.data(), frame.size());
        size_t from = 0;
        for (size_t piece : pieces) {
            write.wrote(from, piece);
            from += piece;
        }
        ASSERT_EQ(from, frame.size());
        EXPECT_EQ(recorded_writes(), recorded) << testing::PrintToString(pieces);
        EXPECT_EQ(link_record_text().find("313233343536"), std::string::npos);
        EXPECT_EQ(link_record_text().find("616263"), std::string::npos);
    }
}

// Feeds 10 MiB of chunks of 1000 bytes, each different, both ways in turn.
constexpr size_t kChunksFed = (10u << 20) / 1000;
void feed_10_mib(std::string& chunk) {
    chunk.assign(1000, '\0');
    for (size_t n = 0; n < kChunksFed; ++n) {
        for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(n + i);
        link_record_traffic(n % 2 ? LinkDirection::from_panel : LinkDirection::to_panel, chunk.data(),
                            chunk.size());
    }
}

// 10 MiB of chunks through the record's own interface: it keeps at most 4 MiB, header included,
// the oldest whole lines dropped and counted. Filled again from empty, it adds at most 4 MiB to
// the resident memory (plain build only).
TEST(LinkRecord, FullRingKeepsWholeLinesCountsTheDroppedAndStaysWithinItsSize) {
    link_record_reset();
    std::string chunk;
    feed_10_mib(chunk);
    const size_t fed = kChunksFed;
    const std::string text = link_record_text();
    EXPECT_LE(text.size(), LINK_RECORD_MAX_BYTES);
    EXPECT_GT(text.size(), LINK_RECORD_MAX_BYTES - 4096);
    const std::vector<RecordLine> lines = traffic_lines(text);
    std::smatch dropped;
    ASSERT_TRUE(std::regex_search(text, dropped, std::regex("\n# dropped (\\d+)\n")));
    EXPECT_EQ(std::stoul(dropped[1]), fed - lines.size());
    // The first line held is a whole chunk: the one after the last dropped.
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front().data.size(), chunk.size());
    EXPECT_EQ(static_cast<unsigned char>(lines.front().data[0]), (fed - lines.size()) % 256);
    EXPECT_EQ(lines.back().data, chunk);

    if (kSanitized) {
        std::cout << "[ SKIPPED  ] resident memory bound: the sanitizers keep shadow memory of their own\n";
    } else {
        link_record_reset();
        const size_t resident_before = resident_bytes();
        ASSERT_GT(resident_before, 0u);
        feed_10_mib(chunk);
        EXPECT_LE(resident_bytes() - resident_before, LINK_RECORD_MAX_BYTES);
    }
    link_record_reset();
}

// The device thread and the HTTP thread append while the HTTP thread copies: every copy reads
// back whole, its lines in time order (run under TSan).
TEST(LinkRecord, BothThreadsAppendWhileTheRecordIsCopied) {
    link_record_reset();
    auto append = [](LinkDirection direction) {
        for (int i = 0; i < 3000; ++i) link_record_traffic(direction, "\x7e\x30\x7f", 3);
    };
    std::thread device(append, LinkDirection::from_panel), http(append, LinkDirection::to_panel);
    for (int copy = 0; copy < 20; ++copy) {
        const std::vector<RecordLine> lines = traffic_lines(link_record_text());
        for (size_t i = 1; i < lines.size(); ++i) ASSERT_LE(lines[i - 1].ms, lines[i].ms);
    }
    device.join();
    http.join();
    EXPECT_EQ(traffic_lines(link_record_text()).size(), 6000u);
    link_record_reset();
}

}  // namespace
