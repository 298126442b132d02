// Tests for the device model table and its look-ups.
#include "core/types.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

TEST(ModelTable, LookUpByCode) {
    struct Case {
        std::string code;
        std::string model;
    };
    const Case cases[] = {
        {"84", "MD01"},   {"93", "MD21"},  {"1", "MD23"}, {"4", "MD23"},
        {"0", "MD24"},    {"9", "MD25"},   {"7", "MD27"}, {"40", "MS01"},
        {"103", "MD11N"}, {"129", "MD43"}, {"", ""},      {"999", ""},
        {"084", ""},      {"84 ", ""},     {"8", "MD26"}, {std::string("84\0", 3), ""},
    };
    for (const Case& c : cases) {
        std::string code = c.code;
        EXPECT_EQ(get_from_vc(code), c.model) << '"' << c.code << '"';
    }
}

TEST(ModelTable, LookUpByStampTakesFirstRow) {
    struct Case {
        long stamp;
        std::string model;
    };
    const Case cases[] = {
        {201732, "MD01"},  {201736, "MD04"}, {201744, "MD07"},  {69892, "MD23"},  {200964, "MD24"},
        {4395268, "MD25"}, {463108, "MD26"}, {4657412, "MD26"}, {135428, "MD28"}, {66564, "MD29"},
        {70660, "MD29"},   {0, ""},          {1, ""},           {-201732, ""},    {201733, ""},
    };
    for (const Case& c : cases) EXPECT_EQ(get_from_stamp(c.stamp), c.model) << c.stamp;
}

TEST(ModelTable, RowsAsListed) {
    ASSERT_EQ(g_K_Image_Device.size(), 57u);
    const K_Image_Device& first = g_K_Image_Device.front();
    EXPECT_EQ(first.code, "84");
    EXPECT_EQ(first.model, "MD01");
    EXPECT_EQ(first.stamp, 201732);
    const K_Image_Device& row18 = g_K_Image_Device[17];
    EXPECT_EQ(row18.code, "9");
    EXPECT_EQ(row18.stamp, 0x431104);
    const uint16_t row18_figures[8] = {16, 4, 124, 0, 1, 0, 32, 250};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(row18.figures[i], row18_figures[i]) << i;
    const K_Image_Device& row41 = g_K_Image_Device[40];
    EXPECT_EQ(row41.model, "MS05");
    const uint16_t row41_figures[8] = {4, 8, 56, 0, 0, 4, 8, 250};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(row41.figures[i], row41_figures[i]) << i;
    EXPECT_EQ(g_K_Image_Device.back().code, "129");
    EXPECT_EQ(g_K_Image_Device.back().model, "MD43");
}

// The figures must agree with what each stamp encodes: lm count in the low
// byte, rm count in the low nibble of the second byte.
TEST(ModelTable, FiguresAgreeWithStamps) {
    std::set<std::string> codes;
    for (const K_Image_Device& row : g_K_Image_Device) {
        EXPECT_TRUE(codes.insert(row.code).second) << "duplicate code " << row.code;
        bool has_figures = false;
        for (uint16_t f : row.figures) has_figures = has_figures || f != 0;
        if (!has_figures) continue;
        EXPECT_EQ(row.figures[7], 250) << row.code;
        if (row.stamp == 0) continue;
        EXPECT_EQ(row.figures[1], row.stamp & 0xFF) << row.code;
        EXPECT_EQ(row.figures[4], (row.stamp >> 8) & 0x0F) << row.code;
    }
}
