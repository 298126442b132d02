// Configuration files in and out, the configuration written to the panel as
// text frames, the model id rebuilt from a configuration, sensor resistance.
#include <cctype>
#include <cstdint>
#include <vector>

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "core/types.h"
#include "link/pk7.h"
#include "model/dev_parser.h"
#include "model/dev_parser_helpers.h"

namespace {

// A configuration frame goes out once it holds this many bytes of whole lines.
constexpr size_t kFrameFill = 301;
// The most text one frame can carry (the length field counts 5 more bytes).
constexpr size_t kFrameText = PK7_MAX_LENGTH - 5;

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

// The lines key-value CR LF of the settings, packed into frame texts of whole
// lines: a frame closes once it holds kFrameFill bytes, or earlier when the
// next line would not fit in it. A line that cannot travel in a text frame at
// all is left out with a console line.
std::vector<std::string> pack_setting_lines(const std::map<std::string, std::string>& settings) {
    std::vector<std::string> texts;
    std::string buffer;
    auto close_frame = [&] {
        texts.push_back(buffer);
        buffer.clear();
    };
    for (const auto& [key, value] : settings) {
        std::string line = key + "-" + value;
        if (breaks_text_line(line) || line.size() + 2 > kFrameText) {
            console_stamped("cfg to dev: " + printable(key) + " left out: it does not fit a text frame");
            continue;
        }
        line += "\r\n";
        if (buffer.size() + line.size() > kFrameText) close_frame();
        buffer += line;
        if (buffer.size() >= kFrameFill) close_frame();
    }
    if (!buffer.empty()) close_frame();
    return texts;
}

// The stamp of a configuration's shape: counts of lm and rm entries and
// flags for the families present.
long stamp_of(const std::map<std::string, std::pair<std::string, std::string>>& cfg) {
    uint32_t flags = 0, lm = 0, rm = 0;
    bool zones = false;
    for (const auto& entry : cfg) {
        const std::string& key = entry.first;
        if (key == "ie")
            flags |= 0x20000;
        else if (key == "ws")
            flags |= 0x40000;
        else if (key == "yl")
            flags |= 0x80000;
        else if (contains(key, "ga"))
            flags |= 0x10000;
        else if (contains(key, "zn") || contains(key, "yz"))
            zones = true;
        else if (contains(key, "rl"))
            flags |= 0x400000;
        else if (contains(key, "lm"))
            ++lm;
        else if (contains(key, "rm"))
            ++rm;
    }
    // The zone flag lives in the second byte, beside the rm count.
    const uint32_t second = zones ? ((rm | 0x10) & 0xFF) : rm;
    return static_cast<long>((second << 8) | lm | flags);
}

}  // namespace

void erase_line_ends(std::string& text) {
    std::erase_if(text, [](char c) { return c == '\r' || c == '\n'; });
}

bool breaks_text_line(const std::string& text) {
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte == '\r' || byte == '\n' || (byte >= 0x7D && byte <= 0x7F)) return true;
    }
    return false;
}

std::string printable(const std::string& text) {
    std::string out;
    for (char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        out += byte < 0x20 || byte == 0x7F ? '?' : c;
    }
    return out;
}

void DevParser::file_to_cfg(std::string& text) {
    MutexLock lock(http_mutex);
    cfg.clear();
    cfg_text_bytes = 0;
    cfg_full_reported = false;
    cfg_send.clear();

    bool td_seen = false;
    std::string line;
    auto take_line = [&](const std::string& whole) {
        const size_t minus = whole.find('-');
        if (minus == std::string::npos) {
            if (whole.size() >= 3 && toupper(static_cast<unsigned char>(whole[0])) == 'S' &&
                toupper(static_cast<unsigned char>(whole[1])) == 'V') {
                cfg_sv = whole.substr(2);
                cfg["sv"] = std::make_pair(std::string("sv"), cfg_sv);
                cfg_keys.insert("sv");
            }
            return;
        }
        const std::string key = to_lower(whole.substr(0, minus));
        std::string value = whole.substr(minus + 1);
        erase_line_ends(value);
        if (!put_setting(key, value)) {
            report_cfg_full("file to cfg: the configuration is full, further settings refused");
            return;
        }
        cfg_send[key] = value;
        if (key == "td") td_seen = true;
    };
    // Lines end with CR LF only; a last line without one is not taken.
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\0') continue;
        if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n') {
            take_line(line);
            line.clear();
            ++i;
            continue;
        }
        line += c;
    }

    if (!td_seen) reconstruct_td();
    // The settings the panel always expects, completed for the browser only.
    if (cfg["!!"].second.empty()) cfg["!!"] = std::make_pair(std::string("!!"), std::string());
    if (cfg["ks001"].second.empty()) cfg["ks001"] = std::make_pair(std::string("ks1"), std::string());
    if (cfg["ks002"].second.empty()) cfg["ks002"] = std::make_pair(std::string("ks2"), std::string());
    if (cfg["ks001"].second.empty() && !cfg["ks002"].second.empty())
        cfg["ks001"].second = cfg["ks002"].second;
}

