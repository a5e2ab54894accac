#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <thread>

namespace MvlogTest {
namespace {

using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::SqliteLogFile;
using Marivane::Testing::TempDir;

class PlayTest : public ::testing::Test {
protected:
    void SetUp() override { writeKnownFile(path); }

    static std::vector<std::string> frameLines(const RunResult& result) {
        std::vector<std::string> frames;
        for (const std::string& line : result.outLines()) {
            if (line.rfind("frame ", 0) == 0) {
                frames.push_back(line);
            }
        }
        return frames;
    }

    TempDir directory;
    std::string path = directory.file("known.mvlog");
};

// 10 s of recording at 50x is 0.2 s; process start and a loaded machine
// (or a sanitizer build) only add, so the upper bound is generous.
TEST_F(PlayTest, FiftyTimesSpeedFinishesInTheExpectedTime) {
    const RunResult result = runMvlog({"play", path, "--speed", "50"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_GE(result.seconds, 0.18);
    EXPECT_LE(result.seconds, 5.0);
    const std::vector<std::string> frames = frameLines(result);
    ASSERT_EQ(frames.size(), static_cast<std::size_t>(kKnownEntries));
    EXPECT_EQ(
        frames.front().rfind("frame 0/100  entry 1  2023-11-14T22:13:20.000Z  alpha (1)  type 11  17 B  ", 0),
        0u)
        << frames.front();
    EXPECT_EQ(frames.back().rfind(
                  "frame 100/100  entry 101  2023-11-14T22:13:30.000Z  beta (2)  type 11  117 B", 0),
              0u)
        << frames.back();
    const std::vector<std::string> lines = result.outLines();
    EXPECT_EQ(lines.front(), "Playing " + path + " at 50x; Ctrl-C stops");
    EXPECT_EQ(lines.back().rfind("Played 101 of 101 frames (10.000 s of recording) in ", 0), 0u)
        << lines.back();
    EXPECT_NE(lines.back().find(" at 50x; pacing error mean "), std::string::npos);
}

TEST_F(PlayTest, SourceTypeSelectsTheFrames) {
    const RunResult result = runMvlog({"play", path, "--speed", "100", "--source-type", "Navigation"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> frames = frameLines(result);
    ASSERT_EQ(frames.size(), 34u);
    for (const std::string& frame : frames) {
        EXPECT_NE(frame.find("  beta (2)  "), std::string::npos) << frame;
    }
    EXPECT_EQ(frames.back().rfind("frame 33/33  entry 101  ", 0), 0u) << frames.back();
}

TEST_F(PlayTest, FromFrameStartsThere) {
    const RunResult result = runMvlog({"play", path, "--speed", "100", "--from", "95"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> frames = frameLines(result);
    ASSERT_EQ(frames.size(), 6u);
    EXPECT_EQ(frames.front().rfind("frame 95/100  entry 96  ", 0), 0u) << frames.front();
    EXPECT_EQ(result.outLines().back().rfind("Played 6 of 101 frames (500 ms of recording)", 0), 0u);
}

TEST_F(PlayTest, StartTimeFindsItsFrame) {
    for (const std::string start : {"+9.45", "2023-11-14T22:13:29.500Z", "2023-11-14T23:13:29.5+01:00"}) {
        const RunResult result = runMvlog({"play", path, "--speed", "100", "--start", start});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        const std::vector<std::string> frames = frameLines(result);
        ASSERT_EQ(frames.size(), 6u) << start;
        EXPECT_EQ(frames.front().rfind("frame 95/100  entry 96  ", 0), 0u) << frames.front();
    }
    EXPECT_EQ(runMvlog({"play", path, "--start", "+1", "--from", "3"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"play", path, "--start", "soon"}).exitCode, 2);
}

// Exact pacing keeps the recorded pace: at 50x the 10 s recording takes
// 0.2 s, and the mean error against the ideal schedule stays small.
TEST_F(PlayTest, ExactPacingKeepsThePace) {
    const RunResult result = runMvlog({"play", path, "--speed", "50"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::string last = result.outLines().back();
    const std::size_t at = last.find("pacing error mean ");
    ASSERT_NE(at, std::string::npos) << last;
    EXPECT_LT(std::stod(last.substr(at + 18)), 5.0) << last;
}

// An exception on the player's worker thread would end the process; the
// damaged entry is played as an empty frame and the run fails at the end.
TEST_F(PlayTest, DamagedPayloadIsPlayedAsAnEmptyFrame) {
    overwriteStoredPayload(path, 50, bytesOf("not a compressed frame"));
    const RunResult result = runMvlog({"play", path, "--speed", "100"});
    EXPECT_EQ(result.terminatingSignal, 0);
    EXPECT_EQ(result.exitCode, 1);
    const std::vector<std::string> frames = frameLines(result);
    ASSERT_EQ(frames.size(), static_cast<std::size_t>(kKnownEntries));
    EXPECT_EQ(frames[49], "frame 49/100  entry 50  damaged payload, delivered empty");
    EXPECT_EQ(
        frames[50].rfind("frame 50/100  entry 51  2023-11-14T22:13:25.000Z  gamma (3)  type 11  67 B  ", 0),
        0u)
        << frames[50];
    EXPECT_EQ(result.err,
              "mvlog: 1 entry has a damaged payload and was played as an empty frame; run `mvlog check` for "
              "details\n");
}

TEST_F(PlayTest, FrameOutsideTheFileIsAFailure) {
    const RunResult result = runMvlog({"play", path, "--from", "101"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.err, "mvlog: frame 101 does not exist (the replay has frames 0 to 100)\n");
}

// Gaps of 10 s wait only the maximum delay, whatever the speed.
TEST(PlayMaxDelay, LongGapsWaitOnlyTheMaximumDelay) {
    TempDir directory;
    const std::string path = directory.file("sparse.mvlog");
    {
        SqliteLogFile file(path, "UTC", "tooltest", "1", 0, kKnownStart);
        DataSource source{-1, MV_LogDataSourceType_Text, "notes"};
        ASSERT_TRUE(file.addDataSource(source));
        for (int i = 0; i < 4; ++i) {
            DataEntry entry;
            entry.dataSourceId = source.id;
            entry.timestamp = kKnownStart + i * 10'000;
            entry.data = bytesOf("note");
            ASSERT_TRUE(file.logData(entry));
        }
    }
    const RunResult result = runMvlog({"play", path, "--max-delay", "100"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    EXPECT_GE(result.seconds, 0.28);
    EXPECT_LE(result.seconds, 5.0);
    EXPECT_EQ(result.outLines().back().rfind("Played 4 of 4 frames (30.000 s of recording) in ", 0), 0u);
}

TEST(PlayEmpty, FileWithoutEntriesHasNothingToPlay) {
    TempDir directory;
    const std::string path = directory.file("empty.mvlog");
    { SqliteLogFile file(path, "UTC", "tooltest", "1", 0, kKnownStart); }
    const RunResult result = runMvlog({"play", path});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.outLines().back(), "Nothing to play: the file has no entries.");
}

TEST_F(PlayTest, InterruptStopsALoopingReplayCleanly) {
    ChildProcess child(MVLOG_BINARY, {"play", path, "--loop", "--speed", "20"});
    // Long enough to wrap at least once (10 s at 20x is 0.5 s, plus the
    // maximum delay at the wrap).
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    child.sendSignal(SIGINT);
    const RunResult result = child.wait(std::chrono::seconds(30));
    EXPECT_EQ(result.terminatingSignal, 0);
    EXPECT_EQ(result.exitCode, 0) << result.err;
    const std::string last = result.outLines().back();
    EXPECT_NE(last.find("(interrupted)"), std::string::npos) << last;
    EXPECT_GT(frameLines(result).size(), static_cast<std::size_t>(kKnownEntries));
}

TEST_F(PlayTest, EndStopsAfterTheLastFrameAtOrBeforeIt) {
    const RunResult head = runMvlog({"play", path, "--speed", "100", "--end", "+0.45"});
    ASSERT_EQ(head.exitCode, 0) << head.err;
    std::vector<std::string> frames = frameLines(head);
    ASSERT_EQ(frames.size(), 5u);
    EXPECT_EQ(frames.back().rfind("frame 4/100  entry 5  2023-11-14T22:13:20.400Z  ", 0), 0u)
        << frames.back();
    EXPECT_EQ(head.outLines().back().rfind("Played 5 of 101 frames (400 ms of recording) in ", 0), 0u)
        << head.outLines().back();

    const RunResult window =
        runMvlog({"play", path, "--speed", "100", "--start", "+9.45", "--end", "2023-11-14T22:13:29.700Z"});
    ASSERT_EQ(window.exitCode, 0) << window.err;
    frames = frameLines(window);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(frames.front().rfind("frame 95/100  entry 96  ", 0), 0u) << frames.front();
    EXPECT_EQ(frames.back().rfind("frame 97/100  entry 98  ", 0), 0u) << frames.back();

    const RunResult idOrder = runMvlog({"play", path, "--speed", "100", "--order", "id", "--end", "+0.45"});
    ASSERT_EQ(idOrder.exitCode, 0) << idOrder.err;
    EXPECT_EQ(frameLines(idOrder).size(), 5u);

    const RunResult reversed = runMvlog({"play", path, "--start", "+2", "--end", "+1"});
    EXPECT_EQ(reversed.exitCode, 1);
    EXPECT_EQ(reversed.err, "mvlog: refused: the time range is reversed (--start is after --end)\n");
    const RunResult before = runMvlog({"play", path, "--end", "2023-11-14T22:13:19Z"});
    EXPECT_EQ(before.exitCode, 1);
    EXPECT_EQ(before.err, "mvlog: no frame to play: the first frame at or after the start is after --end\n");
    EXPECT_EQ(runMvlog({"play", path, "--end", "+1", "--loop"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"play", path, "--end", "later"}).exitCode, 2);
}

// Two sources written one after the other: ids 1-21 every 100 ms from the
// start, ids 22-41 50 ms after each of those. 2 s of recording.
class PlayOutOfOrderTest : public ::testing::Test {
protected:
    void SetUp() override {
        SqliteLogFile file(path, "UTC", "tooltest", "1", 0, kKnownStart);
        DataSource early{-1, MV_LogDataSourceType_Text, "early"};
        DataSource late{-1, MV_LogDataSourceType_Text, "late"};
        ASSERT_TRUE(file.addDataSource(early));
        ASSERT_TRUE(file.addDataSource(late));
        for (int i = 0; i <= 20; ++i) {
            DataEntry entry;
            entry.dataSourceId = early.id;
            entry.timestamp = kKnownStart + i * 100;
            entry.data = bytesOf("early");
            ASSERT_TRUE(file.logData(entry));
        }
        for (int i = 0; i < 20; ++i) {
            DataEntry entry;
            entry.dataSourceId = late.id;
            entry.timestamp = kKnownStart + 50 + i * 100;
            entry.data = bytesOf("late");
            ASSERT_TRUE(file.logData(entry));
        }
    }

    static std::vector<std::string> frameLines(const RunResult& result) {
        std::vector<std::string> frames;
        for (const std::string& line : result.outLines()) {
            if (line.rfind("frame ", 0) == 0) {
                frames.push_back(line);
            }
        }
        return frames;
    }

    // "12.3 fps, 3.98x" at the end of a frame line.
    static double achievedSpeed(const std::string& frame) {
        const std::size_t fps = frame.rfind(" fps, ");
        if (fps == std::string::npos) {
            return 0.0;
        }
        return std::stod(frame.substr(fps + 6));
    }

    TempDir directory;
    std::string path = directory.file("two-threads.mvlog");
};

TEST_F(PlayOutOfOrderTest, PlaysInTimestampOrderByDefault) {
    // The speed shown depends on the machine's load: a few tries at most.
    double achieved = 0.0;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const RunResult result = runMvlog({"play", path, "--speed", "4"});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        const std::vector<std::string> frames = frameLines(result);
        ASSERT_EQ(frames.size(), 41u);
        for (int frame = 0; frame < 41; ++frame) {
            const int entryId = frame % 2 == 0 ? frame / 2 + 1 : frame / 2 + 22;
            const int64_t milliseconds = frame * 50;
            char expected[128];
            std::snprintf(expected, sizeof expected,
                          "frame %d/40  entry %d  2023-11-14T22:13:%02d.%03dZ  %s (%d)  type ", frame,
                          entryId, static_cast<int>(20 + milliseconds / 1000),
                          static_cast<int>(milliseconds % 1000), frame % 2 == 0 ? "early" : "late",
                          frame % 2 == 0 ? 1 : 2);
            EXPECT_EQ(frames[static_cast<std::size_t>(frame)].rfind(expected, 0), 0u)
                << frames[static_cast<std::size_t>(frame)];
        }
        EXPECT_EQ(result.outLines().back().rfind("Played 41 of 41 frames (2.000 s of recording) in ", 0), 0u)
            << result.outLines().back();
        EXPECT_GE(result.seconds, 0.45);
        for (std::size_t frame = 2; frame < frames.size(); ++frame) {
            EXPECT_GT(achievedSpeed(frames[frame]), 0.0) << frames[frame];
        }
        achieved = achievedSpeed(frames.back());
        if (achieved >= 3.0 && achieved <= 5.0) {
            break;
        }
    }
    EXPECT_GE(achieved, 3.0);
    EXPECT_LE(achieved, 5.0);
}

TEST_F(PlayOutOfOrderTest, IdOrderPlaysTheEntriesAsWritten) {
    const RunResult result = runMvlog({"play", path, "--speed", "100", "--order", "id"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const std::vector<std::string> frames = frameLines(result);
    ASSERT_EQ(frames.size(), 41u);
    for (int frame = 0; frame < 41; ++frame) {
        const std::string expected =
            "frame " + std::to_string(frame) + "/40  entry " + std::to_string(frame + 1) + "  ";
        EXPECT_EQ(frames[static_cast<std::size_t>(frame)].rfind(expected, 0), 0u)
            << frames[static_cast<std::size_t>(frame)];
    }
    EXPECT_EQ(frames[21].rfind("frame 21/40  entry 22  2023-11-14T22:13:20.050Z  late (2)  ", 0), 0u)
        << frames[21];
    EXPECT_EQ(result.outLines().back().rfind("Played 41 of 41 frames (1.950 s of recording) in ", 0), 0u)
        << result.outLines().back();
    EXPECT_EQ(runMvlog({"play", path, "--order", "random"}).exitCode, 2);
}

// A 1 Hz source and a 100 Hz one, written one after the other, over 10 s:
// at 20x every gap is scaled, the 1 s ones included, so the replay takes
// 0.5 s. The wall time is read from the report, which starts at the first
// frame; a loaded machine gets a few tries.
TEST(PlayMixedRates, TwentyTimesSpeedScalesEveryGap) {
    TempDir directory;
    const std::string path = directory.file("rates.mvlog");
    {
        SqliteLogFile file(path, "UTC", "tooltest", "1", 0, kKnownStart);
        DataSource slow{-1, MV_LogDataSourceType_Environment, "mast"};
        DataSource fast{-1, MV_LogDataSourceType_Navigation, "gnss"};
        ASSERT_TRUE(file.addDataSource(slow));
        ASSERT_TRUE(file.addDataSource(fast));
        const auto log = [&file](int8_t source, int64_t timestamp) {
            DataEntry entry;
            entry.dataSourceId = source;
            entry.timestamp = timestamp;
            entry.data = bytesOf("x");
            return file.logData(entry);
        };
        for (int i = 0; i <= 10; ++i) {
            ASSERT_TRUE(log(slow.id, kKnownStart + i * 1000));
        }
        for (int i = 0; i <= 1000; ++i) {
            ASSERT_TRUE(log(fast.id, kKnownStart + i * 10));
        }
    }
    double playedMs = 0.0;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const RunResult result = runMvlog({"play", path, "--speed", "20"});
        ASSERT_EQ(result.exitCode, 0) << result.err;
        const std::string last = result.outLines().back();
        const std::string prefix = "Played 1012 of 1012 frames (10.000 s of recording) in ";
        ASSERT_EQ(last.rfind(prefix, 0), 0u) << last;
        const std::string took = last.substr(prefix.size());
        playedMs = std::stod(took);
        if (took.find(" s at ") < took.find(" ms at ")) {
            playedMs *= 1000.0;
        }
        if (playedMs >= 450.0 && playedMs <= 550.0) {
            break;
        }
    }
    EXPECT_GE(playedMs, 450.0);
    EXPECT_LE(playedMs, 550.0);
}

TEST_F(PlayTest, SpeedMustBePositive) {
    EXPECT_EQ(runMvlog({"play", path, "--speed", "0"}).exitCode, 2);
    EXPECT_EQ(runMvlog({"play", path, "--source-type", "Submarine"}).exitCode, 2);
}

}  // namespace
}  // namespace MvlogTest
