// interface: dispatch of the operation codes and the exact SQL of the
// builders, observed through the recording extension loaded by the real
// controller.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/recording_support.h"

namespace {

using namespace vesk::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class InterfaceTest : public RecorderTest {
protected:
    void SetUp() override {
        RecorderTest::SetUp();
        rec = add("vesk_1");
    }

    RecorderState* rec = nullptr;
};

TEST_F(InterfaceTest, CodesOutsideTheRangeAreUnsupportedAndCallNothing) {
    std::vector<ds::Row> rows;
    ds::SQLParameters sql{"", "", {}};
    ds::ReadParameters request{{"p"}, {}, {}, &sql};
    for (uint16_t op : {uint16_t{0}, uint16_t{511}, uint16_t{521}, uint16_t{65535}}) {
        EXPECT_EQ(control("vesk_1", op, &request, &rows), ds::DataStoreExtension::UNSUPPORTED_OPERATION)
            << op;
    }
    EXPECT_THAT(rec->calls, IsEmpty());
    EXPECT_THAT(rows, IsEmpty());
}

TEST_F(InterfaceTest, DefaultBodiesAnswerFailureNotUnsupported) {
    // remove_snapshot left at its default: the id travels in `out`, the
    // default body throws, and the caller sees 1, not 512.
    std::string id = "s1";
    EXPECT_EQ(control("vesk_1", ds::OP_REMOVE_SNAPSHOT, nullptr, &id), 1);
    ASSERT_EQ(rec->calls_of("remove_snapshot").size(), 1u);
    EXPECT_EQ(rec->calls_of("remove_snapshot")[0].text, "s1");

    ds::SnapshotInfoSet ids;
    EXPECT_EQ(control("vesk_1", ds::OP_QUERY_BASELINE_IDS, nullptr, &ids), 1);

    ds::InsertRecord record;
    EXPECT_EQ(control("vesk_1", ds::OP_INSERT, nullptr, &record), 1);

    // The same text from another literal is still only a failure: the
    // test is by identity, not by content.
    rec->answers["remove_snapshot"] = Answer{Answer::Throw, false, "unsupported operation"};
    EXPECT_EQ(control("vesk_1", ds::OP_REMOVE_SNAPSHOT, nullptr, &id), 1);
}

TEST_F(InterfaceTest, WriteOperationsTakeTheirDataFromOut) {
    rec->answers["insert"] = Answer{Answer::Result, true, ""};
    ds::InsertRecord record;
    record.std_out = "out text";
    record.std_err = "err text";
    record.header.provider = "uname";
    record.header.hostname = "node7";
    record.option_id = "opt";
    EXPECT_EQ(control("vesk_1", ds::OP_INSERT, nullptr, &record), 0);
    const auto inserts = rec->calls_of("insert");
    ASSERT_EQ(inserts.size(), 1u);
    EXPECT_EQ(inserts[0].record.header.provider, "uname");
    EXPECT_EQ(inserts[0].record.header.hostname, "node7");
    EXPECT_EQ(inserts[0].record.option_id, "opt");
    EXPECT_EQ(inserts[0].record.std_out, "out text");
    EXPECT_EQ(inserts[0].record.std_err, "err text");

    rec->answers["update_snapshot"] = Answer{Answer::Result, false, ""};
    std::map<std::string, ds::ProviderInfoSet> snapshots{{"snap", {ds::ProviderInfo{4, "p", {}}}}};
    const std::map<std::string, ds::ProviderInfoSet>* snapshots_ptr = &snapshots;
    EXPECT_EQ(control("vesk_1", ds::OP_UPDATE_SNAPSHOT, nullptr, &snapshots_ptr), 1);
    const auto updates = rec->calls_of("update_snapshot");
    ASSERT_EQ(updates.size(), 1u);
    ASSERT_EQ(updates[0].snapshots.count("snap"), 1u);
    EXPECT_EQ(updates[0].snapshots.at("snap").begin()->rowid, 4);

    rec->answers["query_baseline_ids"] = Answer{Answer::Result, true, ""};
    rec->snapshot_ids = {ds::SnapshotInfo{"a", 1}, ds::SnapshotInfo{"b", 2}};
    ds::SnapshotInfoSet ids;
    EXPECT_EQ(control("vesk_1", ds::OP_QUERY_BASELINE_IDS, nullptr, &ids), 0);
    EXPECT_EQ(ids.size(), 2u);
}

TEST_F(InterfaceTest, ExceptionsOfSelectBecomeFailures) {
    rec->answers["select"] = Answer{Answer::Throw, false, "disk on fire"};
    std::vector<ds::Row> rows;
    ds::ReadParameters request{{"p"}, {}, {}, nullptr};
    EXPECT_EQ(control("vesk_1", ds::OP_LATEST_ROWS_PROVIDER, &request, &rows), 1);
    // A request without its SQL parameters is a failure, not a crash.
    EXPECT_EQ(control("vesk_1", ds::OP_SELECT_PROVIDER, &request, &rows), 1);
    EXPECT_EQ(control("vesk_1", ds::OP_SELECT_HOSTS, nullptr, &rows), 1);
}

TEST_F(InterfaceTest, WhereClauseTexts) {
    ds::interface* ext = instance("vesk_1");
    ASSERT_NE(ext, nullptr);

    std::string where;
    EXPECT_TRUE(ext->generate_where_clause({"a", " b "}, "Provider", where));
    EXPECT_EQ(where, " (Provider IN ('a','b') )");
    EXPECT_TRUE(ext->generate_where_clause({"h1"}, "Hostname", where));
    EXPECT_EQ(where, " (Provider IN ('a','b') ) AND  (Hostname IN ('h1') )");

    // Nothing to add: false and `where` unchanged.
    EXPECT_FALSE(ext->generate_where_clause({"x"}, "", where));
    EXPECT_FALSE(ext->generate_where_clause({}, "Provider", where));
    EXPECT_EQ(where, " (Provider IN ('a','b') ) AND  (Hostname IN ('h1') )");

    std::string single;
    EXPECT_TRUE(ext->generate_where_clause({" x "}, "Provider", single));
    EXPECT_EQ(single, " (Provider IN ('x') )");

    // Quotes are copied as they stand.
    std::string quoted;
    EXPECT_TRUE(ext->generate_where_clause({"o'k"}, "Provider", quoted));
    EXPECT_EQ(quoted, " (Provider IN ('o'k') )");

    std::string blank;
    try {
        ext->generate_where_clause({"a", "  "}, "Hostname", blank);
        ADD_FAILURE() << "a blank value must throw";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Invalid parameters to where query for Hostname");
    }
}

TEST_F(InterfaceTest, OperationSelectProviderChoosesItsTarget) {
    rec->rows = {make_row(1, "p")};
    std::vector<ds::Row> rows;

    // A ready-made statement wins, even with providers named.
    ds::SQLParameters sql{"ignored", "SELECT 1", {{"x", 3}}};
    ds::ReadParameters request{{"p"}, {}, {}, &sql};
    EXPECT_EQ(control("vesk_1", ds::OP_SELECT_PROVIDER, &request, &rows), 0);
    ASSERT_EQ(rec->calls.size(), 1u);
    EXPECT_EQ(rec->calls[0].name, "select");
    EXPECT_EQ(rec->calls[0].sql, "SELECT 1");
    EXPECT_EQ(rec->calls[0].fields, (std::map<std::string, int>{{"x", 3}}));

    // No statement: select_provider with the stripped table text as filter.
    rec->calls.clear();
    sql = ds::SQLParameters{"   ", "", {}};
    EXPECT_EQ(control("vesk_1", ds::OP_SELECT_PROVIDER, &request, &rows), 0);
    ASSERT_EQ(rec->calls_of("select_provider").size(), 1u);
    EXPECT_EQ(rec->calls_of("select_provider")[0].text, "");
    ASSERT_EQ(rec->calls_of("select").size(), 1u);
    EXPECT_EQ(rec->calls_of("select")[0].sql, "SELECT * FROM vesk_1 WHERE (Provider IN ('p') )");
    EXPECT_EQ(rec->calls_of("select")[0].fields, ds::row_field_index);

    rec->calls.clear();
    sql = ds::SQLParameters{" Hostname = 'node1' ", "", {}};
    EXPECT_EQ(control("vesk_1", ds::OP_SELECT_PROVIDER, &request, &rows), 0);
    ASSERT_EQ(rec->calls_of("select").size(), 1u);
    EXPECT_EQ(rec->calls_of("select")[0].sql,
              "SELECT * FROM vesk_1 WHERE (Hostname = 'node1') AND  (Provider IN ('p') )");
    // select_provider does not clear: three answers of one row each.
    EXPECT_EQ(rows.size(), 3u);

    // No providers: nothing runs and the operation fails.
    rec->calls.clear();
    request.first.clear();
    EXPECT_EQ(control("vesk_1", ds::OP_SELECT_PROVIDER, &request, &rows), 1);
    EXPECT_THAT(rec->calls_of("select"), IsEmpty());
}

TEST_F(InterfaceTest, OperationSelectHostsRunsTheExtensionsStatement) {
    instance("vesk_1")->hosts_query = "SELECT * FROM vesk_1 WHERE Provider = 'uname'";
    ds::SQLParameters sql{"uname", "", {{"Hostname", 2}}};
    ds::ReadParameters request{{}, {}, {}, &sql};
    std::vector<ds::Row> rows;
    EXPECT_EQ(control("vesk_1", ds::OP_SELECT_HOSTS, &request, &rows), 0);
    ASSERT_EQ(rec->calls.size(), 1u);
    EXPECT_EQ(rec->calls[0].sql, "SELECT * FROM vesk_1 WHERE Provider = 'uname'");
    EXPECT_EQ(rec->calls[0].fields, sql.field_map);
}

TEST_F(InterfaceTest, LatestRowsPerProviderAndHost) {
    rec->rows = {make_row(9, "p")};
    std::vector<ds::Row> rows{make_row(1, "old"), make_row(2, "old")};
    ds::ReadParameters request{{"p"}, {"h1", "h2"}, {"unused"}, nullptr};
    EXPECT_EQ(control("vesk_1", ds::OP_LATEST_ROWS_PROVIDER, &request, &rows), 0);
    ASSERT_EQ(rec->calls_of("select").size(), 1u);
    EXPECT_EQ(rec->calls_of("select")[0].sql,
              "SELECT *, MAX(unique_timestamp) FROM vesk_1 WHERE (Provider IN ('p') ) AND  "
              "(Hostname IN ('h1','h2') )GROUP BY OptionID, Hostname, Provider;");
    EXPECT_EQ(rec->calls_of("select")[0].fields, ds::row_field_index);
    // Cleared before the query: only the new answer is left.
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].rowid, 9);

    // No hosts: no host clause.
    rec->calls.clear();
    request.second.clear();
    EXPECT_EQ(control("vesk_1", ds::OP_LATEST_ROWS_PROVIDER, &request, &rows), 0);
    EXPECT_EQ(rec->calls_of("select")[0].sql,
              "SELECT *, MAX(unique_timestamp) FROM vesk_1 WHERE (Provider IN ('p') )GROUP BY "
              "OptionID, Hostname, Provider;");

    // Ready but no providers: cleared, no query, failure.
    rec->calls.clear();
    request.first.clear();
    EXPECT_EQ(control("vesk_1", ds::OP_LATEST_ROWS_PROVIDER, &request, &rows), 1);
    EXPECT_THAT(rows, IsEmpty());
    EXPECT_THAT(rec->calls_of("select"), IsEmpty());

    // A blank host name fails the operation.
    request = ds::ReadParameters{{"p"}, {" "}, {}, nullptr};
    EXPECT_EQ(control("vesk_1", ds::OP_LATEST_ROWS_PROVIDER, &request, &rows), 1);
    EXPECT_THAT(rec->calls_of("select"), IsEmpty());
}

