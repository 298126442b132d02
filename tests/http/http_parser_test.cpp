// Tests of request parsing, the answer builders and refusing cross-site requests.
#include "http/http_parser.h"

#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include "core/debug.h"
#include "core/engine.h"

namespace {

const std::string not_found = "HTTP/1.1 404 Not Found\r\nConnection: close\r\n\r\n";
const std::string forbidden = "HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n";

std::string json_answer(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nConnection: close\r\nAccess-Control-Allow-Origin: *\r\n"
           "Content-Type: application/javascript; charset=utf-8\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\n\r\n" + body;
}

struct Parsed {
    int missing;
    std::string answer;
    parsing_result result;
};

Parsed run_parse(std::string request) {
    Parsed out;
    std::stringstream answer;
    out.missing = parse(request.data(), static_cast<int>(request.size()), answer, out.result);
    out.answer = answer.str();
    return out;
}

// Drops the "hh:mm:ss.mmm " prefix of every line after checking its form.
std::string without_stamps(const std::string& text) {
    static const std::regex stamp(R"(^\d\d:\d\d:\d\d\.\d\d\d )");
    std::string out;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size() - 1;
        std::string line = text.substr(start, end - start + 1);
        if (std::regex_search(line, stamp)) line = line.substr(13);
        out += line;
        start = end + 1;
    }
    return out;
}

}  // namespace

TEST(AnswerBuilders, WriteExactBytes) {
    const std::string body("ab\0c", 4);
    const std::string ok_head = "HTTP/1.1 200 OK\r\nConnection: close\r\n";
    struct Case {
        const char* name;
        std::function<void(std::stringstream&)> build;
        std::string expected;
    };
    const Case cases[] = {
        {"html", [&](std::stringstream& s) { set_response_html(s, body); },
         ok_head + "Content-Type: text/html; charset=UTF-8\r\nContent-Length: 4\r\n\r\n" + body},
        {"css", [&](std::stringstream& s) { set_response_css(s, body); },
         ok_head + "Content-Type: text/css; charset=UTF-8\r\nContent-Length: 4\r\n\r\n" + body},
        {"png", [&](std::stringstream& s) { set_response_png(s, body); },
         ok_head + "Content-Type: image/png\r\nContent-Transfer-Encoding: binary;Content-Length: 4\r\n\r\n" +
             body},
        {"ico", [&](std::stringstream& s) { set_response_ico(s, body); },
         ok_head +
             "Content-Type: image/x-icon\r\nContent-Transfer-Encoding: binary;Content-Length: 4\r\n\r\n" +
             body},
        {"svg", [&](std::stringstream& s) { set_response_svg(s, body); },
         ok_head +
             "Content-Type: image/svg+xml\r\nContent-Transfer-Encoding: binary;Content-Length: 4\r\n\r\n" +
             body},
        {"json", [&](std::stringstream& s) { set_response_json(s, body); }, json_answer(body)},
        {"json empty", [&](std::stringstream& s) { set_response_json(s, ""); }, json_answer("")},
        {"cfg file", [&](std::stringstream& s) { set_response_cfg_file(s, body); },
         ok_head +
             "Content-Type: text/plain; charset=UTF-8\r\nContent-disposition: attachment; "
             "filename=config.ini\r\n"
             "Content-transfer-encoding: text\r\nContent-Length: 4\r\n\r\n" +
             body},
        {"events file", [&](std::stringstream& s) { set_response_events_file(s, body, "events.txt"); },
         ok_head +
             "Content-Type: text/plain; charset=UTF-8\r\nContent-disposition: attachment; "
             "filename=events.txt\r\n"
             "Content-transfer-encoding: text\r\nContent-Length: 4\r\n\r\n" +
             body},
        {"error", [](std::stringstream& s) { set_error(s); }, not_found},
        {"OK", [](std::stringstream& s) { set_OK(s); }, "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n"},
    };
    for (const Case& c : cases) {
        std::stringstream answer;
        c.build(answer);
        EXPECT_EQ(answer.str(), c.expected) << c.name;
    }
}

