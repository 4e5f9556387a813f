#pragma once
// interface: the base class of SQL-speaking extensions.
//
// It turns the operation codes 512 to 520 into calls of typed virtual
// operations, and builds the SQL of the row and snapshot queries, which it
// runs through the deriving class's select and select_from_baseline. A
// deriving extension implements is_open, open, close, select and
// select_from_baseline, sets hosts_query (run by operation 512) in its
// constructor, and overrides the write operations it supports; the others
// throw "unsupported operation". Values are placed into the generated SQL
// quoted but not escaped: an extension must refuse any statement it should
// not run. control never throws. No state is kept between calls.

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "vesk/datastore/export.h"
#include "vesk/datastore/extension.h"
#include "vesk/datastore/records.h"

namespace vesk::datastore {

// Operation codes understood by interface::control.
enum OperationCode : uint16_t {
    OP_SELECT_HOSTS = 512,          // select(hosts_query, sql->field_map); out: std::vector<Row>*
    OP_LATEST_ROWS_PROVIDER = 513,  // get_latest_rows_provider(first, out, second)
    OP_SELECT_PROVIDER = 514,       // select(sql->query) or select_provider(first, out, sql->table)
    OP_INSERT = 515,                // out: InsertRecord*
    OP_QUERY_BASELINE_IDS = 516,    // out: SnapshotInfoSet*
    OP_SNAPSHOT_PROVIDER = 517,     // out: void*[2] {baseline map*, row map*}
    OP_UPDATE_SNAPSHOT = 518,       // out: std::map<std::string, ProviderInfoSet>**
    OP_LATEST_COLLECT_ROWS = 519,   // get_latest_collect_rows(first, out, {})
    OP_REMOVE_SNAPSHOT = 520,       // out: std::string* (the snapshot id)
};

class VESK_DATASTORE_EXPORT interface : public DataStoreExtension {
public:
    ~interface() override;

    // Dispatches `op` (512 to 520) to the operations below; `extra` is never
    // read. Answers UNSUPPORTED_OPERATION for any other code; exceptions
    // become OPERATION_UNSUCCESSFULL.
    int32_t control(uint16_t op, const void* in, void* out, void* extra) override;

    // Stores one provider row. Default: throws "unsupported operation".
    virtual bool insert(const vesk::provider::header& header, const std::string& option_id,
                        const std::string& std_out, const std::string& std_err);
    // Rows of `providers` (required), with an optional extra SQL condition.
    virtual bool select_provider(std::vector<std::string> providers, std::vector<Row>& rows,
                                 std::string filter);
    // Runs `sql` and appends its rows, columns mapped by name through
    // `fields`. Default: throws "unsupported operation".
    virtual bool select(std::string sql, std::vector<Row>& rows,
                        const std::map<std::string, int>& fields);
    // Records the snapshots of `snapshots` (snapshot name to its rows).
    // Default: throws "unsupported operation".
    virtual bool update_snapshot(const std::map<std::string, ProviderInfoSet>& snapshots);
    // Deletes one snapshot. Default: throws "unsupported operation".
    virtual bool remove_snapshot(const std::string& baseline_id);
    // Clears `rows`, then the latest row per (OptionID, Hostname, Provider)
    // of `providers` (required) on `hosts` (optional).
    virtual bool get_latest_rows_provider(std::vector<std::string> providers,
                                          std::vector<Row>& rows, std::vector<std::string> hosts);
    // Clears `rows`, then the rows of the newest collection run of
    // `providers` (required) on `hosts` (optional).
    virtual bool get_latest_collect_rows(std::vector<std::string> providers, std::vector<Row>& rows,
                                         std::vector<std::string> hosts);
    // Lists every snapshot. Default: throws "unsupported operation".
    virtual bool query_baseline_ids(SnapshotInfoSet& ids);
    // Runs `sql` over baseline rows and appends them, mapped through `fields`.
    // Default: throws "unsupported operation".
    virtual bool select_from_baseline(std::string sql, std::vector<Row_baseline>& rows,
                                      const std::map<std::string, int>& fields);
    // Appends, per provider, the rows of snapshot `baseline_id` and the
    // snapshot's own membership records.
    virtual bool get_snapshot_provider(std::string baseline_id,
                                       std::map<std::string, std::vector<Row>>& rows_by_provider,
                                       std::map<std::string, std::vector<Row_baseline>>& baselines,
                                       std::vector<std::string> providers,
                                       std::vector<std::string> hosts);

    // Appends " (column IN ('v1','v2') )" to `where` (joined by " AND " when
    // `where` is not empty). False, with `where` unchanged, for an empty
    // column or list; throws std::runtime_error for a blank value.
    bool generate_where_clause(std::vector<std::string> values, std::string column,
                               std::string& where);

    // The statement operation 512 runs; set by the deriving extension.
    std::string hosts_query;
};

}  // namespace vesk::datastore
