// Tests of the GOST cipher, its padding and chaining scheme, the cipher file loader and CRC16.
#include "crypto/CryptoKey.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const std::string test_cipher_path = std::string(VORCORE_SOURCE_DIR) + "/data/cipher-test.txt";

std::vector<uint8_t> from_hex(const std::string& hex) {
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return out;
}

std::vector<uint8_t> with_crc(std::vector<uint8_t> data) {
    uint16_t crc = CryptoKey::CRC16(data.data(), static_cast<int>(data.size()));
    data.push_back(static_cast<uint8_t>(crc & 0xFF));
    data.push_back(static_cast<uint8_t>(crc >> 8));
    return data;
}

// Two fixed keys that differ in every byte, so a wrong-key result never depends on luck.
struct Key {
    uint8_t bytes[32];
    explicit Key(uint8_t seed) {
        for (int i = 0; i < 32; ++i) bytes[i] = static_cast<uint8_t>(seed + 11 * i);
    }
};
const Key key_a_holder(0x21), key_b_holder(0x22);
const uint8_t* const key_a = key_a_holder.bytes;
const uint8_t* const key_b = key_b_holder.bytes;

class Cipher : public ::testing::Test {
protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(load_cipher_file(test_cipher_path.c_str(), error)) << error;
        std::srand(12345);  // fixed padding bytes: every run sees the same cipher texts
    }
};

}  // namespace

TEST(Crc16, ModbusValueWithBytesSwapped) {
    const std::string check = "123456789";
    const auto* bytes = reinterpret_cast<const uint8_t*>(check.data());
    EXPECT_EQ(CryptoKey::CRC16(bytes, 9), 0x374B);
    EXPECT_EQ(CryptoKey::CRC16(bytes, 0), 0xFFFF);
    EXPECT_EQ(CryptoKey::CRC16(bytes, -1), 0xFFFF);
    EXPECT_EQ(CryptoKey::CRC16(nullptr, 0), 0xFFFF);
}

// RFC 8891 section A.3 writes key, plaintext and ciphertext as big-endian numbers: the
// block is a1||a0 with a0 (the low 32 bits) entering the first round, and round key K1
// is the first four key bytes read as a big-endian word. The engine reads little-endian
// words: the block's first word is the one entering the first round, and key word K0 is
// the first four key bytes read little-endian. So the engine sees the RFC block with all
// 8 bytes reversed (a0's bytes low first, then a1's), and the RFC key with the bytes of
// each 4-byte word reversed, the words themselves staying in order.
TEST_F(Cipher, BlockCoreMatchesMagmaTestVectorOfRfc8891) {
    const std::vector<uint8_t> rfc_key =
        from_hex("ffeeddccbbaa99887766554433221100f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff");
    const std::vector<uint8_t> rfc_plain = from_hex("fedcba9876543210");
    const std::vector<uint8_t> rfc_cipher = from_hex("4ee901e5c2d8ca3d");

    uint8_t key[32];
    for (int word = 0; word < 8; ++word) {
        for (int b = 0; b < 4; ++b) key[4 * word + b] = rfc_key[4 * word + 3 - b];
    }
    uint8_t block[8];
    for (int i = 0; i < 8; ++i) block[i] = rfc_plain[7 - i];

    gost_encrypt_block(block, key);
    std::vector<uint8_t> got(block, block + 8);
    EXPECT_EQ(got, std::vector<uint8_t>(rfc_cipher.rbegin(), rfc_cipher.rend()));

    gost_decrypt_block(block, key);
    got.assign(block, block + 8);
    EXPECT_EQ(got, std::vector<uint8_t>(rfc_plain.rbegin(), rfc_plain.rend()));
}

TEST_F(Cipher, EveryLengthRoundTripsWithItsCrc) {
    for (int len = 1; len <= 300; ++len) {
        std::vector<uint8_t> data(static_cast<size_t>(len));
        for (int i = 0; i < len; ++i) data[static_cast<size_t>(i)] = static_cast<uint8_t>(i * 37 + len);
        std::vector<uint8_t> buf = with_crc(data);
        const int n = static_cast<int>(buf.size());
        buf.resize(buf.size() + 9);  // room for up to 8 padding bytes and the trailer

        const int enciphered = EncryptGOST(buf.data(), n, key_a);
        ASSERT_EQ(enciphered % 8, 0) << "length " << len;
        ASSERT_EQ(enciphered, n + 9 - (n + 1) % 8) << "length " << len;  // padding 1..8, data, trailer

        std::vector<uint8_t> out;
        ASSERT_EQ(DecryptGOST(buf.data(), enciphered, key_a, out), n) << "length " << len;
        EXPECT_EQ(out, data) << "length " << len;
    }
}

