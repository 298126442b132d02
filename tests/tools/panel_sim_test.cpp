// The panel simulator program, and the engine reading configuration, logs and
// events from the simulated panel.
#include <gtest/gtest.h>

#include <regex>
#include <tuple>

#include "link/link_test_support.h"

namespace {

using namespace link_test;

const std::string kSim = VORPANEL_SIM_BINARY;

// Help and a bad option; then a run: its first line is the pty the panel sits
// behind, and SIGTERM ends it with status 0 (timeout forwards the signal, and
// kills the program after 10 s at most).
TEST(PanelSimProgram, CommandLineTerminalAndCleanEndOnSignal) {
    auto [help_status, help] = run_program(kSim + " --help");
    EXPECT_EQ(0, help_status);
    EXPECT_EQ(0u, help.find("Usage: vorpanel-sim [options]\n"));
    EXPECT_EQ(1, run_program(kSim + " --bogus 2>/dev/null").first);
    std::string run = run_program("out=$(mktemp); timeout -s KILL 10 " + kSim +
                                  " --no-link --telemetry-ms 0 >$out & pid=$!; "
                                  "for i in $(seq 50); do [ -s $out ] && break; sleep 0.1; done; "
                                  "head -n 1 $out; kill -TERM $pid; wait $pid; echo \"exit $?\"; rm $out")
                          .second;
    EXPECT_TRUE(std::regex_match(run, std::regex("/dev/pts/[0-9]+\nexit 0\n"))) << run;
}

// The device thread reads the configuration, the log and the events through
// frames split over two reads each; each read ends with status 3.
TEST_F(PanelLinkTest, EngineReadsConfigurationLogsAndEventsFromTheSimulator) {
    panel_.set_split(true);
    panel_.set_silent(false);
    DeviceThread device;
    parser.clear();
    const std::tuple<int, char*, size_t> reads[] = {
        {4, cmd_cf11, cmd_cf11_len}, {6, cmd_pl, cmd_pl_len}, {7, cmd_mh, cmd_mh_len}};
    for (auto [status, command, len] : reads) {
        parser.set_status(status);
        queue.cmd_to_dev(command, len);
        EXPECT_TRUE(wait_for([] { return parser.get_status() == 3; }, 10)) << status;
    }
    device.stop();
    EXPECT_EQ("1234", parser.cfg["cs001"].second);
    EXPECT_EQ("1", parser.cfg["zn008"].second);  // from the range zn3:8
    EXPECT_EQ("MS02 v3.14", parser.cfg_sv);
    // "bc-12" announces the 12 lines after it; "bc" itself counts too: 13 * 100 / 12.
    EXPECT_EQ("108", parser.get_ready_text(&StatusDevice::progress_cfg));
    EXPECT_EQ(3u, parser.logs.size());
    EXPECT_EQ(3u, parser.events.size());
}

}  // namespace