TEST(AnswerBuilders, EnvelopesAreExact) {
    EXPECT_STREQ(json_ok, "{\"result\":\"ok\",\"description\":\"\"}");
    EXPECT_STREQ(json_error, "{\"result\":\"error\",\"description\":\"\"}");
    EXPECT_STREQ(json_continue, "{\"result\":\"continue\",\"description\":\"\"}");
    EXPECT_STREQ(err_con_port, "Ошибка подключения к порту");

    std::string out = "previous text";
    set_error_and_descr(out, err_con_port);
    EXPECT_EQ(out, "{\"result\":\"error\",\"description\":\"Ошибка подключения к порту\"}");
    set_error_and_descr(out, "a\"b");  // inserted as it is, without escaping
    EXPECT_EQ(out, "{\"result\":\"error\",\"description\":\"a\"b\"}");
}

TEST(SplitHeader, KeepsWalkingPastTheBlankLineUntilAZeroByte) {
    struct Case {
        std::string input;
        std::vector<std::string> lines;
        int header_len;
    };
    const Case cases[] = {
        {"GET / HTTP/1.1\r\nHost: x\r\n\r\n", {"GET / HTTP/1.1", "Host: x", ""}, 27},
        {"GET / HTTP/1.1", {"GET / HTTP/1.1"}, 0},
        {"A\r\nB", {"A", "B"}, 0},
        {"P\r\n\r\nbody1\r\n\r\nrest", {"P", "", "body1", "", "rest"}, 14},
        {"A\nB\r\n", {"A\nB"}, 0},
        {"A\r", {"A\r"}, 0},
        {std::string("A\r\n\r\nB\0C\r\n\r\n", 12), {"A", "", "B"}, 5},
        {"", {}, 0},
    };
    for (const Case& c : cases) {
        std::string buf = c.input;
        std::vector<std::string> lines{"stale"};
        int header_len = 0;
        split_header(buf.data(), static_cast<int>(buf.size()), lines, header_len);
        EXPECT_EQ(lines, c.lines) << c.input;
        EXPECT_EQ(header_len, c.header_len) << c.input;
    }
}

TEST(ParseCommand, ReadsDigitsFromCharacter25OfTheTarget) {
    struct Case {
        std::string target;
        int n;
    };
    const Case cases[] = {
        {"/tuning/device?id=-1&cmd=71", 71},
        {"/tuning/device?id=-1&cmd=12&pass=1234", 12},
        {"/tuning/device?id=-1&cmd=", 0},
        {"/tuning/device?id=-1&cmd=x1", 0},
        {"/tuning/device?id=-1&cmd=-3", -3},
        {"/tuning/device?id=-1&statusdevice", -1},
        {"/", -1},
        // The offset counts from the target's start, not from where the prefix was found.
        {"/xx/tuning/device?id=-1&cmd=5", 0},
        {"/abc/tuning/device?id=-1&cmd=5", 0},
        {"/tuning/device?id=-1&c/tuning/device?id=-1&cmd=5", 0},
    };
    for (const Case& c : cases) EXPECT_EQ(parse_command(c.target), c.n) << c.target;
}

TEST(StrToBin, DecodesUtf8OfLatin1Bytes) {
    struct Case {
        std::string text;
        std::string bytes;
    };
    const Case cases[] = {
        {"abc", "abc"},
        {"\xC2\x80\xC2\xBF", "\x80\xBF"},
        {"\xC3\x80\xC3\xBF", "\xC0\xFF"},
        {std::string("\x00\xC3\xA9z", 4), std::string("\x00\xE9z", 3)},
        {"\xC3", ""},
        {"\xC3\xC3\x81", "\xC1"},
        {"", ""},
    };
    for (const Case& c : cases) {
        std::string text = c.text;
        std::vector<char> out{'k'};
        str_to_bin(text, out);
        EXPECT_EQ(std::string(out.begin() + 1, out.end()), c.bytes) << c.text;
        EXPECT_EQ(out.front(), 'k');  // appends, keeps what was there
    }
}

