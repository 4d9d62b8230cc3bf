#!/usr/bin/python3
"""Stand-in for the watcher and the relay behind it. Records its pid and
arguments, then plays the JSON script in STANDIN_SCRIPT (texts are latin-1
byte strings); the record (STANDIN_RECORD) is rewritten after every step.
Steps: ["send", text] to stdout, ["stderr", text], ["expect", regex] for the
next stdin line, ["sig", signed, public_pem] for a CHALLENGE_C line,
["drain"] until the tool has read all that was sent (so the next text reaches
it as a chunk of its own, however slowly it runs), ["await", name] until the
test creates STANDIN_SCRIPT.name, ["mark", name], ["eof"], ["exit", code]."""
import fcntl, json, os, re, struct, sys, termios, time

WAIT = 60  # seconds for a drain or an await; then the script fails
record = {"pid": os.getpid(), "argv": sys.argv[1:], "received": [], "verified": [], "marks": {}, "done": False,
          "fds": [fd for fd in range(1024) if os.path.lexists("/proc/self/fd/%d" % fd)]}


def save():  # in one step
    with open(os.environ["STANDIN_RECORD"] + ".tmp", "w") as f:
        json.dump(record, f)
    os.replace(os.environ["STANDIN_RECORD"] + ".tmp", os.environ["STANDIN_RECORD"])


def fail(why):
    os.write(2, b"standin failure: %s\n" % why.encode("latin-1", "replace"))
    sys.exit(97)


def read_line():
    line = sys.stdin.buffer.readline()
    if not line.endswith(b"\n"):
        fail("end of input instead of a line: %r" % line[:200])
    record["received"].append(line[:-1].decode("latin-1"))
    return record["received"][-1]


def verify(line, signed, pem_path):
    from cryptography.hazmat.primitives import hashes, serialization
    from cryptography.hazmat.primitives.asymmetric import padding
    m = re.fullmatch(r"msg=CHALLENGE_C sig=([0-9a-f]{512})", line) or fail("not a CHALLENGE_C line: %r" % line[:200])
    with open(pem_path, "rb") as f:
        key = serialization.load_pem_public_key(f.read())
    key.verify(bytes.fromhex(m.group(1)), signed.encode("latin-1"), padding.PKCS1v15(), hashes.SHA256())
    record["verified"].append(signed)


def unread(fd):
    """Bytes written to the pipe `fd` that its reader has not read yet."""
    return struct.unpack("i", fcntl.ioctl(fd, termios.FIONREAD, b"\0" * 4))[0]


def wait_for(condition, what):
    deadline = time.monotonic() + WAIT
    while not condition():
        if time.monotonic() > deadline:
            fail("gave up waiting for " + what)
        time.sleep(0.005)


def main():
    save()
    with open(os.environ["STANDIN_SCRIPT"]) as f:
        script = json.load(f)
    for op, *args in script:
        if op in ("send", "stderr"):
            out = (sys.stdout if op == "send" else sys.stderr).buffer
            out.write(args[0].encode("latin-1"))
            out.flush()
        elif op == "expect":
            line = read_line()
            re.fullmatch(args[0], line, re.S) or fail("line %r does not match %r" % (line[:300], args[0]))
        elif op == "sig":
            verify(read_line(), *args)
        elif op == "drain":
            wait_for(lambda: unread(1) == 0 and unread(2) == 0, "the tool to read its pipes")
        elif op == "await":
            wait_for(lambda: os.path.exists(os.environ["STANDIN_SCRIPT"] + "." + args[0]), args[0])
        elif op == "mark":
            record["marks"][args[0]] = time.time()
        elif op == "eof":
            while sys.stdin.buffer.read(4096):
                pass
        elif op == "exit":
            break
        save()
    record["done"] = True
    save()
    os._exit(args[0] if script and op == "exit" else 0)


if __name__ == "__main__":
    main()
