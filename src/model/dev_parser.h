// The device image: panel status, configuration, logs and events, and the
// dispatch of panel replies into it. DevParser is one class; its members are
// defined across files named after their concern: dev_parser.cpp (image and
// status number), _replies (dispatch), _status (telemetry and status JSON),
// _cfg_image (configuration lines from the panel), _cfg_json (configuration to
// and from the browser's JSON), _cfg_files (configuration files, writing to the
// panel, model id), _logs, _events, _lists (ports and disks), _firmware
// (firmware blocks).
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

// Raw telemetry pieces between one parse_tmt and the next tmt_to_status_dev.
struct TMT {
    std::string mode;
    std::string devtype;
    std::string sim;
    std::string tmt02_first;
    std::string tmt02_second;
    std::string gsm;
    std::string server;
    std::string power_mode;
    std::string power_value;
    std::string power_ext;
    std::map<std::string, std::string> part_list;
    std::map<std::string, std::string> lm_state_list;
    std::map<std::string, std::string> lm_value_list;
    std::string ext_list_one;
    std::string ext_list_two;
    std::map<std::string, std::string> tamper_list;
    std::map<std::string, std::string> ok_list;
    std::string t;
    std::string balance;
    std::string learnkey;
    std::string ident;
    std::string clock;
    std::string temp_server_ip;
    std::string temp_server_port;

    void clear();
};

// The panel's live status as shown to the browser.
class StatusDevice {
public:
    struct Ext {
        std::string S;
        std::string T;
    };
    struct Lm {
        std::string S;
        std::string R;
    };

    std::string devtype;
    std::atomic<int> status{1};
    std::string rcfg = "0", rmsg = "0", rlog = "0", rupd = "0";
    std::string progress_cfg = "0", msg = "0", log = "0", logmax = "0", upd = "0";
    std::string update = "false";
    std::string com;
    std::string sim, gsm, server, power_mode, power_value, power_ext, tamper, t, balance;
    std::string modem, xcpu, learnkey;
    std::map<int, std::string> part;
    std::map<int, Ext> ext;
    std::map<int, std::string> ok;
    std::map<int, Lm> lm;
    std::string ident, date, time;
    std::string temp_server_ip, temp_server_port;
    bool lists_full_reported = false;  // this link's panel overfilled a list

    // Back to the state of a fresh connection; refills `com` from the ports
    // present. The caller holds http_mutex (DevParser::clear does).
    void clear();
    // The same with a port list already taken, so that no shell command runs
    // while http_mutex is held. The caller holds http_mutex.
    void reset(const std::string& ports);
    // Rebuilds `com` from the serial ports present on this machine; takes
    // http_mutex for the assignment, so the caller must not hold it.
    void get_ports();
};

// The inside of the `com` JSON array for the serial ports present now (runs "ls").
std::string list_ports();
// The inside of the `com` JSON array from the output of "ls": each non-empty,
// line-feed-terminated line double-quoted, separated by commas.
std::string ports_from_ls(const std::string& ls_output);
// The disk list JSON from the output of "lsblk -n -p -P -o
// NAME,LABEL,TRAN,TYPE,MOUNTPOINT": the mounted first partition of each USB drive.
std::string disks_from_lsblk(const std::string& lsblk_output);

// One panel event record.
struct dev_event {
    uint32_t time;
    uint32_t id;
    uint16_t code;
    uint8_t part;
    uint8_t zona;
    uint8_t user;
    uint8_t ext;
    uint8_t flags;
};

class DevParser {
public:
    DevParser();

    // ---- Reply dispatch (device thread) ----
    std::vector<std::vector<unsigned char>> packets;  // received, awaiting parse_all
    int parse_all();
    int parse_packet(std::vector<unsigned char>& pkt);
    // Empties the image; called on connect, disconnect and link loss.
    void clear();
    // New device type reported; called by tmt_to_status_dev with http_mutex held.
    void init(std::string model);

    // ---- Status ----
    StatusDevice status_dev;
    std::atomic<bool> ready{false};          // last "+tmt00" carried mode "1"
    std::atomic<bool> pass_accepted{false};  // the panel accepted the access password
    void set_status(int s);
    void set_status_10();
    int get_status() const { return status_dev.status; }
    // Ready-state and progress texts, guarded by http_mutex (both threads write
    // them). Both take the mutex, so they must not be called with it held.
    void set_ready_text(std::string StatusDevice::*field, const std::string& value);
    std::string get_ready_text(std::string StatusDevice::*field);

    // Negative receipts requested by the dispatcher, sent by write_step.
    std::atomic<bool> send_AN1{false}, send_AN2{false}, send_AN5{false};

    // ---- Telemetry ----
    TMT tmt;
    // parse_tmt, tmt_to_status_dev and status_to_json take http_mutex themselves.
    int parse_tmt(std::vector<unsigned char>& data, unsigned long pos);
    void tmt_to_status_dev();
    void status_to_json(std::string& out);
    void par2json(const char* name, std::string& value, std::string& out);

    // ---- Binary block transfer (events) ----
    uint8_t block_kind = 0;
    uint32_t expected_block = 0;
    std::vector<unsigned char> block_buffer;
    int events_bytes_total = 0;
    int events_bytes_received = 0;

