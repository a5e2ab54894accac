#pragma once

#include <core/CoreExport.h>

#include <filesystem>
#include <string>

namespace Marivane::Filesystem {

// Returns `path` itself when nothing exists there; otherwise the first of
// "stem-2.ext", "stem-3.ext", ... in the same directory that names nothing.
// The answer is only a snapshot: another process may take the name afterwards.
MV_CORE_EXPORT std::filesystem::path makeUniqueFilePath(const std::filesystem::path& path);

// Adds `text` to the end of the file name, before its extension:
// ("/d/run.mvlog", "_exported") gives "/d/run_exported.mvlog".
MV_CORE_EXPORT std::filesystem::path appendTextToFilename(const std::filesystem::path& path,
                                                          const std::string& text);

}  // namespace Marivane::Filesystem
