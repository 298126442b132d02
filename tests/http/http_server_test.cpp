// Tests of the HTTP server loop over real loopback sockets, in-process and as the vorcore program.
#include "http/http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

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

namespace {

using Clock = std::chrono::steady_clock;

const std::string not_found = "HTTP/1.1 404 Not Found\r\nConnection: close\r\n\r\n";
const std::string forbidden = "HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n";

std::string json_answer(const std::string& body) {
    std::stringstream answer;
    set_response_json(answer, body);
    return answer.str();
}

double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Polls cond every 20 ms until it holds or the time is up.
bool wait_for(const std::function<bool()>& cond, double seconds) {
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    while (!cond()) {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::string read_text_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Drops the "hh:mm:ss.mmm " prefix of every line that has one.
std::string without_stamps(const std::string& text) {
    static const std::regex stamp(R"(^\d\d:\d\d:\d\d\.\d\d\d )");
    std::string out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (std::regex_search(line, stamp)) line = line.substr(13);
        out += line + "\n";
    }
    return out;
}

class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

// A temporary directory holding a fake "su" that records its arguments, so
// that the engine's browser launch never starts a real browser.
class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/vorcore_http_XXXXXX";
        path_ = mkdtemp(pattern);
        std::ofstream su(path_ + "/su");
        su << "#!/bin/sh\nprintf '%s\\n' \"$@\" >> \"" << path_ << "/su.log\"\n";
        su.close();
        chmod((path_ + "/su").c_str(), 0755);
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    const std::string& path() const { return path_; }
    std::string su_log() const { return read_text_file(path_ + "/su.log"); }

private:
    std::string path_;
};

// Sends one fd's output to a file for the lifetime of the object. Test failure
// messages written meanwhile are copied back when it ends.
class Redirect {
public:
    Redirect(int fd, const std::string& path) : fd_(fd), path_(path) {
        fflush(nullptr);
        saved_ = dup(fd_);
        int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(file, fd_);
        close(file);
    }
    ~Redirect() {
        fflush(nullptr);
        dup2(saved_, fd_);
        close(saved_);
        if (testing::Test::HasFailure()) {
            std::string captured = text();
            ssize_t ignored = write(fd_, captured.data(), captured.size());
            (void)ignored;
        }
    }
    std::string text() const { return read_text_file(path_); }

private:
    int fd_;
    std::string path_;
    int saved_;
};

bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

// The client ends each connection with a reset. The server closes first and
// binds without address reuse, so a normal close would leave its port in
// TIME_WAIT for a minute and push the next test run to the next port.
Fd connect_to(int port) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    linger reset{1, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    sockaddr_in address = loopback(port);
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) fd.reset();
    return fd;
}

