// Lines of the debug channels: dump escaping, limits, prefixes and the time stamp.
#include "core/debug.h"

#include <gtest/gtest.h>

#include <regex>
#include <tuple>

static const std::regex stamp_format("([01]\\d|2[0-3]):[0-5]\\d:[0-5]\\d\\.\\d\\d\\d ");

// Checks the time stamp in front of a captured line and returns the rest of it.
static std::string after_stamp(const std::string& line) {
    EXPECT_TRUE(line.size() >= 13 && std::regex_match(line.substr(0, 13), stamp_format)) << line;
    return line.size() < 13 ? line : line.substr(13);
}

TEST(DebugDump, LineIsStampTitleAndEscapedBytes) {
    // bytes, max, dump text
    const std::tuple<std::string, size_t, std::string> cases[] = {
        {"~0007\r\x7f", 0, "<START>0007<0d><END>"},
        {"", 0, ""},
        {"0123456789", 3, "012..."},
        {"abc", 10, "abc"},
        {"abc", 3, "abc"},
        {std::string("a~}\x80\xff\x1f \0", 8), 0, "a<START>}<80><ff><1f> <00>"},
    };
    const std::string title = " >>>PK7_OUT_FIRMWARE   ";
    for (auto [bytes, max, text] : cases) {
        testing::internal::CaptureStdout();
        pk7.put_bytes(DM_OUT_FIRMWARE, bytes.data(), bytes.size(), title.c_str(), max);
        EXPECT_EQ(after_stamp(testing::internal::GetCapturedStdout()), title + text + "\n");
    }
}
