// The default texts of the dialect: the schema and queries SQLite runs.
#include "vesk/datastore/sql/dialect.h"

#include "vesk/datastore/row_fields.h"
#include "vesk/datastore/vocabulary.h"

namespace vesk::datastore::sql {

std::vector<std::string> Dialect::create_statements() const {
    // The indexes serve the queries: the latest row per provider and host,
    // the newest collection run, a provider's rows and a snapshot's rows.
    // The failed rows have one of their own, in the order of the first: a
    // query that says "Exit_status <> 0" seeks them instead of reading every
    // row of a provider; it holds only the failed rows, so an insert of a
    // row that did not fail never touches it.
    return {default_create_table_query,
            default_create_baseline_query,
            default_create_view_query,
            "CREATE INDEX IF NOT EXISTS provider_datastore_latest ON " + table_name +
                "(Provider, Hostname, OptionID, Unique_timestamp);",
            "CREATE INDEX IF NOT EXISTS provider_datastore_failed ON " + table_name +
                "(Provider, Hostname, OptionID, Unique_timestamp) WHERE Exit_status <> 0;",
            "CREATE INDEX IF NOT EXISTS provider_datastore_run ON " + table_name +
                "(Unique_timestamp, Provider);",
            "CREATE INDEX IF NOT EXISTS baseline_datastore_id ON " + table_baseline +
                "(baseline_id, datastore_rowid);"};
}

std::vector<std::string> Dialect::schema_object_names() const {
    return {table_name,
            table_baseline,
            table_view,
            "provider_datastore_latest",
            "provider_datastore_failed",
            "provider_datastore_run",
            "baseline_datastore_id"};
}

std::string Dialect::latest_rows_sql(const std::string& condition) const {
    // The same rows as "SELECT *, MAX(unique_timestamp) ... GROUP BY OptionID,
    // Hostname, Provider", found in two steps. That text reads the index on
    // (Provider, Hostname, OptionID, Unique_timestamp) in ascending order, so
    // every row of a group is a new maximum and SQLite reads each one from
    // the table for its other columns. Here the grouping reads the index
    // alone: its bare rowid is, as there, the first row in index order with
    // the greatest time stamp (ties go to the lowest rowid; a group without
    // any time stamp gives its last row). Only those rows are then read from
    // the table, in group order (CROSS JOIN keeps the groups outside).
    return "SELECT v.*, k.m AS \"MAX(unique_timestamp)\" FROM (SELECT rowid AS r, "
           "MAX(unique_timestamp) AS m FROM " +
           table_view + " WHERE" + condition + "GROUP BY OptionID, Hostname, Provider) AS k " +
           "CROSS JOIN " + table_view + " AS v ON v.rowid = k.r;";
}

std::string Dialect::latest_run_sql(const std::string& condition) const {
    return "SELECT * FROM " + table_view + " WHERE" + condition +
           "AND Unique_timestamp = (SELECT MAX(unique_timestamp) FROM " + table_view +
           ") GROUP BY OptionID, Hostname, Provider;";
}

std::string Dialect::hosts_sql() const {
    return "SELECT *, MAX(Unique_timestamp) FROM " + table_view +
           " WHERE Provider = 'uname' GROUP BY Hostname;";
}

std::string Dialect::placeholder(int /*index*/) const { return "?"; }

std::string Dialect::array_insert_sql() const { return ""; }

std::string Dialect::insert_sql() const {
    std::string values;
    for (size_t i = 1; i < kRowFieldCount; ++i) {
        if (i > 1) values += ", ";
        values += placeholder(static_cast<int>(i));
    }
    return "INSERT INTO " + table_name + "(" + row_column_list(1) + ") VALUES(" + values + ");";
}

const Dialect& default_dialect() {
    static const Dialect dialect;
    return dialect;
}

}  // namespace vesk::datastore::sql
