// The SQLite extension: an interface-derived datastore over one SQLite file.
//
// One instance holds one connection. Writers share the file through WAL
// with synchronous=NORMAL (no committed row is lost when a process dies; a
// power cut may lose the last transactions but never corrupts the file).
// When the last writer closes, the file goes back to the rollback journal,
// so that a read-only reader later opens it without creating any side file.
//
// Safety: every multi-statement write begins with BEGIN IMMEDIATE (a plain
// BEGIN that reads first fails at once with "database is locked" when
// another writer got in between), a single INSERT or DELETE runs in
// autocommit mode, which takes the write lock as its first step; a busy
// handler with short, jittered sleeps waits for other writers up to
// busy_timeout_ms. The connection is defensive (SQLITE_DBCONFIG_DEFENSIVE,
// trusted_schema off, no extension loading, no ATTACH). select runs exactly
// one statement that does not write, under an authorizer that allows reads
// only and a progress handler that stops it after query_timeout_ms. Names
// that the base class places into SQL text unescaped (providers, hosts,
// snapshot ids) are refused when they contain a quote.
#include "vesk/datastore/sqlite_extension.h"

#include <cctype>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <strings.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <vector>

#include <sqlite3.h>

#include "vesk/datastore/interface.h"
#include "vesk/datastore/parameter_pack.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/log.h"
#include "vesk/str.h"

#include "row_reader.h"

namespace vesk::datastore {
namespace {

using Clock = std::chrono::steady_clock;
using sqlite_ext::kBaselineFields;
using sqlite_ext::kRowFields;

constexpr int kErrorLevel = 3;
constexpr int kInfoLevel = 6;
constexpr long kDefaultBusyTimeoutMs = 60000;
constexpr long kDefaultQueryTimeoutMs = 60000;
// SQLite counts the bytes of a stored row a little beyond its values.
constexpr long long kRowOverhead = 128;

#define VESK_SQLITE_LOG(level) vesk::log::ErrorLog(__FILE__, __func__, __LINE__, level).stream()

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

// Reads an optional non-negative number of milliseconds from the parameter
// string; false for a malformed value.
bool read_number(const std::string& parameters, const std::string& key, long long& value) {
    for (const auto& item : vesk::str::split(parameters, '|', true)) {
        const auto pieces = vesk::str::split(item, '=', true);
        if (pieces.size() != 2 || vesk::str::stripws(pieces[0]) != key) continue;
        const std::string text = vesk::str::stripws(pieces[1]);
        if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
            text.size() > 12)
            return false;
        value = std::stoll(text);
    }
    return true;
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

// First bytes of every SQLite database file.
constexpr char kMagic[] = "SQLite format 3";

// Looks at an existing file before SQLite does, to name the fault exactly:
// empty when it may be opened, else the reason. A file with a hot rollback
// journal beside it is left to SQLite, which repairs it.
std::string precheck_file(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return "";
    if (S_ISDIR(st.st_mode)) return "it is a folder, not a file";
    if (!S_ISREG(st.st_mode)) return "it is not a regular file";
    if (st.st_size == 0) return "";
    struct stat journal {};
    if (::stat((path + "-journal").c_str(), &journal) == 0) return "";
    unsigned char header[100] = {};
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::string("cannot read it: ") + std::strerror(errno);
    in.read(reinterpret_cast<char*>(header), sizeof header);
    if (in.gcount() < static_cast<std::streamsize>(sizeof header) ||
        std::memcmp(header, kMagic, sizeof kMagic) != 0)
        return "it is not an SQLite database (bad header)";
    // Page size (bytes 16-17, 1 means 65536) and the page count (28-31),
    // valid when the change counter (24-27) equals bytes 92-95.
    unsigned long page_size = (header[16] << 8) | header[17];
    if (page_size == 1) page_size = 65536;
    auto be32 = [&](int at) {
        return (static_cast<unsigned long>(header[at]) << 24) | (header[at + 1] << 16) |
               (header[at + 2] << 8) | header[at + 3];
    };
    const unsigned long pages = be32(28);
    if (pages != 0 && be32(24) == be32(92)) {
        const unsigned long long expected = static_cast<unsigned long long>(pages) * page_size;
        if (static_cast<unsigned long long>(st.st_size) < expected)
            return "it is truncated (" + std::to_string(st.st_size) + " bytes, its header says " +
                   std::to_string(expected) + ")";
    }
    return "";
}

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
    // Begins a write transaction on construction (ok() tells whether it
    // did) and rolls it back on destruction unless commit() succeeded.
    class WriteTransaction {
    public:
        explicit WriteTransaction(SqliteExtension& ext) : ext_(ext) {
            ok_ = ext_.step_once(ext_.begin_.get(), "BEGIN IMMEDIATE");
        }
        ~WriteTransaction() {
            if (ok_ && !committed_) {
                sqlite3_step(ext_.rollback_.get());
                sqlite3_reset(ext_.rollback_.get());
            }
        }
        WriteTransaction(const WriteTransaction&) = delete;
        WriteTransaction& operator=(const WriteTransaction&) = delete;
        bool ok() const { return ok_; }
        bool commit() {
            committed_ = ext_.step_once(ext_.commit_.get(), "COMMIT");
            return committed_;
        }