void DevParser::cfg_to_file(std::string& out) {
    MutexLock lock(http_mutex);
    // Downloads have always left these entries behind when they were missing
    // (the configuration list shows them from then on); snapshots do not.
    cfg["vorlane"];
    cfg["ks002"];
    cfg["ks001"];
    cfg_file_text(out);
}

void DevParser::cfg_file_text(std::string& out) const {
    auto value_of = [this](const char* map_key) {
        const auto at = cfg.find(map_key);
        return at == cfg.end() ? std::string() : at->second.second;
    };
    out.clear();
    const std::string vorlane = value_of("vorlane");
    if (vorlane.empty())
        out += std::string("Vorlane-Configurator engine ") + engine_version + "\r\n";
    else
        out += "Vorlane-" + vorlane + "\r\n";
    out += "fe\r\n";
    const std::string ks2 = value_of("ks002");
    const std::string ks1 = value_of("ks001");
    if (!ks2.empty()) out += "ks2-" + ks2 + "\r\n";
    if (!ks1.empty())
        out += "ks1-" + ks1 + "\r\n";
    else if (!ks2.empty())
        out += "ks1-" + ks2 + "\r\n";
    for (const auto& [map_key, entry] : cfg) {
        if (map_key == "vorlane" || map_key == "fe" || map_key == "ks002" || map_key == "ks001") continue;
        out += entry.first;
        out += '-';
        out += entry.second;
        out += "\r\n";
    }
}

void DevParser::send_settings(const std::map<std::string, std::string>& settings) {
    MutexLock lock(http_mutex);
    cfg_send.clear();
    for (const auto& [key, value] : settings)
        if (put_setting(key, value)) cfg_send[key] = value;
}

bool DevParser::cfg_to_dev() {
    std::map<std::string, std::string> settings;
    {
        MutexLock lock(http_mutex);
        settings.swap(cfg_send);
    }
    if (settings.empty()) return true;
    std::vector<std::vector<char>> frames;
    size_t bytes = 0;
    for (const std::string& text : pack_setting_lines(settings)) {
        std::vector<char> frame;
        if (form_pk7_packet_txt('F', text.data(), text.size(), frame) != 1) continue;
        bytes += frame.size();
        frames.push_back(std::move(frame));
    }
    frames.emplace_back(cmd_ec, cmd_ec + cmd_ec_len);
    bytes += cmd_ec_len;
    // Frames are queued without http_mutex: no path holds two locks at once.
    if (queue.queued_bytes() + bbqueue.queued_bytes() + bytes > QUEUE_BYTES_LIMIT) {
        console_stamped("cfg to dev: refused, the frames waiting for the panel would pass " +
                        std::to_string(QUEUE_BYTES_LIMIT) + " bytes");
        MutexLock lock(http_mutex);
        // Edits made meanwhile are newer: they stay.
        cfg_send.merge(settings);
        return false;
    }
    queue.frames_to_dev(frames);
    return true;
}

int DevParser::reconstruct_td() {
    auto vc = cfg.find("vc");
    if (vc != cfg.end()) {
        std::string code = vc->second.second;
        const std::string model = get_from_vc(code);
        if (!model.empty()) {
            cfg["td"] = std::make_pair(std::string("td"), model);
            cfg_td = model;
            return 1;
        }
    }
    const std::string model = get_from_stamp(stamp_of(cfg));
    if (!model.empty()) {
        cfg["td"] = std::make_pair(std::string("td"), model);
        cfg_td = model;
    }
    return 0;
}

std::string DevParser::set_sens_resistance(std::string& model) {
    static const char* const five_one[] = {"MD01", "MD02", "MD03", "MD04", "MD05",
                                           "MD06", "MD07", "MD08", "MD09", "MD10"};
    for (const char* name : five_one)
        if (model == name) return "5.1";
    return "3.0";
}
