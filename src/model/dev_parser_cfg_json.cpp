// The configuration as the browser's JSON: the whole list, a filtered part and
// the updates, each setting cut into subvalues by its key family; and edited
// settings taken back from the browser's JSON.
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "core/debug.h"
#include "core/engine.h"
#include "core/mutex_lock.h"
#include "core/utils.h"
#include "model/dev_parser.h"
#include "model/dev_parser_helpers.h"
#include "text/txt_to_utf8.h"

namespace {

constexpr std::string_view kListOpen = "{\"result\":{\"config\":[ ";
constexpr std::string_view kListClose = "]}}";
constexpr std::string_view kUpdateOpen = "{\"result\":[ ";
constexpr std::string_view kUpdateClose = "]}";

// ---- Windows-1251 to UTF-8 --------------------------------------------------------

// Replaces `out` with the UTF-8 form of a Windows-1251 text, as cp1251_to_utf8
// makes it: code points above U+07FF are dropped, and byte 0 or the undefined
// 0x98 (code point 0) ends the text.
void utf8_of_cp1251(const std::string& in, std::string& out) {
    out.resize(in.size() * 2);
    char* end = out.data();
    for (char c : in) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte - 1u < 0x7Fu) {  // ASCII other than NUL stays as it is
            *end++ = c;
            continue;
        }
        const uint16_t cp = cp2utf::utf[byte];
        if (cp == 0) break;
        if (cp > 0x7FF) continue;
        *end++ = static_cast<char>(0xC0 | (cp >> 6));
        *end++ = static_cast<char>(0x80 | (cp & 0x3F));
    }
    out.resize(static_cast<size_t>(end - out.data()));
}

// ---- Element writing ---------------------------------------------------------------

// Collects the pieces of one element and appends them to `out` in one go,
// which keeps a long list from paying the string's checks piece by piece.
class Sink {
public:
    explicit Sink(std::string& out) : out_(out) {}
    ~Sink() { flush(); }
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    void put(std::string_view text) {
        if (text.empty()) return;  // an empty view may carry no pointer at all
        if (used_ + text.size() > sizeof buffer_) {
            flush();
            if (text.size() > sizeof buffer_) {
                out_.append(text);
                return;
            }
        }
        std::memcpy(buffer_ + used_, text.data(), text.size());
        used_ += text.size();
    }
    void put(char c) {
        if (used_ == sizeof buffer_) flush();
        buffer_[used_++] = c;
    }

private:
    void flush() {
        out_.append(buffer_, used_);
        used_ = 0;
    }
    std::string& out_;
    char buffer_[512];
    size_t used_ = 0;
};

void open_element(Sink& out, const std::string& key) {
    out.put("{\"key\":\"");
    out.put(key);
    out.put("\",\"subvalues\":[");
}

void close_element(Sink& out) {
    out.put("]}");
}

// Opens subvalue `index`, preceded by "," unless it is the first.
void open_subvalue(Sink& out, size_t index) {
    out.put(index > 1 ? ",{\"value\":\"" : "{\"value\":\"");
}

void close_subvalue(Sink& out, size_t index) {
    out.put("\",\"index\":");
    if (index < 10) {
        out.put(static_cast<char>('0' + index));
        out.put('}');
        return;
    }
    char digits[24];
    auto end = std::to_chars(digits, digits + sizeof digits, index).ptr;
    out.put(std::string_view(digits, static_cast<size_t>(end - digits)));
    out.put('}');
}

// One subvalue {"value":"...","index":n}.
void append_subvalue(Sink& out, std::string_view value, size_t index) {
    open_subvalue(out, index);
    out.put(value);
    close_subvalue(out, index);
}

// The same with a backslash before every double quote and backslash; CR and
// LF are dropped when asked.
void append_escaped_subvalue(Sink& out, std::string_view value, size_t index, bool drop_line_ends) {
    open_subvalue(out, index);
    for (char c : value) {
        if (drop_line_ends && (c == '\r' || c == '\n')) continue;
        if (c == '"' || c == '\\') out.put('\\');
        out.put(c);
    }
    close_subvalue(out, index);
}

// A value that begins with a quoted name: the name (an escaped quote \" stays
// in it as it is) and the rest after the first `separator` behind the closing quote.
struct QuotedName {
    std::string_view name;
    std::string_view rest;
};

