// The command line: confirmation lines, the usage text and ignored keys.
#include <gtest/gtest.h>

#include "support/run_program.h"

namespace {

const std::string banner = "\nConfigurator Core ver 5.2.22\n";

const std::string usage =
    "vorcore <key1> <key2> .. \n"
    " where keys:\n"
    "ds1 -  debug info about sending to device for src bytes\n"
    "ds2 -  debug info about sending to device for command and firmware\n"
    "ds3 -  debug info about sending to device for receipt\n"
    "ds -  debug info about sending to device for all\n"
    "\n"
    "dr1 -  debug info about received from device foor src bytes\n"
    "dr2 -  debug info about received from device for telemetry\n"
    "dr3 -  debug info about received from device for config, logs, events\n"
    "dr4 -  debug info about received from device for receipt\n"
    "dr -  debug info about received from device for all\n"
    "\n"
    "dh1 -  debug info about exchange by http for sending bytes\n"
    "dh1 -  debug info about exchange by http for received bytes\n"
    "dh -  debug info about exchange by http for all\n";

// Runs the engine in an empty directory so that nothing beside it is found,
// and removes the directory afterwards.
ProgramResult run_engine(const std::string& args) {
    return run_program("d=$(mktemp -d) && cd \"$d\" && " + std::string(VORCORE_BINARY) + " " + args +
                       " </dev/null 2>/dev/null; rc=$?; cd / && rm -rf \"$d\"; exit $rc");
}

TEST(CommandLine, HelpPrintsUsageAndExitsAtOnce) {
    ProgramResult result = run_engine("help");
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.output, banner + usage);
}

TEST(CommandLine, KeysBeforeHelpConfirmFirst) {
    struct Case {
        const char* args;
        const char* confirmations;
    };
    const Case cases[] = {
        {"ds1 help", "ON debug info about sending to device for src bytes\n"},
        {"ds2 help", "ON debug info about sending to device for command and firmware\n"},
        {"ds3 help", "ON debug info about sending to device for receipt\n"},
        {"ds help", "ON debug info about sending to device for all\n"},
        {"dr1 help", "ON debug info about received from device for src bytes\n"},
        {"dr2 help", "ON debug info about received from device for telemetry\n"},
        {"dr3 help", "ON debug info about received from device for config, logs, events\n"},
        {"dr4 help", "ON debug info about received from device for receipt\n"},
        {"dr help", "ON debug info about received from device for all\n"},
        {"dh1 help", "ON debug info about exchange by http for sending bytes\n"},
        {"dh2 help", "ON debug info about exchange by http for received bytes\n"},
        {"dh help", "ON debug info about exchange by http for all\n"},
        {"ds dr9 dh help",
         "ON debug info about sending to device for all\n"
         "ON debug info about exchange by http for all\n"},
        {"DS1 ds10 Help dh1x help", ""},
    };
    for (const Case& c : cases) {
        ProgramResult result = run_engine(c.args);
        EXPECT_EQ(result.exit_code, 0) << c.args;
        EXPECT_EQ(result.output, banner + c.confirmations + usage) << c.args;
    }
}

TEST(CommandLine, HelpEndsBeforeLaterKeys) {
    ProgramResult result = run_engine("help ds1");
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_EQ(result.output, banner + usage);
}

}  // namespace
