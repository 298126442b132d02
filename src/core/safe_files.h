// Files the engine writes as root inside a directory, without following links.
#pragma once

#include <string>

// Writes `data` as the whole content of `name` inside the open directory `dir`.
// A link in the file's place is not followed (the write fails), nor is
// anything but a plain file with one name written, and a FIFO cannot hold the
// caller (non-blocking open). Truncates only after those checks.
bool write_file_in(int dir, const char* name, const std::string& data);
// The same, and when what stands in the file's place cannot be written (a
// link, a file with other names) it is removed, the link itself and never
// its target, and a plain file written there instead.
bool replace_file_in(int dir, const char* name, const std::string& data);
