#!/usr/bin/python3
"""Figures for relaytool-endpoint (needs root; not part of the test suite,
whose tests never time anything):

  1. how long after the network comes back a transfer reaches the endpoint
     again: after its address changed (the tunnel's TCP connection dies
     without a word), after the link was down for a while, and after a
     sleep (link down, the relay's side of the connection gone, then
     logind's PrepareForSleep(false)), once on the same network and once
     with a new address; for this build and for another
     (--old: a relaytool-endpoint built from an earlier commit), on the same
     network of two namespaces (tests/netns.py) with the local relay;
  2. the supervisor's own wake-ups per second while connected and idle,
     without and with a watchdog, and its resident memory;
  3. the line counts of endpoint/ (--before: a commit to compare with).

    python3 bench/endpoint_figures.py [--old BINARY] [--before COMMIT]
                                      [--quiet-seconds S] [--limit S] [--no-scenarios]

The old build, e.g.: git archive COMMIT | tar -x -C /tmp/old && cmake -S
/tmp/old -B /tmp/old/build && cmake --build /tmp/old/build --target
relaytool-endpoint.
"""

import argparse
import os
import re
import signal
import socket
import subprocess
import sys
import time
import unittest

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path.insert(0, os.path.join(REPO, "tests", "endpoint"))
sys.path.insert(0, os.path.join(REPO, "tests"))

import endpoint_harness  # noqa: E402
import netns  # noqa: E402
from endpoint_harness import RelayWorkspace, new_fixture, sshd_fixture  # noqa: E402
from test_endpoint_network import Logind  # noqa: E402

PROBE = """import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])), 1)
s.settimeout(1)
s.sendall(b"GET blob\\n")
sys.exit(0 if s.makefile("rb").readline().startswith(b"OK") else 1)
"""


def switches(pid):
    with open("/proc/%d/status" % pid) as f:
        fields = dict(line.split(":", 1) for line in f)
    return (int(fields["voluntary_ctxt_switches"]) + int(fields["nonvoluntary_ctxt_switches"]),
            fields["VmRSS"].strip())


class Bench:
    def __init__(self, case, limit):
        self.lab = netns.Lab()
        case.addCleanup(self.lab.close)
        self.relay = new_fixture(case, address=self.lab.relay_addr, netns=self.lab.relay)
        self.ws = RelayWorkspace(case, self.relay)
        self.logind = Logind(case, self.ws.root)
        self.env = self.ws.env(DBUS_SYSTEM_BUS_ADDRESS=self.logind.address,
                               RELAYTOOL_BACKOFF_MIN="1", RELAYTOOL_BACKOFF_MAX="300")
        self.inside = self.lab.argv(self.lab.endpoint, [])
        self.limit = limit
        self.ws.set_up(case, "bench", env=self.env, prefix=self.inside)

    def transfer_works(self):
        """Through the relay's port of the latest forward the endpoint got."""
        ports = re.findall(r"Allocated port (\d+) for remote forward", self.run.text())
        return bool(ports) and self.lab.run(self.lab.relay, [sys.executable, "-c", PROBE,
                                                             ports[-1]]).returncode == 0

    def until_transfers(self, since):
        """Seconds from `since` until a transfer gets through, or None."""
        while time.monotonic() - since < self.limit:
            if self.transfer_works():
                return time.monotonic() - since
            time.sleep(0.1)
        return None

    def start(self, binary):
        endpoint_harness.ENDPOINT = binary
        self.run = self.ws.start("run", env=self.env, prefix=self.inside)
        if self.until_transfers(time.monotonic()) is None:
            raise SystemExit("%s never connected\n%s" % (binary, self.run.report()))
        return self.run

    def scenarios(self, binary, address):
        """{scenario: seconds} for one build; `address` is the endpoint's
        address to change to."""
        figures = {}
        run = self.start(binary)
        self.lab.set_address(self.lab.endpoint, address)
        figures["new address"] = self.until_transfers(time.monotonic())
        self.lab.link(self.lab.endpoint, up=False)
        time.sleep(5)  # down for a while
        self.lab.link(self.lab.endpoint, up=True)
        figures["link down 5 s, up"] = self.until_transfers(time.monotonic())
        for woke_up in ("sleep, resume", "sleep, resume, new address"):
            self.logind.prepare_for_sleep(True)
            self.lab.link(self.lab.endpoint, up=False)
            # asleep: the relay's side of the connection goes, and no word of
            # it reaches the endpoint; the second time it wakes up with a new
            # address, as on another network
            sshd_fixture._signal(sshd_fixture._descendants(self.relay.pid), signal.SIGKILL)
            if woke_up.endswith("address"):
                net, host = address.rsplit(".", 1)
                self.lab.set_address(self.lab.endpoint, "%s.%d" % (net, int(host) + 10))
            time.sleep(5)
            self.lab.link(self.lab.endpoint, up=True)
            back = time.monotonic()
            self.logind.prepare_for_sleep(False)
            figures[woke_up] = self.until_transfers(back)
        run.terminate()
        run.wait()
        self.ws.kill_leftovers()
        return figures

    def idle(self, binary, seconds, watchdog):
        """(wake-ups per second, WATCHDOG=1 per second, resident memory)
        while connected and idle; the watchdog as systemd sets it up for
        WatchdogSec=2."""
        endpoint_harness.ENDPOINT = "/bin/sh"
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        sock.bind(os.path.join(self.ws.root, "notify-%d" % len(self.ws.runs)))
        sock.settimeout(0.5)
        env = dict(self.env, NOTIFY_SOCKET=sock.getsockname())
        if watchdog:
            env["WATCHDOG_USEC"] = "2000000"
        run = self.run = self.ws.start("-c", 'export WATCHDOG_PID=$$; exec "$0" run', binary,
                                       env=env, prefix=self.inside)
        self.until_transfers(time.monotonic())
        time.sleep(2)  # let start-up settle
        before, _ = switches(run.pid)
        pings, start = 0, time.monotonic()
        while time.monotonic() - start < seconds:  # read, as systemd would
            try:
                pings += b"WATCHDOG=1" in sock.recv(4096)
            except socket.timeout:
                pass
        after, rss = switches(run.pid)
        run.terminate()
        run.wait()
        sock.close()
        self.ws.kill_leftovers()
        return (after - before) / seconds, pings / seconds, rss


