// Listening sockets: the first port from 8080 that is free on both loopback addresses.
#include "http/listen_socket.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "core/debug.h"

static const int first_port = 8080;
static const int last_port = 8099;
static const int listen_backlog = 256;

sockaddr_storage loopback_address(int family, int port) {
    sockaddr_storage address{};
    if (family == AF_INET6) {
        auto& six = reinterpret_cast<sockaddr_in6&>(address);
        six.sin6_family = AF_INET6;
        six.sin6_addr = in6addr_loopback;
        six.sin6_port = htons(static_cast<uint16_t>(port));
    } else {
        auto& four = reinterpret_cast<sockaddr_in&>(address);
        four.sin_family = AF_INET;
        four.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        four.sin_port = htons(static_cast<uint16_t>(port));
    }
    return address;
}

static socklen_t address_size(int family) {
    return family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

bool ipv6_loopback_available() {
    UniqueFd probe(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!probe.valid()) return errno != EAFNOSUPPORT;
    sockaddr_storage address = loopback_address(AF_INET6, 0);
    if (bind(probe.get(), reinterpret_cast<sockaddr*>(&address), address_size(AF_INET6)) == 0) return true;
    return errno != EADDRNOTAVAIL && errno != EAFNOSUPPORT;
}

// A socket of `family` for the listener. Address reuse lets a restart take
// its port back from connections still in TIME_WAIT; a port where another
// program listens still refuses the bind. The IPv6 socket takes IPv6 only.
static UniqueFd new_listener(int family) {
    // Close-on-exec keeps the browser and other shell children from inheriting
    // the listening socket and holding the port after the engine has ended.
    UniqueFd fd(socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) return fd;
    int on = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (family == AF_INET6) setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    return fd;
}

enum class Take { taken, busy, failed };

// Binds and listens at once, so that no second engine can bind the same port
// between the two and fail later at listen.
static Take bind_and_listen(const UniqueFd& fd, int family, int port) {
    sockaddr_storage address = loopback_address(family, port);
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), address_size(family)) != 0) {
        perror("bind");
        return Take::busy;
    }
    if (listen(fd.get(), listen_backlog) != 0) {
        perror("listen");
        return Take::busy;
    }
    return Take::taken;
}

static Take take_port(Listeners& out, int port, bool with_ipv6) {
    UniqueFd v4 = new_listener(AF_INET);
    UniqueFd v6 = with_ipv6 ? new_listener(AF_INET6) : UniqueFd();
    if (!v4.valid() || (with_ipv6 && !v6.valid())) {
        perror("socket");
        return Take::failed;
    }
    console_line("bind port " + std::to_string(port) + "...");
    if (bind_and_listen(v4, AF_INET, port) != Take::taken) return Take::busy;
    if (with_ipv6 && bind_and_listen(v6, AF_INET6, port) != Take::taken) return Take::busy;
    out.v4 = std::move(v4);
    out.v6 = std::move(v6);
    out.port = port;
    return Take::taken;
}

bool open_listeners(Listeners& out, bool with_ipv6) {
    for (int port = first_port; port <= last_port; ++port) {
        Take result = take_port(out, port, with_ipv6);
        if (result == Take::taken) return true;
        if (result == Take::failed) return false;
    }
    return false;
}
