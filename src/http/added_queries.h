// GET queries added beyond the original API, tried after all of its rules.
#pragma once

#include <string>

#include "http/http_answer.h"

// Answers `target` when it is one of the added queries; false, with nothing
// written, otherwise (the target is then an unknown query).
bool answer_added_query(const std::string& target, AnswerStream& answer);
