// Windows-1251 to and from UTF-8, request escape decoding, JSON escaping.
#pragma once

#include <cstdint>
#include <string>

// A struct rather than a namespace so that the function cp2utf below can share
// its name; `cp2utf::utf` still names the table.
struct cp2utf {
    // Unicode code point of each CP1251 byte; the undefined byte 0x98 maps to 0.
    static const uint16_t utf[256];
};

struct cp_letter {
    uint32_t cp1251;
    uint32_t unicode;
};
// Reverse look-up pairs for the bytes 0x82..0xBF except 0x98.
extern const cp_letter g_letters[61];

void cp2utf(const char* in, char* out);
char* cp1251_to_utf8(const char* in);  // malloc'ed; free with free()
int utf2cp(const char* in, char* out, int len);
char* utf8_to_cp1251(const char* in);  // malloc'ed; free with free()

bool is_hex_digit(char c);
// The value of one hex digit, -1 for any other character.
int hex_value(char c);
std::string txt_to_utf8(std::string& in);       // backslash-x escapes
std::string txt_to_utf8_proc(std::string& in);  // percent escapes

bool is_escape_sym(char c);
std::string json_escape(std::string& in);
std::string json_unescape(std::string& in);
void erase_all(std::string& s, char c);
