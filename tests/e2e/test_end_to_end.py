#!/usr/bin/python3
"""End-to-end runs of the relay tool: the tool, pdeath, Debian's ssh and sshd
(relay/sshd_fixture.py), the relay behind it and the GridFTP server the tool
starts for a forwarded connection are real (test_gridftp.py moves files
through them).  Needs root; without it every test is skipped.
"""

import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(REPO, "relay"))

import sshd_fixture  # noqa: E402

# the tool built to trust the test relay's host key and the watcher: as
# CTest sets them, or from build/
TOOL, PDEATH = (
    os.environ.get(var, os.path.join(REPO, "build", path)) for var, path in (
        ("RELAYTOOL_TESTRELAY_BIN", "tests/relaytool-testrelay"),
        ("PDEATH_BIN", "pdeath/pdeath")))
# an installation directory with relay-anonymous.key (an unpacked package's
# /etc/relaytool); by default each endpoint gets the test key in one of its own
INSTALLED_ETC = os.environ.get("RELAYTOOL_ETC_DIR")
SSH = "/usr/bin/ssh"
GRIDFTP_SERVER = "/usr/sbin/globus-gridftp-server"
WAIT = 30          # seconds; generous, the machine is shared and noisy
APP_VERSION = "4.1 beta"
CREDENTIAL_FILES = ("client-id.txt", "client-key.pem", "ftp-cert2.pem",
                    "ftp-key2.pem", "gridmap", "config", "v2done.txt")
STATUS = "RELAYTOOL=1 status="

SKIP = sshd_fixture.skip_reason()  # openssh-server brings the ssh client
if not SKIP and not os.access(GRIDFTP_SERVER, os.X_OK):
    SKIP = ("real end-to-end tests skipped because they need %s from Debian's "
            "globus-gridftp-server-progs" % GRIDFTP_SERVER)

# A parent that starts the tool with a stdin pipe of its own, then sits.
MIDDLE = """import subprocess, sys, time
tool = subprocess.Popen(sys.argv[1:], stdin=subprocess.PIPE)
print("middle: tool pid=%d" % tool.pid, flush=True)
time.sleep(3600)"""


def processes(text):
    """{pid: name} of the live processes whose command line or environment
    contains text (a zombie's are empty)."""
    found = {}
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            for part in ("cmdline", "environ"):
                with open("/proc/%s/%s" % (pid, part), "rb") as f:
                    if text.encode() in f.read():
                        with open("/proc/%s/comm" % pid) as c:
                            found[int(pid)] = c.read().strip()
        except OSError:
            pass
    return found


def wait_until(predicate, timeout=WAIT):
    """The predicate's first true value, or its last false one."""
    deadline = time.monotonic() + timeout
    while not (value := predicate()) and time.monotonic() < deadline:
        time.sleep(0.05)
    return value


def hold_connection(test, port):
    """A connection through the relay-side port, open until the test ends:
    the GridFTP server that the tool starts for it greets and then waits
    for a login, which keeps it running."""
    sock = socket.create_connection(("127.0.0.1", port), WAIT * 2)
    test.addCleanup(sock.close)
    greeting = sock.makefile("rb").readline()
    test.assertRegex(greeting, rb"^220 .*GridFTP Server")
    return sock


class ToolRun(subprocess.Popen):
    """The tool (or a middle process that started it), its output going to
    files.  stdin stays an open, silent pipe until closed: the tool takes
    any activity on it as its parent gone."""

    def __init__(self, argv, env, prefix, logs):
        self.files, self.logs = (prefix + ".out", prefix + ".err"), logs
        with open(self.files[0], "wb") as o, open(self.files[1], "wb") as e:
            super().__init__(argv, env=env, stdin=subprocess.PIPE, stdout=o,
                             stderr=e)

    def lines(self, stream="out"):
        """The complete lines written so far to stdout or stderr."""
        with open(self.files[stream == "err"], "rb") as f:
            return f.read().decode("utf-8", "replace").split("\n")[:-1]

    def report(self):
        return "--- stdout:\n%s\n--- stderr:\n%s\n%s" % (
            "\n".join(self.lines()), "\n".join(self.lines("err")), self.logs())

    def wait_line(self, pattern, stream="out"):
        m = wait_until(lambda: next(filter(None, map(
            re.compile(pattern).search, self.lines(stream))), None))
        if not m:
            raise AssertionError("no line matching %r on std%s\n%s"
                                 % (pattern, stream, self.report()))
        return m

    def status_lines(self):
        return [l for l in self.lines() if l.startswith(STATUS)]

    def counts(self):
        """Worker counts of the status lines after the first (IDLE is 0)."""
        return [int(m.group(2) or 0) if m else line
                for line in self.status_lines()[1:] for m in [re.fullmatch(
                    STATUS + r"(IDLE|ACTIVE nr_workers=(\d+))", line)]]

    def wait_exit(self):
        try:
            return self.wait(WAIT)
        except subprocess.TimeoutExpired:
            raise AssertionError("still running\n" + self.report())


