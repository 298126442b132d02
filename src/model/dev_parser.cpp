// Placeholder bodies so the library links while the device image is written.
#include "model/dev_parser.h"

void TMT::clear() {}
void StatusDevice::clear() {}
void StatusDevice::get_ports() {}
DevParser::DevParser() {}
int DevParser::parse_all() { packets.clear(); return 0; }
int DevParser::parse_packet(std::vector<unsigned char>&) { return 0; }
void DevParser::clear() {}
void DevParser::init(std::string) {}
void DevParser::set_status(int s) { status_dev.status = s; }
void DevParser::set_status_10() {}
void DevParser::set_ready_text(std::string StatusDevice::*, const std::string&) {}
std::string DevParser::get_ready_text(std::string StatusDevice::*) { return {}; }
int DevParser::parse_tmt(std::vector<unsigned char>&, unsigned long) { return 0; }
void DevParser::tmt_to_status_dev() {}
void DevParser::status_to_json(std::string&) {}
void DevParser::par2json(const char*, std::string&, std::string&) {}
int DevParser::firmware_to_dev(int, std::vector<char>&) { return 0; }
void DevParser::getdisk_to_json(std::string&) {}
int DevParser::parse_cfg(std::vector<unsigned char>&, unsigned long) { return 0; }
void DevParser::cfg_to_json(std::string&) {}
void DevParser::mask_to_json(std::string&, std::string&) {}
void DevParser::update_cfg_to_json(std::string&) {}
void DevParser::json_to_cfg(std::string&) {}
void DevParser::file_to_cfg(std::string&) {}
void DevParser::cfg_to_file(std::string&) {}
void DevParser::cfg_to_dev() {}
std::string DevParser::set_sens_resistance(std::string&) { return "3.0"; }
int DevParser::parse_log(std::vector<unsigned char>&, unsigned long) { return 1; }
void DevParser::dev_log_to_json(std::string&, int, int) {}
void DevParser::dev_log_to_file(std::string&) {}
void DevParser::clear_logs() {}
void DevParser::get_list_dev_events(std::vector<unsigned char>&) {}
void DevParser::dev_events_to_json(std::string&) {}
void DevParser::dev_events_to_file(std::string&) {}
