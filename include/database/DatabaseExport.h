#pragma once

// Marks the declarations that libmarivane-database exports; everything else in
// the shared object stays hidden.
#if defined(__GNUC__) || defined(__clang__)
#define MV_DATABASE_EXPORT __attribute__((visibility("default")))
// Keeps a private member of an exported class out of the exported symbols.
#define MV_DATABASE_HIDDEN __attribute__((visibility("hidden")))
#else
#define MV_DATABASE_EXPORT
#define MV_DATABASE_HIDDEN
#endif
