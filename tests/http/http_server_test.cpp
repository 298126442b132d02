// Tests of the HTTP server loop over real loopback sockets, in-process and as the vorcore program.
#include "http/http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "core/debug.h"
#include "core/engine.h"
#include "http/http_parser.h"
#include "support/engine_harness.h"

namespace {

using namespace harness;

const std::string not_found = "HTTP/1.1 404 Not Found\r\nConnection: close\r\n\r\n";
const std::string forbidden = "HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n";

std::string json_answer(const std::string& body) {
    std::stringstream answer;
    set_response_json(answer, body);
    return answer.str();
}

// Runs http_server in a thread of the test process with the fake su first in PATH.
class InProcessServer {
public:
    explicit InProcessServer(const TempDir& dir) {
        std::string path = dir.path() + ":" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        is_exit = false;
        thread_ = std::thread([this] {
            result_ = http_server();
            done_ = true;
        });
        wait_for([] { return http_server_port() != 0; }, 5);
        port_ = http_server_port();
    }
    ~InProcessServer() { stop(); }

    int port() const { return port_; }
    bool done() const { return done_; }
    int result() const { return result_; }

    // Ends the loop: it checks is_exit after every connection it serves.
    void stop() {
        if (!thread_.joinable()) return;
        is_exit = true;
        if (!done_ && port_ != 0) exchange(port_, "X\r\n\r\n");
        thread_.join();
    }

private:
    std::thread thread_;
    std::atomic<bool> done_{false};
    std::atomic<int> result_{-1};
    int port_ = 0;
};

}  // namespace

TEST(HttpServer, PortInUseFallsBackToTheNextAndOpensTheBrowserThere) {
    TempDir dir;
    // On a quiet machine: occupy 8080 and expect 8081.
    int taken = 0;
    Fd blocker = bind_first_free(8080, taken);
    ASSERT_GE(blocker.get(), 0);
    ASSERT_EQ(listen(blocker.get(), 1), 0);
    int expected = 0;
    bind_first_free(taken + 1, expected);
    ASSERT_LE(expected, 8099);
    std::string bind_lines;
    std::string bind_errors;
    for (int port = 8080; port <= expected; ++port)
        bind_lines += "bind port " + std::to_string(port) + "...\n";
    for (int port = 8080; port < expected; ++port) bind_errors += "bind: Address already in use\n";
    std::string browser = "x-www-browser http://localhost:" + std::to_string(expected);

    user_name = "tester";
    Redirect out(1, dir.path() + "/stdout.txt");
    Redirect err(2, dir.path() + "/stderr.txt");
    {
        InProcessServer server(dir);
        ASSERT_EQ(server.port(), expected);
        EXPECT_EQ(exchange(expected, "X\r\n\r\n"), not_found);
        ASSERT_TRUE(wait_for([&] { return !dir.su_log().empty(); }, 5));
        EXPECT_EQ(dir.su_log(), "tester\n-c\n" + browser + "\n");
        server.stop();
        EXPECT_EQ(server.result(), 0);
    }
    user_name.clear();
    EXPECT_EQ(out.text(), bind_lines + "su tester -c \"" + browser + "\"\n" + "close listen socket\n");
    EXPECT_EQ(err.text(), bind_errors);
    EXPECT_EQ(http_server_port(), 0);
}

TEST(HttpServer, MalformedRequestsAndUnknownMethodsAnswer404) {
    TempDir dir;
    Redirect out(1, dir.path() + "/stdout.txt");
    InProcessServer server(dir);
    ASSERT_NE(server.port(), 0);
    const std::string cases[] = {
        "GARBAGE\r\n\r\n",        "GET /\r\n\r\n",
        "PUT / HTTP/1.1\r\n\r\n", "DELETE /tuning/device?id=-1&exit HTTP/1.1\r\n\r\n",
        "get / HTTP/1.1\r\n\r\n", std::string("\0GET / HTTP/1.1\r\n\r\n", 19),
    };
    for (const std::string& request : cases)
        EXPECT_EQ(exchange(server.port(), request), not_found) << request;

    // A client that closes its side without a word is answered as an empty request.
    Fd silent = connect_to(server.port());
    shutdown(silent.get(), SHUT_WR);
    EXPECT_EQ(read_to_close(silent), not_found);

    EXPECT_EQ(exchange(server.port(), "POST /tuning/device?id=-1&cmd=5 HTTP/1.1\r\n\r\n"),
              json_answer(json_error));
    EXPECT_FALSE(server.done());
}

