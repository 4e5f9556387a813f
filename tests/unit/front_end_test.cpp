// The query front end: execute_ioctl's first-success rule and callbacks, and
// the data queries' walk over the "data" datastores, with their messages.
// Datastores are recording extensions opened through the real controller.
#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/recording_support.h"

namespace {

using namespace vesk::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// What the callback of execute_ioctl saw.
struct CallbackRecord {
    int status;
    uint16_t op;
    const ds::DataStoreExtension* instance;  // identity only: never owned
    const void* out;
    const void* extra;
};
std::vector<CallbackRecord> g_callbacks;

void record_callback(int status, uint16_t op, std::weak_ptr<ds::DataStoreExtension> instance,
                     const void* out, const void* extra) {
    g_callbacks.push_back({status, op, instance.lock().get(), out, extra});
}

void throwing_callback(int status, uint16_t op, std::weak_ptr<ds::DataStoreExtension> instance,
                       const void* out, const void* extra) {
    record_callback(status, op, instance, out, extra);
    throw std::logic_error("callback failed");
}

ControlScript answer(int32_t status, std::vector<ds::Row> rows = {}) {
    ControlScript script;
    script.status = status;
    script.rows = std::move(rows);
    return script;
}

ControlScript throws() {
    ControlScript script;
    script.throws = true;
    return script;
}

class ExecuteIoctlTest : public RecorderTest {
protected:
    void SetUp() override {
        RecorderTest::SetUp();
        g_callbacks.clear();
        a = add("a");
        b = add("b");
    }

    bool run(std::vector<std::string> names, ds::ioctl_callback callback = record_callback) {
        return ds::execute_ioctl(std::move(names), op, &in, &out, &extra, callback);
    }

