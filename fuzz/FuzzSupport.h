#pragma once

#include <logging/LegacyLogFileError.h>
#include <logging/NotALogFileError.h>

#include <core/Compression.h>
#include <database/DatabaseAccessError.h>

#include <unistd.h>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace Marivane::Fuzzing {

// A scratch file per process, rewritten for every input.
inline std::filesystem::path scratchPath(const char* name) {
    static const std::filesystem::path directory = [] {
        std::filesystem::path path =
            std::filesystem::temp_directory_path() / ("mvlog-fuzz-" + std::to_string(::getpid()));
        std::filesystem::create_directories(path);
        return path;
    }();
    return directory / name;
}

inline void writeFile(const std::filesystem::path& path, const uint8_t* data, std::size_t size) {
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    stream.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
}

inline void removeFile(const std::filesystem::path& path) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

// Reads fixed-width values off the front of the input; zeros once it runs out.
class InputReader {
public:
    InputReader(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    bool empty() const { return offset_ >= size_; }

    uint8_t byte() { return offset_ < size_ ? data_[offset_++] : 0; }

    int32_t int32() {
        uint32_t value = 0;
        for (int i = 0; i < 4; ++i) {
            value = (value << 8) | byte();
        }
        return static_cast<int32_t>(value);
    }

    // A small id near the interesting range: mostly 1..20, sometimes edge values.
    int32_t smallId() {
        const uint8_t selector = byte();
        switch (selector % 8) {
            case 0:
                return -1;
            case 1:
                return int32();
            default:
                return selector % 21;
        }
    }

    std::string text(std::size_t maximum) {
        const std::size_t length = byte() % (maximum + 1);
        std::string result;
        for (std::size_t i = 0; i < length && !empty(); ++i) {
            result.push_back(static_cast<char>(byte()));
        }
        return result;
    }

    std::vector<std::byte> bytes(std::size_t maximum) {
        const std::size_t length = (static_cast<std::size_t>(byte()) << 4 | byte() % 16) % (maximum + 1);
        std::vector<std::byte> result;
        result.reserve(length);
        for (std::size_t i = 0; i < length; ++i) {
            result.push_back(static_cast<std::byte>(empty() ? i * 7 : byte()));
        }
        return result;
    }

private:
    const uint8_t* data_;
    std::size_t size_;
    std::size_t offset_ = 0;
};

}  // namespace Marivane::Fuzzing
