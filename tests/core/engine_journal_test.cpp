// The whole engine reading the panel's journal and event memory from the simulated
// panel, shown through its HTTP API as JSON pages and downloaded files.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <regex>
#include <tuple>

#include "panel_sim.h"
#include "support/engine_harness.h"

using namespace harness;

namespace {

const std::string kGolden = std::string(VORCORE_SOURCE_DIR) + "/tests/data/";
const std::string kOk = R"({"result":"ok","description":""})";
constexpr uint32_t kMemoryStart = 1717200000;  // 01.06.2024 00:00:00 UTC, as vorpanel-sim
constexpr size_t kRecords = 60;
constexpr size_t kEvents = 74;  // every kind of event the simulator keeps, twice

std::string download_answer(const std::string& name, const std::string& body) {
    return "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: text/plain; charset=UTF-8\r\n"
           "Content-disposition: attachment; filename=" +
           name + "\r\nContent-transfer-encoding: text\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

// The objects of a JSON array written without spaces, in order.
std::vector<std::string> objects_of(const std::string& json, const std::string& array_start) {
    std::vector<std::string> objects;
    size_t at = json.find(array_start);
    if (at == std::string::npos) return objects;
    at += array_start.size();
    for (size_t end; (end = json.find("},{", at)) != std::string::npos; at = end + 2)
        objects.push_back(json.substr(at, end + 1 - at));
    objects.push_back(json.substr(at, json.find("}]", at) + 1 - at));
    return objects;
}

std::string joined(const std::vector<std::string>& objects, size_t from, size_t to) {
    std::string out;
    for (size_t i = from; i < to && i < objects.size(); ++i) out += (i == from ? "" : ",") + objects[i];
    return out;
}

// One engine connected to one simulated panel serves the tests of a program run:
// connecting costs two seconds, so each test covers a whole feature.
class Journal : public testing::Test {
protected:
    static void SetUpTestSuite() {
        dir_ = std::make_unique<TempDir>();
        // The frames of an answer 200 ms apart, so that each progress figure can be seen.
        panel_ = std::make_unique<PanelSim>(
            PanelSimOptions{.make_link = false, .telemetry_ms = 500, .reply_gap_ms = 200});
        if (!panel_->start()) return;
        engine_ = std::make_unique<EngineProcess>(*dir_);
        connected_ = engine_->port() != 0 && body_of(get("cmd=11&com=" + panel_->slave_path())) == kOk &&
                     wait_for([] { return status().find(R"("status":"3")") != std::string::npos; }, 10);
    }
    // Every program run ends its engine with the exit query: status 0, no sanitizer report.
    static void TearDownTestSuite() {
        if (connected_) {
            EXPECT_EQ(kOk, body_of(get("exit")));
            int status = -1;
            EXPECT_TRUE(engine_->wait_exit(5, status));
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
            EXPECT_FALSE(engine_->sanitizer_reported()) << engine_->errors();
        }
        engine_.reset();
        panel_.reset();
        dir_.reset();
    }
    void SetUp() override { ASSERT_TRUE(connected_) << (engine_ ? engine_->console() : panel_->error()); }

    static std::string get(const std::string& query) {
        return engine_->request(local_get(engine_->port(), "/tuning/device?id=-1&" + query));
    }
    static std::string status() { return body_of(get("statusdevice")); }

    // Polls the status until it contains `done`; returns each state seen in turn as
    // the status number, the ready flag and the progress figure named, e.g. "6 1 40".
    static std::vector<std::string> watch(const std::string& done, const std::string& flag,
                                          const std::string& figure) {
        const std::regex wanted("\"status\":\"(\\d+)\".*\"" + flag + "\":\"(\\d+)\".*\"" + figure +
                                "\":\"(-?\\d+)\"");
        std::vector<std::string> seen;
        bool done_seen = wait_for(
            [&] {
                std::string now = status();
                std::smatch m;
                if (std::regex_search(now, m, wanted)) {
                    std::string state = m[1].str() + " " + m[2].str() + " " + m[3].str();
                    if (seen.empty() || seen.back() != state) seen.push_back(state);
                }
                return now.find(done) != std::string::npos;
            },
            15);
        EXPECT_TRUE(done_seen) << "the status never showed " << done;
        return seen;
    }

    // The states seen must follow the expected ones in order (a poll may fall
    // between two of them), end with the last and include one in between.
    static void expect_progress(const std::vector<std::string>& seen,
                                const std::vector<std::string>& expected) {
        size_t at = 0;
        for (const std::string& state : seen) {
            while (at < expected.size() && expected[at] != state) ++at;
            ASSERT_LT(at, expected.size())
                << "state " << state << " out of order in " << testing::PrintToString(seen);
        }
        EXPECT_EQ(expected.back(), seen.back());
        EXPECT_GE(seen.size(), 3u) << testing::PrintToString(seen);
    }

    static void set_content(const std::vector<std::string>& journal, const std::vector<SimEvent>& events) {
        PanelContent content = PanelContent::standard();
        content.log_records = journal;
        content.events = events;
        content.max_text_payload = 1000;  // a few large log replies
        panel_->set_content(content);
        content_ = content;
    }

    static inline std::unique_ptr<TempDir> dir_;
    static inline std::unique_ptr<PanelSim> panel_;
    static inline std::unique_ptr<EngineProcess> engine_;
    static inline bool connected_ = false;
    static inline PanelContent content_;
};

// The read shows its progress until the last reply gives status 3. The pages come
// out of the same list as the whole one, the file with its Russian heading. Bad
// records and an empty journal leave every page whole.
TEST_F(Journal, LogIsReadWithProgressThenPagedAndSaved) {
    set_content(sim_journal(kRecords, kMemoryStart), {});
    // Reading: status 6 and rlog 1 with the share of records received after each
    // reply; the last reply gives status 3 and rlog 2.
    std::vector<std::string> expected{"6 1 0"};
    size_t received = 0;
    for (const auto& [type, payload] : log_replies(content_))
        if (type == 'G') {
            received += static_cast<size_t>(std::count(payload.begin() + 1, payload.end(), '\0'));
            expected.push_back("6 1 " + std::to_string(received * 100 / kRecords));
        }
    expected.back() = "3 2 100";
    EXPECT_EQ(kOk, body_of(get("cmd=81")));
    expect_progress(watch(R"("rlog":"2")", "rlog", "log"), expected);
    EXPECT_NE(std::string::npos, status().find(R"("log":"100","logmax":"60")"));

    const std::string whole = read_text_file(kGolden + "log_page.json");
    EXPECT_EQ(whole, body_of(get("getlog&record=0&count=0")));
    const std::vector<std::string> records = objects_of(whole, "\"log\":[");
    ASSERT_EQ(kRecords, records.size());
    // First, count; the number shown and the records on the page. A first beyond the
    // end gives a negative number; a negative first starts at 0; no sum overflows.
    const std::tuple<int, int, int, size_t, size_t> pages[] = {
        {10, 5, 5, 10, 15}, {55, 10, 5, 55, 60},     {60, 5, 0, 0, 0},
        {70, 0, -10, 0, 0}, {0, 60, 60, 0, 60},      {-3, 2, 2, 0, 2},
        {3, -2, -2, 0, 0},  {5, INT_MAX, 55, 5, 60}, {INT_MAX, 10, 60 - INT_MAX, 0, 0},
    };
    for (const auto& [first, count, number, from, to] : pages) {
        std::string page =
            body_of(get("getlog&record=" + std::to_string(first) + "&count=" + std::to_string(count)));
        EXPECT_EQ(R"({"result":{"number":")" + std::to_string(number) + R"(","log":[)" +
                      joined(records, from, to) + "]}}",
                  page)
            << first << " " << count;
    }
    EXPECT_EQ(download_answer("journal.txt", read_text_file(kGolden + "log_file.txt")),
              get("cmd=84&file=journal.txt"));

    // Records the page cannot show are left out with a console line, the page stays
    // whole JSON, and a record of 900 bytes arrives and shows whole.
    const std::string long_text(900 - 14, 'x');
    set_content({"5F5E1000::ER::x", "5F5E10G0::ER::not hex", R"(5F5E1010::WN::Door "Hall\2" open)",
                 "5F5E1020::MS::" + long_text, "only::two"},
                {});
    EXPECT_EQ(kOk, body_of(get("cmd=81")));
    watch(R"("rlog":"2")", "rlog", "log");
    EXPECT_EQ(
        R"({"result":{"number":"5","log":[{"date":"13.09.2020","time":"12:26:40","type":"ER","text":"x"},)"
        R"({"date":"13.09.2020","time":"12:26:56","type":"WN","text":"Door \"Hall\\2\" open"},)"
        R"({"date":"13.09.2020","time":"12:27:12","type":"MS","text":")" +
            long_text + "\"}]}}",
        body_of(get("getlog&record=0&count=0")));
    EXPECT_EQ(download_answer("logs.txt",
                              "Логи прибора:\r\nERR: 13.09.2020 12:26:40 x\r\n"
                              "WNG: 13.09.2020 12:26:56 Door \"Hall\\2\" open\r\n"
                              "INF: 13.09.2020 12:27:12 " +
                                  long_text + "\r\n"),
              get("cmd=84"));
    const std::string console = without_stamps(engine_->console());
    for (const char* writer : {"dev_log_to_json", "dev_log_to_file"})
        for (const char* record : {"5F5E10G0::ER::not hex", "only::two"})
            EXPECT_NE(std::string::npos,
                      console.find(std::string(writer) + ": No parse log record: " + record + "\n"))
                << writer << " " << record;

    // A panel with an empty journal answers the count 0: the read ends at once.
    set_content({}, {});
    EXPECT_EQ(kOk, body_of(get("cmd=81")));
    std::vector<std::string> seen = watch(R"("rlog":"0")", "rlog", "log");
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ("3 0", seen.back().substr(0, 3));
    EXPECT_EQ(R"({"result":{"number":"0","log":[]}})", body_of(get("getlog&record=0&count=0")));
    EXPECT_EQ(R"({"result":{"number":"-3","log":[]}})", body_of(get("getlog&record=3&count=0")));
    EXPECT_EQ(download_answer("logs.txt", "Логи прибора:\r\n"), get("cmd=84"));
}

