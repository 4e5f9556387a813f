// The SQLite extension: an interface-derived datastore over one SQLite file.
//
// One instance holds one connection. Writers share the file through WAL
// with synchronous=NORMAL (no committed row is lost when a process dies; a
// power cut may lose the last transactions but never corrupts the file).
//
// Journal policy: a file is switched to WAL once, when it is first opened
// for writing, and stays in WAL for good. Switching the journal mode needs
// an exclusive lock, and SQLite answers SQLITE_BUSY at once, without its busy
// handler, where waiting could deadlock; a policy that switched to WAL at
// every open and back at every last close made opens fail whenever processes
// came and went together on one file. The two ways out were measured with
// sqlite_churn (32 processes x 50 cycles of open, insert, close, beside a
// busy core, 5 runs each): switching back at close (best effort) with the
// switch at open retried took a median 2.8 s on an existing file and 2.4 s
// on a new one; keeping WAL took 2.1 s and 2.3 s; both failed no call. WAL
// for good is kept: after the first open nothing needs the exclusive lock
// again, so no open waits for one.
//
// A read-only datastore reads a WAL file through SQLite's read-only WAL
// support (which may leave an empty -wal and a -shm file that the next
// writer takes away). In a folder it cannot write and without a -shm file
// there, SQLite cannot open a WAL file at all; the datastore then opens it
// as immutable: a writer would first have to create the -wal and -shm files
// in that folder, so only a more privileged process could change the file
// meanwhile.
//
// SQLite judges its own files: a damaged, truncated or foreign file is
// reported with SQLite's own answer (SQLITE_CORRUPT, SQLITE_NOTADB ...),
// mapped to a message that names the file and the reason. Nothing reads the
// file from outside SQLite's locks.
//
// Waiting: a busy handler with short, jittered sleeps waits for other
// processes, and every open, write and read that still answers SQLITE_BUSY
// (the cases in which SQLite does not call the handler) is retried from its
// start with backoff; both share one deadline of busy_timeout_ms per call.
//
// Safety: every multi-statement write runs in one BEGIN IMMEDIATE
// transaction (all or nothing), a single INSERT or DELETE runs in autocommit
// mode, which takes the write lock as its first step. The connection is
// defensive (SQLITE_DBCONFIG_DEFENSIVE, trusted_schema off, no extension
// loading, no ATTACH). select runs exactly one statement that does not
// write, under an authorizer that allows reads only; a watchdog thread
// interrupts it after query_timeout_ms, and its answer may take at most
// max_result_bytes. Names that the base class places into SQL text unescaped
// (providers, hosts, snapshot ids) are refused when a query could not use
// them as written, both when stored and when queried.
#include "vesk/datastore/sqlite_extension.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <thread>
#include <time.h>
#include <unistd.h>
#include <vector>

#include <sqlite3.h>

#include "vesk/datastore/interface.h"
#include "vesk/datastore/parameter_pack.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/log.h"
#include "vesk/str.h"

#include "checks.h"
#include "row_reader.h"

