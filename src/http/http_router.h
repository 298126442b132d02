// Routing a parsed request to its handler: the refusals, the GET API, the POST commands.
#pragma once

#include "http/http_parser.h"

// Writes the answer to `request`; returns the body bytes still expected (see parse).
int route_request(const HttpRequest& request, AnswerStream& answer, parsing_result& result);
