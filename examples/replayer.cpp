// replayer: replays a log file at its recorded pace through the class
// interface and prints each frame as it arrives.
//
//   replayer FILE.mvlog [SPEED]
//
// SPEED multiplies the pace (default 1; 10 plays ten times as fast).

#include <logging/Logging.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>

namespace {

using Marivane::Logging::DataEntry;
using Marivane::Logging::SqliteLogFile;
using Marivane::Logging::Playback::LogFilePlayer;

// The callback runs on the player's worker thread; main waits here until the
// last frame has been delivered.
class LastFrameSignal {
public:
    void arrive() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            arrived_ = true;
        }
        condition_.notify_one();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        condition_.wait(lock, [this] { return arrived_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool arrived_ = false;
};

int replay(const std::string& path, float speed) {
    // SqliteLogFile would quietly create a missing file.
    if (!std::filesystem::exists(path)) {
        std::fprintf(stderr, "replayer: %s: no such file\n", path.c_str());
        return 1;
    }
    // The player takes the file over and closes it when it is destroyed.
    std::unique_ptr<SqliteLogFile> file = std::make_unique<SqliteLogFile>(path);
    LastFrameSignal lastFrame;
    int32_t lastFrameNumber = 0;

    // No data-source types selects every entry of the file. Frames not
    // reached within 1000 ms of recorded time wait at most that long.
    LogFilePlayer player(
        std::move(file), {},
        [&](int32_t frame, DataEntry entry) {
            std::printf("frame %d: entry %d, t=%lld, source %d, type %d, %zu bytes\n", frame, entry.entryId,
                        static_cast<long long>(entry.timestamp), entry.dataSourceId, entry.type,
                        entry.data.size());
            if (frame == lastFrameNumber) {
                lastFrame.arrive();
            }
        },
        false, 1000);
    if (player.getFrameCount() == 0) {
        std::printf("no frames\n");
        return 0;
    }
    lastFrameNumber = static_cast<int32_t>(player.getFrameCount() - 1);
    std::printf("%zu frames over %d ms, at %gx\n", player.getFrameCount(), player.getTotalPlayTime(),
                static_cast<double>(speed));
    std::fflush(stdout);

    player.setPlaybackSpeedMultiplier(speed);
    // play() alone would begin with frame 1: seek delivers frame 0 here and
    // playback goes on after it.
    player.seek(0, {});
    player.play();
    lastFrame.wait();
    player.stop();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        std::fprintf(stderr, "usage: replayer FILE.mvlog [SPEED]\n");
        return 2;
    }
    const float speed = argc == 3 ? std::strtof(argv[2], nullptr) : 1.0f;
    if (!(speed > 0.0f)) {
        std::fprintf(stderr, "replayer: the speed must be positive\n");
        return 2;
    }
    try {
        return replay(argv[1], speed);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "replayer: %s\n", error.what());
        return 1;
    }
}
