// interface: dispatch of the operation codes 512 to 520 and the SQL builders
// of the row and snapshot queries.
#include "vesk/datastore/interface.h"

#include <sstream>
#include <stdexcept>
#include <string>

#include "vesk/datastore/vocabulary.h"
#include "vesk/str.h"

namespace vesk::datastore {
namespace {

// The one text this unit uses to say "not implemented". control recognises
// it by address, not by content: only an exception whose what() hands back
// this very pointer is reported as UNSUPPORTED_OPERATION. The default bodies
// below copy it into a std::string first, so they are reported as plain
// failures (OPERATION_UNSUCCESSFULL); callers rely on that.
static const char* const kUnsupportedOperation = "unsupported operation";

[[noreturn]] void throw_unsupported() {
    throw std::runtime_error(std::string(kUnsupportedOperation));
}

// The request of the operations that read `in`; a null pointer is a caller
// error, reported as a failed operation.
const ReadParameters& request_of(const void* in) {
    if (in == nullptr) throw std::invalid_argument("missing request");
    return *static_cast<const ReadParameters*>(in);
}

const SQLParameters& sql_of(const ReadParameters& request) {
    if (request.sql == nullptr) throw std::invalid_argument("missing SQL parameters");
    return *request.sql;
}

template <typename T>
T& output_of(void* out) {
    if (out == nullptr) throw std::invalid_argument("missing output");
    return *static_cast<T*>(out);
}

}  // namespace

interface::~interface() = default;

int32_t interface::control(uint16_t op, const void* in, void* out, void* /*extra*/) {
    // Unsigned distance from the first code: everything outside 512..520.
    if (static_cast<unsigned>(op) - 512u > 8u) return UNSUPPORTED_OPERATION;

    bool result = false;
    try {
        switch (op) {
            case OP_SELECT_HOSTS: {
                const SQLParameters& sql = sql_of(request_of(in));
                result = select(hosts_query, output_of<std::vector<Row>>(out), sql.field_map);
                break;
            }
            case OP_LATEST_ROWS_PROVIDER: {
                const ReadParameters& request = request_of(in);
                result = get_latest_rows_provider(request.first, output_of<std::vector<Row>>(out),
                                                  request.second);
                break;
            }
            case OP_SELECT_PROVIDER: {
                // A ready-made statement wins over the provider list; the
                // table text is then not used at all.
                const ReadParameters& request = request_of(in);
                const SQLParameters& sql = sql_of(request);
                std::string filter = vesk::str::stripws(sql.table);
                auto& rows = output_of<std::vector<Row>>(out);
                if (!sql.query.empty())
                    result = select(sql.query, rows, sql.field_map);
                else
                    result = select_provider(request.first, rows, filter);
                break;
            }
            case OP_INSERT: {
                // The record travels in `out`.
                const auto& record = output_of<const InsertRecord>(out);
                result = insert(record.header, record.option_id, record.std_out, record.std_err);
                break;
            }
            case OP_QUERY_BASELINE_IDS:
                result = query_baseline_ids(output_of<SnapshotInfoSet>(out));
                break;
            case OP_SNAPSHOT_PROVIDER: {
                const ReadParameters& request = request_of(in);
                // An empty snapshot list asks nothing and counts as success.
                if (request.first.empty()) return OPERATION_SUCCESSFULL;
                void* const* slots = &output_of<void* const>(out);
                if (slots[0] == nullptr || slots[1] == nullptr)
                    throw std::invalid_argument("missing output map");
                auto& baselines =
                    *static_cast<std::map<std::string, std::vector<Row_baseline>>*>(slots[0]);
                auto& rows = *static_cast<std::map<std::string, std::vector<Row>>*>(slots[1]);
                result = get_snapshot_provider(request.first.front(), rows, baselines,
                                               request.second, request.third);
                break;
            }
            case OP_UPDATE_SNAPSHOT: {
                // `out` points to a pointer to the map to record.
                const auto* snapshots =
                    output_of<const std::map<std::string, ProviderInfoSet>* const>(out);
                if (snapshots == nullptr) throw std::invalid_argument("missing snapshot map");
                result = update_snapshot(*snapshots);
                break;
            }
            case OP_LATEST_COLLECT_ROWS: {
                // Only the provider list is passed on: the newest run is
                // always taken over all hosts.
                const ReadParameters& request = request_of(in);
                result = get_latest_collect_rows(request.first, output_of<std::vector<Row>>(out),
                                                 std::vector<std::string>());
                break;
            }
            case OP_REMOVE_SNAPSHOT: {
                // The snapshot id travels in `out`.
                std::string baseline_id = output_of<const std::string>(out);
                result = remove_snapshot(baseline_id);
                break;
            }
            default:
                return UNSUPPORTED_OPERATION;
        }
    } catch (const std::runtime_error& e) {
        return e.what() == kUnsupportedOperation ? UNSUPPORTED_OPERATION : OPERATION_UNSUCCESSFULL;
    } catch (...) {
        return OPERATION_UNSUCCESSFULL;
    }
    return result ? OPERATION_SUCCESSFULL : OPERATION_UNSUCCESSFULL;
}

// ---- Operations an SQL extension implements itself ----

bool interface::insert(const vesk::provider::header& /*header*/, const std::string& /*option_id*/,
                       const std::string& /*std_out*/, const std::string& /*std_err*/) {
    throw_unsupported();
}

bool interface::select(std::string /*sql*/, std::vector<Row>& /*rows*/,
                       const std::map<std::string, int>& /*fields*/) {
    throw_unsupported();
}

bool interface::update_snapshot(const std::map<std::string, ProviderInfoSet>& /*snapshots*/) {
    throw_unsupported();
}

bool interface::remove_snapshot(const std::string& /*baseline_id*/) { throw_unsupported(); }

bool interface::query_baseline_ids(SnapshotInfoSet& /*ids*/) { throw_unsupported(); }

bool interface::select_from_baseline(std::string /*sql*/, std::vector<Row_baseline>& /*rows*/,
                                     const std::map<std::string, int>& /*fields*/) {
    throw_unsupported();
}

// ---- SQL builders ----

bool interface::generate_where_clause(std::vector<std::string> values, std::string column,
                                      std::string& where) {
    if (column.empty() || values.empty()) return false;

    std::string clause = " (" + column + " IN (";
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::string value = vesk::str::stripws(values[i]);
        if (value.empty())
            throw std::runtime_error("Invalid parameters to where query for " + column);
        // Quoted, not escaped: the extension vets the statement it runs.
        clause += "'" + value + "'";
        if (i < values.size() - 1) clause += ",";
    }
    clause += ") )";

