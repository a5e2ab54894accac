#include "Commands.h"
#include "Format.h"
#include "LogFileAccess.h"
#include "Replay.h"
#include "SummaryReport.h"
#include "SyntheticSurvey.h"
#include "Terminal.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace Mvlog {

using Marivane::Logging::LogFileInterface;

namespace {

constexpr int64_t kSurveyDurationMs = 20'000;
constexpr double kReplaySpeed = 4.0;
constexpr int32_t kReplayMaxDelayMs = 1000;

std::filesystem::path prepareDirectory(const DemoOptions& options) {
    if (!options.directory) {
        std::string pattern = (std::filesystem::temp_directory_path() / "mvlog-demo-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) {
            throw ToolError(fmt::format("demo: cannot create a temporary directory: {}",
                                        std::error_code(errno, std::generic_category()).message()));
        }
        return pattern;
    }
    std::error_code error;
    std::filesystem::create_directories(*options.directory, error);
    if (error || !std::filesystem::is_directory(*options.directory)) {
        throw ToolError(fmt::format("demo: cannot use {} as a directory", *options.directory));
    }
    return *options.directory;
}

void printHeading(const std::string& text) {
    fmt::print("\n== {}\n", text);
    std::fflush(stdout);
}

// Whole seconds, so that the synthetic times read easily.
int64_t syntheticStart() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count() * 1000;
}

// By time: the recorder numbers entries in the order the capture threads
// handed them over, so ids say little about when. The one-input merge keeps
// the stretch in timestamp order, which is how the replay should see it.
std::filesystem::path sliceMiddle(const SurveyRecording& recording, const std::filesystem::path& survey,
                                  const std::filesystem::path& output) {
    Marivane::Logging::CopyOptions options;
    options.startTimestamp = recording.middleStartTimestamp;
    options.endTimestamp = recording.middleEndTimestamp;
    options.applicationName = kToolName;
    options.applicationVersion = kToolVersion;
    ElapsedTimeIndicator indicator("slicing");
    try {
        Marivane::Logging::Algorithms::merge({survey}, output, options);
    } catch (const std::exception& error) {
        throw ToolError(fmt::format("demo: the slice into {} failed: {}", output.string(), error.what()));
    }
    return output;
}

double mibPerSecond(uint64_t bytes, double seconds) {
    return seconds > 0.0 ? static_cast<double>(bytes) / (1024.0 * 1024.0) / seconds : 0.0;
}

}  // namespace

int runDemo(const DemoOptions& options) {
    const std::filesystem::path directory = prepareDirectory(options);
    const std::filesystem::path survey = directory / "demo.mvlog";
    const std::filesystem::path slicePath = directory / "demo-slice.mvlog";
    fmt::print("Demo directory: {}\n", directory.string());

    printHeading(fmt::format("Recording {} of a synthetic survey into {}", humanDuration(kSurveyDurationMs),
                             survey.string()));
    const SurveyRecording recording = recordSyntheticSurvey(survey, syntheticStart(), kSurveyDurationMs);
    const uint64_t surveySize = fileSizeOnDisk(survey);
    fmt::print("{} entries, {} of payload, {} on disk\n", recording.entries,
               humanSize(recording.payloadBytes), humanSize(surveySize));
    fmt::print(
        "Recorder: {} accepted, {} written, {} dropped, {} failed; queue high water {}, longest wait "
        "for a commit {:.1f} ms\n",
        recording.recorder.accepted, recording.recorder.written,
        recording.recorder.dropped + recording.recorder.refused, recording.recorder.failed,
        humanSize(recording.recorder.queueHighWaterBytes),
        static_cast<double>(recording.recorder.maxLatencyMicroseconds) / 1000.0);

    printHeading("mvlog info " + survey.string());
    const auto file = openExistingLogFile(survey);
    fmt::print("{}", summaryText(summarizeLogFile(*file)));

    printHeading(fmt::format("Slicing seconds 6 to 12 into {}", slicePath.string()));
    const std::filesystem::path slice = sliceMiddle(recording, survey, slicePath);
    const auto sliceFile = openExistingLogFile(slice);
    const int32_t sliceEntries = sliceFile->getEntryCount();
    fmt::print("{}: {} entries, {} on disk\n", slice.string(), sliceEntries,
               humanSize(fileSizeOnDisk(slice)));

    printHeading(fmt::format("Replaying the slice at {}x", kReplaySpeed));
    ReplaySettings settings;
    settings.speed = kReplaySpeed;
    settings.maxDelayMs = kReplayMaxDelayMs;
    settings.style = isTerminal(stdout) ? StatusStyle::Live : StatusStyle::Periodic;
    const ReplayReport replay = replayLogFile(openExistingLogFile(slice), settings, stdout);

    printHeading("Summary");
    fmt::print(
        "Recorded {} entries ({}) in {}: {:.0f} entries/s, {:.1f} MiB/s of payload\n", recording.entries,
        humanSize(recording.payloadBytes), humanDuration(std::llround(recording.wallSeconds * 1000.0)),
        recording.wallSeconds > 0.0 ? static_cast<double>(recording.entries) / recording.wallSeconds : 0.0,
        mibPerSecond(recording.payloadBytes, recording.wallSeconds));
    fmt::print(
        "Compression ratio {:.2f}:1 ({} of payload in {} on disk, level -1)\n",
        surveySize > 0 ? static_cast<double>(recording.payloadBytes) / static_cast<double>(surveySize) : 0.0,
        humanSize(recording.payloadBytes), humanSize(surveySize));
    fmt::print("Slice: {} entries in {}\n", sliceEntries, slice.string());
    fmt::print("{}\n", replayReportText(replay, kReplaySpeed));
    fmt::print("Files are in {}\n", directory.string());
    return 0;
}

}  // namespace Mvlog
