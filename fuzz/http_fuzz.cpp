// Fuzz target: one HTTP request through the parser, the guard and the GET and
// POST dispatch, then the upload processed as the server processes it.
//
// The first bytes (up to one read of the server's buffer) are the request as
// the first read returns it; the rest of the input is what arrives afterwards.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "fuzz_support.h"
#include "http/http_parser.h"
#include "http/http_server.h"
#include "http/post_api.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FreshEngine fresh;
    const size_t first = std::min(size, sizeof readBuffer);
    // A copy of exactly the bytes read, so that reading past them is caught.
    std::vector<char> request(data, data + first);
    parsing_result result;
    AnswerStream answer;
    int missing = parse(request.data(), static_cast<int>(first), answer, result);
    if (result.query.empty()) return 0;
    // The rest of a body arrives after the first read; the server processes
    // an upload only when it came whole.
    std::vector<char> rest(data + first, data + size);
    if (missing > 0 && !rest.empty()) {
        size_t taken = std::min(rest.size(), static_cast<size_t>(missing));
        fill_content(result, rest.data(), static_cast<int>(taken), 0);
    }
    if (result.content.size() != static_cast<size_t>(result.content_length)) return 0;
    parse_post_query(result);
    return 0;
}
