#include <logging/SqliteLogFile.h>

#include <core/Compression.h>

#include "StoreTestSupport.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

using namespace Marivane::Logging;
using Marivane::Compression::compress;
using Marivane::Testing::bytesOf;
using Marivane::Testing::createLogFile;
using Marivane::Testing::makeEntry;
using Marivane::Testing::patternBytes;
using Marivane::Testing::RawDatabase;
using Marivane::Testing::TempDir;
namespace fs = std::filesystem;

namespace {

using Rows = std::vector<std::vector<std::string>>;

const char* const kKnownFailure =
    "Attempted to log data against a data source that did not exist in the file.";

// Leaves a recognisable text behind as the file's last error.
void provokeKnownFailure(SqliteLogFile& file) {
    EXPECT_FALSE(file.logData(makeEntry(111, 0, 0, {})));
    ASSERT_EQ(file.getLastError(), kKnownFailure);
}

void setLogVersion(const std::string& path, int version) {
    RawDatabase raw(path);
    raw.exec("UPDATE metadata SET value = " + std::to_string(version) + " WHERE key = 'logVersion';");
}

}  // namespace

// ---- metadata -------------------------------------------------------------------

TEST(Metadata, SecondAddOfAKeyIsRefusedAndLeavesTheLastError) {
    TempDir dir;
    const std::string path = dir.file("meta.mvlog");
    SqliteLogFile file = createLogFile(path);
    ASSERT_TRUE(file.addMetadata("operator", std::string("first")));
    EXPECT_FALSE(file.addMetadata("operator", std::string("second")));
    EXPECT_EQ(file.getLastError(), "No error");
    provokeKnownFailure(file);
    EXPECT_FALSE(file.addMetadata("operator", int32_t{3}));
    EXPECT_EQ(file.getLastError(), kKnownFailure);

    EXPECT_EQ(file.getMetadataValue("operator"), PropertyValue{std::string("first")});
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.rows("SELECT value FROM metadata WHERE key = 'operator';"), (Rows{{"first"}}));
}

TEST(Metadata, FixedKeysOfACreatedFileCannotBeAddedAgain) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("meta.mvlog"), 2);
    EXPECT_FALSE(file.addMetadata("logVersion", int32_t{5}));
    EXPECT_FALSE(file.addMetadata("compressionLevel", int32_t{0}));
    EXPECT_FALSE(file.addMetadata("applicationName", std::string("other")));
    EXPECT_EQ(file.getMetadataValue("logVersion"), PropertyValue{int64_t{4}});
    EXPECT_EQ(file.getMetadataValue("compressionLevel"), PropertyValue{int64_t{2}});
    EXPECT_EQ(file.getAllMetadata().size(), 6u);
}

TEST(Metadata, ValuesKeepTheirKindWithIntegersWidened) {
    TempDir dir;
    const std::string path = dir.file("meta.mvlog");
    SqliteLogFile file = createLogFile(path);
    ASSERT_TRUE(file.addMetadata("frames", int32_t{7}));
    ASSERT_TRUE(file.addMetadata("bytes", int64_t{1} << 42));
    ASSERT_TRUE(file.addMetadata("speed", 13.75));
    ASSERT_TRUE(file.addMetadata("driver", std::string("Ana")));

    const std::optional<PropertyValue> frames = file.getMetadataValue("frames");
    ASSERT_TRUE(frames);
    EXPECT_EQ(frames->index(), 1u);
    EXPECT_EQ(std::get<int64_t>(*frames), 7);
    EXPECT_EQ(file.getMetadataValue("bytes"), PropertyValue{int64_t{1} << 42});
    EXPECT_EQ(file.getMetadataValue("speed"), PropertyValue{13.75});
    EXPECT_EQ(file.getMetadataValue("driver"), PropertyValue{std::string("Ana")});

    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.rows("SELECT key, typeof(value) FROM metadata WHERE rowid > 6 ORDER BY rowid;"),
              (Rows{{"frames", "integer"}, {"bytes", "integer"}, {"speed", "real"}, {"driver", "text"}}));

    const std::vector<LogMetadataEntry> all = file.getAllMetadata();
    ASSERT_EQ(all.size(), 10u);
    EXPECT_EQ(all[6].key, "frames");
    EXPECT_EQ(all[6].value, PropertyValue{int64_t{7}});
    EXPECT_EQ(all[9].key, "driver");
}

