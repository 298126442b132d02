// Tests for CP1251/UTF-8 conversion, escape decoding and JSON escaping.
#include "text/txt_to_utf8.h"

#include <gtest/gtest.h>
#include <iconv.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

// glibc's own conversion, used as an independent reference.
std::string iconv_convert(const char* to, const char* from, const std::string& in, bool* ok) {
    iconv_t cd = iconv_open(to, from);
    EXPECT_NE(cd, reinterpret_cast<iconv_t>(-1));
    std::string src = in;
    std::string dst(in.size() * 4 + 4, '\0');
    char* src_p = src.data();
    char* dst_p = dst.data();
    size_t src_left = src.size();
    size_t dst_left = dst.size();
    size_t rc = iconv(cd, &src_p, &src_left, &dst_p, &dst_left);
    iconv_close(cd);
    *ok = rc != static_cast<size_t>(-1);
    dst.resize(dst.size() - dst_left);
    return dst;
}

uint32_t decode_utf8(const std::string& s) {
    auto b = [&](size_t i) { return static_cast<uint32_t>(static_cast<unsigned char>(s[i])); };
    if (s.size() == 1) return b(0);
    if (s.size() == 2) return ((b(0) & 0x1F) << 6) | (b(1) & 0x3F);
    return ((b(0) & 0x0F) << 12) | ((b(1) & 0x3F) << 6) | (b(2) & 0x3F);
}

std::string to_utf8(const std::string& cp1251) {
    std::unique_ptr<char, decltype(&free)> out(cp1251_to_utf8(cp1251.c_str()), &free);
    return out.get();
}

std::string to_cp1251(const std::string& utf8) {
    std::unique_ptr<char, decltype(&free)> out(utf8_to_cp1251(utf8.c_str()), &free);
    return out.get();
}

struct Utf2cpResult {
    int rc;
    std::string out;
};

Utf2cpResult run_utf2cp(const std::string& in, int len) {
    std::vector<char> out(in.size() + 1, '\x55');
    int rc = utf2cp(in.c_str(), out.data(), len);
    return {rc, out.data()};
}

const std::vector<unsigned char> kDroppedBytes = {0x82, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8B, 0x91,
                                                  0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x99, 0x9B, 0xB9};

}  // namespace

TEST(Cp1251ToUtf8, EveryByteMatchesIconvExceptDeliberateLosses) {
    std::vector<unsigned char> dropped;
    for (int byte = 1; byte < 256; ++byte) {
        std::string in(1, static_cast<char>(byte));
        std::string ours = to_utf8(in);
        bool ok = false;
        std::string reference = iconv_convert("UTF-8", "CP1251", in, &ok);
        if (byte == 0x98) {
            EXPECT_FALSE(ok) << "glibc defines 0x98";
            EXPECT_EQ(ours, "");
            EXPECT_EQ(cp2utf::utf[byte], 0);
            continue;
        }
        ASSERT_TRUE(ok) << std::hex << byte;
        EXPECT_EQ(cp2utf::utf[byte], decode_utf8(reference)) << std::hex << byte;
        if (reference.size() > 2) {
            dropped.push_back(static_cast<unsigned char>(byte));
            EXPECT_EQ(ours, "") << std::hex << byte;
        } else {
            EXPECT_EQ(ours, reference) << std::hex << byte;
        }
    }
    EXPECT_EQ(dropped, kDroppedBytes);
}

TEST(Cp1251ToUtf8, WholeTextDropsLossesAndStopsAt0x98) {
    struct Case {
        std::string in;
        std::string want;
    };
    const Case cases[] = {
        {"", ""},
        {"\xCF\xF0\xE8\xE2\xE5\xF2", "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82"},  // "Привет"
        {"\x96", ""},
        {"a\x96"
         "b\xB9"
         "1",
         "ab1"},
        {"a\x98"
         "b",
         "a"},
        {"\xA8\xB8\x80\x81", "\xD0\x81\xD1\x91\xD0\x82\xD0\x83"},
        {"\xA0\xA4", "\xC2\xA0\xC2\xA4"},
    };
    for (const Case& c : cases) EXPECT_EQ(to_utf8(c.in), c.want) << c.in;
}

