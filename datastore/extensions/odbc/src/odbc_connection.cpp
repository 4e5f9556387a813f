#include "odbc_connection.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

#include "text_check.h"

namespace vesk::datastore::odbc_backend {

namespace {

// Texts above this size go to the driver in chunks (SQL_LEN_DATA_AT_EXEC and
// SQLPutData) instead of one bound buffer.
constexpr std::size_t put_data_threshold = 256 * 1024;
constexpr std::size_t put_data_chunk = 1024 * 1024;
// First and largest buffer of the SQLGetData loop. The first is small: the
// buffer is zero-filled before each call, and most texts are short; a longer
// one gets its whole remaining length (the driver reports it) on the second.
constexpr std::size_t get_data_first_chunk = 256;
constexpr std::size_t get_data_max_chunk = 4 * 1024 * 1024;
// Bytes of each text column that SQLFetch copies into a bound buffer. One
// SQLFetch converting every column costs the driver far less than one
// SQLGetData call per column; a longer text is read again, whole, by the
// SQLGetData loop.
constexpr std::size_t bound_text_size = 1024;
// Rows one SQLFetch converts into the bound buffers where the driver lets
// SQLGetData read a row of such a rowset: each call to the driver costs
// about as much as converting a small row.
constexpr SQLULEN rowset_rows = 64;

// What an integer read of a value that is none says.
constexpr const char* not_int64 = "a whole number in the 64-bit integer range";

bool ok(SQLRETURN rc) { return rc == SQL_SUCCESS || rc == SQL_SUCCESS_WITH_INFO; }

// `d` as an integer when it is a whole number within int64_t (NaN and the
// infinities are not).
bool whole_int64(double d, int64_t& out) {
    constexpr double limit = 9223372036854775808.0;  // 2^63, exact
    if (!(d >= -limit && d < limit) || std::trunc(d) != d) return false;
    out = static_cast<int64_t>(d);
    return true;
}

// The decimal text of a NUMERIC ("-12", "5.00") as an integer, when it is a
// whole number within int64_t.
bool decimal_int64(const std::string& text, int64_t& out) {
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, out);
    if (error != std::errc() || (end != last && *end != '.')) return false;
    return std::all_of(end == last ? last : end + 1, last, [](char c) { return c == '0'; });
}

// The decimal text of a NUMERIC ("0.1", "NaN", "-Infinity") as the nearest
// double, when it is within a double's range. Unlike strtod, the locale's
// decimal point plays no part.
bool decimal_double(const std::string& text, double& out) {
    const char* const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data(), last, out);
    return error == std::errc() && end == last;
}

// psqlODBC writes a NUMERIC as text with the decimal point of the process's
// LC_NUMERIC (a host program may set it): the value's own text has '.'.
void with_c_decimal_point(std::string& text) {
    const char* const point = std::localeconv()->decimal_point;
    if (point == nullptr || *point == '\0' || std::strcmp(point, ".") == 0) return;
    const std::size_t at = text.find(point);
    if (at != std::string::npos) text.replace(at, std::strlen(point), ".");
}

// `d` as "%.17g" writes it in the C locale, whatever the process's locale
// (a host program's LC_NUMERIC could make the point a comma).
std::string real_text(double d) {
    char buf[32];
    const auto [end, error] =
        std::to_chars(buf, buf + sizeof buf, d, std::chars_format::general, 17);
    return error == std::errc() ? std::string(buf, end) : std::string();
}

// The number that a text starts with, as strtod reads it in the C locale:
// leading blanks and a sign allowed, 0 when there is none.
double leading_double(const std::string& text) {
    const char* p = text.data();
    const char* const last = p + text.size();
    while (p != last && std::isspace(static_cast<unsigned char>(*p))) ++p;
    if (p != last && *p == '+') ++p;
    double out = 0;
    const auto [end, error] = std::from_chars(p, last, out);
    (void)end;
    return error == std::errc() ? out : 0;
}

struct EnvFree {
    void operator()(void* env) const { SQLFreeHandle(SQL_HANDLE_ENV, env); }
};

// Ends a connection: an open transaction is rolled back (SQLDisconnect refuses
// to close a connection inside one), then disconnect, then the handle.
struct DbcFree {
    void operator()(void* dbc) const {
        SQLEndTran(SQL_HANDLE_DBC, dbc, SQL_ROLLBACK);
        SQLDisconnect(dbc);
        SQLFreeHandle(SQL_HANDLE_DBC, dbc);
    }
};

struct StmtFree {
    void operator()(void* stmt) const {
        SQLFreeStmt(stmt, SQL_CLOSE);
        SQLFreeHandle(SQL_HANDLE_STMT, stmt);
    }
};

}  // namespace

// The handles one connection and its statements share. Members are destroyed
// in reverse order: the connection before the environment.
struct Handles {
    std::unique_ptr<void, EnvFree> env;
    std::unique_ptr<void, DbcFree> dbc;
    sql::Error error;
    std::vector<Diagnostic> diagnostics;
    std::string dbms_name;
    int query_timeout_s = 0;
    bool require_utf8 = false;
    // The driver lets SQLGetData read a bound column, in any order: result
    // columns are then bound, and only long texts are read with SQLGetData.
    bool bind_columns = false;
    // Rows per SQLFetch into bound columns: more than one where SQLGetData
    // reads a row of a rowset once SQLSetPos has positioned on it.
    SQLULEN rowset = 1;
    bool in_transaction = false;
    bool dead = false;

