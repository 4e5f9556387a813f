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
#include "vesk/datastore/sql/checks.h"
#include "vesk/datastore/sql/sql_extension.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/log.h"
#include "vesk/str.h"

#include "sqlite_connection.h"
#include "sqlite_keys.h"

namespace vesk::datastore {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kErrorLevel = 3;
constexpr long long kDefaultBusyTimeoutMs = 60000;
constexpr long long kDefaultQueryTimeoutMs = 60000;
constexpr long long kDefaultMaxResultBytes = 4LL << 30;
// SQLite counts the bytes of a stored row a little beyond its values.
constexpr long long kRowOverhead = 128;

#define VESK_SQLITE_LOG(level) vesk::log::ErrorLog(__FILE__, __func__, __LINE__, level).stream()

using sqlite_backend::known_keys;

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

class SqliteExtension final : public sql::SqlExtension {
public:
    SqliteExtension() : sql::SqlExtension(sql::default_dialect()) {}
    ~SqliteExtension() override { close(); }
    SqliteExtension(const SqliteExtension&) = delete;
    SqliteExtension& operator=(const SqliteExtension&) = delete;

    bool is_open() override { return db_ != nullptr; }
    int32_t open(const std::string& parameters) override;
    int32_t close() override;

protected:
    sql::Connection* connection() override { return connection_.get(); }
    bool read_only() const override { return read_only_; }
    // "sqlite datastore "<instance>" (<file>): ", the start of every message.
    std::string where() const override {
        return "sqlite datastore \"" + instance_name + "\" (" + path_ + "): ";
    }
    Outcome attempt(const std::function<Outcome()>& work) override {
        Outcome outcome = Outcome::failed;
        retry_busy([&] {
            outcome = work();
            return outcome == Outcome::failed
                       ? static_cast<int>(connection_->last_error().native_code)
                       : SQLITE_OK;
        });
        return outcome;
    }
    std::string describe(const sql::Error& error) const override {
        const int rc = static_cast<int>(error.native_code);
        return reason(rc) + (rc == SQLITE_TOOBIG ? " (SQLITE_LIMIT_LENGTH)" : "");
    }
    std::string row_size_problem(size_t bytes) const override {
        const long long total = static_cast<long long>(bytes) + kRowOverhead;
        if (total <= length_limit_) return "";
        return "row of about " + std::to_string(total) +
               " bytes exceeds SQLite's length limit of " + std::to_string(length_limit_) +
               " bytes (SQLITE_LIMIT_LENGTH)";
    }
    std::unique_ptr<sql::Statement> prepare_query(const std::string& sql) override;
    void start_query() override {
        watchdog_.arm(db_.get(), Clock::now() + std::chrono::milliseconds(query_timeout_ms_));
    }
    bool end_query() override {
        // The authorizer is consulted while the statement is prepared (and
        // prepared again after a schema change), so it stays on until the
        // end; the watchdog is disarmed before anything else happens to the
        // connection.
        const bool fired = watchdog_.disarm();
        if (db_) sqlite3_set_authorizer(db_.get(), nullptr, nullptr);
        return fired ||
               (connection_ && (connection_->last_error().native_code & 0xff) == SQLITE_INTERRUPT);
    }
    std::string time_limit_text() const override {
        return "statement stopped after query_timeout_ms (" + std::to_string(query_timeout_ms_) +
               " ms)";
    }

private:
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
    bool set_checkpoint_size();
    bool create_schema();
    int schema_complete(bool& complete);
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

    bool exec(const std::string& sql, int* code = nullptr) {
        const int rc = retry_busy(
            [&] { return sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr); });
        if (code) *code = rc;
        if (rc == SQLITE_OK) return true;
        VESK_SQLITE_LOG(kErrorLevel) << where() << "\"" << sql << "\" failed: " << reason(rc);
        return false;
    }

    static int busy_wait(void* self, int attempt);

    // Declared before the connection, so that it is closed last.
    DbPtr db_;
    std::unique_ptr<sqlite_ext::SqliteConnection> connection_;
    Watchdog watchdog_;

    std::string path_;
    std::string vfs_;
    bool read_only_ = false;
    bool immutable_ = false;
    bool closing_ = false;
    bool in_call_ = false;
    long long busy_timeout_ms_ = kDefaultBusyTimeoutMs;
    long long query_timeout_ms_ = kDefaultQueryTimeoutMs;
    long long length_limit_ = 0;
    Clock::time_point deadline_;  // of the call that is waiting
    unsigned random_ = 0;
};

