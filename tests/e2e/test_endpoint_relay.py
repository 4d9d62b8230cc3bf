#!/usr/bin/python3
"""relaytool-endpoint end to end, on the lab (lab/): the real tool (built to
trust the test relay), the watcher, Debian's ssh, sshd with the reference
relay, and the GridFTP server that the tool starts.  Needs root; without it
every test is skipped."""

import os
import re
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__)))))

import lab  # noqa: E402
from lab import gridftp, wait_until  # noqa: E402

SKIP = lab.skip_reason()


@unittest.skipIf(SKIP, SKIP)
class EndpointThroughRelay(unittest.TestCase):
    """One lab for the class; each test has an endpoint of its own, and
    whatever it leaves running is ended."""

    @classmethod
    def setUpClass(cls):
        cls.lab = lab.Lab(heartbeat=1)
        cls.addClassCleanup(cls.lab.close)

    def endpoint(self, name, setup=True, **settings):
        self.addCleanup(self.lab.kill_all)
        endpoint = self.lab.endpoint(name, **settings)
        done = endpoint.setup(name) if setup else None
        if not done:
            return endpoint
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr + self.lab.relay.logs())
        self.assertIn("the endpoint is set up", done.stdout)
        return endpoint

    def assertAllEnded(self, endpoint):
        self.assertTrue(wait_until(lambda: not endpoint.processes()),
                        "still running: %s" % endpoint.processes())

    def test_a_stop_gives_a_worker_in_flight_its_grace(self):
        notify = self.lab.notify()
        ep = self.endpoint("stop")
        # as systemd runs it, with WatchdogSec=2
        state = ep.start_idle(env=ep.env(NOTIFY_SOCKET=notify.path, WATCHDOG_USEC="2000000"))
        self.assertEqual(state["display_name"], "Test Endpoint")
        _, greeting = gridftp.hold(self.lab, ep.forwarded())
        self.assertRegex(greeting, r"^220 ")
        ep.wait_state(lambda s: s["state"] == "active" and s["workers"] == 1, "active, 1")
        self.assertTrue(wait_until(lambda: "WATCHDOG=1" in notify.messages()), notify.received)

        # A stop while a transfer is in flight (the order of the endpoint's
        # stop is the process tests'): a clean exit, and nothing is left.
        start = ep.log_size()
        self.assertEqual(ep.stop(), 0, ep.details())
        self.assertEqual(re.findall("^state: (.*)$", ep.log(start), re.M),
                         ["stopping: on request (SIGTERM)", "stopped: on request (SIGTERM)"])
        self.assertAllEnded(ep)
        messages = [m for m in notify.messages() if m != "WATCHDOG=1"]
        self.assertTrue(messages[0].startswith("READY=1"), messages)
        self.assertTrue(messages[-1].startswith("STOPPING=1"), messages)
        for text in ("STATUS=idle", "STATUS=active, 1 worker"):
            self.assertIn(text, messages)
        self.assertEqual(ep.state()["restarts"], 0)

    def test_a_full_disk_is_retried_until_there_is_space(self):
        ep = self.endpoint("full disk", setup=False)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m,mode=0700,uid=%d,gid=%d" % (
            self.lab.user.uid, self.lab.user.gid), "tmpfs", ep.config_dir], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", ep.config_dir])
        # the operator's own configuration: never rewritten
        self.lab.user_file(ep.path("gridftp.conf"), "# mine\n")
        done = ep.setup("full disk")
        self.assertEqual(done.returncode, 0, done.stderr)
        # the tool writes these two again at every start
        for name in ("relay-anonymous-key.pem", "relay-known-hosts.txt"):
            os.unlink(ep.path(name))
        with open(ep.path("filler"), "wb") as f:
            with self.assertRaises(OSError):  # until the disk is full
                while True:
                    f.write(b"x" * 65536)
                    f.flush()
        ep.start()
        waiting = "waiting to reconnect after files: Fatal Error: Couldn't write '%s" % ep.path("")
        self.assertTrue(wait_until(lambda: sum(s.startswith(waiting) for s in ep.states()) >= 2),
                        ep.details())
        self.assertIn("No space left on device", ep.states()[-1])
        self.assertIn("cannot write the state file", ep.log())
        os.unlink(ep.path("filler"))
        state = ep.wait_state(lambda s: s["state"] == "idle", "idle once there is space")
        self.assertEqual(state["last_failure"]["class"], "files")
        self.assertGreaterEqual(state["restarts"], 2)

    def test_a_relay_error_is_retried_until_it_passes(self):
        ep = self.endpoint("relay error")
        conf = self.lab.stage.write(os.path.join(self.lab.relay.state_dir, "relay.conf"),
                                    "error_after_login = the relay is being updated\n"
                                    "error_logins = 2\n")  # this endpoint's first two
        self.addCleanup(os.unlink, conf)
        ep.start()
        state = ep.wait_state(lambda s: s["state"] == "idle" and s["restarts"] == 2,
                              "idle once the relay is well")
        self.assertEqual(state["last_failure"]["class"], "relay-error")
        waiting = "waiting to reconnect after relay-error: Relay server error: the relay is " \
                  "being updated"
        states = ep.states()
        self.assertEqual(sum(s.startswith(waiting) for s in states), 2, states)
        self.assertTrue(states[1].startswith("connected to the relay as "), states)  # a login first

        # killed outright, the supervisor takes the tool and ssh with it
        self.assertEqual(len(ep.processes("ssh")), 1, ep.details())
        ep.run.kill()
        ep.run.wait()
        self.assertAllEnded(ep)
        rc, status = ep.status()  # what the file says is not taken for a running endpoint
        self.assertEqual((rc, status["state"], status["tool_pid"]), (3, "stopped", None), status)

    def test_another_host_key_stops_for_good(self):
        key = self.lab.stage.path("other_host_key")
        subprocess.run(["ssh-keygen", "-q", "-t", "rsa", "-b", "2048", "-N", "", "-f", key],
                       check=True)
        other = self.lab.new_relay(host_key=key)
        ep = self.endpoint("host key")
        done = ep.command("run", env=ep.env(HVN_RELAY_SERVER="%s:%d" % (other.address, other.port)))
        self.assertEqual(done.returncode, 13, done.stderr)
        self.assertIn("state: stopped: host-key: ", done.stderr)
        rc, status = ep.status()
        self.assertEqual((rc, status["state"], status["exit_status"], status["restarts"]),
                         (3, "stopped", 13, 0))
        self.assertAllEnded(ep)


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
