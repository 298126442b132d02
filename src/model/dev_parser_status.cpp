// Telemetry and status: the raw "+tmt" slots, the status record built from
// them and its JSON.
#include <cctype>
#include <cstdlib>
#include <ctime>

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "core/utils.h"
#include "model/dev_parser.h"
#include "model/dev_parser_helpers.h"

namespace {

// Map keys are the panel's numbers; text that is not a number counts as 0.
int number_key(const std::string& text) {
    return static_cast<int>(strtol(text.c_str(), nullptr, 10));
}

// A telemetry value "A.B.C": pieces split at the first two dots.
struct TmtPieces {
    std::string a, b, c;
};

TmtPieces split_pieces(const std::string& rest) {
    TmtPieces p;
    size_t dot = rest.find('.');
    if (dot == std::string::npos) {
        p.a = rest;
        return p;
    }
    p.a = rest.substr(0, dot);
    std::string remainder = rest.substr(dot + 1);
    dot = remainder.find('.');
    if (dot == std::string::npos) {
        p.b = remainder;
        return p;
    }
    p.b = remainder.substr(0, dot);
    p.c = remainder.substr(dot + 1);
    return p;
}

// The number nn of a key "+tmtnn", or -1 for any other key.
int tmt_slot(const std::string& key) {
    if (key.size() != 6 || key.compare(0, 4, "+tmt") != 0) return -1;
    if (!isdigit(static_cast<unsigned char>(key[4])) || !isdigit(static_cast<unsigned char>(key[5])))
        return -1;
    return (key[4] - '0') * 10 + (key[5] - '0');
}

bool list_contains(const std::string& list, const std::string& item) {
    size_t start = 0;
    while (start <= list.size()) {
        size_t comma = list.find(',', start);
        size_t end = comma == std::string::npos ? list.size() : comma;
        if (list.compare(start, end - start, item) == 0 && end - start == item.size()) return true;
        if (comma == std::string::npos) return false;
        start = comma + 1;
    }
    return false;
}

// The tamper contact reports 1 when closed, which the browser shows as "OFF".
const char* tamper_text(const std::string& value) {
    return value == "1" ? "OFF" : "ON";
}

std::string temperature_text(const std::string& raw) {
    if (!raw.empty() && raw[0] == '*') return "-" + raw.substr(1);
    if (!raw.empty() && raw[0] == '!') return raw.substr(1);
    return raw;
}

void append_map_entries(std::string& out, const std::map<int, std::string>& entries) {
    bool first = true;
    for (const auto& [key, value] : entries) {
        if (!first) out += ",";
        first = false;
        out += "{\"N\":\"" + std::to_string(key) + "\",\"S\":\"" + value + "\"}";
    }
}

// Each telemetry list (partitions, outputs, zones, extenders) holds at most
// this many entries: a panel naming ever new numbers cannot grow the status
// record, or its answer, without bound.
constexpr size_t kMaxListEntries = 256;

// The entry of `key`, made when there is room; null (one console line per
// link) when the list is full and the key is new.
template <typename Value>
Value* list_entry(std::map<int, Value>& list, int key, bool& full_reported) {
    auto at = list.find(key);
    if (at != list.end()) return &at->second;
    if (list.size() >= kMaxListEntries) {
        if (!full_reported)
            console_stamped("telemetry: a list holds " + std::to_string(kMaxListEntries) +
                            " entries, further numbers ignored");
        full_reported = true;
        return nullptr;
    }
    return &list.emplace(key, Value{}).first->second;
}

// Moves a non-empty slot into its status field and empties the slot.
void move_if_set(std::string& slot, std::string& field) {
    if (slot.empty()) return;
    field = slot;
    slot.clear();
}

}  // namespace

void TMT::clear() {
    *this = TMT();
}

void StatusDevice::reset(const std::string& ports) {
    devtype.clear();
    status = 1;
    rcfg = rmsg = rlog = rupd = "0";
    progress_cfg = msg = log = logmax = upd = "0";
    update = "false";
    com = ports;
    sim.clear();
    gsm.clear();
    server.clear();
    power_mode.clear();
    power_value.clear();
    power_ext.clear();
    tamper.clear();
    t.clear();
    balance.clear();
    modem.clear();
    xcpu.clear();
    learnkey.clear();
    part.clear();
    ext.clear();
    ok.clear();
    lm.clear();
    ident.clear();
    date.clear();
    time.clear();
    temp_server_ip.clear();
    temp_server_port.clear();
    lists_full_reported = false;
}

void StatusDevice::clear() {
    reset(list_ports());
}

