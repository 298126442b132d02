// String, number and file utilities shared by the HTTP side and the device image.
#include "core/utils.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>

#include "core/unique_fd.h"

std::string int_to_string(int v) {
    return std::to_string(v);
}

void csprintf(char* /*buf*/, int /*size*/, const char* /*fmt*/, ...) {}

std::string format_to_str(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    va_list measure;
    va_copy(measure, args);
    int needed = vsnprintf(nullptr, 0, fmt, measure);
    va_end(measure);

    std::string result;
    if (needed > 0) {
        // One extra byte for the terminator vsnprintf always writes.
        result.resize(static_cast<size_t>(needed) + 1);
        vsnprintf(result.data(), result.size(), fmt, args);
        result.resize(static_cast<size_t>(needed));
    }
    va_end(args);
    return result;
}

bool read_file(const char* path, std::string& out) {
    UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) return false;
    // A read that fails on the way (a directory, a device error) keeps what came before it.
    char chunk[16384];
    for (;;) {
        ssize_t got = read(file.get(), chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return true;
        out.append(chunk, static_cast<size_t>(got));
    }
}

bool write_file(const char* path, std::string& data) {
    std::unique_ptr<FILE, decltype(&fclose)> file(fopen(path, "wb"), &fclose);
    if (!file) return false;
    bool written = fwrite(data.data(), 1, data.size(), file.get()) == data.size();
    // A full drive must not pass for a saved file: the caller reports it.
    return fclose(file.release()) == 0 && written;
}

std::string get_parameter(std::string& text, std::string& begin, std::string& end) {
    size_t found = text.find(begin);
    if (found == std::string::npos) return "";
    std::string rest = text.substr(found + begin.size());
    size_t cut = rest.find(end);
    if (cut == std::string::npos) return rest;
    return rest.substr(0, cut);
}

// A stray '}' drives the depth negative; what follows is then collected until
// '{' brings it back to zero, and ends up in front of the next group.
void split_curly_brackets(const std::string& text, std::vector<std::string>& out) {
    int depth = 0;
    std::string group;
    for (char c : text) {
        if (c == '{') {
            ++depth;
            if (depth == 1) continue;
        } else if (c == '}') {
            --depth;
            if (depth == 0) {
                if (!group.empty()) out.push_back(group);
                group.clear();
                continue;
            }
        }
        if (depth != 0) group += c;
    }
}

void split(const std::string& text, char delim, std::vector<std::string>& out) {
    size_t start = 0;
    while (start < text.size()) {
        size_t found = text.find(delim, start);
        if (found == std::string::npos) found = text.size();
        out.push_back(text.substr(start, found - start));
        start = found + 1;
    }
}

void split2(const std::string& text, char delim, std::vector<std::string>& out) {
    size_t start = 0;
    size_t found;
    while ((found = text.find(delim, start)) != std::string::npos) {
        out.push_back(text.substr(start, found - start));
        start = found + 1;
    }
    out.push_back(text.substr(start));
}

void split3(const std::string& text, const std::string& delim, std::vector<std::string>& out) {
    // An empty delimiter would match everywhere without advancing.
    if (delim.empty()) {
        out.push_back(text);
        return;
    }
    size_t start = 0;
    size_t found;
    while ((found = text.find(delim, start)) != std::string::npos) {
        out.push_back(text.substr(start, found - start));
        start = found + delim.size();
    }
    out.push_back(text.substr(start));
}
