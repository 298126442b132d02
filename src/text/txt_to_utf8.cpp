// Windows-1251 to and from UTF-8, request escape decoding, JSON escaping.
#include "text/txt_to_utf8.h"

#include <cstdlib>
#include <cstring>

const uint16_t cp2utf::utf[256] = {
    0x0000, 0x0001, 0x0002, 0x0003, 0x0004, 0x0005, 0x0006, 0x0007, 0x0008, 0x0009, 0x000A, 0x000B, 0x000C,
    0x000D, 0x000E, 0x000F, 0x0010, 0x0011, 0x0012, 0x0013, 0x0014, 0x0015, 0x0016, 0x0017, 0x0018, 0x0019,
    0x001A, 0x001B, 0x001C, 0x001D, 0x001E, 0x001F, 0x0020, 0x0021, 0x0022, 0x0023, 0x0024, 0x0025, 0x0026,
    0x0027, 0x0028, 0x0029, 0x002A, 0x002B, 0x002C, 0x002D, 0x002E, 0x002F, 0x0030, 0x0031, 0x0032, 0x0033,
    0x0034, 0x0035, 0x0036, 0x0037, 0x0038, 0x0039, 0x003A, 0x003B, 0x003C, 0x003D, 0x003E, 0x003F, 0x0040,
    0x0041, 0x0042, 0x0043, 0x0044, 0x0045, 0x0046, 0x0047, 0x0048, 0x0049, 0x004A, 0x004B, 0x004C, 0x004D,
    0x004E, 0x004F, 0x0050, 0x0051, 0x0052, 0x0053, 0x0054, 0x0055, 0x0056, 0x0057, 0x0058, 0x0059, 0x005A,
    0x005B, 0x005C, 0x005D, 0x005E, 0x005F, 0x0060, 0x0061, 0x0062, 0x0063, 0x0064, 0x0065, 0x0066, 0x0067,
    0x0068, 0x0069, 0x006A, 0x006B, 0x006C, 0x006D, 0x006E, 0x006F, 0x0070, 0x0071, 0x0072, 0x0073, 0x0074,
    0x0075, 0x0076, 0x0077, 0x0078, 0x0079, 0x007A, 0x007B, 0x007C, 0x007D, 0x007E, 0x007F, 0x0402, 0x0403,
    0x201A, 0x0453, 0x201E, 0x2026, 0x2020, 0x2021, 0x20AC, 0x2030, 0x0409, 0x2039, 0x040A, 0x040C, 0x040B,
    0x040F, 0x0452, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014, 0x0000, 0x2122, 0x0459, 0x203A,
    0x045A, 0x045C, 0x045B, 0x045F, 0x00A0, 0x040E, 0x045E, 0x0408, 0x00A4, 0x0490, 0x00A6, 0x00A7, 0x0401,
    0x00A9, 0x0404, 0x00AB, 0x00AC, 0x00AD, 0x00AE, 0x0407, 0x00B0, 0x00B1, 0x0406, 0x0456, 0x0491, 0x00B5,
    0x00B6, 0x00B7, 0x0451, 0x2116, 0x0454, 0x00BB, 0x0458, 0x0405, 0x0455, 0x0457, 0x0410, 0x0411, 0x0412,
    0x0413, 0x0414, 0x0415, 0x0416, 0x0417, 0x0418, 0x0419, 0x041A, 0x041B, 0x041C, 0x041D, 0x041E, 0x041F,
    0x0420, 0x0421, 0x0422, 0x0423, 0x0424, 0x0425, 0x0426, 0x0427, 0x0428, 0x0429, 0x042A, 0x042B, 0x042C,
    0x042D, 0x042E, 0x042F, 0x0430, 0x0431, 0x0432, 0x0433, 0x0434, 0x0435, 0x0436, 0x0437, 0x0438, 0x0439,
    0x043A, 0x043B, 0x043C, 0x043D, 0x043E, 0x043F, 0x0440, 0x0441, 0x0442, 0x0443, 0x0444, 0x0445, 0x0446,
    0x0447, 0x0448, 0x0449, 0x044A, 0x044B, 0x044C, 0x044D, 0x044E, 0x044F,
};

