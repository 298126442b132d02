// Throughput of the journal and event writers on 10,000 entries each, and the resident memory of a full
// image.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/engine.h"
#include "core/mutex_lock.h"

namespace {

constexpr int kEntries = 10000;
constexpr uint32_t kStart = 1717200000;  // 01.06.2024 00:00:00 UTC

// Log replies as a panel sends them: records of all three kinds, about 45 bytes
// each, in portions of about 200 bytes; the last portion carries the end mark.
std::vector<std::vector<unsigned char>> log_replies() {
    static const char* const texts[] = {
        "MS::Partition 1 armed by user 3",       "MS::Report E130 sent over GPRS in 1451 ms",
        "WN::GSM signal weak, level 12%",        "MS::GSM registered, operator \"MTS RUS\", level 64%",
        "ER::GPRS connection failed, code 0x1F", "WN::Radio expander 2 silent for 120 s",
    };
    std::vector<std::vector<unsigned char>> replies;
    std::vector<unsigned char> portion{0};
    for (int i = 0; i < kEntries; ++i) {
        char record[96];
        int len =
            snprintf(record, sizeof record, "%X::%s", kStart + 60u * static_cast<unsigned>(i), texts[i % 6]);
        portion.insert(portion.end(), record, record + len);
        portion.push_back(0);
        if (portion.size() >= 200 || i + 1 == kEntries) {
            if (i + 1 == kEntries) portion[0] = 1;
            replies.push_back(portion);
            portion.assign(1, 0);
        }
    }
    return replies;
}

// An event list reply: the 2-byte header, then 15-byte records of alarms,
// restorals, radio devices (flag bit 5) and an unknown code.
std::vector<unsigned char> events_reply() {
    static const struct {
        uint16_t code;
        uint8_t flags;
    } shapes[] = {{130, 1}, {130, 0}, {401, 1}, {401, 0}, {381, 0x21}, {381, 0x20}, {110, 1}, {999, 1}};
    std::vector<unsigned char> reply{kEntries & 0xFF, kEntries >> 8};
    for (int i = 0; i < kEntries; ++i) {
        const uint32_t time = kStart + 97u * static_cast<uint32_t>(i), id = 1000u + static_cast<uint32_t>(i);
        const auto& shape = shapes[i % 8];
        for (int b = 0; b < 4; ++b) reply.push_back(static_cast<unsigned char>(time >> (8 * b)));
        for (int b = 0; b < 4; ++b) reply.push_back(static_cast<unsigned char>(id >> (8 * b)));
        reply.push_back(static_cast<unsigned char>(shape.code & 0xFF));
        reply.push_back(static_cast<unsigned char>(shape.code >> 8));
        const unsigned char part = 1, zona = static_cast<unsigned char>(1 + i % 64), user = 0, ext = 2;
        for (unsigned char field : {part, zona, user, ext, shape.flags}) reply.push_back(field);
    }
    return reply;
}

// 10,000 settings as the configuration reader would store them: zones, keys,
// outputs, users and phone numbers, with short values and some names.
void fill_configuration() {
    static const char* const families[] = {"zn", "zt", "zd", "zname", "ks", "ku", "rl", "ro", "us", "ph"};
    MutexLock lock(http_mutex);
    for (int i = 0; i < kEntries; ++i) {
        const std::string family = families[i % 10];
        const int index = i / 10 + 1;
        char key[32], sorted[32];
        snprintf(key, sizeof key, "%s%d", family.c_str(), index);
        snprintf(sorted, sizeof sorted, "%s%04d", family.c_str(), index);
        std::string value = family == "zname" ? "Zone " + std::to_string(index) + " hall window"
                            : family == "ph"  ? "+7916" + std::to_string(1000000 + index)
                                              : std::to_string(index % 7);
        parser.cfg[sorted] = {key, value};
        parser.cfg_keys.insert(key);
    }
}

void load_journal_and_events() {
    parser.clear();
    for (std::vector<unsigned char>& reply : log_replies()) parser.parse_log(reply, 0);
    std::vector<unsigned char> events = events_reply();
    parser.get_list_dev_events(events);
}

long resident_kib() {
    FILE* status = fopen("/proc/self/status", "r");
    if (status == nullptr) return -1;
    char line[256];
    long kib = -1;
    while (fgets(line, sizeof line, status) != nullptr)
        if (strncmp(line, "VmRSS:", 6) == 0) kib = strtol(line + 6, nullptr, 10);
    fclose(status);
    return kib;
}

// Runs first: the whole process's resident memory with the journal, the events
// and a 10,000-setting configuration loaded, and what loading them added.
void BM_ResidentMemoryWithAllLoaded(benchmark::State& state) {
    const long before = resident_kib();
    for (auto _ : state) {
        load_journal_and_events();
        fill_configuration();
    }
    const long after = resident_kib();
    state.counters["rss_MiB"] = static_cast<double>(after) / 1024;
    state.counters["added_MiB"] = static_cast<double>(after - before) / 1024;
    state.counters["records"] = static_cast<double>(parser.logs.size());
    state.counters["events"] = static_cast<double>(parser.events.size());
    state.counters["settings"] = static_cast<double>(parser.cfg.size());
}
BENCHMARK(BM_ResidentMemoryWithAllLoaded)->Iterations(1)->Unit(benchmark::kMillisecond);

// Each writer runs on the loaded image; bytes processed are the bytes written.
template <typename Writer>
void run_writer(benchmark::State& state, Writer write) {
    if (parser.logs.size() != kEntries || parser.events.size() != kEntries) load_journal_and_events();
    std::string out;
    for (auto _ : state) {
        write(out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(out.size()));
}

void BM_LogToJson(benchmark::State& state) {
    run_writer(state, [](std::string& out) { parser.dev_log_to_json(out, 0, 0); });
}
BENCHMARK(BM_LogToJson)->Unit(benchmark::kMillisecond);

void BM_LogToFile(benchmark::State& state) {
    run_writer(state, [](std::string& out) { parser.dev_log_to_file(out); });
}
BENCHMARK(BM_LogToFile)->Unit(benchmark::kMillisecond);

void BM_EventsToJson(benchmark::State& state) {
    run_writer(state, [](std::string& out) { parser.dev_events_to_json(out); });
}
BENCHMARK(BM_EventsToJson)->Unit(benchmark::kMillisecond);

void BM_EventsToFile(benchmark::State& state) {
    run_writer(state, [](std::string& out) { parser.dev_events_to_file(out); });
}
BENCHMARK(BM_EventsToFile)->Unit(benchmark::kMillisecond);

// Reading: the log replies into records, the event reply into the list.
void BM_ParseLogReplies(benchmark::State& state) {
    std::vector<std::vector<unsigned char>> replies = log_replies();
    int64_t bytes = 0;
    for (const auto& reply : replies) bytes += static_cast<int64_t>(reply.size());
    for (auto _ : state) {
        parser.clear_logs();
        for (std::vector<unsigned char>& reply : replies) parser.parse_log(reply, 0);
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(BM_ParseLogReplies)->Unit(benchmark::kMillisecond);

void BM_ReadEventList(benchmark::State& state) {
    std::vector<unsigned char> reply = events_reply();
    for (auto _ : state) parser.get_list_dev_events(reply);
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(reply.size()));
}
BENCHMARK(BM_ReadEventList)->Unit(benchmark::kMillisecond);

}  // namespace