TEST(Parse, PostIsAcceptedOnlyForUploadCommands) {
    struct Case {
        std::string target;
        bool accepted;
    };
    const Case cases[] = {
        {"/tuning/device?id=-1&cmd=4&name=a.ini", true},
        {"/tuning/device?id=-1&cmd=71", true},
        {"/tuning/device?id=-1&cmd=73", true},
        {"/tuning/device?id=-1&configset", true},
        {"/anything", true},
        {"/tuning/device?id=-1&cmd=5", false},
        {"/tuning/device?id=-1&cmd=72", false},
    };
    for (const Case& c : cases) {
        Parsed p = run_parse("POST " + c.target + " HTTP/1.1\r\nContent-Length: 3\r\n\r\nxyz");
        EXPECT_EQ(p.answer, json_answer(c.accepted ? json_ok : json_error)) << c.target;
        EXPECT_EQ(p.missing, 0) << c.target;
        EXPECT_EQ(p.result.query, c.accepted ? c.target : "") << c.target;
        EXPECT_EQ(p.result.content, c.accepted ? "xyz" : "") << c.target;
    }

    std::string file;
    parser.cfg_to_file(file);
    std::stringstream expected;
    set_response_cfg_file(expected, file);
    Parsed download = run_parse("POST /tuning/device?id=-1&cmd=2 HTTP/1.1\r\nContent-Length: 3\r\n\r\nxyz");
    EXPECT_EQ(download.answer, expected.str());
    EXPECT_EQ(download.missing, 0);
    EXPECT_TRUE(download.result.query.empty());
}

TEST(Parse, PostRecordsHeadersAndCountsMissingBodyBytes) {
    struct Case {
        std::string request;
        int missing;
        int content_length;
        std::string content_type;
        std::string content;
    };
    const std::string head = "POST /tuning/device?id=-1&cmd=71 HTTP/1.1\r\n";
    const Case cases[] = {
        {head + "Content-Type: text/plain\r\nContent-Length: 10\r\n\r\n0123", 6, 10, " text/plain", "0123"},
        {head + "Content-Length: 2\r\n\r\n0123", -2, 2, "", "0123"},
        {head + "Content-Length: abc\r\n\r\n", 0, 0, "", ""},
        {head + "X-Content-Length: 7\r\n\r\n", 0, 0, "", ""},  // offset 15 of this line is "h: 7"
        // A body line naming a header overwrites it; a blank body line moves the head's end.
        {head + "Content-Length: 9\r\n\r\nA\r\n\r\nB", 8, 9, "", "B"},
        {head + "Content-Length: 5\r\n\r\nContent-Length: 1\r\n", 1 - 19, 1, "", "Content-Length: 1\r\n"},
        // Without a blank line the whole request counts as body.
        {head + "Content-Length: 5", 5 - 60, 5, "", head + "Content-Length: 5"},
    };
    for (const Case& c : cases) {
        Parsed p = run_parse(c.request);
        EXPECT_EQ(p.answer, json_answer(json_ok)) << c.request;
        EXPECT_EQ(p.missing, c.missing) << c.request;
        EXPECT_EQ(p.result.content_length, c.content_length) << c.request;
        EXPECT_EQ(p.result.content_type, c.content_type) << c.request;
        EXPECT_EQ(p.result.content, c.content) << c.request;
    }
}

