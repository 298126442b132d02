// Jobs through the whole program and the simulated panel that no other whole-program test covers:
// the command set byte for byte, firmware uploads, restarts, a new panel after an old one with work
// still queued, a 2,000-line configuration write, saving to a drive and bad input.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <vector>

#include "core/utils.h"
#include "http/api_test_support.h"
#include "panel_sim.h"
#include "support/config_text.h"

using namespace harness;
namespace fs = std::filesystem;

namespace {

const std::string ok = R"({"result":"ok","description":""})";
const std::string error = R"({"result":"error","description":""})";
const std::string receipt("~0005A\x7f");
const std::string ul2 = "~0009FUL-2\x7f", ad = "~0007FAD\x7f";

// What the engine wrote to the panel since it was last forgotten, without the
// receipts it sends for the panel's own frames (writes are whole frames, so a
// receipt never sits inside another frame).
std::string written_to(PanelSim& panel) {
    std::string bytes = panel.received_bytes();
    for (size_t at; (at = bytes.find(receipt)) != std::string::npos;) bytes.erase(at, receipt.size());
    return bytes;
}

// The frames the engine wrote, unstuffed and without start and end bytes, receipts left out.
std::vector<std::string> frames_to(PanelSim& panel) {
    std::vector<std::string> bodies;
    for (const SimFrame& frame : panel.received())
        if (frame.type() != 'A') bodies.push_back(frame.body);
    return bodies;
}

// The body of a frame the panel receives: length digits, type, payload.
std::string frame_body(char type, const std::string& payload) {
    return format_to_str("%04zu", payload.size() + 5) + type + payload;
}

// One engine per test in a scratch directory with the test cipher; panels are
// made and connected as a test needs them.
class Jobs : public testing::Test {
protected:
    void SetUp() override {
        fs::copy_file(std::string(VORCORE_SOURCE_DIR) + "/data/cipher-test.txt", dir_.path() + "/cipher.txt");
        engine_ = std::make_unique<EngineProcess>(dir_);
        ASSERT_NE(engine_->port(), 0) << engine_->console();
    }

    // A new simulated panel, connected and ready (status 3, cmd_sf received); it becomes panel().
    void connect(PanelSimOptions options = {.make_link = false, .telemetry_ms = 300}) {
        panels_.push_back(std::make_unique<PanelSim>(options));
        ASSERT_TRUE(panel().start()) << panel().error();
        ASSERT_EQ(get("cmd=11&com=" + panel().slave_path()), ok);
        connected_at_ = Clock::now();
        ASSERT_TRUE(status_shows({R"("status":"3")"})) << engine_->console();
        ASSERT_TRUE(wait_for([&] { return written_to(panel()).starts_with("~0007FSF\x7f"); }, 3));
    }
    PanelSim& panel() { return *panels_.back(); }

    std::string get(const std::string& query) {
        return body_of(engine_->request(local_get(engine_->port(), "/tuning/device?id=-1&" + query)));
    }
    std::string post(const std::string& query, const std::string& content) {
        return body_of(
            engine_->request(local_post(engine_->port(), "/tuning/device?id=-1&" + query, content)));
    }
    // Polls the status (bounded) until it shows every fragment.
    bool status_shows(const std::vector<std::string>& fragments, double seconds = 10) {
        return wait_for(
            [&] {
                std::string status = get("statusdevice");
                for (const std::string& fragment : fragments)
                    if (status.find(fragment) == std::string::npos) return false;
                return true;
            },
            seconds);
    }
    bool printed(const std::string& line, double seconds = 5) {
        return wait_for([&] { return engine_->console().find(line) != std::string::npos; }, seconds);
    }
    void exit_cleanly() {
        EXPECT_EQ(get("exit"), ok);
        int status = -1;
        EXPECT_TRUE(engine_->wait_exit(5, status));
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_FALSE(engine_->sanitizer_reported()) << engine_->errors();
    }

