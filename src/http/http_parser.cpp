// HTTP request parsing, the answer builders and the JSON result envelopes.
#include "http/http_parser.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "core/debug.h"
#include "core/engine.h"
#include "http/get_api.h"
#include "http/http_server.h"

const char* const json_ok = "{\"result\":\"ok\",\"description\":\"\"}";
const char* const json_error = "{\"result\":\"error\",\"description\":\"\"}";
const char* const json_continue = "{\"result\":\"continue\",\"description\":\"\"}";
const char* const err_con_port = "Ошибка подключения к порту";

static const char* const command_prefix = "/tuning/device?id=-1&cmd=";
// The number is read from this offset of the target, wherever the prefix was found.
static const size_t command_offset = 25;

static const char* const status_ok = "HTTP/1.1 200 OK\r\n";
static const char* const connection_close = "Connection: close\r\n";
static const char* const answer_forbidden = "HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n";

// ---------------------------------------------------------------------------
// Splitting the request

void split_header(char* buf, int len, std::vector<std::string>& lines, int& header_len) {
    lines.clear();
    std::string line;
    int i = 0;
    while (i < len && buf[i] != 0) {
        if (buf[i] == '\r' && i + 1 < len && buf[i + 1] == '\n') {
            if (line.empty()) header_len = i + 2;
            lines.push_back(line);
            line.clear();
            i += 2;
            continue;
        }
        line += buf[i];
        ++i;
    }
    if (!line.empty()) lines.push_back(line);
}

