// Helpers of the HTTP tests: answers written out by hand and console checks.
#pragma once

#include <cctype>
#include <sstream>

#include "support/engine_harness.h"

inline std::string answer_200(const std::string& headers, const std::string& body) {
    return "HTTP/1.1 200 OK\r\nConnection: close\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

inline std::string json_answer(const std::string& body) {
    return answer_200(
        "Access-Control-Allow-Origin: *\r\nContent-Type: application/javascript; charset=utf-8\r\n", body);
}

inline const std::string not_found_answer = "HTTP/1.1 404 Not Found\r\nConnection: close\r\n\r\n";
inline const std::string forbidden_answer = "HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n";

// Console text with each line's "hh:mm:ss.mmm " stamp shown as "@ ", so that tests compare whole lines.
inline std::string stamps_marked(const std::string& text) {
    std::istringstream in(text);
    std::string out;
    for (std::string line; std::getline(in, line); out += line + (in.eof() ? "" : "\n")) {
        std::string stamp = line.substr(0, 13);
        for (char& c : stamp) c = std::isdigit(static_cast<unsigned char>(c)) ? '0' : c;
        if (stamp == "00:00:00.000 ") line.replace(0, 13, "@ ");
    }
    return out;
}

// What `action` printed on stdout.
template <typename Action>
std::string printed_by(Action action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}
