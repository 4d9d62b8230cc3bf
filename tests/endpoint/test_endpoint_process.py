#!/usr/bin/python3
"""Process-level tests of relaytool-endpoint with standin_tool.py in place of
the relay tool: bad input, what the tool is given, waiting for what is not
there yet, the lock, the state, the service-manager messages, the stop with
workers in flight, pause and resume, and the transfer history.  No relay
needed; the real-parts tests have the real thing."""

import json
import os
import re
import shutil
import signal
import socket
import stat
import subprocess
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
ENDPOINT = os.environ.get("RELAYTOOL_ENDPOINT_BIN",
                          os.path.join(REPO, "build", "endpoint", "relaytool-endpoint"))
WAIT = 30  # seconds, a limit for conditions: the machine is shared and noisy
CONNECTED = ("RELAYTOOL=1 status=CONNECTED ep_display_name=Lab%20PC%20%232 "
             "web_ux_url=https%3A%2F%2Frelay.example%2Fep%3Fid%3D7\r")  # a line end of two bytes
IDLE = "RELAYTOOL=1 status=IDLE"
SERVING = {"stdout": [CONNECTED, IDLE], "then": "wait"}
GRACE = 10  # seconds the workers get on a stop
SUBJECT = "/O=Relay Test/CN=Ann"
RECORD = ("[ftp stderr] [4242] Wed May  1 12:00:02 2024 :: Transfer stats: DATE=20240501120002.5 "
          "HOST=pc PROG=globus-gridftp-server NL.EVNT=FTP_INFO START=20240501120000.5 USER=ann "
          "FILE=/home/ann/my data.bin BUFFER=0 BLOCK=262144 NBYTES=%d VOLUME=/ STREAMS=1 "
          "STRIPES=1 DEST=[127.0.0.1] TYPE=%s CODE=%d TASKID=none")


def wait_until(predicate, timeout=WAIT):
    """The predicate's first true value, or its last false one."""
    deadline = time.monotonic() + timeout
    while not (value := predicate()) and time.monotonic() < deadline:
        time.sleep(0.02)
    return value