    // ---- Firmware ----
    std::atomic<int> fw_blocks_total{0};
    std::atomic<int> fw_blocks_sent{0};
    int firmware_to_dev(int target, std::vector<char>& image);
    void getdisk_to_json(std::string& out);

    // ---- Configuration ----
    // Map key (sort_fit of the key) -> (key as received, value in Windows-1251).
    std::map<std::string, std::pair<std::string, std::string>> cfg;
    std::set<std::string> cfg_keys;               // keys received since the browser last asked
    std::map<std::string, std::string> cfg_send;  // key -> value waiting to go to the panel
    std::string cfg_td, cfg_sv, cfg_cs1;
    int cfg_total = 0;  // lines announced by "bc"
    int cfg_count = 0;  // lines decoded (or sent) so far
    // Text held by the settings put_setting stored; beyond the limit further
    // settings are refused (one console line per transfer) until the image
    // is emptied or replaced.
    size_t cfg_text_bytes = 0;
    bool cfg_full_reported = false;
    // The update flag the browser sees is status_dev.update ("true"/"false").

    // Panel lines in (device thread): parse_cfg takes http_mutex; parse_cfg_str
    // must be called with it held.
    int parse_cfg(std::vector<unsigned char>& data, unsigned long start);
    void parse_cfg_str(std::string& line);
    // Map key that sorts the keys of one family by number: "zn5" -> "zn005".
    std::string sort_fit(const std::string& key);

    // JSON for the browser; the three list operations take http_mutex.
    void cfg_to_json(std::string& out);
    void mask_to_json(std::string& mask, std::string& out);
    void update_cfg_to_json(std::string& out);
    // Appends one element, the writer chosen by the key's family; returns 1.
    unsigned key_to_js(std::string& out, const std::pair<std::string, std::string>& entry);
    // Family writers: append one element for a value already in UTF-8.
    void set_json_key(std::string& out, const std::string& key, const std::string& value);
    void set_str_json_key(std::string& out, const std::string& key, const std::string& value);
    void set_hs_json_key(std::string& out, const std::string& key, const std::string& value);
    void set_rl_json_key(std::string& out, const std::string& key, const std::string& value);
    void set_ss_json_key(std::string& out, const std::string& key, const std::string& value);
    void set_wa_json_key(std::string& out, const std::string& key, const std::string& value);
    void set_ua_json_key(std::string& out, const std::string& key, const std::string& value);

    // Settings in from the browser and from files (HTTP thread, take http_mutex).
    void json_to_cfg(std::string& json);
    void file_to_cfg(std::string& text);
    void cfg_to_file(std::string& out);
    // The same file text without creating the empty "vorlane", "ks001" and
    // "ks002" entries cfg_to_file leaves behind; the caller holds http_mutex.
    void cfg_file_text(std::string& out) const;
    // A write of exactly these settings (key -> value as a file holds them):
    // they replace cfg_send and are stored in cfg. Takes http_mutex.
    void send_settings(const std::map<std::string, std::string>& settings);
    // Queues cfg_send as configuration frames and the end command, then
    // empties it. False, with nothing queued or taken, when the frames would
    // take the queues past QUEUE_BYTES_LIMIT.
    bool cfg_to_dev();
    // Rebuilds "td" from "vc" (returns 1) or from the configuration's shape
    // (returns 0). Takes no lock: file_to_cfg calls it with http_mutex held.
    int reconstruct_td();
    // Takes no lock: init calls it with http_mutex held.
    std::string set_sens_resistance(std::string& model);

    // ---- Logs ----
    // All four take http_mutex themselves.
    std::vector<std::string> logs;
    int log_received = 0;  // records stored since the last reset (progress numerator)
    int log_count = 0;     // records the panel announced with "TL-n"
    // Memory charged to the stored records; beyond the limit parse_log drops
    // further records (one console line) until the list is emptied.
    size_t log_bytes = 0;
    bool log_full_reported = false;
    int parse_log(std::vector<unsigned char>& data, unsigned long pos);
    void dev_log_to_json(std::string& out, int first, int count);
    void dev_log_to_file(std::string& out);
    void clear_logs();

    // ---- Events ----
    // get_list_dev_events and the two writers take http_mutex themselves.
    std::vector<dev_event> events;
    void get_list_dev_events(std::vector<unsigned char>& data);
    void dev_events_to_json(std::string& out);
    void dev_events_to_file(std::string& out);
    // The description of an event text such as "E110"; empty when unknown.
    std::string get_event_descr_utf8(const std::string& event);

private:
    // Stores one setting in cfg; false (nothing stored) when the configuration
    // already holds its maximum of settings and the key is new, or the setting
    // would take its text over the maximum.
    bool put_setting(const std::string& key, const std::string& value);
    // Prints `line` once per transfer that met the configuration's limits.
    void report_cfg_full(const char* line);
    // Expands a range line "<name><first>:<last>-<value>" (key already lower case).
    void put_range(const std::string& key, size_t colon, const std::string& value);
    void on_receipt(const std::vector<unsigned char>& pkt);
    void on_plain_receipt();
    void on_binary_block(const std::vector<unsigned char>& pkt);
    void on_events_progress();
    void on_text_reply(std::vector<unsigned char>& pkt);
    void on_log_count(const std::vector<unsigned char>& pkt);
    void on_firmware_result(const std::vector<unsigned char>& pkt);
    void store_tmt_line(const std::string& line);
};
