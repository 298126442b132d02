// Routing a parsed request to its handler: the refusals, the GET API, the POST commands.
#include "http/http_router.h"

#include "core/debug.h"
#include "core/engine.h"
#include "http/get_api.h"
#include "http/http_answer.h"
#include "model/history.h"

// The configuration file goes back at once (command 2); uploads are acknowledged
// and processed after the answer (4, 71, 73 and targets without a command).
static int route_post(const HttpRequest& request, AnswerStream& answer, parsing_result& result) {
    int n = parse_command(request.elements[1]);
    if (n == 2) {
        std::string file;
        parser.cfg_to_file(file);
        set_response_cfg_file(answer, file);
        return 0;
    }
    if (n == 4 || n == 71 || n == 73 || n <= 0) {
        if (!take_post_body(request, result)) {
            answer.append(answer_too_large);
            return 0;
        }
        set_response_json(answer, json_ok);
        return missing_body_bytes(request, result);
    }
    set_response_json(answer, json_error);
    return 0;
}

int route_request(const HttpRequest& request, AnswerStream& answer, parsing_result& result) {
    // Snapshots the device thread took since the last request reach the disk
    // here, on this thread, before anything can ask for the history.
    history_flush();
    if (request.lines.empty()) {
        set_error(answer);
        return 0;
    }
    if (!request.refusal.empty()) {
        console_stamped("Request refused, " + request.refusal);
        answer.append(answer_forbidden);
        return 0;
    }
    if (request.elements.size() < 3) {
        set_error(answer);
        return 0;
    }
    const std::string& target = request.elements[1];
    if (request.elements[0] == "GET") {
        parse_get_query(target, answer);
        return 0;
    }
    if (request.elements[0] == "POST") return route_post(request, answer, result);
    set_error(answer);
    return 0;
}
