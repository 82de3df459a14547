// Assertion reporting: a broken invariant is logged at level 1 as
// "-A- assert(COND) failed. MESSAGE" and then thrown as an AMAssertException whose
// what() is the formatted MESSAGE.  The request entry catches it and fails the request.
#pragma once

#include <stdexcept>
#include <string>

#include "common/log.h"

// The exception thrown by am_assert_do_throw.
class AMAssertException : public std::runtime_error {
public:
    explicit AMAssertException(const std::string& message) : std::runtime_error(message) {}
};

// Formats the message printf-style and throws it as an AMAssertException.
[[noreturn]] void am_assert_do_throw(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Checks COND; on failure logs "-A- assert(COND) failed. FMT" under MODULE at level 1
// with FILE and FUNCTION as the source position, then throws FMT formatted.
#define AM_ASSERT_AT(module, file, function, cond, fmt, ...)                           \
    do {                                                                               \
        if (!(cond)) {                                                                 \
            log_send(module, kLogLevelError, file, __LINE__, function,                 \
                     "-A- assert(" #cond ") failed. " fmt __VA_OPT__(, ) __VA_ARGS__); \
            am_assert_do_throw(fmt __VA_OPT__(, ) __VA_ARGS__);                        \
        }                                                                              \
    } while (0)
