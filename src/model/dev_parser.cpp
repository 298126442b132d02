// The device image: reply dispatch, telemetry and status, port and disk lists, firmware blocks.
#include "model/dev_parser.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "core/shell.h"
#include "core/utils.h"
#include "link/dev_port.h"
#include "text/txt_to_utf8.h"

namespace {

const char* const kPortsCommand = "ls /dev/*USB* /dev/*ACM* 2> error.log";
const char* const kDisksCommand = "lsblk -n -p -P -o NAME,LABEL,TRAN,TYPE,MOUNTPOINT 2> error.log";

// Payload of a reply starts after the four length digits and the type letter.
constexpr unsigned long kPayload = 5;

std::string to_upper(std::string text) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

std::string to_lower(std::string text) {
    for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

// Map keys are the panel's numbers; text that is not a number counts as 0.
int number_key(const std::string& text) {
    return static_cast<int>(strtol(text.c_str(), nullptr, 10));
}

void dump_if(bool enabled, DM_TYPES type, const std::vector<unsigned char>& pkt, const char* title) {
    if (!debug_mode || !enabled) return;
    std::vector<unsigned char> copy(pkt);
    pk7.put_bytes(type, reinterpret_cast<char*>(copy.data()), copy.size(), title, 0);
}

bool has_prefix(const std::vector<unsigned char>& pkt, unsigned long at, const char* prefix) {
    for (unsigned long i = 0; prefix[i] != '\0'; ++i)
        if (at + i >= pkt.size() || pkt[at + i] != static_cast<unsigned char>(prefix[i])) return false;
    return true;
}

std::string text_from(const std::vector<unsigned char>& pkt, unsigned long at) {
    if (at >= pkt.size()) return "";
    return std::string(pkt.begin() + static_cast<long>(at), pkt.end());
}

// The value of the length field: the three digits after the leading "0".
int declared_length(const std::vector<unsigned char>& pkt) {
    std::string digits(pkt.begin() + 1, pkt.begin() + 4);
    return static_cast<int>(strtol(digits.c_str(), nullptr, 10));
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

std::string utf8_from_cp1251(const std::string& text) {
    std::unique_ptr<char, decltype(&free)> converted(cp1251_to_utf8(text.c_str()), &free);
    return converted ? std::string(converted.get()) : std::string();
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

// One row of the block-device listing.
struct dev_record {
    std::string NAME, LABEL, TRAN, TYPE, MOUNTPOINT;

    void get(std::string& line) {
        NAME = field(line, "NAME=\"");
        LABEL = field(line, "LABEL=\"");
        TRAN = field(line, "TRAN=\"");
        TYPE = field(line, "TYPE=\"");
        MOUNTPOINT = field(line, "MOUNTPOINT=\"");
    }

private:
    static std::string field(std::string& line, const char* key) {
        std::string begin = key;
        std::string end = "\"";
        return get_parameter(line, begin, end);
    }
};

std::string double_backslashes(const std::string& text) {
    std::string out;
    for (char c : text) {
        out += c;
        if (c == '\\') out += '\\';
    }
    return out;
}

std::string disk_json_text(std::string raw) {
    return double_backslashes(txt_to_utf8(raw));
}

void append_map_entries(std::string& out, const std::map<int, std::string>& entries) {
    bool first = true;
    for (const auto& [key, value] : entries) {
        if (!first) out += ",";
        first = false;
        out += "{\"N\":\"" + std::to_string(key) + "\",\"S\":\"" + value + "\"}";
    }
}

// Moves a non-empty slot into its status field and empties the slot.
void move_if_set(std::string& slot, std::string& field) {
    if (slot.empty()) return;
    field = slot;
    slot.clear();
}

}  // namespace

// ---- Raw telemetry and status record ----------------------------------------

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
}

void StatusDevice::clear() {
    reset(ports_from_ls(shell_output(kPortsCommand)));
}

void StatusDevice::get_ports() {
    std::string ports = ports_from_ls(shell_output(kPortsCommand));
    MutexLock lock(http_mutex);
    com = ports;
}

std::string ports_from_ls(const std::string& ls_output) {
    std::string list;
    std::string line;
    for (char c : ls_output) {
        if (c != '\n') {
            line += c;
            continue;
        }
        if (!line.empty()) {
            if (!list.empty()) list += ",";
            list += "\"" + line + "\"";
        }
        line.clear();
    }
    return list;
}

std::string disks_from_lsblk(const std::string& lsblk_output) {
    std::vector<dev_record> records;
    std::vector<std::string> lines;
    split2(lsblk_output, '\n', lines);
    for (std::string& line : lines) {
        if (line.empty()) continue;
        dev_record record;
        record.get(line);
        records.push_back(record);
    }

    std::string out = "{\"result\":{\"disks\":[ ";
    bool first = true;
    for (const dev_record& drive : records) {
        if (drive.TRAN != "usb") continue;
        // Only the drive's first partition is offered, and only when mounted.
        for (const dev_record& record : records) {
            if (record.NAME != drive.NAME + "1" || record.MOUNTPOINT.empty()) continue;
            if (!first) out += ",";
            first = false;
            out += "{\"name\":\"" + disk_json_text(record.MOUNTPOINT) + "\",\"label\":\"" +
                   disk_json_text(record.LABEL) + "\"}";
        }
    }
    return out + "]}}";
}

// ---- Device image -------------------------------------------------------------

DevParser::DevParser() {}

int DevParser::parse_all() {
    if (packets.empty()) return 0;
    int result = 1;
    for (size_t i = 0; i < packets.size(); ++i) result &= parse_packet(packets[i]);
    packets.clear();
    packets.shrink_to_fit();
    return result;
}

int DevParser::parse_packet(std::vector<unsigned char>& pkt) {
    if (!is_open()) return 0;
    if (pkt.size() < 5) {
        console_stamped("Отсутсвует заголовок пакета");
        return 0;
    }
    const unsigned char type = pkt[4];
    if (pkt[0] != '0') {
        console_stamped("Шифрование не поддерживается");
        if (type != 'A') send_AN5 = true;
        return 0;
    }
    const int declared = declared_length(pkt);
    const int received = static_cast<int>(pkt.size());
    if (declared != received) {
        console_stamped("Несоответствие длины пакета: заявлено " + std::to_string(declared) +
                        " байт, получено " + std::to_string(received) + " байт");
        if (type == 'A') return 0;
        if (declared >= received)
            send_AN2 = true;
        else
            send_AN1 = true;
        return 0;
    }
    if (type == 'A') {
        on_receipt(pkt);
        return 0;
    }

    write_ok();
    switch (type) {
        case 'B':
            on_binary_block(pkt);
            break;
        case 'F':
            on_text_reply(pkt);
            break;
        case 'G':
            dump_if(dm_r3, DM_IN_LOGS, pkt, " <<<PK7_IN_LOGS      ");
            parse_log(pkt, kPayload);
            break;
        case 'L':
            dump_if(dm_r2, DM_IN_TMT, pkt, " <<<PK7_IN_TMT       ");
            parse_tmt(pkt, kPayload);
            tmt_to_status_dev();
            break;
        default:
            break;
    }
    return 0;
}

void DevParser::on_receipt(const std::vector<unsigned char>& pkt) {
    if (pkt.size() == 5) {
        on_plain_receipt();
    } else if (pkt.size() == 7 && pkt[5] == 'N' && isdigit(pkt[6])) {
        // Any negative receipt to the password block ends that exchange;
        // code 3 is the panel's explicit refusal.
        if (pass_block_written.exchange(false)) queue.pass_sent = false;
        if (pkt[6] == '3') {
            queue.pass_sent = false;
            queue.pass_rejected = true;
        }
    }
    dev_busy = false;
    dump_if(dm_r4, DM_IN_RECEIPT, pkt, " <<<PK7_IN_RECEIPT   ");
}

void DevParser::on_plain_receipt() {
    wait_receipt_OK = false;
    if (pass_block_written.exchange(false)) {
        pass_accepted = true;
        queue.pass_sent = false;
    }
    if (!send_re) return;
    // The panel acknowledged a restart or reset command: it is going away.
    close_dev();
    clear();
    set_status(1);
    ready = false;
}

void DevParser::on_binary_block(const std::vector<unsigned char>& pkt) {
    if (pkt.size() < 7) {
        console_stamped("error: get empty binary block");
        return;
    }
    dump_if(dm_r3, DM_IN_EVENTS, pkt, " <<<PK7_IN_EVENTS    ");
    const unsigned char kind = pkt[5];
    const unsigned char number = pkt[6];

    // clear() on the HTTP thread empties the same transfer state: every
    // change to it is made under http_mutex. The finished events are handed
    // on after the unlock, since get_list_dev_events locks the mutex itself.
    std::vector<unsigned char> finished;
    {
        MutexLock lock(http_mutex);
        if ((kind & 0x80) != 0 && number == 0) {
            block_kind = kind & 0x7F;
            block_buffer.assign(pkt.begin() + 7, pkt.end());
            expected_block = 1;
            if (block_kind == 1 && pkt.size() >= 9) {
                events_bytes_total = (pkt[7] + 256 * pkt[8]) * 15;
                on_events_progress();
            }
            return;
        }
        if ((kind & 0x80) != 0 || kind != block_kind || number != expected_block) return;

        if (pkt.size() > 7) {
            block_buffer.insert(block_buffer.end(), pkt.begin() + 7, pkt.end());
            ++expected_block;
            if (block_kind == 1) on_events_progress();
            return;
        }
        // A block without payload ends the transfer.
        if (block_kind == 1) finished.swap(block_buffer);
        block_buffer.clear();
    }
    if (finished.empty()) return;
    get_list_dev_events(finished);
    set_ready_text(&StatusDevice::rmsg, "2");
    set_status(3);
}

// Called with http_mutex held.
void DevParser::on_events_progress() {
    events_bytes_received = static_cast<int>(block_buffer.size());
    if (events_bytes_total != 0)
        status_dev.msg = std::to_string(events_bytes_received * 100 / events_bytes_total);
}

void DevParser::on_text_reply(std::vector<unsigned char>& pkt) {
    if (pkt.size() >= 9) {
        if (has_prefix(pkt, kPayload, "TL-")) {
            on_log_count(pkt);
            return;
        }
        if (has_prefix(pkt, kPayload, "UR") && (pkt[7] == '0' || pkt[7] == '1') && pkt[8] == '-') {
            on_firmware_result(pkt);
            return;
        }
    }
    dump_if(dm_r3, DM_IN_CFG, pkt, " <<<PK7_IN_CFG       ");
    parse_cfg(pkt, kPayload);
}

void DevParser::on_log_count(const std::vector<unsigned char>& pkt) {
    const int count = static_cast<int>(strtol(text_from(pkt, 8).c_str(), nullptr, 10));
    {
        MutexLock lock(http_mutex);
        log_count = count;
    }
    if (count == 0) {
        set_status(3);
        set_ready_text(&StatusDevice::rlog, "0");
        return;
    }
    set_ready_text(&StatusDevice::logmax, std::to_string(count));
}

void DevParser::on_firmware_result(const std::vector<unsigned char>& pkt) {
    const std::string name = pkt[7] == '0' ? "main proc" : "coproc";
    const char result = pkt.size() > 9 ? static_cast<char>(pkt[9]) : '\0';
    std::string word = "?";
    if (result == '0') {
        set_ready_text(&StatusDevice::rupd, "4");
        word = "error.";
    } else if (result == '1') {
        set_ready_text(&StatusDevice::rupd, "2");
        word = "success.";
    } else if (result == '2') {
        set_ready_text(&StatusDevice::rupd, "2");
        word = "success. Close connect device.";
        close_dev();
        clear();
    }
    console_stamped("Load " + name + " firmware " + word);
}

void DevParser::clear() {
    // The port list comes from a shell command: take it before locking.
    const std::string ports = ports_from_ls(shell_output(kPortsCommand));
    {
        MutexLock lock(http_mutex);
        status_dev.reset(ports);
        cfg.clear();
        cfg_keys.clear();
        cfg_send.clear();
        cfg_td.clear();
        cfg_sv.clear();
        cfg_cs1.clear();
        tmt.clear();
        logs.clear();
        events.clear();
        // The device thread changes these counters and the events transfer
        // under the same lock.
        block_buffer.clear();
        block_kind = 0;
        expected_block = 0;
        events_bytes_total = 0;
        events_bytes_received = 0;
        cfg_total = 0;
        cfg_count = 0;
        log_received = 0;
        log_count = 0;
    }
    fw_blocks_sent = 0;
    fw_blocks_total = 0;
    send_re = false;
}

void DevParser::init(std::string model) {
    // The resistance is looked up before upper-casing, as the panel reported it.
    const std::string resistance = set_sens_resistance(model);
    model = to_upper(model);
    cfg["td"] = std::make_pair(std::string("td"), model);
    if (model == "MD19" || model == "MD14" || model == "MD15")
        for (int sensor = 1; sensor <= 128; ++sensor) status_dev.lm[sensor].R = resistance;
    if (status_dev.modem.empty()) status_dev.modem = "0";
}

// ---- Status number and texts ----------------------------------------------------

void DevParser::set_status(int s) {
    status_dev.status = s;
    if (s < 3) ready = false;
}

void DevParser::set_status_10() {
    status_dev.status = 10;
    if (is_open()) status_dev.status = ready ? 3 : 2;
}

void DevParser::set_ready_text(std::string StatusDevice::*field, const std::string& value) {
    MutexLock lock(http_mutex);
    status_dev.*field = value;
}

std::string DevParser::get_ready_text(std::string StatusDevice::*field) {
    MutexLock lock(http_mutex);
    return status_dev.*field;
}

// ---- Telemetry --------------------------------------------------------------------

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

    for (const auto& [key, value] : tmt.tamper_list) {
        if (key == "0")
            s.tamper = tamper_text(value);
        else
            s.ext[number_key(key)].T = tamper_text(value);
    }
    tmt.tamper_list.clear();

    if (!tmt.t.empty()) {
        s.t = temperature_text(tmt.t);
        tmt.t.clear();
    }
    move_if_set(tmt.balance, s.balance);
    move_if_set(tmt.learnkey, s.learnkey);

    for (const auto& [key, value] : tmt.part_list)
        if (!key.empty() && !value.empty()) s.part[number_key(key)] = value;
    tmt.part_list.clear();

    if (!tmt.ext_list_one.empty()) {
        for (int i = 1; i <= 32; ++i) {
            const std::string n = std::to_string(i);
            s.ext[i].S = list_contains(tmt.ext_list_two, n)   ? "2"
                         : list_contains(tmt.ext_list_one, n) ? "1"
                                                              : "0";
        }
    }
    tmt.ext_list_one.clear();
    tmt.ext_list_two.clear();

    for (const auto& [key, value] : tmt.ok_list) s.ok[number_key(key)] = value;
    tmt.ok_list.clear();
    for (const auto& [key, value] : tmt.lm_state_list) s.lm[number_key(key)].S = value;
    tmt.lm_state_list.clear();
    for (const auto& [key, value] : tmt.lm_value_list)
        s.lm[number_key(key)].R = format_to_str("%1.1f", strtol(value.c_str(), nullptr, 10) / 10.0);
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

// ---- Disks and firmware -------------------------------------------------------------

void DevParser::getdisk_to_json(std::string& out) {
    out = disks_from_lsblk(shell_output(kDisksCommand));
}

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
