// One run of the tool, started as its parent must: a standard-input pipe
// that we keep open and never write to, pipes for its standard output and
// error, read line by line in the event loop, no other descriptor, and a
// process group of its own, which its GridFTP workers share. Its standard
// error goes into our log and tells why the run ended.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "classify.h"
#include "loop.h"
#include "settings.h"

namespace endpoint {

using LineHandler = std::function<void(const std::string&)>;

class Tool {
public:
    static constexpr long long kStopGraceMs = 5000;  // after its standard input closed
    static constexpr size_t kMaxLine = 65536;        // longer ones in pieces: memory stays bounded

    Tool() = default;
    Tool(const Tool&) = delete;
    Tool& operator=(const Tool&) = delete;
    ~Tool();

    // Starts `path` with exactly the environment `env`; 0 or an errno. Each
    // line of its standard output goes to `out`; each of its standard error
    // is logged as "tool: LINE", classified, and then goes to `err`.
    int start(sd_event* loop, const std::string& path, const EnvMap& env, LineHandler out,
              LineHandler err = nullptr);
    bool running() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }

    // Closes its standard input, the tool's own way to stop, and kills it
    // after kStopGraceMs; asked again, or `at_once`, kills it now.
    void stop(bool at_once = false);

    // True if the reaped child was the tool (its last output passed on).
    bool ended(pid_t pid, int status, ToolEnd& end);
    // Why a run ended; `connected`: it got as far as a completed login.
    Failure failure(const ToolEnd& end, bool connected) const {
        return m_classifier.finish(end, connected);
    }

private:
    struct Stream {
        int fd = -1;
        std::string partial;
        LineHandler handler;
        Source source;
    };
    bool read_from(Stream& stream);                   // false once nothing more can be read for now
    static void pass_on(Stream& stream, size_t cut);  // the text before `cut`, as lines
    void close_all();

    sd_event* m_loop = nullptr;
    pid_t m_pid = -1;
    int m_stdin = -1;
    Stream m_out, m_err;
    FailureClassifier m_classifier;
    Source m_kill;
};

// The GridFTP workers among the children of `parent`: the tool gives each
// its connection as standard input, a socket, where ssh has a pipe.
std::vector<pid_t> workers_of(pid_t parent);

}  // namespace endpoint
