#!/usr/bin/python3
"""Tests for the pdeath watcher: test_pdeath.py --pdeath PATH (or PDEATH=PATH)."""
import argparse, contextlib, ctypes, errno, os, select, signal, subprocess, sys, time, unittest

PDEATH = os.environ.get("PDEATH", "")
USAGE = b"usage: pdeath <pid> <program> <argv0> [args...]\n"


def proc_stat(pid):
    """(comm, state, ppid) of a process, or None once it has gone."""
    try:
        with open(f"/proc/{pid}/stat") as f:
            head, _, tail = f.read().rpartition(")")
        return head.partition("(")[2], tail.split()[0], int(tail.split()[1])
    except (OSError, ValueError):
        return None


def alive(pid):
    st = proc_stat(pid)
    return st is not None and st[1] != "Z"  # a zombie has already ended


def find_sleep(watcher):
    """The sleep process: the watcher itself once it has exec'd, or its child."""
    for pid in [watcher] + [int(p) for p in os.listdir("/proc") if p.isdigit()]:
        st = proc_stat(pid)
        if st and st[0] == "sleep" and (pid == watcher or st[2] == watcher):
            return pid
    return None


def wait_until(condition, timeout):
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


def read_line(stream, timeout=5):
    ready, _, _ = select.select([stream], [], [], timeout)
    return stream.readline() if ready else b""


def start(*args, **kwargs):
    """pdeath in its own process group, so that stop() ends the program too."""
    return subprocess.Popen([PDEATH, *args], start_new_session=True, **kwargs)


def stop(proc):
    with contextlib.suppress(ProcessLookupError):
        os.killpg(proc.pid, signal.SIGKILL)
    proc.communicate()


