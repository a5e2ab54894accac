#include "DamagedFiles.h"

#include "recover/PageScanner.h"

#include <logging/SqliteLogFile.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace RecoverTest {

using Marivane::Logging::Bookmark;
using Marivane::Logging::DataEntry;
using Marivane::Logging::DataSource;
using Marivane::Logging::DataSourceProperty;
using Marivane::Logging::SqliteLogFile;
using Marivane::Logging::Recovery::PageScanner;
using Marivane::Logging::Recovery::ScannedCell;

namespace {

constexpr int64_t kStart = 1'700'000'000'000;

std::size_t pick(std::mt19937& random, std::size_t low, std::size_t high) {
    return std::uniform_int_distribution<std::size_t>(low, high)(random);
}

ByteBuffer payloadFor(std::mt19937& random) {
    const std::size_t roll = pick(random, 0, 99);
    const std::size_t size = roll < 70   ? pick(random, 1, 400)
                             : roll < 95 ? pick(random, 1000, 6000)
                                         : pick(random, 10000, 40000);
    if (pick(random, 0, 1) == 0) {
        return randomBytes(size, random);
    }
    // Compressible: a repeated pattern with a little noise.
    ByteBuffer bytes(size);
    const auto seed = static_cast<uint8_t>(pick(random, 0, 255));
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::byte>(static_cast<uint8_t>(seed + (i % 17)));
    }
    for (std::size_t i = 0; i < size / 50; ++i) {
        bytes[pick(random, 0, size - 1)] = static_cast<std::byte>(pick(random, 0, 255));
    }
    return bytes;
}

// A data row: NULL for the id alias, four integers, a blob.
bool isDataCell(const ScannedCell& cell) {
    using Kind = Marivane::Logging::Recovery::RecordValue::Kind;
    using Marivane::Logging::Recovery::kindOfSerialType;
    const std::vector<uint64_t>& t = cell.serialTypes;
    return t.size() == 6 && t[0] == 0 && kindOfSerialType(t[1]) == Kind::Integer &&
           kindOfSerialType(t[2]) == Kind::Integer && kindOfSerialType(t[3]) == Kind::Integer &&
           kindOfSerialType(t[4]) == Kind::Integer && kindOfSerialType(t[5]) == Kind::Blob;
}

void overwritePage(const std::filesystem::path& path, uint32_t page, uint32_t pageSize,
                   const ByteBuffer& bytes) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(page - 1) * pageSize);
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

ByteBuffer readWhole(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    ByteBuffer bytes(std::filesystem::file_size(path));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

// Changes one byte of an entry's stored payload where the file holds it,
// found as the only place on the entry's pages where the bytes around it
// occur; false when no such place turns up (a payload too short or too
// repetitive, or the bytes tried run across two pages).
bool garbleOneByteOf(const OriginalFile& original, int32_t id, ByteBuffer& file, std::mt19937& random) {
    constexpr std::size_t kAround = 12;
    const ByteBuffer& stored = original.stored.at(id);
    if (stored.size() < 2 * kAround + 1) {
        return false;
    }
    for (int attempt = 0; attempt < 20; ++attempt) {
        const std::size_t at = pick(random, kAround, stored.size() - kAround - 1);
        const auto window = stored.begin() + static_cast<std::ptrdiff_t>(at - kAround);
        std::vector<std::size_t> places;
        for (const uint32_t page : original.pagesOf.at(id)) {
            const auto first = file.begin() + static_cast<std::ptrdiff_t>(page - 1) * original.pageSize;
            const auto last = first + original.pageSize;
            for (auto found = std::search(first, last, window, window + 2 * kAround + 1); found != last;
                 found = std::search(found + 1, last, window, window + 2 * kAround + 1)) {
                places.push_back(static_cast<std::size_t>(found - file.begin()) + kAround);
            }
        }
        if (places.size() == 1) {
            file[places.front()] ^= static_cast<std::byte>(pick(random, 1, 255));
            return true;
        }
    }
    return false;
}

std::vector<uint32_t> pagesOfType(const OriginalFile& original, uint8_t type) {
    PageScanner scanner(original.path, original.path);
    std::vector<uint32_t> pages;
    for (uint32_t page = 2; page <= scanner.pageCount(); ++page) {
        if (scanner.pageType(page) == type) {
            pages.push_back(page);
        }
    }
    return pages;
}

}  // namespace

