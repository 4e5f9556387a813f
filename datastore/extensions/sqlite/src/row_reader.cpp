// Column-to-field mapping of result rows.
#include "row_reader.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <strings.h>

namespace vesk::datastore::sqlite_ext {
namespace {

// Copies a text column straight into `out`: one copy from SQLite's buffer,
// byte-exact (embedded NULs and any byte value survive). NULL gives "".
void read_column(sqlite3_stmt* stmt, int column, std::string& out) {
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
void read_column(sqlite3_stmt* stmt, int column, std::vector<std::string>& out) {
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

// Numbers, as SQLite converts them.
void read_column(sqlite3_stmt* stmt, int column, int32_t& out) {
    out = sqlite3_column_int(stmt, column);
}
void read_column(sqlite3_stmt* stmt, int column, int64_t& out) {
    out = sqlite3_column_int64(stmt, column);
}
void read_column(sqlite3_stmt* stmt, int column, double& out) {
    out = sqlite3_column_double(stmt, column);
}

// The record type of a pointer to one of its fields.
template <typename>
struct MemberOf;
template <typename Record, typename Field>
struct MemberOf<Field Record::*> {
    using type = Record;
};

// Reads a column into the field `member` of a record.
template <auto member>
void read_member(sqlite3_stmt* stmt, int column, typename MemberOf<decltype(member)>::type& row) {
    read_column(stmt, column, row.*member);
}

template <typename Record>
using FieldReader = void (*)(sqlite3_stmt*, int, Record&);

// The readers of each record by field position (the fields' declared order).
constexpr FieldReader<Row> kRowReaders[] = {
    read_member<&Row::rowid>,           read_member<&Row::Provider>,
    read_member<&Row::Hostname>,        read_member<&Row::num_nodes>,
    read_member<&Row::node_names>,      read_member<&Row::Exit_status>,
    read_member<&Row::Timestamp>,       read_member<&Row::Duration>,
    read_member<&Row::Encoding>,        read_member<&Row::STDOUT>,
    read_member<&Row::STDERR>,          read_member<&Row::OptionID>,
    read_member<&Row::version>,         read_member<&Row::Username>,
    read_member<&Row::Unique_timestamp>};
constexpr FieldReader<Row_baseline> kBaselineReaders[] = {
    read_member<&Row_baseline::rowid>,
    read_member<&Row_baseline::baseline_id>,
    read_member<&Row_baseline::datastore_rowid>,
    read_member<&Row_baseline::fwd_name>,
    read_member<&Row_baseline::provider_checksum>,
    read_member<&Row_baseline::command_checksum>};
static_assert(std::size(kRowReaders) == kRowFields &&
              std::size(kBaselineReaders) == kBaselineFields);

// Fills the fields that `columns` maps, column by column.
template <typename Record, size_t N>
void read_fields(sqlite3_stmt* stmt, const std::vector<int>& columns, Record& row,
                 const FieldReader<Record> (&readers)[N]) {
    for (size_t i = 0; i < columns.size(); ++i)
        if (columns[i] >= 0 && static_cast<size_t>(columns[i]) < N)
            readers[columns[i]](stmt, static_cast<int>(i), row);
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
    read_fields(stmt, columns, row, kRowReaders);
}

void read_row(sqlite3_stmt* stmt, const std::vector<int>& columns, Row_baseline& row) {
    read_fields(stmt, columns, row, kBaselineReaders);
}

}  // namespace vesk::datastore::sqlite_ext