namespace vesk::datastore {
namespace {

using Clock = std::chrono::steady_clock;
using sqlite_ext::kBaselineFields;
using sqlite_ext::kRowFields;

constexpr int kErrorLevel = 3;
constexpr int kInfoLevel = 6;
constexpr long long kDefaultBusyTimeoutMs = 60000;
constexpr long long kDefaultQueryTimeoutMs = 60000;
constexpr long long kDefaultMaxResultBytes = 4LL << 30;
// SQLite counts the bytes of a stored row a little beyond its values.
constexpr long long kRowOverhead = 128;
// Not an SQLite code: a write that the extension refused itself.
constexpr int kRefused = -1;

#define VESK_SQLITE_LOG(level) vesk::log::ErrorLog(__FILE__, __func__, __LINE__, level).stream()

// The keys of the parameter string and the grammar of their values.
const checks::KnownKeys& known_keys() {
    using checks::ValueKind;
    static const checks::KnownKeys keys{
        {"source", ValueKind::text},
        {"read_only", ValueKind::boolean},
        {"busy_timeout_ms", ValueKind::milliseconds},
        {"query_timeout_ms", ValueKind::milliseconds},
        {"max_length", ValueKind::bytes},
        {"max_result_bytes", ValueKind::bytes},
        {"vfs", ValueKind::text},
    };
    return keys;
}

// Connections and statements are released by their owners; a connection is
// closed after all its statements (members are declared in that order).
struct CloseDb {
    void operator()(::sqlite3* db) const noexcept { sqlite3_close_v2(db); }
};
struct FinalizeStmt {
    void operator()(sqlite3_stmt* stmt) const noexcept { sqlite3_finalize(stmt); }
};
using DbPtr = std::unique_ptr<::sqlite3, CloseDb>;
using StmtPtr = std::unique_ptr<sqlite3_stmt, FinalizeStmt>;

bool is_blank(const char* text) {
    for (; text != nullptr && *text != '\0'; ++text)
        if (!std::isspace(static_cast<unsigned char>(*text))) return false;
    return true;
}

bool is_busy(int rc) { return (rc & 0xff) == SQLITE_BUSY || (rc & 0xff) == SQLITE_LOCKED; }

// The name of an SQLite result code, for the codes a file can answer.
std::string code_name(int rc) {
    static const std::pair<int, const char*> names[] = {
        {SQLITE_IOERR_READ, "SQLITE_IOERR_READ"},
        {SQLITE_IOERR_SHORT_READ, "SQLITE_IOERR_SHORT_READ"},
        {SQLITE_IOERR_WRITE, "SQLITE_IOERR_WRITE"},
        {SQLITE_IOERR_FSYNC, "SQLITE_IOERR_FSYNC"},
        {SQLITE_IOERR_DIR_FSYNC, "SQLITE_IOERR_DIR_FSYNC"},
        {SQLITE_IOERR_TRUNCATE, "SQLITE_IOERR_TRUNCATE"},
        {SQLITE_IOERR_FSTAT, "SQLITE_IOERR_FSTAT"},
        {SQLITE_IOERR_LOCK, "SQLITE_IOERR_LOCK"},
        {SQLITE_IOERR_UNLOCK, "SQLITE_IOERR_UNLOCK"},
        {SQLITE_IOERR_RDLOCK, "SQLITE_IOERR_RDLOCK"},
        {SQLITE_IOERR_DELETE, "SQLITE_IOERR_DELETE"},
        {SQLITE_IOERR_NOMEM, "SQLITE_IOERR_NOMEM"},
        {SQLITE_IOERR_ACCESS, "SQLITE_IOERR_ACCESS"},
        {SQLITE_IOERR_SHMOPEN, "SQLITE_IOERR_SHMOPEN"},
        {SQLITE_IOERR_SHMSIZE, "SQLITE_IOERR_SHMSIZE"},
        {SQLITE_IOERR_SHMMAP, "SQLITE_IOERR_SHMMAP"},
        {SQLITE_IOERR_SEEK, "SQLITE_IOERR_SEEK"},
        {SQLITE_IOERR_MMAP, "SQLITE_IOERR_MMAP"},
        {SQLITE_IOERR_CORRUPTFS, "SQLITE_IOERR_CORRUPTFS"},
        {SQLITE_CORRUPT_INDEX, "SQLITE_CORRUPT_INDEX"},
        {SQLITE_CANTOPEN_ISDIR, "SQLITE_CANTOPEN_ISDIR"},
        {SQLITE_READONLY_DIRECTORY, "SQLITE_READONLY_DIRECTORY"},
        {SQLITE_READONLY_CANTINIT, "SQLITE_READONLY_CANTINIT"},
        {SQLITE_BUSY_RECOVERY, "SQLITE_BUSY_RECOVERY"},
        {SQLITE_BUSY_SNAPSHOT, "SQLITE_BUSY_SNAPSHOT"},
        {SQLITE_ERROR, "SQLITE_ERROR"},
        {SQLITE_BUSY, "SQLITE_BUSY"},
        {SQLITE_LOCKED, "SQLITE_LOCKED"},
        {SQLITE_NOMEM, "SQLITE_NOMEM"},
        {SQLITE_READONLY, "SQLITE_READONLY"},
        {SQLITE_INTERRUPT, "SQLITE_INTERRUPT"},
        {SQLITE_IOERR, "SQLITE_IOERR"},
        {SQLITE_CORRUPT, "SQLITE_CORRUPT"},
        {SQLITE_FULL, "SQLITE_FULL"},
        {SQLITE_CANTOPEN, "SQLITE_CANTOPEN"},
        {SQLITE_TOOBIG, "SQLITE_TOOBIG"},
        {SQLITE_CONSTRAINT, "SQLITE_CONSTRAINT"},
        {SQLITE_NOTADB, "SQLITE_NOTADB"},
    };
    for (const auto& [code, name] : names)
        if (code == rc) return name;
    for (const auto& [code, name] : names)
        if (code == (rc & 0xff)) return std::string(name) + " (" + std::to_string(rc) + ")";
    return "SQLite code " + std::to_string(rc);
}

// Allows what a read needs and nothing else: no writes, no ATTACH, no
// PRAGMA, no transaction control, no recursive CTE, no extension loading.
int read_only_authorizer(void* /*self*/, int action, const char* /*a*/, const char* b,
                         const char* /*db*/, const char* /*trigger*/) {
    switch (action) {
        case SQLITE_SELECT:
        case SQLITE_READ:
            return SQLITE_OK;
        case SQLITE_FUNCTION:
            if (b != nullptr &&
                (strcasecmp(b, "load_extension") == 0 || strcasecmp(b, "fts3_tokenizer") == 0))
                return SQLITE_DENY;
            return SQLITE_OK;
        default:
            return SQLITE_DENY;
    }
}

// "file:" URI of `path` with the query `query`, for sqlite3_open_v2 with
// SQLITE_OPEN_URI: every byte but unreserved ones and "/" percent-encoded.
std::string file_uri(const std::string& path, const std::string& query) {
    static const char hex[] = "0123456789ABCDEF";
    std::string uri = "file:";
    for (unsigned char c : path) {
        if (std::isalnum(c) || std::strchr("/-._~", c) != nullptr) {
            uri += static_cast<char>(c);
        } else {
            uri += '%';
            uri += hex[c >> 4];
            uri += hex[c & 15];
        }
    }
    return uri + "?" + query;
}

// Stops a statement that runs too long: armed with a deadline before a
// statement runs and disarmed after it, it calls sqlite3_interrupt when the
// deadline passes while armed. SQLite's progress handler alone would not
// do: it is not called while one function (randomblob, a long LIKE) runs.
// One thread per instance, started on first use, that wakes only at
// deadlines: arming and disarming take a mutex and wake nobody.
class Watchdog {
public:
    Watchdog() = default;
    ~Watchdog() { stop(); }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

    void arm(::sqlite3* db, Clock::time_point deadline) {
        forget_if_forked();
        std::unique_lock<std::mutex> lock(mutex_);
        if (!thread_) {
            thread_ = std::make_unique<std::thread>([this] { run(); });
            owner_ = ::getpid();
        }
        db_ = db;
        deadline_ = deadline;
        fired_ = false;
        armed_ = true;
        if (idle_) wake_.notify_one();
    }
    // True when the deadline passed while armed (the statement was interrupted).
    bool disarm() {
        std::lock_guard<std::mutex> lock(mutex_);
        armed_ = false;
        db_ = nullptr;
        return fired_;
    }
    void stop() {
        forget_if_forked();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
            armed_ = false;
        }
        wake_.notify_one();
        if (thread_) thread_->join();
        thread_.reset();
        stopping_ = false;
    }

private:
    // A child process of fork has a copy of this object but not the thread
    // (and maybe a mutex that the thread held): it starts afresh.
    void forget_if_forked() {
        if (!thread_ || owner_ == ::getpid()) return;
        static_cast<void>(thread_.release());  // the parent's, not ours to join
        new (&mutex_) std::mutex();
        new (&wake_) std::condition_variable();
        armed_ = idle_ = stopping_ = false;
    }

    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stopping_) {
            if (!armed_) {
                idle_ = true;
                wake_.wait(lock);
                idle_ = false;
                continue;
            }
            if (Clock::now() >= deadline_) {
                sqlite3_interrupt(db_);  // under the mutex: disarm waits for it
                fired_ = true;
                armed_ = false;
                continue;
            }
            wake_.wait_until(lock, deadline_);
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::unique_ptr<std::thread> thread_;
    pid_t owner_ = 0;
    ::sqlite3* db_ = nullptr;
    Clock::time_point deadline_;
    bool armed_ = false;
    bool fired_ = false;
    bool idle_ = false;
    bool stopping_ = false;
};

class SqliteExtension final : public interface {
public:
    SqliteExtension() {
        // Operation 512: the latest "uname" row of every host.
        hosts_query = "SELECT *, MAX(Unique_timestamp) FROM " + table_view +
                      " WHERE Provider = 'uname' GROUP BY Hostname;";
    }
    ~SqliteExtension() override { close(); }
    SqliteExtension(const SqliteExtension&) = delete;
    SqliteExtension& operator=(const SqliteExtension&) = delete;

