// The opt-in tolerance of damaged files: a frame whose payload cannot be
// expanded becomes a placeholder and is reported, instead of ending the
// process from the worker thread.

#include "PlaybackTestSupport.h"
#include "support/TempDir.h"

#include <logging/LogFilePlayer.h>

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace Marivane::Logging;
using namespace Marivane::Logging::Playback;
using namespace Marivane::Testing;

struct Report {
    int32_t frame;
    int32_t entryId;
    std::string reason;
};

class ReportCollector {
public:
    UnreadableFrameCallback handler() {
        return [this](int32_t frame, int32_t entryId, const std::string& reason) {
            std::lock_guard lock(mutex_);
            reports_.push_back(Report{frame, entryId, reason});
        };
    }
    std::vector<Report> reports() {
        std::lock_guard lock(mutex_);
        return reports_;
    }

private:
    std::mutex mutex_;
    std::vector<Report> reports_;
};

// Four camera entries 10 ms apart; entry 3's stored payload is replaced by
// bytes that are no compressed frame.
std::unique_ptr<LogFileInterface> makeFileWithDamagedEntry(const std::string& path) {
    LogFileBuilder builder(path);
    const int8_t source = builder.addSource(MV_LogDataSourceType_Camera, "camera");
    builder.addEntries(source, {1000, 1010, 1020, 1030});
    sqlite3* raw = nullptr;
    EXPECT_EQ(sqlite3_open(path.c_str(), &raw), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(raw, "UPDATE data SET payload = x'0102030405060708' WHERE entryId = 3;", nullptr,
                           nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(raw);
    return builder.take();
}

TEST(UnreadableFrames, BecomePlaceholdersAndAreReportedWhenAHandlerIsSet) {
    TempDir dir;
    FrameRecorder recorder;
    ReportCollector collector;
    LogFilePlayer player(makeFileWithDamagedEntry(dir.file("damaged.mvlog")), {MV_LogDataSourceType_Camera},
                         recorder.callback(), false, 50);
    player.setUnreadableFrameHandler(collector.handler());
    player.seek(0, {});
    player.play();
    ASSERT_TRUE(recorder.waitForCount(4));
    player.stop();

    const auto deliveries = recorder.deliveries();
    ASSERT_EQ(deliveries.size(), 4u);
    EXPECT_EQ(deliveries[2].frame, 2);
    EXPECT_EQ(deliveries[2].entry.entryId, 3);
    EXPECT_EQ(deliveries[2].entry.dataSourceId, -1);
    EXPECT_TRUE(deliveries[2].entry.data.empty());
    EXPECT_EQ(deliveries[2].entry.timestamp, 1010);
    EXPECT_EQ(deliveries[3].entry.entryId, 4);
    EXPECT_EQ(deliveries[3].entry.data, payloadFor(1030));

    const auto reports = collector.reports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].frame, 2);
    EXPECT_EQ(reports[0].entryId, 3);
    EXPECT_FALSE(reports[0].reason.empty());
}

TEST(UnreadableFrames, ASoughtDamagedFrameIsReportedOnTheCallingThread) {
    TempDir dir;
    ReportCollector collector;
    FrameRecorder recorder;
    LogFilePlayer player(makeFileWithDamagedEntry(dir.file("seek.mvlog")), {MV_LogDataSourceType_Camera},
                         recorder.callback(), false, 50);
    player.setUnreadableFrameHandler(collector.handler());
    player.seek(2, {});
    ASSERT_EQ(recorder.count(), 1u);
    EXPECT_EQ(recorder.deliveries()[0].entry.entryId, 3);
    EXPECT_EQ(recorder.deliveries()[0].entry.dataSourceId, -1);
    ASSERT_EQ(collector.reports().size(), 1u);
    EXPECT_EQ(collector.reports()[0].entryId, 3);
}

TEST(UnreadableFrames, WithoutAHandlerTheFilesExceptionStillReachesTheCaller) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeFileWithDamagedEntry(dir.file("default.mvlog")), {MV_LogDataSourceType_Camera},
                         recorder.callback(), false, 50);
    EXPECT_ANY_THROW(player.seek(2, {}));
    player.setUnreadableFrameHandler(UnreadableFrameCallback{});
    EXPECT_ANY_THROW(player.seek(2, {}));
}

}  // namespace

namespace {

// Finding a frame by time reads timestamps only: a damaged payload on the
// way does not stop the search.
TEST(UnreadableFrames, SeekingByTimeReadsNoPayloadOnTheWay) {
    TempDir dir;
    FrameRecorder recorder;
    LogFilePlayer player(makeFileWithDamagedEntry(dir.file("damaged.mvlog")), {MV_LogDataSourceType_Camera},
                         recorder.callback(), false, 50);
    EXPECT_EQ(player.seekToTime(1030, {}), 3);
    const auto deliveries = recorder.deliveries();
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].entry.timestamp, 1030);
}

}  // namespace
