// generate_where_clause with the names the tool's check lets through: the
// clause, run by SQLite, must be one condition that matches exactly the rows
// of those names, so no name can end its literal and add SQL of its own.
// Input: names separated by line breaks.
#include <stdexcept>
#include <vector>

#include <sqlite3.h>

#include "vesk/datastore.h"

#include "errors.h"
#include "fuzz_support.h"
#include "session.h"

namespace {

// interface is abstract only in what an extension must run; the SQL
// builders need none of it.
class Builder : public vesk::datastore::interface {
public:
    bool is_open() override { return false; }
    int32_t open(const std::string&) override { return OPERATION_UNSUCCESSFULL; }
    int32_t close() override { return OPERATION_SUCCESSFULL; }
};

bool passes_check(const std::string& name) {
    try {
        vesk::tool::check_name("provider name", name, size_t(vesk::datastore::max_provider_size),
                               "max_provider_size");
        return true;
    } catch (const vesk::tool::ToolError&) {
        return false;
    }
}

sqlite3* g_db = nullptr;
sqlite3_stmt* g_insert = nullptr;  // one row of t

void exec(const char* sql) {
    VESK_FUZZ_CHECK(sqlite3_exec(g_db, sql, nullptr, nullptr, nullptr) == SQLITE_OK);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    VESK_FUZZ_CHECK(sqlite3_open(":memory:", &g_db) == SQLITE_OK);
    exec("CREATE TABLE t(Provider TEXT)");
    VESK_FUZZ_CHECK(sqlite3_prepare_v2(g_db, "INSERT INTO t VALUES(?)", -1, &g_insert, nullptr) ==
                    SQLITE_OK);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto names = vesk::str::split(vesk::fuzz::text_of(data, size), '\n', false);
    Builder builder;

    // Every list: a clause, or the one refusal of a blank name.
    {
        std::string where;
        try {
            VESK_FUZZ_CHECK(builder.generate_where_clause(names, "Provider", where));
        } catch (const std::runtime_error& e) {
            VESK_FUZZ_CHECK(std::string(e.what()) ==
                            "Invalid parameters to where query for Provider");
        }
    }

    std::vector<std::string> usable;
    for (const auto& name : names)
        if (passes_check(name)) usable.push_back(name);
    if (usable.empty()) return 0;
    std::string where;
    VESK_FUZZ_CHECK(builder.generate_where_clause(usable, "Provider", where));

    // The table holds each usable name as the builder strips it, and a row
    // no name can match.
    exec("DELETE FROM t; INSERT INTO t VALUES(char(1))");
    for (const auto& name : usable) {
        const std::string value = vesk::str::stripws(name);
        sqlite3_bind_text(g_insert, 1, value.data(), int(value.size()), SQLITE_TRANSIENT);
        VESK_FUZZ_CHECK(sqlite3_step(g_insert) == SQLITE_DONE);
        sqlite3_reset(g_insert);
    }

    const std::string sql = "SELECT COUNT(*) FROM t WHERE" + where;
    sqlite3_stmt* select = nullptr;
    const char* tail = nullptr;
    VESK_FUZZ_CHECK(sqlite3_prepare_v2(g_db, sql.c_str(), int(sql.size()), &select, &tail) ==
                    SQLITE_OK);
    VESK_FUZZ_CHECK(select != nullptr && tail == sql.c_str() + sql.size());
    VESK_FUZZ_CHECK(sqlite3_step(select) == SQLITE_ROW);
    VESK_FUZZ_CHECK(sqlite3_column_int64(select, 0) == int64_t(usable.size()));
    sqlite3_finalize(select);
    return 0;
}
