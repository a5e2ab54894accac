#include <core/Compression.h>

#include <gtest/gtest.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using Marivane::Compression::ByteBuffer;
using Marivane::Compression::compress;
using Marivane::Compression::CompressionError;
using Marivane::Compression::uncompress;

namespace {

constexpr std::size_t kMiB = 1024 * 1024;

// Sensor-like bytes: random, but only 16 distinct values, so the codec has
// something to gain and frames differ clearly from their input.
ByteBuffer compressibleBytes(std::size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    ByteBuffer bytes(size);
    for (std::byte& b : bytes) {
        b = static_cast<std::byte>(generator() & 0x0F);
    }
    return bytes;
}

// Random bytes the codec cannot shrink: it stores them in raw blocks, where a
// flipped byte is not caught by the block structure itself.
ByteBuffer incompressibleBytes(std::size_t size, unsigned seed) {
    std::mt19937 generator(seed);
    ByteBuffer bytes(size);
    for (std::byte& b : bytes) {
        b = static_cast<std::byte>(generator() & 0xFF);
    }
    return bytes;
}

// A frame made with the codec's streaming interface and no pledged size, so
// its header does not record the content size.
ByteBuffer streamedFrameWithoutSize(const ByteBuffer& data, int level) {
    std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> context(ZSTD_createCCtx(), &ZSTD_freeCCtx);
    EXPECT_FALSE(ZSTD_isError(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, level)));
    ByteBuffer output;
    const std::size_t chunk = ZSTD_CStreamOutSize();
    // Runs one directive until the codec has taken all input (and, for the
    // end directive, written the whole epilogue).
    auto run = [&](const std::byte* bytes, std::size_t size, ZSTD_EndDirective mode) {
        ZSTD_inBuffer input{bytes, size, 0};
        for (;;) {
            const std::size_t used = output.size();
            output.resize(used + chunk);
            ZSTD_outBuffer out{output.data() + used, chunk, 0};
            const std::size_t remaining = ZSTD_compressStream2(context.get(), &out, &input, mode);
            output.resize(used + out.pos);
            if (ZSTD_isError(remaining)) {
                ADD_FAILURE() << ZSTD_getErrorName(remaining);
                return;
            }
            if (mode == ZSTD_e_end ? remaining == 0 : input.pos == input.size) {
                return;
            }
        }
    };
    // Feeding pieces before ending the frame, as a recorder writing as it goes
    // would, keeps the codec from learning the total size; so does an empty
    // first piece.
    const std::size_t piece = 64 * 1024;
    std::size_t offset = 0;
    do {
        const std::size_t take = std::min(piece, data.size() - offset);
        run(data.data() + offset, take, ZSTD_e_continue);
        offset += take;
    } while (offset < data.size());
    run(nullptr, 0, ZSTD_e_end);
    return output;
}

ByteBuffer concat(ByteBuffer a, const ByteBuffer& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::string uncompressFailure(const ByteBuffer& data) {
    try {
        const ByteBuffer result = uncompress(data);
        ADD_FAILURE() << "uncompress returned " << result.size() << " bytes instead of throwing";
    } catch (const CompressionError& error) {
        return error.what();
    }
    return {};
}

std::string zstdMessage(ZSTD_ErrorCode code) {
    return std::string("Cannot uncompress data: ") + ZSTD_getErrorString(code);
}

// Size of a frame header, from its descriptor byte (the codec's format
// description): magic, descriptor, window byte, dictionary id, content size.
std::size_t frameHeaderSize(const ByteBuffer& frame) {
    const auto descriptor = std::to_integer<unsigned>(frame.at(4));
    const unsigned sizeFlag = descriptor >> 6;
    const bool singleSegment = (descriptor >> 5) & 1U;
    constexpr std::size_t dictionaryIdBytes[] = {0, 1, 2, 4};
    constexpr std::size_t contentSizeBytes[] = {0, 2, 4, 8};
    std::size_t size = 4 + 1 + (singleSegment ? 0 : 1) + dictionaryIdBytes[descriptor & 3U];
    size += sizeFlag == 0 ? (singleSegment ? 1 : 0) : contentSizeBytes[sizeFlag];
    return size;
}

struct RoundTripCase {
    int level;
    std::size_t size;
};

class CompressionRoundTrip : public ::testing::TestWithParam<RoundTripCase> {};

}  // namespace

