#include "jsonl.h"

#include <cstring>
#include <simdjson.h>
#include <vector>

#include "vesk/datastore/row_fields.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/str.h"

#include "output.h"
#include "validate.h"

namespace vesk::tool {

namespace {

namespace od = simdjson::ondemand;
using simdjson::error_code;

// The keys a line may hold: the table's columns in their order, then the
// snapshot name of a membership line.
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
    kUniqueTimestamp,
    kSnapshot,
    kColumnCount
};
static_assert(kSnapshot == int(vesk::datastore::kRowFieldCount), "columns out of step");

const char* column_name(int column) {
    return column == kSnapshot ? "Snapshot" : vesk::datastore::kRowFields[column].name;
}

int column_of(std::string_view key) {
    if (key.empty()) return -1;
    for (int i = 0; i < kColumnCount; ++i) {
        const char* name = column_name(i);
        if (name[0] == key[0] && key == name) return i;
    }
    return -1;
}

// The keys of a membership line, one bit per column.
constexpr unsigned kMemberKeys = (1u << kSnapshot) | (1u << kProvider) | (1u << kHostname) |
                                 (1u << kOptionId) | (1u << kUniqueTimestamp);

// True when `token` (a raw scalar, blanks after it allowed) is a number by
// the JSON grammar: it tells a malformed number from one of the wrong kind.
bool is_json_number(std::string_view token) {
    size_t i = 0;
    const size_t n = token.size();
    auto digit = [&](size_t at) { return at < n && token[at] >= '0' && token[at] <= '9'; };
    if (i < n && token[i] == '-') ++i;
    if (!digit(i)) return false;
    if (token[i] == '0') {
        ++i;
    } else {
        while (digit(i)) ++i;
    }
    if (i < n && token[i] == '.') {
        if (!digit(++i)) return false;
        while (digit(i)) ++i;
    }
    if (i < n && (token[i] == 'e' || token[i] == 'E')) {
        ++i;
        if (i < n && (token[i] == '+' || token[i] == '-')) ++i;
        if (!digit(i)) return false;
        while (digit(i)) ++i;
    }
    while (i < n && (token[i] == ' ' || token[i] == '\t' || token[i] == '\r' || token[i] == '\n'))
        ++i;
    return i == n;
}

// The raw scalar without the blanks that follow it.
std::string_view trimmed(std::string_view token) {
    while (!token.empty() && (token.back() == ' ' || token.back() == '\t' || token.back() == '\r' ||
                              token.back() == '\n'))
        token.remove_suffix(1);
    return token;
}

// One line's parse: fills `out` from the document, or says why not.
class LineParser {
public:
    LineParser(const char* text, JsonLine& out, std::string& error)
        : text_(text), out_(out), error_(error) {}

    // Walks the fields of `doc`; `seen` gets one bit per key read.
    bool fields(od::document& doc, unsigned& seen) {
        od::object object;
        error_code code = doc.get_object().get(object);
        if (code == simdjson::INCORRECT_TYPE) {
            not_an_object = true;
            return false;
        }
        if (code) return invalid(doc, code);
        for (auto field : object) {
            std::string_view key;
            if ((code = field.unescaped_key().get(key))) return invalid(doc, code);
            const int column = column_of(key);
            if (column < 0) return fail("unknown key \"" + std::string(key) + "\"");
            const unsigned bit = 1u << column;
            if (seen & bit) return fail(std::string(key) + ": the key appears twice");
            seen |= bit;
            od::value value;
            if ((code = field.value().get(value))) return invalid(doc, code);
            if (!read(doc, column, value)) return false;
        }
        // The object must end the line: the parser stops at its brace.
        const char* after = nullptr;
        if (!doc.current_location().get(after))
            return fail("invalid JSON at column " + std::to_string(after - text_ + 1) +
                        ": text after the object");
        return true;
    }

    // Set when the text is no JSON object: the caller finds out why.
    bool not_an_object = false;

private:
    bool fail(std::string message) {
        error_ = std::move(message);
        return false;
    }
    bool invalid(od::document& doc, error_code code) {
        std::string where;
        const char* at = nullptr;
        if (!doc.current_location().get(at) && at >= text_)
            where = " at column " + std::to_string(at - text_ + 1);
        return fail("invalid JSON" + where + ": " + simdjson::error_message(code));
    }
    bool wrong(int column, const char* expected) {
        return fail(std::string(column_name(column)) + ": must be " + expected);
    }

