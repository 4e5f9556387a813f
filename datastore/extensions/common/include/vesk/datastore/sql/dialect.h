#pragma once
// The SQL texts in which databases differ, with defaults that SQLite and
// most servers accept. A backend overrides only what its server reads
// differently; the kit builds every other statement itself.

#include <string>
#include <vector>

namespace vesk::datastore::sql {

class Dialect {
public:
    virtual ~Dialect() = default;

    // The create statements, one per element: provider table, baseline
    // table, view, then the indexes the queries use. Each is idempotent.
    virtual std::vector<std::string> create_statements() const;
    // The names of the objects create_statements() makes, in its order; an
    // open that finds them all runs no create statement.
    virtual std::vector<std::string> schema_object_names() const;
    // The latest row per (OptionID, Hostname, Provider). `condition` is the
    // WHERE condition built from the provider and host lists.
    virtual std::string latest_rows_sql(const std::string& condition) const;
    // The rows of the newest collection run, one per (OptionID, Hostname, Provider).
    virtual std::string latest_run_sql(const std::string& condition) const;
    // The latest "uname" row per host (operation 512).
    virtual std::string hosts_sql() const;
    // The placeholder of bind parameter `index` (1-based): "?" by default.
    virtual std::string placeholder(int index) const;
    // A bulk insert that binds each column of insert_sql() once, as a
    // PostgreSQL array literal of that column's values ({"text",1,0.5}), or
    // "" (the default): bulk inserts then send multi-row INSERT ... VALUES.
    virtual std::string array_insert_sql() const;

    // The insert of one provider row: every column but rowid, in the order
    // of kRowFields, with placeholder(1) to placeholder(14).
    std::string insert_sql() const;
};

// The default dialect (the texts SQLite runs).
const Dialect& default_dialect();

}  // namespace vesk::datastore::sql
