// Replay of a link record: the simulator plays the panel's side of a recorded
// session on its pseudo-terminal, against an engine driven through the same
// requests.
//
// The record is cut into frames with the engine's own reader. Each frame the
// engine wrote (its receipts apart) is a step; the panel's frames that followed
// it are its answer, and the frames the panel sent unasked (telemetry,
// configuration outside a read) are played on their recorded schedule from the
// link's first step on. When the engine's next frame matches the next step, the
// answer goes out with its recorded gaps (none with `fast`); when it does not,
// a line "replay: frame N differs: expected <hex>, got <hex>" is printed, the
// frame gets a plain receipt, and the replay goes on with the next step that
// matches. The access-password block matches any block of its length; in a
// "PS-" command the six password characters match anything. A close ends a
// link: the next link's steps begin with the engine's next frame.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "link/record_frames.h"
#include "panel_sim.h"

struct ReplayOptions {
    bool fast = false;      // answers at once, not after their recorded gaps
    int max_diff = 10;      // stop after this many differences
    bool make_link = true;  // as root: /dev/ttyUSB-SIM -> the pty slave
};

class PanelReplay {
public:
    explicit PanelReplay(ReplayOptions options) : options_(options) {}
    ~PanelReplay();
    PanelReplay(const PanelReplay&) = delete;
    PanelReplay& operator=(const PanelReplay&) = delete;

    // Reads a link record; false (see error()) when it is not one.
    bool load(const std::string& record_text);
    // Opens the pty; false (see error()) when it cannot.
    bool start();
    // Plays the record until its last step is answered, the differences reach
    // max_diff, or `stop` is set; prints differences and the closing line
    // "replay: N frames matched, M differed" to `out`. 0 when none differed.
    int run(const std::atomic<bool>& stop, std::ostream& out);

    const std::string& slave_path() const { return pty_.slave_path; }
    const std::string& error() const { return error_; }

private:
    using Clock = std::chrono::steady_clock;
    using Piece = std::pair<uint64_t, std::string>;  // (ms in the record, bytes)
    using Group = std::vector<Piece>;                // the pieces of one frame of the panel

    struct Step {
        std::string body;  // the engine's frame, unstuffed
        std::string wire;  // as written
        uint64_t ms = 0;
        std::vector<Group> answer;
    };
    struct Link {
        std::vector<Step> steps;
        std::vector<Group> unasked;
    };
    // One frame of the panel on its way out: its pieces go in order, each when
    // due, and no other frame's bytes come between them.
    struct Output {
        std::vector<std::pair<Clock::time_point, std::string>> pieces;
        size_t next = 0;
        bool unasked = false;
    };

    void on_engine_frame(const RecordedFrame& frame, std::ostream& out);
    void begin_link();
    void match(size_t step);
    void differ(const std::string& expected, const RecordedFrame& got, std::ostream& out);
    void schedule(const Group& group, uint64_t from_ms, Clock::time_point from, bool at_once, bool unasked);
    void send_now(const std::string& bytes);
    void read_engine(std::ostream& out);
    void flush_output();
    bool answers_pending() const;
    bool played_out() const;
    size_t frame_number() const;

    ReplayOptions options_;
    std::string error_;
    SimPty pty_;
    std::string link_path_;
    std::vector<Link> links_;
    FrameCutter engine_frames_{LinkDirection::to_panel};

    size_t link_ = 0;             // the link being played
    size_t step_ = 0;             // its next step
    bool started_ = false;        // the engine's first frame of the link has come
    size_t reported_ = SIZE_MAX;  // the step already reported as differing, while it stays next
    size_t matched_ = 0;
    size_t differed_ = 0;
    std::deque<Output> output_;
};
