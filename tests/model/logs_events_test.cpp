// The panel's journal and event memory in the device image: reading replies, JSON pages and text files.
#include <gtest/gtest.h>

#include <thread>
#include <tuple>

#include "model/event_descr.h"
#include "model/model_test_support.h"

namespace {

using link_test::stamps_marked;

std::vector<unsigned char> bytes(const std::string& text) {
    return std::vector<unsigned char>(text.begin(), text.end());
}

// One log reply (end mark, then the records), handed straight to the reader.
int log_reply(const std::string& payload) {
    std::vector<unsigned char> reply = bytes(payload);
    return parser.parse_log(reply, 0);
}

template <typename Action>
std::string printed_by(Action action) {
    testing::internal::CaptureStdout();
    action();
    return stamps_marked(testing::internal::GetCapturedStdout());
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

// A record shows when it has exactly three pieces and its time is 1 to 16 hex
// digits that make a date; any other is skipped with a console line, in the
// page and the file alike. The page escapes quotes and backslashes, the file
// keeps the text as it came; nothing is cut from a long record.
TEST_F(Logs, PageAndFileShowEachReadableRecord) {
    const std::string long_text(2000, 'L');
    // Record; its JSON object and file line.
    const std::tuple<std::string, std::string, std::string> records[] = {
        {"5F5E1000::ER::x", R"({"date":"13.09.2020","time":"12:26:40","type":"ER","text":"x"})",
         "ERR: 13.09.2020 12:26:40 x"},
        {R"(5f5e1010::MS::Door "Hall\2" open)",
         R"({"date":"13.09.2020","time":"12:26:56","type":"MS","text":"Door \"Hall\\2\" open"})",
         R"(INF: 13.09.2020 12:26:56 Door "Hall\2" open)"},
        {R"(0::W"N::)", R"({"date":"01.01.1970","time":"00:00:00","type":"W\"N","text":""})",
         "WNG: 01.01.1970 00:00:00 "},
        {"FFFFFFFF::MS::" + long_text,
         R"({"date":"07.02.2106","time":"06:28:15","type":"MS","text":")" + long_text + "\"}",
         "INF: 07.02.2106 06:28:15 " + long_text},
        {"0000000000000000::ER::16 digits",
         R"({"date":"01.01.1970","time":"00:00:00","type":"ER","text":"16 digits"})",
         "ERR: 01.01.1970 00:00:00 16 digits"},
    };
    const char* const skipped[] = {"5F5E1000::ER",
                                   "5F5E1000::ER::a::b",
                                   "5F5E10G0::ER::not hex",
                                   "0x5F5E1000::ER::hex prefix",
                                   " 5F5E1000::ER::space",
                                   "::MS::no time",
                                   "00000000000000000::MS::17 digits",
                                   "FFFFFFFFFFFFFFFF::MS::beyond time_t",
                                   "7FFFFFFFFFFFFFFF::MS::beyond any date"};
    std::string reply(1, '\0'), objects, file = "Логи прибора:\r\n", json_console, file_console;
    for (const auto& [record, object, line] : records) {
        reply += record + '\0';
        objects += (objects.empty() ? "" : ",") + object;
        file += line + "\r\n";
    }
    for (const std::string record : skipped) {
        reply += record + '\0';
        json_console += "@ dev_log_to_json: No parse log record: " + record + "\n";
        file_console += "@ dev_log_to_file: No parse log record: " + record + "\n";
    }
    log_reply(reply);
    std::string page;
    EXPECT_EQ(json_console, printed_by([&] { parser.dev_log_to_json(page, 0, 0); }));
    EXPECT_EQ(R"({"result":{"number":"14","log":[)" + objects + "]}}", page);
    std::string text;
    EXPECT_EQ(file_console, printed_by([&] { parser.dev_log_to_file(text); }));
    EXPECT_EQ(file, text);
}

// A panel that never stops sending cannot fill the memory: beyond 16 MiB the
// records are dropped with one console line, until the list is emptied.
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
}

