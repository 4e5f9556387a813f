// libodbc.so: the datastore extension for database servers reached through
// ODBC (PostgreSQL first), built on the SQL extension kit.
//
// Dialect: chosen from the server's product name once connected. PostgreSQL
// gets its own schema and query texts (pg_dialect.h); any other server gets
// the portable texts, which are SQLite's, with a message saying which of
// them it may refuse.
//
// Values are always bound. Text that a PostgreSQL text column cannot hold
// (a NUL byte, invalid UTF-8) is refused before anything is sent, naming the
// row and the field: the driver would cut a value at a NUL and answer
// success. A NUL byte is refused on every server for the same reason.
//
// Bulk inserts run as multi-row INSERT ... VALUES statements of
// rows_per_statement rows, in one transaction: all rows or none.
//
// Read-only: the kit refuses every write, and the server refuses them too
// (a read-only session on PostgreSQL). A caller's select must be one query
// (SELECT, WITH, VALUES, TABLE); it always runs inside a transaction that is
// rolled back afterwards, read-only at the server on PostgreSQL, so that it
// cannot change the datastore.
//
// Lost connection: when the server or the network drops the connection
// (SQLSTATE 57P01, 08S01, 08001 ..., or the driver's dead flag), the call
// that met it fails with the server's words; the next call opens a new
// connection first. A write whose connection was lost is reported failed
// with its outcome unknown and is never repeated (the server may have
// committed it). A read is run once more on a new connection: reading twice
// changes nothing.
#include <algorithm>
#include <cctype>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"
#include "vesk/datastore/sql/dialect.h"
#include "vesk/datastore/sql/sql_extension.h"
#include "vesk/log.h"

#include "block_cursor.h"
#include "odbc_connection.h"
#include "odbc_parameters.h"
#include "pg_dialect.h"
#include "text_check.h"

namespace vesk::datastore::odbc_backend {

namespace {

constexpr int kErrorLevel = 3;
constexpr int kWarningLevel = 4;
constexpr int kInfoLevel = 6;

// PostgreSQL takes no single value, and no protocol message, of 1 GiB or
// more; an INSERT carries all values of its row in one message.
constexpr size_t kPgMaxRowBytes = (size_t{1} << 30) - (size_t{1} << 20);

#define VESK_ODBC_LOG(level) vesk::log::ErrorLog(__FILE__, __func__, __LINE__, level).stream()

// True when an item of the connection string `conn` has the key `key`
// (lower case; keys are compared without regard to case or blanks).
bool sets_key(const std::string& conn, const std::string& key) {
    for (size_t start = 0; start < conn.size();) {
        size_t end = conn.find(';', start);
        if (end == std::string::npos) end = conn.size();
        std::string name;
        for (size_t k = start; k < end && conn[k] != '='; ++k)
            if (!std::isspace(static_cast<unsigned char>(conn[k])))
                name += static_cast<char>(std::tolower(static_cast<unsigned char>(conn[k])));
        if (name == key) return true;
        start = end + 1;
    }
    return false;
}

// The dialect of an instance, settled once the server has answered. The kit
// holds a reference to its dialect from its constructor on; this record
// forwards to the chosen one.
class DialectSwitch final : public sql::Dialect {
public:
    std::vector<std::string> create_statements() const override {
        return target->create_statements();
    }
    std::string latest_rows_sql(const std::string& condition) const override {
        return target->latest_rows_sql(condition);
    }
    std::string latest_run_sql(const std::string& condition) const override {
        return target->latest_run_sql(condition);
    }
    std::string hosts_sql() const override { return target->hosts_sql(); }
    std::string placeholder(int index) const override { return target->placeholder(index); }
    std::string array_insert_sql() const override { return target->array_insert_sql(); }

    const sql::Dialect* target = &sql::default_dialect();
};

// Constructed before the kit's base class, which takes its dialect.
struct DialectHolder {
    DialectSwitch dialect_switch;
};

// The PostgreSQL texts for a database with or without the newest-row table.
const pg::PgDialect& postgres_dialect(bool newest) {
    static const pg::PgDialect with_table(true);
    static const pg::PgDialect without_table(false);
    return newest ? with_table : without_table;
}

class OdbcExtension final : private DialectHolder, public sql::SqlExtension {
public:
    OdbcExtension() : sql::SqlExtension(dialect_switch) {}
    ~OdbcExtension() override { close(); }
    OdbcExtension(const OdbcExtension&) = delete;
    OdbcExtension& operator=(const OdbcExtension&) = delete;

