// The PK7 frame reader: cuts bytes from the serial line into frames and judges each frame's header.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

// A panel frame's length field cannot state more than 999 bytes, so a frame
// collected beyond this is answered "AN1" whatever follows; the reader keeps
// no more of it, so a panel that never ends its frame cannot fill the memory.
inline constexpr size_t MAX_FRAME_BYTES = 2048;

// What the reader meets in the bytes, in order.
enum class ReaderEvent {
    frame,              // an end byte closed a frame: the body is whole
    frame_lost,         // a start byte came inside a frame: what was collected is dropped
    end_without_start,  // an end byte came with nothing collected
};

// The reader's state, kept between chunks so that a frame may span several:
// inside a frame (after "~", before 0x7F), an escape pending (0x7D seen), and
// the body collected so far, unstuffed, without start and end bytes. The
// exchange keeps its own in its globals; the record's readers keep theirs.
struct FrameReaderState {
    bool& inside;
    bool& escaped;
    std::vector<unsigned char>& body;
};

// Called for each event with the index of the byte that caused it. For `frame`
// and `frame_lost` the state's body holds what was collected; the reader
// empties it after the call.
using ReaderHandler = std::function<void(ReaderEvent event, size_t at)>;

// Cuts one chunk. The start and end bytes are tested before the escape, so an
// escape right before an end byte stays pending into the next frame.
void read_frames(FrameReaderState state, const unsigned char* bytes, size_t len, const ReaderHandler& handle);

// Why a whole frame is refused, in the order the checks are made.
enum class FrameFault {
    none,
    no_header,  // fewer than five bytes: no length field and type
    encrypted,  // the length field does not start with "0"
    too_short,  // the frame holds fewer bytes than its length field states
    too_long,   // the frame holds more bytes than its length field states
};

// The value of a body's length field: its last three digits, read as strtol
// reads them (0 when they do not start with a digit).
int frame_declared_length(const std::vector<unsigned char>& body);
FrameFault frame_fault(const std::vector<unsigned char>& body);