def run(*program, pid=None, args=None, input=None):
    """Runs pdeath as our child; returns (status, stdout, stderr)."""
    args = args if args is not None else [str(pid or os.getpid()), *program]
    proc = start(*args, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        out, err = proc.communicate(input, timeout=10)
        return proc.returncode, out, err
    finally:
        stop(proc)


class ParentDeathTest(unittest.TestCase):
    def test_program_dies_with_parent(self):
        for program in (["/bin/sleep", "sleep", "60"],
                        ["/bin/sh", "sh", "-c", 'trap "" TERM; exec /bin/sleep 60']):
            with self.subTest(" ".join(program[1:])):
                self.check_dies_with_parent(program)

    def check_dies_with_parent(self, program):
        # The shell starts pdeath with its own pid, prints pdeath's pid and
        # waits; pdeath shares the shell's stdout pipe to us.
        parent = subprocess.Popen(["/bin/sh", "-c", '"$0" $$ "$@" & echo $!; wait',
                                   PDEATH, *program], stdout=subprocess.PIPE)
        watcher = sleeper = None
        try:
            watcher = int(read_line(parent.stdout))
            self.assertTrue(wait_until(lambda: find_sleep(watcher), 5))
            sleeper = find_sleep(watcher)
            parent.kill()
            self.assertTrue(wait_until(lambda: not alive(sleeper), 2), "program outlived parent")
            self.assertTrue(wait_until(lambda: not alive(watcher), 1))
            self.assertEqual(read_line(parent.stdout, 1), b"", "stdout pipe still open")
        finally:
            parent.kill()
            parent.wait()
            parent.stdout.close()
            for pid in (sleeper, watcher):  # orphans handed to us as subreaper
                with contextlib.suppress(TypeError, ProcessLookupError, ChildProcessError):
                    os.kill(pid, signal.SIGKILL)
                    os.waitpid(pid, 0)


class PassThroughTest(unittest.TestCase):
    def test_argv_stdio_and_exit_status(self):
        script = 'cat /proc/$$/cmdline; read line; echo "in:$line"; echo err >&2; exit 3'
        self.assertEqual(run("/bin/sh", "my-sh", "-c", script, "x", "y", input=b"hi\n"),
                         (3, b"my-sh\0-c\0" + script.encode() + b"\0x\0y\0in:hi\n", b"err\n"))

    def test_signal_death_is_passed_on(self):
        for sig in (signal.SIGUSR1, signal.SIGTERM, signal.SIGKILL):
            with self.subTest(sig.name):
                self.assertEqual(run("/bin/sh", "sh", "-c", f"kill -{int(sig)} $$")[0], -sig)

    def test_pipes_reach_eof_when_program_exits(self):
        begin = time.monotonic()
        self.assertEqual(run("/bin/sh", "sh", "-c", "echo out; echo err >&2; sleep 0.2"),
                         (0, b"out\n", b"err\n"))
        self.assertLess(time.monotonic() - begin, 2.0)

    def test_signals_are_forwarded(self):
        script = 'trap "echo got; exit 7" TERM INT HUP; echo ready; while :; do sleep 0.1; done'
        for sig in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(sig.name):
                proc = start(str(os.getpid()), "/bin/sh", "sh", "-c", script,
                             stdout=subprocess.PIPE)
                try:
                    self.assertEqual(read_line(proc.stdout), b"ready\n")
                    proc.send_signal(sig)
                    self.assertEqual(proc.communicate(timeout=5)[0], b"got\n")
                    self.assertEqual(proc.returncode, 7)
                finally:
                    stop(proc)


class BadCallTest(unittest.TestCase):
    PROGRAM = ["/bin/sh", "sh", "-c", "echo ran"]

    def test_usage(self):
        me = str(os.getpid())
        for args in ([], [me], [me, "/bin/sh"], *([pid] + self.PROGRAM for pid in
                     ("0", "abc", "-1", "+" + me, " " + me, me + "x", "", "2147483648"))):
            with self.subTest(args):
                self.assertEqual(run(args=args), (2, b"", USAGE))

    def test_pid_that_is_not_our_parent(self):
        for pid in (os.getppid(), 1):
            with self.subTest(pid):
                status, out, err = run(*self.PROGRAM, pid=pid)
                self.assertEqual((status, out), (1, b""))
                self.assertRegex(err, rb"^pdeath: [^\n]+\n$")

    def test_program_that_cannot_be_executed(self):
        for program, err in (("/nonexistent/prog", errno.ENOENT), ("/", errno.EACCES)):
            with self.subTest(program):
                message = f"pdeath: cannot execute '{program}': {os.strerror(err)}\n"
                self.assertEqual(run(program, "prog"), (127, b"", message.encode()))


class DescriptorTest(unittest.TestCase):
    def test_only_standard_descriptors(self):
        # The program lists its descriptors and then waits for end of input,
        # so that we can also look at the pdeath process itself.
        script = ("import os, sys; print([fd for fd in range(1024) "
                  "if os.path.lexists(f'/proc/self/fd/{fd}')], flush=True); sys.stdin.read()")
        proc = start(str(os.getpid()), sys.executable, "python3", "-c", script,
                     stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            self.assertEqual(read_line(proc.stdout), b"[0, 1, 2]\n")
            self.assertEqual(sorted(os.listdir(f"/proc/{proc.pid}/fd")), ["0", "1", "2"])
            proc.communicate(timeout=5)
            self.assertEqual(proc.returncode, 0)
        finally:
            stop(proc)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--pdeath", default=PDEATH)
    options, rest = parser.parse_known_args()
    if not options.pdeath:
        sys.exit("test_pdeath.py: give the watcher with --pdeath PATH or PDEATH=PATH")
    PDEATH = os.path.abspath(options.pdeath)
    # Orphans from the parent-death test come to us rather than to init, so
    # that they can be reaped (PR_SET_CHILD_SUBREAPER).
    ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)
    ok = unittest.main(argv=[sys.argv[0]] + rest, exit=False).result.wasSuccessful()
    time.sleep(0.1)  # then reap whatever a failed test left behind
    with contextlib.suppress(ChildProcessError):
        while os.waitpid(-1, os.WNOHANG)[0] > 0:
            pass
    sys.exit(0 if ok else 1)