    private:
        SqliteExtension& ext_;
        bool ok_ = false;
        bool committed_ = false;
    };

    // "sqlite datastore "<instance>" (<file>): ", the start of every message.
    std::string where() const {
        return "sqlite datastore \"" + instance_name + "\" (" + path_ + "): ";
    }

    bool fail_open(const std::string& reason) {
        VESK_SQLITE_LOG(kErrorLevel) << where() << "cannot open: " << reason;
        release();
        return false;
    }

    bool open_database(const std::string& parameters);
    bool configure_connection();
    bool create_schema();
    bool prepare_statements();
    void release();

    StmtPtr prepare(const std::string& sql, unsigned flags = 0) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v3(db_.get(), sql.c_str(), static_cast<int>(sql.size()), flags, &stmt,
                               nullptr) != SQLITE_OK) {
            VESK_SQLITE_LOG(kErrorLevel)
                << where() << "cannot prepare \"" << sql << "\": " << sqlite3_errmsg(db_.get());
            sqlite3_finalize(stmt);
            return nullptr;
        }
        return StmtPtr(stmt);
    }

    // Runs a statement that returns no rows, then resets it.
    bool step_once(sqlite3_stmt* stmt, const char* what) {
        const int rc = sqlite3_step(stmt);
        sqlite3_reset(stmt);
        if (rc == SQLITE_DONE || rc == SQLITE_ROW) return true;
        VESK_SQLITE_LOG(kErrorLevel) << where() << what << " failed: " << sqlite3_errstr(rc) << " ("
                                     << sqlite3_errmsg(db_.get()) << ")";
        return false;
    }

    bool exec(const std::string& sql) {
        char* error = nullptr;
        if (sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, &error) == SQLITE_OK)
            return true;
        VESK_SQLITE_LOG(kErrorLevel)
            << where() << "\"" << sql << "\" failed: " << (error ? error : "unknown error");
        sqlite3_free(error);
        return false;
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

    static int busy_wait(void* self, int attempt);
    static int past_deadline(void* self) {
        return Clock::now() > static_cast<SqliteExtension*>(self)->deadline_ ? 1 : 0;
    }

    // Declared before the statements, so that they are finalized first.
    DbPtr db_;
    StmtPtr insert_;
    StmtPtr begin_;
    StmtPtr commit_;
    StmtPtr rollback_;

    std::string path_;
    bool read_only_ = false;
    bool closing_ = false;
    long long busy_timeout_ms_ = kDefaultBusyTimeoutMs;
    long long query_timeout_ms_ = kDefaultQueryTimeoutMs;
    long long length_limit_ = 0;
    Clock::time_point busy_since_;
    Clock::time_point deadline_;
    unsigned random_ = 0;
    size_t node_bytes_ = 0;
    std::string node_text_;  // joined node list of the row being written
};

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
    std::string source = DEFAULT_DATA_SOURCE;
    read_only_ = false;
    path_.clear();
    if (!parse_sqlite_params(parameters, source, read_only_))
        return fail_open("malformed parameters \"" + parameters + "\"");
    long long max_length = 0;
    busy_timeout_ms_ = kDefaultBusyTimeoutMs;
    query_timeout_ms_ = kDefaultQueryTimeoutMs;
    if (!read_number(parameters, "busy_timeout_ms", busy_timeout_ms_) ||
        !read_number(parameters, "query_timeout_ms", query_timeout_ms_) ||
        !read_number(parameters, "max_length", max_length))
        return fail_open("malformed number in parameters \"" + parameters + "\"");

    source = vesk::str::stripws(source);
    if (source.size() >= 2 && source.front() == '"' && source.back() == '"')
        source = source.substr(1, source.size() - 2);
    path_ = vesk::str::wordexp(source);
    if (path_.empty()) return fail_open("no source file given");

    namespace fs = std::filesystem;
    std::error_code ec;
    const bool existed = fs::exists(path_, ec);
    if (read_only_ && !existed) return fail_open("no such file (read-only datastore)");
    if (const std::string reason = precheck_file(path_); !reason.empty()) return fail_open(reason);
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
    const int flags =
        (read_only_ ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) |
        SQLITE_OPEN_NOMUTEX;
    ::sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(path_.c_str(), &raw, flags, nullptr);
    db_.reset(raw);
    if (rc != SQLITE_OK) {
        const std::string reason = raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc);
        return fail_open(reason);
    }
    if (max_length > 0)
        sqlite3_limit(db_.get(), SQLITE_LIMIT_LENGTH,
                      static_cast<int>(std::min<long long>(max_length, 0x7fffffff)));
    length_limit_ = sqlite3_limit(db_.get(), SQLITE_LIMIT_LENGTH, -1);

    const bool ok =
        configure_connection() && (read_only_ || create_schema()) && prepare_statements();
    if (!ok) {
        // A file that this call created and left empty goes away again.
        if (!existed && !read_only_) {
            release();
            if (fs::is_regular_file(path_, ec) && fs::file_size(path_, ec) == 0)
                fs::remove(path_, ec);
        }
        return false;
    }
    return true;
}

