// Long-running check, outside the default suite (make soak): records a million
// small entries and ten thousand 1 MiB entries, reads everything back, slices
// and replays, and reports the peak resident memory at each stage. Memory
// must stay flat: reading, slicing and replaying never hold more than a
// bounded part of a file.
//
//   soak DIR [SCALE]   SCALE divides every count (e.g. 20 for a sanitizer run)
#include <logging/Logging.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

using namespace Marivane::Logging;

namespace {

long statusField(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::string prefix = std::string(field) + ":";
    while (std::getline(status, line)) {
        if (line.rfind(prefix, 0) == 0) {
            return std::strtol(line.c_str() + prefix.size(), nullptr, 10);
        }
    }
    return -1;
}

long residentKib() {
    return statusField("VmRSS");
}
long peakResidentKib() {
    return statusField("VmHWM");
}

// Lets the next stage's peak be measured on its own.
void resetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "soak: FAILED: %s\n", what.c_str());
    std::exit(1);
}

void check(bool condition, const std::string& what) {
    if (!condition) {
        fail(what);
    }
}

// Compressible but not constant, and different for every entry.
ByteBuffer payloadFor(int64_t index, std::size_t size) {
    ByteBuffer bytes(size);
    uint32_t state = static_cast<uint32_t>(index) * 2654435761u + 1;
    for (std::size_t i = 0; i < size; ++i) {
        if (i % 16 == 0) {
            state = state * 1664525u + 1013904223u;
        }
        bytes[i] = static_cast<std::byte>((i / 64 + (state >> 28)) & 0xFF);
    }
    return bytes;
}

struct Stage {
    explicit Stage(const char* name) : name_(name), start_(std::chrono::steady_clock::now()) { resetPeak(); }
    ~Stage() {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
        std::printf("%-44s %8.1f s   peak RSS %7.1f MiB   RSS now %7.1f MiB\n", name_, seconds,
                    static_cast<double>(peakResidentKib()) / 1024.0,
                    static_cast<double>(residentKib()) / 1024.0);
        std::fflush(stdout);
    }
    const char* name_;
    std::chrono::steady_clock::time_point start_;
};

void record(const std::string& path, int64_t count, std::size_t size, int64_t batchSize) {
    SqliteLogFile file(path, "UTC", "soak", "1", -1, 0);
    DataSource source{-1, MV_LogDataSourceType_Generic, "source"};
    check(file.addDataSource(source), "add data source");
    std::optional<SqliteLogFile::WriteBatch> batch;
    for (int64_t index = 0; index < count; ++index) {
        if (!batch) {
            batch.emplace(file.beginBatch());
        }
        DataEntry entry;
        entry.dataSourceId = source.id;
        entry.type = static_cast<int32_t>(index % 8);
        entry.timestamp = 1700000000000 + index;
        entry.data = payloadFor(index, size);
        check(file.logData(entry), "logData " + std::to_string(index) + ": " + file.getLastError());
        if ((index + 1) % batchSize == 0) {
            check(batch->commit(), "commit: " + file.getLastError());
            batch.reset();
        }
    }
}

void readBackInChunks(const std::string& path, int64_t count, std::size_t size) {
    SqliteLogFile file{std::filesystem::path(path)};
    check(file.getEntryCount() == count, "entry count");
    // About 32 MiB of payload per read.
    const int32_t kChunk = static_cast<int32_t>(std::clamp<std::size_t>((32u << 20) / size, 1, 10000));
    int64_t seen = 0;
    for (int32_t first = 1; first <= count; first += kChunk) {
        for (const DataEntry& entry : file.readEntries(first, first + kChunk - 1, EntryIndexFilter{}, -1)) {
            check(entry.data == payloadFor(entry.entryId - 1, size),
                  "payload of " + std::to_string(entry.entryId));
            ++seen;
        }
    }
    check(seen == count, "entries read back");
}

void readBackOneByOne(const std::string& path, int64_t count, std::size_t size) {
    SqliteLogFile file{std::filesystem::path(path)};
    for (int32_t id = 1; id <= count; ++id) {
        const std::optional<DataEntry> entry = file.readEntry(id);
        check(entry && entry->data == payloadFor(id - 1, size), "entry " + std::to_string(id));
    }
}

