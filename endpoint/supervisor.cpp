#include "supervisor.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "backoff.h"
#include "classify.h"
#include "diag.h"
#include "keyvalues.h"
#include "launch.h"
#include "recorder.h"
#include "signals.h"
#include "state.h"
#include "strutil.h"
#include "toolrun.h"

namespace endpoint {

const char* signal_name(int sig) {
    switch (sig) {
        case SIGTERM:
            return "SIGTERM";
        case SIGINT:
            return "SIGINT";
        case SIGHUP:
            return "SIGHUP";
        default:
            return "a signal";
    }
}

int wait_for_stop(int signal_fd, long long ms) {
    long long until = now_ms() + ms;
    for (;;) {
        long long left = until - now_ms();
        if (left <= 0) return 0;
        pollfd p = {signal_fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(std::min(left, 60000LL))) > 0) {
            for (int sig : take_signals(signal_fd)) {
                if (is_stop_signal(sig)) return sig;
            }
        }
    }
}

namespace {

class Supervisor {
public:
    Supervisor(const Settings& settings, int signal_fd)
        : m_settings(settings),
          m_signal_fd(signal_fd),
          m_recorder(StateRecorder::state_file(settings.config_dir)),
          m_backoff(settings.backoff_min, settings.backoff_max),
          m_random(std::random_device{}()) {
        m_state.pid = getpid();
        m_state.config_dir = settings.config_dir;
    }

    int run() {
        for (;;) {
            Failure failure;
            int stop_signal = run_tool_once(failure);
            if (stop_signal != 0) return stop(stop_signal);
            const ClassInfo& info = class_info(failure.cls);
            m_state.has_failure = true;
            m_state.last_failure = {info.name, failure.line, describe_end(failure.end),
                                    WallClock::now()};
            m_state.workers = 0;
            m_state.tool_pid = 0;
            if (!info.retry) return give_up(info);

            double delay = m_backoff.next(std::uniform_real_distribution<double>(0, 1)(m_random));
            auto delay_ms = static_cast<long long>(delay * 1000);
            m_state.phase = Phase::Waiting;
            m_state.delay = delay;
            m_state.has_next_attempt = true;
            m_state.next_attempt = WallClock::now() + std::chrono::milliseconds(delay_ms);
            m_recorder.record(m_state);
            stop_signal = wait_for_stop(m_signal_fd, delay_ms);
            m_state.has_next_attempt = false;
            if (stop_signal != 0) return stop(stop_signal);
            ++m_state.restarts;
        }
    }

private:
    // One run of the tool; the stop signal that ended it, or 0 and what
    // went wrong.
    int run_tool_once(Failure& failure) {
        ToolProcess tool;
        if (int err = spawn_tool(m_settings.tool_path, m_settings.tool_env, tool); err != 0) {
            // Perhaps the tool is being replaced by an upgrade: worth a retry.
            failure.cls = FailureClass::SystemCall;
            failure.line = hvlib::str_sprintf("cannot start %s: %s", m_settings.tool_path.c_str(),
                                              hvlib::get_strerror_string(err).c_str());
            failure.end = ToolEnd{false, 127};
            fprintf(stderr, "relaytool-endpoint: %s\n", failure.line.c_str());
            return 0;
        }
        m_state.phase = Phase::Starting;
        m_state.workers = 0;
        m_state.tool_pid = tool.pid;
        m_recorder.record(m_state);

        FailureClassifier classifier;
        long long connected_at = -1;
        ToolRunHandlers handlers;
        handlers.stdout_line = [this, &connected_at](const std::string& line) {
            if (status_line(line) && m_state.phase == Phase::Connected) connected_at = now_ms();
        };
        handlers.stderr_line = [&classifier](const std::string& line) {
            fprintf(stderr, "tool: %s\n", line.c_str());
            classifier.feed(line);
        };
        handlers.stop_requested = [this](int sig) {
            m_state.phase = Phase::Stopping;
            m_state.reason = hvlib::str_sprintf("%s received; closing the tool's standard input",
                                                signal_name(sig));
            m_recorder.record(m_state);
        };
        ToolRunOutcome outcome = ToolRun(m_signal_fd, tool, handlers).wait();
        if (outcome.stop_signal != 0) return outcome.stop_signal;

        double connected_seconds =
            connected_at < 0 ? 0 : static_cast<double>(now_ms() - connected_at) / 1000;
        m_backoff.connection_lasted(connected_seconds);
        failure = classifier.finish(outcome.end, connected_at >= 0);
        return 0;
    }

    // Applies one line of the tool's standard output; false if it is not a
    // status line. Status lines are "RELAYTOOL=1 status=..." records of
    // key=value tokens, as in the relay protocol.
    bool status_line(const std::string& line) {
        if (line.compare(0, 12, "RELAYTOOL=1 ") != 0) {
            fprintf(stderr, "tool (standard output): %s\n", line.c_str());
            return false;
        }
        hvlib::KeyValues record(line);
        std::string status = record.get("status", "");
        if (status == "CONNECTED") {
            m_state.phase = Phase::Connected;
            m_state.display_name = hvlib::url_decode(record.get("ep_display_name", ""));
            m_state.web_url = hvlib::url_decode(record.get("web_ux_url", ""));
            m_state.workers = 0;
        } else if (status == "IDLE") {
            m_state.phase = Phase::Idle;
            m_state.workers = 0;
        } else if (status == "ACTIVE") {
            m_state.phase = Phase::Active;
            m_state.workers = atoi(record.get("nr_workers", "0").c_str());
        } else if (status == "PAUSED") {
            m_state.phase = Phase::Paused;
            m_state.workers = 0;
        } else {
            fprintf(stderr, "tool: status not understood: %s\n", line.c_str());
            return false;
        }
        m_recorder.record(m_state);
        return true;
    }

    int stop(int sig) {
        m_state.phase = Phase::Stopped;
        m_state.workers = 0;
        m_state.tool_pid = 0;
        m_state.reason = hvlib::str_sprintf("on request (%s)", signal_name(sig));
        m_state.exit_status = 0;
        m_recorder.record(m_state);
        return 0;
    }

    int give_up(const ClassInfo& info) {
        m_state.phase = Phase::Stopped;
        m_state.reason = hvlib::str_sprintf("%s: %s (exit status %d)", info.name, info.description,
                                            info.exit_status);
        if (!m_state.last_failure.line.empty()) m_state.reason += ": " + m_state.last_failure.line;
        m_state.exit_status = info.exit_status;
        m_recorder.record(m_state);
        return info.exit_status;
    }

    const Settings& m_settings;
    int m_signal_fd;
    StateRecorder m_recorder;
    Backoff m_backoff;
    std::mt19937_64 m_random;
    EndpointState m_state;
};

}  // namespace

int run_supervisor(const Settings& settings, int signal_fd) {
    return Supervisor(settings, signal_fd).run();
}

}  // namespace endpoint
