// The device image: construction, emptying, the new-model hook, the status number and its texts.
#include "model/dev_parser.h"

#include <cctype>
#include <cstdlib>
#include <memory>

#include "core/engine.h"
#include "core/mutex_lock.h"
#include "link/dev_port.h"
#include "link/exchange.h"
#include "model/dev_parser_helpers.h"
#include "model/history.h"
#include "text/txt_to_utf8.h"

std::string to_upper(std::string text) {
    for (char& c : text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

std::string to_lower(std::string text) {
    for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

std::string utf8_from_cp1251(const std::string& text) {
    std::unique_ptr<char, decltype(&free)> converted(cp1251_to_utf8(text.c_str()), &free);
    return converted ? std::string(converted.get()) : std::string();
}

DevParser::DevParser() {}

void DevParser::clear() {
    // The port list comes from a shell command: take it before locking.
    const std::string ports = list_ports();
    {
        MutexLock lock(http_mutex);
        // Whatever the image holds (a configuration prepared offline, edits
        // not yet written) stays in the history.
        history_capture_locked(*this, SnapshotKind::kept);
        status_dev.reset(ports);
        cfg.clear();
        cfg_text_bytes = 0;
        cfg_full_reported = false;
        cfg_keys.clear();
        cfg_send.clear();
        cfg_td.clear();
        cfg_sv.clear();
        cfg_cs1.clear();
        tmt.clear();
        logs.clear();
        events.clear();
        // The device thread changes these counters and the events transfer
        // under the same lock.
        block_buffer.clear();
        block_kind = 0;
        expected_block = 0;
        events_bytes_total = 0;
        events_bytes_received = 0;
        cfg_total = 0;
        cfg_count = 0;
        log_received = 0;
        log_count = 0;
    }
    fw_blocks_sent = 0;
    fw_blocks_total = 0;
    send_re = false;
}

void DevParser::init(std::string model) {
    // The resistance is looked up before upper-casing, as the panel reported it.
    const std::string resistance = set_sens_resistance(model);
    model = to_upper(model);
    cfg["td"] = std::make_pair(std::string("td"), model);
    if (model == "MD19" || model == "MD14" || model == "MD15")
        for (int sensor = 1; sensor <= 128; ++sensor) status_dev.lm[sensor].R = resistance;
    if (status_dev.modem.empty()) status_dev.modem = std::string("0");
}

// ---- Status number and texts ----------------------------------------------------

void DevParser::set_status(int s) {
    status_dev.status = s;
    if (s < 3) ready = false;
}

void DevParser::set_status_10() {
    status_dev.status = 10;
    if (is_open()) status_dev.status = ready ? 3 : 2;
}

void DevParser::set_ready_text(std::string StatusDevice::*field, const std::string& value) {
    MutexLock lock(http_mutex);
    status_dev.*field = value;
}

std::string DevParser::get_ready_text(std::string StatusDevice::*field) {
    MutexLock lock(http_mutex);
    return status_dev.*field;
}
