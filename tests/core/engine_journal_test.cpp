// The whole engine reading the panel's journal and event memory from the simulated
// panel, shown through its HTTP API as JSON pages and downloaded files.
#include <algorithm>
#include <climits>

#include "support/engine_fixture.h"

using namespace harness;

namespace {

constexpr uint32_t kMemoryStart = 1717200000;  // 01.06.2024 00:00:00 UTC, as vorpanel-sim
constexpr size_t kRecords = 60;
constexpr size_t kEvents = 76;  // every kind the simulator keeps, twice, and two at the edges

std::string download_answer(const std::string& name, const std::string& body) {
    return answer_200(
        "Content-Type: text/plain; charset=UTF-8\r\nContent-disposition: attachment; filename=" + name +
            "\r\nContent-transfer-encoding: text\r\n",
        body);
}

// The objects of a JSON array written without spaces, in order.
Strings objects_of(const std::string& json, const std::string& array_start) {
    Strings objects;
    size_t at = json.find(array_start);
    if (at == std::string::npos) return objects;
    at += array_start.size();
    for (size_t end; (end = json.find("},{", at)) != std::string::npos; at = end + 2)
        objects.push_back(json.substr(at, end + 1 - at));
    objects.push_back(json.substr(at, json.find("}]", at) + 1 - at));
    return objects;
}

std::string joined(const Strings& objects, size_t from, size_t to) {
    std::string out;
    for (size_t i = from; i < to && i < objects.size(); ++i) out += (i == from ? "" : ",") + objects[i];
    return out;
}

// The states of a read: status, the ready flag and the progress figure named.
std::regex read_state(const std::string& flag, const std::string& figure) {
    return std::regex(R"re("status":"(\d+)".*")re" + flag + R"re(":"(\d+)".*")re" + figure +
                      R"re(":"(-?\d+)")re");
}

// One simulated panel whose answers come in frames 200 ms apart, so that each
// progress figure can be seen.
class Journal : public EngineTest {
protected:
    void SetUp() override {
        ASSERT_NO_FATAL_FAILURE(EngineTest::SetUp());
        ASSERT_NO_FATAL_FAILURE(connect({.make_link = false, .telemetry_ms = 500, .reply_gap_ms = 200}));
    }
    void set_content(const Strings& journal, const std::vector<SimEvent>& events) {
        content_ = PanelContent::standard();
        content_.log_records = journal;
        content_.events = events;
        content_.max_text_payload = 1000;  // a few large log replies
        panel().set_content(content_);
    }
    PanelContent content_;
};

