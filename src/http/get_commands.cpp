// The GET command set: "/tuning/device?id=-1&cmd=<n>", commands to the panel and to the engine.
#include "http/get_commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "core/engine.h"
#include "core/mutex_lock.h"
#include "core/safe_files.h"
#include "core/unique_fd.h"
#include "core/utils.h"
#include "crypto/CryptoKey.h"
#include "http/http_answer.h"
#include "http/post_api.h"
#include "http/static_files.h"
#include "link/dev_port.h"
#include "link/pk7.h"
#include "model/history.h"
#include "text/txt_to_utf8.h"

namespace {

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The value of a key such as "&speed=": the text after its last occurrence up
// to the end of the target. False when the key is absent.
bool get_param(const std::string& target, const std::string& key, std::string& value) {
    size_t found = target.rfind(key);
    if (found == std::string::npos) return false;
    value = target.substr(found + key.size());
    return true;
}

// True, after one console line, when QUEUE_COMMAND_LIMIT command frames already
// wait: the command must then be refused and change nothing. Only this thread
// adds command frames, so room seen here is still there when it queues.
bool command_queue_full() {
    if (queue.command_room()) return false;
    console_stamped(
        format_to_str("Command refused: %zu commands already wait for the panel", QUEUE_COMMAND_LIMIT));
    return true;
}

// Queues the frame of a single command; false (nothing queued) when the queue is full.
bool send_frame(const char* frame, size_t len) {
    if (command_queue_full()) return false;
    return queue.command_to_dev(std::vector<char>(frame, frame + len));
}

// Both threads write the transfer counters; the device thread holds http_mutex for its updates.
void reset_counter(int& counter) {
    MutexLock lock(http_mutex);
    counter = 0;
}

// Keeps a file name fit for the Content-disposition header line.
std::string header_safe_file_name(const std::string& name) {
    std::string out;
    for (char c : name) {
        unsigned char byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F || c == '"' || c == ';' || c == '/' || c == '\\') continue;
        out += c;
    }
    return out;
}

// Commands 84 and 92 take the download name from "&file=", else a fixed default.
std::string download_file_name(const std::string& target, const char* fallback) {
    std::string name;
    if (get_param(target, "&file=", name)) name = header_safe_file_name(name);
    return name.empty() ? fallback : name;
}

std::string cmd_load_model_file(const std::string& target) {
    std::string model;
    if (!get_param(target, "&devtype=", model)) return json_error;
    std::string path = "devs/" + model + ".ini";
    std::string text;
    // The model name comes from the browser; it must not lead outside "devs".
    if (has_parent_segment(model) || !read_file(path.c_str(), text)) {
        json.put(DM_IN_SRC, ("cmd 1: no read file " + path).c_str(), nullptr);
        return json_error;
    }
    load_config_text(text, SnapshotKind::model);
    parser.set_status_10();
    return json_ok;
}

std::string cmd_save_to_drive(const std::string& target) {
    std::string drive;
    if (!get_param(target, "&drive=", drive)) return json_error;
    std::string mount = txt_to_utf8_proc(drive);
    // The files are made inside this directory, never through a link in its
    // place (a trailing "/" would make the open follow one).
    std::string dir_path = mount;
    while (dir_path.size() > 1 && dir_path.back() == '/') dir_path.pop_back();
    UniqueFd dir(open(dir_path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));

    std::string clock_path = mount + "/clock.txt";
    if (!write_file_in(dir.get(), "clock.txt", ""))
        json.put(DM_IN_SRC, ("error write file " + clock_path).c_str(), nullptr);

    std::string cfg_path = mount + "/CONFIG.INI";
    std::string text;
    parser.cfg_to_file(text);
    if (replace_file_in(dir.get(), "CONFIG.INI", text)) return json_ok;
    json.put(DM_IN_SRC, ("error write file " + cfg_path).c_str(), nullptr);
    return json_error;
}

std::string cmd_connect(const std::string& target) {
    std::string port;
    if (!get_param(target, "&com=", port)) {
        close_dev();
        parser.clear();
        return json_ok;
    }
    if (port.empty()) return "";
    // Reconnecting must not leak the descriptor of the port already open, and
    // the image of that panel goes with it (as on disconnect), so a connect
    // that then fails does not leave its status showing a link.
    if (is_open()) {
        close_dev();
        parser.clear();
    }
    // Opening empties both queues and forgets the old link's flags, so the
    // first frame the new panel gets is cmd_sf (and there is room for it).
    if (!open_dev(port)) {
        std::string out;
        set_error_and_descr(out, err_con_port);
        return out;
    }
    parser.clear();
    parser.pass_accepted = false;
    send_frame(cmd_sf, cmd_sf_len);
    return json_ok;
}

std::string cut_at_continue(const std::string& value) {
    return value.substr(0, value.find("&continue"));
}