def alive(pid):
    """Running and not a zombie."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except (OSError, IndexError):
        return False


class Workspace:
    """A home, an installation directory with the anonymous key and a
    configuration directory in one temporary directory, and the plan of
    standin_tool.py, which relaytool-endpoint runs as the tool; all removed,
    with whatever still runs for it, at the end of the test."""

    def __init__(self, test, plan=()):
        self.root = tempfile.mkdtemp(prefix="relaytool-endpoint-")
        test.addCleanup(shutil.rmtree, self.root, True)
        test.addCleanup(self.kill_leftovers)
        self.home, self.etc_dir, self.config_dir = (
            os.path.join(self.root, name) for name in ("home", "etc", "config dir"))
        for path in (self.home, self.etc_dir):
            os.mkdir(path, 0o700)
        shutil.copyfile(os.path.join(REPO, "tests", "keys", "anonymous.key"),
                        os.path.join(self.etc_dir, "relay-anonymous.key"))
        self.plan_path, self.runs = os.path.join(self.root, "plan.json"), []
        self.set_plan(plan)

    def set_plan(self, plan):
        with open(self.plan_path, "w") as f:
            json.dump(list(plan), f)

    def path(self, name):
        return os.path.join(self.config_dir, name)

    def env(self, **settings):
        """A clean environment with what every test needs; None removes."""
        env = dict(PATH="/usr/bin:/bin", HOME=self.home, LANG="C.UTF-8",
                   RELAYTOOL_PATH=os.path.join(HERE, "standin_tool.py"),
                   STANDIN_PLAN=self.plan_path, HVN_RELAY_SERVER="127.0.0.1:9",
                   HVN_GRIDFTP_PATH="/bin/true", HVN_PDEATH_PATH="/bin/true",
                   HVN_SSH_PATH="/bin/true", HVN_GLOBAL_ETC_DIR=self.etc_dir,
                   HVN_CONFIG_DIR=self.config_dir, RELAYTOOL_SHARED_DIRS=self.home,
                   RELAYTOOL_BACKOFF_MIN="0.05", RELAYTOOL_BACKOFF_MAX="0.4",
                   DBUS_SYSTEM_BUS_ADDRESS="unix:path=%s/no-bus" % self.root)
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
        if out.count("\n") != 1:
            raise AssertionError("status --json printed %r, stderr %r" % (out, err))
        return rc, json.loads(out)

    def state(self):
        """The state file, or {} while there is none."""
        try:
            with open(self.path("endpoint-state.json")) as f:
                return json.load(f)
        except FileNotFoundError:
            return {}

    def lines(self, suffix):
        try:
            with open(self.plan_path + suffix) as f:
                return [json.loads(line) for line in f]
        except FileNotFoundError:
            return []

    def tool_runs(self):
        return self.lines(".runs")

    def events(self):
        return {e["what"]: e for e in self.lines(".events")}

    def start(self, *args, env=None, **popen):
        """relaytool-endpoint in the background."""
        self.runs.append(Run(self, list(args), env or self.env(), **popen))
        return self.runs[-1]

    def kill_leftovers(self):
        for run in self.runs:
            if run.poll() is None:
                run.kill()
                run.wait()
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:  # the tool and its workers have this plan in their environment
                with open("/proc/%s/environ" % pid, "rb") as f:
                    if self.plan_path.encode() in f.read():
                        os.kill(int(pid), signal.SIGKILL)
            except OSError:
                pass


class Run(subprocess.Popen):
    """relaytool-endpoint running in the background, its output in files."""

    def __init__(self, ws, args, env, **popen):
        self.ws = ws
        self.files = [os.path.join(ws.root, "run%d.%s" % (len(ws.runs), s)) for s in "oe"]
        with open(self.files[0], "wb") as o, open(self.files[1], "wb") as e:
            super().__init__([ENDPOINT] + args, env=env, stdin=subprocess.DEVNULL, stdout=o,
                             stderr=e, **popen)

    def text(self):
        with open(self.files[1], "rb") as f:
            return f.read().decode("utf-8", "replace")

    def states(self):
        """The "state: ..." lines so far, without the prefix."""
        return [l[7:] for l in self.text().splitlines() if l.startswith("state: ")]

    def report(self):
        return "--- stderr:\n%s--- state file:\n%s" % (self.text(), self.ws.state())

    def wait_state(self, predicate, what):
        """Waits until the state file satisfies the predicate; the state."""
        state = wait_until(lambda: (lambda s: s if s and predicate(s) else None)(self.ws.state()))
        if not state:
            raise AssertionError("no state with %s\n%s" % (what, self.report()))
        return state

    def wait_line(self, pattern):
        m = wait_until(lambda: re.search(pattern, self.text(), re.M))
        if not m:
            raise AssertionError("no stderr line matching %r\n%s" % (pattern, self.report()))
        return m

    def wait_exit(self, timeout=WAIT):
        try:
            return self.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("still running\n" + self.report())


class NotifySocket:
    """Stands in for the service manager's socket: what relaytool-endpoint
    sends to NOTIFY_SOCKET, as READY / STOPPING / WATCHDOG / STATUS."""

    def __init__(self, test, directory):
        self.path = os.path.join(directory, "notify.sock")
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)
        self.sock.setblocking(False)
        test.addCleanup(self.sock.close)
        self.messages = []

    def kinds(self):
        while True:
            try:
                self.messages.append(self.sock.recv(65536).decode())
            except BlockingIOError:
                break
        return [next((k for k in ("READY", "STOPPING", "WATCHDOG") if k + "=1" in m), "STATUS")
                for m in self.messages]


class BadInput(unittest.TestCase):
    """Each fault gets one clear line and status 2 before any tool starts."""

    def test_command_line_and_settings(self):
        ws = Workspace(self)
        for args, words in ((["start"], "unknown command 'start'"), ([], "no command"),
                            (["setup", "CODE-1"], "setup reads the code from standard input"),
                            (["run", "now"], "too many arguments"),
                            (["run", "--json"], "--json goes with status only"),
                            (["resume", "--now"], "--now goes with pause only"),
                            (["status", "--debug"], "--debug goes with setup and run only"),
                            (["run", "--env=x"], "unknown option --env=x")):
            rc, _, err = ws.command(*args)
            self.assertEqual((rc, ws.tool_runs()), (2, []), err)
            self.assertIn(words, err)
            self.assertIn("usage: relaytool-endpoint", err)
        for settings, words in ((dict(HVN_RELAY_SERVER=None), "HVN_RELAY_SERVER: not set"),
                                (dict(HVN_RELAY_SERVER="relay:0"), "is not HOST or HOST:PORT"),
                                (dict(HVN_FTP_PORT="x"), "HVN_FTP_PORT: 'x' is not"),
                                (dict(RELAYTOOL_SHARED_DIRS="ro:/srv"), "'ro' follows no dir"),
                                (dict(RELAYTOOL_SHARED_DIRS="/srv:data"), "'data' is not an abs")):
            rc, _, err = ws.command("run", env=ws.env(**settings))
            self.assertEqual((rc, ws.tool_runs(), len(err.splitlines())), (2, [], 1), err)
            self.assertIn(words, err)


class Supervision(unittest.TestCase):

    def test_tool_setting_descriptors_state_history_lock_and_stop(self):
        records = [RECORD % (n, "STOR", 226) for n in range(101)] + [RECORD % (2000, "RETR", 426)]
        ws = Workspace(self, [dict(SERVING, stderr=[
            "[ftp stderr] [4242] Wed May  1 12:00:00 2024 :: DN %s successfully authorized." %
            SUBJECT] + records)])
        rc, status = ws.status()  # nothing has run here yet
        self.assertEqual((rc, status["state"], status["running"]), (3, "stopped", False))
        notify = NotifySocket(self, ws.root)
        env = ws.env(HVN_USER="ann", HVN_OS="", HVN_SSH_DEBUG="", HVN_PROTOCOL_VERSION="2",
                     NOTIFY_SOCKET=notify.path, WATCHDOG_USEC="200000", HVN_DEBUG="1",
                     HVN_SETUP_CODE="not for the tool")
        # a descriptor left open by whoever starts us must not reach the tool
        stray = os.open(ws.root, os.O_RDONLY)
        self.addCleanup(os.close, stray)
        run = ws.start("run", env=env, pass_fds=(stray,))
        state = run.wait_state(lambda s: s["state"] == "idle", "idle")
        self.assertEqual((state["display_name"], state["web_url"], state["last_failure"]),
                         ("Lab PC #2", "https://relay.example/ep?id=7", None))
        self.assertIn("HVN_DEBUG is not passed on", run.text())
        self.assertEqual(stat.S_IMODE(os.stat(ws.config_dir).st_mode), 0o700)

        (tool,) = ws.tool_runs()
        self.assertEqual((tool["pid"], tool["fds"], tool["pgid"]),
                         (state["tool_pid"], [0, 1, 2], tool["pid"]))
        self.assertTrue(tool["stdin"].startswith("pipe:"), tool["stdin"])
        tool_env = tool["env"]
        self.assertEqual((tool_env["HVN_USER"], tool_env["HVN_OS"], tool_env["HVN_FTP_PORT"],
                          tool_env["HVN_PROTOCOL_VERSION"]), ("ann", "Linux", "0", "2"))
        for private in ("NOTIFY_SOCKET", "WATCHDOG_USEC", "HVN_SETUP_CODE", "RELAYTOOL_PATH",
                        "HVN_DEBUG", "RELAYTOOL_SHARED_DIRS", "HVN_SSH_DEBUG"):  # the last: unset
            self.assertNotIn(private, tool_env)

        # each record of the GridFTP server is a line of the log and an entry
        # of the history, whose latest 100 are kept
        run.wait_line(r"^transfer: sent /home/ann/my data\.bin, 2000 bytes in 2\.0 s "
                      r"\(1\.0 kB/s\), for %s: failed \(reply 426\)$" % SUBJECT)
        rc, out, _ = ws.command("status")
        self.assertEqual(rc, 0)
        for line in ("relaytool-endpoint is running (pid %d)\n" % run.pid, "state:         idle\n",
                     "received /home/ann/my data.bin, 100 bytes in 2.0 s (50.0 B/s), for %s: ok\n"
                     % SUBJECT):
            self.assertIn(line, out)
        rc, status = ws.status()
        self.assertEqual(([t["bytes"] for t in status["transfers"][:2]], len(status["transfers"]),
                          status["transfers"][-1]["at"]), ([2, 3], 100, "2024-05-01T12:00:02.500Z"))

        # a second supervisor for the same directory refuses to start, and so
        # does a setup that would rewrite the credentials under it
        for args in (["run"], ["setup"]):
            rc, _, err = ws.command(*args, env=env, input="CODE-2\n")
            self.assertEqual(rc, 4, err)
            self.assertIn("another relaytool-endpoint (pid %d) already runs" % run.pid, err)

        self.assertTrue(wait_until(lambda: "WATCHDOG" in notify.kinds()), notify.messages)
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())
        self.assertFalse(alive(tool["pid"]))
        self.assertIn("stdin closed; parent died?", run.text())  # stopped its way
        self.assertEqual(run.states()[-1], "stopped: on request (SIGTERM)")
        rc, status = ws.status()
        self.assertEqual((rc, status["state"], status["exit_status"], len(status["transfers"])),
                         (3, "stopped", 0, 100))
        kinds = [k for k in notify.kinds() if k != "WATCHDOG"]
        self.assertEqual((kinds[0], kinds[-1], set(kinds[1:-1])), ("READY", "STOPPING", {"STATUS"}))
        self.assertIn("STATUS=idle", notify.messages)

        # the history is kept across a restart; killed outright, the
        # supervisor leaves a state that says idle: status knows better
        ws.set_plan([dict(SERVING, stderr=[RECORD % (7, "RETR", 226)])])
        run = ws.start("run", env=env)
        run.wait_line("^transfer: sent .*, 7 bytes")
        run.kill()
        run.wait()
        rc, status = ws.status()
        self.assertEqual((rc, status["state"], status["running"], len(status["transfers"])),
                         (3, "stopped", False, 100))
        self.assertIn("ended without recording why", status["reason"])

    def test_waits_for_what_is_not_there_yet(self):
        # At boot: the GridFTP server not yet installed, then the shared
        # directory, then the relay authority's trust directory; the
        # server's configuration is written once all is there.
        ws = Workspace(self, [SERVING])
        server, shared, trust = (os.path.join(ws.root, n) for n in ("server", "shared", "trust"))
        run = ws.start("run", env=ws.env(HVN_GRIDFTP_PATH=server, RELAYTOOL_SHARED_DIRS=shared,
                                         RELAYTOOL_TRUST_DIR=trust))
        state = run.wait_state(lambda s: s["state"] == "waiting", "waiting for the server")
        self.assertIn("for HVN_GRIDFTP_PATH: cannot use %s" % server, state["reason"])
        self.assertEqual((state["last_failure"]["class"], ws.tool_runs()), ("not-ready", []))
        os.symlink("/bin/true", server)
        run.wait_line(r"^state: waiting for RELAYTOOL_SHARED_DIRS: cannot share %s: No such file"
                      % shared)
        os.mkdir(shared)
        os.mkdir(trust)
        run.wait_line(r"^state: waiting for RELAYTOOL_TRUST_DIR: %s holds no certificate" % trust)
        with open(os.path.join(trust, "abcd1234.0"), "w"):
            pass
        run.wait_line(r"^state: waiting for RELAYTOOL_TRUST_DIR: %s/abcd1234.0 has no readable %s"
                      r"/abcd1234.signing_policy" % (trust, trust))
        self.assertFalse(os.path.exists(ws.path("gridftp.conf")))
        with open(os.path.join(trust, "abcd1234.signing_policy"), "w"):
            pass
        run.wait_state(lambda s: s["state"] == "idle", "idle")
        with open(ws.path("gridftp.conf")) as f:
            self.assertIn('restrict_paths "%s"' % shared, f.read())
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())

    def test_a_connection_that_lasted_resets_the_back_off(self):
        # three failures in a row put the delay at 0.2 s or more; after a
        # connection that lasted longer than the longest delay, at the least
        ws = Workspace(self, [{}, {}, {}, {"stdout": [CONNECTED, IDLE], "then": 1.5},
                                     SERVING])
        run = ws.start("run")
        run.wait_state(lambda s: s["state"] == "idle" and s["restarts"] == 4, "idle at last")
        delays = re.findall(r"^state: waiting to reconnect after (\S+?)[;:].*\(in ([\d.]+) s\)$",
                            run.text(), re.M)
        self.assertEqual([c for c, _ in delays], ["unknown"] * 3 + ["connection-lost"])
        self.assertGreaterEqual(float(delays[2][1]), 0.2, delays)
        self.assertLessEqual(float(delays[3][1]), 0.1, delays)

    def test_setup_reads_the_code_from_standard_input(self):
        ws = Workspace(self, [{"stderr": ["HVN V2 setup complete"], "exit": 0},
                                     {"stderr": ["Relay server error: setup code already used"]}])
        # the default configuration directory is made, private
        xdg = os.path.join(ws.root, "xdg")
        env = ws.env(HVN_CONFIG_DIR=None, XDG_CONFIG_HOME=xdg)
        rc, out, err = ws.command("setup", env=env, input="  CODE-1 \nrest\n")
        self.assertEqual((rc, out), (0, "relaytool-endpoint: the endpoint is set up; its "
                                        "credentials are in %s/relaytool\n" % xdg), err)
        self.assertEqual(stat.S_IMODE(os.stat(xdg + "/relaytool").st_mode), 0o700)
        self.assertEqual(ws.tool_runs()[0]["env"]["HVN_SETUP_CODE"], "CODE-1")
        rc, _, err = ws.command("setup", env=env)
        self.assertIn("no setup code on standard input", err)
        rc, out, err = ws.command("setup", "--debug", env=env, input="CODE-1\n")
        self.assertEqual((rc, out, ws.tool_runs()[-1]["env"]["HVN_DEBUG"]), (12, "", "1"), err)
        self.assertIn("warning: --debug: the tool's debug output goes to standard error and the "
                      "journal, and it contains private keys", err)
        self.assertIn("the endpoint is not set up: relay-error, ", err)


class Stopping(unittest.TestCase):
    """Workers first, while the tunnel carries them; then the tool its own
    way; then whatever is left, by force."""

    def test_workers_get_their_grace_and_a_tool_that_stays_is_killed(self):
        ws = Workspace(self, [{"stdout": [CONNECTED, IDLE], "worker": "slow",
                                      "then": "linger"}])
        run = ws.start("run")
        run.wait_state(lambda s: s["state"] == "active", "active")
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())
        events = ws.events()
        self.assertIn("worker ended its transfer", events, run.report())
        self.assertLess(events["worker ended its transfer"]["at"],
                        events["tool's input closed"]["at"])
        self.assertFalse(alive(ws.tool_runs()[0]["pid"]))
        self.assertEqual(run.states()[-2:], ["stopping: on request (SIGTERM)",
                                             "stopped: on request (SIGTERM)"])

    def test_a_second_signal_ends_at_once_also_the_workers_a_tool_left(self):
        # the first run leaves a worker that ignores SIGTERM and ends
        ws = Workspace(self, [{"stdout": [CONNECTED, IDLE], "worker": "stubborn"},
                                     SERVING])
        run = ws.start("run")
        run.wait_state(lambda s: s["state"] == "idle" and s["restarts"] == 1, "idle again")
        worker = wait_until(lambda: ws.events().get("worker started"))["pid"]
        run.send_signal(signal.SIGTERM)
        run.wait_state(lambda s: s["state"] == "stopping", "stopping")
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(timeout=GRACE), 0, run.report())
        self.assertTrue(wait_until(lambda: not alive(worker)), "the worker lives on")


class PauseAndResume(unittest.TestCase):

    def test_pause_waits_for_transfers_stays_across_a_restart_and_resumes(self):
        ws = Workspace(self, [{"stdout": [CONNECTED, IDLE], "worker": "brief",
                                      "then": "wait"}, SERVING])
        self.assertEqual(ws.command("pause")[0], 3)  # nothing runs
        run = ws.start("run")
        run.wait_state(lambda s: s["state"] == "active", "active")
        rc, out, err = ws.command("pause")
        self.assertEqual((rc, out), (0, "relaytool-endpoint: pausing once the running transfers "
                                        "have ended\n"), err)
        self.assertEqual(ws.state()["state"], "pausing")
        state = run.wait_state(lambda s: s["state"] == "paused", "paused")
        self.assertEqual((ws.tool_runs()[-1]["env"]["HVN_FTP_PORT"], state["restarts"]), ("-1", 1))
        self.assertIn("pausing: the transfers have ended", run.text())
        rc, out, _ = ws.command("status")
        self.assertRegex(out, r"state: +paused since \d{4}-.*Z\n")
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())

        # another user is refused, whatever the directory's permissions
        run = ws.start("run")
        run.wait_state(lambda s: s["state"] == "paused" and s["pid"] == run.pid, "paused again")
        self.assertEqual(ws.tool_runs()[-1]["env"]["HVN_FTP_PORT"], "-1")
        for path in (ws.root, ws.config_dir, ws.path("endpoint.sock")):
            os.chmod(path, 0o777)
        rc, _, err = ws.command("resume", prefix=("setpriv", "--reuid=65534", "--regid=65534",
                                                  "--clear-groups"))
        self.assertEqual(rc, 1, err)
        self.assertIn("refused: this relaytool-endpoint runs as user 0", err)
        run.wait_line("^relaytool-endpoint: refused a command from user 65534")
        rc, out, _ = ws.command("resume")
        self.assertEqual((rc, out), (0, "relaytool-endpoint: resumed\n"))
        run.wait_state(lambda s: s["state"] == "idle", "idle")
        self.assertEqual(ws.tool_runs()[-1]["env"]["HVN_FTP_PORT"], "0")
        self.assertIsNone(ws.status()[1]["paused_since"])


if __name__ == "__main__":
    unittest.main()
