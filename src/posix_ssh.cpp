// Starting the SSH client behind the parent-death watcher.
#include <unistd.h>

#include "debug.h"
#include "posix_impl.h"
#include "relaytool.h"

void RelayTool::launchSSH(const hvlib::StringList& args) {
    // The watcher runs the client and ends it when this process has gone:
    // pdeath <our pid> <ssh path> ssh <arguments...>
    hvlib::StringList full = {m_config.pdeath_path, "pdeath",
                              hvlib::str_sprintf("%d", static_cast<int>(getpid()))};
    full.insert(full.end(), args.begin(), args.end());
    for (const std::string& arg : full) {
        relaytool_debug("ssh arg: %s\n", hvlib::backslash_escape(arg).c_str());
    }

    int in[2], out[2], err[2];
    if (pipe(in) == -1 || pipe(out) == -1 || pipe(err) == -1) posix_fatal_error("pipe");
    posix_set_cloexec(in[1]);
    posix_set_cloexec(out[0]);
    posix_set_cloexec(err[0]);

    pid_t pid = fork();
    if (pid == -1) posix_fatal_error("Fork");
    if (pid == 0) {
        const int ends[3] = {in[0], out[1], err[1]};
        for (int target = 0; target < 3; ++target) {
            if (dup2(ends[target], target) == -1) posix_fatal_error("dup2");
            posix_close(ends[target]);
        }
        posix_exec(full);
    }

    RelayToolImpl* impl = m_impl;
    impl->m_ssh_pid = pid;
    impl->m_ssh_stdin_fd = in[1];
    impl->m_ssh_stdout_fd = out[0];
    impl->m_ssh_stderr_fd = err[0];
    posix_set_nonblocking(in[1], true);
    posix_set_nonblocking(out[0], true);
    posix_set_nonblocking(err[0], true);
    posix_close(in[0]);
    posix_close(out[1]);
    posix_close(err[1]);
    relaytool_debug("launched ssh, pid=%d\n", static_cast<int>(pid));
    relaytool_debug("child stdin = %d\n", in[1]);
    relaytool_debug("child stdout = %d\n", out[0]);
    relaytool_debug("child stderr = %d\n", err[0]);
}
