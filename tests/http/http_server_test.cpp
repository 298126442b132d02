// Tests of the HTTP server loop over real loopback sockets, in-process and as the vorcore program.
#include "http/http_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/debug.h"
#include "core/engine.h"
#include "http/http_answer.h"
#include "http/http_parser.h"
#include "support/engine_harness.h"

using namespace harness;

// Runs http_server in a thread of the test process (with no user name it starts no browser).
struct InProcessServer {
    InProcessServer() {
        is_exit = false;
        thread = std::thread([this] { result = http_server(); });
        port = wait_for([] { return http_server_port() != 0; }, 5) ? http_server_port() : 0;
    }
    ~InProcessServer() { stop(); }

    // Ends the loop, which checks is_exit after every connection it serves; returns its result.
    int stop() {
        if (!thread.joinable()) return result;
        is_exit = true;
        exchange(port, "X\r\n\r\n");
        thread.join();
        return result;
    }

    std::thread thread;
    std::atomic<int> result{-1};
    int port = 0;
};

// Every answer is exact. A refused request changes nothing: it queues no frame, and a refused exit leaves the
// server serving the rows after it. The guard reads a head as a browser does (LF line ends, blanks around
// names, folded lines, bytes after a zero byte) and lets only the engine's own pages in.
TEST(HttpServer, RequestsAreAnsweredOrRefusedByteExact) {
    TempDir dir;
    Redirect out(1, dir.path() + "/stdout.txt");
    InProcessServer server;
    queue.clear();
    const std::string api = "/tuning/device?id=-1&", refused = forbidden_answer, ok = json_answer(json_ok);
    const std::string cmd13 = "GET " + api + "cmd=13 HTTP/1.1\r\n", exit = "GET " + api + "exit HTTP/1.1\r\n";
    const std::string port = std::to_string(server.port);
    // The head's origin lines lie beyond the first read of 16 KB.
    const std::string padded = "GET /x.js?" + std::string(16384, 'a') + " HTTP/1.1\r\nHost: evil\r\n\r\n";
    // Cookies other local sites set for localhost make a browser's head long.
    const std::string cookies = "Cookie: " + std::string(3000, 'c') + "\r\n";
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // request, answer, console line
        {"GARBAGE\r\n\r\n", not_found_answer, ""},
        {"GET /\r\n\r\n", not_found_answer, ""},
        {"get / HTTP/1.1\r\n\r\n", not_found_answer, ""},
        {"DELETE " + api + "exit HTTP/1.1\r\n\r\n", not_found_answer, ""},
        {std::string("\0GET / HTTP/1.1\r\n\r\n", 19), not_found_answer, ""},
        {cmd13 + "Host: evil.example\r\n\r\n", refused, "foreign Host: evil.example"},
        {cmd13 + "Host: localhost\r\nOrigin: null\r\n\r\n", refused, "foreign Origin: null"},
        {exit + "Sec-Fetch-Site: cross-site\r\n\r\n", refused, "Sec-Fetch-Site: cross-site"},
        {exit + "Host: evil.example:8080\r\n\r\n", refused, "foreign Host: evil.example:8080"},
        {"POST /up HTTP/1.1\r\nOrigin: http://evil\r\n\r\nabc", refused, "foreign Origin: http://evil"},
        {padded, refused, "head longer than one read"},
        {cmd13 + "Host : evil.example\r\n\r\n", refused, "foreign Host: evil.example"},
        {cmd13 + "Host: localhost\r\n\tevil.example\r\n\r\n", refused, "folded header line"},
        {"GET " + api + "cmd=13 HTTP/1.1\nOrigin: null\n\n", refused, "foreign Origin: null"},
        {"GET " + api + "cmd=13 HTTP/1.1" + std::string("\0\r\nHost: evil\r\n\r\n", 17), refused,
         "foreign Host: evil"},
        {cmd13 + std::string("\0Host: evil\r\n\r\n", 15), refused, "foreign Host: evil"},
        {cmd13 + "Origin: http://localhost:9999\r\n\r\n", refused, "foreign Origin: http://localhost:9999"},
        {cmd13 + "Origin: http://localhost\r\n\r\n", refused, "foreign Origin: http://localhost"},
        {cmd13 + "Sec-Fetch-Site: same-site\r\n\r\n", refused, "Sec-Fetch-Site: same-site"},
        {local_get(server.port, api + "cmd=13"), ok, ""},
        {cmd13 + "Origin: HTTP://127.0.0.1:" + port + "\r\nSec-Fetch-Site: none\r\n\r\n", ok, ""},
        {cmd13 + "Origin: http://[::1]:" + port + "\r\n" + cookies + "\r\n", ok, ""},
        {cmd13 + "Host: localhost", ok, ""},  // no blank line, but the whole head was read
    };
    for (const auto& [request, answer, refusal] : cases) {
        size_t printed = out.text().size();
        EXPECT_EQ(exchange(server.port, request), answer) << request;
        std::string line = refusal.empty() ? "" : "@ Request refused, " + refusal + "\n";
        EXPECT_EQ(stamps_marked(out.text().substr(printed)), line) << request;
    }
    EXPECT_EQ(queue.size(), 4u);  // from the last four rows only
    // A client that closes its side without a word is answered as an empty request.
    Fd silent = connect_to(server.port);
    shutdown(silent.get(), SHUT_WR);
    EXPECT_EQ(read_to_close(silent), not_found_answer);
}

// Each connection has five seconds for its request, while the others are served; the rest of a body has
// one second in all; an upload is processed after its answer, and only when its body came whole.
TEST(HttpServer, ReadsWaitFiveSecondsForARequestAndOneForTheRestOfABody) {
    TempDir dir;
    Redirect out(1, dir.path() + "/stdout.txt");
    debug_mode = dm_h2 = true;  // set before the server thread starts, which reads them unlocked
    InProcessServer server;
    auto start = Clock::now();
    Fd silent = connect_to(server.port);
    Fd next = connect_to(server.port);
    send_text(next, "X\r\n\r\n");
    EXPECT_EQ(read_to_close(next, 1), not_found_answer);
    EXPECT_LT(seconds_since(start), 1);
    EXPECT_EQ(read_to_close(silent, 8), "");
    EXPECT_GT(seconds_since(start), 4.8);
    EXPECT_LT(seconds_since(start), 6.5);

    const std::string head = "POST /upload HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123";
    size_t printed = out.text().size();
    Fd joined = connect_to(server.port);
    for (const std::string& segment : {head, std::string("456"), std::string("789")}) {
        send_text(joined, segment);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    EXPECT_EQ(read_to_close(joined, 5), json_answer(json_ok));
    // The upload is processed after its answer has gone, so its line may follow the close.
    const std::string unknown = "@ POST UNKNOWN QUERY: /upload\n";
    wait_for([&] { return stamps_marked(out.text()).ends_with(unknown); }, 2);
    const std::string in = "@  <<<JSON_IN     ";
    EXPECT_EQ(stamps_marked(out.text().substr(printed)),
              in + head + "\n\n\n" + in + "456789\n\n\n" + unknown);

    printed = out.text().size();
    Fd late = connect_to(server.port);
    start = Clock::now();
    send_text(late, head);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    send(late.get(), "456789", 6, MSG_NOSIGNAL);  // the server may have closed already
    EXPECT_EQ(read_to_close(late, 5), cut_body_answer);  // and never processed
    EXPECT_LT(seconds_since(start), 3);
    EXPECT_EQ(stamps_marked(out.text().substr(printed)), in + head + "\n\n\n@ Error size query body\n");
    server.stop();
    debug_mode = dm_h2 = false;
}
