// Dump lines of the debug channels: escaping, limits and the time stamp.
#include "core/debug.h"

#include <gtest/gtest.h>

#include <regex>

namespace {

TEST(DebugDump, EscapesMarksControlAndHighBytes) {
    struct Case {
        std::string bytes;
        size_t max;
        std::string text;
    };
    const Case cases[] = {
        {std::string("\x7e"
                     "0007\x0d\x7f",
                     7),
         0, "<START>0007<0d><END>"},
        {"", 0, ""},
        {"0123456789", 3, "012..."},
        {"abc", 10, "abc"},
        {"abc", 3, "abc"},
        {std::string("a\x7e"
                     "b",
                     3),
         0, "a<START>b"},
        {std::string("}\x80\xff\x1f ~", 6), 0, "}<80><ff><1f> <START>"},
        {std::string("\x00", 1), 0, "<00>"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(dump_text(c.bytes.data(), c.bytes.size(), c.max), c.text) << c.text;
    }
}

TEST(DebugDump, LineIsStampTitleAndText) {
    char bytes[] = {0x7e, '0', '0', '0', '5', 'A', 0x7f};
    testing::internal::CaptureStdout();
    pk7.put_bytes(DM_IN_RECEIPT, bytes, sizeof bytes, " <<<PK7_IN_RECEIPT   ", 0);
    pk7.put_bytes(DM_OUT_FIRMWARE, bytes, 0, " >>>PK7_OUT_FIRMWARE   ", 0);
    std::string out = testing::internal::GetCapturedStdout();
    std::regex line(
        "\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d  <<<PK7_IN_RECEIPT   <START>0005A<END>\n"
        "\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d  >>>PK7_OUT_FIRMWARE   \n");
    EXPECT_TRUE(std::regex_match(out, line)) << out;
}

TEST(DebugPut, WritesStampPrefixAndText) {
    testing::internal::CaptureStdout();
    json.put(DM_IN_SRC, "GET UNKNOWN QUERY: /x", nullptr);
    json.put(DM_IN_SRC, "text", "prefix ");
    json.put(DM_IN_SRC, nullptr, nullptr);
    std::string out = testing::internal::GetCapturedStdout();
    std::regex lines(
        "\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d GET UNKNOWN QUERY: /x\n"
        "\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d prefix text\n");
    EXPECT_TRUE(std::regex_match(out, lines)) << out;
}

TEST(DebugPut, TimeStampHasMillisecondsAndTrailingBlank) {
    std::string stamp = time_stamp();
    ASSERT_EQ(stamp.size(), 13u);
    EXPECT_TRUE(std::regex_match(stamp, std::regex("([01]\\d|2[0-3]):[0-5]\\d:[0-5]\\d\\.\\d\\d\\d ")));
}

}  // namespace
