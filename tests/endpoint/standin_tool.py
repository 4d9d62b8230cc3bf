#!/usr/bin/python3
"""Stand-in for the relay tool, for tests of relaytool-endpoint that need no
relay.  STANDIN_PLAN names a JSON file with a list of runs; run n of the tool
follows entry n (the last entry repeats).  An entry may hold:

    stdout, stderr   lists of lines to write first
    then             "wait": run until standard input closes, then exit 1
                     as the tool does; "ignore": never end on its own;
                     "exit": end at once (default)
    exit             the exit status (default 1)
    signal           end by this signal instead

Each run appends one JSON line to STANDIN_PLAN + ".runs": its pid, process
group, environment, open descriptors and what descriptor 0 is.
"""

import json
import os
import signal
import sys
import time

plan_path = os.environ["STANDIN_PLAN"]
with open(plan_path) as f:
    plan = json.load(f)
runs_path = plan_path + ".runs"
try:
    with open(runs_path) as f:
        n = sum(1 for _ in f)
except FileNotFoundError:
    n = 0
step = plan[min(n, len(plan) - 1)]

fds = sorted(int(fd) for fd in os.listdir("/proc/self/fd"))
fds = [fd for fd in fds if os.path.exists("/proc/self/fd/%d" % fd)]
with open(runs_path, "a") as f:
    f.write(json.dumps({"pid": os.getpid(), "pgid": os.getpgid(0),
                        "env": dict(os.environ), "fds": fds,
                        "stdin": os.readlink("/proc/self/fd/0")}) + "\n")

for line in step.get("stdout", []):
    sys.stdout.write(line + "\n")
    sys.stdout.flush()
for line in step.get("stderr", []):
    sys.stderr.write(line + "\n")
    sys.stderr.flush()

then = step.get("then", "exit")
if then == "wait":
    while os.read(0, 1):
        pass
    sys.stderr.write("stdin closed; parent died?\n")
    sys.exit(1)
if then == "ignore":
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    while True:
        time.sleep(3600)
if "signal" in step:
    os.kill(os.getpid(), step["signal"])
sys.exit(step.get("exit", 1))
