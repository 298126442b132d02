// The history queries: the snapshot list, a snapshot as JSON or as a file, its differences written.
#pragma once

#include <sstream>
#include <string>

// Answers "history", "historyconfig=<name>", "historyfile=<name>" and
// "historywrite=<name>" after the API prefix; false, with nothing written, for
// any other target.
bool answer_history_query(const std::string& target, std::stringstream& answer);
