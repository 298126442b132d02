// The whole program against input meant to hurt it: uploads cut short, large uploads as curl sends them,
// a panel that sends ever new numbers and huge ranges, clients that never read, and writes that pile up
// behind a panel that does not answer.
#include <sys/socket.h>

#include <fstream>
#include <random>

#include "support/engine_fixture.h"

using namespace harness;

namespace {

const std::string config_head = "Vorlane-Configurator engine 5.2.22\r\nfe\r\n";

// A configuration file of `count` settings "zn<i>-<value>".
std::string config_file(int count, const std::string& value) {
    std::string file = config_head;
    for (int i = 1; i <= count; ++i) file += "zn" + std::to_string(i) + "-" + value + "\r\n";
    return file;
}

struct Hostile : EngineTest {
    // Sends the head of an upload of `declared` body bytes and the first bytes of `body`, then closes
    // the sending side; the answer.
    std::string cut_upload(const std::string& query, size_t declared, const std::string& body) {
        Fd client = connect_to(engine_->port());
        std::string request = local_post(engine_->port(), "/tuning/device?id=-1&" + query, body);
        request.replace(request.find("Content-Length: " + std::to_string(body.size())),
                        16 + std::to_string(body.size()).size(),
                        "Content-Length: " + std::to_string(declared));
        send_text(client, request);
        shutdown(client.get(), SHUT_WR);
        return read_to_close(client);
    }
    // Checks the engine's resident memory in the plain build.
    void expect_rss_below(long mib) {
        if (sanitized_build()) {
            std::cout << "Not checked under a sanitizer: resident memory below " << mib << " MiB\n";
            return;
        }
        EXPECT_LT(engine_->rss_kib(), mib * 1024);
    }
};

}  // namespace

// A body cut short is answered as such and never processed: no firmware block reaches the panel, and a
// configuration file cut in the middle changes nothing.
TEST_F(Hostile, CutUploadsReachNothing) {
    ASSERT_NO_FATAL_FAILURE(connect());
    EXPECT_EQ(post("cmd=4&file=config.ini", browser_encoded(config_file(3, "1"))), ok_body);
    const std::string before = get("configstate=");
    size_t printed = engine_->console().size();
    EXPECT_EQ(cut_upload("cmd=71", 1000000, std::string(1, '\0') + std::string(300000, 'x')),
              cut_body_answer);
    const std::string config = browser_encoded(config_file(2008, "0.0.1.0.0"));
    EXPECT_EQ(cut_upload("cmd=4&file=config.ini", config.size(), config.substr(0, 30000)), cut_body_answer);
    EXPECT_EQ(engine_->printed_since(printed), "@ Error size query body\n@ Error size query body\n");
    EXPECT_TRUE(get("configstate=") == before);
    usleep(300000);
    EXPECT_NE(get("statusdevice").find(R"("status":"3")"), std::string::npos);
    for (const std::string& frame : frames_written()) EXPECT_NE(frame[4], 'B');
}

