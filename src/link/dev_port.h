// The panel's serial port: open and close with their checks, reads, and writes with a deadline.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

// Descriptor of the open device; 0 means none.
extern std::atomic<int> USB;
extern pthread_mutex_t port_mutex;
extern unsigned char pbuf[1024];
extern uint64_t bytesRead;
// Monotonic time in ms of the last SetReadCount; open_dev (HTTP thread) and
// read_step (device thread) both set it.
extern std::atomic<uint64_t> no_read_ms;

// True for the character devices a panel can be: a USB serial device (major
// 188, ttyUSB; 166, ttyACM) or a pseudo-terminal slave (136 to 143, for the
// panel simulator and tests).
bool is_panel_device_number(dev_t device);

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

// Ports opened so far. The device thread compares it with the last value it
// saw to tell that a new link began.
uint64_t port_links_opened();
