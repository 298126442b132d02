// The simulated panel's thread: pty I/O, frame handling, replies and misbehaviour.
#include "panel_sim.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "crypto/CryptoKey.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int LOOP_WAIT_MS = 10;
// Beyond this an unread panel drops output. A read's whole answer is queued at
// once, so the largest journal the simulator offers must fit.
constexpr size_t MAX_PENDING_OUTPUT = 8 * 1024 * 1024;
constexpr size_t GARBAGE_LEN = 16;

std::string printable(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) {
        if (c == 0x7E)
            out += "<START>";
        else if (c == 0x7F)
            out += "<END>";
        else if (c >= 0x20 && c < 0x7E)
            out += static_cast<char>(c);
        else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "<%02x>", c);
            out += hex;
        }
    }
    return out;
}

bool starts_with(const std::string& text, const char* prefix) {
    return text.rfind(prefix, 0) == 0;
}

// The panel's check of an access-password block: the key is the password, 0x0D,
// the password again..., 32 bytes; the block opens with it when its CRC holds.
bool password_opens(const std::string& password, const std::string& cipher_text) {
    if (password.empty()) return true;
    uint8_t key[32];
    for (size_t i = 0, from = 0; i < sizeof key; ++i) {
        if (from == password.size()) {
            key[i] = 0x0D;
            from = 0;
        } else {
            key[i] = static_cast<uint8_t>(password[from++]);
        }
    }
    std::vector<uint8_t> block(cipher_text.begin(), cipher_text.end());
    std::vector<uint8_t> plain;
    return !block.empty() && DecryptGOST(block.data(), static_cast<int>(block.size()), key, plain) != 0;
}

}  // namespace

PanelSim::PanelSim(PanelSimOptions options)
    : options_(std::move(options)),
      silent_(options_.silent),
      block_ack_(options_.block_ack),
      garbage_(options_.garbage),
      split_(options_.split),
      telemetry_ms_(options_.telemetry_ms),
      reply_gap_ms_(options_.reply_gap_ms),
      content_(options_.content) {}

PanelSim::~PanelSim() {
    stop();
}

bool open_sim_pty(SimPty& pty, std::string& error) {
    char name[PATH_MAX] = {};
    if (openpty(&pty.master, &pty.slave, name, nullptr, nullptr) != 0) {
        error = std::string("openpty: ") + std::strerror(errno);
        return false;
    }
    // Programs started meanwhile (the engine under test, its shell commands)
    // must not inherit the master: a copy held elsewhere would keep a hang-up
    // from reaching the engine.
    fcntl(pty.master, F_SETFD, FD_CLOEXEC);
    fcntl(pty.slave, F_SETFD, FD_CLOEXEC);
    // Raw like a USB serial line: no echo, no line editing, every byte passes;
    // the engine's own "stty raw" then changes nothing.
    termios mode{};
    tcgetattr(pty.slave, &mode);
    cfmakeraw(&mode);
    tcsetattr(pty.slave, TCSANOW, &mode);
    fcntl(pty.master, F_SETFL, fcntl(pty.master, F_GETFL) | O_NONBLOCK);
    pty.slave_path = name;
    return true;
}

std::string make_sim_link(const std::string& slave_path) {
    if (geteuid() != 0) return "";
    struct stat existing {};
    if (lstat(PANEL_SIM_LINK, &existing) == 0) {
        if (!S_ISLNK(existing.st_mode)) return "";  // a real device of that name: leave it
        unlink(PANEL_SIM_LINK);                     // left over from a simulator that was killed
    }
    return symlink(slave_path.c_str(), PANEL_SIM_LINK) == 0 ? PANEL_SIM_LINK : "";
}

void remove_sim_link(const std::string& link_path, const std::string& slave_path) {
    if (link_path.empty()) return;
    char target[PATH_MAX] = {};
    ssize_t n = readlink(link_path.c_str(), target, sizeof target - 1);
    if (n > 0 && slave_path == std::string(target, static_cast<size_t>(n))) unlink(link_path.c_str());
}

bool PanelSim::start() {
    if (running_) return true;
    SimPty pty;
    if (!open_sim_pty(pty, error_)) return false;
    master_fd_ = pty.master;
    slave_fd_ = pty.slave;
    slave_path_ = pty.slave_path;
    if (options_.make_link) link_path_ = make_sim_link(slave_path_);
    running_ = true;
    thread_ = std::thread([this] { run(); });
    return true;
}

void PanelSim::stop() {
    if (running_.exchange(false) && thread_.joinable()) thread_.join();
    remove_sim_link(link_path_, slave_path_);
    link_path_.clear();
    close_master();
    if (slave_fd_ >= 0) close(slave_fd_);
    slave_fd_ = -1;
}

