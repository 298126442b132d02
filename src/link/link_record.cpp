// The link record: every chunk read from and written to the panel's port, kept in memory as text lines.
#include "link/link_record.h"

#include <sys/mman.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>

#include "core/engine.h"
#include "core/mutex_lock.h"
#include "link/pk7.h"

namespace {

#ifdef VORCORE_NO_LINK_RECORD
// The benchmark build that measures what the record costs.
constexpr bool kRecording = false;
#else
constexpr bool kRecording = true;
#endif

const char* const kTitle = "vorcore link record 1";
// The header takes at most this much of the download; the ring has the rest.
constexpr size_t kHeaderRoom = 256;
constexpr size_t kCapacity = LINK_RECORD_MAX_BYTES - kHeaderRoom;

uint64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

// The engine's start, taken when the program is loaded.
const uint64_t started_ms = monotonic_ms();
const time_t started_at = time(nullptr);

// A ring of text lines in one mapping of kCapacity bytes, reserved at the first
// line and kept for the life of the process. Its pages become resident only as
// lines are written into them, so the record costs memory only as traffic comes.
struct Ring {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    char* bytes = nullptr;
    size_t start = 0;  // offset of the oldest line
    size_t size = 0;   // bytes held, whole lines only
    uint64_t dropped = 0;
};
Ring ring;

// Called with the lock held.
bool ring_ready() {
    if (ring.bytes != nullptr) return true;
    void* region =
        mmap(nullptr, kCapacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (region == MAP_FAILED) return false;
    ring.bytes = static_cast<char*>(region);
    return true;
}

// Drops the oldest line. Every line ends with LF, so one is always found.
void drop_oldest_line() {
    const size_t first = std::min(ring.size, kCapacity - ring.start);
    const void* end = memchr(ring.bytes + ring.start, '\n', first);
    size_t len = 0;
    if (end != nullptr) {
        len = static_cast<size_t>(static_cast<const char*>(end) - (ring.bytes + ring.start)) + 1;
    } else {
        end = memchr(ring.bytes, '\n', ring.size - first);
        len = first + static_cast<size_t>(static_cast<const char*>(end) - ring.bytes) + 1;
    }
    ring.start = (ring.start + len) % kCapacity;
    ring.size -= len;
    ++ring.dropped;
}

void put(const char* data, size_t len) {
    const size_t at = (ring.start + ring.size) % kCapacity;
    const size_t first = std::min(len, kCapacity - at);
    memcpy(ring.bytes + at, data, first);
    memcpy(ring.bytes, data + first, len - first);
    ring.size += len;
}

// Appends "<ms>" and the finished rest of a line (from its blank to its LF).
void append_line(const char* rest, size_t len) {
    MutexLock lock(ring.mutex);
    if (!ring_ready()) return;
    char stamp[24];
    const size_t stamp_len = static_cast<size_t>(
        std::to_chars(stamp, stamp + sizeof stamp, monotonic_ms() - started_ms).ptr - stamp);
    const size_t total = stamp_len + len;
    if (total > kCapacity) {
        ++ring.dropped;
        return;
    }
    while (ring.size + total > kCapacity) drop_oldest_line();
    put(stamp, stamp_len);
    put(rest, len);
}

constexpr char kHexDigits[] = "0123456789abcdef";
constexpr char kPathHexDigits[] = "0123456789ABCDEF";

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string path_text(const std::string& path) {
    std::string out;
    for (unsigned char c : path) {
        if (c >= 0x21 && c <= 0x7E && c != '%') {
            out += static_cast<char>(c);
            continue;
        }
        out += '%';
        out += kPathHexDigits[c >> 4];
        out += kPathHexDigits[c & 0x0F];
    }
    return out;
}

bool decode_hex(const char* text, size_t len, std::string& out) {
    if (len == 0 || len % 2 != 0) return false;
    out.resize(len / 2);
    for (size_t i = 0; i < len; i += 2) {
        int high = hex_digit(text[i]), low = hex_digit(text[i + 1]);
        if (high < 0 || low < 0) return false;
        out[i / 2] = static_cast<char>(high * 16 + low);
    }
    return true;
}

bool decode_path(const std::string& text, std::string& out) {
    out.clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        std::string byte;
        if (i + 2 >= text.size()) return false;
        if (!decode_hex(text.data() + i + 1, 2, byte)) return false;
        out += byte;
        i += 2;
    }
    return !out.empty();
}

std::string header() {
    tm utc{};
    gmtime_r(&started_at, &utc);
    char started[32];
    strftime(started, sizeof started, "%Y-%m-%d %H:%M:%S", &utc);
    return std::string("# ") + kTitle + "\n# engine " + engine_version + "\n# started " + started +
           "\n# dropped " + std::to_string(ring.dropped) + "\n";
}

}  // namespace

void link_record_open(const std::string& path) {
    if (!kRecording) return;
    const std::string rest = " open " + path_text(path) + "\n";
    append_line(rest.data(), rest.size());
}

void link_record_close() {
    if (!kRecording) return;
    append_line(" close\n", 7);
}

