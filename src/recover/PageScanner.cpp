#include "recover/PageScanner.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Marivane::Logging::Recovery {

namespace {

// Layout constants of the SQLite 3 file format (https://sqlite.org/fileformat2.html).
constexpr std::size_t kFileHeaderSize = 100;
constexpr char kMagic[] = "SQLite format 3";
constexpr uint32_t kSmallestPageSize = 512;
constexpr uint32_t kLargestPageSize = 65536;
constexpr uint8_t kTableInteriorPage = 0x05;
constexpr uint8_t kTableLeafPage = 0x0D;
constexpr uint8_t kIndexInteriorPage = 0x02;
constexpr uint8_t kIndexLeafPage = 0x0A;
constexpr std::size_t kLeafHeaderSize = 8;
constexpr std::size_t kInteriorHeaderSize = 12;
// A varint is at most nine bytes.
constexpr std::size_t kMaxVarint = 9;
// A record header this long would be a table of thousands of columns: the
// bytes are not a record.
constexpr uint64_t kMaxRecordHeader = 4096;
// Guessing the page size looks at this many pages of each candidate size.
constexpr uint64_t kPagesToGuessFrom = 2048;

uint32_t readBigEndian16(const std::byte* bytes) {
    return static_cast<uint32_t>(bytes[0]) << 8 | static_cast<uint32_t>(bytes[1]);
}

uint32_t readBigEndian32(const std::byte* bytes) {
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | static_cast<uint32_t>(bytes[3]);
}

// SQLite's varint: big-endian groups of seven bits, the high bit saying
// another byte follows, except that the ninth byte gives all eight bits.
// Returns the bytes used, 0 when the varint runs past `end`.
std::size_t readVarint(const std::byte* bytes, const std::byte* end, uint64_t& value) {
    value = 0;
    for (std::size_t i = 0; i < kMaxVarint; ++i) {
        if (bytes + i >= end) {
            return 0;
        }
        const auto byte = static_cast<uint8_t>(bytes[i]);
        if (i == kMaxVarint - 1) {
            value = (value << 8) | byte;
            return kMaxVarint;
        }
        value = (value << 7) | (byte & 0x7f);
        if ((byte & 0x80) == 0) {
            return i + 1;
        }
    }
    return 0;
}

// Bytes a column of this serial type takes in the record body.
uint64_t serialTypeSize(uint64_t serialType) {
    static constexpr std::array<uint64_t, 12> kFixed = {0, 1, 2, 3, 4, 6, 8, 8, 0, 0, 0, 0};
    if (serialType < kFixed.size()) {
        return kFixed[serialType];
    }
    return (serialType - 12) / 2;
}

int64_t readSignedBigEndian(const std::byte* bytes, std::size_t size) {
    uint64_t value = static_cast<uint8_t>(bytes[0]) & 0x80 ? ~uint64_t{0} : 0;
    for (std::size_t i = 0; i < size; ++i) {
        value = (value << 8) | static_cast<uint8_t>(bytes[i]);
    }
    return static_cast<int64_t>(value);
}

bool allZero(const std::byte* bytes, std::size_t size) {
    return std::all_of(bytes, bytes + size, [](std::byte b) { return b == std::byte{0}; });
}

// Whether a page's b-tree header is self-consistent for a page of `usable`
// bytes starting its header at `headerOffset`.
bool plausibleBtreePage(const std::byte* page, std::size_t headerOffset, std::size_t usable) {
    const auto type = static_cast<uint8_t>(page[headerOffset]);
    std::size_t headerSize = 0;
    if (type == kTableLeafPage || type == kIndexLeafPage) {
        headerSize = kLeafHeaderSize;
    } else if (type == kTableInteriorPage || type == kIndexInteriorPage) {
        headerSize = kInteriorHeaderSize;
    } else {
        return false;
    }
    const uint32_t cells = readBigEndian16(page + headerOffset + 3);
    uint32_t contentStart = readBigEndian16(page + headerOffset + 5);
    if (contentStart == 0) {
        contentStart = 65536;
    }
    const std::size_t pointersEnd = headerOffset + headerSize + 2 * std::size_t{cells};
    return pointersEnd <= usable && contentStart >= pointersEnd && contentStart <= usable;
}

}  // namespace