    bool is_open() override { return db_ != nullptr; }

    int32_t control(uint16_t op, const void* in, void* out, void* extra) override {
        if (op != SQLITE_BULK_INSERT) return interface::control(op, in, out, extra);
        try {
            if (in == nullptr) {
                VESK_SQLITE_LOG(kErrorLevel) << where() << "bulk insert without rows";
                return OPERATION_UNSUCCESSFULL;
            }
            return bulk_insert(*static_cast<const std::vector<InsertRecord>*>(in))
                       ? OPERATION_SUCCESSFULL
                       : OPERATION_UNSUCCESSFULL;
        } catch (...) {
            return OPERATION_UNSUCCESSFULL;
        }
    }

    int32_t open(const std::string& parameters) override;
    int32_t close() override;

    bool insert(const vesk::provider::header& header, const std::string& option_id,
                const std::string& std_out, const std::string& std_err) override;
    // An empty field map stands for the standard one of the record.
    bool select(std::string sql, std::vector<Row>& rows,
                const std::map<std::string, int>& fields) override {
        return run_select(sql, rows, fields.empty() ? row_field_index : fields, kRowFields);
    }
    bool select_from_baseline(std::string sql, std::vector<Row_baseline>& rows,
                              const std::map<std::string, int>& fields) override {
        return run_select(sql, rows, fields.empty() ? baseline_field_index : fields,
                          kBaselineFields);
    }
    bool update_snapshot(const std::map<std::string, ProviderInfoSet>& snapshots) override;
    bool remove_snapshot(const std::string& baseline_id) override;
    bool query_baseline_ids(SnapshotInfoSet& ids) override;

    // The builders of the base class quote names without escaping them: a
    // name with a quote could end the literal and add SQL of its own.
    bool select_provider(std::vector<std::string> providers, std::vector<Row>& rows,
                         std::string filter) override {
        if (!literal_safe(providers, "provider")) return false;
        return interface::select_provider(std::move(providers), rows, std::move(filter));
    }
    bool get_latest_rows_provider(std::vector<std::string> providers, std::vector<Row>& rows,
                                  std::vector<std::string> hosts) override {
        if (!literal_safe(providers, "provider") || !literal_safe(hosts, "host")) return false;
        return interface::get_latest_rows_provider(std::move(providers), rows, std::move(hosts));
    }
    bool get_latest_collect_rows(std::vector<std::string> providers, std::vector<Row>& rows,
                                 std::vector<std::string> hosts) override {
        if (!literal_safe(providers, "provider") || !literal_safe(hosts, "host")) return false;
        return interface::get_latest_collect_rows(std::move(providers), rows, std::move(hosts));
    }
    bool get_snapshot_provider(std::string baseline_id,
                               std::map<std::string, std::vector<Row>>& rows_by_provider,
                               std::map<std::string, std::vector<Row_baseline>>& baselines,
                               std::vector<std::string> providers,
                               std::vector<std::string> hosts) override {
        if (!literal_safe({baseline_id}, "snapshot") || !literal_safe(providers, "provider") ||
            !literal_safe(hosts, "host"))
            return false;
        return interface::get_snapshot_provider(std::move(baseline_id), rows_by_provider, baselines,
                                                std::move(providers), std::move(hosts));
    }

private:
    // "sqlite datastore "<instance>" (<file>): ", the start of every message.
    std::string where() const {
        return "sqlite datastore \"" + instance_name + "\" (" + path_ + "): ";
    }

    // What went wrong, from SQLite's answer `rc`: the cause first, SQLite's
    // own words and the code's name after it.
    std::string reason(int rc) const;

    bool fail_open(const std::string& why) {
        VESK_SQLITE_LOG(kErrorLevel) << where() << "cannot open: " << why;
        release();
        return false;
    }

    bool open_database(const std::string& parameters);
    int open_connection(bool immutable);
    bool configure_connection();
    bool use_wal();
    bool create_schema();
    bool prepare_statements();
    void release();

    // Runs `attempt` (which answers an SQLite code) again while it answers
    // SQLITE_BUSY or SQLITE_LOCKED, with growing jittered pauses, until
    // busy_timeout_ms have passed since the first attempt.
    template <typename Attempt>
    int retry_busy(Attempt&& attempt) {
        const auto deadline = Clock::now() + std::chrono::milliseconds(busy_timeout_ms_);
        deadline_ = deadline;
        in_call_ = true;
        int rc = SQLITE_OK;
        for (int n = 0;; ++n) {
            rc = attempt();
            if (!is_busy(rc) || closing_ || Clock::now() >= deadline) break;
            pause(n < 6 ? n : 6);
        }
        in_call_ = false;
        return rc;
    }
    void pause(int step);

    StmtPtr prepare(const std::string& sql, unsigned flags = 0) {
        sqlite3_stmt* stmt = nullptr;
        const int rc = retry_busy([&] {
            sqlite3_finalize(stmt);
            stmt = nullptr;
            return sqlite3_prepare_v3(db_.get(), sql.c_str(), static_cast<int>(sql.size()), flags,
                                      &stmt, nullptr);
        });
        if (rc != SQLITE_OK) {
            VESK_SQLITE_LOG(kErrorLevel)
                << where() << "cannot prepare \"" << sql << "\": " << reason(rc);
            sqlite3_finalize(stmt);
            return nullptr;
        }
        return StmtPtr(stmt);
    }

