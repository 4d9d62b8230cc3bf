#!/usr/bin/python3
"""The tool under valgrind's memcheck: a whole scripted login (the signed
challenge, one worker connection, then the relay closes and the tool exits 1)
and the self-check. No memory error and no definitely lost block."""
import os, shlex, shutil, signal, socket, subprocess, sys, unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tool"))
from harness import CONNECTED, IDLE, RELAYTOOL, Tool, executable  # noqa: E402

MEMCHECK = "valgrind -q --error-exitcode=99 --leak-check=full --errors-for-leak-kinds=definite --track-fds=no"


@unittest.skipUnless(shutil.which("valgrind"), "valgrind is not installed (Debian package valgrind)")
@unittest.skipIf(os.environ.get("RELAYTOOL_SANITIZED"), "sanitizer build: valgrind does not run sanitized programs")
class Memcheck(unittest.TestCase):
    def test_self_check(self):
        run = subprocess.run([*MEMCHECK.split(), RELAYTOOL], env=dict(os.environ, HVN_RELAYTOOL_TEST="1"),
                             stdin=subprocess.DEVNULL, capture_output=True, timeout=120)
        self.assertEqual((run.returncode, run.stderr.count(b"==")), (0, 0), run.stderr.decode(errors="replace"))

    def test_login_worker_and_end_of_tunnel(self):
        t = Tool(self, debug=True)  # the debug lines' code runs too
        t.binary = executable(os.path.join(t.dir, "memcheck"),  # exec: the tool keeps the pid the harness knows
                              "#!/bin/sh\nexec %s %s\n" % (MEMCHECK, shlex.quote(RELAYTOOL)))
        with socket.create_connection(("127.0.0.1", t.login(timeout=120)), timeout=60) as conn:
            conn.sendall(b"hello\n")
            self.assertEqual(conn.makefile("rb").readline(), b"echo hello\n")
        t.out.wait_for(IDLE, count=2, timeout=60)
        os.kill(t.record()["pid"], signal.SIGTERM)  # the tunnel ends
        self.assertEqual((t.wait(timeout=120), t.out.lines()[0]), (1, CONNECTED))
        self.assertNotRegex(t.err.data, rb"==\d+==", "memcheck findings")


if __name__ == "__main__":
    unittest.main()
