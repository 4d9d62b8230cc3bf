#!/usr/bin/python3
"""Figures for relaytool-endpoint (needs root; not part of the test suite,
whose tests never time anything):

  1. whether a transfer's connection lives through a link that is down
     for three seconds; how long after the network comes back a transfer
     reaches the endpoint again: after its address changed (the tunnel's TCP connection dies
     without a word), after the link was down for a while, and after a
     sleep (link down, the relay's side of the connection gone, then
     logind's PrepareForSleep(false)), once on the same network and once
     with a new address; for this build and for another
     (--old: a relaytool-endpoint built from an earlier commit), on the
     lab (lab/: two network namespaces, the local relay, the endpoint's
     user, the GridFTP server the tool starts);
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
import subprocess
import sys
import time

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path.insert(0, REPO)

import lab  # noqa: E402
from lab import sshd_fixture  # noqa: E402
from lab.endpoint import FORWARD  # noqa: E402

# a transfer gets through: the GridFTP server behind the forward greets
PROBE = """import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])), 1)
s.settimeout(1)
sys.exit(0 if s.makefile("rb").readline().startswith(b"220 ") else 1)
"""


def switches(pid):
    with open("/proc/%d/status" % pid) as f:
        fields = dict(line.split(":", 1) for line in f)
    return (int(fields["voluntary_ctxt_switches"]) + int(fields["nonvoluntary_ctxt_switches"]),
            fields["VmRSS"].strip())


class Bench:
    def __init__(self, the_lab, limit):
        self.lab, self.limit = the_lab, limit
        self.logind = the_lab.logind()
        self.endpoint = the_lab.endpoint(DBUS_SYSTEM_BUS_ADDRESS=self.logind.address,
                                         RELAYTOOL_BACKOFF_MIN="1", RELAYTOOL_BACKOFF_MAX="300")
        done = self.endpoint.setup("bench")
        if done.returncode:
            raise SystemExit("setup failed: " + done.stdout + done.stderr)

    def transfer_works(self):
        """Through the relay's port of the latest forward the endpoint got."""
        ports = re.findall(FORWARD, self.endpoint.log())
        return bool(ports) and self.lab.run(["/usr/bin/python3", "-c", PROBE, ports[-1]],
                                            ns="relay", account=None).returncode == 0

    def until_transfers(self, since):
        """Seconds from `since` until a transfer gets through, or None."""
        while time.monotonic() - since < self.limit:
            if self.transfer_works():
                return time.monotonic() - since
            time.sleep(0.1)
        return None

    def start(self, binary, **start):
        run = self.endpoint.start(program=binary, **start)
        if self.until_transfers(time.monotonic()) is None:
            raise SystemExit("%s never connected\n%s" % (binary, run.report()))
        return run

    def stop(self):
        self.endpoint.stop()
        self.lab.kill_all()

    def scenarios(self, binary, address):
        """{scenario: seconds} for one build; `address` is the endpoint's
        address to change to."""
        figures, net = {}, self.lab.net
        self.start(binary)
        # a blip with a transfer's connection open: is the tunnel kept?
        held, _ = lab.gridftp.hold(self.lab, re.findall(FORWARD, self.endpoint.log())[-1])
        before = self.endpoint.log_size()
        net.link("endpoint", up=False)
        time.sleep(3)
        net.link("endpoint", up=True)
        time.sleep(3)
        kept = "starting the tool again" not in self.endpoint.log(before)
        figures["link down 3 s, transfer open"] = "tunnel and transfer kept" if kept else \
            "tool restarted, transfer cut"
        held.stdin.close()
        net.set_address("endpoint", address)
        figures["new address"] = self.until_transfers(time.monotonic())
        net.link("endpoint", up=False)
        time.sleep(5)  # down for a while
        net.link("endpoint", up=True)
        figures["link down 5 s, up"] = self.until_transfers(time.monotonic())
        for woke_up in ("sleep, resume", "sleep, resume, new address"):
            self.logind.prepare_for_sleep(True)
            net.link("endpoint", up=False)
            # asleep: the relay's side of the connection goes, and no word of
            # it reaches the endpoint; the second time it wakes up with a new
            # address, as on another network
            sshd_fixture._signal(sshd_fixture._descendants(self.lab.relay.pid), signal.SIGKILL)
            if woke_up.endswith("address"):
                prefix, host = address.rsplit(".", 1)
                net.set_address("endpoint", "%s.%d" % (prefix, int(host) + 10))
            time.sleep(5)
            net.link("endpoint", up=True)
            back = time.monotonic()
            self.logind.prepare_for_sleep(False)
            figures[woke_up] = self.until_transfers(back)
        self.stop()
        return figures

    def idle(self, binary, seconds, watchdog):
        """(wake-ups per second, WATCHDOG=1 per second, resident memory)
        while connected and idle; the watchdog as systemd sets it up for
        WatchdogSec=2."""
        notify = self.lab.notify("notify-%d-%d" % (len(self.lab.procs), watchdog))
        env = self.endpoint.env(NOTIFY_SOCKET=notify.path)
        if watchdog:
            env["WATCHDOG_USEC"] = "2000000"
        run = self.start(binary, env=env,
                         wrapper=["/bin/sh", "-c", 'export WATCHDOG_PID=$$; exec "$0" "$@"'])
        time.sleep(2)  # let start-up settle
        seen = len(notify.messages())
        before, _ = switches(run.pid)
        time.sleep(seconds)
        after, rss = switches(run.pid)
        pings = sum("WATCHDOG=1" in m for m in notify.messages()[seen:])
        self.stop()
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
    if lab.missing_requirement():
        sys.exit("the benchmark needs " + lab.missing_requirement())
    the_lab = lab.Lab(heartbeat=1)
    try:
        bench = Bench(the_lab, args.limit)
        builds = [("this build", the_lab.programs["endpoint"])]
        builds += [("old", the_lab.stage.program(args.old, "old-relaytool-endpoint"))] if args.old else []
        for n, (name, binary) in enumerate([] if args.no_scenarios else builds):
            for scenario, took in bench.scenarios(binary, "10.77.0.%d" % (3 + n)).items():
                print("%-10s %-29s %s" % (name, scenario, took if isinstance(took, str) else
                                          "a transfer gets through again after " +
                                          ("%.2f s" % took if took is not None else
                                           "more than %.0f s" % args.limit)), flush=True)
        for name, binary in builds:
            for watchdog in (False, True):
                rate, pings, rss = bench.idle(binary, args.quiet_seconds, watchdog)
                print("%-10s connected and idle%s: %.3f wake-ups/s (%.2f WATCHDOG=1/s), "
                      "resident %s" % (name, " (WatchdogSec=2)" if watchdog else "", rate,
                                       pings, rss), flush=True)
    finally:
        the_lab.close()
    for commit in (args.before, "HEAD"):
        print("endpoint/ at %s: %d files, %d lines, %d not blank" % ((commit,) + line_counts(commit)))

if __name__ == "__main__":
    main()
