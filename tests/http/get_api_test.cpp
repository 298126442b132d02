// GET API: static files, JSON queries and the device command set, answered byte for byte.
#include "http/get_api.h"

#include <gtest/gtest.h>
#include <pty.h>

#include "core/mutex_lock.h"
#include "http/api_test_support.h"
#include "link/dev_port.h"

namespace {

const std::string api = "/tuning/device?id=-1&";
using Strings = std::vector<std::string>;

std::string get(std::string target, std::string* console = nullptr) {
    std::stringstream answer;
    testing::internal::CaptureStdout();
    parse_get_query(target, answer);
    std::string printed = testing::internal::GetCapturedStdout();
    if (console) *console = printed;
    return answer.str();
}

std::string cmd(const std::string& rest) {
    return api + "cmd=" + rest;
}

class GetApi : public testing::Test {
protected:
    void SetUp() override {
        drain_queue();
        parser.set_status(3);
    }
    void TearDown() override {
        drain_queue();
        send_re = false;
        is_exit = false;
    }
    ScopedWorkDir dir;
};
using StaticFiles = GetApi;

TEST_F(StaticFiles, EachTypeIsServedWholeWithItsHeaders) {
    const std::string png("\x89PNG\r\n\0\x7f", 8), ico("\0\0\1\0", 4);
    const Strings files = {
        "index.html", "scenario/index.html", "css/m.css", "app.js", "d.json", "i/l.png", "f.ico", "s.svg",
        "a..b.js",    "app.js?v=2"};
    const Strings bodies = {"<main>", "<scenario>", "b{}", "var a;", "{}", png, ico, "<svg/>", "dots", "v2"};
    for (size_t i = 0; i < files.size(); ++i) write_test_file("js/" + files[i], bodies[i]);

    const std::string html = "Content-Type: text/html; charset=UTF-8\r\n",
                      binary = "\r\nContent-Transfer-Encoding: binary;";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"/", expected_answer(html, "<main>")},
        {"/index.html", expected_answer(html, "<main>")},
        {"/scenario/index.html", expected_answer(html, "<scenario>")},
        {"/css/m.css", expected_answer("Content-Type: text/css; charset=UTF-8\r\n", "b{}")},
        {"/app.js", json_answer("var a;")},
        {"/d.json", json_answer("{}")},
        {"/i/l.png", expected_answer("Content-Type: image/png" + binary, png)},
        {"/f.ico", expected_answer("Content-Type: image/x-icon" + binary, ico)},
        {"/s.svg", expected_answer("Content-Type: image/svg+xml" + binary, "<svg/>")},
        {"/a..b.js", json_answer("dots")},
        {"/app.js?v=2", json_answer("v2")},
    };
    for (const auto& [target, answer] : cases) EXPECT_EQ(get(target), answer) << target;
    // A missing file leaves the answer empty, without a console line.
    for (const std::string target : {"/nope.css", "/nope.js", "/nope.png", "/nope.ico", "/nope.svg"}) {
        std::string console;
        EXPECT_EQ(get(target, &console) + console, "") << target;
    }
    std::filesystem::remove_all("js");
    EXPECT_EQ(get("/") + get("/scenario/index.html"), "");
}

TEST_F(StaticFiles, TraversalIsRefusedLikeAnUnknownQuery) {
    write_test_file("secret.js", "outside");
    write_test_file("jsx.js", "outside");
    write_test_file("js/css/x.css", "inside");
    for (const std::string target : {"/../secret.js", "/css/../../secret.js", "/css/%2e%2e/%2E%2E/secret.js",
                                     "/%2E./secret.js", "/.%2e/secret.js", "/x.js?a=/../../secret.js", "x.js",
                                     "/css%2f..%2f..%2fsecret.js", "/css\\..\\..\\secret.js"}) {
        std::string console;
        EXPECT_EQ(get(target, &console), not_found_answer) << target;
        expect_stamped_lines(console, {"GET UNKNOWN QUERY: " + target});
    }
    EXPECT_EQ(get("/css/x.css"), expected_answer("Content-Type: text/css; charset=UTF-8\r\n", "inside"));
}

TEST_F(GetApi, UnknownQueriesAre404WithAConsoleLine) {
    for (const std::string& target : Strings{"/index.html?x=1", api + "getlog&record=5", api + "nothing"}) {
        std::string console;
        EXPECT_EQ(get(target, &console), not_found_answer) << target;
        expect_stamped_lines(console, {"GET UNKNOWN QUERY: " + target});
    }
}

