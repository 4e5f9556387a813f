#pragma once
// The columns of the provider table, once: name, Row member and kind, in
// the order of the table (and of row_field_index). Readers, writers and
// JSON codecs walk this table instead of spelling the columns out.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vesk/datastore/records.h"

namespace vesk::datastore {

// How a column is stored and which member pointer of RowField is set.
enum class FieldKind { int32, int64, real, text, node_list };

// One column of the provider table and the Row member that holds it.
struct RowField {
    const char* name;  // column name as the schema spells it
    FieldKind kind;
    int32_t Row::*int32 = nullptr;
    int64_t Row::*int64 = nullptr;
    double Row::*real = nullptr;
    std::string Row::*text = nullptr;
    std::vector<std::string> Row::*list = nullptr;
};

namespace row_fields_detail {
constexpr RowField i32(const char* n, int32_t Row::*m) {
    return {n, FieldKind::int32, m, nullptr, nullptr, nullptr, nullptr};
}
constexpr RowField i64(const char* n, int64_t Row::*m) {
    return {n, FieldKind::int64, nullptr, m, nullptr, nullptr, nullptr};
}
constexpr RowField dbl(const char* n, double Row::*m) {
    return {n, FieldKind::real, nullptr, nullptr, m, nullptr, nullptr};
}
constexpr RowField txt(const char* n, std::string Row::*m) {
    return {n, FieldKind::text, nullptr, nullptr, nullptr, m, nullptr};
}
constexpr RowField lst(const char* n, std::vector<std::string> Row::*m) {
    return {n, FieldKind::node_list, nullptr, nullptr, nullptr, nullptr, m};
}
}  // namespace row_fields_detail

// Every column; position i is field position i of row_field_index. Column 0
// (rowid) is assigned by the datastore and never written by an insert.
inline constexpr RowField kRowFields[] = {
    row_fields_detail::i32("rowid", &Row::rowid),
    row_fields_detail::txt("Provider", &Row::Provider),
    row_fields_detail::txt("Hostname", &Row::Hostname),
    row_fields_detail::i32("num_nodes", &Row::num_nodes),
    row_fields_detail::lst("node_names", &Row::node_names),
    row_fields_detail::i32("Exit_status", &Row::Exit_status),
    row_fields_detail::i64("Timestamp", &Row::Timestamp),
    row_fields_detail::dbl("Duration", &Row::Duration),
    row_fields_detail::i32("Encoding", &Row::Encoding),
    row_fields_detail::txt("STDOUT", &Row::STDOUT),
    row_fields_detail::txt("STDERR", &Row::STDERR),
    row_fields_detail::txt("OptionID", &Row::OptionID),
    row_fields_detail::i32("version", &Row::version),
    row_fields_detail::txt("Username", &Row::Username),
    row_fields_detail::i64("Unique_timestamp", &Row::Unique_timestamp),
};
inline constexpr size_t kRowFieldCount = sizeof(kRowFields) / sizeof(kRowFields[0]);

// The separator of the stored node list; names are split at ',' and
// stripped of blanks when read.
inline constexpr const char* kNodeListSeparator = ", ";

// Column names of kRowFields joined by ", ", from column `first` on
// ("Provider, Hostname, ..." for first = 1: the columns an insert writes).
inline std::string row_column_list(size_t first = 0) {
    std::string list;
    for (size_t i = first; i < kRowFieldCount; ++i) {
        if (!list.empty()) list += ", ";
        list += kRowFields[i].name;
    }
    return list;
}

}  // namespace vesk::datastore
