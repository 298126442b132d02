// HTTP answers: the builders of every answer head, the JSON result envelopes and the refusals.
#pragma once

#include <sstream>
#include <string>

extern const char* const json_ok;
extern const char* const json_error;
extern const char* const json_continue;
extern const char* const err_con_port;

void set_response_html(std::stringstream& answer, const std::string& body);
void set_response_css(std::stringstream& answer, const std::string& body);
void set_response_png(std::stringstream& answer, const std::string& body);
void set_response_ico(std::stringstream& answer, const std::string& body);
void set_response_svg(std::stringstream& answer, const std::string& body);
void set_response_json(std::stringstream& answer, const std::string& body);
void set_response_cfg_file(std::stringstream& answer, const std::string& body);
void set_response_events_file(std::stringstream& answer, const std::string& body,
                              const std::string& file_name);
void set_error(std::stringstream& answer);
void set_OK(std::stringstream& answer);
void set_error_and_descr(std::string& out, const char* descr);

// The bodiless refusals: a request of a client or site the engine does not
// serve, and a body declared over the size limit.
extern const char* const answer_forbidden;
extern const char* const answer_too_large;
