// The panel's event memory: the event list read from a finished block transfer, shown as JSON and saved as
// text.
#include <cstdio>
#include <ctime>

#include "core/engine.h"
#include "core/mutex_lock.h"
#include "model/dev_parser.h"
#include "model/event_descr.h"

namespace {

constexpr size_t kHeaderSize = 2;
constexpr size_t kRecordSize = 15;
constexpr uint8_t kFlagEvent = 0x01;     // set: an event (E); clear: its restoral (R)
constexpr uint8_t kFlagRadioNet = 0x20;  // ext holds a radio network number

// Little-endian number of `bytes` bytes at `at`; bytes beyond the reply read as 0.
uint32_t read_le(const std::vector<unsigned char>& data, size_t at, int bytes) {
    uint32_t value = 0;
    for (int i = bytes - 1; i >= 0; --i) {
        const size_t index = at + static_cast<size_t>(i);
        value = (value << 8) | (index < data.size() ? data[index] : 0u);
    }
    return value;
}

dev_event read_event(const std::vector<unsigned char>& data, size_t at) {
    dev_event event{};
    event.time = read_le(data, at, 4);
    event.id = read_le(data, at + 4, 4);
    event.code = static_cast<uint16_t>(read_le(data, at + 8, 2));
    event.part = static_cast<uint8_t>(read_le(data, at + 10, 1));
    event.zona = static_cast<uint8_t>(read_le(data, at + 11, 1));
    event.user = static_cast<uint8_t>(read_le(data, at + 12, 1));
    event.ext = static_cast<uint8_t>(read_le(data, at + 13, 1));
    event.flags = static_cast<uint8_t>(read_le(data, at + 14, 1));
    return event;
}

tm utc_of(uint32_t seconds) {
    const time_t t = seconds;
    tm utc{};
    gmtime_r(&t, &utc);
    return utc;
}

// The event text looked up in the table: "E" or "R" and the code, such as "E110".
std::string event_text(const dev_event& event) {
    std::string text(1, (event.flags & kFlagEvent) ? 'E' : 'R');
    text += std::to_string(event.code);
    return text;
}

// Ids are printed with "%08d" as signed numbers: one above INT32_MAX shows
// negative, exactly as that format prints it.
int shown_id(uint32_t id) {
    return static_cast<int>(id);
}

// Every field is a bounded number and the descriptions are short texts from
// the table, so each buffer below holds its text; snprintf cuts rather than
// overflows, and a cut text is left out.
void append_formatted(std::string& out, const char* text, int len, size_t size) {
    if (len > 0 && static_cast<size_t>(len) < size) out.append(text, static_cast<size_t>(len));
}

void append_json_object(std::string& out, const dev_event& event, const std::string& text,
                        const std::string& descr) {
    const tm utc = utc_of(event.time);
    const bool radio = (event.flags & kFlagRadioNet) != 0;
    char head[160];
    int len = snprintf(head, sizeof head,
                       "{\"date\":\"%02d.%02d.%04d\",\"time\":\"%02d:%02d:%02d\",\"id\":\"%08d\","
                       "\"state\":\"%d\",\"event\":\"%s\",\"text\":\"",
                       utc.tm_mday, utc.tm_mon + 1, utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec,
                       shown_id(event.id), event.flags, text.c_str());
    append_formatted(out, head, len, sizeof head);
    out += descr;
    char tail[128];
    len = snprintf(tail, sizeof tail,
                   "\",\"part\":\"%d\",\"zona\":\"%d\",\"user\":\"%d\",\"ext\":\"%d\",\"rnet\":\"%d\"}",
                   event.part, event.zona, event.user, radio ? 0 : event.ext, radio ? event.ext : 0);
    append_formatted(out, tail, len, sizeof tail);
}

void append_file_line(std::string& out, int number, const dev_event& event, const std::string& descr) {
    const tm utc = utc_of(event.time);
    // The file shows the letter in lower case and ext whatever the flags say;
    // "РAСШ" is written with a Latin A.
    char line[512];
    const int len = snprintf(
        line, sizeof line,
        "%03d %02d.%02d.%04d %02d:%02d:%02d ID  :%08d %s%d %s РЗД : %d ЗОНА: %d ПЛЗ :  %d РAСШ:  %d\r\n",
        number, utc.tm_mday, utc.tm_mon + 1, utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec,
        shown_id(event.id), (event.flags & kFlagEvent) ? "e" : "r", event.code, descr.c_str(), event.part,
        event.zona, event.user, event.ext);
    append_formatted(out, line, len, sizeof line);
}

}  // namespace

void DevParser::get_list_dev_events(std::vector<unsigned char>& data) {
    MutexLock lock(http_mutex);
    events.clear();
    if (data.size() <= kHeaderSize) return;
    events.reserve((data.size() - kHeaderSize + kRecordSize - 1) / kRecordSize);
    // A last record cut short is still taken, its missing bytes read as 0.
    for (size_t at = kHeaderSize; at < data.size(); at += kRecordSize) events.push_back(read_event(data, at));
}

void DevParser::dev_events_to_json(std::string& out) {
    MutexLock lock(http_mutex);
    out = "{\"result\":[ ";
    bool first = true;
    for (const dev_event& event : events) {
        if (!first) out += ',';
        first = false;
        const std::string text = event_text(event);
        append_json_object(out, event, text, get_event_descr_utf8(text));
    }
    out += "]}";
}

void DevParser::dev_events_to_file(std::string& out) {
    out = "События прибора:\r\n";
    MutexLock lock(http_mutex);
    int number = 1;
    for (const dev_event& event : events) {
        // The description is looked up with the upper-case letter.
        append_file_line(out, number++, event, get_event_descr_utf8(event_text(event)));
    }
}

std::string DevParser::get_event_descr_utf8(const std::string& event) {
    return event_descr(event);
}