TEST(Metadata, MissingKeyIsAbsentWithoutAMessage) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("meta.mvlog"));
    provokeKnownFailure(file);
    EXPECT_FALSE(file.getMetadataValue("nothing"));
    EXPECT_FALSE(file.getMetadataValue(""));
    EXPECT_EQ(file.getLastError(), kKnownFailure);
}

TEST(Metadata, OpenedFileAcceptsNewKeys) {
    TempDir dir;
    const std::string path = dir.file("meta.mvlog");
    { SqliteLogFile file = createLogFile(path); }
    {
        SqliteLogFile file{fs::path(path)};
        ASSERT_TRUE(file.addMetadata("reviewed", std::string("yes")));
    }
    SqliteLogFile file{fs::path(path)};
    EXPECT_EQ(file.getMetadataValue("reviewed"), PropertyValue{std::string("yes")});
}

TEST(Metadata, RecordFormForwardsToTheTwoArgumentForm) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("meta.mvlog"));
    EXPECT_TRUE(file.addMetadata(LogMetadataEntry{"via record", int32_t{1}}));
    EXPECT_FALSE(file.addMetadata(LogMetadataEntry{"via record", int32_t{2}}));
    EXPECT_EQ(file.getMetadataValue("via record"), PropertyValue{int64_t{1}});
    EXPECT_TRUE(file.addResource(LogResourceEntry{"res", bytesOf("r")}));
    EXPECT_FALSE(file.addResource(LogResourceEntry{"res", bytesOf("again")}));
    EXPECT_EQ(file.getResource("res"), bytesOf("r"));
}

// ---- resources -------------------------------------------------------------------

TEST(Resources, CompressedInACompressingVersionFourFile) {
    TempDir dir;
    const std::string path = dir.file("res.mvlog");
    SqliteLogFile file = createLogFile(path, 6);
    const ByteBuffer data = patternBytes(30000, 12);
    ASSERT_TRUE(file.addResource("calibration", data));
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        const ByteBuffer stored = raw.blob("SELECT payload FROM resources WHERE name = 'calibration';");
        EXPECT_NE(stored, data);
        EXPECT_EQ(stored, compress(data, 6));
    }
    EXPECT_EQ(file.getResource("calibration"), data);
}

TEST(Resources, UncompressedFileStoresTheBytesAsGiven) {
    TempDir dir;
    const std::string path = dir.file("res.mvlog");
    SqliteLogFile file = createLogFile(path, 0);
    const ByteBuffer data = patternBytes(3000, 13);
    ASSERT_TRUE(file.addResource("calibration", data));
    ASSERT_TRUE(file.addResource("empty", {}));
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.blob("SELECT payload FROM resources WHERE name = 'calibration';"), data);
    EXPECT_EQ(raw.rows("SELECT typeof(payload), length(payload) FROM resources WHERE name = 'empty';"),
              (Rows{{"blob", "0"}}));
    EXPECT_EQ(file.getResource("calibration"), data);
    EXPECT_EQ(file.getResource("empty"), ByteBuffer{});
}

TEST(Resources, EmptyResourceInACompressingFile) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("res.mvlog"), 6);
    ASSERT_TRUE(file.addResource("empty", {}));
    const std::optional<ByteBuffer> read = file.getResource("empty");
    ASSERT_TRUE(read);
    EXPECT_TRUE(read->empty());
}

TEST(Resources, ExistingNameIsRefusedAndLeavesTheLastError) {
    TempDir dir;
    const std::string path = dir.file("res.mvlog");
    SqliteLogFile file = createLogFile(path, 1);
    ASSERT_TRUE(file.addResource("map", bytesOf("original")));
    provokeKnownFailure(file);
    EXPECT_FALSE(file.addResource("map", bytesOf("replacement")));
    EXPECT_EQ(file.getLastError(), kKnownFailure);
    EXPECT_EQ(file.getResource("map"), bytesOf("original"));
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM resources;"), 1);
}

