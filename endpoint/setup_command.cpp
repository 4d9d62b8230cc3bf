#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "classify.h"
#include "cli.h"
#include "diag.h"
#include "lock.h"
#include "loop.h"
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

}  // namespace endpoint
