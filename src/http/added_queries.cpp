// GET queries added beyond the original API, tried after all of its rules.
//
// Each added query lives in a unit of its own and is reached from here only,
// so the original rule table keeps its order and a target one of its rules
// takes keeps its answer.
#include "http/added_queries.h"

#include "http/engine_info.h"
#include "http/history_queries.h"
#include "http/link_record_download.h"

bool answer_added_query(const std::string& target, AnswerStream& answer) {
    return answer_history_query(target, answer) || answer_link_record(target, answer) ||
           answer_engine_info(target, answer);
}
