// GET API: static files, JSON queries and the device command set, answered byte for byte.
#include "http/get_api.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "core/engine.h"
#include "http/api_test_support.h"
#include "http/http_parser.h"

// Every test of this program runs in one scratch working directory; static files live under its "js".
static const struct InScratch : harness::TempDir {
    InScratch() { std::filesystem::current_path(path()); }
} scratch;

static const std::string api = "/tuning/device?id=-1&";
using Strings = std::vector<std::string>;

// The answer to `target` followed by what it printed, stamps marked.
static std::string get(std::string target) {
    std::stringstream answer;
    std::string console = printed_by([&] { parse_get_query(target, answer); });
    return answer.str() + stamps_marked(console);
}

// Takes every frame off the command queue, oldest first.
static Strings drain_queue() {
    Strings frames;
    for (std::vector<char> frame; queue.get_copy(frame); queue.pop())
        frames.emplace_back(frame.begin(), frame.end());
    return frames;
}

TEST(StaticFiles, EachTypeIsServedWholeWithItsHeaders) {
    const std::string html = "Content-Type: text/html; charset=UTF-8\r\n";
    const std::string binary = "\r\nContent-Transfer-Encoding: binary;";
    const std::string script =
        "Access-Control-Allow-Origin: *\r\nContent-Type: application/javascript; charset=utf-8\r\n";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // target (the file is "js" + target), body, head lines
        {"/index.html", "<main>", html},
        {"/scenario/index.html", "<scenario>", html},
        {"/css/m.css", "b{}", "Content-Type: text/css; charset=UTF-8\r\n"},
        {"/app.js", "var a;", script},
        {"/a..b.js", "dots", script},
        {"/i/l.png", std::string("\x89PNG\r\n\0\x7f", 8), "Content-Type: image/png" + binary},
        {"/f.ico", std::string("\0\0\1\0", 4), "Content-Type: image/x-icon" + binary},
        {"/s.svg", "<svg/>", "Content-Type: image/svg+xml" + binary},
    };
    for (const auto& [target, body, head] : cases) {
        std::filesystem::create_directories(std::filesystem::path("js" + target).parent_path());
        std::ofstream("js" + target, std::ios::binary) << body;
        EXPECT_EQ(get(target), answer_200(head, body)) << target;
    }
    EXPECT_EQ(get("/"), answer_200(html, "<main>"));
    // A file that cannot be read leaves the answer empty, without a console line.
    for (const std::string target : {"/nope.css", "/nope.js", "/nope.png", "/nope.ico", "/nope.svg"})
        EXPECT_EQ(get(target), "") << target;
    std::filesystem::remove_all("js");
    EXPECT_EQ(get("/") + get("/scenario/index.html"), "");
}

TEST(Queries, UnknownAndTraversingTargetsAre404WhileVersionAndExitAnswer) {
    std::filesystem::create_directories("js/css");
    std::ofstream("secret.js") << "outside";
    const char* const targets[] = {
        "/index.html?x=1",        "/tuning/device?id=-1&getlog&record=5", "/tuning/device?id=-1&nothing",
        "/../secret.js",          "/css/%2e%2e/%2E%2E/secret.js",         "/css%2f..%2f..%2fsecret.js",
        "/css\\..\\..\\secret.js"};
    for (const std::string target : targets)
        EXPECT_EQ(get(target), not_found_answer + "@ GET UNKNOWN QUERY: " + target + "\n");
    EXPECT_EQ(get(api + "version=1.0.0"), json_answer("{ \"result\":{\"version\":\"5.2.22\"} }"));
    EXPECT_FALSE(is_exit);
    EXPECT_EQ(get(api + "exit"), json_answer(json_ok));
    EXPECT_TRUE(is_exit.exchange(false));
}

// A parameter is the text after the key's last occurrence up to the end of the target. An empty frame
// stands for json_error with nothing queued (31 and 32 need a valid device; 4 and 71 are POST only).
TEST(Commands, QueueTheirExactFramesOrAnswerErrors) {
    queue.clear();
    const std::string text(600, 'x');
    const std::pair<std::string, std::string> cases[] = {
        {"13", "~0009FUL-2\x7f"},
        {"21", "~0007FRE\x7f"},
        {"23&pass=000000&pass=abcdef", "~0018FPS-abcdef\r\nec\x7f"},
        {"41&speed=57", "~0009FEP-5\x7f"},
        {"43&ext=5", "~0008FEF5\x7f"},
        {"44&ext=31", "~0009FEA31\x7f"},
        {"44&ext=", "~0007FER\x7f"},
        {"45&radio=16", "~0013FXXPG16-1\x7f"},
        {"51&ok=1&ok=9", "~0010FKK9-1\x7f"},
        {"62&zona=8", "~0010FSS2-8\x7f"},
        {"63&part=3", "~0009FKT-3\x7f"},
        {"91", "~0007FMH\x7f"},
        {"100&text=a b&x=1", "~0012Fa b&x=1\x7f"},
        {"100&text=" + text, "~0605F" + text + "\x7f"},
        {"23&pass=12345", ""},
        {"23&pass=1234567", ""},
        {"41&speed=", ""},
        {"43&ext=123", ""},
        {"51&ok=12", ""},
        {"63&part=12", ""},
        {"100", ""},
        {"99", ""},
        {"71", ""},
        {"31", ""},
    };
    for (const auto& [query, frame] : cases) {
        EXPECT_EQ(get(api + "cmd=" + query), json_answer(frame.empty() ? json_error : json_ok)) << query;
        EXPECT_EQ(drain_queue(), frame.empty() ? Strings{} : Strings{frame}) << query;
    }
    EXPECT_EQ(get(api + "cmd=72") + get(api + "cmd=74"), json_answer(json_ok) + json_answer(json_ok));
    EXPECT_EQ(get(api + "cmd=11&com=/dev/vorcore-no-port"),
              json_answer("{\"result\":\"error\",\"description\":\"Ошибка подключения к порту\"}") +
                  "Error. Don't open device (w)/dev/vorcore-no-port\n");
    EXPECT_EQ(get(api + "cmd=11&com="), json_answer(""));
    EXPECT_EQ(get(api + "cmd=11"), json_answer(json_ok));  // disconnect
    EXPECT_TRUE(drain_queue().empty());
}

TEST(Commands, PasswordAnswerComesFromTheFlags) {
    const std::tuple<bool, bool, bool, const char*> cases[] = {
        // accepted by the panel, sent, rejected: answer
        {true, true, true, json_ok},
        {false, true, false, json_continue},
        {false, true, true, json_error},
        {false, false, false, json_error}};
    for (const auto& [accepted, sent, rejected, body] : cases) {
        parser.pass_accepted = accepted;
        queue.pass_sent = sent;
        queue.pass_rejected = rejected;
        EXPECT_EQ(get(api + "cmd=12&pass=1234&continue"), json_answer(body)) << accepted << sent << rejected;
        // An accepted password clears both queue flags.
        EXPECT_EQ(queue.pass_sent, sent && !accepted);
        EXPECT_EQ(queue.pass_rejected, rejected && !accepted);
    }
}
