#include <database/DatabaseAccessError.h>
#include <database/FileIsNotDatabase.h>
#include <database/SqliteDatabase.h>
#include <database/SqliteQuery.h>
#include "model/RequireType.h"
#include "services/database/ColumnAccess.h"
#include "store/BindParameterVisitor.h"
#include "store/ReturnPropertyValueVisitor.h"

#include "support/TempDir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <variant>
#include <vector>

using namespace Marivane::Database;
using Blob = std::vector<std::byte>;

namespace {

constexpr OpenMode kReadWriteCreate = OpenReadWrite | OpenCreate;

void writeJunk(const std::string& path, std::size_t size) {
    std::ofstream out(path, std::ios::binary);
    for (std::size_t i = 0; i < size; ++i) {
        out.put(static_cast<char>((i * 7 + 3) & 0xFF));
    }
}

// A database holding one column without declared type, so every value keeps
// its own storage class.
struct ValueTable {
    Marivane::Testing::TempDir dir;
    SqliteDatabase db{dir.file("values.sqlite"), kReadWriteCreate};

    ValueTable() { EXPECT_TRUE(db.executeSimpleQuery("CREATE TABLE t(v);")); }

    template <typename Bind>
    void insert(Bind&& bind) {
        SqliteQuery insert(db, "INSERT INTO t(v) VALUES (:v);");
        bind(insert);
        ASSERT_EQ(insert.executeStep(), StepDone);
    }

    // typeof() of the single stored value.
    std::string storageClass() {
        SqliteQuery query(db, "SELECT typeof(v) FROM t;");
        EXPECT_EQ(query.executeStep(), StepRow);
        return getValueFromColumn<std::string>(query, 0).value_or("<none>");
    }

    ColumnValue stored() {
        SqliteQuery query(db, "SELECT v FROM t;");
        EXPECT_EQ(query.executeStep(), StepRow);
        return query.getValueFromColumn(0);
    }
};

template <typename Exception>
std::string messageOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const Exception& error) {
        return error.what();
    }
    return "<no exception>";
}

}  // namespace

TEST(SqliteDatabaseTest, OpenModeValuesAreSqliteFlags) {
    EXPECT_EQ(OpenReadOnly, SQLITE_OPEN_READONLY);
    EXPECT_EQ(OpenReadWrite, SQLITE_OPEN_READWRITE);
    EXPECT_EQ(OpenCreate, SQLITE_OPEN_CREATE);
    EXPECT_EQ(kReadWriteCreate, 6);
    static_assert(!std::is_copy_constructible_v<SqliteDatabase>);
    static_assert(!std::is_copy_constructible_v<SqliteQuery>);
}

TEST(SqliteDatabaseTest, ErrorTypesDeriveAsDocumented) {
    static_assert(std::is_base_of_v<std::runtime_error, DatabaseAccessError>);
    static_assert(std::is_base_of_v<DatabaseAccessError, FileIsNotDatabase>);
    const FileIsNotDatabase error("not one");
    EXPECT_STREQ(static_cast<const DatabaseAccessError&>(error).what(), "not one");
}

TEST(SqliteDatabaseTest, OpenInMissingDirectoryCarriesSqliteMessage) {
    Marivane::Testing::TempDir dir;
    const std::string path = dir.file("missing/log.sqlite");
    try {
        SqliteDatabase db(path, kReadWriteCreate);
        FAIL() << "opened a database in a missing directory";
    } catch (const FileIsNotDatabase& error) {
        FAIL() << "wrong type: " << error.what();
    } catch (const DatabaseAccessError& error) {
        EXPECT_EQ(std::string(error.what()),
                  "Cannot open database '" + path + "': unable to open database file");
    }
}

