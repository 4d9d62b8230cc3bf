#!/usr/bin/python3
"""Stand-in for the relay tool, for tests of relaytool-endpoint that need no
relay.  STANDIN_PLAN names a JSON file with a list of runs; run n of the tool
follows entry n (the last entry repeats).  An entry may hold:

    stdout, stderr   lists of lines to write first
    then             "wait": run until standard input closes, then exit 1
                     as the tool does; otherwise end at once
    exit             the exit status (default 1)

Each run appends one JSON line to STANDIN_PLAN + ".runs": its pid, process
group, environment, open descriptors and what descriptor 0 is.
"""

import json
import os
import sys

plan_path = os.environ["STANDIN_PLAN"]
with open(plan_path) as f:
    plan = json.load(f)
try:
    with open(plan_path + ".runs") as f:
        n = sum(1 for _ in f)
except FileNotFoundError:
    n = 0
step = plan[min(n, len(plan) - 1)]

fds = [int(fd) for fd in os.listdir("/proc/self/fd")]  # its own is closed again at once
fds = sorted(fd for fd in fds if os.path.exists("/proc/self/fd/%d" % fd))
with open(plan_path + ".runs", "a") as f:
    f.write(json.dumps({"pid": os.getpid(), "pgid": os.getpgid(0), "env": dict(os.environ),
                        "fds": fds, "stdin": os.readlink("/proc/self/fd/0")}) + "\n")
for stream, lines in ((sys.stdout, step.get("stdout", [])), (sys.stderr, step.get("stderr", []))):
    stream.write("".join(line + "\n" for line in lines))
    stream.flush()
if step.get("then") == "wait":
    while os.read(0, 1):
        pass
    sys.stderr.write("stdin closed; parent died?\n")
sys.exit(step.get("exit", 1))