bool SqliteExtension::configure_connection() {
    ::sqlite3* db = db_.get();
    sqlite3_extended_result_codes(db, 1);
    int on = 0;
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, &on);
    sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0, nullptr);
    sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_busy_handler(db, &SqliteExtension::busy_wait, this);
    if (!on) return fail_open("this SQLite cannot turn on its defensive mode");

    // Read the schema now, before anything is written or created, so that a
    // file that is not a database fails here and is left as it was.
    StmtPtr check = prepare("SELECT count(*) FROM sqlite_master;");
    if (!check) return fail_open(sqlite3_errmsg(db));
    const int rc = sqlite3_step(check.get());
    if (rc != SQLITE_ROW) return fail_open(sqlite3_errmsg(db));
    check.reset();

    if (read_only_) return exec("PRAGMA query_only = ON;") || fail_open("cannot set query_only");

    StmtPtr wal = prepare("PRAGMA journal_mode = WAL;");
    if (!wal || sqlite3_step(wal.get()) != SQLITE_ROW)
        return fail_open(std::string("cannot switch to WAL: ") + sqlite3_errmsg(db));
    const auto* mode = reinterpret_cast<const char*>(sqlite3_column_text(wal.get(), 0));
    // An in-memory database (":memory:") keeps its journal in memory.
    if (mode == nullptr || (strcasecmp(mode, "wal") != 0 && strcasecmp(mode, "memory") != 0))
        return fail_open(std::string("cannot switch to WAL, journal mode stays ") +
                         (mode ? mode : "unknown"));
    wal.reset();
    return exec("PRAGMA synchronous = NORMAL;") || fail_open("cannot set synchronous");
}

