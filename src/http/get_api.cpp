// The GET API: the rule table that answers every GET target, and its JSON queries.
#include "http/get_api.h"

#include <cstdlib>

#include "core/debug.h"
#include "core/engine.h"
#include "http/added_queries.h"
#include "http/get_commands.h"
#include "http/http_answer.h"
#include "http/http_parser.h"
#include "http/static_files.h"

namespace {

const std::string api_prefix = "/tuning/device?id=-1&";
// The API targets and keys of the rules, made once rather than for every request.
const std::string status_target = api_prefix + "statusdevice";
const std::string update_target = api_prefix + "updatestatus";
const std::string config_key = api_prefix + "configstate=";
const std::string messages_target = api_prefix + "getmessage";
const std::string log_key = api_prefix + "getlog&record=";
const std::string version_key = api_prefix + "version=";
const std::string disks_key = api_prefix + "getdisk";
const std::string exit_target = api_prefix + "exit";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

void answer_unknown_query(const std::string& target, AnswerStream& answer) {
    json.put(DM_IN_SRC, ("GET UNKNOWN QUERY: " + target).c_str(), nullptr);
    set_error(answer);
}

void answer_status(AnswerStream& answer) {
    if (parser.get_status() == 1) parser.status_dev.get_ports();
    std::string out;
    parser.status_to_json(out);
    set_response_json(answer, out);
}

void answer_update_status(AnswerStream& answer) {
    std::string out;
    parser.update_cfg_to_json(out);
    set_response_json(answer, out);
}

void answer_config_state(const std::string& target, AnswerStream& answer) {
    std::string mask = target.substr(target.rfind('=') + 1);
    std::string out;
    if (mask.empty())
        parser.cfg_to_json(out);
    else
        parser.mask_to_json(mask, out);
    set_response_json(answer, out);
}

void answer_messages(AnswerStream& answer) {
    std::string out;
    parser.dev_events_to_json(out);
    set_response_json(answer, out);
    parser.set_ready_text(&StatusDevice::rmsg, "0");
}

// "getlog&record=<first>&...=<count>": false when no "&" follows "record=".
bool answer_log_page(const std::string& target, AnswerStream& answer) {
    size_t found = target.find(log_key);
    if (found == std::string::npos) return false;
    std::string rest = target.substr(found + log_key.size());
    size_t amp = rest.find('&');
    if (amp == std::string::npos) return false;
    int first = static_cast<int>(strtol(rest.substr(0, amp).c_str(), nullptr, 10));
    size_t eq = rest.rfind('=');
    std::string count_text = eq == std::string::npos ? rest : rest.substr(eq + 1);
    int count = static_cast<int>(strtol(count_text.c_str(), nullptr, 10));
    std::string out;
    parser.dev_log_to_json(out, first, count);
    set_response_json(answer, out);
    return true;
}

void answer_version(AnswerStream& answer) {
    set_response_json(answer, std::string("{ \"result\":{\"version\":\"") + engine_version + "\"} }");
}

void answer_disks(AnswerStream& answer) {
    std::string out;
    parser.getdisk_to_json(out);
    set_response_json(answer, out);
}

void answer_exit(AnswerStream& answer) {
    set_response_json(answer, json_ok);
    is_exit = true;
}

// A static file; a target that could lead outside "js" is an unknown query.
void answer_file(const std::string& target, BodyBuilder build, AnswerStream& answer) {
    if (!answer_static_file(target, build, answer)) answer_unknown_query(target, answer);
}

// The original rules, in their order; false when none matches the target.
bool answer_original_rule(const std::string& target, AnswerStream& answer) {
    if (target == status_target) {
        answer_status(answer);
        return true;
    }
    if (target == update_target) {
        answer_update_status(answer);
        return true;
    }
    if (int command = parse_command(target); command >= 1) {
        run_command(command, target, answer);
        return true;
    }
    if (contains(target, config_key)) {
        answer_config_state(target, answer);
        return true;
    }
    if (target == messages_target) {
        answer_messages(answer);
        return true;
    }
    if (answer_log_page(target, answer)) return true;
    if (contains(target, version_key)) {
        answer_version(answer);
        return true;
    }
    if (contains(target, disks_key)) {
        answer_disks(answer);
        return true;
    }
    if (target == "/" || target == "/index.html") {
        answer_file("/index.html", set_response_html, answer);
        return true;
    }
    if (BodyBuilder build = static_builder(target)) {
        answer_file(target, build, answer);
        return true;
    }
    if (target == exit_target) {
        answer_exit(answer);
        return true;
    }
    if (target == "/scenario/index.html") {
        answer_file(target, set_response_html, answer);
        return true;
    }
    return false;
}

}  // namespace

void parse_get_query(const std::string& target, AnswerStream& answer) {
    if (answer_original_rule(target, answer)) return;
    if (answer_added_query(target, answer)) return;
    answer_unknown_query(target, answer);
}
