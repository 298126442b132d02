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

// The frames the engine never sends itself; the whole program's tests show every frame it sends.
TEST(Pk7ReadyFrames, UnsentFramesAreByteExactWithTheirLengths) {
    EXPECT_EQ(std::string(cmd_jf, cmd_jf_len), "~0007FJF\x7f");
    EXPECT_EQ(std::string(cmd_cf1, cmd_cf1_len), "~0009FCF-1\x7f");
}
