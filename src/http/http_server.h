// The HTTP server loop: one connection at a time, one request per connection.
#pragma once

extern int TimeoutSelectForAccept;  // seconds to wait for the next connection
extern int TimeoutSelectForRecv;    // seconds to wait for the first request bytes
extern char readBuffer[1400];

// Listens on 127.0.0.1, the first free port from 8080 to 8099, starts the
// browser and serves until is_exit. 1 when the socket could not be set up,
// 0 after a normal end. is_exit is true on every return.
int http_server();

// The port http_server bound, 0 before it has bound one.
int http_server_port();
