#include <core/Filesystem.h>

#include <system_error>

namespace Marivane::Filesystem {

namespace {

bool somethingExists(const std::filesystem::path& path) {
    std::error_code error;
    return std::filesystem::symlink_status(path, error).type() != std::filesystem::file_type::not_found;
}

}  // namespace

std::filesystem::path makeUniqueFilePath(const std::filesystem::path& path) {
    if (!somethingExists(path)) {
        return path;
    }
    const std::string stem = path.stem().string();
    const std::string extension = path.extension().string();
    for (unsigned long counter = 2;; ++counter) {
        std::filesystem::path candidate = path.parent_path() / (stem + "-" + std::to_string(counter) + extension);
        if (!somethingExists(candidate)) {
            return candidate;
        }
    }
}

std::filesystem::path appendTextToFilename(const std::filesystem::path& path, const std::string& text) {
    return path.parent_path() / (path.stem().string() + text + path.extension().string());
}

}  // namespace Marivane::Filesystem
