// Tests for the device model table and its first-match look-ups.
#include "core/types.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

TEST(ModelTable, LookUpsTakeTheFirstMatchingRow) {
    ASSERT_EQ(g_K_Image_Device.size(), 57u);
    // Codes match whole and exactly (a trailing NUL too); several codes share a model.
    const std::pair<std::string, std::string> by_code[] = {
        {"84", "MD01"}, {"93", "MD21"},   {"4", "MD23"},     {"0", "MD24"}, {"7", "MD27"},
        {"40", "MS01"}, {"103", "MD11N"}, {"129", "MD43"},   {"", ""},      {"999", ""},
        {"084", ""},    {"84 ", ""},      {{"84\0", 3}, ""}, {"8", "MD26"},
    };
    for (auto [code, model] : by_code) EXPECT_EQ(get_from_vc(code), model) << '"' << code << '"';
    // Rows 1, 2, 3 and 10 share 201732 and rows 15 to 17 share 200964: the earliest wins.
    // Stamp 0 is carried by many rows but never found.
    const std::pair<long, std::string> by_stamp[] = {
        {201732, "MD01"}, {201736, "MD04"}, {200964, "MD24"}, {4395268, "MD25"}, {4657412, "MD26"},
        {70660, "MD29"},  {0, ""},          {201733, ""},     {-201732, ""},
    };
    for (auto [stamp, model] : by_stamp) EXPECT_EQ(get_from_stamp(stamp), model) << stamp;
}
