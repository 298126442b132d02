// The panel's journal: stand-ins that keep the API answering until the real
// log reader and writers land.
#include "model/dev_parser.h"

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
