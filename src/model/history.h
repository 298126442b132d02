// Configuration history: snapshots of the image kept as configuration files, one folder per installer.
//
// A snapshot is formatted while http_mutex is held, by whichever thread sees
// the moment (a read ends, a write is acknowledged, the image is about to be
// cleared or replaced), and kept in memory; the HTTP thread writes it to the
// folder after the lock is released (history_flush). The folder, its index and
// every file operation belong to the HTTP thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

class DevParser;

enum class SnapshotKind { read, write, file, model, kept };

// Beyond either bound the oldest snapshots (by name) are removed.
inline constexpr size_t HISTORY_MAX_SNAPSHOTS = 500;
inline constexpr uint64_t HISTORY_MAX_BYTES = uint64_t{64} << 20;

// ---- The folder (HTTP thread) ----
// Opens `folder`/<uid> below the working directory, creating `folder` (0711)
// and <uid> (0700) when missing, and indexes the snapshots in it. As root the
// <uid> folder and every snapshot are given to uid and gid ((gid_t)-1 keeps
// the group). False, after one console line, when either folder is a link,
// not a folder, or owned by someone other than root, this process's user or
// uid: the engine then works on without history.
bool history_open(const std::string& folder, uid_t uid, gid_t gid);
// Forgets the folder, its index and the snapshots not yet written.
void history_close();
// The folder passed its checks and no snapshot has failed to be written since.
bool history_usable();

// ---- Taking snapshots ----
// Formats `image` (nothing when its configuration is empty) as a snapshot of
// `kind` for the next history_flush. Any thread; the caller holds http_mutex.
void history_capture_locked(const DevParser& image, SnapshotKind kind);
// The same for the engine's image; takes http_mutex.
void history_capture(SnapshotKind kind);
// Writes the snapshots captured since the last flush (HTTP thread). One equal
// to the newest in the folder is not written again.
void history_flush();
// history_capture then history_flush (HTTP thread).
void history_take(SnapshotKind kind);
// Replaces the engine's image by a configuration file's text (file_to_cfg),
// keeping the image it replaces ("kept") and the one loaded (`kind`).
void load_config_text(std::string& text, SnapshotKind kind);

// ---- Reading (HTTP thread) ----
// The snapshot list, newest first: {"result":{"history":[{"name":...},...]}}.
std::string history_json();
// The bytes of a snapshot the list shows. False, opening nothing, for any
// other name; false also when the file is no longer a plain file of one link.
bool history_read(const std::string& name, std::string& bytes);

// ---- A snapshot against the image ----
// The snapshot as configuration JSON: the file loaded into a scratch image by
// file_to_cfg and written by cfg_to_json, leaving the engine's image alone.
void snapshot_to_json(const std::string& bytes, std::string& out);
// The snapshot's settings (key -> value as the file holds them) whose value
// differs from the image's or that the image lacks; the file's frame
// ("vorlane", "fe", "!!", "bc", "ec", "sv") left out.
std::map<std::string, std::string> snapshot_differences(const std::string& bytes);

// ---- Names and contents ----
// YYYYMMDD-HHMMSS-mmm-<kind>[-<MODEL>].ini: the digits as digits, a known
// kind, MODEL 1 to 16 of A-Z and 0-9.
bool is_snapshot_name(const std::string& name);
// The name of a snapshot taken at `epoch_ms` (UTC) of an image whose "td" is `td`.
std::string snapshot_name(int64_t epoch_ms, SnapshotKind kind, const std::string& td);
// Lines after the first that hold a minus sign.
size_t snapshot_settings(const std::string& text);
