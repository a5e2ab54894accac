#ifndef MARIVANE_LOGGING_VERSION_H
#define MARIVANE_LOGGING_VERSION_H

/* The release of libmarivane-logging. The build takes its project version
 * from the three numbers below (packages, pkg-config and the CMake package
 * follow it), so a release changes them here and nowhere else. Usable from C
 * and C++. */
#define MARIVANE_LOGGING_VERSION_MAJOR 4
#define MARIVANE_LOGGING_VERSION_MINOR 0
#define MARIVANE_LOGGING_VERSION_PATCH 0

#define MARIVANE_LOGGING_STRINGIFY_(token) #token
#define MARIVANE_LOGGING_VERSION_TEXT_(major, minor, patch) \
    MARIVANE_LOGGING_STRINGIFY_(major)                      \
    "." MARIVANE_LOGGING_STRINGIFY_(minor) "." MARIVANE_LOGGING_STRINGIFY_(patch)
/* "4.0.0": the default application version of the files the library writes
 * on its own, and what mvlog and the Python package report. */
#define MARIVANE_LOGGING_VERSION                                                                   \
    MARIVANE_LOGGING_VERSION_TEXT_(MARIVANE_LOGGING_VERSION_MAJOR, MARIVANE_LOGGING_VERSION_MINOR, \
                                   MARIVANE_LOGGING_VERSION_PATCH)

#endif
