#!/usr/bin/python3
"""Process-level tests of relaytool-endpoint with standin_tool.py in place of
the relay tool: bad input, what the tool is given, waiting for what is not
there yet, the lock, the state and the service-manager messages.  No relay
and no root needed; test_endpoint_relay.py and test_endpoint_network.py
have the real thing."""

import json
import os
import signal
import stat
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))

from endpoint_harness import STANDIN_TOOL, NotifySocket, Workspace, alive  # noqa: E402

CONNECTED = ("RELAYTOOL=1 status=CONNECTED ep_display_name=Lab%20PC%20%232 "
             "web_ux_url=https%3A%2F%2Frelay.example%2Fep%3Fid%3D7")
IDLE = "RELAYTOOL=1 status=IDLE"


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
        return super().env(**dict(dict(
            RELAYTOOL_PATH=STANDIN_TOOL, STANDIN_PLAN=self.plan_path,
            HVN_RELAY_SERVER="127.0.0.1:9", HVN_PDEATH_PATH="/bin/true",
            HVN_SSH_PATH="/bin/true"), **settings))

    def tool_runs(self):
        try:
            with open(self.plan_path + ".runs") as f:
                return [json.loads(line) for line in f]
        except FileNotFoundError:
            return []


class BadInput(unittest.TestCase):
    """Each fault gets one clear line and status 2 before any tool starts."""

    def assertRefused(self, ws, args, words, env=None):
        rc, out, err = ws.command(*args, env=env)
        self.assertEqual((rc, ws.tool_runs()), (2, []), err)
        self.assertIn(words, err)
        return err

    def test_command_line(self):
        ws = StandinWorkspace(self)
        for args, words in ((["start"], "unknown command 'start'"), ([], "no command"),
                            (["setup", "CODE-1"], "setup reads the code from standard input"),
                            (["run", "now"], "too many arguments"),
                            (["run", "--json"], "--json goes with status only"),
                            (["status", "--debug"], "--debug goes with setup and run only"),
                            (["run", "--env"], "--env needs a file"),
                            (["run", "--bogus"], "unknown option --bogus")):
            self.assertIn("usage: relaytool-endpoint", self.assertRefused(ws, args, words))

    def test_environment_files_and_malformed_settings(self):
        ws = StandinWorkspace(self)
        bad = os.path.join(ws.root, "bad.env")
        with open(bad, "w") as f:
            f.write("# settings\nHVN_RELAY_SERVER=relay\nHVN_GRIDFTP_PATH '/g'\n")
        self.assertRefused(ws, ["--env", bad, "run"], "%s:3: expected KEY=VALUE" % bad)
        # the default file is read too, when it exists
        os.makedirs(os.path.join(ws.home, ".config", "relaytool"))
        with open(os.path.join(ws.home, ".config", "relaytool", "endpoint.env"), "w") as f:
            f.write("HVN_USER='unclosed\n")
        self.assertRefused(ws, ["status"], "endpoint.env:1: unterminated single quote")
        for settings, words in ((dict(HVN_RELAY_SERVER=None), "HVN_RELAY_SERVER: not set"),
                                (dict(HVN_RELAY_SERVER="[::1]:22"), "is not HOST or HOST:PORT"),
                                (dict(HVN_FTP_PORT="x"), "HVN_FTP_PORT: 'x' is not")):
            err = self.assertRefused(ws, ["--env", os.devnull, "run"], words,
                                     env=ws.env(**settings))
            self.assertEqual(len(err.splitlines()), 1, err)