class Endpoint:
    """A configuration and an installation directory for one endpoint."""

    def __init__(self, test, fixture):
        self.fixture, self.runs = fixture, []
        self.root = tempfile.mkdtemp(prefix="relaytool-e2e-")
        test.addCleanup(shutil.rmtree, self.root, True)
        test.addCleanup(self.stop_all)
        # with a blank in the known-hosts path the tool gives ssh
        self.config_dir = os.path.join(self.root, "config dir")
        self.etc_dir = self.root + "/etc"
        for d in (self.config_dir, self.etc_dir):
            os.mkdir(d)
        if INSTALLED_ETC:
            self.etc_dir = INSTALLED_ETC
        else:
            shutil.copyfile(os.path.join(REPO, "tests/keys/anonymous.key"),
                            os.path.join(self.etc_dir, "relay-anonymous.key"))
        with open(self.path("gridftp.conf"), "w") as f:
            f.write("log_level ERROR\n")

    def path(self, name):
        return os.path.join(self.config_dir, name)

    def read(self, name):
        with open(self.path(name), "rb") as f:
            return f.read()

    def start(self, tool=TOOL, via_middle=False, **mode):
        env = dict(PATH="/usr/bin:/bin", HVN_OS="Linux",
                   HVN_OS_VERSION="Debian 12", HVN_APP_VERSION=APP_VERSION,
                   HVN_SSH_PATH=SSH, HVN_PDEATH_PATH=PDEATH,
                   HVN_GRIDFTP_PATH=GRIDFTP_SERVER,
                   HVN_RELAY_SERVER="127.0.0.1:%d" % self.fixture.port,
                   HVN_USER="alice", HVN_CONFIG_DIR=self.config_dir,
                   HVN_GLOBAL_ETC_DIR=self.etc_dir, **mode)
        argv = [sys.executable, "-c", MIDDLE, tool] if via_middle else [tool]
        self.runs.append(ToolRun(argv, env, "%s/run%d" % (
            self.root, len(self.runs)), self.fixture.logs))
        return self.runs[-1]

    def set_up(self, code, tool=TOOL):
        self.fixture.add_code(code)
        run = self.start(tool, HVN_SETUP_CODE=code)
        return run, run.wait_exit()

    def stop_all(self):
        """Ends the tools, middle processes, ssh and workers left running."""
        for run in self.runs:
            if run.poll() is None:
                run.kill()
                run.wait()
            run.stdin.close()
        for pid in processes(self.config_dir):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass


