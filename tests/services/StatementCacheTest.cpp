// Prepared statements are kept per connection and handed out again: each
// query must still start clean (rewound, unbound) and never share a
// statement with another live query.
#include <database/SqliteDatabase.h>
#include <database/SqliteQuery.h>
#include "services/database/ColumnAccess.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace Marivane::Database;
using Marivane::Testing::TempDir;

namespace {

void addRows(SqliteDatabase& database, int rows) {
    EXPECT_TRUE(database.executeSimpleQuery("CREATE TABLE t(v INTEGER);"));
    for (int i = 1; i <= rows; ++i) {
        EXPECT_TRUE(database.executeSimpleQuery("INSERT INTO t(v) VALUES (" + std::to_string(i) + ");"));
    }
}

}  // namespace

TEST(StatementCache, AFinishedQueryLeavesItsStatementForTheNextOne) {
    TempDir dir;
    SqliteDatabase database(dir.file("cache.db"), OpenReadWrite | OpenCreate);
    EXPECT_EQ(database.cachedStatementCount(), 0u);
    {
        SqliteQuery query(database, "SELECT 1;");
        EXPECT_EQ(database.cachedStatementCount(), 0u);
    }
    EXPECT_EQ(database.cachedStatementCount(), 1u);
    {
        SqliteQuery again(database, "SELECT 1;");
        EXPECT_EQ(database.cachedStatementCount(), 0u);
        EXPECT_EQ(again.executeStep(), StepRow);
        EXPECT_EQ(getValueFromColumn<int64_t>(again, 0), 1);
    }
    EXPECT_EQ(database.cachedStatementCount(), 1u);
}

TEST(StatementCache, QueriesAliveAtOnceGetStatementsOfTheirOwn) {
    TempDir dir;
    SqliteDatabase database(dir.file("cache.db"), OpenReadWrite | OpenCreate);
    addRows(database, 3);
    {
        SqliteQuery first(database, "SELECT v FROM t ORDER BY v;");
        SqliteQuery second(database, "SELECT v FROM t ORDER BY v;");
        ASSERT_EQ(first.executeStep(), StepRow);
        ASSERT_EQ(first.executeStep(), StepRow);
        ASSERT_EQ(second.executeStep(), StepRow);
        EXPECT_EQ(getValueFromColumn<int64_t>(first, 0), 2);
        EXPECT_EQ(getValueFromColumn<int64_t>(second, 0), 1);
    }
    EXPECT_EQ(database.cachedStatementCount(), 2u);
}

TEST(StatementCache, AReusedStatementStartsFromTheFirstRow) {
    TempDir dir;
    SqliteDatabase database(dir.file("cache.db"), OpenReadWrite | OpenCreate);
    addRows(database, 3);
    {
        SqliteQuery query(database, "SELECT v FROM t ORDER BY v;");
        ASSERT_EQ(query.executeStep(), StepRow);
        ASSERT_EQ(query.executeStep(), StepRow);
    }
    SqliteQuery reused(database, "SELECT v FROM t ORDER BY v;");
    ASSERT_EQ(reused.executeStep(), StepRow);
    EXPECT_EQ(getValueFromColumn<int64_t>(reused, 0), 1);
}

TEST(StatementCache, AReusedStatementHasNoBindingsLeft) {
    TempDir dir;
    SqliteDatabase database(dir.file("cache.db"), OpenReadWrite | OpenCreate);
    {
        SqliteQuery query(database, "SELECT :value;");
        const std::string text = "bound once";
        query.bindParameter(":value", text, BindMode::NoCopy);
        ASSERT_EQ(query.executeStep(), StepRow);
        EXPECT_EQ(getValueFromColumn<std::string>(query, 0), text);
    }
    SqliteQuery reused(database, "SELECT :value;");
    ASSERT_EQ(reused.executeStep(), StepRow);
    EXPECT_FALSE(reused.getValueFromColumn(0).has_value());
}

TEST(StatementCache, KeepsABoundedNumberOfTextsAndStillRunsTheRest) {
    TempDir dir;
    SqliteDatabase database(dir.file("cache.db"), OpenReadWrite | OpenCreate);
    for (int i = 0; i < 300; ++i) {
        SqliteQuery query(database, "SELECT " + std::to_string(i) + ";");
        ASSERT_EQ(query.executeStep(), StepRow);
        EXPECT_EQ(getValueFromColumn<int64_t>(query, 0), i);
    }
    EXPECT_EQ(database.cachedStatementCount(), 128u);
    SqliteQuery late(database, "SELECT 299;");
    ASSERT_EQ(late.executeStep(), StepRow);
    EXPECT_EQ(getValueFromColumn<int64_t>(late, 0), 299);
}

TEST(StatementCache, CachedStatementsFollowSchemaChanges) {
    TempDir dir;
    SqliteDatabase database(dir.file("cache.db"), OpenReadWrite | OpenCreate);
    addRows(database, 2);
    {
        SqliteQuery query(database, "SELECT * FROM t;");
        ASSERT_EQ(query.executeStep(), StepRow);
    }
    ASSERT_TRUE(database.executeSimpleQuery("DROP TABLE t;"));
    ASSERT_TRUE(database.executeSimpleQuery("CREATE TABLE t(a TEXT, b TEXT);"));
    ASSERT_TRUE(database.executeSimpleQuery("INSERT INTO t VALUES ('x', 'y');"));
    SqliteQuery query(database, "SELECT * FROM t;");
    ASSERT_EQ(query.executeStep(), StepRow);
    EXPECT_EQ(getValueFromColumn<std::string>(query, 1), "y");
}

TEST(StatementCache, TwoThreadsRunningTheSameTextDoNotShareAStatement) {
    TempDir dir;
    SqliteDatabase database(dir.file("cache.db"), OpenReadWrite | OpenCreate);
    addRows(database, 50);
    std::atomic<int> wrongSums{0};
    auto sumRepeatedly = [&] {
        for (int round = 0; round < 200; ++round) {
            SqliteQuery query(database, "SELECT v FROM t ORDER BY v;");
            int64_t sum = 0;
            while (query.executeStep() == StepRow) {
                sum += getValueFromColumn<int64_t>(query, 0).value_or(0);
            }
            if (sum != 50 * 51 / 2) {
                ++wrongSums;
            }
        }
    };
    std::thread other(sumRepeatedly);
    sumRepeatedly();
    other.join();
    EXPECT_EQ(wrongSums.load(), 0);
    EXPECT_LE(database.cachedStatementCount(), 2u);
    EXPECT_GE(database.cachedStatementCount(), 1u);
}