TEST(SqliteDatabaseTest, OpenMissingFileWithoutCreateFails) {
    Marivane::Testing::TempDir dir;
    const std::string path = dir.file("absent.sqlite");
    EXPECT_EQ(messageOf<DatabaseAccessError>([&] { SqliteDatabase db(path, OpenReadWrite); }),
              "Cannot open database '" + path + "': unable to open database file");
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(SqliteDatabaseTest, OpeningADirectoryIsAnAccessErrorNotANonDatabase) {
    Marivane::Testing::TempDir dir;
    try {
        SqliteDatabase db(dir.path().string(), kReadWriteCreate);
        FAIL() << "opened a directory";
    } catch (const FileIsNotDatabase& error) {
        FAIL() << "wrong type: " << error.what();
    } catch (const DatabaseAccessError& error) {
        EXPECT_EQ(std::string(error.what()),
                  "Cannot open database '" + dir.path().string() + "': unable to open database file");
    }
}

TEST(SqliteDatabaseTest, NonDatabaseSurfacesWhenPreparing) {
    Marivane::Testing::TempDir dir;
    const std::string path = dir.file("junk.bin");
    writeJunk(path, 4096);
    SqliteDatabase db(path, kReadWriteCreate);
    EXPECT_EQ(messageOf<FileIsNotDatabase>([&] { SqliteQuery query(db, "SELECT * FROM sqlite_master;"); }),
              "Cannot prepare 'SELECT * FROM sqlite_master;': file is not a database");
    EXPECT_EQ(db.getLastErrorCode(), SQLITE_NOTADB);
}

TEST(SqliteDatabaseTest, NonDatabaseSurfacesInSimpleQueryAtPrepare) {
    Marivane::Testing::TempDir dir;
    const std::string path = dir.file("junk.bin");
    writeJunk(path, 4096);
    SqliteDatabase db(path, kReadWriteCreate);
    EXPECT_EQ(messageOf<FileIsNotDatabase>([&] { db.executeSimpleQuery("CREATE TABLE t(x);"); }),
              "Cannot run 'CREATE TABLE t(x);': file is not a database");
}

TEST(SqliteDatabaseTest, NonDatabaseSurfacesInSimpleQueryAtStep) {
    Marivane::Testing::TempDir dir;
    const std::string path = dir.file("junk.bin");
    writeJunk(path, 4096);
    SqliteDatabase db(path, kReadWriteCreate);
    // This pragma prepares without reading the file; only its step does.
    EXPECT_EQ(messageOf<FileIsNotDatabase>([&] { db.executeSimpleQuery("PRAGMA user_version;"); }),
              "Cannot run 'PRAGMA user_version;': file is not a database");
    // A statement stepped directly reports the condition by its result.
    SqliteQuery query(db, "PRAGMA user_version;");
    EXPECT_EQ(query.executeStep(), StepFailed);
    EXPECT_EQ(db.getLastErrorCode(), SQLITE_NOTADB);
}

TEST(SqliteDatabaseTest, BadSqlIsAnAccessErrorWithSqliteMessage) {
    Marivane::Testing::TempDir dir;
    SqliteDatabase db(dir.file("db.sqlite"), kReadWriteCreate);
    try {
        SqliteQuery query(db, "SELEC 1;");
        FAIL() << "prepared bad SQL";
    } catch (const FileIsNotDatabase& error) {
        FAIL() << "wrong type: " << error.what();
    } catch (const DatabaseAccessError& error) {
        EXPECT_EQ(std::string(error.what()), "Cannot prepare 'SELEC 1;': near \"SELEC\": syntax error");
    }
    EXPECT_EQ(db.getLastErrorCode(), SQLITE_ERROR);
    EXPECT_EQ(messageOf<DatabaseAccessError>([&] { SqliteQuery query(db, "SELECT * FROM nowhere;"); }),
              "Cannot prepare 'SELECT * FROM nowhere;': no such table: nowhere");
}

TEST(SqliteDatabaseTest, SimpleQueryResults) {
    Marivane::Testing::TempDir dir;
    SqliteDatabase db(dir.file("db.sqlite"), kReadWriteCreate);
    EXPECT_TRUE(db.executeSimpleQuery("CREATE TABLE a(x);"));
    EXPECT_EQ(db.getLastErrorCode(), 0);
    // A statement that yields a row has not run to completion.
    EXPECT_FALSE(db.executeSimpleQuery("SELECT 1;"));
    EXPECT_EQ(db.getLastErrorCode(), 0);
    // Failures to prepare are reported by the result, not thrown.
    EXPECT_FALSE(db.executeSimpleQuery("INSERT INTO nowhere VALUES (1);"));
    EXPECT_EQ(db.getLastErrorCode(), SQLITE_ERROR);
    EXPECT_FALSE(db.executeSimpleQuery("NOT SQL AT ALL"));
    EXPECT_TRUE(db.executeSimpleQuery("INSERT INTO a VALUES (1);"));
    EXPECT_EQ(db.getLastErrorCode(), 0);
    // A check pragma passes exactly when it finds nothing.
    EXPECT_TRUE(db.executeSimpleQuery("PRAGMA foreign_key_check(a);"));
}

TEST(SqliteDatabaseTest, ForeignKeyViolationCodeAndResetAfterSuccess) {
    Marivane::Testing::TempDir dir;
    SqliteDatabase db(dir.file("db.sqlite"), kReadWriteCreate);
    ASSERT_TRUE(db.executeSimpleQuery("PRAGMA foreign_keys = on;"));
    ASSERT_TRUE(db.executeSimpleQuery("CREATE TABLE parent(id INTEGER PRIMARY KEY);"));
    ASSERT_TRUE(db.executeSimpleQuery("CREATE TABLE child(p INT NOT NULL REFERENCES parent(id));"));
    {
        SqliteQuery insert(db, "INSERT INTO child(p) VALUES (:p);");
        insert.bindParameter(":p", int32_t{5});
        EXPECT_EQ(insert.executeStep(), StepFailed);
    }
    EXPECT_EQ(db.getLastErrorCode(), 787);
    EXPECT_EQ(db.getLastErrorCode(), SQLITE_CONSTRAINT_FOREIGNKEY);
    {
        SqliteQuery insert(db, "INSERT INTO parent(id) VALUES (5);");
        EXPECT_EQ(insert.executeStep(), StepDone);
    }
    EXPECT_EQ(db.getLastErrorCode(), 0);
    EXPECT_FALSE(db.executeSimpleQuery("INSERT INTO child(p) VALUES (6);"));
    EXPECT_EQ(db.getLastErrorCode(), 787);
    EXPECT_TRUE(db.executeSimpleQuery("INSERT INTO child(p) VALUES (5);"));
    EXPECT_EQ(db.getLastErrorCode(), 0);
    EXPECT_FALSE(db.executeSimpleQuery("INSERT INTO child(p) VALUES (NULL);"));
    EXPECT_EQ(db.getLastErrorCode(), SQLITE_CONSTRAINT_NOTNULL);
}

TEST(SqliteDatabaseTest, LastInsertedRowId) {
    Marivane::Testing::TempDir dir;
    SqliteDatabase db(dir.file("db.sqlite"), kReadWriteCreate);
    ASSERT_TRUE(db.executeSimpleQuery("CREATE TABLE a(id INTEGER PRIMARY KEY, x NOT NULL);"));
    for (int i = 1; i <= 3; ++i) {
        ASSERT_TRUE(db.executeSimpleQuery("INSERT INTO a(x) VALUES (1);"));
        EXPECT_EQ(db.getLastInsertedRowId(), i);
    }
    ASSERT_TRUE(db.executeSimpleQuery("INSERT INTO a(id, x) VALUES (5000000000, 1);"));
    EXPECT_EQ(db.getLastInsertedRowId(), int64_t{5000000000});
    EXPECT_FALSE(db.executeSimpleQuery("INSERT INTO a(x) VALUES (NULL);"));
    EXPECT_EQ(db.getLastInsertedRowId(), int64_t{5000000000});
}

TEST(SqliteQueryTest, UnknownParameterNamesAreIgnored) {
    ValueTable table;
    table.insert([](SqliteQuery& q) {
        q.bindParameter(":v", int32_t{5});
        q.bindParameter(":other", int32_t{1});
        q.bindParameter(":other", int64_t{2});
        q.bindParameter(":other", 3.5);
        q.bindParameter(":other", std::string("text"), BindMode::Copy);
        q.bindParameter(":other", Blob{std::byte{1}}, BindMode::Copy);
        q.bindParameter("v", int32_t{9});
    });
    const ColumnValue value = table.stored();
    ASSERT_TRUE(value);
    EXPECT_EQ(std::get<int64_t>(*value), 5);
}

TEST(SqliteQueryTest, Int32RoundTrip) {
    ValueTable table;
    table.insert([](SqliteQuery& q) { q.bindParameter(":v", int32_t{-123456}); });
    EXPECT_EQ(table.storageClass(), "integer");
    const ColumnValue value = table.stored();
    ASSERT_TRUE(value);
    ASSERT_EQ(value->index(), 0u);
    EXPECT_EQ(std::get<0>(*value), -123456);
}

TEST(SqliteQueryTest, Int64RoundTripAtBothLimits) {
    for (int64_t expected : {std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::max()}) {
        ValueTable table;
        table.insert([expected](SqliteQuery& q) { q.bindParameter(":v", expected); });
        EXPECT_EQ(table.storageClass(), "integer");
        const ColumnValue value = table.stored();
        ASSERT_TRUE(value);
        EXPECT_EQ(std::get<0>(*value), expected);
    }
}

TEST(SqliteQueryTest, DoubleRoundTrip) {
    ValueTable table;
    table.insert([](SqliteQuery& q) { q.bindParameter(":v", -2.718281828459045); });
    EXPECT_EQ(table.storageClass(), "real");
    const ColumnValue value = table.stored();
    ASSERT_TRUE(value);
    ASSERT_EQ(value->index(), 1u);
    EXPECT_EQ(std::get<1>(*value), -2.718281828459045);
}

TEST(SqliteQueryTest, TextRoundTripKeepsEmbeddedNul) {
    const std::string text("na\0me \xC3\xA9", 8);
    ValueTable table;
    table.insert([&text](SqliteQuery& q) { q.bindParameter(":v", text, BindMode::NoCopy); });
    EXPECT_EQ(table.storageClass(), "text");
    const ColumnValue value = table.stored();
    ASSERT_TRUE(value);
    ASSERT_EQ(value->index(), 2u);
    EXPECT_EQ(std::get<2>(*value), text);
}

TEST(SqliteQueryTest, EmptyTextStaysText) {
    ValueTable table;
    table.insert([](SqliteQuery& q) { q.bindParameter(":v", std::string(), BindMode::Copy); });
    EXPECT_EQ(table.storageClass(), "text");
    const ColumnValue value = table.stored();
    ASSERT_TRUE(value);
    EXPECT_EQ(std::get<2>(*value), "");
}

TEST(SqliteQueryTest, BlobRoundTrip) {
    const Blob blob{std::byte{0x00}, std::byte{0x01}, std::byte{0xFF}, std::byte{0x00}};
    ValueTable table;
    table.insert([&blob](SqliteQuery& q) { q.bindParameter(":v", blob, BindMode::NoCopy); });
    EXPECT_EQ(table.storageClass(), "blob");
    const ColumnValue value = table.stored();
    ASSERT_TRUE(value);
    ASSERT_EQ(value->index(), 3u);
    EXPECT_EQ(std::get<3>(*value), blob);
}

TEST(SqliteQueryTest, EmptyBlobIsAZeroLengthBlobNotNull) {
    for (BindMode mode : {BindMode::Copy, BindMode::NoCopy}) {
        ValueTable table;
        const Blob empty;
        table.insert([&](SqliteQuery& q) { q.bindParameter(":v", empty, mode); });
        EXPECT_EQ(table.storageClass(), "blob");
        const ColumnValue value = table.stored();
        ASSERT_TRUE(value);
        ASSERT_EQ(value->index(), 3u);
        EXPECT_TRUE(std::get<3>(*value).empty());
    }
}

TEST(SqliteQueryTest, NullIsAbsent) {
    ValueTable table;
    ASSERT_TRUE(table.db.executeSimpleQuery("INSERT INTO t(v) VALUES (NULL);"));
    EXPECT_EQ(table.storageClass(), "null");
    EXPECT_FALSE(table.stored());
}

TEST(SqliteQueryTest, CopyModeKeepsTheValueAsBound) {
    ValueTable table;
    table.insert([](SqliteQuery& q) {
        std::string text = "original";
        Blob blob{std::byte{1}, std::byte{2}};
        q.bindParameter(":v", text, BindMode::Copy);
        text.assign("changed!");
        blob[0] = std::byte{9};
    });
    EXPECT_EQ(std::get<2>(*table.stored()), "original");

    ValueTable blobs;
    blobs.insert([](SqliteQuery& q) {
        Blob blob{std::byte{1}, std::byte{2}};
        q.bindParameter(":v", blob, BindMode::Copy);
        blob.assign({std::byte{7}, std::byte{7}, std::byte{7}});
    });
    EXPECT_EQ(std::get<3>(*blobs.stored()), (Blob{std::byte{1}, std::byte{2}}));
}

TEST(SqliteQueryTest, NoRowMeansNoValue) {
    ValueTable table;
    ASSERT_TRUE(table.db.executeSimpleQuery("INSERT INTO t(v) VALUES (1);"));
    SqliteQuery query(table.db, "SELECT v FROM t;");
    EXPECT_FALSE(query.getValueFromColumn(0));
    ASSERT_EQ(query.executeStep(), StepRow);
    EXPECT_TRUE(query.getValueFromColumn(0));
    ASSERT_EQ(query.executeStep(), StepDone);
    EXPECT_FALSE(query.getValueFromColumn(0));
}

TEST(SqliteQueryTest, ResetRewindsAndKeepsBindings) {
    ValueTable table;
    SqliteQuery insert(table.db, "INSERT INTO t(v) VALUES (:v);");
    insert.bindParameter(":v", int32_t{4});
    ASSERT_EQ(insert.executeStep(), StepDone);
    insert.resetQuery();
    ASSERT_EQ(insert.executeStep(), StepDone);
    insert.resetQuery();
    insert.bindParameter(":v", int32_t{8});
    ASSERT_EQ(insert.executeStep(), StepDone);

    SqliteQuery read(table.db, "SELECT group_concat(v, ',') FROM t;");
    ASSERT_EQ(read.executeStep(), StepRow);
    EXPECT_EQ(getValueFromColumn<std::string>(read, 0), "4,4,8");
    // After a rewind there is no current row until the next step.
    read.resetQuery();
    EXPECT_FALSE(read.getValueFromColumn(0));
    ASSERT_EQ(read.executeStep(), StepRow);
    EXPECT_EQ(getValueFromColumn<std::string>(read, 0), "4,4,8");
}

TEST(ColumnAccessTest, TypedReadOnlyForTheExactAlternative) {
    Marivane::Testing::TempDir dir;
    SqliteDatabase db(dir.file("db.sqlite"), kReadWriteCreate);
    SqliteQuery query(db, "SELECT 42, 1.5, 'text', x'0102', NULL;");
    ASSERT_EQ(query.executeStep(), StepRow);

    EXPECT_EQ(getValueFromColumn<int64_t>(query, 0), int64_t{42});
    EXPECT_FALSE(getValueFromColumn<double>(query, 0));
    EXPECT_FALSE(getValueFromColumn<std::string>(query, 0));
    EXPECT_FALSE(getValueFromColumn<Blob>(query, 0));

    EXPECT_EQ(getValueFromColumn<double>(query, 1), 1.5);
    EXPECT_FALSE(getValueFromColumn<int64_t>(query, 1));
    EXPECT_FALSE(getValueFromColumn<int>(query, 1));

    EXPECT_EQ(getValueFromColumn<std::string>(query, 2), "text");
    EXPECT_FALSE(getValueFromColumn<Blob>(query, 2));
    EXPECT_FALSE(getValueFromColumn<int64_t>(query, 2));
    EXPECT_FALSE(getValueFromColumn<int>(query, 2));

    EXPECT_EQ(getValueFromColumn<Blob>(query, 3), (Blob{std::byte{1}, std::byte{2}}));
    EXPECT_FALSE(getValueFromColumn<std::string>(query, 3));

    EXPECT_FALSE(getValueFromColumn<int64_t>(query, 4));
    EXPECT_FALSE(getValueFromColumn<std::string>(query, 4));
    EXPECT_FALSE(getValueFromColumn<Blob>(query, 4));
    EXPECT_FALSE(getValueFromColumn<int>(query, 4));
}

TEST(ColumnAccessTest, IntNarrowsToTheLowBits) {
    Marivane::Testing::TempDir dir;
    SqliteDatabase db(dir.file("db.sqlite"), kReadWriteCreate);
    SqliteQuery query(db, "SELECT 4294967301, -1, 2147483648, -2147483648, 7;");
    ASSERT_EQ(query.executeStep(), StepRow);
    EXPECT_EQ(getValueFromColumn<int>(query, 0), 5);
    EXPECT_EQ(getValueFromColumn<int>(query, 1), -1);
    EXPECT_EQ(getValueFromColumn<int>(query, 2), std::numeric_limits<int>::min());
    EXPECT_EQ(getValueFromColumn<int>(query, 3), std::numeric_limits<int>::min());
    EXPECT_EQ(getValueFromColumn<int>(query, 4), 7);
}

TEST(BindParameterVisitorTest, BindsEachAlternativeInItsStorageClass) {
    struct Case {
        Marivane::Logging::PropertyValue value;
        const char* storageClass;
    };
    const std::vector<Case> cases{{int32_t{-7}, "integer"},
                                  {int64_t{1} << 40, "integer"},
                                  {0.125, "real"},
                                  {std::string("seven"), "text"}};
    for (const Case& c : cases) {
        ValueTable table;
        table.insert([&c](SqliteQuery& q) { std::visit(BindParameterVisitor(q, ":v"), c.value); });
        EXPECT_EQ(table.storageClass(), c.storageClass);
        const ColumnValue stored = table.stored();
        ASSERT_TRUE(stored);
        const Marivane::Logging::PropertyValue back = std::visit(ReturnPropertyValueVisitor{}, *stored);
        switch (c.value.index()) {
            case 0:
                EXPECT_EQ(std::get<int64_t>(back), std::get<int32_t>(c.value));
                break;
            case 1:
                EXPECT_EQ(std::get<int64_t>(back), std::get<int64_t>(c.value));
                break;
            case 2:
                EXPECT_EQ(std::get<double>(back), std::get<double>(c.value));
                break;
            default:
                EXPECT_EQ(std::get<std::string>(back), std::get<std::string>(c.value));
        }
    }
}

TEST(ReturnPropertyValueVisitorTest, ConvertsEachColumnAlternative) {
    const ReturnPropertyValueVisitor visitor;
    const Marivane::Logging::PropertyValue integer = visitor(int64_t{-9});
    ASSERT_EQ(integer.index(), 1u);
    EXPECT_EQ(std::get<1>(integer), -9);
    const Marivane::Logging::PropertyValue real = visitor(2.5);
    ASSERT_EQ(real.index(), 2u);
    EXPECT_EQ(std::get<2>(real), 2.5);
    const Marivane::Logging::PropertyValue text = visitor(std::string("abc"));
    ASSERT_EQ(text.index(), 3u);
    EXPECT_EQ(std::get<3>(text), "abc");
    // No value column of a log file holds a blob; its bytes are read as text.
    const Marivane::Logging::PropertyValue blob = visitor(Blob{std::byte{'h'}, std::byte{'i'}});
    ASSERT_EQ(blob.index(), 3u);
    EXPECT_EQ(std::get<3>(blob), "hi");
}

TEST(RequireTypeTest, Int32AcceptsBothIntegerWidthsAndNarrows) {
    using Marivane::Logging::PropertyValue;
    EXPECT_EQ(requireType<int32_t>(PropertyValue{int32_t{-12}}), -12);
    EXPECT_EQ(requireType<int32_t>(PropertyValue{int64_t{4}}), 4);
    EXPECT_EQ(requireType<int32_t>(PropertyValue{int64_t{-1}}), -1);
    EXPECT_EQ(requireType<int32_t>(PropertyValue{int64_t{5000000000}}),
              static_cast<int32_t>(5000000000 - 4294967296));
    EXPECT_FALSE(requireType<int32_t>(PropertyValue{4.0}));
    EXPECT_FALSE(requireType<int32_t>(PropertyValue{std::string("4")}));
    EXPECT_FALSE(requireType<int32_t>(std::nullopt));
}

TEST(RequireTypeTest, OtherTypesNeedTheirExactAlternative) {
    using Marivane::Logging::PropertyValue;
    EXPECT_EQ(requireType<std::string>(PropertyValue{std::string("UTC")}), "UTC");
    EXPECT_FALSE(requireType<std::string>(PropertyValue{int32_t{1}}));
    EXPECT_FALSE(requireType<std::string>(PropertyValue{int64_t{1}}));
    EXPECT_FALSE(requireType<std::string>(PropertyValue{1.0}));
    EXPECT_FALSE(requireType<std::string>(std::nullopt));
    EXPECT_EQ(requireType<int64_t>(PropertyValue{int64_t{1} << 40}), int64_t{1} << 40);
    EXPECT_FALSE(requireType<int64_t>(PropertyValue{int32_t{3}}));
    EXPECT_EQ(requireType<double>(PropertyValue{0.5}), 0.5);
    EXPECT_FALSE(requireType<double>(PropertyValue{int64_t{1}}));
}

TEST(SqliteDatabaseTest, OneConnectionReadAndWrittenByTwoThreads) {
    Marivane::Testing::TempDir dir;
    SqliteDatabase db(dir.file("shared.sqlite"), kReadWriteCreate);
    ASSERT_TRUE(db.executeSimpleQuery("CREATE TABLE t(id INTEGER PRIMARY KEY, v BLOB NOT NULL);"));
    constexpr int kRows = 400;
    std::atomic<bool> writing{true};
    std::atomic<int> writeFailures{0};
    std::atomic<int> readFailures{0};
    std::atomic<int> reads{0};

    std::thread reader([&] {
        int previous = 0;
        while (writing.load()) {
            SqliteQuery query(db, "SELECT COUNT(*), SUM(length(v)) FROM t;");
            if (query.executeStep() != StepRow) {
                ++readFailures;
                continue;
            }
            const int count = getValueFromColumn<int>(query, 0).value_or(-1);
            const int total = getValueFromColumn<int>(query, 1).value_or(0);
            // Each row holds 100 bytes; a torn view would show otherwise.
            if (count < previous || total != count * 100) {
                ++readFailures;
            }
            previous = count;
            ++reads;
        }
    });
    std::thread writer([&] {
        const Blob payload(100, std::byte{0x5A});
        for (int i = 0; i < kRows; ++i) {
            SqliteQuery insert(db, "INSERT INTO t(v) VALUES (:v);");
            insert.bindParameter(":v", payload, BindMode::NoCopy);
            if (insert.executeStep() != StepDone) {
                ++writeFailures;
            }
        }
        writing.store(false);
    });
    writer.join();
    reader.join();

    EXPECT_EQ(writeFailures.load(), 0);
    EXPECT_EQ(readFailures.load(), 0);
    EXPECT_GT(reads.load(), 0);
    SqliteQuery count(db, "SELECT COUNT(*) FROM t;");
    ASSERT_EQ(count.executeStep(), StepRow);
    EXPECT_EQ(getValueFromColumn<int>(count, 0), kRows);
}

// The progress handler runs inside long statements until it is cleared; an
// exception from it ends neither the statement nor the caller.
TEST(SqliteDatabaseTest, ProgressHandlerRunsUntilCleared) {
    Marivane::Testing::TempDir directory;
    SqliteDatabase database(directory.file("progress.db"), OpenReadWrite | OpenCreate);
    const std::string count =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 100000) SELECT COUNT(*) "
        "FROM n;";
    int calls = 0;
    database.setProgressHandler(1000, [&calls] { ++calls; });
    {
        SqliteQuery query(database, count);
        ASSERT_EQ(query.executeStep(), StepRow);
        EXPECT_EQ(query.getIntegerFromColumn(0), 100000);
    }
    EXPECT_GT(calls, 100);
    database.setProgressHandler(1000, [] { throw std::runtime_error("a broken report"); });
    {
        SqliteQuery query(database, count);
        ASSERT_EQ(query.executeStep(), StepRow);
        EXPECT_EQ(query.getIntegerFromColumn(0), 100000);
    }
    database.clearProgressHandler();
    const int before = calls;
    database.setProgressHandler(1000, [&calls] { ++calls; });
    database.clearProgressHandler();
    {
        SqliteQuery query(database, count);
        ASSERT_EQ(query.executeStep(), StepRow);
    }
    EXPECT_EQ(calls, before);
}

