// import and export: rows as JSON Lines.
#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <deque>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>

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
                    if (std::ferror(file_)) failed_ = true;
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

private:
    std::FILE* file_;
    std::vector<char> buffer_;
    size_t pos_ = 0;
    size_t end_ = 0;
    bool eof_ = false;
    bool failed_ = false;
};

// A parsed batch and the line number of each of its records.
struct Batch {
    std::vector<InsertRecord> records;
    std::vector<size_t> lines;
};

// "KEY" must be ... from the parser reads as KEY: must be ..., the form of
// every refusal of a line.
std::string field_first(const std::string& error) {
    if (error.size() > 2 && error[0] == '"') {
        const size_t close = error.find('"', 1);
        if (close != std::string::npos && close + 1 < error.size() && error[close + 1] == ' ')
            return error.substr(1, close - 1) + ": " + error.substr(close + 2);
    }
    return error;
}

// Why `line` cannot be stored ("" when it can), with `record` filled in.
std::string check_line(const std::string& line, int64_t default_run, InsertRecord& record) {
    std::string error;
    if (!parse_row_line(line, default_run, record, error)) return field_first(error);
    const std::string key = repeated_key(line);
    if (!key.empty()) return key + ": the key appears twice";
    std::string problem;
    const std::string field = record_problem(record, problem);
    if (!field.empty()) return field + ": " + problem;
    return "";
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

}  // namespace

int cmd_import(const GlobalOptions& global, const std::string& file, size_t batch_size,
               bool allow_duplicates) {
    if (batch_size == 0) batch_size = 1;
    std::FILE* input = stdin;
    if (file != "-") {
        input = std::fopen(file.c_str(), "rb");
        if (input == nullptr)
            throw ToolError(kExitError, "cannot read " + file + ": " + std::strerror(errno));
    }
    struct Closer {
        std::FILE* f;
        ~Closer() {
            if (f != stdin) std::fclose(f);
        }
    } closer{input};
    const std::string name = file == "-" ? "standard input" : file;

    auto store = open_store(global, Access::write);
    // Rows without a run of their own form one new run.
    const int64_t default_run = std::max(now_microseconds(), store->last_run() + 1);
    // Rows stored before this import count as already stored; rows that
    // this import stores itself do not, so a file keeps its own repeats.
    const int64_t stored_before = allow_duplicates ? 0 : store->last_rowid();

    // Lines are parsed on a second thread while this one stores batches;
    // only this thread calls the library.
    BatchQueue queue;
    std::thread parser([&] {
        LineReader reader(input);
        Batch batch;
        std::string line;
        std::string error;
        size_t number = 0;
        while (reader.next(line)) {
            ++number;
            if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
            InsertRecord record;
            error = check_line(line, default_run, record);
            if (!error.empty()) {
                queue.finish(name + ":" + std::to_string(number) + ": " + error);
                return;
            }
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
            queue.finish(name + ": read error after line " + std::to_string(number));
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
    if (global.format == Format::json) {
        print_json(std::cout, Json{{"rows", stored}, {"skipped", skipped}, {"seconds", seconds}});
    } else if (global.format == Format::csv) {
        print_csv(
            std::cout,
            Table{{"rows", "skipped", "seconds"},
                  {{std::to_string(stored), std::to_string(skipped), format_seconds(seconds)}}});
    } else {
        std::cout << "imported " << with_commas(stored) << " rows, skipped " << with_commas(skipped)
                  << " already stored, in " << format_seconds(seconds) << " s ("
                  << with_commas(rate()) << " rows/s)\n";
    }
    return kExitOk;
}

int cmd_export(const GlobalOptions& global, const RowsOptions& options) {
    for (const auto& p : options.providers)
        check_name("provider name", p, size_t(vesk::datastore::max_provider_size),
                   "max_provider_size");
    for (const auto& h : options.hosts)
        check_name("host name", h, size_t(vesk::datastore::max_hostname_size), "max_hostname_size");
    auto store = open_store(global, Access::read);
    std::vector<std::string> providers = options.providers;
    if (providers.empty()) providers = store->queryable_provider_names();

    const std::string filter = hosts_filter(options.hosts);
    // One provider at a time keeps memory bounded by the largest provider.
    uint64_t written = 0;
    std::string out;
    for (const auto& provider : providers) {
        std::vector<Row> rows;
        vesk::datastore::select_provider_data({provider}, rows, filter, false);
        std::sort(rows.begin(), rows.end(),
                  [](const Row& a, const Row& b) { return a.rowid < b.rowid; });
        for (const auto& row : rows) {
            out += row_to_line(row);
            out += '\n';
            if (out.size() > (size_t(1) << 20)) {
                std::cout.write(out.data(), std::streamsize(out.size()));
                out.clear();
                check_stdout();
            }
        }
        written += rows.size();
    }
    std::cout.write(out.data(), std::streamsize(out.size()));
    check_stdout(true);
    if (written == 0) {
        diag() << "vesk-datastore: no rows found\n";
        return kExitNothing;
    }
    return kExitOk;
}

}  // namespace vesk::tool
