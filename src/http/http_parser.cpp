// Placeholder bodies so the library links while the parser is written.
#include "http/http_parser.h"

const char* const json_ok = "{\"result\":\"ok\",\"description\":\"\"}";
const char* const json_error = "{\"result\":\"error\",\"description\":\"\"}";
const char* const json_continue = "{\"result\":\"continue\",\"description\":\"\"}";
const char* const err_con_port = "Ошибка подключения к порту";
int parse(char*, int, std::stringstream&, parsing_result&) { return 0; }
void split_header(char*, int, std::vector<std::string>&, int&) {}
void split_elements(std::string&, std::vector<std::string>&) {}
int parse_command(const std::string&) { return -1; }
void fill_content(parsing_result&, char*, int, int) {}
void str_to_bin(std::string&, std::vector<char>&) {}
void set_response_html(std::stringstream&, const std::string&) {}
void set_response_css(std::stringstream&, const std::string&) {}
void set_response_png(std::stringstream&, const std::string&) {}
void set_response_ico(std::stringstream&, const std::string&) {}
void set_response_svg(std::stringstream&, const std::string&) {}
void set_response_json(std::stringstream&, const std::string&) {}
void set_response_cfg_file(std::stringstream&, const std::string&) {}
void set_response_events_file(std::stringstream&, const std::string&, const std::string&) {}
void set_error(std::stringstream&) {}
void set_OK(std::stringstream&) {}
void set_error_and_descr(std::string&, const char*) {}
