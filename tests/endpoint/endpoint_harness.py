"""Runs relaytool-endpoint as a service manager or an operator would: its
output goes to files, its state is read from the state file and from
`status --json`, and every wait is for a condition, with a generous limit."""

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.realpath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(REPO, "relay"))
import sshd_fixture  # noqa: E402
ENDPOINT, TESTRELAY_TOOL, PDEATH = (
    os.environ.get(var, os.path.join(REPO, "build", path)) for var, path in (
        ("RELAYTOOL_ENDPOINT_BIN", "endpoint/relaytool-endpoint"),
        ("RELAYTOOL_TESTRELAY_BIN", "tests/relaytool-testrelay"),
        ("PDEATH_BIN", "pdeath/pdeath")))
STANDIN_TOOL = os.path.join(HERE, "standin_tool.py")
STANDIN_WORKER = os.path.join(REPO, "tests", "tool", "standin_worker.py")
WAIT = 30  # seconds; the machine is shared and noisy


def wait_until(predicate, timeout=WAIT, interval=0.02):
    """The predicate's first true value, or its last false one."""
    deadline = time.monotonic() + timeout
    while not (value := predicate()) and time.monotonic() < deadline:
        time.sleep(interval)
    return value


def alive(pid):
    """Running and not a zombie."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except (OSError, IndexError):
        return False


def processes_mentioning(text):
    """{pid: command name} of live processes whose command line or
    environment contains text."""
    found = {}
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            for part in ("cmdline", "environ"):
                with open("/proc/%s/%s" % (pid, part), "rb") as f:
                    if text.encode() in f.read() and alive(int(pid)):
                        with open("/proc/%s/comm" % pid) as c:
                            found[int(pid)] = c.read().strip()
        except OSError:
            pass
    return found


class Workspace:
    """A home, an installation directory with the anonymous key, a
    configuration directory and one for the stand-in workers' records, all
    in one temporary directory removed at the end of the test."""

    def __init__(self, test):
        self.root = tempfile.mkdtemp(prefix="relaytool-endpoint-")
        test.addCleanup(shutil.rmtree, self.root, True)
        test.addCleanup(self.kill_leftovers)
        self.home, self.etc_dir, self.workers, self.config_dir = (
            os.path.join(self.root, name) for name in ("home", "etc", "workers", "config dir"))
        for path in (self.home, self.etc_dir, self.workers, self.config_dir):
            os.mkdir(path, 0o700)
        shutil.copyfile(os.path.join(REPO, "tests", "keys", "anonymous.key"),
                        os.path.join(self.etc_dir, "relay-anonymous.key"))
        self.runs = []

    def path(self, name):
        return os.path.join(self.config_dir, name)

    def env(self, **settings):
        """A clean environment with what every test needs; keyword
        arguments add to it, None removes."""
        env = dict(PATH="/usr/bin:/bin", HOME=self.home, LANG="C.UTF-8",
                   HVN_GRIDFTP_PATH=STANDIN_WORKER, HVN_PDEATH_PATH=PDEATH,
                   HVN_GLOBAL_ETC_DIR=self.etc_dir, HVN_CONFIG_DIR=self.config_dir,
                   WORKER_RECORD_DIR=self.workers,
                   RELAYTOOL_BACKOFF_MIN="0.05", RELAYTOOL_BACKOFF_MAX="0.4",
                   # no system bus unless a test brings its own
                   DBUS_SYSTEM_BUS_ADDRESS="unix:path=%s/no-bus" % self.root)
        # sanitizer settings reach the sanitized programs
        env.update({k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS")})
        env.update(settings)
        return {k: v for k, v in env.items() if v is not None}

    def command(self, *args, env=None, input="", prefix=()):
        """Runs relaytool-endpoint to its end: (status, stdout, stderr)."""
        p = subprocess.run(list(prefix) + [ENDPOINT] + list(args), env=env or self.env(),
                           input=input, capture_output=True, text=True, timeout=WAIT)
        return p.returncode, p.stdout, p.stderr

    def status(self):
        """`status --json`: (exit status, the object)."""
        rc, out, err = self.command("status", "--json")
        lines = out.splitlines()
        if len(lines) != 1:
            raise AssertionError("status --json printed %r, stderr %r" % (out, err))
        return rc, json.loads(lines[0])

    def state(self):
        """The state file, or {} while there is none."""
        try:
            with open(self.path("endpoint-state.json")) as f:
                return json.load(f)
        except FileNotFoundError:
            return {}

    def start(self, *args, env=None, prefix=(), **popen):
        """relaytool-endpoint in the background; `prefix` goes before it
        (such as `ip netns exec NS`)."""
        run = Run(self, list(prefix), list(args), env or self.env(), **popen)
        self.runs.append(run)
        return run

    def kill_leftovers(self):
        for run in self.runs:
            if run.poll() is None:
                run.kill()
                run.wait()
        for pid in processes_mentioning(self.config_dir):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass


class RelayWorkspace(Workspace):
    """A workspace for the real tool through a local relay (`fixture`, a
    started sshd_fixture.RelayFixture)."""

    def __init__(self, test, fixture):
        super().__init__(test)
        self.fixture = fixture

    def env(self, **settings):
        base = dict(RELAYTOOL_PATH=TESTRELAY_TOOL, HVN_SSH_PATH="/usr/bin/ssh",
                    HVN_RELAY_SERVER="%s:%d" % (self.fixture.address, self.fixture.port),
                    RELAYTOOL_BACKOFF_MIN="0.2", RELAYTOOL_BACKOFF_MAX="1.6")
        base.update(settings)
        return super().env(**base)

    def set_up(self, test, code, **command):
        self.fixture.add_code(code)
        rc, out, err = self.command("setup", input=code + "\n", **command)
        test.assertEqual(rc, 0, out + err + self.fixture.logs())
        test.assertIn("the endpoint is set up", out)

    def ssh_pids(self):
        return [p for p, name in processes_mentioning(self.config_dir).items() if name == "ssh"]


def new_fixture(test, **kw):
    """A relay of the test's own, stopped and removed at its end."""
    fixture = sshd_fixture.RelayFixture(directory=tempfile.mkdtemp(prefix="relay-sshd-"),
                                        heartbeat=1, **kw)
    test.addCleanup(shutil.rmtree, fixture.dir, True)
    test.addCleanup(fixture.stop)
    return fixture.start()


