#!/usr/bin/python3
"""relaytool-endpoint as a process, with standin_tool.py in place of the relay
tool: bad input, what the tool is given, waiting for what is not there yet,
the lock, the state, the service manager, the stop with workers in flight,
pause and resume, and the transfer history.  Every wait is for a condition."""

import json
import os
import re
import shutil
import signal
import socket
import stat
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, REPO)
from lab.process import json_file, wait_until  # noqa: E402

ENDPOINT = os.environ.get("RELAYTOOL_ENDPOINT_BIN",
                          os.path.join(REPO, "build", "endpoint", "relaytool-endpoint"))
WAIT = 30  # seconds, a limit for conditions: the machine is shared and noisy
GRACE = 10  # seconds the workers get on a stop
CONNECTED = ("RELAYTOOL=1 status=CONNECTED ep_display_name=Lab%20PC%20%232 "
             "web_ux_url=https%3A%2F%2Frelay.example%2Fep%3Fid%3D7\r")  # a line end of two bytes
SERVING = {"stdout": [CONNECTED, "RELAYTOOL=1 status=IDLE"], "then": "wait"}
SUBJECT = "/O=Relay Test/CN=Ann"
RECORD = ("[ftp stderr] [4242] Wed May  1 12:00:02 2024 :: Transfer stats: DATE=20240501120002.5 "
          "HOST=pc PROG=globus-gridftp-server NL.EVNT=FTP_INFO START=20240501120000.5 USER=ann "
          "FILE=/home/ann/my data.bin BUFFER=0 BLOCK=262144 NBYTES=%d VOLUME=/ STREAMS=1 "
          "STRIPES=1 DEST=[127.0.0.1] TYPE=%s CODE=%d TASKID=none")


def alive(pid):
    try:
        with open("/proc/%d/stat" % pid) as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except (OSError, IndexError):
        return False


