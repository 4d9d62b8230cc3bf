#include <cstdio>

#include "classify.h"
#include "commands.h"
#include "diag.h"
#include "supervisor.h"
#include "toolrun.h"

namespace endpoint {

int run_setup(const Settings& settings, const std::string& code, int signal_fd) {
    EnvMap env = settings.tool_env;
    env["HVN_SETUP_CODE"] = code;
    ToolProcess tool;
    if (int err = spawn_tool(settings.tool_path, env, tool); err != 0) {
        fprintf(stderr, "relaytool-endpoint: the endpoint is not set up: cannot start %s: %s\n",
                settings.tool_path.c_str(), hvlib::get_strerror_string(err).c_str());
        return 1;
    }
    FailureClassifier classifier;
    ToolRunHandlers handlers;
    // Setup mode has no status lines; anything on standard output is shown.
    handlers.stdout_line = [](const std::string& line) {
        fprintf(stderr, "tool (standard output): %s\n", line.c_str());
    };
    handlers.stderr_line = [&classifier](const std::string& line) {
        fprintf(stderr, "tool: %s\n", line.c_str());
        classifier.feed(line);
    };
    handlers.stop_requested = [](int sig) {
        fprintf(stderr, "relaytool-endpoint: %s received; stopping the setup\n", signal_name(sig));
    };
    ToolRunOutcome outcome = ToolRun(signal_fd, tool, handlers).wait();

    if (outcome.stop_signal != 0) {
        fprintf(stderr, "relaytool-endpoint: the endpoint is not set up: interrupted by %s\n",
                signal_name(outcome.stop_signal));
        return 1;
    }
    if (!outcome.end.signaled && outcome.end.value == 0) {
        printf("relaytool-endpoint: the endpoint is set up; its credentials are in %s\n",
               settings.config_dir.c_str());
        return 0;
    }
    Failure failure = classifier.finish(outcome.end, false);
    const ClassInfo& info = class_info(failure.cls);
    std::string line = failure.line.empty() ? describe_end(failure.end) : failure.line;
    fprintf(stderr, "relaytool-endpoint: the endpoint is not set up: %s, %s: %s\n", info.name,
            info.description, line.c_str());
    return info.exit_status;
}

}  // namespace endpoint