RecordValue::Kind kindOfSerialType(uint64_t serialType) {
    if (serialType == 0 || serialType == 10 || serialType == 11) {
        return RecordValue::Kind::Null;
    }
    if (serialType == 7) {
        return RecordValue::Kind::Real;
    }
    if (serialType < 12) {
        return RecordValue::Kind::Integer;
    }
    return serialType % 2 == 0 ? RecordValue::Kind::Blob : RecordValue::Kind::Text;
}

PageScanner::PageScanner(const std::filesystem::path& file, const std::filesystem::path& shownAs) {
    fd_ = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        throw std::runtime_error("Cannot read '" + shownAs.string() + "': " + std::strerror(errno));
    }
    struct stat status {};
    if (::fstat(fd_, &status) != 0 || status.st_size < static_cast<off_t>(kSmallestPageSize)) {
        ::close(fd_);
        fd_ = -1;
        throw std::runtime_error("Cannot read '" + shownAs.string() + "': it is too short to hold a page.");
    }
    const auto fileSize = static_cast<uint64_t>(status.st_size);
    ByteBuffer header(kFileHeaderSize);
    if (::pread(fd_, header.data(), header.size(), 0) != static_cast<ssize_t>(header.size())) {
        ::close(fd_);
        fd_ = -1;
        throw std::runtime_error("Cannot read '" + shownAs.string() + "': " + std::strerror(errno));
    }
    choosePageSize(header, fileSize);
    pageCount_ = static_cast<uint32_t>(std::min<uint64_t>(fileSize / pageSize_, UINT32_MAX));
    bytesPastLastPage_ = fileSize % pageSize_;
    // SQLite trusts the page count of bytes 28-31 only while the
    // version-valid-for number (92-95) equals the change counter (24-27).
    if (headerIntact_ && std::memcmp(header.data() + 24, header.data() + 92, 4) == 0) {
        declaredPageCount_ = readBigEndian32(header.data() + 28);
    }
    page_.resize(pageSize_);
    overflow_.resize(pageSize_);
    if (headerIntact_) {
        readFreeList(header);
    }
}

PageScanner::~PageScanner() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

void PageScanner::choosePageSize(const ByteBuffer& header, uint64_t fileSize) {
    // Bytes 16-17 hold the page size (1 meaning 65536), byte 20 the bytes
    // reserved at the end of each page, and bytes 21-23 the fixed payload
    // fractions 64, 32, 32: together with the magic string they tell an
    // intact header from a damaged one.
    const bool magic = std::memcmp(header.data(), kMagic, sizeof kMagic) == 0;
    uint32_t declared = readBigEndian16(header.data() + 16);
    declared = declared == 1 ? kLargestPageSize : declared;
    const bool powerOfTwo =
        declared >= kSmallestPageSize && declared <= kLargestPageSize && (declared & (declared - 1)) == 0;
    const bool fractions = static_cast<uint8_t>(header[21]) == 64 && static_cast<uint8_t>(header[22]) == 32 &&
                           static_cast<uint8_t>(header[23]) == 32;
    const auto reserved = static_cast<uint8_t>(header[20]);
    if (magic && powerOfTwo && fractions && declared - reserved >= 480) {
        headerIntact_ = true;
        pageSize_ = declared;
        usableSize_ = declared - reserved;
        return;
    }
    // Without a header, each possible size is tried on the first pages: the
    // true one finds the most cells whose record headers add up to their
    // payload sizes (a wrong size misplaces pages and miscomputes how much
    // of a payload stays on its page). Ties go to the smaller size.
    std::size_t bestScore = 0;
    uint32_t best = 4096;
    for (uint32_t size = kSmallestPageSize; size <= kLargestPageSize; size *= 2) {
        pageSize_ = size;
        usableSize_ = size;
        pageCount_ = static_cast<uint32_t>(std::min<uint64_t>(fileSize / size, UINT32_MAX));
        page_.resize(size);
        std::size_t score = 0;
        const uint32_t pages = static_cast<uint32_t>(std::min<uint64_t>(pageCount_, kPagesToGuessFrom));
        for (uint32_t page = 2; page <= pages; ++page) {
            cellsOfPage(page, {}, [&](const ScannedCell& cell) { score += cell.sizesAgree ? 1 : 0; });
        }
        if (score > bestScore) {
            bestScore = score;
            best = size;
        }
    }
    pageSize_ = best;
    usableSize_ = best;
}

