// Reply dispatch: validates each frame from the panel, acknowledges it and
// hands it to the configuration, log, event and telemetry readers.
#include <cctype>
#include <cstdlib>

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "link/dev_port.h"
#include "link/exchange.h"
#include "link/frame_reader.h"
#include "model/dev_parser.h"
#include "model/history.h"

namespace {

// Payload of a reply starts after the four length digits and the type letter.
constexpr unsigned long kPayload = 5;

void dump_if(bool enabled, DM_TYPES type, const std::vector<unsigned char>& pkt, const char* title) {
    if (!debug_mode || !enabled) return;
    std::vector<unsigned char> copy(pkt);
    pk7.put_bytes(type, reinterpret_cast<char*>(copy.data()), copy.size(), title, 0);
}

bool has_prefix(const std::vector<unsigned char>& pkt, unsigned long at, const char* prefix) {
    for (unsigned long i = 0; prefix[i] != '\0'; ++i)
        if (at + i >= pkt.size() || pkt[at + i] != static_cast<unsigned char>(prefix[i])) return false;
    return true;
}

std::string text_from(const std::vector<unsigned char>& pkt, unsigned long at) {
    if (at >= pkt.size()) return "";
    return std::string(pkt.begin() + static_cast<long>(at), pkt.end());
}

}  // namespace

int DevParser::parse_all() {
    if (packets.empty()) return 0;
    int result = 1;
    for (size_t i = 0; i < packets.size(); ++i) result &= parse_packet(packets[i]);
    packets.clear();
    packets.shrink_to_fit();
    return result;
}

int DevParser::parse_packet(std::vector<unsigned char>& pkt) {
    if (!is_open()) return 0;
    const FrameFault fault = frame_fault(pkt);
    if (fault == FrameFault::no_header) {
        console_stamped("Отсутсвует заголовок пакета");
        return 0;
    }
    const unsigned char type = pkt[4];
    if (fault == FrameFault::encrypted) {
        console_stamped("Шифрование не поддерживается");
        if (type != 'A') send_AN5 = true;
        return 0;
    }
    if (fault != FrameFault::none) {
        console_stamped("Несоответствие длины пакета: заявлено " +
                        std::to_string(frame_declared_length(pkt)) + " байт, получено " +
                        std::to_string(pkt.size()) + " байт");
        if (type == 'A') return 0;
        if (fault == FrameFault::too_short)
            send_AN2 = true;
        else
            send_AN1 = true;
        return 0;
    }
    if (type == 'A') {
        on_receipt(pkt);
        return 0;
    }

    write_ok();
    switch (type) {
        case 'B':
            on_binary_block(pkt);
            break;
        case 'F':
            on_text_reply(pkt);
            break;
        case 'G':
            dump_if(dm_r3, DM_IN_LOGS, pkt, " <<<PK7_IN_LOGS      ");
            parse_log(pkt, kPayload);
            break;
        case 'L':
            dump_if(dm_r2, DM_IN_TMT, pkt, " <<<PK7_IN_TMT       ");
            parse_tmt(pkt, kPayload);
            tmt_to_status_dev();
            break;
        default:
            break;
    }
    return 0;
}

void DevParser::on_receipt(const std::vector<unsigned char>& pkt) {
    if (pkt.size() == 5) {
        on_plain_receipt();
    } else if (pkt.size() == 7 && pkt[5] == 'N' && isdigit(pkt[6])) {
        // Any negative receipt to the password block ends that exchange;
        // code 3 is the panel's explicit refusal. A write whose end command is
        // refused did not end: it leaves no snapshot.
        if (pass_block_written.exchange(false)) queue.pass_sent = false;
        config_end_written = false;
        if (pkt[6] == '3') {
            queue.pass_sent = false;
            queue.pass_rejected = true;
        }
    }
    dev_busy = false;
    dump_if(dm_r4, DM_IN_RECEIPT, pkt, " <<<PK7_IN_RECEIPT   ");
}

