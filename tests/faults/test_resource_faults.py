#!/usr/bin/python3
"""Descriptors running out and the ssh child killed: the tool serves on or
ends with its own words, never leaves a connection hanging, and leaves no
descriptor behind."""
import os, resource, signal, socket, sys, unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tool"))
from harness import IDLE, WAIT, Tool, until  # noqa: E402

OUT_OF_FDS = rb"(Connecting to server: relay\.example:2223\n)?" \
             rb"(Fatal Posix Error: \w+|Fatal Error: Couldn't open for \w+ '[^']*'): Too many open files\n\n?"
NO_LSAN = "detect_leaks=0"  # sanitizer builds: LeakSanitizer needs descriptors of its own at exit
HARD = resource.getrlimit(resource.RLIMIT_NOFILE)[1]


def fds(pid):
    return sorted(int(n) for n in os.listdir("/proc/%d/fd" % pid))


def limit_fds(pid, above_lowest_free):
    """Lets the process open `above_lowest_free` more descriptors."""
    lowest = min(set(range(len(fds(pid)) + 1)) - set(fds(pid)))
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (lowest + above_lowest_free, HARD))


class Faults(unittest.TestCase):
    def served(self, port, hello=b"hello"):
        """Whether a worker answers; False when the connection is closed
        unserved. One left hanging fails the test (the socket's timeout)."""
        conn = socket.create_connection(("127.0.0.1", port), timeout=WAIT)
        with conn:
            try:
                conn.sendall(hello + b"\n")
                return conn.makefile("rb").readline() == b"echo " + hello + b"\n"
            except ConnectionResetError:
                return False

    def test_descriptor_limit_at_start(self):
        outcomes = set()
        for soft in range(4, 14):
            with self.subTest(soft=soft):
                t = Tool(self, ASAN_OPTIONS=NO_LSAN)
                try:
                    port = t.login(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (soft, HARD)))
                except AssertionError:  # ended before the login
                    self.assertEqual(t.wait(), 1)
                    self.assertRegex(t.err.data, b"^%s$" % OUT_OF_FDS)
                    outcomes.add("ended")
                    continue
                self.assertTrue(all(self.served(port) for _ in range(3)))
                outcomes.add("served")
        self.assertEqual(outcomes, {"ended", "served"})

    def test_descriptor_limit_lowered_while_serving_then_ssh_killed(self):
        # Without debug lines: whether a connection is left hanging must not
        # depend on how fast anyone reads the log.
        t = Tool(self, ASAN_OPTIONS=NO_LSAN)
        port, pid = t.login(), t.proc.pid  # then the relay reads on, silent
        self.assertTrue(self.served(port))  # the workers' error pipe exists from here on
        t.out.wait_for(IDLE, count=2)
        before = fds(pid)
        limit_fds(pid, 0)  # accept() fails with EMFILE: closed unserved, again and again
        self.assertEqual([self.served(port) for _ in range(3)], [False] * 3)
        self.assertTrue(until(lambda: fds(pid) == before))  # the spare taken again after the last one
        limit_fds(pid, 1)  # room for one connection at a time
        self.assertEqual([self.served(port, b"hi %d" % i) for i in range(3)], [True] * 3)
        t.out.wait_for(IDLE, count=3)
        self.assertTrue(until(lambda: fds(pid) == before), (fds(pid), before))  # the last copy closed after its fork
        os.kill(t.record()["pid"], signal.SIGKILL)  # the ssh child: the tool ends, with no words of its own
        self.assertEqual(t.wait(), 1)
        self.assertNotIn(b"Fatal", t.err.data)

        t = Tool(self, ASAN_OPTIONS=NO_LSAN)  # before the first worker: no room for the error pipe
        port = t.login()
        limit_fds(t.proc.pid, 1)
        self.assertFalse(self.served(port))
        self.assertEqual(t.wait(), 1)
        self.assertTrue(t.err.data.endswith(b"Fatal Posix Error: pipe: Too many open files\n"), t.err.data[-300:])


if __name__ == "__main__":
    unittest.main()