void StatusDevice::get_ports() {
    std::string ports = list_ports();
    MutexLock lock(http_mutex);
    com = ports;
}

int DevParser::parse_tmt(std::vector<unsigned char>& data, unsigned long pos) {
    MutexLock lock(http_mutex);
    std::string line;
    for (unsigned long i = pos; i < data.size(); ++i) {
        if (data[i] == '\r' && i + 1 < data.size() && data[i + 1] == '\n') {
            store_tmt_line(to_lower(line));
            line.clear();
            ++i;
            continue;
        }
        line += static_cast<char>(data[i]);
    }
    return 0;
}

void DevParser::store_tmt_line(const std::string& line) {
    const size_t dash = line.find('-');
    if (dash == std::string::npos) return;
    const int slot = tmt_slot(line.substr(0, dash));
    const TmtPieces p = split_pieces(line.substr(dash + 1));
    switch (slot) {
        case 0:
            tmt.mode = p.a;
            tmt.devtype = p.b;
            if (p.a == "1") {
                ready = true;
            } else {
                ready = false;
                if (status_dev.status > 1) set_status(1);
            }
            break;
        case 1:
            tmt.sim = p.a;
            break;
        case 2:
            tmt.tmt02_first = p.a;
            tmt.tmt02_second = p.b;
            break;
        case 3:
            tmt.gsm = p.a;
            break;
        case 4:
            tmt.server = p.a;
            break;
        case 5:
            tmt.power_mode = p.a;
            tmt.power_value = p.b;
            tmt.power_ext = utf8_from_cp1251(p.c);
            break;
        case 6:
            tmt.part_list[p.a] = p.b;
            break;
        case 7:
            tmt.lm_state_list[p.a] = p.b;
            break;
        case 8:
            tmt.lm_value_list[p.a] = p.b;
            break;
        case 9:
            tmt.ext_list_one = p.a;
            tmt.ext_list_two = p.b;
            break;
        case 10:
            tmt.tamper_list[p.a] = p.b;
            break;
        case 11:
            tmt.ok_list[p.a] = p.b;
            break;
        case 12:
            tmt.t = p.a;
            break;
        case 13:
            tmt.balance = p.a;
            break;
        case 14:
            tmt.learnkey = p.a;
            break;
        case 15:
            tmt.ident = p.a;
            break;
        case 16:
            tmt.clock = p.a;
            break;
        case 17:
            tmt.temp_server_ip = p.a;
            tmt.temp_server_port = p.b;
            break;
        default:
            break;
    }
}

void DevParser::tmt_to_status_dev() {
    MutexLock lock(http_mutex);
    StatusDevice& s = status_dev;

    if (!tmt.devtype.empty()) {
        if (to_upper(tmt.devtype) != to_upper(s.devtype)) {
            s.devtype = tmt.devtype;
            init(tmt.devtype);
        }
        tmt.devtype.clear();
    }
    // Assigned directly: set_status would drop the ready flag tested next.
    if (s.status < 2) s.status = 2;
    if (ready && s.status == 2) s.status = 3;

    move_if_set(tmt.sim, s.sim);
    if (!tmt.gsm.empty()) {
        s.gsm = tmt.gsm + "%";
        tmt.gsm.clear();
    }
    if (!tmt.server.empty()) {
        s.server = tmt.server == "1" ? "ON" : "OFF";
        tmt.server.clear();
    }
    move_if_set(tmt.power_mode, s.power_mode);
    move_if_set(tmt.power_value, s.power_value);
    move_if_set(tmt.power_ext, s.power_ext);

    bool& full = s.lists_full_reported;
    for (const auto& [key, value] : tmt.tamper_list) {
        if (key == "0")
            s.tamper = tamper_text(value);
        else if (StatusDevice::Ext* ext = list_entry(s.ext, number_key(key), full))
            ext->T = tamper_text(value);
    }
    tmt.tamper_list.clear();

    if (!tmt.t.empty()) {
        s.t = temperature_text(tmt.t);
        tmt.t.clear();
    }
    move_if_set(tmt.balance, s.balance);
    move_if_set(tmt.learnkey, s.learnkey);

    for (const auto& [key, value] : tmt.part_list) {
        if (key.empty() || value.empty()) continue;
        if (std::string* part = list_entry(s.part, number_key(key), full)) *part = value;
    }
    tmt.part_list.clear();

    if (!tmt.ext_list_one.empty()) {
        for (int i = 1; i <= 32; ++i) {
            const std::string n = std::to_string(i);
            StatusDevice::Ext* ext = list_entry(s.ext, i, full);
            if (ext == nullptr) continue;
            ext->S = list_contains(tmt.ext_list_two, n)   ? "2"
                     : list_contains(tmt.ext_list_one, n) ? "1"
                                                          : "0";
        }
    }
    tmt.ext_list_one.clear();
    tmt.ext_list_two.clear();

    for (const auto& [key, value] : tmt.ok_list)
        if (std::string* ok = list_entry(s.ok, number_key(key), full)) *ok = value;
    tmt.ok_list.clear();
    for (const auto& [key, value] : tmt.lm_state_list)
        if (StatusDevice::Lm* lm = list_entry(s.lm, number_key(key), full)) lm->S = value;
    tmt.lm_state_list.clear();
    for (const auto& [key, value] : tmt.lm_value_list)
        if (StatusDevice::Lm* lm = list_entry(s.lm, number_key(key), full))
            lm->R = format_to_str("%1.1f", strtol(value.c_str(), nullptr, 10) / 10.0);
    tmt.lm_value_list.clear();

    move_if_set(tmt.ident, s.ident);

    if (!tmt.clock.empty()) {
        const time_t seconds = static_cast<time_t>(strtoll(tmt.clock.c_str(), nullptr, 10));
        struct tm utc {};
        if (gmtime_r(&seconds, &utc) != nullptr) {
            s.date = format_to_str("%02d.%02d.%04d", utc.tm_mday, utc.tm_mon + 1, utc.tm_year + 1900);
            s.time = format_to_str("%02d:%02d:%02d", utc.tm_hour, utc.tm_min, utc.tm_sec);
        }
        tmt.clock.clear();
    }
    move_if_set(tmt.temp_server_ip, s.temp_server_ip);
    move_if_set(tmt.temp_server_port, s.temp_server_port);
    tmt.mode.clear();
    tmt.tmt02_first.clear();
    tmt.tmt02_second.clear();
}

