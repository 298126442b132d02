// Tests for the string, number and file utilities.
#include "core/utils.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "support/engine_harness.h"

using Pieces = std::vector<std::string>;

TEST(Split, EveryCutterKeepsItsEdgePieces) {
    using Cutter = void (*)(const std::string&, Pieces&);
    // split reads pieces with getline: no trailing empty piece, none for an empty text.
    const Cutter by_getline = [](const std::string& text, Pieces& out) { split(text, ',', out); };
    const Cutter every_piece = [](const std::string& text, Pieces& out) { split2(text, ',', out); };
    const Cutter by_text = [](const std::string& text, Pieces& out) { split3(text, "::", out); };
    const Cutter braces = split_curly_brackets;
    const std::tuple<Cutter, std::string, Pieces> cases[] = {
        {by_getline, "a,,b,", {"a", "", "b"}},
        {by_getline, "", {}},
        {every_piece, "a,,b,", {"a", "", "b", ""}},
        {every_piece, "", {""}},
        {by_text, "a::b", {"a", "b"}},
        {by_text, "a:::b", {"a", ":b"}},
        {by_text, "a::::b::", {"a", "", "b", ""}},
        {braces, "x{a{b}c}y{}z{d", {"a{b}c"}},
        {braces, "{a}{b}", {"a", "b"}},
        // A stray '}' drives the depth negative: it and what follows are collected
        // until an opening brace brings the depth back to zero.
        {braces, "a}b{c{d}e", {"}bd"}},
        {braces, "}{{x}", {"}x"}},
    };
    for (const auto& row : cases) {
        const auto& [cut, text, want] = row;
        // Every cutter appends: what the output held before stays in front.
        Pieces out{"old"};
        cut(text, out);
        Pieces expected{"old"};
        expected.insert(expected.end(), want.begin(), want.end());
        EXPECT_EQ(out, expected) << "row " << &row - cases << ": \"" << text << '"';
    }
}

TEST(GetParameter, TextAfterBeginUpToEnd) {
    // text, begin, end, result
    const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
        {"k=12&n=3", "k=", "&", "12"}, {"k=12&n=3", "q=", "&", ""}, {"k=12&n=3", "n=", "&", "3"},
        {"k=12&n=3", "", "&", "k=12"}, {"a=1&a=2", "a=", "&", "1"}, {"k=12&n=3", "k=", "", ""},
    };
    for (auto [text, begin, end, want] : cases) EXPECT_EQ(get_parameter(text, begin, end), want) << begin;
}

TEST(Formatting, NumbersAndLongPrintfResults) {
    EXPECT_EQ(int_to_string(-2147483647 - 1), "-2147483648");
    EXPECT_EQ(int_to_string(2147483647), "2147483647");
    EXPECT_EQ(format_to_str("%02d.%02d.%04d", 5, 3, 2024), "05.03.2024");
    // Longer than any fixed formatting buffer of 256 bytes.
    std::string text(300, 'z');
    EXPECT_EQ(format_to_str("[%s]", text.c_str()), "[" + text + "]");
}

TEST(Files, ReadAppendsWriteTruncatesFailuresChangeNothing) {
    harness::TempDir dir;
    std::string path = dir.path() + "/data.bin";
    std::string binary("A\0\r\n\xFF\x7F", 6);
    std::string shorter = "xy";
    ASSERT_TRUE(write_file(path.c_str(), binary));
    std::string out = "old";
    ASSERT_TRUE(read_file(path.c_str(), out));
    EXPECT_EQ(out, "old" + binary);
    ASSERT_TRUE(write_file(path.c_str(), shorter));
    EXPECT_EQ(harness::read_text_file(path), "xy");

    std::string missing = dir.path() + "/missing/file.txt";
    EXPECT_FALSE(read_file(missing.c_str(), out));
    EXPECT_EQ(out, "old" + binary);
    EXPECT_FALSE(write_file(missing.c_str(), shorter));
}
