#pragma once
// A running summary of what a SQLite datastore file holds, kept in tables
// of its own beside the provider table, so that `hosts`, `providers` and
// `runs` read a few thousand summary entries instead of every row:
//
//   vesk_summary_host_provider  per host and provider: rows, newest run
//   vesk_summary_run            per run and host: rows, failed rows, first start
//   vesk_summary_mark           the greatest row number the two cover
//
// Rows stored after the mark are folded in by the next reader that can
// write the file (in transactions of a bounded number of rows, so writers
// alongside wait little). Triggers on the provider table remove the mark
// when a covered row is deleted or changed, or a row is inserted below it;
// the summary is then built again from the rows. A summary never answers
// without its mark, so it never counts a row that is not there.

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "sqlite_handles.h"
#include "store.h"

namespace vesk::tool {

class SummaryFile {
public:
    // Opens `file` for writing and folds in every row stored after the
    // mark, showing progress on a terminal when there are many. Null when
    // it cannot: no provider table, the file cannot be written, or other
    // processes keep it locked or keep changing covered rows; the caller
    // then reads the rows themselves.
    static std::unique_ptr<SummaryFile> fold(const std::string& file, const std::string& instance);
    // Opens `file` read-only when its summary exists and lags at most
    // `max_lag` rows behind; null otherwise. Nothing is written.
    static std::unique_ptr<SummaryFile> current(const std::string& file, int64_t max_lag);

    // Per provider (or per host): hosts (or providers), rows, newest run.
    // Each answers as of the mark, in one read transaction; they throw
    // ToolError (exit 2) when the file fails or the mark has gone.
    std::vector<GroupSummary> groups(bool by_provider);
    // Per provider and host, ordered by provider and host.
    std::vector<StoredSummary> per_provider_host();
    // The runs, newest first, at most `limit` (0: all).
    std::vector<RunSummary> runs(size_t limit);
    // Per host of `hosts` that has rows, its newest run, rows stored after
    // the mark included.
    std::map<std::string, int64_t> host_latest_runs(const std::set<std::string>& hosts);

private:
    SummaryFile(Db db, std::string file) : db_(std::move(db)), file_(std::move(file)) {}
    [[noreturn]] void fail(const std::string& what) const;
    Stmt prepare(const std::string& sql) const;
    // Runs `read` in one read transaction in which the mark exists.
    template <typename Read>
    auto read_marked(Read&& read);
    template <typename Make>
    auto read_all(const std::string& sql, Make&& make);

    Db db_;
    std::string file_;
};

}  // namespace vesk::tool
