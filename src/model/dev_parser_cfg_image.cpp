// Configuration lines from the panel: cutting replies into lines, decoding each
// line into the configuration map, and the progress of a configuration read.
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "model/dev_parser.h"
#include "model/dev_parser_helpers.h"
#include "model/history.h"

namespace {

// The panel's own configuration holds a few thousand settings; the caps keep a
// misbehaving panel (or file) from filling the memory of the engine.
constexpr size_t kMaxSettings = 65536;
constexpr size_t kMaxCfgText = 16 * 1024 * 1024;
// A range line names at most this many settings: indices have three digits.
constexpr long kMaxRangeSpan = 1000;
// No range bound beyond this: a range can never name more keys than the image holds.
constexpr long kMaxRangeIndex = static_cast<long>(kMaxSettings);

// Reads a range bound: false when the number is beyond kMaxRangeIndex
// (overflowing text included). No digits read as 0.
bool read_range_bound(const char* text, long& out) {
    errno = 0;
    out = strtol(text, nullptr, 10);
    return errno != ERANGE && out >= 0 && out <= kMaxRangeIndex;
}

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

bool DevParser::put_setting(const std::string& key, const std::string& value) {
    std::string map_key = sort_fit(key);
    auto at = cfg.lower_bound(map_key);
    const bool exists = at != cfg.end() && at->first == map_key;
    if (!exists && cfg.size() >= kMaxSettings) return false;
    // Entries written directly (td, sv and the like) were never counted: the
    // count never goes below zero for them.
    const size_t old_size =
        exists ? at->first.size() + at->second.first.size() + at->second.second.size() : 0;
    const size_t kept = cfg_text_bytes >= old_size ? cfg_text_bytes - old_size : 0;
    const size_t new_size = map_key.size() + key.size() + value.size();
    if (kept + new_size > kMaxCfgText) return false;
    cfg_text_bytes = kept + new_size;
    if (exists) {
        at->second = std::make_pair(key, value);
        return true;
    }
    cfg.emplace_hint(at, std::move(map_key), std::make_pair(key, value));
    return true;
}

void DevParser::report_cfg_full(const char* line) {
    if (cfg_full_reported) return;
    cfg_full_reported = true;
    console_stamped(line);
}

void DevParser::put_range(const std::string& key, size_t colon, const std::string& value) {
    const size_t digit = key.find_first_of("0123456789");
    if (digit == std::string::npos) return;
    long first = 0, last = 0;
    const bool bounded =
        read_range_bound(key.c_str() + digit, first) && read_range_bound(key.c_str() + colon + 1, last);
    if (bounded && last < first) return;
    if (!bounded || last - first >= kMaxRangeSpan) {
        console_stamped("parse cfg: range " + printable(key) +
                        " not expanded: beyond the limits of the image");
        return;
    }
    const std::string name = key.substr(0, digit);
    for (long index = first; index <= last; ++index) {
        const std::string each = name + std::to_string(index);
        if (!put_setting(each, value)) {
            report_cfg_full("parse cfg: the configuration is full, further settings refused");
            return;
        }
        if (cfg_keys.size() < kMaxSettings) cfg_keys.insert(each);
    }
}

std::string DevParser::sort_fit(const std::string& key) {
    std::string letters, digits;
    letters.reserve(key.size() + 3);
    for (char c : key) (is_digit(c) ? digits : letters) += c;
    if (digits.empty()) return letters;
    if (digits.size() < 3) letters.append(3 - digits.size(), '0');
    return letters + digits;
}

int DevParser::parse_cfg(std::vector<unsigned char>& data, unsigned long start) {
    std::string progress;
    {
        MutexLock lock(http_mutex);
        // While the engine itself reads the configuration (status 4, also in the
        // reply whose "ec" ends that read) the browser is not told of an update.
        const bool engine_reading = get_status() == 4;
        std::string line;
        for (unsigned long i = start; i < data.size(); ++i) {
            const unsigned char byte = data[i];
            if (byte == '\n' || (byte == '\r' && i + 1 < data.size() && data[i + 1] == '\n')) {
                if (byte == '\r') ++i;
                parse_cfg_str(line);
                line.clear();
                continue;
            }
            line += static_cast<char>(byte);
        }
        if (!line.empty()) parse_cfg_str(line);
        if (!cfg_keys.empty() && !engine_reading) status_dev.update = "true";
        // The "ec" of a read the engine asked for ended it (status 4 to 3).
        if (engine_reading && get_status() == 3) history_capture_locked(*this, SnapshotKind::read);
        // Wide enough that a panel sending lines for ever cannot overflow it.
        if (cfg_total != 0) progress = std::to_string(static_cast<int>(cfg_count * 100LL / cfg_total));
    }
    // The figure is not clamped: more lines than announced show more than 100.
    if (!progress.empty()) set_ready_text(&StatusDevice::progress_cfg, progress);
    return 0;
}

void DevParser::parse_cfg_str(std::string& line) {
    if (line.empty()) return;
    const size_t minus = line.find('-');
    if (minus == std::string::npos) {
        if (line.size() > 2 && line.compare(0, 2, "SV") == 0) {
            cfg_sv = line.substr(2);
            cfg["sv"] = std::make_pair(std::string("sv"), cfg_sv);
            cfg_keys.insert("sv");
        } else {
            pk7.put(DM_IN_CFG, ("Ключ " + line + " не содержит значение").c_str(), nullptr);
        }
        if (cfg_count < INT_MAX) ++cfg_count;
        return;
    }

    std::string key = to_lower(line.substr(0, minus));
    erase_line_ends(key);
    if (key.empty()) return;

    if (key == "bc") {
        const std::string value = line.substr(minus + 1);
        cfg_total = static_cast<int>(strtol(value.c_str(), nullptr, 10));
        cfg["bc"] = std::make_pair(key, value);
        cfg_keys.insert(key);
    } else if (key == "ec") {
        cfg["ec"] = std::make_pair(key, std::string("1"));
        cfg_keys.insert(key);
        if (get_status() == 4) set_status(3);
    } else {
        std::string value = line.substr(minus + 1);
        erase_line_ends(value);
        const size_t colon = key.find(':');
        if (colon == std::string::npos || colon + 1 == key.size()) {
            if (!put_setting(key, value))
                report_cfg_full("parse cfg: the configuration is full, further settings refused");
            else if (cfg_keys.size() < kMaxSettings)
                cfg_keys.insert(key);
            if (key == "cs1") cfg_cs1 = value;
        } else {
            put_range(key, colon, value);
        }
    }
    if (cfg_count < INT_MAX) ++cfg_count;
}
