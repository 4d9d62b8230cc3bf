#!/usr/bin/python3
"""Stand-in for the GridFTP server in inetd mode, for end-to-end runs.

The relay tool starts it as

    standin_worker.py -i -c <config_dir>/gridftp.conf

with one forwarded connection on its standard input and output.  The
configuration file names the directory it serves, in a line
"serve_dir = PATH".  It reads one request line from the connection:

    GET <name>          answer "OK <size> <sha256> pid=<pid> ppid=<ppid>",
                        then the bytes of serve_dir/<name>
    PUT <size>          read <size> bytes, answer "OK <size> <sha256> ..."
                        with the checksum of what arrived

Anything else, wrong arguments, a connection handed over in non-blocking
mode or descriptors inherited beyond 0, 1 and 2 get "ERR <reason>" and exit
status 2: a real inetd-mode server would misbehave with any of them.
After answering it keeps the connection until the other side closes it, so
that a client decides how long the worker counts as running.  One line on
standard error tells what it did (the tool copies it as "[ftp stderr]").
"""

import fcntl
import hashlib
import os
import sys

CHUNK = 65536


def fail(out, reason):
    out.write(b"ERR " + reason.encode() + b"\n")
    out.flush()
    sys.stderr.write("standin worker %d: %s\n" % (os.getpid(), reason))
    sys.exit(2)


def serve_dir(out, args):
    if len(args) != 3 or args[0] != "-i" or args[1] != "-c":
        fail(out, "usage: -i -c CONFIG, got %r" % (args,))
    try:
        with open(args[2]) as f:
            for line in f:
                key, eq, value = line.partition("=")
                if eq and key.strip() == "serve_dir":
                    return value.strip()
    except OSError as e:
        fail(out, "cannot read config %s: %s" % (args[2], e.strerror))
    fail(out, "no serve_dir in %s" % args[2])


def check_descriptors(out):
    for fd in (0, 1):
        if fcntl.fcntl(fd, fcntl.F_GETFL) & os.O_NONBLOCK:
            fail(out, "descriptor %d is in non-blocking mode" % fd)
    names = os.listdir("/proc/self/fd")  # the listing's own descriptor
    extra = []                            # is closed again by now
    for name in names:
        try:
            os.fstat(int(name))
        except OSError:
            continue
        if int(name) > 2:
            extra.append(int(name))
    if extra:
        fail(out, "inherited descriptors %s besides 0, 1, 2" % extra)


def main():
    conn_in, out = sys.stdin.buffer, sys.stdout.buffer
    check_descriptors(out)
    root = serve_dir(out, sys.argv[1:])
    who = "pid=%d ppid=%d" % (os.getpid(), os.getppid())
    words = conn_in.readline().decode("ascii", "replace").split()
    digest = hashlib.sha256()
    if len(words) == 2 and words[0] == "GET":
        name = os.path.basename(words[1])
        try:
            with open(os.path.join(root, name), "rb") as f:
                data = f.read()
        except OSError as e:
            fail(out, "cannot read %s: %s" % (name, e.strerror))
        digest.update(data)
        out.write(b"OK %d %s %s\n" % (len(data), digest.hexdigest().encode(),
                                      who.encode()))
        out.write(data)
        size, what = len(data), "sent " + name
    elif len(words) == 2 and words[0] == "PUT" and words[1].isdigit():
        size, left = int(words[1]), int(words[1])
        while left:
            chunk = conn_in.read1(min(left, CHUNK))
            if not chunk:
                fail(out, "connection ended %d bytes short" % left)
            digest.update(chunk)
            left -= len(chunk)
        out.write(b"OK %d %s %s\n" % (size, digest.hexdigest().encode(),
                                      who.encode()))
        what = "received"
    else:
        fail(out, "bad request %r" % " ".join(words))
    out.flush()
    sys.stderr.write("standin worker %d: %s, %d bytes\n"
                     % (os.getpid(), what, size))
    sys.stderr.flush()
    while conn_in.read1(CHUNK):
        pass


if __name__ == "__main__":
    main()
