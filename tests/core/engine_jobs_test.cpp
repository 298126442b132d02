// Jobs through the whole program and the simulated panel: connect, live status, access password,
// disconnect, the command set byte for byte, firmware uploads, restarts, a new panel after an old
// one with work still queued, a 2,000-line configuration write, saving to a drive and bad input.
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

#include "support/engine_fixture.h"

using namespace harness;
namespace fs = std::filesystem;

namespace {

const std::string ul2 = "~0009FUL-2\x7f", ad = "~0007FAD\x7f";

using Jobs = EngineTest;

// The status of the simulated panel (clock 1700000000, two expanders of 32 present) matches the
// golden file once the machine's port list is emptied. The access password travels encrypted; the
// browser repeats it with "&continue" until the panel's receipt accepts it, or "AN3" refuses it.
TEST_F(Jobs, ConnectShowsLiveTelemetryTakesThePasswordThenDisconnectAndExit) {
    PanelSimOptions options{.make_link = false, .telemetry_ms = 300};
    options.content.clock = 1700000000;  // 14.11.2023 22:13:20 UTC
    ASSERT_NO_FATAL_FAILURE(connect(options));
    EXPECT_EQ(std::regex_replace(get("statusdevice"), std::regex(R"("com":\[[^\]]*\])"), R"("com":[])"),
              golden("status.json"));

    auto password = [&](const std::string& pass) {
        std::string answer = get("cmd=12&pass=" + pass);
        if (answer == continue_body)
            wait_for([&] { return (answer = get("cmd=12&pass=" + pass + "&continue")) != continue_body; }, 5);
        return answer;
    };
    options.content.reject_password = true;
    panel().set_content(options.content);
    EXPECT_EQ(password("0000"), error_body);
    options.content.reject_password = false;
    panel().set_content(options.content);
    EXPECT_EQ(password("1234"), ok_body);

    EXPECT_EQ(get("cmd=11"), ok_body);
    EXPECT_TRUE(status_shows({R"("devtype":"","status":"1")"}, 3));
    engine_->exit_cleanly();
    std::regex closed_in_order(R"(Open device \([\s\S]*\nClose device \n([\s\S]*\n)?close listen socket\n$)");
    EXPECT_TRUE(std::regex_search(engine_->console(), closed_in_order)) << engine_->console();
}

// A panel unplugged in the middle of a configuration read, a firmware upload and an event transfer:
// the link ends (status 1) with nothing of the transfer left in the status record, the engine serves
// on, and a fresh panel connected next takes the same transfer to its end.
TEST_F(Jobs, PanelThatHangsUpMidTransferLeavesTheEngineServing) {
    PanelSimOptions slow{
        .make_link = false, .telemetry_ms = 300, .reply_gap_ms = 100, .block_ack_delay_ms = 50};
    for (int i = 1; i <= 1500; ++i) slow.content.config_lines.push_back("zn" + std::to_string(i) + "-1.0.25");
    slow.content.events = sim_event_memory(400, 1700000000);
    const std::string image(40 * 256, 'f');
    const std::string idle = R"("status":"1","statusready":{"rcfg":"0","rmsg":"0","rlog":"0","rupd":"0"},)"
                             R"("progress":{"cfg":"0","msg":"0","log":"0","logmax":"0","upd":"0"})";
    const struct {
        const char* name;
        std::function<std::string()> start;
        const char* figure;  // its progress in the status record
        Strings done;
    } transfers[] = {
        {"configuration read",
         [this] { return get("cmd=32"); },
         "cfg",
         {R"("status":"3")", R"("cfg":"100")"}},
        {"firmware upload",
         [&] { return post("cmd=71", image); },
         "upd",
         {R"("status":"3")", R"("rupd":"2")", R"("upd":"100")"}},
        {"event transfer",
         [this] { return get("cmd=91"); },
         "msg",
         {R"("status":"3")", R"("rmsg":"2")", R"("msg":"100")"}},
    };
    for (const auto& transfer : transfers) {
        SCOPED_TRACE(transfer.name);
        const std::string key = std::string("\"") + transfer.figure + "\":\"";
        auto figure = [&] {
            std::string status = get("statusdevice");
            size_t at = status.find(key);
            return at == std::string::npos ? -1 : atoi(status.c_str() + at + key.size());
        };
        ASSERT_NO_FATAL_FAILURE(connect(slow));
        ASSERT_EQ(transfer.start(), ok_body);
        // Under way: past its first reply, not at its end.
        int shown = 0;
        ASSERT_TRUE(wait_for([&] { return (shown = figure()) > 0; }, 10)) << get("statusdevice");
        panel().hangup();
        ASSERT_LT(shown, 100);
        EXPECT_TRUE(status_shows({idle}, 5)) << get("statusdevice");
        EXPECT_EQ(get("version="), R"({ "result":{"version":"5.2.22"} })");

        ASSERT_NO_FATAL_FAILURE(connect(slow));
        ASSERT_EQ(transfer.start(), ok_body);
        EXPECT_TRUE(status_shows(transfer.done, 30)) << get("statusdevice");
    }
    engine_->exit_cleanly();
}

// Four clients send 100,000 requests of every kind at once (10,000 under a sanitizer) while the panel
// streams telemetry: each is answered whole and right, and from the 10,000th request on the engine's
// resident memory grows by less than 1 MiB (checked in the plain build).
TEST_F(Jobs, HundredThousandMixedRequestsFromFourClients) {
    ASSERT_NO_FATAL_FAILURE(connect({.make_link = false, .telemetry_ms = 100}));
    fs::copy(VORCORE_SOURCE_DIR "/js", dir_.path() + "/js", fs::copy_options::recursive);
    ASSERT_EQ(get("cmd=32"), ok_body);
    ASSERT_TRUE(status_shows({R"("status":"3")", R"("cfg":")"}));
    const int total = sanitized_build() ? 10000 : 100000;
    const int port = engine_->port();
    const std::string status_head = json_answer("").substr(0, json_answer("").find("Content-Length"));
    const std::string script =
        "Access-Control-Allow-Origin: *\r\nContent-Type: application/javascript; charset=utf-8\r\n";
    // Request, and the answer it must get (or the start of it, for the live status).
    const std::vector<std::pair<std::string, std::string>> mix = {
        {"/tuning/device?id=-1&statusdevice", status_head},
        {"/tuning/device?id=-1&configstate=", engine_->get("configstate=")},
        {"/app.js", answer_200(script, read_text_file(dir_.path() + "/js/app.js"))},
        {"/tuning/device?id=-1&cmd=72", json_answer(ok_body)},
        {"/tuning/device?id=-1&cmd=84&file=log.txt", engine_->get("cmd=84&file=log.txt")},
    };
    std::atomic<int> sent{0}, failed{0};
    std::atomic<long> rss_at_10000{0};
    std::mutex first_failure_mutex;
    std::string first_failure;
    auto client = [&] {
        for (int n; (n = sent++) < total;) {
            const auto& [target, expected] = mix[n % mix.size()];
            std::string answer = harness::exchange(port, local_get(port, target));
            if (!answer.starts_with(expected) || (n % mix.size() != 0 && answer != expected)) {
                if (failed++ == 0) {
                    std::lock_guard<std::mutex> lock(first_failure_mutex);
                    first_failure = target + " -> " + answer.substr(0, 300);
                }
            }
            if (n == 10000) rss_at_10000 = engine_->rss_kib();
        }
    };
    std::vector<std::thread> clients;
    for (int i = 0; i < 4; ++i) clients.emplace_back(client);
    for (std::thread& running : clients) running.join();
    EXPECT_EQ(failed, 0) << first_failure;
    if (sanitized_build()) {
        std::cout << "Not checked under a sanitizer: resident memory growth below 1 MiB\n";
    } else {
        EXPECT_LT(engine_->rss_kib() - rss_at_10000, 1024);
    }
    engine_->exit_cleanly();
}

// Every command's frame reaches the panel exactly, in the order sent. A parameter is the text after
// the key's last occurrence up to the end of the target. A missing key, a value of the wrong length
// or an unknown number answers the error envelope and sends nothing; 72 and 74 send nothing either.
// The restart's bytes sent as free text keep the link (frames follow); the reset (22) closes it on
// its receipt.
TEST_F(Jobs, EveryCommandFrameReachesThePanelByteForByte) {
    ASSERT_NO_FATAL_FAILURE(connect());
    panel().forget_received();
    const std::string text(600, 'x');
    const std::pair<std::string, std::string> cases[] = {
        // the query after "cmd=", the frame ("" for the error envelope)
        {"13", ul2},
        {"14", "~0009FUL-1\x7f"},
        {"23&pass=000000&pass=123456", "~0018FPS-123456\r\nec\x7f"},
        {"23&pass=12345", ""},
        {"23&pass=1234567", ""},
        {"23", ""},
        {"32", "~0010FCF-11\x7f"},
        {"41&speed=37", "~0009FEP-3\x7f"},
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
        {"51&ok=1&ok=3", "~0010FKK3-1\x7f"},
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
        {"71", ""},
        {"99", ""},
        {"100&text=HELLO&x=1", "~0014FHELLO&x=1\x7f"},
        {"100&text=" + text, "~0605F" + text + "\x7f"},
        {"42", ad},
    };
    std::string expected;
    for (const auto& [query, frame] : cases) {
        EXPECT_EQ(get("cmd=" + query), frame.empty() ? error_body : ok_body) << query;
        expected += frame;
    }
    EXPECT_EQ(get("cmd=72") + get("cmd=74"), ok_body + ok_body);
    EXPECT_TRUE(wait_for([&] { return written().size() >= expected.size(); }, 10));
    EXPECT_EQ(written(), expected);

    panel().forget_received();
    size_t printed_before = engine_->console().size();
    EXPECT_EQ(get("cmd=22"), ok_body);
    EXPECT_TRUE(status_shows({R"("devtype":"","status":"1")"}, 5));
    EXPECT_EQ(written(), "~0007FFR\x7f");
    EXPECT_TRUE(engine_->printed("Close device \n", 1, printed_before));
    engine_->exit_cleanly();
}

// A firmware image goes out as numbered blocks of 256 bytes and an end mark, the progress rising
// to 100; the panel's verdict gives rupd: "UR0-1" or "UR1-1" success (2), "UR0-0" refusal (4).
// An empty body sends nothing.
TEST_F(Jobs, FirmwareUploadsShowProgressAndThePanelsVerdict) {
    ASSERT_NO_FATAL_FAILURE(connect());
    std::string image;
    for (int i = 0; i < 4 * 256; ++i) image += static_cast<char>(i * 7);  // every byte value
    panel().forget_received();
    EXPECT_EQ(post("cmd=71", browser_encoded(image)), ok_body);
    const std::regex state(R"re("status":"(\d+)".*"rupd":"(\d+)".*"upd":"(\d+)")re");
    expect_states(watch(R"("rupd":"2")", state),
                  {"3 0 0", "8 1 0", "8 1 25", "8 1 50", "8 1 75", "8 1 100", "3 1 100", "3 2 100"}, 4);
    Strings blocks;
    for (int n = 0; n < 4; ++n)
        blocks.push_back(
            packet('B', std::string{n ? '\x04' : '\x84', static_cast<char>(n)} + image.substr(n * 256, 256)));
    blocks.push_back(packet('B', "\x04\x04"));
    EXPECT_EQ(frames_written(), blocks);
    EXPECT_TRUE(engine_->printed("Load main proc firmware success.\n"));

    panel().forget_received();
    EXPECT_EQ(post("cmd=73", std::string(300, 'c')), ok_body);
    EXPECT_TRUE(engine_->printed("Load coproc firmware success.\n"));
    EXPECT_TRUE(status_shows({R"("status":"3")", R"("rupd":"2")", R"("upd":"100")"}));
    EXPECT_EQ(frames_written(),
              (Strings{packet('B', std::string("\x83\x00", 2) + std::string(256, 'c')),
                       packet('B', "\x03\x01" + std::string(44, 'c')), packet('B', "\x03\x02")}));

    panel().forget_received();
    EXPECT_EQ(post("cmd=71", ""), ok_body);
    EXPECT_EQ(get("cmd=42"), ok_body);
    EXPECT_TRUE(wait_for([&] { return written() == ad; }, 3)) << written();

    PanelContent refusing = PanelContent::standard();
    refusing.firmware_result = '0';
    panel().set_content(refusing);
    EXPECT_EQ(post("cmd=71", "tiny image"), ok_body);
    EXPECT_TRUE(status_shows({R"("status":"3")", R"("rupd":"4")"}));
    EXPECT_TRUE(engine_->printed("Load main proc firmware error.\n"));
    engine_->exit_cleanly();
}

// A restart (21) asked for while an earlier frame still awaits its receipt: that receipt leaves
// the link open, the restart goes out next, and its own receipt closes the link.
TEST_F(Jobs, RestartClosesTheLinkOnItsOwnReceipt) {
    ASSERT_NO_FATAL_FAILURE(connect());
    panel().set_silent(true);  // the test gives the panel's receipts
    panel().forget_received();
    EXPECT_EQ(get("cmd=13"), ok_body);
    ASSERT_TRUE(wait_for([&] { return written() == ul2; }, 3));
    EXPECT_EQ(get("cmd=21"), ok_body);
    panel().send_frame('A', "");  // the receipt of UL-2
    EXPECT_TRUE(wait_for([&] { return written() == ul2 + "~0007FRE\x7f"; }, 3)) << written();
    EXPECT_NE(get("statusdevice").find(R"("devtype":"MS02","status":"3")"), std::string::npos);
    EXPECT_EQ(engine_->console().find("Close device"), std::string::npos);

    panel().send_frame('A', "");  // the restart's receipt
    EXPECT_TRUE(status_shows({R"("devtype":"","status":"1")"}, 5));
    EXPECT_TRUE(engine_->printed("Close device \n"));
    engine_->exit_cleanly();
}

// engineinfo tells the console what cannot work: the cipher file loaded at start and the history
// usable (its folder made at start), then history "0" once a snapshot cannot be written (the folder
// was removed under the engine). Without a cipher file and with a history/ that is no folder, both
// flags are "0" from the start; the target must be exact.
TEST_F(Jobs, EngineInfoSaysWhetherTheCipherAndTheHistoryWork) {
    EXPECT_EQ(get("engineinfo"), engine_info('1', '1'));
    fs::create_directories(dir_.path() + "/devs");
    std::ofstream(dir_.path() + "/devs/MS02.ini") << "Vorlane-MS02\r\nfe\r\ntd-MS02\r\nzn1-5\r\n";
    fs::remove_all(dir_.path() + "/history/" + std::to_string(getuid()));
    EXPECT_EQ(get("cmd=1&devtype=MS02"), ok_body);
    EXPECT_TRUE(engine_->printed(" failed (No such file or directory)\n")) << engine_->console();
    EXPECT_EQ(get("engineinfo"), engine_info('1', '0'));
    engine_->exit_cleanly();

    TempDir bare;
    std::ofstream(bare.path() + "/history") << "not a folder";
    EngineProcess without(bare);
    ASSERT_NE(without.port(), 0) << without.console();
    EXPECT_TRUE(without.printed("Cipher file cipher.txt not usable (")) << without.console();
    EXPECT_EQ(body_of(without.get("engineinfo")), engine_info('0', '0'));
    EXPECT_EQ(without.get("engineinfo&x"), not_found_answer);
    EXPECT_EQ(without.get("engineinfo="), not_found_answer);
    without.exit_cleanly();
}

// A configuration write of 2,000 lines goes out whole, although single commands are bounded at
// 256 (all 256 queued behind it are taken, the next refused with a console line). Then the panel
// is unplugged with commands, a restart, a password block and firmware blocks queued, a receipt
// still due and half a frame read: the next panel gets cmd_sf at once and nothing of the old link,
// its first frame is read whole, and the old password exchange ends with the error envelope
// instead of "continue". A connect that fails leaves no link shown.
TEST_F(Jobs, WholeWriteThenTheNextPanelGetsNothingOfTheOldLink) {
    ASSERT_NO_FATAL_FAILURE(connect());
    PanelSim& old_panel = panel();
    std::map<std::string, std::string> settings = {{"vorlane", "Site"}};
    std::string file = "Vorlane-Site\r\nfe\r\n";
    for (int zone = 1; zone <= 2000; ++zone) {
        settings["zn" + std::to_string(zone)] = "1";
        file += "zn" + std::to_string(zone) + "-1\r\n";
    }
    EXPECT_EQ(post("cmd=4&file=config.ini", file), ok_body);
    old_panel.forget_received();
    EXPECT_EQ(get("cmd=31"), ok_body);
    for (int i = 0; i < 256; ++i) ASSERT_EQ(get("cmd=13"), ok_body) << i;
    size_t printed_before = engine_->console().size();
    EXPECT_EQ(get("cmd=13") + get("cmd=100&text=x") + get("cmd=72"), error_body + error_body + ok_body);
    const std::string full = "@ Command refused: 256 commands already wait for the panel\n";
    EXPECT_EQ(engine_->printed_since(printed_before), full + full);

    std::string frames = write_frames(settings) + ul2 + ul2;
    ASSERT_TRUE(wait_for([&] { return written().size() >= frames.size(); }, 30));
    EXPECT_EQ(written().substr(0, frames.size()), frames);

    old_panel.set_silent(true);  // the frame out now waits for a receipt that never comes
    // Then the old panel starts a frame it never ends, the last byte an escape.
    old_panel.send_raw("\x7f~0010F}");
    EXPECT_TRUE(engine_->printed("dev packet not contain start byte, packet loss!\n"));
    EXPECT_EQ(get("cmd=21"), ok_body);
    EXPECT_EQ(get("cmd=12&pass=1234"), continue_body);
    EXPECT_EQ(post("cmd=71", std::string(300, 'f')), ok_body);
    EXPECT_EQ(get("cmd=11"), ok_body);  // unplugged

    printed_before = engine_->console().size();
    ASSERT_NO_FATAL_FAILURE(connect());
    // connect() saw cmd_sf first; it came at once, not after a receipt the old panel owed.
    for (const SimFrame& frame : panel().received())
        EXPECT_TRUE(frame.body != "0007FSF" || frame.when - connected_at_ < std::chrono::seconds(1));
    EXPECT_EQ(get("cmd=42"), ok_body);
    EXPECT_TRUE(wait_for([&] { return written().size() >= 18; }, 3));
    EXPECT_EQ(written(), "~0007FSF\x7f" + ad);
    EXPECT_EQ(engine_->console().find("dev packet loss!", printed_before), std::string::npos);
    EXPECT_EQ(get("cmd=12&pass=1234&continue"), error_body);

    // A connect that fails has closed the port it replaced: the status says so.
    EXPECT_EQ(get("cmd=11&com=" + dir_.path() + "/no-port"),
              R"({"result":"error","description":"Ошибка подключения к порту"})");
    EXPECT_NE(get("statusdevice").find(R"("devtype":"","status":"1")"), std::string::npos);
    engine_->exit_cleanly();
}

// Saving to a drive writes the configuration file as the download gives it and an empty
// clock.txt; the drive path is percent-decoded. Bad input (garbage and cut bodies, an unknown
// upload, a command that needs a panel while none is connected) gets its answer and the engine's
// console line, and leaves the engine serving with its image as it was.
TEST_F(Jobs, DriveSaveAndBadInputLeaveTheImageIntact) {
    const std::string file = "Vorlane-Site\r\nfe\r\nks1-07\r\n" + cp1251("sr1-Склад\r\n") + "zn1-5\r\n";
    EXPECT_EQ(post("cmd=4&file=config.ini", browser_encoded(file)), ok_body);
    const std::string config = get("configstate="), download = post("cmd=2", "");
    EXPECT_NE(config.find(element("sr1", {"Склад"})), std::string::npos);
    const std::string drive = dir_.path() + "/usb stick";
    fs::create_directory(drive);
    EXPECT_EQ(get("cmd=5&drive=" + dir_.path() + "/usb%20stick"), ok_body);
    EXPECT_EQ(read_text_file(drive + "/CONFIG.INI"), download);
    EXPECT_TRUE(fs::is_regular_file(drive + "/clock.txt") && fs::file_size(drive + "/clock.txt") == 0);

    size_t printed_before = engine_->console().size();
    const char garbage[] = "\xff{\"config\":[{\"key\":\0}}]]";
    EXPECT_EQ(post("configset", std::string(garbage, sizeof garbage - 1)), ok_body);
    EXPECT_EQ(post("cmd=4&file=cut.cry", "Vorlane CRY\r\n" + std::string(22, 'H') + std::string(15, 'x')),
              ok_body);
    EXPECT_EQ(post("cmd=4&file=short.cry", "CRY"), ok_body);
    EXPECT_EQ(post("cmd=5", "x"), error_body);
    EXPECT_EQ(post("upload", "x"), ok_body);
    EXPECT_EQ(engine_->request("\x01\x02 garbage\r\n\r\n"), not_found_answer);
    EXPECT_EQ(get("cmd=31"), error_body);  // no panel connected
    EXPECT_EQ(get("cmd=32"), error_body);
    EXPECT_EQ(get("cmd=1&devtype=../cipher"), error_body);
    EXPECT_EQ(engine_->get("cmd=11&com="), json_answer(""));
    EXPECT_EQ(
        engine_->printed_since(printed_before),
        "@ Wrong format CRY-file\n@ Wrong format CRY-file\n"
        "@ POST UNKNOWN QUERY: /tuning/device?id=-1&upload\n@ cmd 1: no read file devs/../cipher.ini\n");
    EXPECT_EQ(get("configstate="), config);
    EXPECT_EQ(post("cmd=2", ""), download);
    EXPECT_NE(get("statusdevice").find(R"("status":"10")"), std::string::npos);
    engine_->exit_cleanly();
}

}  // namespace