TEST(Resources, MissingNameIsAbsentWithoutAMessage) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("res.mvlog"), 1);
    provokeKnownFailure(file);
    EXPECT_FALSE(file.getResource("nothing"));
    EXPECT_FALSE(file.getThumbnail());
    EXPECT_EQ(file.getLastError(), kKnownFailure);
}

TEST(Resources, VersionTwoFileStoresAndReadsUncompressed) {
    TempDir dir;
    const std::string path = dir.file("v2.mvlog");
    const ByteBuffer old = patternBytes(2000, 14);
    {
        SqliteLogFile file = createLogFile(path, 6);
        ASSERT_TRUE(file.addResource("compressed before", old));
    }
    setLogVersion(path, 2);
    SqliteLogFile file{fs::path(path)};
    EXPECT_FALSE(file.isResourceCompressionSupported());
    const ByteBuffer data = patternBytes(2000, 15);
    ASSERT_TRUE(file.addResource("plain", data));
    ASSERT_TRUE(file.setThumbnail(bytesOf("thumb")));
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(raw.blob("SELECT payload FROM resources WHERE name = 'plain';"), data);
        EXPECT_EQ(raw.blob("SELECT payload FROM resources WHERE name = 'thumbnail';"), bytesOf("thumb"));
    }
    EXPECT_EQ(file.getResource("plain"), data);
    EXPECT_EQ(file.getThumbnail(), bytesOf("thumb"));
    // What was stored compressed comes back as stored.
    EXPECT_EQ(file.getResource("compressed before"), compress(old, 6));
}

TEST(Resources, AllResourcesInRowOrderWithTheThumbnail) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("all.mvlog"), 9);
    ASSERT_TRUE(file.addResource("first", patternBytes(100, 1)));
    ASSERT_TRUE(file.setThumbnail(patternBytes(200, 2)));
    ASSERT_TRUE(file.addResource("last", {}));
    const std::vector<LogResourceEntry> all = file.getAllResources();
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[0].name, "first");
    EXPECT_EQ(all[0].data, patternBytes(100, 1));
    EXPECT_EQ(all[1].name, "thumbnail");
    EXPECT_EQ(all[1].data, patternBytes(200, 2));
    EXPECT_EQ(all[2].name, "last");
    EXPECT_TRUE(all[2].data.empty());
}

TEST(Resources, NoResourcesGiveAnEmptyList) {
    TempDir dir;
    SqliteLogFile file = createLogFile(dir.file("none.mvlog"), 9);
    EXPECT_TRUE(file.getAllResources().empty());
}

// ---- thumbnail ------------------------------------------------------------------

TEST(Thumbnail, FirstSetIsAnInsertThatCompresses) {
    TempDir dir;
    const std::string path = dir.file("thumb.mvlog");
    SqliteLogFile file = createLogFile(path, 6);
    const ByteBuffer image = patternBytes(8000, 21);
    ASSERT_TRUE(file.setThumbnail(image));
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(raw.blob("SELECT payload FROM resources WHERE name = 'thumbnail';"), compress(image, 6));
    }
    EXPECT_EQ(file.getThumbnail(), image);
    EXPECT_EQ(file.getResource("thumbnail"), image);
}

TEST(Thumbnail, ReplacementIsStoredRawAndStillReadThroughDecompression) {
    TempDir dir;
    const std::string path = dir.file("thumb.mvlog");
    SqliteLogFile file = createLogFile(path, 6);
    ASSERT_TRUE(file.setThumbnail(patternBytes(8000, 21)));

    const ByteBuffer notAFrame = bytesOf("\x89PNG raw image bytes");
    ASSERT_TRUE(file.setThumbnail(notAFrame));
    {
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(raw.blob("SELECT payload FROM resources WHERE name = 'thumbnail';"), notAFrame);
        EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM resources;"), 1);
    }
    EXPECT_THROW(file.getThumbnail(), Marivane::Compression::CompressionError);

    // A replacement that happens to be a frame is expanded on reading.
    const ByteBuffer inner = patternBytes(500, 22);
    ASSERT_TRUE(file.setThumbnail(compress(inner, 1)));
    EXPECT_EQ(file.getThumbnail(), inner);
}

