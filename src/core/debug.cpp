// Debug channels: time-stamped diagnostic lines on standard output.
#include "core/debug.h"

#include <sys/time.h>

#include <cstdio>
#include <ctime>
#include <mutex>

pk7_msg pk7;
debug_msg pk7_err;
debug_msg json_err;

const std::string ds = " debug info about sending to device ";
const std::string dr = " debug info about received from device ";
const std::string dh = " debug info about exchange by http ";

bool debug_mode = false;
bool dm_s1 = false, dm_s2 = false, dm_s3 = false;
bool dm_r1 = false, dm_r2 = false, dm_r3 = false, dm_r4 = false;
bool dm_h1 = false, dm_h2 = false;

namespace {

// Serialises whole lines of the two threads.
std::mutex console_mutex;

}  // namespace

std::string time_stamp() {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char text[32];
    std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d ", local.tm_hour, local.tm_min, local.tm_sec,
                  static_cast<int>(now.tv_usec / 1000));
    return text;
}

std::string dump_text(const char* buf, size_t len, size_t max) {
    size_t shown = (max != 0 && max <= len) ? max : len;
    std::string text;
    text.reserve(shown * 2);
    for (size_t i = 0; i < shown; ++i) {
        unsigned char byte = static_cast<unsigned char>(buf[i]);
        if (byte == 0x7E) {
            text += "<START>";
        } else if (byte == 0x7F) {
            text += "<END>";
        } else if (byte >= 0x20 && byte <= 0x7D) {
            text += static_cast<char>(byte);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "<%02x>", byte);
            text += hex;
        }
    }
    if (shown < len) text += "...";
    return text;
}

void console_raw(const std::string& text) {
    std::lock_guard<std::mutex> lock(console_mutex);
    // stdio rather than iostreams: the engine then never sets up the C++
    // locale machinery, which would stay resident for nothing.
    fwrite(text.data(), 1, text.size(), stdout);
    fflush(stdout);
}

void console_line(const std::string& text) {
    console_raw(text + "\n");
}

void console_stamped(const std::string& text) {
    console_raw(time_stamp() + text + "\n");
}

void debug_msg::cout_time() {
    console_raw(time_stamp());
}

void debug_msg::put(DM_TYPES, const char* text, const char* prefix) {
    // A null text would leave the console stream failed for good; print nothing instead.
    if (text == nullptr) return;
    std::string line = time_stamp();
    if (prefix != nullptr) line += prefix;
    line += text;
    console_line(line);
}

void debug_msg::put_bytes(DM_TYPES, char* buf, size_t len, const char* title, size_t max) {
    std::string line = time_stamp();
    if (title != nullptr) line += title;
    line += dump_text(buf, len, max);
    console_line(line);
}

void dump_frame(DM_TYPES type, const void* bytes, size_t len, const char* title) {
    pk7.put_bytes(type, static_cast<char*>(const_cast<void*>(bytes)), len, title, 0);
}
