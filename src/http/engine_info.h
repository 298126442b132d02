// The engineinfo query: the engine's version and whether the cipher and the history can be used.
#pragma once

#include <string>

#include "http/http_answer.h"

// Answers the whole target "/tuning/device?id=-1&engineinfo" with
// {"result":{"version":"5.2.22","cipher":"1","history":"1"}}: cipher "0" when
// no usable cipher file was loaded at start, history "0" when the history's
// start-up check or a later write failed. False, with nothing written, for any
// other target.
bool answer_engine_info(const std::string& target, AnswerStream& answer);
