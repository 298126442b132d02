// Fuzz target: a configuration file as uploaded or loaded from a drive or a
// model file (file_to_cfg), then written back out.
#include <cstdint>
#include <string>

#include "core/engine.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FreshEngine fresh;
    std::string text = text_of(data, size);
    parser.file_to_cfg(text);
    std::string out;
    parser.cfg_to_file(out);
    parser.cfg_to_json(out);
    return 0;
}