    RecorderState* a = nullptr;
    RecorderState* b = nullptr;
    uint16_t op = 512;
    ds::ReadParameters in;
    std::vector<ds::Row> out;
    int extra = 0;
};

TEST_F(ExecuteIoctlTest, NoMatchingNameAsksNothing) {
    CerrCapture err;
    EXPECT_FALSE(run({}));
    EXPECT_FALSE(run({"A", "missing"}));
    EXPECT_THAT(g_callbacks, IsEmpty());
    EXPECT_THAT(a->controls, IsEmpty());
    EXPECT_EQ(err.text(), "");
}

TEST_F(ExecuteIoctlTest, FirstSuccessWinsAndEveryVisitIsReported) {
    a->scripts[512] = answer(1);
    b->scripts[512] = answer(0);
    CerrCapture err;
    EXPECT_TRUE(run({"a", "b"}));
    EXPECT_THAT(err.lines(), ElementsAre("Operation code 512 failed for a"));
    ASSERT_EQ(g_callbacks.size(), 2u);
    EXPECT_EQ(g_callbacks[0].status, 1);
    EXPECT_EQ(g_callbacks[0].instance, handle("a").lock().get());
    EXPECT_EQ(g_callbacks[1].status, 0);
    EXPECT_EQ(g_callbacks[1].instance, handle("b").lock().get());
    for (const auto& call : g_callbacks) {
        EXPECT_EQ(call.op, 512);
        EXPECT_EQ(call.out, &out);
        EXPECT_EQ(call.extra, &extra);
    }
    // The pointers reach the extension unchanged.
    ASSERT_EQ(b->controls.size(), 1u);
    EXPECT_EQ(b->controls[0].out, &out);
    EXPECT_EQ(b->controls[0].extra, &extra);
}

TEST_F(ExecuteIoctlTest, ASuccessEndsTheWalk) {
    CerrCapture err;
    a->scripts[512] = answer(0);
    EXPECT_TRUE(run({"a", "b"}));
    EXPECT_THAT(b->controls, IsEmpty());
    EXPECT_EQ(g_callbacks.size(), 1u);
    EXPECT_EQ(err.text(), "");
}

TEST_F(ExecuteIoctlTest, MessagesOfEachStatusWithoutCallback) {
    RecorderState* c = add("vesk_1");
    RecorderState* d = add("d");
    a->scripts[512] = answer(512);
    b->scripts[512] = answer(2);
    c->scripts[512] = answer(7);
    d->scripts[512] = answer(-1);
    CerrCapture err;
    EXPECT_FALSE(run({"a", "b", "vesk_1", "d"}, nullptr));
    EXPECT_THAT(err.lines(), ElementsAre("Operation code 512 unsupported for a",
                                         "Operation code 512 failed for berror code 2",
                                         "Operation code 512 failed for vesk_1error code 7",
                                         "Operation code 512 failed for derror code -1"));
    // Codes beyond the SQL base pass through just the same.
    a->scripts[1100] = answer(1);
    op = 1100;
    CerrCapture err2;
    EXPECT_FALSE(run({"a"}, nullptr));
    EXPECT_THAT(err2.lines(), ElementsAre("Operation code 1100 failed for a"));
}

TEST_F(ExecuteIoctlTest, ExceptionsAreLoggedAndTheWalkGoesOn) {
    a->scripts[512] = answer(1);
    b->scripts[512] = answer(1);
    CerrCapture err;
    EXPECT_FALSE(run({"a", "b"}, throwing_callback));
    EXPECT_THAT(err.lines(), ElementsAre("Operation code 512 failed for a",
                                         "Pulling data failed for  from the database source \"a\"",
                                         "Operation code 512 failed for b",
                                         "Pulling data failed for  from the database source \"b\""));
    EXPECT_EQ(g_callbacks.size(), 2u);

    // An extension that throws out of control: no callback for it.
    g_callbacks.clear();
    a->scripts[512] = throws();
    b->scripts[512] = answer(0);
    CerrCapture err2;
    EXPECT_TRUE(run({"a", "b"}));
    EXPECT_THAT(err2.lines(),
                ElementsAre("Pulling data failed for  from the database source \"a\""));
    ASSERT_EQ(g_callbacks.size(), 1u);
    EXPECT_EQ(g_callbacks[0].status, 0);
}

TEST(ExecuteIoctlWithoutController, ReturnsFalseAndLeavesOutAlone) {
    // A datastore was recorded, then its controller let go: nobody holds
    // the controller any more, so it is gone by the time it is asked for.
    ds::DataStoreParseUtility::db_vec.clear();
    {
        auto controller = ds::DataStoreController::createDataStoreController();
        std::vector<ds::DataStoreConfig> configs{recorder_config("a")};
        ds::DataStoreHandles handles;
        controller->open(configs, handles);
        ASSERT_EQ(handles.size(), 1u);
        ds::DataStoreParseUtility::db_vec.push_back(handles.front());
    }
    const int saved_level = vesk::log::LOG_LEVEL;
    vesk::log::LOG_LEVEL = 7;
    int out = 42;
    g_callbacks.clear();
    CerrCapture err;
    EXPECT_FALSE(ds::execute_ioctl({"a"}, 512, nullptr, &out, nullptr, record_callback));
    EXPECT_EQ(out, 42);
    EXPECT_THAT(g_callbacks, IsEmpty());
    EXPECT_EQ(err.text(), "");
    vesk::log::LOG_LEVEL = saved_level;
    ds::DataStoreParseUtility::db_vec.clear();
}

class DataQueryTest : public RecorderTest {};

TEST_F(DataQueryTest, EmptyArgumentsClearTheResultAndAskNothing) {
    RecorderState* a = add("a");
    std::vector<ds::Row> rows{make_row(1, "stale")};
    EXPECT_FALSE(ds::select_data("", rows, {}, false));
    EXPECT_THAT(rows, IsEmpty());
    rows = {make_row(1, "stale")};
    EXPECT_FALSE(ds::select_provider_data({}, rows, "", false));
    EXPECT_THAT(rows, IsEmpty());
    rows = {make_row(1, "stale")};
    EXPECT_FALSE(ds::get_latest_rows_provider_hosts_data({}, rows, {"h"}, false));
    EXPECT_THAT(rows, IsEmpty());
    rows = {make_row(1, "stale")};
    EXPECT_FALSE(ds::get_latest_rows_provider_data({}, rows, "h", false));
    EXPECT_THAT(rows, IsEmpty());
    EXPECT_THAT(a->controls, IsEmpty());
}

TEST_F(DataQueryTest, EachQuerySendsItsRequest) {
    RecorderState* a = add("a");
    a->scripts[512] = answer(0, {make_row(1, "uname")});
    a->scripts[513] = answer(0, {make_row(2, "p")});
    a->scripts[514] = answer(0, {make_row(3, "p")});
    const std::map<std::string, int> where{{"Hostname", 2}};
    std::vector<ds::Row> rows;

    EXPECT_TRUE(ds::select_data("provider_datastore", rows, where, false));
    EXPECT_TRUE(ds::select_provider_data({"p", "q"}, rows, "Hostname = 'n1'", true));
    EXPECT_TRUE(ds::get_latest_rows_provider_hosts_data({"p"}, rows, {"h1", "h2"}, false));
    EXPECT_TRUE(ds::get_latest_rows_provider_data({"p"}, rows, "h3", false));
    EXPECT_TRUE(ds::get_hosts_data(rows, where, false));

    const auto& calls = a->controls;
    ASSERT_EQ(calls.size(), 5u);
    for (const auto& call : calls) {
        EXPECT_EQ(call.out, &rows);
        EXPECT_EQ(call.extra, nullptr);
        EXPECT_TRUE(call.has_in);
    }
    EXPECT_EQ(calls[0].op, 514);
    ASSERT_TRUE(calls[0].has_sql);
    EXPECT_EQ(calls[0].sql.table, "provider_datastore");
    EXPECT_EQ(calls[0].sql.query, "");
    EXPECT_EQ(calls[0].sql.field_map, where);

    EXPECT_EQ(calls[1].op, 514);
    EXPECT_THAT(calls[1].request.first, ElementsAre("p", "q"));
    ASSERT_TRUE(calls[1].has_sql);
    EXPECT_EQ(calls[1].sql.table, "Hostname = 'n1'");
    EXPECT_EQ(calls[1].sql.query, "");
    EXPECT_EQ(calls[1].sql.field_map, ds::row_field_index);

    EXPECT_EQ(calls[2].op, 513);
    EXPECT_THAT(calls[2].request.first, ElementsAre("p"));
    EXPECT_THAT(calls[2].request.second, ElementsAre("h1", "h2"));

    EXPECT_EQ(calls[3].op, 513);
    EXPECT_THAT(calls[3].request.second, ElementsAre("h3"));

    EXPECT_EQ(calls[4].op, 512);
    ASSERT_TRUE(calls[4].has_sql);
    EXPECT_EQ(calls[4].sql.table, "uname");
    EXPECT_EQ(calls[4].sql.field_map, where);
}

TEST_F(DataQueryTest, ProviderQueryEndToEndThroughTheSqlBase) {
    RecorderState* a = add("a");
    a->rows = {make_row(4, "p")};
    std::vector<ds::Row> rows;
    EXPECT_TRUE(ds::select_provider_data({"p"}, rows, "Hostname = 'node1'", false));
    ASSERT_EQ(a->calls_of("select").size(), 1u);
    EXPECT_EQ(a->calls_of("select")[0].sql,
              "SELECT * FROM vesk_1 WHERE (Hostname = 'node1') AND  (Provider IN ('p') )");
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].rowid, 4);

    // The latest rows of one host.
    rows.clear();
    EXPECT_TRUE(ds::get_latest_rows_provider_data({"p"}, rows, "node1", false));
    EXPECT_EQ(a->calls_of("select").back().sql,
              "SELECT *, MAX(unique_timestamp) FROM vesk_1 WHERE (Provider IN ('p') ) AND  "
              "(Hostname IN ('node1') )GROUP BY OptionID, Hostname, Provider;");
}