    // A number that did not read as `expected`: malformed JSON, or a well
    // formed number (or another value) of the wrong kind.
    bool bad_number(int column, std::string_view token, const char* expected) {
        token = trimmed(token);
        const char first = token.empty() ? '\0' : token[0];
        if ((first == '-' || (first >= '0' && first <= '9')) && !is_json_number(token)) {
            std::string where;
            if (token.data() >= text_)
                where = " at column " + std::to_string(token.data() - text_ + 1);
            return fail("invalid JSON" + where + ": malformed number " + std::string(token));
        }
        if (column == kDuration && is_json_number(token))
            return fail(std::string(column_name(column)) + ": must be a finite number, not " +
                        std::string(token));
        return wrong(column, expected);
    }

    bool text(od::document& doc, int column, od::value& value, std::string& into) {
        std::string_view s;
        const error_code code = value.get_string().get(s);
        if (code == simdjson::INCORRECT_TYPE) return wrong(column, "a string");
        if (code) return invalid(doc, code);
        into.assign(s.data(), s.size());
        return true;
    }
    bool integer(int column, od::value& value, int64_t& into) {
        const std::string_view token = value.raw_json_token();
        if (value.get_int64().get(into)) return bad_number(column, token, "an integer");
        return true;
    }
    bool int32(int column, od::value& value, int32_t& into) {
        int64_t wide = 0;
        if (!integer(column, value, wide)) return false;
        if (wide < INT32_MIN || wide > INT32_MAX) return wrong(column, "an integer");
        into = int32_t(wide);
        return true;
    }

    bool read(od::document& doc, int column, od::value& value) {
        auto& record = out_.record;
        auto& h = record.header;
        switch (column) {
            case kRowid: {
                bool null = false;
                if (!value.is_null().get(null) && null) return true;
                int64_t ignored = 0;
                return integer(column, value, ignored);
            }
            case kProvider:
                return text(doc, column, value, h.provider);
            case kHostname:
                return text(doc, column, value, h.hostname);
            case kNumNodes:
                return int32(column, value, h.num_nodes);
            case kNodeNames:
                return node_names(doc, value, h.node_names);
            case kExitStatus:
                return int32(column, value, h.exit_status);
            case kTimestamp:
                return integer(column, value, h.timestamp);
            case kDuration: {
                const std::string_view token = value.raw_json_token();
                if (value.get_double().get(h.duration))
                    return bad_number(column, token, "a number");
                return true;
            }
            case kEncoding:
                return encoding(doc, value);
            case kStdout:
                return text(doc, column, value, record.std_out);
            case kStderr:
                return text(doc, column, value, record.std_err);
            case kOptionId:
                return text(doc, column, value, record.option_id);
            case kVersion:
                return int32(column, value, h.version);
            case kUsername:
                return text(doc, column, value, h.username);
            case kUniqueTimestamp:
                return integer(column, value, h.unique_timestamp);
            case kSnapshot:
                return text(doc, column, value, out_.snapshot);
        }
        return false;
    }

    bool encoding(od::document& doc, od::value& value) {
        const char* expected = "0, 1, 2, \"none\", \"base64\" or \"raw\"";
        od::json_type type;
        if (error_code code = value.type().get(type)) return invalid(doc, code);
        int32_t encoding = -1;
        if (type == od::json_type::string) {
            std::string name;
            if (!text(doc, kEncoding, value, name)) return false;
            const auto found = vesk::datastore::encoding_map.find(name);
            if (found != vesk::datastore::encoding_map.end()) encoding = found->second;
        } else if (!int32(kEncoding, value, encoding)) {
            // A malformed number stays "invalid JSON"; any other value is
            // one of the wrong kind.
            if (error_.rfind("invalid JSON", 0) == 0) return false;
            return wrong(kEncoding, expected);
        }
        if (encoding < 0 || encoding > 2) return wrong(kEncoding, expected);
        out_.record.header.encoding = vesk::provider::encoding(encoding);
        return true;
    }

    // An array of strings, or text with the names joined by ",".
    bool node_names(od::document& doc, od::value& value, std::vector<std::string>& out) {
        const char* expected = "an array of strings";
        od::json_type type;
        if (error_code code = value.type().get(type)) return invalid(doc, code);
        if (type == od::json_type::string) {
            std::string joined;
            if (!text(doc, kNodeNames, value, joined)) return false;
            for (const auto& piece : vesk::str::split(joined, ',', true)) {
                std::string name = vesk::str::stripws(piece);
                if (!name.empty()) out.push_back(std::move(name));
            }
            return true;
        }
        od::array array;
        if (error_code code = value.get_array().get(array))
            return code == simdjson::INCORRECT_TYPE ? wrong(kNodeNames, expected)
                                                    : invalid(doc, code);
        for (auto item : array) {
            od::value element;
            if (error_code code = item.get(element)) return invalid(doc, code);
            std::string_view s;
            const error_code code = element.get_string().get(s);
            if (code == simdjson::INCORRECT_TYPE) return wrong(kNodeNames, expected);
            if (code) return invalid(doc, code);
            out.emplace_back(s);
        }
        return true;
    }