    // Records the failure of `call` from the diagnostics of `handle`.
    void fail(const char* call, SQLSMALLINT type, SQLHANDLE handle) {
        diagnostics = collect_diagnostics(type, handle);
        error = sql::Error{};
        error.message = std::string(call) + " failed";
        if (!diagnostics.empty()) {
            error.message += ": " + join_diagnostics(diagnostics);
            error.native_code = diagnostics.front().native_code;
            error.sqlstate = diagnostics.front().sqlstate;
        }
        for (const Diagnostic& d : diagnostics)
            if (is_connection_lost_state(d.sqlstate)) dead = true;
        // psqlODBC reports a backend that went away during a prepared
        // statement as HY000; the driver's own flag tells the truth then, and
        // the failure is reported as ODBC's communication-link state.
        SQLUINTEGER gone = SQL_CD_FALSE;
        if (!dead && dbc &&
            ok(SQLGetConnectAttr(dbc.get(), SQL_ATTR_CONNECTION_DEAD, &gone, 0, nullptr)) &&
            gone == SQL_CD_TRUE) {
            dead = true;
            error.sqlstate = "08S01";
        }
    }
    // Records a failure found before any ODBC call.
    void fail(std::string message) {
        diagnostics.clear();
        error = sql::Error{};
        error.message = std::move(message);
    }
};

std::vector<Diagnostic> collect_diagnostics(SQLSMALLINT handle_type, SQLHANDLE handle) {
    std::vector<Diagnostic> records;
    if (handle == nullptr) return records;
    for (SQLSMALLINT i = 1;; ++i) {
        SQLCHAR state[6] = {0};
        SQLINTEGER native = 0;
        SQLSMALLINT length = 0;
        std::vector<SQLCHAR> text(1024);
        SQLRETURN rc = SQLGetDiagRec(handle_type, handle, i, state, &native, text.data(),
                                     static_cast<SQLSMALLINT>(text.size()), &length);
        // A full buffer is read again, as large as the length's type can name:
        // a longer message may come back cut without a word (unixODBC with
        // psqlODBC answers SQL_SUCCESS and the cut length), and a reported
        // length plus one for the NUL overflows that type at 32767.
        if (ok(rc) && length >= static_cast<SQLSMALLINT>(text.size() - 1)) {
            text.resize(std::numeric_limits<SQLSMALLINT>::max());
            rc = SQLGetDiagRec(handle_type, handle, i, state, &native, text.data(),
                               static_cast<SQLSMALLINT>(text.size()), &length);
        }
        if (!ok(rc)) break;
        Diagnostic d;
        d.sqlstate.assign(reinterpret_cast<const char*>(state),
                          strnlen(reinterpret_cast<const char*>(state), 5));
        d.native_code = native;
        d.message.assign(reinterpret_cast<const char*>(text.data()),
                         strnlen(reinterpret_cast<const char*>(text.data()), text.size()));
        while (!d.message.empty() && (d.message.back() == '\n' || d.message.back() == ' '))
            d.message.pop_back();
        records.push_back(std::move(d));
    }
    return records;
}

std::string join_diagnostics(const std::vector<Diagnostic>& records) {
    std::string text;
    for (const Diagnostic& d : records) {
        if (!text.empty()) text += "; ";
        text += "[" + d.sqlstate + "] (" + std::to_string(d.native_code) + ") " + d.message;
    }
    return text;
}

bool is_connection_lost_state(const std::string& sqlstate) {
    static const char* const lost[] = {"57P01", "57P02", "08S01", "08001",
                                       "08003", "08006", "08007"};
    for (const char* s : lost)
        if (sqlstate == s) return true;
    return false;
}

namespace {

class OdbcStatement final : public sql::Statement {
public:
    // `direct_sql` empty: the statement was prepared with SQLPrepare. Else
    // each run sends that text with SQLExecDirect.
    OdbcStatement(std::shared_ptr<Handles> handles, SQLHSTMT stmt, std::size_t parameters,
                  std::string direct_sql = {})
        : handles_(std::move(handles)),
          stmt_(stmt),
          params_(parameters),
          direct_sql_(std::move(direct_sql)) {}

    bool bind_text(int index, std::string_view value) override {
        Param* p = param(index);
        if (p == nullptr) return false;
        if (const auto problem = text_problem(value)) {
            // NUL bytes are never safe through SQL_C_CHAR; invalid UTF-8 only
            // where the server refuses it.
            if (value.find('\0') != std::string_view::npos || handles_->require_utf8) {
                handles_->fail("parameter " + std::to_string(index) + ": the text " + *problem +
                               "; it was not sent");
                return false;
            }
        }
        p->kind = Param::text;
        p->text_value = value;
        return true;
    }
    bool bind_int64(int index, int64_t value) override {
        Param* p = param(index);
        if (p == nullptr) return false;
        p->kind = Param::integer;
        p->integer_value = value;
        return true;
    }
    bool bind_double(int index, double value) override {
        Param* p = param(index);
        if (p == nullptr) return false;
        p->kind = Param::real;
        p->real_value = value;
        return true;
    }
    bool bind_null(int index) override {
        Param* p = param(index);
        if (p == nullptr) return false;
        p->kind = Param::null;
        return true;
    }

    sql::StepResult step() override {
        if (state_ == State::finished) return sql::StepResult::done;
        if (read_failed_) {
            // A value of the current row could not be read as asked: the
            // caller's copy of it (0) must not pass for data.
            state_ = State::finished;
            return sql::StepResult::error;
        }
        if (state_ == State::ready) {
            if (!execute()) {
                state_ = State::finished;
                return sql::StepResult::error;
            }
            if (columns_.empty()) {
                state_ = State::finished;
                return sql::StepResult::done;
            }
            state_ = State::rows;
            rows_in_set_ = 0;
            row_in_set_ = 0;
        }
        for (Cell& c : row_) c.fetched = false;
        if (row_in_set_ + 1 < rows_in_set_) {
            ++row_in_set_;
            positioned_ = false;
        } else {
            const SQLRETURN rc = SQLFetch(stmt_.get());
            if (rc == SQL_NO_DATA) {
                state_ = State::finished;
                return sql::StepResult::done;
            }
            if (!ok(rc)) {
                handles_->fail("SQLFetch", SQL_HANDLE_STMT, stmt_.get());
                state_ = State::finished;
                return sql::StepResult::error;
            }
            row_in_set_ = 0;
            positioned_ = true;  // on the rowset's first row
            // Without a rowset the driver writes no count: one row.
            if (rows_in_set_ == 0 || !rowset_bound_) rows_in_set_ = 1;
        }
        if (rowset_bound_ && row_status_[row_in_set_] == SQL_ROW_ERROR) {
            handles_->fail("SQLFetch (row " + std::to_string(row_in_set_ + 1) + " of a rowset)");
            state_ = State::finished;
            return sql::StepResult::error;
        }
        return sql::StepResult::row;
    }