@unittest.skipIf(SKIP, SKIP)
class EndToEndTests(unittest.TestCase):
    """One relay for the whole class; each test has endpoints of its own."""

    @classmethod
    def setUpClass(cls):
        cls.fixture = sshd_fixture.RelayFixture(
            heartbeat=1)
        cls.fixture.start()

    @classmethod
    def tearDownClass(cls):
        cls.fixture.stop()

    def ready_endpoint(self):
        ep = Endpoint(self, self.fixture)
        run, rc = ep.set_up("e2e-" + self.id().rsplit(".", 1)[-1])
        self.assertEqual(rc, 0, run.report())
        return ep

    def login(self, ep, **kw):
        """Starts a login and waits for CONNECTED, then IDLE; returns the
        run, its CONNECTED line and the relay-side port of its forward."""
        run = ep.start(HVN_FTP_PORT="0", **kw)
        line = run.wait_line("^" + STATUS + "CONNECTED ").string
        self.assertTrue(wait_until(lambda: run.counts()[:1] == [0]),
                        run.report())
        port = run.wait_line(r"^\[ssh stderr\] Allocated port (\d+) for "
                             r"remote forward to 127\.0\.0\.1:\d+$", "err")
        return run, line, int(port.group(1))

    def assertNoCredentials(self, run, ep):
        self.assertEqual(run.status_lines(), [], run.report())
        self.assertEqual([n for n in CREDENTIAL_FILES
                          if os.path.exists(ep.path(n))], [])

    def test_setup(self):
        ep = Endpoint(self, self.fixture)
        old = ("anon.cert", "anon.key", "ltacert.pem", "ltakey.pem")
        for name in old:
            with open(ep.path(name), "w") as f:
                f.write("left over from an earlier generation\n")
        run, rc = ep.set_up("e2e-setup")
        self.assertEqual(rc, 0, run.report())
        self.assertEqual(run.status_lines(), [], run.report())
        self.assertEqual({n: os.stat(ep.path(n)).st_mode & 0o777
                          for n in CREDENTIAL_FILES},
                         dict.fromkeys(CREDENTIAL_FILES, 0o600))
        self.assertEqual([n for n in old if os.path.exists(ep.path(n))], [])
        self.assertEqual(ep.read("v2done.txt"),
                         b"V2 Credentials Done.  Do not remove this file")
        used = self.fixture.state()["codes"]["e2e-setup"]["used"]
        self.assertEqual(ep.read("client-id.txt").decode(), used["id"] + "\n")

        with self.subTest("used code"):
            again = Endpoint(self, self.fixture)
            run = again.start(HVN_SETUP_CODE="e2e-setup")
            self.assertEqual(run.wait_exit(), 1, run.report())
            run.wait_line(r"^Relay server error: .*already used", "err")
            self.assertNoCredentials(run, again)

    def test_upgrade_of_old_credentials_then_login(self):
        ep = Endpoint(self, self.fixture)
        self.fixture.make_v1_credentials(ep.config_dir)
        run, _, _ = self.login(ep)
        log = run.lines("err")
        self.assertLess(log.index("Trying to upgrade to V2 creds"),
                        log.index("Upgrade complete, sending login"))
        self.assertFalse(any(map(os.path.exists, map(ep.path, (
            "ltacert.pem", "ltakey.pem")))))
        client_id = ep.read("client-id.txt").decode().strip()
        state = self.fixture.state()
        self.assertEqual(state["clients"][client_id]["via"], "upgrade")
        run.stdin.close()
        self.assertEqual(run.wait_exit(), 1, run.report())

        run, _, _ = self.login(ep)  # the upgrade happens once
        self.assertFalse(any("upgrade" in l for l in run.lines("err")))
        self.assertEqual(
            self.fixture.state()["clients"][client_id]["logins"], 2)

    def test_parent_goes_away(self):
        # Each case holds a transfer open, as a parent that dies in the
        # middle of one would leave it: ssh keeps running while a forwarded
        # connection is open, even without stdin, so only the watcher ends
        # it.  The cases run one after another on one endpoint.
        ep = self.ready_endpoint()
        for case in ("close stdin", "kill parent", "kill tool"):
            run, _, port = self.login(ep, via_middle=case == "kill parent")
            tool = run.pid
            if case == "kill parent":
                tool = int(run.wait_line(r"^middle: tool pid=(\d+)$").group(1))
            hold_connection(self, port)
            run.wait_line("^" + STATUS + "ACTIVE nr_workers=1$")
            ssh = [p for p, name in processes(ep.config_dir).items()
                   if name == "ssh"]
            self.assertEqual(len(ssh), 1, run.report())
            if case == "close stdin":
                run.stdin.close()
                self.assertEqual(run.wait_exit(), 1, run.report())
            else:
                run.kill()
                run.wait()
            self.assertTrue(wait_until(lambda: not {tool, ssh[0]} & set(
                processes(ep.config_dir))), "%s: still running: %s\n%s"
                % (case, processes(ep.config_dir), run.report()))


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
