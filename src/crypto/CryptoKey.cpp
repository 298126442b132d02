// GOST 28147-89 cipher with the panel's padding and chaining scheme, the cipher file loader, and CRC16.
#include "crypto/CryptoKey.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "core/utils.h"

uint8_t CRY_GOST_CRYPTO_TABLE[8][16];
uint8_t standartKey[32];
uint8_t cry_256_position_withoutRand = 0;

// Set only after a whole file has been checked, so a half-parsed file never reaches the cipher.
static std::atomic<bool> cipher_loaded{false};

bool cipher_ready() {
    return cipher_loaded.load(std::memory_order_acquire);
}

// ---------------------------------------------------------------- cipher file

#include "text/txt_to_utf8.h"

namespace {

constexpr int table_rows = 8;
constexpr size_t row_digits = 16;
constexpr size_t key_digits = 64;
// A cipher file is a dozen short lines; anything far larger is not one.
constexpr std::streamsize max_cipher_file_size = 64 * 1024;

struct CipherData {
    uint8_t table[8][16];
    uint8_t key[32];
};

std::string trim(const std::string& s) {
    const char* blanks = " \t\r\n\v\f";
    size_t first = s.find_first_not_of(blanks);
    if (first == std::string::npos) return "";
    size_t last = s.find_last_not_of(blanks);
    return s.substr(first, last - first + 1);
}

std::string line_prefix(int line_no) {
    return "line " + std::to_string(line_no) + ": ";
}

// Index of the first non-hex character, or npos when all are hex digits.
size_t first_non_hex(const std::string& s) {
    for (size_t i = 0; i < s.size(); ++i) {
        if (hex_value(s[i]) < 0) return i;
    }
    return std::string::npos;
}

std::string describe_char(char c) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u >= 0x21 && u < 0x7F) return std::string("'") + c + "'";
    static const char digits[] = "0123456789ABCDEF";
    return std::string("byte 0x") + digits[u >> 4] + digits[u & 0x0F];
}

// True for a line of exactly `digits` hex digits; otherwise `error` says why,
// with `hint` when the line has the length of the other kind of line.
bool is_hex_line(const std::string& text, const std::string& what, size_t digits, size_t other_digits,
                 const char* hint, std::string& error) {
    if (text.size() != digits) {
        error = what + " must be " + std::to_string(digits) + " hex digits, found " +
                std::to_string(text.size()) + " characters";
        if (text.size() == other_digits) error += hint;
        return false;
    }
    size_t bad = first_non_hex(text);
    if (bad == std::string::npos) return true;
    error = what + " has a non-hex character " + describe_char(text[bad]) + " at column " +
            std::to_string(bad + 1);
    return false;
}

bool parse_row(const std::string& text, int row, int line_no, uint8_t out[16], std::string& error) {
    std::string what = line_prefix(line_no) + "table row " + std::to_string(row);
    if (!is_hex_line(text, what, row_digits, key_digits, " (looks like the key line: the table needs 8 rows)",
                     error))
        return false;
    bool seen[16] = {};
    for (size_t j = 0; j < row_digits; ++j) {
        int v = hex_value(text[j]);
        if (seen[v]) {
            error = what + " is not a permutation of 0..F: digit " + text[j] + " appears twice";
            return false;
        }
        seen[v] = true;
        out[j] = static_cast<uint8_t>(v);
    }
    return true;
}

bool parse_key(const std::string& text, int line_no, uint8_t out[32], std::string& error) {
    std::string what = line_prefix(line_no) + "key";
    if (!is_hex_line(text, what, key_digits, row_digits, " (a ninth table row? the table has exactly 8 rows)",
                     error))
        return false;
    for (size_t i = 0; i < 32; ++i) {
        out[i] = static_cast<uint8_t>(hex_value(text[2 * i]) << 4 | hex_value(text[2 * i + 1]));
    }
    return true;
}

bool parse_cipher_text(const std::string& text, CipherData& data, std::string& error) {
    // Editors on other systems may save the file with a UTF-8 byte order mark.
    const std::string bom = "\xEF\xBB\xBF";
    std::vector<std::string> lines;
    split(text.compare(0, bom.size(), bom) == 0 ? text.substr(bom.size()) : text, '\n', lines);
    int line_no = 0;
    int rows = 0;
    bool have_key = false;
    for (const std::string& raw : lines) {
        ++line_no;
        std::string line = trim(raw);
        if (line.empty() || line[0] == '#') continue;
        if (have_key) {
            error = line_prefix(line_no) + "unexpected data after the key line";
            return false;
        }
        if (rows < table_rows) {
            if (!parse_row(line, rows, line_no, data.table[rows], error)) return false;
            ++rows;
            continue;
        }
        if (!parse_key(line, line_no, data.key, error)) return false;
        have_key = true;
    }
    if (rows < table_rows) {
        error = "only " + std::to_string(rows) + " of 8 table rows found";
        return false;
    }
    if (!have_key) {
        error = "missing the key line (64 hex digits) after the 8 table rows";
        return false;
    }
    return true;
}

