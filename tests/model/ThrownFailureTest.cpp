#include <logging/LegacyLogFileError.h>
#include <logging/NotALogFileError.h>
#include <logging/NotYetALogFileError.h>
#include <logging/SqliteLogFile.h>
#include <logging/ThrownFailure.h>

#include <core/Compression.h>
#include <database/DatabaseAccessError.h>
#include <database/DatabaseBusy.h>
#include <database/FileIsNotDatabase.h>
#include <database/UnfinishedCommit.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>

using namespace Marivane::Logging;
using Marivane::Testing::TempDir;

namespace {

TEST(ThrownFailure, EachLayersClassesHaveTheirKind) {
    EXPECT_EQ(classifyThrown(Marivane::Database::DatabaseBusy("b")), ThrownFailure::Busy);
    EXPECT_EQ(classifyThrown(Marivane::Database::FileIsNotDatabase("f")), ThrownFailure::NotADatabase);
    EXPECT_EQ(classifyThrown(Marivane::Database::DatabaseAccessError("d")), ThrownFailure::Database);
    EXPECT_EQ(classifyThrown(Marivane::Database::UnfinishedCommit("u")), ThrownFailure::Database);
    EXPECT_EQ(classifyThrown(NotALogFileError()), ThrownFailure::NotALogFile);
    EXPECT_EQ(classifyThrown(NotYetALogFileError("/x")), ThrownFailure::NotALogFile);
    EXPECT_EQ(classifyThrown(LegacyLogFileError()), ThrownFailure::LegacyLogFile);
    EXPECT_EQ(classifyThrown(Marivane::Compression::CompressionError("c")), ThrownFailure::Damaged);
    EXPECT_EQ(classifyThrown(std::runtime_error("r")), ThrownFailure::Foreign);
    EXPECT_EQ(classifyThrown(std::logic_error("l")), ThrownFailure::Foreign);
}

TEST(ThrownFailure, OnlyTheDatabaseLibrarysKindsCountAsDatabaseFailures) {
    EXPECT_TRUE(isDatabaseFailure(ThrownFailure::Busy));
    EXPECT_TRUE(isDatabaseFailure(ThrownFailure::NotADatabase));
    EXPECT_TRUE(isDatabaseFailure(ThrownFailure::Database));
    EXPECT_FALSE(isDatabaseFailure(ThrownFailure::NotALogFile));
    EXPECT_FALSE(isDatabaseFailure(ThrownFailure::LegacyLogFile));
    EXPECT_FALSE(isDatabaseFailure(ThrownFailure::Damaged));
    EXPECT_FALSE(isDatabaseFailure(ThrownFailure::Foreign));
}

TEST(ThrownFailure, AForeignFileOpenedByTheStoreIsNotALogFile) {
    TempDir dir;
    const auto path = dir.path() / "foreign.bin";
    std::ofstream(path) << "this is not a database, only some text that is long enough to be read";
    try {
        SqliteLogFile file(path);
        FAIL() << "opened a foreign file";
    } catch (const std::exception& error) {
        EXPECT_EQ(classifyThrown(error), ThrownFailure::NotALogFile);
    }
}

TEST(StoreBehindTheInterface, IsTheSqliteLogFileItself) {
    TempDir dir;
    SqliteLogFile file(dir.path() / "a.mvlog");
    LogFileInterface& asInterface = file;
    EXPECT_EQ(asInterface.sqliteLogFile(), &file);
    EXPECT_EQ(static_cast<const LogFileInterface&>(asInterface).sqliteLogFile(), &file);
}

}  // namespace
