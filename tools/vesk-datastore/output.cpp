#include "output.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <ostream>
#include <unistd.h>

namespace vesk::tool {

Style stdout_style() {
    Style style;
    const char* no_colour = std::getenv("NO_COLOR");
    style.on = ::isatty(STDOUT_FILENO) == 1 && (no_colour == nullptr || *no_colour == '\0');
    return style;
}

void print_table(std::ostream& out, const Table& table, const Style& style,
                 const std::string& red_when_nonzero) {
    std::vector<size_t> width(table.columns.size(), 0);
    for (size_t c = 0; c < table.columns.size(); ++c) width[c] = table.columns[c].size();
    for (const auto& row : table.rows)
        for (size_t c = 0; c < row.size() && c < width.size(); ++c)
            width[c] = std::max(width[c], row[c].size());

    auto emit = [&](const std::vector<std::string>& cells, bool header) {
        std::string line;
        for (size_t c = 0; c < width.size(); ++c) {
            const std::string cell = c < cells.size() ? cells[c] : "";
            const bool last = c + 1 == width.size();
            const bool red = !header && !red_when_nonzero.empty() &&
                             table.columns[c] == red_when_nonzero && cell != "0";
            if (header) line += style.bold();
            if (red) line += style.red();
            line += cell;
            if (header || red) line += style.reset();
            if (!last) line += std::string(width[c] - cell.size() + 2, ' ');
        }
        out << line << "\n";
    };
    emit(table.columns, true);
    for (const auto& row : table.rows) emit(row, false);
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

void print_csv(std::ostream& out, const Table& table) {
    auto emit = [&](const std::vector<std::string>& cells) {
        for (size_t c = 0; c < cells.size(); ++c) out << (c ? "," : "") << csv_cell(cells[c]);
        out << "\r\n";
    };
    emit(table.columns);
    for (const auto& row : table.rows) emit(row);
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
    Json j = Json::object();
    j["rowid"] = row.rowid;
    j["Provider"] = row.Provider;
    j["Hostname"] = row.Hostname;
    j["num_nodes"] = row.num_nodes;
    j["node_names"] = row.node_names;
    j["Exit_status"] = row.Exit_status;
    j["Timestamp"] = row.Timestamp;
    j["Duration"] = row.Duration;
    j["Encoding"] = row.Encoding;
    j["STDOUT"] = row.STDOUT;
    j["STDERR"] = row.STDERR;
    j["OptionID"] = row.OptionID;
    j["version"] = row.version;
    j["Username"] = row.Username;
    j["Unique_timestamp"] = row.Unique_timestamp;
    return j;
}

}  // namespace vesk::tool
