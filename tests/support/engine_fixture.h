// The fixture of the whole-program tests: one vorcore program in a scratch
// directory holding the test cipher, the simulated panels a test connects to it,
// and the browser's side of the HTTP API.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <regex>

#include "panel_sim.h"
#include "support/engine_harness.h"

namespace harness {

class EngineTest : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::copy_file(VORCORE_SOURCE_DIR "/data/cipher-test.txt", dir_.path() + "/cipher.txt");
        engine_ = std::make_unique<EngineProcess>(dir_);
        ASSERT_NE(engine_->port(), 0) << engine_->console();
    }

    // A new simulated panel, connected and ready (status 3, cmd_sf received); it becomes panel().
    void connect(PanelSimOptions options = {.make_link = false, .telemetry_ms = 300}) {
        panels_.push_back(std::make_unique<PanelSim>(options));
        ASSERT_TRUE(panel().start()) << panel().error();
        ASSERT_EQ(get("cmd=11&com=" + panel().slave_path()), ok_body);
        connected_at_ = Clock::now();
        ASSERT_TRUE(status_shows({R"("status":"3")"})) << engine_->console();
        ASSERT_TRUE(wait_for([&] { return written().starts_with("~0007FSF\x7f"); }, 3));
    }
    PanelSim& panel() { return *panels_.back(); }

    // Answer bodies of the API's queries and uploads.
    std::string get(const std::string& query) { return body_of(engine_->get(query)); }
    std::string post(const std::string& query, const std::string& content) {
        return body_of(
            engine_->request(local_post(engine_->port(), "/tuning/device?id=-1&" + query, content)));
    }
    // The engineinfo answer body for the two flags ('1' usable, '0' not).
    static std::string engine_info(char cipher, char history) {
        return std::string(R"({"result":{"version":"5.2.22","cipher":")") + cipher + R"(","history":")" +
               history + "\"}}";
    }
    // Polls the status (bounded) until it shows every fragment.
    bool status_shows(const Strings& fragments, double seconds = 10) {
        return wait_for(
            [&] {
                std::string status = get("statusdevice");
                for (const std::string& fragment : fragments)
                    if (status.find(fragment) == std::string::npos) return false;
                return true;
            },
            seconds);
    }

    // What the engine wrote to panel() since it was last forgotten, without the
    // receipts it sends for the panel's own frames (writes are whole frames, so a
    // receipt never sits inside another frame).
    std::string written() {
        std::string bytes = panel().received_bytes();
        for (size_t at; (at = bytes.find("~0005A\x7f")) != std::string::npos;) bytes.erase(at, 7);
        return bytes;
    }
    // The frames the engine wrote to panel(), unstuffed, without start and end bytes and receipts.
    Strings frames_written() {
        Strings bodies;
        for (const SimFrame& frame : panel().received())
            if (frame.type() != 'A') bodies.push_back(frame.body);
        return bodies;
    }

    // The frames a configuration write of `settings` sends, in key order: whole
    // "key-value" lines packed into text frames of at least 301 bytes (the last
    // may be shorter), then the end command.
    static std::string write_frames(const std::map<std::string, std::string>& settings) {
        std::string frames, text;
        for (const auto& [key, value] : settings) {
            text += key + "-" + value + "\r\n";
            if (text.size() < 301 && key != settings.rbegin()->first) continue;
            frames += "~" + packet('F', text) + "\x7f";
            text.clear();
        }
        return frames + "~0007FEC\x7f";
    }

    // The snapshots the history lists, newest first, each as name, kind, date, time,
    // model and settings; the list holds nothing else (no blanks either).
    std::vector<Strings> history() {
        static const std::regex entry(
            R"re(\{"name":"([^"]*)","kind":"([^"]*)","date":"([^"]*)","time":"([^"]*)","model":"([^"]*)","settings":"(\d+)"\})re");
        const std::string list = get("history");
        std::vector<Strings> out;
        std::string rebuilt;
        for (std::sregex_iterator it(list.begin(), list.end(), entry), end; it != end; ++it) {
            rebuilt += (rebuilt.empty() ? "" : ",") + it->str();
            out.push_back(Strings(std::next(it->begin()), it->end()));
        }
        EXPECT_EQ(list, R"({"result":{"history":[)" + rebuilt + "]}}");
        return out;
    }
    // The name of the newest snapshot of `kind`, waiting (bounded) for one; empty if none comes.
    std::string newest(const std::string& kind) {
        std::string name;
        wait_for(
            [&] {
                for (const Strings& snapshot : history())
                    if (snapshot[1] == kind) return !(name = snapshot[0]).empty();
                return false;
            },
            5);
        return name;
    }
    // The element of `key` in a configuration list; empty when it has none.
    static std::string element_in(const std::string& list, const std::string& key) {
        std::smatch found;
        const std::regex element("\\{\"key\":\"" + key + "\",\"subvalues\":\\[[^\\]]*\\]\\}");
        return std::regex_search(list, found, element) ? found.str() : "";
    }

    // Polls the status until it shows `done`; returns each state seen in turn as the
    // three numbers `state` captures (status, ready flag, progress figure: "6 1 40").
    Strings watch(const std::string& done, const std::regex& state) {
        Strings seen;
        EXPECT_TRUE(wait_for(
            [&] {
                std::string now = get("statusdevice");
                std::smatch m;
                if (std::regex_search(now, m, state)) {
                    std::string shown = m[1].str() + " " + m[2].str() + " " + m[3].str();
                    if (seen.empty() || seen.back() != shown) seen.push_back(shown);
                }
                return now.find(done) != std::string::npos;
            },
            15))
            << "the status never showed " << done;
        return seen;
    }
    // The states seen follow the expected ones in order (a poll may fall between two
    // of them), end with the last and include at least `least` of them.
    static void expect_states(const Strings& seen, const Strings& expected, size_t least = 3) {
        size_t at = 0;
        for (const std::string& state : seen) {
            while (at < expected.size() && expected[at] != state) ++at;
            ASSERT_LT(at, expected.size()) << state << " out of order in " << testing::PrintToString(seen);
        }
        ASSERT_FALSE(seen.empty());
        EXPECT_EQ(seen.back(), expected.back());
        EXPECT_GE(seen.size(), least) << testing::PrintToString(seen);
    }

    TempDir dir_;
    // The engine ends (reverse order) before its panels stop.
    std::vector<std::unique_ptr<PanelSim>> panels_;
    std::unique_ptr<EngineProcess> engine_;
    Clock::time_point connected_at_;
};

}  // namespace harness
