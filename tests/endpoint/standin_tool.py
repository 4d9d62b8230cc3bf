#!/usr/bin/python3
"""Stand-in for the relay tool.  Run n follows entry n of the JSON list in
STANDIN_PLAN (the last repeats): "stdout"/"stderr" lines to write (with
HVN_FTP_PORT -1, the paused mode, IDLE reads PAUSED); a "worker" to start, a
child with a socket as standard input that takes a second after SIGTERM
("slow"), ignores it ("stubborn") or ends after three seconds ("brief"), the
tool saying ACTIVE and then IDLE; "then": "wait" until standard input
closes, "linger" past that and SIGTERM, or sleep a number of seconds; and
the "exit" status (default 1).  Each run appends its pid, process group,
environment and descriptors to STANDIN_PLAN.runs, and events to .events."""

import json
import os
import signal
import socket
import subprocess
import sys
import threading
import time

plan_path = os.environ["STANDIN_PLAN"]


def event(what, **more):
    with open(plan_path + ".events", "a") as f:
        f.write(json.dumps(dict(what=what, pid=os.getpid(), at=time.monotonic(), **more)) + "\n")


if sys.argv[1:2] == ["worker"]:
    mode = sys.argv[2]
    signal.signal(signal.SIGTERM, signal.SIG_IGN if mode == "stubborn" else
                  lambda *_: (time.sleep(1), event("worker ended its transfer"), sys.exit(0)))
    event("worker started")
    os.write(0, b"ready")  # its connection: the tool says ACTIVE once the handler is in place
    time.sleep(3 if mode == "brief" else 3600)
    sys.exit(0)

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
paused = os.environ.get("HVN_FTP_PORT") == "-1"


def say(stream, line):
    if paused:
        line = line.replace("status=IDLE", "status=PAUSED")
    stream.write(line + "\n")
    stream.flush()


for stream, lines in ((sys.stdout, step.get("stdout", [])), (sys.stderr, step.get("stderr", []))):
    for line in lines:
        say(stream, line)
if "worker" in step:
    mine, its = socket.socketpair()
    worker = subprocess.Popen([sys.executable, __file__, "worker", step["worker"]], stdin=its)
    mine.recv(5)
    say(sys.stdout, "RELAYTOOL=1 status=ACTIVE nr_workers=1")
    threading.Thread(target=lambda: (worker.wait(), say(sys.stdout, "RELAYTOOL=1 status=IDLE")),
                     daemon=True).start()
if step.get("then") == "linger":
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
while step.get("then") in ("wait", "linger") and os.read(0, 1):
    pass
if step.get("then") == "wait":
    say(sys.stderr, "stdin closed; parent died?")
if step.get("then") == "linger":
    event("tool's input closed")
    time.sleep(3600)
if isinstance(step.get("then"), (int, float)):
    time.sleep(step["then"])
sys.exit(step.get("exit", 1))