// An events transfer that ends early keeps what came; the next transfer
// replaces that list. getmessage then clears rmsg.
TEST_F(Journal, EventsAreReadWithProgressThenShownAndSaved) {
    const std::vector<SimEvent> events = sim_event_memory(kEvents, kMemoryStart);
    std::string first_three;
    for (size_t i = 0; i < 3; ++i) first_three += event_record_bytes(events[i]);
    panel_->send_frame('B', std::string("\x81\x00\x0a\x00", 4));  // ten events announced
    panel_->send_frame('B', std::string("\x01\x01", 2) + first_three);
    panel_->send_frame('B', std::string("\x01\x02", 2));
    // The figure counts the two header bytes: 47 of 150 bytes.
    std::vector<std::string> seen = watch(R"("rmsg":"2")", "rmsg", "msg");
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ("3 2 31", seen.back());
    const std::string whole = read_text_file(kGolden + "events.json");
    const std::vector<std::string> all = objects_of(whole, "{\"result\":[ ");
    ASSERT_EQ(kEvents, all.size());
    EXPECT_EQ("{\"result\":[ " + joined(all, 0, 3) + "]}", body_of(get("getmessage")));

    set_content({}, events);
    // Status 7 and rmsg 1 with the share of the announced bytes received, from the
    // first block (its two count bytes) on; the end block gives status 3 and rmsg 2.
    std::vector<std::string> expected{"7 1 31"};
    size_t bytes = 0;
    for (const std::string& block : event_block_payloads(content_)) {
        bytes += block.size() - 2;
        expected.push_back("7 1 " + std::to_string(bytes * 100 / (kEvents * 15)));
    }
    expected.back() = "3 2 100";
    EXPECT_EQ(kOk, body_of(get("cmd=91")));
    expect_progress(watch(R"("rmsg":"2")", "rmsg", "msg"), expected);

    EXPECT_EQ(whole, body_of(get("getmessage")));
    EXPECT_NE(std::string::npos, status().find(R"("rmsg":"0")"));
    EXPECT_EQ(download_answer("events.txt", read_text_file(kGolden + "events.txt")),
              get("cmd=92&file=events.txt"));
}

}  // namespace
