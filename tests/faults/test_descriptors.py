#!/usr/bin/python3
"""What the tool's children get, read from /proc of the real processes (ssh
behind the real pdeath; /bin/sh as the GridFTP worker): descriptors 0, 1 and
2 only, each the right pipe or connection; and every descriptor the tool
holds is close-on-exec."""
import os, re, signal, socket, sys, time, unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tool"))
from harness import Tool, login_steps  # noqa: E402

PDEATH = os.environ.get("PDEATH") or os.path.join(os.path.dirname(os.path.dirname(os.path.dirname(
    os.path.abspath(__file__)))), "build", "pdeath", "pdeath")


def links(pid):
    """Descriptor number to what it is: "pipe:[N]", "socket:[N]" or a path."""
    return {int(n): os.readlink("/proc/%d/fd/%s" % (pid, n)) for n in os.listdir("/proc/%d/fd" % pid)}


def descendants(pid):
    """(pid, command name) of every process below `pid`."""
    procs = {}
    for p in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/stat" % p) as f:
                head, _, rest = f.read().rpartition(")")
            procs[int(p)] = (int(rest.split()[1]), head.partition("(")[2])
        except OSError:
            pass
    kids = [(p, name) for p, (parent, name) in procs.items() if parent == pid]
    return kids + [d for p, _ in kids for d in descendants(p)] if kids else []


def accepted_socket(port, peer_port):
    """The accepted end of the connection from `peer_port`, as links() shows it."""
    with open("/proc/net/tcp") as f:
        for row in (line.split() for line in f.readlines()[1:]):
            if (int(row[1].split(":")[1], 16), int(row[2].split(":")[1], 16)) == (port, peer_port):
                return "socket:[%s]" % row[9]


class Children(unittest.TestCase):
    def check_three(self, pid, expected01, expected2):
        fds = links(pid)
        self.assertEqual(sorted(fds), [0, 1, 2])
        self.assertIn(fds[0], expected01)
        self.assertIn(fds[1], expected01)
        self.assertIn(fds[2], expected2)
        return fds

    def test_ssh_behind_the_real_watcher(self):
        t = Tool(self)
        ssh = os.path.join(t.dir, "ssh")
        with open(ssh, "w") as f:
            f.write("#!/bin/sh\nexec sleep 60\n")  # takes any arguments; sleep is what stays
        os.chmod(ssh, 0o755)
        t.env.update(HVN_PDEATH_PATH=PDEATH, HVN_SSH_PATH=ssh, HVN_FTP_PORT="0")
        t.credentials()
        t.start()
        deadline = time.monotonic() + 10
        while "sleep" not in dict(descendants(t.proc.pid)).values() and time.monotonic() < deadline:
            time.sleep(0.05)
        procs = descendants(t.proc.pid)  # the watcher, if it stays, and ssh
        sleeper = [p for p, name in procs if name == "sleep"][0]
        self.addCleanup(lambda: os.path.exists("/proc/%d" % sleeper) and os.kill(sleeper, signal.SIGKILL))
        pipes = [v for n, v in links(t.proc.pid).items() if n > 2 and v.startswith("pipe:")]
        for pid, name in procs:
            with self.subTest(process=name):
                self.assertEqual(len(set(self.check_three(pid, pipes, pipes).values())), 3)
        t.parent_dies()
        self.assertEqual(t.wait(), 1)
        deadline = time.monotonic() + 10  # the watcher ends ssh with the tool
        while os.path.exists("/proc/%d" % sleeper) and time.monotonic() < deadline:
            time.sleep(0.05)
        self.assertFalse(os.path.exists("/proc/%d" % sleeper))

    def test_workers_and_the_tools_own_descriptors(self):
        t = Tool(self)
        # The tool runs "/bin/sh -i -c <config dir>/gridftp.conf": the shell
        # runs that file (a path without blanks here) as a command; it becomes
        # cat, which echoes the connection back.
        t.config = os.path.join(t.dir, "config")
        os.mkdir(t.config)
        with open(t.path("gridftp.conf"), "w") as f:
            f.write("#!/bin/sh\nexec cat\n")
        os.chmod(t.path("gridftp.conf"), 0o755)
        t.env.update(HVN_CONFIG_DIR=t.config, HVN_GRIDFTP_PATH="/bin/sh", HVN_FTP_PORT="0")
        t.start(login_steps(t.credentials()) + [["eof"]])
        t.out.wait_for(b"RELAYTOOL=1 status=IDLE")
        argv = t.record()["argv"]
        port = int(re.fullmatch(r"0:127\.0\.0\.1:(\d+)", argv[argv.index("-R") + 1]).group(1))
        sockets = []
        for i in range(2):
            conn = socket.create_connection(("127.0.0.1", port), timeout=10)
            self.addCleanup(conn.close)
            conn.sendall(b"ping %d\n" % i)
            self.assertEqual(conn.recv(100), b"ping %d\n" % i)
            sockets.append(accepted_socket(port, conn.getsockname()[1]))
        tool = links(t.proc.pid)
        workers = [p for p, _ in descendants(t.proc.pid) if p != t.record()["pid"]]
        self.assertEqual(len(workers), 4)  # two shells, each with its cat
        error_pipe = [v for v in tool.values() if v.startswith("pipe:") and list(tool.values()).count(v) == 2]
        seen = set()
        for pid in workers:
            with self.subTest(worker=pid):  # its own connection, and the error pipe whose both ends the tool holds
                seen.add(self.check_three(pid, sockets, error_pipe[:1])[0])
        self.assertEqual(seen, set(sockets))
        self.assertFalse(set(sockets) & set(tool.values()))  # the tool has let go of them

        for n in tool:  # the listener, the ssh pipes, both ends of the error pipe, and 0 to 2
            with self.subTest(tool_fd=n), open("/proc/%d/fdinfo/%d" % (t.proc.pid, n)) as f:
                flags = int(re.search(r"flags:\s*(\d+)", f.read()).group(1), 8)
                self.assertTrue(flags & 0o2000000, "descriptor %d (%s) is not close-on-exec" % (n, tool[n]))


if __name__ == "__main__":
    unittest.main()
