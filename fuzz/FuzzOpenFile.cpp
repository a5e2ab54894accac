// Opens arbitrary bytes as a log file and, when that succeeds, runs every read.
// Allowed outcomes: the documented results, and the documented exceptions
// (not a log file, legacy file, database access errors, damaged payloads).
#include "FuzzSupport.h"

#include <logging/SqliteLogFile.h>

#include <stdexcept>

using namespace Marivane::Logging;

namespace {

void readEverything(const SqliteLogFile& file) {
    file.getDataSources();
    file.getAllDataSourceProperties();
    file.getDataSourceProperty(1, "key");
    file.getFirstEntryId();
    file.getLastEntryId();
    file.getEntryCount();
    file.getAllMetadata();
    file.getMetadataValue("logVersion");
    file.getLastError();
    const std::vector<int32_t> ids = file.getEntryIndex(EntryIndexFilter{});
    for (std::size_t i = 0; i < ids.size() && i < 64; ++i) {
        file.readEntry(ids[i]);
    }
    EntryIndexFilter filter;
    filter.dataTypes = {0, 1};
    filter.dataSources = {1, -1};
    filter.dataSourceTypes = {MV_LogDataSourceType_Camera};
    file.getEntryIndex(filter);
    file.readEntries(-1, -1, EntryIndexFilter{}, 64);
    file.readEntries(-1, -1, filter, -1);
    file.getBookmarks();
    file.getAllResources();
    file.getResource("thumbnail");
    file.getThumbnail();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::filesystem::path path = Marivane::Fuzzing::scratchPath("open.mvlog");
    Marivane::Fuzzing::writeFile(path, data, size);
    try {
        SqliteLogFile file{path};
        try {
            readEverything(file);
        } catch (const Marivane::Compression::CompressionError&) {
        } catch (const Marivane::Database::DatabaseAccessError&) {
        }
    } catch (const NotALogFileError&) {
    } catch (const LegacyLogFileError&) {
    } catch (const Marivane::Database::DatabaseAccessError&) {
    }
    Marivane::Fuzzing::removeFile(path);
    return 0;
}
