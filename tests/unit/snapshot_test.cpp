// Snapshots: the process-wide snapshot state and the policies of listing,
// recording and removing snapshots over the "data" datastores (recording
// extensions opened through the real controller).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/recording_support.h"

namespace {

using namespace vesk::test;
using P = vesk::datastore::DataStoreParseUtility;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

std::vector<int32_t> rowids(const ds::ProviderInfoSet& set) {
    std::vector<int32_t> out;
    for (const auto& info : set) out.push_back(info.rowid);
    return out;
}

class SnapshotStateTest : public RecorderTest {};

TEST_F(SnapshotStateTest, TimestampIsNarrowedAndIdsAccumulate) {
    P::set_unique_timestamp(timeval{1500000000, 999999});
    EXPECT_EQ(P::get_unique_timestamp(), 1500000000);
    EXPECT_EQ(P::unique_timestamp.tv_usec, 999999);

    P::set_baseline_vec({"x", "y"});
    P::set_baseline_vec({"x", "y"});
    EXPECT_THAT(P::get_baseline_str_vec(), ElementsAre("x", "y", "x", "y"));
    P::clear_baseline_str_vector();
    EXPECT_THAT(P::get_baseline_str_vec(), IsEmpty());
}

TEST_F(SnapshotStateTest, KnownSnapshotsKeepTheirStoredEntry) {
    EXPECT_TRUE(P::update_snapshot_info({ds::SnapshotInfo{"a", 1}, ds::SnapshotInfo{"b", 2}}));
    EXPECT_TRUE(P::update_snapshot_info({ds::SnapshotInfo{"a", 99}, ds::SnapshotInfo{"c", 3}}));
    const auto set = P::get_snapshot_info_set();
    ASSERT_EQ(set.size(), 3u);
    EXPECT_EQ(set.begin()->baseline_id, "a");
    EXPECT_EQ(set.begin()->latest_unique_timestamp, 1);
}

class QueryBaselinesTest : public RecorderTest {};

TEST_F(QueryBaselinesTest, EmptyAnswersGoOnAndTheFirstSnapshotsWin) {
    RecorderState* stream = add("stream", kStreamOnly);
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    RecorderState* c = add("c");
    a->scripts[516] = answer(0);
    // b answers through the real dispatch of operation 516.
    b->answers["query_baseline_ids"] = Answer{Answer::Result, true, ""};
    b->snapshot_ids = {ds::SnapshotInfo{"s1", 10}, ds::SnapshotInfo{"s2", 20}};
    CerrCapture err;
    EXPECT_TRUE(P::query_available_baselines());
    const auto set = P::get_snapshot_info_set();
    ASSERT_EQ(set.size(), 2u);
    EXPECT_EQ(set.rbegin()->baseline_id, "s2");
    EXPECT_EQ(set.rbegin()->latest_unique_timestamp, 20);
    EXPECT_THAT(stream->controls, IsEmpty());
    EXPECT_THAT(c->controls, IsEmpty());
    ASSERT_EQ(b->controls.size(), 1u);
    EXPECT_FALSE(b->controls[0].has_in);
    EXPECT_EQ(err.text(), "");
}

TEST_F(QueryBaselinesTest, TheFirstRefusalEndsTheOperation) {
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    ControlScript ok = answer(0);
    ok.snapshots = {ds::SnapshotInfo{"s1", 1}};
    b->scripts[516] = ok;
    P::update_snapshot_info({ds::SnapshotInfo{"kept", 5}});

    // The default body fails with 1, which is worded "not supported" too.
    CerrCapture err;
    EXPECT_FALSE(P::query_available_baselines());
    a->scripts[516] = answer(512);
    EXPECT_FALSE(P::query_available_baselines());
    a->scripts[516] = answer(9);
    EXPECT_FALSE(P::query_available_baselines());
    a->scripts[516] = throws();
    EXPECT_FALSE(P::query_available_baselines());
    EXPECT_THAT(err.lines(),
                ElementsAre("Querying available snapshots not supported for \"a\"",
                            "Querying available snapshots not supported for \"a\"",
                            "Querying available snapshots failed for \"a\" with error code 9",
                            "Pulling data failed for \" from the datastore source \"a\""));
    EXPECT_THAT(b->controls, IsEmpty());
    const auto set = P::get_snapshot_info_set();
    ASSERT_EQ(set.size(), 1u);
    EXPECT_EQ(set.begin()->baseline_id, "kept");
}

TEST_F(QueryBaselinesTest, NoDataDatastoreOrNoSnapshotsIsFalse) {
    EXPECT_FALSE(P::query_available_baselines());
    add("stream", kStreamOnly);
    RecorderState* a = add("a");
    a->scripts[516] = answer(0);
    EXPECT_FALSE(P::query_available_baselines());
    EXPECT_THAT(P::get_snapshot_info_set(), IsEmpty());
}

class SnapshotDictionaryTest : public RecorderTest {};

TEST_F(SnapshotDictionaryTest, EmptyNamesAndEmptyRows) {
    std::vector<ds::Row> rows{make_row(1, "p")};
    std::map<std::string, ds::ProviderInfo> providers;
    P::update_snapshot_dictionary("", "a", rows, providers);
    EXPECT_THAT(P::snapshot_dict, IsEmpty());
    EXPECT_THAT(providers, IsEmpty());

    std::vector<ds::Row> none;
    P::update_snapshot_dictionary("snap", "a", none, providers);
    ASSERT_EQ(P::snapshot_dict.count("a"), 1u);
    ASSERT_EQ(P::snapshot_dict["a"].count("snap"), 1u);
    EXPECT_THAT(P::snapshot_dict["a"]["snap"], IsEmpty());
}

TEST_F(SnapshotDictionaryTest, EntriesNameTheRowsBeingRecorded) {
    auto config = std::make_shared<vesk::provider_config>();
    config->fwd_name = "fwd";
    std::map<std::string, ds::ProviderInfo> providers{{"p", ds::ProviderInfo{0, "p-name", config}}};
    std::vector<ds::Row> rows{make_row(3, "p", "n1"), make_row(3, "p", "n1"), make_row(4, "p", "n2"),
                              make_row(8, "q", "n1")};
    P::update_snapshot_dictionary("snap", "a", rows, providers);

    const auto& set = P::snapshot_dict["a"]["snap"];
    // The same row twice is one entry; each row of a provider is its own.
    EXPECT_THAT(rowids(set), ElementsAre(3, 4, 8));
    const auto first = set.begin();
    EXPECT_EQ(first->name, "p-name");
    EXPECT_EQ(first->config, config);
    // The provider map now names the last row seen; unknown providers were added.
    EXPECT_EQ(providers["p"].rowid, 4);
    ASSERT_EQ(providers.count("q"), 1u);
    EXPECT_EQ(providers["q"].rowid, 8);
    EXPECT_EQ(providers["q"].config, nullptr);

    // A second pass adds to the set; nothing is cleared.
    std::vector<ds::Row> more{make_row(2, "p")};
    P::update_snapshot_dictionary("snap", "a", more, providers);
    EXPECT_THAT(rowids(P::snapshot_dict["a"]["snap"]), ElementsAre(2, 3, 4, 8));
}

class CommitTest : public RecorderTest {};

TEST_F(CommitTest, OnlyTheFirstDataDatastoreIsAsked) {
    RecorderState* stream = add("stream", kStreamOnly);
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    a->answers["update_snapshot"] = Answer{Answer::Result, true, ""};
    std::vector<ds::Row> rows{make_row(3, "p")};
    std::map<std::string, ds::ProviderInfo> providers;
    P::update_snapshot_dictionary("snap", "a", rows, providers);

    CerrCapture err;
    EXPECT_TRUE(P::commit_snapshot_updates());
    EXPECT_THAT(stream->controls, IsEmpty());
    EXPECT_THAT(b->controls, IsEmpty());
    ASSERT_EQ(a->controls.size(), 1u);
    EXPECT_EQ(a->controls[0].op, 518);
    EXPECT_FALSE(a->controls[0].has_in);
    const auto updates = a->calls_of("update_snapshot");
    ASSERT_EQ(updates.size(), 1u);
    ASSERT_EQ(updates[0].snapshots.count("snap"), 1u);
    EXPECT_THAT(rowids(updates[0].snapshots.at("snap")), ElementsAre(3));
    EXPECT_EQ(err.text(), "");
}

TEST_F(CommitTest, NoDataDatastoreAsksNothing) {
    RecorderState* stream = add("stream", kStreamOnly);
    CerrCapture err;
    EXPECT_TRUE(P::commit_snapshot_updates());
    EXPECT_THAT(stream->controls, IsEmpty());
    EXPECT_EQ(err.text(), "");
}

TEST_F(CommitTest, FailuresAreWordedAndTheDictionaryIsKept) {
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    std::vector<ds::Row> rows{make_row(3, "p")};
    std::map<std::string, ds::ProviderInfo> providers;
    P::update_snapshot_dictionary("snap", "a", rows, providers);

    CerrCapture err;
    EXPECT_FALSE(P::commit_snapshot_updates());  // default body: 1
    a->scripts[518] = answer(512);
    EXPECT_FALSE(P::commit_snapshot_updates());
    a->scripts[518] = answer(3);
    EXPECT_FALSE(P::commit_snapshot_updates());
    a->scripts[518] = throws();
    EXPECT_FALSE(P::commit_snapshot_updates());
    EXPECT_THAT(err.lines(), ElementsAre("Snapshot updates failed for \"a\"",
                                         "Snapshot updates not supported for \"a\"",
                                         "Snapshot updates failed for \"a\" with error code 3",
                                         "Pulling data failed for \" from the datastore source \"a\""));
    EXPECT_THAT(b->controls, IsEmpty());
    EXPECT_THAT(rowids(P::snapshot_dict["a"]["snap"]), ElementsAre(3));

    // A failed commit can be repeated.
    a->scripts[518] = answer(0);
    EXPECT_TRUE(P::commit_snapshot_updates());
    EXPECT_THAT(rowids(a->controls.back().snapshots.at("snap")), ElementsAre(3));
}

class MarkLatestTest : public RecorderTest {};

TEST_F(MarkLatestTest, RecordsTheLatestRunEndToEnd) {
    RecorderState* a = add("a");
    a->rows = {make_row(11, "p", "n1"), make_row(12, "q", "n1")};
    a->answers["update_snapshot"] = Answer{Answer::Result, true, ""};
    P::set_baseline_str("before-upgrade");
    std::map<std::string, ds::ProviderInfo> providers{{"p", ds::ProviderInfo{0, "p", nullptr}},
                                                      {"q", ds::ProviderInfo{0, "q", nullptr}}};
    std::vector<ds::Row> rows;
    CerrCapture err;
    EXPECT_TRUE(P::mark_latest_snapshot_data(providers, rows));
    EXPECT_EQ(err.text(), "");

    // The request names the providers, and the SQL base asks for the newest run.
    ASSERT_GE(a->controls.size(), 1u);
    EXPECT_EQ(a->controls[0].op, 519);
    EXPECT_THAT(a->controls[0].request.first, ElementsAre("p", "q"));
    ASSERT_EQ(a->calls_of("select").size(), 1u);
    EXPECT_EQ(a->calls_of("select")[0].sql,
              "SELECT * FROM vesk_1 WHERE (Provider IN ('p','q') )AND Unique_timestamp = (SELECT "
              "MAX(unique_timestamp) FROM vesk_1) GROUP BY OptionID, Hostname, Provider;");
    EXPECT_EQ(rows.size(), 2u);

    // The rows were recorded under the snapshot name and committed.
    const auto updates = a->calls_of("update_snapshot");
    ASSERT_EQ(updates.size(), 1u);
    EXPECT_THAT(rowids(updates[0].snapshots.at("before-upgrade")), ElementsAre(11, 12));
    EXPECT_EQ(providers["q"].rowid, 12);
}

TEST_F(MarkLatestTest, NoProvidersIsRefusedByTheSqlBase) {
    RecorderState* a = add("a");
    P::set_baseline_str("snap");
    std::map<std::string, ds::ProviderInfo> providers;
    std::vector<ds::Row> rows;
    CerrCapture err;
    EXPECT_FALSE(P::mark_latest_snapshot_data(providers, rows));
    EXPECT_THAT(err.lines(), ElementsAre("Snapshot updates failed for \"a\""));
    EXPECT_THAT(a->calls_of("select"), IsEmpty());
    EXPECT_THAT(P::snapshot_dict, IsEmpty());
}

TEST_F(MarkLatestTest, EmptyAnswersGoOnFailuresStop) {
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    RecorderState* c = add("c");
    std::map<std::string, ds::ProviderInfo> providers{{"p", ds::ProviderInfo{}}};
    std::vector<ds::Row> rows;
    a->scripts[519] = answer(0);
    b->scripts[519] = answer(512);
    c->scripts[519] = answer(0, {make_row(1, "p")});
    CerrCapture err;
    EXPECT_FALSE(P::mark_latest_snapshot_data(providers, rows));
    b->scripts[519] = answer(1);
    EXPECT_FALSE(P::mark_latest_snapshot_data(providers, rows));
    b->scripts[519] = answer(-2);
    EXPECT_FALSE(P::mark_latest_snapshot_data(providers, rows));
    b->scripts[519] = throws();
    EXPECT_FALSE(P::mark_latest_snapshot_data(providers, rows));
    EXPECT_THAT(err.lines(), ElementsAre("Snapshot updates not supported for \"b\"",
                                         "Snapshot updates failed for \"b\"",
                                         "Snapshot updates failed for \"b\" with error code -2",
                                         "Pulling data failed for \" from the datastore source \"b\""));
    EXPECT_THAT(c->controls, IsEmpty());
    EXPECT_THAT(P::snapshot_dict, IsEmpty());
}

TEST_F(MarkLatestTest, RowsOfALaterDatastoreAreCommittedToTheFirst) {
    // The commit always goes to the first "data" datastore, even when the
    // rows came from a later one.
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    a->scripts[519] = answer(0);
    a->scripts[518] = answer(0);
    b->scripts[519] = answer(0, {make_row(6, "p")});
    P::set_baseline_str("snap");
    std::map<std::string, ds::ProviderInfo> providers{{"p", ds::ProviderInfo{}}};
    std::vector<ds::Row> rows;
    EXPECT_TRUE(P::mark_latest_snapshot_data(providers, rows));
    EXPECT_THAT(rowids(P::snapshot_dict["b"]["snap"]), ElementsAre(6));
    ASSERT_EQ(a->controls.size(), 2u);
    EXPECT_EQ(a->controls[1].op, 518);
    EXPECT_THAT(a->controls[1].snapshots, IsEmpty());
    EXPECT_EQ(b->controls.size(), 1u);
}

TEST_F(MarkLatestTest, NoDataDatastoreIsNotAFailure) {
    RecorderState* stream = add("stream", kStreamOnly);
    std::map<std::string, ds::ProviderInfo> providers{{"p", ds::ProviderInfo{}}};
    std::vector<ds::Row> rows;
    EXPECT_TRUE(P::mark_latest_snapshot_data(providers, rows));
    EXPECT_THAT(stream->controls, IsEmpty());
}

class RemoveSnapshotTest : public RecorderTest {};

TEST_F(RemoveSnapshotTest, OnlyTheFirstDataDatastoreIsAsked) {
    RecorderState* stream = add("stream", kStreamOnly);
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    a->answers["remove_snapshot"] = Answer{Answer::Result, true, ""};
    P::set_snapshot_remove_str("old");
    P::update_snapshot_info({ds::SnapshotInfo{"old", 1}});
    CerrCapture err;
    EXPECT_TRUE(P::remove_snapshot());
    ASSERT_EQ(a->calls_of("remove_snapshot").size(), 1u);
    EXPECT_EQ(a->calls_of("remove_snapshot")[0].text, "old");
    EXPECT_FALSE(a->controls[0].has_in);
    EXPECT_THAT(stream->controls, IsEmpty());
    EXPECT_THAT(b->controls, IsEmpty());
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(P::get_snapshot_remove_str(), "old");
    EXPECT_EQ(P::get_snapshot_info_set().size(), 1u);
}

TEST_F(RemoveSnapshotTest, FailuresAreWordedAndEndTheOperation) {
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    CerrCapture err;
    EXPECT_FALSE(P::remove_snapshot());  // default body: 1; the empty id is still sent
    EXPECT_EQ(a->controls[0].text, "");
    a->scripts[520] = answer(512);
    EXPECT_FALSE(P::remove_snapshot());
    a->scripts[520] = answer(4);
    EXPECT_FALSE(P::remove_snapshot());
    a->scripts[520] = throws();
    EXPECT_FALSE(P::remove_snapshot());
    EXPECT_THAT(err.lines(), ElementsAre("Snapshot removal failed for \"a\"",
                                         "Snapshot removal not supported for \"a\"",
                                         "Snapshot removal failed for \"a\" with error code 4",
                                         "Pulling data failed for \" from the datastore source \"a\""));
    EXPECT_THAT(b->controls, IsEmpty());
}

TEST_F(RemoveSnapshotTest, NoDataDatastoreIsASilentSuccess) {
    RecorderState* stream = add("stream", kStreamOnly);
    P::set_snapshot_remove_str("old");
    CerrCapture err;
    EXPECT_TRUE(P::remove_snapshot());
    EXPECT_THAT(stream->controls, IsEmpty());
    EXPECT_EQ(err.text(), "");
}

TEST(SnapshotWithoutController, OperationsGiveUp) {
    // Nobody holds the controller, so none can be reached.
    EXPECT_FALSE(P::remove_snapshot());
    EXPECT_FALSE(P::commit_snapshot_updates());
    EXPECT_FALSE(P::query_available_baselines());
}

}  // namespace
