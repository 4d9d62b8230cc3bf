#pragma once

namespace hvlib {

// The built-in check of the string functions that the protocol and the
// signatures depend on. Returns only when every check holds; a failed check
// is reported as a failed precondition and aborts.
void run_unit_tests();

}  // namespace hvlib
