#pragma once

#include <logging/CheckProblem.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace Marivane::Logging {

// What a check of a log file found. A plain value: copy it freely.
struct CheckReport {
    // What a check that got as far as reading the file went through.
    struct Counts {
        // Entries whose payload could be read in full.
        uint64_t entries = 0;
        uint64_t dataSources = 0;
        uint64_t resources = 0;
        uint64_t bookmarks = 0;
    };

    // In the order they were found.
    std::vector<CheckProblem> problems;
    // Absent when the file could not be opened as a log file, or the check
    // stopped before it had counted.
    std::optional<Counts> checked;

    bool isClean() const { return problems.empty(); }
    // Whether any problem comes from damaged bytes.
    bool foundDamage() const {
        for (const CheckProblem& problem : problems) {
            if (problem.damage) {
                return true;
            }
        }
        return false;
    }
};

}  // namespace Marivane::Logging
