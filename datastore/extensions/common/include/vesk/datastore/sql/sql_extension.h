#pragma once
// SqlExtension: the backend-neutral part of an SQL datastore extension.
//
// It implements the operations of interface once, over the statement seam
// (statement.h) and a dialect (dialect.h): names are checked before any SQL
// is built, rows are checked against the size limits, inserts and bulk
// inserts (OP_BULK_INSERT) run in one transaction, snapshots are recorded,
// listed and removed, and select results are mapped into Row and
// Row_baseline by column name, without regard to case. A caller's vector is
// left as it was on every failure. A backend derives from it and provides
// the connection, open and close, and the hooks below. Messages go to the
// error log, each starting with where().

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "vesk/datastore/interface.h"
#include "vesk/datastore/records.h"
#include "vesk/datastore/sql/dialect.h"
#include "vesk/datastore/sql/statement.h"

namespace vesk::datastore::sql {

class SqlExtension : public interface {
public:
    // `dialect` must outlive the instance.
    explicit SqlExtension(const Dialect& dialect);
    ~SqlExtension() override;

    // Answers OP_BULK_INSERT, and the codes of interface.
    int32_t control(uint16_t op, const void* in, void* out, void* extra) override;

    bool insert(const vesk::provider::header& header, const std::string& option_id,
                const std::string& std_out, const std::string& std_err) override;
    // All rows or none, each checked like a single insert.
    bool bulk_insert(const std::vector<InsertRecord>& records);
    // An empty field map stands for the standard one of the record.
    bool select(std::string sql, std::vector<Row>& rows,
                const std::map<std::string, int>& fields) override;
    bool select_from_baseline(std::string sql, std::vector<Row_baseline>& rows,
                              const std::map<std::string, int>& fields) override;
    bool update_snapshot(const std::map<std::string, ProviderInfoSet>& snapshots) override;
    bool remove_snapshot(const std::string& baseline_id) override;
    bool query_baseline_ids(SnapshotInfoSet& ids) override;
    bool select_provider(std::vector<std::string> providers, std::vector<Row>& rows,
                         std::string filter) override;
    bool get_latest_rows_provider(std::vector<std::string> providers, std::vector<Row>& rows,
                                  std::vector<std::string> hosts) override;
    bool get_latest_collect_rows(std::vector<std::string> providers, std::vector<Row>& rows,
                                 std::vector<std::string> hosts) override;
    bool get_snapshot_provider(std::string baseline_id,
                               std::map<std::string, std::vector<Row>>& rows_by_provider,
                               std::map<std::string, std::vector<Row_baseline>>& baselines,
                               std::vector<std::string> providers,
                               std::vector<std::string> hosts) override;

protected:
    // What one unit of work came to: refused means the kit itself said no
    // (already logged), and is never retried.
    enum class Outcome { ok, failed, refused };

    // The open connection, null while closed.
    virtual Connection* connection() = 0;
    // True when the datastore was opened read-only.
    virtual bool read_only() const = 0;
    // The start of every message, naming the backend and the instance.
    virtual std::string where() const = 0;
    // Runs `work` against the connection, again while its failure is
    // transient (a busy server or file) if the backend waits for that.
    virtual Outcome attempt(const std::function<Outcome()>& work) { return work(); }
    // A failure of the connection, in words, for a message.
    virtual std::string describe(const Error& error) const;
    // Why a row of about `bytes` cannot be stored by this backend ("" if it can).
    virtual std::string row_size_problem(size_t bytes) const;
    // Why a text of this row cannot be stored by this backend ("" if every
    // one can), naming the field.
    virtual std::string row_text_problem(const vesk::provider::header& header,
                                         const std::string& option_id, const std::string& std_out,
                                         const std::string& std_err) const;
    // Why `text`, field `field` of a snapshot entry, cannot be stored by
    // this backend ("" if it can).
    virtual std::string snapshot_text_problem(const char* field, const std::string& text) const;
    // Rows per INSERT statement of a bulk insert: 1 runs the prepared
    // single-row insert once per row, more sends multi-row INSERT ... VALUES.
    virtual size_t rows_per_insert() const { return 1; }
    // Called before each write once the datastore is known open and
    // writable: a backend that leaves its connection read-only after reads
    // makes it writable here. False (logged by the backend) refuses the write.
    virtual bool prepare_write() { return true; }
    // Prepares a caller's select; null (and logged) when the backend must not
    // run it. end_query() is called after it, whatever happens.
    virtual std::unique_ptr<Statement> prepare_query(const std::string& sql) = 0;
    // True while the select being run is a text the kit built itself from
    // checked names, which only reads: a backend may spare it the guard it
    // keeps against a caller's statement that writes.
    bool own_text() const { return own_text_; }
    // Called once the query runs, and when it is over: end_query answers
    // true when the backend's time limit stopped it.
    virtual void start_query() {}
    virtual bool end_query() { return false; }
    // Why a stopped query was stopped, for its message.
    virtual std::string time_limit_text() const { return "statement stopped at its time limit"; }

    // Drops the kit's prepared statements; call before closing the connection.
    void release_statements();

    const Dialect& dialect_;
    // The largest answer select may return, counted as the memory of its records.
    long long max_result_bytes_ = 4LL << 30;

private:
    bool writable(const char* what);
    bool names_safe(const std::vector<std::string>& names, const char* what);
    std::string check_row(const vesk::provider::header& header, const std::string& option_id,
                          const std::string& std_out, const std::string& std_err);
    bool write_row(const vesk::provider::header& header, const std::string& option_id,
                   const std::string& std_out, const std::string& std_err);
    bool bind_row(Statement& stmt, int first, const vesk::provider::header& header,
                  const std::string& option_id, const std::string& std_out,
                  const std::string& std_err, std::string& nodes);
    bool write_rows(const std::vector<InsertRecord>& records);
    bool write_row_arrays(const std::vector<InsertRecord>& records, size_t at, size_t count,
                          std::array<std::string, 14>& columns);
    std::string write_failure();
    Outcome transaction(const std::function<Outcome()>& body);
    std::unique_ptr<Statement> prepare(const std::string& sql);
    bool run_latest(bool newest_run, const std::vector<std::string>& providers,
                    std::vector<Row>& rows, const std::vector<std::string>& hosts);
    // select() of a text the kit built itself (own_text() while it runs).
    template <typename Select>
    bool as_own_text(Select&& select);
    template <typename Record>
    bool run_select(const std::string& sql, std::vector<Record>& out,
                    const std::map<std::string, int>& fields, int field_count);

    std::unique_ptr<Statement> insert_;
    std::unique_ptr<Statement> insert_rows_;    // rows_per_insert() rows
    std::unique_ptr<Statement> insert_arrays_;  // the dialect's array_insert_sql()
    std::string node_text_;                     // joined node list of the row being written
    bool own_text_ = false;                     // see own_text()
};

}  // namespace vesk::datastore::sql
