// Small text helpers shared by the files that make up the device image.
#pragma once

#include <string>

// ASCII case conversion of a whole text.
std::string to_upper(std::string text);
std::string to_lower(std::string text);
// A Windows-1251 text as UTF-8; empty when the conversion fails.
std::string utf8_from_cp1251(const std::string& text);
