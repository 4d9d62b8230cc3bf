#!/usr/bin/python3
"""Tests for the pdeath watcher: test_pdeath.py --pdeath PATH (or PDEATH=PATH)."""
import argparse, contextlib, ctypes, os, re, select, signal, subprocess, sys, time, unittest

PDEATH = os.environ.get("PDEATH", "")
WAIT = 60  # seconds for anything that must happen; generous, the machine is shared


def ends(pid, timeout=WAIT):
    """Whether the process ends within timeout seconds (a zombie has ended)."""
    for _ in range(int(timeout / 0.02)):
        try:
            with open(f"/proc/{pid}/stat") as f:
                if f.read().rpartition(")")[2].split()[0] == "Z":
                    return True
        except OSError:
            return True
        time.sleep(0.02)
    return False


def read_line(stream, timeout=WAIT):
    """The next line of an unbuffered pipe (bufsize=0), b"" at its end, or
    None when nothing more comes for timeout seconds. Reads byte by byte, so
    no line is ever left in a buffer that select() cannot see."""
    line = b""
    while not line.endswith(b"\n"):
        if not select.select([stream], [], [], timeout)[0]:
            return None
        byte = stream.read(1)
        if not byte:
            return line
        line += byte
    return line


@contextlib.contextmanager
def started(*args, **kwargs):
    """pdeath in its own process group, which is killed at the end."""
    proc = subprocess.Popen([PDEATH, *args], start_new_session=True, **kwargs)
    try:
        yield proc
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(proc.pid, signal.SIGKILL)
        proc.communicate()


def run(*args, input=None):
    """Runs pdeath as our child; returns (status, stdout, stderr)."""
    with started(*args, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE) as proc:
        out, err = proc.communicate(input, timeout=WAIT)
        return proc.returncode, out, err


class PdeathTest(unittest.TestCase):
    def test_program_dies_with_parent(self):
        # The shell starts pdeath with its own pid and waits; pdeath and the
        # program share the shell's stdout pipe to us and report their pids.
        # A watcher that stays between (the portable one) asks the program
        # to end with SIGTERM before it kills it; the other lets the kernel
        # kill it at once.
        for trap in ('trap "echo term; exit 0" TERM; ', 'trap "" TERM; '):
            with self.subTest(trap), subprocess.Popen(
                    ["/bin/sh", "-c", '"$0" $$ /bin/sh sh -c "$1" & echo watcher $!; wait', PDEATH,
                     trap + "echo program $$; while :; do sleep 0.1; done"], stdout=subprocess.PIPE,
                    bufsize=0) as parent:  # unbuffered: select() sees every line
                pids = {}
                try:
                    pids = {name.decode(): int(pid) for name, pid in
                            (read_line(parent.stdout).split() for _ in range(2))}
                    parent.kill()
                    self.assertTrue(ends(pids["program"]), "program outlived parent")
                    self.assertTrue(ends(pids["watcher"]))
                    rest = []
                    while line := read_line(parent.stdout):  # None (nothing more) ends it too
                        rest.append(line)
                    portable = pids["watcher"] != pids["program"]
                    self.assertEqual(rest, [b"term\n"] if portable and "exit" in trap else [])
                finally:
                    parent.kill()
                    for pid in pids.values():  # orphans handed to us as subreaper
                        with contextlib.suppress(ProcessLookupError, ChildProcessError):
                            os.kill(pid, signal.SIGKILL)
                            os.waitpid(pid, 0)

    def test_calls(self):
        # argv, stdin, stdout, stderr and the exit status or signal pass through
        # (both pipes reach end of file); bad calls are refused with their words.
        # (--version: the version test.)
        me, program = str(os.getpid()), ["/bin/sh", "sh", "-c", "echo ran"]
        usage = re.escape("usage: pdeath <pid> <program> <argv0> [args...]\n")
        script = 'cat /proc/$$/cmdline; read line; echo "in:$line"; echo err >&2; sleep 0.2; exit 3'
        for args, status, out, err in [
                ([me, "/bin/sh", "my-sh", "-c", script, "x", "y"], 3,
                 b"my-sh\0-c\0" + script.encode() + b"\0x\0y\0in:hi\n", "err\n"),
                *[([me, "/bin/sh", "sh", "-c", f"kill -{int(sig)} $$"], -sig, b"", "")
                  for sig in (signal.SIGUSR1, signal.SIGTERM, signal.SIGKILL)],
                ([me, "/bin/sh"], 2, b"", usage), (["--version", "x"], 2, b"", usage), ([me + "x", *program], 2, b"", usage),
                ([str(2**32 + os.getpid()), *program], 2, b"", usage),  # not cut to 32 bits
                ([str(os.getppid()), *program], 1, b"", r"pdeath: [^\n]+\n"),
                ([me, "/nonexistent/prog", "prog"], 127, b"",
                 r"pdeath: cannot execute '/nonexistent/prog': No such file or directory\n")]:
            with self.subTest(args):
                result = run(*args, input=b"hi\n")
                self.assertEqual(result[:2], (status, out))
                self.assertRegex(result[2].decode(), f"^{err}$")

    def test_only_standard_descriptors_and_signals_forwarded(self):
        # The program lists its descriptors and pid, acknowledges each signal
        # it gets and ends at end of input. A Python handler runs only between
        # bytecodes, so one that lands just before a blocking read would wait
        # for the next event: the signals instead wake a select() through the
        # wakeup pipe, into which each is written the moment it arrives. Each
        # signal is sent only once the previous one is acknowledged.
        script = """import os, select, signal
fds = [fd for fd in range(1024) if os.path.lexists(f'/proc/self/fd/{fd}')]
os.write(1, b'%r %d\\n' % (fds, os.getpid()))
r, w = os.pipe()
os.set_blocking(w, False)
signal.set_wakeup_fd(w)
for s in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
    signal.signal(s, lambda *_: None)
os.write(1, b'ready\\n')
while True:
    ready = select.select([0, r], [], [])[0]
    if r in ready:
        os.write(1, b''.join(b'%d\\n' % n for n in os.read(r, 64)))
    if 0 in ready and not os.read(0, 4096):
        break
"""
        with started(str(os.getpid()), sys.executable, "python3", "-c", script,
                     stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0) as proc:
            fds, pid = read_line(proc.stdout).rsplit(b" ", 1)
            self.assertEqual(fds, b"[0, 1, 2]")
            if int(pid) != proc.pid:  # a watcher that stays in between holds no more either
                self.assertEqual(sorted(os.listdir(f"/proc/{proc.pid}/fd")), ["0", "1", "2"])
            self.assertEqual(read_line(proc.stdout), b"ready\n")
            for sig in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
                proc.send_signal(sig)
                self.assertEqual(read_line(proc.stdout), b"%d\n" % sig, sig.name)
            proc.communicate(timeout=WAIT)  # end of input
            self.assertEqual(proc.returncode, 0)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--pdeath", default=PDEATH, required=not PDEATH)
    options, rest = parser.parse_known_args()
    PDEATH = os.path.abspath(options.pdeath)
    # PR_SET_CHILD_SUBREAPER: orphans of the parent-death test come to us, to be reaped.
    ctypes.CDLL(None).prctl(36, 1, 0, 0, 0)
    unittest.main(argv=[sys.argv[0]] + rest)
