// pk7dump --stats: counts per frame kind, resends, negative receipts, silent gaps and the time of each
// transfer.
#include "link_stats.h"

#include <map>

#include "link/frame_reader.h"

namespace {

std::string payload_of(const std::string& body) {
    return body.size() > 5 ? body.substr(5) : std::string();
}

bool is_command(const RecordedFrame& frame, const char* text) {
    return frame.direction == LinkDirection::to_panel && frame.body.size() > 4 && frame.body[4] == 'F' &&
           payload_of(frame.body) == text;
}

// One kind of transfer: what starts it and what ends it.
struct TransferRule {
    const char* name;
    bool (*starts)(const RecordedFrame&, FrameKind);
    bool (*ends)(const RecordedFrame&, FrameKind);
};

bool to_panel(const RecordedFrame& frame) {
    return frame.direction == LinkDirection::to_panel;
}

// A configuration write ends with the receipt of its "EC"; the rule sees that
// receipt once "EC" has gone out.
const TransferRule transfer_rules[] = {
    {"configuration read",
     [](const RecordedFrame& f, FrameKind) { return to_panel(f) && starts_configuration_read(f.body); },
     [](const RecordedFrame& f, FrameKind k) {
         return !to_panel(f) && k == FrameKind::configuration && ends_configuration(f.body);
     }},
    {"configuration write",
     [](const RecordedFrame& f, FrameKind k) { return to_panel(f) && k == FrameKind::configuration; },
     [](const RecordedFrame& f, FrameKind k) { return !to_panel(f) && k == FrameKind::receipt; }},
    {"journal", [](const RecordedFrame& f, FrameKind) { return is_command(f, "PL"); },
     [](const RecordedFrame& f, FrameKind k) {
         const std::string payload = payload_of(f.body);
         return !to_panel(f) && ((k == FrameKind::journal && !payload.empty() && payload[0] == 1) ||
                                 (k == FrameKind::log_count && payload == "TL-0"));
     }},
    {"events", [](const RecordedFrame& f, FrameKind) { return is_command(f, "MH"); },
     [](const RecordedFrame& f, FrameKind k) {
         return !to_panel(f) && k == FrameKind::events_block && f.body.size() == 7 &&
                (static_cast<unsigned char>(f.body[5]) & 0x80) == 0;
     }},
    {"firmware upload",
     [](const RecordedFrame& f, FrameKind k) { return to_panel(f) && k == FrameKind::firmware_block; },
     [](const RecordedFrame& f, FrameKind k) { return !to_panel(f) && k == FrameKind::firmware_result; }},
};

struct Transfer {
    const char* name;
    uint64_t from = 0;
    uint64_t to = 0;
    bool finished = false;
};

// Follows the transfers through the frames: one of each kind at a time.
class TransferWatch {
public:
    void see(const RecordedFrame& frame, FrameKind kind) {
        if (frame.link != link_) abandon(frame.link);
        for (size_t r = 0; r < std::size(transfer_rules); ++r) {
            const TransferRule& rule = transfer_rules[r];
            long& open = open_[r];
            if (open >= 0 && rule.ends(frame, kind) && (r != 1 || write_ended_)) {
                done_[static_cast<size_t>(open)].to = frame.ms;
                done_[static_cast<size_t>(open)].finished = true;
                open = -1;
                if (r == 1) write_ended_ = false;
            } else if (open < 0 && rule.starts(frame, kind)) {
                open = static_cast<long>(done_.size());
                done_.push_back({rule.name, frame.ms});
            }
        }
        if (open_[1] >= 0 && is_command(frame, "EC")) write_ended_ = true;
    }
    const std::vector<Transfer>& transfers() const { return done_; }

private:
    void abandon(int link) {
        link_ = link;
        for (long& open : open_) open = -1;
        write_ended_ = false;
    }
    int link_ = 0;
    long open_[std::size(transfer_rules)] = {-1, -1, -1, -1, -1};
    bool write_ended_ = false;
    std::vector<Transfer> done_;
};

std::string gaps_report(const std::vector<RecordLine>& lines) {
    std::string list;
    size_t count = 0;
    bool open = false;
    uint64_t last = 0;
    for (const RecordLine& line : lines) {
        if (line.kind == RecordLine::comment) continue;
        if (open && line.ms - last > SILENT_GAP_MS) {
            ++count;
            list += "  at " + std::to_string(last) + ": " + std::to_string(line.ms - last) + " ms\n";
        }
        if (line.kind == RecordLine::open) open = true;
        if (line.kind == RecordLine::close) open = false;
        last = line.ms;
    }
    return "silent gaps over 1 s: " + std::to_string(count) + "\n" + list;
}

}  // namespace

std::string link_stats(const std::vector<RecordLine>& lines, const std::vector<RecordedFrame>& frames) {
    std::map<std::string, size_t> counts;
    size_t resends = 0, negatives = 0, lost = 0, stray = 0, unfinished = 0, failing = 0;
    std::string last_sent;  // the engine's last frame other than a receipt, until a positive receipt
    TransferWatch watch;
    for (const RecordedFrame& frame : frames) {
        if (frame.cut != FrameCut::whole) {
            lost += frame.cut == FrameCut::lost;
            stray += frame.cut == FrameCut::stray_end;
            unfinished += frame.cut == FrameCut::unfinished;
            continue;
        }
        std::vector<unsigned char> body(frame.body.begin(), frame.body.end());
        if (frame_fault(body) != FrameFault::none) {
            ++failing;
            continue;
        }
        const FrameKind kind = frame_kind(frame.direction, frame.body);
        ++counts[std::string(1, static_cast<char>(frame.direction)) + " " + frame.body[4] + " " +
                 frame_kind_name(kind)];
        negatives += kind == FrameKind::negative_receipt;
        if (to_panel(frame) && frame.body[4] != 'A') {
            resends += frame.body == last_sent;
            last_sent = frame.body;
        } else if (!to_panel(frame) && kind == FrameKind::receipt) {
            last_sent.clear();
        }
        watch.see(frame, kind);
    }
    std::string out = "frames:\n";
    for (const auto& [name, count] : counts) out += "  " + name + ": " + std::to_string(count) + "\n";
    out += "frames that fail their checks: " + std::to_string(failing) + "\n";
    out += "frames lost: " + std::to_string(lost) + "\n";
    out += "end bytes without a frame: " + std::to_string(stray) + "\n";
    out += "unfinished at a link's end: " + std::to_string(unfinished) + "\n";
    out += "resends: " + std::to_string(resends) + "\n";
    out += "negative receipts: " + std::to_string(negatives) + "\n";
    out += gaps_report(lines);
    out += "transfers:\n";
    for (const Transfer& transfer : watch.transfers()) {
        out += std::string("  ") + transfer.name + ": ";
        out += transfer.finished
                   ? std::to_string(transfer.to - transfer.from) + " ms (" + std::to_string(transfer.from) +
                         " to " + std::to_string(transfer.to) + ")\n"
                   : "unfinished (from " + std::to_string(transfer.from) + ")\n";
    }
    return out;
}