TEST_F(GetApi, VersionExitAndProducerQueries) {
    EXPECT_EQ(get(api + "version=1.0.0"), json_answer("{ \"result\":{\"version\":\"5.2.22\"} }"));
    EXPECT_EQ(get(api + "exit"), json_answer(ok_body));
    EXPECT_TRUE(is_exit);

    {
        MutexLock lock(http_mutex);
        parser.cfg["zn001"] = {"zn1", "5"};
    }
    std::string whole, masked, page, mask = "abc";
    parser.cfg_to_json(whole);
    parser.mask_to_json(mask, masked);
    parser.dev_log_to_json(page, 5, 20);
    EXPECT_EQ(get(api + "configstate="), json_answer(whole));
    EXPECT_EQ(get(api + "configstate=x=abc"), json_answer(masked));  // the text after the last "="
    EXPECT_EQ(get(api + "getlog&record=5&count=20"), json_answer(page));
    parser.clear();

    parser.set_ready_text(&StatusDevice::rmsg, "2");
    get(api + "getmessage");
    EXPECT_EQ(parser.get_ready_text(&StatusDevice::rmsg), "0");
}

TEST_F(GetApi, CommandsQueueTheirExactFrames) {
    const std::string text(600, 'x');
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"13", "~0009FUL-2\x7f"},
        {"14", "~0009FUL-1\x7f"},
        {"21", "~0007FRE\x7f"},
        {"22", "~0007FFR\x7f"},
        {"23&pass=123456", "~0018FPS-123456\r\nec\x7f"},
        {"23&pass=000000&pass=abcdef", "~0018FPS-abcdef\r\nec\x7f"},
        {"41&speed=3", "~0009FEP-3\x7f"},
        {"41&speed=57", "~0009FEP-5\x7f"},
        {"42", "~0007FAD\x7f"},
        {"43&ext=5", "~0008FEF5\x7f"},
        {"43&ext=12", "~0009FEF12\x7f"},
        {"43&ext=", "~0007FER\x7f"},
        {"44&ext=7", "~0008FEA7\x7f"},
        {"44&ext=31", "~0009FEA31\x7f"},
        {"44&ext=", "~0007FER\x7f"},
        {"45&radio=4", "~0012FXXPG4-1\x7f"},
        {"45&radio=16", "~0013FXXPG16-1\x7f"},
        {"46", "~0012FXXPG1-0\x7f"},
        {"51&ok=4", "~0010FKK4-1\x7f"},
        {"51&ok=1&ok=9", "~0010FKK9-1\x7f"},
        {"52&ok=4", "~0010FKK4-0\x7f"},
        {"61&zona=2", "~0010FSS1-2\x7f"},
        {"62&zona=8", "~0010FSS2-8\x7f"},
        {"63&part=3", "~0009FKT-3\x7f"},
        {"81", "~0007FPL\x7f"},
        {"82", "~0007FLS\x7f"},
        {"83", "~0007FDL\x7f"},
        {"91", "~0007FMH\x7f"},
        {"100&text=SF", "~0007FSF\x7f"},
        {"100&text=", "~0005F\x7f"},
        {"100&text=a b&x=1", "~0012Fa b&x=1\x7f"},
        {"100&text=" + text, "~0605F" + text + "\x7f"},
    };
    for (const auto& [query, frame] : cases) {
        EXPECT_EQ(get(cmd(query)), json_answer(ok_body)) << query;
        EXPECT_EQ(drain_queue(), Strings{frame}) << query;
    }
}

TEST_F(GetApi, BadParametersAndUnknownCommandsAreErrorsWithoutFrames) {
    for (const std::string query : {"23&pass=12345",
                                    "23&pass=1234567",
                                    "23",
                                    "41&speed=",
                                    "41",
                                    "43&ext=123",
                                    "43",
                                    "45&radio=",
                                    "45&radio=123",
                                    "51&ok=12",
                                    "51&ok=",
                                    "62&zona=10",
                                    "63&part=12",
                                    "63",
                                    "100",
                                    "99",
                                    "2",
                                    "4",
                                    "71",
                                    "31",
                                    "32",
                                    "1",
                                    "5",
                                    "12"}) {
        EXPECT_EQ(get(cmd(query)), json_answer(error_body)) << query;
        EXPECT_TRUE(drain_queue().empty()) << query;
    }
    EXPECT_EQ(get(cmd("72")) + get(cmd("74")), json_answer(ok_body) + json_answer(ok_body));
    EXPECT_TRUE(drain_queue().empty());
}

TEST_F(GetApi, CommandsMoveStatusFlagsAndReadyTexts) {
    get(cmd("21"));
    EXPECT_TRUE(send_re.exchange(false));
    get(cmd("22"));
    EXPECT_TRUE(send_re);
    get(cmd("81"));
    EXPECT_EQ(parser.get_status(), 6);
    EXPECT_EQ(parser.get_ready_text(&StatusDevice::rlog), "1");
    get(cmd("82"));
    EXPECT_EQ(parser.get_status(), 3);
    EXPECT_EQ(parser.get_ready_text(&StatusDevice::rlog), "0");
    get(cmd("91"));
    EXPECT_EQ(parser.get_status(), 7);
    EXPECT_EQ(parser.get_ready_text(&StatusDevice::rmsg), "1");
}