void PageScanner::readFreeList(const ByteBuffer& header) {
    // Bytes 32-35: the first trunk page of the free list; 36-39: the number
    // of free pages. A trunk page lists leaf pages after its next-trunk
    // pointer and count. Pages on the list may hold stale rows, which must
    // not come back.
    uint32_t trunk = readBigEndian32(header.data() + 32);
    const uint32_t total = readBigEndian32(header.data() + 36);
    ByteBuffer bytes;
    while (trunk >= 2 && trunk <= pageCount_ && freePages_.size() < total && !freePages_.count(trunk)) {
        if (!readPage(trunk, bytes)) {
            return;
        }
        freePages_.insert(trunk);
        const uint32_t leaves = readBigEndian32(bytes.data() + 4);
        if (leaves > (usableSize_ - 8) / 4) {
            return;
        }
        for (uint32_t i = 0; i < leaves; ++i) {
            const uint32_t leaf = readBigEndian32(bytes.data() + 8 + 4 * std::size_t{i});
            if (leaf >= 2 && leaf <= pageCount_) {
                freePages_.insert(leaf);
            }
        }
        trunk = readBigEndian32(bytes.data());
    }
}

bool PageScanner::readPage(uint32_t page, ByteBuffer& into) {
    if (page < 1 || page > pageCount_) {
        return false;
    }
    into.resize(pageSize_);
    const off_t offset = static_cast<off_t>(page - 1) * pageSize_;
    return ::pread(fd_, into.data(), pageSize_, offset) == static_cast<ssize_t>(pageSize_);
}

std::optional<std::size_t> PageScanner::readBtreePage(uint32_t page, ByteBuffer& into) {
    if (isFreePage(page) || !readPage(page, into)) {
        return std::nullopt;
    }
    const std::size_t headerOffset = page == 1 ? kFileHeaderSize : 0;
    if (!plausibleBtreePage(into.data(), headerOffset, usableSize_)) {
        return std::nullopt;
    }
    return headerOffset;
}

std::optional<PageScanner::TableInterior> PageScanner::tableInterior(uint32_t page) {
    ByteBuffer bytes;
    const std::optional<std::size_t> headerOffset = readBtreePage(page, bytes);
    if (!headerOffset || static_cast<uint8_t>(bytes[*headerOffset]) != kTableInteriorPage) {
        return std::nullopt;
    }
    const std::byte* header = bytes.data() + *headerOffset;
    const uint32_t cells = readBigEndian16(header + 3);
    const std::size_t pointers = *headerOffset + kInteriorHeaderSize;
    const std::size_t contentFloor = pointers + 2 * std::size_t{cells};
    const std::byte* end = bytes.data() + usableSize_;
    TableInterior interior;
    interior.rightmost = readBigEndian32(header + 8);
    if (interior.rightmost < 2) {
        return std::nullopt;
    }
    for (uint32_t i = 0; i < cells; ++i) {
        const std::size_t offset = readBigEndian16(bytes.data() + pointers + 2 * std::size_t{i});
        if (offset < contentFloor || offset + 4 >= usableSize_) {
            return std::nullopt;
        }
        const uint32_t child = readBigEndian32(bytes.data() + offset);
        uint64_t key = 0;
        if (child < 2 || readVarint(bytes.data() + offset + 4, end, key) == 0) {
            return std::nullopt;
        }
        const auto signedKey = static_cast<int64_t>(key);
        if (!interior.keys.empty() && signedKey <= interior.keys.back()) {
            return std::nullopt;
        }
        interior.children.push_back(child);
        interior.keys.push_back(signedKey);
    }
    return interior;
}

