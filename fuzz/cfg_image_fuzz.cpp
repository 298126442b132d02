// Fuzz target: configuration lines from the panel (parse_cfg), then the image
// they built written out as the browser's JSON and as a configuration file.
#include <cstdint>
#include <string>
#include <vector>

#include "core/engine.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FreshEngine fresh;
    std::vector<unsigned char> reply(data, data + size);
    parser.parse_cfg(reply, 0);
    std::string out;
    parser.cfg_to_json(out);
    parser.update_cfg_to_json(out);
    parser.cfg_to_file(out);
    return 0;
}
