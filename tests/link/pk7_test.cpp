// Tests of PK7 framing, byte stuffing and the ready-made command frames.
#include "link/pk7.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::string as_string(const std::vector<char>& v) {
    return std::string(v.begin(), v.end());
}

std::string repeat(const std::string& piece, int times) {
    std::string s;
    for (int i = 0; i < times; ++i) s += piece;
    return s;
}

}  // namespace

TEST(Pk7Frame, TextFrameLayoutAndLimit) {
    struct Case {
        std::string payload;
        std::string expected;
    } cases[] = {
        {"", std::string("~0005F\x7f")},
        {"SF", std::string("~0007FSF\x7f")},
        {"ab}~", std::string("~0009Fab}~\x7f")},  // text frames are never stuffed
        {std::string(507, 'x'), "~0512F" + std::string(507, 'x') + "\x7f"},
    };
    for (const Case& c : cases) {
        std::vector<char> out = {'o', 'l', 'd'};
        ASSERT_EQ(form_pk7_packet_txt('F', c.payload.data(), c.payload.size(), out), 1) << c.payload.size();
        EXPECT_EQ(as_string(out), c.expected) << c.payload.size();
    }

    const std::string too_long(508, 'x');
    std::vector<char> out = {'o', 'l', 'd'};
    EXPECT_EQ(form_pk7_packet_txt('F', too_long.data(), too_long.size(), out), 0);
    EXPECT_EQ(as_string(out), "old") << "a refused frame leaves the output alone";
}

TEST(Pk7Frame, BinaryFrameIsStuffedAfterTheLengthIsCounted) {
    struct Case {
        std::string payload;
        std::string expected;
    } cases[] = {
        {"", std::string("~0005B\x7f")},
        {std::string("\x7d\x7e\x7f", 3), std::string("~0008B}=}>}?\x7f")},
        {std::string("\x7c\x80\x00\x40", 4), std::string("~0009B\x7c\x80\x00\x40\x7f", 11)},
        {std::string("a\x7e"
                     "b",
                     3),
         std::string("~0008Ba}>b\x7f")},
        {std::string(507, '\x7e'), "~0512B" + repeat("}>", 507) + "\x7f"},
    };
    for (Case& c : cases) {
        std::vector<char> out;
        ASSERT_EQ(form_pk7_packet_binary('B', c.payload.data(), c.payload.size(), out), 1)
            << c.payload.size();
        EXPECT_EQ(as_string(out), c.expected) << c.payload.size();
    }
    EXPECT_EQ(cases[4].expected.size(), 1u + 4 + 1 + 1014 + 1);

    std::string too_long(508, 'x');
    std::vector<char> out = {'o', 'l', 'd'};
    EXPECT_EQ(form_pk7_packet_binary('B', too_long.data(), too_long.size(), out), 0);
    EXPECT_EQ(as_string(out), "old");
}

TEST(Pk7Frame, ByteStuffingEscapesOnlyTheThreeFrameBytes) {
    std::list<char> empty;
    byte_stuffing(empty);
    EXPECT_TRUE(empty.empty());

    std::list<char> bytes = {'\x7c', '\x7d', '\x7e', '\x7f', '\x80', '\x3d'};
    byte_stuffing(bytes);
    const std::list<char> expected = {'\x7c', '}', '=', '}', '>', '}', '?', '\x80', '\x3d'};
    EXPECT_EQ(bytes, expected);
}

TEST(Pk7ReadyFrames, AreByteExactWithTheirLengths) {
    struct Case {
        const char* name;
        const char* frame;
        size_t len;
        std::string expected;
    } cases[] = {
        {"cmd_sf", cmd_sf, cmd_sf_len, "~0007FSF\x7f"},
        {"cmd_jf", cmd_jf, cmd_jf_len, "~0007FJF\x7f"},
        {"cmd_ec", cmd_ec, cmd_ec_len, "~0007FEC\x7f"},
        {"cmd_cf1", cmd_cf1, cmd_cf1_len, "~0009FCF-1\x7f"},
        {"cmd_cf11", cmd_cf11, cmd_cf11_len, "~0010FCF-11\x7f"},
        {"cmd_ul_1", cmd_ul_1, cmd_ul_1_len, "~0009FUL-1\x7f"},
        {"cmd_ul_2", cmd_ul_2, cmd_ul_2_len, "~0009FUL-2\x7f"},
        {"cmd_re", cmd_re, cmd_re_len, "~0007FRE\x7f"},
        {"cmd_fr", cmd_fr, cmd_fr_len, "~0007FFR\x7f"},
        {"cmd_ep", cmd_ep, cmd_ep_len, "~0009FEP-?\x7f"},
        {"cmd_ad", cmd_ad, cmd_ad_len, "~0007FAD\x7f"},
        {"cmd_efx", cmd_efx, cmd_efx_len, "~0008FEF?\x7f"},
        {"cmd_efxx", cmd_efxx, cmd_efxx_len,
         "~0009FEF?"
         "?\x7f"},
        {"cmd_eax", cmd_eax, cmd_eax_len, "~0008FEA?\x7f"},
        {"cmd_eaxx", cmd_eaxx, cmd_eaxx_len,
         "~0009FEA?"
         "?\x7f"},
        {"cmd_er", cmd_er, cmd_er_len, "~0007FER\x7f"},
        {"xxpgN_1", xxpgN_1, xxpgN_1_len, "~0012FXXPG?-1\x7f"},
        {"xxpgNN_1", xxpgNN_1, xxpgNN_1_len,
         "~0013FXXPG?"
         "?-1\x7f"},
        {"xxpg1_0", xxpg1_0, xxpg1_0_len, "~0012FXXPG1-0\x7f"},
        {"kkN_1", kkN_1, kkN_1_len, "~0010FKK?-1\x7f"},
        {"kkN_0", kkN_0, kkN_0_len, "~0010FKK?-0\x7f"},
        {"ss1_x", ss1_x, ss1_x_len, "~0010FSS1-?\x7f"},
        {"ss2_x", ss2_x, ss2_x_len, "~0010FSS2-?\x7f"},
        {"kt_N", kt_N, kt_N_len, "~0009FKT-?\x7f"},
        {"cmd_pl", cmd_pl, cmd_pl_len, "~0007FPL\x7f"},
        {"cmd_ls", cmd_ls, cmd_ls_len, "~0007FLS\x7f"},
        {"cmd_dl", cmd_dl, cmd_dl_len, "~0007FDL\x7f"},
        {"cmd_mh", cmd_mh, cmd_mh_len, "~0007FMH\x7f"},
        {"acknowledge_OK", acknowledge_OK, acknowledge_OK_len, "~0005A\x7f"},
        {"acknowledge_AN1", acknowledge_AN1, acknowledge_AN1_len, "~0007AN1\x7f"},
        {"acknowledge_AN2", acknowledge_AN2, acknowledge_AN2_len, "~0007AN2\x7f"},
        {"acknowledge_AN5", acknowledge_AN5, acknowledge_AN5_len, "~0007AN5\x7f"},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(c.len, c.expected.size()) << c.name;
        std::string slot(c.expected);
        slot.resize(PK7_SLOT, '\0');
        EXPECT_EQ(std::string(c.frame, PK7_SLOT), slot) << c.name << ": frame and NUL padding";
        // The length field agrees with the bytes sent: everything but the start and end bytes.
        EXPECT_EQ(std::stoul(std::string(c.frame + 1, 4)), c.len - 2) << c.name;
    }
}