    bool reset() override {
        const SQLRETURN rc = SQLFreeStmt(stmt_.get(), SQL_CLOSE);
        state_ = State::ready;
        rows_in_set_ = 0;
        row_in_set_ = 0;
        read_failed_ = false;
        if (ok(rc)) return true;
        handles_->fail("SQLFreeStmt", SQL_HANDLE_STMT, stmt_.get());
        return false;
    }

    int column_count() override { return static_cast<int>(columns_.size()); }

    std::string column_name(int i) override {
        return valid_column(i) ? columns_[static_cast<std::size_t>(i)].name : std::string();
    }

    sql::ColumnType column_type(int i) override {
        const Cell* c = cell(i);
        if (c == nullptr) return sql::ColumnType::null;
        int64_t whole = 0;
        if (c->type == sql::ColumnType::text && decimal(i))
            return decimal_int64(c->text, whole) ? sql::ColumnType::integer : sql::ColumnType::real;
        return c->type;
    }

    bool column_text(int i, std::string& out) override {
        const Cell* c = cell(i);
        if (c == nullptr) return false;
        switch (c->type) {
            case sql::ColumnType::null:
                out.clear();
                break;
            case sql::ColumnType::integer:
                out = std::to_string(c->integer_value);
                break;
            case sql::ColumnType::real:
                out = real_text(c->real_value);
                break;
            case sql::ColumnType::text:
                out.assign(text_of(*c));
                break;
        }
        return true;
    }

    int64_t column_int64(int i) override {
        const Cell* c = cell(i);
        if (c == nullptr) return 0;
        switch (c->type) {
            case sql::ColumnType::integer:
                return c->integer_value;
            case sql::ColumnType::real: {
                int64_t v = 0;
                return whole_int64(c->real_value, v) ? v : refuse(i, not_int64);
            }
            case sql::ColumnType::text:
                if (decimal(i)) {
                    int64_t v = 0;
                    return decimal_int64(c->text, v) ? v : refuse(i, not_int64);
                }
                return std::strtoll(std::string(text_of(*c)).c_str(), nullptr, 10);
            case sql::ColumnType::null:
                break;
        }
        return 0;
    }

    double column_double(int i) override {
        const Cell* c = cell(i);
        if (c == nullptr) return 0;
        switch (c->type) {
            case sql::ColumnType::integer:
                return static_cast<double>(c->integer_value);
            case sql::ColumnType::real:
                return c->real_value;
            case sql::ColumnType::text:
                if (decimal(i)) {
                    double v = 0;
                    return decimal_double(c->text, v) ? v : refuse(i, "within a double's range");
                }
                return leading_double(std::string(text_of(*c)));
            case sql::ColumnType::null:
                break;
        }
        return 0;
    }

private:
    struct Param {
        enum Kind { unset, null, integer, real, text } kind = unset;
        int64_t integer_value = 0;
        double real_value = 0;
        std::string_view text_value;
        SQLLEN indicator = 0;
    };
    struct Column {
        std::string name;
        sql::ColumnType kind = sql::ColumnType::text;  // how the value is fetched
        bool decimal = false;                          // a NUMERIC, fetched as its exact text
    };
    struct Cell {
        bool fetched = false;
        sql::ColumnType type = sql::ColumnType::null;
        int64_t integer_value = 0;
        double real_value = 0;
        std::string text;
        // The text is in bound_text, not copied into `text` (see text_of).
        bool in_bound = false;
        std::string_view bound_value;
        // Where SQLFetch puts a bound column's values, one slot per row of
        // the rowset (bound_text_size + 1 bytes per text), and their lengths
        // or NULL.
        std::vector<char> bound_text;
        std::vector<int64_t> bound_integers;
        std::vector<double> bound_reals;
        std::vector<SQLLEN> indicators;
    };
    enum class State { ready, rows, finished };

    Param* param(int index) {
        if (index < 1 || static_cast<std::size_t>(index) > params_.size()) {
            handles_->fail("parameter index " + std::to_string(index) + " out of range 1 to " +
                           std::to_string(params_.size()));
            return nullptr;
        }
        return &params_[static_cast<std::size_t>(index) - 1];
    }

    bool valid_column(int i) const {
        return i >= 0 && static_cast<std::size_t>(i) < columns_.size();
    }

    bool decimal(int i) const { return columns_[static_cast<std::size_t>(i)].decimal; }

    // The text of a text cell, wherever it is held.
    static std::string_view text_of(const Cell& c) {
        return c.in_bound ? c.bound_value : std::string_view(c.text);
    }

    // Records that the value of column `i` is not `what` a read asked for, and
    // fails the statement's next step; the read gives 0.
    int refuse(int i, const char* what) {
        const Cell& c = row_[static_cast<std::size_t>(i)];
        std::string value =
            c.type == sql::ColumnType::real ? real_text(c.real_value) : std::string(text_of(c));
        if (value.size() > 40) value = value.substr(0, 40) + "...";
        handles_->fail("column \"" + columns_[static_cast<std::size_t>(i)].name + "\": " + value +
                       " is not " + what);
        read_failed_ = true;
        return 0;
    }