TEST(CompressionErrorTest, IsARuntimeErrorCarryingItsMessage) {
    static_assert(std::is_base_of_v<std::runtime_error, CompressionError>);
    const CompressionError error("broken frame");
    const std::runtime_error& base = error;
    EXPECT_STREQ(base.what(), "broken frame");
}

TEST_P(CompressionRoundTrip, ExpandsToTheOriginalAndRecordsTheContentSize) {
    const RoundTripCase param = GetParam();
    const ByteBuffer data = compressibleBytes(param.size, static_cast<unsigned>(param.size) + 7);
    const ByteBuffer frame = compress(data, param.level);

    ASSERT_FALSE(frame.empty());
    EXPECT_EQ(ZSTD_getFrameContentSize(frame.data(), frame.size()),
              static_cast<unsigned long long>(param.size));
    EXPECT_EQ(ZSTD_findFrameCompressedSize(frame.data(), frame.size()), frame.size());
    if (param.size >= kMiB) {
        // Four bits of entropy per byte: any real coding gains a third.
        EXPECT_LT(frame.size(), param.size / 3 * 2);
    }
    EXPECT_EQ(uncompress(frame), data);
}

INSTANTIATE_TEST_SUITE_P(LevelsAndSizes, CompressionRoundTrip,
                         ::testing::Values(RoundTripCase{-1, 0}, RoundTripCase{-1, 1},
                                           RoundTripCase{-1, kMiB}, RoundTripCase{-1, 16 * kMiB},
                                           RoundTripCase{1, 0}, RoundTripCase{1, 1}, RoundTripCase{1, kMiB},
                                           RoundTripCase{1, 16 * kMiB}, RoundTripCase{9, 0},
                                           RoundTripCase{9, 1}, RoundTripCase{9, kMiB},
                                           RoundTripCase{9, 16 * kMiB}),
                         [](const ::testing::TestParamInfo<RoundTripCase>& info) {
                             const std::string level = info.param.level < 0
                                                           ? "Default"
                                                           : "Level" + std::to_string(info.param.level);
                             return level + "_" + std::to_string(info.param.size) + "Bytes";
                         });

TEST(CompressionTest, DefaultLevelIsTheCodecDefault) {
    const ByteBuffer data = compressibleBytes(256 * 1024, 3);
    EXPECT_EQ(compress(data, -1), compress(data, ZSTD_CLEVEL_DEFAULT));
    EXPECT_NE(compress(data, -1), compress(data, 1));
}

TEST(CompressionTest, IncompressibleDataStillRoundTrips) {
    const ByteBuffer data = incompressibleBytes(300 * 1024, 11);
    const ByteBuffer frame = compress(data, 9);
    EXPECT_EQ(ZSTD_getFrameContentSize(frame.data(), frame.size()), data.size());
    EXPECT_EQ(uncompress(frame), data);
}

TEST(CompressionTest, ExpandsAStreamedFrameWithoutContentSize) {
    const ByteBuffer data = compressibleBytes(kMiB + 3, 5);
    const ByteBuffer frame = streamedFrameWithoutSize(data, 3);
    ASSERT_EQ(ZSTD_getFrameContentSize(frame.data(), frame.size()), ZSTD_CONTENTSIZE_UNKNOWN);
    EXPECT_EQ(uncompress(frame), data);
}

TEST(CompressionTest, ExpandsAnEmptyStreamedFrameWithoutContentSize) {
    const ByteBuffer frame = streamedFrameWithoutSize({}, 3);
    ASSERT_FALSE(frame.empty());
    ASSERT_EQ(ZSTD_getFrameContentSize(frame.data(), frame.size()), ZSTD_CONTENTSIZE_UNKNOWN);
    EXPECT_TRUE(uncompress(frame).empty());
}

