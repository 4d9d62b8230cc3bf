#!/usr/bin/python3
"""Stand-in for the GridFTP server in inetd mode: `standin_worker.py -i -c
CONFIG`, one forwarded connection on stdin and stdout, CONFIG holding a line
"serve_dir = PATH".  It reads one request line:

    GET <name>   answers "OK <size> <sha256> pid=<pid> ppid=<ppid>", then
                 the bytes of serve_dir/<name>
    PUT <size>   reads <size> bytes, answers the same with their checksum

Anything else, other arguments, a non-blocking connection or descriptors
besides 0, 1 and 2 (a real inetd-mode server would misbehave with either)
get "ERR <reason>" and exit status 2.  After answering it keeps the
connection until the client closes it, so that the client decides how long
the worker runs; a SIGTERM ends it with status 0, leaving an empty file
serve_dir/terminated-<pid>.  It reports on stderr (the tool copies it as [ftp stderr]).
"""

import fcntl
import hashlib
import os
import signal
import sys

conn, out = sys.stdin.buffer, sys.stdout.buffer


def fail(reason):
    out.write(b"ERR %s\n" % reason.encode())
    out.flush()
    print("standin worker %d: %s" % (os.getpid(), reason), file=sys.stderr)
    sys.exit(2)


def serve_dir(args):
    if len(args) != 3 or args[:2] != ["-i", "-c"]:
        fail("usage: -i -c CONFIG, got %r" % (args,))
    try:
        with open(args[2]) as f:
            for key, eq, value in (line.partition("=") for line in f):
                if eq and key.strip() == "serve_dir":
                    return value.strip()
    except OSError as e:
        fail("cannot read config %s: %s" % (args[2], e.strerror))
    fail("no serve_dir in " + args[2])


if any(fcntl.fcntl(fd, fcntl.F_GETFL) & os.O_NONBLOCK for fd in (0, 1)):
    fail("connection in non-blocking mode")
# the listing's own descriptor is closed again by the time fstat runs
extra = [int(fd) for fd in os.listdir("/proc/self/fd") if int(fd) > 2]
extra = [fd for fd in extra if os.path.exists("/proc/self/fd/%d" % fd)]
if extra:
    fail("inherited descriptors %s besides 0, 1, 2" % extra)
root = serve_dir(sys.argv[1:])
# A SIGTERM leaves a mark in serve_dir, so that a test sees how it ended.
signal.signal(signal.SIGTERM, lambda *_: sys.exit(
    open(os.path.join(root, "terminated-%d" % os.getpid()), "w").close()))
words = conn.readline().decode("ascii", "replace").split()
if len(words) == 2 and words[0] == "GET":
    try:
        with open(os.path.join(root, os.path.basename(words[1])), "rb") as f:
            data = f.read()
    except OSError as e:
        fail("cannot read %s: %s" % (words[1], e.strerror))
    size, digest, what = len(data), hashlib.sha256(data), "sent " + words[1]
elif len(words) == 2 and words[0] == "PUT" and words[1].isdigit():
    size, left, digest, data, what = int(words[1]), int(words[1]), \
        hashlib.sha256(), b"", "received"
    while left:
        chunk = conn.read1(min(left, 65536))
        if not chunk:
            fail("connection ended %d bytes short" % left)
        digest.update(chunk)
        left -= len(chunk)
else:
    fail("bad request %r" % " ".join(words))
out.write(b"OK %d %s pid=%d ppid=%d\n" % (size, digest.hexdigest().encode(),
                                          os.getpid(), os.getppid()) + data)
out.flush()
print("standin worker %d: %s, %d bytes" % (os.getpid(), what, size),
      file=sys.stderr, flush=True)
while conn.read1(65536):
    pass
