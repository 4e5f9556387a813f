// Snapshots: the snapshot dictionary and the policies of listing, recording
// and removing snapshots over the "data" datastores (recording extensions
// opened through the real controller).
#include "unit/recording_support.h"

namespace {

using namespace vesk::test;
using Providers = std::map<std::string, ds::ProviderInfo>;
using ::testing::Key;

std::vector<int32_t> rowids(const ds::ProviderInfoSet& set) {
    std::vector<int32_t> out;
    for (const auto& info : set) out.push_back(info.rowid);
    return out;
}

// "datastore/snapshot" of every entry of the snapshot dictionary.
std::vector<std::string> entries() {
    std::vector<std::string> out;
    for (const auto& [store, snapshots] : P::snapshot_dict)
        for (const auto& snapshot : snapshots) out.push_back(store + "/" + snapshot.first);
    return out;
}

bool mark_latest() {
    Providers providers{{"p", ds::ProviderInfo{}}};
    std::vector<ds::Row> rows;
    return P::mark_latest_snapshot_data(providers, rows);
}

TEST_F(RecorderTest, DictionaryEntriesNameTheRowsBeingRecorded) {
    auto config = std::make_shared<vesk::provider_config>();
    Providers providers{{"p", ds::ProviderInfo{0, "p-name", config}}};
    std::vector<ds::Row> rows{make_row(3, "p"), make_row(3, "p"), make_row(4, "p", "n2"),
                              make_row(8, "q")},
        more{make_row(2, "p")};
    P::update_snapshot_dictionary("", "a", rows, providers);  // no snapshot name: nothing
    EXPECT_THAT(P::snapshot_dict, IsEmpty());
    P::update_snapshot_dictionary("snap", "a", rows, providers);
    const auto& set = P::snapshot_dict["a"]["snap"];
    // The same row twice is one entry; each row of a provider is its own.
    EXPECT_THAT(rowids(set), ElementsAre(3, 4, 8));
    EXPECT_EQ(set.begin()->name, "p-name");
    EXPECT_EQ(set.begin()->config, config);
    // The provider map names the last row seen; unknown providers are added.
    EXPECT_EQ(providers["p"].rowid, 4);
    EXPECT_EQ(providers["q"].rowid, 8);
    // A second pass adds to the set.
    P::update_snapshot_dictionary("snap", "a", more, providers);
    EXPECT_THAT(rowids(set), ElementsAre(2, 3, 4, 8));
}

TEST_F(RecorderTest, WithoutDataDatastoresOnlyTheListingFails) {
    EXPECT_FALSE(P::query_available_baselines());
    RecorderState* stream = add("stream", kStreamOnly);
    CerrCapture err;
    EXPECT_FALSE(P::query_available_baselines());
    EXPECT_TRUE(P::commit_snapshot_updates());
    EXPECT_TRUE(mark_latest());
    EXPECT_TRUE(P::remove_snapshot());
    EXPECT_THAT(stream->controls, IsEmpty());
    EXPECT_EQ(err.text(), "");
    // Once nobody holds the controller, every operation gives up.
    controller_.reset();
    EXPECT_FALSE(P::commit_snapshot_updates());
    EXPECT_FALSE(mark_latest());
    EXPECT_FALSE(P::remove_snapshot());
}

TEST_F(RecorderTest, ListingSkipsEmptyAnswers) {
    RecorderState *a = add("a"), *b = add("b"), *c = add("c");
    for (RecorderState* r : {a, b, c}) r->scripts[516] = answer(0);
    CerrCapture err;
    EXPECT_FALSE(P::query_available_baselines());  // no snapshot anywhere
    EXPECT_THAT(P::get_snapshot_info_set(), IsEmpty());
    b->scripts[516].snapshots = {ds::SnapshotInfo{"s1", 10}, ds::SnapshotInfo{"s2", 20}};
    EXPECT_TRUE(P::query_available_baselines());
    EXPECT_THAT(P::get_snapshot_info_set(),
                ElementsAre(Field(&ds::SnapshotInfo::latest_unique_timestamp, 10),
                            Field(&ds::SnapshotInfo::latest_unique_timestamp, 20)));
    EXPECT_EQ(c->controls.size(), 1u);  // asked only while nobody had snapshots
    ASSERT_EQ(b->controls.size(), 2u);
    EXPECT_EQ(b->controls[1].in, nullptr);
    EXPECT_EQ(err.text(), "");
}

// The first "data" datastore alone is asked. Each way it can fail is worded
// and leaves the snapshot dictionary as it was; on success it gets its own
// dictionary entry (commit) or the id (removal), with no input, and only its
// own entry loses the removed id.
TEST_F(RecorderTest, TheFirstDataDatastoreDecidesEachOperation) {
    RecorderState *a = add("a"), *b = add("b");
    // "c" is not open.
    P::snapshot_dict = {{"a", {{"old", {ds::ProviderInfo{3, "p", nullptr}}}, {"keep", {}}}},
                        {"b", {{"old", {}}}},
                        {"c", {{"old", {}}}}};
    P::set_snapshot_remove_str("old");
    struct Operation {
        uint16_t op;
        bool (*run)();
        std::string what, plain;  // how it names itself; how it words the plain failure 1
    };
    for (const Operation& operation : std::vector<Operation>{
             {516, P::query_available_baselines, "Querying available snapshots", " not supported"},
             {518, P::commit_snapshot_updates, "Snapshot updates", " failed"},
             {519, mark_latest, "Snapshot updates", " failed"},
             {520, P::remove_snapshot, "Snapshot removal", " failed"}}) {
        CerrCapture err;
        for (const ControlScript& script : {answer(1), answer(512), answer(7), throws()}) {
            a->scripts = {{operation.op, script}};
            EXPECT_FALSE(operation.run()) << operation.op;
            EXPECT_THAT(entries(), ElementsAre("a/keep", "a/old", "b/old", "c/old"));
        }
        EXPECT_THAT(err.lines(),
                    ElementsAre(operation.what + operation.plain + " for \"a\"",
                                operation.what + " not supported for \"a\"",
                                operation.what + " failed for \"a\" with error code 7",
                                "Pulling data failed for \" from the datastore source \"a\""));
    }
    EXPECT_THAT(P::get_snapshot_info_set(), IsEmpty());
    a->scripts = {{518, answer(0)}, {520, answer(0)}};
    a->controls.clear();
    EXPECT_TRUE(P::commit_snapshot_updates());
    EXPECT_TRUE(P::remove_snapshot());
    ASSERT_EQ(a->controls.size(), 2u);
    for (const auto& call : a->controls) EXPECT_EQ(call.in, nullptr);
    EXPECT_THAT(rowids(a->controls[0].snapshots.at("old")), ElementsAre(3));
    EXPECT_EQ(a->controls[1].text, "old");
    EXPECT_THAT(b->controls, IsEmpty());
    EXPECT_THAT(entries(), ElementsAre("a/keep", "b/old", "c/old"));
    // The last snapshot of a datastore takes its entry with it.
    P::snapshot_dict = {{"a", {{"old", {}}}}};
    EXPECT_TRUE(P::remove_snapshot());
    EXPECT_THAT(P::snapshot_dict, IsEmpty());
}

TEST_F(RecorderTest, MarkLatestRecordsTheNewestRunAndCommitsToTheFirst) {
    RecorderState *a = add("a"), *b = add("b"), *c = add("c");
    b->rows = {make_row(11, "p", "n1"), make_row(12, "q", "n1")};
    a->scripts[519] = a->scripts[518] = answer(0);
    P::set_baseline_str("snap");
    Providers providers{{"p", ds::ProviderInfo{}}, {"q", ds::ProviderInfo{}}};
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
    EXPECT_EQ(err.text(), "");
}

TEST_F(RecorderTest, AForgottenSnapshotIsNoLongerCommitted) {
    RecorderState* a = add("a");
    P::snapshot_dict = {{"a", {{"refused", {ds::ProviderInfo{5, "p", nullptr}}}}},
                        {"b", {{"refused", {}}, {"other", {}}}}};
    // A refused commit keeps the dictionary (see above), so the next one
    // sends it again, until it is forgotten everywhere; the datastores are
    // not asked.
    EXPECT_TRUE(P::forget_snapshot("refused"));
    EXPECT_FALSE(P::forget_snapshot("refused"));
    EXPECT_THAT(a->controls, IsEmpty());
    EXPECT_EQ(P::snapshot_dict.count("a"), 0u);
    EXPECT_THAT(entries(), ElementsAre("b/other"));
    P::snapshot_dict["a"]["next"] = {ds::ProviderInfo{6, "p", nullptr}};
    a->scripts = {{518, answer(0)}};
    EXPECT_TRUE(P::commit_snapshot_updates());
    ASSERT_EQ(a->controls.size(), 1u);
    EXPECT_THAT(a->controls[0].snapshots, ElementsAre(Key("next")));
    // Clearing drops everything at once.
    P::clear_snapshot_dictionary();
    EXPECT_THAT(P::snapshot_dict, IsEmpty());
    EXPECT_FALSE(P::forget_snapshot("next"));
}

}  // namespace
