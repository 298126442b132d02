// The device thread's exchange with the panel: the cycle, the frame reader, stop-and-wait, the watchdog.
#include "link/exchange.h"

#include <unistd.h>

#include <algorithm>

#include "core/debug.h"
#include "core/engine.h"
#include "core/utils.h"
#include "link/dev_port.h"
#include "link/pk7.h"

static constexpr const char* TITLE_OUT_CMD = " >>>PK7_OUT_CMD       ";
static constexpr const char* TITLE_OUT_RECEIPT = " >>>PK7_OUT_RECEIPT   ";
static constexpr const char* TITLE_OUT_FIRMWARE = " >>>PK7_OUT_FIRMWARE   ";

static constexpr useconds_t CYCLE_US = 100000;

static uint64_t link_seen = 0;  // port_links_opened() when the device thread last looked

std::atomic<bool> need_sf{false};
std::atomic<int> send_sf_cnt{0};
std::atomic<bool> write_sf_error{false};
std::atomic<bool> dev_busy{false};
std::atomic<int> dev_busy_cnt{0};
std::atomic<bool> wait_receipt_OK{false};
bool form_enable = false;
bool next_inv = false;
std::vector<unsigned char> current_packet;
std::atomic<bool> send_re{false};
std::atomic<bool> pass_block_written{false};
std::atomic<bool> config_end_written{false};

// The flags of one link's exchange that either thread may reset: the pending
// abort frame, busy waits, the receipt awaited, restart and password marks.
static void clear_link_flags() {
    need_sf = false;
    write_sf_error = false;
    dev_busy = false;
    dev_busy_cnt = 0;
    wait_receipt_OK = false;
    send_re = false;
    pass_block_written = false;
    config_end_written = false;
}

// Called by open_dev (HTTP thread) for a port that is open but not yet
// published, so the device thread does not use the link meanwhile, and by
// close_dev (either thread) once the port is closed. A frame queued for the
// panel that was there before (a restart, half a configuration, firmware
// blocks) must never reach the next one, a password exchange of the old panel
// must not answer "continue" for ever, and a receipt the old panel still owed
// must not hold back the new link's first frame.
void forget_previous_link() {
    queue.clear();
    bbqueue.clear();
    queue.pass_sent = false;
    queue.pass_rejected = false;
    clear_link_flags();
    parser.send_AN1 = false;
    parser.send_AN2 = false;
    parser.send_AN5 = false;
}

// The reader's state is the device thread's alone: at its first step on a new
// link it drops a frame the old panel left half sent, and a pending escape.
static void adopt_new_link() {
    uint64_t opened = port_links_opened();
    if (opened == link_seen) return;
    link_seen = opened;
    form_enable = false;
    next_inv = false;
    current_packet.clear();
}

void exchange_reset() {
    clear_link_flags();
    send_sf_cnt = 0;
    form_enable = false;
    next_inv = false;
    current_packet.clear();
}

void dev_thread() {
    dev_init();
    while (!is_exit) {
        usleep(CYCLE_US);
        if (is_open()) read_step();
        write_step();
    }
    if (is_open()) close_dev();
}

void write_ok() {
    if (!write_dev(acknowledge_OK, acknowledge_OK_len)) {
        console_line("write receipt OK error");
        return;
    }
    if (channel_on(dm_s3)) dump_frame(DM_OUT_RECEIPT, acknowledge_OK, acknowledge_OK_len, TITLE_OUT_RECEIPT);
}

// No data this cycle: after 20 s of silence restart the link, and after the
// third silence in a row give the panel up.
static void watch_silence() {
    if (GetReadCount() < DEV_SILENCE_MS) return;
    if (send_sf_cnt < 2) {
        need_sf = true;
        SetReadCount();
        ++send_sf_cnt;
        console_stamped("restart dev (send sf)");
        parser.set_status(1);
        return;
    }
    console_line("try 3 restart (send sf) no sussess");
    if (is_open()) close_dev();
    parser.clear();
}

// Cuts a chunk into frames; the reader state persists so that a frame may
// span several chunks.
static void collect_frames(const unsigned char* bytes, size_t len) {
    read_frames({form_enable, next_inv, current_packet}, bytes, len, [](ReaderEvent event, size_t) {
        switch (event) {
            case ReaderEvent::frame:
                parser.packets.push_back(current_packet);
                break;
            case ReaderEvent::frame_lost:
                console_line("dev packet loss!");
                break;
            case ReaderEvent::end_without_start:
                write_ok();
                console_line("dev packet not contain start byte, packet loss!");
                break;
        }
    });
}

void read_step() {
    if (dev_no_valid()) return;
    adopt_new_link();
    bytesRead = 0;
    size_t got = 0;
    int result = read_dev(pbuf, &got);
    bytesRead = got;
    if (result != 1 || got == 0) {
        if (result == 1) usleep(CYCLE_US);
        // Lost in this read: the loss path has settled everything already.
        if (dev_no_valid()) return;
        watch_silence();
        return;
    }

    collect_frames(pbuf, got);
    if (dev_no_valid()) {
        parser.packets.clear();
        console_line("clear packet without parsing");
    } else {
        parser.parse_all();
    }
    SetReadCount();
    send_sf_cnt = 0;
}

