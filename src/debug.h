// The debug log: off unless the environment asks for it at start-up.
#pragma once

#include <cstdio>

#include "diag.h"

// Null while debug logging is off; main points it at standard error.
extern FILE* g_debug_file;

// Writes "[relaytool debug] pid=<pid> <message>" with the message stripped of
// surrounding white space. Nothing is formatted while logging is off.
void relaytool_debug(const char* format, ...) HVLIB_PRINTF(1, 2);
