// Snapshots: the snapshot dictionary and the policies of listing, recording
// and removing snapshots over the "data" datastores (recording extensions
// opened through the real controller).
#include "unit/recording_support.h"

namespace {

using namespace vesk::test;
using Providers = std::map<std::string, ds::ProviderInfo>;

std::vector<int32_t> rowids(const ds::ProviderInfoSet& set) {
    std::vector<int32_t> out;
    for (const auto& info : set) out.push_back(info.rowid);
    return out;
}

bool mark_latest() {
    Providers providers{{"p", ds::ProviderInfo{}}};
    std::vector<ds::Row> rows;
    return P::mark_latest_snapshot_data(providers, rows);
}

using SnapshotTest = RecorderTest;

TEST_F(SnapshotTest, DictionaryEntriesNameTheRowsBeingRecorded) {
    auto config = std::make_shared<vesk::provider_config>();
    Providers providers{{"p", ds::ProviderInfo{0, "p-name", config}}};
    std::vector<ds::Row> rows{make_row(3, "p", "n1"), make_row(3, "p", "n1"), make_row(4, "p", "n2"),
                              make_row(8, "q", "n1")},
        more{make_row(2, "p")}, none;
    P::update_snapshot_dictionary("", "a", rows, providers);  // no snapshot name: nothing
    EXPECT_THAT(P::snapshot_dict, IsEmpty());
    EXPECT_EQ(providers.size(), 1u);
    P::update_snapshot_dictionary("snap", "a", rows, providers);
    const auto& set = P::snapshot_dict["a"]["snap"];
    // The same row twice is one entry; each row of a provider is its own.
    EXPECT_THAT(rowids(set), ElementsAre(3, 4, 8));
    EXPECT_EQ(set.begin()->name, "p-name");
    EXPECT_EQ(set.begin()->config, config);
    // The provider map now names the last row seen; unknown providers were added.
    EXPECT_EQ(providers["p"].rowid, 4);
    EXPECT_EQ(providers["q"].rowid, 8);
    EXPECT_EQ(providers["q"].config, nullptr);
    // A second pass adds to the set; no rows still makes the set exist.
    P::update_snapshot_dictionary("snap", "a", more, providers);
    EXPECT_THAT(rowids(P::snapshot_dict["a"]["snap"]), ElementsAre(2, 3, 4, 8));
    P::update_snapshot_dictionary("empty", "a", none, providers);
    EXPECT_EQ(P::snapshot_dict["a"].count("empty"), 1u);
}

TEST_F(SnapshotTest, WithoutDataDatastoresOnlyTheListingFails) {
    EXPECT_FALSE(P::query_available_baselines());
    RecorderState* stream = add("stream", kStreamOnly);
    CerrCapture err;
    EXPECT_FALSE(P::query_available_baselines());
    EXPECT_TRUE(P::commit_snapshot_updates());
    EXPECT_TRUE(mark_latest());
    EXPECT_TRUE(P::remove_snapshot());
    EXPECT_THAT(stream->controls, IsEmpty());
    EXPECT_EQ(err.text(), "");
    // Nobody holds the controller: every operation gives up.
    controller_.reset();
    EXPECT_FALSE(P::commit_snapshot_updates());
    EXPECT_FALSE(mark_latest());
    EXPECT_FALSE(P::remove_snapshot());
}

TEST_F(SnapshotTest, ListingSkipsEmptyAnswersAndKeepsKnownEntries) {
    RecorderState* stream = add("stream", kStreamOnly);
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    RecorderState* c = add("c");
    for (RecorderState* r : {a, b, c}) r->scripts[516] = answer(0);
    CerrCapture err;
    EXPECT_FALSE(P::query_available_baselines());  // no snapshot anywhere
    EXPECT_THAT(P::get_snapshot_info_set(), IsEmpty());
    b->scripts[516].snapshots = {ds::SnapshotInfo{"s1", 10}, ds::SnapshotInfo{"s2", 20}};
    P::update_snapshot_info({ds::SnapshotInfo{"s1", 1}});
    EXPECT_TRUE(P::query_available_baselines());
    // A known id keeps its stored entry.
    const auto set = P::get_snapshot_info_set();
    ASSERT_EQ(set.size(), 2u);
    EXPECT_EQ(set.begin()->latest_unique_timestamp, 1);
    EXPECT_EQ(set.rbegin()->baseline_id, "s2");
    EXPECT_EQ(set.rbegin()->latest_unique_timestamp, 20);
    EXPECT_THAT(stream->controls, IsEmpty());
    EXPECT_EQ(c->controls.size(), 1u);  // asked only while nobody had snapshots
    ASSERT_EQ(b->controls.size(), 2u);
    EXPECT_EQ(b->controls[1].in, nullptr);
    EXPECT_EQ(err.text(), "");
}

TEST_F(SnapshotTest, TheFirstDataDatastoreThatFailsEndsEachOperation) {
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    P::update_snapshot_info({ds::SnapshotInfo{"kept", 5}});
    const std::string pulling = "Pulling data failed for \" from the datastore source \"a\"";
    const std::vector<std::string> updates = {
        "Snapshot updates failed for \"a\"", "Snapshot updates not supported for \"a\"",
        "Snapshot updates failed for \"a\" with error code 7", pulling};
    struct Operation {
        uint16_t op;
        bool (*run)();
        std::vector<std::string> messages;  // for the answers 1, 512, 7 and a throw
    };
    const std::vector<Operation> operations = {
        // A plain failure is worded "not supported" here.
        {516, P::query_available_baselines,
         {"Querying available snapshots not supported for \"a\"",
          "Querying available snapshots not supported for \"a\"",
          "Querying available snapshots failed for \"a\" with error code 7", pulling}},
        {518, P::commit_snapshot_updates, updates},
        {519, mark_latest, updates},
        {520, P::remove_snapshot,
         {"Snapshot removal failed for \"a\"", "Snapshot removal not supported for \"a\"",
          "Snapshot removal failed for \"a\" with error code 7", pulling}},
    };
    for (const auto& operation : operations) {
        CerrCapture err;
        for (const ControlScript& script : {answer(1), answer(512), answer(7), throws()}) {
            a->scripts = {{operation.op, script}};
            EXPECT_FALSE(operation.run()) << operation.op;
        }
        EXPECT_EQ(err.lines(), operation.messages);
    }
    EXPECT_THAT(b->controls, IsEmpty());
    EXPECT_THAT(P::snapshot_dict["a"], IsEmpty());
    ASSERT_EQ(P::get_snapshot_info_set().size(), 1u);
    EXPECT_EQ(P::get_snapshot_info_set().begin()->baseline_id, "kept");
}

TEST_F(SnapshotTest, CommitAndRemovalAskOnlyTheFirstDataDatastore) {
    RecorderState* stream = add("stream", kStreamOnly);
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    std::vector<ds::Row> rows{make_row(3, "p")};
    Providers providers;
    P::update_snapshot_dictionary("snap", "a", rows, providers);
    P::set_snapshot_remove_str("old");
    P::update_snapshot_info({ds::SnapshotInfo{"old", 1}});
    CerrCapture err;
    // The default body fails; the dictionary is kept and the commit can be repeated.
    EXPECT_FALSE(P::commit_snapshot_updates());
    a->scripts[518] = a->scripts[520] = answer(0);
    EXPECT_TRUE(P::commit_snapshot_updates());
    EXPECT_TRUE(P::remove_snapshot());
    EXPECT_THAT(err.lines(), ElementsAre("Snapshot updates failed for \"a\""));
    ASSERT_EQ(a->controls.size(), 3u);
    for (const auto& call : a->controls) EXPECT_EQ(call.in, nullptr);
    EXPECT_THAT(rowids(a->controls[1].snapshots.at("snap")), ElementsAre(3));
    EXPECT_EQ(a->controls[2].text, "old");
    EXPECT_THAT(stream->controls, IsEmpty());
    EXPECT_THAT(b->controls, IsEmpty());
    // Removal leaves the process-wide state alone.
    EXPECT_EQ(P::get_snapshot_remove_str(), "old");
    EXPECT_EQ(P::get_snapshot_info_set().size(), 1u);
}

TEST_F(SnapshotTest, MarkLatestRecordsTheNewestRunAndCommitsToTheFirst) {
    RecorderState* a = add("a");
    RecorderState* b = add("b");
    RecorderState* c = add("c");
    b->rows = {make_row(11, "p", "n1"), make_row(12, "q", "n1")};
    a->scripts[519] = a->scripts[518] = answer(0);
    P::set_baseline_str("snap");
    Providers providers{{"p", ds::ProviderInfo{0, "p", nullptr}}, {"q", ds::ProviderInfo{}}};
    std::vector<ds::Row> rows;
    CerrCapture err;
    // a answers empty, so b's rows are recorded; the SQL base runs b's query.
    EXPECT_TRUE(P::mark_latest_snapshot_data(providers, rows));
    ASSERT_EQ(b->controls.size(), 1u);
    EXPECT_THAT(b->controls[0].request.first, ElementsAre("p", "q"));
    EXPECT_EQ(b->selects.size(), 1u);
    EXPECT_EQ(rows.size(), 2u);
    EXPECT_THAT(rowids(P::snapshot_dict["b"]["snap"]), ElementsAre(11, 12));
    EXPECT_EQ(providers["q"].rowid, 12);
    // The commit always goes to the first "data" datastore, with its own entry.
    ASSERT_EQ(a->controls.size(), 2u);
    EXPECT_EQ(a->controls[1].op, 518);
    EXPECT_THAT(a->controls[1].snapshots, IsEmpty());
    EXPECT_THAT(c->controls, IsEmpty());
    // When the first has the rows, they are what is committed.
    a->scripts.erase(519);
    a->rows = b->rows;
    rows.clear();
    EXPECT_TRUE(P::mark_latest_snapshot_data(providers, rows));
    EXPECT_THAT(rowids(a->controls.back().snapshots.at("snap")), ElementsAre(11, 12));
    // No providers: the SQL base refuses and nothing is recorded.
    providers.clear();
    P::snapshot_dict.clear();
    EXPECT_FALSE(P::mark_latest_snapshot_data(providers, rows));
    EXPECT_THAT(err.lines(), ElementsAre("Snapshot updates failed for \"a\""));
    EXPECT_THAT(P::snapshot_dict, IsEmpty());
}

}  // namespace