    // Steps a statement that returns no rows and resets it: SQLITE_DONE or
    // the code of the failure.
    static int step_reset(sqlite3_stmt* stmt) {
        int rc = sqlite3_step(stmt);
        if (rc == SQLITE_ROW) rc = SQLITE_DONE;
        const int reset = sqlite3_reset(stmt);
        return rc == SQLITE_DONE || reset == SQLITE_OK ? rc : reset;
    }

    bool exec(const std::string& sql, int* code = nullptr) {
        const int rc = retry_busy(
            [&] { return sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr); });
        if (code) *code = rc;
        if (rc == SQLITE_OK) return true;
        VESK_SQLITE_LOG(kErrorLevel) << where() << "\"" << sql << "\" failed: " << reason(rc);
        return false;
    }

    // Runs `body` (which answers SQLITE_OK or a failure code) in one
    // BEGIN IMMEDIATE transaction and commits it: all of its writes or none.
    // A busy answer anywhere rolls back and starts over.
    template <typename Body>
    int transaction(Body&& body) {
        return retry_busy([&] {
            int rc = step_reset(begin_.get());
            if (rc != SQLITE_DONE) return rc;
            rc = body();
            if (rc == SQLITE_OK) {
                rc = step_reset(commit_.get());
                if (rc == SQLITE_DONE) return SQLITE_OK;
            }
            if (!sqlite3_get_autocommit(db_.get())) step_reset(rollback_.get());
            return rc;
        });
    }

    bool writable(const char* what) {
        if (!db_) {
            VESK_SQLITE_LOG(kErrorLevel) << where() << what << ": the datastore is not open";
            return false;
        }
        if (read_only_) {
            VESK_SQLITE_LOG(kErrorLevel) << where() << what << ": the datastore is read-only";
            return false;
        }
        return true;
    }

    bool literal_safe(const std::vector<std::string>& names, const char* what) {
        for (const auto& name : names) {
            if (name.find('\'') == std::string::npos && name.find('\0') == std::string::npos)
                continue;
            VESK_SQLITE_LOG(kErrorLevel)
                << where() << "refused " << what << " name with a quote: " << name;
            return false;
        }
        return true;
    }

    // Empty when the row may be stored, else why not. Sets node_bytes_ to
    // the size of the joined node list.
    std::string check_row(const vesk::provider::header& header, const std::string& option_id,
                          const std::string& std_out, const std::string& std_err);
    // Binds one row straight from the caller's strings and steps the insert.
    int write_row(const vesk::provider::header& header, const std::string& option_id,
                  const std::string& std_out, const std::string& std_err);
    bool bulk_insert(const std::vector<InsertRecord>& records);

    template <typename Record>
    bool run_select(const std::string& sql, std::vector<Record>& out,
                    const std::map<std::string, int>& fields, int field_count);
    template <typename Record>
    int read_rows(sqlite3_stmt* stmt, const std::vector<int>& columns, std::vector<Record>& out,
                  size_t first);

    static int busy_wait(void* self, int attempt);

    // Declared before the statements, so that they are finalized first.
    DbPtr db_;
    StmtPtr insert_;
    StmtPtr begin_;
    StmtPtr commit_;
    StmtPtr rollback_;
    Watchdog watchdog_;

    std::string path_;
    std::string vfs_;
    bool read_only_ = false;
    bool immutable_ = false;
    bool closing_ = false;
    bool in_call_ = false;
    long long busy_timeout_ms_ = kDefaultBusyTimeoutMs;
    long long query_timeout_ms_ = kDefaultQueryTimeoutMs;
    long long max_result_bytes_ = kDefaultMaxResultBytes;
    long long length_limit_ = 0;
    Clock::time_point deadline_;  // of the call that is waiting
    unsigned random_ = 0;
    size_t node_bytes_ = 0;
    std::string node_text_;  // joined node list of the row being written
};

std::string SqliteExtension::reason(int rc) const {
    ::sqlite3* db = db_.get();
    const bool own = db != nullptr && sqlite3_extended_errcode(db) == rc;
    std::string text = own ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    const int sys = own ? sqlite3_system_errno(db) : 0;
    const std::string code = code_name(rc);
    const std::string system = sys != 0 ? std::string(", ") + std::strerror(sys) : "";
    switch (rc & 0xff) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return "the datastore stayed locked by another process for busy_timeout_ms (" +
                   std::to_string(busy_timeout_ms_) + " ms) (" + code + ")";
        case SQLITE_NOTADB:
            return "it is not an SQLite database (" + text + ", " + code + ")";
        case SQLITE_CORRUPT:
            return "the file is damaged: " + text + " (" + code +
                   "); PRAGMA integrity_check tells more";
        case SQLITE_CANTOPEN:
            return "cannot open the file or its journal: " + text + " (" + code + system + ")";
        case SQLITE_READONLY:
            return "cannot write the file or its folder: " + text + " (" + code + system +
                   "); open it with read_only=true to read it";
        case SQLITE_FULL:
            return "the disk is full: " + text + " (" + code + system + ")";
        case SQLITE_IOERR:
            return "I/O error: " + text + " (" + code + system + ")";
        case SQLITE_NOMEM:
            return "out of memory (" + code + ")";
        default:
            return text + " (" + code + ")";
    }
}

// ---- open and close ----

int32_t SqliteExtension::open(const std::string& parameters) {
    try {
        if (db_) close();
        return open_database(parameters) ? OPERATION_SUCCESSFULL : OPERATION_UNSUCCESSFULL;
    } catch (const std::exception& e) {
        fail_open(e.what());
    } catch (...) {
        fail_open("unexpected error");
    }
    return OPERATION_UNSUCCESSFULL;
}

