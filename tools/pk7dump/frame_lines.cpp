// pk7dump's lines: one readable line per recorded frame.
#include "frame_lines.h"

#include <cstdio>

#include "link/frame_reader.h"
#include "text/txt_to_utf8.h"

namespace {

void append_utf8(std::string& out, uint32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

std::string payload_of(const std::string& body) {
    return body.size() > 5 ? body.substr(5) : std::string();
}

std::string number(size_t value) {
    return std::to_string(value);
}

std::string fault_reason(const RecordedFrame& frame) {
    std::vector<unsigned char> body(frame.body.begin(), frame.body.end());
    switch (frame_fault(body)) {
        case FrameFault::no_header:
            return "no header (fewer than 5 bytes)";
        case FrameFault::encrypted:
            return "encrypted (the length field does not start with 0)";
        case FrameFault::too_short:
        case FrameFault::too_long:
            return "length field says " + number(static_cast<size_t>(frame_declared_length(body))) +
                   ", the frame has " + number(body.size());
        case FrameFault::none:
            break;
    }
    return "";
}

std::string block_details(const std::string& payload) {
    if (payload.size() < 2) return ", " + number(payload.size()) + " bytes";
    const unsigned kind = static_cast<unsigned char>(payload[0]);
    const unsigned block = static_cast<unsigned char>(payload[1]);
    return ": kind " + number(kind) + ", number " + number(block) + ", " + number(payload.size() - 2) +
           " bytes";
}

std::string kind_details(FrameKind kind, const std::string& payload) {
    switch (kind) {
        case FrameKind::receipt:
            return "receipt, positive";
        case FrameKind::negative_receipt:
            return "receipt, negative " + payload;
        case FrameKind::journal:
            if (payload.empty()) return "journal portion";
            return std::string("journal portion") + (payload[0] == 1 ? " (last) " : " ") +
                   shown_text(payload.substr(1));
        case FrameKind::password_block: {
            const bool masked = payload.find_first_not_of('\0') == std::string::npos;
            return std::string("access password") + (masked ? " (masked)" : "") + ", " +
                   number(payload.size()) + " bytes";
        }
        case FrameKind::firmware_block:
            return "firmware block" + block_details(payload);
        case FrameKind::events_block:
            return "events block" + block_details(payload);
        case FrameKind::other:
            return "other, " + number(payload.size()) + " bytes: " + hex_of(payload);
        default:
            return std::string(frame_kind_name(kind)) + " " + shown_text(payload);
    }
}

}  // namespace

std::string shown_text(const std::string& bytes) {
    std::string out = "\"";
    for (unsigned char c : bytes) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == 0) {
            out += "\\0";
        } else if (c < 0x20 || c == 0x7F || cp2utf::utf[c] == 0) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out += escaped;
        } else {
            append_utf8(out, cp2utf::utf[c]);
        }
    }
    return out + "\"";
}

std::string frame_line(const RecordedFrame& frame) {
    std::string line = number(frame.ms) + " " + static_cast<char>(frame.direction) + " ";
    switch (frame.cut) {
        case FrameCut::lost:
            return line + "frame lost: a start byte came inside it, " + number(frame.wire.size()) +
                   " bytes: " + hex_of(frame.wire);
        case FrameCut::stray_end:
            return line + "end byte without a frame" +
                   (frame.outside > 1 ? ", after " + number(frame.outside - 1) + " bytes outside any frame"
                                      : "");
        case FrameCut::unfinished:
            return line + "unfinished when the link ended, " + number(frame.wire.size()) +
                   " bytes: " + hex_of(frame.wire);
        case FrameCut::whole:
            break;
    }
    const std::string type = frame.body.size() > 4 ? std::string(1, frame.body[4]) : "?";
    const std::string reason = fault_reason(frame);
    if (!reason.empty()) return line + type + " fails its checks: " + reason + ": " + hex_of(frame.body);
    line += type + " " + frame.body.substr(0, 4) + " " +
            kind_details(frame_kind(frame.direction, frame.body), payload_of(frame.body));
    if (frame.outside > 0) line += " (after " + number(frame.outside) + " bytes outside any frame)";
    return line;
}