TEST_F(InterfaceTest, BuildersGiveUpWhenTheInstanceIsNotReady) {
    rec->ready = false;
    std::vector<ds::Row> rows{make_row(1, "kept")};
    ds::ReadParameters request{{"p"}, {}, {}, nullptr};
    EXPECT_EQ(control("vesk_1", ds::OP_LATEST_ROWS_PROVIDER, &request, &rows), 1);
    EXPECT_EQ(control("vesk_1", ds::OP_LATEST_COLLECT_ROWS, &request, &rows), 1);
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].Provider, "kept");

    std::map<std::string, std::vector<ds::Row>> by_provider;
    std::map<std::string, std::vector<ds::Row_baseline>> baselines;
    void* maps[2] = {&baselines, &by_provider};
    ds::ReadParameters snapshot{{"s1"}, {"p"}, {}, nullptr};
    EXPECT_EQ(control("vesk_1", ds::OP_SNAPSHOT_PROVIDER, &snapshot, maps), 1);
    EXPECT_THAT(by_provider, IsEmpty());
    EXPECT_THAT(baselines, IsEmpty());
    EXPECT_THAT(rec->calls_of("select"), IsEmpty());
}

TEST_F(InterfaceTest, LatestCollectionRunIgnoresTheHostList) {
    std::vector<ds::Row> rows;
    ds::ReadParameters request{{"p", "q"}, {"h1"}, {"h2"}, nullptr};
    EXPECT_EQ(control("vesk_1", ds::OP_LATEST_COLLECT_ROWS, &request, &rows), 0);
    const auto builder = rec->calls_of("get_latest_collect_rows");
    ASSERT_EQ(builder.size(), 1u);
    EXPECT_THAT(builder[0].first, ElementsAre("p", "q"));
    EXPECT_THAT(builder[0].second, IsEmpty());
    ASSERT_EQ(rec->calls_of("select").size(), 1u);
    EXPECT_EQ(rec->calls_of("select")[0].sql,
              "SELECT * FROM vesk_1 WHERE (Provider IN ('p','q') )AND Unique_timestamp = (SELECT "
              "MAX(unique_timestamp) FROM vesk_1) GROUP BY OptionID, Hostname, Provider;");
}

