// The panel's journal and event memory in the device image: reading replies, JSON pages and text files.
#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "link/link_test_support.h"
#include "model/event_descr.h"

namespace {

using namespace link_test;

std::vector<unsigned char> bytes(const std::string& text) {
    return std::vector<unsigned char>(text.begin(), text.end());
}

// One log reply (end mark, then the records), handed straight to the reader.
int log_reply(const std::string& payload) {
    std::vector<unsigned char> reply = bytes(payload);
    return parser.parse_log(reply, 0);
}

struct Logs : testing::Test {
    void SetUp() override { parser.clear(); }
};

// Zero bytes end records (two in a row store an empty one), an unfinished last
// record is stored too, and end mark 1 finishes the read. The progress is
// received * 100 / announced, and may pass 100.
TEST_F(Logs, RepliesAreCollectedWithProgressAndEndMark) {
    parser.set_status(6);
    parser.set_ready_text(&StatusDevice::rlog, "1");
    // Announced count, reply; then records stored, log progress, status, rlog.
    const std::tuple<int, std::string, size_t, std::string> steps[] = {
        {0, std::string("\0A\0B\0", 5), 2, "0 6 1"},  // nothing announced: progress left alone
        {4, std::string("\0\0C", 3), 4, "100 6 1"},
        {4, std::string("\2D\0", 3), 5, "125 6 1"},
        {4, std::string("\x01", 1), 5, "125 3 2"},
    };
    for (const auto& [announced, reply, stored, state] : steps) {
        parser.log_count = announced;
        EXPECT_EQ(1, log_reply(reply));
        EXPECT_EQ(stored, parser.logs.size());
        EXPECT_EQ(state, parser.get_ready_text(&StatusDevice::log) + " " +
                             std::to_string(parser.get_status()) + " " +
                             parser.get_ready_text(&StatusDevice::rlog));
    }
    EXPECT_EQ((std::vector<std::string>{"A", "B", "", "C", "D"}), parser.logs);
    parser.clear_logs();
    EXPECT_TRUE(parser.logs.empty());
    EXPECT_EQ(5, parser.log_received);  // the count goes on until a new read resets it
}

// A panel that never stops sending cannot fill the memory: beyond 16 MiB the
// records are dropped with one console line, until the list is emptied. The
// whole program's tests show which records a page and a file show, and how.
TEST_F(Logs, StoredRecordsAreBounded) {
    std::vector<unsigned char> reply =
        bytes(std::string(1, '\0') + "5F5E1000::MS::" + std::string(8000, 'x'));
    const size_t cost = reply.size() - 1 + sizeof(std::string);
    const size_t fit = (16u << 20) / cost;
    std::string console = printed_by([&] {
        for (size_t i = 0; i < fit + 10; ++i) parser.parse_log(reply, 0);
    });
    EXPECT_EQ("@ parse_log: log list full, further records dropped\n", console);
    EXPECT_EQ(fit, parser.logs.size());
    parser.clear_logs();
    parser.parse_log(reply, 0);
    EXPECT_EQ(1u, parser.logs.size());
    std::string page;  // nothing is cut from a long record
    parser.dev_log_to_json(page, 0, 0);
    EXPECT_TRUE(page.ends_with(R"("type":"MS","text":")" + std::string(8000, 'x') + "\"}]}}")) << page.size();
}

std::string events_json(const std::string& reply) {
    std::vector<unsigned char> data = bytes(reply);
    parser.get_list_dev_events(data);
    std::string out;
    parser.dev_events_to_json(out);
    return out;
}

std::string events_file() {
    std::string out;
    parser.dev_events_to_file(out);
    return out;
}

// Records follow a 2-byte header; a last one cut short is read with zeros, and
// each reply replaces the list (the whole program's golden files show how each
// kind of event is described).
TEST(Events, ACutRecordIsReadWithZerosAndEachReplyReplacesTheList) {
    EXPECT_EQ(
        R"({"result":[ {"date":"01.01.1970","time":"00:00:05","id":"00000000","state":"0","event":"R0",)"
        R"("text":"","part":"0","zona":"0","user":"0","ext":"0","rnet":"0"}]})",
        events_json(std::string("\x05\x00\x05", 3)));
    EXPECT_EQ(
        "События прибора:\r\n001 01.01.1970 00:00:05 ID  :00000000 r0  РЗД : 0 ЗОНА: 0 ПЛЗ :  0 РAСШ:  0\r\n",
        events_file());
    for (const std::string& empty : {std::string("\x05\x00", 2), std::string()})
        EXPECT_EQ("{\"result\":[ ]}", events_json(empty));
    EXPECT_EQ("События прибора:\r\n", events_file());
}

// 81 entries; the first entry with the letter and the code wins, letters
// compare exactly, and the code must be the whole rest of the text.
TEST(EventTable, DescribesKnownCodesOnly) {
    EXPECT_EQ(81, event_table_size);
    EXPECT_EQ(std::string("Тревога ПОЖАР"), e[0].descr);
    EXPECT_EQ(std::string("Активный канала LAN"), e[71].descr);
    EXPECT_EQ(std::string("Обновление ПО"), e[80].descr);
    const std::tuple<std::string, std::string> known[] = {
        {"E110", "Тревога ПОЖАР"}, {"R309", "Батарея в норме"}, {"R825", "Восстановление питания"}};
    for (const auto& [event, descr] : known) {
        EXPECT_EQ(descr, event_descr(event)) << event;
        EXPECT_EQ(descr, parser.get_event_descr_utf8(event)) << event;
    }
    for (const char* unknown : {"e110", "R121", "E1100", "E11", "E", ""}) EXPECT_EQ("", event_descr(unknown));
}

// The device thread stores journal and events while the HTTP thread pages,
// saves and empties them (run under ThreadSanitizer).
TEST(LogsAndEvents, DeviceAndHttpThreadsShareTheImage) {
    parser.clear();
    std::thread device([] {
        std::vector<unsigned char> log = bytes(std::string(1, '\0') + "5F5E1000::MS::on" + '\0');
        std::vector<unsigned char> events =
            bytes(std::string("\x01\x00", 2) + event_record_bytes({1, 2, 110, 1, 1, 1, 0, 1}));
        for (int i = 0; i < 300; ++i) {
            parser.parse_log(log, 0);
            parser.get_list_dev_events(events);
        }
    });
    std::string out;
    for (int i = 0; i < 300; ++i) {
        parser.dev_log_to_json(out, 0, 0);
        parser.dev_log_to_file(out);
        parser.dev_events_to_json(out);
        parser.dev_events_to_file(out);
        if (i % 50 == 0) parser.clear_logs();
    }
    device.join();
    EXPECT_EQ(1u, parser.events.size());
}

}  // namespace