TEST_F(DataQueryTest, AnEmptyAnswerIsNotASuccess) {
    RecorderState* stream = add("stream", kStreamOnly);
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    RecorderState* c = add("c");
    a->scripts[514] = answer(0);
    b->scripts[514] = answer(0, {make_row(7, "p")});
    CerrCapture err;
    std::vector<ds::Row> rows;
    EXPECT_TRUE(ds::select_provider_data({"p"}, rows, "", false));
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].rowid, 7);
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(a->controls.size(), 1u);
    EXPECT_THAT(c->controls, IsEmpty());
    // A datastore that serves only streams is never asked.
    EXPECT_THAT(stream->controls, IsEmpty());
}

TEST_F(DataQueryTest, FailuresNeverStopTheWalkNorMakeItSucceed) {
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    RecorderState* c = add("c");
    a->scripts[513] = answer(1, {make_row(1, "partial")});
    b->scripts[513] = throws();
    c->scripts[513] = answer(7);
    CerrCapture err;
    std::vector<ds::Row> rows;
    EXPECT_FALSE(ds::get_latest_rows_provider_hosts_data({"p"}, rows, {}, false));
    EXPECT_THAT(err.lines(),
                ElementsAre("Querying of latest timestamp failed for \"a\"",
                            "Pulling data failed for \" from the datastore source \"b\"",
                            "Querying of latest timestamp failed for \"c\" with error code 7"));
    // What a failing datastore left stays with the caller.
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].Provider, "partial");
    EXPECT_EQ(c->controls.size(), 1u);
}

