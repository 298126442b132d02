// Static files kept in memory between requests, read again as soon as they change.
#pragma once

#include <string>

// The whole file at `path`: null when it cannot be opened, else the bytes,
// good until the next call. A regular file is answered from memory while its
// size, modification and change times and identity stay what they were when
// it was read, and read again at once when any of them differs; anything
// else is read into `scratch` as read_file reads it. The memory held stays
// bounded.
const std::string* read_static_file(const std::string& path, std::string& scratch);

// Forgets every file held (tests, and a way back to a known state).
void clear_static_files();
