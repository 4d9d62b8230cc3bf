#include "launch.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <utility>
#include <vector>

namespace endpoint {

namespace {

void close_fd(int& fd) {
    if (fd != -1) close(fd);
    fd = -1;
}

}  // namespace

int spawn_tool(const std::string& path, const EnvMap& env, ToolProcess& out) {
    // Every pipe end is close-on-exec; the three that the tool gets are
    // copied onto 0, 1 and 2, which clears the flag on the copies only.
    int in[2], outp[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0) return errno;
    if (pipe2(outp, O_CLOEXEC) != 0) {
        int e = errno;
        close(in[0]);
        close(in[1]);
        return e;
    }
    if (pipe2(err, O_CLOEXEC) != 0) {
        int e = errno;
        for (int fd : {in[0], in[1], outp[0], outp[1]}) close(fd);
        return e;
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, outp[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    // Our own descriptors are close-on-exec, but whoever started us may have
    // left others open: the tool must get 0, 1 and 2 only.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);

    // The tool starts with the signal state of a fresh process, and in a
    // process group of its own: a Ctrl-C at a terminal is for us, and we
    // stop the tool our way, through its standard input.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGPIPE}) sigaddset(&defaults, sig);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(
        &attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

    std::vector<std::string> entries;
    entries.reserve(env.size());
    for (const auto& [key, value] : env) {
        std::string entry = key;
        entry += '=';
        entry += value;
        entries.push_back(std::move(entry));
    }
    std::vector<char*> envp;
    envp.reserve(entries.size() + 1);
    for (std::string& entry : entries) envp.push_back(&entry[0]);
    envp.push_back(nullptr);
    std::string argv0 = "relaytool";
    char* argv[] = {&argv0[0], nullptr};

    pid_t pid = -1;
    int rc = posix_spawn(&pid, path.c_str(), &actions, &attr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    for (int fd : {in[0], outp[1], err[1]}) close(fd);
    if (rc != 0) {
        for (int fd : {in[1], outp[0], err[0]}) close(fd);
        return rc;
    }
    out.pid = pid;
    out.stdin_fd = in[1];
    out.stdout_fd = outp[0];
    out.stderr_fd = err[0];
    for (int fd : {out.stdout_fd, out.stderr_fd}) fcntl(fd, F_SETFL, O_NONBLOCK);
    return 0;
}

void close_tool_pipes(ToolProcess& tool) {
    close_fd(tool.stdin_fd);
    close_fd(tool.stdout_fd);
    close_fd(tool.stderr_fd);
}

}  // namespace endpoint
