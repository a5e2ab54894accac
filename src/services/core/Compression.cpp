#include <core/Compression.h>

#include <xxhash.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

namespace Marivane::Compression {

CompressionError::CompressionError(const std::string& message) : std::runtime_error(message) {}

namespace {

struct CompressionContextDeleter {
    void operator()(ZSTD_CCtx* context) const noexcept { ZSTD_freeCCtx(context); }
};
struct DecompressionContextDeleter {
    void operator()(ZSTD_DCtx* context) const noexcept { ZSTD_freeDCtx(context); }
};

// Setting up a codec context costs more than compressing a small payload, so
// each thread keeps one of each for its lifetime.
ZSTD_CCtx* threadCompressionContext() {
    thread_local std::unique_ptr<ZSTD_CCtx, CompressionContextDeleter> context(ZSTD_createCCtx());
    if (!context) {
        throw CompressionError("Cannot compress data: out of memory for the codec context");
    }
    return context.get();
}

// What expanding needs: a codec context and, for expanding in pieces, a
// 128 KiB piece. Each thread keeps one of each for its lifetime, and every
// expansion borrows them: a reader of millions of small payloads neither sets
// up a context nor allocates (and zeroes) a piece per payload. An expansion
// that starts while the thread's are lent, from inside the handler of
// uncompressInPieces, gets its own, so that it leaves the stream it
// interrupts as it was.
class Decoder {
public:
    Decoder() {
        Parts& thread = threadParts();
        if (thread.lent) {
            parts_ = &own_;
        } else {
            thread.lent = true;
            parts_ = &thread;
        }
    }
    ~Decoder() {
        if (parts_ != &own_) {
            parts_->lent = false;
        }
    }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    ZSTD_DCtx* context() {
        if (!parts_->context) {
            parts_->context.reset(ZSTD_createDCtx());
            if (!parts_->context) {
                throw CompressionError("Cannot uncompress data: out of memory for the codec context");
            }
        }
        return parts_->context.get();
    }
    // Not cleared: the codec writes every byte that is handed out.
    std::byte* piece() {
        if (!parts_->piece) {
            parts_->piece = std::make_unique_for_overwrite<std::byte[]>(pieceSize());
        }
        return parts_->piece.get();
    }
    static std::size_t pieceSize() { return ZSTD_DStreamOutSize(); }

private:
    struct Parts {
        std::unique_ptr<ZSTD_DCtx, DecompressionContextDeleter> context;
        std::unique_ptr<std::byte[]> piece;
        bool lent = false;
    };
    static Parts& threadParts() {
        thread_local Parts parts;
        return parts;
    }

