// The panel simulator: its replies byte for byte, the program's interface, and
// the engine reading configuration, logs and events from it.
#include "panel_sim.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "core/engine.h"
#include "core/mutex_lock.h"
#include "link/link_test_support.h"
#include "link/pk7.h"
#include "panel_content.h"
#include "support/run_program.h"

extern char** environ;

namespace {

using namespace link_test;

TEST(PanelContent, FramesStuffOnlyTheThreeReservedBytes) {
    struct Case {
        char type;
        std::string payload;
        std::string frame;
    };
    const std::vector<Case> cases = {
        {'A', "", std::string("~0005A\x7f")},
        {'F', "TL-3", std::string("~0009FTL-3\x7f")},
        {'B', std::string("\x7d\x7e\x7f\x7c\x80", 5), std::string("~0010B}=}>}?\x7c\x80\x7f")},
    };
    for (const Case& c : cases) EXPECT_EQ(c.frame, sim_frame(c.type, c.payload));
    EXPECT_EQ("~0005A\x7f", sim_receipt());
}

TEST(PanelContent, ConfigurationRepliesEndOnLineBoundaries) {
    PanelContent content;
    content.config_lines = {"SVMS02 v3.14", "zn1-5", "ks1:3-07", "cs1-1234", "ws-Vorlane"};
    content.max_text_payload = 24;
    std::vector<std::string> payloads = config_payloads(content);
    EXPECT_EQ((std::vector<std::string>{"bc-6\r\nSVMS02 v3.14\r\n", "zn1-5\r\nks1:3-07\r\n",
                                        "cs1-1234\r\nws-Vorlane\r\n", "ec-0\r\n"}),
              payloads);
}

TEST(PanelContent, LogRepliesCountThenPortionsWithEndMark) {
    PanelContent content;
    content.log_records = {"5F5E1000::ER::x", "5F5E1010::MS::y"};
    content.max_text_payload = 20;
    using Reply = std::pair<char, std::string>;
    EXPECT_EQ((std::vector<Reply>{{'F', "TL-2"},
                                  {'G', std::string("\0"
                                                    "5F5E1000::ER::x\0",
                                                    17)},
                                  {'G', std::string("\1"
                                                    "5F5E1010::MS::y\0",
                                                    17)}}),
              log_replies(content));
    content.log_records.clear();
    EXPECT_EQ((std::vector<Reply>{{'F', "TL-0"}}), log_replies(content));
}

TEST(PanelContent, EventsGoAsFirstDataAndEmptyEndBlocks) {
    PanelContent content;
    content.events = {{0x5F5E1000, 7, 110, 1, 3, 2, 4, 0x21}};
    const std::string record(
        "\x00\x10\x5e\x5f"
        "\x07\x00\x00\x00"
        "\x6e\x00"
        "\x01\x03\x02\x04\x21",
        15);
    EXPECT_EQ(record, event_record_bytes(content.events[0]));
    EXPECT_EQ((std::vector<std::string>{std::string("\x81\x00\x01\x00", 4),
                                        std::string("\x01\x01", 2) + record, std::string("\x01\x02", 2)}),
              event_block_payloads(content));
}

// A pty peer standing where the engine would: writes bytes, then collects the
// answer until it has `expected` bytes and 150 ms more brought nothing (2 s at most).
std::string exchange_with(const std::string& path, const std::string& bytes, size_t expected) {
    int fd = open(path.c_str(), O_RDWR | O_NOCTTY);
    if (fd < 0) return "open failed";
    if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) return "write failed";
    std::string got;
    auto start = Clock::now();
    while (elapsed_ms(start) < 2000) {
        pollfd waiting{fd, POLLIN, 0};
        int wait_ms = got.size() >= expected ? 150 : 100;
        if (poll(&waiting, 1, wait_ms) <= 0) {
            if (got.size() >= expected) break;
            continue;
        }
        char buf[512];
        ssize_t n = read(fd, buf, sizeof buf);
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return got;
}

TEST(PanelSimLibrary, AnswersAsAPanelAndMisbehavesOnRequest) {
    PanelSimOptions options;
    options.make_link = false;
    options.telemetry_ms = 0;
    options.content.clock = 1600000000;
    PanelSim panel(options);
    ASSERT_TRUE(panel.start()) << panel.error();
    EXPECT_TRUE(panel.link_path().empty());
    const std::string receipt = sim_receipt();
    const std::string telemetry = sim_frame('L', telemetry_payload(options.content));

    struct Case {
        const char* name;
        std::string to_panel;
        std::string answer;
    };
    std::string end_block("\x84\x00", 2);
    std::string pass_block = std::string("\x82\x00", 2) + std::string(16, 'k');
    const std::vector<Case> cases = {
        {"restart", "~0007FSF\x7f", receipt + telemetry},
        {"receipt is not answered", receipt, ""},
        {"plain command", "~0007FLS\x7f", receipt},
        {"password block", sim_frame('B', pass_block), receipt},
        {"empty firmware image", sim_frame('B', end_block), receipt + sim_frame('F', "UR0-1")},
        {"second target",
         sim_frame('B', std::string("\x83\x00\x01", 3)) + sim_frame('B', std::string("\x03\x01", 2)),
         receipt + receipt + sim_frame('F', "UR1-1")},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.answer, exchange_with(panel.slave_path(), c.to_panel, c.answer.size()));
    }