    bool bind_parameters() {
        static char empty[1] = {0};
        for (std::size_t k = 0; k < params_.size(); ++k) {
            Param& p = params_[k];
            const auto number = static_cast<SQLUSMALLINT>(k + 1);
            SQLRETURN rc = SQL_ERROR;
            switch (p.kind) {
                case Param::unset:
                    handles_->fail("parameter " + std::to_string(k + 1) + " is not bound");
                    return false;
                case Param::null:
                    p.indicator = SQL_NULL_DATA;
                    rc = SQLBindParameter(stmt_.get(), number, SQL_PARAM_INPUT, SQL_C_CHAR,
                                          SQL_VARCHAR, 1, 0, empty, 0, &p.indicator);
                    break;
                case Param::integer:
                    p.indicator = 0;
                    rc = SQLBindParameter(stmt_.get(), number, SQL_PARAM_INPUT, SQL_C_SBIGINT,
                                          SQL_BIGINT, 0, 0, &p.integer_value, 0, &p.indicator);
                    break;
                case Param::real:
                    p.indicator = 0;
                    rc = SQLBindParameter(stmt_.get(), number, SQL_PARAM_INPUT, SQL_C_DOUBLE,
                                          SQL_DOUBLE, 0, 0, &p.real_value, 0, &p.indicator);
                    break;
                case Param::text: {
                    const SQLULEN size = p.text_value.empty() ? 1 : p.text_value.size();
                    if (p.text_value.size() > put_data_threshold) {
                        // The driver asks for the value during SQLExecute; the
                        // token it hands back is the parameter number.
                        p.indicator =
                            SQL_LEN_DATA_AT_EXEC(static_cast<SQLLEN>(p.text_value.size()));
                        rc = SQLBindParameter(stmt_.get(), number, SQL_PARAM_INPUT, SQL_C_CHAR,
                                              SQL_LONGVARCHAR, size, 0,
                                              reinterpret_cast<SQLPOINTER>(k + 1), 0, &p.indicator);
                    } else {
                        p.indicator = static_cast<SQLLEN>(p.text_value.size());
                        char* data =
                            p.text_value.empty() ? empty : const_cast<char*>(p.text_value.data());
                        rc = SQLBindParameter(
                            stmt_.get(), number, SQL_PARAM_INPUT, SQL_C_CHAR, SQL_LONGVARCHAR, size,
                            0, data, static_cast<SQLLEN>(p.text_value.size()), &p.indicator);
                    }
                    break;
                }
            }
            if (!ok(rc)) {
                handles_->fail("SQLBindParameter", SQL_HANDLE_STMT, stmt_.get());
                return false;
            }
        }
        return true;
    }

    // Sends the values the driver asks for during SQLExecute, in chunks.
    SQLRETURN put_data() {
        SQLRETURN rc;
        SQLPOINTER token = nullptr;
        while ((rc = SQLParamData(stmt_.get(), &token)) == SQL_NEED_DATA) {
            const auto k = reinterpret_cast<std::uintptr_t>(token);
            if (k < 1 || k > params_.size()) {
                handles_->fail("the driver asked for unknown parameter " + std::to_string(k));
                SQLCancel(stmt_.get());
                return SQL_ERROR;
            }
            const std::string_view text = params_[k - 1].text_value;
            for (std::size_t at = 0; at < text.size(); at += put_data_chunk) {
                const std::size_t n = std::min(put_data_chunk, text.size() - at);
                const SQLRETURN put = SQLPutData(stmt_.get(), const_cast<char*>(text.data() + at),
                                                 static_cast<SQLLEN>(n));
                if (!ok(put)) {
                    handles_->fail("SQLPutData", SQL_HANDLE_STMT, stmt_.get());
                    SQLCancel(stmt_.get());
                    return SQL_ERROR;
                }
            }
        }
        if (rc == SQL_ERROR) handles_->fail(execute_call(), SQL_HANDLE_STMT, stmt_.get());
        return rc;
    }

    bool execute() {
        if (!bind_parameters()) return false;
        SQLRETURN rc =
            direct_sql_.empty()
                ? SQLExecute(stmt_.get())
                : SQLExecDirect(stmt_.get(), reinterpret_cast<SQLCHAR*>(direct_sql_.data()),
                                static_cast<SQLINTEGER>(direct_sql_.size()));
        if (rc == SQL_NEED_DATA) {
            rc = put_data();
            if (rc == SQL_ERROR) return false;
        }
        // SQL_NO_DATA: a searched UPDATE or DELETE that matched nothing.
        if (!ok(rc) && rc != SQL_NO_DATA) {
            handles_->fail(execute_call(), SQL_HANDLE_STMT, stmt_.get());
            return false;
        }
        return describe_columns();
    }

    const char* execute_call() const {
        return direct_sql_.empty() ? "SQLExecute" : "SQLExecDirect";
    }

