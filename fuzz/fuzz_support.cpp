#include "fuzz_support.h"

#include <unistd.h>

#include <string>

#include "strutil.h"

namespace {
// A copy of standard error taken before main: fuzz.sh has libFuzzer close
// the standard streams (-close_fd_mask=3) to silence the code under test,
// and property reports must still be seen.
const int g_report_fd = dup(2);
}  // namespace

void fuzz_exit(int status) { throw FuzzEnd{FuzzEnd::Exit, status}; }

void fuzz_abort() { throw FuzzEnd{FuzzEnd::Abort, 0}; }

void fuzz_fail(const char* what, const std::string& detail) {
    std::string report = std::string("==FUZZ== ") + what + "\n==FUZZ== detail: [" +
                         hvlib::backslash_escape(detail) + "]\n";
    if (g_report_fd >= 0 && write(g_report_fd, report.data(), report.size()) < 0) {
        // Nothing else to tell: the trap below is the verdict.
    }
    __builtin_trap();
}
