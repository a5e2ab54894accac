#pragma once

#include <logging/Bookmark.h>

#include <cstdint>
#include <string>
#include <utility>

namespace Marivane::Logging::Playback {

// A file's bookmark as the player shows it: tied to the frame at which
// playback reaches it. The payload is never carried over (always empty).
struct PlayerBookmark : Bookmark {
    PlayerBookmark() = default;
    PlayerBookmark(int32_t entryId, std::string title, std::string comments)
        : Bookmark{entryId, std::move(title), std::move(comments), {}} {}

    // Index into the player's frames; -1 when the player has no frames.
    int32_t frame = -1;
};

}  // namespace Marivane::Logging::Playback
