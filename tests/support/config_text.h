// Helpers of the configuration tests: settings as the browser's JSON shows
// them, and text in the panel's code page.
#pragma once

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "text/txt_to_utf8.h"

namespace config_text {

using Strings = std::vector<std::string>;

// One element of the configuration list, its subvalues given as JSON text.
inline std::string element(const std::string& key, const Strings& values) {
    std::string out = R"({"key":")" + key + R"(","subvalues":[)";
    for (size_t i = 0; i < values.size(); ++i)
        out += std::string(i ? "," : "") + R"({"value":")" + values[i] + R"(","index":)" +
               std::to_string(i + 1) + "}";
    return out + "]}";
}

// The answer to the configuration query holding these elements.
inline std::string config_list(const Strings& elements) {
    std::string out = R"({"result":{"config":[ )";
    for (size_t i = 0; i < elements.size(); ++i) out += (i ? "," : "") + elements[i];
    return out + "]}}";
}

// UTF-8 text in Windows-1251, as the panel keeps it.
inline std::string cp1251(const std::string& utf8) {
    std::unique_ptr<char, decltype(&free)> text(utf8_to_cp1251(utf8.c_str()), &free);
    return text ? text.get() : "";
}

}  // namespace config_text
