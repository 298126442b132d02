// A link record cut into frames by the engine's own reader, and what each frame is, for the decoder and the
// replay.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "link/link_record.h"

// Bytes as lower-case hex pairs with no blanks, as a record writes them.
std::string hex_of(const std::string& bytes);

// How a stretch of recorded bytes ended.
enum class FrameCut {
    whole,       // a frame between a start and an end byte
    lost,        // a start byte came inside it: the reader dropped it
    stray_end,   // an end byte with no frame before it
    unfinished,  // the link closed, or the record ended, inside it
};

// What a whole frame is, by its direction, type and payload.
enum class FrameKind {
    receipt,           // "A": the plain receipt
    negative_receipt,  // "A" "N" and a digit
    command,           // "F" to the panel: a command
    configuration,     // "F": configuration lines, written or read
    log_count,         // "F" from the panel: "TL-" and the number of journal records
    firmware_result,   // "F" from the panel: "UR" d "-" r
    journal,           // "G": a portion of the journal
    telemetry,         // "L"
    password_block,    // "B" to the panel: the access-password block (masked in a record)
    firmware_block,    // "B" to the panel: any other block
    events_block,      // "B" from the panel
    other,
};

// The bytes that went one way from the end of the previous frame to the end of
// this one, in the pieces they were read or written in.
struct RecordedFrame {
    LinkDirection direction = LinkDirection::to_panel;
    FrameCut cut = FrameCut::whole;
    uint64_t ms = 0;     // when its last byte was read or written
    size_t line = 0;     // index of the record line that ended it (the line count: the record's end)
    int link = 0;        // 1 from the first open on, 2 from the second...; 0 before any
    std::string body;    // as the reader stores it: length digits, type, payload (unstuffed)
    std::string wire;    // its bytes as recorded
    size_t outside = 0;  // of them, bytes before its start byte that belong to no frame
    std::vector<std::pair<uint64_t, std::string>> pieces;  // (ms, bytes) of each read or write
    bool unasked = false;  // sent by the panel unasked: telemetry, configuration outside a read
};

// Cuts the bytes of one direction as they come, with the reader the engine
// uses for the panel's bytes.
class FrameCutter {
public:
    explicit FrameCutter(LinkDirection direction) : direction_(direction) {}
    // The frames (and other stretches) that this chunk ends.
    std::vector<RecordedFrame> feed(uint64_t ms, const std::string& bytes);
    // The link ended at `ms`: what was begun is unfinished, and the reader
    // starts afresh, as the engine's does on a new link.
    std::vector<RecordedFrame> finish(uint64_t ms);
    int link = 0;

private:
    void complete(FrameCut cut, std::vector<RecordedFrame>& out);

    LinkDirection direction_;
    bool inside_ = false;
    bool escaped_ = false;
    std::vector<unsigned char> body_;
    RecordedFrame pending_;
};

// Every frame of a parsed record in the order it ended, the panel's unasked
// frames marked. An open or close line ends what was begun on the link before it.
std::vector<RecordedFrame> record_frames(const std::vector<RecordLine>& lines);

FrameKind frame_kind(LinkDirection direction, const std::string& body);
const char* frame_kind_name(FrameKind kind);
// A configuration frame holding the "ec" line that ends a configuration read.
bool ends_configuration(const std::string& body);
// A command that starts a configuration read ("CF-...").
bool starts_configuration_read(const std::string& body);