    bool describe_columns() {
        if (!row_.empty() && bound_ && !ok(SQLFreeStmt(stmt_.get(), SQL_UNBIND))) {
            handles_->fail("SQLFreeStmt(UNBIND)", SQL_HANDLE_STMT, stmt_.get());
            return false;
        }
        bound_ = false;
        columns_.clear();
        row_.clear();
        SQLSMALLINT count = 0;
        if (!ok(SQLNumResultCols(stmt_.get(), &count))) {
            handles_->fail("SQLNumResultCols", SQL_HANDLE_STMT, stmt_.get());
            return false;
        }
        // A text of several statements sent whole answers with the rows of
        // its first statement that has any.
        while (count == 0 && !direct_sql_.empty()) {
            const SQLRETURN more = SQLMoreResults(stmt_.get());
            if (more == SQL_NO_DATA) break;
            if (!ok(more) || !ok(SQLNumResultCols(stmt_.get(), &count))) {
                handles_->fail("SQLMoreResults", SQL_HANDLE_STMT, stmt_.get());
                return false;
            }
        }
        for (SQLSMALLINT i = 1; i <= count; ++i) {
            std::vector<SQLCHAR> name(256);
            SQLSMALLINT length = 0, type = 0, digits = 0;
            SQLULEN size = 0;
            // No nullability asked: psqlODBC would look it up in the catalog
            // with one more query per statement.
            SQLRETURN rc = SQLDescribeCol(stmt_.get(), static_cast<SQLUSMALLINT>(i), name.data(),
                                          static_cast<SQLSMALLINT>(name.size()), &length, &type,
                                          &size, &digits, nullptr);
            if (ok(rc) && length >= static_cast<SQLSMALLINT>(name.size())) {
                name.resize(static_cast<std::size_t>(length) + 1);
                rc = SQLDescribeCol(stmt_.get(), static_cast<SQLUSMALLINT>(i), name.data(),
                                    static_cast<SQLSMALLINT>(name.size()), &length, &type, &size,
                                    &digits, nullptr);
            }
            if (!ok(rc)) {
                handles_->fail("SQLDescribeCol", SQL_HANDLE_STMT, stmt_.get());
                return false;
            }
            Column c;
            c.name.assign(reinterpret_cast<const char*>(name.data()));
            switch (type) {
                case SQL_BIGINT:
                case SQL_INTEGER:
                case SQL_SMALLINT:
                case SQL_TINYINT:
                case SQL_BIT:
                    c.kind = sql::ColumnType::integer;
                    break;
                case SQL_REAL:
                case SQL_FLOAT:
                case SQL_DOUBLE:
                    c.kind = sql::ColumnType::real;
                    break;
                case SQL_NUMERIC:
                case SQL_DECIMAL:
                    // As text, converted when a number is asked for: a double
                    // would round it, and psqlODBC describes the scale of an
                    // unconstrained NUMERIC from the first rows it fetched.
                    c.decimal = true;
                    break;
                default:
                    c.kind = sql::ColumnType::text;
                    break;
            }
            columns_.push_back(std::move(c));
        }
        row_.resize(columns_.size());
        return handles_->bind_columns ? bind_columns() : true;
    }

    // Binds every result column to its cell; row_ is not resized until the
    // next describe_columns, which unbinds first.
    bool bind_columns() {
        static_assert(sizeof(int64_t) == sizeof(SQLBIGINT), "integers are bound as SQLBIGINT");
        const SQLULEN rows = !row_.empty() && use_rowset() ? handles_->rowset : 1;
        for (std::size_t i = 0; i < row_.size(); ++i) {
            Cell& c = row_[i];
            const auto number = static_cast<SQLUSMALLINT>(i + 1);
            c.indicators.assign(rows, 0);
            SQLRETURN rc;
            switch (columns_[i].kind) {
                case sql::ColumnType::integer:
                    c.bound_integers.assign(rows, 0);
                    rc = SQLBindCol(stmt_.get(), number, SQL_C_SBIGINT, c.bound_integers.data(), 0,
                                    c.indicators.data());
                    break;
                case sql::ColumnType::real:
                    c.bound_reals.assign(rows, 0);
                    rc = SQLBindCol(stmt_.get(), number, SQL_C_DOUBLE, c.bound_reals.data(), 0,
                                    c.indicators.data());
                    break;
                default:
                    c.bound_text.resize(rows * (bound_text_size + 1));
                    rc = SQLBindCol(stmt_.get(), number, SQL_C_CHAR, c.bound_text.data(),
                                    static_cast<SQLLEN>(bound_text_size + 1), c.indicators.data());
                    break;
            }
            if (!ok(rc)) {
                handles_->fail("SQLBindCol", SQL_HANDLE_STMT, stmt_.get());
                return false;
            }
            bound_ = true;
        }
        return true;
    }

    // The value of column `i` in the current row, read on first use.
    const Cell* cell(int i) {
        if (state_ != State::rows || !valid_column(i)) {
            handles_->fail("column " + std::to_string(i) + " is not readable (no current row or " +
                           "out of range)");
            return nullptr;
        }
        Cell& c = row_[static_cast<std::size_t>(i)];
        if (!c.fetched) {
            if (!fetch(static_cast<SQLUSMALLINT>(i + 1), columns_[static_cast<std::size_t>(i)].kind,
                       c)) {
                read_failed_ = true;
                return nullptr;
            }
            if (c.type == sql::ColumnType::text && decimal(i)) with_c_decimal_point(c.text);
            c.fetched = true;
        }
        return &c;
    }

    bool fetch(SQLUSMALLINT number, sql::ColumnType kind, Cell& c) {
        if (bound_) return from_bound(number, kind, c);
        SQLLEN indicator = 0;
        SQLRETURN rc;
        if (kind == sql::ColumnType::integer) {
            SQLBIGINT v = 0;
            rc = SQLGetData(stmt_.get(), number, SQL_C_SBIGINT, &v, 0, &indicator);
            c.integer_value = v;
        } else if (kind == sql::ColumnType::real) {
            rc = SQLGetData(stmt_.get(), number, SQL_C_DOUBLE, &c.real_value, 0, &indicator);
        } else {
            return fetch_text(number, c);
        }
        if (!ok(rc)) {
            handles_->fail("SQLGetData", SQL_HANDLE_STMT, stmt_.get());
            return false;
        }
        c.type = indicator == SQL_NULL_DATA ? sql::ColumnType::null : kind;
        return true;
    }

