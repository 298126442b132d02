// What a simulated Vorlane panel says: PK7 frames, telemetry, configuration,
// log and event replies, built independently of the engine's own framing code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

// One event record as the panel keeps it (15 bytes on the wire).
struct SimEvent {
    uint32_t time = 0;
    uint32_t id = 0;
    uint16_t code = 0;
    uint8_t part = 0;
    uint8_t zona = 0;
    uint8_t user = 0;
    uint8_t ext = 0;
    uint8_t flags = 0;
};

// The panel's memory: what it reports when asked.
struct PanelContent {
    bool ready = true;                      // telemetry mode 1 (ready) or 0
    std::string devtype = "ms02";           // device type in telemetry
    std::string gsm = "87";                 // signal level, percent
    time_t clock = 0;                       // panel clock; 0 means the host's time
    std::vector<std::string> config_lines;  // setting lines, without bc/ec
    std::vector<std::string> log_records;   // "hex time::code::text"
    std::vector<SimEvent> events;
    char firmware_result = '1';     // r of the "UR<d>-<r>" report
    bool reject_password = false;   // answer the password block with "AN3"
    std::string access_password;    // when set, only this password opens the panel (needs the cipher table)
    size_t max_text_payload = 200;  // text replies are cut into frames of at most this

    // A small but complete panel: settings, three log records, three events.
    static PanelContent standard();
};

// Events per data block of an events transfer. The block number is one byte
// and the end block needs a number too, so one transfer carries at most 254
// data blocks.
inline constexpr size_t SIM_EVENTS_PER_BLOCK = 20;
inline constexpr size_t SIM_MAX_EVENTS = 254 * SIM_EVENTS_PER_BLOCK;

// A panel's journal of `count` records from `start` (seconds since 1970) on:
// information, warnings and errors of its own operation, a few minutes to an
// hour apart, as "hex time::code::text".
std::vector<std::string> sim_journal(size_t count, uint32_t start);
// A panel's event memory of `count` events from `start` on: alarms and their
// restorals, arming and disarming, power and link faults, radio devices (flag
// bit 5, ext the radio network), and codes the engine's table does not know.
std::vector<SimEvent> sim_event_memory(size_t count, uint32_t start);

// A whole frame: "~", length digits, type, stuffed payload, 0x7F.
std::string sim_frame(char type, const std::string& payload);
// The plain receipt "~0005A\x7f".
std::string sim_receipt();

// One telemetry block: "+tmtNN-..." lines, each ended by CR LF.
std::string telemetry_payload(const PanelContent& content);
// Payloads of the "F" frames answering a configuration read: "bc-N", the
// settings, "ec-0"; every payload ends on a line boundary.
std::vector<std::string> config_payloads(const PanelContent& content);
// Applies setting lines the engine wrote ("key-value", each ended by CR LF, as
// a configuration frame carries them) to the panel's settings: a line replaces
// the setting of the same key (keys compare without case) or is added. The
// lines that frame a configuration ("bc", "ec") and the panel's identity ("sv",
// "td", "vc") are not changed by a write; text after the last CR LF is not a line.
void apply_setting_lines(std::vector<std::string>& config_lines, const std::string& text);
// Payloads answering a log read: the "F" count "TL-n", then the "G" portions
// (end mark byte, records each ended by a zero byte).
std::vector<std::pair<char, std::string>> log_replies(const PanelContent& content);
// Payloads of the "B" frames of an events transfer: the first block (kind
// 1|0x80, number 0, record count), data blocks, then the empty end block.
// Only the first SIM_MAX_EVENTS events fit one transfer.
std::vector<std::string> event_block_payloads(const PanelContent& content);
// The 15 wire bytes of one event record, numbers little-endian.
std::string event_record_bytes(const SimEvent& event);

// Cuts a byte stream into frames the way a panel does: "~" starts a frame,
// 0x7F ends it, "}" escapes the next byte. Bodies come out unstuffed, without
// start and end bytes (length digits first).
class SimFrameReader {
public:
    std::vector<std::string> feed(const char* bytes, size_t len);

private:
    std::string body_;
    bool inside_ = false;
    bool escaped_ = false;
};