// Status 11: the password opens the uploaded ".cry" file.
std::string cmd_open_cry_file(const std::string& target) {
    std::string value;
    if (!get_param(target, "&pass=", value)) return json_error;
    std::string password = cut_at_continue(value);
    std::string text;
    if (!decrypt_cry(cry_file_content, password, text)) {
        if (!cipher_ready())
            console_stamped("cmd 12: the CRY-file cannot be decrypted: no cipher table loaded");
        return json_error;
    }
    load_config_text(text, SnapshotKind::file);
    parser.set_status_10();
    return json_ok;
}

// The panel's access password: sent once, then polled with "&continue".
std::string cmd_access_password(const std::string& target) {
    if (!contains(target, "&continue")) {
        std::string value;
        if (!get_param(target, "&pass=", value)) return json_error;
        std::string password = cut_at_continue(value);
        if (command_queue_full()) return json_error;
        queue.pass_sent = queue.add_pass(password) == 1;
        queue.pass_rejected = false;
    }
    if (parser.pass_accepted) {
        queue.pass_sent = false;
        queue.pass_rejected = false;
        return json_ok;
    }
    if (queue.pass_rejected || !queue.pass_sent) return json_error;
    return json_continue;
}

std::string cmd_password(const std::string& target) {
    if (parser.get_status() == 11) return cmd_open_cry_file(target);
    return cmd_access_password(target);
}

std::string cmd_set_panel_password(const std::string& target) {
    std::string pass;
    if (!get_param(target, "&pass=", pass) || pass.size() != 6) return json_error;
    std::string frame = "~0018FPS-      \r\nec";
    frame.replace(9, 6, pass);
    frame += PK7_END;
    return send_frame(frame.data(), frame.size()) ? json_ok : json_error;
}

// Commands 21 and 22 restart the panel. The queued frame itself is marked:
// the receipt of that frame closes the link (the device thread sets send_re
// when it writes it), not a receipt still due for an earlier one, and not the
// same bytes sent as a free text command.
std::string cmd_restart(char* frame, size_t len) {
    if (command_queue_full()) return json_error;
    return queue.command_to_dev(std::vector<char>(frame, frame + len), true) ? json_ok : json_error;
}

std::string cmd_write_config() {
    if (config_write_refused() || !start_config_write()) return json_error;
    return json_ok;
}

std::string cmd_read_config() {
    if (dev_no_valid() || command_queue_full()) return json_error;
    parser.clear();
    parser.set_status(4);
    parser.set_ready_text(&StatusDevice::progress_cfg, "0");
    send_frame(cmd_cf11, cmd_cf11_len);
    return json_ok;
}

std::string cmd_speed(const std::string& target) {
    std::string speed;
    if (!get_param(target, "&speed=", speed) || speed.empty()) return json_error;
    cmd_ep[9] = speed[0];
    return send_frame(cmd_ep, cmd_ep_len) ? json_ok : json_error;
}

struct ValueFrames {
    char* one;  // frame for a one-character value, placeholder at `at`
    size_t one_len;
    char* two;  // frame for a two-character value, placeholders at `at` and `at` + 1
    size_t two_len;
    size_t at;
    char* none;  // frame for an empty value; null: an empty value is an error
    size_t none_len;
};

// Built on use: the frame lengths live in another unit, so no static initialisation order is assumed.
ValueFrames ef_frames() {
    return {cmd_efx, cmd_efx_len, cmd_efxx, cmd_efxx_len, 8, cmd_er, cmd_er_len};
}
ValueFrames ea_frames() {
    return {cmd_eax, cmd_eax_len, cmd_eaxx, cmd_eaxx_len, 8, cmd_er, cmd_er_len};
}
ValueFrames xxpg_frames() {
    return {xxpgN_1, xxpgN_1_len, xxpgNN_1, xxpgNN_1_len, 10, nullptr, 0};
}

// Commands whose frame depends on a value of one or two characters.
std::string cmd_with_short_value(const std::string& target, const char* key, const ValueFrames& frames) {
    std::string value;
    if (!get_param(target, key, value)) return json_error;
    if (value.empty() && frames.none) return send_frame(frames.none, frames.none_len) ? json_ok : json_error;
    if (value.size() == 1) {
        frames.one[frames.at] = value[0];
        return send_frame(frames.one, frames.one_len) ? json_ok : json_error;
    }
    if (value.size() == 2) {
        frames.two[frames.at] = value[0];
        frames.two[frames.at + 1] = value[1];
        return send_frame(frames.two, frames.two_len) ? json_ok : json_error;
    }
    return json_error;
}

// Commands that take exactly one character into one placeholder.
std::string cmd_with_one_char(const std::string& target, const char* key, char* frame, size_t len,
                              size_t at) {
    std::string value;
    if (!get_param(target, key, value) || value.size() != 1) return json_error;
    frame[at] = value[0];
    return send_frame(frame, len) ? json_ok : json_error;
}

