// The device thread's exchange with the panel: the cycle, the frame reader, stop-and-wait, the watchdog.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "link/frame_reader.h"

extern std::atomic<bool> need_sf;                  // write cmd_sf before anything else
extern std::atomic<int> send_sf_cnt;               // restarts since the last data received
extern std::atomic<bool> write_sf_error;           // last cmd_sf write failed
extern std::atomic<bool> dev_busy;                 // a frame is out, no receipt yet
extern std::atomic<int> dev_busy_cnt;              // cycles spent waiting while busy
extern std::atomic<bool> wait_receipt_OK;          // last block not yet acknowledged
extern bool form_enable;                           // reader is inside a frame (device thread only)
extern bool next_inv;                              // next byte is escaped (device thread only)
extern std::vector<unsigned char> current_packet;  // frame being collected (device thread only)
// The frame awaiting its receipt is a restart or reset queued by commands 21
// and 22: its plain receipt closes the device.
extern std::atomic<bool> send_re;
// The frame awaiting its receipt is the access-password block: a plain
// receipt means the panel accepted the password, "AN3" that it refused it.
extern std::atomic<bool> pass_block_written;
// The frame awaiting its receipt is the end command of a configuration write:
// a plain receipt means the panel took the whole write.
extern std::atomic<bool> config_end_written;

// Silence after which the link is restarted, in ms (a read count below it is quiet).
inline constexpr uint64_t DEV_SILENCE_MS = 20001;
// Waiting cycles after which a missing receipt is given up.
inline constexpr int DEV_BUSY_CYCLES = 100;
// Unanswered sends of one block after which a block transfer is aborted.
inline constexpr uint32_t DEV_BLOCK_TRIES = 3;

void dev_thread();
void read_step();
void write_step();
void write_ok();

// Forgets every exchange state (reader, busy and restart flags) as at program
// start. For tests and tools that drive read_step/write_step by hand with no
// dev_thread running.
void exchange_reset();

// Empties both queues and forgets the old link's flags and receipt requests.
// open_dev calls it for a port that is open but not yet published, so nothing
// of the old link is ever written to the new one, and close_dev after every
// close, so nothing waits for a panel that is gone.
void forget_previous_link();
