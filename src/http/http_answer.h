// HTTP answers: the builders of every answer head, the JSON result envelopes and the refusals.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

// The answer being built: head text and body bytes appended in order, taken
// whole when it is sent. A plain string underneath, so taking it copies nothing.
class AnswerStream {
public:
    void append(std::string_view bytes) { text_.append(bytes); }
    void reserve(size_t len) { text_.reserve(len); }
    const std::string& str() const { return text_; }
    // The whole answer, leaving the stream empty.
    std::string take() { return std::move(text_); }

private:
    std::string text_;
};

extern const char* const json_ok;
extern const char* const json_error;
extern const char* const json_continue;
extern const char* const err_con_port;

void set_response_html(AnswerStream& answer, const std::string& body);
void set_response_css(AnswerStream& answer, const std::string& body);
void set_response_png(AnswerStream& answer, const std::string& body);
void set_response_ico(AnswerStream& answer, const std::string& body);
void set_response_svg(AnswerStream& answer, const std::string& body);
void set_response_json(AnswerStream& answer, const std::string& body);
void set_response_cfg_file(AnswerStream& answer, const std::string& body);
void set_response_events_file(AnswerStream& answer, const std::string& body, const std::string& file_name);
void set_error(AnswerStream& answer);
void set_OK(AnswerStream& answer);
void set_error_and_descr(std::string& out, const char* descr);

// The bodiless refusals: a request of a client or site the engine does not
// serve, and a body declared over the size limit.
extern const char* const answer_forbidden;
extern const char* const answer_too_large;
