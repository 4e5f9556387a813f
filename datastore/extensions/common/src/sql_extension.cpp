// SqlExtension: the operations of an SQL datastore over the statement seam.
#include "vesk/datastore/sql/sql_extension.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <strings.h>

#include "vesk/datastore/operations.h"
#include "vesk/datastore/row_fields.h"
#include "vesk/datastore/sql/checks.h"
#include "vesk/datastore/vocabulary.h"
#include "vesk/log.h"

namespace vesk::datastore::sql {
namespace {

constexpr int kErrorLevel = 3;
constexpr int kInfoLevel = 6;

#define VESK_SQL_LOG(level) vesk::log::ErrorLog(__FILE__, __func__, __LINE__, level).stream()

// Splits the stored node list at ',' and strips blanks around each name.
void split_nodes(const std::string& text, std::vector<std::string>& out) {
    out.clear();
    const char* const end = text.data() + text.size();
    auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    for (const char* piece = text.data(); piece <= end;) {
        const char* stop = std::find(piece, end, ',');
        const char* first = piece;
        const char* last = stop;
        while (first < last && blank(*first)) ++first;
        while (last > first && blank(last[-1])) --last;
        if (first < last) out.emplace_back(first, static_cast<size_t>(last - first));
        if (stop == end) break;
        piece = stop + 1;
    }
}

// Reads column `column` into a 32-bit field named `name`. A value beyond
// 32 bits is refused in `problem` rather than cut: a row number past
// 2147483647 would otherwise name another row.
bool read_int32(Statement& stmt, int column, const char* name, int32_t& out, std::string& problem) {
    const int64_t value = stmt.column_int64(column);
    if (value < INT32_MIN || value > INT32_MAX) {
        problem = "column \"" + stmt.column_name(column) + "\": " + std::to_string(value) +
                  " does not fit the 32-bit field " + name;
        return false;
    }
    out = static_cast<int32_t>(value);
    return true;
}

// Reads column `column` of the current row into field `field` of `row`;
// false on failure, with the reason in `problem` when it is the kit's own.
bool read_field(Statement& stmt, int column, const RowField& field, Row& row, std::string& scratch,
                std::string& problem) {
    switch (field.kind) {
        case FieldKind::int32:
            return read_int32(stmt, column, field.name, row.*field.int32, problem);
        case FieldKind::int64:
            row.*field.int64 = stmt.column_int64(column);
            return true;
        case FieldKind::real:
            row.*field.real = stmt.column_double(column);
            return true;
        case FieldKind::text:
            return stmt.column_text(column, row.*field.text);
        case FieldKind::node_list:
            if (!stmt.column_text(column, scratch)) return false;
            split_nodes(scratch, row.*field.list);
            return true;
    }
    return false;
}

bool read_field(Statement& stmt, int column, int position, Row& row, std::string& scratch,
                std::string& problem) {
    return read_field(stmt, column, kRowFields[position], row, scratch, problem);
}

bool read_field(Statement& stmt, int column, int position, Row_baseline& row,
                std::string& /*scratch*/, std::string& problem) {
    switch (position) {
        case 0:
            return read_int32(stmt, column, "rowid", row.rowid, problem);
        case 1:
            return stmt.column_text(column, row.baseline_id);
        case 2:
            return read_int32(stmt, column, "datastore_rowid", row.datastore_rowid, problem);
        case 3:
            return stmt.column_text(column, row.fwd_name);
        case 4:
            return stmt.column_text(column, row.provider_checksum);
        case 5:
            return stmt.column_text(column, row.command_checksum);
        default:
            return true;
    }
}
constexpr int kBaselineFieldCount = 6;

bool run_to_end(Statement& stmt) {
    StepResult r = stmt.step();
    while (r == StepResult::row) r = stmt.step();
    const bool reset = stmt.reset();
    return r == StepResult::done && reset;
}

// Field position of every result column, -1 for columns not mapped. Names
// match without regard to case (servers fold them); when a name occurs twice
// (a join of two tables that both have "rowid") the first column wins.
std::vector<int> map_columns(Statement& stmt, const std::map<std::string, int>& fields,
                             int field_count) {
    const int count = stmt.column_count();
    std::vector<int> columns(static_cast<size_t>(std::max(count, 0)), -1);
    std::vector<bool> taken(static_cast<size_t>(field_count), false);
    for (int i = 0; i < count; ++i) {
        const std::string name = stmt.column_name(i);
        for (const auto& [key, position] : fields) {
            if (strcasecmp(key.c_str(), name.c_str()) != 0) continue;
            if (position >= 0 && position < field_count && !taken[position]) {
                columns[i] = position;
                taken[position] = true;
            }
            break;
        }
    }
    return columns;
}

}  // namespace

SqlExtension::SqlExtension(const Dialect& dialect) : dialect_(dialect) {
    hosts_query = dialect_.hosts_sql();
}

SqlExtension::~SqlExtension() = default;

std::string SqlExtension::describe(const Error& error) const {
    return error.message.empty() ? "error " + std::to_string(error.native_code) : error.message;
}

std::string SqlExtension::row_size_problem(size_t /*bytes*/) const { return ""; }

std::string SqlExtension::row_text_problem(const vesk::provider::header& /*header*/,
                                           const std::string& /*option_id*/,
                                           const std::string& /*std_out*/,
                                           const std::string& /*std_err*/) const {
    return "";
}

std::string SqlExtension::snapshot_text_problem(const char* /*field*/,
                                                const std::string& /*text*/) const {
    return "";
}

void SqlExtension::release_statements() {
    insert_.reset();
    insert_rows_.reset();
    insert_arrays_.reset();
}

int32_t SqlExtension::control(uint16_t op, const void* in, void* out, void* extra) {
    if (op != OP_BULK_INSERT) return interface::control(op, in, out, extra);
    try {
        if (in == nullptr) {
            VESK_SQL_LOG(kErrorLevel) << where() << "bulk insert without rows";
            return OPERATION_UNSUCCESSFULL;
        }
        return bulk_insert(*static_cast<const std::vector<InsertRecord>*>(in))
                   ? OPERATION_SUCCESSFULL
                   : OPERATION_UNSUCCESSFULL;
    } catch (...) {
        return OPERATION_UNSUCCESSFULL;
    }
}

bool SqlExtension::writable(const char* what) {
    if (connection() == nullptr) {
        VESK_SQL_LOG(kErrorLevel) << where() << what << ": the datastore is not open";
        return false;
    }
    if (read_only()) {
        VESK_SQL_LOG(kErrorLevel) << where() << what << ": the datastore is read-only";
        return false;
    }
    return prepare_write();
}

// The builders of the base class quote names without escaping them: a name
// with a quote could end the literal and add SQL of its own.
bool SqlExtension::names_safe(const std::vector<std::string>& names, const char* what) {
    for (const auto& name : names) {
        if (name.find('\'') == std::string::npos && name.find('\0') == std::string::npos) continue;
        VESK_SQL_LOG(kErrorLevel) << where() << "refused " << what
                                  << " name with a quote or a NUL byte: " << name;
        return false;
    }
    return true;
}

std::unique_ptr<Statement> SqlExtension::prepare(const std::string& sql) {
    std::unique_ptr<Statement> stmt;
    const Outcome done = attempt([&] {
        stmt = connection()->prepare(sql);
        return stmt ? Outcome::ok : Outcome::failed;
    });
    if (done == Outcome::ok) return stmt;
    VESK_SQL_LOG(kErrorLevel) << where() << "cannot prepare \"" << sql
                              << "\": " << describe(connection()->last_error());
    return nullptr;
}

// Runs `body` between begin and commit: all of its writes or none. A failure
// rolls back; attempt() may start it over.
SqlExtension::Outcome SqlExtension::transaction(const std::function<Outcome()>& body) {
    return attempt([&] {
        Connection& c = *connection();
        if (!c.begin()) return Outcome::failed;
        Outcome outcome = Outcome::failed;
        try {
            outcome = body();
        } catch (...) {
            // Out of memory while building a statement: an open transaction
            // would take in the next calls' writes and never commit them.
            (void)c.rollback();
            throw;
        }
        if (outcome == Outcome::ok) {
            if (c.commit()) return Outcome::ok;
            outcome = Outcome::failed;
        }
        // A rollback that succeeds keeps the details of the failure before it.
        (void)c.rollback();
        return outcome;
    });
}

// ---- writes ----

std::string SqlExtension::check_row(const vesk::provider::header& header,
                                    const std::string& option_id, const std::string& std_out,
                                    const std::string& std_err) {
    size_t node_bytes = 0;
    if (std::string why = checks::row_problem(header, option_id, std_out, std_err, node_bytes);
        !why.empty())
        return why;
    if (std::string why = row_text_problem(header, option_id, std_out, std_err); !why.empty())
        return why;
    return row_size_problem(header.provider.size() + header.hostname.size() + node_bytes +
                            std_out.size() + std_err.size() + option_id.size() +
                            header.username.size());
}

// Binds the 14 values of one row to parameters first + 1 to first + 14, in
// the order of kRowFields from column 1 on. `nodes` receives the joined node
// list and must stay as it is until the statement has run.
bool SqlExtension::bind_row(Statement& stmt, int first, const vesk::provider::header& header,
                            const std::string& option_id, const std::string& std_out,
                            const std::string& std_err, std::string& nodes) {
    nodes.clear();
    for (size_t i = 0; i < header.node_names.size(); ++i) {
        if (i) nodes += kNodeListSeparator;
        nodes += header.node_names[i];
    }
    static_assert(kRowFieldCount == 15, "the insert binds every column but rowid");
    const int k = first;
    return stmt.bind_text(k + 1, header.provider) && stmt.bind_text(k + 2, header.hostname) &&
           stmt.bind_int64(k + 3, header.num_nodes) && stmt.bind_text(k + 4, nodes) &&
           stmt.bind_int64(k + 5, header.exit_status) && stmt.bind_int64(k + 6, header.timestamp) &&
           stmt.bind_double(k + 7, header.duration) &&
           stmt.bind_int64(k + 8, static_cast<int64_t>(header.encoding)) &&
           stmt.bind_text(k + 9, std_out) && stmt.bind_text(k + 10, std_err) &&
           stmt.bind_text(k + 11, option_id) && stmt.bind_int64(k + 12, header.version) &&
           stmt.bind_text(k + 13, header.username) &&
           stmt.bind_int64(k + 14, header.unique_timestamp);
}

bool SqlExtension::write_row(const vesk::provider::header& header, const std::string& option_id,
                             const std::string& std_out, const std::string& std_err) {
    if (!insert_) {
        insert_ = connection()->prepare(dialect_.insert_sql());
        if (!insert_) return false;
    }
    Statement& stmt = *insert_;
    return bind_row(stmt, 0, header, option_id, std_out, std_err, node_text_) && run_to_end(stmt);
}

namespace {

// The values of one multi-row statement stay below this many bytes (a
// server reads one statement as one message), unless one row alone is larger.
constexpr size_t kMaxStatementBytes = size_t{16} << 20;

size_t value_bytes(const InsertRecord& r) {
    size_t bytes = r.std_out.size() + r.std_err.size() + r.option_id.size() +
                   r.header.provider.size() + r.header.hostname.size() + r.header.username.size();
    for (const auto& n : r.header.node_names) bytes += n.size() + 2;
    return bytes;
}

// INSERT INTO <table>(<columns>) VALUES(...),(...) for `rows` rows.
std::string insert_rows_sql(const Dialect& dialect, size_t rows) {
    const size_t columns = kRowFieldCount - 1;
    std::string sql = "INSERT INTO " + table_name + "(" + row_column_list(1) + ") VALUES";
    for (size_t r = 0; r < rows; ++r) {
        sql += r ? ",(" : "(";
        for (size_t c = 1; c <= columns; ++c) {
            if (c > 1) sql += ", ";
            sql += dialect.placeholder(static_cast<int>(r * columns + c));
        }
        sql += ")";
    }
    return sql + ";";
}

// Appends `value` to an array literal as a quoted element: inside double
// quotes only the backslash and the double quote need one.
void append_element(std::string& array, std::string_view value) {
    array += '"';
    for (const char c : value) {
        if (c == '"' || c == '\\') array += '\\';
        array += c;
    }
    array += '"';
}

void append_element(std::string& array, int64_t value) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    array.append(digits, end);
}

// The shortest text that reads back as the same double, in the words the
// server reads for the values that have no digits.
void append_element(std::string& array, double value) {
    if (std::isnan(value)) {
        array += "NaN";
    } else if (std::isinf(value)) {
        array += value < 0 ? "-Infinity" : "Infinity";
    } else {
        char digits[32];
        const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        array.append(digits, end);
    }
}

}  // namespace

