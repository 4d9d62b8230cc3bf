// Failure reporting and printf-style formatting shared by the whole program.
//
// Three levels of trouble, each with fixed words:
//   precondition_failed  a broken internal assumption; reports and aborts
//   fatal_error          an unrecoverable run-time failure; reports, exit(1)
//   posix_fatal_error    (in the POSIX code) a failed system call, exit(1)
#pragma once

#include <cstdarg>
#include <string>

#define HVLIB_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

namespace hvlib {

// Writes "<file>:<line>: failed precondition '<condition>'" and aborts.
[[noreturn]] void precondition_failed(const char* condition, const char* file, int line);

// Writes "Fatal Error: <message>" on standard error and exits with status 1.
[[noreturn]] void fatal_error(const char* format, ...) HVLIB_PRINTF(1, 2);

std::string get_strerror_string(int errnum);

std::string str_sprintf(const char* format, ...) HVLIB_PRINTF(1, 2);
std::string str_vsprintf(const char* format, va_list args) HVLIB_PRINTF(1, 0);

}  // namespace hvlib

// Checks an internal assumption. The report names a fixed source label and
// line, which parents and tests match on, so both are given explicitly.
#define HV_PRECONDITION(cond, label, line)                             \
    do {                                                               \
        if (!(cond)) ::hvlib::precondition_failed(#cond, label, line); \
    } while (0)
