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

// A fixed pseudo-random sequence, so that every run (and every golden file)
// sees the same journal and event memory.
struct SimRandom {
    uint32_t state;
    uint32_t next(uint32_t bound) {
        state = state * 1103515245u + 12345u;
        return (state >> 16) % bound;
    }
};

std::string formatted(const char* format, unsigned a, unsigned b) {
    char text[128];
    std::snprintf(text, sizeof text, format, a, b);
    return text;
}

struct JournalLine {
    const char* format;  // with up to two unsigned numbers
    unsigned a_min, a_span, b_min, b_span;
};

const JournalLine information_lines[] = {
    {"Partition %u armed by user %u", 1, 4, 1, 16},
    {"Partition %u disarmed by user %u", 1, 4, 1, 16},
    {"Report E%03u sent over GPRS in %u ms", 110, 800, 300, 3000},
    {"GSM registered, operator \"MTS RUS\", level %u%%", 40, 60, 0, 1},
    {"Mains power restored, %u V", 215, 20, 0, 1},
    {"Configuration saved, %u settings", 200, 1800, 0, 1},
    {"Clock set from server, drift %u s", 1, 60, 0, 1},
    {"Radio expander %u joined network %u", 1, 8, 1, 16},
    {"USB configurator connected", 0, 1, 0, 1},
    {"Power on, firmware 3.14 build %u", 2207, 1, 0, 1},
};
const JournalLine warning_lines[] = {
    {"Battery voltage 11.%u V", 0, 10, 0, 1},
    {"GSM signal weak, level %u%%", 5, 15, 0, 1},
    {"Radio expander %u silent for %u s", 1, 8, 60, 600},
    {"Zone %u tamper open", 1, 64, 0, 1},
    {"Server 10.0.0.5:5050 answered in %u ms", 3000, 6000, 0, 1},
};
const JournalLine error_lines[] = {
    {"GPRS connection failed, code 0x%02X", 1, 255, 0, 1},
    {"Battery low, 10.%u V", 0, 10, 0, 1},
    {"SIM card %u not found", 1, 2, 0, 1},
    {"Report queue full, %u reports pending", 32, 32, 0, 1},
    {"Flash write error at 0x%08X", 0x1000, 0x7F000, 0, 1},
};

// One kind of event memory entry; zone or user numbers vary from entry to entry.
struct EventShape {
    uint16_t code;
    uint8_t flags;  // bit 0 event (1) or restoral (0), bit 5 radio network in ext
    uint8_t part, zona, user, ext;
    bool vary_zone, vary_user;
};

constexpr uint8_t E = 0x01, R = 0x00, RADIO = 0x20;

// In the order a panel might record them: alarms followed by their restorals,
// arming, faults, radio devices, service events, and codes without a
// description (E999, E312, R121).
const EventShape event_shapes[] = {
    {401, R, 1, 0, 3, 0, false, true},           {130, E, 1, 4, 0, 0, true, false},
    {130, R, 1, 4, 0, 0, true, false},           {401, E, 1, 0, 3, 0, false, true},
    {110, E, 2, 12, 0, 0, false, false},         {110, R, 2, 12, 0, 0, false, false},
    {301, E, 0, 0, 0, 0, false, false},          {301, R, 0, 0, 0, 0, false, false},
    {381, E | RADIO, 1, 17, 0, 2, true, false},  {381, R | RADIO, 1, 17, 0, 2, true, false},
    {141, E, 1, 9, 0, 1, true, false},           {141, R, 1, 9, 0, 1, true, false},
    {383, E | RADIO, 1, 18, 0, 2, false, false}, {383, R | RADIO, 1, 18, 0, 2, false, false},
    {302, E, 0, 0, 0, 0, false, false},          {302, R, 0, 0, 0, 0, false, false},
    {134, E, 1, 1, 0, 0, false, false},          {134, R, 1, 1, 0, 0, false, false},
    {333, E, 0, 0, 0, 0, false, false},          {333, R, 0, 0, 0, 0, false, false},
    {384, E | RADIO, 1, 20, 0, 3, true, false},  {384, R | RADIO, 1, 20, 0, 3, true, false},
    {151, E, 2, 14, 0, 0, false, false},         {151, R, 2, 14, 0, 0, false, false},
    {407, R, 2, 0, 0, 0, false, false},          {407, E, 2, 0, 0, 0, false, false},
    {999, E, 1, 0, 0, 0, false, false},          {627, E, 0, 0, 1, 0, false, false},
    {306, E, 0, 0, 1, 0, false, false},          {627, R, 0, 0, 1, 0, false, false},
    {570, E, 1, 6, 2, 0, true, false},           {570, R, 1, 6, 2, 0, true, false},
    {312, E, 0, 0, 0, 0, false, false},          {121, R, 1, 0, 4, 0, false, false},
    {602, E, 0, 0, 0, 0, false, false},          {305, E, 0, 0, 0, 0, false, false},
    {903, E, 0, 0, 0, 0, false, false},
};

}  // namespace

