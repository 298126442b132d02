// The command line: confirmation lines, the usage text and ignored keys.
#include "support/engine_harness.h"

using namespace harness;

// Runs the engine in an empty scratch directory and expects it to end at once with status 0:
// a started server would print its bind lines and keep running.
static std::string run_engine(const std::string& args) {
    auto [status, output] =
        run_program("d=$(mktemp -d) && cd \"$d\" && " + std::string(VORCORE_BINARY) + " " + args +
                    " </dev/null 2>/dev/null; rc=$?; cd / && rm -rf \"$d\"; exit $rc");
    EXPECT_EQ(status, 0) << args;
    return output;
}

// The golden texts keep two slips of the usage: "foor src bytes" and "dh1" for the received-bytes switch.
TEST(CommandLine, KeysConfirmInOrderAndHelpEndsWithTheUsage) {
    const std::string help = golden("help.txt"), banner = "\nConfigurator Core ver 5.2.22\n";
    EXPECT_EQ(run_engine("help"), help);
    EXPECT_EQ(run_engine("ds1 help"),
              banner + "ON debug info about sending to device for src bytes\n" + help.substr(banner.size()));
    // Unknown and wrongly cased keys are ignored silently; keys after help are never read.
    EXPECT_EQ(run_engine("ds1 ds2 ds3 ds DS1 ds10 dr1 dr2 dr3 dr4 dr9 dr dh1 dh2 dh Help help ds1 dh"),
              golden("all_keys_help.txt"));
}