TEST_F(DataQueryTest, MessageFamilies) {
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    RecorderState* c = add("c");
    const std::map<std::string, int> where;
    struct Query {
        uint16_t op;
        std::function<bool(std::vector<ds::Row>&)> run;
        std::string unsupported;
        std::string failed;
    };
    const std::vector<Query> queries = {
        {514, [&](std::vector<ds::Row>& r) { return ds::select_data("t", r, where, false); },
         "Generic querying of data not supported for \"", "Generic querying of data failed for \""},
        {514, [&](std::vector<ds::Row>& r) { return ds::select_provider_data({"p"}, r, "", false); },
         "Querying of provider data not supported for \"", "Querying of provider data failed for \""},
        {513,
         [&](std::vector<ds::Row>& r) {
             return ds::get_latest_rows_provider_hosts_data({"p"}, r, {}, false);
         },
         "Querying of latest timestamp unsupported for \"",
         "Querying of latest timestamp failed for \""},
        {512, [&](std::vector<ds::Row>& r) { return ds::get_hosts_data(r, where, false); },
         "Host(s) data querying not supported for \"", "Host(s) data querying failed for \""},
    };
    for (const auto& query : queries) {
        a->scripts[query.op] = answer(512);
        b->scripts[query.op] = answer(1);
        c->scripts[query.op] = answer(2);
        CerrCapture err;
        std::vector<ds::Row> rows;
        EXPECT_FALSE(query.run(rows));
        EXPECT_THAT(err.lines(),
                    ElementsAre(query.unsupported + "a\"", query.failed + "b\"",
                                query.failed + "c\" with error code 2"));
        a->scripts.clear();
        b->scripts.clear();
        c->scripts.clear();
    }
}

TEST_F(DataQueryTest, SnapshotProviderDataTakesTheFirstSuccess) {
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    RecorderState* c = add("c");
    a->scripts[517] = answer(1);
    b->rows = {make_row(5, "p")};
    CerrCapture err;
    std::map<std::string, std::vector<ds::Row>> by_provider;
    std::map<std::string, std::vector<ds::Row_baseline>> baselines;
    EXPECT_TRUE(ds::get_snapshot_provider_data("s1", by_provider, baselines, {"p"}, {"h1"}, false));
    EXPECT_THAT(err.lines(), ElementsAre("Querying of snapshot data failed for \"a\""));
    ASSERT_EQ(b->controls.size(), 1u);
    EXPECT_THAT(b->controls[0].request.first, ElementsAre("s1"));
    EXPECT_THAT(b->controls[0].request.second, ElementsAre("p"));
    EXPECT_THAT(b->controls[0].request.third, ElementsAre("h1"));
    ASSERT_EQ(by_provider["p"].size(), 1u);
    EXPECT_EQ(by_provider["p"][0].rowid, 5);
    EXPECT_EQ(baselines.count("p"), 1u);
    EXPECT_THAT(c->controls, IsEmpty());
}

}  // namespace