void forget_cipher() {
    cipher_loaded.store(false, std::memory_order_release);
    std::memset(CRY_GOST_CRYPTO_TABLE, 0, sizeof CRY_GOST_CRYPTO_TABLE);
    std::memset(standartKey, 0, sizeof standartKey);
}

}  // namespace

bool load_cipher_text(const std::string& text, std::string& error) {
    forget_cipher();
    CipherData data{};
    if (!parse_cipher_text(text, data, error)) return false;
    std::memcpy(CRY_GOST_CRYPTO_TABLE, data.table, sizeof CRY_GOST_CRYPTO_TABLE);
    std::memcpy(standartKey, data.key, sizeof standartKey);
    cry_256_position_withoutRand = 0;
    error.clear();
    cipher_loaded.store(true, std::memory_order_release);
    return true;
}

bool load_cipher_file(const char* path, std::string& error) {
    forget_cipher();
    if (path == nullptr) {
        error = "cannot open the cipher file: no path given";
        return false;
    }
    errno = 0;
    std::unique_ptr<FILE, decltype(&fclose)> file(fopen(path, "rb"), &fclose);
    if (!file) {
        error = std::string("cannot open ") + path +
                (errno ? std::string(" (") + std::strerror(errno) + ")" : "");
        return false;
    }
    std::string text;
    char chunk[4096];
    for (size_t got; (got = fread(chunk, 1, sizeof chunk, file.get())) > 0;) {
        text.append(chunk, got);
        if (text.size() > static_cast<size_t>(max_cipher_file_size)) {
            error = std::string(path) + " is too large to be a cipher file";
            return false;
        }
    }
    if (ferror(file.get())) {
        error = std::string("cannot read ") + path;
        return false;
    }
    return load_cipher_text(text, error);
}

// ---------------------------------------------------------------- block cipher

namespace {

uint32_t load_le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

void store_le32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
    p[2] = static_cast<uint8_t>(v >> 16);
    p[3] = static_cast<uint8_t>(v >> 24);
}

uint32_t substitute(uint32_t s) {
    uint32_t out = 0;
    for (int i = 0; i < 8; ++i) {
        uint32_t nibble = (s >> (4 * i)) & 0x0F;
        out |= static_cast<uint32_t>(CRY_GOST_CRYPTO_TABLE[i][nibble]) << (4 * i);
    }
    return out;
}

// The round itself; callers have already checked that a table is loaded.
void gost_round(uint32_t state[2], uint32_t key_word) {
    uint32_t s = substitute(state[0] + key_word);
    s = (s << 11) | (s >> 21);
    uint32_t result = s ^ state[1];
    state[1] = state[0];
    state[0] = result;
}

void key_words(const uint8_t key[32], uint32_t k[8]) {
    for (int i = 0; i < 8; ++i) k[i] = load_le32(key + 4 * i);
}

// Both directions finish the same way: the last round's halves are written back swapped.
void store_swapped(uint8_t block[8], const uint32_t state[2]) {
    store_le32(block, state[1]);
    store_le32(block + 4, state[0]);
}

void encrypt_block(uint8_t block[8], const uint32_t k[8]) {
    uint32_t state[2] = {load_le32(block), load_le32(block + 4)};
    for (int pass = 0; pass < 3; ++pass) {
        for (int i = 0; i < 8; ++i) gost_round(state, k[i]);
    }
    for (int i = 7; i >= 0; --i) gost_round(state, k[i]);
    store_swapped(block, state);
}

void decrypt_block(uint8_t block[8], const uint32_t k[8]) {
    uint32_t state[2] = {load_le32(block), load_le32(block + 4)};
    for (int i = 0; i < 8; ++i) gost_round(state, k[i]);
    for (int pass = 0; pass < 3; ++pass) {
        for (int i = 7; i >= 0; --i) gost_round(state, k[i]);
    }
    store_swapped(block, state);
}

uint8_t rotl8(uint8_t v) {
    return static_cast<uint8_t>(v << 1 | v >> 7);
}
uint8_t rotr8(uint8_t v) {
    return static_cast<uint8_t>(v >> 1 | v << 7);
}

}  // namespace

