// HTTP request parsing: the head, the body of an upload and the guard against other sites.
#pragma once

#include <string>
#include <vector>

#include "http/http_answer.h"

struct parsing_result {
    int content_length = 0;
    std::string content_type;
    std::string query;             // target of an accepted POST; empty otherwise
    std::string content;           // body bytes received so far
    bool expect_continue = false;  // the head asked for "100 Continue" before the body
};

// One request as its first read holds it.
struct HttpRequest {
    char* bytes = nullptr;  // the bytes read
    int len = 0;
    std::vector<std::string> lines;     // CR LF lines up to the first zero byte, body lines too
    int header_len = 0;                 // just after the last empty line; 0 without one
    std::vector<std::string> elements;  // of the request line: method, target, protocol
    // Why the head shows another site (or cannot be judged); empty when it may be served.
    std::string refusal;
};

// Parses one request and writes the whole answer; returns the number of body
// bytes still expected (greater than 0 only for an accepted POST).
int parse(char* buf, int len, AnswerStream& answer, parsing_result& result);

// Splits and judges the bytes of a request's first read.
HttpRequest read_request(char* buf, int len);
// Takes an upload's target, declared length and type, and the body bytes of
// the first read into `result`. False, after one console line and with
// `result` left empty, when the declared body is over the size limit.
bool take_post_body(const HttpRequest& request, parsing_result& result);
// Body bytes of the upload that the first read did not hold.
int missing_body_bytes(const HttpRequest& request, const parsing_result& result);

void split_header(char* buf, int len, std::vector<std::string>& lines, int& header_len);
void split_elements(std::string& line, std::vector<std::string>& elements);
int parse_command(const std::string& target);
void fill_content(parsing_result& result, char* buf, int len, int from);
void str_to_bin(std::string& text, std::vector<char>& out);
