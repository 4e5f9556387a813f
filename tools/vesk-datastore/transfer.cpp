// import and export: rows as JSON Lines.
#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "vesk/datastore/parse_utility.h"
#include "vesk/datastore/queries.h"
#include "vesk/datastore/vocabulary.h"

#include "commands.h"
#include "errors.h"
#include "jsonl.h"
#include "session.h"
#include "validate.h"

namespace vesk::tool {

using vesk::datastore::InsertRecord;
using vesk::datastore::Row;

namespace {

// Reads lines from a FILE* quickly (large buffer, no locale work).
class LineReader {
public:
    explicit LineReader(std::FILE* file) : file_(file), buffer_(size_t(1) << 20) {}

    // The next line without its line break; false at end of input.
    bool next(std::string& line) {
        line.clear();
        for (;;) {
            if (pos_ == end_) {
                if (eof_) return !line.empty();
                end_ = std::fread(buffer_.data(), 1, buffer_.size(), file_);
                pos_ = 0;
                if (end_ == 0) {
                    eof_ = true;
                    if (std::ferror(file_)) {
                        failed_ = true;
                        error_ = errno;
                    }
                    return !line.empty();
                }
            }
            const char* start = buffer_.data() + pos_;
            const void* nl = std::memchr(start, '\n', end_ - pos_);
            if (nl != nullptr) {
                const size_t n = static_cast<const char*>(nl) - start;
                line.append(start, n);
                pos_ += n + 1;
                if (!line.empty() && line.back() == '\r') line.pop_back();
                return true;
            }
            line.append(start, end_ - pos_);
            pos_ = end_;
        }
    }
    bool failed() const { return failed_; }
    // The reason of a failed read.
    std::string reason() const { return std::strerror(error_); }

private:
    std::FILE* file_;
    std::vector<char> buffer_;
    size_t pos_ = 0;
    size_t end_ = 0;
    bool eof_ = false;
    bool failed_ = false;
    int error_ = 0;
};

// A parsed batch and the line number of each of its records.
struct Batch {
    std::vector<InsertRecord> records;
    std::vector<size_t> lines;
};

// Why the row `record` cannot be stored ("" when it can).
std::string check_record(const InsertRecord& record, bool server_text) {
    std::string problem;
    const std::string field = record_problem(record, problem);
    if (!field.empty()) return field + ": " + problem;
    // A server's text column (PostgreSQL through ODBC) holds no NUL byte:
    // the extension would refuse the whole batch, naming the row of the
    // batch; here the line is named.
    if (server_text && record.header.encoding == vesk::provider::none)
        for (const auto& [name, text] :
             {std::pair<const char*, const std::string*>{"STDOUT", &record.std_out},
              {"STDERR", &record.std_err}})
            if (const size_t at = text->find('\0'); at != std::string::npos)
                return std::string(name) + ": holds a NUL byte at offset " + std::to_string(at) +
                       ", which an ODBC datastore's text cannot hold; store the output "
                       "base64-encoded (\"Encoding\": 1)";
    return "";
}

// One snapshot membership read from a line of an import.
struct Member {
    std::string snapshot;
    Store::RowKey key;
    size_t line = 0;
};

// Records `members` (already checked) as snapshots of the datastore
// `target`, each snapshot in one commit. Returns the number recorded;
// throws ToolError naming the line of a member whose row is not stored.
size_t record_members(Store& store, const std::string& target, const std::vector<Member>& members,
                      const std::string& file) {
    if (members.empty()) return 0;
    const int64_t last = store.last_rowid();
    std::map<std::string, std::vector<const Member*>> by_snapshot;
    for (const auto& m : members) by_snapshot[m.snapshot].push_back(&m);
    size_t recorded = 0;
    for (const auto& [snapshot, list] : by_snapshot) {
        std::set<Store::RowKey> keys;
        for (const auto* m : list) keys.insert(m->key);
        std::vector<Row> rows;
        // Lookups of a bounded number of keys each.
        std::set<Store::RowKey> part;
        for (auto next = keys.begin(); next != keys.end();) {
            part.insert(*next++);
            if (part.size() == 500 || next == keys.end()) {
                for (auto& row : store.rows_with_keys(part, last)) rows.push_back(std::move(row));
                part.clear();
            }
        }
        std::set<Store::RowKey> found;
        for (const auto& row : rows)
            found.emplace(row.Provider, row.Hostname, row.OptionID, row.Unique_timestamp);
        for (const auto* m : list)
            if (!found.count(m->key))
                throw ToolError(kExitError, file + ":" + std::to_string(m->line) + ": snapshot \"" +
                                                snapshot + "\": its row (" + std::get<0>(m->key) +
                                                " on " + std::get<1>(m->key) + ", run " +
                                                std::to_string(std::get<3>(m->key)) +
                                                ") is not stored; import the rows first");
        std::map<std::string, vesk::datastore::ProviderInfo> providers;
        for (const auto& row : rows) providers[row.Provider].name = row.Provider;
        vesk::datastore::DataStoreParseUtility::update_snapshot_dictionary(snapshot, target, rows,
                                                                           providers);
        const bool committed = vesk::datastore::DataStoreParseUtility::commit_snapshot_updates();
        vesk::datastore::DataStoreParseUtility::forget_snapshot(snapshot);
        if (!committed)
            throw ToolError(kExitError, "recording snapshot \"" + snapshot + "\" failed", true);
        recorded += rows.size();
    }
    return recorded;
}

// Batches handed from the parsing thread to the storing one; at most two
// wait at a time, so memory stays bounded whatever the input size.
class BatchQueue {
public:
    void push(Batch batch) {
        std::unique_lock<std::mutex> lock(mutex_);
        room_.wait(lock, [&] { return queue_.size() < 2 || stopped_; });
        if (stopped_) return;
        queue_.push_back(std::move(batch));
        ready_.notify_one();
    }
    // Ends the input, with an error text when a line was bad.
    void finish(std::string error = "") {
        std::lock_guard<std::mutex> lock(mutex_);
        finished_ = true;
        error_ = std::move(error);
        ready_.notify_all();
    }
    // Tells the producer to give up (the storing side failed).
    void stop() {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
        room_.notify_all();
    }
    bool stopped() {
        std::lock_guard<std::mutex> lock(mutex_);
        return stopped_;
    }
    // The next batch; nothing when the input is over.
    std::optional<Batch> pop() {
        std::unique_lock<std::mutex> lock(mutex_);
        ready_.wait(lock, [&] { return !queue_.empty() || finished_; });
        if (queue_.empty()) return std::nullopt;
        Batch batch = std::move(queue_.front());
        queue_.pop_front();
        room_.notify_one();
        return batch;
    }
    std::string error() {
        std::lock_guard<std::mutex> lock(mutex_);
        return error_;
    }

private:
    std::mutex mutex_;
    std::condition_variable ready_;
    std::condition_variable room_;
    std::deque<Batch> queue_;
    bool finished_ = false;
    bool stopped_ = false;
    std::string error_;
};

std::string with_commas(uint64_t n) {
    std::string digits = std::to_string(n);
    for (int i = int(digits.size()) - 3; i > 0; i -= 3) digits.insert(size_t(i), ",");
    return digits;
}

// Held for a whole import into a SQLite file. An import takes only the rows
// stored before it began for stored ones, so two imports of the same rows
// at once would each store them. The lock is a file of its own beside the
// database: SQLite's locks cover one transaction, not a whole import.
class ImportLock {
public:
    ImportLock(const std::string& database, const std::string& target)
        : path_(database + "-import.lock") {
        fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
        if (fd_ < 0) fail("cannot open");
        if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) return;
        if (errno != EWOULDBLOCK) fail("cannot lock");
        diag() << "vesk-datastore: waiting for another import into datastore " << target
               << " to end\n";
        while (::flock(fd_, LOCK_EX) != 0)
            if (errno != EINTR) fail("cannot lock");
    }
    ImportLock(const ImportLock&) = delete;
    ImportLock& operator=(const ImportLock&) = delete;
    ~ImportLock() {
        if (fd_ >= 0) ::close(fd_);  // which releases the lock
    }

private:
    [[noreturn]] void fail(const char* what) {
        const int error = errno;
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
        throw ToolError(kExitError, std::string(what) + " the import lock " + path_ + ": " +
                                        std::strerror(error));
    }