void CRY_GOST_CRYPTO_STEP(uint32_t state[2], uint32_t key_word) {
    if (!cipher_ready() || state == nullptr) return;
    gost_round(state, key_word);
}

void gost_encrypt_block(uint8_t block[8], const uint8_t key[32]) {
    if (!cipher_ready() || block == nullptr || key == nullptr) return;
    uint32_t k[8];
    key_words(key, k);
    encrypt_block(block, k);
}

void gost_decrypt_block(uint8_t block[8], const uint8_t key[32]) {
    if (!cipher_ready() || block == nullptr || key == nullptr) return;
    uint32_t k[8];
    key_words(key, k);
    decrypt_block(block, k);
}

void CRY_256_RESET_WITHOUT_RAND() {
    cry_256_position_withoutRand = 0;
}

// ---------------------------------------------------------------- padding, chaining, blocks

int CRY_256_CRYPTO_WITH_RND_FLAG(uint8_t* buf, int n, int /*ignored*/, int own_key, const uint8_t* key) {
    if (!cipher_ready() || buf == nullptr || n < 0) return 0;
    if (own_key != 0 && key == nullptr) return 0;
    const uint8_t* used_key = own_key != 0 ? key : standartKey;
    const int trailer = own_key != 0 ? 1 : 0;
    const int pad = 8 - (n + trailer) % 8;

    std::memmove(buf + pad, buf, static_cast<size_t>(n));
    for (int i = 0; i < pad; ++i) {
        if (trailer) {
            buf[i] = static_cast<uint8_t>(std::rand());
        } else {
            buf[i] = standartKey[cry_256_position_withoutRand];
            cry_256_position_withoutRand = static_cast<uint8_t>((cry_256_position_withoutRand + 1) % 32);
        }
    }
    if (trailer) buf[pad + n] = static_cast<uint8_t>(pad);
    const int total = pad + n + trailer;

    for (int i = 1; i < total; ++i) buf[i] = rotl8(static_cast<uint8_t>(buf[i - 1] ^ buf[i]));

    uint32_t k[8];
    key_words(used_key, k);
    for (int off = 0; off < total; off += 8) encrypt_block(buf + off, k);
    return total;
}

int EncryptGOST(uint8_t* buf, int n, const uint8_t* key) {
    return CRY_256_CRYPTO_WITH_RND_FLAG(buf, n, 0, 1, key);
}

int CRY_256_CRYPTO_WITHOUT_RAND(uint8_t* buf, int n, const uint8_t* /*key*/) {
    return CRY_256_CRYPTO_WITH_RND_FLAG(buf, n, 0, 0, nullptr);
}

uint8_t* CRY_256_ENCRYPTO(uint8_t* buf, int len, int* out_len, uint8_t* flag, const uint8_t* key) {
    if (!cipher_ready() || buf == nullptr || key == nullptr || out_len == nullptr || flag == nullptr)
        return nullptr;
    // Only whole cipher blocks can be deciphered; a ragged tail means the data is not ours.
    if (len <= 0 || len % 8 != 0) return nullptr;

    uint32_t k[8];
    key_words(key, k);
    for (int off = len - 8; off >= 0; off -= 8) decrypt_block(buf + off, k);
    for (int i = len - 1; i >= 1; --i) buf[i] = static_cast<uint8_t>(rotr8(buf[i]) ^ buf[i - 1]);

    const int pad = buf[len - 1] & 0x0F;
    if (pad > 8) return nullptr;
    *flag = static_cast<uint8_t>(buf[len - 1] >> 4);
    *out_len = len - pad;
    return buf + pad;
}

int DecryptGOST(uint8_t* buf, int len, const uint8_t* key, std::vector<uint8_t>& out) {
    int plain_len = 0;
    uint8_t flag = 0;
    uint8_t* plain = CRY_256_ENCRYPTO(buf, len, &plain_len, &flag, key);
    if (plain == nullptr) return 0;
    const int m = plain_len - 1;  // without the trailer byte
    if (m < 3) return 0;
    const uint16_t crc = CryptoKey::CRC16(plain, m - 2);
    if (plain[m - 2] != static_cast<uint8_t>(crc & 0xFF) || plain[m - 1] != static_cast<uint8_t>(crc >> 8))
        return 0;
    out.assign(plain, plain + (m - 2));
    return m;
}

// ---------------------------------------------------------------- CRC16

uint16_t CryptoKey::CRC16(const uint8_t* data, int n) {
    uint16_t crc = 0xFFFF;
    if (data == nullptr || n <= 0) return crc;
    for (int i = 0; i < n; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : static_cast<uint16_t>(crc >> 1);
        }
    }
    return static_cast<uint16_t>(crc << 8 | crc >> 8);
}