class Run(subprocess.Popen):
    """relaytool-endpoint running in the background, stdout and stderr in
    files."""

    def __init__(self, workspace, prefix, args, env, **popen):
        self.ws = workspace
        self.files = tuple(os.path.join(workspace.root, "run%d.%s" % (len(workspace.runs), s))
                           for s in ("out", "err"))
        with open(self.files[0], "wb") as o, open(self.files[1], "wb") as e:
            super().__init__(prefix + [ENDPOINT] + args, env=env, stdin=subprocess.DEVNULL,
                             stdout=o, stderr=e, **popen)

    def text(self, stream="err"):
        with open(self.files[stream == "err"], "rb") as f:
            return f.read().decode("utf-8", "replace")

    def states(self):
        """The "state: ..." lines so far, without the prefix."""
        return [l[7:] for l in self.text().splitlines() if l.startswith("state: ")]

    def report(self):
        return "--- stdout:\n%s--- stderr:\n%s--- state file:\n%s" % (
            self.text("out"), self.text(), json.dumps(self.ws.state(), indent=1))

    def wait_state(self, predicate, what, timeout=WAIT):
        """Waits until the state file satisfies the predicate; the state."""
        state = wait_until(lambda: (lambda s: s if s and predicate(s) else None)(
            self.ws.state()), timeout)
        if not state:
            raise AssertionError("no state with %s\n%s" % (what, self.report()))
        return state

    def wait_line(self, pattern, timeout=WAIT):
        m = wait_until(lambda: re.search(pattern, self.text(), re.M), timeout)
        if not m:
            raise AssertionError("no stderr line matching %r\n%s" % (pattern, self.report()))
        return m

    def wait_exit(self, timeout=WAIT):
        try:
            return self.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("still running\n" + self.report())


class NotifySocket:
    """A datagram socket standing in for the service manager's; collects
    what relaytool-endpoint sends to NOTIFY_SOCKET."""

    def __init__(self, test, directory):
        self.path = os.path.join(directory, "notify.sock")
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)
        self.sock.setblocking(False)
        test.addCleanup(self.sock.close)
        self.messages = []

    def kinds(self):
        """READY / STOPPING / WATCHDOG / STATUS for each message so far."""
        while True:
            try:
                self.messages.append(self.sock.recv(65536).decode())
            except BlockingIOError:
                break
        return [next((k for k in ("READY", "STOPPING", "WATCHDOG") if k + "=1" in m), "STATUS")
                for m in self.messages]
