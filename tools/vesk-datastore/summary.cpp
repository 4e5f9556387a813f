#include "summary.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "vesk/datastore/vocabulary.h"

#include "errors.h"
#include "session.h"

namespace vesk::tool {

namespace {

// Rows folded in per transaction: about a fifth of a second of the write
// lock on a 2-core machine.
constexpr int64_t kFoldRows = 100000;
// How long a fold waits for the write lock, as the extension's writers do.
constexpr int kBusyTimeoutMs = 5000;
// Builds started again because covered rows kept changing, before the
// caller is told to read the rows instead.
constexpr int kMaxRebuilds = 3;

const std::string& table() { return vesk::datastore::table_name; }

// The summary's tables and the triggers that keep its mark honest: a
// deleted or changed row, or a row inserted with a number at or below the
// mark, removes it. Rows of a text provider only count per host and
// provider (as the provider list shows them); every row counts per run.
std::vector<std::string> schema() {
    const std::string mark = "(SELECT folded FROM vesk_summary_mark)";
    return {
        "CREATE TABLE IF NOT EXISTS vesk_summary_host_provider(Hostname TEXT NOT NULL, Provider "
        "TEXT NOT NULL, row_count INTEGER NOT NULL, latest_run INTEGER, PRIMARY KEY(Hostname, "
        "Provider)) WITHOUT ROWID",
        "CREATE TABLE IF NOT EXISTS vesk_summary_run(Unique_timestamp INTEGER NOT NULL, Hostname "
        "TEXT NOT NULL, row_count INTEGER NOT NULL, failed_count INTEGER NOT NULL, first_start "
        "INTEGER, PRIMARY KEY(Unique_timestamp, Hostname)) WITHOUT ROWID",
        "CREATE TABLE IF NOT EXISTS vesk_summary_mark(folded INTEGER NOT NULL)",
        "CREATE TRIGGER IF NOT EXISTS vesk_summary_insert AFTER INSERT ON " + table() +
            " WHEN new.rowid <= " + mark + " BEGIN DELETE FROM vesk_summary_mark; END",
        "CREATE TRIGGER IF NOT EXISTS vesk_summary_delete AFTER DELETE ON " + table() +
            " WHEN old.rowid <= " + mark + " BEGIN DELETE FROM vesk_summary_mark; END",
        "CREATE TRIGGER IF NOT EXISTS vesk_summary_update AFTER UPDATE OF rowid, Provider, "
        "Hostname, Exit_status, Timestamp, Unique_timestamp ON " +
            table() + " WHEN old.rowid <= " + mark + " OR new.rowid <= " + mark +
            " BEGIN DELETE FROM vesk_summary_mark; END",
    };
}

// Folds the rows numbered ?1 < rowid <= ?2 into the two tables. The unary
// plus on Provider keeps SQLite on that range of row numbers: without it,
// it walks the whole index that starts with Provider.
std::vector<std::string> fold_statements() {
    return {
        "INSERT INTO vesk_summary_host_provider SELECT IFNULL(Hostname, ''), Provider, COUNT(*), "
        "MAX(Unique_timestamp) FROM " +
            table() +
            " WHERE rowid > ?1 AND rowid <= ?2 AND +Provider >= '' GROUP BY 1, 2 "
            "ON CONFLICT(Hostname, Provider) DO UPDATE SET row_count = row_count + "
            "excluded.row_count, latest_run = MAX(IFNULL(latest_run, excluded.latest_run), "
            "IFNULL(excluded.latest_run, latest_run))",
        "INSERT INTO vesk_summary_run SELECT IFNULL(Unique_timestamp, 0), IFNULL(Hostname, ''), "
        "COUNT(*), SUM(CASE WHEN Exit_status <> 0 THEN 1 ELSE 0 END), MIN(Timestamp) FROM " +
            table() +
            " WHERE rowid > ?1 AND rowid <= ?2 GROUP BY 1, 2 "
            "ON CONFLICT(Unique_timestamp, Hostname) DO UPDATE SET row_count = row_count + "
            "excluded.row_count, failed_count = failed_count + excluded.failed_count, "
            "first_start = MIN(IFNULL(first_start, excluded.first_start), "
            "IFNULL(excluded.first_start, first_start))",
    };
}

Db open_file(const std::string& file, int flags) {
    int rc = SQLITE_OK;
    Db db = open_db(file, flags, rc);
    if (rc != SQLITE_OK) return nullptr;
    sqlite3_extended_result_codes(db.get(), 1);
    return db;
}

bool exec(sqlite3* db, const std::string& sql) {
    return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

// The first column of `sql`'s first row: nullopt when it has no row, the
// value is NULL, or it fails (`ok` false then).
std::optional<int64_t> number(sqlite3* db, const std::string& sql, bool& ok) {
    ok = false;
    Stmt stmt = vesk::tool::prepare(db, sql);
    if (!stmt) return std::nullopt;
    const int rc = sqlite3_step(stmt.get());
    if (rc == SQLITE_DONE) {
        ok = true;
        return std::nullopt;
    }
    if (rc != SQLITE_ROW) return std::nullopt;
    ok = true;
    if (sqlite3_column_type(stmt.get(), 0) == SQLITE_NULL) return std::nullopt;
    return sqlite3_column_int64(stmt.get(), 0);
}

bool has_table(sqlite3* db, const std::string& name) {
    bool ok = false;
    const auto found = number(
        db, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = '" + name + "'", ok);
    return ok && found.has_value();
}

std::string text_of(sqlite3_stmt* stmt, int column) {
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, column));
    return text ? std::string(text, size_t(sqlite3_column_bytes(stmt, column))) : std::string();
}

// True when everything schema() names is there.
bool has_schema(sqlite3* db, bool& ok) {
    const auto present = number(db,
                                "SELECT COUNT(*) FROM sqlite_master WHERE name IN "
                                "('vesk_summary_host_provider', 'vesk_summary_run', "
                                "'vesk_summary_mark', 'vesk_summary_insert', "
                                "'vesk_summary_delete', 'vesk_summary_update')",
                                ok);
    return ok && present.value_or(0) == 6;
}

}  // namespace

std::unique_ptr<SummaryFile> SummaryFile::fold(const std::string& file,
                                               const std::string& instance) {
    Db db = open_file(file, SQLITE_OPEN_READWRITE);
    if (!db || sqlite3_db_readonly(db.get(), "main") != 0) return nullptr;
    sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
    if (!has_table(db.get(), table())) return nullptr;
    {
        // Up to date already: answered without the write lock.
        bool ok = false;
        if (has_schema(db.get(), ok)) {
            const auto mark = number(db.get(), "SELECT folded FROM vesk_summary_mark", ok);
            const auto top = ok ? number(db.get(), "SELECT MAX(rowid) FROM " + table(), ok)
                                : std::optional<int64_t>();
            if (ok && mark && *mark == top.value_or(0))
                return std::unique_ptr<SummaryFile>(new SummaryFile(std::move(db), file));
        }
    }

    std::vector<Stmt> folds;
    Stmt set_mark;
    Progress progress;
    int rebuilds = 0;
    bool first = true;
    int64_t folded = 0;
    for (;;) {
        // One transaction per step: the mark, the rows after it, and the
        // new mark all move together. A file without a summary gets its
        // tables in the first one, so that a failure (a damaged page met
        // while reading the rows) leaves the file as it was.
        if (!exec(db.get(), "BEGIN IMMEDIATE")) return nullptr;
        bool ok = false;
        if (!has_schema(db.get(), ok) && ok)
            for (const auto& sql : schema()) ok = ok && exec(db.get(), sql);
        if (ok && folds.empty()) {
            for (const auto& sql : fold_statements()) {
                folds.push_back(vesk::tool::prepare(db.get(), sql));
                ok = ok && folds.back();
            }
            set_mark = vesk::tool::prepare(db.get(), "INSERT INTO vesk_summary_mark VALUES(?1)");
            ok = ok && set_mark;
        }
        std::optional<int64_t> mark;
        if (ok) mark = number(db.get(), "SELECT folded FROM vesk_summary_mark", ok);
        const auto top_or_none = ok ? number(db.get(), "SELECT MAX(rowid) FROM " + table(), ok)
                                    : std::optional<int64_t>();
        const int64_t top = top_or_none.value_or(0);
        const bool rebuilt = ok && (!mark || *mark > top);
        if (rebuilt) {
            // None yet, or gone: built again from the first row.
            if (!first && ++rebuilds > kMaxRebuilds) ok = false;
            ok = ok && exec(db.get(), "DELETE FROM vesk_summary_host_provider") &&
                 exec(db.get(), "DELETE FROM vesk_summary_run");
            mark = 0;
        }
        first = false;
        const int64_t from = mark.value_or(0);
        const int64_t to = std::min(top, from + kFoldRows);
        if (ok && to > from)
            for (auto& stmt : folds) {
                sqlite3_reset(stmt.get());
                sqlite3_bind_int64(stmt.get(), 1, from);
                sqlite3_bind_int64(stmt.get(), 2, to);
                ok = ok && sqlite3_step(stmt.get()) == SQLITE_DONE;
            }
        if (ok && (to != from || rebuilt)) {
            sqlite3_reset(set_mark.get());
            sqlite3_bind_int64(set_mark.get(), 1, to);
            ok = exec(db.get(), "DELETE FROM vesk_summary_mark") &&
                 sqlite3_step(set_mark.get()) == SQLITE_DONE;
        }
        for (auto& stmt : folds)
            if (stmt) sqlite3_reset(stmt.get());
        if (set_mark) sqlite3_reset(set_mark.get());
        if (!ok || !exec(db.get(), "COMMIT")) {
            exec(db.get(), "ROLLBACK");
            return nullptr;
        }
        if (to == top) break;
        folded += to - from;
        progress.show("summarising datastore " + instance + ": " + std::to_string(folded) +
                      " rows, up to row " + std::to_string(to) + " of " + std::to_string(top));
    }
    progress.clear();
    return std::unique_ptr<SummaryFile>(new SummaryFile(std::move(db), file));
}

std::unique_ptr<SummaryFile> SummaryFile::current(const std::string& file, int64_t max_lag) {
    Db db = open_file(file, SQLITE_OPEN_READONLY);
    if (!db) return nullptr;
    sqlite3_busy_timeout(db.get(), kBusyTimeoutMs);
    if (!has_table(db.get(), "vesk_summary_mark")) return nullptr;
    bool ok = false;
    const auto mark = number(db.get(), "SELECT folded FROM vesk_summary_mark", ok);
    if (!ok || !mark) return nullptr;
    const auto top = number(db.get(), "SELECT MAX(rowid) FROM " + table(), ok);
    if (!ok || top.value_or(0) - *mark > max_lag) return nullptr;
    return std::unique_ptr<SummaryFile>(new SummaryFile(std::move(db), file));
}

void SummaryFile::fail(const std::string& what) const {
    throw ToolError(kExitError, what + " of " + file_ + " failed: " + sqlite3_errmsg(db_.get()));
}

Stmt SummaryFile::prepare(const std::string& sql) const {
    Stmt stmt = vesk::tool::prepare(db_.get(), sql);
    if (!stmt) fail("reading the summary");
    return stmt;
}

// `read(mark)` inside one read transaction that sees the mark; throws
// (exit 2) when the mark has gone (covered rows changed since the fold).
template <typename Read>
auto SummaryFile::read_marked(Read&& read) {
    if (!exec(db_.get(), "BEGIN")) fail("reading the summary");
    bool ok = false;
    const auto mark = number(db_.get(), "SELECT folded FROM vesk_summary_mark", ok);
    if (!ok || !mark) {
        exec(db_.get(), "ROLLBACK");
        throw ToolError(kExitError, "the summary of " + file_ +
                                        " changed while it was read (rows were removed or "
                                        "changed); try again");
    }
    auto answer = read(*mark);
    exec(db_.get(), "COMMIT");
    return answer;
}

// Every row of `sql`, each made into a record by `make(stmt)`, inside a
// read transaction that sees the mark.
template <typename Make>
auto SummaryFile::read_all(const std::string& sql, Make&& make) {
    return read_marked([&](int64_t) {
        Stmt stmt = prepare(sql);
        std::vector<decltype(make(stmt.get()))> records;
        int rc;
        while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) records.push_back(make(stmt.get()));
        if (rc != SQLITE_DONE) fail("reading the summary");
        return records;
    });
}