// Writes records[at, at + count) as one statement of array_insert_sql():
// each column's values become one array parameter, built in `a`.
bool SqlExtension::write_row_arrays(const std::vector<InsertRecord>& records, size_t at,
                                    size_t count, std::array<std::string, 14>& a) {
    if (!insert_arrays_) {
        insert_arrays_ = connection()->prepare(dialect_.array_insert_sql());
        if (!insert_arrays_) return false;
    }
    static_assert(kRowFieldCount == 15, "one array per column but rowid");
    for (auto& column : a) column.assign(1, '{');
    for (size_t i = 0; i < count; ++i) {
        const InsertRecord& r = records[at + i];
        const auto& h = r.header;
        if (i > 0)
            for (auto& column : a) column += ',';
        append_element(a[0], h.provider);
        append_element(a[1], h.hostname);
        append_element(a[2], int64_t{h.num_nodes});
        node_text_.clear();
        for (size_t n = 0; n < h.node_names.size(); ++n) {
            if (n) node_text_ += kNodeListSeparator;
            node_text_ += h.node_names[n];
        }
        append_element(a[3], node_text_);
        append_element(a[4], int64_t{h.exit_status});
        append_element(a[5], int64_t{h.timestamp});
        append_element(a[6], h.duration);
        append_element(a[7], static_cast<int64_t>(h.encoding));
        append_element(a[8], r.std_out);
        append_element(a[9], r.std_err);
        append_element(a[10], r.option_id);
        append_element(a[11], int64_t{h.version});
        append_element(a[12], h.username);
        append_element(a[13], int64_t{h.unique_timestamp});
    }
    Statement& stmt = *insert_arrays_;
    for (size_t c = 0; c < a.size(); ++c) {
        a[c] += '}';
        if (!stmt.bind_text(static_cast<int>(c) + 1, a[c])) return false;
    }
    return run_to_end(stmt);
}

