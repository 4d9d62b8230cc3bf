// How `pause` and `resume` reach the running supervisor: a Unix socket in
// the configuration directory, which only its owner can enter, and on
// which the supervisor also checks each peer's user (SO_PEERCRED). One
// command a connection ("pause", "pause --now", "resume"); the answer is
// one line, prefixed with the exit status the command is to end with.
#pragma once

#include <functional>
#include <string>

#include "loop.h"

namespace endpoint {

class ControlSocket {
public:
    using Handler = std::function<std::string(const std::string& command)>;

    ControlSocket() = default;
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;
    ~ControlSocket();

    // Listens (replacing what a supervisor that died left); 0 or an errno.
    int open(sd_event* loop, const std::string& config_dir, Handler handler);

private:
    void accept_one();

    std::string m_path;
    int m_fd = -1, m_client = -1;
    Handler m_handler;
    Source m_listening, m_reading;
    sd_event* m_loop = nullptr;
};

}  // namespace endpoint