void PanelSim::close_master() {
    if (master_fd_ >= 0) close(master_fd_);
    master_fd_ = -1;
}

void PanelSim::set_content(const PanelContent& content) {
    std::lock_guard<std::mutex> lock(content_mutex_);
    content_ = content;
}

PanelContent PanelSim::content() {
    std::lock_guard<std::mutex> lock(content_mutex_);
    return content_;
}

void PanelSim::send_raw(const std::string& bytes) {
    queue_bytes(bytes, Clock::now());
}

void PanelSim::send_frame(char type, const std::string& payload) {
    queue_frame(sim_frame(type, payload));
}

void PanelSim::change_setting(const std::string& line) {
    {
        std::lock_guard<std::mutex> lock(content_mutex_);
        apply_setting_lines(content_.config_lines, line + "\r\n");
    }
    queue_frame(sim_frame('F', line + "\r\n"));
}

std::vector<SimFrame> PanelSim::received() {
    std::lock_guard<std::mutex> lock(in_mutex_);
    return frames_;
}

std::string PanelSim::received_bytes() {
    std::lock_guard<std::mutex> lock(in_mutex_);
    return raw_in_;
}

std::string PanelSim::sent_bytes() {
    std::lock_guard<std::mutex> lock(out_mutex_);
    return raw_out_;
}

void PanelSim::forget_received() {
    std::lock_guard<std::mutex> lock(in_mutex_);
    frames_.clear();
    raw_in_.clear();
}

bool PanelSim::wait_received(size_t count, int timeout_ms) {
    std::unique_lock<std::mutex> lock(in_mutex_);
    return in_changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                [&] { return frames_.size() >= count; });
}

bool PanelSim::wait_received_bytes(size_t len, int timeout_ms) {
    std::unique_lock<std::mutex> lock(in_mutex_);
    return in_changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                [&] { return raw_in_.size() >= len; });
}