std::vector<std::string> sim_journal(size_t count, uint32_t start) {
    SimRandom random{start};
    std::vector<std::string> records;
    records.reserve(count);
    uint32_t time = start;
    for (size_t i = 0; i < count; ++i) {
        // Information is the bulk of a journal, warnings come often, errors rarely.
        const uint32_t kind = random.next(100);
        const char* code = kind < 70 ? "MS" : kind < 90 ? "WN" : "ER";
        const JournalLine& line = kind < 70   ? information_lines[random.next(std::size(information_lines))]
                                  : kind < 90 ? warning_lines[random.next(std::size(warning_lines))]
                                              : error_lines[random.next(std::size(error_lines))];
        unsigned a = line.a_min + random.next(line.a_span);
        unsigned b = line.b_min + random.next(line.b_span);
        char stamp[16];
        std::snprintf(stamp, sizeof stamp, "%X", time);
        records.push_back(std::string(stamp) + "::" + code + "::" + formatted(line.format, a, b));
        time += 60 + random.next(3600);
    }
    return records;
}

std::vector<SimEvent> sim_event_memory(size_t count, uint32_t start) {
    SimRandom random{start ^ 0x5EED};
    std::vector<SimEvent> events;
    events.reserve(count);
    uint32_t time = start;
    const size_t shapes = sizeof event_shapes / sizeof event_shapes[0];
    for (size_t i = 0; i < count; ++i) {
        const EventShape& shape = event_shapes[i % shapes];
        // An event and its restoral share the zone or user of their round.
        const uint32_t round = static_cast<uint32_t>(i / shapes);
        SimEvent event;
        event.time = time;
        event.id = static_cast<uint32_t>(1000 + i);
        event.code = shape.code;
        event.part = shape.part;
        event.zona = static_cast<uint8_t>(shape.vary_zone ? shape.zona + round % 8 : shape.zona);
        event.user = static_cast<uint8_t>(shape.vary_user ? shape.user + round % 5 : shape.user);
        event.ext = shape.ext;
        event.flags = shape.flags;
        events.push_back(event);
        time += 20 + random.next(7200);
    }
    return events;
}

PanelContent PanelContent::standard() {
    PanelContent content;
    content.config_lines = {
        "SVMS02 v3.14", "td-MS02",  "vc-70",    "zn1-5",      "zn2-5",          "zn3:8-1",
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
    const size_t count = content.events.size() < SIM_MAX_EVENTS ? content.events.size() : SIM_MAX_EVENTS;
    append_le(first, static_cast<uint32_t>(count), 2);
    blocks.push_back(first);

    unsigned number = 1;
    for (size_t i = 0; i < count; i += SIM_EVENTS_PER_BLOCK) {
        std::string block;
        block += static_cast<char>(EVENTS_KIND);
        block += static_cast<char>(number++ & 0xFF);
        for (size_t k = i; k < count && k < i + SIM_EVENTS_PER_BLOCK; ++k)
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