TEST_F(GetApi, DownloadsCarryAHeaderSafeFileName) {
    auto download = [](const std::string& name, const std::string& body) {
        return expected_answer(
            "Content-Type: text/plain; charset=UTF-8\r\nContent-disposition: attachment; filename=" + name +
                "\r\nContent-transfer-encoding: text\r\n",
            body);
    };
    std::string logs, events;
    parser.dev_log_to_file(logs);
    parser.dev_events_to_file(events);
    EXPECT_EQ(get(cmd("84")), download("logs.txt", logs));
    EXPECT_EQ(get(cmd("92")), download("events.txt", events));
    EXPECT_EQ(get(cmd("84&file=a\"b\r\nc;d/e.txt")), download("abcde.txt", logs));
    EXPECT_EQ(get(cmd("92&file=\r\n")), download("events.txt", events));
}

TEST_F(GetApi, FileCommandsReportWhatTheyCannotReadOrWrite) {
    write_test_file("devs/MD19.ini", "Vorlane-x\r\nfe\r\n");
    write_test_file("secret.ini", "Vorlane-x\r\n");
    EXPECT_EQ(get(cmd("1&devtype=MD19")), json_answer(ok_body));
    for (const std::string model : {"MD99", "../secret"}) {
        std::string console;
        EXPECT_EQ(get(cmd("1&devtype=" + model), &console), json_answer(error_body)) << model;
        expect_stamped_lines(console, {"cmd 1: no read file devs/" + model + ".ini"});
    }

    std::filesystem::create_directories("my drive");
    std::string cfg_text, console;
    parser.cfg_to_file(cfg_text);
    EXPECT_EQ(get(cmd("5&drive=" + dir.path() + "/my%20drive")), json_answer(ok_body));
    EXPECT_EQ(std::filesystem::file_size("my drive/clock.txt"), 0u);
    EXPECT_EQ(std::filesystem::file_size("my drive/CONFIG.INI"), cfg_text.size());
    const std::string gone = dir.path() + "/gone";
    EXPECT_EQ(get(cmd("5&drive=" + gone), &console), json_answer(error_body));
    expect_stamped_lines(
        console, {"error write file " + gone + "/clock.txt", "error write file " + gone + "/CONFIG.INI"});
}

TEST_F(GetApi, PasswordCommandAnswersFromTheFlags) {
    // No cipher is loaded in this program: the password block cannot be built.
    parser.pass_accepted = false;
    EXPECT_EQ(get(cmd("12&pass=1234")), json_answer(error_body));
    EXPECT_TRUE(drain_queue().empty());
    struct Case {
        bool accepted, sent, rejected;
        std::string body;
    };
    for (const Case& c : {Case{true, true, true, ok_body}, Case{false, true, false, continue_body},
                          Case{false, true, true, error_body}, Case{false, false, false, error_body}}) {
        parser.pass_accepted = c.accepted;
        queue.pass_sent = c.sent;
        queue.pass_rejected = c.rejected;
        EXPECT_EQ(get(cmd("12&pass=1234&continue")), json_answer(c.body))
            << c.accepted << c.sent << c.rejected;
        EXPECT_EQ(queue.pass_sent, c.sent && !c.accepted);  // an accepted password clears both flags
        EXPECT_EQ(queue.pass_rejected, c.rejected && !c.accepted);
    }
    parser.pass_accepted = queue.pass_sent = queue.pass_rejected = false;

    parser.set_status(11);
    std::string console;
    EXPECT_EQ(get(cmd("12&pass=secret"), &console), json_answer(error_body));
    expect_stamped_lines(console, {"cmd 12: the CRY-file cannot be decrypted: no cipher table loaded"});
    EXPECT_EQ(parser.get_status(), 11);
}

// Each open_dev waits two seconds for stty.
TEST_F(GetApi, ConnectAndDisconnect) {
    EXPECT_EQ(get(cmd("11")), json_answer(ok_body));
    EXPECT_EQ(get(cmd("11&com=")), json_answer(""));
    EXPECT_EQ(get(cmd("11&com=/dev/vorcore-no-port")),
              json_answer("{\"result\":\"error\",\"description\":\"Ошибка подключения к порту\"}"));
    EXPECT_TRUE(drain_queue().empty());

    int master = -1, slave = -1;
    char name[256] = {};
    ASSERT_EQ(openpty(&master, &slave, name, nullptr, nullptr), 0);
    parser.pass_accepted = true;
    EXPECT_EQ(get(cmd(std::string("11&com=") + name)), json_answer(ok_body));
    EXPECT_FALSE(parser.pass_accepted);
    EXPECT_EQ(drain_queue(), Strings{"~0007FSF\x7f"});
    EXPECT_EQ(get(cmd("32")), json_answer(ok_body));
    EXPECT_EQ(parser.get_status(), 4);
    EXPECT_EQ(drain_queue(), Strings{"~0010FCF-11\x7f"});
    EXPECT_EQ(get(cmd("31")), json_answer(ok_body));
    EXPECT_EQ(parser.get_status(), 5);
    EXPECT_EQ(get(cmd("11")), json_answer(ok_body));
    EXPECT_FALSE(is_open());
    close(slave);
    close(master);
}

}  // namespace
