// GOST 28147-89 cipher with the panel's padding and chaining scheme, and CRC16.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Substitution table and built-in key: protocol data of the panel family,
// loaded at start from the cipher file (never invented in code).
extern uint8_t CRY_GOST_CRYPTO_TABLE[8][16];
extern uint8_t standartKey[32];

// Name of the cipher file in the engine's working directory.
inline constexpr const char* cipher_file_name = "cipher.txt";

// Loads table and key from a text file (see the README for the format).
// On failure returns false, leaves the cipher unavailable and sets `error`
// to a one-line reason.
bool load_cipher_file(const char* path, std::string& error);
// Parses the cipher file's text; same contract as load_cipher_file.
bool load_cipher_text(const std::string& text, std::string& error);
// True once a valid table and key have been loaded.
bool cipher_ready();

// One round on the state (N1, N2) with one key word.
void CRY_GOST_CRYPTO_STEP(uint32_t state[2], uint32_t key_word);
// One 8-byte block in place with a 32-byte key (little-endian words).
void gost_encrypt_block(uint8_t block[8], const uint8_t key[32]);
void gost_decrypt_block(uint8_t block[8], const uint8_t key[32]);

extern uint8_t cry_256_position_withoutRand;
void CRY_256_RESET_WITHOUT_RAND();

int CRY_256_CRYPTO_WITH_RND_FLAG(uint8_t* buf, int n, int ignored, int own_key, const uint8_t* key);
// Buffer must have room for n + 9 bytes: up to 8 padding bytes and the trailer
// are added (9 when n + 1 is a multiple of 8). Returns the cipher text length,
// 0 when refused (no cipher data loaded, null buffer or key, n < 0).
int EncryptGOST(uint8_t* buf, int n, const uint8_t* key);
int CRY_256_CRYPTO_WITHOUT_RAND(uint8_t* buf, int n, const uint8_t* key);
// The inverse of the above (named so by the panel family). Null on failure.
uint8_t* CRY_256_ENCRYPTO(uint8_t* buf, int len, int* out_len, uint8_t* flag, const uint8_t* key);
// Decrypts and checks the CRC; returns the data length + 2, or 0 on failure.
int DecryptGOST(uint8_t* buf, int len, const uint8_t* key, std::vector<uint8_t>& out);

class CryptoKey {
public:
    // CRC-16/MODBUS with its two bytes swapped; 0xFFFF for n <= 0.
    static uint16_t CRC16(const uint8_t* data, int n);
};
