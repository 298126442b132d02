// The panel's event memory: stand-ins that keep the API answering until the
// real event reader and writers land.
#include "model/dev_parser.h"

void DevParser::get_list_dev_events(std::vector<unsigned char>&) {}
void DevParser::dev_events_to_json(std::string& out) {
    out = "{\"result\":[ ]}";
}
void DevParser::dev_events_to_file(std::string& out) {
    out.clear();
}
