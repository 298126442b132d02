// Helpers of the GET and POST API tests: a scratch working directory, answers written out by hand, console
// checks.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/engine.h"

// A fresh mkdtemp directory as the working directory; the old one is restored and the tree removed after.
class ScopedWorkDir {
public:
    ScopedWorkDir() : old_dir_(std::filesystem::current_path()) {
        char pattern[] = "/tmp/vorcore_api_XXXXXX";
        if (mkdtemp(pattern) == nullptr || chdir(pattern) != 0) ADD_FAILURE() << "no scratch directory";
        dir_ = pattern;
    }
    ~ScopedWorkDir() {
        if (chdir(old_dir_.c_str()) != 0) ADD_FAILURE() << "cannot return to " << old_dir_;
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    const std::string& path() const { return dir_; }

private:
    std::filesystem::path old_dir_;
    std::string dir_;
};

inline void write_test_file(const std::string& path, const std::string& bytes) {
    std::filesystem::path p(path);
    if (p.has_parent_path()) std::filesystem::create_directories(p.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string expected_answer(const std::string& headers, const std::string& body) {
    return "HTTP/1.1 200 OK\r\nConnection: close\r\n" + headers +
           "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

inline std::string json_answer(const std::string& body) {
    return expected_answer(
        "Access-Control-Allow-Origin: *\r\nContent-Type: application/javascript; charset=utf-8\r\n", body);
}

inline const std::string not_found_answer = "HTTP/1.1 404 Not Found\r\nConnection: close\r\n\r\n";
inline const std::string ok_body = "{\"result\":\"ok\",\"description\":\"\"}";
inline const std::string error_body = "{\"result\":\"error\",\"description\":\"\"}";
inline const std::string continue_body = "{\"result\":\"continue\",\"description\":\"\"}";

// Console output must be exactly these lines, each behind a "hh:mm:ss.mmm " stamp.
inline void expect_stamped_lines(const std::string& output, const std::vector<std::string>& lines) {
    std::string masked = output;
    size_t pos = 0;
    for (const std::string& line : lines) {
        for (size_t i = pos; i < pos + 12 && i < masked.size(); ++i)
            if (masked[i] >= '0' && masked[i] <= '9') masked[i] = 'd';
        pos += 13 + line.size() + 1;
    }
    std::string expected;
    for (const std::string& line : lines) expected += "dd:dd:dd.ddd " + line + "\n";
    EXPECT_EQ(masked, expected) << "console:\n" << output;
}

// Takes every frame off the global command queue, oldest first.
inline std::vector<std::string> drain_queue() {
    std::vector<std::string> frames;
    std::vector<char> frame;
    while (queue.get_copy(frame)) {
        frames.emplace_back(frame.begin(), frame.end());
        queue.pop();
    }
    return frames;
}
