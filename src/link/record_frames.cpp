// A link record cut into frames by the engine's own reader, and what each frame is, for the decoder and the
// replay.
#include "link/record_frames.h"

#include <algorithm>
#include <cctype>

#include "link/frame_reader.h"
#include "link/pk7.h"

namespace {

char type_of(const std::string& body) {
    return body.size() > 4 ? body[4] : '\0';
}

std::string payload_of(const std::string& body) {
    return body.size() > 5 ? body.substr(5) : std::string();
}

}  // namespace

void FrameCutter::complete(FrameCut cut, std::vector<RecordedFrame>& out) {
    pending_.direction = direction_;
    pending_.cut = cut;
    pending_.link = link;
    pending_.ms = pending_.pieces.empty() ? 0 : pending_.pieces.back().first;
    pending_.body.assign(body_.begin(), body_.end());
    for (const auto& piece : pending_.pieces) pending_.wire += piece.second;
    const size_t start = pending_.wire.find(PK7_START);
    pending_.outside = start == std::string::npos ? pending_.wire.size() : start;
    out.push_back(std::move(pending_));
    pending_ = RecordedFrame{};
}

std::vector<RecordedFrame> FrameCutter::feed(uint64_t ms, const std::string& bytes) {
    std::vector<RecordedFrame> out;
    size_t from = 0;
    auto take = [&](size_t to) {
        if (to > from) pending_.pieces.emplace_back(ms, bytes.substr(from, to - from));
        from = to;
    };
    read_frames({inside_, escaped_, body_}, reinterpret_cast<const unsigned char*>(bytes.data()),
                bytes.size(), [&](ReaderEvent event, size_t at) {
                    // A lost frame ends before the start byte that cut it; the others with their end byte.
                    take(event == ReaderEvent::frame_lost ? at : at + 1);
                    complete(event == ReaderEvent::frame        ? FrameCut::whole
                             : event == ReaderEvent::frame_lost ? FrameCut::lost
                                                                : FrameCut::stray_end,
                             out);
                });
    take(bytes.size());
    return out;
}

std::vector<RecordedFrame> FrameCutter::finish(uint64_t ms) {
    std::vector<RecordedFrame> out;
    if (!pending_.pieces.empty()) {
        complete(FrameCut::unfinished, out);
        out.back().ms = std::max(out.back().ms, ms);
    }
    inside_ = false;
    escaped_ = false;
    body_.clear();
    return out;
}

FrameKind frame_kind(LinkDirection direction, const std::string& body) {
    const std::string payload = payload_of(body);
    const bool to_panel = direction == LinkDirection::to_panel;
    switch (type_of(body)) {
        case 'A':
            return payload.size() == 2 && payload[0] == 'N' && isdigit(static_cast<unsigned char>(payload[1]))
                       ? FrameKind::negative_receipt
                       : FrameKind::receipt;
        case 'F':
            if (to_panel) {
                if (payload.starts_with("PS-") || payload.find("\r\n") == std::string::npos)
                    return FrameKind::command;
                return FrameKind::configuration;
            }
            if (body.size() >= 9 && payload.starts_with("TL-")) return FrameKind::log_count;
            if (body.size() >= 9 && payload.starts_with("UR") && (payload[2] == '0' || payload[2] == '1') &&
                payload[3] == '-')
                return FrameKind::firmware_result;
            return FrameKind::configuration;
        case 'G':
            return FrameKind::journal;
        case 'L':
            return FrameKind::telemetry;
        case 'B':
            if (!to_panel) return FrameKind::events_block;
            if (payload.size() >= 2 && static_cast<unsigned char>(payload[0]) == 0x82 && payload[1] == 0)
                return FrameKind::password_block;
            if (!payload.empty() &&
                std::all_of(payload.begin(), payload.end(), [](char c) { return c == 0; }))
                return FrameKind::password_block;
            return FrameKind::firmware_block;
        default:
            return FrameKind::other;
    }
}

const char* frame_kind_name(FrameKind kind) {
    switch (kind) {
        case FrameKind::receipt:
            return "receipt";
        case FrameKind::negative_receipt:
            return "negative receipt";
        case FrameKind::command:
            return "command";
        case FrameKind::configuration:
            return "configuration";
        case FrameKind::log_count:
            return "journal count";
        case FrameKind::firmware_result:
            return "firmware result";
        case FrameKind::journal:
            return "journal portion";
        case FrameKind::telemetry:
            return "telemetry";
        case FrameKind::password_block:
            return "access password";
        case FrameKind::firmware_block:
            return "firmware block";
        case FrameKind::events_block:
            return "events block";
        case FrameKind::other:
            break;
    }
    return "other";
}

// Lines end with LF or CR LF, as the engine's configuration reader cuts them;
// the "ec" line is the one whose key (before "-") is "ec" in any case.
bool ends_configuration(const std::string& body) {
    const std::string payload = payload_of(body);
    for (size_t at = 0; at < payload.size();) {
        size_t end = payload.find('\n', at);
        if (end == std::string::npos) end = payload.size();
        std::string line = payload.substr(at, end - at);
        at = end + 1;
        const size_t minus = line.find('-');
        if (minus == std::string::npos) continue;
        std::string key = line.substr(0, minus);
        std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::tolower(c); });
        if (key == "ec") return true;
    }
    return false;
}

bool starts_configuration_read(const std::string& body) {
    return type_of(body) == 'F' && payload_of(body).starts_with("CF-");
}

// The panel's frames that no frame of the engine asked for: telemetry, and
// configuration lines outside a read (the panel reports a setting changed at
// its keyboard). Every other frame answers the engine's frame before it.
static void mark_unasked(std::vector<RecordedFrame>& frames) {
    bool reading = false;
    for (RecordedFrame& frame : frames) {
        if (frame.cut != FrameCut::whole) continue;
        if (frame.direction == LinkDirection::to_panel) {
            if (starts_configuration_read(frame.body)) reading = true;
            continue;
        }
        const FrameKind kind = frame_kind(frame.direction, frame.body);
        if (kind == FrameKind::telemetry) frame.unasked = true;
        if (kind != FrameKind::configuration) continue;
        if (!reading) {
            frame.unasked = true;
        } else if (ends_configuration(frame.body)) {
            reading = false;
        }
    }
}

std::vector<RecordedFrame> record_frames(const std::vector<RecordLine>& lines) {
    std::vector<RecordedFrame> frames;
    FrameCutter to_panel(LinkDirection::to_panel), from_panel(LinkDirection::from_panel);
    auto add = [&](std::vector<RecordedFrame> more, size_t line) {
        for (RecordedFrame& frame : more) {
            frame.line = line;
            frames.push_back(std::move(frame));
        }
    };
    uint64_t last_ms = 0;
    int link = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        const RecordLine& line = lines[i];
        if (line.kind == RecordLine::comment) continue;
        last_ms = line.ms;
        if (line.kind == RecordLine::traffic) {
            FrameCutter& cutter = line.direction == LinkDirection::to_panel ? to_panel : from_panel;
            add(cutter.feed(line.ms, line.data), i);
            continue;
        }
        add(to_panel.finish(line.ms), i);
        add(from_panel.finish(line.ms), i);
        if (line.kind == RecordLine::open) to_panel.link = from_panel.link = ++link;
    }
    add(to_panel.finish(last_ms), lines.size());
    add(from_panel.finish(last_ms), lines.size());
    mark_unasked(frames);
    return frames;
}

std::string hex_of(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        out += digits[c >> 4];
        out += digits[c & 0x0F];
    }
    return out;
}
