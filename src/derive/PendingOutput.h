#pragma once

#include <logging/SqliteLogFile.h>

#include <cstdint>
#include <filesystem>

namespace Marivane::Logging::Algorithms {

// A derived file under construction. It is written under a temporary name in
// the directory of its final path and takes that path only in commit(), once
// it is complete: a failure at any point (an exception, a full disk, a kill)
// never leaves a partial file under the name the caller asked for, and the
// destructor removes the temporary file of a derivation that did not commit.
class PendingOutput {
public:
    // Throws std::runtime_error, naming the path, when something (even a
    // dangling link) exists at `finalPath` or the path is empty.
    explicit PendingOutput(std::filesystem::path finalPath);
    ~PendingOutput();
    PendingOutput(const PendingOutput&) = delete;
    PendingOutput& operator=(const PendingOutput&) = delete;

    const std::filesystem::path& finalPath() const { return finalPath_; }
    const std::filesystem::path& temporaryPath() const { return temporaryPath_; }

    // Throws unless the written file holds exactly `expected` entries: a
    // derived file that did not get everything is a failure.
    void checkEntryCount(const SqliteLogFile& written, uint64_t expected) const;

    // Gives the closed temporary file its final name, without replacing
    // anything that appeared there meanwhile (then it throws).
    void commit();

private:
    void removeTemporaryFiles() noexcept;

    std::filesystem::path finalPath_;
    std::filesystem::path temporaryPath_;
    bool committed_ = false;
};

}  // namespace Marivane::Logging::Algorithms
