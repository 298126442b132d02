// Speed and memory of the configuration: 10,000 settings read from panel
// lines, shown as JSON (against nlohmann::json and against plain string
// appends of the same bytes), and written to and read from a file.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "core/engine.h"
#include "text/txt_to_utf8.h"

namespace {

constexpr int kSettings = 10000;

size_t rss_kib() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::strtoul(line.c_str() + 6, nullptr, 10);
    return 0;
}

std::string cp1251(const std::string& utf8) {
    std::unique_ptr<char, decltype(&free)> text(utf8_to_cp1251(utf8.c_str()), &free);
    return text.get();
}

// Setting lines of a large panel in Windows-1251, family by family as a panel
// reports them: zones, zone names, users, user codes, relays, sections, keys,
// loops, codes, outputs; a fifth of them Cyrillic text.
std::vector<std::string> setting_lines() {
    const std::string zone = cp1251("Зона склада №"), user = cp1251("Пользователь ");
    using Value = std::string (*)(const std::string& n, const std::string& zone, const std::string& user);
    const std::pair<const char*, Value> families[] = {
        {"zn", [](auto& n, auto&, auto&) { return "1.0.25.3." + n; }},
        {"wa", [](auto& n, auto& zone, auto&) { return "\"" + zone + n + "\"," + n + ",0"; }},
        {"sr", [](auto& n, auto&, auto& user) { return user + n + " \"main\""; }},
        {"ua", [](auto& n, auto&, auto&) { return "*1" + n + ".7"; }},
        {"rl", [](auto&, auto&, auto&) { return std::string("1.30.250"); }},
        {"ss", [](auto& n, auto&, auto&) { return "\"Hall " + n + "\".2"; }},
        {"ks", [](auto&, auto&, auto&) { return std::string("07.12.2024"); }},
        {"lm", [](auto&, auto&, auto&) { return std::string("0.1.2.3"); }},
        {"cs", [](auto&, auto&, auto&) { return std::string("1234.5678"); }},
        {"ot", [](auto&, auto&, auto&) { return std::string("1.1.0.60"); }},
    };
    std::vector<std::string> lines;
    for (const auto& [family, value] : families)
        for (int i = 1; i <= kSettings / 10; ++i) {
            const std::string n = std::to_string(i);
            lines.push_back(family + n + "-" + value(n, zone, user));
        }
    return lines;
}

// The panel's image: "F" replies of whole lines, at most 990 bytes each.
std::vector<std::vector<unsigned char>> image_replies(const std::vector<std::string>& lines, size_t& bytes) {
    std::vector<std::vector<unsigned char>> replies;
    std::string payload;
    bytes = 0;
    auto flush = [&] {
        char head[8];
        std::snprintf(head, sizeof head, "%04zuF", payload.size() + 5);
        std::string body = head + payload;
        replies.emplace_back(body.begin(), body.end());
        bytes += payload.size();
        payload.clear();
    };
    for (const std::string& line : lines) {
        if (payload.size() + line.size() + 2 > 990) flush();
        payload += line + "\r\n";
    }
    if (!payload.empty()) flush();
    return replies;
}

struct Fixture {
    std::vector<std::string> lines = setting_lines();
    size_t image_bytes = 0;
    std::vector<std::vector<unsigned char>> replies = image_replies(lines, image_bytes);
    // Each element's key and subvalues, cut and converted to UTF-8 beforehand.
    struct Element {
        std::string key;
        std::vector<std::string> raw;      // for nlohmann, which escapes itself
        std::vector<std::string> escaped;  // as they stand in the JSON text
    };
    std::vector<Element> elements;
    std::string json;
    size_t resident_kib = 0;  // with the configuration loaded, before the JSON pieces

