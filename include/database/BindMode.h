#pragma once

namespace Marivane::Database {

// How a text or blob parameter is bound.
enum class BindMode : int {
    // SQLite takes its own copy of the value.
    Copy = 0,
    // SQLite reads the caller's bytes in place: the caller keeps them alive and
    // unchanged until the statement has been stepped (or re-bound or reset).
    NoCopy = 1,
};

}  // namespace Marivane::Database
