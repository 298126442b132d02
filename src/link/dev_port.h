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
extern uint64_t no_read_ms;

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

extern std::atomic<bool> need_sf;          // write cmd_sf before anything else
extern int send_sf_cnt;                    // restarts since the last data received
extern bool write_sf_error;                // last cmd_sf write failed
extern std::atomic<bool> dev_busy;         // a frame is out, no receipt yet
extern int dev_busy_cnt;                   // cycles spent waiting while busy
extern std::atomic<bool> wait_receipt_OK;  // last block not yet acknowledged
extern bool form_enable;                   // reader is inside a frame
extern bool next_inv;                      // next byte is escaped
extern std::vector<unsigned char> current_packet;
extern std::atomic<bool> send_re;          // next plain receipt closes the device
// The frame awaiting its receipt is the access-password block: a plain
// receipt means the panel accepted the password, "AN3" that it refused it.
extern std::atomic<bool> pass_block_written;

void dev_thread();
void read_step();
void write_step();
void write_ok();
