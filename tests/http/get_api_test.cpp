// GET API: static files, JSON queries and the device command set, answered byte for byte.
#include "http/get_api.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "core/engine.h"
#include "http/http_answer.h"
#include "http/http_parser.h"
#include "support/engine_harness.h"

// Every test of this program runs in one scratch working directory; static files live under its "js".
static const struct InScratch : harness::TempDir {
    InScratch() { std::filesystem::current_path(path()); }
} scratch;

using namespace harness;
static const std::string api = "/tuning/device?id=-1&";

// The answer to `target` followed by what it printed, stamps marked.
static std::string get(std::string target) {
    AnswerStream answer;
    std::string console = printed_by([&] { parse_get_query(target, answer); });
    return answer.str() + console;
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

// Files are kept in memory between requests, yet an edit shows on the very
// next one: new bytes of the same size with the old modification time put
// back, a new size, another file renamed into place, a removal.
TEST(StaticFiles, EditsShowOnTheNextRequest) {
    const std::string head =
        "Access-Control-Allow-Origin: *\r\nContent-Type: application/javascript; charset=utf-8\r\n";
    std::filesystem::create_directories("js");
    const char* const names[] = {"same_size", "longer", "renamed", "removed"};
    for (const std::string name : names) std::ofstream("js/" + name + ".js") << "first";
    usleep(1100000);  // a file changed within the last second is never kept
    for (const std::string name : names) ASSERT_EQ(get("/" + name + ".js"), answer_200(head, "first"));

    struct stat old {};
    stat("js/same_size.js", &old);
    std::ofstream("js/same_size.js") << "fresh";
    const timespec times[] = {old.st_atim, old.st_mtim};
    utimensat(AT_FDCWD, "js/same_size.js", times, 0);
    std::ofstream("js/longer.js") << "longer";
    std::ofstream("js/other") << "other";
    utimensat(AT_FDCWD, "js/other", times, 0);
    std::filesystem::rename("js/other", "js/renamed.js");
    std::filesystem::remove("js/removed.js");
    const std::pair<std::string, std::string> now[] = {
        {"same_size", answer_200(head, "fresh")},
        {"longer", answer_200(head, "longer")},
        {"renamed", answer_200(head, "other")},
        {"removed", ""},
    };
    for (const auto& [name, answer] : now) EXPECT_EQ(get("/" + name + ".js"), answer) << name;
    std::filesystem::remove_all("js");
}
