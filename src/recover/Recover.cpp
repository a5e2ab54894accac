#include <logging/Recover.h>

#include "derive/PendingOutput.h"
#include "model/FixedMetadataKeys.h"
#include "model/Outcome.h"
#include "recover/PageScanner.h"
#include "store/ReturnPropertyValueVisitor.h"
#include "store/StoreAccess.h"

#include <logging/CompressionLevel.h>
#include <logging/SqliteLogFile.h>

#include <core/Checksum.h>
#include <core/Chrono.h>
#include <core/Compression.h>
#include <database/SqliteDatabase.h>
#include <database/SqliteQuery.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

namespace Marivane::Logging::Algorithms {

namespace {

using Database::SqliteDatabase;
using Database::SqliteQuery;
using Recovery::PageScanner;
using Recovery::RecordValue;
using Recovery::ScannedCell;
using Kind = Recovery::RecordValue::Kind;

constexpr std::size_t kBatchEntries = 4096;
constexpr std::size_t kBatchBytes = 64 * 1024 * 1024;
constexpr uint64_t kProgressEvery = 1024;
// Rowids of the log tables stay within 32 bits (entry ids are int32_t, data
// source ids int8_t); probing past damage never looks beyond.
constexpr int64_t kLowestRowid = std::numeric_limits<int32_t>::min();
constexpr int64_t kHighestRowid = std::numeric_limits<int32_t>::max();
// Payloads looked at to tell compressed files from uncompressed ones when
// the metadata that says so is lost.
constexpr int kCompressionSamples = 64;

// ---- room on the disk ---------------------------------------------------------

// Whether a failed write says the disk is full, may hide a full disk (a
// device error, which is how some file systems report one to a copy), or
// says something else.
enum class FullDisk { Said, Possible, No };

// A failure to write beside the output: the copies of the damaged file or
// the new file.
class WriteFailure : public std::runtime_error {
public:
    WriteFailure(const std::string& message, FullDisk fullDisk)
        : std::runtime_error(message), fullDisk_(fullDisk) {}
    FullDisk fullDisk() const { return fullDisk_; }

private:
    FullDisk fullDisk_;
};

FullDisk fullDiskOf(const std::error_code& error) {
    if (error == std::errc::no_space_on_device ||
        (error.category() == std::generic_category() && error.value() == EDQUOT) ||
        (error.category() == std::system_category() && error.value() == EDQUOT)) {
        return FullDisk::Said;
    }
    return error == std::errc::io_error ? FullDisk::Possible : FullDisk::No;
}

FullDisk fullDiskOf(FailureKind kind) {
    if (kind == FailureKind::Full) {
        return FullDisk::Said;
    }
    return kind == FailureKind::IoError || kind == FailureKind::Other ? FullDisk::Possible : FullDisk::No;
}

std::filesystem::path directoryOf(const std::filesystem::path& output) {
    return output.has_parent_path() ? output.parent_path() : std::filesystem::path(".");
}

// Bytes free for this process where `output` goes; the most there is when
// that cannot be told.
uintmax_t roomAt(const std::filesystem::path& output) {
    std::error_code error;
    const std::filesystem::space_info space = std::filesystem::space(directoryOf(output), error);
    return error ? std::numeric_limits<uintmax_t>::max() : space.available;
}

uintmax_t sizeOrZero(const std::filesystem::path& path) {
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(path, error);
    return error ? 0 : size;
}

// The copies of the damaged file and its journal or write-ahead log.
uintmax_t roomForCopies(const std::filesystem::path& damaged) {
    return sizeOrZero(damaged) + sizeOrZero(damaged.string() + "-journal") +
           sizeOrZero(damaged.string() + "-wal");
}

// The copies, and a new file that is at most about as large as the damaged
// one (it holds the same stored bytes, or fewer).
uintmax_t roomForSalvage(const std::filesystem::path& damaged) {
    return roomForCopies(damaged) + sizeOrZero(damaged);
}

std::string mebibytes(uintmax_t bytes, bool roundUp) {
    constexpr double kTenthOfMebibyte = 1024.0 * 1024.0 / 10.0;
    const double tenths = static_cast<double>(bytes) / kTenthOfMebibyte;
    const double rounded = roundUp ? std::ceil(tenths) : std::floor(tenths);
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f", rounded / 10.0);
    return text.data();
}

[[noreturn]] void throwNotEnoughRoom(const std::filesystem::path& output, uintmax_t needed,
                                     uintmax_t available) {
    throw std::runtime_error("Not enough room on the disk for '" + output.string() +
                             "': recovering needs about " + mebibytes(needed, true) + " MiB free, " +
                             mebibytes(available, false) + " MiB are free.");
}

// ---- the damaged file's bytes, copied where SQLite may work on them --------

// SQLite may have to apply a hot journal or a write-ahead log before it can
// read a file, which writes to the file and removes the side files. The
// damaged file and its side files are therefore copied into a private
// directory beside the output, and only the copies are opened.
class Snapshot {
public:
    Snapshot(const std::filesystem::path& damaged, const std::filesystem::path& output) {
        std::error_code error;
        if (!std::filesystem::is_regular_file(damaged, error)) {
            throw std::runtime_error("Cannot read '" + damaged.string() +
                                     "': it is missing or not a regular file.");
        }
        static std::atomic<unsigned> counter{0};
        const std::filesystem::path parent = output.parent_path();
        for (;;) {
            std::string name = ".";
            name += output.filename().string();
            name += ".salvage-";
            name += std::to_string(::getpid());
            name += '-';
            name += std::to_string(counter++);
            directory_ = parent / name;
            if (std::filesystem::create_directory(directory_, error)) {
                break;
            }
            if (error) {
                throw WriteFailure("Cannot write '" + output.string() + "': " + error.message(),
                                   fullDiskOf(error));
            }
        }
        // Copies that cannot fit are not started: they could take long to
        // fail on a large file.
        if (roomAt(output) < roomForCopies(damaged)) {
            std::error_code ignored;
            std::filesystem::remove_all(directory_, ignored);
            throw WriteFailure("Cannot copy '" + damaged.string() + "' beside '" + output.string() + "'",
                               FullDisk::Said);
        }
        path_ = directory_ / "damaged.log";
        copy(damaged, path_, output);
        for (const char* suffix : {"-journal", "-wal"}) {
            const std::filesystem::path side = damaged.string() + suffix;
            if (std::filesystem::is_regular_file(side, error)) {
                copy(side, path_.string() + suffix, output);
            }
        }
    }
    ~Snapshot() {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    void copy(const std::filesystem::path& from, const std::filesystem::path& to,
              const std::filesystem::path& output) {
        std::error_code error;
        if (!std::filesystem::copy_file(from, to, error)) {
            std::error_code ignored;
            std::filesystem::remove_all(directory_, ignored);
            throw WriteFailure("Cannot copy '" + from.string() + "' beside '" + output.string() +
                                   "' to salvage it: " + error.message(),
                               fullDiskOf(error));
        }
    }

    std::filesystem::path directory_;
    std::filesystem::path path_;
};

// ---- rows as they are found, before they are written ------------------------

struct MetadataRow {
    std::string key;
    PropertyValue value;
};

struct ResourceRow {
    std::string name;
    ByteBuffer stored;
};

struct BookmarkRow {
    int64_t entryId = 0;
    std::string title;
    std::string comments;
    std::optional<ByteBuffer> stored;
};

// The small tables, by rowid; a rowid read through SQLite is never replaced
// by one found in the pages.
struct SmallTables {
    std::map<int64_t, DataSource> sources;
    std::map<int64_t, DataSourceProperty> properties;
    std::map<int64_t, MetadataRow> metadata;
    std::map<int64_t, ResourceRow> resources;
    std::map<int64_t, BookmarkRow> bookmarks;
    // Rows seen whose bytes are damaged, by table.
    std::set<int64_t> damagedSources, damagedProperties, damagedMetadata, damagedResources, damagedBookmarks;
    bool sourcesClean = false;
    bool propertiesClean = false;
    bool metadataClean = false;
    bool resourcesClean = false;
    bool bookmarksClean = false;