ByteBuffer randomBytes(std::size_t size, std::mt19937& random) {
    ByteBuffer bytes(size);
    for (std::byte& b : bytes) {
        b = static_cast<std::byte>(random() & 0xff);
    }
    return bytes;
}

OriginalFile writeOriginal(const std::filesystem::path& path, int8_t level, int entries, std::mt19937& random,
                           bool entryChecksums) {
    OriginalFile original;
    original.path = path;
    original.level = level;
    {
        SqliteLogFile file(path.string(), "Europe/Oslo", "corpus", "1.0", level, kStart,
                           Marivane::Logging::Durability::Fast, entryChecksums);
        std::vector<int8_t> sources;
        for (const char* name : {"camera", "lidar", "gnss"}) {
            DataSource source{-1, MV_LogDataSourceType_Generic, name};
            if (!file.addDataSource(source)) {
                throw std::runtime_error("cannot add a data source");
            }
            sources.push_back(source.id);
            (void)file.addDataSourceProperty(DataSourceProperty{source.id, "rate", int64_t{10}});
        }
        (void)file.addMetadata("site", std::string("north pier"));
        (void)file.addResource("calibration", randomBytes(3000, random));
        (void)file.addResource("notes", ByteBuffer(200, std::byte{'n'}));
        auto batch = file.beginBatch();
        for (int id = 1; id <= entries; ++id) {
            DataEntry entry;
            entry.dataSourceId = sources[static_cast<std::size_t>(id) % sources.size()];
            entry.type = 10 + id % 3;
            entry.timestamp = kStart + id * 10;
            entry.data = payloadFor(random);
            if (!file.logData(entry)) {
                throw std::runtime_error("cannot log an entry");
            }
            original.payloads[id] = entry.data;
        }
        (void)batch.commit();
        for (int id = 5; id <= entries; id += entries / 4) {
            (void)file.addBookmark(
                Bookmark{id, "mark " + std::to_string(id), "", ByteBuffer(10, std::byte{1})});
        }
    }
    PageScanner scanner(path, path);
    original.pageSize = scanner.pageSize();
    original.pageCount = scanner.pageCount();
    scanner.forEachCell([](const ScannedCell& cell) { return isDataCell(cell); },
                        [&](const ScannedCell& cell) {
                            if (!isDataCell(cell)) {
                                return;
                            }
                            if (!cell.complete) {
                                throw std::runtime_error("a healthy file holds an incomplete cell");
                            }
                            original.stored[static_cast<int32_t>(cell.rowid)] = cell.values[5].bytes;
                            std::vector<uint32_t>& pages = original.pagesOf[static_cast<int32_t>(cell.rowid)];
                            pages.push_back(cell.page);
                            pages.insert(pages.end(), cell.overflowPages.begin(), cell.overflowPages.end());
                        });
    if (original.pagesOf.size() != original.payloads.size()) {
        throw std::runtime_error("the page scanner did not find every entry of a healthy file");
    }
    return original;
}