TEST(Utf8ToCp1251, LettersAndCyrillicMatchIconv) {
    std::vector<unsigned char> bytes = {0x80, 0x81};
    for (const cp_letter& letter : g_letters) bytes.push_back(static_cast<unsigned char>(letter.cp1251));
    for (int b = 0xC0; b <= 0xFF; ++b) bytes.push_back(static_cast<unsigned char>(b));

    for (unsigned char byte : bytes) {
        bool ok = false;
        std::string utf8 = iconv_convert("UTF-8", "CP1251", std::string(1, static_cast<char>(byte)), &ok);
        ASSERT_TRUE(ok) << std::hex << int(byte);
        Utf2cpResult r = run_utf2cp(utf8, static_cast<int>(utf8.size()));
        if (utf8.size() == 3) {
            EXPECT_EQ(r.rc, 0) << std::hex << int(byte);
            EXPECT_EQ(r.out, "") << std::hex << int(byte);
        } else {
            EXPECT_EQ(r.rc, 1) << std::hex << int(byte);
            EXPECT_EQ(r.out, std::string(1, static_cast<char>(byte))) << std::hex << int(byte);
        }
    }
}

TEST(Utf8ToCp1251, LetterTableAgreesWithIconv) {
    ASSERT_EQ(g_letters[0].cp1251, 0x82u);
    ASSERT_EQ(g_letters[60].cp1251, 0xBFu);
    for (const cp_letter& letter : g_letters) {
        bool ok = false;
        std::string utf8 =
            iconv_convert("UTF-8", "CP1251", std::string(1, static_cast<char>(letter.cp1251)), &ok);
        ASSERT_TRUE(ok);
        EXPECT_EQ(letter.unicode, decode_utf8(utf8)) << std::hex << letter.cp1251;
        EXPECT_EQ(letter.unicode, cp2utf::utf[letter.cp1251]);
    }
}

TEST(Utf8ToCp1251, RefusalKeepsConvertedPrefix) {
    struct Case {
        std::string in;
        int len;
        int rc;
        std::string out;
    };
    const Case cases[] = {
        {"", 0, 1, ""},
        {"abc", 0, 1, ""},
        {"abc", -5, 1, ""},
        {"abc", 2, 1, "ab"},
        {std::string("ab\0cd", 5), 5, 1, "ab"},
        {"\xD0\x9F\xD1\x80", 4, 1, "\xCF\xF0"},  // "Пр"
        {"\xD0\x81", 2, 1, "\xA8"},              // Ё from the letter table
        {"\xC3\x83", 2, 1, "\xC3"},              // Ã passes through as Latin-1
        {"\xD0\x82\xD0\x83", 4, 1, "\x80\x81"},  // Ђ Ѓ
        {"a\xE2\x80\x93"
         "b",
         5, 0, "a"},                                 // en dash: three bytes refused
        {"x\xE2\x84\x96", 4, 0, "x"},                // numero sign, in the table but refused
        {"\xD0\x9F\xF0\x9F\x98\x80", 6, 0, "\xCF"},  // four-byte sequence
        {"ok\xC8\x80", 4, 0, "ok"},                  // U+0200: no CP1251 byte
        {"ok\xD0", 3, 0, "ok"},                      // lone lead at the end
        {"\xD0\x9F\xD1\x80", 3, 0, "\xCF"},          // len cuts a sequence
        {"\xD0"
         "A",
         2, 1, "\xA8"},  // second byte taken unchecked: U+0401
    };
    for (const Case& c : cases) {
        std::string in = c.in;
        Utf2cpResult r = run_utf2cp(in, c.len);
        EXPECT_EQ(r.rc, c.rc) << c.in;
        EXPECT_EQ(r.out, c.out) << c.in;
    }
    EXPECT_EQ(to_cp1251("\xD0\xB0\xE2\x80\x94"), "\xE0");
}