    bool is_open() override { return opened_; }

    int32_t open(const std::string& parameters) override {
        try {
            close();
            opened_ = open_connection(parameters);
            return opened_ ? OPERATION_SUCCESSFULL : OPERATION_UNSUCCESSFULL;
        } catch (const std::exception& e) {
            return fail_open(e.what());
        } catch (...) {
            return fail_open("unexpected error");
        }
    }

    int32_t close() override {
        release_statements();
        connection_.reset();
        opened_ = false;
        return OPERATION_SUCCESSFULL;
    }

    // A connection lost during an earlier call is replaced first.
    int32_t control(uint16_t op, const void* in, void* out, void* extra) override {
        try {
            if (opened_ && !usable() && !reopen()) return OPERATION_UNSUCCESSFULL;
        } catch (...) {
            return OPERATION_UNSUCCESSFULL;
        }
        return sql::SqlExtension::control(op, in, out, extra);
    }

    bool select(std::string sql, std::vector<Row>& rows,
                const std::map<std::string, int>& fields) override {
        return read_again_if_lost([&] { return sql::SqlExtension::select(sql, rows, fields); });
    }
    bool select_from_baseline(std::string sql, std::vector<Row_baseline>& rows,
                              const std::map<std::string, int>& fields) override {
        return read_again_if_lost(
            [&] { return sql::SqlExtension::select_from_baseline(sql, rows, fields); });
    }
    bool query_baseline_ids(SnapshotInfoSet& ids) override {
        return read_again_if_lost([&] { return sql::SqlExtension::query_baseline_ids(ids); });
    }

protected:
    sql::Connection* connection() override { return connection_.get(); }
    bool read_only() const override { return parameters_.read_only; }
    std::string where() const override { return "datastore \"" + instance_name + "\" (ODBC): "; }

    // The connection's message holds every diagnostic record with its
    // SQLSTATE and native code.
    std::string describe(const sql::Error& error) const override {
        std::string text = error.message.empty() ? "unknown ODBC failure" : error.message;
        if (connection_ && !connection_->is_alive())
            text += " (the connection to the server was lost; the next call opens a new one)";
        return text;
    }

    std::string row_size_problem(size_t bytes) const override {
        if (!postgres_ || bytes <= kPgMaxRowBytes) return "";
        return "row of about " + std::to_string(bytes) +
               " bytes exceeds what PostgreSQL takes in one statement (1 GiB)";
    }

    std::string row_text_problem(const vesk::provider::header& header, const std::string& option_id,
                                 const std::string& std_out,
                                 const std::string& std_err) const override {
        const std::pair<const char*, const std::string*> texts[] = {
            {"STDOUT", &std_out},           {"STDERR", &std_err},
            {"Provider", &header.provider}, {"Hostname", &header.hostname},
            {"OptionID", &option_id},       {"Username", &header.username},
        };
        for (const auto& [field, text] : texts)
            if (std::string why = text_refusal(field, *text); !why.empty()) return why;
        for (const std::string& node : header.node_names)
            if (std::string why = text_refusal("node_names", node); !why.empty()) return why;
        return "";
    }

    std::string snapshot_text_problem(const char* /*field*/,
                                      const std::string& text) const override {
        const std::optional<std::string> problem = text_fault(text);
        return problem ? "the text " + *problem + ", which " + holder() +
                             " cannot hold; nothing was written"
                       : "";
    }

    size_t rows_per_insert() const override {
        const int asked = parameters_.rows_per_statement;
        if (postgres_) return static_cast<size_t>(asked > 0 ? asked : default_array_rows);
        return static_cast<size_t>(asked > 0 ? std::min(asked, max_values_rows)
                                             : default_values_rows);
    }

