// vorpanel-sim: a Vorlane panel on a pseudo-terminal, for trying the engine without hardware.
//
// Output: the first line of standard output is the pty slave path (e.g.
// "/dev/pts/3"), flushed at once; with --verbose every frame received
// ("panel << ") and every chunk written ("panel >> ") follows, one per line.
// Runs until SIGINT or SIGTERM; exit status 0, or 1 when no pty can be opened
// or an option is not understood. With --replay it plays a link record instead
// and ends when the record is played out: exit status 0 only when no frame of
// the engine differed from the record.
#include <pthread.h>
#include <signal.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "crypto/CryptoKey.h"
#include "panel_replay.h"
#include "panel_sim.h"

namespace {

const char* usage =
    "Usage: vorpanel-sim [options]\n"
    "Simulates a Vorlane panel on a pseudo-terminal. The first line of output is\n"
    "the terminal's path; as root the link /dev/ttyUSB-SIM points to it as well.\n"
    "  --no-link            do not create /dev/ttyUSB-SIM\n"
    "  --telemetry-ms N     telemetry period in ms (default 1000; 0: only after SF)\n"
    "  --silent             never answer, never send\n"
    "  --no-block-ack       never acknowledge binary blocks\n"
    "  --garbage            send junk bytes with every telemetry period\n"
    "  --split              write every frame in two parts, 250 ms apart\n"
    "  --hangup-after-ms N  close the terminal after N ms, as if unplugged\n"
    "  --log-records N      records in the journal (default 300, at most 100000)\n"
    "  --events N           events in the event memory (default 250, at most 5080,\n"
    "                       what one transfer carries)\n"
    "  --reply-gap-ms N     pause between the frames of a log or events answer\n"
    "  --settings N         further settings in the configuration (default 0, at most 20000)\n"
    "  --password TEXT      the panel's access password (others are refused); needs --cipher\n"
    "  --cipher FILE        cipher table file, as the engine's cipher.txt\n"
    "  --verbose            print every frame received and every chunk written\n"
    "  --replay FILE        play the panel's side of a link record (the engine's\n"
    "                       linkrecord download) against an engine driven through\n"
    "                       the same requests; prints each frame that differs and\n"
    "                       \"replay: N frames matched, M differed\", exits 0 when M is 0\n"
    "  --fast               with --replay: answer at once, not after the recorded gaps\n"
    "  --max-diff N         with --replay: stop after N differences (default 10)\n"
    "  --help               this text\n";

constexpr int DEFAULT_LOG_RECORDS = 300;
constexpr int MAX_LOG_RECORDS = 100000;
constexpr int DEFAULT_EVENTS = 250;
constexpr int MAX_EXTRA_SETTINGS = 20000;
// The journal and the event memory begin on 01.06.2024 00:00:00 UTC.
constexpr uint32_t MEMORY_START = 1717200000;

bool read_number(const char* text, int& out, long max = 86400000) {
    if (text == nullptr) return false;
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || value < 0 || value > max) return false;
    out = static_cast<int>(value);
    return true;
}

struct ReplayChoice {
    std::string file;  // empty: no replay
    ReplayOptions options;
};

// 1: run, 0: help shown, -1: bad option.
int parse_options(int argc, char** argv, PanelSimOptions& options, bool& verbose, std::string& cipher,
                  ReplayChoice& replay) {
    int log_records = DEFAULT_LOG_RECORDS;
    int events = DEFAULT_EVENTS;
    int settings = 0;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        const char* next = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--help") return 0;
        if (arg == "--no-link")
            options.make_link = false;
        else if (arg == "--silent")
            options.silent = true;
        else if (arg == "--no-block-ack")
            options.block_ack = false;
        else if (arg == "--garbage")
            options.garbage = true;
        else if (arg == "--split")
            options.split = true;
        else if (arg == "--verbose")
            verbose = true;
        else if (arg == "--telemetry-ms" && read_number(next, options.telemetry_ms))
            ++i;
        else if (arg == "--hangup-after-ms" && read_number(next, options.hangup_after_ms))
            ++i;
        else if (arg == "--password" && next != nullptr && *next != '\0')
            options.content.access_password = argv[++i];
        else if (arg == "--cipher" && next != nullptr)
            cipher = argv[++i];
        else if (arg == "--log-records" && read_number(next, log_records, MAX_LOG_RECORDS))
            ++i;
        else if (arg == "--reply-gap-ms" && read_number(next, options.reply_gap_ms))
            ++i;
        else if (arg == "--events" && read_number(next, events, static_cast<long>(SIM_MAX_EVENTS)))
            ++i;
        else if (arg == "--settings" && read_number(next, settings, MAX_EXTRA_SETTINGS))
            ++i;
        else if (arg == "--replay" && next != nullptr && *next != '\0')
            replay.file = argv[++i];
        else if (arg == "--fast")
            replay.options.fast = true;
        else if (arg == "--max-diff" && read_number(next, replay.options.max_diff, 1000000) &&
                 replay.options.max_diff > 0)
            ++i;
        else {
            std::cerr << "vorpanel-sim: bad option " << arg << "\n" << usage;
            return -1;
        }
    }
    replay.options.make_link = options.make_link;
    options.content.log_records = sim_journal(static_cast<size_t>(log_records), MEMORY_START);
    options.content.events = sim_event_memory(static_cast<size_t>(events), MEMORY_START);
    // Outputs of a large panel: "ot<n>-1.1.0.60".
    for (int n = 1; n <= settings; ++n)
        options.content.config_lines.push_back("ot" + std::to_string(n) + "-1.1.0.60");
    return 1;
}

std::atomic<bool> replay_stop{false};

void stop_replay(int) {
    replay_stop = true;
}

// Plays a record until it is played out or a stop signal comes.
int replay_record(const ReplayChoice& choice) {
    std::ifstream in(choice.file, std::ios::binary);
    std::string text(std::istreambuf_iterator<char>(in), {});
    PanelReplay replay(choice.options);
    if (!in || !replay.load(text)) {
        std::cerr << "vorpanel-sim: " << choice.file << ": " << (in ? replay.error() : "cannot read") << "\n";
        return 1;
    }
    if (!replay.start()) {
        std::cerr << "vorpanel-sim: " << replay.error() << "\n";
        return 1;
    }
    signal(SIGINT, stop_replay);
    signal(SIGTERM, stop_replay);
    std::cout << replay.slave_path() << std::endl;
    return replay.run(replay_stop, std::cout);
}

}  // namespace

int main(int argc, char** argv) {
    PanelSimOptions options;
    bool verbose = false;
    std::string cipher;
    ReplayChoice replay;
    int parsed = parse_options(argc, argv, options, verbose, cipher, replay);
    if (parsed == 0) {
        std::cout << usage;
        return 0;
    }
    if (parsed < 0) return 1;
    if (!replay.file.empty()) return replay_record(replay);
    std::string error;
    if (!options.content.access_password.empty() && !load_cipher_file(cipher.c_str(), error)) {
        std::cerr << "vorpanel-sim: --password needs a usable --cipher file: " << error << "\n";
        return 1;
    }

    // The panel thread inherits the blocked signals, so only sigwait below sees them.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    PanelSim panel(options);
    panel.set_trace(verbose);
    if (!panel.start()) {
        std::cerr << "vorpanel-sim: " << panel.error() << "\n";
        return 1;
    }
    std::cout << panel.slave_path() << std::endl;

    int signal_number = 0;
    sigwait(&stop_signals, &signal_number);
    panel.stop();
    return 0;
}
