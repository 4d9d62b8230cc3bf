#!/usr/bin/python3
"""relaytool-endpoint on a network that changes, on the lab (lab/): the
endpoint in a network namespace of its own, the real tool, ssh and sshd, and
a private system bus on which the lab stands in for logind.  After the link
goes down and up, after the address changes and after a resume, the
endpoint is connected again without waiting for ssh's keep-alives (two
minutes): the tool is started again at once, never after a failure.  Needs
root."""

import os
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__)))))

import lab  # noqa: E402

SKIP = lab.skip_reason()


@unittest.skipIf(SKIP, SKIP)
class NetworkAndSleep(unittest.TestCase):

    def test_back_at_once_after_link_address_and_resume(self):
        self.lab = lab.Lab(heartbeat=1)
        self.addCleanup(self.lab.close)
        net, logind = self.lab.net, self.lab.logind()
        ep = self.lab.endpoint(DBUS_SYSTEM_BUS_ADDRESS=logind.address)
        done = ep.setup("network")
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        ep.start()
        ep.wait_log("^relaytool-endpoint: following sleep and resume")
        tools = [ep.wait_state(lambda s: s["state"] == "idle", "idle")["tool_pid"]]

        def connected_again(reason):
            state = ep.wait_state(lambda s: s["state"] == "idle" and s["tool_pid"] not in tools,
                                  "idle with a new tool after: " + reason)
            tools.append(state["tool_pid"])
            started = "starting the tool again (restart %d, pid %d): " % (len(tools) - 1, tools[-1])
            self.assertIn(started + reason, ep.states(), ep.details())
            self.assertIsNone(state["last_failure"], ep.details())  # no failure, no back-off

        net.link("endpoint", up=False)
        ep.wait_state(lambda s: s["state"] == "waiting" and "for a route" in s["reason"],
                      "waiting for a route")
        net.link("endpoint", up=True)
        connected_again("a route to the relay is back (local address 10.77.0.2)")

        net.set_address("endpoint", "10.77.0.3")
        connected_again("the local address for the relay changed from 10.77.0.2 to 10.77.0.3")

        logind.prepare_for_sleep(True)
        ep.wait_log("^relaytool-endpoint: the computer is going to sleep")
        logind.prepare_for_sleep(False)
        connected_again("the computer has resumed")


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
