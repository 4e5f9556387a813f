// The query front end: execute_ioctl's first-success rule and callbacks, and
// the data queries' walk over the "data" datastores, with their messages.
// Datastores are recording extensions opened through the real controller.
#include <functional>

#include "unit/recording_support.h"

namespace {

using namespace vesk::test;

// What the callback of execute_ioctl saw (the instance by identity only).
struct Visit {
    int status;
    uint16_t op;
    const void *instance, *out, *extra;
};
std::vector<Visit> g_visits;

void record_visit(int status, uint16_t op, std::weak_ptr<ds::DataStoreExtension> instance,
                  const void* out, const void* extra) {
    g_visits.push_back({status, op, instance.lock().get(), out, extra});
}

void record_and_throw(int status, uint16_t op, std::weak_ptr<ds::DataStoreExtension> instance,
                      const void* out, const void* extra) {
    record_visit(status, op, instance, out, extra);
    throw std::logic_error("callback failed");
}

class ExecuteIoctlTest : public RecorderTest {
protected:
    void SetUp() override {
        RecorderTest::SetUp();
        g_visits.clear();
        a = add("a");
        b = add("b");
    }

    bool run(std::vector<std::string> names, ds::ioctl_callback callback = record_visit) {
        return ds::execute_ioctl(std::move(names), op, &in, &out, &extra, callback);
    }