    // The value SQLFetch left in the cell's bound buffer for the current row;
    // a text that did not fit (or whose length the driver does not know) is
    // read with SQLGetData.
    bool from_bound(SQLUSMALLINT number, sql::ColumnType kind, Cell& c) {
        c.in_bound = false;
        const SQLLEN indicator = c.indicators[row_in_set_];
        if (indicator == SQL_NULL_DATA) {
            c.type = sql::ColumnType::null;
            c.text.clear();
            return true;
        }
        c.type = kind;
        if (kind == sql::ColumnType::integer) {
            c.integer_value = c.bound_integers[row_in_set_];
            return true;
        }
        if (kind == sql::ColumnType::real) {
            c.real_value = c.bound_reals[row_in_set_];
            return true;
        }
        if (indicator >= 0 && static_cast<std::size_t>(indicator) <= bound_text_size) {
            const std::string_view value(&c.bound_text[row_in_set_ * (bound_text_size + 1)],
                                         static_cast<std::size_t>(indicator));
            // Read where it is, but a NUMERIC's text, which is rewritten.
            if (decimal(number - 1)) {
                c.text.assign(value);
            } else {
                c.bound_value = value;
                c.in_bound = true;
            }
            return true;
        }
        return fetch_text(number, c);
    }

    // Rowsets where the columns are bound and the driver reads a row of one
    // with SQLGetData; set on the statement before its first fetch.
    bool use_rowset() {
        if (handles_->rowset <= 1) return false;
        if (rowset_bound_) return true;
        const auto set = [this](SQLINTEGER attribute, SQLPOINTER value) {
            return ok(SQLSetStmtAttr(stmt_.get(), attribute, value, 0));
        };
        row_status_.assign(handles_->rowset, SQL_ROW_SUCCESS);
        // A driver that refuses any of these fetches a row at a time.
        rowset_bound_ =
            set(SQL_ATTR_ROW_BIND_TYPE, reinterpret_cast<SQLPOINTER>(SQL_BIND_BY_COLUMN)) &&
            set(SQL_ATTR_ROWS_FETCHED_PTR, &rows_in_set_) &&
            set(SQL_ATTR_ROW_STATUS_PTR, row_status_.data()) &&
            set(SQL_ATTR_ROW_ARRAY_SIZE, reinterpret_cast<SQLPOINTER>(handles_->rowset));
        if (!rowset_bound_) {
            set(SQL_ATTR_ROW_ARRAY_SIZE, reinterpret_cast<SQLPOINTER>(SQLULEN{1}));
            set(SQL_ATTR_ROW_STATUS_PTR, nullptr);
            set(SQL_ATTR_ROWS_FETCHED_PTR, nullptr);
        }
        return rowset_bound_;
    }

    // SQLGetData reads the current row of a rowset once SQLSetPos has
    // positioned on it.
    bool position() {
        if (!rowset_bound_ || positioned_) return true;
        if (!ok(SQLSetPos(stmt_.get(), static_cast<SQLSETPOSIROW>(row_in_set_ + 1), SQL_POSITION,
                          SQL_LOCK_NO_CHANGE))) {
            handles_->fail("SQLSetPos", SQL_HANDLE_STMT, stmt_.get());
            return false;
        }
        positioned_ = true;
        return true;
    }

    // Reads a text in a loop until the driver has no more: the described
    // column size is no limit (PostgreSQL texts are described as 8190).
    bool fetch_text(SQLUSMALLINT number, Cell& c) {
        std::string& out = c.text;
        out.clear();
        if (!position()) return false;
        std::size_t got = 0;
        std::size_t chunk = get_data_first_chunk;
        c.type = sql::ColumnType::text;
        for (bool first = true;; first = false) {
            out.resize(got + chunk + 1);
            SQLLEN indicator = 0;
            const SQLRETURN rc = SQLGetData(stmt_.get(), number, SQL_C_CHAR, &out[got],
                                            static_cast<SQLLEN>(chunk + 1), &indicator);
            if (rc == SQL_NO_DATA) {
                if (first) out.clear();
                break;
            }
            if (!ok(rc)) {
                out.clear();
                handles_->fail("SQLGetData", SQL_HANDLE_STMT, stmt_.get());
                return false;
            }
            if (indicator == SQL_NULL_DATA) {
                out.clear();
                c.type = sql::ColumnType::null;
                return true;
            }
            if (rc == SQL_SUCCESS) {
                // The rest fitted: the indicator is its length.
                const std::size_t n = indicator >= 0 && static_cast<std::size_t>(indicator) <= chunk
                                          ? static_cast<std::size_t>(indicator)
                                          : strnlen(&out[got], chunk);
                got += n;
                break;
            }
            // Truncated (01004): the buffer holds a NUL-terminated piece. Its
            // length is measured, not assumed, since a driver may stop short
            // of a character boundary; the indicator counted what remained
            // before this call. A call that gave nothing (not one whole
            // character fitted) is followed by a larger buffer.
            const std::size_t received = strnlen(&out[got], chunk);
            got += received;
            if (received > 0 && indicator != SQL_NO_TOTAL &&
                indicator > static_cast<SQLLEN>(received))
                chunk =
                    std::min(get_data_max_chunk, static_cast<std::size_t>(indicator) - received);
            else
                chunk = std::min(get_data_max_chunk, chunk * 2);
        }
        out.resize(got);
        return true;
    }

    std::shared_ptr<Handles> handles_;  // keeps the connection alive while the statement lives
    std::unique_ptr<void, StmtFree> stmt_;
    std::vector<Param> params_;
    std::string direct_sql_;
    std::vector<Column> columns_;
    std::vector<Cell> row_;
    bool bound_ = false;         // the columns of row_ are bound
    bool rowset_bound_ = false;  // SQLFetch fills a rowset of handles_->rowset rows
    SQLULEN rows_in_set_ = 0;    // rows the last SQLFetch gave (the driver writes it)
    SQLULEN row_in_set_ = 0;     // the current row's index in them
    bool positioned_ = false;    // SQLSetPos has positioned on the current row
    std::vector<SQLUSMALLINT> row_status_;
    bool read_failed_ = false;  // a value of the current row could not be read
    State state_ = State::ready;
};

}  // namespace

