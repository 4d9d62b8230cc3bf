// RelayToolImpl: the POSIX half of the relay tool. It owns every descriptor
// and child process and runs the single-threaded poll loop.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "strutil.h"

class RelayTool;

class RelayToolImpl {
public:
    explicit RelayToolImpl(RelayTool* tool) : m_tool(tool) {}

    [[noreturn]] void run();
    void processFD(int fd);
    void checkSSHExit();

    int initInetd();
    void acceptInetd();
    void launchGridFTP(int fd);
    void waitChildProcesses();

    int32_t m_ssh_pid = -1;
    int m_ssh_stdin_fd = -1;
    int m_ssh_stdout_fd = -1;
    int m_ssh_stderr_fd = -1;
    int m_inetd_fd = -1;
    int m_ftp_stderr_fd = -1;
    int m_ftp_stderr_write_fd = -1;
    std::vector<int> m_ftp_pids;
    RelayTool* m_tool;
    std::string m_ssh_stdin_queue;

private:
    // A descriptor held in reserve while the listener is open: when the
    // process runs out of descriptors, giving it up lets the tool take the
    // pending connection off the listen queue (and close it) instead of
    // finding the listener readable again at once, forever.
    int m_spare_fd = -1;
    void dropPendingConnection();

    void writeSSHInput();
    // One read from an SSH output pipe, handed to the callback; closes the
    // pipe at end of file and reaps the child once both pipes are closed.
    void readSSHOutput(int& fd, void (RelayTool::*received)(const std::string&));
};

// "Fatal Posix Error: <what>: <strerror(errno)>", exit status 1.
[[noreturn]] void posix_fatal_error(const char* what);

// Adds FD_CLOEXEC to a descriptor's flags; failure is fatal ("fcntl").
void posix_set_cloexec(int fd);
// Clears FD_CLOEXEC; failure is fatal ("fcntl").
void posix_clear_cloexec(int fd);
// Adds or removes O_NONBLOCK; failure is fatal ("fcntl").
void posix_set_nonblocking(int fd, bool nonblocking);
// Closes a descriptor with the debug line "closing fd N"; failure is fatal.
void posix_close(int fd);

// execve of args[0] with args[1..] and the unchanged environment; reports
// a failure ("execve") and exits. Used in forked children only.
[[noreturn]] void posix_exec(const hvlib::StringList& args);