QuotedName quoted_name(std::string_view value, char separator) {
    QuotedName out;
    if (value.size() < 2 || value[0] != '"') return out;
    size_t end = 1;
    while (end < value.size() && !(value[end] == '"' && value[end - 1] != '\\')) ++end;
    out.name = value.substr(1, end - 1);
    if (end >= value.size()) return out;
    const size_t cut = value.find(separator, end + 1);
    if (cut != std::string_view::npos) out.rest = value.substr(cut + 1);
    return out;
}

// The pieces of `text` between `delim`s, cut as split() does: no piece after
// a trailing delimiter, none at all for an empty text.
void split_views(std::string_view text, char delim, std::vector<std::string_view>& out) {
    out.clear();
    size_t start = 0;
    while (start < text.size()) {
        const size_t found = text.find(delim, start);
        if (found == std::string_view::npos) {
            out.push_back(text.substr(start));
            break;
        }
        out.push_back(text.substr(start, found - start));
        start = found + 1;
    }
}

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

// The two-letter families a received key contains, found in one pass.
struct KeyFamilies {
    bool ua = false, rl = false, ss = false, sr = false, wa = false;
};

KeyFamilies families_of(const std::string& key) {
    KeyFamilies f;
    for (size_t i = 0; i + 1 < key.size(); ++i) {
        const char next = key[i + 1];
        switch (key[i]) {
            case 'u':
                f.ua |= next == 'a';
                break;
            case 'r':
                f.rl |= next == 'l';
                break;
            case 's':
                f.ss |= next == 's';
                f.sr |= next == 'r';
                break;
            case 'w':
                f.wa |= next == 'a';
                break;
            default:
                break;
        }
    }
    return f;
}

// The key's third character is a digit: "zn1", not "rla" or "ua".
bool is_indexed(const std::string& key) {
    return key.size() > 2 && key[2] >= '0' && key[2] <= '9';
}

// ---- JSON in -----------------------------------------------------------------------

constexpr std::string_view kConfigMark = "{\"config\":[";
constexpr std::string_view kKeyMark = "\"key\":\"";
constexpr std::string_view kKeyEnd = "\",\"subvalues\":";
constexpr std::string_view kSubvaluesMark = "\"subvalues\":[";
constexpr std::string_view kValueMark = "\"value\":\"";
constexpr std::string_view kIndexMark = "\",\"index\":";

enum class Parsed { ok, malformed, wrong_index };

// Key and subvalues of one element in the browser's list.
Parsed parse_element(const std::string& element, std::string& key, std::vector<std::string>& subvalues) {
    const size_t key_at = element.find(kKeyMark);
    if (key_at == std::string::npos) return Parsed::malformed;
    const size_t key_start = key_at + kKeyMark.size();
    const size_t key_end = element.find(kKeyEnd, key_start);
    const size_t list_at = element.find(kSubvaluesMark);
    const size_t list_end = element.rfind(']');
    if (key_end == std::string::npos || list_at == std::string::npos || list_end == std::string::npos ||
        list_end < list_at + kSubvaluesMark.size())
        return Parsed::malformed;
    key = element.substr(key_start, key_end - key_start);

    std::vector<std::string> groups;
    const size_t list_start = list_at + kSubvaluesMark.size();
    split_curly_brackets(element.substr(list_start, list_end - list_start), groups);
    subvalues.clear();
    for (const std::string& group : groups) {
        const size_t value_at = group.find(kValueMark);
        const size_t index_at = group.rfind(kIndexMark);
        if (value_at == std::string::npos || index_at == std::string::npos ||
            index_at < value_at + kValueMark.size())
            return Parsed::malformed;
        const long index = strtol(group.c_str() + index_at + kIndexMark.size(), nullptr, 10);
        if (index != static_cast<long>(subvalues.size()) + 1) return Parsed::wrong_index;
        const size_t value_start = value_at + kValueMark.size();
        subvalues.push_back(group.substr(value_start, index_at - value_start));
    }
    return Parsed::ok;
}

std::string joined(const std::vector<std::string>& parts, size_t from = 0) {
    std::string out;
    for (size_t i = from; i < parts.size(); ++i) {
        if (i > from) out += '.';
        out += parts[i];
    }
    return out;
}

// The mark in front of a `ua` code for its kind ("1" and unknown kinds: none).
const char* ua_mark(const std::string& kind) {
    static const char* const marks[][2] = {{"2", "!"}, {"3", "*"}, {"4", "#"}, {"5", "@"}, {"6", "?"}};
    for (const auto& mark : marks)
        if (kind == mark[0]) return mark[1];
    return "";
}

