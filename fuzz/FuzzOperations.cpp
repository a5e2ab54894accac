// Runs a sequence of operations decoded from the input against a real log
// file and checks what it can against a simple model: every logged payload
// reads back byte for byte, counts and ids match, bookmarks and metadata
// behave as documented, and slices hold what they should.
#include "FuzzSupport.h"

#include <logging/Algorithms.h>
#include <logging/SqliteLogFile.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <set>

using namespace Marivane::Logging;
using Marivane::Fuzzing::InputReader;

namespace {

#define FUZZ_CHECK(condition) \
    do {                      \
        if (!(condition)) {   \
            std::abort();     \
        }                     \
    } while (0)

struct Model {
    std::set<int8_t> sources;
    std::map<int32_t, DataEntry> entries;
    std::set<std::string> metadataKeys;
    std::set<std::string> resourceNames;
};

EntryIndexFilter decodeFilter(InputReader& input) {
    EntryIndexFilter filter;
    const uint8_t shape = input.byte();
    for (int i = 0; i < shape % 3; ++i) {
        filter.dataTypes.push_back(input.byte() % 4);
    }
    for (int i = 0; i < (shape / 3) % 3; ++i) {
        filter.dataSources.push_back(static_cast<int8_t>(input.byte() % 5));
    }
    for (int i = 0; i < (shape / 9) % 3; ++i) {
        filter.dataSourceTypes.push_back(static_cast<MV_LogDataSourceType>(input.byte() % 3));
    }
    return filter;
}

bool admits(const EntryIndexFilter& filter, const DataEntry& entry, MV_LogDataSourceType sourceType) {
    auto contains = [](const auto& list, auto value) {
        return list.empty() || std::find(list.begin(), list.end(), value) != list.end();
    };
    return contains(filter.dataTypes, entry.type) && contains(filter.dataSources, entry.dataSourceId) &&
           contains(filter.dataSourceTypes, sourceType);
}

void runOperation(SqliteLogFile& file, Model& model, std::map<int8_t, MV_LogDataSourceType>& types,
                  InputReader& input) {
    switch (input.byte() % 12) {
        case 0: {
            DataSource source{-1, static_cast<MV_LogDataSourceType>(input.byte() % 3), input.text(8)};
            if (model.sources.size() < 4 && file.addDataSource(source)) {
                model.sources.insert(source.id);
                types[source.id] = source.type;
            }
            break;
        }
        case 1: {
            const DataSourceProperty property{static_cast<int8_t>(input.byte() % 5), input.text(6),
                                              PropertyValue(input.int32())};
            const bool known = model.sources.count(property.dataSourceId) != 0;
            FUZZ_CHECK(file.addDataSourceProperty(property) == known);
            break;
        }
        case 2:
        case 3: {
            DataEntry entry;
            entry.dataSourceId = static_cast<int8_t>(input.byte() % 5);
            entry.type = input.byte() % 4;
            entry.timestamp = input.int32();
            entry.data = input.bytes(300);
            const bool known = model.sources.count(entry.dataSourceId) != 0;
            FUZZ_CHECK(file.logData(entry) == known);
            if (known) {
                entry.entryId = file.getLastEntryId();
                model.entries[entry.entryId] = entry;
            } else {
                FUZZ_CHECK(file.getLastError() ==
                           "Attempted to log data against a data source that did not exist in the file.");
            }
            break;
        }
        case 4: {
            const int32_t id = input.smallId();
            const std::optional<DataEntry> read = file.readEntry(id);
            const auto expected = model.entries.find(id);
            FUZZ_CHECK(read.has_value() == (expected != model.entries.end()));
            if (read) {
                FUZZ_CHECK(read->data == expected->second.data && read->type == expected->second.type &&
                           read->timestamp == expected->second.timestamp &&
                           read->dataSourceId == expected->second.dataSourceId);
            }
            break;
        }
        case 5: {
            const int32_t minimum = input.smallId();
            const int32_t maximum = input.smallId();
            const EntryIndexFilter filter = decodeFilter(input);
            const int32_t limit = static_cast<int32_t>(input.byte() % 8) - 1;
            const std::vector<DataEntry> read = file.readEntries(minimum, maximum, filter, limit);
            for (std::size_t i = 0; i < read.size(); ++i) {
                const auto expected = model.entries.find(read[i].entryId);
                FUZZ_CHECK(expected != model.entries.end() && expected->second.data == read[i].data);
                FUZZ_CHECK(admits(filter, read[i], types[read[i].dataSourceId]));
                FUZZ_CHECK(i == 0 || read[i - 1].entryId < read[i].entryId);
            }
            if (limit > 0) {
                FUZZ_CHECK(read.size() <= static_cast<std::size_t>(limit));
            }
            break;
        }
        case 6: {
            const EntryIndexFilter filter = decodeFilter(input);
            std::vector<int32_t> expected;
            for (const auto& [id, entry] : model.entries) {
                if (admits(filter, entry, types[entry.dataSourceId])) {
                    expected.push_back(id);
                }
            }
            FUZZ_CHECK(file.getEntryIndex(filter) == expected);
            break;
        }
        case 7: {
            Bookmark bookmark{input.smallId(), input.text(8), input.text(8), input.bytes(40)};
            const bool exists = model.entries.count(bookmark.entryId) != 0;
            FUZZ_CHECK(file.addBookmark(bookmark) == exists);
            break;
        }
        case 8: {
            const Bookmark bookmark{input.smallId(), input.text(8), input.text(8), input.bytes(40)};
            if (input.byte() % 2) {
                FUZZ_CHECK(file.updateBookmark(bookmark) || model.entries.count(bookmark.entryId) == 0);
            } else {
                FUZZ_CHECK(file.removeBookmark(bookmark));
            }
            for (const Bookmark& stored : file.getBookmarks()) {
                FUZZ_CHECK(model.entries.count(stored.entryId) != 0);
            }
            break;
        }
        case 9: {
            const std::string key = input.text(4);
            const bool added = file.addMetadata(key, PropertyValue(input.text(10)));
            FUZZ_CHECK(added == model.metadataKeys.insert(key).second);
            break;
        }
        case 10: {
            const std::string name = input.text(4);
            const ByteBuffer data = input.bytes(200);
            const bool added = file.addResource(name, data);
            FUZZ_CHECK(added == model.resourceNames.insert(name).second);
            if (added && name != "thumbnail") {
                FUZZ_CHECK(file.getResource(name) == data);
            }
            break;
        }
        default: {
            const std::filesystem::path output = Marivane::Fuzzing::scratchPath("slice.mvlog");
            Marivane::Fuzzing::removeFile(output);
            const int32_t start = input.smallId();
            const int32_t end = input.smallId();
            std::unique_ptr<LogFileInterface> slice = Algorithms::slice(
                file, start, end, output.string(), "fuzz", "1", static_cast<int8_t>(input.byte() % 3));
            if (slice) {
                std::vector<const DataEntry*> inRange;
                for (const auto& [id, entry] : model.entries) {
                    if (id >= start && id <= end) {
                        inRange.push_back(&entry);
                    }
                }
                const std::vector<DataEntry> copied = slice->readEntries(-1, -1, EntryIndexFilter{}, -1);
                FUZZ_CHECK(copied.size() == inRange.size());
                for (std::size_t i = 0; i < copied.size(); ++i) {
                    FUZZ_CHECK(copied[i].entryId == static_cast<int32_t>(i + 1) &&
                               copied[i].data == inRange[i]->data);
                }
            }
            slice.reset();
            Marivane::Fuzzing::removeFile(output);
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::filesystem::path path = Marivane::Fuzzing::scratchPath("operations.mvlog");
    Marivane::Fuzzing::removeFile(path);
    InputReader input(data, size);
    {
        const int8_t level = static_cast<int8_t>(static_cast<int>(input.byte() % 11) - 1);
        SqliteLogFile file(path.string(), "UTC", "fuzz", "1", level, 0);
        Model model;
        // The fixed keys exist from creation on.
        model.metadataKeys = {"createdDateTime", "applicationName", "applicationVersion",
                              "currentTimeZone", "logVersion",      "compressionLevel"};
        std::map<int8_t, MV_LogDataSourceType> types;
        for (int operations = 0; !input.empty() && operations < 64; ++operations) {
            runOperation(file, model, types, input);
        }
        FUZZ_CHECK(file.getEntryCount() == static_cast<int32_t>(model.entries.size()));
    }
    Marivane::Fuzzing::removeFile(path);
    return 0;
}