    TempDir dir_;
    // The engine ends (reverse order) before its panels stop.
    std::vector<std::unique_ptr<PanelSim>> panels_;
    std::unique_ptr<EngineProcess> engine_;
    Clock::time_point connected_at_;
};

// Every command's frame reaches the panel exactly, in the order sent. A missing key, a value of the
// wrong length or an unknown number answers the error envelope and sends nothing; 72 and 74 send
// nothing either. The restart's bytes sent as free text keep the link (frames follow); the reset
// (22) closes it on its receipt.
TEST_F(Jobs, EveryCommandFrameReachesThePanelByteForByte) {
    ASSERT_NO_FATAL_FAILURE(connect());
    panel().forget_received();
    const std::pair<std::string, std::string> cases[] = {
        // the query after "cmd=", the frame ("" for the error envelope)
        {"13", ul2},
        {"14", "~0009FUL-1\x7f"},
        {"23&pass=123456", "~0018FPS-123456\r\nec\x7f"},
        {"23&pass=12345", ""},
        {"23", ""},
        {"32", "~0010FCF-11\x7f"},
        {"41&speed=3", "~0009FEP-3\x7f"},
        {"41&speed=", ""},
        {"42", ad},
        {"43&ext=5", "~0008FEF5\x7f"},
        {"43&ext=12", "~0009FEF12\x7f"},
        {"43&ext=", "~0007FER\x7f"},
        {"43&ext=123", ""},
        {"44&ext=7", "~0008FEA7\x7f"},
        {"44&ext=31", "~0009FEA31\x7f"},
        {"44&ext=", "~0007FER\x7f"},
        {"44", ""},
        {"45&radio=7", "~0012FXXPG7-1\x7f"},
        {"45&radio=16", "~0013FXXPG16-1\x7f"},
        {"45&radio=", ""},
        {"46", "~0012FXXPG1-0\x7f"},
        {"51&ok=3", "~0010FKK3-1\x7f"},
        {"51&ok=12", ""},
        {"52&ok=4", "~0010FKK4-0\x7f"},
        {"52", ""},
        {"61&zona=5", "~0010FSS1-5\x7f"},
        {"61&zona=", ""},
        {"62&zona=6", "~0010FSS2-6\x7f"},
        {"63&part=2", "~0009FKT-2\x7f"},
        {"63&part=12", ""},
        {"81", "~0007FPL\x7f"},
        {"82", "~0007FLS\x7f"},
        {"83", "~0007FDL\x7f"},
        {"91", "~0007FMH\x7f"},
        {"100&text=RE", "~0007FRE\x7f"},
        {"100", ""},
        {"1", ""},
        {"5", ""},
        {"12", ""},
        {"99", ""},
        {"100&text=HELLO", "~0010FHELLO\x7f"},
        {"42", ad},
    };
    std::string expected;
    for (const auto& [query, frame] : cases) {
        EXPECT_EQ(get("cmd=" + query), frame.empty() ? error : ok) << query;
        expected += frame;
    }
    EXPECT_EQ(get("cmd=72") + get("cmd=74"), ok + ok);
    EXPECT_TRUE(wait_for([&] { return written_to(panel()).size() >= expected.size(); }, 10));
    EXPECT_EQ(written_to(panel()), expected);

    panel().forget_received();
    size_t printed_before = engine_->console().size();
    EXPECT_EQ(get("cmd=22"), ok);
    EXPECT_TRUE(status_shows({R"("devtype":"","status":"1")"}, 5));
    EXPECT_EQ(written_to(panel()), "~0007FFR\x7f");
    EXPECT_NE(engine_->console().find("Close device \n", printed_before), std::string::npos);
    exit_cleanly();
}

// A firmware image goes out as numbered blocks of 256 bytes and an end mark, the progress rising
// to 100; the panel's verdict gives rupd: "UR0-1" or "UR1-1" success (2), "UR0-0" refusal (4).
// An empty body sends nothing.
TEST_F(Jobs, FirmwareUploadsShowProgressAndThePanelsVerdict) {
    ASSERT_NO_FATAL_FAILURE(connect());
    std::string image;
    for (int i = 0; i < 4 * 256; ++i) image += static_cast<char>(i * 7);  // every byte value
    panel().forget_received();
    EXPECT_EQ(post("cmd=71", browser_encoded(image)), ok);
    // Status, rupd and upd as each poll saw them, each change once.
    const std::regex state(R"re("status":"(\d+)".*"rupd":"(\d+)".*"upd":"(\d+)")re");
    std::vector<std::string> seen;
    EXPECT_TRUE(wait_for(
        [&] {
            std::smatch m;
            std::string status = get("statusdevice");
            if (!std::regex_search(status, m, state)) return false;
            std::string now = m[1].str() + " " + m[2].str() + " " + m[3].str();
            if (seen.empty() || seen.back() != now) seen.push_back(now);
            return m[2] == "2";
        },
        10));
    const std::vector<std::string> steps = {"3 0 0",  "8 1 0",   "8 1 25",  "8 1 50",
                                            "8 1 75", "8 1 100", "3 1 100", "3 2 100"};
    size_t at = 0;
    for (const std::string& now : seen) {
        while (at < steps.size() && steps[at] != now) ++at;
        EXPECT_LT(at, steps.size()) << now << " out of order in " << testing::PrintToString(seen);
    }
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), "3 2 100");
    EXPECT_GE(seen.size(), 4u) << testing::PrintToString(seen);
    std::vector<std::string> blocks;
    for (int n = 0; n < 4; ++n)
        blocks.push_back(frame_body(
            'B', std::string{n ? '\x04' : '\x84', static_cast<char>(n)} + image.substr(n * 256, 256)));
    blocks.push_back(frame_body('B', "\x04\x04"));
    EXPECT_EQ(frames_to(panel()), blocks);
    EXPECT_TRUE(printed("Load main proc firmware success.\n"));

    panel().forget_received();
    EXPECT_EQ(post("cmd=73", std::string(300, 'c')), ok);
    EXPECT_TRUE(printed("Load coproc firmware success.\n"));
    EXPECT_TRUE(status_shows({R"("status":"3")", R"("rupd":"2")", R"("upd":"100")"}));
    EXPECT_EQ(frames_to(panel()),
              (std::vector<std::string>{frame_body('B', std::string("\x83\x00", 2) + std::string(256, 'c')),
                                        frame_body('B', "\x03\x01" + std::string(44, 'c')),
                                        frame_body('B', "\x03\x02")}));

    panel().forget_received();
    EXPECT_EQ(post("cmd=71", ""), ok);
    EXPECT_EQ(get("cmd=42"), ok);
    EXPECT_TRUE(wait_for([&] { return written_to(panel()) == ad; }, 3)) << written_to(panel());

    PanelContent refusing = PanelContent::standard();
    refusing.firmware_result = '0';
    panel().set_content(refusing);
    EXPECT_EQ(post("cmd=71", "tiny image"), ok);
    EXPECT_TRUE(status_shows({R"("status":"3")", R"("rupd":"4")"}));
    EXPECT_TRUE(printed("Load main proc firmware error.\n"));
    exit_cleanly();
}