bool SqliteExtension::create_schema() {
    // The indexes serve the queries of the base class: the latest row per
    // provider and host, the newest collection run, a provider's rows and
    // the rows of a snapshot.
    const std::string statements[] = {
        default_create_table_query,
        default_create_baseline_query,
        default_create_view_query,
        "CREATE INDEX IF NOT EXISTS provider_datastore_latest ON " + table_name +
            "(Provider, Hostname, OptionID, Unique_timestamp);",
        "CREATE INDEX IF NOT EXISTS provider_datastore_run ON " + table_name +
            "(Unique_timestamp, Provider);",
        "CREATE INDEX IF NOT EXISTS baseline_datastore_id ON " + table_baseline +
            "(baseline_id, datastore_rowid);",
    };
    if (!exec("BEGIN IMMEDIATE;")) return fail_open("cannot begin the schema transaction");
    for (const auto& sql : statements) {
        if (!exec(sql)) {
            exec("ROLLBACK;");
            return fail_open("cannot create the schema");
        }
    }
    return exec("COMMIT;") || fail_open("cannot commit the schema");
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
    insert_.reset();
    begin_.reset();
    commit_.reset();
    rollback_.reset();
    db_.reset();
}

int32_t SqliteExtension::close() {
    if (!db_) return OPERATION_SUCCESSFULL;
    if (!read_only_) {
        // Never wait here: when another connection is still open, it
        // keeps WAL and the last one to close switches back.
        closing_ = true;
        // Refreshes the planner's statistics where this connection's
        // queries would profit; analysis_limit keeps that quick on big files.
        sqlite3_exec(db_.get(), "PRAGMA analysis_limit = 1000; PRAGMA optimize;", nullptr, nullptr,
                     nullptr);
        sqlite3_exec(db_.get(), "PRAGMA journal_mode = DELETE;", nullptr, nullptr, nullptr);
        closing_ = false;
    }
    release();
    return OPERATION_SUCCESSFULL;
}

int SqliteExtension::busy_wait(void* self, int attempt) {
    auto* ext = static_cast<SqliteExtension*>(self);
    if (ext->closing_) return 0;
    const auto now = Clock::now();
    if (attempt == 0) ext->busy_since_ = now;
    if (now - ext->busy_since_ >= std::chrono::milliseconds(ext->busy_timeout_ms_)) return 0;
    // Short sleeps that grow to 2 ms, with jitter so that waiting writers
    // do not wake in step; a long sleep would miss the brief moments in
    // which the lock is free.
    ext->random_ = ext->random_ * 1103515245u + 12345u;
    const long cap_us = 50L << (attempt < 5 ? attempt : 5);
    const long sleep_us = cap_us / 2 + static_cast<long>((ext->random_ >> 8) % (cap_us / 2 + 1));
    timespec pause{0, sleep_us * 1000};
    ::nanosleep(&pause, nullptr);
    return 1;
}

// ---- writes ----

