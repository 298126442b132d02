// Replies of the simulated panel, framed and cut as the panel's firmware does.
#include "panel_content.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <iterator>

namespace {

constexpr char FRAME_START = 0x7E;
constexpr char FRAME_END = 0x7F;
constexpr char FRAME_ESCAPE = 0x7D;
constexpr unsigned char EVENTS_KIND = 1;
constexpr size_t EVENTS_PER_BLOCK = 20;

std::string length_field(size_t payload_len) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "%04zu", payload_len + 5);
    return digits;
}

void append_le(std::string& out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out += static_cast<char>((value >> (8 * i)) & 0xFF);
}

// Packs lines (each given its CR LF) into payloads no longer than max_len,
// never cutting a line.
std::vector<std::string> pack_lines(const std::vector<std::string>& lines, size_t max_len) {
    std::vector<std::string> payloads;
    std::string current;
    for (const std::string& line : lines) {
        std::string with_end = line + "\r\n";
        if (!current.empty() && current.size() + with_end.size() > max_len) {
            payloads.push_back(current);
            current.clear();
        }
        current += with_end;
    }
    if (!current.empty()) payloads.push_back(current);
    return payloads;
}

}  // namespace

PanelContent PanelContent::standard() {
    PanelContent content;
    content.config_lines = {
        "SVMS02 v3.14", "td-ms02",  "zn1-5",    "zn2-5",      "zn3:8-1",
        "ks1-07",       "cs1-1234", "rl1-1.30", "ws-Vorlane", "ss1-\"Hall\".2",
    };
    content.log_records = {
        "5F5E1000::ER::Battery low",
        "5F5E1010::MS::Power on",
        "5F5E1020::WN::Door open",
    };
    content.events = {
        {1600000000, 1, 110, 1, 3, 0, 0, 1},
        {1600000060, 2, 110, 1, 3, 0, 0, 0},
        {1600000120, 3, 401, 2, 0, 5, 4, 0x21},
    };
    return content;
}

std::string sim_frame(char type, const std::string& payload) {
    std::string frame(1, FRAME_START);
    frame += length_field(payload.size());
    frame += type;
    for (char c : payload) {
        auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x7D && byte <= 0x7F) {
            frame += FRAME_ESCAPE;
            frame += static_cast<char>(byte ^ 0x40);
        } else {
            frame += c;
        }
    }
    frame += FRAME_END;
    return frame;
}

std::string sim_receipt() {
    return sim_frame('A', "");
}

std::string telemetry_payload(const PanelContent& content) {
    time_t clock = content.clock != 0 ? content.clock : time(nullptr);
    std::string t;
    t += "+tmt00-" + std::string(content.ready ? "1" : "0") + "." + content.devtype + "\r\n";
    t += "+tmt01-1\r\n";
    t += "+tmt03-" + content.gsm + "\r\n";
    t += "+tmt04-1\r\n";
    t += "+tmt05-1.13.8.ok\r\n";
    t += "+tmt06-1.1\r\n+tmt06-2.0\r\n";
    t += "+tmt07-1.1\r\n+tmt07-2.0\r\n";
    t += "+tmt08-1.123\r\n+tmt08-2.0\r\n";
    t += "+tmt09-1,2\r\n";
    t += "+tmt10-0.1\r\n";
    t += "+tmt11-1.1\r\n+tmt11-2.0\r\n";
    t += "+tmt12-23\r\n";
    t += "+tmt16-" + std::to_string(static_cast<long long>(clock)) + "\r\n";
    return t;
}

std::vector<std::string> config_payloads(const PanelContent& content) {
    std::vector<std::string> lines;
    lines.push_back("bc-" + std::to_string(content.config_lines.size() + 1));
    lines.insert(lines.end(), content.config_lines.begin(), content.config_lines.end());
    lines.push_back("ec-0");
    return pack_lines(lines, content.max_text_payload);
}

