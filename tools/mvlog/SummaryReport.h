#pragma once

#include <logging/Logging.h>

#include <nlohmann/json.hpp>

#include <string>

namespace Mvlog {

// `mvlog info`'s two forms of the library's summary of a file; both say the
// same facts.
std::string summaryText(const Marivane::Logging::FileSummary& summary);
nlohmann::ordered_json summaryJson(const Marivane::Logging::FileSummary& summary);

// "entry 7: \"title\" - comments [payload 12 B]", as info and bookmarks list it.
std::string bookmarkText(const Marivane::Logging::Bookmark& bookmark);

}  // namespace Mvlog
