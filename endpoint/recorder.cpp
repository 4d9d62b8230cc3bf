#include "recorder.h"

#include <cstdio>
#include <utility>

#include "diag.h"
#include "file.h"
#include "notify.h"

namespace endpoint {

StateRecorder::StateRecorder(std::string state_path) : m_path(std::move(state_path)) {}

std::string StateRecorder::state_file(const std::string& config_dir) {
    return config_dir + "/endpoint-state.json";
}

void StateRecorder::record(EndpointState& state) {
    if (state.phase != m_last_phase || state.workers != m_last_workers) {
        state.since = WallClock::now();
    }
    m_last_phase = state.phase;
    m_last_workers = state.workers;

    std::string line = describe(state);
    fprintf(stderr, "state: %s\n", line.c_str());

    // The state file is for looking at; a full disk must not stop the
    // endpoint, so a failure is reported once and the work goes on.
    int err = hvlib::replace_file_atomically(m_path, to_json(state));
    if (err != 0 && !m_write_failed) {
        fprintf(stderr, "relaytool-endpoint: cannot write the state file %s: %s\n", m_path.c_str(),
                hvlib::get_strerror_string(err).c_str());
    }
    if (err == 0 && m_write_failed) {
        fprintf(stderr, "relaytool-endpoint: the state file %s is written again\n", m_path.c_str());
    }
    m_write_failed = err != 0;

    if (m_stopping_sent) return;
    if (state.phase == Phase::Stopping || state.phase == Phase::Stopped) {
        m_stopping_sent = true;
        notify_stopping(line);
    } else if (!m_ready_sent) {
        m_ready_sent = true;
        notify_ready(line);
    } else {
        notify_status(line);
    }
}

}  // namespace endpoint