    std::unique_ptr<sql::Statement> prepare_query(const std::string& sql) override {
        OdbcConnection& c = *connection_;
        // The kit's own texts only read: they need none of the guards below,
        // only the transaction that holds the cursor.
        if (own_text()) {
            if (server_cursor() && !begin_read()) return nullptr;
            return prepare_read(sql);
        }
        // A second statement could end the read-only transaction below
        // (COMMIT) and write in the next, or make the session writable.
        // PostgreSQL reads backslashes as escapes only in E'...' texts: the
        // session's standard_conforming_strings is on from the connect.
        const std::optional<std::string> statement = single_statement(sql, postgres_);
        if (!statement) {
            VESK_ODBC_LOG(kErrorLevel)
                << where()
                << "refused statement: more than one statement (a \";\" outside quotes): " << sql;
            return nullptr;
        }
        if (!is_query(*statement)) {
            VESK_ODBC_LOG(kErrorLevel)
                << where()
                << "refused statement: not a query (a select starts with SELECT, WITH, VALUES "
                   "or TABLE): "
                << sql;
            return nullptr;
        }
        // The SQLite ODBC driver lets SQL load a shared library into this
        // process: a caller's text must not even name the functions that do.
        if (const auto loader = names_code_loader(*statement); loader && !postgres_) {
            VESK_ODBC_LOG(kErrorLevel) << where() << "refused statement: it names " << *loader
                                       << ", which loads code into this process: " << sql;
            return nullptr;
        }
        // On PostgreSQL a caller's transaction is read-only from its start:
        // the session's default is switched before it (a read-only
        // datastore's session is read-only for good), and back only before
        // the next write, so that a run of selects pays for one switch. The
        // driver runs each statement of a transaction inside a savepoint,
        // whose end would undo a switch made within the transaction; and
        // whatever the caller's one query changes of the session's settings
        // is undone by the rollback that ends it.
        if (postgres_ && !parameters_.read_only && !session_read_only_) {
            if (!c.execute_direct(kSessionReadOnly)) {
                VESK_ODBC_LOG(kErrorLevel)
                    << where() << "cannot make a select read-only: " << describe(c.last_error());
                return nullptr;
            }
            session_read_only_ = true;
        }
        if (!begin_read()) return nullptr;
        // A session-level advisory lock outlives the rollback: taken on this
        // connection, it would hold back the writers of other sessions (the
        // rows table's triggers take one) until the datastore closes.
        release_advisory_locks_ = postgres_ && names_advisory_lock(*statement);
        return prepare_read(*statement);
    }

    // The statement that reads `sql`, in the transaction begun for it.
    std::unique_ptr<sql::Statement> prepare_read(const std::string& sql) {
        if (server_cursor()) return read_through_cursor(*connection_, sql);
        return prepare_logged(sql);
    }

    // Reads on PostgreSQL go through a cursor of their own, in blocks sized
    // by the rows' bytes, unless the connection string chose the driver's
    // cursor (UseDeclareFetch), whose choice it keeps.
    bool server_cursor() const { return postgres_ && !driver_cursor_; }

    // Starts the transaction a read runs in; end_query ends it.
    bool begin_read() {
        if (connection_->begin()) return true;
        VESK_ODBC_LOG(kErrorLevel)
            << where()
            << "cannot start the transaction of a select: " << describe(connection_->last_error());
        return false;
    }

    std::unique_ptr<sql::Statement> prepare_logged(const std::string& sql) {
        std::unique_ptr<sql::Statement> stmt = connection_->prepare(sql);
        if (!stmt)
            VESK_ODBC_LOG(kErrorLevel)
                << where() << "refused statement: " << describe(connection_->last_error()) << ": "
                << sql;
        return stmt;
    }

    bool end_query() override {
        if (!connection_) return false;
        const sql::Error error = connection_->last_error();
        if (connection_->in_transaction()) connection_->rollback_keeping_error();
        if (release_advisory_locks_) {
            release_advisory_locks_ = false;
            if (!connection_->execute_direct("SELECT pg_advisory_unlock_all();"))
                VESK_ODBC_LOG(kWarningLevel)
                    << where() << "cannot release the advisory locks a select took: "
                    << describe(connection_->last_error());
        }
        return error.sqlstate == "HYT00" || error.sqlstate == "57014";
    }

