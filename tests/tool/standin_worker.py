#!/usr/bin/python3
"""Stand-in for the GridFTP server in inetd mode: records its pid and
arguments in WORKER_RECORD_DIR, writes a line and a half to stderr, answers
the first line from the connection with "echo <line>", finishes the half
line, and then holds the connection until the other side closes it.  A
SIGTERM ends it with status 0 and a record terminated-<pid>.json."""
import os, signal, sys
from standin_relay import save  # copied next to this file

pid = os.getpid()
records = os.environ["WORKER_RECORD_DIR"]
signal.signal(signal.SIGTERM, lambda *_: sys.exit(save({}, os.path.join(records, "terminated-%d.json" % pid))))
save({"pid": pid, "argv": sys.argv[1:]}, os.path.join(records, "worker-%d.json" % pid))
os.write(2, b"worker %d ready\nhal" % pid)
line = sys.stdin.buffer.readline()
os.write(1, b"echo " + line)
os.write(2, b"f line\n")
while sys.stdin.buffer.read(4096):
    pass