static bool is_config_end(const std::vector<char>& frame) {
    return frame.size() == cmd_ec_len && std::equal(frame.begin(), frame.end(), cmd_ec);
}

static bool is_pass_block(const std::vector<char>& frame) {
    return frame.size() >= 8 && frame[5] == 'B' && static_cast<unsigned char>(frame[6]) == 0x82 &&
           frame[7] == 0x00;
}

static void write_restart() {
    if (!write_dev(cmd_sf, cmd_sf_len)) {
        if (write_sf_error) return;
        console_stamped("write sf error");
        write_sf_error = true;
        return;
    }
    dev_busy = true;
    need_sf = false;
    write_sf_error = false;
    pass_block_written = false;
    config_end_written = false;
    send_re = false;
    if (channel_on(dm_s2)) dump_frame(DM_OUT_CMD, cmd_sf, cmd_sf_len, TITLE_OUT_CMD);
}

// Sends a negative receipt the dispatcher asked for; false when none was asked.
static bool write_negative_receipt(std::atomic<bool>& request, char* frame, size_t len, const char* error) {
    if (!request) return false;
    if (!write_dev(frame, len)) {
        console_line(error);
        return true;
    }
    request = false;
    if (channel_on(dm_s3)) dump_frame(DM_OUT_RECEIPT, frame, len, TITLE_OUT_RECEIPT);
    return true;
}

// The busy wait: true while still waiting for the receipt of the last frame.
static bool still_busy() {
    if (!dev_busy) {
        dev_busy_cnt = 0;
        return false;
    }
    if (++dev_busy_cnt < DEV_BUSY_CYCLES) return true;
    dev_busy = false;
    console_stamped("dev busy error");
    return true;
}

static void write_command() {
    std::vector<char> frame;
    Queue::Marks marks;
    if (!queue.get_copy(frame, marks)) {
        if (parser.get_status() == 5) parser.set_status(3);
        return;
    }
    if (!write_dev(frame.data(), frame.size())) {
        console_line("write packet queue error");
        return;
    }
    if (channel_on(dm_s2)) dump_frame(DM_OUT_CMD, frame.data(), frame.size(), TITLE_OUT_CMD);
    pass_block_written = is_pass_block(frame);
    // A free text command "EC" has the same bytes but ends no write.
    config_end_written = !marks.command && is_config_end(frame);
    // The next receipt is this frame's own: only if it is the restart or reset
    // queued by commands 21 and 22 does that receipt close the link.
    send_re = marks.ends_link;
    dev_busy = true;
    bool drained = queue.pop();
    if (parser.get_status() == 5 && drained) parser.set_status(3);
}

// Decides on the head block before sending: a new transfer, a resend, or the
// previous block acknowledged and the next one due.
static void advance_block_transfer() {
    if (bbqueue.start_flag) {
        bbqueue.num_try = 0;
        bbqueue.start_flag = false;
        parser.set_status(8);
        parser.set_ready_text(&StatusDevice::rupd, "1");
        parser.set_ready_text(&StatusDevice::upd, "0");
        return;
    }
    if (wait_receipt_OK) {
        ++bbqueue.num_try;
        console_stamped(format_to_str("next try send packet bbqueue.num_try = %d",
                                      static_cast<int>(bbqueue.num_try.load())));
        return;
    }
    if (bbqueue.pop()) {
        parser.set_status(3);
        parser.set_ready_text(&StatusDevice::upd, "100");
        return;
    }
    bbqueue.num_try = 0;
    int sent = ++parser.fw_blocks_sent;
    int total = parser.fw_blocks_total;
    if (total != 0) parser.set_ready_text(&StatusDevice::upd, std::to_string(sent * 100 / total));
}

static void write_block() {
    advance_block_transfer();
    if (bbqueue.num_try == DEV_BLOCK_TRIES) {
        bbqueue.clear();
        wait_receipt_OK = false;
        parser.set_status(3);
        parser.set_ready_text(&StatusDevice::rupd, "4");
        need_sf = true;
        return;
    }
    std::vector<char> frame;
    if (!bbqueue.get_copy(frame)) return;
    pass_block_written = false;
    config_end_written = false;
    send_re = false;
    if (!write_dev(frame.data(), frame.size())) {
        console_line("write packet bbqueue error");
        wait_receipt_OK = true;
        return;
    }
    if (channel_on(dm_s2)) dump_frame(DM_OUT_FIRMWARE, frame.data(), frame.size(), TITLE_OUT_FIRMWARE);
    dev_busy = true;
    wait_receipt_OK = true;
}

void write_step() {
    if (dev_no_valid()) return;
    adopt_new_link();
    if (need_sf) {
        write_restart();
        return;
    }
    if (write_negative_receipt(parser.send_AN1, acknowledge_AN1, acknowledge_AN1_len,
                               "write receipt A1 error"))
        return;
    if (write_negative_receipt(parser.send_AN2, acknowledge_AN2, acknowledge_AN2_len,
                               "write receipt A2 error"))
        return;
    if (write_negative_receipt(parser.send_AN5, acknowledge_AN5, acknowledge_AN5_len,
                               "write receipt A5 error"))
        return;
    if (still_busy()) return;
    if (bbqueue.is_empty()) {
        write_command();
        return;
    }
    write_block();
}
