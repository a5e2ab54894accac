// Runs mvlog's reading commands (info as text and JSON, cat, check, export)
// on arbitrary bytes. Allowed outcomes: the command's result or a clear error
// (ToolError, UsageError, or the library's exceptions); never a crash, a hang,
// a leak or undefined behaviour.
#include "FuzzSupport.h"

#include "Commands.h"
#include "LogFileAccess.h"

#include <cstdio>
#include <exception>

namespace {

template <typename Command>
void runQuietly(Command command) {
    try {
        command();
    } catch (const std::exception&) {
        // A failure the tool reports: the outcome we accept.
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The commands print; the fuzzer's own output goes to stderr.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        return 1;
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    using namespace Mvlog;
    const std::filesystem::path path = Marivane::Fuzzing::scratchPath("tool.mvlog");
    Marivane::Fuzzing::writeFile(path, data, size);
    runQuietly([&] { runInfo(InfoOptions{path.string(), false}); });
    runQuietly([&] { runInfo(InfoOptions{path.string(), true}); });
    CatOptions cat;
    cat.file = path.string();
    cat.limit = 20;
    runQuietly([&] { runCat(cat); });
    runQuietly([&] { runCheck(CheckOptions{path.string()}); });
    ExportOptions exporter;
    exporter.file = path.string();
    exporter.entry = 1;
    exporter.output = "-";
    runQuietly([&] { runExport(exporter); });
    Marivane::Fuzzing::removeFile(path);
    return 0;
}
