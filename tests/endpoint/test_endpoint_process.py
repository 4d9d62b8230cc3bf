#!/usr/bin/python3
"""Process-level tests of relaytool-endpoint with standin_tool.py in place of
the relay tool: bad input, what the tool is given, classification, back-off,
stopping, the lock, the state and the service-manager messages.  No relay and
no root needed; see test_endpoint_relay.py for the real thing."""

import json
import os
import signal
import stat
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))

from endpoint_harness import (STANDIN_TOOL, NotifySocket, Workspace, alive,  # noqa: E402
                              wait_until)

CONNECTED = ("RELAYTOOL=1 status=CONNECTED ep_display_name=Lab%20PC%20%232 "
             "web_ux_url=https%3A%2F%2Frelay.example%2Fep%3Fid%3D7")
IDLE = "RELAYTOOL=1 status=IDLE"
UNREACHABLE = "[ssh stderr] ssh: connect to host 127.0.0.1 port 9: Connection refused"
LOST = "[ssh stderr] Connection to 127.0.0.1 closed by remote host."
HOST_KEY = "[ssh stderr] Host key verification failed."


class StandinWorkspace(Workspace):
    """A workspace whose relaytool-endpoint runs standin_tool.py."""

    def __init__(self, test, plan=()):
        super().__init__(test)
        self.plan_path = os.path.join(self.root, "plan.json")
        self.set_plan(plan)

    def set_plan(self, plan):
        with open(self.plan_path, "w") as f:
            json.dump(list(plan), f)

    def env(self, **settings):
        base = dict(RELAYTOOL_PATH=STANDIN_TOOL, STANDIN_PLAN=self.plan_path,
                    HVN_RELAY_SERVER="127.0.0.1:9", HVN_PDEATH_PATH="/bin/true",
                    HVN_SSH_PATH="/bin/true")
        base.update(settings)
        return super().env(**base)

    def forget_runs(self):
        if os.path.exists(self.plan_path + ".runs"):
            os.unlink(self.plan_path + ".runs")

    def tool_runs(self):
        try:
            with open(self.plan_path + ".runs") as f:
                return [json.loads(line) for line in f]
        except FileNotFoundError:
            return []


class BadInput(unittest.TestCase):
    """Each fault gets one clear line and its status before any tool starts."""

    def assertRefused(self, ws, args, status, words, env=None):
        rc, out, err = ws.command(*args, env=env)
        self.assertEqual(rc, status, err)
        self.assertIn(words, err)
        self.assertEqual(ws.tool_runs(), [], "a tool was started")
        return err

    def test_command_line(self):
        ws = StandinWorkspace(self)
        for args, words in ((["start"], "unknown command 'start'"), ([], "no command"),
                            (["setup"], "setup needs the setup code"),
                            (["setup", " "], "setup needs the setup code"),
                            (["run", "now"], "too many arguments"),
                            (["run", "--json"], "--json goes with status only"),
                            (["run", "--env"], "--env needs a file"),
                            (["run", "--bogus"], "unknown option --bogus")):
            err = self.assertRefused(ws, args, 2, words)
            self.assertIn("usage: relaytool-endpoint", err)
        rc, out, _ = ws.command("--version")
        self.assertEqual((rc, out.split()[0]), (0, "relaytool-endpoint"))

    def test_environment_files(self):
        ws = StandinWorkspace(self)
        missing = os.path.join(ws.root, "nothing.env")
        self.assertRefused(ws, ["--env", missing, "run"], 2,
                           "cannot read the environment file %s: No such file" % missing)
        bad = os.path.join(ws.root, "bad.env")
        with open(bad, "w") as f:
            f.write("# settings\nHVN_RELAY_SERVER=relay\nHVN_GRIDFTP_PATH '/g'\n")
        self.assertRefused(ws, ["--env", bad, "run"], 2,
                           "%s:3: expected KEY=VALUE" % bad)
        with open(bad, "w") as f:
            f.write("HVN_USER='unclosed\n")
        self.assertRefused(ws, ["--env", bad, "status"], 2,
                           "%s:1: unterminated single quote" % bad)
        # the default file is read too, when it exists
        os.makedirs(os.path.join(ws.home, ".config", "relaytool"))
        os.rename(bad, os.path.join(ws.home, ".config", "relaytool", "endpoint.env"))
        self.assertRefused(ws, ["run"], 2, "endpoint.env:1: unterminated single quote")

    def test_missing_and_unusable_settings(self):
        ws = StandinWorkspace(self)
        not_executable = os.path.join(ws.etc_dir, "relay-anonymous.key")
        trust = ws.mkdir("trust")
        open(os.path.join(trust, "0badc0de.0"), "w").close()
        cases = [
            (dict(HVN_RELAY_SERVER=None), "HVN_RELAY_SERVER: not set"),
            (dict(HVN_GRIDFTP_PATH=not_executable),
             "HVN_GRIDFTP_PATH: %s is not an executable program" % not_executable),
            (dict(RELAYTOOL_PATH="/no/such/relaytool"),
             "RELAYTOOL_PATH: cannot use /no/such/relaytool: No such file"),
            (dict(HVN_GLOBAL_ETC_DIR=ws.root), "HVN_GLOBAL_ETC_DIR: cannot read %s/relay-"
             "anonymous.key" % ws.root),
            (dict(HVN_CONFIG_DIR=not_executable), "HVN_CONFIG_DIR: cannot create"),
            (dict(RELAYTOOL_SHARED_DIRS=ws.home + ":/no/such"),
             "RELAYTOOL_SHARED_DIRS: /no/such does not exist"),
            (dict(RELAYTOOL_TRUST_DIR=trust), "RELAYTOOL_TRUST_DIR: %s/0badc0de.0 has no "
             "readable 0badc0de.signing_policy" % trust),
        ]
        for settings, words in cases:
            with self.subTest(words):
                err = self.assertRefused(ws, ["run"], 2, "relaytool-endpoint: " + words,
                                         env=ws.env(**settings))
                self.assertEqual(len(err.splitlines()), 1, err)


