// Listening sockets: the first port from 8080 that is free on both loopback addresses.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include "core/unique_fd.h"

// The engine listens on 127.0.0.1 and [::1] with one port: a browser that
// resolves "localhost" to either address reaches the engine and nobody else.
struct Listeners {
    UniqueFd v4;
    UniqueFd v6;  // not open where the machine has no IPv6 loopback
    int port = 0;
};

// True when this machine can bind [::1]. False for a kernel without IPv6 or
// a loopback interface without an IPv6 address.
bool ipv6_loopback_available();

// Tries the ports from 8080 to 8099, printing "bind port <n>..." for each: a
// port is taken when both addresses bind and listen (127.0.0.1 alone without
// IPv6). A failure prints perror's line and moves on to the next port. False
// when no port was free or no socket could be made (the reason printed).
bool open_listeners(Listeners& out, bool with_ipv6);

// The address the engine listens on for connections of `family`, with `port`.
sockaddr_storage loopback_address(int family, int port);