OdbcConnection::OdbcConnection(std::shared_ptr<Handles> handles) : handles_(std::move(handles)) {}

OdbcConnection::~OdbcConnection() = default;

std::unique_ptr<OdbcConnection> OdbcConnection::connect(const std::string& connection_string,
                                                        const ConnectOptions& options,
                                                        sql::Error& error) {
    auto h = std::make_shared<Handles>();
    h->query_timeout_s = options.query_timeout_s;
    const auto failed = [&](const char* call, SQLSMALLINT type, SQLHANDLE handle) {
        h->fail(call, type, handle);
        error = h->error;
        return nullptr;
    };

    SQLHANDLE env = nullptr;
    if (!ok(SQLAllocHandle(SQL_HANDLE_ENV, SQL_NULL_HANDLE, &env)))
        return failed("SQLAllocHandle(ENV)", SQL_HANDLE_ENV, nullptr);
    h->env.reset(env);
    if (!ok(SQLSetEnvAttr(env, SQL_ATTR_ODBC_VERSION, reinterpret_cast<SQLPOINTER>(SQL_OV_ODBC3),
                          0)))
        return failed("SQLSetEnvAttr(ODBC_VERSION)", SQL_HANDLE_ENV, env);

    SQLHANDLE dbc = nullptr;
    if (!ok(SQLAllocHandle(SQL_HANDLE_DBC, env, &dbc)))
        return failed("SQLAllocHandle(DBC)", SQL_HANDLE_ENV, env);
    if (options.login_timeout_s > 0 &&
        !ok(SQLSetConnectAttr(
            dbc, SQL_ATTR_LOGIN_TIMEOUT,
            reinterpret_cast<SQLPOINTER>(static_cast<SQLULEN>(options.login_timeout_s)), 0))) {
        SQLFreeHandle(SQL_HANDLE_DBC, dbc);
        return failed("SQLSetConnectAttr(LOGIN_TIMEOUT)", SQL_HANDLE_ENV, env);
    }

    SQLCHAR out[1024];
    SQLSMALLINT out_length = 0;
    const SQLRETURN rc = SQLDriverConnect(
        dbc, nullptr, reinterpret_cast<SQLCHAR*>(const_cast<char*>(connection_string.c_str())),
        SQL_NTS, out, sizeof out, &out_length, SQL_DRIVER_NOPROMPT);
    if (!ok(rc)) {
        h->fail("SQLDriverConnect", SQL_HANDLE_DBC, dbc);
        error = h->error;
        SQLFreeHandle(SQL_HANDLE_DBC, dbc);
        return nullptr;
    }
    h->dbc.reset(dbc);  // from here on the deleter disconnects

    if (options.read_only)
        SQLSetConnectAttr(dbc, SQL_ATTR_ACCESS_MODE,
                          reinterpret_cast<SQLPOINTER>(SQL_MODE_READ_ONLY),
                          0);  // a hint; servers enforce read-only through their own settings

    SQLCHAR name[256] = {0};
    SQLSMALLINT name_length = 0;
    if (!ok(SQLGetInfo(dbc, SQL_DBMS_NAME, name, sizeof name, &name_length)))
        return failed("SQLGetInfo(DBMS_NAME)", SQL_HANDLE_DBC, dbc);
    h->dbms_name.assign(reinterpret_cast<const char*>(name));

    SQLUINTEGER getdata = 0;
    constexpr SQLUINTEGER needed = SQL_GD_BOUND | SQL_GD_ANY_COLUMN | SQL_GD_ANY_ORDER;
    h->bind_columns =
        ok(SQLGetInfo(dbc, SQL_GETDATA_EXTENSIONS, &getdata, sizeof getdata, nullptr)) &&
        (getdata & needed) == needed;
    if (h->bind_columns && (getdata & SQL_GD_BLOCK) != 0) h->rowset = rowset_rows;

    return std::unique_ptr<OdbcConnection>(new OdbcConnection(std::move(h)));
}

namespace {

// A statement handle of `h` with the query timeout set; null on failure.
std::unique_ptr<void, StmtFree> new_statement(Handles& h) {
    SQLHANDLE raw = nullptr;
    if (!ok(SQLAllocHandle(SQL_HANDLE_STMT, h.dbc.get(), &raw))) {
        h.fail("SQLAllocHandle(STMT)", SQL_HANDLE_DBC, h.dbc.get());
        return nullptr;
    }
    std::unique_ptr<void, StmtFree> stmt(raw);
    if (h.query_timeout_s > 0 &&
        !ok(SQLSetStmtAttr(raw, SQL_ATTR_QUERY_TIMEOUT,
                           reinterpret_cast<SQLPOINTER>(static_cast<SQLULEN>(h.query_timeout_s)),
                           0))) {
        h.fail("SQLSetStmtAttr(QUERY_TIMEOUT)", SQL_HANDLE_STMT, raw);
        return nullptr;
    }
    return stmt;
}

}  // namespace

std::unique_ptr<sql::Statement> OdbcConnection::prepare(const std::string& sql) {
    Handles& h = *handles_;
    std::unique_ptr<void, StmtFree> stmt = new_statement(h);
    if (!stmt) return nullptr;
    SQLHANDLE raw = stmt.get();
    if (!ok(SQLPrepare(raw, reinterpret_cast<SQLCHAR*>(const_cast<char*>(sql.c_str())),
                       static_cast<SQLINTEGER>(sql.size())))) {
        h.fail("SQLPrepare", SQL_HANDLE_STMT, raw);
        return nullptr;
    }
    SQLSMALLINT parameters = 0;
    if (!ok(SQLNumParams(raw, &parameters))) {
        h.fail("SQLNumParams", SQL_HANDLE_STMT, raw);
        return nullptr;
    }
    return std::make_unique<OdbcStatement>(handles_, stmt.release(),
                                           static_cast<std::size_t>(parameters));
}