TEST(CompressionTest, ExpandsConcatenatedFrames) {
    const ByteBuffer first = compressibleBytes(200 * 1024, 1);
    const ByteBuffer second = compressibleBytes(17, 2);
    const ByteBuffer third = compressibleBytes(300 * 1024, 3);
    const ByteBuffer frames =
        concat(concat(compress(first, 1), streamedFrameWithoutSize(second, 5)), compress(third, 9));
    EXPECT_EQ(uncompress(frames), concat(concat(first, second), third));
}

TEST(CompressionTest, ExpandsConcatenatedEmptyFrames) {
    const ByteBuffer one = compressibleBytes(1, 4);
    const ByteBuffer frames = concat(concat(compress({}, 1), compress(one, 1)), compress({}, 9));
    EXPECT_EQ(uncompress(frames), one);
}

TEST(CompressionTest, EmptyInputIsRefused) {
    EXPECT_EQ(uncompressFailure({}), "Cannot uncompress data: the data is empty");
}

TEST(CompressionTest, BytesThatAreNoFrameAreRefused) {
    ByteBuffer notAFrame = compressibleBytes(4096, 9);
    EXPECT_EQ(uncompressFailure(notAFrame),
              "Cannot uncompress data: the data is not a valid compressed frame or is truncated");
    const ByteBuffer threeBytes{std::byte{'a'}, std::byte{'b'}, std::byte{'c'}};
    EXPECT_EQ(uncompressFailure(threeBytes),
              "Cannot uncompress data: the data is not a valid compressed frame or is truncated");
}

TEST(CompressionTest, DamagedMagicNumberIsRefused) {
    ByteBuffer frame = compress(compressibleBytes(1000, 1), 3);
    frame[0] ^= std::byte{0xFF};
    EXPECT_EQ(uncompressFailure(frame),
              "Cannot uncompress data: the data is not a valid compressed frame or is truncated");
}

TEST(CompressionTest, CorruptBlockIsRefused) {
    ByteBuffer frame = compress(compressibleBytes(64 * 1024, 1), 3);
    const std::size_t headerSize = frameHeaderSize(frame);
    ASSERT_LT(headerSize, frame.size());
    // Block type bits 1-2 set to 3: the reserved type, which no writer emits.
    frame[headerSize] |= std::byte{0x06};
    EXPECT_EQ(uncompressFailure(frame), zstdMessage(ZSTD_error_corruption_detected));
}

TEST(CompressionTest, FlippedPayloadByteIsDetectedNotReturned) {
    const ByteBuffer data = incompressibleBytes(4096, 21);
    ByteBuffer frame = compress(data, 3);
    // The middle of a raw block: only a content checksum can notice this.
    frame[frame.size() / 2] ^= std::byte{0x01};
    EXPECT_EQ(uncompressFailure(frame), zstdMessage(ZSTD_error_checksum_wrong));
}

TEST(CompressionTest, FlippedByteInAFrameWithoutSizeIsDetected) {
    const ByteBuffer data = incompressibleBytes(4096, 22);
    ByteBuffer frame = compress(data, 3);
    // Two copies make the input take the streaming path.
    ByteBuffer frames = concat(frame, frame);
    frames[frame.size() + frame.size() / 2] ^= std::byte{0x01};
    EXPECT_EQ(uncompressFailure(frames), zstdMessage(ZSTD_error_checksum_wrong));
}

TEST(CompressionTest, TruncatedFrameIsRefused) {
    const ByteBuffer frame = compress(compressibleBytes(kMiB, 8), 3);
    const ByteBuffer cut(frame.begin(), frame.end() - 10);
    EXPECT_EQ(uncompressFailure(cut), "Cannot uncompress data: the data is truncated");
    const ByteBuffer headerOnly(frame.begin(), frame.begin() + 2);
    EXPECT_EQ(uncompressFailure(headerOnly),
              "Cannot uncompress data: the data is not a valid compressed frame or is truncated");
}