namespace {

// The number of records from `at` on that go into one statement: up to
// `per_statement`, fewer when their values would exceed kMaxStatementBytes.
size_t batch_size(const std::vector<InsertRecord>& records, size_t at, size_t per_statement) {
    size_t count = 0;
    size_t bytes = 0;
    while (at + count < records.size() && count < per_statement) {
        const size_t more = value_bytes(records[at + count]);
        if (count > 0 && bytes + more > kMaxStatementBytes) break;
        bytes += more;
        ++count;
    }
    return count;
}

}  // namespace

// Writes `records` in multi-row statements of up to rows_per_insert() rows
// (fewer when their values would exceed kMaxStatementBytes); the caller
// holds the transaction.
bool SqlExtension::write_rows(const std::vector<InsertRecord>& records) {
    const size_t per_statement = rows_per_insert();
    const bool arrays = !dialect_.array_insert_sql().empty();
    std::vector<std::string> nodes(arrays ? 0 : per_statement);
    std::array<std::string, 14> array_columns;
    constexpr int columns = static_cast<int>(kRowFieldCount) - 1;
    for (size_t at = 0; at < records.size();) {
        const size_t count = batch_size(records, at, per_statement);
        if (arrays) {
            if (!write_row_arrays(records, at, count, array_columns)) return false;
            at += count;
            continue;
        }
        std::unique_ptr<Statement> once;
        Statement* stmt;
        if (count == per_statement) {
            if (!insert_rows_) {
                insert_rows_ = connection()->prepare(insert_rows_sql(dialect_, per_statement));
                if (!insert_rows_) return false;
            }
            stmt = insert_rows_.get();
        } else {
            once = connection()->prepare(insert_rows_sql(dialect_, count));
            if (!once) return false;
            stmt = once.get();
        }
        for (size_t i = 0; i < count; ++i) {
            const InsertRecord& r = records[at + i];
            if (!bind_row(*stmt, static_cast<int>(i) * columns, r.header, r.option_id, r.std_out,
                          r.std_err, nodes[i]))
                return false;
        }
        if (!run_to_end(*stmt)) return false;
        at += count;
    }
    return true;
}

