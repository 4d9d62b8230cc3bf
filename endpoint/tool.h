// One run of the tool, started as its parent must: a standard-input pipe
// that we keep open and never write to, pipes for its standard output and
// error, read line by line, no other descriptor, and a process group of its
// own, which its GridFTP workers share; and what ended it, and whether
// starting it again can help.
#pragma once

#include <sys/types.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "loop.h"
#include "settings.h"

namespace endpoint {

// The tool ends every login with exit status 1 and says why only in free
// text on standard error: its own lines and the ssh client's ("[ssh stderr]
// ..."). The GridFTP workers' lines ("[ftp stderr] ...") never count: a
// transfer's trouble says nothing about the connection.
enum class FailureClass {
#define CLASS(id, ...) id,
#include "classes.def"
#undef CLASS
};

enum class BackoffKind { Normal, Long };

struct ClassInfo {
    const char* name;  // in the state file, the JSON and the journal
    bool final;        // stop for good, or retry after a back-off
    BackoffKind backoff;
    int exit_status;          // of relaytool-endpoint when this class ends it
    const char* description;  // for people: what it is, and why it is (not) final
};

const ClassInfo& class_info(FailureClass cls);

struct ToolEnd {
    bool signaled = false;
    int value = 0;  // the exit status, or the signal number
};

std::string describe_end(const ToolEnd& end);  // "exit status 1", "signal 9 (Killed)"

struct Failure {
    FailureClass cls = FailureClass::Unknown;
    std::string line;  // the tool's line that showed the class; may be empty
    ToolEnd end;
};

// Collects one run's standard-error lines as they come. Only the most telling
// line is kept, so a run of weeks costs no memory.
class FailureClassifier {
public:
    void feed(const std::string& line);
    // `connected`: the run got as far as a completed login.
    Failure finish(const ToolEnd& end, bool connected) const;

private:
    bool m_found = false;
    FailureClass m_cls = FailureClass::Unknown;
    std::string m_line;
};

// How long to wait before starting the tool again: the first retry waits
// between MIN and 2*MIN seconds, each further one twice as long, up to
// between MAX/2 and MAX. Drawing from the upper half of each range keeps the
// delays growing while it spreads endpoints that lost the same relay at once.
// A Long one, where hammering cannot help, is drawn as if kLongSkip failures
// had come first. A connection that lasted as long as the longest delay
// (MAX, a minute at most) starts from MIN again.
class Backoff {
public:
    static constexpr double kStableSeconds = 60;    // a connection this long resets, or MAX
    static constexpr double kLimitSeconds = 86400;  // largest MIN or MAX accepted
    static constexpr int kLongSkip = 5;             // a Long one starts at 32*MIN

    Backoff(double min_seconds, double max_seconds) : m_min(min_seconds), m_max(max_seconds) {}

    // The delay before the next attempt, for a random draw in [0, 1).
    double next(double random01, BackoffKind kind = BackoffKind::Normal) {
        int steps = m_failures++ + (kind == BackoffKind::Long ? kLongSkip : 0);
        double high = 2 * m_min;  // doubled step by step: no overflow, however long
        for (int i = 0; i < steps && high < m_max; ++i) high *= 2;
        high = std::min(high, m_max);
        double low = std::max(m_min, high / 2);
        return low + random01 * (high - low);
    }

    // A run of the tool ended after being connected for `seconds`.
    void connection_lasted(double seconds) {
        if (seconds >= std::min(m_max, kStableSeconds)) m_failures = 0;
    }

private:
    double m_min, m_max;
    int m_failures = 0;
};

using LineHandler = std::function<void(const std::string&)>;

class Tool : Pinned {
public:
    static constexpr long long kStopGraceMs = 5000;  // after its standard input closed
    static constexpr size_t kMaxLine = 65536;        // longer ones in pieces: memory stays bounded

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