def line_counts(commit):
    files = subprocess.run(["git", "-C", REPO, "ls-tree", "--name-only", commit, "endpoint/"],
                           capture_output=True, text=True, check=True).stdout.split()
    lines = [subprocess.run(["git", "-C", REPO, "show", "%s:%s" % (commit, f)],
                            capture_output=True, text=True, check=True).stdout.splitlines()
             for f in files]
    return (len(files), sum(map(len, lines)), sum(1 for ls in lines for l in ls if l.strip()))


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--old", help="another relaytool-endpoint to compare with")
    p.add_argument("--before", default="b0da9c2", help="commit for the line counts")
    p.add_argument("--quiet-seconds", type=float, default=30)
    p.add_argument("--limit", type=float, default=240, help="longest wait for a transfer")
    p.add_argument("--no-scenarios", action="store_true", help="only figures 2 and 3")
    args = p.parse_args()
    if sshd_fixture.skip_reason() or netns.skip_reason():
        sys.exit(sshd_fixture.skip_reason() or netns.skip_reason())
    case = unittest.TestCase()
    try:
        bench = Bench(case, args.limit)
        builds = [("this build", endpoint_harness.ENDPOINT)]
        builds += [("old", args.old)] if args.old else []
        for n, (name, binary) in enumerate([] if args.no_scenarios else builds):
            for scenario, took in bench.scenarios(binary, "10.77.0.%d" % (3 + n)).items():
                print("%-10s %-27s a transfer gets through again after %s" % (
                    name, scenario, "%.2f s" % took if took is not None else
                    "more than %.0f s" % args.limit), flush=True)
        for name, binary in builds:
            for watchdog in (False, True):
                rate, pings, rss = bench.idle(binary, args.quiet_seconds, watchdog)
                print("%-10s connected and idle%s: %.3f wake-ups/s (%.2f WATCHDOG=1/s), "
                      "resident %s" % (name, " (WatchdogSec=2)" if watchdog else "", rate,
                                       pings, rss), flush=True)
    finally:
        case.doCleanups()
    for commit in (args.before, "HEAD"):
        print("endpoint/ at %s: %d files, %d lines, %d not blank" % ((commit,) + line_counts(commit)))

if __name__ == "__main__":
    main()
