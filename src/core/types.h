// The device model table: panel variants by device-type code and configuration stamp.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct K_Image_Device {
    std::string code;     // device-type code as the panel reports it in `vc`
    std::string model;    // model id shown as `td`
    int64_t stamp;        // configuration stamp; 0: never found by stamp
    uint16_t figures[8];  // capacity figures, kept as data
};

// 57 rows; the order matters because look-ups take the first match.
extern const std::vector<K_Image_Device> g_K_Image_Device;

std::string get_from_vc(std::string& code);
std::string get_from_stamp(long stamp);