// curl asks before sending a body above 1 MB ("Expect: 100-continue"): the engine lets it go on at once,
// so the documented upload lines work as written.
TEST_F(Hostile, CurlUploadsAboveOneMegabyteGoThrough) {
    ASSERT_NO_FATAL_FAILURE(connect());
    std::string firmware(1200000, '\0');
    for (size_t i = 1; i < firmware.size(); ++i) firmware[i] = static_cast<char>((i * 7919) >> 3);
    std::ofstream(dir_.path() + "/firmware.bin", std::ios::binary) << firmware;
    const std::string name(20, 'y');
    std::ofstream(dir_.path() + "/config.ini", std::ios::binary) << config_file(40000, name);
    const std::string base = "cd '" + dir_.path() +
                             "' && B='http://localhost:" + std::to_string(engine_->port()) +
                             "/tuning/device?id=-1&' && ";
    auto [fw_exit, fw_answer] = run_program(
        base + R"(iconv -f latin1 -t utf-8 firmware.bin | curl -s --data-binary @- "${B}cmd=71")");
    EXPECT_EQ(fw_exit, 0);
    EXPECT_EQ(fw_answer, ok_body);
    EXPECT_TRUE(status_shows({R"("status":"8")", R"("rupd":"1")"}));
    EXPECT_TRUE(wait_for(
        [&] {
            for (const SimFrame& frame : panel().received())
                if (frame.type() == 'B' && frame.payload().starts_with(std::string("\x84\x00", 2)))
                    return true;
            return false;
        },
        5));
    EXPECT_EQ(get("cmd=11"), ok_body);

    auto [cfg_exit, cfg_answer] = run_program(
        base +
        R"(iconv -f latin1 -t utf-8 config.ini | curl -s --data-binary @- "${B}cmd=4&file=config.ini")");
    EXPECT_EQ(cfg_exit, 0);
    EXPECT_EQ(cfg_answer, ok_body);
    EXPECT_EQ(get("configstate=zn40000"), config_list({element("zn40000", {name})}));
    EXPECT_EQ(stamps_marked(engine_->console()).find("Error size query body"), std::string::npos);
}

// A panel naming a new partition in every line, and range lines of long values, fill the lists and the
// image only to their bounds (one console line each); the engine stays small and answers.
TEST_F(Hostile, PanelCannotGrowTheEngine) {
    ASSERT_NO_FATAL_FAILURE(connect());
    for (int frame = 0; frame < 20; ++frame) {
        std::string lines;
        for (int i = 1; i <= 30; ++i) lines += "+tmt06-" + std::to_string(frame * 30 + i) + ".1\r\n";
        panel().send_frame('L', lines);
    }
    for (int range = 0; range < 20; ++range)
        panel().send_frame('F', "v" + std::to_string(range * 1000) + ":" +
                                    std::to_string(range * 1000 + 999) + "-" + std::string(960, 'x') +
                                    "\r\n");
    ASSERT_TRUE(engine_->printed("parse cfg: the configuration is full, further settings refused", 20));
    ASSERT_TRUE(wait_for([&] { return panel().received().size() >= 41; }, 10));  // every frame acknowledged
    std::string status = get("statusdevice");
    size_t parts = 0;
    for (size_t at = status.find(R"("part":[)");
         (at = status.find(R"({"N")", at + 1)) < status.find("],\"ext\"");)
        ++parts;
    EXPECT_EQ(parts, 256u);
    std::string console = stamps_marked(engine_->console());
    EXPECT_NE(console.find("@ telemetry: a list holds 256 entries, further numbers ignored\n"),
              std::string::npos);
    EXPECT_EQ(console.find("further numbers ignored"), console.rfind("further numbers ignored"));
    EXPECT_EQ(console.find("configuration is full"), console.rfind("configuration is full"));
    std::string config = get("configstate=");
    EXPECT_GT(config.size(), 15u << 20);
    EXPECT_LT(config.size(), 18u << 20);
    expect_rss_below(32);
}

