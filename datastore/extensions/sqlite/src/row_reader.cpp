// Column-to-field mapping of result rows.
#include "row_reader.h"

#include <algorithm>
#include <cctype>
#include <strings.h>

namespace vesk::datastore::sqlite_ext {
namespace {

// Copies a text column straight into `out`: one copy from SQLite's buffer,
// byte-exact (embedded NULs and any byte value survive). NULL gives "".
void read_text(sqlite3_stmt* stmt, int column, std::string& out) {
    // sqlite3_column_text before sqlite3_column_bytes: the documented order
    // that keeps the pointer valid.
    const unsigned char* text = sqlite3_column_text(stmt, column);
    const int size = sqlite3_column_bytes(stmt, column);
    if (text == nullptr)
        out.clear();
    else
        out.assign(reinterpret_cast<const char*>(text), static_cast<size_t>(size));
}

// The stored node list is joined by ", "; split at "," and strip blanks,
// straight from SQLite's buffer.
void read_node_names(sqlite3_stmt* stmt, int column, std::vector<std::string>& out) {
    out.clear();
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    if (text == nullptr) return;
    const char* const end = text + sqlite3_column_bytes(stmt, column);
    auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    for (const char* piece = text; piece <= end;) {
        const char* stop = std::find(piece, end, ',');
        const char* first = piece;
        const char* last = stop;
        while (first < last && blank(*first)) ++first;
        while (last > first && blank(last[-1])) --last;
        if (first < last) out.emplace_back(first, static_cast<size_t>(last - first));
        piece = stop + 1;
    }
}

}  // namespace

std::vector<int> map_columns(sqlite3_stmt* stmt, const std::map<std::string, int>& fields,
                             int field_count) {
    const int count = sqlite3_column_count(stmt);
    std::vector<int> columns(static_cast<size_t>(count), -1);
    std::vector<bool> taken(static_cast<size_t>(field_count), false);
    for (int i = 0; i < count; ++i) {
        const char* name = sqlite3_column_name(stmt, i);
        if (name == nullptr) continue;
        for (const auto& [key, position] : fields) {
            if (strcasecmp(key.c_str(), name) != 0) continue;
            if (position >= 0 && position < field_count && !taken[position]) {
                columns[i] = position;
                taken[position] = true;
            }
            break;
        }
    }
    return columns;
}

void read_row(sqlite3_stmt* stmt, const std::vector<int>& columns, Row& row) {
    for (size_t i = 0; i < columns.size(); ++i) {
        const int c = static_cast<int>(i);
        switch (columns[i]) {
            case 0:
                row.rowid = sqlite3_column_int(stmt, c);
                break;
            case 1:
                read_text(stmt, c, row.Provider);
                break;
            case 2:
                read_text(stmt, c, row.Hostname);
                break;
            case 3:
                row.num_nodes = sqlite3_column_int(stmt, c);
                break;
            case 4:
                read_node_names(stmt, c, row.node_names);
                break;
            case 5:
                row.Exit_status = sqlite3_column_int(stmt, c);
                break;
            case 6:
                row.Timestamp = sqlite3_column_int64(stmt, c);
                break;
            case 7:
                row.Duration = sqlite3_column_double(stmt, c);
                break;
            case 8:
                row.Encoding = sqlite3_column_int(stmt, c);
                break;
            case 9:
                read_text(stmt, c, row.STDOUT);
                break;
            case 10:
                read_text(stmt, c, row.STDERR);
                break;
            case 11:
                read_text(stmt, c, row.OptionID);
                break;
            case 12:
                row.version = sqlite3_column_int(stmt, c);
                break;
            case 13:
                read_text(stmt, c, row.Username);
                break;
            case 14:
                row.Unique_timestamp = sqlite3_column_int64(stmt, c);
                break;
            default:
                break;
        }
    }
}

void read_row(sqlite3_stmt* stmt, const std::vector<int>& columns, Row_baseline& row) {
    for (size_t i = 0; i < columns.size(); ++i) {
        const int c = static_cast<int>(i);
        switch (columns[i]) {
            case 0:
                row.rowid = sqlite3_column_int(stmt, c);
                break;
            case 1:
                read_text(stmt, c, row.baseline_id);
                break;
            case 2:
                row.datastore_rowid = sqlite3_column_int(stmt, c);
                break;
            case 3:
                read_text(stmt, c, row.fwd_name);
                break;
            case 4:
                read_text(stmt, c, row.provider_checksum);
                break;
            case 5:
                read_text(stmt, c, row.command_checksum);
                break;
            default:
                break;
        }
    }
}

}  // namespace vesk::datastore::sqlite_ext
