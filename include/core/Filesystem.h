#pragma once

#include <core/CoreExport.h>

#include <filesystem>
#include <string>

namespace Marivane::Filesystem {

// What counts as "something at this path". The answers differ only for links
// and for paths whose status cannot be read (no permission on a directory on
// the way), and each caller needs its own rule, named here.
enum class PathLookup {
    // The path itself: a link counts even when its target is missing, and so
    // does a path whose status cannot be read. For choosing a free name.
    PathItself,
    // The path itself, links included, but a status that cannot be read
    // counts as nothing, so that the database layer reports what is wrong.
    // For refusing to create over anything.
    PathItselfIfReadable,
    // Links are followed: a dangling link names nothing; a status that cannot
    // be read counts as something. For opening, and for refusing to write
    // through a name.
    FollowLinks,
};

// True when something exists at `path` under `lookup`. Never throws.
MV_CORE_EXPORT bool somethingExistsAt(const std::filesystem::path& path, PathLookup lookup) noexcept;

// Returns `path` itself when nothing exists there; otherwise the first of
// "stem-2.ext", "stem-3.ext", ... in the same directory that names nothing.
// The answer is only a snapshot: another process may take the name afterwards.
MV_CORE_EXPORT std::filesystem::path makeUniqueFilePath(const std::filesystem::path& path);

// Adds `text` to the end of the file name, before its extension:
// ("/d/run.mvlog", "_exported") gives "/d/run_exported.mvlog".
MV_CORE_EXPORT std::filesystem::path appendTextToFilename(const std::filesystem::path& path,
                                                          const std::string& text);

}  // namespace Marivane::Filesystem
