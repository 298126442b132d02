// Static files of the user interface, served from "js" and from nowhere else.
#include "http/static_files.h"

#include "core/utils.h"
#include "http/file_cache.h"
#include "http/http_answer.h"
#include "text/txt_to_utf8.h"

static const std::string static_root = "js";

static bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

// Undoes "%XX" escapes so that an encoded dot or slash cannot hide a ".." segment.
static std::string percent_decoded(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            int high = hex_value(text[i + 1]);
            int low = hex_value(text[i + 2]);
            if (high >= 0 && low >= 0) {
                out += static_cast<char>(high * 16 + low);
                i += 2;
                continue;
            }
        }
        out += text[i];
    }
    return out;
}

bool has_parent_segment(const std::string& path) {
    std::string decoded = percent_decoded(path);
    size_t start = 0;
    while (start <= decoded.size()) {
        size_t end = decoded.find_first_of("/\\", start);
        if (end == std::string::npos) end = decoded.size();
        if (decoded.compare(start, end - start, "..") == 0) return true;
        start = end + 1;
    }
    return false;
}

// The engine runs as root: a static target may only name a file below "js".
// A target without the leading "/" would escape by concatenation ("js" + "on/x").
static bool is_safe_static_target(const std::string& target) {
    return !target.empty() && target[0] == '/' && !has_parent_segment(target);
}

BodyBuilder static_builder(const std::string& target) {
    static const struct {
        const char* extension;
        BodyBuilder build;
    } by_extension[] = {
        {".css", set_response_css}, {".js", set_response_json}, {".png", set_response_png},
        {".ico", set_response_ico}, {".svg", set_response_svg},
    };
    for (const auto& entry : by_extension) {
        if (contains(target, entry.extension)) return entry.build;
    }
    return nullptr;
}

bool answer_static_file(const std::string& target, BodyBuilder build, AnswerStream& answer) {
    if (!is_safe_static_target(target)) return false;
    std::string scratch;
    const std::string* body = read_static_file(static_root + target, scratch);
    if (body != nullptr) build(answer, *body);
    return true;
}