// The key of a setting line in lower case; an "SV<version>" line is "sv".
std::string setting_key(const std::string& line) {
    size_t minus = line.find('-');
    std::string key = minus == std::string::npos ? line.substr(0, 2) : line.substr(0, minus);
    for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return key;
}

void apply_setting_lines(std::vector<std::string>& config_lines, const std::string& text) {
    static const std::string read_only[] = {"bc", "ec", "sv", "td", "vc"};
    size_t start = 0;
    for (size_t end; (end = text.find("\r\n", start)) != std::string::npos; start = end + 2) {
        std::string line = text.substr(start, end - start);
        if (line.find('-') == std::string::npos) continue;
        std::string key = setting_key(line);
        if (std::find(std::begin(read_only), std::end(read_only), key) != std::end(read_only)) continue;
        auto same = std::find_if(config_lines.begin(), config_lines.end(),
                                 [&](const std::string& held) { return setting_key(held) == key; });
        if (same != config_lines.end())
            *same = line;
        else
            config_lines.push_back(line);
    }
}

std::vector<std::pair<char, std::string>> log_replies(const PanelContent& content) {
    std::vector<std::pair<char, std::string>> replies;
    replies.emplace_back('F', "TL-" + std::to_string(content.log_records.size()));
    std::string portion;
    for (size_t i = 0; i < content.log_records.size(); ++i) {
        bool last = i + 1 == content.log_records.size();
        std::string record = content.log_records[i] + '\0';
        if (!portion.empty() && portion.size() + record.size() + 1 > content.max_text_payload) {
            replies.emplace_back('G', std::string(1, '\0') + portion);
            portion.clear();
        }
        portion += record;
        if (last) replies.emplace_back('G', std::string(1, '\1') + portion);
    }
    return replies;
}

std::string event_record_bytes(const SimEvent& event) {
    std::string bytes;
    append_le(bytes, event.time, 4);
    append_le(bytes, event.id, 4);
    append_le(bytes, event.code, 2);
    bytes += static_cast<char>(event.part);
    bytes += static_cast<char>(event.zona);
    bytes += static_cast<char>(event.user);
    bytes += static_cast<char>(event.ext);
    bytes += static_cast<char>(event.flags);
    return bytes;
}

std::vector<std::string> event_block_payloads(const PanelContent& content) {
    std::vector<std::string> blocks;
    std::string first;
    first += static_cast<char>(EVENTS_KIND | 0x80);
    first += '\0';
    append_le(first, static_cast<uint32_t>(content.events.size()), 2);
    blocks.push_back(first);

    unsigned number = 1;
    for (size_t i = 0; i < content.events.size(); i += EVENTS_PER_BLOCK) {
        std::string block;
        block += static_cast<char>(EVENTS_KIND);
        block += static_cast<char>(number++ & 0xFF);
        for (size_t k = i; k < content.events.size() && k < i + EVENTS_PER_BLOCK; ++k)
            block += event_record_bytes(content.events[k]);
        blocks.push_back(block);
    }
    std::string end;
    end += static_cast<char>(EVENTS_KIND);
    end += static_cast<char>(number & 0xFF);
    blocks.push_back(end);
    return blocks;
}

std::vector<std::string> SimFrameReader::feed(const char* bytes, size_t len) {
    std::vector<std::string> frames;
    for (size_t i = 0; i < len; ++i) {
        char c = bytes[i];
        if (c == FRAME_START) {
            body_.clear();
            inside_ = true;
            escaped_ = false;
        } else if (c == FRAME_END) {
            if (inside_ && !body_.empty()) frames.push_back(body_);
            body_.clear();
            inside_ = false;
            escaped_ = false;
        } else if (c == FRAME_ESCAPE) {
            escaped_ = true;
        } else if (inside_) {
            body_ += escaped_ ? static_cast<char>(c ^ 0x40) : c;
            escaped_ = false;
        }
    }
    return frames;
}