TEST(Utf8ToCp1251, NeverReadsBeyondLen) {
    // Exactly sized heap buffers without a terminator: the sanitizer build
    // catches any read past the end.
    const std::vector<std::string> inputs = {"\xD0", "a\xC3", "\xD0\x9F"};
    for (const std::string& in : inputs) {
        auto buf = std::make_unique<char[]>(in.size());
        std::copy(in.begin(), in.end(), buf.get());
        std::vector<char> out(in.size() + 1);
        utf2cp(buf.get(), out.data(), static_cast<int>(in.size()));
    }
    std::vector<char> out(4);
    EXPECT_EQ(utf2cp("\xD0\x9F", out.data(), 2), 1);
    EXPECT_EQ(std::string(out.data()), "\xCF");
}

TEST(EscapeDecoding, BackslashAndPercentEscapes) {
    struct Case {
        std::string in;
        std::string backslash;
        std::string percent;
    };
    const Case cases[] = {
        {"", "", ""},
        {"\\xd0\\x9f", "\xD0\x9F", "\\xd0\\x9f"},
        {"a\\b", "a\\b", "a\\b"},
        {"\\x4g", std::string("\x04g"), "\\x4g"},
        {"\\X41\\x4", "A\x04", "\\X41\\x4"},
        {"\\Xzz", "\\xzz", "\\Xzz"},
        {"ab\\", "ab", "ab\\"},
        {"ab\\x", "ab", "ab\\x"},
        {"\\\\x41", "\\A", "\\\\x41"},
        {"\\x414", "A4", "\\x414"},
        {"%41%4", "%41%4", "A\x04"},
        {"%zz", "%zz", "%zz"},
        {"50%", "50%", "50"},
        {"%%41", "%%41", "%A"},
        {"a+b%2B", "a+b%2B", "a+b+"},
        {"%D0%9F", "%D0%9F", "\xD0\x9F"},
        {"%00x", "%00x", std::string("\0x", 2)},
    };
    for (const Case& c : cases) {
        std::string in = c.in;
        EXPECT_EQ(txt_to_utf8(in), c.backslash) << c.in;
        EXPECT_EQ(txt_to_utf8_proc(in), c.percent) << c.in;
    }
}

TEST(JsonEscaping, EscapeAndUnescape) {
    struct Case {
        std::string in;
        std::string want;
    };
    const Case escapes[] = {
        {"", ""},
        {"a\"\\", "a\\\"\\\\"},
        {"line\n\ttab/", "line\n\ttab/"},
        {"\"\"", "\\\"\\\""},
    };
    for (const Case& c : escapes) {
        std::string in = c.in;
        EXPECT_EQ(json_escape(in), c.want) << c.in;
    }
    const Case unescapes[] = {
        {"", ""},         {"\\", "\\"},   {"a", "a"},         {"a\\\"\\\\", "a\"\\"},
        {"ab\\", "ab\\"}, {"\\n", "\\n"}, {"\\\\\\", "\\\\"}, {"x\\\"", "x\""},
    };
    for (const Case& c : unescapes) {
        std::string in = c.in;
        EXPECT_EQ(json_unescape(in), c.want) << c.in;
    }
}

TEST(EraseAll, SkipsAfterFirstHit) {
    struct Case {
        std::string in;
        char c;
        std::string want;
    };
    const Case cases[] = {
        {"abXcdXeX", 'X', "abcdeX"}, {"XXXa", 'X', "a"},  {"", 'X', ""},
        {"abc", 'X', "abc"},         {"aXXb", 'X', "ab"}, {"1,2,3,4,5", ',', "1234,5"},
    };
    for (const Case& c : cases) {
        std::string s = c.in;
        erase_all(s, c.c);
        EXPECT_EQ(s, c.want) << c.in;
    }
}
