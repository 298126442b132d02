// Minimal stand-ins for the configuration, log and event handlers until their real versions land.
#include "model/dev_parser.h"

namespace {
const char* const kEmptyResult = "{\"result\":[ ]}";
}

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
    out = kEmptyResult;
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
int DevParser::parse_log(std::vector<unsigned char>&, unsigned long) {
    return 0;
}
void DevParser::dev_log_to_json(std::string& out, int, int) {
    out = "{\"result\":{\"number\":\"0\",\"log\":[]}}";
}
void DevParser::dev_log_to_file(std::string& out) {
    out.clear();
}
void DevParser::clear_logs() {}
void DevParser::get_list_dev_events(std::vector<unsigned char>&) {}
void DevParser::dev_events_to_json(std::string& out) {
    out = kEmptyResult;
}
void DevParser::dev_events_to_file(std::string& out) {
    out.clear();
}
