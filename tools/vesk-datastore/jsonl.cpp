#include "jsonl.h"

#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include <nlohmann/json.hpp>

#include "vesk/datastore/row_fields.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/str.h"

#include "codec.h"
#include "jsonl_paths.h"
#include "output.h"

namespace vesk::tool {

namespace {

using nlohmann::json;

// The value as a 64-bit integer, or false for any other JSON type.
bool get_integer(const json& value, int64_t& out) {
    if (value.is_number_integer()) {
        out = value.get<int64_t>();
        return true;
    }
    if (value.is_number_unsigned() && value.get<uint64_t>() <= uint64_t(INT64_MAX)) {
        out = int64_t(value.get<uint64_t>());
        return true;
    }
    return false;
}

bool get_int32(const json& value, int32_t& out) {
    int64_t wide = 0;
    if (!get_integer(value, wide) || wide < INT32_MIN || wide > INT32_MAX) return false;
    out = int32_t(wide);
    return true;
}

// Which optional keys a line carried.
struct Seen {
    bool run = false;
    bool start = false;
    bool nodes = false;
};

// The fast path for the common line: one flat object whose keys are the
// known columns, each once, with values of the expected types. It makes no
// JSON value tree. Anything else (including every error) makes parse()
// return false, and the general path parses the line again and says why.
class FastParser {
public:
    FastParser(const std::string& line, vesk::datastore::InsertRecord& record, Seen& seen)
        : p_(line.data()), end_(line.data() + line.size()), record_(record), seen_(seen) {}

    bool parse() {
        record_ = vesk::datastore::InsertRecord{};
        seen_ = Seen{};
        unsigned done = 0;  // one bit per column, for duplicate keys
        skip_ws();
        if (!take('{')) return false;
        skip_ws();
        if (take('}')) return at_end();
        std::string key;
        for (;;) {
            skip_ws();
            if (!string(key)) return false;
            skip_ws();
            if (!take(':')) return false;
            skip_ws();
            const int column = column_of(key);
            if (column < 0 || (done & (1u << column))) return false;
            done |= 1u << column;
            if (!value(column)) return false;
            skip_ws();
            if (take(',')) continue;
            if (take('}')) return at_end();
            return false;
        }
    }

private:
    enum Column {
        kRowid,
        kProvider,
        kHostname,
        kNumNodes,
        kNodeNames,
        kExitStatus,
        kTimestamp,
        kDuration,
        kEncoding,
        kStdout,
        kStderr,
        kOptionId,
        kVersion,
        kUsername,
        kUniqueTimestamp
    };

    static int column_of(const std::string& key) {
        const std::string_view k(key);
        for (size_t i = 0; i < vesk::datastore::kRowFieldCount; ++i) {
            const std::string_view name(vesk::datastore::kRowFields[i].name);
            if (name.size() == k.size() && name[0] == k[0] && name == k) return static_cast<int>(i);
        }
        return -1;
    }

    bool value(int column) {
        auto& h = record_.header;
        switch (column) {
            case kRowid: {
                if (literal("null")) return true;
                int64_t ignored;
                return integer(ignored);
            }
            case kProvider:
                return string(h.provider);
            case kHostname:
                return string(h.hostname);
            case kNumNodes:
                seen_.nodes = true;
                return int32(h.num_nodes);
            case kNodeNames:
                return node_names(h.node_names);
            case kExitStatus:
                return int32(h.exit_status);
            case kTimestamp:
                seen_.start = true;
                return integer(h.timestamp);
            case kDuration:
                return number(h.duration);
            case kEncoding: {
                int32_t encoding = -1;
                if (!int32(encoding) || encoding < 0 || encoding > 2) return false;
                h.encoding = vesk::provider::encoding(encoding);
                return true;
            }
            case kStdout:
                return string(record_.std_out);
            case kStderr:
                return string(record_.std_err);
            case kOptionId:
                return string(record_.option_id);
            case kVersion:
                return int32(h.version);
            case kUsername:
                return string(h.username);
            case kUniqueTimestamp:
                seen_.run = true;
                return integer(h.unique_timestamp);
        }
        return false;
    }