    bool allClean() const {
        return sourcesClean && propertiesClean && metadataClean && resourcesClean && bookmarksClean;
    }

    const PropertyValue* metadataValue(const std::string& key) const {
        for (const auto& [rowid, row] : metadata) {
            if (row.key == key) {
                return &row.value;
            }
        }
        return nullptr;
    }
    std::optional<int64_t> metadataInteger(const std::string& key) const {
        const PropertyValue* value = metadataValue(key);
        if (value == nullptr) {
            return std::nullopt;
        }
        if (const auto* wide = std::get_if<int64_t>(value)) {
            return *wide;
        }
        if (const auto* narrow = std::get_if<int32_t>(value)) {
            return *narrow;
        }
        return std::nullopt;
    }
    std::string metadataText(const std::string& key) const {
        const PropertyValue* value = metadataValue(key);
        const auto* text = value != nullptr ? std::get_if<std::string>(value) : nullptr;
        return text != nullptr ? *text : std::string();
    }
};

std::string textOf(const ByteBuffer& bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

bool fitsDataSourceId(int64_t id) {
    return id >= std::numeric_limits<int8_t>::min() && id <= std::numeric_limits<int8_t>::max();
}

bool fitsInt32(int64_t value) {
    return value >= std::numeric_limits<int32_t>::min() && value <= std::numeric_limits<int32_t>::max();
}

// ---- reading through SQLite, past damaged pages ----------------------------

// Reads a table in rowid order. SQLite stops at the first page it cannot
// read, and a scan started again just after the last good row descends to
// the same page; so the start moves ahead in doubling steps until a scan can
// begin, then back by halves to the first start that still can, which is
// just past the damaged subtree. Whatever SQLite cannot reach this way is
// left to the page scan.
class ResilientTableReader {
public:
    using RowHandler = std::function<void(const SqliteQuery& query, int64_t rowid)>;

    ResilientTableReader(const SqliteDatabase& database, const std::string& table, const std::string& columns)
        : database_(database),
          sql_("SELECT rowid, " + columns + " FROM " + table + " WHERE rowid >= :from ORDER BY rowid;") {}

    // True when the table was read to its end without a failure.
    bool read(const RowHandler& onRow) {
        bool clean = true;
        int64_t from = kLowestRowid;
        for (;;) {
            int64_t lastRead = from - 1;
            const Outcome outcome = readFrom(from, onRow, lastRead);
            if (outcome == Outcome::Done) {
                return clean;
            }
            clean = false;
            if (outcome == Outcome::Unusable) {
                return false;
            }
            const std::optional<int64_t> next = nextReadableStart(std::max(lastRead + 1, from));
            if (!next) {
                return false;
            }
            from = *next;
        }
    }

private:
    enum class Outcome { Done, Failed, Unusable };

    // Only the statement's own failures are the table's: an exception of the
    // row handler (a write that failed, a progress callback) reaches the caller.
    Outcome readFrom(int64_t from, const RowHandler& onRow, int64_t& lastRead) {
        std::optional<SqliteQuery> query;
        try {
            query.emplace(database_, sql_);
            query->bindParameter(":from", from);
        } catch (const std::exception&) {
            // The statement cannot even be prepared: the schema is lost.
            return Outcome::Unusable;
        }
        for (;;) {
            const int32_t step = query->executeStep();
            if (step == Database::StepDone) {
                return Outcome::Done;
            }
            if (step != Database::StepRow) {
                return Outcome::Failed;
            }
            const std::optional<int64_t> rowid = query->getIntegerFromColumn(0);
            if (!rowid || *rowid <= lastRead) {
                return Outcome::Failed;
            }
            lastRead = *rowid;
            onRow(*query, *rowid);
        }
    }

    // A first step from `from`: true unless it fails.
    bool canStartAt(int64_t from) {
        try {
            SqliteQuery query(database_, sql_);
            query.bindParameter(":from", from);
            return query.executeStep() != Database::StepFailed;
        } catch (const std::exception&) {
            return false;
        }
    }

    std::optional<int64_t> nextReadableStart(int64_t failingStart) {
        int64_t failing = failingStart;
        int64_t step = 1;
        int64_t working = 0;
        for (;;) {
            const int64_t probe = failing + step;
            if (probe > kHighestRowid) {
                return std::nullopt;
            }
            if (canStartAt(probe)) {
                working = probe;
                break;
            }
            failing = probe;
            step *= 2;
        }
        while (working - failing > 1) {
            const int64_t middle = failing + (working - failing) / 2;
            if (canStartAt(middle)) {
                working = middle;
            } else {
                failing = middle;
            }
        }
        return working;
    }

    const SqliteDatabase& database_;
    std::string sql_;
};

std::optional<PropertyValue> propertyValueOf(const SqliteQuery& query, int column) {
    Database::ColumnValue value = query.getValueFromColumn(column);
    if (!value) {
        return std::nullopt;
    }
    return std::visit(Database::ReturnPropertyValueVisitor{}, *value);
}

std::optional<std::string> textColumn(const SqliteQuery& query, int column) {
    Database::ColumnValue value = query.getValueFromColumn(column);
    if (!value) {
        return std::nullopt;
    }
    if (auto* text = std::get_if<std::string>(&*value)) {
        return std::move(*text);
    }
    return std::nullopt;
}

std::optional<ByteBuffer> bytesColumn(const SqliteQuery& query, int column) {
    const std::optional<SqliteQuery::BorrowedBytes> bytes = query.borrowBytesFromColumn(column);
    if (!bytes) {
        return std::nullopt;
    }
    return ByteBuffer(bytes->data, bytes->data + bytes->size);
}

void readSmallTablesWithSqlite(const SqliteDatabase& database, SmallTables& tables) {
    tables.sourcesClean = ResilientTableReader(database, "dataSources", "dataSourceType, dataSourceName")
                              .read([&](const SqliteQuery& query, int64_t rowid) {
                                  const std::optional<int64_t> type = query.getIntegerFromColumn(1);
                                  std::optional<std::string> name = textColumn(query, 2);
                                  if (!fitsDataSourceId(rowid) || !type || !fitsInt32(*type) || !name) {
                                      tables.damagedSources.insert(rowid);
                                      return;
                                  }
                                  tables.sources[rowid] =
                                      DataSource{static_cast<int8_t>(rowid),
                                                 static_cast<MV_LogDataSourceType>(*type), std::move(*name)};
                              });
    tables.propertiesClean =
        ResilientTableReader(database, "dataSourceProperties", "dataSourceId, key, value")
            .read([&](const SqliteQuery& query, int64_t rowid) {
                const std::optional<int64_t> source = query.getIntegerFromColumn(1);
                std::optional<std::string> key = textColumn(query, 2);
                std::optional<PropertyValue> value = propertyValueOf(query, 3);
                if (!source || !fitsDataSourceId(*source) || !key || !value) {
                    tables.damagedProperties.insert(rowid);
                    return;
                }
                tables.properties[rowid] =
                    DataSourceProperty{static_cast<int8_t>(*source), std::move(*key), std::move(*value)};
            });
    tables.metadataClean = ResilientTableReader(database, "metadata", "key, value")
                               .read([&](const SqliteQuery& query, int64_t rowid) {
                                   std::optional<std::string> key = textColumn(query, 1);
                                   std::optional<PropertyValue> value = propertyValueOf(query, 2);
                                   if (!key || !value) {
                                       tables.damagedMetadata.insert(rowid);
                                       return;
                                   }
                                   tables.metadata[rowid] = MetadataRow{std::move(*key), std::move(*value)};
                               });
    tables.resourcesClean =
        ResilientTableReader(database, "resources", "name, payload")
            .read([&](const SqliteQuery& query, int64_t rowid) {
                std::optional<std::string> name = textColumn(query, 1);
                std::optional<ByteBuffer> stored = bytesColumn(query, 2);
                if (!name || !stored) {
                    tables.damagedResources.insert(rowid);
                    return;
                }
                tables.resources[rowid] = ResourceRow{std::move(*name), std::move(*stored)};
            });
    // Files older than format version 4 have no payload column; their
    // bookmarks are read without it.
    const bool withPayload = [&] {
        try {
            SqliteQuery probe(database, "SELECT payload FROM bookmarks LIMIT 0;");
            return true;
        } catch (const std::exception&) {
            return false;
        }
    }();
    tables.bookmarksClean =
        ResilientTableReader(database, "bookmarks",
                             withPayload ? "entryId, title, comments, payload" : "entryId, title, comments")
            .read([&](const SqliteQuery& query, int64_t rowid) {
                const std::optional<int64_t> entryId = query.getIntegerFromColumn(1);
                std::optional<std::string> title = textColumn(query, 2);
                if (!entryId || !fitsInt32(*entryId) || !title) {
                    tables.damagedBookmarks.insert(rowid);
                    return;
                }
                BookmarkRow row{*entryId, std::move(*title), textColumn(query, 3).value_or(std::string()),
                                std::nullopt};
                if (withPayload) {
                    row.stored = bytesColumn(query, 4);
                }
                tables.bookmarks[rowid] = std::move(row);
            });
}

// ---- recognising records in raw pages ---------------------------------------

// Each log table's records have a shape of their own: the number of columns
// and their kinds. An INTEGER PRIMARY KEY column is stored as NULL in the
// record (its value is the rowid), which tells data and dataSources apart
// from tables with an ordinary integer first column.
enum class Shape { Other, Data, DataSource, Property, Metadata, Resource, Bookmark, Checksum };

bool isValueKind(Kind kind) {
    return kind == Kind::Integer || kind == Kind::Real || kind == Kind::Text;
}

Shape shapeOf(const std::vector<uint64_t>& serialTypes) {
    std::vector<Kind> kinds;
    kinds.reserve(serialTypes.size());
    for (const uint64_t type : serialTypes) {
        kinds.push_back(Recovery::kindOfSerialType(type));
    }
    if (kinds.size() == 6 && kinds[0] == Kind::Null && kinds[1] == Kind::Integer &&
        kinds[2] == Kind::Integer && kinds[3] == Kind::Integer && kinds[4] == Kind::Integer &&
        kinds[5] == Kind::Blob) {
        return Shape::Data;
    }
    if (kinds.size() == 3 && kinds[0] == Kind::Null && kinds[1] == Kind::Integer && kinds[2] == Kind::Text) {
        return Shape::DataSource;
    }
    if (kinds.size() == 3 && kinds[0] == Kind::Integer && kinds[1] == Kind::Text && isValueKind(kinds[2])) {
        return Shape::Property;
    }
    if (kinds.size() == 2 && kinds[0] == Kind::Text && isValueKind(kinds[1])) {
        return Shape::Metadata;
    }
    if (kinds.size() == 2 && kinds[0] == Kind::Text && kinds[1] == Kind::Blob) {
        return Shape::Resource;
    }
    if (kinds.size() == 4 && kinds[0] == Kind::Integer && kinds[1] == Kind::Text &&
        (kinds[2] == Kind::Text || kinds[2] == Kind::Null) &&
        (kinds[3] == Kind::Blob || kinds[3] == Kind::Null)) {
        return Shape::Bookmark;
    }
    // entryChecksums(entryId INTEGER PRIMARY KEY, checksum INT NOT NULL).
    if (kinds.size() == 2 && kinds[0] == Kind::Null && kinds[1] == Kind::Integer) {
        return Shape::Checksum;
    }
    return Shape::Other;
}

PropertyValue propertyValueOf(const RecordValue& value) {
    switch (value.kind) {
        case Kind::Integer:
            return value.integer;
        case Kind::Real:
            return value.real;
        default:
            return textOf(value.bytes);
    }
}

// Adds what a cell holds to the tables whose SQLite read was incomplete.
void takeSmallTableCell(const ScannedCell& cell, Shape shape, SmallTables& tables) {
    auto take = [&](bool clean, auto& rows, std::set<int64_t>& damaged, auto makeRow) {
        if (clean || rows.count(cell.rowid) != 0) {
            return;
        }
        if (!cell.complete || cell.values.empty()) {
            damaged.insert(cell.rowid);
            return;
        }
        damaged.erase(cell.rowid);
        makeRow();
    };
    const std::vector<RecordValue>& v = cell.values;
    switch (shape) {
        case Shape::DataSource:
            if (fitsDataSourceId(cell.rowid)) {
                take(tables.sourcesClean, tables.sources, tables.damagedSources, [&] {
                    if (fitsInt32(v[1].integer)) {
                        tables.sources[cell.rowid] =
                            DataSource{static_cast<int8_t>(cell.rowid),
                                       static_cast<MV_LogDataSourceType>(v[1].integer), textOf(v[2].bytes)};
                    }
                });
            }
            break;
        case Shape::Property:
            take(tables.propertiesClean, tables.properties, tables.damagedProperties, [&] {
                if (fitsDataSourceId(v[0].integer)) {
                    tables.properties[cell.rowid] = DataSourceProperty{
                        static_cast<int8_t>(v[0].integer), textOf(v[1].bytes), propertyValueOf(v[2])};
                }
            });
            break;
        case Shape::Metadata:
            take(tables.metadataClean, tables.metadata, tables.damagedMetadata, [&] {
                tables.metadata[cell.rowid] = MetadataRow{textOf(v[0].bytes), propertyValueOf(v[1])};
            });
            break;
        case Shape::Resource:
            take(tables.resourcesClean, tables.resources, tables.damagedResources, [&] {
                tables.resources[cell.rowid] = ResourceRow{textOf(v[0].bytes), v[1].bytes};
            });
            break;
        case Shape::Bookmark:
            take(tables.bookmarksClean, tables.bookmarks, tables.damagedBookmarks, [&] {
                if (fitsInt32(v[0].integer)) {
                    BookmarkRow row{v[0].integer, textOf(v[1].bytes), textOf(v[2].bytes), std::nullopt};
                    if (v[3].kind == Kind::Blob) {
                        row.stored = v[3].bytes;
                    }
                    tables.bookmarks[cell.rowid] = std::move(row);
                }
            });
            break;
        default:
            break;
    }
}

// Votes on whether payloads are compressed, for a file whose metadata no
// longer says.
struct CompressionVote {
    int frames = 0;
    int plain = 0;
    void add(const std::byte* payload, std::size_t size) {
        if (Compression::startsWithFrame(payload, size)) {
            ++frames;
        } else {
            ++plain;
        }
    }
    bool full() const { return frames + plain >= kCompressionSamples; }
};

// ---- the entries ------------------------------------------------------------

// One data row as found, its payload borrowed.
struct FoundEntry {
    int64_t entryId;
    int64_t timestamp;
    int64_t type;
    int64_t dataSourceId;
    int64_t length;
    const std::byte* payload;
    std::size_t size;
};

// ---- how many entries there were --------------------------------------------

constexpr uint8_t kTableInteriorPageType = 0x05;
// A b-tree of 2^31 rows on the smallest pages is far less deep than this.
constexpr int kMostBtreeLevels = 40;

// Where the b-trees of the data table, of the indexes on it and of the
// indexes on bookmarks start.
struct SchemaRoots {
    bool known = false;
    uint32_t data = 0;
    std::vector<uint32_t> dataIndexes;
    std::vector<uint32_t> bookmarkIndexes;
    // The schema names the table of entry checksums.
    bool entryChecksums = false;

    void add(const std::string& type, const std::string& table, int64_t root) {
        if (type == "table" && table == "entryChecksums") {
            entryChecksums = true;
        }
        if (root < 2 || root > std::numeric_limits<uint32_t>::max()) {
            return;
        }
        const auto page = static_cast<uint32_t>(root);
        if (type == "table" && table == "data") {
            data = page;
        } else if (type == "index" && table == "data") {
            dataIndexes.push_back(page);
        } else if (type == "index" && table == "bookmarks") {
            bookmarkIndexes.push_back(page);
        }
    }
};

struct IndexWalk {
    int64_t highest = 0;
    // Every page of the index was read and every record was understood.
    bool complete = true;
};

// Traces of the highest entry id the damaged file had.
struct LastIdEvidence {
    // The highest id anything shows.
    int64_t highest = 0;
    // Last ids as the table's structure or a whole index gives them.
    std::vector<int64_t> last;

    void saw(int64_t id) {
        if (id >= 1 && id <= kHighestRowid) {
            highest = std::max(highest, id);
        }
    }
    void knew(int64_t id) {
        saw(id);
        last.push_back(id);
    }
    // Whether some last id accounts for every trace.
    bool isExact() const {
        return std::any_of(last.begin(), last.end(), [&](int64_t id) { return id >= highest; });
    }
};

class Salvage {
public:
    Salvage(const std::filesystem::path& damaged, const std::filesystem::path& output,
            const RecoverOptions& options)
        : damaged_(damaged), pending_(output), snapshot_(damaged, output), options_(options) {}

    RecoveryReport run() {
        openWithSqlite();
        leaveOutAnIncompleteLastPage();
        if (database_) {
            readSmallTablesWithSqlite(*database_, tables_);
        }
        findEntryChecksums();
        decideCompression();
        scanPagesForSmallTables();
        finishCompressionDecision();
        finishChecksumDecision();
        {
            SqliteLogFile file = createOutput();
            output_ = &file;
            writeMetadata();
            writeDataSources();
            const bool sqliteReadEveryEntry = copyEntriesWithSqlite();
            if (!sqliteReadEveryEntry || !compressed_) {
                scanPagesForEntries(sqliteReadEveryEntry);
            }
            commitBatch();
            writeProperties();
            writeResources();
            writeBookmarks();
            commitBatch();
            noteChecksums();
            summariseEntries(sqliteReadEveryEntry);
            pending_.checkEntryCount(file, report_.entriesRecovered);
            output_ = nullptr;
        }
        database_.reset();
        pending_.commit();
        return report_;
    }

private:
    // ---- reading ----

    void openWithSqlite(bool noteFailure = true) {
        try {
            database_ = std::make_unique<SqliteDatabase>(snapshot_.path().string(), Database::OpenReadWrite);
            // The first read applies a hot journal; with a write-ahead log,
            // the checkpoint brings its frames into the copy, where the page
            // scan sees them too. Either may fail on a damaged file.
            (void)database_->execute("SELECT COUNT(*) FROM sqlite_master;");
            (void)database_->execute("PRAGMA wal_checkpoint(TRUNCATE);");
        } catch (const std::exception& error) {
            database_.reset();
            if (noteFailure) {
                report_.notes.push_back(std::string("SQLite cannot open the file: ") + error.what());
            }
        }
    }

    // SQLite counts a page cut by the end of the file as a page and reads
    // its missing bytes as zeros, which would pass for content. Once the
    // journal or write-ahead log has been applied to the copy, such a page
    // is cut off it, so that SQLite and the page scan both see it as
    // missing; SQLite is then opened again on what is left. Bytes after as
    // many pages as the header declares are no page at all, and SQLite
    // never reads them: they are left alone.
    void leaveOutAnIncompleteLastPage() {
        std::error_code error;
        const uint64_t size = std::filesystem::file_size(snapshot_.path(), error);
        const CopyHeader header = readCopyHeader();
        if (error || header.pageSize == 0 || size % header.pageSize == 0 ||
            (header.pageCount != 0 && header.pageCount <= size / header.pageSize)) {
            return;
        }
        const bool wasOpen = database_ != nullptr;
        database_.reset();
        std::filesystem::resize_file(snapshot_.path(), size - size % header.pageSize, error);
        if (error) {
            throw std::runtime_error("Cannot salvage '" + damaged_.string() +
                                     "': its copy cannot be cut to whole pages: " + error.message());
        }
        report_.notes.push_back("The file ends inside page " + std::to_string(size / header.pageSize + 1) +
                                ": that page is missing, and so is every entry whose bytes were on it.");
        if (wasOpen) {
            openWithSqlite(false);
        }
    }

    // What the copy's header says, as far as SQLite would trust it: a page
    // size (0 when the header does not give a valid one; the page scan then
    // finds it itself) and a page count (0 when not given, or not trusted
    // because bytes 92-95 do not repeat the change counter of bytes 24-27).
    struct CopyHeader {
        uint32_t pageSize = 0;
        uint32_t pageCount = 0;
    };
    CopyHeader readCopyHeader() const {
        std::ifstream in(snapshot_.path(), std::ios::binary);
        std::array<unsigned char, 100> bytes{};
        if (!in.read(reinterpret_cast<char*>(bytes.data()), bytes.size()) ||
            std::memcmp(bytes.data(), "SQLite format 3", 16) != 0) {
            return {};
        }
        auto bigEndian32 = [&](std::size_t at) {
            return uint32_t{bytes[at]} << 24 | uint32_t{bytes[at + 1]} << 16 | uint32_t{bytes[at + 2]} << 8 |
                   uint32_t{bytes[at + 3]};
        };
        const uint32_t declared = uint32_t{bytes[16]} << 8 | bytes[17];
        const uint32_t size = declared == 1 ? 65536 : declared;
        CopyHeader header;
        if (size >= 512 && size <= 65536 && (size & (size - 1)) == 0) {
            header.pageSize = size;
        }
        if (bigEndian32(24) == bigEndian32(92)) {
            header.pageCount = bigEndian32(28);
        }
        return header;
    }

    void decideCompression() {
        const std::optional<int64_t> level = tables_.metadataInteger("compressionLevel");
        if (level && isValidCompressionLevel(*level)) {
            level_ = static_cast<int8_t>(*level);
            levelKnown_ = true;
            compressed_ = level_ != 0;
        }
        const std::optional<int64_t> version = tables_.metadataInteger("logVersion");
        logVersion_ = version.value_or(4);
    }

    PageScanner& scanner() {
        if (!scanner_) {
            scanner_ = std::make_unique<PageScanner>(snapshot_.path(), damaged_);
        }
        return *scanner_;
    }

    void scanPagesForSmallTables() {
        const bool checksumCells = checksumTable_ == ChecksumTable::Unknown ||
                                   (checksumTable_ == ChecksumTable::Present && !checksumsClean_);
        if (tables_.allClean() && levelKnown_ && !checksumCells) {
            return;
        }
        report_.pagesScanned = true;
        CompressionVote& vote = vote_;
        scanner().forEachCell(
            [&](const ScannedCell& header) {
                const Shape shape = shapeOf(header.serialTypes);
                if (shape == Shape::Data) {
                    return !levelKnown_ && !vote.full();
                }
                if (shape == Shape::Checksum) {
                    return checksumCells;
                }
                return shape != Shape::Other;
            },
            [&](const ScannedCell& cell) {
                const Shape shape = shapeOf(cell.serialTypes);
                if (shape == Shape::Data) {
                    if (cell.complete && !cell.values.empty()) {
                        vote.add(cell.values[5].bytes.data(), cell.values[5].bytes.size());
                    }
                    return;
                }
                if (shape == Shape::Checksum) {
                    if (checksumCells) {
                        takeChecksumCell(cell);
                    }
                    return;
                }
                takeSmallTableCell(cell, shape, tables_);
            });
    }

    void finishCompressionDecision() {
        if (levelKnown_) {
            return;
        }
        decideCompression();
        if (levelKnown_) {
            return;
        }
        compressed_ = vote_.frames > vote_.plain;
        level_ = compressed_ ? int8_t{-1} : int8_t{0};
        report_.notes.push_back(std::string("The compression level is lost; payloads look ") +
                                (compressed_ ? "compressed, so the new file uses the default level."
                                             : "uncompressed, so the new file stores them as they are."));
    }

    // ---- entry checksums ----

    // A file created with entry checksums has a table of them. Its schema
    // says whether this one was, through SQLite or from page 1; when neither
    // can be read, records of that table found by the page scan say so. The
    // checksums are read through SQLite as far as it gets; the page scan
    // adds those of entries it could not reach.
    void findEntryChecksums() {
        const SchemaRoots roots = schemaRoots();
        if (!roots.known) {
            checksumTable_ = ChecksumTable::Unknown;
            return;
        }
        if (!roots.entryChecksums) {
            checksumTable_ = ChecksumTable::Absent;
            return;
        }
        checksumTable_ = ChecksumTable::Present;
        if (!database_) {
            return;
        }
        checksumsClean_ = ResilientTableReader(*database_, "entryChecksums", "checksum")
                              .read([&](const SqliteQuery& query, int64_t rowid) {
                                  if (const std::optional<int64_t> checksum = query.getIntegerFromColumn(1)) {
                                      checksums_.emplace_back(rowid, *checksum);
                                  }
                              });
        checksumsReadBySqlite_ = checksums_.size();
    }

    // A checksum SQLite read is never replaced by one found in the pages;
    // another one found for the same entry (a stale copy) is kept beside the
    // first, and the entry passes when its payload matches either.
    void takeChecksumCell(const ScannedCell& cell) {
        if (!cell.complete || cell.values.size() != 2 || cell.values[1].kind != Kind::Integer) {
            return;
        }
        const auto sqliteEnd = checksums_.begin() + static_cast<std::ptrdiff_t>(checksumsReadBySqlite_);
        const auto found = std::lower_bound(checksums_.begin(), sqliteEnd, cell.rowid, idBelow);
        if (found != sqliteEnd && found->first == cell.rowid) {
            return;
        }
        checksums_.emplace_back(cell.rowid, cell.values[1].integer);
        ++checksumsFoundInPages_;
    }

    void finishChecksumDecision() {
        if (checksumTable_ == ChecksumTable::Unknown) {
            checksumTable_ = checksumsFoundInPages_ != 0 ? ChecksumTable::Present : ChecksumTable::Absent;
            if (checksumTable_ == ChecksumTable::Present) {
                report_.notes.push_back(
                    "The schema is lost; the entry checksums found in the pages show that the file keeps "
                    "them, so the new file does too.");
            }
        }
        checksummed_ = checksumTable_ == ChecksumTable::Present;
        std::sort(checksums_.begin(), checksums_.end());
    }

    static bool idBelow(const std::pair<int64_t, int64_t>& checksum, int64_t id) {
        return checksum.first < id;
    }

    // How an entry's stored payload compares with the checksums kept for it.
    enum class ChecksumMatch { Matches, Differs, Missing };
    ChecksumMatch compareChecksum(const FoundEntry& entry) const {
        const auto first = std::lower_bound(checksums_.begin(), checksums_.end(), entry.entryId, idBelow);
        if (first == checksums_.end() || first->first != entry.entryId) {
            return ChecksumMatch::Missing;
        }
        const auto actual = static_cast<int64_t>(Checksum::of(entry.payload, entry.size));
        for (auto at = first; at != checksums_.end() && at->first == entry.entryId; ++at) {
            if (at->second == actual) {
                return ChecksumMatch::Matches;
            }
        }
        return ChecksumMatch::Differs;
    }

    // What an entry found is worth: damaged; intact and vouched for by its
    // checksum; or intact as far as a file without checksums can tell.
    enum class Verdict { Damaged, Verified, Unverified };
    Verdict judge(const FoundEntry& entry) {
        if (!intact(entry)) {
            return Verdict::Damaged;
        }
        if (!checksummed_) {
            return Verdict::Unverified;
        }
        switch (compareChecksum(entry)) {
            case ChecksumMatch::Matches:
                return Verdict::Verified;
            case ChecksumMatch::Differs:
                // Bytes that look like a payload but are not the ones
                // written: a mismatch is damage, never a recovered entry.
                failedChecksums_.insert(entry.entryId);
                return Verdict::Damaged;
            case ChecksumMatch::Missing:
                break;
        }
        return Verdict::Unverified;
    }

    // Whether an entry read through SQLite matched its checksum.
    bool verifiedBySqliteRead(int64_t id) const {
        return checksummed_ && !std::binary_search(uncheckedSqliteIds_.begin(), uncheckedSqliteIds_.end(),
                                                   static_cast<int32_t>(id));
    }

    void noteChecksums() {
        if (!failedChecksums_.empty()) {
            const std::size_t failed = failedChecksums_.size();
            report_.notes.push_back(
                failed == 1
                    ? std::string("1 entry failed its checksum and is lost: its stored payload is not the "
                                  "one that was written.")
                    : std::to_string(failed) +
                          " entries failed their checksums and are lost: their stored payloads are not "
                          "the ones that were written.");
        }
        if (entriesWithoutChecksum_ != 0) {
            const bool one = entriesWithoutChecksum_ == 1;
            report_.notes.push_back(
                std::to_string(entriesWithoutChecksum_) + (one ? " entry has" : " entries have") +
                " no readable checksum; " + (one ? "it was" : "they were") +
                " recovered as from a file without checksums (" +
                (compressed_ ? "the compressed frame" : "the recorded length and the pages") + " vouch" +
                (compressed_ ? "es" : "") + " for " + (one ? "it" : "them") +
                "), and the new file keeps no checksum for " + (one ? "it." : "them."));
        }
    }

    // Whether a payload's stored bytes are intact, as far as they can tell:
    // a compressed frame carries a checksum of its content; an uncompressed
    // payload only its length in the row.
    bool intact(const FoundEntry& entry) {
        if (entry.entryId < 1 || entry.entryId > kHighestRowid || !fitsInt32(entry.type) ||
            !fitsDataSourceId(entry.dataSourceId)) {
            return false;
        }
        if (!compressed_) {
            return entry.length == static_cast<int64_t>(entry.size);
        }
        try {
            Compression::uncompressInto(entry.payload, entry.size, scratch_);
            return true;
        } catch (const Compression::CompressionError&) {
            return false;
        }
    }

    // ---- writing ----

    SqliteLogFile createOutput() {
        const std::optional<int64_t> created = tables_.metadataInteger("createdDateTime");
        try {
            return SqliteLogFile(pending_.temporaryPath().string(), tables_.metadataText("currentTimeZone"),
                                 options_.applicationName, options_.applicationVersion, level_,
                                 created.value_or(Chrono::msSinceUnixEpoch()), Durability::Fast,
                                 checksummed_);
        } catch (const std::exception& error) {
            throw WriteFailure("Cannot write '" + pending_.finalPath().string() + "': " + error.what(),
                               FullDisk::Possible);
        }
    }

    [[noreturn]] void throwWriteFailure(const std::string& what) const {
        throwWriteFailure(what, Outcome::failure(output_->getLastFailureKind(), output_->getLastError()));
    }

    [[noreturn]] void throwWriteFailure(const std::string& what, const Outcome& failure) const {
        throw WriteFailure(
            "Cannot write '" + pending_.finalPath().string() + "': " + what + " failed: " + failure.message(),
            fullDiskOf(failure.kind()));
    }

    void beginBatch() {
        if (!batch_) {
            batch_.emplace(output_->beginBatch());
        }
    }

    void commitBatch() {
        if (batch_ && !batch_->commit()) {
            throwWriteFailure("committing");
        }
        batch_.reset();
        entriesInBatch_ = 0;
        bytesInBatch_ = 0;
    }

    void writeMetadata() {
        beginBatch();
        for (const char* key : {"applicationName", "applicationVersion"}) {
            const PropertyValue* old = tables_.metadataValue(key);
            const std::string history =
                std::string("old") + static_cast<char>(key[0] - 'a' + 'A') + (key + 1);
            if (old != nullptr && tables_.metadataValue(history) == nullptr) {
                const std::string newValue = std::string(key) == "applicationName"
                                                 ? options_.applicationName
                                                 : options_.applicationVersion;
                if (const auto* text = std::get_if<std::string>(old); text == nullptr || *text != newValue) {
                    (void)output_->addMetadata(history, *old);
                }
            }
        }
        std::set<std::string> fixedFound;
        for (const auto& [rowid, row] : tables_.metadata) {
            ++report_.metadataRecovered;
            if (std::find(kFixedMetadataKeys.begin(), kFixedMetadataKeys.end(), row.key) !=
                kFixedMetadataKeys.end()) {
                fixedFound.insert(row.key);
                continue;
            }
            // A key found twice (a stale copy in the pages) is written once.
            (void)output_->addMetadata(row.key, row.value);
        }
        report_.metadataLost =
            tables_.damagedMetadata.size() + (kFixedMetadataKeys.size() - fixedFound.size());
        commitBatch();
    }

    void writeDataSources() {
        beginBatch();
        for (const auto& [rowid, source] : tables_.sources) {
            if (!output_->addDataSource(source)) {
                throwWriteFailure("adding data source '" + source.name + "'");
            }
            knownSources_.insert(source.id);
            ++report_.dataSourcesRecovered;
        }
        commitBatch();
    }

    // Entries and properties of a data source that was lost still need one:
    // a stand-in keeps them.
    void ensureDataSource(int8_t id) {
        if (knownSources_.count(id) != 0) {
            return;
        }
        const DataSource standIn{id, MV_LogDataSourceType_Generic,
                                 "recovered data source " + std::to_string(id)};
        if (!output_->addDataSource(standIn)) {
            throwWriteFailure("adding data source " + std::to_string(id));
        }
        knownSources_.insert(id);
        ++report_.dataSourcesRecreated;
    }

    // The new file of a checksummed one writes a checksum with every entry,
    // the same as the one it had when the entry matched it; an entry that had
    // none keeps none, so that verifying reads of the new file still tell it
    // apart.
    void writeEntry(const FoundEntry& entry, Verdict verdict) {
        beginBatch();
        const auto source = static_cast<int8_t>(entry.dataSourceId);
        ensureDataSource(source);
        entryBytes_.assign(entry.payload, entry.payload + entry.size);
        if (const Outcome written = StoreAccess::of(*output_).insertStoredEntryWithId(
                static_cast<int32_t>(entry.entryId), entry.timestamp, static_cast<int32_t>(entry.type),
                source, entryBytes_);
            !written) {
            throwWriteFailure("writing entry " + std::to_string(entry.entryId), written);
        }
        if (checksummed_ && verdict == Verdict::Unverified) {
            forgetChecksum(entry.entryId);
            ++entriesWithoutChecksum_;
        }
        ++report_.entriesRecovered;
        bytesInBatch_ += entry.size;
        if (++entriesInBatch_ == kBatchEntries || bytesInBatch_ >= kBatchBytes) {
            commitBatch();
        }
        if (options_.progress && report_.entriesRecovered % kProgressEvery == 0) {
            options_.progress(report_.entriesRecovered);
        }
    }

    void forgetChecksum(int64_t id) {
        SqliteQuery remove(StoreAccess::of(*output_).database,
                           "DELETE FROM entryChecksums WHERE entryId = :id;");
        remove.bindParameter(":id", id);
        if (remove.executeStep() != Database::StepDone) {
            throwWriteFailure("writing entry " + std::to_string(id));
        }
    }

    // Answers whether SQLite read every row of the data table.
    bool copyEntriesWithSqlite() {
        if (!database_) {
            return false;
        }
        ResilientTableReader reader(*database_, "data", "timestamp, type, dataSourceId, length, payload");
        const bool clean = reader.read([&](const SqliteQuery& query, int64_t rowid) {
            std::array<SqliteQuery::RawColumn, 6> columns{};
            query.readColumns(columns.data(), static_cast<int>(columns.size()));
            const bool shaped = columns[1].isInteger && columns[2].isInteger && columns[3].isInteger &&
                                columns[4].isInteger && columns[5].isBytes;
            const FoundEntry entry{rowid,
                                   columns[1].integer,
                                   columns[2].integer,
                                   columns[3].integer,
                                   columns[4].integer,
                                   shaped ? columns[5].bytes.data : nullptr,
                                   shaped ? columns[5].bytes.size : 0};
            const Verdict verdict = shaped ? judge(entry) : Verdict::Damaged;
            if (verdict == Verdict::Damaged) {
                damagedIds_.insert(rowid);
                return;
            }
            writeEntry(entry, verdict);
            sqliteIds_.push_back(static_cast<int32_t>(rowid));
            if (checksummed_ && verdict == Verdict::Unverified) {
                uncheckedSqliteIds_.push_back(static_cast<int32_t>(rowid));
            }
        });
        if (!clean) {
            report_.notes.push_back(
                "SQLite could not read every entry; the rest were searched for in the pages.");
        }
        try {
            // SQLite finds the maximum by the table's rightmost path: when
            // that is intact, it is the last id the file had.
            SqliteQuery highest(*database_, "SELECT MAX(entryId) FROM data;");
            if (highest.executeStep() == Database::StepRow) {
                sqliteHighest_ = highest.getIntegerFromColumn(0).value_or(0);
            }
        } catch (const std::exception&) {
            // The highest id then comes from what was found.
        }
        return clean;
    }

    bool readBySqlite(int64_t id) const {
        return std::binary_search(sqliteIds_.begin(), sqliteIds_.end(), static_cast<int32_t>(id));
    }

    // Takes the entries SQLite could not reach from the pages; for
    // uncompressed files also drops entries whose overflow chain runs
    // through a zeroed page or past the end of the file, which SQLite reads
    // back as zeros without complaint, unless their checksum vouches for
    // the bytes.
    void scanPagesForEntries(bool sqliteReadEveryEntry) {
        report_.pagesScanned = report_.pagesScanned || !sqliteReadEveryEntry;
        std::set<int64_t> unsure;
        scanner().forEachCell(
            [&](const ScannedCell& header) { return shapeOf(header.serialTypes) == Shape::Data; },
            [&](const ScannedCell& cell) {
                if (shapeOf(cell.serialTypes) != Shape::Data) {
                    return;
                }
                const bool complete = cell.complete && !cell.values.empty();
                const bool sound = complete && (compressed_ || !cell.zeroPageInChain);
                if (readBySqlite(cell.rowid)) {
                    if (!sound && !compressed_ && !verifiedBySqliteRead(cell.rowid)) {
                        unsure.insert(cell.rowid);
                    }
                    return;
                }
                if (sqliteReadEveryEntry || pageIds_.count(cell.rowid) != 0) {
                    return;
                }
                if (!complete || (!sound && !checksummed_)) {
                    damagedIds_.insert(cell.rowid);
                    return;
                }
                const std::vector<RecordValue>& v = cell.values;
                const FoundEntry entry{cell.rowid,   v[1].integer,      v[2].integer,     v[3].integer,
                                       v[4].integer, v[5].bytes.data(), v[5].bytes.size()};
                const Verdict verdict = judge(entry);
                if (verdict == Verdict::Damaged || (!sound && verdict != Verdict::Verified)) {
                    damagedIds_.insert(cell.rowid);
                    return;
                }
                writeEntry(entry, verdict);
                pageIds_.insert(cell.rowid);
                damagedIds_.erase(cell.rowid);
                failedChecksums_.erase(cell.rowid);
            });
        commitBatch();
        dropUnsureEntries(unsure);
    }

    void dropUnsureEntries(const std::set<int64_t>& unsure) {
        if (unsure.empty()) {
            return;
        }
        beginBatch();
        for (const int64_t id : unsure) {
            SqliteQuery remove(StoreAccess::of(*output_).database, "DELETE FROM data WHERE entryId = :id;");
            remove.bindParameter(":id", id);
            if (remove.executeStep() != Database::StepDone) {
                throwWriteFailure("dropping entry " + std::to_string(id));
            }
            damagedIds_.insert(id);
            --report_.entriesRecovered;
            // Only entries without a checksum are ever unsure, and they kept none.
            if (checksummed_) {
                --entriesWithoutChecksum_;
            }
        }
        commitBatch();
        sqliteIds_.erase(std::remove_if(sqliteIds_.begin(), sqliteIds_.end(),
                                        [&](int32_t id) { return unsure.count(id) != 0; }),
                         sqliteIds_.end());
        report_.notes.push_back(std::to_string(unsure.size()) +
                                " uncompressed entries were dropped: their bytes run through pages that "
                                "were zeroed or cut off.");
    }

    void writeProperties() {
        beginBatch();
        for (const auto& [rowid, property] : tables_.properties) {
            ensureDataSource(property.dataSourceId);
            if (!output_->addDataSourceProperty(property)) {
                throwWriteFailure("adding property '" + property.propertyName + "'");
            }
            ++report_.propertiesRecovered;
        }
        report_.propertiesLost = tables_.damagedProperties.size();
        commitBatch();
    }

    // The bytes an application wrote: expanded when `compressedForm` (the
    // frame's checksum vouches for them), as stored otherwise; absent when a
    // compressed form does not expand.
    static std::optional<ByteBuffer> contentOf(const ByteBuffer& stored, bool compressedForm) {
        if (!compressedForm) {
            return stored;
        }
        try {
            return Compression::uncompress(stored);
        } catch (const Compression::CompressionError&) {
            return std::nullopt;
        }
    }

    // Resources are compressed when the format allows it (version 3 on) and
    // the file compresses.
    void writeResources() {
        beginBatch();
        const bool compressedResources = compressed_ && logVersion_ > 2;
        std::set<std::string> names;
        for (const auto& [rowid, resource] : tables_.resources) {
            const std::optional<ByteBuffer> data = contentOf(resource.stored, compressedResources);
            if (!data) {
                ++report_.resourcesLost;
                continue;
            }
            if (!names.insert(resource.name).second) {
                continue;
            }
            if (!output_->addResource(resource.name, *data)) {
                throwWriteFailure("adding resource '" + resource.name + "'");
            }
            ++report_.resourcesRecovered;
        }
        report_.resourcesLost += tables_.damagedResources.size();
        commitBatch();
    }

    // Bookmark payloads are compressed from format version 4 on when the
    // file compresses. A bookmark needs its entry: one whose entry was lost
    // is lost with it.
    void writeBookmarks() {
        beginBatch();
        const bool compressedPayloads = compressed_ && logVersion_ > 3;
        for (const auto& [rowid, row] : tables_.bookmarks) {
            Bookmark bookmark{static_cast<int32_t>(row.entryId), row.title, row.comments, ByteBuffer()};
            if (row.stored && !row.stored->empty()) {
                std::optional<ByteBuffer> payload = contentOf(*row.stored, compressedPayloads);
                if (!payload) {
                    ++report_.bookmarksLost;
                    continue;
                }
                bookmark.payload = std::move(*payload);
            }
            const bool entryKept = readBySqlite(row.entryId) || pageIds_.count(row.entryId) != 0;
            if (!entryKept || !output_->addBookmark(bookmark)) {
                ++report_.bookmarksLost;
                continue;
            }
            ++report_.bookmarksRecovered;
        }
        report_.bookmarksLost += tables_.damagedBookmarks.size();
        commitBatch();
    }

    void summariseEntries(bool sqliteReadEveryEntry) {
        std::vector<int32_t> ids = sqliteIds_;
        ids.insert(ids.end(), pageIds_.begin(), pageIds_.end());
        std::sort(ids.begin(), ids.end());
        ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
        const LastIdEvidence evidence = lastEntryId(sqliteReadEveryEntry, ids);
        const int64_t highest = evidence.highest;
        int64_t next = 1;
        auto lose = [&](int64_t first, int64_t last) {
            if (first <= last) {
                report_.lostEntryIds.push_back(EntryIdRange{first, last});
                report_.entriesLost += static_cast<uint64_t>(last - first + 1);
            }
        };
        for (const int32_t id : ids) {
            if (id >= next) {
                lose(next, int64_t{id} - 1);
                next = int64_t{id} + 1;
            }
        }
        lose(next, highest);
        noteMissingPages();
        report_.entriesLostIsLowerBound = !evidence.isExact();
        if (report_.entriesLostIsLowerBound) {
            report_.notes.push_back(
                "The number of lost entries is a lower bound: the file shows ids up to " +
                std::to_string(highest) +
                ", and entries after that, if there were any, left no trace that could be counted.");
        }
        if (options_.progress) {
            options_.progress(report_.entriesRecovered);
        }
    }

    void noteMissingPages() {
        if (!scanner_) {
            return;
        }
        const uint32_t declared = scanner_->declaredPageCount();
        const uint32_t present = scanner_->pageCount();
        if (declared > present) {
            report_.notes.push_back("The file is cut short: it holds " + std::to_string(present) +
                                    " of the " + std::to_string(declared) + " pages its header declares.");
        }
    }

    // ---- how many entries there were ----

    // The highest entry id the damaged file shows, and whether it is known
    // to be its last one. Entry ids are rowids handed out in ascending
    // order, so every trace of an id vouches for all ids below it: the ids
    // found, bookmark targets, the keys of the data table's interior pages,
    // the ids its indexes hold and the sequence table. The last id is known
    // when SQLite can still find it, when the data table's rightmost path
    // leads to its last leaf, or when an index on it is whole.
    LastIdEvidence lastEntryId(bool sqliteReadEveryEntry, const std::vector<int32_t>& ids) {
        LastIdEvidence evidence;
        if (!ids.empty()) {
            evidence.saw(ids.back());
        }
        if (!damagedIds_.empty()) {
            evidence.saw(*damagedIds_.rbegin());
        }
        // A checksum is written with its entry, in the same transaction.
        if (checksummed_ && !checksums_.empty()) {
            evidence.saw(checksums_.back().first);
        }
        if (sqliteHighest_) {
            evidence.knew(*sqliteHighest_);
            if (sqliteReadEveryEntry) {
                return evidence;
            }
        }
        for (const auto& [rowid, bookmark] : tables_.bookmarks) {
            evidence.saw(bookmark.entryId);
        }
        if (database_) {
            try {
                SqliteQuery sequence(*database_, "SELECT seq FROM sqlite_sequence WHERE name = 'data';");
                if (sequence.executeStep() == Database::StepRow) {
                    evidence.saw(sequence.getIntegerFromColumn(0).value_or(0));
                }
            } catch (const std::exception&) {
                // Log files have no sequence table unless a tool added one.
            }
        }
        const SchemaRoots roots = schemaRoots();
        if (roots.data != 0) {
            if (const std::optional<int64_t> last = lastRowidUnder(roots.data)) {
                evidence.knew(*last);
            }
        }
        for (const uint32_t root : roots.dataIndexes) {
            const IndexWalk walk = walkIndex(root, false);
            evidence.saw(walk.highest);
            if (walk.complete) {
                evidence.knew(walk.highest);
            }
        }
        for (const uint32_t root : roots.bookmarkIndexes) {
            evidence.saw(walkIndex(root, true).highest);
        }
        if (!evidence.isExact()) {
            addInteriorKeys(evidence, !roots.known);
        }
        return evidence;
    }

    // Where the tables and indexes start, from SQLite's schema table or,
    // when SQLite cannot read it, from the records of page 1.
    SchemaRoots schemaRoots() {
        SchemaRoots roots;
        if (database_) {
            try {
                SqliteQuery query(*database_, "SELECT type, tbl_name, rootpage FROM sqlite_master;");
                int32_t step = Database::StepFailed;
                while ((step = query.executeStep()) == Database::StepRow) {
                    roots.add(textColumn(query, 0).value_or(std::string()),
                              textColumn(query, 1).value_or(std::string()),
                              query.getIntegerFromColumn(2).value_or(0));
                }
                if (step == Database::StepDone) {
                    roots.known = true;
                    return roots;
                }
            } catch (const std::exception&) {
                // Then page 1 is read directly.
            }
            roots = SchemaRoots{};
        }
        PageScanner& pages = scanner();
        std::vector<uint32_t> schemaPages{1};
        if (const std::optional<PageScanner::TableInterior> interior = pages.tableInterior(1)) {
            schemaPages = interior->children;
            schemaPages.push_back(interior->rightmost);
        }
        for (const uint32_t page : schemaPages) {
            pages.cellsOfPage(
                page, [](const ScannedCell& header) { return header.serialTypes.size() == 5; },
                [&](const ScannedCell& cell) {
                    const std::vector<RecordValue>& v = cell.values;
                    if (v.size() == 5 && v[0].kind == Kind::Text && v[2].kind == Kind::Text &&
                        v[3].kind == Kind::Integer) {
                        roots.add(textOf(v[0].bytes), textOf(v[2].bytes), v[3].integer);
                        roots.known = true;
                    }
                });
        }
        return roots;
    }

    // The last rowid of the table b-tree rooted at `root`, found by
    // following the rightmost child of each interior page down to a leaf;
    // absent when a page on the way is missing or does not fit.
    std::optional<int64_t> lastRowidUnder(uint32_t root) {
        PageScanner& pages = scanner();
        std::optional<int64_t> floor;
        uint32_t page = root;
        for (int depth = 0; depth < kMostBtreeLevels; ++depth) {
            if (const std::optional<PageScanner::TableInterior> interior = pages.tableInterior(page)) {
                if (!interior->keys.empty()) {
                    if (floor && interior->keys.front() <= *floor) {
                        return std::nullopt;
                    }
                    floor = interior->keys.back();
                }
                page = interior->rightmost;
                continue;
            }
            const std::optional<std::vector<int64_t>> rowids = pages.leafRowids(page);
            if (!rowids) {
                return std::nullopt;
            }
            if (rowids->empty()) {
                // Only a root leaf is empty in a sound tree: the table is.
                return depth == 0 ? std::optional<int64_t>(0) : std::nullopt;
            }
            if (floor && rowids->front() <= *floor) {
                return std::nullopt;
            }
            return rowids->back();
        }
        return std::nullopt;
    }

    // Every entry id an index holds: the last column of an index on data,
    // the first of one on bookmarks.
    IndexWalk walkIndex(uint32_t root, bool idComesFirst) {
        PageScanner& pages = scanner();
        IndexWalk walk;
        std::vector<uint32_t> pending{root};
        std::set<uint32_t> visited;
        while (!pending.empty()) {
            const uint32_t page = pending.back();
            pending.pop_back();
            if (!visited.insert(page).second || visited.size() > pages.pageCount()) {
                walk.complete = false;
                break;
            }
            const std::optional<PageScanner::IndexPage> index = pages.indexPage(page);
            if (!index) {
                walk.complete = false;
                continue;
            }
            // An index page keeps its records in ascending order: one that
            // does not is damaged, and its ids are not trusted.
            if (!std::is_sorted(index->records.begin(), index->records.end())) {
                walk.complete = false;
                continue;
            }
            walk.complete = walk.complete && index->integerRecords;
            for (const std::vector<int64_t>& record : index->records) {
                const int64_t id = record.empty() ? 0 : idComesFirst ? record.front() : record.back();
                if (id < 1 || id > kHighestRowid) {
                    walk.complete = false;
                    continue;
                }
                walk.highest = std::max(walk.highest, id);
            }
            pending.insert(pending.end(), index->children.begin(), index->children.end());
        }
        return walk;
    }

    // The keys of every interior page of the data table: each is the
    // highest id of a subtree. A table interior page belongs to the data
    // table when one of its children is a leaf holding entries or another
    // such interior page. Without a schema, a single such page that no
    // other one points to is the table's root.
    void addInteriorKeys(LastIdEvidence& evidence, bool findRoot) {
        PageScanner& pages = scanner();
        std::map<uint32_t, PageScanner::TableInterior> interiors;
        for (uint32_t page = 2; page <= pages.pageCount(); ++page) {
            if (pages.isFreePage(page) || pages.pageType(page) != kTableInteriorPageType) {
                continue;
            }
            if (std::optional<PageScanner::TableInterior> interior = pages.tableInterior(page)) {
                interior->children.push_back(interior->rightmost);
                interiors.emplace(page, std::move(*interior));
            }
        }
        std::map<uint32_t, bool> leafHoldsEntries;
        auto holdsEntries = [&](uint32_t page) {
            const auto known = leafHoldsEntries.find(page);
            if (known != leafHoldsEntries.end()) {
                return known->second;
            }
            bool entries = false;
            pages.cellsOfPage(page, {}, [&](const ScannedCell& cell) {
                entries = entries || shapeOf(cell.serialTypes) == Shape::Data;
            });
            leafHoldsEntries.emplace(page, entries);
            return entries;
        };
        std::set<uint32_t> dataPages;
        for (bool grew = true; grew;) {
            grew = false;
            for (const auto& [page, interior] : interiors) {
                if (dataPages.count(page) != 0) {
                    continue;
                }
                for (const uint32_t child : interior.children) {
                    if (dataPages.count(child) != 0 || (interiors.count(child) == 0 && holdsEntries(child))) {
                        dataPages.insert(page);
                        grew = true;
                        break;
                    }
                }
            }
        }
        std::set<uint32_t> referenced;
        for (const uint32_t page : dataPages) {
            const PageScanner::TableInterior& interior = interiors.at(page);
            for (const int64_t key : interior.keys) {
                evidence.saw(key);
            }
            referenced.insert(interior.children.begin(), interior.children.end());
        }
        if (!findRoot) {
            return;
        }
        std::vector<uint32_t> unreferenced;
        for (const uint32_t page : dataPages) {
            if (referenced.count(page) == 0) {
                unreferenced.push_back(page);
            }
        }
        if (unreferenced.size() == 1) {
            if (const std::optional<int64_t> last = lastRowidUnder(unreferenced.front())) {
                evidence.knew(*last);
            }
        }
    }

    std::filesystem::path damaged_;
    PendingOutput pending_;
    Snapshot snapshot_;
    const RecoverOptions& options_;
    RecoveryReport report_;
    std::unique_ptr<SqliteDatabase> database_;
    std::unique_ptr<PageScanner> scanner_;
    SmallTables tables_;
    CompressionVote vote_;
    bool levelKnown_ = false;
    bool compressed_ = false;
    // Whether the damaged file keeps entry checksums; Unknown while neither
    // SQLite nor page 1 gives its schema and the page scan has not looked.
    enum class ChecksumTable { Absent, Present, Unknown };
    ChecksumTable checksumTable_ = ChecksumTable::Absent;
    bool checksummed_ = false;
    bool checksumsClean_ = false;
    // (entry id, checksum): SQLite's reads first, ascending, then those found
    // in the pages; sorted once the page scan is done.
    std::vector<std::pair<int64_t, int64_t>> checksums_;
    std::size_t checksumsReadBySqlite_ = 0;
    std::size_t checksumsFoundInPages_ = 0;
    // Entries whose stored payload looked whole but did not match its
    // checksum, and was not found whole elsewhere.
    std::set<int64_t> failedChecksums_;
    // Entries written without a checksum to vouch for them: those read
    // through SQLite (ascending), and how many in all.
    std::vector<int32_t> uncheckedSqliteIds_;
    uint64_t entriesWithoutChecksum_ = 0;
    int8_t level_ = 0;
    int64_t logVersion_ = 4;

    SqliteLogFile* output_ = nullptr;
    std::optional<SqliteLogFile::WriteBatch> batch_;
    std::size_t entriesInBatch_ = 0;
    std::size_t bytesInBatch_ = 0;
    std::set<int8_t> knownSources_;
    ByteBuffer scratch_;
    ByteBuffer entryBytes_;
    // Ids written from SQLite's reads, ascending; ids written from the page
    // scan; ids seen whose bytes are damaged.
    std::vector<int32_t> sqliteIds_;
    std::set<int64_t> pageIds_;
    std::set<int64_t> damagedIds_;
    std::optional<int64_t> sqliteHighest_;
};

}  // namespace

RecoveryReport recover(const std::filesystem::path& damaged, const std::filesystem::path& output,
                       const RecoverOptions& options) {
    try {
        Salvage salvage(damaged, output, options);
        return salvage.run();
    } catch (const WriteFailure& failure) {
        // A full disk shows up as whatever write failed first (a copy may
        // even say "Input/output error"). The room is measured once the
        // salvage's own files are gone, as the caller will find the disk.
        const uintmax_t needed = roomForSalvage(damaged);
        const uintmax_t available = roomAt(output);
        if (failure.fullDisk() == FullDisk::Said ||
            (failure.fullDisk() == FullDisk::Possible && available < needed)) {
            throwNotEnoughRoom(output, needed, available);
        }
        throw std::runtime_error(failure.what());
    }
}

}  // namespace Marivane::Logging::Algorithms