const cp_letter g_letters[61] = {
    {0x82, 0x201A}, {0x83, 0x0453}, {0x84, 0x201E}, {0x85, 0x2026}, {0x86, 0x2020}, {0x87, 0x2021},
    {0x88, 0x20AC}, {0x89, 0x2030}, {0x8A, 0x0409}, {0x8B, 0x2039}, {0x8C, 0x040A}, {0x8D, 0x040C},
    {0x8E, 0x040B}, {0x8F, 0x040F}, {0x90, 0x0452}, {0x91, 0x2018}, {0x92, 0x2019}, {0x93, 0x201C},
    {0x94, 0x201D}, {0x95, 0x2022}, {0x96, 0x2013}, {0x97, 0x2014}, {0x99, 0x2122}, {0x9A, 0x0459},
    {0x9B, 0x203A}, {0x9C, 0x045A}, {0x9D, 0x045C}, {0x9E, 0x045B}, {0x9F, 0x045F}, {0xA0, 0x00A0},
    {0xA1, 0x040E}, {0xA2, 0x045E}, {0xA3, 0x0408}, {0xA4, 0x00A4}, {0xA5, 0x0490}, {0xA6, 0x00A6},
    {0xA7, 0x00A7}, {0xA8, 0x0401}, {0xA9, 0x00A9}, {0xAA, 0x0404}, {0xAB, 0x00AB}, {0xAC, 0x00AC},
    {0xAD, 0x00AD}, {0xAE, 0x00AE}, {0xAF, 0x0407}, {0xB0, 0x00B0}, {0xB1, 0x00B1}, {0xB2, 0x0406},
    {0xB3, 0x0456}, {0xB4, 0x0491}, {0xB5, 0x00B5}, {0xB6, 0x00B6}, {0xB7, 0x00B7}, {0xB8, 0x0451},
    {0xB9, 0x2116}, {0xBA, 0x0454}, {0xBB, 0x00BB}, {0xBC, 0x0458}, {0xBD, 0x0405}, {0xBE, 0x0455},
    {0xBF, 0x0457},
};

static const char escape_sym[] = {'"', '\\'};

