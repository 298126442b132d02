// POST API: ".cry" containers, configuration uploads, unknown targets, and decryption with a typed password.
#include "http/post_api.h"

#include <gtest/gtest.h>

#include "crypto/CryptoKey.h"
#include "http/api_test_support.h"
#include "http/get_api.h"

namespace {

const std::string upload = "/tuning/device?id=-1&cmd=4";
const std::string cry_head = "ABC\r\n" + std::string(22, 'H');

std::vector<char> bytes_of(const std::string& text) {
    return std::vector<char>(text.begin(), text.end());
}

// Posts a body and returns what it printed.
std::string post(const std::string& target, const std::string& body) {
    parsing_result result;
    result.query = target;
    result.content = body;
    testing::internal::CaptureStdout();
    parse_post_query(result);
    return testing::internal::GetCapturedStdout();
}

class PostApi : public testing::Test {
protected:
    void SetUp() override {
        cry_file_content = bytes_of("previous");
        parser.set_status(3);
    }
    ScopedWorkDir dir;
};

TEST(CryHeader, LengthIsLineLineEndRunAndTail) {
    const std::string tail(22, 'H');
    const std::vector<std::pair<std::string, int>> cases = {
        {"", 0},
        {cry_head + std::string(16, 'P'), 27},
        {"ABC\n" + tail, 26},
        {"A\r\n\n\r" + tail + "xy", 27},
        {"\r\n" + tail, 24},
        {std::string(22, 'X'), 0},
        {cry_head.substr(0, 26), 0},
    };
    for (const auto& [text, header] : cases) {
        std::vector<char> file = bytes_of(text);
        EXPECT_EQ(get_cry_header_len(file), header) << text.size();
    }
}

TEST_F(PostApi, CryUploadStoresPayloadAndWaitsForPassword) {
    EXPECT_EQ(post(upload + "&file=site.cry", cry_head + "0123456789abcdef"), "");
    EXPECT_EQ(cry_file_content, bytes_of("0123456789abcdef"));
    EXPECT_EQ(parser.get_status(), 11);
    // Bytes above 0x7F arrive as the browser's UTF-8 characters.
    EXPECT_EQ(post(upload + ".cry", cry_head + "\xC3\xBF\xC2\x80"
                                               "abcdef"),
              "");
    EXPECT_EQ(cry_file_content, bytes_of("\xFF\x80"
                                         "abcdef"));
}

TEST_F(PostApi, MalformedCryIsRefusedAndKeepsThePreviousUpload) {
    for (const std::string& body :
         {cry_head + std::string(15, 'P'), std::string(22, 'X'), cry_head.substr(0, 20)}) {
        expect_stamped_lines(post(upload + "&file=a.cry", body), {"Wrong format CRY-file"});
        EXPECT_EQ(cry_file_content, bytes_of("previous"));
        EXPECT_EQ(parser.get_status(), 3);
    }
}

TEST_F(PostApi, EmptyBodiesAndOtherCommandsDoNothing) {
    for (const std::string target : {"/tuning/device?id=-1&configset", "/tuning/device?id=-1&cmd=4&f=a.cry",
                                     "/tuning/device?id=-1&cmd=71", "/tuning/device?id=-1&cmd=73"}) {
        EXPECT_EQ(post(target, ""), "") << target;
    }
    EXPECT_EQ(post("/tuning/device?id=-1&cmd=5", "body"), "");
    EXPECT_EQ(cry_file_content, bytes_of("previous"));
    EXPECT_EQ(parser.get_status(), 3);
}

TEST_F(PostApi, UpperCaseCryIsAPlainConfigurationFile) {
    EXPECT_EQ(post(upload + "&file=firmware.CRY", cry_head + std::string(16, 'P')), "");
    EXPECT_EQ(cry_file_content, bytes_of("previous"));
    EXPECT_EQ(parser.get_status(), 10);  // set_status_10 with no port open
}

TEST_F(PostApi, UnknownTargetIsReported) {
    for (const std::string target :
         {"/upload", "/tuning/device?id=-1&cmd=", "/tuning/device?id=-1&configset2"})
        expect_stamped_lines(post(target, "x"), {"POST UNKNOWN QUERY: " + target});
}

// Enciphers a ".cry" payload: the data and its CRC16 (low byte first) under the key text repeated to 32
// bytes.
std::vector<char> encrypt_payload(const std::string& plain, const std::string& key_text) {
    std::vector<uint8_t> buf(plain.begin(), plain.end());
    uint16_t crc = CryptoKey::CRC16(buf.data(), static_cast<int>(buf.size()));
    buf.insert(buf.end(), {static_cast<uint8_t>(crc & 0xFF), static_cast<uint8_t>(crc >> 8)});
    uint8_t key[32];
    for (size_t i = 0; i < sizeof key; ++i) key[i] = static_cast<uint8_t>(key_text[i % key_text.size()]);
    size_t n = buf.size();
    buf.resize(n + 9);  // up to 8 padding bytes and the trailer
    buf.resize(static_cast<size_t>(EncryptGOST(buf.data(), static_cast<int>(n), key)));
    return std::vector<char>(buf.begin(), buf.end());
}

TEST_F(PostApi, DecryptNeedsDataKeyAndCipherAndWrapsAt16Bits) {
    std::vector<char> data = bytes_of("12345678"), empty;
    std::string key = "pw1", no_key, out = "untouched";
    EXPECT_FALSE(decrypt_cry(data, no_key, out));
    EXPECT_FALSE(decrypt_cry(empty, key, out));
    EXPECT_FALSE(decrypt_cry(data, key, out));  // no cipher table loaded yet
    EXPECT_EQ(out, "untouched");

    std::string error;
    ASSERT_TRUE(load_cipher_file(VORCORE_SOURCE_DIR "/data/cipher-test.txt", error)) << error;
    std::vector<char> payload = encrypt_payload("Vorlane-x\r\nfe\r\n", "pw1");
    ASSERT_TRUE(decrypt_cry(payload, key, out));
    EXPECT_EQ(out, "Vorlane-x\r\nfe\r\n");
    std::string wrong = "pw2";
    EXPECT_FALSE(decrypt_cry(payload, wrong, out));
    std::vector<char> wrapped = encrypt_payload("abc", "pw1");
    wrapped.resize(wrapped.size() + 65536, 'z');
    ASSERT_TRUE(decrypt_cry(wrapped, key, out));
    EXPECT_EQ(out, "abc");

    // Upload and open with the password command, as the browser does.
    std::string body = "site\r\n" + std::string(22, 'H'), sent;
    body.append(payload.begin(), payload.end());
    for (unsigned char c : body) {
        if (c >= 0x80) sent += static_cast<char>(c < 0xC0 ? 0xC2 : 0xC3);
        sent += static_cast<char>(c >= 0x80 ? c & 0xBF : c);
    }
    EXPECT_EQ(post(upload + "&file=site.cry", sent), "");
    ASSERT_EQ(cry_file_content, payload);
    for (const auto& [target, answer, status] : {std::tuple{"cmd=12&pass=nope", error_body, 11},
                                                 std::tuple{"cmd=12&pass=pw1&continue", ok_body, 10}}) {
        std::string get_target = std::string("/tuning/device?id=-1&") + target;
        std::stringstream got;
        parse_get_query(get_target, got);
        EXPECT_EQ(got.str(), json_answer(answer)) << target;
        EXPECT_EQ(parser.get_status(), status) << target;
    }
}

}  // namespace
