#!/usr/bin/python3
"""Stand-in for the GridFTP server in inetd mode: records its arguments,
descriptors and pid in WORKER_RECORD_DIR, writes a line and a half to stderr,
answers the first line from the connection with "echo <line>", finishes the
half line, and then holds the connection until the other side closes it."""
import json, os, sys

fds = []
for name in os.listdir("/proc/self/fd"):
    try:
        fds.append(os.fstat(int(name)) and int(name))
    except OSError:  # the listing's own descriptor, closed again
        pass
pid = os.getpid()
record = {"pid": pid, "argv": sys.argv[1:], "fds": sorted(fds)}
path = os.path.join(os.environ["WORKER_RECORD_DIR"], "worker-%d.json" % pid)
with open(path + ".tmp", "w") as f:
    json.dump(record, f)
os.replace(path + ".tmp", path)

os.write(2, b"worker %d ready\nhal" % pid)
line = sys.stdin.buffer.readline()
os.write(1, b"echo " + line)
os.write(2, b"f line\n")
while sys.stdin.buffer.read(4096):
    pass
