#pragma once

// Marks the declarations that libmarivane-core exports; everything else in the
// shared object stays hidden.
#if defined(__GNUC__) || defined(__clang__)
#define MV_CORE_EXPORT __attribute__((visibility("default")))
#else
#define MV_CORE_EXPORT
#endif
