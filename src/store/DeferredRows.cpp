#include "DeferredRows.h"

namespace Marivane::Logging {

void DeferredRows::hold(int64_t timestamp, int32_t type, int8_t dataSourceId, const std::byte* data,
                        std::size_t size) {
    if (rows_.empty()) {
        rows_.reserve(kRowsPerStatement);
        bytes_.reserve(kRowsPerStatement * 256);
    }
    const std::size_t offset = bytes_.size();
    bytes_.insert(bytes_.end(), data, data + size);
    rows_.push_back(Row{timestamp, type, dataSourceId, offset, size});
}

void DeferredRows::clear() {
    rows_.clear();
    bytes_.clear();
}

}  // namespace Marivane::Logging
