// Test harness for the engine as a whole: loopback HTTP exchanges, a scratch
// directory with a fake "su", and the vorcore program as a child process.
#pragma once

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

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

namespace harness {

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Polls cond every 20 ms until it holds or the time is up.
inline bool wait_for(const std::function<bool()>& cond, double seconds) {
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    while (!cond()) {
        if (Clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

inline std::string read_text_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Drops the "hh:mm:ss.mmm " prefix of every line that has one.
inline std::string without_stamps(const std::string& text) {
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

inline bool ends_with(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

inline sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

// The client ends each connection with a reset. The server closes first and
// binds without address reuse, so a normal close would leave its port in
// TIME_WAIT for a minute and push the next test run to the next port.
inline Fd connect_to(int port) {
    Fd fd(socket(AF_INET, SOCK_STREAM, 0));
    linger reset{1, 0};
    setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    sockaddr_in address = loopback(port);
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) fd.reset();
    return fd;
}

// A socket bound (not listening) to the first bindable port from `from` on.
inline Fd bind_first_free(int from, int& port) {
    for (port = from; port <= 8099; ++port) {
        Fd fd(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address = loopback(port);
        if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return fd;
    }
    return Fd();
}

inline void send_text(const Fd& fd, const std::string& text) {
    ASSERT_EQ(send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

// Everything the server sends until it closes the connection (bounded).
inline std::string read_to_close(const Fd& fd, double seconds = 10) {
    std::string text;
    auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
        pollfd p{fd.get(), POLLIN, 0};
        if (left <= 0 || poll(&p, 1, left) <= 0) return text + "<timed out>";
        char buf[4096];
        ssize_t got = recv(fd.get(), buf, sizeof(buf), 0);
        if (got <= 0) return text;
        text.append(buf, static_cast<size_t>(got));
    }
}

inline std::string exchange(int port, const std::string& request) {
    Fd fd = connect_to(port);
    if (fd.get() < 0) return "<no connection>";
    send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL);
    return read_to_close(fd);
}

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

inline std::string local_get(int port, const std::string& target) {
    std::string host = "localhost:" + std::to_string(port);
    return "GET " + target + " HTTP/1.1\r\nHost: " + host + "\r\nOrigin: http://" + host +
           "\r\nSec-Fetch-Site: same-origin\r\n\r\n";
}

}  // namespace harness
