// The HTTP server loop: loopback connections waited on together, their requests
// served one at a time, one request per connection.
#pragma once

extern int TimeoutSelectForAccept;  // seconds without a new connection before the engine ends
extern int TimeoutSelectForRecv;    // seconds a connection has for the first bytes of its request
// The first read of a request: one recv of up to this many bytes, so that a
// browser's head with cookies of other local sites fits.
extern char readBuffer[16384];

// Listens on 127.0.0.1 and [::1], the first port from 8080 to 8099 free on
// both, starts the browser and serves until is_exit. 1 when the socket could not be set up,
// 0 after a normal end. is_exit is true on every return.
int http_server();

// The port http_server bound, 0 before it has bound one.
int http_server_port();