std::optional<std::vector<int64_t>> PageScanner::leafRowids(uint32_t page) {
    ByteBuffer bytes;
    const std::optional<std::size_t> headerOffset = readBtreePage(page, bytes);
    if (!headerOffset || static_cast<uint8_t>(bytes[*headerOffset]) != kTableLeafPage) {
        return std::nullopt;
    }
    const uint32_t cells = readBigEndian16(bytes.data() + *headerOffset + 3);
    const std::size_t pointers = *headerOffset + kLeafHeaderSize;
    const std::size_t contentFloor = pointers + 2 * std::size_t{cells};
    const std::byte* end = bytes.data() + usableSize_;
    std::vector<int64_t> rowids;
    for (uint32_t i = 0; i < cells; ++i) {
        const std::size_t offset = readBigEndian16(bytes.data() + pointers + 2 * std::size_t{i});
        if (offset < contentFloor || offset >= usableSize_) {
            return std::nullopt;
        }
        uint64_t payloadSize = 0;
        uint64_t rowid = 0;
        const std::size_t used = readVarint(bytes.data() + offset, end, payloadSize);
        if (used == 0 || readVarint(bytes.data() + offset + used, end, rowid) == 0) {
            return std::nullopt;
        }
        const auto signedRowid = static_cast<int64_t>(rowid);
        if (!rowids.empty() && signedRowid <= rowids.back()) {
            return std::nullopt;
        }
        rowids.push_back(signedRowid);
    }
    return rowids;
}

std::optional<PageScanner::IndexPage> PageScanner::indexPage(uint32_t page) {
    ByteBuffer bytes;
    const std::optional<std::size_t> headerOffset = readBtreePage(page, bytes);
    if (!headerOffset) {
        return std::nullopt;
    }
    const auto type = static_cast<uint8_t>(bytes[*headerOffset]);
    if (type != kIndexLeafPage && type != kIndexInteriorPage) {
        return std::nullopt;
    }
    IndexPage index;
    index.leaf = type == kIndexLeafPage;
    const std::byte* header = bytes.data() + *headerOffset;
    const uint32_t cells = readBigEndian16(header + 3);
    const std::size_t pointers = *headerOffset + (index.leaf ? kLeafHeaderSize : kInteriorHeaderSize);
    const std::size_t contentFloor = pointers + 2 * std::size_t{cells};
    const std::byte* end = bytes.data() + usableSize_;
    // An index cell keeps at most this much of its record on the page.
    const uint64_t maxLocal = (uint64_t{usableSize_} - 12) * 64 / 255 - 23;
    for (uint32_t i = 0; i < cells; ++i) {
        std::size_t offset = readBigEndian16(bytes.data() + pointers + 2 * std::size_t{i});
        if (offset < contentFloor || offset + (index.leaf ? 0 : 4) >= usableSize_) {
            return std::nullopt;
        }
        if (!index.leaf) {
            const uint32_t child = readBigEndian32(bytes.data() + offset);
            if (child < 2) {
                return std::nullopt;
            }
            index.children.push_back(child);
            offset += 4;
        }
        uint64_t payloadSize = 0;
        const std::size_t used = readVarint(bytes.data() + offset, end, payloadSize);
        if (used == 0) {
            return std::nullopt;
        }
        const std::byte* record = bytes.data() + offset + used;
        if (payloadSize > maxLocal || record + payloadSize > end) {
            index.integerRecords = false;
            continue;
        }
        const std::byte* recordEnd = record + payloadSize;
        uint64_t headerSize = 0;
        const std::size_t headerUsed = readVarint(record, recordEnd, headerSize);
        if (headerUsed == 0 || headerSize < headerUsed || headerSize > payloadSize) {
            index.integerRecords = false;
            continue;
        }
        std::vector<int64_t> values;
        const std::byte* body = record + headerSize;
        bool integers = true;
        for (const std::byte* at = record + headerUsed; at < record + headerSize && integers;) {
            uint64_t serialType = 0;
            const std::size_t typeBytes = readVarint(at, record + headerSize, serialType);
            const auto size = static_cast<std::size_t>(serialTypeSize(serialType));
            if (typeBytes == 0 || kindOfSerialType(serialType) != RecordValue::Kind::Integer ||
                body + size > recordEnd) {
                integers = false;
                break;
            }
            values.push_back(serialType == 8 || serialType == 9 ? static_cast<int64_t>(serialType - 8)
                                                                : readSignedBigEndian(body, size));
            body += size;
            at += typeBytes;
        }
        if (!integers || body != recordEnd) {
            index.integerRecords = false;
            continue;
        }
        index.records.push_back(std::move(values));
    }
    if (!index.leaf) {
        const uint32_t rightmost = readBigEndian32(header + 8);
        if (rightmost < 2) {
            return std::nullopt;
        }
        index.children.push_back(rightmost);
    }
    return index;
}