// The end of a failed write's message: nothing was written, unless the
// connection was lost on the way, when nobody knows.
std::string SqlExtension::write_failure() {
    Connection* c = connection();
    if (c == nullptr) return "the datastore is not open";
    const std::string why = describe(c->last_error());
    if (c->is_alive()) return "nothing written: " + why;
    return "the connection was lost, so whether it was written is unknown (it is not "
           "repeated): " +
           why;
}

bool SqlExtension::insert(const vesk::provider::header& header, const std::string& option_id,
                          const std::string& std_out, const std::string& std_err) {
    if (!writable("insert")) return false;
    if (const std::string why = check_row(header, option_id, std_out, std_err); !why.empty()) {
        VESK_SQL_LOG(kErrorLevel) << where() << "refused row of provider \"" << header.provider
                                  << "\", host \"" << header.hostname << "\": " << why;
        return false;
    }
    // One statement in autocommit mode: a failure leaves nothing behind.
    const Outcome done = attempt([&] {
        return write_row(header, option_id, std_out, std_err) ? Outcome::ok : Outcome::failed;
    });
    if (done == Outcome::ok) return true;
    VESK_SQL_LOG(kErrorLevel) << where() << "insert failed, " << write_failure();
    return false;
}

bool SqlExtension::bulk_insert(const std::vector<InsertRecord>& records) {
    if (!writable("bulk insert")) return false;
    for (size_t i = 0; i < records.size(); ++i) {
        const auto& r = records[i];
        if (const std::string why = check_row(r.header, r.option_id, r.std_out, r.std_err);
            !why.empty()) {
            VESK_SQL_LOG(kErrorLevel) << where() << "refused bulk insert of " << records.size()
                                      << " rows, row " << i << ": " << why;
            return false;
        }
    }
    if (records.empty()) return true;
    const Outcome done = transaction([&] {
        if (rows_per_insert() > 1) return write_rows(records) ? Outcome::ok : Outcome::failed;
        for (const auto& r : records)
            if (!write_row(r.header, r.option_id, r.std_out, r.std_err)) return Outcome::failed;
        return Outcome::ok;
    });
    if (done == Outcome::ok) return true;
    VESK_SQL_LOG(kErrorLevel) << where() << "bulk insert of " << records.size() << " rows failed, "
                              << write_failure();
    return false;
}

