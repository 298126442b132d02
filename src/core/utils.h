// String, number and file utilities shared by the HTTP side and the device image.
#pragma once

#include <string>
#include <vector>

#include "core/types.h"

std::string int_to_string(int v);

// Kept as an empty entry point; does nothing.
void csprintf(char* buf, int size, const char* fmt, ...);

// printf-style formatting into a string of any length.
std::string format_to_str(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Appends the whole file to out; false (out unchanged) when it cannot be opened.
bool read_file(const char* path, std::string& out);
// Writes data to the file, truncating it; false when it cannot be opened.
bool write_file(const char* path, std::string& data);

// The text after the first `begin`, cut at the first `end` after it.
std::string get_parameter(std::string& text, std::string& begin, std::string& end);

// Contents of each top-level {...} group, appended to out.
void split_curly_brackets(const std::string& text, std::vector<std::string>& out);
// getline-style split: no empty piece after a trailing delimiter.
void split(const std::string& text, char delim, std::vector<std::string>& out);
// Split that always appends the piece after the last delimiter.
void split2(const std::string& text, char delim, std::vector<std::string>& out);
// split2 with a multi-character delimiter.
void split3(const std::string& text, const std::string& delim, std::vector<std::string>& out);
