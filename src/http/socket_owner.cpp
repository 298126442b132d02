// Which local user owns the client end of a loopback TCP connection, asked of the kernel's socket
// diagnostics.
#include "http/socket_owner.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

// The kernel answers an exact lookup while the request is being sent; this
// only bounds the wait should it ever not.
constexpr int reply_wait_ms = 100;

struct DiagRequest {
    nlmsghdr header;
    inet_diag_req_v2 body;
};

// Writes the port and address of an IPv4 or IPv6 end into a socket id.
void put_end(const sockaddr_storage& end, __be16& port, __be32 (&address)[4]) {
    if (end.ss_family == AF_INET6) {
        const auto& six = reinterpret_cast<const sockaddr_in6&>(end);
        port = six.sin6_port;
        std::memcpy(address, &six.sin6_addr, sizeof six.sin6_addr);
        return;
    }
    const auto& four = reinterpret_cast<const sockaddr_in&>(end);
    port = four.sin_port;
    address[0] = four.sin_addr.s_addr;
}

}  // namespace

SocketOwner::~SocketOwner() {
    if (fd_ >= 0) close(fd_);
}

bool SocketOwner::start(int listener, std::string& why) {
    fd_ = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_SOCK_DIAG);
    if (fd_ < 0) {
        why = std::string("socket diagnostics: ") + strerror(errno);
        return false;
    }
    sockaddr_storage own{};
    socklen_t own_len = sizeof own;
    struct stat about {};
    sockaddr_storage anywhere{};
    uid_t uid = 0;
    uint32_t inode = 0;
    // A listening socket has no remote end: the lookup finds it from its local one.
    bool known = getsockname(listener, reinterpret_cast<sockaddr*>(&own), &own_len) == 0 &&
                 fstat(listener, &about) == 0 && lookup(own, anywhere, uid, inode);
    if (!known || inode == 0 || inode != about.st_ino) {
        why = known ? "socket diagnostics gave a wrong answer" : "socket diagnostics do not answer";
        close(fd_);
        fd_ = -1;
        return false;
    }
    return true;
}

bool SocketOwner::owner(const sockaddr_storage& client, const sockaddr_storage& server, uid_t& uid) {
    uint32_t inode = 0;
    return started() && lookup(client, server, uid, inode) && inode != 0;
}

bool SocketOwner::lookup(const sockaddr_storage& local, const sockaddr_storage& remote, uid_t& uid,
                         uint32_t& inode) {
    DiagRequest request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST;  // one socket, not a dump
    request.header.nlmsg_seq = ++sequence_;
    request.body.sdiag_family = static_cast<uint8_t>(local.ss_family);
    request.body.sdiag_protocol = IPPROTO_TCP;
    request.body.idiag_states = ~0u;
    put_end(local, request.body.id.idiag_sport, request.body.id.idiag_src);
    put_end(remote, request.body.id.idiag_dport, request.body.id.idiag_dst);
    request.body.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (sendto(fd_, &request, sizeof request, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) !=
        static_cast<ssize_t>(sizeof request))
        return false;

    alignas(nlmsghdr) char reply[4096];
    for (;;) {
        ssize_t got = recv(fd_, reply, sizeof reply, 0);
        if (got < 0) {
            if (errno == EINTR) continue;
            pollfd waiting{fd_, POLLIN, 0};
            if (errno != EAGAIN || poll(&waiting, 1, reply_wait_ms) <= 0) return false;
            continue;
        }
        const auto* header = reinterpret_cast<const nlmsghdr*>(reply);
        if (!NLMSG_OK(header, static_cast<size_t>(got))) return false;
        if (header->nlmsg_seq != sequence_) continue;  // a late answer to an earlier question
        // NLMSG_ERROR: no such socket.
        if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY) return false;
        if (header->nlmsg_len < NLMSG_LENGTH(sizeof(inet_diag_msg))) return false;
        const auto* found = static_cast<const inet_diag_msg*>(NLMSG_DATA(header));
        uid = found->idiag_uid;
        inode = found->idiag_inode;
        return true;
    }
}
