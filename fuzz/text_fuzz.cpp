// Fuzz target: the text decoders and encoders: Windows-1251 and UTF-8 both
// ways, the request escapes (backslash-x and percent), JSON escaping and
// unescaping, and the upload's byte decoding.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "http/http_parser.h"
#include "text/txt_to_utf8.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text = text_of(data, size);
    // The C-string converters see the text up to its first zero byte, as the engine hands it over.
    std::unique_ptr<char, decltype(&free)> utf8(cp1251_to_utf8(text.c_str()), &free);
    std::unique_ptr<char, decltype(&free)> cp1251(utf8_to_cp1251(text.c_str()), &free);
    if (utf8) std::unique_ptr<char, decltype(&free)> back(utf8_to_cp1251(utf8.get()), &free);
    std::string copy = text;
    txt_to_utf8(copy);
    copy = text;
    txt_to_utf8_proc(copy);
    copy = text;
    std::string escaped = json_escape(copy);
    json_unescape(escaped);
    copy = text;
    json_unescape(copy);
    std::vector<char> bytes;
    str_to_bin(text, bytes);
    return 0;
}
