// Fuzz target: settings from the browser's JSON (json_to_cfg) applied to the
// shipped model template, then queued for the panel and shown again.
#include <cstdint>
#include <string>

#include "core/engine.h"
#include "core/utils.h"
#include "fuzz_support.h"

static std::string model_file;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start();
    read_file("devs/MS02.ini", model_file);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FreshEngine fresh;
    std::string model = model_file;
    parser.file_to_cfg(model);
    std::string json = text_of(data, size);
    parser.json_to_cfg(json);
    parser.cfg_to_dev();
    std::string out;
    parser.cfg_to_json(out);
    return 0;
}
