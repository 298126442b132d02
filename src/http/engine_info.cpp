// The engineinfo query: the engine's version and whether the cipher and the history can be used.
#include "http/engine_info.h"

#include "core/engine.h"
#include "crypto/CryptoKey.h"
#include "http/http_answer.h"
#include "model/history.h"

namespace {

const char* flag(bool on) {
    return on ? "1" : "0";
}

}  // namespace

bool answer_engine_info(const std::string& target, AnswerStream& answer) {
    if (target != "/tuning/device?id=-1&engineinfo") return false;
    set_response_json(answer, std::string(R"({"result":{"version":")") + engine_version + R"(","cipher":")" +
                                  flag(cipher_ready()) + R"(","history":")" + flag(history_usable()) + "\"}}");
    return true;
}