// The read shows its progress until the last reply gives status 3. The pages come
// out of the same list as the whole one, the file with its Russian heading. Bad
// records and an empty journal leave every page whole.
TEST_F(Journal, LogIsReadWithProgressThenPagedAndSaved) {
    set_content(sim_journal(kRecords, kMemoryStart), {});
    // Reading: status 6 and rlog 1 with the share of records received after each
    // reply; the last reply gives status 3 and rlog 2.
    Strings expected{"6 1 0"};
    size_t received = 0;
    for (const auto& [type, payload] : log_replies(content_))
        if (type == 'G') {
            received += static_cast<size_t>(std::count(payload.begin() + 1, payload.end(), '\0'));
            expected.push_back("6 1 " + std::to_string(received * 100 / kRecords));
        }
    expected.back() = "3 2 100";
    EXPECT_EQ(ok_body, get("cmd=81"));
    expect_states(watch(R"("rlog":"2")", read_state("rlog", "log")), expected);
    EXPECT_NE(std::string::npos, get("statusdevice").find(R"("log":"100","logmax":"60")"));

    const std::string whole = golden("log_page.json");
    EXPECT_EQ(whole, get("getlog&record=0&count=0"));
    const Strings records = objects_of(whole, "\"log\":[");
    ASSERT_EQ(kRecords, records.size());
    // First, count; the number shown and the records on the page. A first beyond the
    // end gives a negative number; a negative first starts at 0; no sum overflows.
    const std::tuple<int, int, int, size_t, size_t> pages[] = {
        {10, 5, 5, 10, 15}, {55, 10, 5, 55, 60},     {60, 5, 0, 0, 0},
        {70, 0, -10, 0, 0}, {0, 60, 60, 0, 60},      {-3, 2, 2, 0, 2},
        {3, -2, -2, 0, 0},  {5, INT_MAX, 55, 5, 60}, {INT_MAX, 10, 60 - INT_MAX, 0, 0},
    };
    for (const auto& [first, count, number, from, to] : pages)
        EXPECT_EQ(R"({"result":{"number":")" + std::to_string(number) + R"(","log":[)" +
                      joined(records, from, to) + "]}}",
                  get("getlog&record=" + std::to_string(first) + "&count=" + std::to_string(count)))
            << first << " " << count;
    EXPECT_EQ(download_answer("journal.txt", golden("log_file.txt")),
              engine_->get("cmd=84&file=journal.txt"));

    // Records the page cannot show are left out with a console line from each writer,
    // the page and the file stay whole, and a record of 900 bytes arrives and shows whole.
    const Strings skipped = {"5F5E1000::ER",
                             "5F5E1000::ER::a::b",
                             "5F5E10G0::ER::not hex",
                             "0x5F5E1000::ER::hex prefix",
                             " 5F5E1000::ER::space",
                             "::MS::no time",
                             "00000000000000000::MS::17 digits",
                             "FFFFFFFFFFFFFFFF::MS::beyond time_t",
                             "7FFFFFFFFFFFFFFF::MS::beyond any date"};
    Strings edges = {"5F5E1000::ER::x", R"(5f5e1010::WN::Door "Hall\2" open)", R"(0::W"N::)"};
    edges.insert(edges.end(), skipped.begin(), skipped.end());
    edges.insert(edges.end(), {"0000000000000000::ER::16 digits", "FFFFFFFF::MS::" + std::string(886, 'x')});
    set_content(edges, {});
    EXPECT_EQ(ok_body, get("cmd=81"));
    watch(R"("rlog":"2")", read_state("rlog", "log"));
    EXPECT_EQ(golden("log_edges.json"), get("getlog&record=0&count=0"));
    EXPECT_EQ(download_answer("logs.txt", golden("log_edges.txt")), engine_->get("cmd=84"));
    for (const std::string writer : {"json", "file"})
        for (const std::string& record : skipped)
            EXPECT_TRUE(
                engine_->printed("dev_log_to_" + writer + ": No parse log record: " + record + "\n", 0));

    // A panel with an empty journal answers the count 0: the read ends at once.
    set_content({}, {});
    EXPECT_EQ(ok_body, get("cmd=81"));
    Strings seen = watch(R"("rlog":"0")", read_state("rlog", "log"));
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ("3 0", seen.back().substr(0, 3));
    EXPECT_EQ(R"({"result":{"number":"0","log":[]}})", get("getlog&record=0&count=0"));
    EXPECT_EQ(R"({"result":{"number":"-3","log":[]}})", get("getlog&record=3&count=0"));
    EXPECT_EQ(download_answer("logs.txt", "Логи прибора:\r\n"), engine_->get("cmd=84"));
    engine_->exit_cleanly();
}

// An events transfer that ends early keeps what came; the next transfer
// replaces that list. getmessage then clears rmsg.
TEST_F(Journal, EventsAreReadWithProgressThenShownAndSaved) {
    // The last two: an id of all ones, an unknown code and a radio flag; the last second of 2106.
    std::vector<SimEvent> events = sim_event_memory(kEvents - 2, kMemoryStart);
    events.push_back({0, 0xFFFFFFFF, 999, 255, 255, 255, 9, 0xFE});
    events.push_back({4294967295u, 99999999, 151, 0, 0, 1, 3, 0x00});
    std::string first_three;
    for (size_t i = 0; i < 3; ++i) first_three += event_record_bytes(events[i]);
    panel().send_frame('B', std::string("\x81\x00\x0a\x00", 4));  // ten events announced
    panel().send_frame('B', std::string("\x01\x01", 2) + first_three);
    panel().send_frame('B', std::string("\x01\x02", 2));
    // The figure counts the two header bytes: 47 of 150 bytes.
    Strings seen = watch(R"("rmsg":"2")", read_state("rmsg", "msg"));
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ("3 2 31", seen.back());
    const std::string whole = golden("events.json");
    const Strings all = objects_of(whole, "{\"result\":[ ");
    ASSERT_EQ(kEvents, all.size());
    EXPECT_EQ("{\"result\":[ " + joined(all, 0, 3) + "]}", get("getmessage"));

    set_content({}, events);
    // Status 7 and rmsg 1 with the share of the announced bytes received, from the
    // first block (its two count bytes) on; the end block gives status 3 and rmsg 2.
    Strings expected{"7 1 31"};
    size_t bytes = 0;
    for (const std::string& block : event_block_payloads(content_)) {
        bytes += block.size() - 2;
        expected.push_back("7 1 " + std::to_string(bytes * 100 / (kEvents * 15)));
    }
    expected.back() = "3 2 100";
    EXPECT_EQ(ok_body, get("cmd=91"));
    expect_states(watch(R"("rmsg":"2")", read_state("rmsg", "msg")), expected);

    EXPECT_EQ(whole, get("getmessage"));
    EXPECT_NE(std::string::npos, get("statusdevice").find(R"("rmsg":"0")"));
    EXPECT_EQ(download_answer("events.txt", golden("events.txt")), engine_->get("cmd=92&file=events.txt"));
    engine_->exit_cleanly();
}

}  // namespace
