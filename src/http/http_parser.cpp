// HTTP request parsing: the head, the body of an upload and the guard against other sites.
#include "http/http_parser.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "core/debug.h"
#include "http/http_router.h"
#include "http/http_server.h"

static const char* const command_prefix = "/tuning/device?id=-1&cmd=";
// The number is read from this offset of the target, wherever the prefix was found.
static const size_t command_offset = 25;

// The largest body accepted: far above any configuration or firmware image,
// low enough that an upload cannot exhaust memory.
static const int max_body_length = 16 * 1024 * 1024;

// ---------------------------------------------------------------------------
// Splitting the request

void split_header(char* buf, int len, std::vector<std::string>& lines, int& header_len) {
    lines.clear();
    // An empty read may come without a buffer, which memchr must not be given.
    if (buf == nullptr || len <= 0) return;
    lines.reserve(16);  // a browser's head has about a dozen lines
    const char* const end = buf + len;
    // A zero byte ends the walk.
    const char* stop = static_cast<const char*>(memchr(buf, 0, static_cast<size_t>(end - buf)));
    if (stop == nullptr) stop = end;
    const char* line = buf;
    for (const char* at = buf; at < stop;) {
        const char* cr = static_cast<const char*>(memchr(at, '\r', static_cast<size_t>(stop - at)));
        if (cr == nullptr) break;
        if (cr + 1 == stop || cr[1] != '\n') {
            at = cr + 1;  // a lone carriage return is part of the line
            continue;
        }
        if (cr == line) header_len = static_cast<int>(cr + 2 - buf);
        lines.emplace_back(line, cr);
        line = at = cr + 2;
    }
    if (line < stop) lines.emplace_back(line, stop);
}

void split_elements(std::string& line, std::vector<std::string>& elements) {
    elements.clear();
    elements.reserve(3);
    size_t start = 0;
    for (size_t blank; (blank = line.find(' ', start)) != std::string::npos; start = blank + 1)
        elements.emplace_back(line, start, blank - start);
    if (start < line.size()) elements.emplace_back(line, start);
}

int parse_command(const std::string& target) {
    if (target.find(command_prefix) == std::string::npos) return -1;
    // The prefix is 25 characters long, so a target that contains it is at least that long.
    long n = strtol(target.c_str() + command_offset, nullptr, 10);
    if (n > INT_MAX) return INT_MAX;
    if (n < INT_MIN) return INT_MIN;
    return static_cast<int>(n);
}

void fill_content(parsing_result& result, char* buf, int len, int from) {
    if (from < 0 || from >= len) return;
    result.content.append(buf + from, static_cast<size_t>(len - from));
}

void str_to_bin(std::string& text, std::vector<char>& out) {
    bool high = false;
    for (char c : text) {
        unsigned char b = static_cast<unsigned char>(c);
        if (b == 0xC2) continue;
        if (b == 0xC3) {
            high = true;
            continue;
        }
        if (high) {
            b |= 0x40;
            high = false;
        }
        out.push_back(static_cast<char>(b));
    }
}

// ---------------------------------------------------------------------------
// Refusing requests that a web page on another site made the browser send.
// The engine drives a life-safety panel: any page the user visits could
// otherwise post to localhost and reconfigure it (or stop the engine).

// True when `text` equals `lower` (lower case) but for the case of its letters.
static bool same_name(std::string_view text, std::string_view lower) {
    if (text.size() != lower.size()) return false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
        if (c != lower[i]) return false;
    }
    return true;
}

static std::string lower_case(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

// Without the characters of `blanks` at either end.
static std::string_view trimmed(std::string_view text, std::string_view blanks) {
    size_t begin = text.find_first_not_of(blanks);
    if (begin == std::string_view::npos) return {};
    size_t end = text.find_last_not_of(blanks);
    return text.substr(begin, end - begin + 1);
}

static bool all_digits(const std::string& text) {
    if (text.empty()) return false;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

// True for "localhost", "127.0.0.1" or "[::1]", each with an optional ":port".
static bool is_local_authority(std::string_view authority) {
    std::string text = lower_case(authority);
    std::string host = text;
    std::string port;
    bool has_port = false;
    if (!text.empty() && text[0] == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos) return false;
        host = text.substr(0, close + 1);
        if (close + 1 < text.size()) {
            if (text[close + 1] != ':') return false;
            has_port = true;
            port = text.substr(close + 2);
        }
    } else {
        size_t colon = text.find(':');
        if (colon != std::string::npos) {
            host = text.substr(0, colon);
            has_port = true;
            port = text.substr(colon + 1);
        }
    }
    if (has_port && !all_digits(port)) return false;
    return host == "localhost" || host == "127.0.0.1" || host == "[::1]";
}

// Only a page the engine itself served: http, a loopback name and the engine's
// port. A page of any other local server ("null" included) is foreign.
static bool is_own_origin(std::string_view origin) {
    int port = http_server_port();
    if (port == 0) return false;
    std::string text = lower_case(origin);
    std::string suffix = ":" + std::to_string(port);
    for (const char* host : {"localhost", "127.0.0.1", "[::1]"}) {
        if (text == "http://" + std::string(host) + suffix) return true;
    }
    return false;
}

// Control bytes are shown as '?' so a hostile header cannot forge console lines.
static std::string printable(std::string_view text) {
    std::string out(text);
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    }
    return out;
}

