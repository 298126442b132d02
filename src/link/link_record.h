// The link record: every chunk read from and written to the panel's port, kept in memory as text lines.
//
// The format, one line each, ended by LF, ASCII only:
//   # vorcore link record 1          header lines start with "#": what is not traffic
//   # engine 5.2.22
//   # started 2024-06-01 12:00:00    the engine's start, UTC
//   # dropped 0                      lines dropped from the full ring so far
//   <ms> open <path>                 the port opened; "%" and bytes outside 0x21-0x7E as %XX
//   <ms> close                       the port closed
//   <ms> > <hex>                     one write() to the panel, lower-case hex pairs
//   <ms> < <hex>                     one read() from the panel
// <ms> counts milliseconds since the engine started. Passwords never appear:
// see link_record_masked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// The whole record, header included, stays within this.
inline constexpr size_t LINK_RECORD_MAX_BYTES = 4u << 20;

enum class LinkDirection : char { to_panel = '>', from_panel = '<' };

// ---- Recording. Each call appends one finished line under the record's own
// lock, which is taken for nothing else; the time is read under it, so lines
// of both threads stay in time order. When the ring is full, whole oldest
// lines are dropped.
void link_record_open(const std::string& path);
void link_record_close();
void link_record_traffic(LinkDirection direction, const void* bytes, size_t len);

// A frame on its way to the panel as the record shows it: each write() call
// that takes part of it is one line, cut from the frame's recorded form.
class RecordedWrite {
public:
    RecordedWrite(const void* frame, size_t len);
    // write() took bytes [from, from + count) of the frame.
    void wrote(size_t from, size_t count) const;

private:
    const char* frame_;
    size_t len_;
    std::string masked_;
};

// The form in which a frame written to the panel is recorded when it carries a
// password: a new panel password ("F" frame "PS-" and six characters) with the
// six as "*"; the access-password block ("B" frame, payload 0x82 0x00 ...) as
// the well-formed frame with a zero payload of the same unstuffed length.
// Empty for any other frame, which is recorded as written.
std::string link_record_masked(const void* frame, size_t len);

// ---- Reading out
// The record as the download gives it: header, then the lines held.
std::string link_record_text();
// Forgets every line and the dropped count and gives the memory back (tests, benchmarks).
void link_record_reset();

// ---- The format, read back (the decoder and the simulator's replay)
struct RecordLine {
    enum Kind { comment, open, close, traffic };
    Kind kind = comment;
    uint64_t ms = 0;
    LinkDirection direction = LinkDirection::to_panel;
    std::string data;  // traffic: the bytes; open: the path, decoded; comment: the text after "# "
};

// One line without its LF; false when it is not a line of the format.
bool parse_record_line(const std::string& line, RecordLine& out);
// A whole record, which must begin with the title line; false with the first
// bad line's number and text in `error`.
bool parse_link_record(const std::string& text, std::vector<RecordLine>& lines, std::string& error);