// Only one- and two-byte UTF-8 is produced: code points above U+07FF
// (typographic quotes, dashes, euro, numero, ellipsis) are dropped without
// output, and 0x98, which CP1251 leaves undefined, becomes a NUL that ends the text.
void cp2utf(const char* in, char* out) {
    for (; *in != '\0'; ++in) {
        uint16_t cp = cp2utf::utf[static_cast<unsigned char>(*in)];
        if (cp <= 0x7F) {
            *out++ = static_cast<char>(cp);
        } else if (cp <= 0x7FF) {
            *out++ = static_cast<char>(0xC0 | (cp >> 6));
            *out++ = static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    *out = '\0';
}

char* cp1251_to_utf8(const char* in) {
    char* out = static_cast<char*>(malloc(strlen(in) * 2 + 1));
    if (out != nullptr) cp2utf(in, out);
    return out;
}

// CP1251 byte for a code point of a two-byte UTF-8 sequence; 0 when there is none.
static unsigned char cp1251_byte_of(uint32_t cp) {
    if (cp >= 0x410 && cp <= 0x44F) return static_cast<unsigned char>(cp - 0x350);
    // Latin-1 passes through as the same byte, also where CP1251 differs.
    if (cp >= 0x80 && cp <= 0xFF) return static_cast<unsigned char>(cp);
    if (cp == 0x402) return 0x80;
    if (cp == 0x403) return 0x81;
    for (const cp_letter& letter : g_letters)
        if (letter.unicode == cp) return static_cast<unsigned char>(letter.cp1251);
    return 0;
}

// Refusal (return 0) leaves `out` holding the converted prefix, terminated.
// A two-byte lead whose second byte lies beyond `len` or is the terminating
// NUL is refused like any other unconvertible character.
int utf2cp(const char* in, char* out, int len) {
    int i = 0;
    while (i < len && in[i] != '\0') {
        unsigned char b0 = static_cast<unsigned char>(in[i]);
        if (b0 < 0x80) {
            *out++ = static_cast<char>(b0);
            ++i;
            continue;
        }
        if ((b0 & 0x20) != 0 || i + 1 >= len || in[i + 1] == '\0') {
            *out = '\0';
            return 0;
        }
        unsigned char b1 = static_cast<unsigned char>(in[i + 1]);
        uint32_t cp = (static_cast<uint32_t>(b0 & 0x1F) << 6) + (b1 & 0x3F);
        unsigned char byte = cp1251_byte_of(cp);
        if (byte == 0) {
            *out = '\0';
            return 0;
        }
        *out++ = static_cast<char>(byte);
        i += 2;
    }
    *out = '\0';
    return 1;
}

char* utf8_to_cp1251(const char* in) {
    size_t len = strlen(in);
    char* out = static_cast<char*>(malloc(len + 1));
    if (out != nullptr) utf2cp(in, out, static_cast<int>(len));
    return out;
}

bool is_hex_digit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Decodes one or two hex digits at in[pos] (the first is known to be hex)
// into out; returns how many digits were used.
static size_t append_hex_byte(const std::string& in, size_t pos, std::string& out) {
    int value = hex_value(in[pos]);
    if (pos + 1 < in.size() && is_hex_digit(in[pos + 1])) {
        out += static_cast<char>(value * 16 + hex_value(in[pos + 1]));
        return 2;
    }
    out += static_cast<char>(value);
    return 1;
}

std::string txt_to_utf8(std::string& in) {
    std::string out;
    size_t i = 0;
    while (i < in.size()) {
        if (in[i] != '\\') {
            out += in[i++];
            continue;
        }
        if (i + 1 >= in.size()) break;
        char marker = in[i + 1];
        if (marker != 'x' && marker != 'X') {
            out += '\\';
            ++i;
            continue;
        }
        if (i + 2 >= in.size()) break;
        if (!is_hex_digit(in[i + 2])) {
            out += "\\x";
            i += 2;
            continue;
        }
        i += 2 + append_hex_byte(in, i + 2, out);
    }
    return out;
}

std::string txt_to_utf8_proc(std::string& in) {
    std::string out;
    size_t i = 0;
    while (i < in.size()) {
        if (in[i] != '%') {
            out += in[i++];
            continue;
        }
        if (i + 1 >= in.size()) break;
        if (!is_hex_digit(in[i + 1])) {
            out += '%';
            ++i;
            continue;
        }
        i += 1 + append_hex_byte(in, i + 1, out);
    }
    return out;
}

bool is_escape_sym(char c) {
    for (char sym : escape_sym)
        if (c == sym) return true;
    return false;
}

std::string json_escape(std::string& in) {
    std::string out;
    out.reserve(in.size());
    for (char c : in) {
        if (is_escape_sym(c)) out += '\\';
        out += c;
    }
    return out;
}

std::string json_unescape(std::string& in) {
    if (in.size() <= 1) return in;
    std::string out;
    size_t i = 0;
    while (i < in.size() - 1) {
        if (in[i] == '\\' && is_escape_sym(in[i + 1])) {
            out += in[i + 1];
            i += 2;
        } else {
            out += in[i];
            ++i;
        }
    }
    if (i < in.size()) out += in[i];
    return out;
}

// Resumes at p + h rather than h, so a hit after the first one can skip
// over later occurrences; callers rely on this exact result.
void erase_all(std::string& s, char c) {
    size_t p = 0;
    size_t h;
    while ((h = s.find(c, p)) != std::string::npos) {
        s.erase(h, 1);
        p += h;
    }
}
