// Replay of a link record: the panel's side of a recorded session, played against an engine on the pty.
#include "panel_replay.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace {

constexpr int kLoopWaitMs = 10;
// After the last answer: time for the engine to read it before the terminal goes.
constexpr auto kLinger = std::chrono::milliseconds(500);
const std::string kPlainReceipt("~0005A\x7f");

bool is_receipt(const std::string& body) {
    return body.size() > 4 && body[4] == 'A';
}

// Whether the engine's frame `got` is the recorded frame `expected`. The
// record holds no password: its access-password block stands for any block of
// that length, and the six characters of a "PS-" command for any six.
bool frames_match(const std::string& expected, const std::string& got) {
    if (expected == got) return true;
    if (expected.size() != got.size() || expected.size() < 5) return false;
    if (frame_kind(LinkDirection::to_panel, expected) == FrameKind::password_block) return got[4] == 'B';
    constexpr size_t password_at = 8, password_len = 6;  // "0018FPS-" then the six
    if (expected.compare(4, 4, "FPS-") != 0 || expected.size() < password_at + password_len) return false;
    for (size_t i = 0; i < expected.size(); ++i)
        if ((i < password_at || i >= password_at + password_len) && expected[i] != got[i]) return false;
    return true;
}

}  // namespace

PanelReplay::~PanelReplay() {
    remove_sim_link(link_path_, pty_.slave_path);
    if (pty_.master >= 0) close(pty_.master);
    if (pty_.slave >= 0) close(pty_.slave);
}

bool PanelReplay::load(const std::string& record_text) {
    std::vector<RecordLine> lines;
    if (!parse_link_record(record_text, lines, error_)) return false;
    std::vector<Link> by_number;
    for (const RecordedFrame& frame : record_frames(lines)) {
        if (frame.link <= 0) continue;
        if (static_cast<size_t>(frame.link) >= by_number.size())
            by_number.resize(static_cast<size_t>(frame.link) + 1);
        Link& link = by_number[static_cast<size_t>(frame.link)];
        if (frame.direction == LinkDirection::to_panel) {
            if (frame.cut == FrameCut::whole && !is_receipt(frame.body))
                link.steps.push_back({frame.body, frame.wire, frame.ms, {}});
            continue;
        }
        if (frame.unasked || link.steps.empty())
            link.unasked.push_back(frame.pieces);
        else
            link.steps.back().answer.push_back(frame.pieces);
    }
    links_.clear();
    for (Link& link : by_number)
        if (!link.steps.empty()) links_.push_back(std::move(link));
    if (!links_.empty()) return true;
    error_ = "the record holds no frame the engine wrote";
    return false;
}

bool PanelReplay::start() {
    if (!open_sim_pty(pty_, error_)) return false;
    if (options_.make_link) link_path_ = make_sim_link(pty_.slave_path);
    return true;
}

size_t PanelReplay::frame_number() const {
    size_t number = step_ + 1;
    for (size_t i = 0; i < link_ && i < links_.size(); ++i) number += links_[i].steps.size();
    return number;
}

void PanelReplay::schedule(const Group& group, uint64_t from_ms, Clock::time_point from, bool at_once,
                           bool unasked) {
    if (group.empty()) return;
    const Clock::time_point now = Clock::now();
    Output output;
    output.unasked = unasked;
    for (const Piece& piece : group) {
        Clock::time_point due = from;
        if (!at_once && piece.first > from_ms) due += std::chrono::milliseconds(piece.first - from_ms);
        output.pieces.emplace_back(due < now ? now : due, piece.second);
    }
    // In order of first piece, never before a frame already begun.
    auto at = output_.end();
    while (at != output_.begin() && std::prev(at)->pieces.front().first > output.pieces.front().first &&
           std::prev(at)->next == 0)
        --at;
    output_.insert(at, std::move(output));
}

void PanelReplay::send_now(const std::string& bytes) {
    schedule({{0, bytes}}, 0, Clock::now(), true, false);
}

void PanelReplay::begin_link() {
    started_ = true;
    const Link& link = links_[link_];
    const Clock::time_point now = Clock::now();
    for (const Group& group : link.unasked) schedule(group, link.steps.front().ms, now, false, true);
}

