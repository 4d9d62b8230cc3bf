#!/usr/bin/python3
"""The listener on 127.0.0.1 and the GridFTP workers it starts: arguments,
descriptors (read from /proc), error output, the worker count in the status
lines, and workers outliving the tool; and every descriptor the tool holds,
an inherited one too, is close-on-exec."""
import os, re, socket, time, unittest

from harness import IDLE, Tool, links, standin_running as alive, until

ACTIVE = b"RELAYTOOL=1 status=ACTIVE nr_workers=%d"
HALF_LINE = rb"\[ftp stderr\] half line"


class Workers(unittest.TestCase):
    def connect(self, port, hello=None):
        s = socket.create_connection(("127.0.0.1", port), timeout=30)
        self.addCleanup(s.close)
        if hello:
            s.sendall(hello + b"\n")
            self.assertEqual(s.makefile("rb").readline(), b"echo " + hello + b"\n")
        return s

    def test_workers_counted_given_three_descriptors_and_left_running(self):
        inherited = os.pipe()  # a descriptor the tool's parent leaves open to it
        self.addCleanup(lambda: [os.close(fd) for fd in inherited])
        t = Tool(self)
        port = t.login(pass_fds=inherited[:1])
        a = self.connect(port, b"hello a")
        t.out.wait_for(ACTIVE % 1)
        t.err.wait_for(HALF_LINE)  # before the next worker can interleave
        b = self.connect(port, b"hello b")
        t.out.wait_for(ACTIVE % 2)
        t.err.wait_for(HALF_LINE, count=2)

        tool, workers = links(t.proc.pid), t.worker_records()
        listening = [row.split() for row in open("/proc/net/tcp").read().splitlines()[1:]]
        self.assertEqual([r[1] for r in listening if r[3] == "0A" and "socket:[%s]" % r[9] in tool.values()],
                         ["0100007F:%04X" % port])  # on 127.0.0.1 only
        error_pipe = [v for v in tool.values() if v.startswith("pipe:") and list(tool.values()).count(v) == 2]
        self.assertEqual(len(workers), 2)
        for w in workers:  # the connection it answered on, and the error pipe whose both ends the tool holds
            self.assertEqual((w["argv"], w["nonblocking"]), (["-i", "-c", t.path("gridftp.conf")], False))
            self.assertIn(b"[ftp stderr] worker %d ready" % w["pid"], t.err.lines())
            fds = links(w["pid"])
            self.assertEqual(fds, {0: fds[0], 1: fds[0], 2: error_pipe[0]})
            self.assertTrue(fds[0].startswith("socket:") and fds[0] not in tool.values(), fds)
        for n in tool:  # the listener, the ssh pipes, both ends of the error pipe, 0 to 2 and the inherited one
            with open("/proc/%d/fdinfo/%d" % (t.proc.pid, n)) as f:
                flags = int(re.search(r"flags:\s*(\d+)", f.read()).group(1), 8)
            self.assertTrue(flags & 0o2000000, "descriptor %d (%s) is not close-on-exec" % (n, tool[n]))
        self.assertIn(inherited[0], tool)
        self.assertEqual(t.err.lines()[0], b"ERROR: fd %d was active" % inherited[0])

        time.sleep(1.2)  # a tick without a change writes nothing
        b.close()
        t.out.wait_for(ACTIVE % 1, count=2)
        a.close()
        t.out.wait_for(IDLE, count=2)
        self.assertEqual(t.out.lines()[1:], [IDLE, ACTIVE % 1, ACTIVE % 2, ACTIVE % 1, IDLE])

        # The tool never kills a worker: one still serving outlives it.
        c = self.connect(port, b"hello c")
        t.out.wait_for(ACTIVE % 1, count=3)
        t.err.wait_for(HALF_LINE, count=3)
        last = [w["pid"] for w in t.worker_records() if w not in workers]
        self.assertEqual(len(last), 1)
        t.proc.stdin.close()  # the parent dies
        self.assertEqual(t.wait(), 1)
        time.sleep(0.2)
        self.assertTrue(alive(last[0]))
        c.close()
        self.assertTrue(until(lambda: not alive(last[0])))

    def test_worker_that_cannot_be_started(self):
        t = Tool(self)
        t.env["HVN_GRIDFTP_PATH"] = os.path.join(t.dir, "no-such-server")
        s = self.connect(t.login())
        self.assertEqual(s.recv(100), b"")  # the connection ends with the failed worker
        t.err.wait_for(rb"\[ftp stderr\] Fatal Posix Error: execve: No such file or directory")
        t.out.wait_for(IDLE, count=2)
        self.assertEqual(t.out.lines()[1:], [IDLE, ACTIVE % 1, IDLE])


if __name__ == "__main__":
    unittest.main()
