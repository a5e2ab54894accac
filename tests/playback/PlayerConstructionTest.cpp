#include <database/DatabaseAccessError.h>
#include <database/SqliteDatabase.h>
#include <logging/LogFilePlayer.h>

#include "PlaybackTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <vector>

using namespace Marivane::Testing;

namespace {

// Sources in file order: camera (1), lidar (2), radar (3), camera (4).
// Entries 1..8 alternate over the four sources.
struct FourSourceFile {
    explicit FourSourceFile(const std::string& path) : builder(path) {
        sources = {builder.addSource(MV_LogDataSourceType_Camera, "front camera"),
                   builder.addSource(MV_LogDataSourceType_Lidar, "roof lidar"),
                   builder.addSource(MV_LogDataSourceType_Radar, "front radar"),
                   builder.addSource(MV_LogDataSourceType_Camera, "rear camera")};
        for (int i = 0; i < 8; ++i) {
            builder.addEntry(sources[static_cast<std::size_t>(i % 4)], 1000 + 10 * i);
        }
    }
    LogFileBuilder builder;
    std::vector<int8_t> sources;
};

std::vector<std::string> namesOf(const std::vector<DataSource>& sources) {
    std::vector<std::string> names;
    for (const DataSource& source : sources) {
        names.push_back(source.name);
    }
    return names;
}

TEST(PlayerConstruction, KeepsDataSourcesOfChosenTypesInFileOrder) {
    TempDir dir;
    FourSourceFile file(dir.file("four.mvlog"));
    LogFilePlayer player(file.builder.take(), {MV_LogDataSourceType_Radar, MV_LogDataSourceType_Camera},
                         FrameCallback(), false, 1000);
    EXPECT_EQ(namesOf(player.getDataSources()),
              (std::vector<std::string>{"front camera", "front radar", "rear camera"}));
    EXPECT_EQ(player.getDataSources()[0].id, 1);
    EXPECT_EQ(player.getDataSources()[0].type, MV_LogDataSourceType_Camera);
    EXPECT_EQ(player.getDataSources()[1].id, 3);
    EXPECT_EQ(player.getDataSources()[2].id, 4);
    // Entries of lidar (2 and 6) are no frames.
    EXPECT_EQ(player.getFrameCount(), 6u);
}

TEST(PlayerConstruction, FramesAreTheEntriesOfTheKeptSources) {
    TempDir dir;
    FourSourceFile file(dir.file("four.mvlog"));
    FrameRecorder recorder;
    LogFilePlayer player(file.builder.take(), {MV_LogDataSourceType_Lidar}, recorder.callback(), false, 1000);
    ASSERT_EQ(player.getFrameCount(), 2u);
    player.seek(0, FrameCallback());
    player.seek(1, FrameCallback());
    const auto deliveries = recorder.deliveries();
    ASSERT_EQ(deliveries.size(), 2u);
    EXPECT_EQ(deliveries[0].entry.entryId, 2);
    EXPECT_EQ(deliveries[1].entry.entryId, 6);
}

TEST(PlayerConstruction, FilterHoldsOnlyTheKeptSourceIdsInOrder) {
    auto file = std::make_unique<FakeLogFile>();
    FakeLogFile* fake = file.get();
    fake->sources = {DataSource{9, MV_LogDataSourceType_Radar, "r"},
                     DataSource{4, MV_LogDataSourceType_Text, "t"},
                     DataSource{2, MV_LogDataSourceType_Radar, "r2"}};
    LogFilePlayer player(std::move(file), {MV_LogDataSourceType_Radar}, FrameCallback(), false, 1000);
    ASSERT_EQ(fake->filtersSeen.size(), 1u);
    EXPECT_EQ(fake->filtersSeen[0].dataSources, (std::vector<int8_t>{9, 2}));
    EXPECT_TRUE(fake->filtersSeen[0].dataTypes.empty());
    EXPECT_TRUE(fake->filtersSeen[0].dataSourceTypes.empty());
}

TEST(PlayerConstruction, TypesMatchingNoSourceKeepNoSourceButEveryEntry) {
    TempDir dir;
    FourSourceFile file(dir.file("four.mvlog"));
    LogFilePlayer player(file.builder.take(), {MV_LogDataSourceType_Inertial}, FrameCallback(), false, 1000);
    EXPECT_TRUE(player.getDataSources().empty());
    EXPECT_EQ(player.getFrameCount(), 8u);
}

TEST(PlayerConstruction, EmptyTypeListKeepsNoSourceButEveryEntry) {
    TempDir dir;
    FourSourceFile file(dir.file("four.mvlog"));
    LogFilePlayer player(file.builder.take(), {}, FrameCallback(), false, 1000);
    EXPECT_TRUE(player.getDataSources().empty());
    EXPECT_EQ(player.getFrameCount(), 8u);
}

TEST(PlayerConstruction, FileWithoutEntriesHasNoFrames) {
    TempDir dir;
    LogFileBuilder builder(dir.file("empty.mvlog"));
    builder.addSource(MV_LogDataSourceType_Camera, "camera");
    LogFilePlayer player(builder.take(), {MV_LogDataSourceType_Camera}, FrameCallback(), true, 1000);
    EXPECT_EQ(player.getFrameCount(), 0u);
    EXPECT_EQ(player.getDataSources().size(), 1u);
    EXPECT_EQ(player.getTotalPlayTime(), 0);
}

TEST(PlayerConstruction, TakesOwnershipOfTheFile) {
    TempDir dir;
    std::unique_ptr<LogFileInterface> file = makeSingleSourceFile(dir.file("one.mvlog"), {0, 10});
    LogFileInterface* raw = file.get();
    LogFilePlayer player(std::move(file), {MV_LogDataSourceType_Camera}, FrameCallback(), false, 1000);
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(player.getUnderlyingLogFile(), raw);
    EXPECT_EQ(player.getUnderlyingLogFile()->getFilePath(), std::filesystem::path(dir.file("one.mvlog")));
}

TEST(PlayerConstruction, DestroyingThePlayerDestroysTheFile) {
    std::atomic<bool> destroyed{false};
    {
        auto file = std::make_unique<FakeLogFile>();
        file->destroyed = &destroyed;
        LogFilePlayer player(std::move(file), {}, FrameCallback(), false, 1000);
        EXPECT_FALSE(destroyed.load());
    }
    EXPECT_TRUE(destroyed.load());
}

TEST(PlayerConstruction, RefusesANullFile) {
    EXPECT_THROW(LogFilePlayer(nullptr, {}, FrameCallback(), false, 1000), std::invalid_argument);
}

TEST(PlayerConstruction, ErrorsOfTheFilePassThrough) {
    TempDir dir;
    LogFileBuilder builder(dir.file("broken.mvlog"));
    builder.addSource(MV_LogDataSourceType_Camera, "camera");
    // Dropping the bookmarks table makes getBookmarks fail to prepare.
    {
        Marivane::Database::SqliteDatabase raw(dir.file("broken.mvlog"), Marivane::Database::OpenReadWrite);
        ASSERT_TRUE(raw.executeSimpleQuery("DROP TABLE bookmarks;"));
    }
    EXPECT_THROW(LogFilePlayer(builder.take(), {MV_LogDataSourceType_Camera}, FrameCallback(), false, 1000),
                 Marivane::Database::DatabaseAccessError);
}

}  // namespace