void sliceAndCheck(const std::string& path, const std::string& output, int32_t first, int32_t last,
                   std::size_t size) {
    SqliteLogFile source{std::filesystem::path(path)};
    std::unique_ptr<LogFileInterface> slice = Algorithms::slice(source, first, last, output, "soak", "1", -1);
    check(slice != nullptr, "slice");
    check(slice->getEntryCount() == last - first + 1, "slice entry count");
    const std::optional<DataEntry> probe = slice->readEntry(last - first + 1);
    check(probe && probe->data == payloadFor(last - 1, size), "sliced payload");
}

void replay(const std::string& path, int64_t frames) {
    std::atomic<int64_t> delivered{0};
    std::atomic<bool> wrong{false};
    Playback::LogFilePlayer player(
        std::make_unique<SqliteLogFile>(std::filesystem::path(path)), {MV_LogDataSourceType_Generic},
        [&](int32_t frame, DataEntry entry) {
            if (entry.entryId != frame + 1) {
                wrong = true;
            }
            ++delivered;
        },
        false, 1000);
    player.setPlaybackSpeedMultiplier(1000.0f);
    player.play();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(5);
    while (delivered < frames - 1 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    player.stop();
    check(!wrong, "replayed frames out of order");
    check(delivered == frames - 1, "replayed " + std::to_string(delivered.load()) + " frames");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: soak DIR [SCALE]\n");
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    const int64_t scale = argc > 2 ? std::max<int64_t>(1, std::atoll(argv[2])) : 1;
    std::filesystem::create_directories(dir);
    const std::string small = (dir / "small.mvlog").string();
    const std::string large = (dir / "large.mvlog").string();
    std::filesystem::remove(small);
    std::filesystem::remove(large);
    const int64_t smallCount = 1000000 / scale;
    const int64_t largeCount = 10000 / scale;
    constexpr std::size_t kSmall = 64;
    constexpr std::size_t kLarge = 1024 * 1024;

    std::printf("soak: %lld small entries of %zu B, %lld large entries of %zu B\n",
                static_cast<long long>(smallCount), kSmall, static_cast<long long>(largeCount), kLarge);
    std::printf("%-44s %8.1f MiB RSS\n", "start", static_cast<double>(residentKib()) / 1024.0);
    {
        Stage stage("record small entries (batches of 10000)");
        record(small, smallCount, kSmall, 10000);
    }
    {
        Stage stage("read small entries back in chunks");
        readBackInChunks(small, smallCount, kSmall);
    }
    {
        Stage stage("record 1 MiB entries (batches of 64)");
        record(large, largeCount, kLarge, 64);
    }
    {
        Stage stage("read 1 MiB entries back one by one");
        readBackOneByOne(large, largeCount, kLarge);
    }
    {
        Stage stage("read 1 MiB entries back in chunks");
        readBackInChunks(large, largeCount, kLarge);
    }
    {
        Stage stage("slice 100000 small entries");
        sliceAndCheck(small, (dir / "small-slice.mvlog").string(), 11,
                      static_cast<int32_t>(10 + smallCount / 10), kSmall);
    }
    {
        Stage stage("slice 256 large entries");
        sliceAndCheck(large, (dir / "large-slice.mvlog").string(), 2,
                      static_cast<int32_t>(1 + std::min<int64_t>(256, largeCount - 1)), kLarge);
    }
    {
        Stage stage("replay small entries at 1000x");
        replay(small, smallCount);
    }
    std::printf("soak: OK (file sizes %.1f MiB and %.1f MiB)\n",
                static_cast<double>(std::filesystem::file_size(small)) / 1048576.0,
                static_cast<double>(std::filesystem::file_size(large)) / 1048576.0);
    for (const auto& name : {"small.mvlog", "large.mvlog", "small-slice.mvlog", "large-slice.mvlog"}) {
        std::filesystem::remove(dir / name);
    }
    return 0;
}
