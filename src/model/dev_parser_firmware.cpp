// Firmware images cut into the binary blocks the panel loads.
#include <vector>

#include "core/engine.h"
#include "model/dev_parser.h"

int DevParser::firmware_to_dev(int target, std::vector<char>& image) {
    constexpr size_t kBlockData = 256;
    const char first_type = static_cast<char>(target != 0 ? 131 : 132);
    const char next_type = static_cast<char>(target != 0 ? 3 : 4);

    bbqueue.clear();
    // Raised before the first block is queued, so the device thread never
    // meets blocks of this transfer without knowing that it starts anew.
    bbqueue.start_flag = true;
    fw_blocks_sent = 0;
    fw_blocks_total = static_cast<int>(image.size() / kBlockData);

    std::vector<char> block = {first_type, 0};
    unsigned char number = 0;
    for (size_t i = 0; i < image.size(); ++i) {
        if (block.size() == kBlockData + 2) {
            bbqueue.add_bb_packet(block.data(), static_cast<int>(block.size()));
            block = {next_type, static_cast<char>(++number)};
        }
        block.push_back(image[i]);
    }
    if (!image.empty()) {
        bbqueue.add_bb_packet(block.data(), static_cast<int>(block.size()));
        block = {next_type, static_cast<char>(++number)};
    }
    // The end mark: a header without data.
    return bbqueue.add_bb_packet(block.data(), static_cast<int>(block.size()));
}
