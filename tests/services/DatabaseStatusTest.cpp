// The database layer's statuses, its busy timeout, its transaction guard and
// queries that move.
#include <database/DatabaseBusy.h>
#include <database/SqliteDatabase.h>
#include <database/SqliteQuery.h>
#include <database/Status.h>
#include <database/Transaction.h>
#include "services/database/ColumnAccess.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <utility>

using namespace Marivane::Database;
using Marivane::Testing::TempDir;

namespace {

TEST(Status, ClassifiesSqliteResultCodesByKind) {
    EXPECT_EQ(classifyResultCode(0), StatusCode::Ok);
    EXPECT_EQ(classifyResultCode(100), StatusCode::Ok);
    EXPECT_EQ(classifyResultCode(101), StatusCode::Ok);
    EXPECT_EQ(classifyResultCode(5), StatusCode::Busy);
    EXPECT_EQ(classifyResultCode(5 | (2 << 8)), StatusCode::Busy);  // busy snapshot
    EXPECT_EQ(classifyResultCode(6), StatusCode::Busy);
    EXPECT_EQ(classifyResultCode(8), StatusCode::ReadOnly);
    EXPECT_EQ(classifyResultCode(266), StatusCode::IoError);
    EXPECT_EQ(classifyResultCode(778), StatusCode::IoError);
    EXPECT_EQ(classifyResultCode(11), StatusCode::Corrupt);
    EXPECT_EQ(classifyResultCode(13), StatusCode::Full);
    EXPECT_EQ(classifyResultCode(26), StatusCode::NotADatabase);
    EXPECT_EQ(classifyResultCode(787), StatusCode::ForeignKey);
    EXPECT_EQ(classifyResultCode(19), StatusCode::Constraint);
    EXPECT_EQ(classifyResultCode(2067), StatusCode::Constraint);  // unique
    EXPECT_EQ(classifyResultCode(21), StatusCode::Misuse);
    EXPECT_EQ(classifyResultCode(1), StatusCode::Other);
}

TEST(Status, ExecuteTellsAFailureFromAStatementThatYieldsRows) {
    TempDir dir;
    SqliteDatabase database(dir.file("status.db"), OpenReadWrite | OpenCreate);
    bool yieldedRow = true;
    EXPECT_TRUE(database.execute("CREATE TABLE t(v INTEGER NOT NULL);", &yieldedRow).ok());
    EXPECT_FALSE(yieldedRow);
    EXPECT_TRUE(database.execute("SELECT 1 UNION ALL SELECT 2;", &yieldedRow).ok());
    EXPECT_TRUE(yieldedRow);
    const Status failed = database.execute("INSERT INTO t(v) VALUES (NULL);");
    EXPECT_EQ(failed.code(), StatusCode::Constraint);
    EXPECT_EQ(failed.resultCode(), 1299);
    EXPECT_EQ(failed.message(), "NOT NULL constraint failed: t.v");
    EXPECT_EQ(database.execute("SELECT * FROM missing;").code(), StatusCode::Other);
}

TEST(Transaction, WaitsForTheLockThenReportsBusyNamingWhatFailed) {
    TempDir dir;
    const std::string path = dir.file("busy.db");
    SqliteDatabase first(path, OpenReadWrite | OpenCreate);
    SqliteDatabase second(path, OpenReadWrite);
    second.setBusyTimeout(100);
    EXPECT_EQ(second.busyTimeout(), 100);
    Transaction holding(first);
    const auto started = std::chrono::steady_clock::now();
    try {
        Transaction waiting(second);
        FAIL() << "two write transactions at once";
    } catch (const DatabaseBusy& error) {
        EXPECT_EQ(std::string(error.what()), "Cannot begin a write transaction: database is locked");
    }
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(90));
    EXPECT_TRUE(holding.commit().ok());
    EXPECT_FALSE(holding.isOpen());
    Transaction now(second);
    EXPECT_TRUE(now.isOpen());
}

TEST(Transaction, DestroyingAnOpenTransactionRollsItBack) {
    TempDir dir;
    SqliteDatabase database(dir.file("rollback.db"), OpenReadWrite | OpenCreate);
    ASSERT_TRUE(database.execute("CREATE TABLE t(v INTEGER);").ok());
    {
        Transaction transaction(database);
        ASSERT_TRUE(database.execute("INSERT INTO t(v) VALUES (1);").ok());
    }
    EXPECT_FALSE(database.isInTransaction());
    SqliteQuery count(database, "SELECT COUNT(*) FROM t;");
    ASSERT_EQ(count.executeStep(), StepRow);
    EXPECT_EQ(getValueFromColumn<int64_t>(count, 0), std::optional<int64_t>(0));
}

TEST(SqliteQuery, AMovedQueryKeepsItsRowAndReturnsItsStatementOnce) {
    TempDir dir;
    SqliteDatabase database(dir.file("move.db"), OpenReadWrite | OpenCreate);
    {
        SqliteQuery first(database, "SELECT 41 + 1;");
        ASSERT_EQ(first.executeStep(), StepRow);
        SqliteQuery moved(std::move(first));
        EXPECT_EQ(getValueFromColumn<int64_t>(moved, 0), std::optional<int64_t>(42));
        EXPECT_TRUE(moved.status().ok());
        EXPECT_EQ(database.cachedStatementCount(), 0u);
    }
    EXPECT_EQ(database.cachedStatementCount(), 1u);
}

}  // namespace