void PanelReplay::match(size_t step) {
    const Step& matched = links_[link_].steps[step];
    const Clock::time_point now = Clock::now();
    for (const Group& group : matched.answer) schedule(group, matched.ms, now, options_.fast, false);
    ++matched_;
    step_ = step + 1;
    reported_ = SIZE_MAX;
}

void PanelReplay::differ(const std::string& expected, const RecordedFrame& got, std::ostream& out) {
    out << "replay: frame " << frame_number() << " differs: expected " << hex_of(expected) << ", got "
        << hex_of(got.wire.substr(got.outside)) << std::endl;
    ++differed_;
}

void PanelReplay::on_engine_frame(const RecordedFrame& frame, std::ostream& out) {
    if (link_ >= links_.size()) return;
    if (step_ == links_[link_].steps.size()) {
        if (link_ + 1 == links_.size()) return;  // beyond the record's end
        ++link_;
        step_ = 0;
        started_ = false;
        reported_ = SIZE_MAX;
        // The old link's telemetry still to come stays with it.
        std::erase_if(output_, [](const Output& o) { return o.unasked && o.next == 0; });
    }
    if (!started_) begin_link();
    const std::vector<Step>& steps = links_[link_].steps;
    size_t found = step_;
    while (found < steps.size() && !frames_match(steps[found].body, frame.body)) ++found;
    if (found == steps.size()) {
        // Nothing recorded is like it: a receipt, as any panel gives, keeps the engine going.
        differ(steps[step_].wire, frame, out);
        reported_ = step_;
        send_now(kPlainReceipt);
        return;
    }
    if (found > step_ && reported_ != step_) differ(steps[step_].wire, frame, out);
    match(found);
}

void PanelReplay::read_engine(std::ostream& out) {
    char buf[1024];
    ssize_t n = read(pty_.master, buf, sizeof buf);
    if (n <= 0) return;
    for (const RecordedFrame& frame : engine_frames_.feed(0, std::string(buf, static_cast<size_t>(n)))) {
        if (frame.cut != FrameCut::whole || is_receipt(frame.body)) continue;
        on_engine_frame(frame, out);
        if (differed_ >= static_cast<size_t>(options_.max_diff)) return;
    }
}

void PanelReplay::flush_output() {
    const Clock::time_point now = Clock::now();
    while (!output_.empty()) {
        Output& head = output_.front();
        while (head.next < head.pieces.size() && head.pieces[head.next].first <= now) {
            std::string& bytes = head.pieces[head.next].second;
            ssize_t n = write(pty_.master, bytes.data(), bytes.size());
            if (n <= 0) return;  // the engine is not reading: try again later
            if (static_cast<size_t>(n) < bytes.size()) {
                bytes.erase(0, static_cast<size_t>(n));
                return;
            }
            ++head.next;
        }
        if (head.next < head.pieces.size()) return;
        output_.pop_front();
    }
}

bool PanelReplay::answers_pending() const {
    for (const Output& output : output_)
        if (!output.unasked) return true;
    return false;
}

bool PanelReplay::played_out() const {
    return link_ + 1 >= links_.size() && step_ == links_.back().steps.size() && !answers_pending();
}

int PanelReplay::run(const std::atomic<bool>& stop, std::ostream& out) {
    Clock::time_point played_at{};
    bool played = false;
    const size_t max_diff = static_cast<size_t>(options_.max_diff);
    while (!stop && differed_ < max_diff) {
        pollfd waiting{pty_.master, POLLIN, 0};
        if (poll(&waiting, 1, kLoopWaitMs) > 0 && (waiting.revents & POLLIN)) read_engine(out);
        flush_output();
        if (!played && played_out()) {
            played = true;
            played_at = Clock::now();
        }
        if (played && Clock::now() - played_at >= kLinger) break;
    }
    if (!played && differed_ < max_diff) {
        size_t unseen = 0;
        for (size_t i = link_; i < links_.size(); ++i) unseen += links_[i].steps.size();
        unseen -= std::min(unseen, step_);
        if (unseen > 0) {
            out << "replay: stopped with " << unseen << " recorded frames not seen, from frame "
                << frame_number() << " on" << std::endl;
            differed_ += unseen;
        }
    }
    out << "replay: " << matched_ << " frames matched, " << differed_ << " differed" << std::endl;
    return differed_ == 0 ? 0 : 1;
}
