#pragma once
// Turns the result columns of one SQLite statement into Row or Row_baseline
// fields, by column name through a field map (column name to field
// position). Names are matched without regard to case, as SQL does (the view
// spells "version" as "Version"); when a name occurs twice (a join of two
// tables that both have "rowid"), the first column wins; unknown names and
// positions out of range are ignored.

#include <map>
#include <string>
#include <vector>

#include <sqlite3.h>

#include "vesk/datastore/records.h"

namespace vesk::datastore::sqlite_ext {

// Field position of every result column of `stmt`, -1 for columns not mapped.
std::vector<int> map_columns(sqlite3_stmt* stmt, const std::map<std::string, int>& fields,
                             int field_count);

// Fills `row` from the current result row of `stmt` through `columns`.
void read_row(sqlite3_stmt* stmt, const std::vector<int>& columns, Row& row);
void read_row(sqlite3_stmt* stmt, const std::vector<int>& columns, Row_baseline& row);

// Number of fields of each record (the range of valid positions).
constexpr int kRowFields = 15;
constexpr int kBaselineFields = 6;

}  // namespace vesk::datastore::sqlite_ext
