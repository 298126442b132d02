// POST API: ".cry" containers, configuration uploads, unknown targets, and decryption with a typed password.
#include "http/post_api.h"

#include <gtest/gtest.h>

#include "core/engine.h"
#include "support/engine_harness.h"

using harness::printed_by;

// Processes an upload whose answer was already sent; returns what it printed, stamps marked.
static std::string post(const std::string& target, const std::string& body) {
    parsing_result result{0, "", target, body};
    return printed_by([&] { parse_post_query(result); });
}

// A header is the text line, its whole run of line ends, then 22 bytes; the payload is whole 8-byte blocks.
// Payload bytes above 0x7F arrive as the browser's UTF-8 characters.
TEST(PostApi, CryUploadIsStoredOnlyWhenWellFormed) {
    const std::string upload = "/tuning/device?id=-1&cmd=4&file=a.cry", wrong = "@ Wrong format CRY-file\n";
    const std::string head = "ABC\r\n" + std::string(22, 'H'), unknown = "/tuning/device?id=-1&cmd=";
    const std::tuple<std::string, std::string, std::string, int, std::string> cases[] = {
        // target, body, console, status after, stored payload
        {upload, head + std::string(16, 'P'), "", 11, std::string(16, 'P')},
        {upload, "A\r\n\n\r" + std::string(22, 'H') + "7 bytes\xC3\xBF", "", 11, "7 bytes\xFF"},
        {upload, head + std::string(15, 'P'), wrong, 3, "old"},
        {upload, std::string(22, 'X'), wrong, 3, "old"},
        {"/tuning/device?id=-1&cmd=4&file=firmware.CRY", head + std::string(16, 'P'), "", 10, "old"},
        {unknown, "x", "@ POST UNKNOWN QUERY: " + unknown + "\n", 3, "old"},
    };
    for (const auto& [target, body, console, status, stored] : cases) {
        cry_file_content.assign({'o', 'l', 'd'});
        parser.set_status(3);
        EXPECT_EQ(post(target, body), console) << body;
        EXPECT_EQ(parser.get_status(), status) << body;
        EXPECT_EQ(std::string(cry_file_content.begin(), cry_file_content.end()), stored) << body;
    }
}

TEST(PostApi, DecryptNeedsCipherAndKeyAndOpensWithTheRightPassword) {
    std::string error, key = "pw1", no_key, out = "untouched";
    ASSERT_TRUE(load_cipher_file(VORCORE_SOURCE_DIR "/data/cipher-test.txt", error)) << error;
    const std::string enciphered = harness::cry_payload("Vorlane-x\r\n", key);
    std::vector<char> payload(enciphered.begin(), enciphered.end()), empty;
    EXPECT_FALSE(load_cipher_text("", error));
    EXPECT_FALSE(decrypt_cry(payload, key, out));  // no cipher table loaded
    ASSERT_TRUE(load_cipher_file(VORCORE_SOURCE_DIR "/data/cipher-test.txt", error)) << error;
    EXPECT_FALSE(decrypt_cry(payload, no_key, out) || decrypt_cry(empty, key, out));
    EXPECT_EQ(out, "untouched");
    ASSERT_TRUE(decrypt_cry(payload, key, out));
    EXPECT_EQ(out, "Vorlane-x\r\n");
}
