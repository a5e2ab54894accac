#pragma once

#include <logging/ByteBuffer.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <vector>

namespace Marivane::Logging::Recovery {

// One column of a record as the file stores it.
struct RecordValue {
    enum class Kind : uint8_t { Null, Integer, Real, Text, Blob };
    Kind kind = Kind::Null;
    int64_t integer = 0;
    double real = 0;
    // Text or blob bytes.
    ByteBuffer bytes;
};

// What a column's serial type says it holds, without reading the column.
RecordValue::Kind kindOfSerialType(uint64_t serialType);

// One cell of a table leaf page, found without the help of the schema or the
// b-tree above the page.
struct ScannedCell {
    uint32_t page = 0;
    int64_t rowid = 0;
    // The record header; it lies in the part of the payload kept on the leaf
    // page, so it is known even when the overflow chain is damaged.
    std::vector<uint64_t> serialTypes;
    uint32_t firstOverflowPage = 0;
    std::vector<uint32_t> overflowPages;
    // The whole record was read, its overflow chain was well formed and its
    // body has exactly the size its header declares. Only then are `values`
    // filled (and only when the caller asked for them).
    bool complete = false;
    // An overflow page of the chain is all zero bytes: the bytes a page holds
    // when it was zeroed, or when the file was cut before it and read back.
    // Payloads with a checksum catch this themselves; others cannot.
    bool zeroPageInChain = false;
    // The record header declares exactly as many bytes as the cell holds: a
    // sign that the bytes are a record at all.
    bool sizesAgree = false;
    std::vector<RecordValue> values;
};

// Reads an SQLite 3 database file page by page, as the file format lays it
// out, so that records can be found when SQLite itself gives up on the file
// (a damaged schema page, an interior page that hides whole subtrees, a file
// cut short). It never writes and holds one page at a time in memory, plus
// the record being assembled.
//
// The layout followed is SQLite's documented file format: the 100-byte
// header of page 1, b-tree page headers, cell pointer arrays, varints,
// overflow chains and the record format with its serial types. Every length
// and page number read from the file is checked before use; a page or cell
// that does not add up is skipped, never trusted.
//
// Threads: one thread at a time.
class PageScanner {
public:
    // Throws std::runtime_error when the file cannot be opened or is shorter
    // than one page of the smallest size.
    // `shownAs` is the name messages give the file (the damaged file, when
    // `file` is its copy).
    PageScanner(const std::filesystem::path& file, const std::filesystem::path& shownAs);
    ~PageScanner();
    PageScanner(const PageScanner&) = delete;
    PageScanner& operator=(const PageScanner&) = delete;

    uint32_t pageSize() const { return pageSize_; }
    // Whole pages present in the file; a page cut by the end of the file is
    // not one of them.
    uint32_t pageCount() const { return pageCount_; }
    // True when the page size came from an intact file header rather than
    // from looking at the pages.
    bool headerIntact() const { return headerIntact_; }
    bool isFreePage(uint32_t page) const { return freePages_.count(page) != 0; }
    // The number of pages the file header declares; 0 when the header is
    // damaged or the count is not one SQLite would trust (bytes 92-95 must
    // repeat the change counter of bytes 24-27).
    uint32_t declaredPageCount() const { return declaredPageCount_; }
    // Bytes past the last whole page: a page cut by the end of the file.
    uint64_t bytesPastLastPage() const { return bytesPastLastPage_; }

    // Decides from the record header whether the caller wants the values of
    // a cell (reading an overflow chain costs pages).
    using WantValues = std::function<bool(const ScannedCell& header)>;
    using CellHandler = std::function<void(const ScannedCell& cell)>;

    // Every cell of every table leaf page, in page order; pages on the free
    // list (when the list can be read) are skipped. `onPage` (optional) is
    // called before each page with its number.
    void forEachCell(const WantValues& wantValues, const CellHandler& onCell,
                     const std::function<void(uint32_t page)>& onPage = {});

    // The cells of one page (none unless it is a table leaf page).
    void cellsOfPage(uint32_t page, const WantValues& wantValues, const CellHandler& onCell);

    // The b-tree page type byte of a page (0 for a page that cannot be read).
    uint8_t pageType(uint32_t page);

    // The cells of a table interior page: each child with the largest rowid
    // of its subtree, then the rightmost child, which has no key. Absent
    // unless the page is present, off the free list and a plausible table
    // interior page whose keys ascend.
    struct TableInterior {
        std::vector<uint32_t> children;
        std::vector<int64_t> keys;
        uint32_t rightmost = 0;
    };
    std::optional<TableInterior> tableInterior(uint32_t page);

    // The rowids of a table leaf page, in the order of its cells. Absent
    // unless the page is present, off the free list and a plausible table
    // leaf page whose every cell starts with a rowid, in ascending order.
    std::optional<std::vector<int64_t>> leafRowids(uint32_t page);

    // An index b-tree page: its child pages (interior pages only, the
    // rightmost last) and the records of its cells, as long as every column
    // is an integer. `integerRecords` is false when some record was not
    // (another kind of column, or too long to stay on the page).
    struct IndexPage {
        bool leaf = false;
        std::vector<uint32_t> children;
        std::vector<std::vector<int64_t>> records;
        bool integerRecords = true;
    };
    std::optional<IndexPage> indexPage(uint32_t page);

private:
    bool readPage(uint32_t page, ByteBuffer& into);
    // Reads a page that is present and off the free list, and answers the
    // offset of its b-tree header when the header is plausible.
    std::optional<std::size_t> readBtreePage(uint32_t page, ByteBuffer& into);
    void choosePageSize(const ByteBuffer& header, uint64_t fileSize);
    void readFreeList(const ByteBuffer& header);
    void parseCell(uint32_t page, const ByteBuffer& bytes, std::size_t offset, const WantValues& wantValues,
                   const CellHandler& onCell);
    bool readOverflow(ScannedCell& cell, std::size_t localSize, uint64_t payloadSize, ByteBuffer& payload);

    int fd_ = -1;
    uint32_t pageSize_ = 0;
    uint32_t usableSize_ = 0;
    uint32_t pageCount_ = 0;
    uint32_t declaredPageCount_ = 0;
    uint64_t bytesPastLastPage_ = 0;
    bool headerIntact_ = false;
    std::set<uint32_t> freePages_;
    ByteBuffer page_;
    ByteBuffer overflow_;
};

}  // namespace Marivane::Logging::Recovery
