#include "derive/PendingOutput.h"

#include <core/Filesystem.h>

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

namespace Marivane::Logging::Algorithms {

namespace {

using Filesystem::PathLookup;
using Filesystem::somethingExistsAt;

// A hidden name beside the final one, unique per process and derivation.
std::filesystem::path temporaryPathFor(const std::filesystem::path& finalPath) {
    static std::atomic<unsigned> counter{0};
    for (;;) {
        std::string name = ".";
        name += finalPath.filename().string();
        name += ".partial-";
        name += std::to_string(::getpid());
        name += '-';
        name += std::to_string(counter++);
        const std::filesystem::path candidate = finalPath.parent_path() / name;
        if (!somethingExistsAt(candidate, PathLookup::PathItself)) {
            return candidate;
        }
    }
}

}  // namespace

PendingOutput::PendingOutput(std::filesystem::path finalPath) : finalPath_(std::move(finalPath)) {
    if (finalPath_.empty()) {
        throw std::runtime_error("Cannot write a derived file: no output path was given.");
    }
    if (somethingExistsAt(finalPath_, PathLookup::PathItself)) {
        throw std::runtime_error("Cannot write '" + finalPath_.string() +
                                 "': a file already exists there and is never overwritten.");
    }
    temporaryPath_ = temporaryPathFor(finalPath_);
}

PendingOutput::~PendingOutput() {
    if (!committed_) {
        removeTemporaryFiles();
    }
}

void PendingOutput::checkEntryCount(const SqliteLogFile& written, uint64_t expected) const {
    const int32_t count = written.getEntryCount();
    if (count < 0 || static_cast<uint64_t>(count) != expected) {
        throw std::runtime_error("Cannot write '" + finalPath_.string() + "': it holds " +
                                 std::to_string(count) + " entries instead of " + std::to_string(expected) +
                                 " (" + written.getLastError() + ").");
    }
}

void PendingOutput::commit() {
    // A hard link fails instead of replacing what is there; the temporary
    // name then goes away.
    if (::link(temporaryPath_.c_str(), finalPath_.c_str()) != 0) {
        const int error = errno;
        throw std::runtime_error("Cannot write '" + finalPath_.string() + "': " +
                                 (error == EEXIST ? std::string("a file appeared there while it was written")
                                                  : std::string(std::strerror(error))) +
                                 ".");
    }
    committed_ = true;
    std::error_code ignored;
    std::filesystem::remove(temporaryPath_, ignored);
}

void PendingOutput::removeTemporaryFiles() noexcept {
    std::error_code ignored;
    for (const char* suffix : {"", "-journal", "-wal", "-shm"}) {
        std::filesystem::remove(temporaryPath_.string() + suffix, ignored);
    }
}

}  // namespace Marivane::Logging::Algorithms
