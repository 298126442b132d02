// Test harness shared by every test program: bounded waits, scratch directories,
// console text, loopback HTTP exchanges, answers written out by hand, settings as
// the browser's JSON shows them, and the vorcore program as a child process.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "crypto/CryptoKey.h"
#include "text/txt_to_utf8.h"

namespace harness {

using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

inline double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Builds under AddressSanitizer or ThreadSanitizer use several times the memory
// and time of a plain build: bounds on those are checked in the plain build only.
inline bool sanitized_build() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return true;
#else
    return false;
#endif
}

// Polls cond every 20 ms until it holds or the time is up.
template <class Condition>
bool wait_for(Condition cond, double seconds) {
    for (auto start = Clock::now(); !cond(); usleep(20000))
        if (seconds_since(start) > seconds) return false;
    return true;
}

inline std::string read_text_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A golden file under tests/data.
inline std::string golden(const std::string& name) {
    return read_text_file(std::string(VORCORE_SOURCE_DIR) + "/tests/data/" + name);
}

// Console text with every line's "hh:mm:ss.mmm " stamp shown as "@ ", so that
// whole output can be compared while still telling stamped lines apart.
inline std::string stamps_marked(const std::string& text) {
    return std::regex_replace(text, std::regex(R"((^|\n)\d\d:\d\d:\d\d\.\d\d\d )"), "$1@ ");
}

// What `action` printed on stdout, stamps marked.
template <typename Action>
std::string printed_by(Action action) {
    testing::internal::CaptureStdout();
    action();
    return stamps_marked(testing::internal::GetCapturedStdout());
}

// Runs `command` through the shell; its exit code (-1 unless it exited) and stdout.
inline std::pair<int, std::string> run_program(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return {-1, output};
    char chunk[4096];
    for (size_t got; (got = fread(chunk, 1, sizeof chunk, pipe)) > 0;) output.append(chunk, got);
    int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// A frame body as the reader stores it and the panel receives it: four length
// digits, type, payload.
inline std::string packet(char type, const std::string& payload) {
    std::string length = std::to_string(payload.size() + 5);
    return std::string(4 - length.size(), '0') + length + type + payload;
}

// Owns a descriptor; movable, not copyable. Closing -1 is a harmless no-op.
struct Fd {
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    ~Fd() { reset(); }
    int get() const { return fd_; }
    void reset() { close(std::exchange(fd_, -1)); }
    int fd_;
};

// A pseudo-terminal pair of this process; the slave side is raw unless `cooked`.
struct Pty {
    explicit Pty(bool cooked = false) {
        char name[256] = {};
        if (openpty(&master.fd_, &slave.fd_, name, nullptr, nullptr) != 0) return;
        path = name;
        termios mode{};
        tcgetattr(slave.get(), &mode);
        if (!cooked) cfmakeraw(&mode);
        tcsetattr(slave.get(), TCSANOW, &mode);
    }
    Fd master, slave;
    std::string path;
};

// A temporary directory holding a fake "su" that records its arguments, so
// that the engine's browser launch never starts a real browser.
struct TempDir {
    TempDir() {
        char pattern[] = "/tmp/vorcore_test_XXXXXX";
        path_ = mkdtemp(pattern);
        std::ofstream(path_ + "/su") << "#!/bin/sh\nprintf '%s\\n' \"$@\" >> \"" << path_ << "/su.log\"\n";
        chmod((path_ + "/su").c_str(), 0755);
    }
    ~TempDir() {
        std::error_code ignored;  // a scratch directory left behind fails no test
        std::filesystem::remove_all(path_, ignored);
    }
    const std::string& path() const { return path_; }
    std::string su_log() const { return read_text_file(path_ + "/su.log"); }
    std::string path_;
};

// Sends one fd's output to a file for the lifetime of the object.
struct Redirect {
    Redirect(int fd, const std::string& path) : fd_(fd), path_(path), saved_(dup(fd)) {
        fflush(nullptr);
        dup2(Fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644)).get(), fd_);
    }
    // A failure's message went into the file with the rest; it is shown where the run's output goes.
    ~Redirect() {
        fflush(nullptr);
        dup2(saved_.get(), fd_);
        if (fd_ == 1 && ::testing::Test::HasFailure()) {
            std::string captured = text();
            (void)!write(fd_, captured.data(), captured.size());
        }
    }
    std::string text() const { return read_text_file(path_); }
    int fd_;
    std::string path_;
    Fd saved_;
};

