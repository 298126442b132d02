// The command line: confirmation lines, the usage text and ignored keys.
#include <gtest/gtest.h>

#include "support/run_program.h"

const std::string banner = "\nConfigurator Core ver 5.2.22\n";

// Two slips are part of the text: "foor src bytes" and "dh1" for the received-bytes switch.
const std::string usage =
    "vorcore <key1> <key2> .. \n"
    " where keys:\n"
    "ds1 -  debug info about sending to device for src bytes\n"
    "ds2 -  debug info about sending to device for command and firmware\n"
    "ds3 -  debug info about sending to device for receipt\n"
    "ds -  debug info about sending to device for all\n\n"
    "dr1 -  debug info about received from device foor src bytes\n"
    "dr2 -  debug info about received from device for telemetry\n"
    "dr3 -  debug info about received from device for config, logs, events\n"
    "dr4 -  debug info about received from device for receipt\n"
    "dr -  debug info about received from device for all\n\n"
    "dh1 -  debug info about exchange by http for sending bytes\n"
    "dh1 -  debug info about exchange by http for received bytes\n"
    "dh -  debug info about exchange by http for all\n";

// The confirmation lines of the keys ds1 ds2 ds3 ds dr1 dr2 dr3 dr4 dr dh1 dh2 dh, in that order.
const std::string confirmations =
    "ON debug info about sending to device for src bytes\n"
    "ON debug info about sending to device for command and firmware\n"
    "ON debug info about sending to device for receipt\n"
    "ON debug info about sending to device for all\n"
    "ON debug info about received from device for src bytes\n"
    "ON debug info about received from device for telemetry\n"
    "ON debug info about received from device for config, logs, events\n"
    "ON debug info about received from device for receipt\n"
    "ON debug info about received from device for all\n"
    "ON debug info about exchange by http for sending bytes\n"
    "ON debug info about exchange by http for received bytes\n"
    "ON debug info about exchange by http for all\n";

// Runs the engine in an empty scratch directory and expects it to end at once with status 0:
// a started server would print its bind lines and keep running.
static std::string run_engine(const std::string& args) {
    ProgramResult result =
        run_program("d=$(mktemp -d) && cd \"$d\" && " + std::string(VORCORE_BINARY) + " " + args +
                    " </dev/null 2>/dev/null; rc=$?; cd / && rm -rf \"$d\"; exit $rc");
    EXPECT_EQ(result.exit_code, 0) << args;
    return result.output;
}

TEST(CommandLine, KeysConfirmInOrderAndHelpEndsWithTheUsage) {
    EXPECT_EQ(run_engine("help"), banner + usage);
    EXPECT_EQ(run_engine("ds1 help"), banner + confirmations.substr(0, confirmations.find('\n') + 1) + usage);
    // Unknown and wrongly cased keys are ignored silently; keys after help are never read.
    EXPECT_EQ(run_engine("ds1 ds2 ds3 ds DS1 ds10 dr1 dr2 dr3 dr4 dr9 dr dh1 dh2 dh Help help ds1 dh"),
              banner + confirmations + usage);
}
