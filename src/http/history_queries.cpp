// The history queries: the snapshot list, a snapshot as JSON or as a file, its differences written.
#include "http/history_queries.h"

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "http/get_commands.h"
#include "http/http_answer.h"
#include "model/dev_parser_helpers.h"
#include "model/history.h"

namespace {

const std::string api_prefix = "/tuning/device?id=-1&";
// Enough of a refused name for the console line.
constexpr size_t kShownNameLength = 80;

// The name after `query` when the target starts with the prefix and it.
bool name_after(const std::string& target, const std::string& query, std::string& name) {
    const std::string start = api_prefix + query;
    if (!target.starts_with(start)) return false;
    name = target.substr(start.size());
    return true;
}

// The snapshot's bytes; false, after the refusal is answered, for a name the
// list does not show.
bool snapshot_bytes(const std::string& name, std::string& bytes, AnswerStream& answer) {
    if (history_read(name, bytes)) return true;
    console_stamped("History: no snapshot " + printable(name.substr(0, kShownNameLength)));
    std::string out;
    set_error_and_descr(out, "Нет такого снимка");
    set_response_json(answer, out);
    return false;
}

void answer_config(const std::string& name, AnswerStream& answer) {
    std::string bytes, out;
    if (!snapshot_bytes(name, bytes, answer)) return;
    snapshot_to_json(bytes, out);
    set_response_json(answer, out);
}

void answer_file(const std::string& name, AnswerStream& answer) {
    std::string bytes;
    // The head of the configuration file download, with the snapshot's name.
    if (snapshot_bytes(name, bytes, answer)) set_response_events_file(answer, bytes, name);
}

// Only what differs goes out, as the file holds it; the image then shows what
// the panel will hold, and the receipt of the end command snapshots it.
std::string write_differences(const std::string& bytes) {
    if (config_write_refused()) return json_error;
    bool unsent = false;
    {
        MutexLock lock(http_mutex);
        unsent = !parser.cfg_send.empty();
    }
    // Edits not yet written are dropped from the write below: kept first.
    if (unsent) history_take(SnapshotKind::kept);
    const auto differing = snapshot_differences(bytes);
    parser.send_settings(differing);
    if (!differing.empty() && !start_config_write()) return json_error;
    return json_ok;
}

void answer_write(const std::string& name, AnswerStream& answer) {
    std::string bytes;
    if (snapshot_bytes(name, bytes, answer)) set_response_json(answer, write_differences(bytes));
}

}  // namespace

bool answer_history_query(const std::string& target, AnswerStream& answer) {
    std::string name;
    if (target == api_prefix + "history")
        set_response_json(answer, history_json());
    else if (name_after(target, "historyconfig=", name))
        answer_config(name, answer);
    else if (name_after(target, "historyfile=", name))
        answer_file(name, answer);
    else if (name_after(target, "historywrite=", name))
        answer_write(name, answer);
    else
        return false;
    return true;
}
