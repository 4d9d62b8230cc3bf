// The commands that run once: setup and status.
#include <nlohmann/json.hpp>

#include <termios.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "cli.h"
#include "diag.h"
#include "file.h"
#include "loop.h"
#include "state.h"
#include "strutil.h"
#include "tool.h"

namespace endpoint {

namespace {

int fail(int status, const std::string& message) {
    fprintf(stderr, "relaytool-endpoint: %s\n", message.c_str());
    return status;
}

// The code is one line of standard input: never on a command line, where
// every user could read it. On a terminal it is not echoed, and Ctrl-C is
// read as a character that ends the input, so that the echo always comes
// back.
bool read_setup_code(std::string& code) {
    termios saved{};
    bool terminal = tcgetattr(0, &saved) == 0;
    if (terminal) {
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ISIG);
        quiet.c_cc[VEOL] = '\003';  // Ctrl-C ends the line too
        fputs("setup code: ", stderr);
        fflush(stderr);  // line-buffered, and no line end yet
        tcsetattr(0, TCSAFLUSH, &quiet);
    }
    std::string line;
    int c = 0;
    while ((c = getchar()) != EOF && c != '\n' && c != '\003') line += static_cast<char>(c);
    if (terminal) {
        tcsetattr(0, TCSAFLUSH, &saved);
        fputc('\n', stderr);
    }
    code = hvlib::strip(line);
    return c != '\003' && !code.empty();
}

}  // namespace

int run_setup(const CommandLine& cli, const Settings& given) {
    Settings settings = given;
    std::string problem, code;
    const int not_ready = class_info(FailureClass::NotReady).exit_status;
    LockResult lock = take_config_lock(settings.config_dir, problem);
    if (lock != LockResult::Taken) return fail(lock == LockResult::Held ? 4 : not_ready, problem);
    if (!paths_ready(settings, Command::Setup, problem)) return fail(not_ready, problem);
    if (!read_setup_code(code)) return fail(2, "no setup code on standard input");
    settings.tool_env["HVN_SETUP_CODE"] = code;
    if (cli.debug) settings.tool_env["HVN_DEBUG"] = "1";

    Loop loop;
    Tool tool;
    ToolEnd end;
    int interrupted = 0;
    int err = loop.open(
        [&](int sig) {
            interrupted = sig;
            tool.stop();
        },
        [&](pid_t pid, int status) {
            if (tool.ended(pid, status, end)) loop.exit(0);
        });
    // Setup mode has no status lines; anything on standard output is shown.
    auto shown = [](const std::string& line) {
        fprintf(stderr, "tool (standard output): %s\n", line.c_str());
    };
    if (err == 0) err = tool.start(loop.event(), settings.tool_path, settings.tool_env, shown);
    if (err != 0) {
        return fail(1, "the endpoint is not set up: cannot start " + settings.tool_path + ": " +
                           hvlib::get_strerror_string(err));
    }
    loop.run();
    if (interrupted != 0) {
        return fail(1, hvlib::str_sprintf("the endpoint is not set up: interrupted by SIG%s",
                                          sigabbrev_np(interrupted)));
    }
    if (!end.signaled && end.value == 0) {
        printf("relaytool-endpoint: the endpoint is set up; its credentials are in %s\n",
               settings.config_dir.c_str());
        return 0;
    }
    Failure failure = tool.failure(end, false);
    const ClassInfo& info = class_info(failure.cls);
    std::string line = failure.line.empty() ? describe_end(end) : failure.line;
    return fail(info.exit_status, hvlib::str_sprintf("the endpoint is not set up: %s, %s: %s",
                                                     info.name, info.description, line.c_str()));
}

namespace {

using nlohmann::json;

constexpr size_t kTransfersShown = 5;

std::string text_of(const json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// The state as the file has it, settled: "running" says whether a
// supervisor holds the directory (`holder`, its pid); one that does not
// has stopped, whatever its file says.
json settled_state(const std::string& config_dir, pid_t holder) {
    std::string text;
    hvlib::try_read_file_contents(state_file(config_dir), text);  // left empty on failure
    json state = json::parse(text, nullptr, false);  // without exceptions: a bad file is no state
    bool known = state.is_object() && state.contains("state");
    if (!known) state = json::object();
    if (holder != 0) {
        state["pid"] = holder;
        if (!known) state["state"] = "starting";
    } else if (text_of(state, "state") != "stopped") {  // killed, or the machine went down
        state.update({{"state", "stopped"},
                      {"reason", known ? "relaytool-endpoint ended without recording why (killed?)"
                                       : "no relaytool-endpoint has run for this configuration "
                                         "directory"},
                      {"workers", 0},
                      {"tool_pid", nullptr},
                      {"next_attempt", nullptr},
                      {"delay", nullptr}});
        state.erase("description");
    }
    WallClock::time_point since;
    state["paused_since"] = paused_since(config_dir, since) ? json(iso_time(since)) : json(nullptr);
    state["config_dir"] = config_dir;
    state["running"] = holder != 0;
    state["transfers"] = TransferHistory::load(config_dir);
    return state;
}

void print_for_a_person(const json& state) {
    if (state["running"].get<bool>()) {
        printf("relaytool-endpoint is running (pid %lld)\n", state["pid"].get<long long>());
    } else {
        printf("relaytool-endpoint is not running\n");
    }
    std::string description = text_of(state, "description"), reason = text_of(state, "reason");
    std::string failed;
    if (description.empty())
        description = text_of(state, "state") + (reason.empty() ? "" : ": " + reason);
    if (const json& failure = state.value("last_failure", json()); failure.is_object()) {
        failed = text_of(failure, "class") + " at " + text_of(failure, "at") + ", " +
                 text_of(failure, "end") + "\n               " + text_of(failure, "line");
    }
    const json& transfers = state["transfers"];
    std::string last;
    for (size_t i = transfers.size() > kTransfersShown ? transfers.size() - kTransfersShown : 0;
         i < transfers.size(); ++i) {
        last += (last.empty() ? "" : "\n               ") + text_of(transfers[i], "at") + " " +
                describe_transfer(transfers[i]);
    }
    const std::pair<const char*, std::string> lines[] = {
        {"configuration:", text_of(state, "config_dir")},
        {"state:", description},
        {"since:", text_of(state, "since")},
        {"paused since:", text_of(state, "paused_since")},
        {"restarts:", state.contains("restarts") ? state["restarts"].dump() : ""},
        {"last failure:", failed},
        {"transfers:", last},
    };
    for (const auto& [label, text] : lines) {
        if (!text.empty()) printf("%-15s%s\n", label, text.c_str());
    }
}

}  // namespace

int show_status(const std::string& config_dir, bool as_json) {
    // The lock is tested before the file is read: a supervisor that ends in
    // between then shows as running with its last state, never as a stale
    // "running" state without a supervisor.
    json state = settled_state(config_dir, config_lock_holder(config_dir));
    if (as_json) {
        printf("%s\n", state.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    } else {
        print_for_a_person(state);
    }
    return state["running"].get<bool>() ? 0 : 3;
}

}  // namespace endpoint