    const char* text_;
    JsonLine& out_;
    std::string& error_;
};

// Fills the defaults of a row and checks what the parse could not.
bool finish_row(unsigned seen, int64_t default_run, vesk::datastore::InsertRecord& record,
                std::string& error) {
    auto& h = record.header;
    if (h.provider.empty()) {
        error = "Provider: is missing or empty";
        return false;
    }
    if (h.hostname.empty()) {
        error = "Hostname: is missing or empty";
        return false;
    }
    if (h.provider.size() > size_t(vesk::datastore::max_provider_size)) {
        error = "Provider: is longer than " + std::to_string(vesk::datastore::max_provider_size) +
                " bytes";
        return false;
    }
    if (h.hostname.size() > size_t(vesk::datastore::max_hostname_size)) {
        error = "Hostname: is longer than " + std::to_string(vesk::datastore::max_hostname_size) +
                " bytes";
        return false;
    }
    if (!(seen & (1u << kUniqueTimestamp))) h.unique_timestamp = default_run;
    if (!(seen & (1u << kTimestamp))) h.timestamp = h.unique_timestamp / 1000000;
    if (!(seen & (1u << kNumNodes))) h.num_nodes = int32_t(h.node_names.size());
    return true;
}

// Checks a membership line: its five keys, each of the right kind.
bool finish_member(unsigned seen, JsonLine& out, std::string& error) {
    auto& h = out.record.header;
    auto name = [&](const char* key, const std::string& value, size_t max, const char* limit) {
        if (!error.empty()) return;
        const std::string problem = name_problem(value, max, limit);
        if (!problem.empty()) error = std::string(key) + ": " + problem;
    };
    for (const int column : {kSnapshot, kProvider, kHostname, kOptionId})
        if (!(seen & (1u << column))) {
            error = std::string(column_name(column)) + ": must be a string";
            return false;
        }
    name("Snapshot", out.snapshot, kMaxSnapshotNameSize, "the snapshot name limit");
    name("Provider", h.provider, size_t(vesk::datastore::max_provider_size), "max_provider_size");
    name("Hostname", h.hostname, size_t(vesk::datastore::max_hostname_size), "max_hostname_size");
    if (error.empty() && (!(seen & (1u << kUniqueTimestamp)) || h.unique_timestamp < 0))
        error = "Unique_timestamp: must be an integer, 0 or more";
    if (error.empty() && (seen & ~kMemberKeys))
        error =
            "a snapshot line holds Snapshot, Provider, Hostname, OptionID and "
            "Unique_timestamp only";
    return error.empty();
}

}  // namespace

struct JsonLineReader::State {
    od::parser parser;
    simdjson::dom::parser checker;  // only for the message of a non-object
    std::vector<char> buffer;       // the line, then the parser's padding
};

JsonLineReader::JsonLineReader() : state_(new State) {}
JsonLineReader::~JsonLineReader() = default;

bool JsonLineReader::parse(std::string_view line, int64_t default_run, JsonLine& out,
                           std::string& error) {
    out.member = false;
    out.record = vesk::datastore::InsertRecord{};
    out.snapshot.clear();
    error.clear();
    // A NUL byte is never part of a line of text; say where it is.
    if (const void* nul = std::memchr(line.data(), '\0', line.size())) {
        error =
            "NUL byte at column " + std::to_string(static_cast<const char*>(nul) - line.data() + 1);
        return false;
    }
    try {
        // The parser reads up to SIMDJSON_PADDING bytes past the text.
        auto& buffer = state_->buffer;
        if (buffer.size() < line.size() + simdjson::SIMDJSON_PADDING)
            buffer.resize(line.size() + simdjson::SIMDJSON_PADDING);
        std::memcpy(buffer.data(), line.data(), line.size());
        std::memset(buffer.data() + line.size(), ' ', simdjson::SIMDJSON_PADDING);

        od::document doc;
        if (const error_code code =
                state_->parser.iterate(buffer.data(), line.size(), buffer.size()).get(doc)) {
            error = std::string("invalid JSON: ") + simdjson::error_message(code);
            return false;
        }
        unsigned seen = 0;
        LineParser parser(buffer.data(), out, error);
        if (!parser.fields(doc, seen)) {
            if (parser.not_an_object) {
                // Not an object: is it JSON at all?
                const auto checked = state_->checker.parse(buffer.data(), line.size(), false);
                error = checked.error() ? std::string("invalid JSON: ") +
                                              simdjson::error_message(checked.error())
                                        : "expected a JSON object";
            }
            return false;
        }
        if (seen & (1u << kSnapshot)) {
            out.member = true;
            return finish_member(seen, out, error);
        }
        return finish_row(seen, default_run, out.record, error);
    } catch (const std::exception& e) {
        // Nothing of a line may end the process: this runs on a parser thread.
        error = std::string("cannot read the line: ") + e.what();
        return false;
    }
}