// 250 clients that ask for an 8 MB answer and never read it: the engine holds at most 64 MiB of unsent
// answers (the largest holders are closed), and while they hold their connections it answers at once.
TEST_F(Hostile, ClientsThatNeverReadCannotHoldMemory) {
    EXPECT_EQ(post("cmd=4&file=config.ini", browser_encoded(config_file(8000, std::string(1000, 'y')))),
              ok_body);
    std::vector<Fd> hoarders;
    const int count = sanitized_build() ? 100 : 250;  // either way far beyond the bound
    for (int i = 0; i < count; ++i) {
        // A small receive window, so the answers stay with the engine rather than in the kernel.
        Fd hoarder(socket(AF_INET, SOCK_STREAM, 0));
        int small = 4096;
        setsockopt(hoarder.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in address = loopback(engine_->port());
        ASSERT_EQ(::connect(hoarder.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        send_text(hoarder, local_get(engine_->port(), "/tuning/device?id=-1&configstate="));
        hoarders.push_back(std::move(hoarder));
    }
    // Served after all of them (each answer takes the engine some 30 ms to build).
    Fd last = connect_to(engine_->port());
    send_text(last, local_get(engine_->port(), "/tuning/device?id=-1&version="));
    EXPECT_EQ(body_of(read_to_close(last, 60)), R"({ "result":{"version":"5.2.22"} })");
    auto start = Clock::now();
    EXPECT_EQ(get("version="), R"({ "result":{"version":"5.2.22"} })");
    if (!sanitized_build()) {
        EXPECT_LT(seconds_since(start), 0.1);
    }
    expect_rss_below(128);
    EXPECT_NE(engine_->console().find("Answer dropped, unsent answers over the limit of 67108864 bytes"),
              std::string::npos);
}

// Thirty seconds of a line gone bad: random bytes, then broken frames, each answered with the
// receipt the rules give (too long AN1, too short AN2, encrypted AN5, an end byte without a start
// the plain receipt). The engine stays up, and when sane frames return the link works again.
TEST_F(Hostile, LineNoiseAndBrokenFramesThenTheLinkRecovers) {
    ASSERT_NO_FATAL_FAILURE(connect());
    panel().set_telemetry_ms(0);  // the test speaks for the panel
    std::mt19937 random(20);
    const auto start = Clock::now();
    // 5 KB/s, half of what the engine reads in its 100 ms cycles: no backlog builds up. The status
    // is asked for meanwhile, as the browser does (the engine would end otherwise).
    for (int round = 1; seconds_since(start) < 15; ++round) {
        std::string noise(100, '\0');
        for (char& byte : noise) byte = static_cast<char>(random());
        panel().send_raw(noise);
        usleep(20000);
        if (round % 50 == 0) get("statusdevice");
    }
    panel().send_raw("~x\x7f");  // ends a frame the noise left open, and uses up a pending escape
    ASSERT_TRUE(panel().wait_output_flushed(2000));
    usleep(500000);  // the engine reads the rest; receipts the noise earned go out meanwhile
    const std::pair<std::string, std::string> broken[] = {
        {"~0005Fabcdef\x7f", "~0007AN1\x7f"},
        {"~0099Fab\x7f", "~0007AN2\x7f"},
        {"~1007Fxy\x7f", "~0007AN5\x7f"},
        {"\x7f", "~0005A\x7f"},
    };
    size_t sent = 0, answered = 0;
    while (seconds_since(start) < 30) {
        for (const auto& [frame, receipt] : broken) {
            panel().forget_received();
            panel().send_raw(frame);
            ++sent;
            answered += wait_for([&] { return panel().received_bytes() == receipt; }, 2);
        }
        get("statusdevice");
    }
    EXPECT_EQ(answered, sent) << engine_->console();
    panel().set_telemetry_ms(300);
    EXPECT_TRUE(status_shows({R"("status":"3")"}, 5));
    EXPECT_EQ(get("cmd=32"), ok_body);
    EXPECT_TRUE(status_shows({R"("status":"3")"}, 10));
    EXPECT_NE(get("configstate=zn"), config_list({}));
    engine_->exit_cleanly();
}

// While any frame of a configuration write still waits, another write is refused and queues nothing.
TEST_F(Hostile, WritesDoNotPileUpBehindASilentPanel) {
    ASSERT_NO_FATAL_FAILURE(connect());
    panel().set_silent(true);
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(post("cmd=4&file=config.ini", browser_encoded(config_file(2000, "0.0.1"))), ok_body);
        size_t printed = engine_->console().size();
        EXPECT_EQ(get("cmd=31"), round == 0 ? ok_body : error_body);
        EXPECT_EQ(engine_->printed_since(printed),
                  round == 0
                      ? ""
                      : "@ Command refused: an earlier configuration write still waits for the panel\n");
    }
}
