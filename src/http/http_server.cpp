// The HTTP server loop: one loopback connection at a time, one request per connection.
#include "http/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <sstream>
#include <string>
#include <vector>

#include "core/debug.h"
#include "core/engine.h"
#include "core/shell.h"
#include "core/utils.h"
#include "http/http_parser.h"
#include "http/post_api.h"

int TimeoutSelectForAccept = 15;
int TimeoutSelectForRecv = 5;
char readBuffer[1400];

static const int first_port = 8080;
static const int last_port = 8099;
static const int listen_backlog = 64;
// The rest of a request body must arrive within this total time.
static const int body_wait_ms = 1000;

static std::atomic<int> bound_port{0};

int http_server_port() {
    return bound_port.load();
}

namespace {

// Owns one socket descriptor and closes it when it goes out of scope.
class SocketFd {
public:
    explicit SocketFd(int fd) : fd_(fd) {}
    ~SocketFd() { reset(); }
    SocketFd(const SocketFd&) = delete;
    SocketFd& operator=(const SocketFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    void reset() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

enum WaitResult { WAIT_READY, WAIT_TIMEOUT, WAIT_ERROR };

long long monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Waits until fd is readable or the deadline (monotonic microseconds) passes.
// A signal that interrupts the wait does not shorten or end it.
WaitResult wait_readable_until(int fd, long long deadline_us) {
    if (fd >= FD_SETSIZE) {
        errno = EBADF;
        return WAIT_ERROR;
    }
    for (;;) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        long long left = deadline_us - (static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000);
        if (left < 0) left = 0;
        timeval timeout{};
        timeout.tv_sec = static_cast<time_t>(left / 1000000);
        timeout.tv_usec = static_cast<suseconds_t>(left % 1000000);
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(fd, &readable);
        int n = select(fd + 1, &readable, nullptr, nullptr, &timeout);
        if (n > 0) return WAIT_READY;
        if (n == 0) return WAIT_TIMEOUT;
        if (errno != EINTR) return WAIT_ERROR;
    }
}

WaitResult wait_readable(int fd, long long timeout_us) {
    return wait_readable_until(fd, monotonic_ms() * 1000 + timeout_us);
}

void set_timeout_option(int fd, int option, int seconds) {
    timeval timeout{};
    timeout.tv_sec = seconds;
    setsockopt(fd, SOL_SOCKET, option, &timeout, sizeof(timeout));
}

// Tries the ports from 8080 upwards; returns the bound port or 0 when all are taken.
int bind_first_free_port(int fd) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int port = first_port;; ++port) {
        console_line("bind port " + std::to_string(port) + "...");
        address.sin_port = htons(static_cast<uint16_t>(port));
        if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0) return port;
        perror("bind");
        if (port == last_port) return 0;
    }
}

// Starts the user's browser on our port. The handle is kept, never read or
// closed: the browser outlives the engine, and closing would wait for it.
void launch_browser(int port) {
    static std::vector<ShellPipe> browsers;
    std::string command =
        format_to_str("su %s -c \"x-www-browser http://localhost:%d\"", user_name.c_str(), port);
    console_line(command);
    if (ShellPipe pipe = shell_start(command)) browsers.push_back(std::move(pipe));
}

// Reads what is left of a POST body: every segment that arrives within one
// second in total. Stops early once more than the missing count has arrived,
// as the size check then fails anyway and the bytes need not be kept.
std::string read_rest_of_body(int fd, int missing) {
    set_timeout_option(fd, SO_RCVTIMEO, 1);
    std::string body;
    long long deadline_us = (monotonic_ms() + body_wait_ms) * 1000;
    while (body.size() <= static_cast<size_t>(missing)) {
        if (wait_readable_until(fd, deadline_us) != WAIT_READY) break;
        ssize_t got = recv(fd, readBuffer, sizeof(readBuffer), 0);
        if (got <= 0) break;
        body.append(readBuffer, static_cast<size_t>(got));
    }
    return body;
}

void receive_rest_of_body(int fd, int missing, parsing_result& result) {
    std::string body = read_rest_of_body(fd, missing);
    if (body.size() + result.content.size() != static_cast<size_t>(result.content_length)) {
        console_stamped("Error size query body");
        return;
    }
    fill_content(result, body.data(), static_cast<int>(body.size()), 0);
    if (debug_mode && dm_h2) console_raw(time_stamp() + " <<<JSON_IN     " + body + "\n\n\n");
}

// Serves one accepted connection: read, parse, answer once, close, then run an
// accepted upload. Returns with the connection closed.
void serve_connection(SocketFd& connection) {
    int fd = connection.get();
    set_timeout_option(fd, SO_RCVTIMEO, TimeoutSelectForRecv);
    // A client that stops reading must not hold the single-threaded server for ever.
    set_timeout_option(fd, SO_SNDTIMEO, TimeoutSelectForAccept);
    if (wait_readable(fd, static_cast<long long>(TimeoutSelectForRecv) * 1000000) != WAIT_READY) return;
    ssize_t got = recv(fd, readBuffer, sizeof(readBuffer), 0);
    if (got < 0) return;

    std::stringstream answer;
    parsing_result result;
    int missing = parse(readBuffer, static_cast<int>(got), answer, result);
    if (missing > 0) receive_rest_of_body(fd, missing, result);

    std::string text = answer.str();
    ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (debug_mode && dm_h1) console_raw(time_stamp() + " >>>JSON_OUT    " + text + "\n\n\n");
    if (sent == -1) console_line("send failed");
    connection.reset();

    if (!result.query.empty()) parse_post_query(result);
}

// Accepts and serves connections until is_exit, a silent spell of
// TimeoutSelectForAccept seconds, or a socket failure.
void serve(int listen_fd) {
    while (!is_exit) {
        long long timeout_us = static_cast<long long>(TimeoutSelectForAccept) * 1000000 + 100;
        WaitResult waited = wait_readable(listen_fd, timeout_us);
        if (waited == WAIT_TIMEOUT) break;
        if (waited == WAIT_ERROR) {
            perror("select");
            break;
        }
        SocketFd connection(accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC));
        // A client that gave up while waiting in the backlog is no reason to stop.
        if (!connection.valid() && (errno == ECONNABORTED || errno == EINTR)) continue;
        if (!connection.valid()) {
            perror("accept");
            break;
        }
        serve_connection(connection);
    }
    is_exit = true;
}

}  // namespace

int http_server() {
    bound_port = 0;
    // Close-on-exec keeps the browser and other shell children from inheriting
    // the listening socket and holding the port after the engine has ended.
    SocketFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listener.valid()) {
        perror("socket");
        is_exit = true;
        return 1;
    }
    int port = bind_first_free_port(listener.get());
    if (port == 0) {
        is_exit = true;
        return 1;
    }
    launch_browser(port);
    if (listen(listener.get(), listen_backlog) != 0) {
        perror("listen");
        is_exit = true;
        return 1;
    }
    bound_port = port;
    serve(listener.get());
    listener.reset();
    bound_port = 0;
    console_line("close listen socket");
    return 0;
}
