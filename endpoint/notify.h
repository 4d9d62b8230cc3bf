// Messages to the service manager (systemd's notification protocol). Each
// is a no-op unless the service manager set NOTIFY_SOCKET.
#pragma once

#include <string>

namespace endpoint {

void notify_ready(const std::string& status);
void notify_status(const std::string& status);
void notify_stopping(const std::string& status);

}  // namespace endpoint
