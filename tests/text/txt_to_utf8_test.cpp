// Tests for CP1251/UTF-8 conversion, escape decoding and JSON escaping.
#include "text/txt_to_utf8.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

// glibc's CP1251 table as an independent reference; empty where glibc has no character.
static std::string iconv_utf8(unsigned char byte) {
    static iconv_t cd = iconv_open("UTF-8", "CP1251");
    char out[8];
    char* in_p = reinterpret_cast<char*>(&byte);
    char* out_p = out;
    size_t in_left = 1, out_left = sizeof out;
    if (iconv(cd, &in_p, &in_left, &out_p, &out_left) == static_cast<size_t>(-1)) return "";
    return std::string(out, out_p);
}

static std::string to_utf8(const std::string& cp1251) {
    std::unique_ptr<char, decltype(&free)> out(cp1251_to_utf8(cp1251.c_str()), &free);
    return out.get();
}

// Converts from an exactly sized, unterminated heap copy of the first len bytes, so that
// the sanitizer build catches any read past len. The output is cut at its terminator;
// a missing terminator shows as trailing 'U's.
static std::pair<int, std::string> run_utf2cp(const std::string& in, int len) {
    std::vector<char> bytes(in.begin(), in.begin() + (len > 0 ? len : 0));
    std::string out(in.size() + 1, 'U');
    int rc = utf2cp(bytes.data(), out.data(), len);
    return {rc, out.substr(0, out.find('\0'))};
}

TEST(Cp1251Utf8, EveryByteMatchesIconvBothWaysExceptDeliberateLosses) {
    std::vector<int> lost;
    for (int byte = 1; byte < 256; ++byte) {
        if (byte == 0x98) continue;  // undefined in CP1251
        std::string utf8 = iconv_utf8(byte);
        std::string cp1251(1, static_cast<char>(byte));
        // Characters beyond U+07FF vanish from converted text and are refused the other way,
        // even where the letter table has them.
        bool three_bytes = utf8.size() > 2;
        if (three_bytes) lost.push_back(byte);
        EXPECT_EQ(to_utf8(cp1251), three_bytes ? "" : utf8) << std::hex << byte;
        auto back = three_bytes ? std::make_pair(0, std::string()) : std::make_pair(1, cp1251);
        EXPECT_EQ(run_utf2cp(utf8, static_cast<int>(utf8.size())), back) << std::hex << byte;
    }
    EXPECT_EQ(lost, (std::vector<int>{0x82, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8B, 0x91, 0x92, 0x93, 0x94,
                                      0x95, 0x96, 0x97, 0x99, 0x9B, 0xB9}));
    // "При" with an en dash dropped inside; 0x98 maps to NUL and ends the output.
    EXPECT_EQ(to_utf8("\xCF\xF0\x96\xE8!\x98z"), "\xD0\x9F\xD1\x80\xD0\xB8!");
}

TEST(Utf8ToCp1251, RefusalKeepsTheTerminatedPrefix) {
    // input, len, result, output
    const std::tuple<std::string, int, int, std::string> cases[] = {
        {"abc", -5, 1, ""},
        {{"ab\0cd", 5}, 5, 1, "ab"},
        {"\xC3\x83", 2, 1, "\xC3"},          // Ã passes through as Latin-1
        {"\xD0Z", 2, 1, "\xCA"},             // the second byte is taken unchecked
        {"a\xE2\x80\x93z", 5, 0, "a"},       // en dash: three bytes
        {"ok\xC8\x80", 4, 0, "ok"},          // U+0200 has no CP1251 byte
        {"\xD0\x9F\xD1\x80", 3, 0, "\xCF"},  // len cuts a sequence
    };
    for (const auto& [in, len, rc, out] : cases)
        EXPECT_EQ(run_utf2cp(in, len), std::make_pair(rc, out)) << in;
    std::unique_ptr<char, decltype(&free)> cp1251(utf8_to_cp1251("\xD0\xB0\xE2\x80\x94"), &free);
    EXPECT_STREQ(cp1251.get(), "\xE0");
}

TEST(EscapeDecoding, BackslashAndPercentEscapes) {
    // input, txt_to_utf8, txt_to_utf8_proc
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"\\x414\\xd0\\x9f", "A4\xD0\x9F", "\\x414\\xd0\\x9f"},
        {"a\\b\\x4g", "a\\b\x04g", "a\\b\\x4g"},
        {"\\X41\\x4", "A\x04", "\\X41\\x4"},
        {"\\Xzz", "\\xzz", "\\Xzz"},
        {"ab\\", "ab", "ab\\"},
        {"ab\\x", "ab", "ab\\x"},
        {"%41%4", "%41%4", "A\x04"},
        {"%zz50%", "%zz50%", "%zz50"},
        {"a+b%2B%00", "a+b%2B%00", {"a+b+\0", 5}},
    };
    for (auto [in, backslash, percent] : cases) {
        EXPECT_EQ(txt_to_utf8(in), backslash) << in;
        EXPECT_EQ(txt_to_utf8_proc(in), percent) << in;
    }
}

TEST(JsonEscaping, QuoteAndBackslashOnly) {
    const std::pair<std::string, std::string> escapes[] = {{"a\"\\", "a\\\"\\\\"}, {"\n\t/", "\n\t/"}};
    for (auto [in, want] : escapes) EXPECT_EQ(json_escape(in), want) << in;
    // A lone or trailing backslash is kept; other escapes are not decoded.
    const std::pair<std::string, std::string> unescapes[] = {
        {"\\", "\\"}, {"a\\\"\\\\", "a\"\\"}, {"ab\\", "ab\\"}, {"\\n", "\\n"}, {"\\\\\\", "\\\\"}};
    for (auto [in, want] : unescapes) EXPECT_EQ(json_unescape(in), want) << in;
}

TEST(EraseAll, SkipsAheadAfterEachHit) {
    const std::pair<std::string, std::string> cases[] = {
        {"abXcdXeX", "abcdeX"}, {"XXXa", "a"}, {"aXXb", "ab"}, {"1X2X3X4X5", "1234X5"}, {"", ""}};
    for (auto [text, want] : cases) {
        erase_all(text, 'X');
        EXPECT_EQ(text, want) << text;
    }
}