    // The session a caller's select left read-only becomes writable again.
    bool prepare_write() override {
        if (!session_read_only_) return true;
        if (!connection_->execute_direct(kSessionReadWrite)) {
            VESK_ODBC_LOG(kErrorLevel)
                << where()
                << "cannot make the session writable: " << describe(connection_->last_error());
            return false;
        }
        session_read_only_ = false;
        return true;
    }

    std::string time_limit_text() const override {
        return "statement stopped after query_timeout_s (" +
               std::to_string(parameters_.query_timeout_s) + " s)";
    }

private:
    static constexpr const char* kSessionReadOnly =
        "SET SESSION CHARACTERISTICS AS TRANSACTION READ ONLY;";
    static constexpr const char* kSessionReadWrite =
        "SET SESSION CHARACTERISTICS AS TRANSACTION READ WRITE;";

    // What is wrong with `text` for this server, nothing if it can be sent.
    std::optional<std::string> text_fault(const std::string& text) const {
        // Other servers take any bytes but NUL, which the driver would cut
        // the value at.
        if (postgres_) return text_problem(text);
        if (const size_t at = text.find('\0'); at != std::string::npos)
            return "contains a NUL byte at offset " + std::to_string(at);
        return std::nullopt;
    }

    // What cannot hold a text that text_fault refuses.
    const char* holder() const {
        return postgres_ ? "a PostgreSQL text column" : "a text value sent through ODBC";
    }

    // Why `text` of `field` cannot be sent to this server, "" if it can.
    std::string text_refusal(const char* field, const std::string& text) const {
        const std::optional<std::string> problem = text_fault(text);
        if (!problem) return "";
        return std::string("field ") + field + ": the text " + *problem + ", which " + holder() +
               " cannot hold; nothing was written. Store such output base64-encoded (and set "
               "the row's Encoding to base64)";
    }

    bool usable() { return connection_ && connection_->is_alive(); }

    template <typename Read>
    bool read_again_if_lost(Read&& read) {
        if (read()) return true;
        if (!opened_ || usable()) return false;
        if (!reopen()) return false;
        VESK_ODBC_LOG(kWarningLevel) << where()
                                     << "the connection was lost during a read; reading again "
                                        "on a new connection";
        return read();
    }

    int32_t fail_open(const std::string& reason) {
        VESK_ODBC_LOG(kErrorLevel) << where() << "cannot open: " << reason;
        close();
        return OPERATION_UNSUCCESSFULL;
    }

    bool refuse(const std::string& reason) {
        fail_open(reason);
        return false;
    }

    // Runs `sql` to its end on the connection.
    bool run(const std::string& sql) {
        std::unique_ptr<sql::Statement> s = connection_->prepare(sql);
        sql::StepResult r = s ? s->step() : sql::StepResult::error;
        while (r == sql::StepResult::row) r = s->step();
        return r == sql::StepResult::done;
    }

    // Connects and sets up the session: the dialect, the text checks, and
    // read-only at the server. The message on failure goes to `error`.
    bool connect(std::string& error) {
        ConnectOptions options;
        options.login_timeout_s = parameters_.login_timeout_s;
        options.query_timeout_s = parameters_.query_timeout_s;
        options.read_only = parameters_.read_only;
        sql::Error connect_error;
        session_read_only_ = false;  // a new session starts with the server's default
        // The connection string may hold a password: it is never logged.
        const std::string conn = parameters_.connection_string();
        driver_cursor_ = sets_key(conn, "usedeclarefetch");
        connection_ = OdbcConnection::connect(conn, options, connect_error);
        if (!connection_) {
            error = (parameters_.source_is_dsn ? "data source \"" + parameters_.source + "\": "
                                               : std::string("connection string: ")) +
                    connect_error.message;
            return false;
        }
        postgres_ = connection_->dbms_name() == "PostgreSQL";
        connection_->set_require_utf8(postgres_);
        if (!postgres_) return true;
        // The session's settings, sent in one message (one round trip; the
        // server applies all of them or none):
        // - names go into the kit's texts as '...' literals: were
        //   backslashes escapes there (a server or database may turn that
        //   on), a name ending in one would open the next literal to SQL of
        //   its own;
        // - READ COMMITTED, whatever the server's default (pg_dialect.h);
        // - cursors planned for reading every row;
        // - read-only for good on a read-only datastore.
        std::string settings =
            std::string(pg::literal_session_sql) + pg::read_committed_session_sql;
        if (server_cursor()) settings += pg::whole_answer_session_sql;
        if (parameters_.read_only) settings += pg::read_only_session_sql;
        if (!connection_->execute_direct(settings)) {
            error = "cannot set up the session (" + settings +
                    "): " + connection_->last_error().message;
            connection_.reset();
            return false;
        }
        return true;
    }