// Answers as the engine writes them.
inline std::string answer_200(const std::string& headers, const std::string& body) {
    return "HTTP/1.1 200 OK\r\nConnection: close\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}
inline std::string json_answer(const std::string& body) {
    return answer_200(
        "Access-Control-Allow-Origin: *\r\nContent-Type: application/javascript; charset=utf-8\r\n", body);
}
inline const std::string ok_body = R"({"result":"ok","description":""})";
inline const std::string error_body = R"({"result":"error","description":""})";
inline const std::string continue_body = R"({"result":"continue","description":""})";
// An upload whose body did not arrive whole is answered so and never processed.
inline const std::string cut_body_answer =
    json_answer(R"({"result":"error","description":"Тело запроса получено не полностью"})");
inline const std::string not_found_answer = "HTTP/1.1 404 Not Found\r\nConnection: close\r\n\r\n";
inline const std::string forbidden_answer = "HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n";

inline sockaddr_in loopback(int port) {
    return {.sin_family = AF_INET, .sin_port = htons(port), .sin_addr{htonl(INADDR_LOOPBACK)}, .sin_zero{}};
}

// The client ends each connection with a reset, so that the many connections
// of a test run leave no TIME_WAIT entries behind on the server's port.
inline Fd connect_to(int port) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    linger reset{1, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    // Bounds connect (and send) when a server stops taking connections.
    timeval limit{5, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    sockaddr_in address = loopback(port);
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) fd.reset();
    return fd;
}

// A socket bound (not listening) to the first port from `from` on that the
// engine could bind: like the engine's, it reuses ports held only by TIME_WAIT.
inline Fd bind_first_free(int from, int& port) {
    for (port = from; port <= 8099; ++port) {
        Fd fd(socket(AF_INET, SOCK_STREAM, 0));
        int reuse = 1;
        setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
        sockaddr_in address = loopback(port);
        if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return fd;
    }
    return Fd();
}

inline void send_text(const Fd& fd, const std::string& text) {
    ASSERT_EQ(send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

// Everything the server sends until it closes the connection; "<timed out>" is
// appended when it stays silent for `seconds`.
inline std::string read_to_close(const Fd& fd, double seconds = 10) {
    timeval limit{static_cast<time_t>(seconds), static_cast<suseconds_t>(seconds * 1e6) % 1000000};
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    std::string text;
    char buf[4096];
    ssize_t got;
    while ((got = recv(fd.get(), buf, sizeof(buf), 0)) > 0) text.append(buf, static_cast<size_t>(got));
    return got < 0 && errno == EAGAIN ? text + "<timed out>" : text;
}

inline std::string exchange(int port, const std::string& request) {
    Fd fd = connect_to(port);
    if (fd.get() < 0) return "<no connection>";
    send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL);
    return read_to_close(fd);
}

inline std::string local_get(int port, const std::string& target) {
    std::string host = "localhost:" + std::to_string(port);
    return "GET " + target + " HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" + host +
           "\r\nSec-Fetch-Site: same-origin\r\n\r\n";
}

inline std::string local_post(int port, const std::string& target, const std::string& body) {
    std::string head = local_get(port, target);
    head.replace(0, 3, "POST");
    head.insert(head.size() - 2, "Content-Length: " + std::to_string(body.size()) + "\r\n");
    return head + body;
}

// The body of an HTTP answer (the answer itself when it has no head).
inline std::string body_of(const std::string& answer) {
    size_t at = answer.find("\r\n\r\n");
    return at == std::string::npos ? answer : answer.substr(at + 4);
}

// An upload body as the browser sends a file: each byte as the UTF-8 form of its code point.
inline std::string browser_encoded(const std::string& bytes) {
    std::string out;
    for (unsigned char b : bytes)
        out += b < 0x80
                   ? std::string(1, static_cast<char>(b))
                   : std::string{static_cast<char>(0xC0 | (b >> 6)), static_cast<char>(0x80 | (b & 0x3F))};
    return out;
}

// UTF-8 text in Windows-1251, as the panel keeps it.
inline std::string cp1251(const std::string& utf8) {
    std::unique_ptr<char, decltype(&free)> text(utf8_to_cp1251(utf8.c_str()), &free);
    return text ? text.get() : "";
}

// A ".cry" payload: `plain` and its CRC16 (low byte first) enciphered under the
// password repeated to the 32 key bytes (the cipher table must be loaded).
inline std::string cry_payload(const std::string& plain, const std::string& password) {
    std::vector<uint8_t> buf(plain.begin(), plain.end());
    uint16_t crc = CryptoKey::CRC16(buf.data(), static_cast<int>(buf.size()));
    buf.insert(buf.end(), {static_cast<uint8_t>(crc & 0xFF), static_cast<uint8_t>(crc >> 8)});
    size_t n = buf.size();
    buf.resize(n + 9);  // room for up to 8 padding bytes and the trailer
    uint8_t key[32];
    for (size_t i = 0; i < sizeof key; ++i) key[i] = static_cast<uint8_t>(password[i % password.size()]);
    buf.resize(static_cast<size_t>(EncryptGOST(buf.data(), static_cast<int>(n), key)));
    return std::string(buf.begin(), buf.end());
}

// One element of the configuration list, its subvalues given as JSON text.
inline std::string element(const std::string& key, const Strings& values) {
    std::string out = R"({"key":")" + key + R"(","subvalues":[)";
    for (size_t i = 0; i < values.size(); ++i)
        out += std::string(i ? "," : "") + R"({"value":")" + values[i] + R"(","index":)" +
               std::to_string(i + 1) + "}";
    return out + "]}";
}

// The answer to the configuration query holding these elements.
inline std::string config_list(const Strings& elements) {
    std::string out = R"({"result":{"config":[ )";
    for (size_t i = 0; i < elements.size(); ++i) out += (i ? "," : "") + elements[i];
    return out + "]}}";
}

// The vorcore program in the directory, without sudo and with the fake su first
// in PATH; its standard output and error go to files there. `launcher` runs
// the program (as "env SUDO_UID=1000", or "setpriv --reuid=..." for another user).
class EngineProcess {
public:
    explicit EngineProcess(const TempDir& dir, const std::string& launcher = "") : dir_(dir) {
        std::string command = "unset SUDO_USER SUDO_UID; cd '" + dir.path() +
                              "' && PATH=\"$PWD:$PATH\" exec " + launcher + " " + VORCORE_BINARY +
                              " >stdout.txt 2>stderr.txt";
        const char* argv[] = {"sh", "-c", command.c_str(), nullptr};
        if (posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
            pid_ = -1;
        static const std::regex browser_line("x-www-browser http://localhost:(\\d+)");
        std::smatch found;
        std::string out;
        if (wait_for([&] { return std::regex_search(out = console(), found, browser_line); }, 5))
            port_ = std::stoi(found[1]);
    }
    ~EngineProcess() {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
    }

    int port() const { return port_; }
    // Resident memory of the program in KiB, from /proc; 0 when unknown.
    long rss_kib() const {
        std::smatch found;
        std::string status = read_text_file("/proc/" + std::to_string(pid_) + "/status");
        return std::regex_search(status, found, std::regex(R"(VmRSS:\s*(\d+))")) ? std::stol(found[1]) : 0;
    }
    std::string console() const { return read_text_file(dir_.path() + "/stdout.txt"); }
    // Console lines printed since `from` (a length of the console), stamps marked.
    std::string printed_since(size_t from) const { return stamps_marked(console().substr(from)); }
    // Waits (bounded) for the line to appear on the console.
    bool printed(const std::string& line, double seconds = 5, size_t from = 0) const {
        return wait_for([&] { return console().find(line, from) != std::string::npos; }, seconds);
    }
    // Sanitizer builds of the program report their findings here.
    std::string errors() const { return read_text_file(dir_.path() + "/stderr.txt"); }

    // Waits (bounded) for the program to end; true when it did, with its exit status
    // (reported to the first call that sees the end).
    bool wait_exit(double seconds, int& status) {
        if (pid_ > 0 && wait_for([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, seconds)) pid_ = 0;
        return pid_ == 0;
    }
    // The program ends within `seconds` with status 0 and no sanitizer report.
    void expect_clean_end(double seconds = 5) {
        int status = -1;
        ASSERT_TRUE(wait_exit(seconds, status)) << console();
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_FALSE(std::regex_search(errors(), std::regex("Sanitizer|runtime error"))) << errors();
    }

    // The server listens right after printing the browser line.
    std::string request(const std::string& text) {
        std::string answer;
        wait_for([&] { return (answer = exchange(port_, text)) != "<no connection>"; }, 2);
        return answer;
    }
    // The whole answer to an API query from the engine's own page.
    std::string get(const std::string& query) {
        return request(local_get(port_, "/tuning/device?id=-1&" + query));
    }
    // The exit query is answered, then the program ends cleanly.
    void exit_cleanly() {
        EXPECT_EQ(get("exit"), json_answer(ok_body));
        expect_clean_end();
    }

private:
    const TempDir& dir_;
    pid_t pid_ = -1;  // 0 once the program has been waited for
    int port_ = 0;
};

}  // namespace harness