TEST(Thumbnail, ReplacementInAnUncompressedFile) {
    TempDir dir;
    const std::string path = dir.file("thumb.mvlog");
    SqliteLogFile file = createLogFile(path, 0);
    ASSERT_TRUE(file.setThumbnail(bytesOf("first")));
    ASSERT_TRUE(file.setThumbnail(bytesOf("second")));
    EXPECT_EQ(file.getThumbnail(), bytesOf("second"));
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.rows("SELECT name, payload FROM resources;"), (Rows{{"thumbnail", "second"}}));
}

TEST(Thumbnail, EveryThumbnailRowIsReplaced) {
    TempDir dir;
    const std::string path = dir.file("thumb.mvlog");
    {
        SqliteLogFile file = createLogFile(path, 0);
        ASSERT_TRUE(file.setThumbnail(bytesOf("one")));
    }
    {
        RawDatabase raw(path);
        raw.exec("INSERT INTO resources (name, payload) VALUES ('thumbnail', x'74776f');");
    }
    SqliteLogFile file{fs::path(path)};
    ASSERT_TRUE(file.setThumbnail(bytesOf("both")));
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.rows("SELECT CAST(payload AS TEXT) FROM resources WHERE name = 'thumbnail';"),
              (Rows{{"both"}, {"both"}}));
}

// ---- editing metadata and resources ---------------------------------------------

TEST(EditMetadata, SetReplacesAValueOrAddsTheKey) {
    TempDir dir;
    const std::string path = dir.file("edit.mvlog");
    { SqliteLogFile file = createLogFile(path); }
    {
        SqliteLogFile file{fs::path(path)};
        ASSERT_TRUE(file.setMetadata("vessel", std::string("Polar Star")));
        ASSERT_TRUE(file.setMetadata("vessel", std::string("Aurora")));
        ASSERT_TRUE(file.setMetadata("depth", 12.5));
        ASSERT_TRUE(file.setMetadata("depth", int64_t{40}));
    }
    RawDatabase raw(path, SQLITE_OPEN_READONLY);
    EXPECT_EQ(raw.rows("SELECT value, typeof(value) FROM metadata WHERE key = 'vessel';"),
              (Rows{{"Aurora", "text"}}));
    EXPECT_EQ(raw.rows("SELECT value, typeof(value) FROM metadata WHERE key = 'depth';"),
              (Rows{{"40", "integer"}}));
}

TEST(EditMetadata, RemoveTakesTheKeyAwayAndNamesAMissingOne) {
    TempDir dir;
    const std::string path = dir.file("edit.mvlog");
    SqliteLogFile file = createLogFile(path);
    ASSERT_TRUE(file.addMetadata("site", std::string("north")));
    ASSERT_TRUE(file.removeMetadata("site"));
    EXPECT_FALSE(file.getMetadataValue("site"));
    const uint64_t failures = file.getFailureCount();
    EXPECT_FALSE(file.removeMetadata("site"));
    EXPECT_EQ(file.getLastError(), "The file '" + path + "' has no metadata key 'site'.");
    EXPECT_EQ(file.getFailureCount(), failures + 1);
    EXPECT_EQ(file.getLastFailureKind(), FailureKind::Refused);
    EXPECT_EQ(file.getLastErrorKind(), FailureKind::Refused);
}

TEST(EditMetadata, TheKeysACreatedFileCarriesAreRefused) {
    TempDir dir;
    const std::string path = dir.file("edit.mvlog");
    SqliteLogFile file = createLogFile(path);
    for (const char* key : {"createdDateTime", "applicationName", "applicationVersion", "currentTimeZone",
                            "logVersion", "compressionLevel"}) {
        const std::string expected = std::string("The metadata key '") + key + "' of '" + path +
                                     "' is set when a log file is created and cannot be changed or removed.";
        EXPECT_FALSE(file.setMetadata(key, int64_t{1}));
        EXPECT_EQ(file.getLastError(), expected);
        EXPECT_FALSE(file.removeMetadata(key));
        EXPECT_EQ(file.getLastError(), expected);
    }
    EXPECT_EQ(file.getMetadataValue("logVersion"), PropertyValue{int64_t{4}});
    EXPECT_EQ(file.getMetadataValue("applicationName"), PropertyValue{std::string("store-tests")});
}