TEST_F(InterfaceTest, SnapshotQueryWithAnEmptyListSucceedsUntouched) {
    std::map<std::string, std::vector<ds::Row>> by_provider{{"x", {make_row(1, "x")}}};
    std::map<std::string, std::vector<ds::Row_baseline>> baselines;
    void* maps[2] = {&baselines, &by_provider};
    ds::ReadParameters request{{}, {"p"}, {}, nullptr};
    EXPECT_EQ(control("vesk_1", ds::OP_SNAPSHOT_PROVIDER, &request, maps), 0);
    EXPECT_EQ(by_provider.size(), 1u);
    EXPECT_EQ(by_provider["x"].size(), 1u);
    EXPECT_THAT(baselines, IsEmpty());
    EXPECT_THAT(rec->calls, IsEmpty());
}

TEST_F(InterfaceTest, SnapshotJoinStatementsAndTheirResults) {
    rec->rows = {make_row(5, "p")};
    ds::Row_baseline member;
    member.baseline_id = "s1";
    member.datastore_rowid = 5;
    rec->baselines = {member};

    std::map<std::string, std::vector<ds::Row>> by_provider{{"p", {make_row(1, "p")}}};
    std::map<std::string, std::vector<ds::Row_baseline>> baselines;
    void* maps[2] = {&baselines, &by_provider};
    ds::ReadParameters request{{"s1", "ignored"}, {"p", "p"}, {}, nullptr};
    EXPECT_EQ(control("vesk_1", ds::OP_SNAPSHOT_PROVIDER, &request, maps), 0);

    const auto selects = rec->calls_of("select");
    const auto joins = rec->calls_of("select_from_baseline");
    ASSERT_EQ(selects.size(), 2u);
    ASSERT_EQ(joins.size(), 2u);
    EXPECT_EQ(selects[0].sql,
              "SELECT * FROM vesk_1 ds INNER JOIN baseline_datastore ON ds.rowid = "
              "baseline_datastore.datastore_rowid AND ds.Provider = 'p' WHERE  (baseline_id IN "
              "('s1') );");
    EXPECT_EQ(selects[0].fields, ds::row_field_index);
    EXPECT_EQ(joins[0].sql,
              "SELECT * FROM baseline_datastore ds INNER JOIN vesk_1 ON ds.datastore_rowid = "
              "vesk_1.rowid AND vesk_1.Provider = 'p' WHERE  (baseline_id IN ('s1') );");
    EXPECT_EQ(joins[0].fields, ds::baseline_field_index);

    // Appended, never replaced; the provider named twice is served twice.
    ASSERT_EQ(by_provider["p"].size(), 3u);
    EXPECT_EQ(by_provider["p"][0].rowid, 1);
    EXPECT_EQ(by_provider["p"][2].rowid, 5);
    EXPECT_EQ(baselines["p"].size(), 2u);
}