class Supervision(unittest.TestCase):

    def test_tool_setting_descriptors_state_lock_and_stop(self):
        ws = StandinWorkspace(self, [{"stdout": [CONNECTED, IDLE], "then": "wait"}])
        env_file = os.path.join(ws.root, "endpoint.env")
        with open(env_file, "w") as f:
            f.write("# the environment wins over the file\n"
                    "HVN_USER=\"file user\"\nHVN_PROTOCOL_VERSION=2\nHVN_OS=FileOS\n")
        rc, status = ws.status()  # nothing has run here yet
        self.assertEqual((rc, status["state"], status["running"]), (3, "stopped", False))
        notify = NotifySocket(self, ws.root)
        env = ws.env(HVN_USER="environment user", HVN_OS="", HVN_SSH_DEBUG="",
                     NOTIFY_SOCKET=notify.path, HVN_DEBUG="1", HVN_SETUP_CODE="not for the tool")
        # a descriptor left open by whoever starts us must not reach the tool
        stray = os.open(ws.root, os.O_RDONLY)
        self.addCleanup(os.close, stray)
        run = ws.start("--env", env_file, "run", env=env, pass_fds=(stray,))
        state = run.wait_state(lambda s: s["state"] == "idle", "idle")
        self.assertEqual((state["display_name"], state["web_url"], state["last_failure"]),
                         ("Lab PC #2", "https://relay.example/ep?id=7", None))
        self.assertIn("HVN_DEBUG is not passed on", run.text())

        (tool,) = ws.tool_runs()
        self.assertEqual((tool["pid"], tool["fds"], tool["pgid"]),
                         (state["tool_pid"], [0, 1, 2], tool["pid"]))
        self.assertTrue(tool["stdin"].startswith("pipe:"), tool["stdin"])
        tool_env = tool["env"]
        self.assertEqual((tool_env["HVN_USER"], tool_env["HVN_OS"], tool_env["HVN_FTP_PORT"]),
                         ("environment user", "FileOS", "0"))
        self.assertEqual(tool_env["HVN_PROTOCOL_VERSION"], "2")
        for private in ("NOTIFY_SOCKET", "HVN_SETUP_CODE", "RELAYTOOL_PATH", "HVN_DEBUG",
                        "HVN_SSH_DEBUG"):  # the last: empty means unset
            self.assertNotIn(private, tool_env)
        rc, out, _ = ws.command("status")
        self.assertEqual(rc, 0)
        self.assertIn("relaytool-endpoint is running (pid %d)\n" % run.pid, out)
        self.assertIn("state:         idle\n", out)

        # a second supervisor for the same directory refuses to start, and so
        # does a setup that would rewrite the credentials under it
        for args in (["run"], ["setup"]):
            rc, _, err = ws.command(*args, env=env, input="CODE-2\n")
            self.assertEqual(rc, 4, err)
            self.assertIn("another relaytool-endpoint (pid %d) already runs" % run.pid, err)

        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())
        self.assertFalse(alive(tool["pid"]))
        self.assertIn("stdin closed; parent died?", run.text())  # stopped its way
        self.assertEqual(run.states()[-1], "stopped: on request (SIGTERM)")
        rc, status = ws.status()
        self.assertEqual((rc, status["state"], status["exit_status"]), (3, "stopped", 0))
        kinds = notify.kinds()
        self.assertEqual((kinds[0], kinds[-1], set(kinds[1:-1])), ("READY", "STOPPING", {"STATUS"}))
        self.assertIn("STATUS=idle", notify.messages)

    def test_waits_for_what_is_not_there_yet(self):
        # At boot: the environment file on a home not yet mounted, then the
        # GridFTP server not yet installed, then the shared directory; the
        # server's configuration is written once all is there.
        ws = StandinWorkspace(self, [{"stdout": [CONNECTED, IDLE], "then": "wait"}])
        env_file = os.path.join(ws.root, "later", "endpoint.env")
        server, shared = os.path.join(ws.root, "gridftp-server"), os.path.join(ws.root, "shared")
        run = ws.start("--env", env_file, "run", env=ws.env(HVN_GRIDFTP_PATH=None))
        run.wait_line(r"^state: waiting for cannot read the environment file %s" % env_file)
        os.mkdir(os.path.dirname(env_file))
        with open(env_file, "w") as f:
            f.write("HVN_GRIDFTP_PATH=%s\nRELAYTOOL_SHARED_DIRS=%s\n" % (server, shared))
        state = run.wait_state(lambda s: s["state"] == "waiting", "waiting for the server")
        self.assertIn("for HVN_GRIDFTP_PATH: cannot use %s" % server, state["reason"])
        self.assertEqual((state["last_failure"]["class"], ws.tool_runs()), ("not-ready", []))
        os.symlink("/bin/true", server)
        run.wait_line(r"^state: waiting for RELAYTOOL_SHARED_DIRS: cannot share %s: No such file"
                      % shared)
        self.assertFalse(os.path.exists(ws.path("gridftp.conf")))
        os.mkdir(shared)
        run.wait_state(lambda s: s["state"] == "idle", "idle")
        with open(ws.path("gridftp.conf")) as f:
            self.assertIn('restrict_paths "%s"' % shared, f.read())
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())

    def test_setup_reads_the_code_from_standard_input(self):
        ws = StandinWorkspace(self, [{"stderr": ["HVN V2 setup complete"], "exit": 0},
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


if __name__ == "__main__":
    unittest.main()
