// Creates a log file through the installed class interface and reads it back.
#include <logging/Logging.h>

#include <cstdio>
#include <filesystem>

using namespace Marivane::Logging;

int main(int argc, char** argv) {
    if (argc != 2) {
        return 2;
    }
    {
        SqliteLogFile file(argv[1], "UTC", "consumer", "1.0", 3, 1700000000000);
        DataSource source;
        source.type = MV_LogDataSourceType_Camera;
        source.name = "camera";
        if (!file.addDataSource(source)) {
            return 1;
        }
        DataEntry entry;
        entry.dataSourceId = source.id;
        entry.type = 1;
        entry.data = ByteBuffer(1000, std::byte{42});
        entry.timestamp = 1700000000001;
        if (!file.logData(entry)) {
            return 1;
        }
    }
    SqliteLogFile reopened{std::filesystem::path(argv[1])};
    const std::vector<DataEntry> entries = reopened.readEntries(-1, -1, EntryIndexFilter{}, -1);
    if (entries.size() != 1 || entries[0].data != ByteBuffer(1000, std::byte{42})) {
        std::fprintf(stderr, "read back wrong entries\n");
        return 1;
    }
    try {
        std::unique_ptr<LogFileInterface> copy =
            Algorithms::clone(reopened, std::string(argv[1]) + ".clone", "consumer", "1.0", 0);
        return copy && copy->getEntryCount() == 1 ? 0 : 1;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "clone failed: %s\n", error.what());
        return 1;
    }
}
