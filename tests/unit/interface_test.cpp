// interface: dispatch of the operation codes and the exact SQL of the
// builders, observed through the recording extension loaded by the real
// controller.
#include "unit/recording_support.h"

namespace {

using namespace vesk::test;
using ::testing::ThrowsMessage;

std::vector<std::string> sqls(const std::vector<Statement>& statements) {
    std::vector<std::string> out;
    for (const auto& statement : statements) out.push_back(statement.sql);
    return out;
}

class InterfaceTest : public RecorderTest {
protected:
    void SetUp() override {
        RecorderTest::SetUp();
        rec = add("vesk_1");
        ext = dynamic_cast<ds::interface*>(handle("vesk_1"));
        ASSERT_NE(ext, nullptr);
    }

    int32_t run(uint16_t op, ds::ReadParameters request, void* out) {
        return control("vesk_1", op, &request, out);
    }
    int32_t join(ds::ReadParameters r) { return run(ds::OP_SNAPSHOT_PROVIDER, r, maps); }

    RecorderState* rec = nullptr;
    ds::interface* ext = nullptr;
    std::vector<ds::Row> rows;
    std::map<std::string, std::vector<ds::Row>> by_provider;
    std::map<std::string, std::vector<ds::Row_baseline>> baselines;
    void* maps[2] = {&baselines, &by_provider};
};

TEST_F(InterfaceTest, UnknownCodesAreUnsupportedAndDefaultBodiesFail) {
    ds::SQLParameters sql{"", "", {}};
    for (uint16_t op : {0, 511, 521, 65535})  // unsupported: 512
        EXPECT_EQ(run(op, {{"p"}, {}, {}, &sql}, &rows), 512) << op;
    EXPECT_THAT(rec->selects, IsEmpty());
    // The default bodies throw "unsupported operation", which is still only
    // a failure (1), not 512.
    std::string id = "s1";
    ds::SnapshotInfoSet ids;
    ds::InsertRecord record;
    EXPECT_EQ(control("vesk_1", ds::OP_REMOVE_SNAPSHOT, nullptr, &id), 1);
    EXPECT_EQ(control("vesk_1", ds::OP_QUERY_BASELINE_IDS, nullptr, &ids), 1);
    EXPECT_EQ(control("vesk_1", ds::OP_INSERT, nullptr, &record), 1);
    // A request without its SQL parameters, or none at all, fails.
    EXPECT_EQ(run(ds::OP_SELECT_PROVIDER, {{"p"}, {}, {}, nullptr}, &rows), 1);
    EXPECT_EQ(control("vesk_1", ds::OP_SELECT_HOSTS, nullptr, &rows), 1);
}

TEST_F(InterfaceTest, WhereClauseTexts) {
    std::string where, quoted, blank;
    EXPECT_TRUE(ext->generate_where_clause({"a", " b "}, "Provider", where));
    EXPECT_EQ(where, " (Provider IN ('a','b') )");
    EXPECT_TRUE(ext->generate_where_clause({"h1"}, "Hostname", where));
    // Nothing to add (no column, no values): false and `where` unchanged.
    EXPECT_FALSE(ext->generate_where_clause({"x"}, "", where));
    EXPECT_FALSE(ext->generate_where_clause({}, "Provider", where));
    EXPECT_EQ(where, " (Provider IN ('a','b') ) AND  (Hostname IN ('h1') )");
    // Quotes are copied as they stand.
    EXPECT_TRUE(ext->generate_where_clause({"o'k"}, "Provider", quoted));
    EXPECT_EQ(quoted, " (Provider IN ('o'k') )");
    const auto blank_value = [&] { ext->generate_where_clause({"a", "  "}, "Hostname", blank); };
    EXPECT_THAT(blank_value, ThrowsMessage<std::runtime_error>(
                                 std::string("Invalid parameters to where query for Hostname")));
}

TEST_F(InterfaceTest, ProviderAndHostSelectsChooseTheirStatement) {
    ext->hosts_query = "SELECT hosts";
    rec->rows = {make_row(1, "p")};
    // A ready-made statement wins, even with providers named; otherwise the
    // stripped table text is an optional filter.
    ds::SQLParameters ready{"ignored", "SELECT 1", {{"x", 3}}}, blank{"   ", "", {}},
        filter{" Hostname = 'node1' ", "", {}};
    for (auto* sql : {&ready, &blank, &filter})
        EXPECT_EQ(run(ds::OP_SELECT_PROVIDER, {{"p"}, {}, {}, sql}, &rows), 0);
    EXPECT_EQ(run(ds::OP_SELECT_HOSTS, {{}, {}, {}, &ready}, &rows), 0);
    // No providers and no statement: nothing runs and the operation fails.
    EXPECT_EQ(run(ds::OP_SELECT_PROVIDER, {{}, {}, {}, &blank}, &rows), 1);
    EXPECT_THAT(sqls(rec->selects),
                ElementsAre("SELECT 1", "SELECT * FROM vesk_1 WHERE (Provider IN ('p') )",
                            "SELECT * FROM vesk_1 WHERE (Hostname = 'node1') AND  (Provider IN "
                            "('p') )",
                            "SELECT hosts"));
    EXPECT_EQ(rec->selects[0].fields, ready.field_map);
    EXPECT_EQ(rec->selects[1].fields, ds::row_field_index);
    EXPECT_EQ(rec->selects[3].fields, ready.field_map);
    EXPECT_EQ(rows.size(), 4u);  // nothing clears the answer: one row per statement
}

TEST_F(InterfaceTest, LatestRowsAndLatestRun) {
    rec->rows = {make_row(9, "p")};
    rows = {make_row(1, "old"), make_row(2, "old")};
    EXPECT_EQ(run(ds::OP_LATEST_ROWS_PROVIDER, {{"p"}, {"h1", "h2"}, {"x"}, nullptr}, &rows), 0);
    EXPECT_EQ(run(ds::OP_LATEST_ROWS_PROVIDER, {{"p"}, {}, {}, nullptr}, &rows), 0);
    // Cleared before each query: only the last answer is left.
    EXPECT_THAT(rows, ElementsAre(Field(&ds::Row::rowid, 9)));
    // No providers: cleared, no query, failure. A blank host name fails too.
    EXPECT_EQ(run(ds::OP_LATEST_ROWS_PROVIDER, {{}, {"h1"}, {}, nullptr}, &rows), 1);
    EXPECT_THAT(rows, IsEmpty());
    EXPECT_EQ(run(ds::OP_LATEST_ROWS_PROVIDER, {{"p"}, {" "}, {}, nullptr}, &rows), 1);
    // The newest collection run ignores the host lists.
    EXPECT_EQ(run(ds::OP_LATEST_COLLECT_ROWS, {{"p", "q"}, {"h1"}, {"h2"}, nullptr}, &rows), 0);
    EXPECT_THAT(
        sqls(rec->selects),
        ElementsAre("SELECT *, MAX(unique_timestamp) FROM vesk_1 WHERE (Provider IN ('p') ) AND  "
                    "(Hostname IN ('h1','h2') )GROUP BY OptionID, Hostname, Provider;",
                    "SELECT *, MAX(unique_timestamp) FROM vesk_1 WHERE (Provider IN ('p') )GROUP "
                    "BY OptionID, Hostname, Provider;",
                    "SELECT * FROM vesk_1 WHERE (Provider IN ('p','q') )AND Unique_timestamp = "
                    "(SELECT MAX(unique_timestamp) FROM vesk_1) GROUP BY OptionID, Hostname, "
                    "Provider;"));
    for (const auto& statement : rec->selects) EXPECT_EQ(statement.fields, ds::row_field_index);
}

TEST_F(InterfaceTest, SnapshotJoinsAndBuildersThatAreNotReady) {
    rec->rows = {make_row(5, "p")};
    rec->baselines = {ds::Row_baseline{}};
    by_provider["p"] = {make_row(1, "p")};
    EXPECT_EQ(join({{"s1", "ignored"}, {"p", "p"}, {}, nullptr}), 0);
    // Appended, never replaced; the provider named twice is served twice.
    ASSERT_EQ(by_provider["p"].size(), 3u);
    EXPECT_EQ(by_provider["p"][2].rowid, 5);
    EXPECT_EQ(baselines["p"].size(), 2u);
    // With hosts; entries exist for providers without rows.
    rec->rows.clear();
    EXPECT_EQ(join({{"s1"}, {"q"}, {"h1"}, nullptr}), 0);
    EXPECT_THAT(by_provider["q"], IsEmpty());
    EXPECT_EQ(baselines.count("q"), 1u);

    ASSERT_EQ(rec->selects.size(), 3u);
    EXPECT_EQ(rec->selects[0].sql,
              "SELECT * FROM vesk_1 ds INNER JOIN baseline_datastore ON ds.rowid = "
              "baseline_datastore.datastore_rowid AND ds.Provider = 'p' WHERE  (baseline_id IN "
              "('s1') );");
    EXPECT_EQ(rec->selects[0].fields, ds::row_field_index);
    ASSERT_EQ(rec->joins.size(), 3u);
    EXPECT_EQ(rec->joins[0].sql,
              "SELECT * FROM baseline_datastore ds INNER JOIN vesk_1 ON ds.datastore_rowid = "
              "vesk_1.rowid AND vesk_1.Provider = 'p' WHERE  (baseline_id IN ('s1') );");
    EXPECT_EQ(rec->joins[0].fields, ds::baseline_field_index);
    EXPECT_EQ(rec->joins[2].sql,
              "SELECT * FROM baseline_datastore ds INNER JOIN vesk_1 ON ds.datastore_rowid = "
              "vesk_1.rowid AND vesk_1.Provider = 'q' WHERE  (Hostname IN ('h1') ) AND  "
              "(baseline_id IN ('s1') );");

    // No snapshot id: success, nothing run or touched. A blank id fails.
    by_provider.clear();
    EXPECT_EQ(join({{}, {"p"}, {}, nullptr}), 0);
    EXPECT_THAT(by_provider, IsEmpty());
    EXPECT_EQ(join({{" "}, {"p"}, {}, nullptr}), 1);
    EXPECT_EQ(rec->selects.size(), 3u);
    // A failing statement stops at once; earlier entries stay.
    rec->joins_succeed = false;
    EXPECT_EQ(join({{"s1"}, {"x", "y"}, {}, nullptr}), 1);
    EXPECT_EQ(rec->joins.size(), 4u);
    EXPECT_EQ(by_provider.count("x"), 1u);
    EXPECT_EQ(by_provider.count("y"), 0u);
    // Not ready: the builders give up and leave the answers alone.
    rec->ready = false;
    rows = {make_row(1, "kept")};
    EXPECT_EQ(run(ds::OP_LATEST_ROWS_PROVIDER, {{"p"}, {}, {}, nullptr}, &rows), 1);
    EXPECT_EQ(run(ds::OP_LATEST_COLLECT_ROWS, {{"p"}, {}, {}, nullptr}, &rows), 1);
    EXPECT_EQ(join({{"s1"}, {"z"}, {}, nullptr}), 1);
    EXPECT_EQ(rows.size(), 1u);
    EXPECT_EQ(by_provider.count("z"), 0u);
    EXPECT_EQ(rec->selects.size(), 4u);
}

}  // namespace