// ---- snapshots ----

namespace {

// Steps `stmt` once and resets it: found (a row), not found, or failed.
enum class Probe { found, missing, failed };
Probe probe(Statement& stmt) {
    const StepResult r = stmt.step();
    const bool reset = stmt.reset();
    if (r == StepResult::error || !reset) return Probe::failed;
    return r == StepResult::row ? Probe::found : Probe::missing;
}

}  // namespace

bool SqlExtension::update_snapshot(const std::map<std::string, ProviderInfoSet>& snapshots) {
    if (!writable("snapshot update")) return false;
    for (const auto& [id, entries] : snapshots) {
        // An id that the readers, which strip blanks, could not find as
        // written is refused like a provider or host name.
        if (const std::string why = checks::name_problem(id); !why.empty()) {
            VESK_SQL_LOG(kErrorLevel)
                << where() << "refused snapshot update: id \"" << id << "\" " << why;
            return false;
        }
        // A text the backend cannot store is refused before anything is
        // sent, naming the entry and the field.
        std::string refusal = snapshot_text_problem("baseline_id", id);
        for (auto entry = entries.begin(); refusal.empty() && entry != entries.end(); ++entry) {
            if (entry->config == nullptr) continue;
            const std::pair<const char*, const std::string*> texts[] = {
                {"fwd_name", &entry->config->fwd_name},
                {"provider_checksum", &entry->config->provider_checksum},
                {"command_checksum", &entry->config->command_checksum},
            };
            for (const auto& [field, text] : texts) {
                const std::string why = snapshot_text_problem(field, *text);
                if (why.empty()) continue;
                refusal = "row " + std::to_string(entry->rowid) + ": field " + field + ": " + why;
                break;
            }
        }
        if (!refusal.empty()) {
            if (refusal.compare(0, 4, "row ") != 0) refusal = "field baseline_id: " + refusal;
            VESK_SQL_LOG(kErrorLevel)
                << where() << "refused snapshot \"" << id << "\": " << refusal;
            return false;
        }
    }
    const std::string p1 = dialect_.placeholder(1), p2 = dialect_.placeholder(2);
    auto row_exists = prepare("SELECT 1 FROM " + table_name + " WHERE rowid = " + p1 + ";");
    auto member = prepare("SELECT 1 FROM " + table_baseline + " WHERE baseline_id = " + p1 +
                          " AND datastore_rowid = " + p2 + ";");
    auto update =
        prepare("UPDATE " + table_baseline + " SET fwd_name = " + dialect_.placeholder(1) +
                ", provider_checksum = " + dialect_.placeholder(2) + ", command_checksum = " +
                dialect_.placeholder(3) + " WHERE baseline_id = " + dialect_.placeholder(4) +
                " AND datastore_rowid = " + dialect_.placeholder(5) + ";");
    auto add = prepare("INSERT INTO " + table_baseline +
                       "(fwd_name, provider_checksum, command_checksum, baseline_id, "
                       "datastore_rowid) VALUES(" +
                       dialect_.placeholder(1) + ", " + dialect_.placeholder(2) + ", " +
                       dialect_.placeholder(3) + ", " + dialect_.placeholder(4) + ", " +
                       dialect_.placeholder(5) + ");");
    if (!row_exists || !member || !update || !add) return false;
    // A snapshot without members yet (a new one, or one just removed to be
    // recorded anew) needs no lookup per member: every entry is added.
    auto any_member =
        prepare("SELECT 1 FROM " + table_baseline + " WHERE baseline_id = " + p1 + " LIMIT 1;");
    if (!any_member) return false;
    std::string refusal;
    const Outcome done = transaction([&] {
        for (const auto& [id, entries] : snapshots) {
            if (!any_member->bind_text(1, id)) return Outcome::failed;
            const Probe existing = probe(*any_member);
            if (existing == Probe::failed) return Outcome::failed;
            for (const auto& entry : entries) {
                if (!row_exists->bind_int64(1, entry.rowid)) return Outcome::failed;
                const Probe row = probe(*row_exists);
                if (row == Probe::failed) return Outcome::failed;
                if (row == Probe::missing) {
                    refusal = "refused snapshot \"" + id + "\": row " +
                              std::to_string(entry.rowid) + " does not exist";
                    return Outcome::refused;
                }
                Probe known = Probe::missing;
                if (existing == Probe::found) {
                    if (!member->bind_text(1, id) || !member->bind_int64(2, entry.rowid))
                        return Outcome::failed;
                    known = probe(*member);
                    if (known == Probe::failed) return Outcome::failed;
                }
                Statement& stmt = known == Probe::found ? *update : *add;
                const auto* config = entry.config.get();
                auto bind = [&stmt, config](int index,
                                            const std::string vesk::provider_config::*f) {
                    return config == nullptr ? stmt.bind_null(index)
                                             : stmt.bind_text(index, config->*f);
                };
                if (!bind(1, &vesk::provider_config::fwd_name) ||
                    !bind(2, &vesk::provider_config::provider_checksum) ||
                    !bind(3, &vesk::provider_config::command_checksum) || !stmt.bind_text(4, id) ||
                    !stmt.bind_int64(5, entry.rowid) || !run_to_end(stmt))
                    return Outcome::failed;
            }
        }
        return Outcome::ok;
    });
    if (done == Outcome::ok) return true;
    if (done == Outcome::refused)
        VESK_SQL_LOG(kErrorLevel) << where() << refusal;
    else
        VESK_SQL_LOG(kErrorLevel) << where() << "snapshot update failed, nothing written: "
                                  << describe(connection()->last_error());
    return false;
}

