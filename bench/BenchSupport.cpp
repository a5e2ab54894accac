#include "BenchSupport.h"

#include "Benchmarks.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <system_error>
#include <vector>

namespace Marivane::Bench {

namespace {

std::filesystem::path& workDirStorage() {
    static std::filesystem::path path;
    return path;
}

}  // namespace

const std::filesystem::path& workDir() {
    std::filesystem::path& path = workDirStorage();
    if (path.empty()) {
        std::string pattern = (std::filesystem::temp_directory_path() / "marivane-bench-XXXXXX").string();
        std::vector<char> buffer(pattern.begin(), pattern.end());
        buffer.push_back('\0');
        if (::mkdtemp(buffer.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), "cannot create the benchmark directory");
        }
        path = buffer.data();
    }
    return path;
}

void removeWorkDir() {
    std::filesystem::path& path = workDirStorage();
    if (!path.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
        path.clear();
    }
}

std::string freshPath(const std::string& stem) {
    static std::atomic<unsigned> counter{0};
    return (workDir() / (stem + "-" + std::to_string(counter++) + ".mvlog")).string();
}

void removeLogFile(const std::string& path) {
    std::error_code ignored;
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
        std::filesystem::remove(path + suffix, ignored);
    }
}

const ByteBuffer& payload(std::size_t size) {
    static std::map<std::size_t, std::unique_ptr<ByteBuffer>> cache;
    std::unique_ptr<ByteBuffer>& slot = cache[size];
    if (!slot) {
        slot = std::make_unique<ByteBuffer>(size);
        std::mt19937 random(static_cast<std::mt19937::result_type>(size));
        std::uniform_int_distribution<int> step(-6, 6);
        int sample = 0;
        for (std::size_t i = 0; i + 1 < size; i += 2) {
            sample = std::clamp(sample + step(random), -32768, 32767);
            const auto bits = static_cast<uint16_t>(sample);
            (*slot)[i] = static_cast<std::byte>(bits & 0xff);
            (*slot)[i + 1] = static_cast<std::byte>(bits >> 8);
        }
    }
    return *slot;
}

std::string sizeLabel(std::size_t size) {
    if (size >= 1024 && size % 1024 == 0) {
        return std::to_string(size / 1024) + "KiB";
    }
    return std::to_string(size) + "B";
}

std::string levelLabel(int level) {
    // Appending rather than prefixing a literal: GCC 12 warns falsely (restrict) on the latter here.
    std::string label = "L";
    label += std::to_string(level);
    return label;
}

std::size_t entriesPerTransaction(std::size_t size) {
    return std::clamp<std::size_t>((4u << 20) / size, 64, 4096);
}

std::size_t readFileEntries(std::size_t size) {
    return std::clamp<std::size_t>((64u << 20) / size, 256, 16384);
}

void setThroughput(benchmark::State& state, std::size_t entriesPerIteration, std::size_t payloadSize) {
    const auto entries = static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(entriesPerIteration);
    state.SetItemsProcessed(entries);
    state.SetBytesProcessed(entries * static_cast<int64_t>(payloadSize));
}

std::string writeName(const std::string& mode, const std::string& writer, int level, std::size_t size) {
    return "write/" + mode + "/" + writer + "/" + levelLabel(level) + "/" + sizeLabel(size);
}

std::string readName(const std::string& kind, const std::string& reader, int level, std::size_t size) {
    return "read/" + kind + "/" + reader + "/" + levelLabel(level) + "/" + sizeLabel(size);
}

std::string indexName(const std::string& reader) {
    return "index/" + reader + "/1M";
}

std::string deriveName(const std::string& operation, const std::string& writer) {
    return "derive/" + operation + "/" + writer + "/1GiB";
}

std::string roundName(const std::string& name, int round) {
    std::string text = name;
    text += "/round:";
    text += std::to_string(round);
    return text;
}

std::string withoutRound(const std::string& name) {
    const std::size_t at = name.rfind("/round:");
    return at == std::string::npos ? name : name.substr(0, at);
}

void registerRound(const std::vector<Member>& group, int round,
                   const std::function<void(benchmark::internal::Benchmark*)>& configure) {
    for (const Member& member : group) {
        configure(benchmark::RegisterBenchmark(roundName(member.name, round).c_str(), member.function));
    }
}

void throughputSettings(benchmark::internal::Benchmark* benchmark) {
    benchmark->MinTime(kMinTime)->Unit(benchmark::kMicrosecond);
}

std::string playerName(const std::string& pacing) {
    return "player/" + pacing + "/100Hz";
}

std::string memoryName(const std::string& what) {
    return "memory/" + what + "/1GiB";
}

std::string mergeName() {
    return "derive/merge/library/2x512MiB";
}

std::string recorderName(const std::string& writer, int level, std::size_t size) {
    return "recorder/" + writer + "/" + levelLabel(level) + "/" + sizeLabel(size);
}

std::string recorderLatencyName(std::size_t size) {
    return "recorder/latency/" + sizeLabel(size);
}

std::string liveLagName() {
    return "live/lag/safe";
}

std::string recorderOverloadName() {
    return "recorder/overload/dropNewest";
}

std::string toolName(const std::string& command, const std::string& payloads) {
    return "tool/mvlog/" + command + "/2M/" + payloads;
}

std::string windowName() {
    return "window/library/5M";
}

std::string selectiveName(const std::string& kind, const std::string& reader, int level, std::size_t size) {
    return "selective/" + kind + "/" + reader + "/" + levelLabel(level) + "/" + sizeLabel(size);
}

std::string pageSizeName(const std::string& mode, int pageSize, std::size_t size) {
    return "pagesize/" + mode + "/" + sizeLabel(static_cast<std::size_t>(pageSize)) + "/" + sizeLabel(size);
}

}  // namespace Marivane::Bench