TEST(EditMetadata, AReadOnlyFileIsNotChanged) {
    TempDir dir;
    const std::string path = dir.file("edit.mvlog");
    {
        SqliteLogFile file = createLogFile(path);
        ASSERT_TRUE(file.addMetadata("site", std::string("north")));
        ASSERT_TRUE(file.addResource("notes", bytesOf("n")));
    }
    SqliteLogFile reader = SqliteLogFile::openReadOnly(path);
    EXPECT_FALSE(reader.setMetadata("site", std::string("south")));
    EXPECT_FALSE(reader.removeMetadata("site"));
    EXPECT_FALSE(reader.replaceResource("notes", bytesOf("m")));
    EXPECT_FALSE(reader.removeResource("notes"));
    EXPECT_EQ(reader.getMetadataValue("site"), PropertyValue{std::string("north")});
    EXPECT_EQ(reader.getResource("notes"), bytesOf("n"));
}

TEST(EditResources, ReplaceStoresAsAddDoesSoEvenTheThumbnailReadsBack) {
    for (const int8_t level : {int8_t{0}, int8_t{6}}) {
        TempDir dir;
        const std::string path = dir.file("edit.mvlog");
        SqliteLogFile file = createLogFile(path, level);
        ASSERT_TRUE(file.setThumbnail(bytesOf("first picture")));
        ASSERT_TRUE(file.replaceResource("thumbnail", patternBytes(5000, 3)));
        EXPECT_EQ(file.getThumbnail(), patternBytes(5000, 3));
        ASSERT_TRUE(file.replaceResource("calibration", bytesOf("v1")));
        ASSERT_TRUE(file.replaceResource("calibration", bytesOf("v2")));
        EXPECT_EQ(file.getResource("calibration"), bytesOf("v2"));
        RawDatabase raw(path, SQLITE_OPEN_READONLY);
        EXPECT_EQ(raw.rows("SELECT count(*) FROM resources WHERE name = 'calibration';"), (Rows{{"1"}}));
        const ByteBuffer stored = raw.blob("SELECT payload FROM resources WHERE name = 'thumbnail';");
        EXPECT_EQ(stored, level == 0 ? patternBytes(5000, 3) : compress(patternBytes(5000, 3), level));
    }
}

TEST(EditResources, RemoveTakesEveryRowOfTheNameAndNamesAMissingOne) {
    TempDir dir;
    const std::string path = dir.file("edit.mvlog");
    SqliteLogFile file = createLogFile(path);
    ASSERT_TRUE(file.addResource("notes", bytesOf("n")));
    RawDatabase(path).exec("INSERT INTO resources (name, payload) VALUES ('notes', x'01');");
    ASSERT_TRUE(file.removeResource("notes"));
    EXPECT_FALSE(file.getResource("notes"));
    EXPECT_FALSE(file.removeResource("notes"));
    EXPECT_EQ(file.getLastError(), "The file '" + path + "' has no resource 'notes'.");
}

TEST(EditResources, EditsInsideAWriteBatchCommitWithIt) {
    TempDir dir;
    const std::string path = dir.file("edit.mvlog");
    {
        SqliteLogFile file = createLogFile(path);
        SqliteLogFile::WriteBatch batch = file.beginBatch();
        ASSERT_TRUE(file.setMetadata("site", std::string("north")));
        ASSERT_TRUE(file.replaceResource("notes", bytesOf("n")));
        ASSERT_TRUE(batch.commit());
    }
    SqliteLogFile file = SqliteLogFile::openReadOnly(path);
    EXPECT_EQ(file.getMetadataValue("site"), PropertyValue{std::string("north")});
    EXPECT_EQ(file.getResource("notes"), bytesOf("n"));
}
