#!/usr/bin/python3
"""relaytool-endpoint end to end: the real tool (built to trust the test
relay), pdeath, Debian's ssh and sshd (relay/sshd_fixture.py) with the
reference relay behind it; the GridFTP worker is the stand-in.  Needs root;
without it every test is skipped."""

import os
import re
import signal
import socket
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))

from endpoint_harness import (WAIT, NotifySocket, RelayWorkspace, alive,  # noqa: E402
                              new_fixture, processes_mentioning, sshd_fixture, wait_until)

SKIP = sshd_fixture.skip_reason()
FORWARD = r"^tool: \[ssh stderr\] Allocated port (\d+) for remote forward"


@unittest.skipIf(SKIP, SKIP)
class EndpointThroughRelay(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        cls.fixture = sshd_fixture.RelayFixture(heartbeat=1)
        cls.fixture.start()

    @classmethod
    def tearDownClass(cls):
        cls.fixture.stop()

    def test_a_stop_gives_a_worker_in_flight_its_grace(self):
        ws = RelayWorkspace(self, self.fixture)
        ws.set_up(self, "endpoint-run")
        notify = NotifySocket(self, ws.root)
        run = ws.start("run", env=ws.env(NOTIFY_SOCKET=notify.path))
        state = run.wait_state(lambda s: s["state"] == "idle", "idle")
        self.assertEqual(state["display_name"], "Test Endpoint")
        with open(ws.path("gridftp.conf")) as f:
            self.assertTrue(f.read().startswith("# Written by relaytool-endpoint"))
        port = int(run.wait_line(FORWARD).group(1))
        conn = socket.create_connection(("127.0.0.1", port), WAIT)
        self.addCleanup(conn.close)
        conn.sendall(b"hello\n")
        self.assertEqual(conn.makefile("rb").readline(), b"echo hello\n", run.report())
        run.wait_state(lambda s: s["state"] == "active" and s["workers"] == 1, "active, 1")
        worker = int(os.listdir(ws.workers)[0].split("-")[1].split(".")[0])  # worker-PID.json

        # A stop while a transfer is in flight: the worker gets SIGTERM (it
        # leaves a record) before the tunnel goes, and nothing is left after.
        tool, ssh = ws.state()["tool_pid"], ws.ssh_pids()
        run.send_signal(signal.SIGTERM)
        self.assertEqual(run.wait_exit(), 0, run.report())
        self.assertIn("terminated-%d.json" % worker, os.listdir(ws.workers), run.report())
        self.assertTrue(wait_until(lambda: not any(map(alive, [tool, worker] + ssh))),
                        "still running: %s" % processes_mentioning(ws.config_dir))
        kinds = notify.kinds()
        self.assertEqual((kinds[0], kinds[-1]), ("READY", "STOPPING"), notify.messages)
        for text in ("STATUS=idle", "STATUS=active, 1 worker"):
            self.assertIn(text, notify.messages)
        self.assertEqual(ws.state()["restarts"], 0)

    def test_a_full_disk_is_retried_until_there_is_space(self):
        ws = RelayWorkspace(self, self.fixture)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m,mode=0700", "tmpfs",
                        ws.config_dir], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", ws.config_dir])
        with open(ws.path("gridftp.conf"), "w") as f:  # the operator's: not rewritten
            f.write("# mine\n")
        ws.set_up(self, "endpoint-full-disk")
        # the tool writes these two again at every start
        for name in ("relay-anonymous-key.pem", "relay-known-hosts.txt"):
            os.unlink(ws.path(name))
        filler = ws.path("filler")
        fd = os.open(filler, os.O_WRONLY | os.O_CREAT, 0o600)
        with self.assertRaises(OSError):  # until the disk is full
            while True:
                os.write(fd, b"x" * 65536)
        os.close(fd)
        run = ws.start("run")
        waiting = "waiting to reconnect after files: Fatal Error: Couldn't write '%s" % ws.path("")
        self.assertTrue(wait_until(lambda: sum(s.startswith(waiting) for s in run.states()) >= 2),
                        run.report())
        self.assertIn("No space left on device", run.states()[-1])
        self.assertIn("cannot write the state file", run.text())
        os.unlink(filler)
        state = run.wait_state(lambda s: s["state"] == "idle", "idle once there is space")
        self.assertEqual(state["last_failure"]["class"], "files")
        self.assertGreaterEqual(state["restarts"], 2)

    def test_a_relay_error_is_retried_until_it_passes(self):
        relay = new_fixture(self)
        ws = RelayWorkspace(self, relay)
        ws.set_up(self, "endpoint-relay-error")
        with open(os.path.join(relay.state_dir, "relay.conf"), "w") as f:  # two logins fail
            f.write("error_after_login = the relay is being updated\nerror_logins = 2\n")
        run = ws.start("run")
        state = run.wait_state(lambda s: s["state"] == "idle" and s["restarts"] == 2,
                               "idle once the relay is well")
        self.assertEqual(state["last_failure"]["class"], "relay-error")
        waiting = "waiting to reconnect after relay-error: Relay server error: the relay is " \
                  "being updated"
        states = run.states()
        self.assertEqual(sum(s.startswith(waiting) for s in states), 2, states)
        self.assertTrue(states[1].startswith("connected to the relay as "), states)  # a login first

        # killed outright, the supervisor takes the tool and ssh with it
        tool, ssh = state["tool_pid"], ws.ssh_pids()
        self.assertEqual(len(ssh), 1, run.report())
        run.kill()
        run.wait()
        self.assertTrue(wait_until(lambda: not alive(tool) and not alive(ssh[0])),
                        "still running: %s" % processes_mentioning(ws.config_dir))

    def test_another_host_key_stops_for_good(self):
        ws = RelayWorkspace(self, self.fixture)
        ws.set_up(self, "endpoint-host-key")
        key = os.path.join(ws.root, "other_host_key")
        subprocess.run(["ssh-keygen", "-q", "-t", "rsa", "-b", "2048", "-N", "", "-f", key],
                       check=True)
        ws.fixture = new_fixture(self, host_key=key)
        rc, _, err = ws.command("run")
        self.assertEqual(rc, 13, err)
        self.assertIn("state: stopped: host-key: ", err)
        rc, status = ws.status()
        self.assertEqual((rc, status["state"], status["exit_status"], status["restarts"]),
                         (3, "stopped", 13, 0))
        self.assertEqual(processes_mentioning(ws.config_dir), {})


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
