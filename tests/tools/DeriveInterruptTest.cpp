// slice, clone and merge write under a hidden temporary name beside the
// output. A signal part way must not leave that file behind: it can be as
// large as the output would have been, and nothing shows it.
#include "ToolTestSupport.h"

#include <TempDir.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace MvlogTest {
namespace {

using Marivane::Testing::TempDir;

constexpr std::size_t kPayloadBytes = 64 * 1024;

// Level 0 and payloads that do not compress: a copy at level 9 compresses
// every one of them, slowly enough to be caught part way.
void writeIncompressibleFile(const std::filesystem::path& path, int entries) {
    Marivane::Logging::SqliteLogFile file(path.string(), "UTC", "tooltest", "1", 0, kKnownStart);
    Marivane::Logging::DataSource source{-1, MV_LogDataSourceType_Lidar, "lidar"};
    ASSERT_TRUE(file.addDataSource(source));
    uint64_t state = 0x9e3779b97f4a7c15ULL;
    auto batch = file.beginBatch();
    for (int id = 1; id <= entries; ++id) {
        Marivane::Logging::DataEntry entry;
        entry.dataSourceId = source.id;
        entry.timestamp = kKnownStart + id;
        entry.data.resize(kPayloadBytes);
        for (std::byte& byte : entry.data) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            byte = static_cast<std::byte>(state);
        }
        ASSERT_TRUE(file.logData(entry)) << file.getLastError();
    }
    ASSERT_TRUE(batch.commit());
}

// The hidden file a derivation writes before it takes the output's name.
std::optional<std::filesystem::path> partialFileFor(const std::filesystem::path& output) {
    // Built in steps: GCC 12 warns falsely about a literal prepended to a
    // temporary string in optimised builds.
    std::string prefix = ".";
    prefix += output.filename().string();
    prefix += ".partial-";
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(output.parent_path(), error)) {
        if (entry.path().filename().string().rfind(prefix, 0) == 0) {
            return entry.path();
        }
    }
    return std::nullopt;
}

std::vector<std::string> namesIn(const std::filesystem::path& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// What one run left: its result, and the names in the directory before it.
struct SignalledRun {
    RunResult result;
    std::vector<std::string> namesBefore;
};

// Writes `big` with ever more entries and runs `command(entries)` (program
// first) until `signal` reaches the run while it is writing its partial file
// beside `output`; a fast machine may finish a small file first. Nothing when
// every run finished before it could be signalled.
std::optional<SignalledRun> signalWhileWriting(const std::string& big, const std::string& output, int signal,
                                               const std::function<std::vector<std::string>(int)>& command) {
    const std::filesystem::path directory = std::filesystem::path(output).parent_path();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(90);
    for (int entries = 300; entries <= 4800 && std::chrono::steady_clock::now() < deadline; entries *= 2) {
        std::filesystem::remove(big);
        writeIncompressibleFile(big, entries);
        SignalledRun run;
        run.namesBefore = namesIn(directory);
        std::vector<std::string> arguments = command(entries);
        const std::string program = arguments.front();
        arguments.erase(arguments.begin());
        ChildProcess child(program, arguments);
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        bool writing = false;
        while (!writing && std::chrono::steady_clock::now() < giveUp && !std::filesystem::exists(output)) {
            const std::optional<std::filesystem::path> partial = partialFileFor(output);
            std::error_code error;
            writing = partial && std::filesystem::file_size(*partial, error) > 256 * 1024 && !error;
            if (!writing) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
        }
        if (!writing) {
            const RunResult finished = child.wait(std::chrono::seconds(60));
            if (finished.exitCode != 0) {
                ADD_FAILURE() << "the command failed before it could be signalled: " << finished.err;
                return std::nullopt;
            }
            std::filesystem::remove(output);
            continue;
        }
        child.sendSignal(signal);
        run.result = child.wait(std::chrono::seconds(60));
        return run;
    }
    ADD_FAILURE() << "the command always finished before it could be signalled";
    return std::nullopt;
}

struct Interruption {
    const char* command;
    const char* doing;
    int signal;
};

class DeriveInterruptTest : public ::testing::TestWithParam<Interruption> {
protected:
    TempDir directory;
    std::string big = directory.file("big.mvlog");
    std::string small = directory.file("small.mvlog");
    std::string output = directory.file("out.mvlog");

    std::vector<std::string> argumentsFor(const std::string& command, int entries) const {
        if (command == "slice") {
            return {MVLOG_BINARY, "slice", big,       "--from", "1", "--to", std::to_string(entries),
                    "-o",         output,  "--level", "9"};
        }
        if (command == "merge") {
            return {MVLOG_BINARY, "merge", small, big, "-o", output, "--level", "9"};
        }
        return {MVLOG_BINARY, "clone", big, "-o", output, "--level", "9"};
    }
};

TEST_P(DeriveInterruptTest, ASignalPartWayLeavesNoPartialFile) {
    const Interruption interruption = GetParam();
    writeKnownFile(small);
    const std::optional<SignalledRun> run =
        signalWhileWriting(big, output, interruption.signal,
                           [&](int entries) { return argumentsFor(interruption.command, entries); });
    ASSERT_TRUE(run);
    const RunResult& result = run->result;
    EXPECT_EQ(result.terminatingSignal, interruption.signal) << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, std::string("mvlog: ") + interruption.doing +
                              " interrupted; nothing was written to " + output + "\n");
    EXPECT_EQ(namesIn(directory.path()), run->namesBefore);
}

INSTANTIATE_TEST_SUITE_P(Commands, DeriveInterruptTest,
                         ::testing::Values(Interruption{"clone", "cloning", SIGINT},
                                           Interruption{"slice", "slicing", SIGTERM},
                                           Interruption{"merge", "merging", SIGINT},
                                           Interruption{"clone", "cloning", SIGHUP}),
                         [](const ::testing::TestParamInfo<Interruption>& info) {
                             return std::string(info.param.command) + "_" +
                                    (info.param.signal == SIGINT    ? "SIGINT"
                                     : info.param.signal == SIGTERM ? "SIGTERM"
                                                                    : "SIGHUP");
                         });

// A signal that the caller ignores (nohup, a background job) stays ignored:
// the derivation completes.
TEST(DeriveIgnoredSignal, AnIgnoredSignalDoesNotInterrupt) {
    TempDir directory;
    const std::string big = directory.file("big.mvlog");
    const std::string output = directory.file("out.mvlog");
    int entries = 0;
    const std::optional<SignalledRun> run = signalWhileWriting(big, output, SIGINT, [&](int count) {
        entries = count;
        return std::vector<std::string>{
            "/bin/sh", "-c", "trap '' INT; exec \"$0\" \"$@\"", MVLOG_BINARY, "clone", big, "-o", output,
            "--level", "9"};
    });
    ASSERT_TRUE(run);
    EXPECT_EQ(run->result.exitCode, 0) << run->result.err;
    EXPECT_EQ(run->result.out, output + "\n");
    EXPECT_EQ(infoJson(output)["entries"]["count"], entries);
}

}  // namespace
}  // namespace MvlogTest