    std::string path_;
    int fd_ = -1;
};

}  // namespace

int cmd_import(const GlobalOptions& global, const std::string& file, size_t batch_size,
               bool allow_duplicates) {
    if (batch_size == 0) batch_size = 1;
    std::FILE* input = stdin;
    if (file != "-") {
        input = std::fopen(file.c_str(), "rb");
        if (input == nullptr)
            throw ToolError(kExitError, "cannot read " + file + ": " + std::strerror(errno));
        // A folder opens, and fails only at the first read: refused before
        // any datastore is opened (or created).
        struct stat info {};
        if (::fstat(::fileno(input), &info) == 0 && S_ISDIR(info.st_mode)) {
            std::fclose(input);
            throw ToolError(kExitError, "cannot read " + file + ": " + std::strerror(EISDIR));
        }
    }
    struct Closer {
        std::FILE* f;
        ~Closer() {
            if (f != stdin) std::fclose(f);
        }
    } closer{input};
    const std::string name = file == "-" ? "standard input" : file;

    auto store = open_store(global, Access::write);
    const std::string target = store->write_target();
    const bool server_text = store->is_odbc(target);
    std::optional<ImportLock> lock;
    if (const std::string file = store->sqlite_path(target); !file.empty())
        lock.emplace(file, target);
    // Rows without a run of their own form one new run.
    const int64_t default_run = std::max(now_microseconds(), store->last_run() + 1);
    // Rows stored before this import count as already stored; rows that
    // this import stores itself do not, so a file keeps its own repeats.
    const int64_t stored_before = allow_duplicates ? 0 : store->last_rowid();

    // Lines are parsed on a second thread while this one stores batches;
    // only this thread calls the library.
    BatchQueue queue;
    std::vector<Member> members;  // the parser's until it is joined
    std::thread parser([&] {
        LineReader reader(input);
        JsonLineReader json;
        JsonLine parsed;
        Batch batch;
        std::string line;
        std::string error;
        size_t number = 0;
        while (reader.next(line)) {
            ++number;
            if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
            if (!json.parse(line, default_run, parsed, error) ||
                (!parsed.member && !(error = check_record(parsed.record, server_text)).empty())) {
                queue.finish(name + ":" + std::to_string(number) + ": " + error);
                return;
            }
            if (parsed.member) {
                auto& h = parsed.record.header;
                members.push_back(
                    Member{std::move(parsed.snapshot),
                           Store::RowKey(std::move(h.provider), std::move(h.hostname),
                                         std::move(parsed.record.option_id), h.unique_timestamp),
                           number});
                continue;
            }
            InsertRecord& record = parsed.record;
            batch.records.push_back(std::move(record));
            batch.lines.push_back(number);
            if (batch.records.size() >= batch_size) {
                queue.push(std::move(batch));
                if (queue.stopped()) return;
                batch = Batch{};
                batch.records.reserve(batch_size);
            }
        }
        if (reader.failed()) {
            queue.finish("cannot read " + name + " after line " + std::to_string(number) + ": " +
                         reader.reason());
            return;
        }
        if (!batch.records.empty()) queue.push(std::move(batch));
        queue.finish();
    });

    Progress progress;
    const auto started = std::chrono::steady_clock::now();
    uint64_t stored = 0;
    uint64_t skipped = 0;
    auto rate = [&] {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        return seconds > 0 ? uint64_t(double(stored) / seconds) : 0;
    };
    try {
        while (auto batch = queue.pop()) {
            if (stored_before > 0) {
                const auto known = store->stored_keys(batch->records, stored_before);
                if (!known.empty()) {
                    std::vector<InsertRecord> fresh;
                    std::vector<size_t> lines;
                    for (size_t i = 0; i < batch->records.size(); ++i) {
                        auto& r = batch->records[i];
                        if (known.count(Store::RowKey(r.header.provider, r.header.hostname,
                                                      r.option_id, r.header.unique_timestamp))) {
                            ++skipped;
                            continue;
                        }
                        fresh.push_back(std::move(r));
                        lines.push_back(batch->lines[i]);
                    }
                    batch->records = std::move(fresh);
                    batch->lines = std::move(lines);
                }
            }
            try {
                store->insert(batch->records);
            } catch (const ToolError& e) {
                if (batch->lines.empty()) throw;
                throw ToolError(e.code,
                                name + ":" + std::to_string(batch->lines.front()) + "-" +
                                    std::to_string(batch->lines.back()) + ": " + e.what() +
                                    " (nothing of these lines was stored; " +
                                    std::to_string(stored) + " rows before them were)",
                                e.datastore_failure);
            }
            stored += batch->records.size();
            progress.show("import: " + with_commas(stored) + " rows, " + with_commas(rate()) +
                          " rows/s");
        }
    } catch (...) {
        queue.stop();
        parser.join();
        throw;
    }
    parser.join();
    progress.clear();
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    const std::string error = queue.error();
    if (!error.empty())
        throw ToolError(kExitError, error + " (nothing of its batch was stored; " +
                                        std::to_string(stored) + " rows before it were)");
    // Snapshot members name rows by key: recorded once every row is stored.
    const size_t recorded = record_members(*store, target, members, name);
    if (global.format == Format::json) {
        print_json(std::cout, Json{{"datastore", target},
                                   {"rows", stored},
                                   {"skipped", skipped},
                                   {"snapshot_members", recorded},
                                   {"seconds", seconds}});
    } else if (global.format == Format::csv) {
        print_csv(std::cout, Table{{"datastore", "rows", "skipped", "seconds"},
                                   {{target, std::to_string(stored), std::to_string(skipped),
                                     format_seconds(seconds)}}});
    } else {
        std::cout << "imported " << with_commas(stored) << " rows, skipped " << with_commas(skipped)
                  << " already stored, into datastore " << target << " in "
                  << format_seconds(seconds) << " s (" << with_commas(rate()) << " rows/s)\n";
        if (recorded > 0) std::cout << "recorded " << recorded << " snapshot members\n";
    }
    return kExitOk;
}

