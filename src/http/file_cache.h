// Static files kept in memory between requests, read again as soon as they change.
#pragma once

#include <string>

// Appends the whole file at `path` to `out`; false (out unchanged) when it
// cannot be opened. A regular file is answered from memory while its size,
// modification and change times and identity stay what they were when it
// was read, and read again at once when any of them differs; anything else
// is read as read_file reads it. The memory held stays bounded.
bool read_static_file(const std::string& path, std::string& out);

// Forgets every file held (tests, and a way back to a known state).
void clear_static_files();
