// The POST API: configuration, ".cry" and firmware uploads, processed once their answer is sent.
#include "http/post_api.h"

#include <cstddef>
#include <cstdint>

#include "core/debug.h"
#include "core/engine.h"
#include "crypto/CryptoKey.h"
#include "model/history.h"

std::vector<char> cry_file_content;

namespace {

const std::string configset_target = "/tuning/device?id=-1&configset";
constexpr size_t cry_header_tail = 22;
constexpr size_t cry_block = 8;

bool is_line_end(char c) {
    return c == '\r' || c == '\n';
}

void load_firmware(int target, parsing_result& result) {
    if (result.content.empty()) return;
    std::vector<char> bytes;
    str_to_bin(result.content, bytes);
    parser.firmware_to_dev(target, bytes);
}

void load_config_file(std::vector<char>& bytes) {
    std::string text(bytes.begin(), bytes.end());
    load_config_text(text, SnapshotKind::file);
    parser.set_status_10();
}

// Keeps the encrypted payload until the user types the file's password (GET command 12).
void store_cry_file(std::vector<char>& bytes) {
    size_t header = static_cast<size_t>(get_cry_header_len(bytes));
    if (header == 0 || (bytes.size() - header) % cry_block != 0) {
        console_stamped("Wrong format CRY-file");
        return;
    }
    cry_file_content.assign(bytes.begin() + static_cast<std::ptrdiff_t>(header), bytes.end());
    parser.set_status(11);
}

}  // namespace

void parse_post_query(parsing_result& result) {
    const std::string& target = result.query;
    if (target == configset_target) {
        if (!result.content.empty()) parser.json_to_cfg(result.content);
        return;
    }
    int command = parse_command(target);
    if (command < 1) {
        console_stamped("POST UNKNOWN QUERY: " + target);
        return;
    }
    if (command == 71 || command == 73) {
        load_firmware(command == 71 ? 0 : 1, result);
        return;
    }
    if (command != 4 || result.content.empty()) return;

    std::vector<char> bytes;
    str_to_bin(result.content, bytes);
    // The file name travels in the target; only the lower-case extension marks an encrypted file.
    if (target.find(".cry") == std::string::npos)
        load_config_file(bytes);
    else
        store_cry_file(bytes);
}

int get_cry_header_len(std::vector<char>& file) {
    if (file.empty()) return 0;
    size_t i = 0;
    while (i < file.size() && !is_line_end(file[i])) ++i;
    while (i < file.size() && is_line_end(file[i])) ++i;
    size_t header = i + cry_header_tail;
    return header <= file.size() ? static_cast<int>(header) : 0;
}

bool decrypt_cry(std::vector<char>& data, std::string& key, std::string& out) {
    // An empty key text would leave the key bytes undefined.
    if (data.empty() || key.empty()) return false;
    uint8_t key_bytes[32];
    for (size_t i = 0; i < sizeof key_bytes; ++i) key_bytes[i] = static_cast<uint8_t>(key[i % key.size()]);

    std::vector<uint8_t> buffer(data.begin(), data.end());
    // The container format carries a 16-bit length: larger files wrap.
    int length = static_cast<uint16_t>(data.size());
    if (length == 0) return false;
    std::vector<uint8_t> plain;
    if (DecryptGOST(buffer.data(), length, key_bytes, plain) <= 0) return false;
    out.assign(plain.begin(), plain.end());
    return true;
}
