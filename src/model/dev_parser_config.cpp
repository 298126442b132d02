// Configuration: stand-ins that keep the API answering until the real readers
// and writers of the configuration image land.
#include "model/dev_parser.h"

int DevParser::parse_cfg(std::vector<unsigned char>&, unsigned long) {
    return 0;
}
void DevParser::cfg_to_json(std::string& out) {
    out = "{\"result\":{\"config\":[ ]}}";
}
void DevParser::mask_to_json(std::string&, std::string& out) {
    out = "{\"result\":{\"config\":[ ]}}";
}
void DevParser::update_cfg_to_json(std::string& out) {
    out = "{\"result\":[ ]}";
}
void DevParser::json_to_cfg(std::string&) {}
void DevParser::file_to_cfg(std::string&) {}
void DevParser::cfg_to_file(std::string& out) {
    out.clear();
}
void DevParser::cfg_to_dev() {}
std::string DevParser::set_sens_resistance(std::string&) {
    return "3.0";
}
