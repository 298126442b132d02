// Process start-up, the long-lived globals shared by both threads, shutdown.
#include "core/engine.h"

#include <malloc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "core/shell.h"
#include "crypto/CryptoKey.h"
#include "http/http_server.h"
#include "link/dev_port.h"
#include "link/exchange.h"
#include "model/history.h"

// Construction order matters: the device image first, then the queues that
// feed the panel, then the user name and the HTTP debug channel.
DevParser parser;
Queue queue;
BBQueue bbqueue;
std::string user_name;
json_msg json;

std::atomic<bool> is_exit{false};
pthread_mutex_t http_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t cout_mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

struct DebugKey {
    const char* key;
    std::initializer_list<bool*> switches;
    const std::string& channel;
    const char* subject;
};

// Tried in this order; the first exact match acts.
const DebugKey debug_keys[] = {
    {"ds1", {&dm_s1}, ds, "for src bytes"},
    {"ds2", {&dm_s2}, ds, "for command and firmware"},
    {"ds3", {&dm_s3}, ds, "for receipt"},
    {"ds", {&dm_s1, &dm_s2, &dm_s3}, ds, "for all"},
    {"dr1", {&dm_r1}, dr, "for src bytes"},
    {"dr2", {&dm_r2}, dr, "for telemetry"},
    {"dr3", {&dm_r3}, dr, "for config, logs, events"},
    {"dr4", {&dm_r4}, dr, "for receipt"},
    {"dr", {&dm_r1, &dm_r2, &dm_r3, &dm_r4}, dr, "for all"},
    {"dh1", {&dm_h1}, dh, "for sending bytes"},
    {"dh2", {&dm_h2}, dh, "for received bytes"},
    {"dh", {&dm_h1, &dm_h2}, dh, "for all"},
};

// Without a usable cipher file the engine still runs; only the access
// password and encrypted configuration files are unavailable.
void load_cipher() {
    std::string error;
    if (load_cipher_file(cipher_file_name, error)) return;
    console_line(std::string("Cipher file ") + cipher_file_name + " not usable (" + error +
                 "): access password and .cry files are disabled");
}

}  // namespace

std::string read_sudo_user() {
    std::string name;
    for (char c : shell_output("echo $SUDO_USER")) {
        if (c != '\n' && c != '\r') name += c;
    }
    return name;
}

// A user or group id that sudo put in the environment variable `name`.
static bool id_from_env(const char* name, unsigned long& id) {
    const char* text = getenv(name);
    if (text == nullptr || *text < '0' || *text > '9') return false;
    char* end = nullptr;
    errno = 0;
    unsigned long value = strtoul(text, &end, 10);
    // (uid_t)-1 and (gid_t)-1 mean "none" to the system calls.
    if (errno != 0 || *end != '\0' || value >= static_cast<uid_t>(-1)) return false;
    id = value;
    return true;
}

bool sudo_uid(uid_t& uid) {
    unsigned long id = 0;
    if (!id_from_env("SUDO_UID", id)) return false;
    uid = static_cast<uid_t>(id);
    return true;
}

uid_t invoking_uid() {
    uid_t uid = 0;
    return sudo_uid(uid) ? uid : getuid();
}

gid_t invoking_gid() {
    uid_t uid = 0;
    unsigned long id = 0;
    if (!sudo_uid(uid)) return getgid();
    return id_from_env("SUDO_GID", id) ? static_cast<gid_t>(id) : static_cast<gid_t>(-1);
}

std::string usage_text() {
    return "vorcore <key1> <key2> .. \n"
           " where keys:\n"
           "ds1 - " +
           ds +
           "for src bytes\n"
           "ds2 - " +
           ds +
           "for command and firmware\n"
           "ds3 - " +
           ds +
           "for receipt\n"
           "ds - " +
           ds +
           "for all\n"
           "\n"
           "dr1 - " +
           dr +
           "foor src bytes\n"
           "dr2 - " +
           dr +
           "for telemetry\n"
           "dr3 - " +
           dr +
           "for config, logs, events\n"
           "dr4 - " +
           dr +
           "for receipt\n"
           "dr - " +
           dr +
           "for all\n"
           "\n"
           "dh1 - " +
           dh +
           "for sending bytes\n"
           "dh1 - " +
           dh +
           "for received bytes\n"
           "dh - " +
           dh + "for all\n";
}

bool apply_key(const std::string& key) {
    if (key == "help") {
        console_raw(usage_text());
        return false;
    }
    for (const DebugKey& entry : debug_keys) {
        if (key != entry.key) continue;
        console_line("ON" + entry.channel + entry.subject);
        debug_mode = true;
        for (bool* flag : entry.switches) *flag = true;
        return true;
    }
    return true;
}

void* threadFunc(void*) {
    dev_thread();
    pthread_exit(nullptr);
}

// Large answers (a configuration list, a static file) are built and freed
// with every request. A fixed threshold keeps such buffers in their own
// mappings, which go back to the system when freed; by default the allocator
// raises the threshold after the first one and keeps their memory for good.
static void return_large_buffers() {
    mallopt(M_MMAP_THRESHOLD, 256 * 1024);
}

int engine_main(int argc, char** argv) {
    return_large_buffers();
    console_line("");
    console_line(std::string("Configurator Core ver ") + engine_version);
    user_name = read_sudo_user();
    for (int i = 1; i < argc; ++i) {
        if (!apply_key(argv[i])) return 0;
    }
    load_cipher();
    history_open("history", invoking_uid(), invoking_gid());

    pthread_t device_thread;
    bool device_thread_started = pthread_create(&device_thread, nullptr, threadFunc, nullptr) == 0;
    if (!device_thread_started) console_line("Device thread create error");

    http_server();

    if (device_thread_started) pthread_join(device_thread, nullptr);
    // What the image holds when the engine ends is kept before it exits.
    history_take(SnapshotKind::kept);
    close_dev();
    pthread_mutex_destroy(&http_mutex);
    pthread_mutex_destroy(&cout_mutex);
    return 0;
}
