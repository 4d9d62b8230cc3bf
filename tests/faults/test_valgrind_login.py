#!/usr/bin/python3
"""A whole scripted login under valgrind's memcheck: LOGIN_C, the signed
challenge, LOGIN_S, one worker connection, then the relay closes and the tool
exits 1. No memory error and no definitely lost block."""
import os, re, shlex, shutil, signal, socket, sys, unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tool"))
from harness import CONNECTED, RELAYTOOL, Tool, login_steps  # noqa: E402

MEMCHECK = ["valgrind", "-q", "--error-exitcode=99", "--leak-check=full", "--errors-for-leak-kinds=definite",
            "--track-fds=no", "--trace-children=no"]  # the report goes to the tool's stderr


def sanitized(binary):
    with open(binary, "rb") as f:
        data = f.read()
    return any(name in data for name in (b"__asan_init", b"__tsan_init", b"__msan_init", b"__ubsan_handle"))


class Memcheck(unittest.TestCase):
    def test_login_worker_and_end_of_tunnel(self):
        if not shutil.which("valgrind"):
            self.skipTest("valgrind is not installed (Debian package valgrind)")
        if os.environ.get("RELAYTOOL_SANITIZED") or sanitized(RELAYTOOL):
            self.skipTest("sanitizer build: valgrind does not run sanitized programs")
        t = Tool(self)
        t.binary = os.path.join(t.dir, "memcheck-relaytool")
        with open(t.binary, "w") as f:  # exec: the tool keeps the pid the harness knows
            f.write("#!/bin/sh\nexec %s %s\n" % (" ".join(MEMCHECK), shlex.quote(RELAYTOOL)))
        os.chmod(t.binary, 0o755)
        t.env.update(HVN_FTP_PORT="0", HVN_DEBUG="")  # the debug lines' code runs too
        t.start(login_steps(t.credentials()) + [["eof"]])
        t.out.wait_for(b"RELAYTOOL=1 status=IDLE", timeout=120)
        argv = t.record()["argv"]
        port = int(re.fullmatch(r"0:127\.0\.0\.1:(\d+)", argv[argv.index("-R") + 1]).group(1))
        with socket.create_connection(("127.0.0.1", port), timeout=60) as conn:
            conn.sendall(b"hello\n")
            self.assertEqual(conn.makefile("rb").readline(), b"echo hello\n")
            t.out.wait_for(b"RELAYTOOL=1 status=ACTIVE nr_workers=1", timeout=60)
        t.out.wait_for(b"RELAYTOOL=1 status=IDLE", count=2, timeout=60)
        os.kill(t.record()["pid"], signal.SIGTERM)  # the tunnel ends
        status = t.wait(timeout=120)
        self.assertEqual(t.record()["verified"], ["abc%20def"])
        self.assertEqual(t.out.lines()[0], CONNECTED)
        self.assertNotRegex(t.err.data, rb"==\d+==", "memcheck findings")
        self.assertEqual(status, 1)


if __name__ == "__main__":
    unittest.main()