std::unique_ptr<sql::Statement> OdbcConnection::prepare_direct(const std::string& sql) {
    std::unique_ptr<void, StmtFree> stmt = new_statement(*handles_);
    if (!stmt) return nullptr;
    return std::make_unique<OdbcStatement>(handles_, stmt.release(), 0, sql);
}

bool OdbcConnection::begin() {
    Handles& h = *handles_;
    if (h.in_transaction) {
        h.fail("begin: a transaction is already open");
        return false;
    }
    if (!ok(SQLSetConnectAttr(h.dbc.get(), SQL_ATTR_AUTOCOMMIT,
                              reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_OFF), 0))) {
        h.fail("SQLSetConnectAttr(AUTOCOMMIT_OFF)", SQL_HANDLE_DBC, h.dbc.get());
        return false;
    }
    h.in_transaction = true;
    return true;
}

namespace {

bool end_transaction(Handles& h, SQLSMALLINT how, const char* call) {
    if (!h.in_transaction) {
        h.fail(std::string(call) + ": no transaction is open");
        return false;
    }
    // psqlODBC answers success to a commit on a connection it already knows
    // to be lost (the server ended the transaction with it), and commits
    // nothing: that commit is a failure.
    SQLUINTEGER gone = SQL_CD_FALSE;
    if (how == SQL_COMMIT && (h.dead || (ok(SQLGetConnectAttr(h.dbc.get(), SQL_ATTR_CONNECTION_DEAD,
                                                              &gone, 0, nullptr)) &&
                                         gone == SQL_CD_TRUE))) {
        h.dead = true;
        h.fail(std::string(call) + ": the connection to the server was lost before the commit");
        h.error.sqlstate = "08S01";
        (void)SQLEndTran(SQL_HANDLE_DBC, h.dbc.get(), SQL_ROLLBACK);
        (void)SQLSetConnectAttr(h.dbc.get(), SQL_ATTR_AUTOCOMMIT,
                                reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_ON), 0);
        h.in_transaction = false;
        return false;
    }
    const SQLRETURN rc = SQLEndTran(SQL_HANDLE_DBC, h.dbc.get(), how);
    bool done = ok(rc);
    if (!done) h.fail(call, SQL_HANDLE_DBC, h.dbc.get());
    // Back to autocommit whatever the outcome; a failed commit has rolled back.
    // A session left in manual commit would hold its next reads in one
    // snapshot and its next writes uncommitted: it is reopened instead.
    if (!ok(SQLSetConnectAttr(h.dbc.get(), SQL_ATTR_AUTOCOMMIT,
                              reinterpret_cast<SQLPOINTER>(SQL_AUTOCOMMIT_ON), 0))) {
        if (done) h.fail("SQLSetConnectAttr(AUTOCOMMIT_ON)", SQL_HANDLE_DBC, h.dbc.get());
        h.dead = true;
        done = false;
    }
    h.in_transaction = false;
    return done;
}

}  // namespace

bool OdbcConnection::commit() {
    return end_transaction(*handles_, SQL_COMMIT, "SQLEndTran(COMMIT)");
}

bool OdbcConnection::rollback() {
    // A commit that failed has ended its transaction already: nothing is
    // left to roll back, and the commit's failure stays the one reported.
    if (!handles_->in_transaction) return true;
    return end_transaction(*handles_, SQL_ROLLBACK, "SQLEndTran(ROLLBACK)");
}

bool OdbcConnection::rollback_keeping_error() {
    Handles& h = *handles_;
    sql::Error error = h.error;
    std::vector<Diagnostic> diagnostics = h.diagnostics;
    const bool done = rollback();
    h.error = std::move(error);
    h.diagnostics = std::move(diagnostics);
    return done;
}

bool OdbcConnection::execute_direct(const std::string& sql) {
    Handles& h = *handles_;
    SQLHANDLE raw = nullptr;
    if (!ok(SQLAllocHandle(SQL_HANDLE_STMT, h.dbc.get(), &raw))) {
        h.fail("SQLAllocHandle(STMT)", SQL_HANDLE_DBC, h.dbc.get());
        return false;
    }
    const std::unique_ptr<void, StmtFree> stmt(raw);
    const SQLRETURN rc =
        SQLExecDirect(raw, reinterpret_cast<SQLCHAR*>(const_cast<char*>(sql.c_str())),
                      static_cast<SQLINTEGER>(sql.size()));
    if (ok(rc) || rc == SQL_NO_DATA) return true;
    h.fail("SQLExecDirect", SQL_HANDLE_STMT, raw);
    return false;
}

void OdbcConnection::record_failure(std::string message) { handles_->fail(std::move(message)); }

bool OdbcConnection::in_transaction() const { return handles_->in_transaction; }

const sql::Error& OdbcConnection::last_error() const { return handles_->error; }

bool OdbcConnection::is_alive() {
    Handles& h = *handles_;
    if (h.dead) return false;
    SQLUINTEGER dead = SQL_CD_FALSE;
    if (ok(SQLGetConnectAttr(h.dbc.get(), SQL_ATTR_CONNECTION_DEAD, &dead, 0, nullptr)) &&
        dead == SQL_CD_TRUE)
        h.dead = true;
    return !h.dead;
}

const std::string& OdbcConnection::dbms_name() const { return handles_->dbms_name; }

const std::vector<Diagnostic>& OdbcConnection::last_diagnostics() const {
    return handles_->diagnostics;
}

void OdbcConnection::set_require_utf8(bool on) { handles_->require_utf8 = on; }

}  // namespace vesk::datastore::odbc_backend
