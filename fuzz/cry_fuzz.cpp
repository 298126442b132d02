// Fuzz target: an encrypted configuration file: its header (get_cry_header_len),
// its decryption under a password (decrypt_cry), and the text loaded as the
// engine loads an opened file.
//
// The first byte gives the password's length (0 to 31), the bytes after it
// the password, the rest the file.
#include <cstdint>
#include <string>
#include <vector>

#include "core/engine.h"
#include "fuzz_support.h"
#include "http/post_api.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FreshEngine fresh;
    if (size == 0) return 0;
    size_t password_len = data[0] % 32;
    if (size < 1 + password_len) return 0;
    std::string password = text_of(data + 1, password_len);
    std::vector<char> file(data + 1 + password_len, data + size);
    size_t header = static_cast<size_t>(get_cry_header_len(file));
    if (header > file.size()) __builtin_trap();  // the header cannot be longer than the file
    std::vector<char> payload(file.begin() + static_cast<std::ptrdiff_t>(header), file.end());
    std::string text;
    if (decrypt_cry(payload, password, text)) parser.file_to_cfg(text);
    return 0;
}
