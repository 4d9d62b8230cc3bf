#!/usr/bin/python3
"""The listener on 127.0.0.1 and the GridFTP workers it starts: arguments,
descriptors, error output, the worker count in the status lines, and workers
outliving the tool."""
import os
import re
import socket
import time
import unittest

from harness import DEBUG, Tool, login_steps, standin_running as alive

IDLE = b"RELAYTOOL=1 status=IDLE"
ACTIVE = b"RELAYTOOL=1 status=ACTIVE nr_workers=%d"


class Workers(unittest.TestCase):
    def log_in(self, t):
        t.env["HVN_FTP_PORT"] = "0"
        t.env["HVN_DEBUG"] = ""
        t.start(login_steps(t.credentials()) + [["eof"]])
        t.out.wait_for(rb"RELAYTOOL=1 status=CONNECTED .*")
        argv = t.record()["argv"]
        return int(re.fullmatch(r"0:127\.0\.0\.1:(\d+)", argv[argv.index("-R") + 1]).group(1))

    def connect(self, port, hello=None):
        s = socket.create_connection(("127.0.0.1", port), timeout=5)
        self.addCleanup(s.close)
        if hello:
            s.sendall(hello + b"\n")
            self.assertEqual(s.makefile("rb").readline(), b"echo " + hello + b"\n")
        return s

    def test_workers_counted_logged_and_left_running(self):
        t = Tool(self)
        port = self.log_in(t)
        t.out.wait_for(IDLE)
        self.assertEqual(int(t.err.wait_for(DEBUG + rb"using inetd port (\d+)").group(1)), port)
        a = self.connect(port, b"hello a")
        t.out.wait_for(ACTIVE % 1)
        t.err.wait_for(rb"\[ftp stderr\] half line")  # before the next worker can interleave
        b = self.connect(port, b"hello b")
        t.out.wait_for(ACTIVE % 2)
        t.err.wait_for(rb"\[ftp stderr\] half line", count=2)
        time.sleep(1.2)  # a tick without a change writes nothing
        b.close()
        t.out.wait_for(ACTIVE % 1, count=2)
        a.close()
        t.out.wait_for(IDLE, count=2)
        self.assertEqual(t.out.lines()[1:], [IDLE, ACTIVE % 1, ACTIVE % 2, ACTIVE % 1, IDLE])

        workers = t.worker_records()
        self.assertEqual(len(workers), 2)
        spawned = [int(p) for p in re.findall(DEBUG + rb"spawed gridftp pid (\d+)", t.err.data)]
        self.assertEqual(sorted(spawned), sorted(w["pid"] for w in workers))
        conf = t.path("gridftp.conf")
        logged = [m.decode() for m in re.findall(DEBUG + rb"ftp arg: (.*)\n", t.err.data)]
        self.assertEqual(logged, [t.worker, "varnel-gridftp-server", "-i", "-c", conf] * 2)
        for w in workers:
            self.assertEqual(w["argv"], ["-i", "-c", conf])
            self.assertEqual(w["fds"], [0, 1, 2])
            self.assertIn(b"[ftp stderr] worker %d ready" % w["pid"], t.err.lines())

        # The tool never kills a worker: one still serving outlives it.
        c = self.connect(port, b"hello c")
        t.out.wait_for(ACTIVE % 1, count=3)
        t.err.wait_for(rb"\[ftp stderr\] half line", count=3)
        last = [w["pid"] for w in t.worker_records() if w["pid"] not in spawned]
        self.assertEqual(len(last), 1)
        t.parent_dies()
        self.assertEqual(t.wait(), 1)
        time.sleep(0.2)
        self.assertTrue(alive(last[0]))
        c.close()
        deadline = time.monotonic() + 5
        while alive(last[0]) and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertFalse(alive(last[0]))

    def test_worker_that_cannot_be_started(self):
        t = Tool(self)
        t.env["HVN_GRIDFTP_PATH"] = os.path.join(t.dir, "no-such-server")
        port = self.log_in(t)
        t.out.wait_for(IDLE)
        s = self.connect(port)
        self.assertEqual(s.recv(100), b"")  # the connection ends with the failed worker
        t.err.wait_for(rb"\[ftp stderr\] Fatal Posix Error: execve: No such file or directory")
        t.out.wait_for(IDLE, count=2)
        self.assertEqual(t.out.lines()[1:], [IDLE, ACTIVE % 1, IDLE])


if __name__ == "__main__":
    unittest.main()