    panel.set_block_ack(false);
    EXPECT_EQ("", exchange_with(panel.slave_path(), sim_frame('B', end_block), 0));
    EXPECT_EQ(receipt, exchange_with(panel.slave_path(), "~0007FLS\x7f", receipt.size()));
    panel.set_silent(true);
    EXPECT_EQ("", exchange_with(panel.slave_path(), "~0007FLS\x7f", 0));
    panel.stop();
}

// The program: first line the pty path, a panel behind it, ends on SIGTERM.
TEST(PanelSimProgram, PrintsItsTerminalAndEndsOnSignal) {
    int out[2];
    ASSERT_EQ(0, pipe(out));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    const char* argv[] = {VORPANEL_SIM_BINARY, "--no-link", "--telemetry-ms", "0", nullptr};
    pid_t pid = -1;
    ASSERT_EQ(0,
              posix_spawn(&pid, VORPANEL_SIM_BINARY, &actions, nullptr, const_cast<char**>(argv), environ));
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);

    std::string first_line;
    auto start = Clock::now();
    while (first_line.find('\n') == std::string::npos && elapsed_ms(start) < 5000) {
        pollfd waiting{out[0], POLLIN, 0};
        if (poll(&waiting, 1, 100) <= 0) continue;
        char buf[256];
        ssize_t n = read(out[0], buf, sizeof buf);
        if (n <= 0) break;
        first_line.append(buf, static_cast<size_t>(n));
    }
    close(out[0]);
    std::string path = first_line.substr(0, first_line.find('\n'));
    EXPECT_EQ(0u, path.find("/dev/pts/")) << first_line;
    EXPECT_EQ(sim_receipt(), exchange_with(path, "~0007FLS\x7f", sim_receipt().size()));

    kill(pid, SIGTERM);
    int status = -1;
    bool ended = wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 3000);
    if (!ended) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    EXPECT_TRUE(ended);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(PanelSimProgram, HelpAndBadOptions) {
    ProgramResult help = run_program(std::string(VORPANEL_SIM_BINARY) + " --help");
    EXPECT_EQ(0, help.exit_code);
    EXPECT_EQ(0u, help.output.find("Usage: vorpanel-sim [options]\n"));
    EXPECT_NE(std::string::npos, help.output.find("--hangup-after-ms N"));
    EXPECT_EQ(1, run_program(std::string(VORPANEL_SIM_BINARY) + " --telemetry-ms x 2>/dev/null").exit_code);
    EXPECT_EQ(1, run_program(std::string(VORPANEL_SIM_BINARY) + " --bogus 2>/dev/null").exit_code);
}

// True once this build decodes configuration lines and log replies (their
// handlers landed later than the dispatcher); probed on a private image.
bool image_decoders_present() {
    DevParser probe;
    std::vector<unsigned char> config = {'0', '0', '1', '1', 'F', 'e', 'c', '-', '0', '\r', '\n'};
    std::vector<unsigned char> logs = {'0', '0', '0', '8', 'G', 1, 'a', 0};
    probe.parse_cfg(config, 5);
    probe.parse_log(logs, 5);
    return !probe.cfg.empty() && !probe.logs.empty();
}

// The engine's reads against the simulator, through the real device thread.
TEST(PanelSimWithEngine, ConfigurationLogsAndEventsArrive) {
    if (!image_decoders_present()) GTEST_SKIP() << "configuration and log decoders not in this build yet";
    ScratchDir scratch;
    PanelSimOptions options;
    options.make_link = false;
    options.telemetry_ms = 500;
    options.split = true;  // every frame reaches the engine in two reads
    PanelSim panel(options);
    ASSERT_TRUE(panel.start()) << panel.error();
    reset_link_state();
    ASSERT_TRUE(open_engine_on(panel));

    testing::internal::CaptureStdout();
    DeviceThread device;
    parser.clear();
    parser.set_status(4);
    queue.cmd_to_dev(cmd_cf11, cmd_cf11_len);
    bool config_read = wait_until([] { return parser.get_status() == 3; }, 10000);
    parser.set_status(6);
    queue.cmd_to_dev(cmd_pl, cmd_pl_len);
    bool logs_read = wait_until([] { return parser.get_ready_text(&StatusDevice::rlog) == "2"; }, 10000);
    parser.set_status(7);
    queue.cmd_to_dev(cmd_mh, cmd_mh_len);
    bool events_read = wait_until([] { return parser.get_ready_text(&StatusDevice::rmsg) == "2"; }, 10000);
    bool stopped = device.stop();
    std::string out = testing::internal::GetCapturedStdout();

    EXPECT_TRUE(config_read);
    EXPECT_TRUE(logs_read);
    EXPECT_TRUE(events_read);
    EXPECT_TRUE(stopped);
    EXPECT_EQ(std::string::npos, out.find("packet loss")) << out;
    MutexLock lock(http_mutex);
    EXPECT_EQ("1", parser.cfg["ec"].second);
    EXPECT_EQ("1234", parser.cfg["cs001"].second);
    EXPECT_EQ("1", parser.cfg["zn008"].second);
    EXPECT_EQ(3u, parser.logs.size());
    ASSERT_EQ(3u, parser.events.size());
    EXPECT_EQ(401, parser.events[2].code);
    EXPECT_EQ(0x21, parser.events[2].flags);
}

}  // namespace
