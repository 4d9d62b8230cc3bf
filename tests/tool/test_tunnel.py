#!/usr/bin/python3
"""The SSH child behind the watcher: its exact command line, the descriptors
it gets, its error output in the tool's log, and what its end means."""
import os
import re
import unittest

from harness import DEBUG, Tool


def ssh_args(t):
    return ["-F", "/dev/null", "-o", "CheckHostIP no", "-o", "ServerAliveInterval 15",
            "-o", "ServerAliveCountMax 8", "-o", "StrictHostKeyChecking yes",
            "-o", 'UserKnownHostsFile "%s"' % t.path("relay-known-hosts.txt"),
            "-o", "IdentitiesOnly yes", "-o", "IdentityAgent none", "-o", "IPQoS lowdelay",
            "-T", "-l", "x_relay2", "-i", t.path("relay-anonymous-key.pem")]


class CommandLine(unittest.TestCase):
    def test_argument_vectors(self):
        # mode, HVN_FTP_PORT, HVN_SSH_DEBUG, arguments between identity and "-p"
        cases = [("setup", None, False, []),
                 ("login", "-1", False, []),
                 ("login", "2121", True, ["-v", "-R", "0:127.0.0.1:2121"]),
                 ("login", "0", False, ["-R", "0:127.0.0.1:%d"])]
        for mode, port, ssh_debug, extra in cases:
            with self.subTest(mode=mode, port=port):
                t = Tool(self, mode=mode)
                t.env["HVN_DEBUG"] = ""
                if port is not None:
                    t.env["HVN_FTP_PORT"] = port
                    t.credentials()
                if ssh_debug:
                    t.env["HVN_SSH_DEBUG"] = ""
                first = "msg=SETUP_C .*" if mode == "setup" else "msg=LOGIN_C .*"
                self.assertEqual(t.run([["expect", first], ["exit", 0]]), 1)
                if port == "0":
                    listener = int(t.err.wait_for(DEBUG + rb"using inetd port (\d+)").group(1))
                    self.assertGreater(listener, 0)
                    extra = ["-R", extra[1] % listener]
                else:
                    self.assertNotIn(b"startInetd", t.err.data)
                full = [t.relay, "pdeath", str(t.proc.pid), "/usr/bin/ssh", "ssh"] + ssh_args(t) \
                    + extra + ["-p", "2223", "relay.example"]
                logged = [m.group(1).decode() for m in re.finditer(DEBUG + rb"ssh arg: (.*)\n", t.err.data)]
                self.assertEqual(logged, full)
                self.assertEqual(t.record()["argv"], full[2:])

    def test_only_three_descriptors_reach_the_child(self):
        r, w = os.pipe()
        self.addCleanup(lambda: (os.close(r), os.close(w)))
        t = Tool(self)
        t.env["HVN_FTP_PORT"] = "0"  # with a listener open in the tool
        t.env["HVN_DEBUG"] = ""
        t.credentials()
        self.assertEqual(t.run([["expect", "msg=LOGIN_C .*"], ["exit", 0]], pass_fds=(r,)), 1)
        self.assertIn(b"ERROR: fd %d was active\n" % r, t.err.data)
        self.assertEqual(t.record()["fds"], [0, 1, 2])
        # The child's debug line written after its stderr became the pipe
        # comes back through the pipe.
        child = re.findall(rb"\[ssh stderr\] \[relaytool debug\] pid=(\d+) closing fd \d+\n", t.err.data)
        self.assertEqual(len(child), 1)
        self.assertNotEqual(int(child[0]), t.proc.pid)


class ErrorOutput(unittest.TestCase):
    def test_lines_are_logged_when_a_chunk_ends_a_line(self):
        t = Tool(self, mode="setup")
        script = [["expect", "msg=SETUP_C .*"],
                  ["stderr", "first\nsec"], ["sleep", 0.4], ["mark", "rest"],
                  ["stderr", "ond\n  third\t\n"], ["sleep", 0.2],
                  ["stderr", "   \n"], ["sleep", 0.2],
                  ["stderr", "\x01bell \\ \xff\n"], ["sleep", 0.2],
                  ["stderr", "no newline at the end"], ["exit", 0]]
        self.assertEqual(t.run(script), 1)
        self.assertEqual(t.err.data, b"[ssh stderr] first\n[ssh stderr] second\n[ssh stderr] third\n"
                         b"[ssh stderr] \n[ssh stderr] \\x01bell \\\\ \\xff\n")
        first = next(at for at, line in t.err.times if line == b"[ssh stderr] first")
        self.assertGreaterEqual(first, t.record()["marks"]["rest"])  # held back until then


class End(unittest.TestCase):
    def test_end_before_setup_is_an_error_whatever_the_status(self):
        for step, code in ((["exit", 0], b"0"), (["exit", 255], b"255"), (["kill", 9], b"-9")):
            with self.subTest(code=code):
                t = Tool(self, mode="setup")
                t.env["HVN_DEBUG"] = ""
                self.assertEqual(t.run([["expect", "msg=SETUP_C .*"], step]), 1)
                t.err.wait_for(DEBUG + b"SSH Exited: " + code)
                t.err.wait_for(DEBUG + rb"exiting \(error\)")
                self.assertFalse(os.path.exists(t.path("v2done.txt")))


if __name__ == "__main__":
    unittest.main()
