// The GET API: the rule table that answers every GET target, and its JSON queries.
#pragma once

#include <string>

#include "http/http_answer.h"

// Answers one GET request target (path and query, not decoded).
void parse_get_query(const std::string& target, AnswerStream& answer);