void link_record_traffic(LinkDirection direction, const void* bytes, size_t len) {
    if (!kRecording || len == 0) return;
    // Each thread formats into its own buffer, which keeps its size: no
    // allocation per chunk once the longest chunk has been seen.
    thread_local std::string rest;
    rest.resize(3 + 2 * len + 1);
    rest[0] = ' ';
    rest[1] = static_cast<char>(direction);
    rest[2] = ' ';
    const unsigned char* in = static_cast<const unsigned char*>(bytes);
    char* out = rest.data() + 3;
    for (size_t i = 0; i < len; ++i) {
        *out++ = kHexDigits[in[i] >> 4];
        *out++ = kHexDigits[in[i] & 0x0F];
    }
    *out = '\n';
    append_line(rest.data(), rest.size());
}

std::string link_record_masked(const void* frame, size_t len) {
    const char* f = static_cast<const char*>(frame);
    if (!kRecording || len < 8 || f[0] != PK7_START) return {};
    if (f[5] == 'F' && len > 9 && memcmp(f + 6, "PS-", 3) == 0) {
        std::string masked(f, len);
        for (size_t i = 9; i < 15 && i + 1 < len; ++i) masked[i] = '*';
        return masked;
    }
    if (f[5] == 'B' && static_cast<unsigned char>(f[6]) == 0x82 && f[7] == 0x00) {
        // The payload's length before stuffing: escape bytes do not count.
        const size_t end = f[len - 1] == PK7_END ? len - 1 : len;
        const size_t payload =
            static_cast<size_t>(std::count_if(f + 6, f + end, [](char c) { return c != PK7_ESCAPE; }));
        std::vector<char> zeros(payload, 0), masked;
        if (form_pk7_packet_binary('B', zeros.data(), payload, masked) != 1) return std::string(len, '\0');
        return std::string(masked.begin(), masked.end());
    }
    return {};
}

RecordedWrite::RecordedWrite(const void* frame, size_t len)
    : frame_(static_cast<const char*>(frame)), len_(len), masked_(link_record_masked(frame, len)) {}

// A masked frame may be shorter than the frame written (the password block's
// stuffing goes): its bytes are cut at the same offsets, and the call that
// writes the frame's last byte ends the masked frame too.
void RecordedWrite::wrote(size_t from, size_t count) const {
    if (!kRecording || count == 0) return;
    if (masked_.empty()) {
        link_record_traffic(LinkDirection::to_panel, frame_ + from, count);
        return;
    }
    const size_t last = masked_.size() - 1;
    const size_t begin = std::min(from, last);
    const size_t end = from + count >= len_ ? masked_.size() : std::min(from + count, last);
    if (end > begin) link_record_traffic(LinkDirection::to_panel, masked_.data() + begin, end - begin);
}

std::string link_record_text() {
    std::string text;
    MutexLock lock(ring.mutex);
    text = header();
    text.reserve(text.size() + ring.size);
    const size_t first = std::min(ring.size, kCapacity - ring.start);
    if (ring.size != 0) {
        text.append(ring.bytes + ring.start, first);
        text.append(ring.bytes, ring.size - first);
    }
    return text;
}

void link_record_reset() {
    MutexLock lock(ring.mutex);
    ring.start = 0;
    ring.size = 0;
    ring.dropped = 0;
    if (ring.bytes != nullptr) madvise(ring.bytes, kCapacity, MADV_DONTNEED);
}

bool parse_record_line(const std::string& line, RecordLine& out) {
    out = RecordLine{};
    if (line.empty()) return false;
    if (line[0] == '#') {
        out.data = line.substr(line.size() > 1 && line[1] == ' ' ? 2 : 1);
        return true;
    }
    const char* end = line.data() + line.size();
    auto [after, error] = std::from_chars(line.data(), end, out.ms);
    if (error != std::errc() || after == end || *after != ' ') return false;
    const std::string rest(after + 1, end);
    if (rest == "close") {
        out.kind = RecordLine::close;
        return true;
    }
    if (rest.starts_with("open ")) {
        out.kind = RecordLine::open;
        return decode_path(rest.substr(5), out.data);
    }
    if (rest.size() < 2 || (rest[0] != '>' && rest[0] != '<') || rest[1] != ' ') return false;
    out.kind = RecordLine::traffic;
    out.direction = static_cast<LinkDirection>(rest[0]);
    return decode_hex(rest.data() + 2, rest.size() - 2, out.data);
}

bool parse_link_record(const std::string& text, std::vector<RecordLine>& lines, std::string& error) {
    lines.clear();
    size_t number = 0;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(at, end - at);
        at = end + 1;
        ++number;
        if (!line.empty() && line.back() == '\r') line.pop_back();  // a copy that passed through an editor
        if (line.empty()) continue;
        RecordLine parsed;
        const bool read = parse_record_line(line, parsed);
        if (lines.empty() && (!read || parsed.kind != RecordLine::comment || parsed.data != kTitle)) {
            error = "line " + std::to_string(number) + ": not the title of a vorcore link record (" + kTitle +
                    "): " + line.substr(0, 60);
            return false;
        }
        if (!read) {
            error = "line " + std::to_string(number) + ": not a line of a link record: " + line.substr(0, 60);
            return false;
        }
        lines.push_back(std::move(parsed));
    }
    if (!lines.empty()) return true;
    error = "empty: not a vorcore link record";
    return false;
}
