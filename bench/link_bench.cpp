// The link against the simulated panel answering at once: a configuration read of 2,000 settings and a
// 256 KiB firmware upload, each timed against the bound that the 100 ms cycle and stop-and-wait set.
//
// The device thread reads at most 1,024 bytes per cycle and writes one frame per cycle, waiting for its
// receipt: a read cannot take less than (bytes the panel sends / 1,024) cycles, a firmware upload less
// than (image size / 256 bytes per block) cycles. "ratio" is the time taken over that bound.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "core/engine.h"
#include "http/get_commands.h"
#include "link/dev_port.h"
#include "link/exchange.h"
#include "panel_sim.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kCycleSeconds = 0.1;
constexpr size_t kReadBytesPerCycle = sizeof pbuf;
constexpr size_t kSettings = 2000;
constexpr size_t kFirmwareBytes = 256 * 1024;
constexpr size_t kBlockBytes = 256;

// open_dev writes error.log into the working directory: a scratch one.
struct ScratchDir {
    ScratchDir() {
        char pattern[] = "/tmp/vorcore_link_bench_XXXXXX";
        path = mkdtemp(pattern);
        std::filesystem::current_path(path);
    }
    ~ScratchDir() {
        std::filesystem::current_path(previous);
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::filesystem::path previous = std::filesystem::current_path();
    std::string path;
};

// A panel with `settings` configuration lines, connected to the engine's port, and the device thread
// running on it until the object goes.
class Link {
public:
    explicit Link(size_t settings) {
        PanelSimOptions options{.make_link = false, .telemetry_ms = 0};
        for (size_t i = 1; i <= settings; ++i)
            options.content.config_lines.push_back("zn" + std::to_string(i) + "-" + std::to_string(i % 7));
        content_ = options.content;
        panel_ = std::make_unique<PanelSim>(options);
        if (!panel_->start()) return;
        std::string path = panel_->slave_path();
        opened_ = open_dev(path) == 1;
        is_exit = false;
        device_ = std::async(std::launch::async, dev_thread);
    }
    ~Link() {
        is_exit = true;
        if (device_.valid()) device_.wait();
        is_exit = false;
        close_dev();
    }
    bool opened() const { return opened_; }
    const PanelContent& content() const { return content_; }

private:
    ScratchDir scratch_;
    PanelContent content_;
    std::unique_ptr<PanelSim> panel_;
    bool opened_ = false;
    std::future<void> device_;
};

// Polls (every ms, at most `seconds`) until the condition holds; the seconds taken, or -1.
template <typename Condition>
double seconds_until(Condition done, double seconds) {
    const auto start = Clock::now();
    for (;;) {
        const double taken = std::chrono::duration<double>(Clock::now() - start).count();
        if (done()) return taken;
        if (taken > seconds) return -1;
        usleep(1000);
    }
}

void report(benchmark::State& state, double taken, double bound) {
    state.SetIterationTime(taken);
    state.counters["bound_s"] = bound;
    state.counters["taken_s"] = taken;
    state.counters["ratio"] = taken / bound;
}

// Command 32 as the browser sends it, until the "ec" line has ended the read (status 3).
void BM_ConfigurationRead2000Settings(benchmark::State& state) {
    Link link(kSettings);
    if (!link.opened()) return state.SkipWithError("the simulated panel could not be opened");
    size_t panel_bytes = sim_receipt().size();  // the receipt of the read command
    for (const std::string& payload : config_payloads(link.content()))
        panel_bytes += sim_frame('F', payload).size();
    const double bound = std::ceil(static_cast<double>(panel_bytes) / kReadBytesPerCycle) * kCycleSeconds;
    for (auto _ : state) {
        AnswerStream answer;
        run_command(32, "/tuning/device?id=-1&cmd=32", answer);
        double taken = seconds_until([] { return parser.get_status() == 3; }, 60);
        if (taken < 0) return state.SkipWithError("the read did not end");
        if (parser.cfg.size() < kSettings) return state.SkipWithError("settings missing after the read");
        report(state, taken, bound);
    }
    state.counters["panel_bytes"] = static_cast<double>(panel_bytes);
}
BENCHMARK(BM_ConfigurationRead2000Settings)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

// A firmware image as POST cmd=71 queues it, until the last block is acknowledged (status 3, 100 %).
void BM_FirmwareUpload256KiB(benchmark::State& state) {
    Link link(0);
    if (!link.opened()) return state.SkipWithError("the simulated panel could not be opened");
    std::vector<char> image(kFirmwareBytes);
    for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<char>(i * 7 + (i >> 8));
    const double bound = static_cast<double>(kFirmwareBytes / kBlockBytes) * kCycleSeconds;
    for (auto _ : state) {
        parser.firmware_to_dev(0, image);
        double taken = seconds_until(
            [] {
                return parser.get_status() == 3 && parser.get_ready_text(&StatusDevice::upd) == "100" &&
                       bbqueue.is_empty();
            },
            300);
        if (taken < 0) return state.SkipWithError("the upload did not end");
        report(state, taken, bound);
    }
    state.counters["blocks"] = static_cast<double>(kFirmwareBytes / kBlockBytes);
}
BENCHMARK(BM_FirmwareUpload256KiB)->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);

}  // namespace
