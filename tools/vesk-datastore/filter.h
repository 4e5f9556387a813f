#pragma once
// Row filters of the reading commands, turned into SQL conditions on the
// provider table: times (ISO dates or relative ages), runs, exit statuses
// and host names or globs. Values are placed into the SQL as quoted
// literals, never as they stand. Stateless.

#include <cstdint>
#include <string>
#include <vector>

namespace vesk::tool {

// `text` as an SQL string literal, quotes doubled.
std::string sql_literal(const std::string& text);

// True when `name` holds a glob character (*, ? or [).
bool is_glob(const std::string& name);

// A point in time from the command line, in microseconds since the epoch:
// "2026-11-23", "2026-11-23T10:00[:00]" (local time; a trailing Z means UTC),
// or an age before `now` ("90s", "15m", "2h", "7d", "2w"). A bare number is
// a run id (a Unique_timestamp) and sets `is_run`. Returns the problem in
// words, or "" when `text` was read.
std::string parse_when(const std::string& text, int64_t now, int64_t& when, bool& is_run);

// An age ("90s", "15m", "2h", "7d", "2w") in microseconds; the problem in
// words, or "".
std::string parse_age(const std::string& text, int64_t& micros);

// What a reading command keeps of the stored rows.
struct RowFilter {
    std::vector<std::string> hosts;  // names or globs; empty: every host
    bool failed = false;             // exit status not 0
    bool has_exit = false;           // exit status equal to `exit_status`
    int exit_status = 0;
    int64_t since = 0;       // rows of runs at or after this time (0: no bound)
    bool since_run = false;  // `since` is a run id: only runs after it
    int64_t until = 0;       // rows of runs before this time (0: no bound)
    bool until_run = false;  // `until` is a run id: runs up to it, itself included
    int64_t run = 0;         // only this run (0: every run)
};

// The conditions of `filter` that select rows before any grouping (hosts,
// times, run), joined by AND; "" when there is none. Host patterns use
// SQLite's GLOB when `glob`, else LIKE, which database servers read (a
// pattern with a character class then throws ToolError).
std::string row_conditions(const RowFilter& filter, bool glob = true);

// The conditions on a row's outcome (failed, exit status); "" when none.
std::string outcome_conditions(const RowFilter& filter);

}  // namespace vesk::tool