// A restart (21) asked for while an earlier frame still awaits its receipt: that receipt leaves
// the link open, the restart goes out next, and its own receipt closes the link.
TEST_F(Jobs, RestartClosesTheLinkOnItsOwnReceipt) {
    ASSERT_NO_FATAL_FAILURE(connect());
    panel().set_silent(true);  // the test gives the panel's receipts
    panel().forget_received();
    EXPECT_EQ(get("cmd=13"), ok);
    ASSERT_TRUE(wait_for([&] { return written_to(panel()) == ul2; }, 3));
    EXPECT_EQ(get("cmd=21"), ok);
    panel().send_frame('A', "");  // the receipt of UL-2
    EXPECT_TRUE(wait_for([&] { return written_to(panel()) == ul2 + "~0007FRE\x7f"; }, 3))
        << written_to(panel());
    EXPECT_NE(get("statusdevice").find(R"("devtype":"MS02","status":"3")"), std::string::npos);
    EXPECT_EQ(engine_->console().find("Close device"), std::string::npos);

    panel().send_frame('A', "");  // the restart's receipt
    EXPECT_TRUE(status_shows({R"("devtype":"","status":"1")"}, 5));
    EXPECT_TRUE(printed("Close device \n"));
    exit_cleanly();
}

// A configuration write of 2,000 lines goes out whole, although single commands are bounded at
// 256 (all 256 queued behind it are taken, the 257th refused). Then the panel is unplugged with
// commands, a restart, a password block and firmware blocks queued, a receipt still due and half
// a frame read: the next panel gets cmd_sf at once and nothing of the old link, its first frame is
// read whole, and the old password exchange ends with the error envelope instead of "continue".
// A connect that fails leaves no link shown.
TEST_F(Jobs, WholeWriteThenTheNextPanelGetsNothingOfTheOldLink) {
    ASSERT_NO_FATAL_FAILURE(connect());
    PanelSim& old_panel = panel();
    std::map<std::string, std::string> settings = {{"vorlane", "Site"}};
    std::string file = "Vorlane-Site\r\nfe\r\n";
    for (int zone = 1; zone <= 2000; ++zone) {
        settings["zn" + std::to_string(zone)] = "1";
        file += "zn" + std::to_string(zone) + "-1\r\n";
    }
    EXPECT_EQ(post("cmd=4&file=config.ini", file), ok);
    old_panel.forget_received();
    EXPECT_EQ(get("cmd=31"), ok);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(get("cmd=13"), ok) << i;
    EXPECT_EQ(get("cmd=13"), error);

    std::string frames, text;
    for (const auto& [key, value] : settings) {
        text += key + "-" + value + "\r\n";
        if (text.size() < 301 && key != settings.rbegin()->first) continue;
        frames += "~" + frame_body('F', text) + "\x7f";
        text.clear();
    }
    frames += "~0007FEC\x7f" + ul2 + ul2;
    ASSERT_TRUE(wait_for([&] { return written_to(old_panel).size() >= frames.size(); }, 30));
    EXPECT_EQ(written_to(old_panel).substr(0, frames.size()), frames);

    old_panel.set_silent(true);  // the frame out now waits for a receipt that never comes
    // Then the old panel starts a frame it never ends, the last byte an escape.
    old_panel.send_raw("\x7f~0010F}");
    EXPECT_TRUE(printed("dev packet not contain start byte, packet loss!\n"));
    EXPECT_EQ(get("cmd=21"), ok);
    EXPECT_EQ(get("cmd=12&pass=1234"), R"({"result":"continue","description":""})");
    EXPECT_EQ(post("cmd=71", std::string(300, 'f')), ok);
    EXPECT_EQ(get("cmd=11"), ok);  // unplugged

    size_t printed_before = engine_->console().size();
    ASSERT_NO_FATAL_FAILURE(connect());
    // connect() saw cmd_sf first; it came at once, not after a receipt the old panel owed.
    for (const SimFrame& frame : panel().received()) {
        if (frame.body != "0007FSF") continue;
        EXPECT_LT(std::chrono::duration<double>(frame.when - connected_at_).count(), 1);
    }
    EXPECT_EQ(get("cmd=42"), ok);
    EXPECT_TRUE(wait_for([&] { return written_to(panel()).size() >= 18; }, 3));
    EXPECT_EQ(written_to(panel()), "~0007FSF\x7f" + ad);
    EXPECT_EQ(engine_->console().find("dev packet loss!", printed_before), std::string::npos);
    EXPECT_EQ(get("cmd=12&pass=1234&continue"), error);

    // A connect that fails has closed the port it replaced: the status says so.
    EXPECT_EQ(get("cmd=11&com=" + dir_.path() + "/no-port"),
              R"({"result":"error","description":"Ошибка подключения к порту"})");
    EXPECT_NE(get("statusdevice").find(R"("devtype":"","status":"1")"), std::string::npos);
    exit_cleanly();
}

