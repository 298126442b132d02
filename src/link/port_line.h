// Preparing and opening the panel's serial line: stty with a bounded wait, and the open itself.
#pragma once

#include <string>

// Longest wait for stty to put the line into raw mode, in ms.
inline constexpr int STTY_WAIT_MS = 2000;

// Runs "stty raw -echo -F <path>" and waits until it has ended, at most
// STTY_WAIT_MS. The caller has checked that `path` is a plain device path.
void prepare_line(const std::string& path);

// Opens the device non-blocking for reading and writing, kept from the
// programs the engine starts and never as descriptor 0; -1 when it cannot.
int open_line(const std::string& path);