void DevParser::par2json(const char* name, std::string& value, std::string& out) {
    out += "\"";
    out += name;
    out += "\":\"" + value + "\",";
}

void DevParser::status_to_json(std::string& out) {
    MutexLock lock(http_mutex);
    StatusDevice& s = status_dev;
    s.devtype = to_upper(s.devtype);
    std::string status = std::to_string(s.status.load());

    out = "{\"result\":{";
    par2json("devtype", s.devtype, out);
    par2json("status", status, out);
    out += "\"statusready\":{\"rcfg\":\"" + s.rcfg + "\",\"rmsg\":\"" + s.rmsg + "\",\"rlog\":\"" + s.rlog +
           "\",\"rupd\":\"" + s.rupd + "\"},";
    out += "\"progress\":{\"cfg\":\"" + s.progress_cfg + "\",\"msg\":\"" + s.msg + "\",\"log\":\"" + s.log +
           "\",\"logmax\":\"" + s.logmax + "\",\"upd\":\"" + s.upd + "\"},";
    out += "\"update\":" + s.update + ",";
    out += "\"com\":[" + s.com + "],";
    par2json("sim", s.sim, out);
    par2json("gsm", s.gsm, out);
    par2json("server", s.server, out);
    par2json("power_mode", s.power_mode, out);
    par2json("power_value", s.power_value, out);
    par2json("power_ext", s.power_ext, out);
    par2json("tamper", s.tamper, out);
    par2json("t", s.t, out);
    par2json("balance", s.balance, out);
    par2json("modem", s.modem, out);
    par2json("xcpu", s.xcpu, out);
    par2json("learnkey", s.learnkey, out);

    out += "\"part\":[";
    append_map_entries(out, s.part);
    out += "],\"ext\":[";
    bool first = true;
    for (const auto& [key, ext] : s.ext) {
        out += first ? "" : ",";
        first = false;
        out += "{\"N\":\"" + std::to_string(key) + "\",\"S\":\"" + ext.S + "\",\"T\":\"" + ext.T + "\"}";
    }
    out += "],\"ok\":[";
    append_map_entries(out, s.ok);
    out += "],\"lm\":[";
    first = true;
    for (const auto& [key, lm] : s.lm) {
        out += first ? "" : ",";
        first = false;
        out += "{\"N\":\"" + std::to_string(key) + "\",\"S\":\"" + lm.S + "\",\"R\":\"" + lm.R + "\"}";
    }
    out += "],";
    par2json("ident", s.ident, out);
    par2json("date", s.date, out);
    par2json("time", s.time, out);
    out += "\"temp_server\":{\"ip\":\"" + s.temp_server_ip + "\",\"port\":\"" + s.temp_server_port + "\"}";
    out += "}}";
}
