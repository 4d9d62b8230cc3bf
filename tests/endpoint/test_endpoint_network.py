#!/usr/bin/python3
"""relaytool-endpoint on a network that changes: the endpoint in a network
namespace of its own, joined to the relay's by a veth pair (tests/netns.py),
the real tool, ssh and sshd, and a private system bus (dbus-daemon) on which
the test stands in for logind.  After the link goes down and up, after the
address changes and after a resume, the endpoint is connected again without
waiting for ssh's keep-alives (two minutes): the tool is started again at
once, never after a failure.  Needs root."""

import os
import subprocess
import sys
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.dirname(HERE))

import netns  # noqa: E402
from endpoint_harness import RelayWorkspace, new_fixture, sshd_fixture  # noqa: E402

SKIP = sshd_fixture.skip_reason() or netns.skip_reason()
BUS_CONFIG = """<busconfig>
  <listen>unix:path=%s</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
  </policy>
</busconfig>
"""

class Logind:
    """A dbus-daemon of the test's own, and the name org.freedesktop.login1
    on it, from which PrepareForSleep is sent."""

    def __init__(self, test, directory):
        import dbus  # Debian's python3-dbus
        self.dbus = dbus
        config = os.path.join(directory, "bus.conf")
        with open(config, "w") as f:
            f.write(BUS_CONFIG % os.path.join(directory, "system_bus_socket"))
        self.daemon = subprocess.Popen(["dbus-daemon", "--config-file=" + config, "--nofork",
                                        "--print-address=1"], stdout=subprocess.PIPE,
                                       stderr=subprocess.DEVNULL, text=True)
        test.addCleanup(self.daemon.wait)
        test.addCleanup(self.daemon.terminate)
        with self.daemon.stdout:
            self.address = self.daemon.stdout.readline().strip()
        self.bus = dbus.bus.BusConnection(self.address)
        test.addCleanup(self.bus.close)
        self.bus.request_name("org.freedesktop.login1")

    def prepare_for_sleep(self, sleeping):
        message = self.dbus.lowlevel.SignalMessage(
            "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep")
        message.append(sleeping, signature="b")
        self.bus.send_message(message)
        self.bus.flush()


@unittest.skipIf(SKIP, SKIP)
class NetworkAndSleep(unittest.TestCase):

    def test_back_at_once_after_link_address_and_resume(self):
        lab = netns.Lab()
        self.addCleanup(lab.close)
        relay = new_fixture(self, address=lab.relay_addr, netns=lab.relay)
        ws = RelayWorkspace(self, relay)
        logind = Logind(self, ws.root)
        env = ws.env(DBUS_SYSTEM_BUS_ADDRESS=logind.address)
        inside = lab.argv(lab.endpoint, [])
        ws.set_up(self, "endpoint-network", env=env, prefix=inside)
        run = ws.start("run", env=env, prefix=inside)
        run.wait_line("^relaytool-endpoint: following sleep and resume")
        tools = [run.wait_state(lambda s: s["state"] == "idle", "idle")["tool_pid"]]

        def connected_again(reason):
            """The next tool, started at once for `reason`, is logged in."""
            state = run.wait_state(lambda s: s["state"] == "idle" and s["tool_pid"] not in tools,
                                   "idle with a new tool after: " + reason)
            tools.append(state["tool_pid"])
            started = "starting the tool again (restart %d, pid %d): " % (len(tools) - 1, tools[-1])
            self.assertIn(started + reason, run.states(), run.report())
            self.assertIsNone(state["last_failure"], run.report())  # no failure, no back-off

        lab.link(lab.endpoint, up=False)
        run.wait_state(lambda s: s["state"] == "waiting" and "for a route" in s["reason"],
                       "waiting for a route")
        lab.link(lab.endpoint, up=True)
        connected_again("a route to the relay is back (local address 10.77.0.2)")

        lab.set_address(lab.endpoint, "10.77.0.3")
        connected_again("the local address for the relay changed from 10.77.0.2 to 10.77.0.3")

        logind.prepare_for_sleep(True)
        run.wait_line("^relaytool-endpoint: the computer is going to sleep")
        logind.prepare_for_sleep(False)
        connected_again("the computer has resumed")


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
