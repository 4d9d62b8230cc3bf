#!/usr/bin/python3
"""Start-up: self-check mode, the environment, the two SSH files installed at
every start, and the parent-death rule for stdin."""
import os
import signal
import subprocess
import unittest

from harness import DEBUG, KEYS, RELAYTOOL_TESTRELAY, Tool

GROUPS = [b"sprintf", b"startswith", b"endswith", b"strip", b"split", b"urlencode", b"urldecode",
          b"hexencode", b"backslash_escape"]
REQUIRED = ["HVN_OS", "HVN_OS_VERSION", "HVN_APP_VERSION", "HVN_SSH_PATH", "HVN_GRIDFTP_PATH",
            "HVN_PDEATH_PATH", "HVN_RELAY_SERVER", "HVN_USER", "HVN_CONFIG_DIR", "HVN_GLOBAL_ETC_DIR"]


class Startup(unittest.TestCase):
    def test_self_check_output_and_nothing_else(self):
        for debug in (False, True):
            with self.subTest(debug=debug):
                t = Tool(self)  # every other variable set too: none is looked at
                t.env["HVN_RELAYTOOL_TEST"] = ""
                if debug:
                    t.env["HVN_DEBUG"] = ""
                self.assertEqual(t.run(), 0)
                self.assertEqual(t.out.data, b"running hvlib unit tests\n616263017ffff0\n"
                                 + rb"abc\r\n\t\\ \x01\x7f\xff\xf0" + b"\n")
                expected = b"".join(b"[test_string_%s] %s\n" % (g, w) for g in GROUPS for w in (b"Start...", b"OK"))
                if debug:
                    expected = b"[relaytool debug] pid=%d activated debug logging\n" % t.proc.pid + expected
                self.assertEqual(t.err.data, expected)
                self.assertEqual(t.files(), [])
                self.assertFalse(os.path.exists(t.env["STANDIN_RECORD"]))

    def test_first_missing_variable_is_reported(self):
        for i, name in enumerate(REQUIRED):
            with self.subTest(name=name):
                t = Tool(self)
                for later in REQUIRED[i:]:
                    del t.env[later]
                if i % 2:
                    t.env[name] = ""  # empty counts as missing
                self.assertEqual(t.run(), 2)
                self.assertEqual(t.err.data, b"Env var '%s' must be set\n" % name.encode())
                self.assertEqual(t.out.data + "".join(t.files()).encode(), b"")

    def test_login_without_port_installs_ssh_files_first(self):
        with open(os.path.join(KEYS, "anonymous.key"), "rb") as f:
            anonymous = f.read()
        with open(os.path.join(KEYS, "test_relay_keys.txt"), "rb") as f:
            test_keys = [b" ".join(line.split()[:2]) for line in f.read().splitlines()[:2]]
        t = Tool(self, binary=RELAYTOOL_TESTRELAY)
        del t.env["HVN_FTP_PORT"]
        t.env["HVN_RELAY_SERVER"] = " relay2.example:2299\t"  # the host is written bare
        t.write("relay-anonymous-key.pem", b"x" * 5000)  # stale, longer files are truncated
        t.write("relay-known-hosts.txt", b"old.example ssh-rsa AAAA\n" * 200)
        self.assertEqual(t.run(), 2)
        self.assertEqual(t.err.data, b"Env var 'HVN_FTP_PORT' must be set\n")
        self.assertEqual(t.files(), ["relay-anonymous-key.pem", "relay-known-hosts.txt"])
        self.assertEqual(t.read("relay-anonymous-key.pem"), anonymous)
        self.assertEqual(t.read("relay-known-hosts.txt"), b"".join(b"relay2.example %s\n" % k for k in test_keys))
        t = Tool(self)
        del t.env["HVN_FTP_PORT"]
        self.assertEqual(t.run(), 2)
        self.assertEqual([t.mode(n) for n in t.files()], [0o600, 0o600])
        lines = t.read("relay-known-hosts.txt").split(b"\n")  # two built-in key lines
        self.assertEqual([len(line) for line in lines], [len(b"relay.example ") + 380] * 2 + [0])
        for line in lines[:2]:
            self.assertRegex(line, rb"^relay\.example ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQ[A-Za-z0-9+/]+=*$")

    def test_relay_server_host_and_port(self):
        for value, host, port in [(" \trelay.example \n", "relay.example", "2223"),
                                  ("relay.example:2224", "relay.example", "2224"),
                                  ("relay.example:", "relay.example", "0"),
                                  ("relay.example:22", "relay.example", "22")]:
            with self.subTest(value=value):
                t = Tool(self, mode="setup")
                t.env["HVN_RELAY_SERVER"] = value
                self.assertEqual(t.run([["expect", "msg=SETUP_C .*"], ["exit", 0]]), 1)
                self.assertEqual(t.record()["argv"][-3:], ["-p", port, host])
                self.assertTrue(t.read("relay-known-hosts.txt").startswith(host.encode() + b" ssh-rsa "))
        t = Tool(self, mode="setup")
        t.env["HVN_RELAY_SERVER"] = "fe80::1"
        self.assertEqual(t.run(), -signal.SIGABRT)
        self.assertEqual(t.err.data, b"src/main:71: failed precondition 'parts.size() == 2'\n")
        self.assertEqual(t.files(), [])
        self.assertFalse(os.path.exists(t.env["STANDIN_RECORD"]))


class ParentGone(unittest.TestCase):
    def check(self, stdin=subprocess.PIPE, action=None):
        t = Tool(self, mode="setup")
        t.env["HVN_DEBUG"] = ""
        t.start([["eof"]], stdin=stdin)
        if action:
            t.err.wait_for(DEBUG + rb"posix_write_pipe_nb: wrote \d+ bytes")  # the loop runs
            action(t.proc.stdin)
        self.assertEqual(t.wait(5), 1)
        t.err.wait_for(DEBUG + rb"stdin closed; parent died\?")
        self.assertEqual(t.out.data, b"")

    def test_any_readiness_of_stdin_ends_the_tool(self):
        self.check(stdin=subprocess.DEVNULL)
        self.check(action=lambda stdin: stdin.close())
        self.check(action=lambda stdin: (stdin.write(b"x"), stdin.flush()))

    def test_closed_stdout(self):
        t = Tool(self, mode="setup")
        self.assertEqual(t.run(preexec_fn=lambda: os.close(1)), 1)
        self.assertEqual(t.err.data, b"Fatal Posix Error: fcntl: Bad file descriptor\n")


if __name__ == "__main__":
    unittest.main()
