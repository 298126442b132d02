// Connections of local users the engine does not serve: answered 403 at once, drained, then closed.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "core/unique_fd.h"

// Who owns a connection, as far as the kernel could tell.
struct ClientOwner {
    bool known = false;
    uid_t uid = 0;
};

// Decides which refusals reach the console, so that a flood of connections
// cannot flood it: per user (an unknown owner counts as one user) the first
// refusal in 10 s is printed, the later ones in that window only counted, and
// the next line printed for that user says how many were held back.
class RefusalLog {
public:
    // The console line for refusing `owner` at `now_ms`; empty when held back.
    std::string note(const ClientOwner& owner, long long now_ms);

private:
    struct Entry {
        long long printed_ms = 0;
        unsigned long held_back = 0;
    };
    std::map<uint64_t, Entry> entries_;
};

// Refused connections, kept apart from the clients the engine serves: they
// never take or free a slot of theirs and never count as activity. Each is
// answered 403 and shut down for writing at once; what it sends is read and
// dropped (never parsed) until it closes or 1 s has passed, so that the client
// reads the 403 rather than a reset. At most 64 are kept; beyond, the oldest
// is closed.
class RefusedClients {
public:
    void add(int fd, long long now_ms);
    // Appends a wait for each kept connection to `waits`, remembering where.
    void watch(std::vector<pollfd>& waits);
    // Reads what the connections watched in `waits` sent, closing those that
    // closed or are past their time.
    void after_poll(const std::vector<pollfd>& waits, long long now_ms);
    // When the oldest kept connection must be closed; 0 when none is kept.
    long long next_deadline() const;
    size_t size() const { return open_.size(); }
    void clear() { open_.clear(); }

private:
    struct Refused {
        UniqueFd socket;
        long long deadline_ms;
    };
    std::deque<Refused> open_;  // oldest first
    size_t first_wait_ = 0;     // index of the first of ours in the last `waits`
    size_t watched_ = 0;        // how many of ours were watched
};