void split_elements(std::string& line, std::vector<std::string>& elements) {
    elements.clear();
    std::string piece;
    for (char c : line) {
        if (c == ' ') {
            elements.push_back(piece);
            piece.clear();
            continue;
        }
        piece += c;
    }
    if (!piece.empty()) elements.push_back(piece);
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
// Answer builders

static void write_answer(std::stringstream& answer, const std::string& own_headers, const std::string& body) {
    answer << status_ok << connection_close << own_headers << "Content-Length: " << body.size() << "\r\n\r\n";
    answer.write(body.data(), static_cast<std::streamsize>(body.size()));
}

void set_response_html(std::stringstream& answer, const std::string& body) {
    write_answer(answer, "Content-Type: text/html; charset=UTF-8\r\n", body);
}

void set_response_css(std::stringstream& answer, const std::string& body) {
    write_answer(answer, "Content-Type: text/css; charset=UTF-8\r\n", body);
}

// The image builders leave the transfer-encoding text without a line end: it shares
// its line with Content-Length, the wire form the user interface was built against.
void set_response_png(std::stringstream& answer, const std::string& body) {
    write_answer(answer, "Content-Type: image/png\r\nContent-Transfer-Encoding: binary;", body);
}

void set_response_ico(std::stringstream& answer, const std::string& body) {
    write_answer(answer, "Content-Type: image/x-icon\r\nContent-Transfer-Encoding: binary;", body);
}

void set_response_svg(std::stringstream& answer, const std::string& body) {
    write_answer(answer, "Content-Type: image/svg+xml\r\nContent-Transfer-Encoding: binary;", body);
}

void set_response_json(std::stringstream& answer, const std::string& body) {
    write_answer(answer,
                 "Access-Control-Allow-Origin: *\r\n"
                 "Content-Type: application/javascript; charset=utf-8\r\n",
                 body);
}

void set_response_cfg_file(std::stringstream& answer, const std::string& body) {
    write_answer(answer,
                 "Content-Type: text/plain; charset=UTF-8\r\n"
                 "Content-disposition: attachment; filename=config.ini\r\n"
                 "Content-transfer-encoding: text\r\n",
                 body);
}

void set_response_events_file(std::stringstream& answer, const std::string& body,
                              const std::string& file_name) {
    write_answer(answer,
                 "Content-Type: text/plain; charset=UTF-8\r\n"
                 "Content-disposition: attachment; filename=" +
                     file_name +
                     "\r\n"
                     "Content-transfer-encoding: text\r\n",
                 body);
}

void set_error(std::stringstream& answer) {
    answer << "HTTP/1.1 404 Not Found\r\n"
           << "Connection: close\r\n\r\n";
}

void set_OK(std::stringstream& answer) {
    answer << status_ok << "Connection: close\r\n\r\n";
}

void set_error_and_descr(std::string& out, const char* descr) {
    out = "{\"result\":\"error\",\"description\":\"";
    out += descr;
    out += "\"}";
}

// ---------------------------------------------------------------------------
// Refusing requests that a web page on another site made the browser send.
// The engine drives a life-safety panel: any page the user visits could
// otherwise post to localhost and reconfigure it (or stop the engine).

static std::string lower_case(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return out;
}

static std::string trimmed(const std::string& text) {
    size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string::npos) return {};
    size_t end = text.find_last_not_of(" \t");
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
static bool is_local_authority(const std::string& authority) {
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

// An origin is "scheme://authority"; "null" and anything without an authority is foreign.
static bool is_local_origin(const std::string& origin) {
    size_t mark = origin.find("://");
    if (mark == std::string::npos) return false;
    return is_local_authority(origin.substr(mark + 3));
}

// Control bytes are shown as '?' so a hostile header cannot forge console lines.
static std::string printable(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    }
    return out;
}

// Examines the head (the lines after the request line up to the first blank
// line) and returns why the request must be refused, or an empty text.
static std::string refusal_reason(const std::vector<std::string>& lines, int header_len, int len) {
    // A first read that is full and holds no blank line may be cut inside the head: the
    // lines naming the request's origin could lie beyond it, unseen (a page only has to
    // pad its URL to push them there).
    if (header_len == 0 && len >= static_cast<int>(sizeof readBuffer)) return "head longer than one read";
    for (size_t i = 1; i < lines.size() && !lines[i].empty(); ++i) {
        size_t colon = lines[i].find(':');
        if (colon == std::string::npos) continue;
        std::string name = lower_case(lines[i].substr(0, colon));
        std::string value = trimmed(lines[i].substr(colon + 1));
        if (name == "host" && !is_local_authority(value)) return "foreign Host: " + printable(value);
        if (name == "origin" && !is_local_origin(value)) return "foreign Origin: " + printable(value);
        if (name == "sec-fetch-site" && lower_case(value) == "cross-site")
            return "Sec-Fetch-Site: cross-site";
    }
    return {};
}

// ---------------------------------------------------------------------------
// Dispatch

static void print_request(char* buf, int len) {
    size_t shown = strnlen(buf, static_cast<size_t>(len > 0 ? len : 0));
    console_raw(time_stamp() + " <<<JSON_IN     " + std::string(buf, shown) + "\n\n\n");
}

static int content_length_of(const std::string& line) {
    long n = strtol(line.c_str() + 15, nullptr, 10);
    if (n > INT_MAX) return INT_MAX;
    if (n < INT_MIN) return INT_MIN;
    return static_cast<int>(n);
}

// Records the upload for processing after the connection is closed and acknowledges it.
static int accept_post_body(char* buf, int len, const std::vector<std::string>& lines, int header_len,
                            const std::string& target, std::stringstream& answer, parsing_result& result) {
    result.query = target;
    for (const std::string& line : lines) {
        if (line.find("Content-Length:") != std::string::npos)
            result.content_length = content_length_of(line);
        if (line.find("Content-Type:") != std::string::npos) result.content_type = line.substr(13);
    }
    fill_content(result, buf, len, header_len);
    set_response_json(answer, json_ok);
    long long missing = static_cast<long long>(header_len) + result.content_length - len;
    if (missing > INT_MAX) return INT_MAX;
    if (missing < INT_MIN) return INT_MIN;
    return static_cast<int>(missing);
}

static int dispatch_post(char* buf, int len, const std::vector<std::string>& lines, int header_len,
                         std::string& target, std::stringstream& answer, parsing_result& result) {
    int n = parse_command(target);
    if (n == 2) {
        std::string file;
        parser.cfg_to_file(file);
        set_response_cfg_file(answer, file);
        return 0;
    }
    if (n == 4 || n == 71 || n == 73 || n <= 0) {
        return accept_post_body(buf, len, lines, header_len, target, answer, result);
    }
    set_response_json(answer, json_error);
    return 0;
}

int parse(char* buf, int len, std::stringstream& answer, parsing_result& result) {
    answer.clear();
    int header_len = 0;
    std::vector<std::string> lines;
    split_header(buf, len, lines, header_len);
    if (lines.empty()) {
        set_error(answer);
        return 0;
    }
    std::vector<std::string> elements;
    split_elements(lines[0], elements);
    if (debug_mode && dm_h2) print_request(buf, len);

    std::string reason = refusal_reason(lines, header_len, len);
    if (!reason.empty()) {
        console_stamped("Request refused, " + reason);
        answer << answer_forbidden;
        return 0;
    }
    if (elements.size() < 3) {
        set_error(answer);
        return 0;
    }
    if (elements[0] == "GET") {
        parse_get_query(elements[1], answer);
        return 0;
    }
    if (elements[0] == "POST") return dispatch_post(buf, len, lines, header_len, elements[1], answer, result);
    set_error(answer);
    return 0;
}