std::string cmd_read_logs() {
    if (!send_frame(cmd_pl, cmd_pl_len)) return json_error;
    parser.clear_logs();
    parser.set_status(6);
    reset_counter(parser.log_received);
    parser.set_ready_text(&StatusDevice::rlog, "1");
    return json_ok;
}

std::string cmd_log_state() {
    if (!send_frame(cmd_ls, cmd_ls_len)) return json_error;
    parser.set_status(3);
    parser.set_ready_text(&StatusDevice::rlog, "0");
    return json_ok;
}

std::string cmd_read_events() {
    if (!send_frame(cmd_mh, cmd_mh_len)) return json_error;
    parser.set_status(7);
    parser.set_ready_text(&StatusDevice::rmsg, "1");
    return json_ok;
}

// Free text command, sent verbatim: no length limit and no stuffing.
std::string cmd_free_text(const std::string& target) {
    std::string text;
    if (!get_param(target, "&text=", text)) return json_error;
    if (command_queue_full()) return json_error;
    std::string length = format_to_str("%04d", static_cast<int>(text.size() + 5));
    std::vector<char> frame;
    frame.push_back(PK7_START);
    frame.insert(frame.end(), length.begin(), length.end());
    frame.push_back('F');
    frame.insert(frame.end(), text.begin(), text.end());
    frame.push_back(PK7_END);
    return queue.command_to_dev(frame) ? json_ok : json_error;
}

std::string queue_and_ok(char* frame, size_t len) {
    return send_frame(frame, len) ? json_ok : json_error;
}

// The answer text of every command that answers with JSON.
std::string run_json_command(int n, const std::string& target) {
    switch (n) {
        case 1:
            return cmd_load_model_file(target);
        case 5:
            return cmd_save_to_drive(target);
        case 11:
            return cmd_connect(target);
        case 12:
            return cmd_password(target);
        case 13:
            return queue_and_ok(cmd_ul_2, cmd_ul_2_len);
        case 14:
            return queue_and_ok(cmd_ul_1, cmd_ul_1_len);
        case 21:
            return cmd_restart(cmd_re, cmd_re_len);
        case 22:
            return cmd_restart(cmd_fr, cmd_fr_len);
        case 23:
            return cmd_set_panel_password(target);
        case 31:
            return cmd_write_config();
        case 32:
            return cmd_read_config();
        case 41:
            return cmd_speed(target);
        case 42:
            return queue_and_ok(cmd_ad, cmd_ad_len);
        case 43:
            return cmd_with_short_value(target, "&ext=", ef_frames());
        case 44:
            return cmd_with_short_value(target, "&ext=", ea_frames());
        case 45:
            return cmd_with_short_value(target, "&radio=", xxpg_frames());
        case 46:
            return queue_and_ok(xxpg1_0, xxpg1_0_len);
        case 51:
            return cmd_with_one_char(target, "&ok=", kkN_1, kkN_1_len, 8);
        case 52:
            return cmd_with_one_char(target, "&ok=", kkN_0, kkN_0_len, 8);
        case 61:
            return cmd_with_one_char(target, "&zona=", ss1_x, ss1_x_len, 10);
        case 62:
            return cmd_with_one_char(target, "&zona=", ss2_x, ss2_x_len, 10);
        case 63:
            return cmd_with_one_char(target, "&part=", kt_N, kt_N_len, 9);
        case 72:
        case 74:
            return json_ok;
        case 81:
            return cmd_read_logs();
        case 82:
            return cmd_log_state();
        case 83:
            return queue_and_ok(cmd_dl, cmd_dl_len);
        case 91:
            return cmd_read_events();
        case 100:
            return cmd_free_text(target);
        default:
            return json_error;
    }
}

}  // namespace

// Writes cannot pile up behind a panel that does not answer.
bool config_write_refused() {
    if (dev_no_valid()) return true;
    if (!queue.write_frames_waiting()) return false;
    console_stamped("Command refused: an earlier configuration write still waits for the panel");
    return true;
}

// The frames are queued before the status says "writing": a write refused
// for its size changes nothing, and a write that drains at once still ends
// in status 3, which the next cycle sets for an empty queue in status 5.
bool start_config_write() {
    if (!parser.cfg_to_dev()) return false;
    parser.set_status(5);
    reset_counter(parser.cfg_count);
    parser.set_ready_text(&StatusDevice::progress_cfg, "0");
    return true;
}

void run_command(int n, const std::string& target, AnswerStream& answer) {
    if (n == 84) {
        std::string text;
        parser.dev_log_to_file(text);
        set_response_events_file(answer, text, download_file_name(target, "logs.txt"));
        return;
    }
    if (n == 92) {
        std::string text;
        parser.dev_events_to_file(text);
        set_response_events_file(answer, text, download_file_name(target, "events.txt"));
        return;
    }
    set_response_json(answer, run_json_command(n, target));
}
