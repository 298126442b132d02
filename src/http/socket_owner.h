// Which local user owns the client end of a loopback TCP connection, asked of
// the kernel's socket diagnostics (one exact lookup per connection, no table scan).
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstdint>
#include <string>

class SocketOwner {
public:
    SocketOwner() = default;
    ~SocketOwner();
    SocketOwner(const SocketOwner&) = delete;
    SocketOwner& operator=(const SocketOwner&) = delete;

    // Opens the diagnostics socket and asks it about the listening socket
    // `listener`, which must come back as itself. False, with the reason in
    // `why`, when this kernel cannot tell who owns a socket.
    bool start(int listener, std::string& why);
    bool started() const { return fd_ >= 0; }

    // The user owning the socket at `client` that is connected to `server`
    // (both IPv4 or both IPv6). False when the kernel does not know it, or
    // knows it only as a closed connection (TIME_WAIT entries carry inode 0
    // and no real owner).
    bool owner(const sockaddr_storage& client, const sockaddr_storage& server, uid_t& uid);

private:
    // The owner and inode of the TCP socket whose local end is `local` and
    // remote end `remote`.
    bool lookup(const sockaddr_storage& local, const sockaddr_storage& remote, uid_t& uid, uint32_t& inode);

    int fd_ = -1;
    uint32_t sequence_ = 0;
};
