#pragma once

// Marks the declarations that libmarivane-database exports; everything else in
// the shared object stays hidden.
#if defined(__GNUC__) || defined(__clang__)
#define MV_DATABASE_EXPORT __attribute__((visibility("default")))
#else
#define MV_DATABASE_EXPORT
#endif
