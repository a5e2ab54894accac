// Writes seed corpora for the fuzz targets from valid files:
//   make_corpus DIR  ->  DIR/open, DIR/uncompress, DIR/operations
#include <logging/SqliteLogFile.h>

#include <core/Compression.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>

using namespace Marivane::Logging;

namespace {

void writeBytes(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string readBytes(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

ByteBuffer pattern(std::size_t size, unsigned seed) {
    ByteBuffer bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::byte>((i * seed) / 7 + seed);
    }
    return bytes;
}

// A small but complete log file: sources, properties, entries, metadata,
// resources, a thumbnail and bookmarks.
void writeLogFile(const std::filesystem::path& path, int8_t level, int entries) {
    std::filesystem::remove(path);
    SqliteLogFile file(path.string(), "UTC", "corpus", "1.0", level, 1700000000000);
    DataSource camera{-1, MV_LogDataSourceType_Camera, "camera"};
    DataSource navigation{-1, MV_LogDataSourceType_Navigation, "navigation"};
    file.addDataSource(camera);
    file.addDataSource(navigation);
    file.addDataSourceProperty({camera.id, "width", PropertyValue(int32_t{64})});
    file.addDataSourceProperty({navigation.id, "frame", PropertyValue(std::string("wgs84"))});
    for (int i = 0; i < entries; ++i) {
        DataEntry entry;
        entry.dataSourceId = i % 2 ? navigation.id : camera.id;
        entry.type = i % 3;
        entry.timestamp = 1700000000000 + i * 20;
        entry.data = pattern(static_cast<std::size_t>(16 + i * 5), static_cast<unsigned>(i));
        file.logData(entry);
    }
    file.addMetadata("site", PropertyValue(std::string("test track")));
    file.addResource("calibration", pattern(40, 3));
    file.setThumbnail(pattern(30, 5));
    if (entries > 0) {
        file.addBookmark({1, "start", "first entry", pattern(8, 9)});
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: make_corpus DIR\n";
        return 2;
    }
    const std::filesystem::path root = argv[1];
    const std::filesystem::path open = root / "open";
    const std::filesystem::path uncompress = root / "uncompress";
    const std::filesystem::path operations = root / "operations";
    for (const auto& directory : {open, uncompress, operations}) {
        std::filesystem::create_directories(directory);
    }

    const std::filesystem::path scratch = root / "scratch.mvlog";
    const std::pair<int8_t, int> shapes[] = {{0, 6}, {-1, 6}, {9, 3}, {0, 0}};
    int index = 0;
    for (const auto& [level, entries] : shapes) {
        writeLogFile(scratch, level, entries);
        writeBytes(open / ("log-" + std::to_string(index++)), readBytes(scratch));
    }
    std::filesystem::remove(scratch);
    writeBytes(open / "legacy", std::string("\x44\x33\x22\x11legacy log", 14));
    writeBytes(open / "empty", "");

    for (const std::size_t size : {0, 1, 100, 5000}) {
        const ByteBuffer frame = Marivane::Compression::compress(pattern(size, 11), -1);
        writeBytes(uncompress / ("frame-" + std::to_string(size)),
                   std::string(reinterpret_cast<const char*>(frame.data()), frame.size()));
    }

    std::mt19937 random(12345);
    for (int i = 0; i < 8; ++i) {
        std::string sequence;
        sequence.push_back(static_cast<char>(i));
        // Two data sources first, then random operations.
        sequence += std::string(
            "\x00\x01"
            "a\x00\x02"
            "b",
            6);
        for (int j = 0; j < 200; ++j) {
            sequence.push_back(static_cast<char>(random() & 0xFF));
        }
        writeBytes(operations / ("ops-" + std::to_string(i)), sequence);
    }
    return 0;
}