bool SqlExtension::remove_snapshot(const std::string& baseline_id) {
    if (!writable("snapshot removal")) return false;
    const std::string p1 = dialect_.placeholder(1);
    auto known = prepare("SELECT 1 FROM " + table_baseline + " WHERE baseline_id = " + p1 + ";");
    auto remove = prepare("DELETE FROM " + table_baseline + " WHERE baseline_id = " + p1 + ";");
    if (!known || !remove) return false;
    const Outcome done = transaction([&] {
        if (!known->bind_text(1, baseline_id) || !remove->bind_text(1, baseline_id))
            return Outcome::failed;
        const Probe found = probe(*known);
        if (found == Probe::failed) return Outcome::failed;
        if (found == Probe::missing) return Outcome::refused;
        return run_to_end(*remove) ? Outcome::ok : Outcome::failed;
    });
    if (done == Outcome::ok) return true;
    if (done == Outcome::refused)
        VESK_SQL_LOG(kInfoLevel) << where() << "no snapshot \"" << baseline_id << "\" to remove";
    else
        VESK_SQL_LOG(kErrorLevel) << where() << "removal of snapshot \"" << baseline_id
                                  << "\" failed, nothing removed: "
                                  << describe(connection()->last_error());
    return false;
}

bool SqlExtension::query_baseline_ids(SnapshotInfoSet& ids) {
    if (connection() == nullptr) return false;
    auto list = prepare("SELECT b.baseline_id, MAX(p.Unique_timestamp) FROM " + table_baseline +
                        " AS b LEFT JOIN " + table_name +
                        " AS p ON p.rowid = b.datastore_rowid GROUP BY b.baseline_id;");
    if (!list) return false;
    SnapshotInfoSet found;
    const Outcome done = attempt([&] {
        found.clear();
        std::string id;
        StepResult r;
        while ((r = list->step()) == StepResult::row) {
            if (!list->column_text(0, id)) return Outcome::failed;
            found.insert(SnapshotInfo{id, list->column_int64(1)});
        }
        const bool reset = list->reset();
        return r == StepResult::done && reset ? Outcome::ok : Outcome::failed;
    });
    if (done == Outcome::ok) {
        ids.insert(found.begin(), found.end());
        return true;
    }
    VESK_SQL_LOG(kErrorLevel) << where() << "listing snapshots failed: "
                              << describe(connection()->last_error());
    return false;
}

