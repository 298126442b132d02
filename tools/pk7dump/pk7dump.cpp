// pk7dump: reads a vorcore link record and prints its frames, or with --stats what happened on the link.
//
// Exit status: 0 when the record could be read, 1 when it could not, 2 for a
// wrong command line.
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "frame_lines.h"
#include "link_stats.h"

namespace {

const char* usage =
    "Usage: pk7dump [--stats] FILE\n"
    "Reads a link record (the console's \"Скачать запись обмена\", or the engine's\n"
    "linkrecord query) and prints one line per frame: time in ms, direction\n"
    "(> to the panel, < from it), type, length field and what the frame is.\n"
    "FILE - reads standard input.\n"
    "  --stats  counts per frame kind, resends, negative receipts, silent gaps\n"
    "           over 1 s and the time each transfer took, instead of the frames\n";

bool read_all(const std::string& name, std::string& text) {
    if (name == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        return true;
    }
    std::ifstream in(name, std::ios::binary);
    if (!in) return false;
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

// The record's lines as they are, each followed by the frames it ended; an open
// or close line after the frames it cut off.
void print_frames(const std::vector<RecordLine>& lines, const std::vector<RecordedFrame>& frames) {
    size_t next = 0;
    auto frames_up_to = [&](size_t line) {
        for (; next < frames.size() && frames[next].line <= line; ++next)
            std::cout << frame_line(frames[next]) << "\n";
    };
    for (size_t i = 0; i < lines.size(); ++i) {
        const RecordLine& line = lines[i];
        frames_up_to(i);
        if (line.kind == RecordLine::comment) std::cout << "# " << line.data << "\n";
        if (line.kind == RecordLine::open) std::cout << line.ms << " open " << shown_text(line.data) << "\n";
        if (line.kind == RecordLine::close) std::cout << line.ms << " close\n";
    }
    frames_up_to(lines.size());
}

}  // namespace

int main(int argc, char** argv) {
    bool stats = false;
    std::string file;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help") {
            std::cout << usage;
            return 0;
        }
        if (arg == "--stats") {
            stats = true;
        } else if (file.empty() && (arg == "-" || !arg.starts_with("-"))) {
            file = arg;
        } else {
            std::cerr << "pk7dump: bad argument " << arg << "\n" << usage;
            return 2;
        }
    }
    if (file.empty()) {
        std::cerr << usage;
        return 2;
    }
    std::string text, error;
    std::vector<RecordLine> lines;
    if (!read_all(file, text)) {
        std::cerr << "pk7dump: cannot read " << file << "\n";
        return 1;
    }
    if (!parse_link_record(text, lines, error)) {
        std::cerr << "pk7dump: " << file << ": " << error << "\n";
        return 1;
    }
    const std::vector<RecordedFrame> frames = record_frames(lines);
    if (stats)
        std::cout << link_stats(lines, frames);
    else
        print_frames(lines, frames);
    return 0;
}
