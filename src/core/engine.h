// Process start-up, the long-lived globals shared by both threads, shutdown.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <string>

#include "core/debug.h"
#include "link/queue_to_dev.h"
#include "model/dev_parser.h"

// The engine's version as shown by the banner and the version query.
inline constexpr const char* engine_version = "5.2.22";

extern DevParser parser;       // the device image
extern Queue queue;            // outgoing command frames
extern BBQueue bbqueue;        // outgoing binary blocks
extern std::string user_name;  // the sudo user, for starting the browser

// Set to make both threads leave their loops.
extern std::atomic<bool> is_exit;

// Guards the device image; locked inside the DevParser operations.
extern pthread_mutex_t http_mutex;
// Reserved for console output; destroyed at shutdown, never locked.
extern pthread_mutex_t cout_mutex;

// Device thread entry: runs dev_thread, then ends the thread.
void* threadFunc(void*);

// The whole program: banner, user name, keys, threads, server, shutdown.
// Always returns 0.
int engine_main(int argc, char** argv);

// Reads the invoking user's name from "echo $SUDO_USER" (line ends dropped).
std::string read_sudo_user();

// The user who started the engine through sudo, from SUDO_UID; false when sudo
// did not set it (or set something that is not a user id).
bool sudo_uid(uid_t& uid);
// The user on whose behalf the engine runs: SUDO_UID, else the real user.
uid_t invoking_uid();
// That user's group: SUDO_GID along with SUDO_UID ((gid_t)-1 when sudo set no
// group), else the real group.
gid_t invoking_gid();

// Applies one command-line key. Returns false for "help" (the usage text has
// been printed and the engine must end); unknown keys are ignored.
bool apply_key(const std::string& key);

// The usage text printed for "help".
std::string usage_text();
