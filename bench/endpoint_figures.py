#!/usr/bin/python3
"""Figures for relaytool-endpoint through the local relay (needs root; not
part of the test suite, whose tests never time anything):

  1. time from start to connected, the tool alone against the tool under
     `relaytool-endpoint run` (median of several runs);
  2. the supervisor's resident memory and its own wake-ups per second while
     connected and idle (context switches from /proc, over a quiet window);
  3. the time to reconnect after the relay returns, against the back-off
     delay in force at that moment.

    python3 bench/endpoint_figures.py [--runs N] [--quiet-seconds S]
"""

import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import unittest
from datetime import datetime

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path.insert(0, os.path.join(REPO, "tests", "endpoint"))
sys.path.insert(0, os.path.join(REPO, "relay"))

import sshd_fixture  # noqa: E402
from test_endpoint_relay import RelayWorkspace  # noqa: E402
from endpoint_harness import TESTRELAY_TOOL, wait_until  # noqa: E402


def proc_status(pid):
    with open("/proc/%d/status" % pid) as f:
        return dict(line.split(":", 1) for line in f if ":" in line)


def switches(pid):
    s = proc_status(pid)
    return int(s["voluntary_ctxt_switches"]) + int(s["nonvoluntary_ctxt_switches"])


def tool_alone(ws):
    """Seconds from starting the tool to its CONNECTED line."""
    env = ws.env(RELAYTOOL_PATH=None, HVN_FTP_PORT="0", HVN_OS="Linux",
                 HVN_OS_VERSION="12", HVN_APP_VERSION="measure", HVN_USER="root")
    start = time.monotonic()
    tool = subprocess.Popen([TESTRELAY_TOOL], env=env, stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    for line in tool.stdout:
        if b"status=CONNECTED" in line:
            break
    took = time.monotonic() - start
    tool.stdin.close()
    tool.wait()
    return took


def under_supervisor(ws):
    start = time.monotonic()
    run = ws.start("run")
    run.wait_line(r"^state: connected")
    took = time.monotonic() - start
    run.terminate()
    run.wait()
    return took


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--runs", type=int, default=9)
    p.add_argument("--quiet-seconds", type=float, default=30)
    args = p.parse_args()
    if sshd_fixture.skip_reason():
        sys.exit(sshd_fixture.skip_reason())

    case = unittest.TestCase()
    with sshd_fixture.RelayFixture(heartbeat=1) as relay:
        ws = RelayWorkspace(case, relay)
        ws.set_up(case, "measure")

        alone, supervised = [], []
        for _ in range(args.runs):  # interleaved, so that drift hits both alike
            alone.append(tool_alone(ws))
            supervised.append(under_supervisor(ws))
        print("start to connected, median of %d: tool alone %.3f s, under run %.3f s "
              "(difference %+.3f s)" % (args.runs, statistics.median(alone),
                                        statistics.median(supervised),
                                        statistics.median(supervised) - statistics.median(alone)))

        run = ws.start("run")
        state = run.wait_state(lambda s: s["state"] == "idle", "idle")
        time.sleep(2)  # let start-up settle
        pid, tool = run.pid, state["tool_pid"]
        before, tool_before, t0 = switches(pid), switches(tool), time.monotonic()
        time.sleep(args.quiet_seconds)
        elapsed = time.monotonic() - t0
        rss = proc_status(pid)["VmRSS"].strip()
        print("connected and idle for %.0f s: supervisor RSS %s, %.3f wake-ups/s "
              "(the tool itself: %.2f/s)" % (elapsed, rss, (switches(pid) - before) / elapsed,
                                            (switches(tool) - tool_before) / elapsed))
        run.terminate()
        run.wait()
        ws.kill_leftovers()

    # reconnect: a relay with its own directory, stopped and started again
    for low, high in ((0.5, 4), (1, 16)):
        relay_dir = tempfile.mkdtemp(prefix="relay-sshd-")
        case.addCleanup(shutil.rmtree, relay_dir, True)
        fixture = sshd_fixture.RelayFixture(directory=relay_dir, heartbeat=1)
        fixture.start()
        ws2 = RelayWorkspace(case, fixture)
        ws2.set_up(case, "measure-%g" % high)
        run = ws2.start("run", env=ws2.env(RELAYTOOL_BACKOFF_MIN=str(low),
                                           RELAYTOOL_BACKOFF_MAX=str(high)))
        run.wait_state(lambda s: s["state"] == "idle", "idle")
        fixture.stop()
        # wait until the back-off has reached its maximum range
        wait_until(lambda: sum(l.startswith("waiting") for l in run.states()) >= 6, 120)
        run.wait_state(lambda s: s["state"] == "waiting", "waiting", 60)
        fixture.requested_port = fixture.port
        fixture.start()
        back = time.time()
        state = ws2.state()
        left = (datetime.fromisoformat(state["next_attempt"].replace("Z", "+00:00")).timestamp()
                - back) if state["state"] == "waiting" else 0.0
        run.wait_state(lambda s: s["state"] in ("connected", "idle"), "connected", 60)
        took = time.time() - back
        print("relay back (back-off %g-%g s): delay in force %.2f s (%.2f s of it left), "
              "connected after %.2f s, i.e. %.2f s after the attempt was due"
              % (low, high, state.get("delay") or 0, left, took, took - max(left, 0)))
        run.terminate()
        run.wait()
        fixture.stop()
        ws2.kill_leftovers()
    ws.kill_leftovers()
    case.doCleanups()


if __name__ == "__main__":
    main()
