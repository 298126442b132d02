// Tests of the answer builders and the JSON result envelopes.
#include "http/http_answer.h"

#include <gtest/gtest.h>

#include "support/engine_harness.h"

using namespace harness;

TEST(AnswerBuilders, WriteExactBytesAndEnvelopes) {
    const std::string body("ab\0c", 4);
    // The static files' heads are shown by the GET API's tests, the downloads of logs and events
    // and the envelopes by the whole program's.
    const std::string attachment =
        "Content-Type: text/plain; charset=UTF-8\r\nContent-disposition: attachment; "
        "filename=config.ini\r\nContent-transfer-encoding: text\r\n";
    using Builder = void (*)(AnswerStream&, const std::string&);
    const std::pair<Builder, std::string> cases[] = {
        {set_response_cfg_file, answer_200(attachment, body)},
        {[](AnswerStream& s, const std::string&) { set_error(s); }, not_found_answer},
        {[](AnswerStream& s, const std::string&) { set_OK(s); },
         "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n"},
    };
    for (const auto& [build, expected] : cases) {
        AnswerStream answer;
        build(answer, body);
        EXPECT_EQ(answer.str(), expected);
    }
    std::string out = "previous text";
    set_error_and_descr(out, "a\"b");  // inserted as it is, without escaping
    EXPECT_EQ(out, "{\"result\":\"error\",\"description\":\"a\"b\"}");
}