bool SqliteExtension::open_database(const std::string& parameters) {
    read_only_ = immutable_ = false;
    path_.clear();
    std::map<std::string, std::string> values;
    if (const std::string why = checks::parse_parameters(parameters, known_keys(), values);
        !why.empty())
        return fail_open("bad parameters \"" + parameters + "\": " + why);
    auto value = [&values](const char* key, const std::string& fallback) {
        const auto found = values.find(key);
        return found == values.end() ? fallback : found->second;
    };
    auto number = [&value](const char* key, long long fallback) {
        const std::string text = value(key, "");
        return text.empty() ? fallback : std::stoll(text);
    };
    read_only_ = value("read_only", "false") == "true";
    busy_timeout_ms_ = number("busy_timeout_ms", kDefaultBusyTimeoutMs);
    query_timeout_ms_ = number("query_timeout_ms", kDefaultQueryTimeoutMs);
    max_result_bytes_ = number("max_result_bytes", kDefaultMaxResultBytes);
    const long long max_length = number("max_length", 0);
    vfs_ = value("vfs", "");

    std::string source = vesk::str::stripws(value("source", DEFAULT_DATA_SOURCE));
    if (source.size() >= 2 && source.front() == '"' && source.back() == '"')
        source = source.substr(1, source.size() - 2);
    path_ = vesk::str::wordexp(source);
    if (path_.empty()) return fail_open("no source file given");

    // What stands at the path is the file system's answer, not a guess at
    // SQLite's state: SQLite opens a folder or a device in ways that do not
    // name the fault.
    namespace fs = std::filesystem;
    std::error_code ec;
    struct stat st {};
    const bool existed = ::stat(path_.c_str(), &st) == 0;
    if (existed && S_ISDIR(st.st_mode)) return fail_open("it is a folder, not a file");
    if (existed && !S_ISREG(st.st_mode)) return fail_open("it is not a regular file");
    if (read_only_ && !existed) return fail_open("no such file (read-only datastore)");
    if (!read_only_) {
        const fs::path parent = fs::path(path_).parent_path();
        if (!parent.empty() && !fs::is_directory(parent, ec)) {
            fs::create_directories(parent, ec);
            if (ec)
                return fail_open("cannot create folder \"" + parent.string() +
                                 "\": " + ec.message());
        }
    }

    random_ = static_cast<unsigned>(::getpid()) * 2654435761u ^
              static_cast<unsigned>(reinterpret_cast<uintptr_t>(this));
    const int rc = open_connection(false);
    if (rc != SQLITE_OK) return fail_open(reason(rc));
    if (max_length > 0)
        sqlite3_limit(db_.get(), SQLITE_LIMIT_LENGTH,
                      static_cast<int>(std::min<long long>(max_length, 0x7fffffff)));
    length_limit_ = sqlite3_limit(db_.get(), SQLITE_LIMIT_LENGTH, -1);
    // A file that this call created stays even when a later step fails:
    // another process may have opened it in the meantime, and removing it
    // would take its rows away.
    return configure_connection() && (read_only_ || create_schema()) && prepare_statements();
}

int SqliteExtension::open_connection(bool immutable) {
    db_.reset();
    const int flags =
        (read_only_ ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
        SQLITE_OPEN_NOMUTEX | (immutable ? SQLITE_OPEN_URI : 0);
    const std::string name = immutable ? file_uri(path_, "immutable=1") : path_;
    ::sqlite3* raw = nullptr;
    const int rc =
        sqlite3_open_v2(name.c_str(), &raw, flags, vfs_.empty() ? nullptr : vfs_.c_str());
    db_.reset(raw);
    if (rc != SQLITE_OK) return rc;
    immutable_ = immutable;
    ::sqlite3* db = db_.get();
    sqlite3_extended_result_codes(db, 1);
    sqlite3_busy_handler(db, &SqliteExtension::busy_wait, this);
    return SQLITE_OK;
}

bool SqliteExtension::configure_connection() {
    ::sqlite3* db = db_.get();
    int on = 0;
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, &on);
    sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0, nullptr);
    sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);
    if (!on) return fail_open("this SQLite cannot turn on its defensive mode");

    // Read the schema now, before anything is written or created, so that a
    // file that is not a database fails here and is left as it was.
    const std::string check = "SELECT count(*) FROM sqlite_master;";
    int rc = retry_busy(
        [&] { return sqlite3_exec(db_.get(), check.c_str(), nullptr, nullptr, nullptr); });
    if (rc != SQLITE_OK && read_only_ && !immutable_ &&
        ((rc & 0xff) == SQLITE_READONLY || (rc & 0xff) == SQLITE_CANTOPEN) &&
        ::access(std::filesystem::path(path_).parent_path().c_str(), W_OK) != 0) {
        // A WAL file in a folder this process cannot write, without a -shm
        // file to share: nobody can write that file, so reading it as
        // immutable sees all there is.
        const std::string first = reason(rc);
        rc = open_connection(true);
        if (rc == SQLITE_OK) return configure_connection();
        return fail_open(first);
    }
    if (rc != SQLITE_OK) return fail_open(reason(rc));
    if (read_only_) return exec("PRAGMA query_only = ON;") || fail_open("cannot set query_only");
    return use_wal() &&
           (exec("PRAGMA synchronous = NORMAL;") || fail_open("cannot set synchronous"));
}

bool SqliteExtension::use_wal() {
    std::string mode;
    const int rc = retry_busy([&] {
        // The schema read first: after another process switched the file,
        // it makes this connection see the new mode.
        int code = sqlite3_exec(db_.get(), "SELECT count(*) FROM sqlite_master;", nullptr, nullptr,
                                nullptr);
        if (code != SQLITE_OK) return code;
        sqlite3_stmt* raw = nullptr;
        code = sqlite3_prepare_v2(db_.get(), "PRAGMA journal_mode = WAL;", -1, &raw, nullptr);
        StmtPtr wal(raw);
        if (code != SQLITE_OK) return code;
        code = sqlite3_step(wal.get());
        if (code != SQLITE_ROW) return code;
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(wal.get(), 0));
        mode = text ? text : "";
        // An in-memory database (":memory:") keeps its journal in memory;
        // any other answer means the switch did not happen yet.
        return strcasecmp(mode.c_str(), "wal") == 0 || strcasecmp(mode.c_str(), "memory") == 0
                   ? SQLITE_OK
                   : SQLITE_BUSY;
    });
    if (rc == SQLITE_OK) return true;
    if (is_busy(rc) && !mode.empty())
        return fail_open("cannot switch to WAL within busy_timeout_ms (" +
                         std::to_string(busy_timeout_ms_) + " ms), journal mode stays " + mode);
    return fail_open("cannot switch to WAL: " + reason(rc));
}

