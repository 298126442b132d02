// Tests of PK7 framing, byte stuffing and the ready-made command frames.
#include "link/pk7.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

TEST(Pk7Frame, LengthFieldLimitAndStuffing) {
    std::string escaped_7e;  // 507 stuffed 0x7E bytes: 1014 bytes on the wire
    for (int i = 0; i < 507; ++i) escaped_7e += "}>";
    // {binary frame?, payload, expected frame; "old" when refused and the output left alone}
    const std::tuple<bool, std::string, std::string> cases[] = {
        {false, "", std::string("~0005F\x7f")},
        {true, std::string("\x7c\x7d\x7e\x7f\x80", 5), "~0010B\x7c}=}>}?\x80\x7f"},
        // Text frames are never stuffed.
        {false, std::string(507, '\x7e'), "~0512F" + std::string(507, '\x7e') + "\x7f"},
        {true, std::string(507, '\x7e'), "~0512B" + escaped_7e + "\x7f"},
        {false, std::string(508, 'x'), "old"},
    };
    for (auto [binary, payload, expected] : cases) {
        std::vector<char> out = {'o', 'l', 'd'};
        const int result = binary ? form_pk7_packet_binary('B', payload.data(), payload.size(), out)
                                  : form_pk7_packet_txt('F', payload.data(), payload.size(), out);
        EXPECT_EQ(result, expected == "old" ? 0 : 1) << payload.size();
        EXPECT_EQ(std::string(out.begin(), out.end()), expected) << payload.size();
    }
}

// Each sender passes the frame's _len as the byte count: the first _len bytes are the whole frame.
#define READY(name) #name, name, name##_len
TEST(Pk7ReadyFrames, AreByteExactWithTheirLengths) {
    const std::tuple<const char*, const char*, size_t, std::string> cases[] = {
        {READY(cmd_sf), "~0007FSF\x7f"},          {READY(cmd_jf), "~0007FJF\x7f"},
        {READY(cmd_ec), "~0007FEC\x7f"},          {READY(cmd_cf1), "~0009FCF-1\x7f"},
        {READY(cmd_cf11), "~0010FCF-11\x7f"},     {READY(cmd_ul_1), "~0009FUL-1\x7f"},
        {READY(cmd_ul_2), "~0009FUL-2\x7f"},      {READY(cmd_re), "~0007FRE\x7f"},
        {READY(cmd_fr), "~0007FFR\x7f"},          {READY(cmd_ep), "~0009FEP-?\x7f"},
        {READY(cmd_ad), "~0007FAD\x7f"},          {READY(cmd_efx), "~0008FEF?\x7f"},
        {READY(cmd_efxx), "~0009FEF?\?\x7f"},     {READY(cmd_eax), "~0008FEA?\x7f"},
        {READY(cmd_eaxx), "~0009FEA?\?\x7f"},     {READY(cmd_er), "~0007FER\x7f"},
        {READY(xxpgN_1), "~0012FXXPG?-1\x7f"},    {READY(xxpgNN_1), "~0013FXXPG?\?-1\x7f"},
        {READY(xxpg1_0), "~0012FXXPG1-0\x7f"},    {READY(kkN_1), "~0010FKK?-1\x7f"},
        {READY(kkN_0), "~0010FKK?-0\x7f"},        {READY(ss1_x), "~0010FSS1-?\x7f"},
        {READY(ss2_x), "~0010FSS2-?\x7f"},        {READY(kt_N), "~0009FKT-?\x7f"},
        {READY(cmd_pl), "~0007FPL\x7f"},          {READY(cmd_ls), "~0007FLS\x7f"},
        {READY(cmd_dl), "~0007FDL\x7f"},          {READY(cmd_mh), "~0007FMH\x7f"},
        {READY(acknowledge_OK), "~0005A\x7f"},    {READY(acknowledge_AN1), "~0007AN1\x7f"},
        {READY(acknowledge_AN2), "~0007AN2\x7f"}, {READY(acknowledge_AN5), "~0007AN5\x7f"}};
    for (const auto& [name, frame, len, expected] : cases)
        EXPECT_EQ(std::string(frame, len), expected) << name;
}
