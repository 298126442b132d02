// The HTTP server loop: loopback connections waited on together, their requests served one at a time.
#include "http/http_server.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "core/debug.h"
#include "core/engine.h"
#include "core/shell.h"
#include "core/unique_fd.h"
#include "core/utils.h"
#include "http/http_answer.h"
#include "http/http_parser.h"
#include "http/listen_socket.h"
#include "http/post_api.h"
#include "http/refused_clients.h"
#include "http/socket_owner.h"
#include "link/dev_port.h"

int TimeoutSelectForAccept = 15;
int TimeoutSelectForRecv = 5;
char readBuffer[16384];

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
// Answer bytes held for clients that have not taken them, all connections
// together; beyond, the connection holding the most is closed.
static const size_t max_unsent_bytes = 64 * 1024 * 1024;

static const char* const continue_answer = "HTTP/1.1 100 Continue\r\n\r\n";
static const char* const incomplete_body_description = "Тело запроса получено не полностью";

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

    size_t unsent() const { return answering && sent < answer.size() ? answer.size() - sent : 0; }

    UniqueFd socket;
    long long accepted_ms;
    long long deadline_ms;
    bool answering = false;  // the request was served; its answer is on its way
    std::string answer;
    size_t sent = 0;
};

using Connections = std::vector<std::unique_ptr<Connection>>;

// The loop's state: the listening sockets, who may connect, the connections.
struct Server {
    std::vector<int> listeners;  // 127.0.0.1, and [::1] where there is IPv6
    int port = 0;
    SocketOwner owners;  // not started: any local user may connect
    std::vector<uid_t> allowed;
    RefusalLog refusal_log;
    RefusedClients refused;
    Connections open;         // the clients served, oldest first
    long long idle_from = 0;  // last served connection, or last moment a firmware transfer ran
};

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
    if (!server.owners.start(server.listeners.front(), why))
        console_line("Owner check off (" + why + "): every local user may connect");
}

