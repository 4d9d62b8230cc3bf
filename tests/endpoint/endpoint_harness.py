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
ENDPOINT, TESTRELAY_TOOL, DEFAULT_TOOL, PDEATH = (
    os.environ.get(var, os.path.join(REPO, "build", path)) for var, path in (
        ("RELAYTOOL_ENDPOINT_BIN", "endpoint/relaytool-endpoint"),
        ("RELAYTOOL_TESTRELAY_BIN", "tests/relaytool-testrelay"),
        ("RELAYTOOL_BIN", "src/relaytool"),
        ("PDEATH_BIN", "pdeath/pdeath")))
STANDIN_TOOL = os.path.join(HERE, "standin_tool.py")
# any program will do: no test here lets a connection reach a worker
STANDIN_WORKER = os.path.join(REPO, "tests", "tool", "standin_worker.py")
ANON_KEY = os.path.join(REPO, "tests", "keys", "anonymous.key")
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
    """A home, an installation directory with the anonymous key, and a
    configuration directory, all in one temporary directory removed at the
    end of the test."""

    def __init__(self, test, config_name="config dir"):
        self.root = tempfile.mkdtemp(prefix="relaytool-endpoint-")
        test.addCleanup(shutil.rmtree, self.root, True)
        test.addCleanup(self.kill_leftovers)
        self.home = self.mkdir("home")
        self.etc_dir = self.mkdir("etc")
        self.config_dir = os.path.join(self.root, config_name)
        os.mkdir(self.config_dir, 0o700)
        shutil.copyfile(ANON_KEY, os.path.join(self.etc_dir, "relay-anonymous.key"))
        self.runs = []

    def mkdir(self, name):
        path = os.path.join(self.root, name)
        os.mkdir(path)
        return path

    def path(self, name):
        return os.path.join(self.config_dir, name)

    def env(self, **settings):
        """A clean environment with what every test needs; keyword
        arguments add to it, None removes."""
        env = dict(PATH="/usr/bin:/bin", HOME=self.home, LANG="C.UTF-8",
                   HVN_GRIDFTP_PATH=STANDIN_WORKER, HVN_PDEATH_PATH=PDEATH,
                   HVN_GLOBAL_ETC_DIR=self.etc_dir,
                   HVN_CONFIG_DIR=self.config_dir,
                   RELAYTOOL_BACKOFF_MIN="0.05", RELAYTOOL_BACKOFF_MAX="0.4")
        # sanitizer settings reach the sanitized programs
        env.update({k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS")})
        for key, value in settings.items():
            if value is None:
                env.pop(key, None)
            else:
                env[key] = value
        return env

    def command(self, *args, env=None, timeout=WAIT):
        """Runs relaytool-endpoint to its end: (status, stdout, stderr)."""
        p = subprocess.run([ENDPOINT] + list(args), env=env or self.env(),
                           stdin=subprocess.DEVNULL, capture_output=True,
                           text=True, timeout=timeout)
        return p.returncode, p.stdout, p.stderr

    def status(self, env=None):
        """`status --json`: (exit status, the object)."""
        rc, out, err = self.command("status", "--json", env=env)
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

    def start(self, *args, env=None, **popen):
        run = Run(self, list(args), env or self.env(), **popen)
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


class Run(subprocess.Popen):
    """relaytool-endpoint running in the background, stdout and stderr in
    files."""

    def __init__(self, workspace, args, env, **popen):
        self.ws = workspace
        n = len(workspace.runs)
        self.files = tuple(os.path.join(workspace.root, "run%d.%s" % (n, s))
                           for s in ("out", "err"))
        with open(self.files[0], "wb") as o, open(self.files[1], "wb") as e:
            super().__init__([ENDPOINT] + args, env=env, stdin=subprocess.DEVNULL,
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
        self.sock.settimeout(0.05)
        test.addCleanup(self.sock.close)
        self.messages = []

    def collect(self):
        while True:
            try:
                self.messages.append(self.sock.recv(65536).decode())
            except socket.timeout:
                return self.messages

    def wait_for(self, text, timeout=WAIT):
        found = wait_until(lambda: any(text in m for m in self.collect()), timeout, 0)
        if not found:
            raise AssertionError("no notification with %r: %r" % (text, self.messages))

    def kinds(self):
        """READY / STATUS / STOPPING for each message, in order."""
        out = []
        for message in self.collect():
            fields = dict(l.split("=", 1) for l in message.split("\n") if "=" in l)
            out += [k for k in ("READY", "STOPPING") if k in fields] or ["STATUS"]
        return out