bool SqliteExtension::create_schema() {
    // The indexes serve the queries of the base class: the latest row per
    // provider and host, the newest collection run, a provider's rows and
    // the rows of a snapshot.
    const std::string statements =
        default_create_table_query + default_create_baseline_query + default_create_view_query +
        "CREATE INDEX IF NOT EXISTS provider_datastore_latest ON " + table_name +
        "(Provider, Hostname, OptionID, Unique_timestamp);"
        "CREATE INDEX IF NOT EXISTS provider_datastore_run ON " +
        table_name +
        "(Unique_timestamp, Provider);"
        "CREATE INDEX IF NOT EXISTS baseline_datastore_id ON " +
        table_baseline + "(baseline_id, datastore_rowid);";
    const int rc = retry_busy([&] {
        const std::string sql = "BEGIN IMMEDIATE;" + statements + "COMMIT;";
        int code = sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr);
        if (code != SQLITE_OK && !sqlite3_get_autocommit(db_.get()))
            sqlite3_exec(db_.get(), "ROLLBACK;", nullptr, nullptr, nullptr);
        return code;
    });
    return rc == SQLITE_OK || fail_open("cannot create the schema: " + reason(rc));
}

bool SqliteExtension::prepare_statements() {
    if (read_only_) return true;
    insert_ = prepare("INSERT INTO " + table_name +
                          "(Provider, Hostname, num_nodes, node_names, Exit_status, Timestamp, "
                          "Duration, Encoding, STDOUT, STDERR, OptionID, version, Username, "
                          "Unique_timestamp) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, "
                          "?11, ?12, ?13, ?14);",
                      SQLITE_PREPARE_PERSISTENT);
    begin_ = prepare("BEGIN IMMEDIATE;", SQLITE_PREPARE_PERSISTENT);
    commit_ = prepare("COMMIT;", SQLITE_PREPARE_PERSISTENT);
    rollback_ = prepare("ROLLBACK;", SQLITE_PREPARE_PERSISTENT);
    if (insert_ && begin_ && commit_ && rollback_) return true;
    return fail_open("cannot prepare the write statements");
}

void SqliteExtension::release() {
    watchdog_.stop();
    insert_.reset();
    begin_.reset();
    commit_.reset();
    rollback_.reset();
    db_.reset();
}

int32_t SqliteExtension::close() {
    if (!db_) return OPERATION_SUCCESSFULL;
    if (!read_only_) {
        // Never wait here. The file stays in WAL (see the top of the file).
        closing_ = true;
        // Refreshes the planner's statistics where this connection's
        // queries would profit; analysis_limit keeps that quick on big files.
        sqlite3_exec(db_.get(), "PRAGMA analysis_limit = 1000; PRAGMA optimize;", nullptr, nullptr,
                     nullptr);
        closing_ = false;
    }
    release();
    return OPERATION_SUCCESSFULL;
}

void SqliteExtension::pause(int step) {
    // Short sleeps that grow to 3.2 ms, with jitter so that waiting
    // processes do not wake in step; a long sleep would miss the brief
    // moments in which the lock is free.
    random_ = random_ * 1103515245u + 12345u;
    const long cap_us = 50L << step;
    const long sleep_us = cap_us / 2 + static_cast<long>((random_ >> 8) % (cap_us / 2 + 1));
    timespec pause{0, sleep_us * 1000};
    ::nanosleep(&pause, nullptr);
}

int SqliteExtension::busy_wait(void* self, int attempt) {
    auto* ext = static_cast<SqliteExtension*>(self);
    if (ext->closing_) return 0;
    const auto now = Clock::now();
    // Outside retry_busy (never expected) a wait gets a deadline of its own.
    if (attempt == 0 && !ext->in_call_)
        ext->deadline_ = now + std::chrono::milliseconds(ext->busy_timeout_ms_);
    if (now >= ext->deadline_) return 0;
    ext->pause(attempt < 5 ? attempt : 5);
    return 1;
}

// ---- writes ----

std::string SqliteExtension::check_row(const vesk::provider::header& header,
                                       const std::string& option_id, const std::string& std_out,
                                       const std::string& std_err) {
    size_t node_bytes = 0;
    if (std::string why = checks::row_problem(header, option_id, std_out, std_err, node_bytes);
        !why.empty())
        return why;
    node_bytes_ = node_bytes;
    const long long total = static_cast<long long>(header.provider.size() + header.hostname.size() +
                                                   node_bytes + std_out.size() + std_err.size() +
                                                   option_id.size() + header.username.size()) +
                            kRowOverhead;
    if (total > length_limit_)
        return "row of about " + std::to_string(total) +
               " bytes exceeds SQLite's length limit of " + std::to_string(length_limit_) +
               " bytes (SQLITE_LIMIT_LENGTH)";
    return "";
}