std::string SqliteExtension::check_row(const vesk::provider::header& header,
                                       const std::string& option_id, const std::string& std_out,
                                       const std::string& std_err) {
    auto too_long = [](const char* what, size_t size, int limit, const char* name) {
        return std::string(what) + " of " + std::to_string(size) + " bytes exceeds " + name + " (" +
               std::to_string(limit) + ")";
    };
    if (header.provider.size() > static_cast<size_t>(max_provider_size))
        return too_long("provider name", header.provider.size(), max_provider_size,
                        "max_provider_size");
    if (header.hostname.size() > static_cast<size_t>(max_hostname_size))
        return too_long("host name", header.hostname.size(), max_hostname_size,
                        "max_hostname_size");
    if (option_id.size() > static_cast<size_t>(max_option_id_size))
        return too_long("option id", option_id.size(), max_option_id_size, "max_option_id_size");
    if (header.username.size() > static_cast<size_t>(max_username_size))
        return too_long("user name", header.username.size(), max_username_size,
                        "max_username_size");
    if (header.num_nodes > max_num_nodes ||
        header.node_names.size() > static_cast<size_t>(max_num_nodes))
        return "node count " +
               std::to_string(std::max<size_t>(static_cast<size_t>(std::max(header.num_nodes, 0)),
                                               header.node_names.size())) +
               " exceeds max_num_nodes (" + std::to_string(max_num_nodes) + ")";
    size_t node_bytes = 0;
    for (const auto& name : header.node_names) {
        // The list is stored joined by ", " and split at "," when read:
        // a name that would not come back as written is refused.
        if (name.empty() || name.find(',') != std::string::npos ||
            std::isspace(static_cast<unsigned char>(name.front())) ||
            std::isspace(static_cast<unsigned char>(name.back())))
            return "node name \"" + name + "\" is empty, has a comma or surrounding blanks";
        node_bytes += name.size() + 2;
    }
    if (node_bytes >= 2) node_bytes -= 2;
    if (node_bytes > static_cast<size_t>(max_node_names_size))
        return too_long("node list", node_bytes, max_node_names_size, "max_node_names_size");
    if (std_out.size() > static_cast<size_t>(max_std_stream_size))
        return too_long("STDOUT", std_out.size(), max_std_stream_size, "max_std_stream_size");
    if (std_err.size() > static_cast<size_t>(max_std_stream_size))
        return too_long("STDERR", std_err.size(), max_std_stream_size, "max_std_stream_size");
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
    const int rc = sqlite3_step(stmt);
    sqlite3_reset(stmt);
    return rc;
}

bool SqliteExtension::insert(const vesk::provider::header& header, const std::string& option_id,
                             const std::string& std_out, const std::string& std_err) {
    if (!writable("insert")) return false;
    if (const std::string why = check_row(header, option_id, std_out, std_err); !why.empty()) {
        VESK_SQLITE_LOG(kErrorLevel)
            << where() << "refused row of provider \"" << header.provider << "\": " << why;
        return false;
    }
    // One autocommit statement: it takes the write lock before it reads.
    const int rc = write_row(header, option_id, std_out, std_err);
    if (rc == SQLITE_DONE) return true;
    VESK_SQLITE_LOG(kErrorLevel) << where() << "insert failed: " << sqlite3_errstr(rc) << " ("
                                 << sqlite3_errmsg(db_.get()) << ")"
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
    WriteTransaction txn(*this);
    if (!txn.ok()) return false;
    for (const auto& r : records) {
        const int rc = write_row(r.header, r.option_id, r.std_out, r.std_err);
        if (rc != SQLITE_DONE) {
            VESK_SQLITE_LOG(kErrorLevel)
                << where() << "bulk insert failed, nothing written: " << sqlite3_errstr(rc) << " ("
                << sqlite3_errmsg(db_.get()) << ")";
            return false;
        }
    }
    return txn.commit();
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
    WriteTransaction txn(*this);
    if (!txn.ok()) return false;
    for (const auto& [id, entries] : snapshots) {
        for (const auto& entry : entries) {
            sqlite3_bind_int(exists.get(), 1, entry.rowid);
            const int found = sqlite3_step(exists.get());
            sqlite3_reset(exists.get());
            if (found != SQLITE_ROW) {
                VESK_SQLITE_LOG(kErrorLevel)
                    << where() << "refused snapshot \"" << id << "\": row " << entry.rowid
                    << (found == SQLITE_DONE ? " does not exist" : " cannot be read: ")
                    << (found == SQLITE_DONE ? "" : sqlite3_errmsg(db_.get()));
                return false;
            }
            const auto* config = entry.config.get();
            for (sqlite3_stmt* stmt : {update.get(), add.get()}) {
                sqlite3_bind_text(stmt, 1, id.data(), static_cast<int>(id.size()), SQLITE_STATIC);
                sqlite3_bind_int(stmt, 2, entry.rowid);
                auto bind = [stmt, config](int index, const std::string vesk::provider_config::*f) {
                    if (config == nullptr)
                        sqlite3_bind_null(stmt, index);
                    else
                        sqlite3_bind_text(stmt, index, (config->*f).data(),
                                          static_cast<int>((config->*f).size()), SQLITE_STATIC);
                };
                bind(3, &vesk::provider_config::fwd_name);
                bind(4, &vesk::provider_config::provider_checksum);
                bind(5, &vesk::provider_config::command_checksum);
                if (!step_once(stmt, "snapshot update")) return false;
                if (stmt == update.get() && sqlite3_changes(db_.get()) > 0) break;
            }
        }
    }
    return txn.commit();
}

