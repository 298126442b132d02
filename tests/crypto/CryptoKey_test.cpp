// Tests of the GOST cipher, its padding and chaining scheme, the cipher file loader and CRC16.
#include "crypto/CryptoKey.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

using Bytes = std::vector<uint8_t>;

// A fixed 32-byte key; with fixed padding bytes every run sees the same cipher texts, so a
// wrong-key result never depends on luck.
static const uint8_t key_a[] = "key A: thirty-two bytes of text.";
// Scratch outputs of CRY_256_ENCRYPTO.
static int out_len;
static uint8_t flag;

static const char* const test_cipher_file = VORCORE_SOURCE_DIR "/data/cipher-test.txt";

class Cipher : public ::testing::Test {
    std::string error;
    void SetUp() override { ASSERT_TRUE(load_cipher_file(test_cipher_file, error)) << error; }
};

// RFC 8891 section A.3 writes key, plaintext and ciphertext as big-endian numbers: the
// block is a1||a0 with a0 (the low 32 bits) entering the first round, and round key K1
// is the first four key bytes read as a big-endian word. The engine reads little-endian
// words: the block's first word is the one entering the first round, and key word K0 is
// the first four key bytes read little-endian. So the engine sees the RFC block with all
// 8 bytes reversed (a0's bytes low first, then a1's), and the RFC key with the bytes of
// each 4-byte word reversed, the words themselves staying in order.
TEST_F(Cipher, BlockCoreAndCrc16MatchTheirPublishedCheckValues) {
    const uint8_t rfc_key[32] = {0xff, 0xee, 0xdd, 0xcc, 0xbb, 0xaa, 0x99, 0x88, 0x77, 0x66, 0x55,
                                 0x44, 0x33, 0x22, 0x11, 0x00, 0xf0, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5,
                                 0xf6, 0xf7, 0xf8, 0xf9, 0xfa, 0xfb, 0xfc, 0xfd, 0xfe, 0xff};
    const uint8_t rfc_plain[8] = {0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};
    const uint8_t rfc_cipher[8] = {0x4e, 0xe9, 0x01, 0xe5, 0xc2, 0xd8, 0xca, 0x3d};
    Bytes key(32);
    for (size_t i = 0; i < 32; ++i) key[i] = rfc_key[i - i % 4 + 3 - i % 4];
    Bytes block(std::rbegin(rfc_plain), std::rend(rfc_plain));
    gost_encrypt_block(block.data(), key.data());
    EXPECT_EQ(block, Bytes(std::rbegin(rfc_cipher), std::rend(rfc_cipher)));

    // CRC-16/MODBUS gives 0x4B37 for "123456789"; CRC16 returns it with its bytes swapped.
    EXPECT_EQ(CryptoKey::CRC16(reinterpret_cast<const uint8_t*>("123456789"), 9), 0x374B);
    EXPECT_EQ(CryptoKey::CRC16(nullptr, 0), 0xFFFF);
}

// Data of every length, followed by its CRC low byte first, comes back under its own key only
// (the built-in key stands in for a wrong one). Length 0 leaves just the CRC of nothing: fewer
// than 3 bytes, refused.
TEST_F(Cipher, EveryLengthRoundTripsUnderItsOwnKeyOnly) {
    std::srand(12345);  // fixed padding bytes: the same cipher texts every run
    for (int len = 0; len <= 300; ++len) {
        Bytes data(len), out;
        for (int i = 0; i < len; ++i) data[i] = static_cast<uint8_t>(i * 37 + len);
        const uint16_t crc = CryptoKey::CRC16(data.data(), len);
        Bytes buf = data;
        buf.insert(buf.end(), {static_cast<uint8_t>(crc & 0xFF), static_cast<uint8_t>(crc >> 8)});
        buf.resize(len + 11);  // room for up to 8 padding bytes and the trailer
        const int total = EncryptGOST(buf.data(), len + 2, key_a);
        EXPECT_EQ(DecryptGOST(Bytes(buf).data(), total, standartKey, out), 0) << "wrong key, length " << len;
        ASSERT_EQ(DecryptGOST(buf.data(), total, key_a, out), len == 0 ? 0 : len + 2) << "length " << len;
        EXPECT_EQ(out, data) << "length " << len;
    }
}

