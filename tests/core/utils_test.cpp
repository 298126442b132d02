// Tests for the string, number and file utilities.
#include "core/utils.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Pieces = std::vector<std::string>;

// A fresh directory under /tmp, removed with everything in it.
class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/vorcore_utils_XXXXXX";
        const char* made = mkdtemp(pattern);
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        if (!path_.empty()) std::filesystem::remove_all(path_);
    }
    std::string file(const char* name) const { return path_ + "/" + name; }
    bool ok() const { return !path_.empty(); }

private:
    std::string path_;
};

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

TEST(Split, SingleCharacterDelimiters) {
    struct Case {
        std::string text;
        Pieces by_getline;
        Pieces always_last;
    };
    const Case cases[] = {
        {"a,,b,", {"a", "", "b"}, {"a", "", "b", ""}},
        {"", {}, {""}},
        {",", {""}, {"", ""}},
        {"abc", {"abc"}, {"abc"}},
        {",a", {"", "a"}, {"", "a"}},
        {"a,b,,", {"a", "b", ""}, {"a", "b", "", ""}},
    };
    for (const Case& c : cases) {
        Pieces a{"keep"};
        Pieces b{"keep"};
        split(c.text, ',', a);
        split2(c.text, ',', b);
        Pieces want_a{"keep"};
        want_a.insert(want_a.end(), c.by_getline.begin(), c.by_getline.end());
        Pieces want_b{"keep"};
        want_b.insert(want_b.end(), c.always_last.begin(), c.always_last.end());
        EXPECT_EQ(a, want_a) << '"' << c.text << '"';
        EXPECT_EQ(b, want_b) << '"' << c.text << '"';
    }
}

TEST(Split, MultiCharacterDelimiter) {
    struct Case {
        std::string text;
        std::string delim;
        Pieces want;
    };
    const Case cases[] = {
        {"a::b", "::", {"a", "b"}},
        {"", "::", {""}},
        {"::", "::", {"", ""}},
        {"a:::b", "::", {"a", ":b"}},
        {"a::::b::", "::", {"a", "", "b", ""}},
        {"k=1&&k=2", "&&", {"k=1", "k=2"}},
        {"abc", "", {"abc"}},
    };
    for (const Case& c : cases) {
        Pieces out;
        split3(c.text, c.delim, out);
        EXPECT_EQ(out, c.want) << '"' << c.text << '"';
    }
}

TEST(SplitCurlyBrackets, TopLevelGroupsOnly) {
    struct Case {
        std::string text;
        Pieces want;
    };
    const Case cases[] = {
        {"x{a{b}c}y{}z{d", {"a{b}c"}},
        {"{a}{b}", {"a", "b"}},
        {"", {}},
        {"no braces", {}},
        {"{\"v\":\"1\"},{\"v\":\"2\"}", {"\"v\":\"1\"", "\"v\":\"2\""}},
        {"{{}}", {"{}"}},
        // A stray '}' is collected with what follows and leaks into the next group.
        {"a}b{c{d}e", {"}bd"}},
        {"}{{x}", {"}x"}},
        {"}{x}", {}},
    };
    for (const Case& c : cases) {
        Pieces out;
        split_curly_brackets(c.text, out);
        EXPECT_EQ(out, c.want) << '"' << c.text << '"';
    }
}

TEST(GetParameter, TextBetweenMarkers) {
    struct Case {
        std::string text;
        std::string begin;
        std::string end;
        std::string want;
    };
    const Case cases[] = {
        {"k=12&n=3", "k=", "&", "12"},
        {"k=12&n=3", "q=", "&", ""},
        {"k=12&n=3", "n=", "&", "3"},
        {"k=12&n=3", "", "&", "k=12"},
        {"k=12&n=3", "k=", "", ""},
        {"a=1&a=2", "a=", "&", "1"},
        {"{\"key\":\"zn1\",\"x\"", "\"key\":\"", "\"", "zn1"},
    };
    for (const Case& c : cases) {
        std::string text = c.text;
        std::string begin = c.begin;
        std::string end = c.end;
        EXPECT_EQ(get_parameter(text, begin, end), c.want) << c.text << " / " << c.begin;
    }
}

TEST(Formatting, IntegersAndPrintfText) {
    EXPECT_EQ(int_to_string(0), "0");
    EXPECT_EQ(int_to_string(-42), "-42");
    EXPECT_EQ(int_to_string(2147483647), "2147483647");
    EXPECT_EQ(int_to_string(-2147483647 - 1), "-2147483648");

    EXPECT_EQ(format_to_str("%02d.%02d.%04d", 5, 3, 2024), "05.03.2024");
    EXPECT_EQ(format_to_str("%s", ""), "");
    EXPECT_EQ(format_to_str("%c%c", 'a', '\0'), std::string("a\0", 2));

    char buf[4] = "abc";
    csprintf(buf, sizeof buf, "%d", 12345);
    EXPECT_STREQ(buf, "abc");
}

TEST(Formatting, LongResultIsWhole) {
    for (size_t length : {255u, 256u, 257u, 5000u}) {
        std::string text(length, 'z');
        std::string got = format_to_str("[%s]", text.c_str());
        EXPECT_EQ(got, "[" + text + "]") << length;
    }
}

TEST(Files, ReadAppendsAndWriteTruncates) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    std::string path = dir.file("data.bin");
    std::string binary("A\0\r\n\xFF\x7F", 6);

    ASSERT_TRUE(write_file(path.c_str(), binary));
    EXPECT_EQ(slurp(path), binary);

    std::string out = "old";
    ASSERT_TRUE(read_file(path.c_str(), out));
    EXPECT_EQ(out, "old" + binary);

    std::string shorter = "xy";
    ASSERT_TRUE(write_file(path.c_str(), shorter));
    EXPECT_EQ(slurp(path), "xy");

    std::string empty;
    ASSERT_TRUE(write_file(path.c_str(), empty));
    std::string after = "kept";
    ASSERT_TRUE(read_file(path.c_str(), after));
    EXPECT_EQ(after, "kept");
}

TEST(Files, FailuresLeaveOutputAlone) {
    TempDir dir;
    ASSERT_TRUE(dir.ok());
    std::string missing = dir.file("missing.txt");
    std::string out = "unchanged";
    EXPECT_FALSE(read_file(missing.c_str(), out));
    EXPECT_EQ(out, "unchanged");

    std::string in_missing_dir = dir.file("no/such/dir.txt");
    std::string data = "x";
    EXPECT_FALSE(write_file(in_missing_dir.c_str(), data));
    EXPECT_FALSE(std::filesystem::exists(in_missing_dir));
}
