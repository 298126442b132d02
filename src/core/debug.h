// Debug channels: time-stamped diagnostic lines on standard output.
#pragma once

#include <cstddef>
#include <string>

// The kind of a frame dump. Carried for the caller's bookkeeping only.
enum DM_TYPES {
    DM_OUT_SRC = 1,       // raw bytes written to the port
    DM_OUT_CMD = 2,       // command packet sent
    DM_OUT_RECEIPT = 3,   // receipt sent
    DM_OUT_FIRMWARE = 4,  // firmware / binary block sent
    DM_IN_SRC = 5,        // raw bytes read from the port
    DM_IN_TMT = 6,        // telemetry received
    DM_IN_CFG = 7,        // configuration received
    DM_IN_RECEIPT = 8,    // receipt received
    DM_IN_LOGS = 9,       // logs received
    DM_IN_EVENTS = 10,    // events received
};

class debug_msg {
public:
    virtual ~debug_msg() = default;
    // Writes the local time as "%02d:%02d:%02d.%03d " and nothing else.
    void cout_time();
    // One line: time stamp, prefix (if any), text, newline.
    void put(DM_TYPES type, const char* text, const char* prefix);
    // One dump line of the first bytes of buf; max 0 means no limit.
    virtual void put_bytes(DM_TYPES type, char* buf, size_t len, const char* title, size_t max);
};

class pk7_msg : public debug_msg {};   // serial exchange with the panel
class json_msg : public debug_msg {};  // HTTP/JSON exchange with the browser

extern pk7_msg pk7;
extern json_msg json;  // defined with the other start-up globals
extern debug_msg pk7_err;
extern debug_msg json_err;

// Channel texts of the command-line confirmation and usage lines.
extern const std::string ds;
extern const std::string dr;
extern const std::string dh;

// Switches, set once from the command line before any thread starts.
extern bool debug_mode;
extern bool dm_s1, dm_s2, dm_s3;
extern bool dm_r1, dm_r2, dm_r3, dm_r4;
extern bool dm_h1, dm_h2;

// The current local time formatted as the line prefix "%02d:%02d:%02d.%03d ".
std::string time_stamp();

// The dump text of put_bytes (without time stamp and title).
std::string dump_text(const char* buf, size_t len, size_t max);

// True when a dump of the kind `kind_switch` stands for is to be written.
inline bool channel_on(bool kind_switch) {
    return debug_mode && kind_switch;
}
// One dump line of a frame on the serial channel, all of its bytes shown.
void dump_frame(DM_TYPES type, const void* bytes, size_t len, const char* title);

// Console output. Both threads print; each call writes one whole line (text
// plus newline) under a lock and flushes, so lines never interleave.
void console_line(const std::string& text);
// The same with the time stamp in front.
void console_stamped(const std::string& text);
// Writes raw text (no newline added) under the same lock and flushes.
void console_raw(const std::string& text);
