#pragma once

#include <logging/ByteBuffer.h>

#include <cstdint>
#include <string>

namespace Marivane::Logging {

// A mark on one entry. Bookmarks have no id of their own: updating and
// removing address every bookmark with the same entryId.
struct Bookmark {
    int32_t entryId = 0;
    std::string title;
    std::string comments;
    // Application data; empty means none. Files older than format version 4
    // cannot store it.
    ByteBuffer payload;
};

}  // namespace Marivane::Logging
