// The configuration history: writing a snapshot of a 10,000-setting configuration, showing such a
// snapshot as JSON (historyconfig), and the snapshot list with 500 snapshots (history), in a scratch
// folder on this machine's disk.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "core/engine.h"
#include "core/mutex_lock.h"
#include "http/history_queries.h"
#include "model/history.h"

namespace {

constexpr int kSettings = 10000;
const std::string kPrefix = "/tuning/device?id=-1&";

// A scratch working folder, removed at the end.
struct Scratch {
    Scratch() {
        char pattern[] = "/tmp/vorcore_history_bench_XXXXXX";
        path = mkdtemp(pattern);
    }
    ~Scratch() { std::system(("rm -rf '" + path + "'").c_str()); }
    std::string path;
};

// 10,000 settings in ten families as a panel reports them, a fifth of them text
// (Windows-1251 bytes), 190 kB as a file.
void fill_image() {
    MutexLock lock(http_mutex);
    parser.cfg.clear();
    const char* families[] = {"zn", "wa", "sr", "ua", "rl", "ss", "ks", "lm", "cs", "ot"};
    for (int f = 0; f < 10; ++f)
        for (int i = 1; i <= kSettings / 10; ++i) {
            const std::string key = families[f] + std::to_string(i);
            std::string value = "1.0.25.3." + std::to_string(i);
            if (f == 1) value = "\"\xc7\xee\xed\xe0 \xf1\xea\xeb\xe0\xe4\xe0 " + std::to_string(i) + "\",1,0";
            if (f == 2) value = "\xcf\xee\xeb\xfc\xe7\xee\xe2\xe0\xf2\xe5\xeb\xfc " + std::to_string(i);
            parser.cfg[parser.sort_fit(key)] = {key, value};
        }
    parser.cfg["td"] = {"td", "MS02"};
}

void set_changing_value(int64_t n) {
    MutexLock lock(http_mutex);
    parser.cfg["zn001"].second = std::to_string(n);
}

std::string answer(const std::string& query) {
    AnswerStream out;
    answer_history_query(kPrefix + query, out);
    return out.str();
}

// The newest name the list shows.
std::string newest_name() {
    const std::string list = answer("history");
    const size_t at = list.find("\"name\":\"") + 8;
    return list.substr(at, list.find('"', at) - at);
}

// One snapshot of the 10,000 settings: formatted under http_mutex, written to a
// new file. Each one differs from the last (one value changes), so none is
// skipped as a repeat; 300 of them still fit the folder's 64 MiB.
void BM_SnapshotWrite(benchmark::State& state) {
    Scratch scratch;
    fill_image();
    history_open(scratch.path + "/history", getuid(), getgid());
    int64_t n = 0;
    for (auto _ : state) {
        state.PauseTiming();
        set_changing_value(++n);
        state.ResumeTiming();
        history_take(SnapshotKind::read);
    }
    std::string bytes;
    history_read(newest_name(), bytes);
    state.counters["file_kB"] = static_cast<double>(bytes.size()) / 1000;
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes.size()));
    history_close();
}
BENCHMARK(BM_SnapshotWrite)->Unit(benchmark::kMillisecond)->Iterations(300);

// historyconfig of that snapshot: the file read, loaded into a scratch image and
// written as configuration JSON.
void BM_HistoryConfig(benchmark::State& state) {
    Scratch scratch;
    fill_image();
    history_open(scratch.path + "/history", getuid(), getgid());
    history_take(SnapshotKind::read);
    const std::string query = "historyconfig=" + newest_name();
    std::string out;
    for (auto _ : state) {
        out = answer(query);
        benchmark::DoNotOptimize(out.data());
    }
    if (out.find("{\"key\":\"zn1000\"") == std::string::npos)
        state.SkipWithError("not the whole configuration");
    state.counters["json_MB"] = static_cast<double>(out.size()) / 1e6;
    history_close();
}
BENCHMARK(BM_HistoryConfig)->Unit(benchmark::kMillisecond);

// The folder with 500 snapshots of a small configuration each: the list from the
// index (history), and the index built when the engine starts.
struct FiveHundred {
    Scratch scratch;
    std::string folder = scratch.path + "/history";
    FiveHundred() {
        const std::string mine = folder + "/" + std::to_string(getuid());
        mkdir(folder.c_str(), 0711);
        mkdir(mine.c_str(), 0700);
        for (int i = 0; i < 500; ++i) {
            char name[64];
            snprintf(name, sizeof name, "/20261124-%02d%02d%02d-000-read-MS02.ini", i / 3600, i / 60 % 60,
                     i % 60);
            std::ofstream(mine + name)
                << "Vorlane-MS02\r\nfe\r\nbc-40\r\nec-1\r\nsv-MS02 v3.14\r\ntd-MS02\r\n"
                << std::string(60, 'z') << "-" << i << "\r\n";
        }
    }
};

void BM_HistoryList500(benchmark::State& state) {
    FiveHundred folder;
    history_open(folder.folder, getuid(), getgid());
    std::string out;
    for (auto _ : state) {
        out = answer("history");
        benchmark::DoNotOptimize(out.data());
    }
    if (out.find("20261124-000819-000") == std::string::npos) state.SkipWithError("the oldest is not listed");
    state.counters["json_kB"] = static_cast<double>(out.size()) / 1000;
    history_close();
}
BENCHMARK(BM_HistoryList500)->Unit(benchmark::kMicrosecond);

void BM_HistoryOpen500(benchmark::State& state) {
    FiveHundred folder;
    for (auto _ : state) history_open(folder.folder, getuid(), getgid());
    history_close();
}
BENCHMARK(BM_HistoryOpen500)->Unit(benchmark::kMillisecond);

}  // namespace
