// The link record's cost on the device thread: appending one chunk (per chunk and per byte), and
// the HTTP thread's copy of a full record for the download.
#include <benchmark/benchmark.h>

#include <string>

#include "link/link_record.h"

namespace {

// Chunks as the port gives them: a receipt (7 bytes), a short frame, a telemetry block, a
// whole read. The ring fills within the first runs, so most appends also drop old lines.
void BM_AppendChunk(benchmark::State& state) {
    const size_t len = static_cast<size_t>(state.range(0));
    std::string chunk(len, '\0');
    for (size_t i = 0; i < len; ++i) chunk[i] = static_cast<char>(i * 37);
    for (auto _ : state) link_record_traffic(LinkDirection::from_panel, chunk.data(), chunk.size());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(len));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AppendChunk)->Arg(7)->Arg(64)->Arg(256)->Arg(1024);

// A write of a frame holding a password: the masked form is built first.
void BM_AppendPasswordFrame(benchmark::State& state) {
    const std::string frame = "~0018FPS-123456\r\nec\x7f";
    for (auto _ : state) {
        const RecordedWrite write(frame.data(), frame.size());
        write.wrote(0, frame.size());
    }
}
BENCHMARK(BM_AppendPasswordFrame);

// What the download copies under the record's lock, the record full.
void BM_CopyFullRecord(benchmark::State& state) {
    std::string chunk(1024, 'x');
    for (int i = 0; i < 3000; ++i) link_record_traffic(LinkDirection::to_panel, chunk.data(), chunk.size());
    size_t size = 0;
    for (auto _ : state) {
        std::string text = link_record_text();
        size = text.size();
        benchmark::DoNotOptimize(text.data());
    }
    state.counters["record_MiB"] = static_cast<double>(size) / (1 << 20);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}
BENCHMARK(BM_CopyFullRecord)->Unit(benchmark::kMillisecond);

}  // namespace
