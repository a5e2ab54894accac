#pragma once

#include <logging/DataSource.h>
#include <logging/DataSourceProperty.h>

#include <cstdint>
#include <optional>
#include <vector>

namespace Marivane::Logging {

// What one data source contributed to a file (FileSummary::sources). Sizes
// are payload bytes as the application logged them, before compression.
//
// A plain value: copy it freely.
struct SourceSummary {
    DataSource source;
    std::vector<DataSourceProperty> properties;
    int64_t entryCount = 0;
    uint64_t payloadBytes = 0;
    // Absent while the source has no readable entry.
    std::optional<int64_t> firstTimestamp;
    std::optional<int64_t> lastTimestamp;
};

}  // namespace Marivane::Logging