std::vector<GroupSummary> SummaryFile::groups(bool by_provider) {
    const std::string key = by_provider ? "Provider" : "Hostname";
    return read_all("SELECT " + key +
                        ", COUNT(*), SUM(row_count), MAX(latest_run) FROM "
                        "vesk_summary_host_provider GROUP BY " +
                        key,
                    [](sqlite3_stmt* row) {
                        return GroupSummary{text_of(row, 0), sqlite3_column_int64(row, 1),
                                            sqlite3_column_int64(row, 2),
                                            sqlite3_column_int64(row, 3)};
                    });
}

std::vector<StoredSummary> SummaryFile::per_provider_host() {
    return read_all(
        "SELECT Provider, Hostname, row_count, latest_run FROM vesk_summary_host_provider "
        "ORDER BY Provider, Hostname",
        [](sqlite3_stmt* row) {
            return StoredSummary{text_of(row, 0), text_of(row, 1), sqlite3_column_int64(row, 2),
                                 sqlite3_column_int64(row, 3)};
        });
}

std::vector<RunSummary> SummaryFile::runs(size_t limit) {
    return read_all(
        "SELECT Unique_timestamp, MIN(first_start), COUNT(*), SUM(row_count), SUM(failed_count) "
        "FROM vesk_summary_run GROUP BY Unique_timestamp ORDER BY Unique_timestamp DESC" +
            (limit > 0 ? " LIMIT " + std::to_string(limit) : std::string()),
        [](sqlite3_stmt* row) {
            return RunSummary{sqlite3_column_int64(row, 0), sqlite3_column_int64(row, 1),
                              sqlite3_column_int64(row, 2), sqlite3_column_int64(row, 3),
                              sqlite3_column_int64(row, 4)};
        });
}

