#include "debug.h"

#include <unistd.h>

#include <cstdarg>
#include <string>

#include "strutil.h"

FILE* g_debug_file = nullptr;

void relaytool_debug(const char* format, ...) {
    if (g_debug_file == nullptr) return;
    va_list args;
    va_start(args, format);
    std::string message = hvlib::strip(hvlib::str_vsprintf(format, args));
    va_end(args);
    fprintf(g_debug_file, "[relaytool debug] pid=%d %s\n", static_cast<int>(getpid()),
            message.c_str());
    fflush(g_debug_file);
}