class Supervision(unittest.TestCase):

    def test_tool_setting_descriptors_state_lock_and_stop(self):
        ws = StandinWorkspace(self, [{"stdout": [CONNECTED, IDLE], "then": "wait"}])
        env_file = os.path.join(ws.root, "endpoint.env")
        with open(env_file, "w") as f:
            f.write("# the file wins over the environment\n"
                    "HVN_USER=\"file user\"\nHVN_PROTOCOL_VERSION=2\n")
        rc, status = ws.status()  # nothing has run here yet
        self.assertEqual((rc, status["state"], status["running"], status["restarts"]),
                         (3, "stopped", False, 0), status)
        notify = NotifySocket(self, ws.root)
        env = ws.env(HVN_USER="environment user", NOTIFY_SOCKET=notify.path,
                     HVN_SETUP_CODE="must not reach the tool")
        # a descriptor left open by whoever starts us must not reach the tool
        stray = os.open(ws.root, os.O_RDONLY)
        self.addCleanup(os.close, stray)
        run = ws.start("--env", env_file, "run", env=env, pass_fds=(stray,))
        state = run.wait_state(lambda s: s["state"] == "idle", "idle")
        self.assertEqual(state["display_name"], "Lab PC #2")
        self.assertEqual(state["web_url"], "https://relay.example/ep?id=7")
        self.assertEqual((state["pid"], state["restarts"], state["last_failure"]),
                         (run.pid, 0, None))

        (tool,) = ws.tool_runs()
        self.assertEqual(tool["pid"], state["tool_pid"])
        self.assertEqual(tool["fds"], [0, 1, 2])
        self.assertTrue(tool["stdin"].startswith("pipe:"), tool["stdin"])
        self.assertEqual(tool["pgid"], tool["pid"], "the tool is not in a group of its own")
        tool_env = tool["env"]
        self.assertEqual(tool_env["HVN_USER"], "file user")
        self.assertEqual(tool_env["HVN_PROTOCOL_VERSION"], "2")
        self.assertTrue(tool_env["HVN_APP_VERSION"].startswith("relaytool-endpoint 1."))
        self.assertEqual((tool_env["HVN_FTP_PORT"], tool_env["HVN_OS"]), ("0", os.uname().sysname))
        for private in ("NOTIFY_SOCKET", "HVN_SETUP_CODE", "RELAYTOOL_PATH"):
            self.assertNotIn(private, tool_env)

        rc, status = ws.status()
        self.assertEqual((rc, status["state"], status["running"], status["workers"]),
                         (0, "idle", True, 0), status)
        rc, out, err = ws.command("status")
        self.assertEqual(rc, 0)
        self.assertIn("relaytool-endpoint is running (pid %d)" % run.pid, out)
        self.assertIn("state:         idle", out)

        # a second supervisor for the same directory refuses to start, and so
        # does a setup that would rewrite the credentials under it
        for args in (["run"], ["setup", "CODE-2"]):
            rc, _, err = ws.command(*args, env=env)
            self.assertEqual(rc, 4, err)
            self.assertIn("another relaytool-endpoint (pid %d) already runs for %s"
                          % (run.pid, ws.config_dir), err)

        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())
        self.assertFalse(alive(tool["pid"]))
        self.assertIn("stdin closed; parent died?", run.text())  # stopped its way
        self.assertEqual(run.states()[-1], "stopped: on request (SIGTERM)")
        rc, status = ws.status()
        self.assertEqual((rc, status["state"], status["running"], status["exit_status"]),
                         (3, "stopped", False, 0), status)
        self.assertEqual(len(ws.tool_runs()), 1)

        kinds = notify.kinds()
        self.assertEqual(kinds[0], "READY", notify.messages)
        self.assertEqual(kinds[-1], "STOPPING", notify.messages)
        self.assertEqual(set(kinds[1:-1]), {"STATUS"}, notify.messages)
        self.assertIn("STATUS=idle", notify.messages)

    def test_retries_with_growing_delays_then_stops_for_good(self):
        ws = StandinWorkspace(self, [
            {"stderr": [UNREACHABLE]}, {"stderr": [UNREACHABLE]}, {"stderr": [UNREACHABLE]},
            {"stdout": [CONNECTED, IDLE], "stderr": [LOST]},
            {"stderr": ["[ssh stderr] Connection closed by 127.0.0.1 port 9", HOST_KEY]},
            {"stdout": [CONNECTED, IDLE], "then": "wait"},  # must never be reached
        ])
        run = ws.start("run", env=ws.env(RELAYTOOL_BACKOFF_MIN="0.05",
                                         RELAYTOOL_BACKOFF_MAX="1"))
        self.assertEqual(run.wait_exit(), 13, run.report())
        self.assertEqual(len(ws.tool_runs()), 5)
        waits = [s for s in run.states() if s.startswith("waiting to reconnect")]
        self.assertEqual(len(waits), 4, run.report())
        delays = [float(s.split("(in ")[1].split(" s)")[0]) for s in waits]
        self.assertEqual(delays, sorted(delays), delays)
        self.assertLess(delays[0], delays[-1])
        self.assertIn("after relay-unreachable: " + UNREACHABLE, waits[0])
        self.assertIn("after connection-lost: " + LOST, waits[3])

        rc, status = ws.status()
        self.assertEqual((rc, status["state"], status["exit_status"], status["restarts"]),
                         (3, "stopped", 13, 4), status)
        self.assertEqual((status["last_failure"]["class"], status["last_failure"]["line"]),
                         ("host-key", HOST_KEY))
        self.assertTrue(status["reason"].startswith("host-key: "), status["reason"])

    def test_each_final_class_stops_at_once_with_its_status(self):
        ws = StandinWorkspace(self)
        # the exit status and the signal reach the decision, not only the lines
        cases = [
            ({"stderr": ["Env var 'HVN_OS' must be set"], "exit": 2}, 10, "setting"),
            ({"stderr": ["src/relaytool:267: failed precondition 'nr_ftp_active >= 0'"],
              "signal": signal.SIGABRT}, 16, "internal"),
        ]
        for step, status, name in cases:
            with self.subTest(name):
                ws.forget_runs()
                ws.set_plan([step, {"then": "wait"}])
                rc, _, err = ws.command("run")
                self.assertEqual(rc, status, err)
                self.assertEqual(len(ws.tool_runs()), 1, err)
                self.assertEqual(ws.state()["last_failure"]["class"], name)
                self.assertIn("state: stopped: %s: " % name, err)

    def test_a_tool_that_ignores_its_stdin_is_killed(self):
        ws = StandinWorkspace(self, [{"stdout": [CONNECTED, IDLE], "then": "ignore"}])
        run = ws.start("run")
        tool = run.wait_state(lambda s: s["state"] == "idle", "idle")["tool_pid"]
        asked = time.monotonic()
        run.send_signal(signal.SIGINT)
        self.assertEqual(run.wait_exit(), 0, run.report())
        self.assertGreater(time.monotonic() - asked, 4, "killed before its grace time")
        self.assertFalse(alive(tool))

    def test_stop_while_waiting_to_reconnect(self):
        ws = StandinWorkspace(self, [{"stderr": [UNREACHABLE]}])
        run = ws.start("run", env=ws.env(RELAYTOOL_BACKOFF_MIN="600",
                                         RELAYTOOL_BACKOFF_MAX="600"))
        state = run.wait_state(lambda s: s["state"] == "waiting", "waiting")
        self.assertGreaterEqual(state["delay"], 600)
        self.assertIsNotNone(state["next_attempt"])
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())
        self.assertEqual(ws.state()["state"], "stopped")

    def test_setup(self):
        ws = StandinWorkspace(self, [{"stderr": ["HVN V2 setup complete"], "exit": 0}])
        # the default configuration directory is made, private
        xdg = os.path.join(ws.root, "xdg")
        env = ws.env(HVN_CONFIG_DIR=None, XDG_CONFIG_HOME=xdg)
        rc, out, err = ws.command("setup", "CODE-1", env=env)
        self.assertEqual(rc, 0, err)
        self.assertEqual(out, "relaytool-endpoint: the endpoint is set up; its credentials "
                              "are in %s/relaytool\n" % xdg)
        self.assertEqual(stat.S_IMODE(os.stat(xdg + "/relaytool").st_mode), 0o700)
        self.assertEqual(ws.tool_runs()[0]["env"]["HVN_SETUP_CODE"], "CODE-1")

        ws.set_plan([{"stderr": ["Relay server error: setup code already used"]}])
        rc, out, err = ws.command("setup", "CODE-1", env=env)
        self.assertEqual((rc, out), (12, ""), err)
        self.assertIn("relaytool-endpoint: the endpoint is not set up: relay-error, the relay "
                      "answered with an error: Relay server error: setup code already used\n",
                      err)


if __name__ == "__main__":
    unittest.main()
