// HTTP answers: the builders of every answer head, the JSON result envelopes and the refusals.
#include "http/http_answer.h"

#include <charconv>
#include <cstring>

const char* const json_ok = "{\"result\":\"ok\",\"description\":\"\"}";
const char* const json_error = "{\"result\":\"error\",\"description\":\"\"}";
const char* const json_continue = "{\"result\":\"continue\",\"description\":\"\"}";
const char* const err_con_port = "Ошибка подключения к порту";

const char* const answer_forbidden = "HTTP/1.1 403 Forbidden\r\nConnection: close\r\n\r\n";
const char* const answer_too_large = "HTTP/1.1 413 Payload Too Large\r\nConnection: close\r\n\r\n";

static const char* const status_ok = "HTTP/1.1 200 OK\r\n";
static const char* const connection_close = "Connection: close\r\n";

static void write_answer(AnswerStream& answer, std::string_view own_headers, const std::string& body) {
    static const std::string_view length_name = "Content-Length: ", head_end = "\r\n\r\n";
    char length[24];  // room for any size_t
    const char* length_end = std::to_chars(length, length + sizeof length, body.size()).ptr;
    const std::string_view length_text(length, static_cast<size_t>(length_end - length));
    answer.reserve(answer.str().size() + strlen(status_ok) + strlen(connection_close) + own_headers.size() +
                   length_name.size() + length_text.size() + head_end.size() + body.size());
    answer.append(status_ok);
    answer.append(connection_close);
    answer.append(own_headers);
    answer.append(length_name);
    answer.append(length_text);
    answer.append(head_end);
    answer.append(body);
}

void set_response_html(AnswerStream& answer, const std::string& body) {
    write_answer(answer, "Content-Type: text/html; charset=UTF-8\r\n", body);
}

void set_response_css(AnswerStream& answer, const std::string& body) {
    write_answer(answer, "Content-Type: text/css; charset=UTF-8\r\n", body);
}

// The image builders leave the transfer-encoding text without a line end: it shares
// its line with Content-Length, the wire form the user interface was built against.
void set_response_png(AnswerStream& answer, const std::string& body) {
    write_answer(answer, "Content-Type: image/png\r\nContent-Transfer-Encoding: binary;", body);
}

void set_response_ico(AnswerStream& answer, const std::string& body) {
    write_answer(answer, "Content-Type: image/x-icon\r\nContent-Transfer-Encoding: binary;", body);
}

void set_response_svg(AnswerStream& answer, const std::string& body) {
    write_answer(answer, "Content-Type: image/svg+xml\r\nContent-Transfer-Encoding: binary;", body);
}

void set_response_json(AnswerStream& answer, const std::string& body) {
    write_answer(answer,
                 "Access-Control-Allow-Origin: *\r\n"
                 "Content-Type: application/javascript; charset=utf-8\r\n",
                 body);
}

// The configuration file's head is that of any other download, with its fixed name.
void set_response_cfg_file(AnswerStream& answer, const std::string& body) {
    set_response_events_file(answer, body, "config.ini");
}

void set_response_events_file(AnswerStream& answer, const std::string& body, const std::string& file_name) {
    write_answer(answer,
                 "Content-Type: text/plain; charset=UTF-8\r\n"
                 "Content-disposition: attachment; filename=" +
                     file_name +
                     "\r\n"
                     "Content-transfer-encoding: text\r\n",
                 body);
}

void set_error(AnswerStream& answer) {
    answer.append("HTTP/1.1 404 Not Found\r\n");
    answer.append("Connection: close\r\n\r\n");
}

void set_OK(AnswerStream& answer) {
    answer.append(status_ok);
    answer.append("Connection: close\r\n\r\n");
}

void set_error_and_descr(std::string& out, const char* descr) {
    out = "{\"result\":\"error\",\"description\":\"";
    out += descr;
    out += "\"}";
}
