// Starting the tool as its parent must: with a standard-input pipe that the
// parent keeps open and never writes to, pipes for its standard output and
// error, and no other descriptor.
#pragma once

#include <sys/types.h>

#include <string>

#include "settings.h"

namespace endpoint {

struct ToolProcess {
    pid_t pid = -1;
    int stdin_fd = -1;   // our write end; closing it tells the tool to end
    int stdout_fd = -1;  // non-blocking read ends
    int stderr_fd = -1;
};

// Starts `path` with exactly the environment `env`; 0 or an errno.
int spawn_tool(const std::string& path, const EnvMap& env, ToolProcess& out);

// Closes whichever of the three descriptors are still open.
void close_tool_pipes(ToolProcess& tool);

}  // namespace endpoint
