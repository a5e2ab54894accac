#ifndef MARIVANE_CAPI_TEST_HARNESS_H
#define MARIVANE_CAPI_TEST_HARNESS_H

/*
 * A small test harness for the C interface, in plain C99.
 *
 * A test is a function written as
 *
 *     TEST(some_name)
 *     {
 *         CHECK(...);
 *     }
 *
 * with "TEST(" at the start of its line: the build collects those lines into
 * the registry and registers one CTest test per name. CHECK* macros record a
 * failure and carry on; REQUIRE* macros record it and leave the test at once
 * (through longjmp, so they work from helper functions too). Every test gets
 * a fresh temporary directory, removed when the test ends.
 */

#include <stddef.h>
#include <stdint.h>

typedef void (*test_function)(void);

struct test_case {
    const char* name;
    test_function run;
};

/* The registry, generated from the TEST(...) lines, ends with {NULL, NULL}. */
extern const struct test_case capi_test_cases[];

#define TEST(name)          \
    void test_##name(void); \
    void test_##name(void)

void harness_fail(const char* file, int line, const char* format, ...);
/* Leaves the running test; only valid while a test runs. */
void harness_abort_test(void);

int harness_str_eq(const char* actual, const char* expected);
/* Reports the first differing byte of two buffers. */
int harness_mem_eq(const char* file, int line, const char* what, const void* actual, const void* expected,
                   size_t length);

/* The running test's own temporary directory. */
const char* test_dir(void);
/* "<test_dir>/<name>"; the text lives until the test ends. */
const char* test_path(const char* name);

#define CHECK(condition)                                               \
    do {                                                               \
        if (!(condition)) {                                            \
            harness_fail(__FILE__, __LINE__, "CHECK(%s)", #condition); \
        }                                                              \
    } while (0)

#define REQUIRE(condition)                                               \
    do {                                                                 \
        if (!(condition)) {                                              \
            harness_fail(__FILE__, __LINE__, "REQUIRE(%s)", #condition); \
            harness_abort_test();                                        \
        }                                                                \
    } while (0)

#define CHECK_INT_EQ(actual, expected)                                                                 \
    do {                                                                                               \
        const long long actual_value_ = (long long)(actual);                                           \
        const long long expected_value_ = (long long)(expected);                                       \
        if (actual_value_ != expected_value_) {                                                        \
            harness_fail(__FILE__, __LINE__, "CHECK_INT_EQ(%s, %s): %lld != %lld", #actual, #expected, \
                         actual_value_, expected_value_);                                              \
        }                                                                                              \
    } while (0)

#define REQUIRE_INT_EQ(actual, expected)                                                                 \
    do {                                                                                                 \
        const long long actual_value_ = (long long)(actual);                                             \
        const long long expected_value_ = (long long)(expected);                                         \
        if (actual_value_ != expected_value_) {                                                          \
            harness_fail(__FILE__, __LINE__, "REQUIRE_INT_EQ(%s, %s): %lld != %lld", #actual, #expected, \
                         actual_value_, expected_value_);                                                \
            harness_abort_test();                                                                        \
        }                                                                                                \
    } while (0)

#define CHECK_STR_EQ(actual, expected)                                                                     \
    do {                                                                                                   \
        const char* actual_text_ = (actual);                                                               \
        const char* expected_text_ = (expected);                                                           \
        if (!harness_str_eq(actual_text_, expected_text_)) {                                               \
            harness_fail(__FILE__, __LINE__, "CHECK_STR_EQ(%s, %s): \"%s\" != \"%s\"", #actual, #expected, \
                         actual_text_ ? actual_text_ : "(null)",                                           \
                         expected_text_ ? expected_text_ : "(null)");                                      \
        }                                                                                                  \
    } while (0)

#define CHECK_MEM_EQ(actual, expected, length)                                                \
    ((void)harness_mem_eq(__FILE__, __LINE__, #actual " vs " #expected, (actual), (expected), \
                          (size_t)(length)))

#endif
