// Support shared by the fuzz targets: the process-ending paths of the code
// under test (exit, abort, and through them fatal_error and
// precondition_failed) end the current input instead of the process.
//
// Sources that call exit() or abort() are compiled with
// "-include fuzz_endings.h", which turns those calls into fuzz_exit() and
// fuzz_abort(); both throw FuzzEnd, so the stack unwinds, destructors run and
// LeakSanitizer sees no false leaks. Only such sources are affected: the
// fuzzer's own exit() is untouched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct FuzzEnd {
    enum Kind { Exit, Abort } kind;
    int status;  // the exit status (Exit only)
};

[[noreturn]] void fuzz_exit(int status);
[[noreturn]] void fuzz_abort();

// Reports a broken property with the input's bytes escaped and traps, so
// libFuzzer saves the input as a crash.
[[noreturn]] void fuzz_fail(const char* what, const std::string& detail);

#define FUZZ_CHECK(cond, detail)                                   \
    do {                                                           \
        if (!(cond)) fuzz_fail("property failed: " #cond, detail); \
    } while (0)
