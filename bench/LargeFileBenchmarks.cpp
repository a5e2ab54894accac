// Peak memory on large files: a whole-file visitEntries and mvlog's cat, info
// and check on a file of 5 GiB, mvlog's slice, clone and merge on the 1 GiB
// file of the derived-file figures, each once, as a process of its own. What
// a reader or a tool holds must not grow with the file.

#include "BenchSupport.h"
#include "Benchmarks.h"
#include "RawLogFile.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace Marivane::Bench {

std::string largeFileName(const std::string& what) {
    return "memory/" + what + "/5GiB";
}

std::string largeToolName(const std::string& command) {
    for (const char* writer : kLargeFileWriteCommands) {
        if (command == writer) {
            return memoryName("mvlog/" + command);
        }
    }
    return largeFileName("mvlog/" + command);
}

const std::string& largeLogFile() {
    return Raw::builtLogFile("large-5GiB", 0, kLargeFilePayloadSize, kLargeFileEntries);
}

namespace {

// Built here rather than by the first figure that needs it, so that its time
// is a figure of its own.
void buildLargeFile(benchmark::State& state) {
    for (auto _ : state) {
        const auto started = std::chrono::steady_clock::now();
        (void)largeLogFile();
        state.counters["build_s"] =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    }
}

void streamLargeFile(benchmark::State& state) {
    const std::string& file = largeLogFile();
    for (auto _ : state) {
        state.counters["peak_rss_mib"] = peakMemoryOf("stream", {file});
    }
}

#ifdef MARIVANE_BENCH_MVLOG
// mvlog's arguments for `command`, writing `output` where the command makes
// a file.
std::vector<std::string> toolArguments(const std::string& command, const std::string& output) {
    if (std::string_view(largeToolName(command)).ends_with("/5GiB")) {
        return {command, largeLogFile()};
    }
    const std::string& file = derivedSourceFile();
    const auto quarter = static_cast<int32_t>(kDerivedSourceEntries / 4);
    const auto half = static_cast<int32_t>(kDerivedSourceEntries / 2);
    if (command == "slice") {
        return {command,    file,  "--from", std::to_string(quarter + 1), "--to", std::to_string(3 * quarter),
                "--output", output};
    }
    if (command == "clone") {
        return {command, file, "--output", output};
    }
    if (command == "merge") {
        return {command, partOf(file, 1, half), partOf(file, half + 1, 2 * half), "--output", output};
    }
    throw std::invalid_argument("no large-file figure of mvlog " + command);
}

void toolOnLargeFile(benchmark::State& state, const std::string& command) {
    const std::vector<std::string> arguments = toolArguments(command, freshPath("large-" + command));
    const std::string output = freshPath("large-output");
    for (auto _ : state) {
        const ChildRun run = runChild(MARIVANE_BENCH_MVLOG, arguments, output);
        state.counters["peak_rss_mib"] = run.peakMiB;
        state.counters["wall_s"] = run.wallSeconds;
        state.counters["cpu_s"] = run.cpuSeconds;
    }
    removeLogFile(output);
    if (arguments.size() > 2 && arguments[arguments.size() - 2] == "--output") {
        removeLogFile(arguments.back());
    }
}
#endif

void oneRun(benchmark::internal::Benchmark* benchmark) {
    benchmark->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
}

}  // namespace

void registerLargeFileBenchmarks() {
    benchmark::RegisterBenchmark(largeFileName("build").c_str(), buildLargeFile)->Apply(oneRun);
    benchmark::RegisterBenchmark(largeFileName("stream").c_str(), streamLargeFile)->Apply(oneRun);
#ifdef MARIVANE_BENCH_MVLOG
    for (const auto& commands : {std::span(kLargeFileReadCommands), std::span(kLargeFileWriteCommands)}) {
        for (const char* command : commands) {
            benchmark::RegisterBenchmark(largeToolName(command).c_str(), [command](benchmark::State& state) {
                toolOnLargeFile(state, command);
            })->Apply(oneRun);
        }
    }
#endif
}

}  // namespace Marivane::Bench
