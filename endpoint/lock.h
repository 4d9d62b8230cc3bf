// One supervisor per configuration directory: a lock on a file in it that
// the kernel releases when the process ends, however it ends.
#pragma once

#include <sys/types.h>

#include <string>

namespace endpoint {

enum class LockResult { Taken, Held, Failed };

// Makes the directory (mode 0700 for each one made) and takes the lock for
// this process's lifetime. Held: another process has it; Failed: the
// directory or the lock file cannot be used (yet); either way `problem`
// says so.
LockResult take_config_lock(const std::string& config_dir, std::string& problem);

// The pid of the process holding the lock, or 0 if none does; takes nothing
// and creates nothing, so that asking never gets in a starting one's way.
pid_t config_lock_holder(const std::string& config_dir);

}  // namespace endpoint
