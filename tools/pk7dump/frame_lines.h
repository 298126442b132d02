// pk7dump's lines: one readable line per recorded frame.
#pragma once

#include <string>

#include "link/record_frames.h"

// "<ms> <direction> " and what the frame is: type, length field and kind with
// its details, or why it fails its checks, or what else the bytes were.
std::string frame_line(const RecordedFrame& frame);

// Bytes as text between quotes: Windows-1251 shown as UTF-8, and "\r", "\n",
// "\0", "\\", "\"" and "\xNN" for the bytes that are not text.
std::string shown_text(const std::string& bytes);
