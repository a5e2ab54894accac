#pragma once

namespace Marivane::Database {

// The name of an SQLite file layer (VFS) to open connections with. It wraps
// whatever file layer is SQLite's default at the moment of the call and
// changes one thing: a read of a database page that the file is too short to
// hold fails as corruption. SQLite itself hands out zeros for the missing
// bytes, so a file cut short would read back wrong bytes with no error.
// Reads within the 100-byte header keep SQLite's behaviour, which is how an
// empty or tiny file is told apart from a database. Journal and write-ahead-log files are
// not touched.
//
// Thread-safe. The returned text lives as long as the process.
const char* strictFileLayerName();

}  // namespace Marivane::Database