uint8_t PageScanner::pageType(uint32_t page) {
    ByteBuffer bytes;
    if (!readPage(page, bytes)) {
        return 0;
    }
    return static_cast<uint8_t>(bytes[page == 1 ? kFileHeaderSize : 0]);
}

void PageScanner::forEachCell(const WantValues& wantValues, const CellHandler& onCell,
                              const std::function<void(uint32_t page)>& onPage) {
    for (uint32_t page = 1; page <= pageCount_; ++page) {
        if (onPage) {
            onPage(page);
        }
        if (!isFreePage(page)) {
            cellsOfPage(page, wantValues, onCell);
        }
    }
}

void PageScanner::cellsOfPage(uint32_t page, const WantValues& wantValues, const CellHandler& onCell) {
    if (!readPage(page, page_)) {
        return;
    }
    // Page 1 starts with the file header; its b-tree header follows it.
    const std::size_t headerOffset = page == 1 ? kFileHeaderSize : 0;
    if (static_cast<uint8_t>(page_[headerOffset]) != kTableLeafPage ||
        !plausibleBtreePage(page_.data(), headerOffset, usableSize_)) {
        return;
    }
    const uint32_t cells = readBigEndian16(page_.data() + headerOffset + 3);
    const std::size_t pointers = headerOffset + kLeafHeaderSize;
    const std::size_t contentFloor = pointers + 2 * std::size_t{cells};
    // The handler may scan other pages; the leaf is kept apart meanwhile.
    const ByteBuffer leaf = page_;
    for (uint32_t i = 0; i < cells; ++i) {
        const std::size_t offset = readBigEndian16(leaf.data() + pointers + 2 * std::size_t{i});
        if (offset >= contentFloor && offset < usableSize_) {
            parseCell(page, leaf, offset, wantValues, onCell);
        }
    }
}