// The keyless variant writes no trailer, so the decryptor reads the last data byte as one: a
// chosen last byte shows where the padding went, and puts any trailer nibble in front of it.
TEST_F(Cipher, PaddingCompletesTheLastBlockAndTheTrailerNamesIt) {
    uint8_t buf[24] = {0x11, 0x22, 0x33, 0x44, 0x03};  // read as a trailer: 3 padding bytes
    cry_256_position_withoutRand = 30;  // three padding bytes from here show the wrap after byte 31
    ASSERT_EQ(CRY_256_CRYPTO_WITHOUT_RAND(buf, 5, nullptr), 8);
    EXPECT_EQ(cry_256_position_withoutRand, 1);
    ASSERT_EQ(CRY_256_ENCRYPTO(buf, 8, &out_len, &flag, standartKey), buf + 3);
    EXPECT_EQ(Bytes(buf, buf + 8),
              Bytes({standartKey[30], standartKey[31], standartKey[0], 0x11, 0x22, 0x33, 0x44, 0x03}));
    CRY_256_RESET_WITHOUT_RAND();
    EXPECT_EQ(cry_256_position_withoutRand, 0);

    for (int nibble = 9; nibble <= 15; ++nibble) {
        uint8_t bad[16] = {1, 2, 3, 4, 5, 6, static_cast<uint8_t>(0x30 | nibble)};
        ASSERT_EQ(CRY_256_CRYPTO_WITHOUT_RAND(bad, 7, nullptr), 8);
        EXPECT_EQ(CRY_256_ENCRYPTO(bad, 8, &out_len, &flag, standartKey), nullptr) << "nibble " << nibble;
    }

    // With a key: 10 bytes take 5 padding bytes and the trailer; when n + 1 already fills whole
    // blocks, a whole block of 8 padding bytes is added. The trailer's high nibble is 0.
    EXPECT_EQ(EncryptGOST(buf, 10, key_a), 16);
    ASSERT_EQ(EncryptGOST(buf, 15, key_a), 24);
    EXPECT_EQ(CRY_256_ENCRYPTO(buf, 24, &out_len, &flag, key_a), buf + 8);
    EXPECT_EQ(flag, 0);
}

// The cipher is enabled by a well-formed file only; a malformed one is refused with its reason
// and leaves every use of the cipher refused.
TEST(CipherFile, OnlyAWellFormedFileEnablesTheCipher) {
    std::string key(64, 'a'), nine_rows;  // nine valid table rows, CR LF line ends
    for (int i = 0; i < 9; ++i) nine_rows += "0123456789ABCDEF\r\n";
    auto rows = [&](int n) { return nine_rows.substr(0, 18 * n); };
    // {file text, reason it is refused; empty when accepted}
    const std::pair<std::string, std::string> cases[] = {
        {"", "only 0 of 8 table rows found"},
        {rows(7) + key,
         "line 8: table row 7 must be 16 hex digits, found 64 characters (looks like the key line: the table "
         "needs 8 rows)"},
        {rows(9) + key,
         "line 9: key must be 64 hex digits, found 16 characters (a ninth table row? the table has exactly 8 "
         "rows)"},
        {rows(8), "missing the key line (64 hex digits) after the 8 table rows"},
        {"\xEF\xBB\xBF# site data\r\n  fedcba9876543210  \r\n\r\n" + rows(7) + "# key\r\n" + key, ""},
        {rows(2) + "0123456789ABCDEG\r\n" + rows(5) + key,
         "line 3: table row 2 has a non-hex character 'G' at column 16"},
        {rows(4) + "0123456789ABCDEE\r\n" + rows(3) + key,
         "line 5: table row 4 is not a permutation of 0..F: digit E appears twice"},
        {rows(8) + key.substr(2), "line 9: key must be 64 hex digits, found 62 characters"},
        {rows(8) + key + "\n\n00", "line 11: unexpected data after the key line"},
    };
    std::string error;  // each load must replace the reason the one before left
    for (const auto& [text, reason] : cases) {
        EXPECT_EQ(load_cipher_text(text, error), reason.empty()) << reason;
        EXPECT_EQ(error, reason);
    }

    // The last file was malformed: every use is refused and touches nothing. The buffer must not be
    // uniform, as the rounds of a zeroed table would leave uniform bytes as they are.
    Bytes buf(key_a, key_a + 16), out;
    EXPECT_EQ(EncryptGOST(buf.data(), 10, key_a), 0);
    EXPECT_EQ(CRY_256_CRYPTO_WITH_RND_FLAG(buf.data(), 10, 0, 1, key_a), 0);
    EXPECT_EQ(CRY_256_CRYPTO_WITHOUT_RAND(buf.data(), 10, key_a), 0);
    EXPECT_EQ(DecryptGOST(buf.data(), 16, key_a, out), 0);
    EXPECT_EQ(CRY_256_ENCRYPTO(buf.data(), 16, &out_len, &flag, key_a), nullptr);
    gost_encrypt_block(buf.data(), key_a);
    gost_decrypt_block(buf.data() + 8, key_a);
    EXPECT_EQ(buf, Bytes(key_a, key_a + 16)) << "nothing was touched";
}
