#pragma once

#include <logging/Logging.h>

#include <nlohmann/json.hpp>

#include <sys/types.h>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace MvlogTest {

using Marivane::Logging::ByteBuffer;

// What a finished child process left behind.
struct RunResult {
    int exitCode = -1;  // -1 when it did not exit normally
    int terminatingSignal = 0;
    std::string out;
    std::string err;
    double seconds = 0.0;

    std::vector<std::string> outLines() const;
};

// A child process whose output goes to files (never a full pipe), which can
// be signalled while it runs.
class ChildProcess {
public:
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    void sendSignal(int signal) const;
    // Waits for the end; a child still running after `timeout` is killed and
    // the test fails.
    RunResult wait(std::chrono::seconds timeout = std::chrono::seconds(120));

private:
    std::filesystem::path outPath_;
    std::filesystem::path errPath_;
    pid_t pid_ = -1;
    std::chrono::steady_clock::time_point start_;
};

RunResult runProgram(const std::string& program, const std::vector<std::string>& arguments);
RunResult runMvlog(const std::vector<std::string>& arguments);

std::vector<std::string> splitLines(const std::string& text);
bool containsLine(const std::vector<std::string>& lines, const std::string& line);
std::string readFileText(const std::filesystem::path& path);
ByteBuffer readFileBytes(const std::filesystem::path& path);
ByteBuffer bytesOf(const std::string& text);
ByteBuffer decodeBase64(const std::string& text);
nlohmann::json infoJson(const std::string& path);

// The small file most tests use: 101 entries 100 ms apart (10 s), ids 1..101.
// Entry i belongs to source 1 + (i - 1) % 3 ("alpha" Camera, "beta"
// Navigation, "gamma" of the non-enumerator type 1234), has type 10 + i % 2
// and the payload knownPayload(i).
inline constexpr int64_t kKnownStart = 1'700'000'000'000;  // 2023-11-14T22:13:20.000Z
inline constexpr int kKnownEntries = 101;
inline constexpr int kKnownPeriodMs = 100;
ByteBuffer knownPayload(int entryId);
int8_t knownSource(int entryId);
int32_t knownType(int entryId);
// Level 3, application "tooltest" 1.2, time zone "Europe/Oslo", created at
// kKnownStart; properties on every source, metadata "site", a resource
// "notes.txt" ("hello"), a 10-byte thumbnail and a bookmark on entry 5.
void writeKnownFile(const std::filesystem::path& path, int8_t compressionLevel = 3);

// 400 uncompressed entries of 3000 bytes (about one page each) from one
// "radar" source, then two pages of garbage over page 200: reading the index
// ends there, hiding the entries after it.
void writeFileWithDamagedPages(const std::filesystem::path& path);

// Writes `payload` as the stored bytes of the entry, behind the library's
// back, the way damage on disk would look.
void overwriteStoredPayload(const std::filesystem::path& path, int32_t entryId, const ByteBuffer& payload);
void executeSql(const std::filesystem::path& path, const std::string& sql);

}  // namespace MvlogTest
