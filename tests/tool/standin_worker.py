#!/usr/bin/python3
"""Stand-in for the GridFTP server in inetd mode: records its pid, arguments
and whether its connection is non-blocking as WORKER_RECORD_DIR/worker-PID.json,
writes a line and a half to stderr, answers the first line from the
connection with "echo <line>", finishes the half line, and then holds the
connection until the other side closes it. A SIGTERM ends it with status 0
and a record terminated-PID.json."""
import fcntl, json, os, signal, sys


def save(data, name):  # in one step
    path = os.path.join(os.environ["WORKER_RECORD_DIR"], name % os.getpid())
    with open(path + ".tmp", "w") as f:
        json.dump(data, f)
    os.replace(path + ".tmp", path)


signal.signal(signal.SIGTERM, lambda *_: sys.exit(save({}, "terminated-%d.json")))
save({"pid": os.getpid(), "argv": sys.argv[1:], "nonblocking": bool(fcntl.fcntl(0, fcntl.F_GETFL) & os.O_NONBLOCK)},
     "worker-%d.json")
os.write(2, b"worker %d ready\nhal" % os.getpid())
line = sys.stdin.buffer.readline()
os.write(1, b"echo " + line)
os.write(2, b"f line\n")
while sys.stdin.buffer.read(4096):
    pass
