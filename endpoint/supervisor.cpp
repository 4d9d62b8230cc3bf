#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "diag.h"
#include "file.h"
#include "keyvalues.h"
#include "loop.h"
#include "settings.h"
#include "state.h"
#include "strutil.h"
#include "tool.h"

namespace endpoint {

namespace {

// On a stop the GridFTP workers get SIGTERM and this long before SIGKILL.
constexpr long long kWorkerGraceMs = 10000;

long long now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

class Supervisor {
public:
    Supervisor(const CommandLine& cli, const Settings& settings)
        : m_settings(settings),
          m_route(settings.relay_host, settings.relay_port),
          m_backoff(settings.backoff_min, settings.backoff_max) {
        if (cli.debug) m_settings.tool_env["HVN_DEBUG"] = "1";
        m_state.pid = getpid();
    }

    int run() {
        if (int err = m_loop.open([this](int sig) { stop(sig); },
                                  [this](pid_t pid, int status) { child_ended(pid, status); })) {
            note("cannot set up the event loop: " + hvlib::get_strerror_string(err));
            return 1;
        }
        // The workers that outlive a tool become ours, to end and to reap.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        std::string why;
        if (!m_network.open(
                m_loop.event(), [this] { network_changed(); }, why))
            note(why + "; address and route changes are not followed");
        auto slept = [this](bool asleep) {
            asleep ? (void)note("the computer is going to sleep")
                   : restart("the computer has resumed");
        };
        if (!m_sleep.open(m_loop.event(), slept, why))
            note(why + "; sleep and resume are not followed");
        start();
        return m_loop.run();
    }

private:
    // What must hold before every start: the configuration directory to
    // ourselves, and the paths the settings name.
    bool prepared() {
        std::string problem;
        const std::string& dir = m_settings.config_dir;
        LockResult lock = m_locked ? LockResult::Taken : take_config_lock(dir, problem);
        if (lock == LockResult::Held) return note(problem), m_loop.exit(4), false;
        m_locked = lock == LockResult::Taken;
        if (m_locked && !m_recorder.writing()) {  // the directory is ours now
            m_recorder.write_into(dir);
            m_history.keep_in(dir);
            m_state.paused = paused_since(dir, m_state.paused_since);
            auto command = [this](const std::string& c) {
                return c == "resume" ? resume() : pause(c == "pause --now");
            };
            if (int err = m_control.open(m_loop.event(), dir, command))
                note(std::string("pause and resume cannot reach us: ") + strerror(err));
        }
        if (m_locked) paths_ready(m_settings, Command::Run, problem);
        if (!problem.empty()) failed({FailureClass::NotReady, problem, {}});
        return problem.empty();
    }

    void start() {
        m_retry.cancel();
        m_state.has_next_attempt = false;
        if (!prepared() || !server_configured()) return;
        std::string local;
        if (m_network.active() && m_route.local_address(local) == Route::None) {
            // a start would fail for certain: wait for the kernel's news
            set_phase(Phase::Waiting, "for a route to the relay (" + m_settings.relay_host + ")");
            return;
        }
        m_tunnel_local = local;
        m_connected_at = -1;
        EnvMap env = m_settings.tool_env;
        if (m_state.paused) env["HVN_FTP_PORT"] = "-1";  // the tool's paused mode
        int err = m_tool.start(
            m_loop.event(), m_settings.tool_path, env,
            [this](const std::string& line) { status_line(line); },
            [this](const std::string& line) { m_history.feed(line); });
        if (err != 0) {  // perhaps the tool is being replaced by an upgrade
            return failed({FailureClass::SystemCall,
                           "cannot start " + m_settings.tool_path + ": " + strerror(err),
                           {false, 127}});
        }
        if (m_started) ++m_state.restarts;
        m_started = true;
        m_state.tool_pid = m_tool.pid();
        m_state.workers = 0;
        set_phase(Phase::Starting, m_start_reason);
        m_start_reason.clear();
    }

    // Writes the GridFTP server's configuration unless it is the operator's;
    // what matters about it is said at the first start, a rewrite each time.
    bool server_configured() {
        std::string path = m_settings.config_dir + "/gridftp.conf", shared;
        ConfOutcome outcome = ConfOutcome::Unchanged;
        if (int err = write_gridftp_conf(m_settings, outcome); err != 0) {
            failed({FailureClass::NotReady, "cannot write " + path + ": " + strerror(err), {}});
            return false;
        }
        for (const Share& share : m_settings.shared)
            shared += ":" + share.dir + (share.read_only ? ":ro" : "");
        if (outcome == ConfOutcome::Written)
            note("wrote " + path + ", sharing " + shared.substr(1));
        if (!m_started && outcome == ConfOutcome::Operators)
            note(path + " is the operator's own; left as it is");
        if (!m_started && m_settings.trust_dir.empty()) {
            note(
                "RELAYTOOL_TRUST_DIR: not set, and this build trusts no relay authority: the "
                "GridFTP server will refuse certificates the relay issued");
        }
        return true;
    }