bool parse_row_line(const std::string& line, int64_t default_run,
                    vesk::datastore::InsertRecord& record, std::string& error) {
    JsonLineReader reader;
    JsonLine out;
    if (!reader.parse(line, default_run, out, error)) return false;
    if (out.member) {
        error = "unknown key \"Snapshot\"";
        return false;
    }
    record = std::move(out.record);
    return true;
}

namespace {

// `text` as a JSON string, as nlohmann-json writes it: quotes, backslashes
// and control bytes escaped, everything else as is. Text that is not UTF-8
// is left to nlohmann-json, which replaces the bad bytes.
void append_string(std::string& out, const std::string& text) {
    bool high = false;
    for (const char c : text) high |= static_cast<unsigned char>(c) >= 0x80;
    if (high && !simdjson::validate_utf8(text.data(), text.size())) {
        out += Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
        return;
    }
    static const char hex[] = "0123456789abcdef";
    out += '"';
    const char* run = text.data();
    const char* const end = run + text.size();
    for (const char* p = run; p != end; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(run, size_t(p - run));
        run = p + 1;
        out += '\\';
        switch (c) {
            case '"':
                out += '"';
                break;
            case '\\':
                out += '\\';
                break;
            case '\b':
                out += 'b';
                break;
            case '\f':
                out += 'f';
                break;
            case '\n':
                out += 'n';
                break;
            case '\r':
                out += 'r';
                break;
            case '\t':
                out += 't';
                break;
            default:
                out += "u00";
                out += hex[c >> 4];
                out += hex[c & 0xF];
        }
    }
    out.append(run, size_t(end - run));
    out += '"';
}

// Writes one object as nlohmann-json's dump(indent) writes it: on one line
// when `indent` is negative, otherwise a member a line, `indent` spaces a
// level, the object nested `depth` levels deep.
class ObjectWriter {
public:
    ObjectWriter(std::string& out, int indent, int depth)
        : out_(out), indent_(indent), depth_(depth) {}

    void key(const char* name) {  // plain ASCII: nothing to escape
        out_ += empty_ ? '{' : ',';
        empty_ = false;
        line(depth_ + 1);
        out_ += '"';
        out_ += name;
        out_ += indent_ < 0 ? "\":" : "\": ";
    }
    void texts(const std::vector<std::string>& list) {
        if (list.empty()) {
            out_ += "[]";
            return;
        }
        char open = '[';
        for (const auto& text : list) {
            out_ += open;
            open = ',';
            line(depth_ + 2);
            append_string(out_, text);
        }
        line(depth_ + 1);
        out_ += ']';
    }
    void close() {
        if (empty_) {
            out_ += "{}";
            return;
        }
        line(depth_);
        out_ += '}';
    }

private:
    void line(int level) {
        if (indent_ < 0) return;
        out_ += '\n';
        out_.append(size_t(indent_) * size_t(level), ' ');
    }

    std::string& out_;
    const int indent_;
    const int depth_;
    bool empty_ = true;
};

void write_row(ObjectWriter& object, std::string& out, const vesk::datastore::Row& row) {
    using vesk::datastore::FieldKind;
    for (const auto& field : vesk::datastore::kRowFields) {
        object.key(field.name);
        switch (field.kind) {
            case FieldKind::int32:
                out += std::to_string(row.*field.int32);
                break;
            case FieldKind::int64:
                out += std::to_string(row.*field.int64);
                break;
            case FieldKind::real:
                // nlohmann-json's shortest form that reads back exactly.
                out += Json(row.*field.real).dump();
                break;
            case FieldKind::text:
                append_string(out, row.*field.text);
                break;
            case FieldKind::node_list:
                object.texts(row.*field.list);
                break;
        }
    }
}

}  // namespace

std::string row_to_line(const vesk::datastore::Row& row) {
    std::string out;
    out.reserve(256 + row.STDOUT.size() + row.STDERR.size());
    ObjectWriter object(out, -1, 0);
    write_row(object, out, row);
    object.close();
    return out;
}

std::string row_to_pretty_json(const vesk::datastore::Row& row, const std::vector<JsonExtra>& extra,
                               int depth) {
    std::string out;
    out.reserve(512 + row.STDOUT.size() + row.STDERR.size());
    ObjectWriter object(out, 2, depth);
    write_row(object, out, row);
    for (const JsonExtra& member : extra) {
        object.key(member.name);
        if (member.text)
            append_string(out, *member.text);
        else
            out += member.flag ? "true" : "false";
    }
    object.close();
    return out;
}

}  // namespace vesk::tool
