/* nftw and mkdtemp */
#define _XOPEN_SOURCE 700

#include "harness.h"

#include <ftw.h>
#include <setjmp.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static jmp_buf abort_point;
static int test_running;
static int failures_in_test;
static const char* running_test_name;

static char directory[64];
static char** paths;
static size_t path_count;

void harness_fail(const char* file, int line, const char* format, ...) {
    va_list arguments;
    ++failures_in_test;
    fprintf(stdout, "%s:%d: %s: ", file, line, running_test_name ? running_test_name : "?");
    va_start(arguments, format);
    vfprintf(stdout, format, arguments);
    va_end(arguments);
    fputc('\n', stdout);
    fflush(stdout);
}

void harness_abort_test(void) {
    if (!test_running) {
        fputs("REQUIRE failed outside a test\n", stdout);
        exit(2);
    }
    longjmp(abort_point, 1);
}

int harness_str_eq(const char* actual, const char* expected) {
    if (actual == NULL || expected == NULL) {
        return actual == expected;
    }
    return strcmp(actual, expected) == 0;
}

int harness_mem_eq(const char* file, int line, const char* what, const void* actual, const void* expected,
                   size_t length) {
    const unsigned char* left = actual;
    const unsigned char* right = expected;
    size_t index;
    if (length == 0) {
        return 1;
    }
    if (left == NULL || right == NULL) {
        harness_fail(file, line, "CHECK_MEM_EQ(%s): null buffer for %lu bytes", what, (unsigned long)length);
        return 0;
    }
    for (index = 0; index < length; ++index) {
        if (left[index] != right[index]) {
            harness_fail(file, line, "CHECK_MEM_EQ(%s): byte %lu of %lu differs: 0x%02x != 0x%02x", what,
                         (unsigned long)index, (unsigned long)length, left[index], right[index]);
            return 0;
        }
    }
    return 1;
}

const char* test_dir(void) {
    return directory;
}

const char* test_path(const char* name) {
    const size_t size = strlen(directory) + 1 + strlen(name) + 1;
    char* path = malloc(size);
    char** grown = realloc(paths, (path_count + 1) * sizeof *paths);
    if (path == NULL || grown == NULL) {
        fputs("out of memory\n", stdout);
        exit(2);
    }
    paths = grown;
    snprintf(path, size, "%s/%s", directory, name);
    paths[path_count++] = path;
    return path;
}

static int remove_entry(const char* path, const struct stat* status, int kind, struct FTW* position) {
    (void)status;
    (void)kind;
    (void)position;
    if (remove(path) != 0) {
        fprintf(stdout, "cannot remove %s\n", path);
    }
    return 0;
}

static void release_paths(void) {
    size_t index;
    for (index = 0; index < path_count; ++index) {
        free(paths[index]);
    }
    free(paths);
    paths = NULL;
    path_count = 0;
}

/* Runs one test in its own directory; returns whether it passed. */
static int run_test(const struct test_case* test) {
    strcpy(directory, "/tmp/mv-capi-XXXXXX");
    if (mkdtemp(directory) == NULL) {
        fprintf(stdout, "cannot create a temporary directory for %s\n", test->name);
        return 0;
    }
    running_test_name = test->name;
    failures_in_test = 0;
    fprintf(stdout, "[ RUN      ] %s\n", test->name);
    fflush(stdout);

    test_running = 1;
    if (setjmp(abort_point) == 0) {
        test->run();
    }
    test_running = 0;

    nftw(directory, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    release_paths();
    fprintf(stdout, "%s %s\n", failures_in_test == 0 ? "[       OK ]" : "[  FAILED  ]", test->name);
    fflush(stdout);
    running_test_name = NULL;
    return failures_in_test == 0;
}

static const struct test_case* find_test(const char* name) {
    const struct test_case* test;
    for (test = capi_test_cases; test->name != NULL; ++test) {
        if (strcmp(test->name, name) == 0) {
            return test;
        }
    }
    return NULL;
}

int main(int argc, char** argv) {
    int passed = 0;
    int failed = 0;
    const struct test_case* test;
    int index;

    if (argc == 2 && strcmp(argv[1], "--list") == 0) {
        for (test = capi_test_cases; test->name != NULL; ++test) {
            puts(test->name);
        }
        return 0;
    }

    if (argc == 1) {
        for (test = capi_test_cases; test->name != NULL; ++test) {
            if (run_test(test)) {
                ++passed;
            } else {
                ++failed;
            }
        }
    } else {
        for (index = 1; index < argc; ++index) {
            test = find_test(argv[index]);
            if (test == NULL) {
                fprintf(stdout, "unknown test: %s\n", argv[index]);
                ++failed;
            } else if (run_test(test)) {
                ++passed;
            } else {
                ++failed;
            }
        }
    }

    printf("%d passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}
