// Connections of local users the engine does not serve: answered 403 at once, drained, then closed.
#include "http/refused_clients.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "http/http_answer.h"

static const long long print_window_ms = 10000;
static const long long drain_ms = 1000;
static const size_t max_refused = 64;
// What one wake-up reads of a refused client at most, so a sender that never
// stops cannot keep the loop here.
static const size_t drain_per_turn = 65536;
// Bounds the log's memory: entries of quiet users are forgotten past this.
static const size_t max_log_entries = 1024;
static const uint64_t unknown_owner = UINT64_C(1) << 32;

std::string RefusalLog::note(const ClientOwner& owner, long long now_ms) {
    uint64_t key = owner.known ? owner.uid : unknown_owner;
    if (entries_.size() >= max_log_entries && entries_.find(key) == entries_.end()) {
        std::erase_if(entries_, [now_ms](const auto& item) {
            return item.second.held_back == 0 && now_ms - item.second.printed_ms >= print_window_ms;
        });
    }
    auto [at, added] = entries_.try_emplace(key);
    Entry& entry = at->second;
    if (!added && now_ms - entry.printed_ms < print_window_ms) {
        ++entry.held_back;
        return {};
    }
    std::string line = owner.known ? "Request refused, connection of local user " + std::to_string(owner.uid)
                                   : std::string("Request refused, owner of the connection unknown");
    if (entry.held_back > 0) line += " (" + std::to_string(entry.held_back) + " more refused before this)";
    entry.printed_ms = now_ms;
    entry.held_back = 0;
    return line;
}

void RefusedClients::add(int fd, long long now_ms) {
    UniqueFd socket(fd);
    send(fd, answer_forbidden, strlen(answer_forbidden), MSG_NOSIGNAL | MSG_DONTWAIT);
    shutdown(fd, SHUT_WR);
    if (open_.size() >= max_refused) open_.pop_front();
    open_.push_back({std::move(socket), now_ms + drain_ms});
}

void RefusedClients::watch(std::vector<pollfd>& waits) {
    first_wait_ = waits.size();
    watched_ = open_.size();
    for (const Refused& refused : open_) waits.push_back({refused.socket.get(), POLLIN, 0});
}

// Reads and drops what the client sent; false when it closed or failed.
static bool drain(int fd) {
    char scratch[4096];
    for (size_t read_total = 0; read_total < drain_per_turn;) {
        ssize_t got = recv(fd, scratch, sizeof scratch, MSG_DONTWAIT);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
        if (got == 0) return false;
        read_total += static_cast<size_t>(got);
    }
    return true;
}

void RefusedClients::after_poll(const std::vector<pollfd>& waits, long long now_ms) {
    // Connections added since the waits were built come after the watched
    // ones, and the oldest may have been closed to make room for them: match
    // the waits by descriptor.
    for (size_t i = 0; i < watched_ && first_wait_ + i < waits.size(); ++i) {
        const pollfd& wait = waits[first_wait_ + i];
        if (wait.revents == 0) continue;
        for (Refused& refused : open_) {
            if (refused.socket.get() != wait.fd) continue;
            if (!drain(wait.fd)) refused.socket.reset();
            break;
        }
    }
    watched_ = 0;
    std::erase_if(open_, [now_ms](const Refused& refused) {
        return !refused.socket.valid() || now_ms >= refused.deadline_ms;
    });
}

long long RefusedClients::next_deadline() const {
    return open_.empty() ? 0 : open_.front().deadline_ms;
}
