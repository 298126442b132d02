// Serial port access and the device thread's exchange with the panel.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// ---- Serial port ---------------------------------------------------------

// Descriptor of the open device; 0 means none.
extern std::atomic<int> USB;
extern pthread_mutex_t port_mutex;
extern unsigned char pbuf[1024];
extern uint64_t bytesRead;
// Monotonic time in ms of the last SetReadCount; open_dev (HTTP thread) and
// read_step (device thread) both set it.
extern std::atomic<uint64_t> no_read_ms;

int dev_init();
int dev_destroy();
int open_dev(std::string& path);
void close_dev();
bool is_open();
bool dev_no_valid();
bool write_dev(void* buf, size_t len);
int read_dev(unsigned char* buf, size_t* len);
void SetReadCount();
uint64_t GetReadCount();

// ---- Exchange state machine ------------------------------------------------

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

// A panel frame's length field cannot state more than 999 bytes, so a frame
// collected beyond this is answered "AN1" whatever follows; the reader keeps
// no more of it, so a panel that never ends its frame cannot fill the memory.
inline constexpr size_t MAX_FRAME_BYTES = 2048;

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