TEST(CompressionTest, TruncatedStreamedFrameIsRefused) {
    const ByteBuffer frame = streamedFrameWithoutSize(compressibleBytes(kMiB, 8), 3);
    const ByteBuffer cut(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(frame.size() / 2));
    EXPECT_EQ(uncompressFailure(cut), "Cannot uncompress data: the data is truncated");
}

TEST(CompressionTest, TrailingGarbageAfterAFrameIsRefused) {
    const ByteBuffer frame = compress(compressibleBytes(1000, 1), 3);
    const ByteBuffer garbage{std::byte{0x01}, std::byte{0x02}, std::byte{0x03}, std::byte{0x04},
                             std::byte{0x05}, std::byte{0x06}, std::byte{0x07}, std::byte{0x08}};
    EXPECT_EQ(uncompressFailure(concat(frame, garbage)), zstdMessage(ZSTD_error_prefix_unknown));
}

TEST(CompressionTest, ThreadsCompressAndExpandIndependently) {
    std::vector<std::thread> threads;
    std::vector<int> ok(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t, &ok] {
            for (int round = 0; round < 20; ++round) {
                const ByteBuffer data = compressibleBytes(10000 + static_cast<std::size_t>(round) * 101,
                                                          static_cast<unsigned>(t * 100 + round));
                if (uncompress(compress(data, (round % 9) + 1)) == data) {
                    ++ok[static_cast<std::size_t>(t)];
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(ok, std::vector<int>(4, 20));
}

namespace {

// A frame of one RLE block of `blockSize` bytes whose header declares
// `declaredSize` bytes of content.
ByteBuffer rleFrameDeclaring(uint64_t declaredSize, uint32_t blockSize) {
    std::vector<unsigned char> frame = {0x28, 0xB5, 0x2F, 0xFD, 0xE0};  // magic; 8-byte size, single segment
    for (int i = 0; i < 8; ++i) {
        frame.push_back(static_cast<unsigned char>(declaredSize >> (8 * i)));
    }
    const uint32_t blockHeader = 1u | (1u << 1) | (blockSize << 3);  // last block, RLE
    frame.push_back(static_cast<unsigned char>(blockHeader));
    frame.push_back(static_cast<unsigned char>(blockHeader >> 8));
    frame.push_back(static_cast<unsigned char>(blockHeader >> 16));
    frame.push_back(0x41);
    ByteBuffer bytes;
    for (unsigned char byte : frame) {
        bytes.push_back(static_cast<std::byte>(byte));
    }
    return bytes;
}

}  // namespace

TEST(CompressionTest, AHandMadeRleFrameExpands) {
    EXPECT_EQ(uncompress(rleFrameDeclaring(10, 10)), ByteBuffer(10, std::byte{0x41}));
}

TEST(CompressionTest, AFrameDeclaringMoreThanItCanHoldIsRefusedBeforeAllocating) {
    EXPECT_EQ(uncompressFailure(rleFrameDeclaring(uint64_t{1} << 40, 10)),
              "Cannot uncompress data: the frame declares more data than it can hold");
    EXPECT_EQ(uncompressFailure(rleFrameDeclaring(uint64_t{1} << 30, 10)),
              "Cannot uncompress data: the frame declares more data than it can hold");
}

namespace {

// A bomb: `blocks` RLE blocks of 128 KiB each, so a few bytes per block
// expand to 128 KiB. With `declareSize` the header states the whole size;
// without it the frame streams, as another tool might write it.
ByteBuffer rleBomb(uint32_t blocks, bool declareSize) {
    constexpr uint32_t kBlock = 128 * 1024;
    std::vector<unsigned char> frame = {0x28, 0xB5, 0x2F, 0xFD};
    if (declareSize) {
        frame.push_back(0xE0);  // 8-byte size, single segment
        const uint64_t declared = uint64_t{blocks} * kBlock;
        for (int i = 0; i < 8; ++i) {
            frame.push_back(static_cast<unsigned char>(declared >> (8 * i)));
        }
    } else {
        frame.push_back(0x00);            // no size, a window descriptor follows
        frame.push_back((17 - 10) << 3);  // a 128 KiB window
    }
    for (uint32_t block = 0; block < blocks; ++block) {
        const uint32_t last = block + 1 == blocks ? 1u : 0u;
        const uint32_t blockHeader = last | (1u << 1) | (kBlock << 3);  // RLE
        frame.push_back(static_cast<unsigned char>(blockHeader));
        frame.push_back(static_cast<unsigned char>(blockHeader >> 8));
        frame.push_back(static_cast<unsigned char>(blockHeader >> 16));
        frame.push_back(0x42);
    }
    ByteBuffer bytes;
    for (unsigned char byte : frame) {
        bytes.push_back(static_cast<std::byte>(byte));
    }
    return bytes;
}

// 16384 blocks: 64 KiB of frame that would expand to 2 GiB.
constexpr uint32_t kTwoGiBInBlocks = 16384;

}  // namespace

TEST(CompressionTest, ABombDeclaringMoreThanAnyStoredValueIsRefusedBeforeAllocating) {
    const ByteBuffer bomb = rleBomb(kTwoGiBInBlocks, true);
    ASSERT_LT(bomb.size(), 70u * 1024);
    EXPECT_EQ(uncompressFailure(bomb),
              "Cannot uncompress data: the frame declares 2147483648 bytes, more than the 1000000000 bytes "
              "any stored value can hold");
    std::size_t handedOut = 0;
    try {
        Marivane::Compression::uncompressInPieces(bomb.data(), bomb.size(),
                                                  [&](const std::byte*, std::size_t size) {
                                                      handedOut += size;
                                                      return true;
                                                  });
        FAIL() << "a 2 GiB bomb expanded in pieces";
    } catch (const CompressionError& error) {
        EXPECT_STREQ(error.what(),
                     "Cannot uncompress data: the frame declares 2147483648 bytes, more than the 1000000000 "
                     "bytes any stored value can hold");
    }
    EXPECT_EQ(handedOut, 0u);
}

TEST(CompressionTest, ABombWithoutADeclaredSizeIsRefusedWithoutHoldingItsOutput) {
    const ByteBuffer bomb = rleBomb(kTwoGiBInBlocks, false);
    ByteBuffer output;
    try {
        Marivane::Compression::uncompressInto(bomb.data(), bomb.size(), output);
        FAIL() << "a 2 GiB bomb without a size expanded";
    } catch (const CompressionError& error) {
        EXPECT_STREQ(error.what(),
                     "Cannot uncompress data: the data expands to more than the 1000000000 bytes any stored "
                     "value can hold");
    }
    // Measured in flat memory first: nothing of the expansion was kept.
    EXPECT_EQ(output.capacity(), 0u);
}

TEST(CompressionTest, AFrameWithoutSizeJustBelowTheLimitStillExpands) {
    const ByteBuffer frame = rleBomb(64, false);
    EXPECT_EQ(uncompress(frame), ByteBuffer(64u * 128 * 1024, std::byte{0x42}));
}

TEST(DeclaredExpandedSize, IsWhatTheFramesDeclareWithoutExpandingThem) {
    using Marivane::Compression::declaredExpandedSize;
    const ByteBuffer first = compress(compressibleBytes(200 * 1024 + 7, 1), 3);
    const ByteBuffer second = compress(incompressibleBytes(999, 2), -1);
    EXPECT_EQ(declaredExpandedSize(first.data(), first.size()), 200u * 1024 + 7);
    ByteBuffer both = first;
    both.insert(both.end(), second.begin(), second.end());
    EXPECT_EQ(declaredExpandedSize(both.data(), both.size()), 200u * 1024 + 7 + 999);
    const ByteBuffer empty = compress({}, 3);
    EXPECT_EQ(declaredExpandedSize(empty.data(), empty.size()), 0u);
    // Nothing at all is no frame to measure, but no bytes either.
    EXPECT_EQ(declaredExpandedSize(nullptr, 0), 0u);
}

TEST(DeclaredExpandedSize, IsAbsentForWhatDoesNotDeclareIt) {
    using Marivane::Compression::declaredExpandedSize;
    const ByteBuffer streamed = streamedFrameWithoutSize(compressibleBytes(5000, 3), 3);
    EXPECT_EQ(declaredExpandedSize(streamed.data(), streamed.size()), std::nullopt);
    const ByteBuffer frame = compress(compressibleBytes(5000, 4), 3);
    EXPECT_EQ(declaredExpandedSize(frame.data(), frame.size() - 1), std::nullopt);
    const ByteBuffer garbage = incompressibleBytes(64, 5);
    EXPECT_EQ(declaredExpandedSize(garbage.data(), garbage.size()), std::nullopt);
    ByteBuffer trailing = frame;
    trailing.push_back(std::byte{0x42});
    EXPECT_EQ(declaredExpandedSize(trailing.data(), trailing.size()), std::nullopt);
}

namespace {

// Every piece uncompressInPieces hands out, in order, and its return value;
// or the message it throws.
struct PiecesResult {
    std::vector<ByteBuffer> pieces;
    std::size_t returned = 0;
    std::string error;
};

PiecesResult expandInPieces(const ByteBuffer& data) {
    PiecesResult result;
    try {
        result.returned = Marivane::Compression::uncompressInPieces(
            data.data(), data.size(), [&](const std::byte* piece, std::size_t size) {
                result.pieces.emplace_back(piece, piece + size);
                return true;
            });
    } catch (const CompressionError& error) {
        result.error = error.what();
    }
    return result;
}

// A header that does not parse refused, then what the codec's streaming
// interface makes of `data`, 128 KiB of output at a time: the reference for
// every input, whichever way it is expanded.
PiecesResult expandAsAStream(const ByteBuffer& data) {
    PiecesResult result;
    if (ZSTD_getFrameContentSize(data.data(), data.size()) == ZSTD_CONTENTSIZE_ERROR) {
        result.error = "Cannot uncompress data: the data is not a valid compressed frame or is truncated";
        return result;
    }
    std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context(ZSTD_createDCtx(), &ZSTD_freeDCtx);
    ZSTD_inBuffer input{data.data(), data.size(), 0};
    ByteBuffer piece(ZSTD_DStreamOutSize());
    std::size_t remaining = 1;
    while (input.pos < input.size || remaining != 0) {
        ZSTD_outBuffer out{piece.data(), piece.size(), 0};
        remaining = ZSTD_decompressStream(context.get(), &out, &input);
        if (ZSTD_isError(remaining)) {
            result.error = std::string("Cannot uncompress data: ") + ZSTD_getErrorName(remaining);
            return result;
        }
        if (out.pos > 0) {
            result.pieces.emplace_back(piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(out.pos));
            result.returned += out.pos;
        }
        if (input.pos == input.size && remaining != 0 && out.pos == 0) {
            result.error = "Cannot uncompress data: the data is truncated";
            return result;
        }
    }
    return result;
}

void expectSameAsAStream(const ByteBuffer& data, const std::string& label) {
    const PiecesResult expected = expandAsAStream(data);
    const PiecesResult actual = expandInPieces(data);
    EXPECT_EQ(actual.error, expected.error) << label;
    EXPECT_EQ(actual.pieces, expected.pieces) << label;
    if (expected.error.empty()) {
        EXPECT_EQ(actual.returned, expected.returned) << label;
    }
}

}  // namespace

TEST(UncompressInPieces, SmallFramesExpandInOnePieceAsTheStreamHandsThemOut) {
    for (const std::size_t size :
         {std::size_t{1}, std::size_t{64}, std::size_t{4096}, std::size_t{128 * 1024}}) {
        const ByteBuffer data = incompressibleBytes(size, 7);
        const ByteBuffer frame = compress(data, -1);
        const PiecesResult result = expandInPieces(frame);
        EXPECT_TRUE(result.error.empty()) << result.error;
        ASSERT_EQ(result.pieces.size(), 1u) << size;
        EXPECT_EQ(result.pieces[0], data);
        EXPECT_EQ(result.returned, size);
        expectSameAsAStream(frame, "frame of " + std::to_string(size) + " bytes");
    }
}

TEST(UncompressInPieces, ManySmallFramesInARowEachExpandWhole) {
    for (unsigned seed = 0; seed < 1000; ++seed) {
        const ByteBuffer data = compressibleBytes(16 + seed % 100, seed);
        const PiecesResult result = expandInPieces(compress(data, seed % 2 == 0 ? -1 : 0));
        ASSERT_EQ(result.pieces.size(), 1u) << seed;
        ASSERT_EQ(result.pieces[0], data) << seed;
    }
}

TEST(UncompressInPieces, AnEmptyFrameHandsOutNothing) {
    const PiecesResult result = expandInPieces(compress(ByteBuffer(), -1));
    EXPECT_TRUE(result.error.empty()) << result.error;
    EXPECT_TRUE(result.pieces.empty());
    EXPECT_EQ(result.returned, 0u);
}

TEST(UncompressInPieces, LargeAndConcatenatedFramesExpandPieceByPieceAsTheStreamDoes) {
    const ByteBuffer large = compress(compressibleBytes(kMiB + 5, 3), -1);
    expectSameAsAStream(large, "1 MiB frame");
    EXPECT_EQ(expandInPieces(large).pieces.size(), 9u);
    const ByteBuffer small = compress(incompressibleBytes(100, 4), -1);
    expectSameAsAStream(concat(small, small), "two small frames");
    expectSameAsAStream(concat(small, large), "a small and a large frame");
    expectSameAsAStream(streamedFrameWithoutSize(incompressibleBytes(300, 5), 3), "a frame without size");
}

TEST(UncompressInPieces, DamagedSmallFramesFailAsTheStreamFails) {
    const ByteBuffer data = incompressibleBytes(64, 11);
    const ByteBuffer frame = compress(data, -1);
    // Every byte after the magic number flipped in turn, and every length
    // cut: whatever the stream says, expanding in pieces says too.
    for (std::size_t at = 4; at < frame.size(); ++at) {
        ByteBuffer damaged = frame;
        damaged[at] ^= std::byte{0x5a};
        expectSameAsAStream(damaged, "byte " + std::to_string(at) + " flipped");
    }
    for (std::size_t length = 4; length < frame.size(); ++length) {
        expectSameAsAStream(ByteBuffer(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length)),
                            "cut to " + std::to_string(length) + " bytes");
    }
    ByteBuffer garbage = frame;
    garbage.push_back(std::byte{0x01});
    expectSameAsAStream(garbage, "a byte after the frame");
    EXPECT_EQ(expandInPieces(garbage).error, expandAsAStream(garbage).error);
}

TEST(UncompressInPieces, AnExpansionInsideAHandlerLeavesTheOuterOneIntact) {
    const ByteBuffer outerData = compressibleBytes(kMiB, 21);
    const ByteBuffer outer = compress(outerData, -1);
    const ByteBuffer innerData = incompressibleBytes(64, 22);
    const ByteBuffer inner = compress(innerData, -1);
    const ByteBuffer innerLarge = compress(compressibleBytes(300 * 1024, 23), -1);
    ByteBuffer expanded;
    std::size_t innerCalls = 0;
    Marivane::Compression::uncompressInPieces(
        outer.data(), outer.size(), [&](const std::byte* piece, std::size_t size) {
            expanded.insert(expanded.end(), piece, piece + size);
            const PiecesResult nested = expandInPieces(innerCalls % 2 == 0 ? inner : innerLarge);
            EXPECT_TRUE(nested.error.empty()) << nested.error;
            EXPECT_EQ(uncompress(inner), innerData);
            ++innerCalls;
            return true;
        });
    EXPECT_EQ(expanded, outerData);
    EXPECT_EQ(innerCalls, 8u);
}

namespace {

// A frame as the codec's one-call interface makes it, with or without the
// content checksum.
ByteBuffer frameOf(const ByteBuffer& data, bool checksum) {
    std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> context(ZSTD_createCCtx(), &ZSTD_freeCCtx);
    EXPECT_FALSE(ZSTD_isError(ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, checksum ? 1 : 0)));
    ByteBuffer frame(ZSTD_compressBound(data.size()));
    const std::size_t size =
        ZSTD_compress2(context.get(), frame.data(), frame.size(), data.data(), data.size());
    EXPECT_FALSE(ZSTD_isError(size));
    frame.resize(size);
    return frame;
}

// uncompress against the codec's own one-call expansion: the same bytes, or
// a failure where the codec fails.
void expectSameAsTheCodec(const ByteBuffer& frame, const std::string& label) {
    const unsigned long long declared = ZSTD_getFrameContentSize(frame.data(), frame.size());
    ByteBuffer expected(declared < (1u << 20) ? static_cast<std::size_t>(declared) + 1 : 1);
    const std::size_t size = ZSTD_decompress(expected.data(), expected.size(), frame.data(), frame.size());
    try {
        const ByteBuffer actual = uncompress(frame);
        ASSERT_FALSE(ZSTD_isError(size)) << label << ": expanded what the codec refuses";
        expected.resize(size);
        EXPECT_EQ(actual, expected) << label;
    } catch (const CompressionError&) {
        EXPECT_TRUE(ZSTD_isError(size)) << label << ": refused what the codec expands";
    }
}

}  // namespace

TEST(RawFrames, IncompressiblePayloadsAreStoredInRawBlocksAndExpandExactly) {
    for (const bool checksum : {true, false}) {
        for (const std::size_t size : {std::size_t{0}, std::size_t{1}, std::size_t{64}, std::size_t{1000},
                                       std::size_t{128 * 1024}, std::size_t{300 * 1024}}) {
            const ByteBuffer data = incompressibleBytes(size, static_cast<unsigned>(size));
            const ByteBuffer frame = frameOf(data, checksum);
            EXPECT_EQ(uncompress(frame), data) << size;
            const PiecesResult pieces = expandInPieces(frame);
            EXPECT_TRUE(pieces.error.empty()) << pieces.error;
            ByteBuffer joined;
            for (const ByteBuffer& piece : pieces.pieces) {
                joined.insert(joined.end(), piece.begin(), piece.end());
            }
            EXPECT_EQ(joined, data) << size;
            expectSameAsAStream(frame, "raw frame of " + std::to_string(size) + " bytes");
        }
    }
}

TEST(RawFrames, EveryFlippedByteAndEveryCutIsTreatedAsTheCodecTreatsIt) {
    for (const bool checksum : {true, false}) {
        const ByteBuffer frame = frameOf(incompressibleBytes(80, 31), checksum);
        for (std::size_t at = 0; at < frame.size(); ++at) {
            for (const std::byte mask :
                 {std::byte{0x01}, std::byte{0x08}, std::byte{0x10}, std::byte{0x80}}) {
                ByteBuffer damaged = frame;
                damaged[at] ^= mask;
                const std::string label = "byte " + std::to_string(at) + " ^ " +
                                          std::to_string(std::to_integer<int>(mask)) +
                                          (checksum ? "" : " (no checksum)");
                expectSameAsTheCodec(damaged, label);
                expectSameAsAStream(damaged, label);
            }
        }
        for (std::size_t length = 1; length < frame.size(); ++length) {
            const ByteBuffer cut(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length));
            expectSameAsTheCodec(cut, "cut to " + std::to_string(length));
            expectSameAsAStream(cut, "cut to " + std::to_string(length));
        }
    }
}