std::map<std::string, int64_t> SummaryFile::host_latest_runs(const std::set<std::string>& hosts) {
    return read_marked([&](int64_t mark) {
        std::map<std::string, int64_t> latest;
        Stmt covered =
            prepare("SELECT MAX(latest_run) FROM vesk_summary_host_provider WHERE Hostname = ?1");
        for (const auto& host : hosts) {
            sqlite3_reset(covered.get());
            sqlite3_bind_text(covered.get(), 1, host.data(), int(host.size()), SQLITE_STATIC);
            if (sqlite3_step(covered.get()) != SQLITE_ROW) fail("reading the summary");
            if (sqlite3_column_type(covered.get(), 0) != SQLITE_NULL)
                latest[host] = sqlite3_column_int64(covered.get(), 0);
        }
        // The rows stored after the mark (few: current() bounds them), read
        // by row number (the unary plus keeps SQLite off the provider index).
        Stmt after = prepare("SELECT IFNULL(Hostname, ''), MAX(Unique_timestamp) FROM " + table() +
                             " WHERE rowid > ?1 AND +Provider >= '' GROUP BY 1");
        sqlite3_bind_int64(after.get(), 1, mark);
        int rc;
        while ((rc = sqlite3_step(after.get())) == SQLITE_ROW) {
            const std::string host = text_of(after.get(), 0);
            if (!hosts.count(host) || sqlite3_column_type(after.get(), 1) == SQLITE_NULL) continue;
            auto& run = latest[host];
            run = std::max<int64_t>(run, sqlite3_column_int64(after.get(), 1));
        }
        if (rc != SQLITE_DONE) fail("reading the rows after the summary");
        return latest;
    });
}

}  // namespace vesk::tool