// ---- queries built by name ----

bool SqlExtension::select_provider(std::vector<std::string> providers, std::vector<Row>& rows,
                                   std::string filter) {
    if (!names_safe(providers, "provider")) return false;
    // A filter is the caller's text: the select is then the caller's.
    if (!filter.empty())
        return interface::select_provider(std::move(providers), rows, std::move(filter));
    return as_own_text(
        [&] { return interface::select_provider(std::move(providers), rows, std::string()); });
}

template <typename Select>
bool SqlExtension::as_own_text(Select&& select) {
    struct Scope {
        bool& flag;
        ~Scope() { flag = false; }
    } scope{own_text_};
    own_text_ = true;
    return select();
}

bool SqlExtension::run_latest(bool newest_run, const std::vector<std::string>& providers,
                              std::vector<Row>& rows, const std::vector<std::string>& hosts) {
    if (!names_safe(providers, "provider") || !names_safe(hosts, "host")) return false;
    if (!is_open()) return false;
    rows.clear();
    std::string condition;
    if (!generate_where_clause(providers, "Provider", condition)) return false;
    generate_where_clause(hosts, "Hostname", condition);  // no hosts: every host
    const std::string sql =
        newest_run ? dialect_.latest_run_sql(condition) : dialect_.latest_rows_sql(condition);
    return as_own_text([&] { return select(sql, rows, row_field_index); });
}

bool SqlExtension::get_latest_rows_provider(std::vector<std::string> providers,
                                            std::vector<Row>& rows,
                                            std::vector<std::string> hosts) {
    return run_latest(false, providers, rows, hosts);
}

bool SqlExtension::get_latest_collect_rows(std::vector<std::string> providers,
                                           std::vector<Row>& rows, std::vector<std::string> hosts) {
    return run_latest(true, providers, rows, hosts);
}

bool SqlExtension::get_snapshot_provider(
    std::string baseline_id, std::map<std::string, std::vector<Row>>& rows_by_provider,
    std::map<std::string, std::vector<Row_baseline>>& baselines, std::vector<std::string> providers,
    std::vector<std::string> hosts) {
    if (!names_safe({baseline_id}, "snapshot") || !names_safe(providers, "provider") ||
        !names_safe(hosts, "host"))
        return false;
    return interface::get_snapshot_provider(std::move(baseline_id), rows_by_provider, baselines,
                                            std::move(providers), std::move(hosts));
}

// ---- reads ----