// A chosen plaintext shows the layout: padding, data, trailer holding the padding length.
TEST_F(Cipher, PaddingAndTrailerLayout) {
    struct Case {
        int n;
        int padding;
    } cases[] = {{10, 5}, {7, 8}, {15, 8}, {0, 7}, {6, 1}};
    for (const Case& c : cases) {
        std::vector<uint8_t> buf(static_cast<size_t>(c.n) + 9);
        for (int i = 0; i < c.n; ++i) buf[static_cast<size_t>(i)] = static_cast<uint8_t>(0xA0 + i);
        const std::vector<uint8_t> data(buf.begin(), buf.begin() + c.n);

        const int total = EncryptGOST(buf.data(), c.n, key_a);
        ASSERT_EQ(total, c.padding + c.n + 1) << "n " << c.n;

        int out_len = 0;
        uint8_t flag = 0xEE;
        uint8_t* plain = CRY_256_ENCRYPTO(buf.data(), total, &out_len, &flag, key_a);
        ASSERT_EQ(plain, buf.data() + c.padding) << "n " << c.n;
        ASSERT_EQ(out_len, c.n + 1) << "n " << c.n;
        EXPECT_EQ(flag, 0) << "n " << c.n;
        EXPECT_EQ(std::vector<uint8_t>(plain, plain + c.n), data) << "n " << c.n;
        EXPECT_EQ(plain[c.n], c.padding) << "n " << c.n;
    }
}

TEST_F(Cipher, DecryptRefusesBadInput) {
    std::vector<uint8_t> out = {0x55};

    uint8_t two[16] = {0x01, 0x02};  // one data byte and no room for a CRC
    const int short_len = EncryptGOST(two, 2, key_a);
    EXPECT_EQ(DecryptGOST(two, short_len, key_a, out), 0);

    std::vector<uint8_t> buf = with_crc({'s', 'e', 'c', 'r', 'e', 't', '!'});
    const int n = static_cast<int>(buf.size());
    buf.resize(buf.size() + 9);
    const int total = EncryptGOST(buf.data(), n, key_a);
    std::vector<uint8_t> copy = buf;
    EXPECT_EQ(DecryptGOST(copy.data(), total, key_b, out), 0) << "wrong key";
    copy = buf;
    EXPECT_EQ(DecryptGOST(copy.data(), total - 1, key_a, out), 0) << "not whole blocks";
    copy = buf;
    EXPECT_EQ(DecryptGOST(copy.data(), 0, key_a, out), 0) << "empty";
    EXPECT_EQ(out, std::vector<uint8_t>{0x55}) << "a failed decryption leaves the output alone";
}

// The keyless variant leaves the last data byte where the trailer would be, so a chosen
// last byte puts any trailer nibble in front of the decryptor.
TEST_F(Cipher, TrailerNibbleAboveEightFails) {
    for (int nibble = 0; nibble <= 15; ++nibble) {
        uint8_t buf[16] = {1, 2, 3, 4, 5, 6, static_cast<uint8_t>(0x30 | nibble)};
        CRY_256_RESET_WITHOUT_RAND();
        ASSERT_EQ(CRY_256_CRYPTO_WITHOUT_RAND(buf, 7, nullptr), 8);
        int out_len = 0;
        uint8_t flag = 0;
        uint8_t* plain = CRY_256_ENCRYPTO(buf, 8, &out_len, &flag, standartKey);
        if (nibble > 8) {
            EXPECT_EQ(plain, nullptr) << "nibble " << nibble;
            continue;
        }
        ASSERT_EQ(plain, buf + nibble) << "nibble " << nibble;
        EXPECT_EQ(out_len, 8 - nibble);
        EXPECT_EQ(flag, 3) << "the high nibble is handed back";
    }
}

TEST_F(Cipher, KeylessVariantPadsWithBuiltInKeyBytes) {
    // Three padding bytes for five data bytes; start at 30 to see the wrap after byte 31.
    uint8_t buf[16] = {0x11, 0x22, 0x33, 0x44, 0x03};
    CRY_256_RESET_WITHOUT_RAND();
    cry_256_position_withoutRand = 30;
    ASSERT_EQ(CRY_256_CRYPTO_WITHOUT_RAND(buf, 5, nullptr), 8);
    EXPECT_EQ(cry_256_position_withoutRand, 1);

    int out_len = 0;
    uint8_t flag = 0;
    // The last data byte, 0x03, reads as a trailer of three: the padding lies in front.
    ASSERT_EQ(CRY_256_ENCRYPTO(buf, 8, &out_len, &flag, standartKey), buf + 3);
    const uint8_t expected[8] = {
        standartKey[30], standartKey[31], standartKey[0], 0x11, 0x22, 0x33, 0x44, 0x03};
    EXPECT_EQ(std::memcmp(buf, expected, 8), 0);

    CRY_256_RESET_WITHOUT_RAND();
    EXPECT_EQ(cry_256_position_withoutRand, 0);
}

