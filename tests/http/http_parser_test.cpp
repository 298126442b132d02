// Tests of request parsing and refusing cross-site requests.
#include "http/http_parser.h"

#include <gtest/gtest.h>

#include "core/engine.h"
#include "http/http_answer.h"
#include "support/engine_harness.h"

namespace {

using namespace harness;

// Parses `request`; returns the answer and passes back the record, the body bytes still expected and the
// console output.
std::string parse_answer(std::string request, parsing_result& result, int& missing, std::string& console) {
    AnswerStream answer;
    console = printed_by(
        [&] { missing = parse(request.data(), static_cast<int>(request.size()), answer, result); });
    return answer.str();
}

}  // namespace

TEST(SplitHeader, KeepsWalkingPastTheBlankLineUntilAZeroByte) {
    const std::tuple<std::string, std::vector<std::string>, int> cases[] = {
        {"GET / HTTP/1.1\r\nHost: x\r\n\r\n", {"GET / HTTP/1.1", "Host: x", ""}, 27},
        {"P\r\n\r\nbody1\r\n\r\nrest", {"P", "", "body1", "", "rest"}, 14},
        {std::string("A\r\n\r\nB\0C\r\n\r\n", 12), {"A", "", "B"}, 5},
        {"A\nB\r\n", {"A\nB"}, 0},
        {"A\r\rB\r", {"A\r\rB\r"}, 0},
        {"\r\n", {""}, 2},
        {"", {}, 0},  // an empty read, passed without a buffer at all
    };
    for (const auto& [input, expected_lines, expected_len] : cases) {
        std::string buf = input;
        std::vector<std::string> lines{"stale"};
        int header_len = 0;
        split_header(buf.empty() ? nullptr : buf.data(), static_cast<int>(buf.size()), lines, header_len);
        EXPECT_EQ(lines, expected_lines) << input;
        EXPECT_EQ(header_len, expected_len) << input;
    }
}

TEST(StrToBin, DecodesUtf8OfLatin1BytesAndAppends) {
    std::string text("a\0\xC2\x80\xC2\xBF\xC3\x80\xC3\xBF\xC3\xC3\x81", 13);
    std::vector<char> out{'k'};
    str_to_bin(text, out);
    EXPECT_EQ(std::string(out.begin(), out.end()), std::string("ka\0\x80\xBF\xC0\xFF\xC1", 8));
}

// The command number is read from character 25 of the target, wherever the API prefix stands. With no
// server listening no Origin is the engine's own (the server's tests accept it on its port). The whole
// program's tests upload with the other POST commands.
TEST(Parse, PostIsAcceptedForUploadCommandsFromLocalOriginsOnly) {
    std::string config;
    parser.cfg_to_file(config);
    AnswerStream download;
    set_response_cfg_file(download, config);
    const std::string ok = json_answer(json_ok), forbidden = forbidden_answer;
    const std::string upload = "/tuning/device?id=-1&cmd=71";
    const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
        // target, head lines, answer, refusal reason on the console
        {upload, "", ok, ""},
        {"/tuning/device?id=-1&cmd=x1", "", ok, ""},
        {"/xx/tuning/device?id=-1&cmd=5", "", ok, ""},
        {"/tuning/device?id=-1&cmd=12&pass=1", "", json_answer(json_error), ""},
        {"/tuning/device?id=-1&cmd=2", "", download.str(), ""},
        {upload, "HOST:LocalHost:80\r\nSec-Fetch-Site: same-origin\r\n", ok, ""},
        {upload, "Host: 127.0.0.1\r\nSec-Fetch-Site: none\r\n", ok, ""},
        {upload, "Origin: http://[::1]:81\r\n", forbidden, "foreign Origin: http://[::1]:81"},
        {upload, "Host: localhost.evil:8080\r\n", forbidden, "foreign Host: localhost.evil:8080"},
        {upload, "Host: localhost\r\nHost: evil:8080\r\n", forbidden, "foreign Host: evil:8080"},
        {upload, "origin: http://localhost:8080/x\r\n", forbidden, "foreign Origin: http://localhost:8080/x"},
        {upload, "sec-fetch-site: Cross-Site\r\n", forbidden, "Sec-Fetch-Site: cross-site"},
        // No control byte reaches the console.
        {upload, "Host: a\x01\x1b[2Jb\r\n", forbidden, "foreign Host: a??[2Jb"},
    };
    for (const auto& [target, headers, expected, reason] : cases) {
        parsing_result result;
        int missing = 0;
        std::string console;
        std::string request = "POST " + target + " HTTP/1.1\r\n" + headers + "Content-Length: 5\r\n\r\nxyz";
        EXPECT_EQ(parse_answer(request, result, missing, console), expected) << request;
        EXPECT_EQ(stamps_marked(console), reason.empty() ? "" : "@ Request refused, " + reason + "\n")
            << request;
        bool accepted = expected == ok;
        EXPECT_EQ(missing, accepted ? 2 : 0) << request;  // two body bytes still on their way
        EXPECT_EQ(result.query + "|" + result.content, accepted ? target + "|xyz" : "|") << request;
    }
}