bool PanelSim::wait_output_flushed(int timeout_ms) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (Clock::now() < deadline) {
        {
            std::lock_guard<std::mutex> lock(out_mutex_);
            if (out_.empty()) return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

// A frame goes out whole, or in two parts far enough apart that the engine
// reads them in different cycles.
void PanelSim::queue_frame(const std::string& frame) {
    if (!split_ || frame.size() < 2) {
        queue_bytes(frame, Clock::now());
        return;
    }
    size_t half = frame.size() / 2;
    auto now = Clock::now();
    queue_bytes(frame.substr(0, half), now);
    queue_bytes(frame.substr(half), now + std::chrono::milliseconds(options_.split_delay_ms));
}

void PanelSim::queue_bytes(const std::string& bytes, Clock::time_point due) {
    std::lock_guard<std::mutex> lock(out_mutex_);
    if (out_bytes_ + bytes.size() > MAX_PENDING_OUTPUT) return;
    // Output keeps its order: a chunk is never due before the one ahead of it.
    if (!out_.empty() && out_.back().due > due) due = out_.back().due;
    out_.push_back({bytes, due});
    out_bytes_ += bytes.size();
}

void PanelSim::flush_output() {
    std::lock_guard<std::mutex> lock(out_mutex_);
    while (!out_.empty() && master_fd_ >= 0 && out_.front().due <= Clock::now()) {
        Chunk& head = out_.front();
        ssize_t n = write(master_fd_, head.bytes.data(), head.bytes.size());
        if (n <= 0) return;  // the engine is not reading: try again later
        if (trace_) std::cout << "panel >> " << printable(head.bytes.substr(0, n)) << std::endl;
        raw_out_.append(head.bytes, 0, static_cast<size_t>(n));
        out_bytes_ -= static_cast<size_t>(n);
        if (static_cast<size_t>(n) < head.bytes.size()) {
            head.bytes.erase(0, static_cast<size_t>(n));
            return;
        }
        out_.pop_front();
    }
}

void PanelSim::read_master() {
    char buf[1024];
    ssize_t n = read(master_fd_, buf, sizeof buf);
    if (n <= 0) return;
    std::vector<std::string> bodies = reader_.feed(buf, static_cast<size_t>(n));
    {
        std::lock_guard<std::mutex> lock(in_mutex_);
        raw_in_.append(buf, static_cast<size_t>(n));
        for (const std::string& body : bodies) frames_.push_back({Clock::now(), body});
    }
    in_changed_.notify_all();
    for (const std::string& body : bodies) {
        if (trace_) std::cout << "panel << " << printable(body) << std::endl;
        handle_frame(body);
    }
}

void PanelSim::handle_frame(const std::string& body) {
    if (body.size() < 5 || silent_) return;
    char type = body[4];
    std::string payload = body.substr(5);
    if (type == 'A') return;  // the engine's receipt; a receipt for it would acknowledge the next block
    if (type == 'B') {
        handle_block(payload);
        return;
    }
    queue_frame(sim_receipt());
    if (type == 'F') handle_command(payload);
}

void PanelSim::handle_command(const std::string& text) {
    // Setting lines of a configuration write (whole lines, each ended by CR LF).
    if (text.find("\r\n") != std::string::npos) {
        std::lock_guard<std::mutex> lock(content_mutex_);
        apply_setting_lines(content_.config_lines, text);
        return;
    }
    PanelContent now = content();
    if (text == "SF") {
        send_telemetry();
    } else if (starts_with(text, "CF-")) {
        for (const std::string& payload : config_payloads(now)) queue_frame(sim_frame('F', payload));
    } else if (text == "PL") {
        std::vector<std::string> frames;
        for (const auto& [type, payload] : log_replies(now)) frames.push_back(sim_frame(type, payload));
        queue_answer(frames);
    } else if (text == "MH") {
        std::vector<std::string> frames;
        for (const std::string& payload : event_block_payloads(now))
            frames.push_back(sim_frame('B', payload));
        queue_answer(frames);
    }
}

// The frames of a long answer, each whole and reply_gap_ms after the one
// before, so that the engine's progress can be watched; without a gap they go
// out as any other frame.
void PanelSim::queue_answer(const std::vector<std::string>& frames) {
    const int gap = reply_gap_ms_;
    auto due = Clock::now();
    for (const std::string& frame : frames) {
        if (gap <= 0) {
            queue_frame(frame);
            continue;
        }
        queue_bytes(frame, due);
        due += std::chrono::milliseconds(gap);
    }
}

// Firmware blocks: type 131/132 and number 0 begin a transfer, 3/4 carry the
// rest, a block of only its two header bytes is the end mark.
void PanelSim::handle_block(const std::string& payload) {
    PanelContent now = content();
    if (payload.size() >= 2 && static_cast<unsigned char>(payload[0]) == 0x82 && payload[1] == 0) {
        if (!block_ack_) return;
        bool refused = now.reject_password || !password_opens(now.access_password, payload.substr(2));
        queue_frame(refused ? sim_frame('A', "N3") : sim_receipt());
        return;
    }
    if (!block_ack_) return;
    if (options_.block_ack_delay_ms > 0)
        queue_bytes(sim_receipt(), Clock::now() + std::chrono::milliseconds(options_.block_ack_delay_ms));
    else
        queue_frame(sim_receipt());
    if (payload.size() < 2) return;
    auto kind = static_cast<unsigned char>(payload[0]);
    if ((kind == 131 || kind == 132) && payload[1] == 0) firmware_target_ = kind == 132 ? 0 : 1;
    if (payload.size() == 2 && firmware_target_ >= 0) {
        std::string report = "UR" + std::to_string(firmware_target_) + "-" + now.firmware_result;
        queue_frame(sim_frame('F', report));
        firmware_target_ = -1;
    }
}

// Line noise between frames: printable junk and a stray end byte. No start or
// escape byte, so the noise cannot swallow or corrupt the frame after it.
std::string PanelSim::garbage() {
    std::string junk;
    for (size_t i = 0; i < GARBAGE_LEN; ++i) junk += static_cast<char>(0x20 + rand_r(&garbage_seed_) % 0x5D);
    junk += static_cast<char>(0x7F);
    return junk;
}

void PanelSim::send_telemetry() {
    queue_frame(sim_frame('L', telemetry_payload(content())));
}

void PanelSim::run() {
    auto started = Clock::now();
    auto next_telemetry = started;
    while (running_) {
        bool hang_due = options_.hangup_after_ms > 0 &&
                        Clock::now() - started >= std::chrono::milliseconds(options_.hangup_after_ms);
        if ((hangup_requested_ || hang_due) && !hung_up_) {
            {
                std::lock_guard<std::mutex> lock(out_mutex_);
                close_master();
            }
            hung_up_ = true;
        }
        if (hung_up_) {
            std::this_thread::sleep_for(std::chrono::milliseconds(LOOP_WAIT_MS));
            continue;
        }

        pollfd waiting{master_fd_, POLLIN, 0};
        if (poll(&waiting, 1, LOOP_WAIT_MS) > 0 && (waiting.revents & POLLIN)) read_master();

        int period = telemetry_ms_;
        if (period > 0 && Clock::now() >= next_telemetry) {
            next_telemetry = Clock::now() + std::chrono::milliseconds(period);
            if (!silent_) {
                send_telemetry();
                if (garbage_) queue_bytes(garbage(), Clock::now());
            }
        }
        flush_output();
    }
}
