// The POST API: uploads processed after their connection has been answered.
#pragma once

#include <string>
#include <vector>

#include "http/http_parser.h"

// Payload of the last accepted encrypted configuration upload.
extern std::vector<char> cry_file_content;

void parse_post_query(parsing_result& result);
int get_cry_header_len(std::vector<char>& file);
bool decrypt_cry(std::vector<char>& data, std::string& key, std::string& out);