TEST(HttpServer, SilentClientIsDroppedAfterFiveSecondsThenTheNextIsServed) {
    TempDir dir;
    Redirect out(1, dir.path() + "/stdout.txt");
    InProcessServer server(dir);
    ASSERT_NE(server.port(), 0);
    auto start = Clock::now();
    Fd silent = connect_to(server.port());
    Fd next = connect_to(server.port());
    send_text(next, "X\r\n\r\n");  // waits in the backlog

    EXPECT_EQ(read_to_close(silent, 8), "");
    double dropped_after = seconds_since(start);
    EXPECT_GT(dropped_after, 4.8);
    EXPECT_LT(dropped_after, 6.5);
    EXPECT_EQ(read_to_close(next, 1), not_found);
    EXPECT_FALSE(server.done());
}

TEST(HttpServer, BodyArrivingInSegmentsWithinOneSecondIsJoined) {
    TempDir dir;
    debug_mode = true;
    dm_h2 = true;
    Redirect out(1, dir.path() + "/stdout.txt");
    InProcessServer server(dir);
    ASSERT_NE(server.port(), 0);

    Fd client = connect_to(server.port());
    send_text(client, "POST /upload HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    send_text(client, "456");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    send_text(client, "789");
    EXPECT_EQ(read_to_close(client, 5), json_answer(json_ok));
    server.stop();
    debug_mode = false;
    dm_h2 = false;

    std::string console = without_stamps(out.text());
    EXPECT_EQ(console.find("Error size query body"), std::string::npos) << console;
    EXPECT_NE(console.find(" <<<JSON_IN     456789\n\n\n"), std::string::npos) << console;
}

TEST(HttpServer, BodyArrivingLateIsReportedAndTheAnswerStillSent) {
    TempDir dir;
    Redirect out(1, dir.path() + "/stdout.txt");
    InProcessServer server(dir);
    ASSERT_NE(server.port(), 0);

    Fd client = connect_to(server.port());
    auto start = Clock::now();
    send_text(client, "POST /upload HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123");
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    send(client.get(), "456789", 6, MSG_NOSIGNAL);  // the server may have closed already
    EXPECT_EQ(read_to_close(client, 5), json_answer(json_ok));
    EXPECT_LT(seconds_since(start), 3);
    server.stop();

    EXPECT_NE(without_stamps(out.text()).find("\nError size query body\n"), std::string::npos) << out.text();
    EXPECT_TRUE(
        std::regex_search(out.text(), std::regex(R"(\n\d\d:\d\d:\d\d\.\d\d\d Error size query body\n)")));
}

TEST(HttpServer, CrossSiteRequestsAreRefusedAndChangeNothing) {
    TempDir dir;
    Redirect out(1, dir.path() + "/stdout.txt");
    InProcessServer server(dir);
    ASSERT_NE(server.port(), 0);
    size_t queued = queue.size();
    const std::string cases[] = {
        "GET /tuning/device?id=-1&cmd=13 HTTP/1.1\r\nHost: evil.example\r\n\r\n",
        "GET /tuning/device?id=-1&cmd=13 HTTP/1.1\r\nHost: localhost:8080\r\nOrigin: null\r\n\r\n",
        "GET /tuning/device?id=-1&exit HTTP/1.1\r\nHost: 127.0.0.1\r\nSec-Fetch-Site: cross-site\r\n\r\n",
        "GET /tuning/device?id=-1&exit HTTP/1.1\r\nHost: evil.example:8080\r\n\r\n",
        "POST /refused-upload HTTP/1.1\r\nOrigin: http://evil.example\r\nContent-Length: 3\r\n\r\nabc",
    };
    for (const std::string& request : cases) {
        EXPECT_EQ(exchange(server.port(), request), forbidden) << request;
        EXPECT_EQ(queue.size(), queued) << request;
        EXPECT_FALSE(is_exit) << request;
    }
    EXPECT_EQ(exchange(server.port(), "X\r\n\r\n"), not_found);  // still serving
    server.stop();

    std::string console = without_stamps(out.text());
    EXPECT_NE(console.find("Request refused, foreign Host: evil.example\n"), std::string::npos) << console;
    EXPECT_NE(console.find("Request refused, foreign Origin: null\n"), std::string::npos) << console;
    EXPECT_NE(console.find("Request refused, Sec-Fetch-Site: cross-site\n"), std::string::npos) << console;
    EXPECT_NE(console.find("Request refused, foreign Origin: http://evil.example\n"), std::string::npos)
        << console;
    EXPECT_EQ(console.find("refused-upload"), std::string::npos) << console;  // never reached the POST API
}

TEST(HttpServer, TheConsolesOwnSameOriginRequestsAreServed) {
    TempDir dir;
    Redirect out(1, dir.path() + "/stdout.txt");
    InProcessServer server(dir);
    ASSERT_NE(server.port(), 0);
    size_t queued = queue.size();

    std::string version = "{ \"result\":{\"version\":\"5.2.22\"} }";
    EXPECT_EQ(exchange(server.port(), local_get(server.port(), "/tuning/device?id=-1&version=1")),
              json_answer(version));
    EXPECT_EQ(exchange(server.port(), local_get(server.port(), "/tuning/device?id=-1&cmd=13")),
              json_answer(json_ok));
    EXPECT_EQ(queue.size(), queued + 1);
    queue.clear();

    std::string host = "localhost:" + std::to_string(server.port());
    std::string post = "POST /tuning/device?id=-1&cmd=99 HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" +
                       host + "\r\nSec-Fetch-Site: same-origin\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(exchange(server.port(), post), json_answer(json_error));
}

TEST(Engine, ExitQueryIsAnsweredAndEndsTheEngine) {
    TempDir dir;
    EngineProcess engine(dir);
    ASSERT_NE(engine.port(), 0) << engine.console();

    // A refused exit leaves the engine running.
    EXPECT_EQ(engine.request("GET /tuning/device?id=-1&exit HTTP/1.1\r\nOrigin: null\r\n\r\n"), forbidden);
    EXPECT_EQ(engine.request("X\r\n\r\n"), not_found);

    EXPECT_EQ(engine.request(local_get(engine.port(), "/tuning/device?id=-1&exit")), json_answer(json_ok));
    int status = -1;
    ASSERT_TRUE(engine.wait_exit(3, status)) << engine.console();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    std::string console = engine.console();
    EXPECT_NE(
        console.find("su  -c \"x-www-browser http://localhost:" + std::to_string(engine.port()) + "\"\n"),
        std::string::npos)
        << console;
    EXPECT_TRUE(ends_with(console, "close listen socket\n")) << console;
    EXPECT_FALSE(engine.sanitizer_reported()) << engine.errors();
    // Without sudo the user name is empty and the shell drops it from su's arguments.
    ASSERT_TRUE(wait_for([&] { return !dir.su_log().empty(); }, 2));
    EXPECT_EQ(dir.su_log(), "-c\nx-www-browser http://localhost:" + std::to_string(engine.port()) + "\n");
}

TEST(Engine, EndsItselfFifteenSecondsAfterTheLastConnection) {
    TempDir dir;
    EngineProcess engine(dir);
    ASSERT_NE(engine.port(), 0) << engine.console();
    EXPECT_EQ(engine.request("X\r\n\r\n"), not_found);
    auto last = Clock::now();

    int status = -1;
    ASSERT_TRUE(engine.wait_exit(19, status)) << engine.console();
    double quiet = seconds_since(last);
    EXPECT_GT(quiet, 14.5);
    EXPECT_LT(quiet, 17.5);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    std::string console = engine.console();
    EXPECT_TRUE(ends_with(console, "close listen socket\n")) << console;
    EXPECT_FALSE(engine.sanitizer_reported()) << engine.errors();
}