void PageScanner::parseCell(uint32_t page, const ByteBuffer& bytes, std::size_t offset,
                            const WantValues& wantValues, const CellHandler& onCell) {
    const std::byte* end = bytes.data() + usableSize_;
    const std::byte* at = bytes.data() + offset;
    uint64_t payloadSize = 0;
    uint64_t rowid = 0;
    std::size_t used = readVarint(at, end, payloadSize);
    if (used == 0) {
        return;
    }
    at += used;
    used = readVarint(at, end, rowid);
    if (used == 0) {
        return;
    }
    at += used;
    // How much of the payload a table leaf keeps on the page: all of it up to
    // U - 35 bytes; beyond that a minimum M plus whatever rounds the rest to
    // whole overflow pages, if that still fits under U - 35.
    const uint64_t usable = usableSize_;
    const uint64_t maxLocal = usable - 35;
    const uint64_t minLocal = ((usable - 12) * 32 / 255) - 23;
    uint64_t localSize = payloadSize;
    if (payloadSize > maxLocal) {
        const uint64_t rounded = minLocal + ((payloadSize - minLocal) % (usable - 4));
        localSize = rounded <= maxLocal ? rounded : minLocal;
    }
    const auto localStart = static_cast<std::size_t>(at - bytes.data());
    const bool spills = localSize < payloadSize;
    // A payload longer than every page of the file together is no payload.
    const uint64_t overflowCapacity = uint64_t{pageCount_} * (usable - 4);
    if (localStart + localSize + (spills ? 4 : 0) > usable || payloadSize - localSize > overflowCapacity) {
        return;
    }

    ScannedCell cell;
    cell.page = page;
    cell.rowid = static_cast<int64_t>(rowid);
    const std::byte* local = bytes.data() + localStart;
    const std::byte* localEnd = local + localSize;
    uint64_t headerSize = 0;
    used = readVarint(local, localEnd, headerSize);
    if (used == 0 || headerSize < used || headerSize > localSize || headerSize > kMaxRecordHeader) {
        return;
    }
    uint64_t bodySize = 0;
    for (const std::byte* type = local + used; type < local + headerSize;) {
        uint64_t serialType = 0;
        const std::size_t typeBytes = readVarint(type, local + headerSize, serialType);
        if (typeBytes == 0 || serialType == 10 || serialType == 11) {
            return;
        }
        cell.serialTypes.push_back(serialType);
        bodySize += serialTypeSize(serialType);
        type += typeBytes;
    }
    if (spills) {
        cell.firstOverflowPage = readBigEndian32(localEnd);
    }
    const bool sizesAgree = headerSize + bodySize == payloadSize;
    cell.sizesAgree = sizesAgree;
    if (!sizesAgree || !wantValues || !wantValues(cell)) {
        if (sizesAgree && !spills) {
            cell.complete = true;
        }
        onCell(cell);
        return;
    }

    ByteBuffer payload(local, localEnd);
    if (spills && !readOverflow(cell, static_cast<std::size_t>(localSize), payloadSize, payload)) {
        onCell(cell);
        return;
    }
    const std::byte* body = payload.data() + headerSize;
    for (const uint64_t serialType : cell.serialTypes) {
        RecordValue value;
        value.kind = kindOfSerialType(serialType);
        const auto size = static_cast<std::size_t>(serialTypeSize(serialType));
        if (serialType == 8 || serialType == 9) {
            value.integer = static_cast<int64_t>(serialType - 8);
        } else if (value.kind == RecordValue::Kind::Integer) {
            value.integer = readSignedBigEndian(body, size);
        } else if (value.kind == RecordValue::Kind::Real) {
            const uint64_t bits = static_cast<uint64_t>(readSignedBigEndian(body, size));
            std::memcpy(&value.real, &bits, sizeof value.real);
        } else if (value.kind != RecordValue::Kind::Null) {
            value.bytes.assign(body, body + size);
        }
        body += size;
        cell.values.push_back(std::move(value));
    }
    cell.complete = true;
    onCell(cell);
}

bool PageScanner::readOverflow(ScannedCell& cell, std::size_t localSize, uint64_t payloadSize,
                               ByteBuffer& payload) {
    // Each overflow page starts with the number of the next one (0 on the
    // last) and carries U - 4 bytes of payload. The chain must have exactly
    // the length the payload needs, end in 0, and never revisit a page.
    const std::size_t perPage = usableSize_ - 4;
    uint64_t remaining = payloadSize - localSize;
    uint32_t next = cell.firstOverflowPage;
    std::set<uint32_t> visited;
    while (remaining > 0) {
        if (next < 2 || next > pageCount_ || !visited.insert(next).second || isFreePage(next) ||
            !readPage(next, overflow_)) {
            return false;
        }
        cell.overflowPages.push_back(next);
        if (allZero(overflow_.data(), pageSize_)) {
            cell.zeroPageInChain = true;
        }
        const auto take = static_cast<std::size_t>(std::min<uint64_t>(remaining, perPage));
        payload.insert(payload.end(), overflow_.begin() + 4, overflow_.begin() + 4 + static_cast<long>(take));
        remaining -= take;
        next = readBigEndian32(overflow_.data());
        if ((remaining == 0) != (next == 0)) {
            return false;
        }
    }
    return true;
}

}  // namespace Marivane::Logging::Recovery