TEST(SqliteDatabaseTest, VisitRowsHandsOutEachRowAsText) {
    ValueTable table;
    ASSERT_TRUE(table.db.executeSimpleQuery("INSERT INTO t(v) VALUES (7), ('seven'), (NULL);"));
    std::vector<std::optional<std::string>> values;
    bool prepared = false;
    const Status status = table.db.visitRows(
        "SELECT v FROM t ORDER BY rowid;",
        [&](const std::vector<std::optional<std::string>>& row) { values.push_back(row.at(0)); }, &prepared);
    EXPECT_TRUE(status.ok());
    EXPECT_TRUE(prepared);
    EXPECT_EQ(values, (std::vector<std::optional<std::string>>{"7", "seven", std::nullopt}));
}

// Not a database, not even a throw: the status says it, in SQLite's words.
TEST(SqliteDatabaseTest, VisitRowsReportsAStatementThatCannotBePrepared) {
    Marivane::Testing::TempDir dir;
    const std::string path = dir.file("junk.bin");
    writeJunk(path, 4096);
    SqliteDatabase db(path, OpenReadOnly, FileLayer::AsStored);
    bool prepared = true;
    const Status status = db.visitRows(
        "PRAGMA integrity_check;", [](const auto&) {}, &prepared);
    EXPECT_FALSE(prepared);
    EXPECT_EQ(status.code(), StatusCode::NotADatabase);
    EXPECT_EQ(status.message(), "file is not a database");
    EXPECT_EQ(db.filename(), std::filesystem::absolute(path).string());
}
