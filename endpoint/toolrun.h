// Follows one run of the tool to its end: passes on its output line by line,
// turns a stop signal into the tool's own way of stopping (its standard
// input closes), and reaps it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "classify.h"
#include "launch.h"
#include "lines.h"

namespace endpoint {

struct ToolRunHandlers {
    std::function<void(const std::string&)> stdout_line;
    std::function<void(const std::string&)> stderr_line;
    std::function<void(int)> stop_requested;  // the first stop signal
};

struct ToolRunOutcome {
    ToolEnd end;
    int stop_signal = 0;  // the stop signal that ended the run, or 0
};

class ToolRun {
public:
    // After its standard input has closed, the tool gets this long to end
    // before it is killed.
    static constexpr int kStopGraceMs = 5000;
    // After the tool has ended, its output pipes get this long to reach end of
    // file, in case something else still holds their write ends.
    static constexpr int kDrainMs = 2000;

    ToolRun(int signal_fd, const ToolProcess& tool, ToolRunHandlers handlers);

    // Runs until the tool has ended and its output has been read.
    ToolRunOutcome wait();

private:
    void handle_signals();
    void reap();
    void read_from(int& fd, const std::function<void(const std::string&)>& handler,
                   LineSplitter& lines);
    int poll_timeout() const;

    int m_signal_fd;
    ToolProcess m_tool;
    ToolRunHandlers m_handlers;
    ToolRunOutcome m_outcome;
    bool m_reaped = false;
    bool m_killed = false;
    long long m_kill_at = 0;      // monotonic ms, while stopping
    long long m_drain_until = 0;  // monotonic ms, once reaped
    std::vector<char> m_buffer = std::vector<char>(65536);
};

// Monotonic milliseconds.
long long now_ms();

}  // namespace endpoint