    bool waiting_for_route() const { return m_state.phase == Phase::Waiting && !m_retry.armed(); }

    // One line of the tool's standard output: "RELAYTOOL=1 status=..."
    // records of key=value tokens, as in the relay protocol.
    void status_line(const std::string& line) {
        if (line.compare(0, 12, "RELAYTOOL=1 ") != 0) {
            return (void)fprintf(stderr, "tool (standard output): %s\n", line.c_str());
        }
        hvlib::KeyValues record(line);
        std::string status = record.get("status", "");
        m_state.workers = atoi(record.get("nr_workers", "0").c_str());
        if (m_stopping) return workers_ended();  // the phase stays "stopping"
        if (status == "CONNECTED") {
            m_connected_at = now_ms();
            m_state.display_name = hvlib::url_decode(record.get("ep_display_name", ""));
            m_state.web_url = hvlib::url_decode(record.get("web_ux_url", ""));
            m_route.resolve();  // the relay's name resolves now
            if (m_tunnel_local.empty()) m_route.local_address(m_tunnel_local);
            set_phase(Phase::Connected);
        } else if (status == "IDLE" && m_state.phase == Phase::Pausing) {
            restart("pausing: the transfers have ended");
        } else if (status == "IDLE" || status == "PAUSED") {
            set_phase(status == "IDLE" ? Phase::Idle : Phase::Paused);
        } else if (status == "ACTIVE") {
            set_phase(m_state.phase == Phase::Pausing ? Phase::Pausing : Phase::Active,
                      m_state.reason);
        } else {
            fprintf(stderr, "tool: status not understood: %s\n", line.c_str());
        }
    }

    void set_phase(Phase phase, const std::string& reason = "") {
        m_state.phase = phase;
        m_state.reason = reason;
        m_recorder.record(m_state);
    }

    void child_ended(pid_t pid, int status) {
        ToolEnd end;
        if (m_tool.ended(pid, status, end)) tool_ended(end);
        if (!m_stopping) return;
        workers_ended();
        if (!m_grace.armed() && !m_tool.running() && !children_left()) finish();
    }

    void tool_ended(const ToolEnd& end) {
        m_state.tool_pid = 0;
        m_state.workers = 0;
        m_backoff.connection_lasted(
            m_connected_at < 0 ? 0 : static_cast<double>(now_ms() - m_connected_at) / 1000);
        if (m_stopping) {
            if (!m_grace.armed()) kill_workers();
        } else if (!m_restart_reason.empty()) {
            m_start_reason.swap(m_restart_reason);
            m_restart_reason.clear();
            start();
        } else {
            failed(m_tool.failure(end, m_connected_at >= 0));
        }
    }

    // A start failed or a run of the tool ended on its own: stop for good,
    // or wait for the back-off of its class.
    void failed(const Failure& failure) {
        const ClassInfo& info = class_info(failure.cls);
        bool ran = failure.cls != FailureClass::NotReady;
        std::string line = failure.line.empty() ? "" : ": " + failure.line;
        m_state.has_failure = true;
        m_state.last_failure = {info.name, failure.line, ran ? describe_end(failure.end) : "",
                                WallClock::now()};
        if (info.final) {
            return shut_down(info.exit_status,
                             hvlib::str_sprintf("%s: %s (exit status %d)", info.name,
                                                info.description, info.exit_status) +
                                 line);
        }
        double delay =
            m_backoff.next(std::uniform_real_distribution<double>(0, 1)(m_random), info.backoff);
        auto delay_ms = static_cast<long long>(delay * 1000);
        m_state.delay = delay;
        m_state.has_next_attempt = true;
        m_state.next_attempt = WallClock::now() + std::chrono::milliseconds(delay_ms);
        set_phase(Phase::Waiting, ran ? "to reconnect after " + std::string(info.name) + line
                                      : "for " + failure.line);
        m_retry.after(m_loop.event(), delay_ms, [this] { start(); });
    }

    // Starts the tool again at once, once it has ended if it runs.
    void restart(const std::string& why) {
        if (m_stopping) return;
        note(why);
        if (m_tool.running()) {
            if (m_restart_reason.empty()) m_tool.stop();
            m_restart_reason = why;
        } else if (m_retry.armed() || waiting_for_route()) {
            m_start_reason = why;
            start();
        }
    }

