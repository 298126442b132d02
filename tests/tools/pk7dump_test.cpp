// pk7dump on a record written by hand, reviewed once by eye: every kind of frame, frames split
// across chunks and stuffed, Windows-1251 text, masked passwords, frames lost, cut or failing their
// checks; its statistics; and what it says of a file that is no record.
#include <gtest/gtest.h>

#include <tuple>

#include "support/engine_harness.h"

using namespace harness;

TEST(Pk7Dump, FramesAndStatisticsOfARecordAndRefusalOfOthers) {
    const std::string pk7dump = PK7DUMP_BINARY, data = VORCORE_SOURCE_DIR "/tests/data/";
    // {arguments, exit status, standard output, the start of standard error}
    const std::tuple<std::string, int, std::string, std::string> cases[] = {
        {data + "link_record.txt", 0, golden("link_record_dump.txt"), ""},
        {"--stats " + data + "link_record.txt", 0, golden("link_record_stats.txt"), ""},
        {"- <" + data + "link_record.txt", 0, golden("link_record_dump.txt"), ""},
        {data + "status.json", 1, "",
         "pk7dump: " + data + "status.json: line 1: not the title of a vorcore link record"},
        {data + "missing.txt", 1, "", "pk7dump: cannot read " + data + "missing.txt"},
        {"", 2, "", "Usage: pk7dump [--stats] FILE"},
        {"--bogus x", 2, "", "pk7dump: bad argument --bogus"},
    };
    TempDir dir;
    for (const auto& [arguments, status, out, error] : cases) {
        auto [exit_status, printed] = run_program(pk7dump + " " + arguments + " 2>" + dir.path() + "/err");
        EXPECT_EQ(exit_status, status) << arguments;
        EXPECT_EQ(printed, out) << arguments;
        EXPECT_EQ(read_text_file(dir.path() + "/err").substr(0, error.size()), error) << arguments;
    }
}