TEST(Parse, ForeignOriginsAreRefusedBeforeDispatch) {
    struct Case {
        std::string headers;
        std::string console;  // empty: served
    };
    const Case cases[] = {
        {"", ""},
        {"Host: localhost\r\n", ""},
        {"Host: localhost:8080\r\n", ""},
        {"Host: 127.0.0.1:8099\r\n", ""},
        {"Host: [::1]:8081\r\n", ""},
        {"HOST:LocalHost:8080\r\n", ""},
        {"Host: localhost:8080\r\nOrigin: http://localhost:8080\r\nSec-Fetch-Site: same-origin\r\n", ""},
        {"Origin: http://127.0.0.1\r\n", ""},
        {"Origin: http://[::1]:8080\r\n", ""},
        {"Sec-Fetch-Site: none\r\n", ""},
        {"Sec-Fetch-Site: same-site\r\n", ""},
        {"Host: evil.example\r\n", "Request refused, foreign Host: evil.example\n"},
        {"Host: localhost.evil.example:8080\r\n",
         "Request refused, foreign Host: localhost.evil.example:8080\n"},
        {"Host: 127.0.0.1.nip.io\r\n", "Request refused, foreign Host: 127.0.0.1.nip.io\n"},
        {"Host: localhost:80a\r\n", "Request refused, foreign Host: localhost:80a\n"},
        {"Host: [::1\r\n", "Request refused, foreign Host: [::1\n"},
        {"Host:\r\n", "Request refused, foreign Host: \n"},
        {"Host: localhost\r\nHost: evil\r\n", "Request refused, foreign Host: evil\n"},
        {"Origin: null\r\n", "Request refused, foreign Origin: null\n"},
        {"origin: http://evil.example\r\n", "Request refused, foreign Origin: http://evil.example\n"},
        {"Origin: http://localhost.evil.example\r\n",
         "Request refused, foreign Origin: http://localhost.evil.example\n"},
        {"Origin: http://localhost:8080/x\r\n", "Request refused, foreign Origin: http://localhost:8080/x\n"},
        {"Host: localhost:8080\r\nSec-Fetch-Site: cross-site\r\n",
         "Request refused, Sec-Fetch-Site: cross-site\n"},
        {"sec-fetch-site: Cross-Site\r\n", "Request refused, Sec-Fetch-Site: cross-site\n"},
        {"Host: a\x01\x1b[2Jb\r\n", "Request refused, foreign Host: a??[2Jb\n"},
    };
    const std::string target = "/tuning/device?id=-1&cmd=71";
    for (const Case& c : cases) {
        testing::internal::CaptureStdout();
        Parsed p = run_parse("POST " + target + " HTTP/1.1\r\n" + c.headers + "Content-Length: 3\r\n\r\nxyz");
        std::string console = testing::internal::GetCapturedStdout();
        EXPECT_EQ(without_stamps(console), c.console) << c.headers;
        if (c.console.empty()) {
            EXPECT_EQ(p.answer, json_answer(json_ok)) << c.headers;
            EXPECT_EQ(p.result.query, target) << c.headers;
        } else {
            EXPECT_EQ(p.answer, forbidden) << c.headers;
            EXPECT_EQ(p.result.query, "") << c.headers;
            EXPECT_EQ(p.result.content, "") << c.headers;
            EXPECT_EQ(p.result.content_length, 0) << c.headers;
        }
    }
}

TEST(Parse, OnlyTheHeadIsExaminedForOrigins) {
    Parsed p = run_parse("POST /x HTTP/1.1\r\nContent-Length: 29\r\n\r\nOrigin: null\r\nHost: evil\r\n\r\n");
    EXPECT_EQ(p.answer, json_answer(json_ok));
    EXPECT_EQ(p.result.query, "/x");

    // A padded URL pushes the head's origin lines beyond the 1400 bytes of the first read.
    auto padded = [](const std::string& method, size_t line_len, const std::string& rest) {
        std::string line = method + " /tuning/device?id=-1&cmd=71&pad=";
        line += std::string(line_len - line.size() - 9, 'a') + " HTTP/1.1";
        return (line + "\r\n" + rest).substr(0, 1400);
    };
    struct Case {
        std::string request;
        bool refused;
    };
    const Case cases[] = {
        {padded("GET", 1398, "Host: evil\r\n"), true},
        {padded("POST", 1370, "Host: localhost\r\nOrigin: null\r\nSec-Fetch-Site: cross-site\r\n\r\n"), true},
        {padded("POST", 1377, "Content-Length: 0\r\n\r\n"), false},  // a whole head of exactly 1400 bytes
        {padded("POST", 1370, "Content-Length: 0\r\n"), false},      // a short read holds all there is
    };
    for (const Case& c : cases) {
        testing::internal::CaptureStdout();
        p = run_parse(c.request);
        std::string console = without_stamps(testing::internal::GetCapturedStdout());
        EXPECT_EQ(p.answer, c.refused ? forbidden : json_answer(json_ok)) << c.request.size();
        EXPECT_EQ(console, c.refused ? "Request refused, head longer than one read\n" : "")
            << c.request.size();
    }
}

TEST(Parse, DebugSwitchPrintsTheRequest) {
    debug_mode = true;
    dm_h2 = true;
    testing::internal::CaptureStdout();
    std::string request("POST /x HTTP/1.1\r\n\r\nab\0cd", 25);
    run_parse(request);
    std::string console = testing::internal::GetCapturedStdout();
    debug_mode = false;
    dm_h2 = false;
    EXPECT_TRUE(std::regex_search(console, std::regex(R"(^\d\d:\d\d:\d\d\.\d\d\d  <<<JSON_IN     )")))
        << console;
    EXPECT_EQ(without_stamps(console), " <<<JSON_IN     POST /x HTTP/1.1\r\n\r\nab\n\n\n");
}