// The value text for the subvalues, by key family (the inverse of the writers).
// A `wa` setting comes back joined with full stops, not in its quoted,
// comma-separated panel form; that asymmetry is intended.
std::string join_by_family(const std::string& key, std::vector<std::string>& s) {
    switch (s.size()) {
        case 1:
            if ((contains(key, "sr") && is_indexed(key)) || key == "ws" || key == "wk")
                return json_unescape(s[0]);
            return s[0];
        case 2:
            if (contains(key, "ss") && is_indexed(key)) return "\"" + s[0] + "\"." + s[1];
            return s[0] + "." + s[1];
        case 3:
            if (contains(key, "ua")) return ua_mark(s[0]) + s[1] + "." + s[2];
            return joined(s);
        default:
            return joined(s);
    }
}

std::string cp1251_of_utf8(const std::string& text) {
    std::unique_ptr<char, decltype(&free)> converted(utf8_to_cp1251(text.c_str()), &free);
    return converted ? std::string(converted.get()) : std::string();
}

}  // namespace

// ---- The lists -------------------------------------------------------------------------

void DevParser::cfg_to_json(std::string& out) {
    out = kListOpen;
    {
        MutexLock lock(http_mutex);
        bool first = true;
        for (const auto& entry : cfg) {
            if (!first) out += ',';
            first = false;
            key_to_js(out, entry.second);
        }
    }
    out += kListClose;
}

void DevParser::mask_to_json(std::string& mask, std::string& out) {
    out = kListOpen;
    {
        MutexLock lock(http_mutex);
        bool first = true;
        for (const auto& entry : cfg) {
            if (entry.second.first.find(mask) == std::string::npos) continue;
            if (!first) out += ',';
            first = false;
            key_to_js(out, entry.second);
        }
    }
    out += kListClose;
}

void DevParser::update_cfg_to_json(std::string& out) {
    out = kUpdateOpen;
    MutexLock lock(http_mutex);
    bool first = true;
    for (const std::string& key : cfg_keys) {
        if (!first) out += ',';
        first = false;
        // A key whose setting has gone since (a file replaced the map) shows
        // as an empty element, and leaves an empty entry behind.
        const std::pair<std::string, std::string> entry = cfg[sort_fit(key)];
        key_to_js(out, entry);
    }
    out += kUpdateClose;
    cfg_keys.clear();
    status_dev.update = "false";
}

// ---- One setting -------------------------------------------------------------------------

unsigned DevParser::key_to_js(std::string& out, const std::pair<std::string, std::string>& entry) {
    // One conversion buffer per thread keeps a long list from allocating per setting.
    thread_local std::string value;
    utf8_of_cp1251(entry.second, value);
    const std::string& key = entry.first;
    const std::string_view name = key;
    const KeyFamilies has = families_of(key);
    const bool indexed = is_indexed(key);

    if (has.ua && indexed) {
        set_ua_json_key(out, key, value);
        return 1;
    }
    if (has.rl) {
        if (indexed) {
            set_rl_json_key(out, key, value);
            return 1;
        }
    } else if (has.ss && indexed) {
        set_ss_json_key(out, key, value);
        return 1;
    }
    if (!has.ss && has.sr && indexed)
        set_str_json_key(out, key, value);
    else if (name == "ws" || name == "wk" || name == "vorlane")
        set_str_json_key(out, key, value);
    else if (has.wa && indexed)
        set_wa_json_key(out, key, value);
    else if (name == "hs")
        set_hs_json_key(out, key, value);
    else
        set_json_key(out, key, value);
    return 1;
}

// Every piece between full stops is a subvalue; a value without one is one subvalue.
void DevParser::set_json_key(std::string& out, const std::string& key, const std::string& value) {
    Sink sink(out);
    open_element(sink, key);
    std::string_view rest = value;
    size_t index = 1;
    for (size_t dot; (dot = rest.find('.')) != std::string_view::npos; rest.remove_prefix(dot + 1))
        append_subvalue(sink, rest.substr(0, dot), index++);
    append_subvalue(sink, rest, index);
    close_element(sink);
}

