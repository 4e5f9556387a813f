// Reads through a server-side cursor against the real PostgreSQL test server.
#include "block_cursor.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pg_test_server.h"

namespace vesk::test {
namespace {

using datastore::odbc_backend::BlockCursorOptions;
using datastore::odbc_backend::read_through_cursor;
using datastore::sql::StepResult;

class BlockCursorTest : public PgTest {
protected:
    void prepare() override { ASSERT_TRUE(connection->begin()); }
    void TearDown() override {
        if (connection && connection->in_transaction()) (void)connection->rollback();
    }

    // Every row of `stmt` as "i:text" (columns 0 and 1), reading every column.
    std::vector<std::string> read_all(datastore::sql::Statement& stmt) {
        std::vector<std::string> rows;
        StepResult r;
        std::string text;
        while ((r = stmt.step()) == StepResult::row) {
            EXPECT_TRUE(stmt.column_text(1, text));
            rows.push_back(std::to_string(stmt.column_int64(0)) + ":" + text);
        }
        EXPECT_EQ(r, StepResult::done) << connection->last_error().message;
        return rows;
    }
    // The rows of `sql` read without a cursor.
    std::vector<std::string> read_plain(const std::string& sql) {
        auto stmt = connection->prepare(sql);
        EXPECT_NE(stmt, nullptr) << connection->last_error().message;
        return stmt ? read_all(*stmt) : std::vector<std::string>{};
    }
};

// Answers of every length around the block boundaries: none, fewer rows than
// the first block, exactly one or two blocks (the cursor is then found empty
// by one more FETCH), and many blocks.
TEST_F(BlockCursorTest, EveryRowComesOnceAndInOrderWhateverTheBlocks) {
    const BlockCursorOptions options{200, 3, 7};
    for (int rows : {0, 1, 3, 4, 10, 250}) {
        SCOPED_TRACE(rows);
        const std::string sql =
            "SELECT i, repeat(chr(97 + i % 26), i % 40) FROM generate_series(1, " +
            std::to_string(rows) + ") AS i ORDER BY i;";
        auto cursor = read_through_cursor(*connection, sql, options);
        ASSERT_NE(cursor, nullptr);
        const std::vector<std::string> got = read_all(*cursor);
        EXPECT_EQ(got.size(), static_cast<size_t>(rows));
        EXPECT_EQ(got, read_plain(sql));
        EXPECT_EQ(cursor->step(), StepResult::done);  // stays done
        ASSERT_TRUE(connection->rollback());          // one cursor per transaction
        ASSERT_TRUE(connection->begin());
    }
}

// A volatile counter numbers the rows as the server makes them: its value
// after the first row of a block is the number of rows fetched so far.
TEST_F(BlockCursorTest, EachBlockAsksForWhatFitsTheLargestRowSoFar) {
    exec(*connection, "CREATE TEMPORARY SEQUENCE made;");
    const std::string sql =
        "SELECT i, repeat('x', CASE WHEN i <= 4 THEN 100 ELSE 1000 END), nextval('made') "
        "FROM generate_series(1, 200) AS i;";
    auto cursor = read_through_cursor(*connection, sql, {10000, 4, 1000});
    ASSERT_NE(cursor, nullptr);
    std::vector<int64_t> made_at_row;  // the counter when rows 1, 5, 6 and later are read
    std::string text;
    for (int row = 1; cursor->step() == StepResult::row; ++row) {
        ASSERT_EQ(cursor->column_int64(0), row);
        ASSERT_TRUE(cursor->column_text(1, text));
        (void)cursor->column_int64(2);
        made_at_row.push_back(query_int(*connection, "SELECT last_value FROM made;"));
    }
    ASSERT_EQ(made_at_row.size(), 200u);
    EXPECT_EQ(made_at_row[0], 4);  // the first block
    // Rows of about 116 bytes: some 86 rows in 10,000 bytes.
    const int64_t second = made_at_row[4] - 4;
    EXPECT_GE(second, 80);
    EXPECT_LE(second, 100);
    // Rows of about 1,016 bytes from then on: 9 rows.
    const int64_t third = made_at_row[static_cast<size_t>(made_at_row[4])] - made_at_row[4];
    EXPECT_GE(third, 8);
    EXPECT_LE(third, 10);
}

// The query's own ending: semicolons, blanks, a line comment that would
// swallow what follows it on its line.
TEST_F(BlockCursorTest, QueriesEndingInSemicolonsOrALineCommentAreReadWhole) {
    for (const std::string sql : {"SELECT 7, 'a';", "SELECT 7, 'a' ; ; \n\t",
                                  "SELECT 7, 'a' -- the row", "SELECT 7, 'a' -- the row\n;"}) {
        SCOPED_TRACE(sql);
        auto cursor = read_through_cursor(*connection, sql);
        ASSERT_NE(cursor, nullptr);
        EXPECT_EQ(read_all(*cursor), std::vector<std::string>{"7:a"});
        // Each read declared the cursor: closed with the transaction.
        ASSERT_TRUE(connection->rollback());
        ASSERT_TRUE(connection->begin());
    }
}

// A run after reset starts over within the transaction, closing the cursor
// the run before it left open.
TEST_F(BlockCursorTest, ARunAfterResetStartsFromTheFirstRow) {
    const std::string sql = "SELECT i, 'r' FROM generate_series(1, 10) AS i ORDER BY i;";
    auto cursor = read_through_cursor(*connection, sql, {200, 2, 3});
    ASSERT_NE(cursor, nullptr);
    for (int row = 1; row <= 5; ++row) {
        ASSERT_EQ(cursor->step(), StepResult::row);
        EXPECT_EQ(cursor->column_int64(0), row);
    }
    ASSERT_TRUE(cursor->reset());
    EXPECT_EQ(read_all(*cursor).size(), 10u);
    ASSERT_TRUE(cursor->reset());
    ASSERT_EQ(cursor->step(), StepResult::row);
    EXPECT_EQ(cursor->column_int64(0), 1);
}

TEST_F(BlockCursorTest, FailuresAreReportedWithTheServersWords) {
    auto bad = read_through_cursor(*connection, "SELECT FROM WHERE");
    ASSERT_NE(bad, nullptr);
    EXPECT_EQ(bad->step(), StepResult::error);
    EXPECT_EQ(connection->last_error().sqlstate, "42601") << connection->last_error().message;
    EXPECT_EQ(bad->step(), StepResult::done);  // finished, not run again
    ASSERT_TRUE(connection->rollback());

    // A failure in a later block: the row that fails comes after the first.
    ASSERT_TRUE(connection->begin());
    auto late = read_through_cursor(
        *connection, "SELECT i, (10 / (5 - i))::text FROM generate_series(1, 9) i;", {200, 2, 2});
    ASSERT_NE(late, nullptr);
    int rows = 0;
    StepResult r;
    while ((r = late->step()) == StepResult::row) ++rows;
    EXPECT_EQ(r, StepResult::error);
    EXPECT_EQ(rows, 4);
    EXPECT_EQ(connection->last_error().sqlstate, "22012") << connection->last_error().message;
    ASSERT_TRUE(connection->rollback());

    // Outside a transaction the server closes the cursor at the end of the
    // first block's message: an answer longer than that block fails, never
    // comes back short.
    auto outside =
        read_through_cursor(*connection, "SELECT 1, 'a' UNION ALL SELECT 2, 'b'", {200, 1, 1});
    ASSERT_NE(outside, nullptr);
    ASSERT_EQ(outside->step(), StepResult::row);
    EXPECT_EQ(outside->step(), StepResult::error);
    EXPECT_EQ(connection->last_error().sqlstate, "34000") << connection->last_error().message;

    EXPECT_FALSE(outside->bind_int64(1, 5));
    EXPECT_NE(connection->last_error().message.find("takes no parameters"), std::string::npos);
}

}  // namespace
}  // namespace vesk::test