    Fixture() {
        parser.clear();
        load();
        resident_kib = rss_kib();
        parser.cfg_to_json(json);
        // The pieces of every element, taken from the engine's own output.
        nlohmann::ordered_json parsed = nlohmann::ordered_json::parse(json);
        for (const auto& item : parsed["result"]["config"]) {
            Element e{item["key"].get<std::string>(), {}, {}};
            for (const auto& sub : item["subvalues"]) {
                e.raw.push_back(sub["value"].get<std::string>());
                e.escaped.push_back(json_escape(e.raw.back()));
            }
            elements.push_back(std::move(e));
        }
    }
    // A fresh read: the maps emptied as a read request empties them.
    void load() {
        parser.cfg.clear();
        parser.cfg_keys.clear();
        parser.cfg_count = 0;
        for (auto& reply : replies) parser.parse_cfg(reply, 5);
    }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

// Resident memory of this process with the configuration loaded (it also
// holds the benchmark's copy of the panel's image).
void BM_ResidentWithConfiguration(benchmark::State& state) {
    const size_t before = rss_kib();
    Fixture& f = fixture();
    for (auto _ : state) benchmark::DoNotOptimize(parser.cfg.size());
    state.counters["settings"] = static_cast<double>(parser.cfg.size());
    state.counters["json_bytes"] = static_cast<double>(f.json.size());
    state.counters["image_bytes"] = static_cast<double>(f.image_bytes);
    state.counters["rss_MiB"] = static_cast<double>(f.resident_kib) / 1024;
    state.counters["rss_before_MiB"] = static_cast<double>(before) / 1024;
}
BENCHMARK(BM_ResidentWithConfiguration)->Iterations(1);

void BM_ParseCfgImage(benchmark::State& state) {
    Fixture& f = fixture();
    for (auto _ : state) f.load();
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(f.image_bytes));
}
BENCHMARK(BM_ParseCfgImage)->Unit(benchmark::kMillisecond);

void BM_CfgToJson(benchmark::State& state) {
    Fixture& f = fixture();
    std::string out;
    for (auto _ : state) {
        parser.cfg_to_json(out);
        benchmark::DoNotOptimize(out.data());
    }
    if (out != f.json) state.SkipWithError("output changed");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(out.size()));
}
BENCHMARK(BM_CfgToJson)->Unit(benchmark::kMillisecond);

// The same list built and dumped with nlohmann::json, from pieces already cut
// and converted.
void BM_NlohmannJson(benchmark::State& state) {
    Fixture& f = fixture();
    std::string out;
    for (auto _ : state) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const auto& e : f.elements) {
            nlohmann::ordered_json subvalues = nlohmann::ordered_json::array();
            for (size_t i = 0; i < e.raw.size(); ++i)
                subvalues.push_back({{"value", e.raw[i]}, {"index", i + 1}});
            list.push_back({{"key", e.key}, {"subvalues", std::move(subvalues)}});
        }
        nlohmann::ordered_json answer = {{"result", {{"config", std::move(list)}}}};
        out = answer.dump();
        benchmark::DoNotOptimize(out.data());
    }
    // The engine's text has one blank after the list's opening bracket.
    if (out.size() + 1 != f.json.size()) state.SkipWithError("not the same list");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(out.size()));
}
BENCHMARK(BM_NlohmannJson)->Unit(benchmark::kMillisecond);

// The limit: the same bytes from pieces already cut, converted and escaped.
void BM_PlainAppends(benchmark::State& state) {
    Fixture& f = fixture();
    std::string out;
    for (auto _ : state) {
        out = "{\"result\":{\"config\":[ ";
        bool first = true;
        for (const auto& e : f.elements) {
            if (!first) out += ',';
            first = false;
            out += "{\"key\":\"";
            out += e.key;
            out += "\",\"subvalues\":[";
            for (size_t i = 0; i < e.escaped.size(); ++i) {
                if (i > 0) out += ',';
                out += "{\"value\":\"";
                out += e.escaped[i];
                out += "\",\"index\":";
                out += std::to_string(i + 1);
                out += '}';
            }
            out += "]}";
        }
        out += "]}}";
        benchmark::DoNotOptimize(out.data());
    }
    if (out != f.json) state.SkipWithError("not the same bytes");
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(out.size()));
}
BENCHMARK(BM_PlainAppends)->Unit(benchmark::kMillisecond);

void BM_CfgToFile(benchmark::State& state) {
    fixture();
    std::string out;
    for (auto _ : state) {
        parser.cfg_to_file(out);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(out.size()));
}
BENCHMARK(BM_CfgToFile)->Unit(benchmark::kMillisecond);

void BM_FileToCfg(benchmark::State& state) {
    Fixture& f = fixture();
    std::string file;
    parser.cfg_to_file(file);
    for (auto _ : state) parser.file_to_cfg(file);
    f.load();
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(file.size()));
}
BENCHMARK(BM_FileToCfg)->Unit(benchmark::kMillisecond);

}  // namespace
