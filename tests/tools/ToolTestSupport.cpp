#include "ToolTestSupport.h"

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace MvlogTest {

using Marivane::Logging::Bookmark;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::SqliteLogFile;

namespace {

std::filesystem::path freshOutputPath(const char* suffix) {
    static std::atomic<unsigned> counter{0};
    return std::filesystem::temp_directory_path() /
           ("mvlog-tooltest-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + suffix);
}

[[noreturn]] void execInChild(const std::string& program, const std::vector<std::string>& arguments,
                              const std::filesystem::path& out, const std::filesystem::path& err) {
    const int input = ::open("/dev/null", O_RDONLY);
    const int output = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int error = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (input < 0 || output < 0 || error < 0) {
        ::_exit(127);
    }
    ::dup2(input, STDIN_FILENO);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(error, STDERR_FILENO);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    ::execv(program.c_str(), argv.data());
    ::_exit(127);
}

}  // namespace

std::vector<std::string> RunResult::outLines() const {
    return splitLines(out);
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments)
    : outPath_(freshOutputPath(".out")), errPath_(freshOutputPath(".err")) {
    start_ = std::chrono::steady_clock::now();
    pid_ = ::fork();
    if (pid_ == 0) {
        execInChild(program, arguments, outPath_, errPath_);
    }
    if (pid_ < 0) {
        ADD_FAILURE() << "fork failed: " << std::strerror(errno);
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    std::error_code ignored;
    std::filesystem::remove(outPath_, ignored);
    std::filesystem::remove(errPath_, ignored);
}

void ChildProcess::sendSignal(int signal) const {
    if (pid_ > 0) {
        ::kill(pid_, signal);
    }
}

RunResult ChildProcess::wait(std::chrono::seconds timeout) {
    RunResult result;
    if (pid_ <= 0) {
        return result;
    }
    int status = 0;
    const auto deadline = start_ + timeout;
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "child process still running after " << timeout.count() << " s; killed";
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pid_ = -1;
    result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.terminatingSignal = WTERMSIG(status);
    }
    result.out = readFileText(outPath_);
    result.err = readFileText(errPath_);
    // A sanitizer build reports through stderr; an expected failure exit
    // code must not hide such a report.
    for (const char* report : {"Sanitizer", "runtime error:"}) {
        EXPECT_EQ(result.err.find(report), std::string::npos) << result.err;
    }
    return result;
}

RunResult runProgram(const std::string& program, const std::vector<std::string>& arguments) {
    ChildProcess child(program, arguments);
    return child.wait();
}

RunResult runMvlog(const std::vector<std::string>& arguments) {
    return runProgram(MVLOG_BINARY, arguments);
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

bool containsLine(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string readFileText(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

ByteBuffer readFileBytes(const std::filesystem::path& path) {
    return bytesOf(readFileText(path));
}

ByteBuffer bytesOf(const std::string& text) {
    ByteBuffer bytes(text.size());
    std::memcpy(bytes.data(), text.data(), text.size());
    return bytes;
}

ByteBuffer decodeBase64(const std::string& text) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    ByteBuffer bytes;
    uint32_t group = 0;
    int bits = 0;
    for (char character : text) {
        if (character == '=') {
            break;
        }
        const std::size_t value = alphabet.find(character);
        if (value == std::string::npos) {
            ADD_FAILURE() << "not base64: " << character;
            return bytes;
        }
        group = (group << 6) | static_cast<uint32_t>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes.push_back(static_cast<std::byte>((group >> bits) & 0xff));
        }
    }
    return bytes;
}

nlohmann::json infoJson(const std::string& path) {
    const RunResult result = runMvlog({"info", path, "--json"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    return nlohmann::json::parse(result.out);
}

ByteBuffer knownPayload(int entryId) {
    ByteBuffer payload(static_cast<std::size_t>(16 + entryId));
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<std::byte>((entryId * 7 + static_cast<int>(i)) & 0xff);
    }
    return payload;
}

int8_t knownSource(int entryId) {
    return static_cast<int8_t>(1 + (entryId - 1) % 3);
}

int32_t knownType(int entryId) {
    return 10 + entryId % 2;
}

void writeKnownFile(const std::filesystem::path& path, int8_t compressionLevel) {
    SqliteLogFile file(path.string(), "Europe/Oslo", "tooltest", "1.2", compressionLevel, kKnownStart);
    DataSource alpha{-1, MV_LogDataSourceType_Camera, "alpha"};
    DataSource beta{-1, MV_LogDataSourceType_Navigation, "beta"};
    DataSource gamma{-1, static_cast<MV_LogDataSourceType>(1234), "gamma"};
    ASSERT_TRUE(file.addDataSource(alpha));
    ASSERT_TRUE(file.addDataSource(beta));
    ASSERT_TRUE(file.addDataSource(gamma));
    ASSERT_TRUE(file.addDataSourceProperty({alpha.id, "width", int32_t{640}}));
    ASSERT_TRUE(file.addDataSourceProperty({beta.id, "datum", std::string("WGS84")}));
    ASSERT_TRUE(file.addDataSourceProperty({gamma.id, "gain", 1.5}));
    for (int id = 1; id <= kKnownEntries; ++id) {
        DataEntry entry;
        entry.dataSourceId = knownSource(id);
        entry.type = knownType(id);
        entry.timestamp = kKnownStart + (id - 1) * kKnownPeriodMs;
        entry.data = knownPayload(id);
        ASSERT_TRUE(file.logData(entry)) << file.getLastError();
    }
    ASSERT_TRUE(file.addMetadata("site", std::string("Test basin")));
    ASSERT_TRUE(file.addResource("notes.txt", bytesOf("hello")));
    ASSERT_TRUE(file.setThumbnail(bytesOf("0123456789")));
    ASSERT_TRUE(file.addBookmark(Bookmark{5, "five", "first comment", {}}));
}

void writeFileWithDamagedPages(const std::filesystem::path& path) {
    {
        SqliteLogFile file(path.string(), "UTC", "tooltest", "1", 0, kKnownStart);
        DataSource source{-1, MV_LogDataSourceType_Radar, "radar"};
        ASSERT_TRUE(file.addDataSource(source));
        for (int id = 1; id <= 400; ++id) {
            DataEntry entry;
            entry.dataSourceId = source.id;
            entry.timestamp = kKnownStart + id;
            entry.data.assign(3000, static_cast<std::byte>(id));
            ASSERT_TRUE(file.logData(entry));
        }
    }
    constexpr std::size_t kPage = 4096;
    std::fstream stream(path, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(static_cast<std::streamoff>(200 * kPage));
    const std::string garbage(2 * kPage, '\xa5');
    stream.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
}

void executeSql(const std::filesystem::path& path, const std::string& sql) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    char* message = nullptr;
    const int result = sqlite3_exec(database, sql.c_str(), nullptr, nullptr, &message);
    EXPECT_EQ(result, SQLITE_OK) << (message ? message : "");
    sqlite3_free(message);
    sqlite3_close(database);
}

void overwriteStoredPayload(const std::filesystem::path& path, int32_t entryId, const ByteBuffer& payload) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(database, "UPDATE data SET payload = ?1 WHERE entryId = ?2;", -1, &statement,
                                 nullptr),
              SQLITE_OK);
    sqlite3_bind_blob(statement, 1, payload.data(), static_cast<int>(payload.size()), SQLITE_TRANSIENT);
    sqlite3_bind_int(statement, 2, entryId);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_DONE);
    EXPECT_EQ(sqlite3_changes(database), 1);
    sqlite3_finalize(statement);
    sqlite3_close(database);
}

}  // namespace MvlogTest