    RecorderState *a = nullptr, *b = nullptr;
    uint16_t op = 512;
    ds::ReadParameters in;
    std::vector<ds::Row> out;
    int extra = 0;
};

TEST_F(ExecuteIoctlTest, FirstSuccessWinsAndEveryVisitIsReported) {
    RecorderState* c = add("c");
    a->scripts[512] = answer(1);
    b->scripts[512] = answer(0);
    CerrCapture err;
    EXPECT_FALSE(run({}));
    EXPECT_FALSE(run({"A", "missing"}));
    EXPECT_THAT(g_visits, IsEmpty());
    EXPECT_TRUE(run({"a", "b", "c"}));
    EXPECT_THAT(err.lines(), ElementsAre("Operation code 512 failed for a"));
    EXPECT_THAT(c->controls, IsEmpty());
    ASSERT_EQ(g_visits.size(), 2u);
    EXPECT_EQ(g_visits[0].status, 1);
    EXPECT_EQ(g_visits[0].instance, handle("a"));
    EXPECT_EQ(g_visits[1].status, 0);
    EXPECT_EQ(g_visits[1].instance, handle("b"));
    for (const auto& visit : g_visits) {
        EXPECT_EQ(visit.op, 512);
        EXPECT_EQ(visit.out, &out);
        EXPECT_EQ(visit.extra, &extra);
    }
    // The pointers reach the extension unchanged.
    ASSERT_EQ(b->controls.size(), 1u);
    EXPECT_EQ(b->controls[0].in, &in);
    EXPECT_EQ(b->controls[0].out, &out);
    EXPECT_EQ(b->controls[0].extra, &extra);
}

TEST_F(ExecuteIoctlTest, MessagesAndExceptions) {
    RecorderState* c = add("vesk_1");
    RecorderState* d = add("d");
    a->scripts[512] = answer(512);
    b->scripts[512] = answer(2);
    c->scripts[512] = answer(7);
    d->scripts[512] = answer(-1);
    CerrCapture err;
    EXPECT_FALSE(run({"a", "b", "vesk_1", "d"}, nullptr));
    // A callback that throws is logged and the walk goes on.
    a->scripts[512] = answer(1);
    EXPECT_FALSE(run({"a", "b"}, record_and_throw));
    EXPECT_EQ(g_visits.size(), 2u);
    // An extension that throws out of control gets no callback.
    g_visits.clear();
    a->scripts[512] = throws();
    b->scripts[512] = answer(0);
    EXPECT_TRUE(run({"a", "b"}));
    ASSERT_EQ(g_visits.size(), 1u);
    EXPECT_EQ(g_visits[0].status, 0);
    // Codes beyond the SQL base pass through just the same.
    op = 1100;
    EXPECT_FALSE(run({"vesk_1"}, nullptr));
    EXPECT_THAT(err.lines(), ElementsAre("Operation code 512 unsupported for a",
                                         "Operation code 512 failed for berror code 2",
                                         "Operation code 512 failed for vesk_1error code 7",
                                         "Operation code 512 failed for derror code -1",
                                         "Operation code 512 failed for a",
                                         "Pulling data failed for  from the database source \"a\"",
                                         "Operation code 512 failed for berror code 2",
                                         "Pulling data failed for  from the database source \"b\"",
                                         "Pulling data failed for  from the database source \"a\"",
                                         "Operation code 1100 unsupported for vesk_1"));
}

TEST_F(ExecuteIoctlTest, WithoutControllerNothingIsAsked) {
    // Nobody else holds the controller: once let go, it is gone.
    controller_.reset();
    out = {make_row(1, "kept")};
    CerrCapture err;
    EXPECT_FALSE(run({"a"}));
    EXPECT_FALSE(ds::select_provider_data({"p"}, out, "", false));
    EXPECT_EQ(out.size(), 1u);
    EXPECT_THAT(g_visits, IsEmpty());
    EXPECT_EQ(err.text(), "");
}

TEST_F(RecorderTest, EmptyArgumentsClearTheResultAndAskNothing) {
    RecorderState* a = add("a");
    const std::vector<std::function<bool(std::vector<ds::Row>&)>> queries = {
        [](std::vector<ds::Row>& r) { return ds::select_data("", r, {}, false); },
        [](std::vector<ds::Row>& r) { return ds::select_provider_data({}, r, "", false); },
        [](std::vector<ds::Row>& r) {
            return ds::get_latest_rows_provider_hosts_data({}, r, {"h"}, false);
        },
        [](std::vector<ds::Row>& r) { return ds::get_latest_rows_provider_data({}, r, "h", false); },
    };
    for (const auto& query : queries) {
        std::vector<ds::Row> rows{make_row(1, "stale")};
        EXPECT_FALSE(query(rows));
        EXPECT_THAT(rows, IsEmpty());
    }
    EXPECT_THAT(a->controls, IsEmpty());
}

TEST_F(RecorderTest, DataQueriesTakeTheFirstAnswerWithRows) {
    RecorderState* stream = add("stream", kStreamOnly);
    std::vector<RecorderState*> data;
    for (const char* name : {"a", "b", "c", "d", "e", "f", "g"}) data.push_back(add(name));
    const std::map<std::string, int> where{{"Hostname", 2}};
    const std::string latest_unsupported = "Querying of latest timestamp unsupported for \"";
    const std::string latest_failed = "Querying of latest timestamp failed for \"";
    struct Query {
        uint16_t op;
        std::function<bool(std::vector<ds::Row>&)> run;
        std::string unsupported, failed;
        ds::ReadParameters request;  // what the query sends, with its SQL parameters
        ds::SQLParameters sql;
    };
    const std::vector<Query> queries = {
        {514, [&](std::vector<ds::Row>& r) { return ds::select_data("t", r, where, false); },
         "Generic querying of data not supported for \"", "Generic querying of data failed for \"",
         {}, {"t", "", where}},
        {514,
         [](std::vector<ds::Row>& r) {
             return ds::select_provider_data({"p", "q"}, r, "Hostname = 'n1'", true);
         },
         "Querying of provider data not supported for \"", "Querying of provider data failed for \"",
         {{"p", "q"}, {}, {}, nullptr}, {"Hostname = 'n1'", "", ds::row_field_index}},
        {513,
         [](std::vector<ds::Row>& r) {
             return ds::get_latest_rows_provider_hosts_data({"p"}, r, {"h1", "h2"}, false);
         },
         latest_unsupported, latest_failed, {{"p"}, {"h1", "h2"}, {}, nullptr}, {}},
        {513, [](std::vector<ds::Row>& r) {
             return ds::get_latest_rows_provider_data({"p"}, r, "h3", false);
         }, latest_unsupported, latest_failed, {{"p"}, {"h3"}, {}, nullptr}, {}},
        {512, [&](std::vector<ds::Row>& r) { return ds::get_hosts_data(r, where, false); },
         "Host(s) data querying not supported for \"", "Host(s) data querying failed for \"",
         {{"uname"}, {}, {}, nullptr}, {"uname", "", where}},
    };
    for (const auto& query : queries) {
        // Empty answers, refusals and failures (with what they left) go on.
        const std::vector<ControlScript> scripts = {
            answer(0), answer(512), answer(1, {make_row(1, "partial")}), answer(2), throws(),
            answer(0, {make_row(7, "p")})};
        for (std::size_t i = 0; i < data.size(); ++i) {
            data[i]->controls.clear();
            data[i]->scripts.clear();
            if (i < scripts.size()) data[i]->scripts[query.op] = scripts[i];
        }
        CerrCapture err;
        std::vector<ds::Row> rows;
        EXPECT_TRUE(query.run(rows));
        EXPECT_THAT(err.lines(),
                    ElementsAre(query.unsupported + "b\"", query.failed + "c\"",
                                query.failed + "d\" with error code 2",
                                "Pulling data failed for \" from the datastore source \"e\""));
        ASSERT_EQ(rows.size(), 2u);
        EXPECT_EQ(rows[0].Provider, "partial");
        EXPECT_EQ(rows[1].rowid, 7);
        EXPECT_THAT(data[6]->controls, IsEmpty());

        ASSERT_EQ(data[5]->controls.size(), 1u);
        const ControlCall& call = data[5]->controls[0];
        EXPECT_EQ(call.op, query.op);
        EXPECT_EQ(call.out, &rows);
        EXPECT_EQ(call.extra, nullptr);
        EXPECT_EQ(call.request.first, query.request.first);
        EXPECT_EQ(call.request.second, query.request.second);
        EXPECT_EQ(call.sql.table, query.sql.table);
        EXPECT_EQ(call.sql.query, "");
        EXPECT_EQ(call.sql.field_map, query.sql.field_map);
    }
    // A datastore that serves only streams is never asked.
    EXPECT_THAT(stream->controls, IsEmpty());
}

TEST_F(RecorderTest, SnapshotProviderDataTakesTheFirstSuccess) {
    CerrCapture err;
    std::map<std::string, std::vector<ds::Row>> by_provider;
    std::map<std::string, std::vector<ds::Row_baseline>> baselines;
    add("stream", kStreamOnly);
    EXPECT_FALSE(ds::get_snapshot_provider_data("s1", by_provider, baselines, {"p"}, {}, false));
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    RecorderState* c = add("c");
    a->scripts[517] = answer(1);
    b->rows = {make_row(5, "p")};
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
