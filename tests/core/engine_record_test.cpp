// The link record through the whole program: a session against the simulated panel downloaded with
// "linkrecord", read back by pk7dump, and replayed by the simulator against a fresh engine.
#include <sys/wait.h>

#include <map>

#include "link/record_frames.h"
#include "support/engine_fixture.h"

using namespace harness;

namespace {

// vorpanel-sim --replay as a child process, its output and exit status kept in files.
class ReplayRun {
public:
    ReplayRun(const TempDir& dir, const std::string& record, const std::string& name)
        : out_(dir.path() + "/" + name + ".out"), status_(dir.path() + "/" + name + ".status") {
        std::string command = std::string("exec >'") + out_ +
                              "' 2>&1; timeout -s KILL 120 " VORPANEL_SIM_BINARY
                              " --no-link --fast --replay '" +
                              record + "'; echo \"exit $?\" >'" + status_ + "'";
        const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
        // A group of its own, so that a test that fails half way can end the replay at once.
        posix_spawnattr_t group;
        posix_spawnattr_init(&group);
        posix_spawnattr_setflags(&group, POSIX_SPAWN_SETPGROUP);
        if (posix_spawn(&pid_, "/bin/sh", nullptr, &group, const_cast<char**>(argv), environ) != 0) pid_ = -1;
        posix_spawnattr_destroy(&group);
    }
    ~ReplayRun() {
        if (pid_ <= 0) return;
        kill(-pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
    // The terminal the replay plays on ("" when it never said).
    std::string pty() const {
        std::string first;
        wait_for([&] { return (first = output()).find('\n') != std::string::npos; }, 5);
        return first.substr(0, first.find('\n'));
    }
    std::string output() const { return read_text_file(out_); }
    // "exit N" once the replay has ended (bounded wait), else "".
    std::string ended() const {
        std::string status;
        wait_for([&] { return !(status = read_text_file(status_)).empty(); }, 20);
        return status;
    }

private:
    std::string out_, status_;
    pid_t pid_ = -1;
};

std::string hex(const std::string& bytes) {
    std::string out;
    char pair[3];
    for (unsigned char c : bytes)
        out.append(pair, static_cast<size_t>(snprintf(pair, sizeof pair, "%02x", c)));
    return out;
}

class Record : public EngineTest {
protected:
    // The simulated panel of the session: a short journal and event memory.
    static PanelSimOptions session_panel() {
        PanelSimOptions options{.make_link = false, .telemetry_ms = 300};
        options.content.log_records = sim_journal(12, 1717200000);
        options.content.events = sim_event_memory(30, 1717200000);
        return options;
    }

    // One installer's session on the panel at `port`: connect, the access password, a new panel
    // password, read the configuration, write zone 1 as `zone1`, read the journal and the
    // events, upload firmware, restart (its receipt closes the link).
    void session(const std::string& port, const std::string& new_password, const std::string& zone1) {
        ASSERT_EQ(get("cmd=11&com=" + port), ok_body);
        ASSERT_TRUE(status_shows({R"("status":"3")"})) << engine_->console();
        std::string answer = get("cmd=12&pass=1234");
        wait_for(
            [&] {
                return answer != continue_body ||
                       (answer = get("cmd=12&pass=1234&continue")) != continue_body;
            },
            5);
        ASSERT_EQ(answer, ok_body);
        ASSERT_EQ(get("cmd=23&pass=" + new_password), ok_body);
        ASSERT_EQ(get("cmd=32"), ok_body);
        ASSERT_TRUE(status_shows({R"("status":"3")"}));
        ASSERT_EQ(post("configset", R"({"config":[)" + element("zn1", {zone1}) + "]}"), ok_body);
        ASSERT_EQ(get("cmd=31"), ok_body);
        ASSERT_TRUE(status_shows({R"("status":"3")"}));
        ASSERT_EQ(get("cmd=81"), ok_body);
        ASSERT_TRUE(status_shows({R"("rlog":"2")"}));
        ASSERT_EQ(get("cmd=91"), ok_body);
        ASSERT_TRUE(status_shows({R"("rmsg":"2")"}));
        ASSERT_EQ(post("cmd=71", browser_encoded(image())), ok_body);
        ASSERT_TRUE(status_shows({R"("rupd":"2")"}));
        ASSERT_EQ(get("cmd=21"), ok_body);
        ASSERT_TRUE(status_shows({R"("status":"1")"}));
    }

    static std::string image() {
        std::string bytes;
        for (int i = 0; i < 3 * 256; ++i) bytes += static_cast<char>(i * 7);  // every frame byte among them
        return bytes;
    }

    void fresh_engine() {
        engine_->exit_cleanly();
        // The new engine's port is read from its console: not from the old one's.
        std::filesystem::remove(dir_.path() + "/stdout.txt");
        engine_ = std::make_unique<EngineProcess>(dir_);
        ASSERT_NE(engine_->port(), 0);
    }
};

// The frames a record holds, whole, in order: the engine's (">") and the panel's ("<").
std::map<char, Strings> recorded_frames(const std::string& text) {
    std::vector<RecordLine> lines;
    std::string error;
    EXPECT_TRUE(parse_link_record(text, lines, error)) << error;
    std::map<char, Strings> frames;
    for (const RecordedFrame& frame : record_frames(lines)) {
        EXPECT_EQ(frame.cut, FrameCut::whole) << frame.wire;
        frames[static_cast<char>(frame.direction)].push_back(frame.body);
    }
    return frames;
}

// Frames cut from bytes by the simulator's own reader.
Strings sim_cut(const std::string& bytes) {
    SimFrameReader reader;
    return reader.feed(bytes.data(), bytes.size());
}

TEST_F(Record, SessionIsRecordedDecodedAndReplayed) {
    panels_.push_back(std::make_unique<PanelSim>(session_panel()));
    ASSERT_TRUE(panel().start()) << panel().error();
    ASSERT_NO_FATAL_FAILURE(session(panel().slave_path(), "654321", "7"));
    const std::string download = engine_->get("linkrecord"), text = body_of(download);
    EXPECT_TRUE(
        std::regex_match(download.substr(0, download.size() - text.size()),
                         std::regex("HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Type: text/plain; "
                                    "charset=UTF-8\r\nContent-disposition: attachment; "
                                    "filename=link-\\d{8}-\\d{6}\\.txt\r\nContent-transfer-encoding: "
                                    "text\r\nContent-Length: \\d+\r\n\r\n")))
        << download.substr(0, 300);
    std::map<char, Strings> frames = recorded_frames(text);

    // Every frame the panel received is a ">" frame, the passwords masked; every frame it sent
    // is a "<" frame, up to those sent after the link closed (telemetry only).
    Strings received;
    for (const SimFrame& frame : panel().received()) {
        std::string body = frame.body;
        if (frame.type() == 'B' && frame.payload().starts_with("\x82")) body.replace(5, 18, 18, '\0');
        if (frame.payload().starts_with("PS-")) body.replace(8, 6, "******");
        received.push_back(body);
    }
    EXPECT_EQ(frames['>'], received);
    const Strings sent = sim_cut(panel().sent_bytes());
    ASSERT_LE(frames['<'].size(), sent.size());
    EXPECT_EQ(frames['<'], Strings(sent.begin(), sent.begin() + static_cast<long>(frames['<'].size())));
    for (size_t i = frames['<'].size(); i < sent.size(); ++i) EXPECT_EQ(sent[i][4], 'L') << sent[i];

    // pk7dump counts the frames of each direction and type, and times every transfer.
    const std::string file = dir_.path() + "/record.txt";
    std::ofstream(file, std::ios::binary) << text;
    auto [status, stats] = run_program(std::string(PK7DUMP_BINARY) + " --stats " + file);
    EXPECT_EQ(status, 0);
    std::map<std::string, size_t> counted;
    std::smatch m;
    for (auto at = stats.cbegin();
         std::regex_search(at, stats.cend(), m, std::regex(R"(\n  ([<>] [A-Z]) [^\n]*: (\d+)\n)"));
         at = m[0].second - 1)
        counted[m[1]] += std::stoul(m[2]);
    std::map<std::string, size_t> expected;
    for (char direction : {'>', '<'})
        for (const std::string& body : frames[direction]) ++expected[std::string{direction, ' ', body[4]}];
    EXPECT_EQ(counted, expected) << stats;
    for (const char* line : {"resends: 0\n", "negative receipts: 0\n", "frames lost: 0\n"})
        EXPECT_NE(stats.find(line), std::string::npos) << line << stats;
    for (const char* transfer :
         {"configuration read", "configuration write", "journal", "events", "firmware upload"})
        EXPECT_TRUE(std::regex_search(stats, std::regex(std::string("\n  ") + transfer + R"(: \d+ ms \()")))
            << transfer << "\n"
            << stats;

    // Replayed against a fresh engine driven through the same requests (another new password
    // is fine: the record holds none), nothing differs; another setting written differs.
    size_t steps = 0;
    for (const std::string& body : frames['>']) steps += body[4] != 'A';
    for (const std::string zone1 : {"7", "9"}) {
        SCOPED_TRACE(zone1);
        ASSERT_NO_FATAL_FAILURE(fresh_engine());
        ReplayRun replay(dir_, file, "replay" + zone1);
        const std::string pty = replay.pty();
        ASSERT_TRUE(pty.starts_with("/dev/")) << replay.output();
        ASSERT_NO_FATAL_FAILURE(session(pty, "111111", zone1));
        const std::string ended = replay.ended();
        if (zone1 == "7") {
            EXPECT_EQ(ended, "exit 0\n") << replay.output();
            EXPECT_EQ(replay.output(),
                      pty + "\nreplay: " + std::to_string(steps) + " frames matched, 0 differed\n");
            continue;
        }
        size_t number = 0;
        while (number < frames['>'].size() && frames['>'][number] != packet('F', "zn1-7\r\n")) ++number;
        size_t step = 0;
        for (size_t i = 0; i <= number; ++i) step += frames['>'][i][4] != 'A';
        EXPECT_EQ(ended, "exit 1\n") << replay.output();
        EXPECT_EQ(replay.output(), pty + "\nreplay: frame " + std::to_string(step) + " differs: expected " +
                                       hex("~0012Fzn1-7\r\n\x7f") + ", got " + hex("~0012Fzn1-9\r\n\x7f") +
                                       "\nreplay: " + std::to_string(steps - 1) +
                                       " frames matched, 1 differed\n");
    }
    engine_->exit_cleanly();
}

}  // namespace