    bool open_connection(const std::string& parameters) {
        std::string error;
        if (!parse_odbc_parameters(parameters, parameters_, error)) return refuse(error);
        if (!connect(error)) return refuse(error);

        const std::string& server = connection_->dbms_name();
        if (postgres_) return open_postgres();
        dialect_switch.target = &sql::default_dialect();
        hosts_query = dialect_.hosts_sql();
        if (server != "SQLite")
            VESK_ODBC_LOG(kWarningLevel)
                << where() << "server \"" << server
                << "\" has no dialect of its own: using the portable SQL texts, whose schema "
                   "and latest-row queries (GROUP BY with columns outside the aggregate) some "
                   "servers refuse";
        if (parameters_.read_only) return true;
        if (!create_portable_schema(error))
            return refuse("server \"" + server +
                          "\" cannot create the schema with the portable "
                          "SQL texts: " +
                          error);
        return true;
    }

    // Creates the schema unless read-only, then reads the latest rows from
    // the newest-row table where the database has it (a read-only open of a
    // database that no writer of this version has opened yet has not) and
    // the role may read it. A role that may write the rows but not make
    // tables writes without that table until the tables' owner makes it.
    bool open_postgres() {
        std::string error;
        if (!parameters_.read_only && !pg::create_schema(*connection_, error)) {
            if (!pg::has_rows_schema(*connection_)) return refuse(error);
            VESK_ODBC_LOG(kWarningLevel)
                << where() << "cannot make the table of each group's latest row (" << error
                << "): the latest rows are chosen among all rows until a writable open by the "
                   "tables' owner makes it";
        }
        bool newest = false;
        if (!pg::has_newest_table(*connection_, newest, error)) return refuse(error);
        dialect_switch.target = &postgres_dialect(newest);
        hosts_query = dialect_.hosts_sql();
        return true;
    }

    bool create_portable_schema(std::string& error) {
        if (!connection_->begin()) {
            error = connection_->last_error().message;
            return false;
        }
        for (const std::string& sql : dialect_.create_statements()) {
            if (run(sql)) continue;
            error = "\"" + sql + "\": " + connection_->last_error().message;
            connection_->rollback_keeping_error();
            return false;
        }
        if (connection_->commit()) return true;
        error = "commit: " + connection_->last_error().message;
        return false;
    }

    // Replaces a lost connection; the kit's statements went with it.
    bool reopen() {
        release_statements();
        connection_.reset();
        std::string error;
        if (!connect(error)) {
            VESK_ODBC_LOG(kErrorLevel) << where() << "cannot reopen the lost connection: " << error;
            return false;
        }
        VESK_ODBC_LOG(kInfoLevel) << where() << "reopened the lost connection";
        return true;
    }

    OdbcParameters parameters_;
    std::unique_ptr<OdbcConnection> connection_;
    bool opened_ = false;
    bool postgres_ = false;
    // A caller's select made the session read-only; the next write undoes it.
    bool session_read_only_ = false;
    bool release_advisory_locks_ = false;  // the caller's select named an advisory lock
    bool driver_cursor_ = false;           // the connection string sets UseDeclareFetch
};

}  // namespace

}  // namespace vesk::datastore::odbc_backend

extern "C" VESK_EXTENSION_ENTRY vesk::datastore::DataStoreExtension* create() noexcept {
    try {
        return new vesk::datastore::odbc_backend::OdbcExtension();
    } catch (...) {
        return nullptr;
    }
}

extern "C" VESK_EXTENSION_ENTRY void destroy(
    vesk::datastore::DataStoreExtension* instance) noexcept {
    delete instance;
}
