#include "output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <iostream>
#include <ostream>
#include <streambuf>
#include <unistd.h>

#include "vesk/datastore/row_fields.h"

#include "codec.h"
#include "errors.h"

namespace vesk::tool {

namespace {

class FdBuffer : public std::streambuf {
public:
    FdBuffer() : buffer_(size_t(1) << 16) { setp(buffer_.data(), buffer_.data() + buffer_.size()); }
    int error() const { return error_; }

protected:
    int_type overflow(int_type c) override {
        if (!drain()) return traits_type::eof();
        if (!traits_type::eq_int_type(c, traits_type::eof())) {
            *pptr() = traits_type::to_char_type(c);
            pbump(1);
        }
        return traits_type::not_eof(c);
    }
    int sync() override { return drain() ? 0 : -1; }

private:
    bool drain() {
        const char* p = pbase();
        const char* const end = pptr();
        while (error_ == 0 && p < end) {
            const ssize_t n = ::write(STDOUT_FILENO, p, size_t(end - p));
            if (n > 0) {
                p += n;
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else {
                error_ = n < 0 ? errno : EIO;
            }
        }
        // What could not be written is dropped: the failure is reported.
        setp(buffer_.data(), buffer_.data() + buffer_.size());
        return error_ == 0;
    }

    std::vector<char> buffer_;
    int error_ = 0;
};

FdBuffer* g_stdout = nullptr;

}  // namespace

void install_checked_stdout() {
    // Never destroyed: the standard streams flush it at exit.
    g_stdout = new FdBuffer;
    std::cout.rdbuf(g_stdout);
}

void check_stdout(bool flush) {
    if (flush) std::cout.flush();
    int error = g_stdout != nullptr ? g_stdout->error() : 0;
    if (error == 0 && std::cout.fail()) error = EIO;
    // Reported once: later checks on the way out stay quiet.
    static bool reported = false;
    if (error != 0 && !reported) {
        reported = true;
        throw ToolError(kExitError, std::string("write error: ") + std::strerror(error));
    }
}

Style stdout_style() {
    Style style;
    const char* no_colour = std::getenv("NO_COLOR");
    style.on = ::isatty(STDOUT_FILENO) == 1 && (no_colour == nullptr || *no_colour == '\0');
    return style;
}

TableWidths::TableWidths(const Table& header) : columns_(header.columns) {
    for (const auto& column : columns_) width_.push_back(display_width(column));
}

void TableWidths::add(const std::vector<std::string>& cells) {
    for (size_t c = 0; c < cells.size() && c < width_.size(); ++c)
        width_[c] = std::max(width_[c], display_width(terminal_safe(cells[c], false)));
}

void TableWidths::print_header(std::ostream& out, const Style& style) const {
    emit(out, columns_, true, style, "");
}

void TableWidths::print_row(std::ostream& out, const std::vector<std::string>& cells,
                            const Style& style, const std::string& red_when_nonzero) const {
    emit(out, cells, false, style, red_when_nonzero);
}

void TableWidths::emit(std::ostream& out, const std::vector<std::string>& cells, bool header,
                       const Style& style, const std::string& red_when_nonzero) const {
    std::string line;
    for (size_t c = 0; c < width_.size(); ++c) {
        const std::string cell = c < cells.size() ? terminal_safe(cells[c], false) : "";
        const bool last = c + 1 == width_.size();
        const bool red =
            !header && !red_when_nonzero.empty() && columns_[c] == red_when_nonzero && cell != "0";
        if (header) line += style.bold();
        if (red) line += style.red();
        line += cell;
        if (header || red) line += style.reset();
        const size_t used = display_width(cell);
        if (!last) line += std::string(width_[c] > used ? width_[c] - used + 2 : 2, ' ');
    }
    out << line << "\n";
}

void print_table(std::ostream& out, const Table& table, const Style& style,
                 const std::string& red_when_nonzero) {
    TableWidths widths(table);
    for (const auto& row : table.rows) widths.add(row);
    widths.print_header(out, style);
    for (const auto& row : table.rows) widths.print_row(out, row, style, red_when_nonzero);
}

namespace {
std::string csv_cell(const std::string& cell) {
    if (cell.find_first_of(",\"\r\n") == std::string::npos) return cell;
    std::string quoted = "\"";
    for (char c : cell) {
        if (c == '"') quoted += '"';
        quoted += c;
    }
    return quoted + "\"";
}
}  // namespace

namespace {
void csv_line(std::ostream& out, const std::vector<std::string>& cells) {
    // CSV keeps every byte for scripts; on a terminal, captured output
    // (--show-output, --full) is escaped as a table escapes it, so that a
    // provider cannot steer the terminal.
    static const bool terminal = ::isatty(STDOUT_FILENO) == 1;
    for (size_t c = 0; c < cells.size(); ++c)
        out << (c ? "," : "") << csv_cell(terminal ? terminal_safe(cells[c], true) : cells[c]);
    out << "\r\n";
}
}  // namespace

void print_csv(std::ostream& out, const Table& table) {
    csv_line(out, table.columns);
    print_csv_rows(out, table);
}

void print_csv_rows(std::ostream& out, const Table& table) {
    for (const auto& row : table.rows) csv_line(out, row);
}

void print_json(std::ostream& out, const Json& value) {
    out << value.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
}

void print_result(Format format, const Json& json, const Table& table, const std::string& heading,
                  const std::string& red_when_nonzero) {
    switch (format) {
        case Format::json:
            print_json(std::cout, json);
            break;
        case Format::csv:
            print_csv(std::cout, table);
            break;
        case Format::table:
            std::cout << heading;
            print_table(std::cout, table, stdout_style(), red_when_nonzero);
            break;
    }
}

std::string terminal_safe(const std::string& text, bool keep_lines) {
    std::string out;
    out.reserve(text.size());
    auto escape = [&](unsigned char c) {
        char code[8];
        std::snprintf(code, sizeof code, "\\x%02x", c);
        out += code;
    };
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const size_t n = text.size();
    for (size_t i = 0; i < n;) {
        const unsigned char c = p[i];
        if (c < 0x80) {
            if ((c < 0x20 && !(keep_lines && (c == '\n' || c == '\t'))) || c == 0x7f)
                escape(c);
            else
                out += char(c);
            ++i;
            continue;
        }
        const size_t len = c >= 0xf0 ? 4 : c >= 0xe0 ? 3 : c >= 0xc0 ? 2 : 1;
        if (len == 1 || i + len > n || !is_valid_utf8(text.substr(i, len))) {
            escape(c);
            ++i;
            continue;
        }
        // U+0080 to U+009F: the C1 controls, which some terminals obey.
        if (c == 0xc2 && p[i + 1] < 0xa0) {
            escape(c);
            escape(p[i + 1]);
        } else {
            out.append(text, i, len);
        }
        i += len;
    }
    return out;
}

size_t display_width(const std::string& text) {
    size_t width = 0;
    std::mbstate_t state{};
    const char* p = text.data();
    const char* const end = p + text.size();
    while (p < end) {
        // A byte below 0x80 is one column in every locale: a printable
        // character, or a control byte counted as one.
        if (static_cast<unsigned char>(*p) < 0x80) {
            ++width;
            ++p;
            continue;
        }
        wchar_t wc = 0;
        const size_t len = std::mbrtowc(&wc, p, size_t(end - p), &state);
        if (len == size_t(-1) || len == size_t(-2) || len == 0) {
            state = std::mbstate_t{};
            ++width;
            ++p;
            continue;
        }
        const int w = ::wcwidth(wc);
        width += w < 0 ? 1 : size_t(w);
        p += len;
    }
    return width;
}

std::string format_time(int64_t seconds) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    if (::localtime_r(&t, &tm) == nullptr) return std::to_string(seconds);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
    return text;
}

std::string format_run(int64_t unique_timestamp) {
    if (unique_timestamp <= 0) return "-";
    return format_time(unique_timestamp / 1000000);
}

std::string format_seconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", seconds);
    return text;
}

Json row_to_json(const vesk::datastore::Row& row) {
    using vesk::datastore::FieldKind;
    Json j = Json::object();
    for (const auto& field : vesk::datastore::kRowFields) {
        switch (field.kind) {
            case FieldKind::int32:
                j[field.name] = row.*field.int32;
                break;
            case FieldKind::int64:
                j[field.name] = row.*field.int64;
                break;
            case FieldKind::real:
                j[field.name] = row.*field.real;
                break;
            case FieldKind::text:
                j[field.name] = row.*field.text;
                break;
            case FieldKind::node_list:
                j[field.name] = row.*field.list;
                break;
        }
    }
    return j;
}

}  // namespace vesk::tool
