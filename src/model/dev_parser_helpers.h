// Small text helpers shared by the files that make up the device image.
#pragma once

#include <string>

// ASCII case conversion of a whole text.
std::string to_upper(std::string text);
std::string to_lower(std::string text);
// A Windows-1251 text as UTF-8; empty when the conversion fails.
std::string utf8_from_cp1251(const std::string& text);

// Configuration text: removes every CR and LF byte.
void erase_line_ends(std::string& text);
// True when the text holds a byte that would end a text frame or split its
// line (CR, LF, 0x7D, 0x7E, 0x7F): text frames are not byte-stuffed.
bool breaks_text_line(const std::string& text);
// The text with control bytes shown as "?", for a console line.
std::string printable(const std::string& text);