    // A burst of address or route changes has settled. A route that comes
    // back with the same local address leaves a running tool alone.
    void network_changed() {
        std::string local;
        Route route = m_route.local_address(local);
        if (route == Route::None && m_tool.running()) {
            note("no route to the relay for now; the tool keeps running");
        } else if (route == Route::None && m_retry.armed()) {
            restart("no route to the relay any more");
        } else if (route == Route::Known && waiting_for_route()) {
            restart("a route to the relay is back (local address " + local + ")");
        } else if (route == Route::Known && local != m_tunnel_local && !waiting_for_route()) {
            restart("the local address for the relay changed from " +
                    (m_tunnel_local.empty() ? "none" : m_tunnel_local) + " to " + local);
        }
    }

    // `pause` waits for the running transfers unless `now`; both keep the
    // mark, so that a restart of the service or the computer stays paused.
    std::string pause(bool now) {
        const std::string mark = paused_mark(m_settings.config_dir);
        if (m_stopping) return "1 stopping";
        if (m_state.paused && (!now || m_state.phase != Phase::Pausing)) {
            return "0 already " + describe(m_state);
        }
        if (int err = hvlib::replace_file_atomically(
                mark, "paused until `relaytool-endpoint resume`\n")) {
            return "1 cannot write " + mark + ": " + strerror(err);
        }
        m_state.paused = paused_since(m_settings.config_dir, m_state.paused_since);
        if (!now && m_tool.running() && m_state.workers > 0) {
            set_phase(Phase::Pausing, "once the running transfers have ended");
            return "0 pausing once the running transfers have ended";
        }
        for (pid_t worker : now ? all_workers() : std::vector<pid_t>()) kill(worker, SIGTERM);
        restart("paused");
        return "0 paused";
    }

    std::string resume() {
        const std::string mark = paused_mark(m_settings.config_dir);
        if (m_stopping) return "1 stopping";
        if (!m_state.paused) return "0 not paused";
        if (unlink(mark.c_str()) != 0 && errno != ENOENT)
            return "1 cannot remove " + mark + ": " + strerror(errno);
        m_state.paused = false;
        if (m_state.phase == Phase::Pausing) {  // still serving: nothing to start again
            set_phase(m_state.workers > 0 ? Phase::Active : Phase::Idle);
        } else {
            restart("resumed");
        }
        return "0 resumed";
    }

    // The workers of this run of the tool, and those that outlived a tool.
    std::vector<pid_t> all_workers() const {
        std::vector<pid_t> workers = workers_of(getpid());
        if (m_tool.running()) {
            for (pid_t worker : workers_of(m_tool.pid())) workers.push_back(worker);
        }
        return workers;
    }

    void stop(int sig) {
        if (!m_stopping) {
            return shut_down(0, hvlib::str_sprintf("on request (SIG%s)", sigabbrev_np(sig)));
        }
        m_grace.cancel();  // asked twice: no more waiting
        m_tool.stop(true);
        kill_workers();
    }

    // Stops in three steps: the GridFTP workers get SIGTERM and a grace time
    // while the tunnel still carries them (the tool never ends them); then
    // the tool is stopped its own way, taking ssh along; the rest is killed.
    void shut_down(int exit_status, const std::string& reason) {
        m_stopping = true;
        m_state.exit_status = exit_status;
        m_retry.cancel();
        m_state.has_next_attempt = false;
        set_phase(Phase::Stopping, reason);
        for (pid_t worker : all_workers()) kill(worker, SIGTERM);
        m_grace.after(m_loop.event(), kWorkerGraceMs, [this] { stop_tool(); });
        workers_ended();
    }

    // During the grace time, after each status line and each child's end.
    void workers_ended() {
        if (m_grace.armed() && m_state.workers == 0 && workers_of(getpid()).empty()) stop_tool();
    }

    void stop_tool() {
        m_grace.cancel();
        if (!m_tool.running()) return kill_workers();
        m_tool.stop();  // then kill_workers() once it has ended
    }

    void kill_workers() {
        for (pid_t worker : workers_of(getpid())) kill(worker, SIGKILL);
        if (!m_tool.running() && !children_left()) finish();
    }

    void finish() {
        if (m_state.phase == Phase::Stopped) return;
        m_state.tool_pid = 0;
        m_state.workers = 0;
        set_phase(Phase::Stopped, m_state.reason);
        m_loop.exit(m_state.exit_status);
    }

    Settings m_settings;
    Loop m_loop;
    Tool m_tool;
    NetworkWatch m_network;
    SleepWatch m_sleep;
    RelayRoute m_route;
    StateRecorder m_recorder;
    TransferHistory m_history;
    ControlSocket m_control;
    Backoff m_backoff;
    std::mt19937_64 m_random{std::random_device{}()};
    EndpointState m_state;
    Source m_retry, m_grace;
    std::string m_tunnel_local;  // the local address to the relay when the tool started
    std::string m_start_reason, m_restart_reason;
    long long m_connected_at = -1;
    bool m_started = false, m_locked = false, m_stopping = false;
};

}  // namespace

int run_supervisor(const CommandLine& cli, const Settings& settings) {
    return Supervisor(cli, settings).run();
}

}  // namespace endpoint
