// Force-included (-include) into the sources under test that end the process
// (lib/diag.cpp, src/protocol.cpp) in the fuzz build only. The C library's
// own declarations are read first, so only the calls are renamed.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fuzz_support.h"

#define exit(status) fuzz_exit(status)
#define abort() fuzz_abort()
