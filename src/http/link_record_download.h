// The "linkrecord" query: the link record as a file download.
#pragma once

#include <string>

#include "http/http_answer.h"

// Answers "/tuning/device?id=-1&linkrecord" with the record, named
// link-YYYYMMDD-HHMMSS.txt after the request's time (UTC); false, with nothing
// written, for any other target.
bool answer_link_record(const std::string& target, AnswerStream& answer);