// The caller's statement, prepared under the read-only authorizer: exactly
// one statement, and one that does not write.
std::unique_ptr<sql::Statement> SqliteExtension::prepare_query(const std::string& sql) {
    ::sqlite3* db = db_.get();
    sqlite3_set_authorizer(db, &read_only_authorizer, nullptr);
    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    const int rc = retry_busy([&] {
        sqlite3_finalize(raw);
        raw = nullptr;
        return sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size()), 0, &raw, &tail);
    });
    if (rc != SQLITE_OK) {
        sqlite3_finalize(raw);
        VESK_SQLITE_LOG(kErrorLevel)
            << where() << "refused statement: " << reason(rc) << ": " << sql;
        return nullptr;
    }
    if (raw == nullptr) {
        VESK_SQLITE_LOG(kErrorLevel) << where() << "refused statement: it is empty";
        return nullptr;
    }
    std::unique_ptr<sql::Statement> stmt = sqlite_ext::wrap(*connection_, raw);
    if (!is_blank(tail)) {
        VESK_SQLITE_LOG(kErrorLevel)
            << where() << "refused statement: text after the first statement: " << sql;
        return nullptr;
    }
    if (!sqlite3_stmt_readonly(raw)) {
        VESK_SQLITE_LOG(kErrorLevel) << where() << "refused statement: it writes: " << sql;
        return nullptr;
    }
    return stmt;
}

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
    if (const std::string why = sql::checks::parse_parameters(parameters, known_keys(), values);
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
    return configure_connection() && (read_only_ || create_schema());
}

int SqliteExtension::open_connection(bool immutable) {
    connection_.reset();
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
    connection_ = std::make_unique<sqlite_ext::SqliteConnection>(db);
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
           (exec("PRAGMA synchronous = NORMAL;") || fail_open("cannot set synchronous")) &&
           set_checkpoint_size();
}

// A writer folds the write-ahead log into the file once it holds 16,384
// pages (64 MiB at the default page size) rather than SQLite's 1,000. An
// import commits batches of tens of megabytes; with the default every
// commit was followed by a checkpoint that copied its pages into the file
// and synced it, index pages the batch before had rewritten included. The
// log is cut back to 64 MiB when a checkpoint lets it start over, so one
// large transaction does not leave a large file behind.
bool SqliteExtension::set_checkpoint_size() {
    return (exec("PRAGMA wal_autocheckpoint = 16384;") &&
            exec("PRAGMA journal_size_limit = 67108864;")) ||
           fail_open("cannot set the size of the write-ahead log");
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

// Whether the file holds every object of the schema. A read like any other,
// which in WAL mode waits for no writer.
int SqliteExtension::schema_complete(bool& complete) {
    const std::vector<std::string> names = dialect_.schema_object_names();
    std::string sql = "SELECT count(*) FROM sqlite_master WHERE name IN (";
    for (size_t i = 0; i < names.size(); ++i) sql += (i ? ", '" : "'") + names[i] + "'";
    sql += ");";
    sqlite3_stmt* raw = nullptr;
    int code = sqlite3_prepare_v2(db_.get(), sql.c_str(), -1, &raw, nullptr);
    StmtPtr statement(raw);
    if (code != SQLITE_OK) return code;
    code = sqlite3_step(statement.get());
    if (code != SQLITE_ROW) return code;
    complete = sqlite3_column_int64(statement.get(), 0) == static_cast<int64_t>(names.size());
    return SQLITE_OK;
}

bool SqliteExtension::create_schema() {
    // Nearly every open finds the schema complete and so takes no write
    // lock: it would wait for any writer of the moment, readers included.
    bool complete = false;
    if (retry_busy([&] { return schema_complete(complete); }) == SQLITE_OK && complete) return true;
    std::string statements;
    for (const std::string& sql : dialect_.create_statements()) statements += sql;
    const int rc = retry_busy([&] {
        const std::string sql = "BEGIN IMMEDIATE;" + statements + "COMMIT;";
        int code = sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr);
        if (code != SQLITE_OK && !sqlite3_get_autocommit(db_.get()))
            sqlite3_exec(db_.get(), "ROLLBACK;", nullptr, nullptr, nullptr);
        return code;
    });
    return rc == SQLITE_OK || fail_open("cannot create the schema: " + reason(rc));
}

void SqliteExtension::release() {
    watchdog_.stop();
    release_statements();
    connection_.reset();
    db_.reset();
}

int32_t SqliteExtension::close() {
    if (!db_) return OPERATION_SUCCESSFULL;
    if (!read_only_ && sqlite3_total_changes(db_.get()) > 0) {
        // Never wait here. The file stays in WAL (see the top of the file).
        closing_ = true;
        // Refreshes the planner's statistics where this connection's
        // queries would profit; analysis_limit keeps that quick on big files.
        // Only after rows were written: a connection that only read leaves
        // the file alone (statistics do not change without writes, and an
        // index that holds no entry, like the one of failed rows in a
        // healthy store, never gets a statistics row, so every close would
        // analyse and write again, and readers would become writers).
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