    if (where.empty())
        where += clause;
    else
        where += " AND " + clause;
    return true;
}

bool interface::select_provider(std::vector<std::string> providers, std::vector<Row>& rows,
                                std::string filter) {
    std::ostringstream text;
    text << "SELECT * FROM " << table_view << " WHERE";

    std::string condition;
    if (!filter.empty()) condition = " (" + filter + ")";
    if (!generate_where_clause(providers, "Provider", condition)) return false;

    return select(text.str() + condition, rows, row_field_index);
}

namespace {

// The two "latest" queries: readiness test, then `rows` cleared, then
// head + provider (required) and host (optional) conditions + tail.
bool run_latest_query(interface& self, const std::string& head,
                      const std::vector<std::string>& providers, std::vector<Row>& rows,
                      const std::vector<std::string>& hosts, const std::string& tail) {
    if (!self.is_open()) return false;
    rows.clear();

    std::string condition;
    if (!self.generate_where_clause(providers, "Provider", condition)) return false;
    self.generate_where_clause(hosts, "Hostname", condition);  // no hosts: every host

    return self.select(head + condition + tail, rows, row_field_index);
}

}  // namespace

bool interface::get_latest_rows_provider(std::vector<std::string> providers, std::vector<Row>& rows,
                                         std::vector<std::string> hosts) {
    return run_latest_query(*this, "SELECT *, MAX(unique_timestamp) FROM " + table_view + " WHERE",
                            providers, rows, hosts, "GROUP BY OptionID, Hostname, Provider;");
}

bool interface::get_latest_collect_rows(std::vector<std::string> providers, std::vector<Row>& rows,
                                        std::vector<std::string> hosts) {
    return run_latest_query(*this, "SELECT * FROM " + table_view + " WHERE", providers, rows, hosts,
                            "AND Unique_timestamp = (SELECT MAX(unique_timestamp) FROM " +
                                table_view + ") GROUP BY OptionID, Hostname, Provider;");
}

bool interface::get_snapshot_provider(std::string baseline_id,
                                      std::map<std::string, std::vector<Row>>& rows_by_provider,
                                      std::map<std::string, std::vector<Row_baseline>>& baselines,
                                      std::vector<std::string> providers,
                                      std::vector<std::string> hosts) {
    if (!is_open()) return false;

    std::string host_condition;
    generate_where_clause(hosts, "Hostname", host_condition);

    for (const std::string& provider : providers) {
        // Every named provider gets its two entries, rows or not.
        std::vector<Row>& provider_rows = rows_by_provider[provider];
        std::vector<Row_baseline>& provider_baselines = baselines[provider];

        std::string condition = host_condition;
        generate_where_clause({baseline_id}, "baseline_id", condition);

        const std::string row_statement = "SELECT * FROM " + table_view +
                                          " ds INNER JOIN baseline_datastore ON ds.rowid = "
                                          "baseline_datastore.datastore_rowid AND" +
                                          " ds.Provider = '" + provider + "' WHERE " + condition +
                                          ";";
        std::vector<Row> found_rows;
        if (!select(row_statement, found_rows, row_field_index)) return false;
        provider_rows.insert(provider_rows.end(), found_rows.begin(), found_rows.end());

        const std::string baseline_statement =
            "SELECT * FROM " + table_baseline + " ds INNER JOIN " + table_view +
            " ON ds.datastore_rowid = " + table_view + ".rowid AND " + table_view +
            ".Provider = '" + provider + "' WHERE " + condition + ";";
        std::vector<Row_baseline> found_baselines;
        if (!select_from_baseline(baseline_statement, found_baselines, baseline_field_index))
            return false;
        provider_baselines.insert(provider_baselines.end(), found_baselines.begin(),
                                  found_baselines.end());
    }
    return true;
}

}  // namespace vesk::datastore
