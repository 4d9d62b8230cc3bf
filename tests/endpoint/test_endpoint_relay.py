#!/usr/bin/python3
"""relaytool-endpoint end to end: the real tool (built to trust the test
relay), pdeath, Debian's ssh and sshd (relay/sshd_fixture.py) with the
reference relay behind it; ../e2e/test_gridftp.py adds the GridFTP server and
transfers.  Needs root; without it every test is skipped."""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(HERE)), "relay"))

import sshd_fixture  # noqa: E402
from endpoint_harness import (DEFAULT_TOOL, TESTRELAY_TOOL, NotifySocket,  # noqa: E402
                              Workspace, alive, processes_mentioning, wait_until)

SKIP = sshd_fixture.skip_reason()
FORWARD = re.compile(r"^tool: \[ssh stderr\] Allocated port (\d+) for remote forward", re.M)


def note(text):
    """A figure for the reader of the test log; never a pass condition."""
    print("  [figure] " + text, file=sys.stderr, flush=True)


class RelayWorkspace(Workspace):
    def __init__(self, test, fixture):
        super().__init__(test)
        self.fixture = fixture

    def env(self, **settings):
        base = dict(RELAYTOOL_PATH=TESTRELAY_TOOL, HVN_SSH_PATH="/usr/bin/ssh",
                    HVN_RELAY_SERVER="127.0.0.1:%d" % self.fixture.port,
                    RELAYTOOL_BACKOFF_MIN="0.2", RELAYTOOL_BACKOFF_MAX="1.6")
        base.update(settings)
        return super().env(**base)

    def set_up(self, test, code):
        self.fixture.add_code(code)
        rc, out, err = self.command("setup", code)
        test.assertEqual(rc, 0, out + err + self.fixture.logs())
        test.assertIn("the endpoint is set up", out)

    def ssh_pids(self):
        return [p for p, name in processes_mentioning(self.config_dir).items() if name == "ssh"]


def new_fixture(test, **kw):
    fixture = sshd_fixture.RelayFixture(directory=tempfile.mkdtemp(prefix="relay-sshd-"),
                                        heartbeat=1, **kw)
    test.addCleanup(shutil.rmtree, fixture.dir, True)
    test.addCleanup(fixture.stop)
    return fixture.start()


@unittest.skipIf(SKIP, SKIP)
class EndpointThroughRelay(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.fixture = sshd_fixture.RelayFixture(heartbeat=1)
        cls.fixture.start()

    @classmethod
    def tearDownClass(cls):
        cls.fixture.stop()

    def test_setup_run_and_stop(self):
        ws = RelayWorkspace(self, self.fixture)
        ws.set_up(self, "endpoint-run")
        notify = NotifySocket(self, ws.root)
        started = time.monotonic()
        run = ws.start("run", env=ws.env(NOTIFY_SOCKET=notify.path))
        run.wait_state(lambda s: s["state"] in ("connected", "idle"), "connected")
        note("run to connected: %.2f s" % (time.monotonic() - started))
        state = run.wait_state(lambda s: s["state"] == "idle", "idle")
        self.assertEqual(state["display_name"], "Test Endpoint")
        self.assertEqual(ws.status()[1]["state"], "idle")
        run.wait_line(FORWARD.pattern)

        tool, ssh = ws.state()["tool_pid"], ws.ssh_pids()
        self.assertEqual(len(ssh), 1, run.report())
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())
        self.assertTrue(wait_until(lambda: not alive(tool) and not alive(ssh[0])),
                        "still running: %s" % processes_mentioning(ws.config_dir))
        self.assertEqual(processes_mentioning(ws.config_dir), {})
        kinds = notify.kinds()
        self.assertEqual((kinds[0], kinds[-1]), ("READY", "STOPPING"), notify.messages)
        self.assertEqual(set(kinds[1:-1]), {"STATUS"}, notify.messages)
        self.assertIn("STATUS=idle", notify.messages)
        self.assertEqual(ws.state()["restarts"], 0)

    def test_relay_goes_away_and_comes_back(self):
        relay = new_fixture(self)
        ws = RelayWorkspace(self, relay)
        ws.set_up(self, "endpoint-comeback")
        run = ws.start("run")
        first_tool = run.wait_state(lambda s: s["state"] == "idle", "idle")["tool_pid"]

        relay.stop()
        waits = lambda: [s for s in run.states() if s.startswith("waiting to reconnect")]
        # With these bounds the first three delays are 0.2-0.4, 0.4-0.8 and
        # 0.8-1.6 s: they grow whatever the jitter draws; later ones stay
        # between 0.8 and 1.6.
        self.assertTrue(wait_until(lambda: len(waits()) >= 3), run.report())
        delays = [float(re.search(r"\(in ([\d.]+) s\)", s).group(1)) for s in waits()[:3]]
        self.assertEqual(delays, sorted(delays), run.report())
        self.assertLess(delays[0], delays[-1])
        self.assertIn("after connection-lost", waits()[0])
        self.assertIn("after relay-unreachable: [ssh stderr] ssh: connect to host 127.0.0.1 "
                      "port %d" % relay.port, waits()[1])

        relay.requested_port = relay.port
        relay.start()
        back = time.monotonic()
        in_force = ws.state().get("delay")
        state = run.wait_state(lambda s: s["state"] == "idle" and s["tool_pid"] != first_tool,
                               "idle again")
        note("reconnect after the relay returned: %.2f s, back-off then in force %.2f s"
             % (time.monotonic() - back, in_force or 0))
        self.assertGreaterEqual(state["restarts"], 3)
        self.assertIsNone(run.poll())

        # killed outright, the supervisor takes the tool and ssh with it
        tool, ssh = state["tool_pid"], ws.ssh_pids()
        self.assertEqual(len(ssh), 1, run.report())
        killed = time.monotonic()
        run.kill()
        run.wait()
        self.assertTrue(wait_until(lambda: not alive(tool) and not alive(ssh[0])),
                        "still running: %s" % processes_mentioning(ws.config_dir))
        note("tool and ssh gone %.2f s after the supervisor's SIGKILL"
             % (time.monotonic() - killed))

    def test_refusals_stop_for_good(self):
        ws = RelayWorkspace(self, self.fixture)
        ws.set_up(self, "endpoint-refused")

        # a relay that does not know this endpoint answers with an error
        strange = new_fixture(self)
        ws.fixture = strange
        rc, _, err = ws.command("run")
        self.assertEqual(rc, 12, err)
        failure = ws.state()["last_failure"]
        self.assertEqual(failure["class"], "relay-error")
        self.assertRegex(failure["line"], "^Relay server error: unknown endpoint id ")
        self.assertEqual(ws.state()["restarts"], 0)
        with open(strange.relay_log) as f:
            self.assertEqual(f.read().count("connection from"), 1)

        # a relay with another host key
        key = os.path.join(ws.root, "other_host_key")
        subprocess.run(["ssh-keygen", "-q", "-t", "rsa", "-b", "2048", "-N", "", "-f", key],
                       check=True)
        ws.fixture = new_fixture(self, host_key=key)
        rc, _, err = ws.command("run")
        self.assertEqual(rc, 13, err)
        self.assertEqual(ws.state()["last_failure"]["class"], "host-key", err)
        self.assertIn("state: stopped: host-key: ", err)
        rc, status = ws.status()
        self.assertEqual((rc, status["state"], status["exit_status"]), (3, "stopped", 13))
        self.assertEqual(processes_mentioning(ws.config_dir), {})


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