bool SqlExtension::select(std::string sql, std::vector<Row>& rows,
                          const std::map<std::string, int>& fields) {
    return run_select(sql, rows, fields.empty() ? row_field_index : fields,
                      static_cast<int>(kRowFieldCount));
}

bool SqlExtension::select_from_baseline(std::string sql, std::vector<Row_baseline>& rows,
                                        const std::map<std::string, int>& fields) {
    return run_select(sql, rows, fields.empty() ? baseline_field_index : fields,
                      kBaselineFieldCount);
}

template <typename Record>
bool SqlExtension::run_select(const std::string& sql, std::vector<Record>& out,
                              const std::map<std::string, int>& fields, int field_count) {
    if (connection() == nullptr) {
        VESK_SQL_LOG(kErrorLevel) << where() << "select: the datastore is not open";
        return false;
    }
    const size_t first = out.size();
    const size_t capacity = out.capacity();
    const auto limit = static_cast<size_t>(max_result_bytes_);
    // end_query runs on every path, before anything else uses the connection.
    struct Guard {
        SqlExtension& self;
        bool ended = false;
        bool stopped = false;
        bool end() {
            if (!ended) stopped = self.end_query();
            ended = true;
            return stopped;
        }
        ~Guard() {
            try {
                end();
            } catch (...) {
                // Out of memory while ending: the select has failed already.
            }
        }
    };
    Outcome done = Outcome::failed;
    bool too_big = false;
    bool no_memory = false;
    std::string read_problem;  // a value the records cannot hold
    bool stopped = false;
    try {
        Guard guard{*this};
        std::unique_ptr<Statement> stmt = prepare_query(sql);
        if (!stmt) return false;
        start_query();
        std::vector<int> columns;
        std::string scratch;
        done = attempt([&] {
            out.resize(first);
            too_big = false;
            read_problem.clear();
            // Counted from the records read: asking for every column's size
            // again would cost as much as reading the row.
            size_t bytes = 0;
            bool mapped = false;
            StepResult r;
            while ((r = stmt->step()) == StepResult::row) {
                if (!mapped) {
                    columns = map_columns(*stmt, fields, field_count);
                    mapped = true;
                }
                out.emplace_back();
                Record& record = out.back();
                for (size_t i = 0; i < columns.size(); ++i)
                    if (columns[i] >= 0 && !read_field(*stmt, static_cast<int>(i), columns[i],
                                                       record, scratch, read_problem)) {
                        r = StepResult::error;
                        break;
                    }
                if (!read_problem.empty()) {
                    (void)stmt->reset();
                    return Outcome::refused;
                }
                if (r == StepResult::error) break;
                bytes += checks::record_bytes(record);
                if (bytes > limit) {
                    too_big = true;
                    break;
                }
            }
            const bool reset = stmt->reset();
            if (too_big) return Outcome::refused;
            return r == StepResult::done && reset ? Outcome::ok : Outcome::failed;
        });
        stopped = guard.end();
    } catch (...) {
        // Out of memory, most likely: the caller gets back what it had.
        no_memory = true;
        done = Outcome::failed;
    }
    if (done == Outcome::ok) return true;
    out.resize(first);  // all of the answer or nothing
    // The room the rows took goes back too: after running out of memory the
    // message below needs some.
    if (out.capacity() > capacity) out.shrink_to_fit();
    try {
        // The causes found here come first: the connection's last error,
        // which end_query reads for a time limit, may be an earlier
        // statement's when this one stopped without an error of its own.
        if (too_big)
            VESK_SQL_LOG(kErrorLevel)
                << where() << "answer exceeds max_result_bytes (" << max_result_bytes_
                << " bytes); narrow the statement or raise the limit: " << sql;
        else if (no_memory)
            VESK_SQL_LOG(kErrorLevel) << where() << "select failed: out of memory: " << sql;
        else if (!read_problem.empty())
            VESK_SQL_LOG(kErrorLevel)
                << where() << "select failed: " << read_problem << ": " << sql;
        else if (stopped)
            VESK_SQL_LOG(kErrorLevel) << where() << time_limit_text() << ": " << sql;
        else
            VESK_SQL_LOG(kErrorLevel)
                << where() << "select failed: " << describe(connection()->last_error()) << ": "
                << sql;
    } catch (...) {
    }
    return false;
}

}  // namespace vesk::datastore::sql