// The request head as a browser means it: lines end at LF (a CR before it is
// dropped), the head at the first empty line after the request line. Zero
// bytes are bytes like any other here, so they hide nothing from the guard.
struct BrowserHead {
    std::vector<std::string_view> lines;  // the request line first
    bool complete = false;                // the empty line that ends it was seen
};

static BrowserHead browser_head(const char* buf, int len) {
    BrowserHead head;
    std::string_view rest(buf, len > 0 ? static_cast<size_t>(len) : 0);
    while (!rest.empty()) {
        size_t end = rest.find('\n');
        if (end == std::string_view::npos) {
            head.lines.push_back(rest);
            break;
        }
        std::string_view line = rest.substr(0, end);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        rest.remove_prefix(end + 1);
        if (line.empty() && !head.lines.empty()) {
            head.complete = true;
            break;
        }
        head.lines.push_back(line);
    }
    return head;
}

// Examines the head and returns why the request must be refused, or an empty text.
static std::string refusal_reason(const char* buf, int len) {
    BrowserHead head = browser_head(buf, len);
    // A read that is full and holds no end of the head may be cut inside it: the
    // lines naming the request's origin could lie beyond it, unseen.
    if (!head.complete && len >= static_cast<int>(sizeof readBuffer)) return "head longer than one read";
    static const std::string_view blanks(" \t"), name_blanks(" \t\0", 3);
    for (size_t i = 1; i < head.lines.size(); ++i) {
        std::string_view line = head.lines[i];
        // A continuation of the line before: read differently by different clients.
        if (line[0] == ' ' || line[0] == '\t') return "folded header line";
        size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        std::string_view name = trimmed(line.substr(0, colon), name_blanks);
        std::string_view value = trimmed(line.substr(colon + 1), blanks);
        if (same_name(name, "host") && !is_local_authority(value)) return "foreign Host: " + printable(value);
        if (same_name(name, "origin") && !is_own_origin(value)) return "foreign Origin: " + printable(value);
        if (same_name(name, "sec-fetch-site")) {
            std::string site = lower_case(value);
            if (site != "same-origin" && site != "none") return "Sec-Fetch-Site: " + printable(site);
        }
    }
    return {};
}

// ---------------------------------------------------------------------------
// Reading one request

static void print_request(char* buf, int len) {
    size_t shown = strnlen(buf, static_cast<size_t>(len > 0 ? len : 0));
    console_raw(time_stamp() + " <<<JSON_IN     " + std::string(buf, shown) + "\n\n\n");
}

HttpRequest read_request(char* buf, int len) {
    HttpRequest request;
    request.bytes = buf;
    request.len = len;
    split_header(buf, len, request.lines, request.header_len);
    if (request.lines.empty()) return request;
    split_elements(request.lines[0], request.elements);
    if (debug_mode && dm_h2) print_request(buf, len);
    request.refusal = refusal_reason(buf, len);
    return request;
}

static int content_length_of(const std::string& line) {
    long n = strtol(line.c_str() + 15, nullptr, 10);
    if (n > INT_MAX) return INT_MAX;
    if (n < INT_MIN) return INT_MIN;
    return static_cast<int>(n);
}

// True for a head line "Expect: 100-continue" (names and values without case).
static bool asks_to_continue(const std::string& line) {
    size_t colon = line.find(':');
    if (colon == std::string::npos) return false;
    static const std::string_view blanks(" \t");
    return same_name(trimmed(std::string_view(line).substr(0, colon), blanks), "expect") &&
           same_name(trimmed(std::string_view(line).substr(colon + 1), blanks), "100-continue");
}

bool take_post_body(const HttpRequest& request, parsing_result& result) {
    result.query = request.elements[1];
    bool in_head = true;
    for (const std::string& line : request.lines) {
        if (line.find("Content-Length:") != std::string::npos)
            result.content_length = content_length_of(line);
        if (line.find("Content-Type:") != std::string::npos) result.content_type = line.substr(13);
        if (line.empty()) in_head = false;
        if (in_head && asks_to_continue(line)) result.expect_continue = true;
    }
    if (result.content_length > max_body_length) {
        console_stamped("Request refused, body of " + std::to_string(result.content_length) +
                        " bytes is over the limit of " + std::to_string(max_body_length));
        result = parsing_result();
        return false;
    }
    fill_content(result, request.bytes, request.len, request.header_len);
    return true;
}

int missing_body_bytes(const HttpRequest& request, const parsing_result& result) {
    long long missing = static_cast<long long>(request.header_len) + result.content_length - request.len;
    if (missing > INT_MAX) return INT_MAX;
    if (missing < INT_MIN) return INT_MIN;
    return static_cast<int>(missing);
}

int parse(char* buf, int len, AnswerStream& answer, parsing_result& result) {
    return route_request(read_request(buf, len), answer, result);
}