Damage damageCopy(const OriginalFile& original, const std::filesystem::path& copy, int kind,
                  std::mt19937& random) {
    std::filesystem::copy_file(original.path, copy);
    const uint32_t pages = original.pageCount;
    const uint32_t size = original.pageSize;
    Damage damage;
    auto randomPage = [&] { return static_cast<uint32_t>(pick(random, 2, pages)); };
    auto garble = [&](uint32_t page) {
        overwritePage(copy, page, size, randomBytes(size, random));
        damage.pages.insert(page);
    };
    auto zero = [&](uint32_t page) {
        overwritePage(copy, page, size, ByteBuffer(size));
        damage.pages.insert(page);
    };
    auto garbleSome = [&](std::vector<uint32_t> candidates, std::size_t most) {
        std::shuffle(candidates.begin(), candidates.end(), random);
        const std::size_t count = std::min(candidates.size(), pick(random, 1, most));
        for (std::size_t i = 0; i < count; ++i) {
            garble(candidates[i]);
        }
    };
    switch (kind) {
        case 0: {
            damage.kind = "truncated";
            const uint64_t cut = pick(random, 2 * std::size_t{size}, std::size_t{pages} * size - 1);
            std::filesystem::resize_file(copy, cut);
            for (uint32_t page = static_cast<uint32_t>(cut / size) + 1; page <= pages; ++page) {
                damage.pages.insert(page);
            }
            break;
        }
        case 1: {
            damage.kind = "zeroed pages";
            const std::size_t count = pick(random, 1, 4);
            for (std::size_t i = 0; i < count; ++i) {
                zero(randomPage());
            }
            break;
        }
        case 2: {
            damage.kind = "garbled pages";
            const std::size_t count = pick(random, 1, 4);
            for (std::size_t i = 0; i < count; ++i) {
                garble(randomPage());
            }
            break;
        }
        case 3:
            damage.kind = "garbled interior pages";
            garbleSome(pagesOfType(original, 0x05), 2);
            break;
        case 4:
            damage.kind = "garbled leaf pages";
            garbleSome(pagesOfType(original, 0x0D), 3);
            break;
        case 5: {
            damage.kind = "garbled overflow pages";
            std::vector<uint32_t> overflow;
            for (const auto& [id, entryPages] : original.pagesOf) {
                overflow.insert(overflow.end(), entryPages.begin() + 1, entryPages.end());
            }
            garbleSome(overflow, 4);
            break;
        }
        case 6:
            damage.kind = "damaged schema page and garbled pages";
            garble(1);
            garble(randomPage());
            garble(randomPage());
            break;
        case 7:
            damage.kind = "zeroed schema page";
            zero(1);
            break;
        case 8: {
            damage.kind = "garbled journal and zeroed pages";
            std::ofstream journal(copy.string() + "-journal", std::ios::binary);
            const ByteBuffer garbage = randomBytes(3 * std::size_t{size}, random);
            journal.write(reinterpret_cast<const char*>(garbage.data()),
                          static_cast<std::streamsize>(garbage.size()));
            zero(randomPage());
            zero(randomPage());
            break;
        }
        case 9: {
            // A cut inside one of the last pages, half of them a few bytes
            // short: SQLite reads the missing bytes of a page as zeros.
            damage.kind = "cut inside the last pages";
            const uint64_t end = std::size_t{pages} * size;
            const uint64_t cut = end - (pick(random, 0, 1) == 0 ? pick(random, 1, 16)
                                                                : pick(random, 1, 3 * std::size_t{size} - 1));
            std::filesystem::resize_file(copy, cut);
            for (uint32_t page = static_cast<uint32_t>(cut / size) + 1; page <= pages; ++page) {
                damage.pages.insert(page);
            }
            break;
        }
        case kGarbledInsidePayloads: {
            damage.kind = "garbled inside a payload";
            ByteBuffer bytes = readWhole(copy);
            const std::size_t count = pick(random, 1, 4);
            while (damage.entries.size() < count) {
                const auto id = static_cast<int32_t>(pick(random, 1, original.stored.size()));
                if (damage.entries.count(id) == 0 && garbleOneByteOf(original, id, bytes, random)) {
                    damage.entries.insert(id);
                }
            }
            std::ofstream(copy, std::ios::binary | std::ios::trunc)
                .write(reinterpret_cast<const char*>(bytes.data()),
                       static_cast<std::streamsize>(bytes.size()));
            break;
        }
        default:
            throw std::invalid_argument("no such kind of damage: " + std::to_string(kind));
    }
    return damage;
}

std::map<int32_t, ByteBuffer> readPayloads(const std::filesystem::path& path) {
    std::map<int32_t, ByteBuffer> payloads;
    const SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    file.visitEntries(Marivane::Logging::EntryRange::all(), Marivane::Logging::EntryIndexFilter(),
                      [&](const Marivane::Logging::EntryView& view) {
                          payloads[view.entryId] = ByteBuffer(view.data, view.data + view.size);
                          return true;
                      });
    return payloads;
}

}  // namespace RecoverTest