// Free text: one subvalue, line ends dropped, quotes and backslashes escaped.
void DevParser::set_str_json_key(std::string& out, const std::string& key, const std::string& value) {
    Sink sink(out);
    open_element(sink, key);
    append_escaped_subvalue(sink, value, 1, true);
    close_element(sink);
}

void DevParser::set_hs_json_key(std::string& out, const std::string& key, const std::string& value) {
    Sink sink(out);
    open_element(sink, key);
    append_subvalue(sink, value, 1);
    close_element(sink);
}

// Two subvalues: before the first full stop, and everything after it.
void DevParser::set_rl_json_key(std::string& out, const std::string& key, const std::string& value) {
    Sink sink(out);
    open_element(sink, key);
    const std::string_view text = value;
    const size_t dot = text.find('.');
    append_subvalue(sink, text.substr(0, dot), 1);
    append_subvalue(sink, dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1), 2);
    close_element(sink);
}

// "\"name\".rest": the name and the rest.
void DevParser::set_ss_json_key(std::string& out, const std::string& key, const std::string& value) {
    const QuotedName parts = quoted_name(value, '.');
    Sink sink(out);
    open_element(sink, key);
    append_subvalue(sink, parts.name, 1);
    append_subvalue(sink, parts.rest, 2);
    close_element(sink);
}

// "\"name\",a,b": the name (escaped) and the first two fields after it.
void DevParser::set_wa_json_key(std::string& out, const std::string& key, const std::string& value) {
    const QuotedName parts = quoted_name(value, ',');
    thread_local std::vector<std::string_view> fields;
    split_views(parts.rest, ',', fields);
    const bool both = fields.size() >= 2;
    Sink sink(out);
    open_element(sink, key);
    append_escaped_subvalue(sink, parts.name, 1, false);
    append_subvalue(sink, both ? fields[0] : std::string_view(), 2);
    append_subvalue(sink, both ? fields[1] : std::string_view(), 3);
    close_element(sink);
}

// "code.rest" becomes kind, code, rest: a mark in front of the code gives the kind.
void DevParser::set_ua_json_key(std::string& out, const std::string& key, const std::string& value) {
    thread_local std::vector<std::string_view> pieces;
    split_views(value, '.', pieces);
    Sink sink(out);
    open_element(sink, key);
    if (pieces.size() < 2) {
        append_subvalue(sink, pieces.empty() ? std::string_view(value) : pieces[0], 1);
        append_subvalue(sink, "", 2);
        append_subvalue(sink, "", 3);
    } else if (pieces.size() == 2) {
        static const char marks[] = "!*#@?";
        std::string_view code = pieces[0];
        char kind = '1';
        const char* mark = code.empty() ? nullptr : std::strchr(marks, code[0]);
        if (mark != nullptr && *mark != '\0') {
            kind = static_cast<char>('2' + (mark - marks));
            code.remove_prefix(1);
        }
        append_subvalue(sink, std::string_view(&kind, 1), 1);
        append_subvalue(sink, code, 2);
        append_subvalue(sink, pieces[1], 3);
    } else {
        for (size_t i = 0; i < pieces.size(); ++i) append_subvalue(sink, pieces[i], i + 1);
    }
    close_element(sink);
}

// ---- JSON in -------------------------------------------------------------------------------

void DevParser::json_to_cfg(std::string& json) {
    MutexLock lock(http_mutex);
    const size_t at = json.rfind(kConfigMark);
    if (at == std::string::npos) return;
    std::vector<std::string> elements;
    split_curly_brackets(json.substr(at + kConfigMark.size()), elements);

    std::string key;
    std::vector<std::string> subvalues;
    for (const std::string& element : elements) {
        const Parsed parsed = parse_element(element, key, subvalues);
        if (parsed == Parsed::wrong_index) console_stamped("json to cfg: wrong index");
        if (parsed != Parsed::ok) return;
        if (subvalues.empty()) continue;

        const std::string value = cp1251_of_utf8(join_by_family(key, subvalues));
        // The panel reads key, "-", value as one line of a text frame: a setting
        // that would break the line or the frame is refused, not sent mangled.
        if (breaks_text_line(key) || breaks_text_line(value) || key.find('-') != std::string::npos) {
            console_stamped("json to cfg: refused " + printable(key) +
                            ": text that cannot be sent to the panel");
            continue;
        }
        if (!put_setting(key, value)) {
            console_stamped("json to cfg: refused " + printable(key) + ": the configuration is full");
            continue;
        }
        cfg_send[key] = value;
    }
}
