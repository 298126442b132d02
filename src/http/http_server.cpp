// The HTTP server loop: loopback connections waited on together, their requests served one at a time.
#include "http/http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/debug.h"
#include "core/engine.h"
#include "core/shell.h"
#include "core/unique_fd.h"
#include "core/utils.h"
#include "http/http_answer.h"
#include "http/http_parser.h"
#include "http/post_api.h"
#include "http/socket_owner.h"
#include "link/dev_port.h"

int TimeoutSelectForAccept = 15;
int TimeoutSelectForRecv = 5;
char readBuffer[16384];

static const int first_port = 8080;
static const int last_port = 8099;
static const int listen_backlog = 256;
// Connections open at once; one more makes room by closing the oldest silent one.
static const size_t max_connections = 256;
// The rest of a request body must arrive within this total time.
static const long long body_wait_ms = 1000;
// A client has this long to take its whole answer.
static const long long answer_wait_ms = 5000;
// While a firmware transfer keeps the engine running, the loop looks at it this often.
static const long long transfer_check_ms = 250;
// A client sends its request right after connecting. While a connection
// accepted less than this long ago has not, new ones wait in the backlog: they
// are then taken in batches with their requests already there, instead of
// each costing the loop a wake-up of its own.
static const long long accept_grace_ms = 2;

static std::atomic<int> bound_port{0};

int http_server_port() {
    return bound_port.load();
}

namespace {

long long monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// One open connection: its socket, the answer still to be written, and the one
// deadline that applies now (first bytes of the request, then the answer).
struct Connection {
    Connection(int fd, long long now)
        : socket(fd), accepted_ms(now), deadline_ms(now + TimeoutSelectForRecv * 1000LL) {}