class Workspace:
    """A home, an installation directory and a configuration directory, and
    the plan of standin_tool.py; removed, with whatever runs for them, at the
    end of the test."""

    def __init__(self, test, plan=()):
        self.root = tempfile.mkdtemp(prefix="relaytool-endpoint-")
        test.addCleanup(shutil.rmtree, self.root, True)
        test.addCleanup(self.kill_leftovers)
        self.home, self.etc, self.config_dir, self.plan = (
            os.path.join(self.root, n) for n in ("home", "etc", "config dir", "plan.json"))
        os.mkdir(self.home)
        os.mkdir(self.etc)
        shutil.copyfile(os.path.join(REPO, "tests", "keys", "anonymous.key"),
                        os.path.join(self.etc, "relay-anonymous.key"))
        self.runs = []
        self.set_plan(plan)

    def set_plan(self, plan):
        with open(self.plan, "w") as f:
            json.dump(list(plan), f)

    def path(self, name):
        return os.path.join(self.config_dir, name)

    def env(self, **settings):
        """What every test needs; keyword arguments add to it, None removes."""
        env = dict(PATH="/usr/bin:/bin", HOME=self.home, STANDIN_PLAN=self.plan,
                   RELAYTOOL_PATH=os.path.join(HERE, "standin_tool.py"),
                   HVN_RELAY_SERVER="127.0.0.1:9", HVN_GRIDFTP_PATH="/bin/true",
                   HVN_PDEATH_PATH="/bin/true", HVN_SSH_PATH="/bin/true",
                   HVN_GLOBAL_ETC_DIR=self.etc, HVN_CONFIG_DIR=self.config_dir,
                   RELAYTOOL_SHARED_DIRS=self.home, RELAYTOOL_BACKOFF_MIN="0.05",
                   RELAYTOOL_BACKOFF_MAX="0.4", DBUS_SYSTEM_BUS_ADDRESS="unix:path=/nowhere")
        env.update({k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS")})
        env.update(settings)
        return {k: v for k, v in env.items() if v is not None}

    def command(self, *args, env=None, input="", prefix=()):
        """relaytool-endpoint to its end: (status, stdout, stderr)."""
        p = subprocess.run(list(prefix) + [ENDPOINT] + list(args), env=env or self.env(),
                           input=input, capture_output=True, text=True, timeout=WAIT)
        return p.returncode, p.stdout, p.stderr

    def status(self):
        rc, out, _ = self.command("status", "--json")
        return rc, json.loads(out)

    def state(self):
        return json_file(self.path("endpoint-state.json"))

    def recorded(self, suffix):
        """What the stand-in recorded: its runs (".runs") or events (".events")."""
        try:
            with open(self.plan + suffix) as f:
                return [json.loads(line) for line in f]
        except FileNotFoundError:
            return []

    def start(self, *args, env=None, **popen):
        self.runs.append(Run(self, list(args), env or self.env(), **popen))
        return self.runs[-1]

    def kill_leftovers(self):
        for run in self.runs:
            run.kill()
            run.wait()
        for pid in filter(str.isdigit, os.listdir("/proc")):
            try:  # the tool and its workers have this plan in their environment
                with open("/proc/%s/environ" % pid, "rb") as f:
                    if self.plan.encode() in f.read():
                        os.kill(int(pid), signal.SIGKILL)
            except OSError:
                pass


class Run(subprocess.Popen):
    """relaytool-endpoint in the background, its standard error in a file."""

    def __init__(self, ws, args, env, **popen):
        self.ws, self.log = ws, os.path.join(ws.root, "run%d.log" % len(ws.runs))
        with open(self.log, "wb") as log:
            super().__init__([ENDPOINT] + args, env=env, stdin=subprocess.DEVNULL,
                             stdout=log, stderr=log, **popen)

    def text(self):
        with open(self.log, "rb") as f:
            return f.read().decode("utf-8", "replace")

    def states(self):
        return [l[7:] for l in self.text().splitlines() if l.startswith("state: ")]

    def report(self):
        return "--- log:\n%s--- state file:\n%s" % (self.text(), self.ws.state())

    def wait_state(self, predicate, what):
        state = wait_until(lambda: (lambda s: s if s and predicate(s) else None)(self.ws.state()))
        if not state:
            raise AssertionError("no state with %s\n%s" % (what, self.report()))
        return state

    def wait_line(self, pattern):
        if not wait_until(lambda: re.search(pattern, self.text(), re.M)):
            raise AssertionError("no line matching %r\n%s" % (pattern, self.report()))

    def wait_exit(self, timeout=WAIT):
        try:
            return self.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("still running\n" + self.report())


class BadInputAndSetup(unittest.TestCase):

    def test_bad_input_gets_one_clear_line_and_status_2_before_any_tool_starts(self):
        ws = Workspace(self, [{"stderr": ["Env var 'HVN_OS' must be set"], "exit": 2}])
        for args, env, words in (
                (["start"], {}, "unknown command 'start'"),
                (["setup", "CODE-1"], {}, "setup reads the code from standard input"),
                (["run", "now"], {}, "too many arguments"),
                (["resume", "--now"], {}, "--now goes with pause only"),
                (["status", "--debug"], {}, "--debug goes with setup and run only"),
                (["run", "--env=x"], {}, "unknown option --env=x"),
                (["run"], dict(RELAYTOOL_SHARED_DIRS="ro:/srv"), "'ro' follows no directory")):
            rc, _, err = ws.command(*args, env=ws.env(**env))
            self.assertEqual((rc, ws.recorded(".runs")), (2, []), err)
            self.assertIn(words, err)
        # a setting only the tool misses needs a person: stopped for good
        rc, _, err = ws.command("run")
        self.assertEqual(rc, 10, err)
        self.assertIn("state: stopped: setting: ", err)

    def test_setup_reads_the_code_from_standard_input(self):
        ws = Workspace(self, [{"stderr": ["HVN V2 setup complete"], "exit": 0},
                              {"stderr": ["Relay server error: setup code already used"]}])
        xdg = os.path.join(ws.root, "xdg")  # the default directory is made, private
        env = ws.env(HVN_CONFIG_DIR=None, XDG_CONFIG_HOME=xdg)
        rc, out, err = ws.command("setup", env=env, input="  CODE-1 \nrest\n")
        self.assertEqual((rc, out), (0, "relaytool-endpoint: the endpoint is set up; its "
                                        "credentials are in %s/relaytool\n" % xdg), err)
        self.assertEqual(stat.S_IMODE(os.stat(xdg + "/relaytool").st_mode), 0o700)
        self.assertEqual(ws.recorded(".runs")[0]["env"]["HVN_SETUP_CODE"], "CODE-1")
        self.assertIn("no setup code on standard input", ws.command("setup", env=env)[2])
        rc, out, err = ws.command("setup", "--debug", env=env, input="CODE-1\n")
        self.assertEqual((rc, ws.recorded(".runs")[-1]["env"]["HVN_DEBUG"]), (12, "1"), err)
        self.assertIn("warning: --debug: the tool's debug output goes to standard error", err)
        self.assertIn("the endpoint is not set up: relay-error, ", err)


class Supervision(unittest.TestCase):

    def test_what_the_tool_gets_state_history_lock_and_stop(self):
        records = [RECORD % (n, "STOR", 226) for n in range(101)] + [RECORD % (2000, "RETR", 426)]
        ws = Workspace(self, [dict(SERVING, stderr=[
            "[ftp stderr] [4242] Wed May  1 12:00:00 2024 :: DN %s successfully authorized."
            % SUBJECT] + records)])
        notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(notify.close)
        notify.bind(os.path.join(ws.root, "notify"))
        env = ws.env(HVN_USER="ann", HVN_OS="", HVN_SSH_DEBUG="", HVN_PROTOCOL_VERSION="2",
                     NOTIFY_SOCKET=notify.getsockname(), WATCHDOG_USEC="200000", HVN_DEBUG="1",
                     HVN_SETUP_CODE="not for the tool")
        stray = os.open(ws.root, os.O_RDONLY)  # left open by whoever starts us
        self.addCleanup(os.close, stray)
        run = ws.start("run", env=env, pass_fds=(stray,))
        state = run.wait_state(lambda s: s["state"] == "idle", "idle")
        self.assertEqual((state["display_name"], state["web_url"]),
                         ("Lab PC #2", "https://relay.example/ep?id=7"))
        self.assertIn("HVN_DEBUG is not passed on", run.text())
        (tool,) = ws.recorded(".runs")
        self.assertEqual((tool["pid"], tool["fds"], tool["pgid"], tool["stdin"][:5]),
                         (state["tool_pid"], [0, 1, 2], tool["pid"], "pipe:"))
        tool_env = tool["env"]
        self.assertEqual([tool_env[k] for k in ("HVN_OS", "HVN_FTP_PORT", "HVN_PROTOCOL_VERSION")],
                         ["Linux", "0", "2"])
        for private in ("NOTIFY_SOCKET", "WATCHDOG_USEC", "HVN_SETUP_CODE", "RELAYTOOL_PATH",
                        "HVN_DEBUG", "RELAYTOOL_SHARED_DIRS", "HVN_SSH_DEBUG"):  # the last: unset
            self.assertNotIn(private, tool_env)

        # each record of the GridFTP server is a line of the log and an entry
        # of the history, whose latest 100 are kept
        run.wait_line(r"^transfer: sent /home/ann/my data\.bin, 2000 bytes in 2\.0 s "
                      r"\(1\.0 kB/s\), for %s: failed \(reply 426\)$" % SUBJECT)
        rc, out, _ = ws.command("status")
        for line in ("relaytool-endpoint is running (pid %d)\n" % run.pid, "state:         idle\n",
                     "received /home/ann/my data.bin, 100 bytes in 2.0 s (50.0 B/s), for %s: ok\n"
                     % SUBJECT):
            self.assertIn(line, out)
        transfers = ws.status()[1]["transfers"]
        self.assertEqual(([t["bytes"] for t in transfers[:2]], len(transfers), transfers[-1]["at"]),
                         ([2, 3], 100, "2024-05-01T12:00:02.500Z"))

        # a second supervisor, and a setup that would rewrite the credentials
        for args in (["run"], ["setup"]):
            rc, _, err = ws.command(*args, env=env, input="CODE-2\n")
            self.assertEqual(rc, 4, err)
            self.assertIn("another relaytool-endpoint (pid %d) already runs" % run.pid, err)

        notify.settimeout(WAIT)
        messages = [notify.recv(65536).decode()]
        while "WATCHDOG=1" not in messages[-1]:
            messages.append(notify.recv(65536).decode())
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())
        self.assertFalse(alive(tool["pid"]))
        self.assertIn("stdin closed; parent died?", run.text())  # stopped its way
        self.assertEqual(run.states()[-1], "stopped: on request (SIGTERM)")
        notify.setblocking(False)
        try:
            while True:
                messages.append(notify.recv(65536).decode())
        except BlockingIOError:
            pass
        told = [m[:m.index("STATUS=") + 11] for m in messages if "WATCHDOG=1" not in m]
        self.assertEqual((told[0], told[-1]), ("READY=1\nSTATUS=star", "STOPPING=1\nSTATUS=stop"))
        self.assertIn("STATUS=idle", messages)
        rc, status = ws.status()
        self.assertEqual((rc, status["state"], status["exit_status"]), (3, "stopped", 0))

        # the history is kept across a restart; killed outright, the
        # supervisor leaves a state that says idle: status knows better
        ws.set_plan([dict(SERVING, stderr=[RECORD % (7, "RETR", 226)])])
        run = ws.start("run", env=env)
        self.assertTrue(wait_until(lambda: ws.status()[1]["transfers"][-1]["bytes"] == 7))
        run.kill()
        run.wait()
        rc, status = ws.status()
        self.assertEqual((rc, status["state"], len(status["transfers"])), (3, "stopped", 100))
        self.assertIn("ended without recording why", status["reason"])

    def test_waits_for_what_is_not_there_yet(self):
        # at boot: the GridFTP server not yet installed, the shared directory
        # not mounted, the relay authority's trust directory incomplete
        ws = Workspace(self, [SERVING])
        server, shared, trust = (os.path.join(ws.root, n) for n in ("server", "shared", "trust"))
        run = ws.start("run", env=ws.env(HVN_GRIDFTP_PATH=server, RELAYTOOL_SHARED_DIRS=shared,
                                         RELAYTOOL_TRUST_DIR=trust))
        state = run.wait_state(lambda s: s["state"] == "waiting", "waiting for the server")
        self.assertIn("for HVN_GRIDFTP_PATH: cannot use %s" % server, state["reason"])
        self.assertEqual((state["last_failure"]["class"], ws.recorded(".runs")), ("not-ready", []))
        for make, waiting in (
                (lambda: os.symlink("/bin/true", server),
                 "RELAYTOOL_SHARED_DIRS: cannot share %s: No such file" % shared),
                (lambda: (os.mkdir(shared), os.mkdir(trust)),
                 "RELAYTOOL_TRUST_DIR: %s holds no certificate" % trust),
                (lambda: open(os.path.join(trust, "abcd1234.0"), "w").close(),
                 "RELAYTOOL_TRUST_DIR: %s/abcd1234.0 has no readable %s/abcd1234.signing_policy"
                 % (trust, trust))):
            make()
            run.wait_line("^state: waiting for " + re.escape(waiting))
        self.assertFalse(os.path.exists(ws.path("gridftp.conf")))
        open(os.path.join(trust, "abcd1234.signing_policy"), "w").close()
        run.wait_state(lambda s: s["state"] == "idle", "idle")
        with open(ws.path("gridftp.conf")) as f:
            self.assertRegex(f.read(), '\nrestrict_paths "%s"\n' % shared)

    def test_a_connection_that_lasted_resets_the_back_off(self):
        # three failures in a row put the delay at 0.2 s or more; after a
        # connection that lasted longer than the longest delay, at the least
        ws = Workspace(self, [{}, {}, {}, dict(SERVING, then=1.5), SERVING])
        run = ws.start("run")
        run.wait_state(lambda s: s["state"] == "idle" and s["restarts"] == 4, "idle at last")
        delays = re.findall(r"^state: waiting to reconnect after (\S+?)[;:].*\(in ([\d.]+) s\)$",
                            run.text(), re.M)
        self.assertEqual([c for c, _ in delays], ["unknown"] * 3 + ["connection-lost"])
        self.assertTrue(float(delays[2][1]) >= 0.2 >= 0.1 >= float(delays[3][1]), delays)


class Stopping(unittest.TestCase):
    """Workers first, while the tunnel carries them; then the tool its own
    way; then whatever is left, by force."""

    def test_workers_get_their_grace_and_a_tool_that_stays_is_killed(self):
        ws = Workspace(self, [dict(SERVING, worker="slow", then="linger")])
        run = ws.start("run")
        run.wait_state(lambda s: s["state"] == "active", "active")
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())
        events = {e["what"]: e["at"] for e in ws.recorded(".events")}
        self.assertLess(events.get("worker ended its transfer", 1e9), events["tool's input closed"])
        self.assertFalse(alive(ws.recorded(".runs")[0]["pid"]))
        self.assertEqual(run.states()[-2:], ["stopping: on request (SIGTERM)",
                                             "stopped: on request (SIGTERM)"])

    def test_a_second_signal_ends_at_once_also_the_workers_a_tool_left(self):
        # the first run ends and leaves a worker that ignores SIGTERM
        ws = Workspace(self, [dict(SERVING, worker="stubborn", then=None), SERVING])
        run = ws.start("run")
        run.wait_state(lambda s: s["state"] == "idle" and s["restarts"] == 1, "idle again")
        worker = ws.recorded(".events")[0]["pid"]
        run.send_signal(signal.SIGTERM)
        run.wait_state(lambda s: s["state"] == "stopping", "stopping")
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(timeout=GRACE), 0, run.report())
        self.assertTrue(wait_until(lambda: not alive(worker)), "the worker lives on")