bool SqliteExtension::remove_snapshot(const std::string& baseline_id) {
    if (!writable("snapshot removal")) return false;
    StmtPtr remove = prepare("DELETE FROM " + table_baseline + " WHERE baseline_id = ?1;");
    if (!remove) return false;
    sqlite3_bind_text(remove.get(), 1, baseline_id.data(), static_cast<int>(baseline_id.size()),
                      SQLITE_STATIC);
    if (!step_once(remove.get(), "snapshot removal")) return false;
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
    int rc;
    while ((rc = sqlite3_step(list.get())) == SQLITE_ROW) {
        const auto* id = reinterpret_cast<const char*>(sqlite3_column_text(list.get(), 0));
        const int size = sqlite3_column_bytes(list.get(), 0);
        ids.insert(SnapshotInfo{id ? std::string(id, static_cast<size_t>(size)) : std::string(),
                                sqlite3_column_int64(list.get(), 1)});
    }
    if (rc == SQLITE_DONE) return true;
    VESK_SQLITE_LOG(kErrorLevel) << where()
                                 << "listing snapshots failed: " << sqlite3_errmsg(db_.get());
    return false;
}

// ---- reads ----

template <typename Record>
bool SqliteExtension::run_select(const std::string& sql, std::vector<Record>& out,
                                 const std::map<std::string, int>& fields, int field_count) {
    if (!db_) {
        VESK_SQLITE_LOG(kErrorLevel) << where() << "select: the datastore is not open";
        return false;
    }
    ::sqlite3* db = db_.get();
    // The authorizer is consulted while the statement is prepared (and
    // prepared again after a schema change), so it stays on until the end.
    struct Guard {
        ::sqlite3* db;
        ~Guard() {
            sqlite3_set_authorizer(db, nullptr, nullptr);
            sqlite3_progress_handler(db, 0, nullptr, nullptr);
        }
    } guard{db};
    sqlite3_set_authorizer(db, &read_only_authorizer, nullptr);

    sqlite3_stmt* raw = nullptr;
    const char* tail = nullptr;
    const int rc =
        sqlite3_prepare_v3(db, sql.c_str(), static_cast<int>(sql.size()), 0, &raw, &tail);
    StmtPtr stmt(raw);
    if (rc != SQLITE_OK) {
        VESK_SQLITE_LOG(kErrorLevel)
            << where() << "refused statement: " << sqlite3_errmsg(db) << ": " << sql;
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
    deadline_ = Clock::now() + std::chrono::milliseconds(query_timeout_ms_);
    sqlite3_progress_handler(db, 4096, &SqliteExtension::past_deadline, this);
    const size_t first = out.size();
    int step;
    while ((step = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        out.emplace_back();
        sqlite_ext::read_row(stmt.get(), columns, out.back());
    }
    if (step == SQLITE_DONE) return true;
    out.resize(first);  // all of the answer or nothing
    if (step == SQLITE_INTERRUPT)
        VESK_SQLITE_LOG(kErrorLevel) << where() << "statement stopped after query_timeout_ms ("
                                     << query_timeout_ms_ << " ms): " << sql;
    else
        VESK_SQLITE_LOG(kErrorLevel)
            << where() << "select failed: " << sqlite3_errmsg(db) << ": " << sql;
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
