// A simulated Vorlane panel behind a pseudo-terminal, for trying the engine
// without hardware and for tests.
//
// start() opens a pty, sets its slave side raw and runs the panel in its own
// thread; the engine opens slave_path() like any serial device. The panel
// acknowledges every engine frame except the engine's own receipts with
// "~0005A\x7f", sends telemetry periodically, answers the configuration read
// ("CF-11"), the log read ("PL") and the message read ("MH"), applies the
// setting lines of a configuration write to its own settings, takes firmware
// blocks and reports "UR0-1"/"UR1-1" after their end mark, and accepts the
// access-password block. It can be told to misbehave (silent, no block
// receipts, garbage, split frames, hang-up). stop() joins the thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "panel_content.h"

struct PanelSimOptions {
    bool make_link = true;     // as root: /dev/ttyUSB-SIM -> the pty slave
    int telemetry_ms = 1000;   // telemetry period; 0: only after "SF"
    bool silent = false;       // answer nothing, send nothing
    bool block_ack = true;     // acknowledge "B" frames
    bool garbage = false;      // send line noise with every telemetry period
    bool split = false;        // write every frame in two parts
    int split_delay_ms = 250;  // pause between the two parts (beyond one engine read)
    int hangup_after_ms = 0;   // close the pty master after this long; 0: never
    int reply_gap_ms = 0;      // pause between the frames of a log or events answer
    PanelContent content = PanelContent::standard();

    // A slow panel: receipts for firmware blocks come this late.
    int block_ack_delay_ms = 0;
};

// A frame the engine wrote, unstuffed, without start and end bytes.
struct SimFrame {
    std::chrono::steady_clock::time_point when;
    std::string body;  // length digits, type, payload
    char type() const { return body.size() > 4 ? body[4] : '\0'; }
    std::string payload() const { return body.size() > 5 ? body.substr(5) : std::string(); }
};

inline constexpr const char* PANEL_SIM_LINK = "/dev/ttyUSB-SIM";

// A pseudo-terminal raw like a USB serial line: the panel's side is the master
// (non-blocking), the engine opens the slave's path. The slave stays open here
// too, so that the engine closing its port never hangs the master up.
struct SimPty {
    int master = -1;
    int slave = -1;
    std::string slave_path;
};
bool open_sim_pty(SimPty& pty, std::string& error);
// As root, points PANEL_SIM_LINK at the slave: the link's path, or "" when none was made.
std::string make_sim_link(const std::string& slave_path);
// Removes the link if it still points at this slave.
void remove_sim_link(const std::string& link_path, const std::string& slave_path);

class PanelSim {
public:
    explicit PanelSim(PanelSimOptions options = {});
    ~PanelSim();
    PanelSim(const PanelSim&) = delete;
    PanelSim& operator=(const PanelSim&) = delete;

    // Opens the pty and starts the panel; false (see error()) when it cannot.
    bool start();
    // Stops the panel, joins its thread, removes the link, closes the pty.
    void stop();

    const std::string& slave_path() const { return slave_path_; }
    const std::string& link_path() const { return link_path_; }
    const std::string& error() const { return error_; }

    // Behaviour, also while running.
    void set_silent(bool on) { silent_ = on; }
    void set_block_ack(bool on) { block_ack_ = on; }
    void set_garbage(bool on) { garbage_ = on; }
    void set_split(bool on) { split_ = on; }
    void set_telemetry_ms(int ms) { telemetry_ms_ = ms; }
    void set_reply_gap_ms(int ms) { reply_gap_ms_ = ms; }
    void set_content(const PanelContent& content);
    // Closes the pty master now: to the engine the panel was unplugged.
    void hangup() { hangup_requested_ = true; }
    bool hung_up() const { return hung_up_; }

    // A setting changed at the panel's keyboard: stored like a written line and
    // reported at once in an unsolicited configuration frame (even while silent).
    void change_setting(const std::string& line);

    // Bytes to the engine exactly as given (even while silent).
    void send_raw(const std::string& bytes);
    // A framed reply to the engine (even while silent).
    void send_frame(char type, const std::string& payload);

    // Everything the engine wrote, as frames and as raw bytes.
    std::vector<SimFrame> received();
    std::string received_bytes();
    void forget_received();
    // Everything the panel wrote to the engine, as raw bytes.
    std::string sent_bytes();
    // Waits until at least count frames have arrived; false on time-out.
    bool wait_received(size_t count, int timeout_ms);
    // Waits until the raw bytes received reach at least len; false on time-out.
    bool wait_received_bytes(size_t len, int timeout_ms);
    // Waits until everything queued for the engine is in the pty; false on time-out.
    bool wait_output_flushed(int timeout_ms);

    // Called with every frame received and every chunk written (for a verbose console).
    void set_trace(bool on) { trace_ = on; }

private:
    struct Chunk {
        std::string bytes;
        std::chrono::steady_clock::time_point due;
    };

    void run();
    void read_master();
    void flush_output();
    void close_master();
    void handle_frame(const std::string& body);
    void handle_command(const std::string& text);
    void handle_block(const std::string& payload);
    void send_telemetry();
    std::string garbage();
    void queue_frame(const std::string& frame);
    void queue_answer(const std::vector<std::string>& frames);
    void queue_bytes(const std::string& bytes, std::chrono::steady_clock::time_point due);
    PanelContent content();

    PanelSimOptions options_;
    std::string slave_path_;
    std::string link_path_;
    std::string error_;
    int master_fd_ = -1;
    int slave_fd_ = -1;
    std::thread thread_;
    std::atomic<bool> running_{false};

    std::atomic<bool> silent_;
    std::atomic<bool> block_ack_;
    std::atomic<bool> garbage_;
    std::atomic<bool> split_;
    std::atomic<int> telemetry_ms_;
    std::atomic<int> reply_gap_ms_;
    std::atomic<bool> hangup_requested_{false};
    std::atomic<bool> hung_up_{false};
    std::atomic<bool> trace_{false};

    std::mutex content_mutex_;
    PanelContent content_;

    std::mutex out_mutex_;
    std::deque<Chunk> out_;
    size_t out_bytes_ = 0;
    std::string raw_out_;

    std::mutex in_mutex_;
    std::condition_variable in_changed_;
    std::vector<SimFrame> frames_;
    std::string raw_in_;

    // Panel-thread state.
    SimFrameReader reader_;
    int firmware_target_ = -1;  // 0 or 1 while a firmware transfer runs
    unsigned garbage_seed_ = 12345;
};
