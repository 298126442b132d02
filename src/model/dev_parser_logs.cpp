// The panel's journal: log replies collected into records, shown as JSON pages and saved as text.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "model/dev_parser.h"
#include "text/txt_to_utf8.h"

namespace {

// A hostile or broken panel must not fill the memory with journal records.
// Each record is charged its text plus the string object that holds it; a real
// panel's journal stays far below this.
constexpr size_t kMaxLogBytes = 16u << 20;

constexpr unsigned char kLastPortion = 1;

// A record that shows: its time broken down in UTC, its type code and text.
struct LogRecord {
    tm utc{};
    std::string type;
    std::string text;
};

// The seconds of a time piece: 1 to 16 hexadecimal digits and nothing else,
// small enough for time_t.
bool hex_seconds(const std::string& piece, time_t& seconds) {
    if (piece.empty() || piece.size() > 16) return false;
    uint64_t value = 0;
    for (char c : piece) {
        int digit = hex_value(c);
        if (digit < 0) return false;
        value = value * 16 + static_cast<uint64_t>(digit);
    }
    if (value > static_cast<uint64_t>(INT64_MAX)) return false;
    seconds = static_cast<time_t>(value);
    return true;
}

// "time::type::text" with exactly two separators, where the time can be broken
// down into a date. Any other record is not shown (it stays stored).
bool read_record(const std::string& record, LogRecord& out) {
    const size_t first = record.find("::");
    if (first == std::string::npos) return false;
    const size_t second = record.find("::", first + 2);
    if (second == std::string::npos || record.find("::", second + 2) != std::string::npos) return false;
    time_t seconds = 0;
    if (!hex_seconds(record.substr(0, first), seconds) || gmtime_r(&seconds, &out.utc) == nullptr)
        return false;
    out.type.assign(record, first + 2, second - first - 2);
    out.text.assign(record, second + 2);
    return true;
}

// Appends the text with a backslash before every double quote and backslash,
// as json_escape does, so that the page stays valid JSON.
void append_escaped(std::string& out, const std::string& text) {
    for (char c : text) {
        if (is_escape_sym(c)) out += '\\';
        out += c;
    }
}

void report_unreadable(const char* writer, const std::string& record) {
    console_stamped(std::string(writer) + ": No parse log record: " + record);
}

// "dd.mm.yyyy" followed by `between` and "hh:mm:ss". Every value is a bounded
// integer, so the buffer always holds the text; the year is widened because a
// far date's tm_year + 1900 does not fit an int.
void append_date_time(std::string& out, const tm& utc, const char* between) {
    char text[96];
    int len =
        snprintf(text, sizeof text, "%02d.%02d.%04lld%s%02d:%02d:%02d", utc.tm_mday, utc.tm_mon + 1,
                 static_cast<long long>(utc.tm_year) + 1900, between, utc.tm_hour, utc.tm_min, utc.tm_sec);
    if (len > 0) out.append(text, static_cast<size_t>(len) < sizeof text ? static_cast<size_t>(len) : 0);
}

void append_json_object(std::string& out, const LogRecord& record) {
    out += "{\"date\":\"";
    append_date_time(out, record.utc, "\",\"time\":\"");
    out += "\",\"type\":\"";
    append_escaped(out, record.type);
    out += "\",\"text\":\"";
    append_escaped(out, record.text);
    out += "\"}";
}

const char* type_word(const std::string& type) {
    if (type == "ER") return "ERR";
    if (type == "MS") return "INF";
    return "WNG";
}

void append_file_line(std::string& out, const LogRecord& record) {
    out += type_word(record.type);
    out += ": ";
    append_date_time(out, record.utc, " ");
    out += ' ';
    out += record.text;
    out += "\r\n";
}

}  // namespace

int DevParser::parse_log(std::vector<unsigned char>& data, unsigned long pos) {
    MutexLock lock(http_mutex);
    if (pos < data.size() && data[pos] == kLastPortion) {
        set_status(3);
        status_dev.rlog = std::string("2");
    }
    // An emptied list (clear_logs, clear) starts a fresh budget.
    if (logs.empty()) {
        log_bytes = 0;
        log_full_reported = false;
    }
    bool dropped = false;
    auto store = [&](const unsigned char* begin, size_t len) {
        const size_t cost = len + sizeof(std::string);
        if (log_bytes + cost > kMaxLogBytes) {
            dropped = true;
            return;
        }
        log_bytes += cost;
        ++log_received;
        logs.emplace_back(reinterpret_cast<const char*>(begin), len);
    };

    // Records are runs of non-zero bytes, each ended by a zero byte; the last
    // one may lack its zero.
    const unsigned char* next = pos < data.size() ? data.data() + pos + 1 : nullptr;
    const unsigned char* const end = data.data() + data.size();
    while (next != nullptr && next < end) {
        const auto* zero =
            static_cast<const unsigned char*>(memchr(next, 0, static_cast<size_t>(end - next)));
        if (zero == nullptr) {
            store(next, static_cast<size_t>(end - next));
            break;
        }
        store(next, static_cast<size_t>(zero - next));
        next = zero + 1;
    }

    if (dropped && !log_full_reported) {
        log_full_reported = true;
        console_stamped("parse_log: log list full, further records dropped");
    }
    if (log_count != 0) status_dev.log = std::to_string(static_cast<int64_t>(log_received) * 100 / log_count);
    return 1;
}

void DevParser::dev_log_to_json(std::string& out, int first, int count) {
    MutexLock lock(http_mutex);
    // A negative first record would index before the list: the page starts at 0.
    const int64_t from = first < 0 ? 0 : first;
    const int64_t n = static_cast<int64_t>(logs.size());
    int64_t end = n;
    if (count != 0 && from + count < n) end = from + count;

    // A first record beyond the end gives a negative number: intended, and kept.
    out = "{\"result\":{\"number\":\"";
    out += std::to_string(end - from);
    out += "\",\"log\":[";
    bool written = false;
    LogRecord shown;
    for (int64_t i = from; i < end; ++i) {
        const std::string& record = logs[static_cast<size_t>(i)];
        if (!read_record(record, shown)) {
            report_unreadable("dev_log_to_json", record);
            continue;
        }
        if (written) out += ',';
        written = true;
        append_json_object(out, shown);
    }
    out += "]}}";
}

void DevParser::dev_log_to_file(std::string& out) {
    MutexLock lock(http_mutex);
    out = "Логи прибора:\r\n";
    LogRecord shown;
    for (const std::string& record : logs) {
        if (!read_record(record, shown)) {
            report_unreadable("dev_log_to_file", record);
            continue;
        }
        append_file_line(out, shown);
    }
}

void DevParser::clear_logs() {
    MutexLock lock(http_mutex);
    // Swapping with an empty list gives the memory back, not just the records.
    std::vector<std::string>().swap(logs);
    log_bytes = 0;
    log_full_reported = false;
}
