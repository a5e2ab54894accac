#include <logging/SqliteLogFile.h>

#include "support/TempDir.h"

#include <gtest/gtest.h>

using namespace Marivane::Logging;

TEST(Smoke, CreateWriteRead) {
    Marivane::Testing::TempDir dir;
    SqliteLogFile file(dir.file("a.mvlog"), "UTC", "app", "1.0", -1, 1234);
    DataSource source{-1, MV_LogDataSourceType_Camera, "cam"};
    ASSERT_TRUE(file.addDataSource(source));
    EXPECT_EQ(source.id, 1);
    DataEntry entry;
    entry.dataSourceId = source.id;
    entry.type = 3;
    entry.timestamp = 99;
    entry.data = {std::byte{1}, std::byte{2}, std::byte{3}};
    ASSERT_TRUE(file.logData(entry));
    auto read = file.readEntry(1);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->data, entry.data);
}