    bool at_end() {
        skip_ws();
        return p_ == end_;
    }
    void skip_ws() {
        while (p_ < end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\r' || *p_ == '\n')) ++p_;
    }
    bool take(char c) {
        if (p_ < end_ && *p_ == c) {
            ++p_;
            return true;
        }
        return false;
    }
    bool literal(const char* word) {
        const size_t n = std::strlen(word);
        if (size_t(end_ - p_) < n || std::memcmp(p_, word, n) != 0) return false;
        p_ += n;
        return true;
    }

    // A JSON string, unescaped; only well-formed UTF-8 passes.
    bool string(std::string& out) {
        out.clear();
        if (!take('"')) return false;
        const char* run = p_;
        unsigned char high = 0;  // any byte above ASCII needs a UTF-8 check
        for (;;) {
            // Copy plain runs in one go.
            while (p_ < end_ && *p_ != '"' && *p_ != '\\' &&
                   static_cast<unsigned char>(*p_) >= 0x20) {
                high |= static_cast<unsigned char>(*p_);
                ++p_;
            }
            out.append(run, size_t(p_ - run));
            if (p_ == end_ || static_cast<unsigned char>(*p_) < 0x20) return false;
            if (*p_ == '"') {
                ++p_;
                return (high & 0x80) == 0 || is_valid_utf8(out);
            }
            ++p_;  // backslash
            if (p_ == end_) return false;
            const char e = *p_++;
            switch (e) {
                case '"':
                    out += '"';
                    break;
                case '\\':
                    out += '\\';
                    break;
                case '/':
                    out += '/';
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'u': {
                    uint32_t cp = 0;
                    if (!hex4(cp)) return false;
                    if (cp >= 0xD800 && cp <= 0xDBFF) {
                        uint32_t low = 0;
                        if (!literal("\\u") || !hex4(low) || low < 0xDC00 || low > 0xDFFF)
                            return false;
                        cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                    } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
                        return false;
                    }
                    append_utf8(out, cp);
                    if (cp >= 0x80) high |= 0x80;
                    break;
                }
                default:
                    return false;
            }
            run = p_;
        }
    }
    bool hex4(uint32_t& cp) {
        if (end_ - p_ < 4) return false;
        cp = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = *p_++;
            cp <<= 4;
            if (c >= '0' && c <= '9')
                cp |= uint32_t(c - '0');
            else if (c >= 'a' && c <= 'f')
                cp |= uint32_t(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                cp |= uint32_t(c - 'A' + 10);
            else
                return false;
        }
        return true;
    }
    static void append_utf8(std::string& out, uint32_t cp) {
        if (cp < 0x80) {
            out += char(cp);
        } else if (cp < 0x800) {
            out += char(0xC0 | (cp >> 6));
            out += char(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += char(0xE0 | (cp >> 12));
            out += char(0x80 | ((cp >> 6) & 0x3F));
            out += char(0x80 | (cp & 0x3F));
        } else {
            out += char(0xF0 | (cp >> 18));
            out += char(0x80 | ((cp >> 12) & 0x3F));
            out += char(0x80 | ((cp >> 6) & 0x3F));
            out += char(0x80 | (cp & 0x3F));
        }
    }

    // A JSON integer (no fraction, no exponent) that fits 64 bits.
    bool integer(int64_t& out) {
        const bool negative = take('-');
        if (p_ == end_ || *p_ < '0' || *p_ > '9') return false;
        if (*p_ == '0' && p_ + 1 < end_ && p_[1] >= '0' && p_[1] <= '9') return false;
        uint64_t value = 0;
        while (p_ < end_ && *p_ >= '0' && *p_ <= '9') {
            const uint64_t digit = uint64_t(*p_++ - '0');
            if (value > (uint64_t(INT64_MAX) - digit) / 10) return false;
            value = value * 10 + digit;
        }
        if (p_ < end_ && (*p_ == '.' || *p_ == 'e' || *p_ == 'E')) return false;
        out = negative ? -int64_t(value) : int64_t(value);
        return true;
    }
    bool int32(int32_t& out) {
        int64_t wide = 0;
        if (!integer(wide) || wide < INT32_MIN || wide > INT32_MAX) return false;
        out = int32_t(wide);
        return true;
    }
    // Any JSON number, checked against the grammar before strtod reads it.
    bool number(double& out) {
        const char* start = p_;
        take('-');
        if (p_ == end_ || *p_ < '0' || *p_ > '9') return false;
        if (*p_ == '0') {
            ++p_;
        } else {
            while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
        }
        bool integral = true;
        if (take('.')) {
            integral = false;
            if (p_ == end_ || *p_ < '0' || *p_ > '9') return false;
            while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
        }
        if (p_ < end_ && (*p_ == 'e' || *p_ == 'E')) {
            integral = false;
            ++p_;
            if (p_ < end_ && (*p_ == '+' || *p_ == '-')) ++p_;
            if (p_ == end_ || *p_ < '0' || *p_ > '9') return false;
            while (p_ < end_ && *p_ >= '0' && *p_ <= '9') ++p_;
        }
        const std::string text(start, size_t(p_ - start));
        out = std::strtod(text.c_str(), nullptr);
        // The general path reads "-0" as the integer 0, so as +0.0.
        if (integral && out == 0) out = 0.0;
        return std::isfinite(out);
    }
    // An array of strings; text joined by "," takes the general path.
    bool node_names(std::vector<std::string>& out) {
        if (!take('[')) return false;
        skip_ws();
        if (take(']')) return true;
        std::string name;
        for (;;) {
            skip_ws();
            if (!string(name)) return false;
            out.push_back(name);
            skip_ws();
            if (take(',')) continue;
            return take(']');
        }
    }

    const char* p_;
    const char* end_;
    vesk::datastore::InsertRecord& record_;
    Seen& seen_;
};

// The general path: any JSON, with precise messages for what is wrong.
bool parse_with_dom(const std::string& line, vesk::datastore::InsertRecord& record, Seen& seen,
                    std::string& error) {
    // The JSON reader takes a NUL byte for the end of the text, so a line
    // with one would be read only up to it.
    if (const auto nul = line.find('\0'); nul != std::string::npos) {
        error = "NUL byte at column " + std::to_string(nul + 1);
        return false;
    }
    json object = json::parse(line, nullptr, false);
    if (object.is_discarded()) {
        // Parse again to learn where and why: the error path only. Every
        // exception of the reader is caught here (a number out of range is
        // not a parse_error), as this runs on the parser threads.
        try {
            const json again = json::parse(line);
            (void)again;
        } catch (const json::exception& e) {
            error = e.what();
            if (error.rfind("[json.exception.", 0) == 0) {
                const auto close = error.find("] ");
                if (close != std::string::npos) error = error.substr(close + 2);
            }
            // The text is one line: "at line 1, column 5" says only the column.
            const std::string where = "parse error at line 1, ";
            if (error.rfind(where, 0) == 0) error = "invalid JSON at " + error.substr(where.size());
            return false;
        } catch (const std::exception& e) {
            error = std::string("invalid JSON: ") + e.what();
            return false;
        }
        error = "not valid JSON";
        return false;
    }
    if (!object.is_object()) {
        error = "expected a JSON object";
        return false;
    }

    record = vesk::datastore::InsertRecord{};
    seen = Seen{};
    auto& h = record.header;
    for (auto& item : object.items()) {
        // (Not a structured binding: clang cannot capture one in the lambda.)
        const std::string& key = item.key();
        json& value = item.value();
        auto wrong = [&](const char* expected) {
            error = "\"" + key + "\" must be " + expected;
            return false;
        };
        if (key == "rowid") {
            int64_t ignored = 0;
            if (!value.is_null() && !get_integer(value, ignored)) return wrong("an integer");
        } else if (key == "Provider") {
            if (!value.is_string()) return wrong("a string");
            h.provider = std::move(value.get_ref<std::string&>());
        } else if (key == "Hostname") {
            if (!value.is_string()) return wrong("a string");
            h.hostname = std::move(value.get_ref<std::string&>());
        } else if (key == "num_nodes") {
            if (!get_int32(value, h.num_nodes)) return wrong("an integer");
            seen.nodes = true;
        } else if (key == "node_names") {
            if (value.is_string()) {
                for (const auto& piece : vesk::str::split(value.get<std::string>(), ',', true)) {
                    const std::string name = vesk::str::stripws(piece);
                    if (!name.empty()) h.node_names.push_back(name);
                }
            } else if (value.is_array()) {
                for (auto& item : value) {
                    if (!item.is_string()) return wrong("an array of strings");
                    h.node_names.push_back(std::move(item.get_ref<std::string&>()));
                }
            } else {
                return wrong("an array of strings");
            }
        } else if (key == "Exit_status") {
            if (!get_int32(value, h.exit_status)) return wrong("an integer");
        } else if (key == "Timestamp") {
            if (!get_integer(value, h.timestamp)) return wrong("an integer");
            seen.start = true;
        } else if (key == "Duration") {
            if (!value.is_number()) return wrong("a number");
            h.duration = value.get<double>();
        } else if (key == "Encoding") {
            int32_t encoding = -1;
            if (value.is_string()) {
                const auto found = vesk::datastore::encoding_map.find(value.get<std::string>());
                if (found != vesk::datastore::encoding_map.end()) encoding = found->second;
            } else {
                (void)get_int32(value, encoding);
            }
            if (encoding < 0 || encoding > 2)
                return wrong("0, 1, 2, \"none\", \"base64\" or \"raw\"");
            h.encoding = vesk::provider::encoding(encoding);
        } else if (key == "STDOUT") {
            if (!value.is_string()) return wrong("a string");
            record.std_out = std::move(value.get_ref<std::string&>());
        } else if (key == "STDERR") {
            if (!value.is_string()) return wrong("a string");
            record.std_err = std::move(value.get_ref<std::string&>());
        } else if (key == "OptionID") {
            if (!value.is_string()) return wrong("a string");
            record.option_id = std::move(value.get_ref<std::string&>());
        } else if (key == "version") {
            if (!get_int32(value, h.version)) return wrong("an integer");
        } else if (key == "Username") {
            if (!value.is_string()) return wrong("a string");
            h.username = std::move(value.get_ref<std::string&>());
        } else if (key == "Unique_timestamp") {
            if (!get_integer(value, h.unique_timestamp)) return wrong("an integer");
            seen.run = true;
        } else {
            error = "unknown key \"" + key + "\"";
            return false;
        }
    }
    return true;
}

}  // namespace

bool parse_row_line(const std::string& line, int64_t default_run,
                    vesk::datastore::InsertRecord& record, std::string& error) {
    return detail::parse_row_line_by(detail::JsonPath::automatic, line, default_run, record, error);
}

namespace detail {

bool parse_row_line_by(JsonPath path, const std::string& line, int64_t default_run,
                       vesk::datastore::InsertRecord& record, std::string& error) {
    Seen seen;
    bool parsed = false;
    try {
        if (path != JsonPath::validating_only) parsed = FastParser(line, record, seen).parse();
        if (!parsed && path == JsonPath::fast_only) {
            error = "not taken by the fast path";
            return false;
        }
        if (!parsed && !parse_with_dom(line, record, seen, error)) return false;
    } catch (const std::exception& e) {
        // Nothing of a line may end the process: this runs on a parser thread.
        error = std::string("cannot read the line: ") + e.what();
        return false;
    }
    auto& h = record.header;
    if (h.provider.empty()) {
        error = "\"Provider\" is missing or empty";
        return false;
    }
    if (h.hostname.empty()) {
        error = "\"Hostname\" is missing or empty";
        return false;
    }
    if (h.provider.size() > size_t(vesk::datastore::max_provider_size)) {
        error = "\"Provider\" is longer than " +
                std::to_string(vesk::datastore::max_provider_size) + " bytes";
        return false;
    }
    if (h.hostname.size() > size_t(vesk::datastore::max_hostname_size)) {
        error = "\"Hostname\" is longer than " +
                std::to_string(vesk::datastore::max_hostname_size) + " bytes";
        return false;
    }
    if (!seen.run) h.unique_timestamp = default_run;
    if (!seen.start) h.timestamp = h.unique_timestamp / 1000000;
    if (!seen.nodes) h.num_nodes = int32_t(h.node_names.size());
    return true;
}

}  // namespace detail

std::string row_to_line(const vesk::datastore::Row& row) {
    return row_to_json(row).dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace vesk::tool
