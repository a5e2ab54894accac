#include <core/Filesystem.h>

#include <system_error>

namespace Marivane::Filesystem {

bool somethingExistsAt(const std::filesystem::path& path, PathLookup lookup) noexcept {
    std::error_code error;
    const std::filesystem::file_type type = lookup == PathLookup::FollowLinks
                                                ? std::filesystem::status(path, error).type()
                                                : std::filesystem::symlink_status(path, error).type();
    if (type == std::filesystem::file_type::not_found) {
        return false;
    }
    return !(lookup == PathLookup::PathItselfIfReadable && type == std::filesystem::file_type::none);
}

std::filesystem::path makeUniqueFilePath(const std::filesystem::path& path) {
    if (!somethingExistsAt(path, PathLookup::PathItself)) {
        return path;
    }
    const std::string stem = path.stem().string();
    const std::string extension = path.extension().string();
    for (unsigned long counter = 2;; ++counter) {
        std::filesystem::path candidate =
            path.parent_path() / (stem + "-" + std::to_string(counter) + extension);
        if (!somethingExistsAt(candidate, PathLookup::PathItself)) {
            return candidate;
        }
    }
}

std::filesystem::path appendTextToFilename(const std::filesystem::path& path, const std::string& text) {
    return path.parent_path() / (path.stem().string() + text + path.extension().string());
}

}  // namespace Marivane::Filesystem