    Parts own_;
    Parts* parts_ = nullptr;
};

// A zstd block holds at most 128 KiB of content and costs at least three bytes
// of header, so no valid input expands beyond this. A larger declared size
// comes from a damaged header and is refused before anything is allocated.
constexpr unsigned long long kMaxBlockContent = 128 * 1024;

unsigned long long largestPossibleContent(std::size_t compressedSize) {
    return (compressedSize / 3 + 1) * kMaxBlockContent;
}

[[noreturn]] void throwUncompressError(const std::string& what) {
    throw CompressionError("Cannot uncompress data: " + what);
}

std::string declaredTooLargeMessage(unsigned long long declared) {
    return "the frame declares " + std::to_string(declared) + " bytes, more than the " +
           std::to_string(MaxExpandedSize) + " bytes any stored value can hold";
}

std::string expandsTooLargeMessage() {
    return "the data expands to more than the " + std::to_string(MaxExpandedSize) +
           " bytes any stored value can hold";
}

uint64_t littleEndian(const std::byte* bytes, std::size_t count) {
    uint64_t value = 0;
    for (std::size_t i = count; i > 0; --i) {
        value = (value << 8) | std::to_integer<uint64_t>(bytes[i - 1]);
    }
    return value;
}

// A small payload that does not compress is framed as it is, in raw blocks:
// expanding such a frame is copying its blocks out and comparing the checksum
// of what was copied with the frame's, which costs a fraction of what the
// codec spends setting up for a frame. Only a lone frame of exactly the form
// that the codec's one-call expansion accepts is copied here: the magic
// number; a single-segment header with no dictionary id and no reserved or
// unused bit set; raw blocks whose sizes add up to the declared size, the
// last one marked; then the 4-byte checksum if the header announces one, and
// nothing after. Anything else, a checksum that does not match included,
// returns false and goes to the codec, which expands it or names what is
// wrong. `written` is then the declared size.
bool copyRawFrame(const std::byte* data, std::size_t size, std::byte* output, std::size_t capacity,
                  std::size_t& written) {
    constexpr std::size_t kMagicSize = 4;
    constexpr std::size_t kBlockHeaderSize = 3;
    constexpr std::size_t kChecksumSize = 4;
    if (size < kMagicSize + 1 || littleEndian(data, kMagicSize) != ZSTD_MAGICNUMBER) {
        return false;
    }
    const auto descriptor = std::to_integer<unsigned>(data[kMagicSize]);
    const unsigned dictionaryIdSize = descriptor & 0x03;
    const bool hasChecksum = (descriptor & 0x04) != 0;
    const bool reservedOrUnused = (descriptor & 0x18) != 0;
    const bool singleSegment = (descriptor & 0x20) != 0;
    if (dictionaryIdSize != 0 || reservedOrUnused || !singleSegment) {
        return false;
    }
    constexpr std::size_t kContentSizeBytes[] = {1, 2, 4, 8};
    const std::size_t sizeBytes = kContentSizeBytes[descriptor >> 6];
    std::size_t position = kMagicSize + 1;
    if (size - position < sizeBytes) {
        return false;
    }
    uint64_t declared = littleEndian(data + position, sizeBytes);
    if (sizeBytes == 2) {
        declared += 256;
    }
    position += sizeBytes;
    if (declared > capacity) {
        return false;
    }
    std::size_t copied = 0;
    for (bool last = false; !last;) {
        if (size - position < kBlockHeaderSize) {
            return false;
        }
        const uint64_t header = littleEndian(data + position, kBlockHeaderSize);
        position += kBlockHeaderSize;
        last = (header & 1) != 0;
        const uint64_t blockType = (header >> 1) & 0x03;
        const uint64_t blockSize = header >> 3;
        constexpr uint64_t kRawBlock = 0;
        if (blockType != kRawBlock || blockSize > size - position || blockSize > declared - copied) {
            return false;
        }
        if (blockSize != 0) {
            std::memcpy(output + copied, data + position, blockSize);
        }
        copied += blockSize;
        position += blockSize;
    }
    if (copied != declared || size - position != (hasChecksum ? kChecksumSize : 0)) {
        return false;
    }
    if (hasChecksum &&
        static_cast<uint32_t>(XXH64(output, copied, 0)) != littleEndian(data + position, kChecksumSize)) {
        return false;
    }
    written = copied;
    return true;
}

// False when the data is not exactly one frame (more frames follow, or it is
// cut or followed by other bytes): the stream then expands it, or names what
// is wrong with it.
bool uncompressKnownSize(const std::byte* data, std::size_t size, std::size_t contentSize,
                         ByteBuffer& output) {
    output.resize(contentSize);
    if (std::size_t copied = 0; copyRawFrame(data, size, output.data(), output.size(), copied)) {
        return true;
    }
    Decoder decoder;
    ZSTD_DCtx* context = decoder.context();
    ZSTD_DCtx_reset(context, ZSTD_reset_session_only);
    const std::size_t written = ZSTD_decompressDCtx(context, output.data(), output.size(), data, size);
    if (ZSTD_isError(written)) {
        const ZSTD_ErrorCode code = ZSTD_getErrorCode(written);
        if (code == ZSTD_error_dstSize_tooSmall || code == ZSTD_error_srcSize_wrong) {
            return false;
        }
        throwUncompressError(ZSTD_getErrorName(written));
    }
    if (written != contentSize) {
        throwUncompressError("the frame is shorter than its declared size");
    }
    return true;
}

// Expands as a stream, handing each filled piece of `piece` to `onPiece`.
std::size_t streamPieces(ZSTD_DCtx* context, const std::byte* data, std::size_t size, std::byte* piece,
                         std::size_t pieceSize, const std::function<bool(std::size_t)>& onPiece) {
    ZSTD_DCtx_reset(context, ZSTD_reset_session_only);
    ZSTD_inBuffer input{data, size, 0};
    std::size_t total = 0;
    std::size_t remaining = 1;
    while (input.pos < input.size || remaining != 0) {
        ZSTD_outBuffer out{piece, pieceSize, 0};
        remaining = ZSTD_decompressStream(context, &out, &input);
        if (ZSTD_isError(remaining)) {
            throwUncompressError(ZSTD_getErrorName(remaining));
        }
        if (out.pos > 0) {
            total += out.pos;
            if (total > MaxExpandedSize) {
                throwUncompressError(expandsTooLargeMessage());
            }
            if (!onPiece(out.pos)) {
                return total;
            }
        }
        if (input.pos == input.size && remaining != 0 && out.pos == 0) {
            throwUncompressError("the data is truncated");
        }
    }
    return total;
}

// Frames without a declared size (written by other tools, never by
// `compress`) are measured in flat memory first, so that a bomb is refused
// before its output is allocated.
void uncompressStreaming(const std::byte* data, std::size_t size, ByteBuffer& output) {
    output.clear();
    Decoder decoder;
    std::byte* piece = decoder.piece();
    const std::size_t expandedSize = streamPieces(decoder.context(), data, size, piece, Decoder::pieceSize(),
                                                  [](std::size_t) { return true; });
    output.reserve(expandedSize);
    streamPieces(decoder.context(), data, size, piece, Decoder::pieceSize(), [&](std::size_t filled) {
        output.insert(output.end(), piece, piece + filled);
        return true;
    });
}

void checkNotEmpty(std::size_t size) {
    if (size == 0) {
        throwUncompressError("the data is empty");
    }
}

}  // namespace

std::size_t compressInto(const std::byte* data, std::size_t size, int level, ByteBuffer& output) {
    const int codecLevel = level == DefaultCompressionLevel ? ZSTD_CLEVEL_DEFAULT : level;
    ZSTD_CCtx* context = threadCompressionContext();
    // The parameters stay with the context from one frame to the next: set
    // them only when the level changes, since a payload of a few bytes costs
    // less to compress than to set up for.
    thread_local int configuredLevel = std::numeric_limits<int>::min();
    if (configuredLevel != codecLevel) {
        ZSTD_CCtx_reset(context, ZSTD_reset_session_and_parameters);
        ZSTD_CCtx_setParameter(context, ZSTD_c_compressionLevel, codecLevel);
        ZSTD_CCtx_setParameter(context, ZSTD_c_contentSizeFlag, 1);
        // Without a checksum a damaged byte in a stored (raw) block expands
        // silently into wrong data; four bytes per frame buy detection.
        ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
        configuredLevel = codecLevel;
    } else {
        ZSTD_CCtx_reset(context, ZSTD_reset_session_only);
    }
    // The buffer only grows, so a writer that reuses it zero-fills memory
    // once, not for every payload.
    const std::size_t bound = ZSTD_compressBound(size);
    if (output.size() < bound) {
        output.resize(bound);
    }
    const std::size_t written = ZSTD_compress2(context, output.data(), output.size(), data, size);
    if (ZSTD_isError(written)) {
        configuredLevel = std::numeric_limits<int>::min();
        throw CompressionError(std::string("Cannot compress data: ") + ZSTD_getErrorName(written));
    }
    return written;
}

ByteBuffer compress(const ByteBuffer& data, int level) {
    ByteBuffer output;
    output.resize(compressInto(data.data(), data.size(), level, output));
    return output;
}

ByteBuffer uncompress(const ByteBuffer& data) {
    ByteBuffer output;
    uncompressInto(data.data(), data.size(), output);
    return output;
}

void uncompressInto(const std::byte* data, std::size_t size, ByteBuffer& output) {
    try {
        checkNotEmpty(size);
        const unsigned long long contentSize = ZSTD_getFrameContentSize(data, size);
        if (contentSize == ZSTD_CONTENTSIZE_ERROR) {
            throwUncompressError("the data is not a valid compressed frame or is truncated");
        }
        if (contentSize != ZSTD_CONTENTSIZE_UNKNOWN && contentSize > largestPossibleContent(size)) {
            throwUncompressError("the frame declares more data than it can hold");
        }
        if (contentSize != ZSTD_CONTENTSIZE_UNKNOWN && contentSize > MaxExpandedSize) {
            throwUncompressError(declaredTooLargeMessage(contentSize));
        }
        // The first frame's header states its size: one call expands it. Data
        // beyond it (concatenated frames) no longer fits and expands as a
        // stream, as do frames without a size.
        if (contentSize == ZSTD_CONTENTSIZE_UNKNOWN ||
            !uncompressKnownSize(data, size, static_cast<std::size_t>(contentSize), output)) {
            uncompressStreaming(data, size, output);
        }
    } catch (...) {
        output.clear();
        throw;
    }
}

std::size_t uncompressInPieces(const std::byte* data, std::size_t size, const PieceHandler& onPiece) {
    checkNotEmpty(size);
    const unsigned long long contentSize = ZSTD_getFrameContentSize(data, size);
    if (contentSize == ZSTD_CONTENTSIZE_ERROR) {
        throwUncompressError("the data is not a valid compressed frame or is truncated");
    }
    if (contentSize != ZSTD_CONTENTSIZE_UNKNOWN && contentSize > MaxExpandedSize) {
        throwUncompressError(declaredTooLargeMessage(contentSize));
    }
    Decoder decoder;
    std::byte* piece = decoder.piece();
    // A lone frame that declares a size a piece holds: the stream would
    // expand it in one call of its own (its single-pass shortcut, with the
    // same errors); calling that directly saves the stream's set-up, which
    // costs more than expanding a small payload.
    if (contentSize != ZSTD_CONTENTSIZE_UNKNOWN && contentSize <= Decoder::pieceSize() &&
        ZSTD_findFrameCompressedSize(data, size) == size) {
        if (std::size_t copied = 0; copyRawFrame(data, size, piece, Decoder::pieceSize(), copied)) {
            if (copied > 0) {
                onPiece(piece, copied);
            }
            return copied;
        }
        const std::size_t written =
            ZSTD_decompressDCtx(decoder.context(), piece, Decoder::pieceSize(), data, size);
        if (ZSTD_isError(written)) {
            throwUncompressError(ZSTD_getErrorName(written));
        }
        if (written > 0) {
            onPiece(piece, written);
        }
        return written;
    }
    return streamPieces(decoder.context(), data, size, piece, Decoder::pieceSize(),
                        [&](std::size_t filled) { return onPiece(piece, filled); });
}

std::optional<uint64_t> declaredExpandedSize(const std::byte* data, std::size_t size) {
    uint64_t total = 0;
    while (size > 0) {
        const std::size_t frame = ZSTD_findFrameCompressedSize(data, size);
        if (ZSTD_isError(frame) != 0 || frame == 0 || frame > size) {
            return std::nullopt;
        }
        const unsigned long long declared = ZSTD_getFrameContentSize(data, frame);
        if (declared == ZSTD_CONTENTSIZE_UNKNOWN || declared == ZSTD_CONTENTSIZE_ERROR ||
            declared > std::numeric_limits<uint64_t>::max() - total) {
            return std::nullopt;
        }
        total += declared;
        data += frame;
        size -= frame;
    }
    return total;
}

bool startsWithFrame(const std::byte* data, std::size_t size) {
    if (size < 4) {
        return false;
    }
    const uint32_t magic = static_cast<uint32_t>(data[0]) | static_cast<uint32_t>(data[1]) << 8 |
                           static_cast<uint32_t>(data[2]) << 16 | static_cast<uint32_t>(data[3]) << 24;
    return magic == ZSTD_MAGICNUMBER || (magic & ZSTD_MAGIC_SKIPPABLE_MASK) == ZSTD_MAGIC_SKIPPABLE_START;
}

}  // namespace Marivane::Compression