// A socket bound (not listening) to the first bindable port from `from` on.
Fd bind_first_free(int from, int& port) {
    for (port = from; port <= 8099; ++port) {
        Fd fd(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address = loopback(port);
        if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return fd;
    }
    return Fd();
}

void send_text(const Fd& fd, const std::string& text) {
    ASSERT_EQ(send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

// Everything the server sends until it closes the connection (bounded).
std::string read_to_close(const Fd& fd, double seconds = 10) {
    std::string text;
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
        pollfd p{fd.get(), POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) <= 0) return text + "<timed out>";
        char buf[4096];
        ssize_t got = recv(fd.get(), buf, sizeof(buf), 0);
        if (got <= 0) return text;
        text.append(buf, static_cast<size_t>(got));
    }
}

std::string exchange(int port, const std::string& request) {
    Fd fd = connect_to(port);
    if (fd.get() < 0) return "<no connection>";
    send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL);
    return read_to_close(fd);
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

// The vorcore program in a temporary working directory, its console in files.
class EngineProcess {
public:
    explicit EngineProcess(const TempDir& dir) : dir_(dir) {
        std::string path = dir.path() + ":" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        unsetenv("SUDO_USER");
        std::string out = dir.path() + "/stdout.txt";
        std::string err = dir.path() + "/stderr.txt";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addchdir_np(&actions, dir.path().c_str());
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        char* argv[] = {const_cast<char*>(VORCORE_BINARY), nullptr};
        if (posix_spawn(&pid_, VORCORE_BINARY, &actions, nullptr, argv, environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        static const std::regex browser_line("x-www-browser http://localhost:(\\d+)");
        wait_for(
            [&] {
                std::smatch m;
                std::string out = console();
                if (!std::regex_search(out, m, browser_line)) return false;
                port_ = std::stoi(m[1]);
                return true;
            },
            5);
    }
    ~EngineProcess() {
        if (pid_ > 0 && !exited_) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    int port() const { return port_; }
    std::string console() const { return read_text_file(dir_.path() + "/stdout.txt"); }
    // Sanitizer builds of the program report their findings here.
    std::string errors() const { return read_text_file(dir_.path() + "/stderr.txt"); }
    bool sanitizer_reported() const {
        std::string text = errors();
        return text.find("Sanitizer") != std::string::npos || text.find("runtime error") != std::string::npos;
    }

    // Waits (bounded) for the program to end; true with its exit status when it did.
    bool wait_exit(double seconds, int& status) {
        if (pid_ <= 0) return false;
        bool ended = wait_for(
            [&] {
                int raw = 0;
                if (waitpid(pid_, &raw, WNOHANG) != pid_) return false;
                status_ = raw;
                exited_ = true;
                return true;
            },
            seconds);
        status = status_;
        return ended;
    }

    // The server listens right after printing the browser line.
    std::string request(const std::string& text) {
        std::string answer;
        wait_for(
            [&] {
                answer = exchange(port_, text);
                return answer != "<no connection>";
            },
            2);
        return answer;
    }

private:
    const TempDir& dir_;
    pid_t pid_ = -1;
    int port_ = 0;
    int status_ = 0;
    bool exited_ = false;
};

std::string local_get(int port, const std::string& target) {
    std::string host = "localhost:" + std::to_string(port);
    return "GET " + target + " HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" + host +
           "\r\nSec-Fetch-Site: same-origin\r\n\r\n";
}

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
    for (int port = 8080; port <= expected; ++port) bind_lines += "bind port " + std::to_string(port) + "...\n";
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
        "GARBAGE\r\n\r\n",
        "GET /\r\n\r\n",
        "PUT / HTTP/1.1\r\n\r\n",
        "DELETE /tuning/device?id=-1&exit HTTP/1.1\r\n\r\n",
        "get / HTTP/1.1\r\n\r\n",
        std::string("\0GET / HTTP/1.1\r\n\r\n", 19),
    };
    for (const std::string& request : cases) EXPECT_EQ(exchange(server.port(), request), not_found) << request;

    // A client that closes its side without a word is answered as an empty request.
    Fd silent = connect_to(server.port());
    shutdown(silent.get(), SHUT_WR);
    EXPECT_EQ(read_to_close(silent), not_found);

    EXPECT_EQ(exchange(server.port(), "POST /tuning/device?id=-1&cmd=5 HTTP/1.1\r\n\r\n"), json_answer(json_error));
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
    EXPECT_TRUE(std::regex_search(out.text(), std::regex(R"(\n\d\d:\d\d:\d\d\.\d\d\d Error size query body\n)")));
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
    EXPECT_NE(console.find("Request refused, foreign Origin: http://evil.example\n"), std::string::npos) << console;
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
    EXPECT_EQ(exchange(server.port(), local_get(server.port(), "/tuning/device?id=-1&cmd=13")), json_answer(json_ok));
    EXPECT_EQ(queue.size(), queued + 1);
    queue.clear();

    std::string host = "localhost:" + std::to_string(server.port());
    std::string post = "POST /tuning/device?id=-1&cmd=99 HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" + host +
                       "\r\nSec-Fetch-Site: same-origin\r\nContent-Length: 0\r\n\r\n";
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
    EXPECT_NE(console.find("su  -c \"x-www-browser http://localhost:" + std::to_string(engine.port()) + "\"\n"),
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