// The 15 wire bytes of one event, numbers little-endian.
std::string event_bytes(uint32_t time, uint32_t id, uint16_t code, uint8_t part, uint8_t zona, uint8_t user,
                        uint8_t ext, uint8_t flags) {
    std::string out;
    for (int i = 0; i < 4; ++i) out += static_cast<char>(time >> (8 * i));
    for (int i = 0; i < 4; ++i) out += static_cast<char>(id >> (8 * i));
    out += static_cast<char>(code & 0xFF);
    out += static_cast<char>(code >> 8);
    for (uint8_t b : {part, zona, user, ext, flags}) out += static_cast<char>(b);
    return out;
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

// The JSON shows the event letter in upper case and the radio network apart
// from the extender; the file shows the letter in lower case and ext always.
// Records follow a 2-byte header, a last one cut short is read with zeros, and
// each reply replaces the list.
TEST(Events, JsonAndFileDescribeEachEvent) {
    // Record; its JSON object and file line (without the number in front).
    const std::tuple<std::string, std::string, std::string> events[] = {
        {event_bytes(1600000000, 1, 110, 1, 3, 0, 0, 1),
         R"({"date":"13.09.2020","time":"12:26:40","id":"00000001","state":"1","event":"E110",)"
         R"("text":"Тревога ПОЖАР","part":"1","zona":"3","user":"0","ext":"0","rnet":"0"})",
         "13.09.2020 12:26:40 ID  :00000001 e110 Тревога ПОЖАР РЗД : 1 ЗОНА: 3 ПЛЗ :  0 РAСШ:  0"},
        {event_bytes(86399, 12345678, 381, 2, 17, 250, 4, 0x21),
         R"({"date":"01.01.1970","time":"23:59:59","id":"12345678","state":"33","event":"E381",)"
         R"("text":"Потеря связи с радиоустройством","part":"2","zona":"17","user":"250","ext":"0","rnet":"4"})",
         "01.01.1970 23:59:59 ID  :12345678 e381 Потеря связи с радиоустройством РЗД : 2 ЗОНА: 17 ПЛЗ :  250 "
         "РAСШ:  4"},
        {event_bytes(0, 0xFFFFFFFF, 999, 255, 255, 255, 9, 0xFE),
         R"({"date":"01.01.1970","time":"00:00:00","id":"-0000001","state":"254","event":"R999",)"
         R"("text":"","part":"255","zona":"255","user":"255","ext":"0","rnet":"9"})",
         "01.01.1970 00:00:00 ID  :-0000001 r999  РЗД : 255 ЗОНА: 255 ПЛЗ :  255 РAСШ:  9"},
        {event_bytes(4294967295u, 99999999, 151, 0, 0, 1, 3, 0x00),
         R"({"date":"07.02.2106","time":"06:28:15","id":"99999999","state":"0","event":"R151",)"
         R"("text":"Восстанолвение после тревоги ГАЗ","part":"0","zona":"0","user":"1","ext":"3","rnet":"0"})",
         "07.02.2106 06:28:15 ID  :99999999 r151 Восстанолвение после тревоги ГАЗ РЗД : 0 ЗОНА: 0 ПЛЗ :  1 "
         "РAСШ:  3"},
        {"\x05",
         R"({"date":"01.01.1970","time":"00:00:05","id":"00000000","state":"0","event":"R0","text":"",)"
         R"("part":"0","zona":"0","user":"0","ext":"0","rnet":"0"})",
         "01.01.1970 00:00:05 ID  :00000000 r0  РЗД : 0 ЗОНА: 0 ПЛЗ :  0 РAСШ:  0"},
    };
    std::string reply("\x05\x00", 2), json = "{\"result\":[ ", file = "События прибора:\r\n";
    int number = 0;
    for (const auto& [record, object, line] : events) {
        reply += record;
        json += (number == 0 ? "" : ",") + object;
        ++number;
        file += "00" + std::to_string(number) + " " + line + "\r\n";
    }
    EXPECT_EQ(json + "]}", events_json(reply));
    EXPECT_EQ(file, events_file());
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
            bytes(std::string("\x01\x00", 2) + event_bytes(1, 2, 110, 1, 1, 1, 0, 1));
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
