#!/usr/bin/python3
"""Start-up: self-check mode, the environment, the two SSH files installed at
every start, the ssh command line and its error output, and the parent-death
rule for stdin."""
import os, re, signal, unittest
from pathlib import Path

from harness import DEBUG, KEYS, RELAYTOOL_TESTRELAY, Tool

REQUIRED = ["HVN_OS", "HVN_OS_VERSION", "HVN_APP_VERSION", "HVN_SSH_PATH", "HVN_GRIDFTP_PATH",
            "HVN_PDEATH_PATH", "HVN_RELAY_SERVER", "HVN_USER", "HVN_CONFIG_DIR", "HVN_GLOBAL_ETC_DIR"]
SSH_FILES = ["relay-anonymous-key.pem", "relay-known-hosts.txt"]


class Startup(unittest.TestCase):
    def test_self_check_output_and_nothing_else(self):
        groups = "sprintf startswith endswith strip split urlencode urldecode hexencode backslash_escape"
        for debug in (False, True):
            with self.subTest(debug=debug):
                t = Tool(self, debug=debug, HVN_RELAYTOOL_TEST="")  # all the others set too, and ignored
                self.assertEqual(t.run(), 0)
                self.assertEqual(t.out.data, b"running hvlib unit tests\n616263017ffff0\n"
                                 + rb"abc\r\n\t\\ \x01\x7f\xff\xf0" + b"\n")
                expected = "".join("[test_string_%s] %s\n" % (g, w) for g in groups.split() for w in ("Start...", "OK"))
                if debug:
                    expected = "[relaytool debug] pid=%d activated debug logging\n" % t.proc.pid + expected
                self.assertEqual((t.err.data.decode(), t.files()), (expected, []))
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

    def test_ssh_files_with_the_built_in_keys_and_a_bad_relay_server(self):
        t = Tool(self, HVN_RELAY_SERVER="relay.example:22")  # installed before any later check
        del t.env["HVN_FTP_PORT"]
        self.assertEqual(t.run(), 2)
        self.assertEqual((t.err.data, t.files()), (b"Env var 'HVN_FTP_PORT' must be set\n", SSH_FILES))
        t.env["HVN_FTP_PORT"] = "-1"  # no credentials: said once the tunnel is up
        self.assertEqual((t.run(), t.err.data), (1, b"Connecting to server: relay.example:22\n"
                                                    b"Fatal Error: No HVN credentials found\n"))
        self.assertEqual(t.record()["argv"][-3:], ["-p", "22", "relay.example"])
        self.assertRegex(t.read(SSH_FILES[1]),  # two lines, with the bare host
                         rb"^(relay\.example ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQ[A-Za-z0-9+/=]{342}\n){2}$")
        t = Tool(self, mode="setup", HVN_RELAY_SERVER="fe80::1")
        del t.env["HVN_GLOBAL_ETC_DIR"]  # every variable is read before the server is split
        self.assertEqual((t.run(), t.err.data), (2, b"Env var 'HVN_GLOBAL_ETC_DIR' must be set\n"))
        t.env["HVN_GLOBAL_ETC_DIR"] = t.etc
        self.assertEqual(t.run(), -signal.SIGABRT)
        self.assertEqual((t.err.data, t.files()), (b"src/main:71: failed precondition 'parts.size() == 2'\n", []))
        self.assertFalse(os.path.exists(t.env["STANDIN_RECORD"]))

    def test_any_readiness_of_stdin_ends_the_tool(self):
        for how in ("closed", "written"):
            with self.subTest(how=how):
                t = Tool(self, mode="setup", debug=True)
                t.start([["eof"]])
                t.err.wait_for(DEBUG + rb"posix_write_pipe_nb: wrote \d+ bytes")  # the loop runs
                t.proc.stdin.close() if how == "closed" else (t.proc.stdin.write(b"x"), t.proc.stdin.flush())
                self.assertEqual(t.wait(), 1)
                t.err.wait_for(DEBUG + rb"stdin closed; parent died\?")
                self.assertEqual((t.out.data, t.record()["argv"][0]), (b"", str(t.proc.pid)))  # with the tunnel up
        t = Tool(self, mode="setup")
        self.assertEqual(t.run(preexec_fn=lambda: os.close(1)), 1)
        self.assertEqual(t.err.data, b"Fatal Posix Error: fcntl: Bad file descriptor\n")

    def test_relay_server_ssh_files_argument_vector_and_first_line(self):
        anonymous = Path(KEYS, "anonymous.key").read_bytes()
        test_keys = [b" ".join(k.split()[:2]) for k in Path(KEYS, "test_relay_keys.txt").read_bytes().splitlines()[:2]]
        # mode, environment, the first line, the arguments between identity and "-p", port, host
        for mode, env, first, extra, port, host in [
                ("setup", {"HVN_RELAY_SERVER": " \trelay.example \n"}, "SETUP_C .*", [], "2223", "relay.example"),
                ("setup", {"HVN_RELAY_SERVER": " relay2.example:2299\t"}, "SETUP_C .*", [], "2299", "relay2.example"),
                ("login", {"HVN_RELAY_SERVER": "relay.example:"},
                 "LOGIN_C id=ep-1234 operation=PAUSED protocol_version=2 .*", [], "0", "relay.example"),
                ("login", {"HVN_FTP_PORT": "2121", "HVN_SSH_DEBUG": "", "HVN_PROTOCOL_VERSION": ""},
                 "LOGIN_C id=ep-1234 operation=FORWARD protocol_version=0 .*", ["-v", "-R", "0:127.0.0.1:2121"],
                 "2223", "relay.example"),
                ("login", {"HVN_FTP_PORT": "0", "HVN_PROTOCOL_VERSION": "7", "HVN_APP_VERSION": "1.0 (b=5)~x"},
                 re.escape("LOGIN_C id=ep-1234 operation=FORWARD protocol_version=7 appver=1.0%20%28b%3D5%29~x ")
                 + ".*", ["-R", "0:127.0.0.1:%s"], "2223", "relay.example")]:
            with self.subTest(mode=mode, env=env):
                t = Tool(self, binary=RELAYTOOL_TESTRELAY, mode=mode, debug=True, **env)
                if mode == "login":
                    t.credentials()
                t.write(SSH_FILES[0], b"x" * 5000)  # stale, longer files are truncated
                t.write(SSH_FILES[1], b"old.example ssh-rsa AAAA\n" * 200)
                self.assertEqual(t.run([["expect", "msg=" + first], ["exit", 0]]), 1)
                if env.get("HVN_FTP_PORT") == "0":
                    extra = ["-R", extra[1] % t.err.wait_for(DEBUG + rb"using inetd port (\d+)").group(1).decode()]
                else:
                    self.assertNotIn(b"startInetd", t.err.data)
                full = [t.relay, "pdeath", str(t.proc.pid), "/usr/bin/ssh", "ssh", "-F", "/dev/null",
                        "-o", "CheckHostIP no", "-o", "ServerAliveInterval 15", "-o", "ServerAliveCountMax 8",
                        "-o", "StrictHostKeyChecking yes", "-o", 'UserKnownHostsFile "%s"' % t.path(SSH_FILES[1]),
                        "-o", "IdentitiesOnly yes", "-o", "IdentityAgent none", "-o", "IPQoS lowdelay",
                        "-T", "-l", "x_relay2", "-i", t.path(SSH_FILES[0])] + extra + ["-p", port, host]
                logged = [m.group(1).decode() for m in re.finditer(DEBUG + rb"ssh arg: (.*)\n", t.err.data)]
                self.assertEqual((logged, t.record()["argv"], t.record()["fds"]), (full, full[2:], [0, 1, 2]))
                self.assertEqual(t.modes(), {0o600})
                self.assertEqual(t.read(SSH_FILES[0]), anonymous)
                self.assertEqual(t.read(SSH_FILES[1]), b"".join(b"%s %s\n" % (host.encode(), k) for k in test_keys))

    def test_error_lines_are_logged_when_a_chunk_ends_a_line(self):
        t = Tool(self, mode="setup")
        script = [["expect", "msg=SETUP_C .*"], ["stderr", "first\nsec"], ["drain"], ["mark", "rest"],
                  ["stderr", "ond\n  third\t\n"], ["drain"], ["stderr", "   \n"], ["drain"],
                  ["stderr", "\x01bell \\ \xff\n"], ["drain"], ["stderr", "no newline at the end"], ["exit", 0]]
        self.assertEqual(t.run(script), 1)
        self.assertEqual(t.err.data, b"[ssh stderr] first\n[ssh stderr] second\n[ssh stderr] third\n"
                         b"[ssh stderr] \n[ssh stderr] \\x01bell \\\\ \\xff\n")
        first = next(at for at, line in t.err.times if line == b"[ssh stderr] first")
        self.assertGreaterEqual(first, t.record()["marks"]["rest"])  # held back until then


if __name__ == "__main__":
    unittest.main()
