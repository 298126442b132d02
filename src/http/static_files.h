// Static files of the user interface, served from "js" and from nowhere else.
#pragma once

#include <string>

#include "http/http_answer.h"

// Writes a whole answer for a body: one of the set_response_* builders.
using BodyBuilder = void (*)(AnswerStream&, const std::string&);

// The builder of the first extension the target contains, in the fixed order
// .css .js .png .ico .svg; null when it contains none.
BodyBuilder static_builder(const std::string& target);

// Answers the file "js" + `target` with `build`. A file that cannot be read
// leaves the answer empty: the browser gets no bytes at all. False, with
// nothing written, when the target could name a file outside "js".
bool answer_static_file(const std::string& target, BodyBuilder build, AnswerStream& answer);

// True when the text, read as a path, has a ".." segment (plain or %-escaped).
bool has_parent_segment(const std::string& path);
