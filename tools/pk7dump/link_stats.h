// pk7dump --stats: counts per frame kind, resends, negative receipts, silent gaps and the time of each
// transfer.
#pragma once

#include <string>
#include <vector>

#include "link/record_frames.h"

// Silence on an open link longer than this is a gap.
inline constexpr uint64_t SILENT_GAP_MS = 1000;

// The report, one fact per line.
std::string link_stats(const std::vector<RecordLine>& lines, const std::vector<RecordedFrame>& frames);