TEST_F(InterfaceTest, SnapshotJoinWithHostsAndFailures) {
    std::map<std::string, std::vector<ds::Row>> by_provider;
    std::map<std::string, std::vector<ds::Row_baseline>> baselines;
    void* maps[2] = {&baselines, &by_provider};
    ds::ReadParameters request{{"s1"}, {"p", "q"}, {"h1"}, nullptr};
    EXPECT_EQ(control("vesk_1", ds::OP_SNAPSHOT_PROVIDER, &request, maps), 0);
    const auto joins = rec->calls_of("select_from_baseline");
    ASSERT_EQ(joins.size(), 2u);
    EXPECT_EQ(joins[1].sql,
              "SELECT * FROM baseline_datastore ds INNER JOIN vesk_1 ON ds.datastore_rowid = "
              "vesk_1.rowid AND vesk_1.Provider = 'q' WHERE  (Hostname IN ('h1') ) AND  "
              "(baseline_id IN ('s1') );");
    // Entries exist for providers without rows.
    EXPECT_EQ(by_provider.count("q"), 1u);
    EXPECT_EQ(baselines.count("q"), 1u);

    // A failing statement stops at once; earlier entries stay.
    by_provider.clear();
    baselines.clear();
    rec->calls.clear();
    rec->answers["select_from_baseline"] = Answer{Answer::Result, false, ""};
    EXPECT_EQ(control("vesk_1", ds::OP_SNAPSHOT_PROVIDER, &request, maps), 1);
    EXPECT_EQ(rec->calls_of("select_from_baseline").size(), 1u);
    EXPECT_EQ(by_provider.count("p"), 1u);
    EXPECT_EQ(by_provider.count("q"), 0u);

    // A blank snapshot id fails before any statement.
    rec->calls.clear();
    request.first = {" "};
    EXPECT_EQ(control("vesk_1", ds::OP_SNAPSHOT_PROVIDER, &request, maps), 1);
    EXPECT_THAT(rec->calls_of("select"), IsEmpty());

    // No providers: success, nothing run.
    request = ds::ReadParameters{{"s1"}, {}, {}, nullptr};
    EXPECT_EQ(control("vesk_1", ds::OP_SNAPSHOT_PROVIDER, &request, maps), 0);
    EXPECT_THAT(rec->calls_of("select"), IsEmpty());
}

}  // namespace