// False when the connection belongs to a local user that may not use the
// engine, or to no user the kernel can name; `owner` tells which.
bool owner_allowed(Server& server, const sockaddr_storage& peer, ClientOwner& owner) {
    if (!server.owners.started()) return true;
    sockaddr_storage own = loopback_address(peer.ss_family, server.port);
    owner.known = server.owners.owner(peer, own, owner.uid);
    if (!owner.known) return false;
    return std::find(server.allowed.begin(), server.allowed.end(), owner.uid) != server.allowed.end();
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

// Completes an accepted upload's body. False, after the console line, when
// the body is not the declared length (it was cut, or ran out of time): the
// upload is then dropped whole, never processed in part.
bool receive_rest_of_body(int fd, int missing, parsing_result& result) {
    std::string body;
    if (missing > 0) {
        // A client that asked first (curl does for large bodies) sends the body only when told to.
        if (result.expect_continue) send(fd, continue_answer, strlen(continue_answer), MSG_NOSIGNAL);
        body = read_rest_of_body(fd, missing);
    }
    if (body.size() + result.content.size() != static_cast<size_t>(result.content_length)) {
        console_stamped("Error size query body");
        result = parsing_result();
        return false;
    }
    if (body.empty()) return true;
    fill_content(result, body.data(), static_cast<int>(body.size()), 0);
    if (debug_mode && dm_h2) console_raw(time_stamp() + " <<<JSON_IN     " + body + "\n\n\n");
    return true;
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

// Closes a connection now; the loop forgets it at its next turn.
void close_connection(Connection& connection) {
    connection.socket.reset();
    std::string().swap(connection.answer);
    connection.sent = 0;
}

// A connection is done when its answer has gone out, or failed to.
void finish_write(Connection& connection, WriteResult result) {
    if (result == WRITE_MORE) return;
    if (result == WRITE_FAILED) console_line("send failed");
    close_connection(connection);
}

// The answer to the request just read: what the parser wrote, after the rest
// of a POST body if one is on its way; an error if that body did not come whole.
std::string answer_request(Connection& connection, int got, parsing_result& result) {
    AnswerStream answer;
    int missing = parse(readBuffer, got, answer, result);
    if (result.query.empty()) return answer.take();
    if (receive_rest_of_body(connection.socket.get(), missing, result)) return answer.take();
    std::string description;
    set_error_and_descr(description, incomplete_body_description);
    AnswerStream refusal;
    set_response_json(refusal, description);
    return refusal.take();
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

// Keeps the answers waiting for clients that do not read them within
// max_unsent_bytes together, closing the connections that hold the most.
void bound_unsent_answers(Connections& open) {
    size_t total = 0;
    for (const auto& connection : open) total += connection->unsent();
    while (total > max_unsent_bytes) {
        auto largest = std::max_element(
            open.begin(), open.end(), [](const auto& a, const auto& b) { return a->unsent() < b->unsent(); });
        total -= (*largest)->unsent();
        console_stamped("Answer dropped, unsent answers over the limit of " +
                        std::to_string(max_unsent_bytes) + " bytes");
        close_connection(**largest);
    }
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

// A connection of a user the engine does not serve: answered 403 at once and
// kept apart; its console line as the refusal log decides.
void refuse(Server& server, int fd, const ClientOwner& owner, long long now) {
    std::string line = server.refusal_log.note(owner, now);
    if (!line.empty()) console_stamped(line);
    server.refused.add(fd, now);
}

// Takes new connections from one listener, and serves at once each whose
// request is already there. False when accept failed for a reason that ends
// the server.
bool accept_connections(Server& server, int listener) {
    for (size_t taken = 0; taken < max_connections && !is_exit; ++taken) {
        if (server.open.size() >= max_connections && !has_silent(server.open)) return true;
        sockaddr_storage peer{};
        socklen_t peer_len = sizeof peer;
        int fd =
            accept4(listener, reinterpret_cast<sockaddr*>(&peer), &peer_len, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
            // A client that gave up while waiting in the backlog is no reason to stop.
            if (errno == ECONNABORTED || errno == EINTR || errno == EPROTO) continue;
            perror("accept");
            return false;
        }
        long long now = monotonic_ms();
        ClientOwner owner;
        if (!owner_allowed(server, peer, owner)) {
            refuse(server, fd, owner, now);
            continue;
        }
        if (server.open.size() >= max_connections) close_oldest_silent(server.open);
        server.idle_from = now;
        auto connection = std::make_unique<Connection>(fd, now);
        serve_request(*connection);
        server.open.push_back(std::move(connection));
        bound_unsent_answers(server.open);
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
    if (long long refused = server.refused.next_deadline(); refused != 0) until = std::min(until, refused);
    for (const auto& connection : server.open) until = std::min(until, connection->deadline_ms);
    long long wait = until - now;
    return static_cast<int>(std::clamp(wait, 0LL, 60000LL));
}

// Serves the connections that poll found ready, in the order they arrived.
void serve_ready(Server& server, const std::vector<pollfd>& waits, size_t first,
                 const std::vector<Connection*>& waited) {
    for (size_t i = 0; i < waited.size(); ++i) {
        Connection& connection = *waited[i];
        if (waits[first + i].revents == 0 || !connection.socket.valid()) continue;
        if (connection.answering) {
            finish_write(connection, write_some(connection));
        } else if (!is_exit) {
            serve_request(connection);
            bound_unsent_answers(server.open);
        }
    }
}

// Serves until is_exit (then finishes the answers on their way), a silent
// spell of TimeoutSelectForAccept seconds with no firmware transfer running,
// or a socket failure. Refused connections never keep the engine running.
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
        if (listening)
            for (int listener : server.listeners) waits.push_back({listener, POLLIN, 0});
        size_t first = waits.size();
        for (const auto& connection : server.open) {
            short events = connection->answering ? POLLOUT : POLLIN;
            waits.push_back({connection->socket.get(), events, 0});
            waited.push_back(connection.get());
        }
        server.refused.watch(waits);
        int ready = poll(waits.data(), waits.size(), next_wait_ms(server, now, stopping, grace));
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) {
            perror("poll");
            break;
        }
        // Requests in the order their connections arrived, then new connections.
        serve_ready(server, waits, first, waited);
        bool failed = false;
        for (size_t i = 0; listening && i < server.listeners.size() && !failed; ++i) {
            if ((waits[i].revents & POLLIN) && !is_exit) failed = !accept_connections(server, waits[i].fd);
        }
        server.refused.after_poll(waits, monotonic_ms());
        if (failed) break;
    }
    is_exit = true;
    server.open.clear();
    server.refused.clear();
}

}  // namespace

int http_server() {
    bound_port = 0;
    bool with_ipv6 = ipv6_loopback_available();
    if (!with_ipv6) console_line("No IPv6 loopback: the engine listens on 127.0.0.1 only");
    Listeners listeners;
    if (!open_listeners(listeners, with_ipv6)) {
        is_exit = true;
        return 1;
    }
    launch_browser(listeners.port);
    Server server;
    server.port = listeners.port;
    server.listeners.push_back(listeners.v4.get());
    if (listeners.v6.valid()) server.listeners.push_back(listeners.v6.get());
    start_owner_check(server);
    bound_port = listeners.port;
    serve(server);
    listeners = Listeners();
    bound_port = 0;
    console_line("close listen socket");
    return 0;
}
