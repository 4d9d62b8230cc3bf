// Makes every change of state known at once: a line on standard error for
// the journal, the state file (replaced whole), and the service manager.
#pragma once

#include <string>

#include "state.h"

namespace endpoint {

class StateRecorder {
public:
    explicit StateRecorder(std::string state_path);

    // Records the state; `since` becomes now if the state or the worker count
    // changed. The first record also tells the service manager that we are
    // ready; one in Stopping or Stopped that we are stopping, after which the
    // service manager hears nothing more.
    void record(EndpointState& state);

    static std::string state_file(const std::string& config_dir);

private:
    std::string m_path;
    bool m_ready_sent = false;
    bool m_stopping_sent = false;
    bool m_write_failed = false;
    Phase m_last_phase = Phase::Starting;
    int m_last_workers = -1;
};

}  // namespace endpoint