void DevParser::on_plain_receipt() {
    wait_receipt_OK = false;
    // The panel took the end of a configuration write: the image as written.
    if (config_end_written.exchange(false)) history_capture(SnapshotKind::write);
    if (pass_block_written.exchange(false)) {
        pass_accepted = true;
        queue.pass_sent = false;
    }
    if (!send_re) return;
    // The panel acknowledged a restart or reset command: it is going away.
    close_dev();
    clear();
    set_status(1);
    ready = false;
}

void DevParser::on_binary_block(const std::vector<unsigned char>& pkt) {
    if (pkt.size() < 7) {
        console_stamped("error: get empty binary block");
        return;
    }
    dump_if(dm_r3, DM_IN_EVENTS, pkt, " <<<PK7_IN_EVENTS    ");
    const unsigned char kind = pkt[5];
    const unsigned char number = pkt[6];

    // clear() on the HTTP thread empties the same transfer state: every
    // change to it is made under http_mutex. The finished events are handed
    // on after the unlock, since get_list_dev_events locks the mutex itself.
    std::vector<unsigned char> finished;
    {
        MutexLock lock(http_mutex);
        if ((kind & 0x80) != 0 && number == 0) {
            block_kind = kind & 0x7F;
            block_buffer.assign(pkt.begin() + 7, pkt.end());
            expected_block = 1;
            if (block_kind == 1 && pkt.size() >= 9) {
                events_bytes_total = (pkt[7] + 256 * pkt[8]) * 15;
                on_events_progress();
            }
            return;
        }
        if ((kind & 0x80) != 0 || kind != block_kind || number != expected_block) return;

        if (pkt.size() > 7) {
            block_buffer.insert(block_buffer.end(), pkt.begin() + 7, pkt.end());
            ++expected_block;
            if (block_kind == 1) on_events_progress();
            return;
        }
        // A block without payload ends the transfer.
        if (block_kind == 1) finished.swap(block_buffer);
        block_buffer.clear();
    }
    if (finished.empty()) return;
    get_list_dev_events(finished);
    set_ready_text(&StatusDevice::rmsg, "2");
    set_status(3);
}

// Called with http_mutex held.
void DevParser::on_events_progress() {
    events_bytes_received = static_cast<int>(block_buffer.size());
    if (events_bytes_total != 0)
        status_dev.msg = std::to_string(events_bytes_received * 100 / events_bytes_total);
}

void DevParser::on_text_reply(std::vector<unsigned char>& pkt) {
    if (pkt.size() >= 9) {
        if (has_prefix(pkt, kPayload, "TL-")) {
            on_log_count(pkt);
            return;
        }
        if (has_prefix(pkt, kPayload, "UR") && (pkt[7] == '0' || pkt[7] == '1') && pkt[8] == '-') {
            on_firmware_result(pkt);
            return;
        }
    }
    dump_if(dm_r3, DM_IN_CFG, pkt, " <<<PK7_IN_CFG       ");
    parse_cfg(pkt, kPayload);
}

void DevParser::on_log_count(const std::vector<unsigned char>& pkt) {
    const int count = static_cast<int>(strtol(text_from(pkt, 8).c_str(), nullptr, 10));
    {
        MutexLock lock(http_mutex);
        log_count = count;
    }
    if (count == 0) {
        set_status(3);
        set_ready_text(&StatusDevice::rlog, "0");
        return;
    }
    set_ready_text(&StatusDevice::logmax, std::to_string(count));
}

void DevParser::on_firmware_result(const std::vector<unsigned char>& pkt) {
    const std::string name = pkt[7] == '0' ? "main proc" : "coproc";
    const char result = pkt.size() > 9 ? static_cast<char>(pkt[9]) : '\0';
    std::string word = "?";
    if (result == '0') {
        set_ready_text(&StatusDevice::rupd, "4");
        word = "error.";
    } else if (result == '1') {
        set_ready_text(&StatusDevice::rupd, "2");
        word = "success.";
    } else if (result == '2') {
        set_ready_text(&StatusDevice::rupd, "2");
        word = "success. Close connect device.";
        close_dev();
        clear();
    }
    console_stamped("Load " + name + " firmware " + word);
}