class PauseAndResume(unittest.TestCase):

    def test_pause_waits_for_transfers_stays_across_a_restart_and_resumes(self):
        ws = Workspace(self, [dict(SERVING, worker="brief"), SERVING])
        ftp_port = lambda: ws.recorded(".runs")[-1]["env"]["HVN_FTP_PORT"]  # noqa: E731
        self.assertEqual(ws.command("pause")[0], 3)  # nothing runs
        run = ws.start("run")
        run.wait_state(lambda s: s["state"] == "active", "active")
        self.assertEqual(ws.command("pause")[:2], (0, "relaytool-endpoint: pausing once the "
                                                      "running transfers have ended\n"))
        self.assertEqual(ws.state()["state"], "pausing")
        self.assertEqual(run.wait_state(lambda s: s["state"] == "paused", "paused")["restarts"], 1)
        self.assertEqual(ftp_port(), "-1")  # the tool's paused mode
        self.assertRegex(ws.command("status")[1], r"state: +paused since \d{4}-.*Z\n")
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())

        # still paused after a restart; another user is refused, whatever
        # the directory's permissions
        run = ws.start("run")
        run.wait_state(lambda s: s["state"] == "paused" and s["pid"] == run.pid, "paused again")
        for path in (ws.root, ws.config_dir, ws.path("endpoint.sock")):
            os.chmod(path, 0o777)
        rc, _, err = ws.command("resume", prefix=("setpriv", "--reuid=65534", "--regid=65534",
                                                  "--clear-groups"))
        self.assertEqual(rc, 1, err)
        self.assertIn("refused: this relaytool-endpoint runs as user 0", err)
        run.wait_line("^relaytool-endpoint: refused a command from user 65534")
        self.assertEqual(ws.command("resume")[:2], (0, "relaytool-endpoint: resumed\n"))
        run.wait_state(lambda s: s["state"] == "idle", "idle")
        self.assertEqual((ftp_port(), ws.status()[1]["paused_since"]), ("0", None))


if __name__ == "__main__":
    unittest.main()