namespace {

// Rows per read of export: memory stays bounded whatever the store's size.
constexpr size_t kExportPage = 20000;

// One snapshot membership as a line: the snapshot and the key of its row
// (row numbers differ from store to store).
std::string snapshot_line(const std::string& snapshot, const Row& row) {
    const Json line = {{"Snapshot", snapshot},
                       {"Provider", row.Provider},
                       {"Hostname", row.Hostname},
                       {"OptionID", row.OptionID},
                       {"Unique_timestamp", row.Unique_timestamp}};
    return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

int cmd_export(const GlobalOptions& global, const RowsOptions& options, bool snapshots) {
    check_row_options(options);
    auto store = open_store(global, Access::read);
    bool reported = false;
    const auto providers = rows_providers(*store, options, reported);
    const std::set<std::string> wanted(providers.begin(), providers.end());

    // Pages in row-number order, on the primary key: a store filled by
    // import exports its rows in the order they were stored, so export,
    // import and export again give the same bytes. Every datastore is
    // asked itself; a failed read ends the export with exit 2.
    // The conditions as the datastore `name` reads them.
    auto conditions_for = [&](const std::string& name) {
        std::string conditions = row_conditions(options.filter, store->is_sqlite(name));
        if (!options.providers.empty()) {
            std::string list;
            for (const auto& p : providers) list += (list.empty() ? "" : ",") + sql_literal(p);
            conditions += std::string(conditions.empty() ? "" : " AND ") + "Provider IN (" +
                          (list.empty() ? "NULL" : list) + ")";
        }
        return conditions;
    };
    uint64_t written = 0;
    std::string out;
    auto flush = [&](bool all) {
        if (!all && out.size() < (size_t(1) << 20)) return;
        std::cout.write(out.data(), std::streamsize(out.size()));
        out.clear();
        check_stdout();
    };
    for (const auto& name : store->data_names()) {
        const std::string conditions = conditions_for(name);
        int64_t after = 0;
        for (;;) {
            const auto rows = store->select_from(
                name,
                "SELECT * FROM " + vesk::datastore::table_name + " WHERE rowid > " +
                    std::to_string(after) + (conditions.empty() ? "" : " AND " + conditions) +
                    " ORDER BY rowid LIMIT " + std::to_string(kExportPage),
                "reading rows after row " + std::to_string(after));
            for (const auto& row : rows) {
                // Names the queries cannot hold were reported once, and stay out.
                if (!wanted.count(row.Provider)) continue;
                out += row_to_line(row);
                out += '\n';
                ++written;
                flush(false);
            }
            if (rows.size() < kExportPage) break;
            after = rows.back().rowid;
        }
    }
    size_t members = 0;
    if (snapshots) {
        for (const auto& info : store->snapshots()) {
            // The members of every datastore that records the snapshot.
            std::vector<Row> rows;
            for (const auto& name : store->data_names())
                for (auto& row : store->snapshot_rows(name, info.baseline_id, providers))
                    rows.push_back(std::move(row));
            sort_rows(rows);
            for (const auto& row : rows) {
                out += snapshot_line(info.baseline_id, row);
                out += '\n';
                ++members;
                flush(false);
            }
        }
    }
    flush(true);
    check_stdout(true);
    if (written == 0 && members == 0) {
        if (!reported) diag() << "vesk-datastore: no rows found\n";
        return kExitNothing;
    }
    return kExitOk;
}

}  // namespace vesk::tool