// Saving to a drive writes the configuration file as the download gives it and an empty
// clock.txt; the drive path is percent-decoded. Bad input (garbage and cut bodies, an unknown
// upload, a command that needs a panel while none is connected) gets its answer and the engine's
// console line, and leaves the engine serving with its image as it was.
TEST_F(Jobs, DriveSaveAndBadInputLeaveTheImageIntact) {
    const std::string file =
        "Vorlane-Site\r\nfe\r\nks1-07\r\n" + config_text::cp1251("sr1-Склад\r\n") + "zn1-5\r\n";
    EXPECT_EQ(post("cmd=4&file=config.ini", browser_encoded(file)), ok);
    const std::string config = get("configstate="), download = post("cmd=2", "");
    EXPECT_NE(config.find(R"({"key":"sr1","subvalues":[{"value":"Склад","index":1}]})"), std::string::npos);
    const std::string drive = dir_.path() + "/usb stick";
    fs::create_directory(drive);
    EXPECT_EQ(get("cmd=5&drive=" + dir_.path() + "/usb%20stick"), ok);
    EXPECT_EQ(read_text_file(drive + "/CONFIG.INI"), download);
    EXPECT_TRUE(fs::is_regular_file(drive + "/clock.txt") && fs::file_size(drive + "/clock.txt") == 0);

    size_t printed_before = engine_->console().size();
    const char garbage[] = "\xff{\"config\":[{\"key\":\0}}]]";
    EXPECT_EQ(post("configset", std::string(garbage, sizeof garbage - 1)), ok);
    EXPECT_EQ(post("cmd=4&file=cut.cry", "Vorlane CRY\r\n" + std::string(22, 'H') + std::string(15, 'x')),
              ok);
    EXPECT_EQ(post("cmd=4&file=short.cry", "CRY"), ok);
    EXPECT_EQ(post("cmd=5", "x"), error);
    EXPECT_EQ(post("upload", "x"), ok);
    EXPECT_EQ(engine_->request("\x01\x02 garbage\r\n\r\n"), not_found_answer);
    EXPECT_EQ(get("cmd=31"), error);  // no panel connected
    EXPECT_EQ(get("cmd=32"), error);
    EXPECT_EQ(get("cmd=1&devtype=../cipher"), error);
    EXPECT_EQ(
        stamps_marked(engine_->console().substr(printed_before)),
        "@ Wrong format CRY-file\n@ Wrong format CRY-file\n"
        "@ POST UNKNOWN QUERY: /tuning/device?id=-1&upload\n@ cmd 1: no read file devs/../cipher.ini\n");
    EXPECT_EQ(get("configstate="), config);
    EXPECT_EQ(post("cmd=2", ""), download);
    EXPECT_NE(get("statusdevice").find(R"("status":"10")"), std::string::npos);
    exit_cleanly();
}

}  // namespace