int SqliteExtension::write_row(const vesk::provider::header& header, const std::string& option_id,
                               const std::string& std_out, const std::string& std_err) {
    sqlite3_stmt* stmt = insert_.get();
    node_text_.clear();
    for (size_t i = 0; i < header.node_names.size(); ++i) {
        if (i) node_text_ += ", ";
        node_text_ += header.node_names[i];
    }
    auto text = [stmt](int index, const std::string& value) {
        sqlite3_bind_text(stmt, index, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
    };
    text(1, header.provider);
    text(2, header.hostname);
    sqlite3_bind_int(stmt, 3, header.num_nodes);
    text(4, node_text_);
    sqlite3_bind_int(stmt, 5, header.exit_status);
    sqlite3_bind_int64(stmt, 6, header.timestamp);
    sqlite3_bind_double(stmt, 7, header.duration);
    sqlite3_bind_int(stmt, 8, static_cast<int>(header.encoding));
    text(9, std_out);
    text(10, std_err);
    text(11, option_id);
    sqlite3_bind_int(stmt, 12, header.version);
    text(13, header.username);
    sqlite3_bind_int64(stmt, 14, header.unique_timestamp);
    return step_reset(stmt);
}

bool SqliteExtension::insert(const vesk::provider::header& header, const std::string& option_id,
                             const std::string& std_out, const std::string& std_err) {
    if (!writable("insert")) return false;
    if (const std::string why = check_row(header, option_id, std_out, std_err); !why.empty()) {
        VESK_SQLITE_LOG(kErrorLevel) << where() << "refused row of provider \"" << header.provider
                                     << "\", host \"" << header.hostname << "\": " << why;
        return false;
    }
    // One autocommit statement: it takes the write lock before it reads, and
    // a busy answer leaves nothing behind, so it is simply run again.
    const int rc = retry_busy([&] { return write_row(header, option_id, std_out, std_err); });
    if (rc == SQLITE_DONE) return true;
    VESK_SQLITE_LOG(kErrorLevel) << where() << "insert failed, nothing written: " << reason(rc)
                                 << (rc == SQLITE_TOOBIG ? " (SQLITE_LIMIT_LENGTH)" : "");
    return false;
}

bool SqliteExtension::bulk_insert(const std::vector<InsertRecord>& records) {
    if (!writable("bulk insert")) return false;
    for (size_t i = 0; i < records.size(); ++i) {
        const auto& r = records[i];
        if (const std::string why = check_row(r.header, r.option_id, r.std_out, r.std_err);
            !why.empty()) {
            VESK_SQLITE_LOG(kErrorLevel) << where() << "refused bulk insert of " << records.size()
                                         << " rows, row " << i << ": " << why;
            return false;
        }
    }
    if (records.empty()) return true;
    const int rc = transaction([&] {
        for (const auto& r : records) {
            const int code = write_row(r.header, r.option_id, r.std_out, r.std_err);
            if (code != SQLITE_DONE) return code;
        }
        return SQLITE_OK;
    });
    if (rc == SQLITE_OK) return true;
    VESK_SQLITE_LOG(kErrorLevel) << where() << "bulk insert of " << records.size()
                                 << " rows failed, nothing written: " << reason(rc);
    return false;
}

// ---- snapshots ----

bool SqliteExtension::update_snapshot(const std::map<std::string, ProviderInfoSet>& snapshots) {
    if (!writable("snapshot update")) return false;
    for (const auto& [id, entries] : snapshots) {
        if (vesk::str::stripws(id).empty() || !literal_safe({id}, "snapshot")) {
            VESK_SQLITE_LOG(kErrorLevel)
                << where() << "refused snapshot update: bad id \"" << id << "\"";
            return false;
        }
    }
    StmtPtr exists = prepare("SELECT 1 FROM " + table_name + " WHERE rowid = ?1;");
    StmtPtr update = prepare("UPDATE " + table_baseline +
                             " SET fwd_name = ?3, provider_checksum = ?4, command_checksum = ?5"
                             " WHERE baseline_id = ?1 AND datastore_rowid = ?2;");
    StmtPtr add = prepare("INSERT INTO " + table_baseline +
                          "(baseline_id, datastore_rowid, fwd_name, provider_checksum, "
                          "command_checksum) VALUES(?1, ?2, ?3, ?4, ?5);");
    if (!exists || !update || !add) return false;
    std::string refusal;
    const int rc = transaction([&] {
        for (const auto& [id, entries] : snapshots) {
            for (const auto& entry : entries) {
                sqlite3_bind_int(exists.get(), 1, entry.rowid);
                int found = sqlite3_step(exists.get());
                if (found == SQLITE_ROW) found = SQLITE_OK;
                const int reset = sqlite3_reset(exists.get());
                if (found == SQLITE_DONE) {
                    refusal = "refused snapshot \"" + id + "\": row " +
                              std::to_string(entry.rowid) + " does not exist";
                    return kRefused;
                }
                if (found != SQLITE_OK) return reset != SQLITE_OK ? reset : found;
                const auto* config = entry.config.get();
                for (sqlite3_stmt* stmt : {update.get(), add.get()}) {
                    sqlite3_bind_text(stmt, 1, id.data(), static_cast<int>(id.size()),
                                      SQLITE_STATIC);
                    sqlite3_bind_int(stmt, 2, entry.rowid);
                    auto bind = [stmt, config](int index,
                                               const std::string vesk::provider_config::*f) {
                        if (config == nullptr)
                            sqlite3_bind_null(stmt, index);
                        else
                            sqlite3_bind_text(stmt, index, (config->*f).data(),
                                              static_cast<int>((config->*f).size()), SQLITE_STATIC);
                    };
                    bind(3, &vesk::provider_config::fwd_name);
                    bind(4, &vesk::provider_config::provider_checksum);
                    bind(5, &vesk::provider_config::command_checksum);
                    const int code = step_reset(stmt);
                    if (code != SQLITE_DONE) return code;
                    if (stmt == update.get() && sqlite3_changes(db_.get()) > 0) break;
                }
            }
        }
        return SQLITE_OK;
    });
    if (rc == SQLITE_OK) return true;
    if (rc == kRefused)
        VESK_SQLITE_LOG(kErrorLevel) << where() << refusal;
    else
        VESK_SQLITE_LOG(kErrorLevel)
            << where() << "snapshot update failed, nothing written: " << reason(rc);
    return false;
}

bool SqliteExtension::remove_snapshot(const std::string& baseline_id) {
    if (!writable("snapshot removal")) return false;
    StmtPtr remove = prepare("DELETE FROM " + table_baseline + " WHERE baseline_id = ?1;");
    if (!remove) return false;
    sqlite3_bind_text(remove.get(), 1, baseline_id.data(), static_cast<int>(baseline_id.size()),
                      SQLITE_STATIC);
    const int rc = retry_busy([&] { return step_reset(remove.get()); });
    if (rc != SQLITE_DONE) {
        VESK_SQLITE_LOG(kErrorLevel) << where() << "removal of snapshot \"" << baseline_id
                                     << "\" failed, nothing removed: " << reason(rc);
        return false;
    }
    if (sqlite3_changes(db_.get()) > 0) return true;
    VESK_SQLITE_LOG(kInfoLevel) << where() << "no snapshot \"" << baseline_id << "\" to remove";
    return false;
}

bool SqliteExtension::query_baseline_ids(SnapshotInfoSet& ids) {
    if (!db_) return false;
    StmtPtr list = prepare("SELECT b.baseline_id, MAX(p.Unique_timestamp) FROM " + table_baseline +
                           " AS b LEFT JOIN " + table_name +
                           " AS p ON p.rowid = b.datastore_rowid GROUP BY b.baseline_id;");
    if (!list) return false;
    SnapshotInfoSet found;
    const int rc = retry_busy([&] {
        found.clear();
        int step;
        while ((step = sqlite3_step(list.get())) == SQLITE_ROW) {
            const auto* id = reinterpret_cast<const char*>(sqlite3_column_text(list.get(), 0));
            const int size = sqlite3_column_bytes(list.get(), 0);
            found.insert(
                SnapshotInfo{id ? std::string(id, static_cast<size_t>(size)) : std::string(),
                             sqlite3_column_int64(list.get(), 1)});
        }
        sqlite3_reset(list.get());
        return step;
    });
    if (rc == SQLITE_DONE) {
        ids.insert(found.begin(), found.end());
        return true;
    }
    VESK_SQLITE_LOG(kErrorLevel) << where() << "listing snapshots failed: " << reason(rc);
    return false;
}

// ---- reads ----

// Steps `stmt` to its end, appending its rows to `out`: SQLITE_DONE, a
// failure code, or SQLITE_TOOBIG when the rows read so far take more than
// max_result_bytes.
template <typename Record>
int SqliteExtension::read_rows(sqlite3_stmt* stmt, const std::vector<int>& columns,
                               std::vector<Record>& out, size_t first) {
    // Counted from the records read (asking SQLite for every column's size
    // again would cost as much as reading the row).
    size_t bytes = 0;
    for (size_t i = first; i < out.size(); ++i) bytes += checks::record_bytes(out[i]);
    const auto limit = static_cast<size_t>(max_result_bytes_);
    int step;
    while ((step = sqlite3_step(stmt)) == SQLITE_ROW) {
        out.emplace_back();
        sqlite_ext::read_row(stmt, columns, out.back());
        bytes += checks::record_bytes(out.back());
        if (bytes > limit) return SQLITE_TOOBIG;
    }
    return step;
}

template <typename Record>
bool SqliteExtension::run_select(const std::string& sql, std::vector<Record>& out,
                                 const std::map<std::string, int>& fields, int field_count) {
    if (!db_) {
        VESK_SQLITE_LOG(kErrorLevel) << where() << "select: the datastore is not open";
        return false;
    }
    ::sqlite3* db = db_.get();
    const size_t first = out.size();
    const size_t capacity = out.capacity();
    // The authorizer is consulted while the statement is prepared (and
    // prepared again after a schema change), so it stays on until the end;
    // the watchdog is disarmed before anything else happens to the
    // connection.
    struct Guard {
        ::sqlite3* db;
        Watchdog& watchdog;
        bool fired = false;
        ~Guard() {
            fired = watchdog.disarm();
            sqlite3_set_authorizer(db, nullptr, nullptr);
        }
    };
    StmtPtr stmt;
    int step = SQLITE_OK;
    bool interrupted = false;
    try {
        Guard guard{db, watchdog_};
        sqlite3_set_authorizer(db, &read_only_authorizer, nullptr);
        sqlite3_stmt* raw = nullptr;
        const char* tail = nullptr;
        const int rc = retry_busy([&] {
            sqlite3_finalize(raw);
            raw = nullptr;
            return sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size()), 0, &raw,
                                      &tail);
        });
        stmt.reset(raw);
        if (rc != SQLITE_OK) {
            VESK_SQLITE_LOG(kErrorLevel)
                << where() << "refused statement: " << reason(rc) << ": " << sql;
            return false;
        }
        if (!stmt) {
            VESK_SQLITE_LOG(kErrorLevel) << where() << "refused statement: it is empty";
            return false;
        }
        if (!is_blank(tail)) {
            VESK_SQLITE_LOG(kErrorLevel)
                << where() << "refused statement: text after the first statement: " << sql;
            return false;
        }
        if (!sqlite3_stmt_readonly(stmt.get())) {
            VESK_SQLITE_LOG(kErrorLevel) << where() << "refused statement: it writes: " << sql;
            return false;
        }

        const std::vector<int> columns = sqlite_ext::map_columns(stmt.get(), fields, field_count);
        watchdog_.arm(db, Clock::now() + std::chrono::milliseconds(query_timeout_ms_));
        step = retry_busy([&] {
            out.resize(first);
            const int code = read_rows(stmt.get(), columns, out, first);
            sqlite3_reset(stmt.get());
            return code;
        });
        interrupted = watchdog_.disarm();
    } catch (...) {
        // Out of memory, most likely: the caller gets back what it had.
        interrupted = watchdog_.disarm();
        out.resize(first);
        step = SQLITE_NOMEM;
    }
    if (step == SQLITE_DONE) return true;
    out.resize(first);  // all of the answer or nothing
    // The room the rows took goes back too: after running out of memory
    // the message below needs some.
    if (out.capacity() > capacity) out.shrink_to_fit();
    try {
        if ((step & 0xff) == SQLITE_INTERRUPT || interrupted)
            VESK_SQLITE_LOG(kErrorLevel) << where() << "statement stopped after query_timeout_ms ("
                                         << query_timeout_ms_ << " ms): " << sql;
        else if (step == SQLITE_TOOBIG)
            VESK_SQLITE_LOG(kErrorLevel)
                << where() << "answer exceeds max_result_bytes (" << max_result_bytes_
                << " bytes); narrow the statement or raise the limit: " << sql;
        else
            VESK_SQLITE_LOG(kErrorLevel)
                << where() << "select failed: " << reason(step) << ": " << sql;
    } catch (...) {
    }
    return false;
}

}  // namespace
}  // namespace vesk::datastore

extern "C" VESK_EXTENSION_ENTRY vesk::datastore::DataStoreExtension* create() noexcept {
    try {
        return new vesk::datastore::SqliteExtension();
    } catch (...) {
        return nullptr;
    }
}

extern "C" VESK_EXTENSION_ENTRY void destroy(
    vesk::datastore::DataStoreExtension* instance) noexcept {
    delete instance;
}
