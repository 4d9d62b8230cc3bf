#include "diag.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace hvlib {

void precondition_failed(const char* condition, const char* file, int line) {
    fprintf(stderr, "%s:%d: failed precondition '%s'\n", file, line, condition);
    abort();
}

void fatal_error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string message = str_vsprintf(format, args);
    va_end(args);
    fprintf(stderr, "Fatal Error: %s\n", message.c_str());
    exit(1);
}

std::string get_strerror_string(int errnum) { return strerror(errnum); }

std::string str_vsprintf(const char* format, va_list args) {
    char* buffer = nullptr;
    int len = vasprintf(&buffer, format, args);
    if (len == -1) fatal_error("vasprintf failed");
    std::string result(buffer, static_cast<size_t>(len));
    free(buffer);
    return result;
}

std::string str_sprintf(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string result = str_vsprintf(format, args);
    va_end(args);
    return result;
}

}  // namespace hvlib
