#ifndef MARIVANE_LOGGING_EXPORT_H
#define MARIVANE_LOGGING_EXPORT_H

/* Marks the declarations that libmarivane-logging exports; everything else in
 * the shared object stays hidden. */
#if defined(__GNUC__) || defined(__clang__)
#define MV_LOGGING_EXPORT __attribute__((visibility("default")))
/* Keeps a private member of an exported class out of the exported symbols. */
#define MV_LOGGING_HIDDEN __attribute__((visibility("hidden")))
#else
#define MV_LOGGING_EXPORT
#define MV_LOGGING_HIDDEN
#endif

#endif
