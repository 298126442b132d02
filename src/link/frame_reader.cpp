// The PK7 frame reader: cuts bytes from the serial line into frames and judges each frame's header.
#include "link/frame_reader.h"

#include <cstdlib>
#include <string>

#include "link/pk7.h"

void read_frames(FrameReaderState state, const unsigned char* bytes, size_t len,
                 const ReaderHandler& handle) {
    for (size_t i = 0; i < len; ++i) {
        unsigned char b = bytes[i];
        if (b == static_cast<unsigned char>(PK7_START)) {
            if (!state.body.empty()) {
                handle(ReaderEvent::frame_lost, i);
                state.body.clear();
            }
            state.inside = true;
        } else if (b == static_cast<unsigned char>(PK7_END)) {
            if (!state.body.empty()) {
                handle(ReaderEvent::frame, i);
                state.body.clear();
            } else {
                handle(ReaderEvent::end_without_start, i);
            }
            state.inside = false;
        } else if (b == static_cast<unsigned char>(PK7_ESCAPE)) {
            state.escaped = true;
        } else if (state.inside) {
            if (state.body.size() < MAX_FRAME_BYTES)
                state.body.push_back(state.escaped ? static_cast<unsigned char>(b ^ 0x40) : b);
            state.escaped = false;
        }
    }
}

int frame_declared_length(const std::vector<unsigned char>& body) {
    if (body.size() < 4) return 0;
    std::string digits(body.begin() + 1, body.begin() + 4);
    return static_cast<int>(strtol(digits.c_str(), nullptr, 10));
}

FrameFault frame_fault(const std::vector<unsigned char>& body) {
    if (body.size() < 5) return FrameFault::no_header;
    if (body[0] != '0') return FrameFault::encrypted;
    const int declared = frame_declared_length(body);
    const int received = static_cast<int>(body.size());
    if (declared == received) return FrameFault::none;
    return declared >= received ? FrameFault::too_short : FrameFault::too_long;
}
