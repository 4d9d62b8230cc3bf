#include "toolrun.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>
#include <vector>

#include "lines.h"
#include "signals.h"

namespace endpoint {

long long now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

ToolRun::ToolRun(int signal_fd, const ToolProcess& tool, ToolRunHandlers handlers)
    : m_signal_fd(signal_fd), m_tool(tool), m_handlers(std::move(handlers)) {}

int ToolRun::poll_timeout() const {
    long long now = now_ms();
    long long until = -1;
    if (m_outcome.stop_signal != 0 && !m_reaped && !m_killed) until = m_kill_at;
    if (m_reaped) until = m_drain_until;
    // Both pipes closed before the SIGCHLD came: look again shortly rather
    // than trust that a wake-up byte cannot get lost.
    if (!m_reaped && m_tool.stdout_fd == -1 && m_tool.stderr_fd == -1) until = now + 100;
    if (until < 0) return -1;  // nothing to do until something happens
    return static_cast<int>(std::clamp(until - now, 0LL, 60000LL));
}

void ToolRun::handle_signals() {
    for (int sig : take_signals(m_signal_fd)) {
        if (!is_stop_signal(sig)) continue;
        if (m_outcome.stop_signal == 0) {
            m_outcome.stop_signal = sig;
            // The tool's own signal that its parent is gone; it ends at once.
            if (m_tool.stdin_fd != -1) close(m_tool.stdin_fd);
            m_tool.stdin_fd = -1;
            m_kill_at = now_ms() + kStopGraceMs;
            if (m_handlers.stop_requested) m_handlers.stop_requested(sig);
        } else {
            m_kill_at = now_ms();  // asked twice: no more waiting
        }
    }
}

void ToolRun::reap() {
    if (m_reaped) return;
    int status = 0;
    pid_t rc = waitpid(m_tool.pid, &status, WNOHANG);
    if (rc != m_tool.pid) return;
    m_reaped = true;
    m_outcome.end.signaled = WIFSIGNALED(status);
    m_outcome.end.value = WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
    m_drain_until = now_ms() + kDrainMs;
}

void ToolRun::read_from(int& fd, const std::function<void(const std::string&)>& handler,
                        LineSplitter& lines) {
    ssize_t n = read(fd, m_buffer.data(), m_buffer.size());
    if (n == -1 && (errno == EAGAIN || errno == EINTR)) return;
    std::vector<std::string> complete;
    if (n <= 0) {  // end of file, or a read error that no retry would mend
        close(fd);
        fd = -1;
        complete = lines.finish();
    } else {
        complete = lines.feed(std::string(m_buffer.data(), static_cast<size_t>(n)));
    }
    for (const std::string& line : complete) handler(line);
}

ToolRunOutcome ToolRun::wait() {
    LineSplitter out_lines, err_lines;
    for (;;) {
        if (m_reaped && m_tool.stdout_fd == -1 && m_tool.stderr_fd == -1) break;
        if (m_reaped && now_ms() >= m_drain_until) break;
        if (m_outcome.stop_signal != 0 && !m_reaped && !m_killed && now_ms() >= m_kill_at) {
            // pdeath takes ssh down with the tool, whatever ends the tool.
            kill(m_tool.pid, SIGKILL);
            m_killed = true;
        }
        std::vector<pollfd> fds = {{m_signal_fd, POLLIN, 0}};
        if (m_tool.stdout_fd != -1) fds.push_back({m_tool.stdout_fd, POLLIN, 0});
        if (m_tool.stderr_fd != -1) fds.push_back({m_tool.stderr_fd, POLLIN, 0});
        int rc = poll(fds.data(), fds.size(), poll_timeout());
        if (rc == -1 && errno != EINTR) break;  // cannot happen with valid descriptors
        for (const pollfd& p : fds) {
            if (p.revents == 0) continue;
            if (p.fd == m_signal_fd) {
                handle_signals();
            } else if (p.fd == m_tool.stdout_fd) {
                read_from(m_tool.stdout_fd, m_handlers.stdout_line, out_lines);
            } else if (p.fd == m_tool.stderr_fd) {
                read_from(m_tool.stderr_fd, m_handlers.stderr_line, err_lines);
            }
        }
        reap();
    }
    // Lines cut off by the drain limit still count.
    for (const std::string& line : out_lines.finish()) m_handlers.stdout_line(line);
    for (const std::string& line : err_lines.finish()) m_handlers.stderr_line(line);
    if (!m_reaped) {
        // Only after a failed poll: make sure the tool does not outlive us.
        kill(m_tool.pid, SIGKILL);
        int status = 0;
        waitpid(m_tool.pid, &status, 0);
        m_outcome.end.signaled = true;
        m_outcome.end.value = SIGKILL;
    }
    close_tool_pipes(m_tool);
    return m_outcome;
}

}  // namespace endpoint
