// The history queries: the snapshot list, a snapshot as JSON or as a file, its differences written.
#pragma once

#include <string>

#include "http/http_answer.h"

// Answers "history", "historyconfig=<name>", "historyfile=<name>" and
// "historywrite=<name>" after the API prefix; false, with nothing written, for
// any other target.
bool answer_history_query(const std::string& target, AnswerStream& answer);
