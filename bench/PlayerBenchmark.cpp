// Pacing of the player at 100 Hz: each delivery is compared with its schedule,
// which is the first delivery's time plus the entry's recorded offset from the
// first delivered entry. Also the process's CPU time per second of playback,
// which stays far below a core unless the worker spins.

#include "BenchSupport.h"
#include "Benchmarks.h"
#include "RawLogFile.h"

#include <logging/Logging.h>

#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Marivane::Bench {

namespace {

using Clock = std::chrono::steady_clock;

// Frame 0 is never played from a fresh player, and frame 1 follows a wait of
// maxFrameDelay; the 300 frames after it span 3 s of recording.
constexpr std::size_t kFrames = 302;
constexpr int32_t kMaxFrameDelayMs = 1000;

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& time) { return static_cast<double>(time.tv_sec) + time.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double percentile(std::vector<double> values, double fraction) {
    std::sort(values.begin(), values.end());
    const auto rank = static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(values.size())));
    return values[std::clamp<std::size_t>(rank, 1, values.size()) - 1];
}

struct Delivery {
    Clock::time_point at;
    int64_t timestamp = 0;
};

void playerPacing(benchmark::State& state, Logging::Playback::Pacing pacing) {
    const std::string path = freshPath("player-100Hz");
    Raw::buildLogFile(path, 0, 64, kFrames);

    std::vector<double> errors;
    double drift = 0;
    double cpuPerSecond = 0;
    for (auto _ : state) {
        // Written by the worker only; the count publishes each slot.
        std::vector<Delivery> deliveries(kFrames - 1);
        std::atomic<std::size_t> count{0};
        std::mutex mutex;
        std::condition_variable finished;
        double cpuAtFirst = 0;
        double cpuAtLast = 0;
        auto onFrame = [&](int32_t, Logging::DataEntry entry) {
            const Clock::time_point now = Clock::now();
            const std::size_t index = count.load(std::memory_order_relaxed);
            if (index >= deliveries.size()) {
                return;
            }
            if (index == 0) {
                cpuAtFirst = cpuSeconds();
            }
            if (index + 1 == deliveries.size()) {
                cpuAtLast = cpuSeconds();
            }
            deliveries[index] = {now, entry.timestamp};
            count.store(index + 1, std::memory_order_release);
            if (index + 1 == deliveries.size()) {
                std::lock_guard<std::mutex> lock(mutex);
                finished.notify_one();
            }
        };
        Logging::Playback::LogFilePlayer player(
            std::make_unique<Logging::SqliteLogFile>(std::filesystem::path(path)),
            {MV_LogDataSourceType_Generic}, onFrame, false, kMaxFrameDelayMs);
        player.setPacing(pacing);
        {
            std::unique_lock<std::mutex> lock(mutex);
            player.play();
            const bool done = finished.wait_for(lock, std::chrono::seconds(30), [&] {
                return count.load(std::memory_order_acquire) == deliveries.size();
            });
            if (!done) {
                state.SkipWithError("the player stalled");
                break;
            }
        }
        player.stop();

        const Delivery& first = deliveries.front();
        // The first delivery defines the schedule, so only the others can miss it.
        for (std::size_t i = 1; i < deliveries.size(); ++i) {
            const Delivery& delivery = deliveries[i];
            const auto scheduled = first.at + std::chrono::milliseconds(delivery.timestamp - first.timestamp);
            const double error = std::chrono::duration<double, std::milli>(delivery.at - scheduled).count();
            errors.push_back(std::abs(error));
            // Signed, at the last frame: lateness that the player never makes
            // up accumulates here.
            drift = error;
        }
        const double playedSeconds = std::chrono::duration<double>(deliveries.back().at - first.at).count();
        cpuPerSecond = (cpuAtLast - cpuAtFirst) / playedSeconds;
    }
    removeLogFile(path);
    if (!errors.empty()) {
        state.counters["median_error_ms"] = percentile(errors, 0.5);
        state.counters["p99_error_ms"] = percentile(errors, 0.99);
        state.counters["max_error_ms"] = percentile(errors, 1.0);
        state.counters["drift_ms"] = drift;
        state.counters["cpu_ms_per_s"] = cpuPerSecond * 1000.0;
        state.counters["frames"] = static_cast<double>(errors.size());
    }
}

}  // namespace

void registerPlayerBenchmark() {
    using Logging::Playback::Pacing;
    for (const auto& [name, pacing] : {std::pair{std::string("pacing"), Pacing::CarryMilliseconds},
                                       std::pair{std::string("exact"), Pacing::Exact}}) {
        benchmark::RegisterBenchmark(
            playerName(name).c_str(),
            [pacing = pacing](benchmark::State& state) { playerPacing(state, pacing); })
            ->Iterations(1)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}

}  // namespace Marivane::Bench