TEST(CipherFile, EveryUseIsRefusedWithoutATable) {
    std::string error;
    ASSERT_FALSE(load_cipher_file("/nonexistent/cipher.txt", error));
    EXPECT_EQ(error.rfind("cannot open /nonexistent/cipher.txt", 0), 0u) << error;
    EXPECT_FALSE(cipher_ready());

    const uint8_t original[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    uint8_t buf[16];
    std::memcpy(buf, original, sizeof buf);
    std::vector<uint8_t> out;
    int out_len = 0;
    uint8_t flag = 0;
    uint32_t state[2] = {1, 2};
    EXPECT_EQ(EncryptGOST(buf, 10, key_a), 0);
    EXPECT_EQ(CRY_256_CRYPTO_WITH_RND_FLAG(buf, 10, 0, 1, key_a), 0);
    EXPECT_EQ(CRY_256_CRYPTO_WITHOUT_RAND(buf, 10, key_a), 0);
    EXPECT_EQ(DecryptGOST(buf, 16, key_a, out), 0);
    EXPECT_EQ(CRY_256_ENCRYPTO(buf, 16, &out_len, &flag, key_a), nullptr);
    gost_encrypt_block(buf, key_a);
    gost_decrypt_block(buf + 8, key_a);
    CRY_GOST_CRYPTO_STEP(state, 0x12345678);
    EXPECT_EQ(std::memcmp(buf, original, sizeof buf), 0) << "nothing was touched";
    EXPECT_EQ(state[0], 1u);
    EXPECT_EQ(state[1], 2u);
}

TEST(CipherFile, AcceptsCommentsCaseByteOrderMarkAndLineEnds) {
    const std::string text =
        "\xEF\xBB\xBF\r\n# site cipher data\r\n  c462a5b9e8d703f1  "
        "\r\n68239A5C1E47BD0F\r\n\r\nB3582FADE174C960\r\n"
        "C821D4F670A53E9B\r\n7F5A816D093EB42C\r\n# comment between rows\r\n5DF692CAB78143E0\r\n"
        "8E25691CF4B0DA37\r\n17ED05834FA69CB2\r\n"
        "000102030405060708090a0b0c0d0e0f101112131415161718191A1B1C1D1E1F\r\n";
    std::string error = "stale";
    ASSERT_TRUE(load_cipher_text(text, error)) << error;
    EXPECT_TRUE(cipher_ready());
    EXPECT_EQ(error, "");
    const uint8_t row0[16] = {12, 4, 6, 2, 10, 5, 11, 9, 14, 8, 13, 7, 0, 3, 15, 1};
    EXPECT_EQ(std::memcmp(CRY_GOST_CRYPTO_TABLE[0], row0, 16), 0);
    EXPECT_EQ(CRY_GOST_CRYPTO_TABLE[7][15], 2);
    for (int i = 0; i < 32; ++i) EXPECT_EQ(standartKey[i], i);
}

TEST(CipherFile, MalformedFilesAreRejectedWithAReason) {
    const std::string rows[8] = {"C462A5B9E8D703F1", "68239A5C1E47BD0F", "B3582FADE174C960",
                                 "C821D4F670A53E9B", "7F5A816D093EB42C", "5DF692CAB78143E0",
                                 "8E25691CF4B0DA37", "17ED05834FA69CB2"};
    const std::string key = "766f72636f72652d70616e656c2d73696d756c61746f722d746573742d6b6579";
    auto table = [&](int count) {
        std::string t;
        for (int i = 0; i < count; ++i) t += rows[i % 8] + "\n";
        return t;
    };
    struct Case {
        const char* what;
        std::string text;
        std::string reason;
    } cases[] = {
        {"empty", "", "only 0 of 8 table rows found"},
        {"seven rows", table(7) + key + "\n",
         "line 8: table row 7 must be 16 hex digits, found 64 characters (looks like the key line: the table "
         "needs 8 rows)"},
        {"nine rows", table(9) + key + "\n",
         "line 9: key must be 64 hex digits, found 16 characters (a ninth table row? the table has exactly 8 "
         "rows)"},
        {"no key", "# table only\n" + table(8),
         "missing the key line (64 hex digits) after the 8 table rows"},
        {"non-hex", table(2) + "C821D4F67OA53E9B\n" + table(5) + key,
         "line 3: table row 2 has a non-hex character 'O' at column 10"},
        {"not a permutation", table(4) + "7F5A816D093EB42F\n" + table(3) + key,
         "line 5: table row 4 is not a permutation of 0..F: digit F appears twice"},
        {"short key", table(8) + key.substr(0, 62) + "\n",
         "line 9: key must be 64 hex digits, found 62 characters"},
        {"trailing data", table(8) + key + "\n\n00\n", "line 11: unexpected data after the key line"},
    };
    for (const Case& c : cases) {
        std::string error;
        EXPECT_FALSE(load_cipher_text(c.text, error)) << c.what;
        EXPECT_EQ(error, c.reason) << c.what;
        EXPECT_FALSE(cipher_ready()) << c.what;
    }
}
