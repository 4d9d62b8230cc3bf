#!/usr/bin/python3
"""The tool under valgrind's memcheck: a whole scripted login (LOGIN_C, the
signed challenge, LOGIN_S, one worker connection, then the relay closes and the
tool exits 1) and the self-check (HVN_RELAYTOOL_TEST, exit 0). No memory error
and no definitely lost block."""
import os, shlex, shutil, signal, socket, subprocess, sys, unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tool"))
from harness import CONNECTED, IDLE, RELAYTOOL, Tool, executable  # noqa: E402

MEMCHECK = "valgrind -q --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite --track-fds=no " \
           "--trace-children=no"  # the report goes to the tool's stderr
SANITIZERS = (b"__asan_init", b"__tsan_init", b"__msan_init", b"__ubsan_handle")


class Memcheck(unittest.TestCase):
    def setUp(self):
        if not shutil.which("valgrind"):
            self.skipTest("valgrind is not installed (Debian package valgrind)")
        with open(RELAYTOOL, "rb") as f:
            sanitized = os.environ.get("RELAYTOOL_SANITIZED") or any(n in f.read() for n in SANITIZERS)
        if sanitized:
            self.skipTest("sanitizer build: valgrind does not run sanitized programs")

    def test_self_check(self):
        run = subprocess.run([*MEMCHECK.split(), RELAYTOOL], env=dict(os.environ, HVN_RELAYTOOL_TEST="1"),
                             stdin=subprocess.DEVNULL, capture_output=True, timeout=120)
        self.assertNotRegex(run.stderr, rb"==\d+==", "memcheck findings")
        self.assertEqual(run.returncode, 0, run.stderr.decode(errors="replace"))

    def test_login_worker_and_end_of_tunnel(self):
        t = Tool(self, debug=True)  # the debug lines' code runs too
        t.binary = executable(os.path.join(t.dir, "memcheck"),  # exec: the tool keeps the pid the harness knows
                              "#!/bin/sh\nexec %s %s\n" % (MEMCHECK, shlex.quote(RELAYTOOL)))
        with socket.create_connection(("127.0.0.1", t.login(timeout=120)), timeout=60) as conn:
            conn.sendall(b"hello\n")
            self.assertEqual(conn.makefile("rb").readline(), b"echo hello\n")
            t.out.wait_for(b"RELAYTOOL=1 status=ACTIVE nr_workers=1", timeout=60)
        t.out.wait_for(IDLE, count=2, timeout=60)
        os.kill(t.record()["pid"], signal.SIGTERM)  # the tunnel ends
        status = t.wait(timeout=120)
        self.assertEqual(t.record()["verified"], ["abc%20def"])
        self.assertEqual(t.out.lines()[0], CONNECTED)
        self.assertNotRegex(t.err.data, rb"==\d+==", "memcheck findings")
        self.assertEqual(status, 1)


if __name__ == "__main__":
    unittest.main()