    UniqueFd socket;
    long long accepted_ms;
    long long deadline_ms;
    bool refused = false;    // its owner may not use the engine: answered 403
    bool answering = false;  // the request was served; its answer is on its way
    std::string answer;
    size_t sent = 0;
};

using Connections = std::vector<std::unique_ptr<Connection>>;

// The loop's state: the listening socket, who may connect, the open connections.
struct Server {
    int listener = -1;
    sockaddr_in address{};  // where the engine listens
    SocketOwner owners;     // not started: any local user may connect
    std::vector<uid_t> allowed;
    Connections open;         // oldest first
    long long idle_from = 0;  // last new connection, or last moment a firmware transfer ran
};

// Tries the ports from 8080 upwards; returns the bound port or 0 when all are taken.
// Address reuse lets a restart take its port back from connections still in
// TIME_WAIT; a port where another program listens still refuses the bind.
int bind_first_free_port(int fd) {
    int reuse = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
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

// Starts the user's browser on our port. Only root can start it as the
// invoking user, and only when that user is known: otherwise su would ask for
// a password on the engine's terminal. The handle is kept, never read or
// closed: the browser outlives the engine, and closing would wait for it.
void launch_browser(int port) {
    static std::vector<ShellPipe> browsers;
    std::string command =
        format_to_str("su %s -c \"x-www-browser http://localhost:%d\"", user_name.c_str(), port);
    console_line(command);
    if (geteuid() != 0 || user_name.empty()) return;
    if (ShellPipe pipe = shell_start(command)) browsers.push_back(std::move(pipe));
}

// Root, the engine's own user and the user who started it through sudo.
std::vector<uid_t> allowed_users() {
    std::vector<uid_t> users = {0, geteuid()};
    uid_t invoking = 0;
    if (sudo_uid(invoking)) users.push_back(invoking);
    return users;
}

void start_owner_check(Server& server) {
    server.allowed = allowed_users();
    std::string why;
    if (!server.owners.start(server.listener, why))
        console_line("Owner check off (" + why + "): every local user may connect");
}

// False, after one console line, when the connection belongs to a local user
// that may not use the engine, or to no user the kernel can name.
bool owner_allowed(Server& server, const sockaddr_in& peer) {
    if (!server.owners.started()) return true;
    uid_t uid = 0;
    if (!server.owners.owner(peer, server.address, uid)) {
        console_stamped("Request refused, owner of the connection unknown");
        return false;
    }
    for (uid_t allowed : server.allowed)
        if (uid == allowed) return true;
    console_stamped("Request refused, connection of local user " + std::to_string(uid));
    return false;
}

// Reads what is left of a POST body: every segment that arrives within one
// second in total, but never more than one byte beyond the declared length
// (that byte is enough to tell the body is too long).
std::string read_rest_of_body(int fd, int missing) {
    std::string body;
    long long deadline = monotonic_ms() + body_wait_ms;
    while (body.size() <= static_cast<size_t>(missing)) {
        long long left = deadline - monotonic_ms();
        if (left <= 0) break;
        pollfd waiting{fd, POLLIN, 0};
        int ready = poll(&waiting, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        size_t wanted = static_cast<size_t>(missing) + 1 - body.size();
        if (wanted > sizeof readBuffer) wanted = sizeof readBuffer;
        ssize_t got = recv(fd, readBuffer, wanted, 0);
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
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

enum WriteResult { WRITE_DONE, WRITE_MORE, WRITE_FAILED };

// Sends what the client takes now of the rest of the answer.
WriteResult write_some(Connection& connection) {
    while (connection.sent < connection.answer.size()) {
        ssize_t sent = send(connection.socket.get(), connection.answer.data() + connection.sent,
                            connection.answer.size() - connection.sent, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return WRITE_MORE;
        if (sent < 0) return WRITE_FAILED;
        connection.sent += static_cast<size_t>(sent);
    }
    return WRITE_DONE;
}

// A connection is done when its answer has gone out, or failed to.
void finish_write(Connection& connection, WriteResult result) {
    if (result == WRITE_MORE) return;
    if (result == WRITE_FAILED) console_line("send failed");
    connection.socket.reset();
}

// The answer to the request just read: 403 for a refused owner, else what the
// parser wrote (after the rest of a POST body, if one is on its way).
std::string answer_request(Connection& connection, int got, parsing_result& result) {
    if (connection.refused) return answer_forbidden;
    std::stringstream answer;
    int missing = parse(readBuffer, got, answer, result);
    if (missing > 0) receive_rest_of_body(connection.socket.get(), missing, result);
    return answer.str();
}

// Serves the connection whose first bytes have arrived: one read, the answer
// queued (and written as far as the client takes it at once), then an
// accepted upload processed before any other request is served.
void serve_request(Connection& connection) {
    ssize_t got = recv(connection.socket.get(), readBuffer, sizeof readBuffer, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got < 0) {
        connection.socket.reset();
        return;
    }
    parsing_result result;
    connection.answer = answer_request(connection, static_cast<int>(got), result);
    connection.answering = true;
    connection.deadline_ms = monotonic_ms() + answer_wait_ms;
    WriteResult written = write_some(connection);
    if (debug_mode && dm_h1) console_raw(time_stamp() + " >>>JSON_OUT    " + connection.answer + "\n\n\n");
    finish_write(connection, written);

    if (!result.query.empty()) parse_post_query(result);
}

bool has_silent(const Connections& open) {
    for (const auto& connection : open)
        if (!connection->answering) return true;
    return false;
}

// Closes the oldest connection that has sent nothing yet; false when there is none.
bool close_oldest_silent(Connections& open) {
    for (auto it = open.begin(); it != open.end(); ++it) {
        if ((*it)->answering) continue;
        open.erase(it);
        return true;
    }
    return false;
}

// Takes new connections from the backlog, and serves at once each whose
// request is already there. False when accept failed for a reason that ends
// the server.
bool accept_connections(Server& server) {
    for (size_t taken = 0; taken < max_connections && !is_exit; ++taken) {
        if (server.open.size() >= max_connections && !has_silent(server.open)) return true;
        sockaddr_in peer{};
        socklen_t peer_len = sizeof peer;
        int fd = accept4(server.listener, reinterpret_cast<sockaddr*>(&peer), &peer_len,
                         SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
            // A client that gave up while waiting in the backlog is no reason to stop.
            if (errno == ECONNABORTED || errno == EINTR || errno == EPROTO) continue;
            perror("accept");
            return false;
        }
        if (server.open.size() >= max_connections) close_oldest_silent(server.open);
        long long now = monotonic_ms();
        server.idle_from = now;
        auto connection = std::make_unique<Connection>(fd, now);
        connection->refused = !owner_allowed(server, peer);
        serve_request(*connection);
        server.open.push_back(std::move(connection));
    }
    return true;
}

// Firmware blocks still queued for a connected panel keep the engine running.
bool transfer_running() {
    return is_open() && !bbqueue.is_empty();
}

// True when the client's first bytes are waiting to be read.
bool has_bytes(const Connection& connection) {
    char byte;
    return recv(connection.socket.get(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

// Drops connections that are closed or past their deadline; an answer the
// client did not take in time counts as a failed send. A request that arrived
// in time but waited behind a long one is still served.
void drop_finished(Connections& open, long long now) {
    std::erase_if(open, [now](const std::unique_ptr<Connection>& connection) {
        if (!connection->socket.valid()) return true;
        if (now < connection->deadline_ms) return false;
        if (connection->answering) {
            console_line("send failed");
            return true;
        }
        return !has_bytes(*connection);
    });
}

// When the youngest connection that has not sent its request stops being
// young (see accept_grace_ms); 0 when there is none.
long long grace_end(const Connections& open, long long now) {
    long long end = 0;
    for (const auto& connection : open) {
        if (connection->answering || !connection->socket.valid()) continue;
        end = std::max(end, connection->accepted_ms + accept_grace_ms);
    }
    return end > now ? end : 0;
}

// Milliseconds until the next thing the loop must do without being woken:
// a deadline, the end of an accept grace, a look at a firmware transfer, or
// the idle exit.
int next_wait_ms(const Server& server, long long now, bool stopping, long long grace) {
    long long until = now + answer_wait_ms;  // lowered below by the connections' deadlines
    if (!stopping && server.open.empty()) until = server.idle_from + TimeoutSelectForAccept * 1000LL + 1;
    if (!stopping && transfer_running()) until = std::min(until, now + transfer_check_ms);
    if (!stopping && grace != 0) until = std::min(until, grace);
    for (const auto& connection : server.open) until = std::min(until, connection->deadline_ms);
    long long wait = until - now;
    return static_cast<int>(std::clamp(wait, 0LL, 60000LL));
}

// Serves until is_exit (then finishes the answers on their way), a silent
// spell of TimeoutSelectForAccept seconds with no firmware transfer running,
// or a socket failure.
void serve(Server& server) {
    std::vector<pollfd> waits;
    std::vector<Connection*> waited;
    server.idle_from = monotonic_ms();
    for (;;) {
        long long now = monotonic_ms();
        drop_finished(server.open, now);
        bool stopping = is_exit;
        if (stopping) {
            std::erase_if(server.open, [](const std::unique_ptr<Connection>& c) { return !c->answering; });
            if (server.open.empty()) break;
        } else if (transfer_running()) {
            server.idle_from = now;
        } else if (server.open.empty() && now > server.idle_from + TimeoutSelectForAccept * 1000LL) {
            break;
        }

        waits.clear();
        waited.clear();
        long long grace = grace_end(server.open, now);
        bool listening =
            !stopping && grace == 0 && (server.open.size() < max_connections || has_silent(server.open));
        if (listening) waits.push_back({server.listener, POLLIN, 0});
        for (const auto& connection : server.open) {
            short events = connection->answering ? POLLOUT : POLLIN;
            waits.push_back({connection->socket.get(), events, 0});
            waited.push_back(connection.get());
        }
        int ready = poll(waits.data(), waits.size(), next_wait_ms(server, now, stopping, grace));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) {
            perror("poll");
            break;
        }
        if (ready == 0) continue;

        // Requests in the order their connections arrived, then new connections.
        size_t first = listening ? 1 : 0;
        for (size_t i = 0; i < waited.size(); ++i) {
            Connection& connection = *waited[i];
            if (waits[first + i].revents == 0 || !connection.socket.valid()) continue;
            if (connection.answering)
                finish_write(connection, write_some(connection));
            else if (!is_exit)
                serve_request(connection);
        }
        if (listening && (waits[0].revents & POLLIN) && !is_exit && !accept_connections(server)) break;
    }
    is_exit = true;
    server.open.clear();
}

}  // namespace

int http_server() {
    bound_port = 0;
    // Close-on-exec keeps the browser and other shell children from inheriting
    // the listening socket and holding the port after the engine has ended.
    UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
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
    Server server;
    server.listener = listener.get();
    server.address.sin_family = AF_INET;
    server.address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    server.address.sin_port = htons(static_cast<uint16_t>(port));
    start_owner_check(server);
    bound_port = port;
    serve(server);
    listener.reset();
    bound_port = 0;
    console_line("close listen socket");
    return 0;
}
