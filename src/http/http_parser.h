// HTTP request parsing, answer builders and the JSON result envelopes.
#pragma once

#include <sstream>
#include <string>
#include <vector>

struct parsing_result {
    int content_length = 0;
    std::string content_type;
    std::string query;    // target of an accepted POST; empty otherwise
    std::string content;  // body bytes received so far
};

extern const char* const json_ok;
extern const char* const json_error;
extern const char* const json_continue;
extern const char* const err_con_port;

// Parses one request and writes the whole answer; returns the number of body
// bytes still expected (greater than 0 only for an accepted POST).
int parse(char* buf, int len, std::stringstream& answer, parsing_result& result);
void split_header(char* buf, int len, std::vector<std::string>& lines, int& header_len);
void split_elements(std::string& line, std::vector<std::string>& elements);
int parse_command(const std::string& target);
void fill_content(parsing_result& result, char* buf, int len, int from);
void str_to_bin(std::string& text, std::vector<char>& out);

void set_response_html(std::stringstream& answer, const std::string& body);
void set_response_css(std::stringstream& answer, const std::string& body);
void set_response_png(std::stringstream& answer, const std::string& body);
void set_response_ico(std::stringstream& answer, const std::string& body);
void set_response_svg(std::stringstream& answer, const std::string& body);
void set_response_json(std::stringstream& answer, const std::string& body);
void set_response_cfg_file(std::stringstream& answer, const std::string& body);
void set_response_events_file(std::stringstream& answer, const std::string& body,
                              const std::string& file_name);
void set_error(std::stringstream& answer);
void set_OK(std::stringstream& answer);
void set_error_and_descr(std::string& out, const char* descr);
