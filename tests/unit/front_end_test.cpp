// The query front end: execute_ioctl's first-success rule and callbacks, and
// the data queries' walk over the "data" datastores, with their messages.
// Datastores are recording extensions opened through the real controller.
#include <functional>
#include <tuple>

#include "unit/recording_support.h"

namespace {

using namespace vesk::test;
using Rows = std::vector<ds::Row>;
using Names = std::vector<std::string>;
using Handle = std::weak_ptr<ds::DataStoreExtension>;

// What execute_ioctl's callback saw: status, code, instance (by identity), out, extra.
using Visit = std::tuple<int, uint16_t, const void*, const void*, const void*>;
std::vector<Visit> g_visits;

void record_visit(int status, uint16_t op, Handle instance, const void* out, const void* extra) {
    g_visits.emplace_back(status, op, instance.lock().get(), out, extra);
}

TEST_F(RecorderTest, ExecuteIoctlTakesTheFirstSuccessAndReportsEveryVisit) {
    RecorderState *a = add("a"), *b = add("b"), *c = add("vesk_1"), *d = add("d");
    ds::ReadParameters in;
    Rows out;
    int extra = 0;
    auto run = [&](Names names, ds::ioctl_callback callback) {
        return ds::execute_ioctl(std::move(names), 512, &in, &out, &extra, callback);
    };
    g_visits.clear();
    a->scripts[512] = answer(1);
    b->scripts[512] = answer(0);
    CerrCapture err;
    EXPECT_FALSE(run({}, record_visit));
    EXPECT_FALSE(run({"A", "missing"}, record_visit));
    EXPECT_TRUE(run({"a", "b", "vesk_1"}, record_visit));
    EXPECT_THAT(g_visits, ElementsAre(Visit{1, 512, handle("a"), &out, &extra},
                                      Visit{0, 512, handle("b"), &out, &extra}));
    EXPECT_THAT(c->controls, IsEmpty());
    // The pointers reach the extension unchanged.
    ASSERT_EQ(b->controls.size(), 1u);
    EXPECT_EQ(std::tie(b->controls[0].in, b->controls[0].out, b->controls[0].extra),
              std::make_tuple(&in, &out, &extra));

    // Each failure has its message, with a callback or without.
    a->scripts[512] = answer(512);
    b->scripts[512] = answer(2);
    c->scripts[512] = answer(7);
    d->scripts[512] = answer(-1);
    EXPECT_FALSE(run({"a", "b", "vesk_1", "d"}, nullptr));
    // A callback that throws is logged and the walk goes on.
    g_visits.clear();
    EXPECT_FALSE(run({"b", "d"}, [](int s, uint16_t o, Handle i, const void* out, const void* e) {
        record_visit(s, o, i, out, e);
        throw std::logic_error("callback failed");
    }));
    EXPECT_EQ(g_visits.size(), 2u);
    // An extension that throws out of control gets no callback.
    a->scripts[512] = throws();
    b->scripts[512] = answer(0);
    EXPECT_TRUE(run({"a", "b"}, record_visit));
    EXPECT_EQ(g_visits.size(), 3u);
    // Once nobody holds the controller, nothing is asked.
    controller_.reset();
    EXPECT_FALSE(run({"b"}, record_visit));
    EXPECT_EQ(g_visits.size(), 3u);
    const std::string pulling = "Pulling data failed for  from the database source \"";
    EXPECT_THAT(
        err.lines(),
        ElementsAre("Operation code 512 failed for a", "Operation code 512 unsupported for a",
                    "Operation code 512 failed for berror code 2",
                    "Operation code 512 failed for vesk_1error code 7",
                    "Operation code 512 failed for derror code -1",
                    "Operation code 512 failed for berror code 2", pulling + "b\"",
                    "Operation code 512 failed for derror code -1", pulling + "d\"",
                    pulling + "a\""));
}

TEST_F(RecorderTest, DataQueriesTakeTheFirstAnswerWithRowsAndWordTheirFailures) {
    RecorderState* stream = add("stream", kStreamOnly);
    std::vector<RecorderState*> data;
    for (const char* name : {"a", "b", "c", "d", "e", "f", "g"}) data.push_back(add(name));
    const std::map<std::string, int> where{{"Hostname", 2}};
    struct Query {
        uint16_t op;
        std::string what, refusal;  // how the query names itself, how it words a 512
        Names first, second;        // the request's lists
        ds::SQLParameters sql;      // and its SQL parameters
        std::function<bool(Rows&)> run;
    };
    // clang-format off
    const std::vector<Query> queries = {
        {514, "Generic querying of data", " not supported", {}, {}, {"t", "", where},
         [&](Rows& r) { return ds::select_data("t", r, where, false); }},
        {514, "Querying of provider data", " not supported", {"p", "q"}, {},
         {"Hostname = 'n1'", "", ds::row_field_index},
         [](Rows& r) { return ds::select_provider_data({"p", "q"}, r, "Hostname = 'n1'", true); }},
        {513, "Querying of latest timestamp", " unsupported", {"p"}, {"h1"}, {},
         [](Rows& r) { return ds::get_latest_rows_provider_hosts_data({"p"}, r, {"h1"}, false); }},
        {513, "Querying of latest timestamp", " unsupported", {"p"}, {"h3"}, {},
         [](Rows& r) { return ds::get_latest_rows_provider_data({"p"}, r, "h3", false); }},
        {512, "Host(s) data querying", " not supported", {"uname"}, {}, {"uname", "", where},
         [&](Rows& r) { return ds::get_hosts_data(r, where, false); }},
    };
    // Empty answers, refusals and failures (with what they left) go on; g is never asked.
    const std::vector<ControlScript> scripts = {
        answer(0), answer(512), answer(1, {make_row(1, "partial")}), answer(2), throws(),
        answer(0, {make_row(7, "p")}), answer(0, {make_row(8, "never")})};
    // clang-format on
    for (const auto& query : queries) {
        for (std::size_t i = 0; i < data.size(); ++i) {
            data[i]->controls.clear();
            data[i]->scripts = {{query.op, scripts[i]}};
        }
        CerrCapture err;
        Rows rows;
        EXPECT_TRUE(query.run(rows));
        EXPECT_THAT(
            err.lines(),
            ElementsAre(query.what + query.refusal + " for \"b\"", query.what + " failed for \"c\"",
                        query.what + " failed for \"d\" with error code 2",
                        "Pulling data failed for \" from the datastore source \"e\""));
        EXPECT_THAT(rows,
                    ElementsAre(Field(&ds::Row::Provider, "partial"), Field(&ds::Row::rowid, 7)));
        EXPECT_THAT(data[6]->controls, IsEmpty());
        ASSERT_EQ(data[5]->controls.size(), 1u);
        const ControlCall& call = data[5]->controls[0];
        EXPECT_EQ(std::tie(call.op, call.request.first, call.request.second, call.sql.table,
                           call.sql.query, call.sql.field_map),
                  std::tie(query.op, query.first, query.second, query.sql.table, query.sql.query,
                           query.sql.field_map));
        EXPECT_EQ(std::tie(call.out, call.extra), std::make_tuple(&rows, nullptr));
    }
    // A datastore that serves only streams is never asked.
    EXPECT_THAT(stream->controls, IsEmpty());
    // Empty arguments clear the result and ask nothing.
    data[0]->controls.clear();
    for (const auto& query : std::vector<std::function<bool(Rows&)>>{
             [](Rows& r) { return ds::select_data("", r, {}, false); },
             [](Rows& r) { return ds::select_provider_data({}, r, "", false); },
             [](Rows& r) { return ds::get_latest_rows_provider_hosts_data({}, r, {"h"}, false); },
             [](Rows& r) { return ds::get_latest_rows_provider_data({}, r, "h", false); }}) {
        Rows rows{make_row(1, "stale")};
        EXPECT_FALSE(query(rows));
        EXPECT_THAT(rows, IsEmpty());
    }
    EXPECT_THAT(data[0]->controls, IsEmpty());
}

TEST_F(RecorderTest, SnapshotProviderDataTakesTheFirstSuccess) {
    CerrCapture err;
    std::map<std::string, Rows> by_provider;
    std::map<std::string, std::vector<ds::Row_baseline>> baselines;
    RecorderState *a = add("a"), *b = add("b"), *c = add("c");
    a->scripts[517] = answer(1);
    b->baselines = {ds::Row_baseline{}};  // b answers with no rows: still a success
    EXPECT_TRUE(ds::get_snapshot_provider_data("s1", by_provider, baselines, {"p"}, {"h1"}, false));
    EXPECT_THAT(err.lines(), ElementsAre("Querying of snapshot data failed for \"a\""));
    ASSERT_EQ(b->controls.size(), 1u);
    const auto& request = b->controls[0].request;
    EXPECT_EQ(std::tie(request.first, request.second, request.third),
              std::make_tuple(Names{"s1"}, Names{"p"}, Names{"h1"}));
    EXPECT_THAT(by_provider["p"], IsEmpty());
    EXPECT_EQ(baselines["p"].size(), 1u);
    EXPECT_THAT(c->controls, IsEmpty());
}

}  // namespace
