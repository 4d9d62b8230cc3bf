"""Programs the lab runs in the background, and the one way it waits: for a
condition, with a generous limit (the machine is shared and noisy; a limit
is never a measure)."""

import json
import os
import re
import subprocess
import time

WAIT = 60  # seconds


def wait_until(predicate, timeout=WAIT):
    """The predicate's first true value, or its last false one."""
    deadline = time.monotonic() + timeout
    while not (value := predicate()) and time.monotonic() < deadline:
        time.sleep(0.05)
    return value


def json_file(path):
    """The JSON object in a file that is replaced whole, or {} while there
    is none."""
    try:
        with open(path) as f:
            return json.load(f)
    except (OSError, ValueError):
        return {}


def command_name(pid):
    try:
        with open("/proc/%d/comm" % pid) as f:
            return f.read().strip()
    except OSError:
        return None


def children(pid):
    """The processes whose parent is pid."""
    found = []
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/stat" % name) as f:  # the name may hold blanks
                if int(f.read().rsplit(")", 1)[1].split()[1]) == pid:
                    found.append(int(name))
        except (OSError, IndexError, ValueError):
            pass
    return found


class Run(subprocess.Popen):
    """A program whose standard output and error go to the files `out` and
    `err` (added to: an endpoint keeps one log across its runs)."""

    def __init__(self, argv, out, err, env, stdin=subprocess.DEVNULL, details=str):
        self.files, self.details = {"out": out, "err": err}, details
        with open(out, "ab") as o, open(err, "ab") as e:
            super().__init__(argv, env=env, stdin=stdin, stdout=o, stderr=e)

    def text(self, stream="err", start=0):
        with open(self.files[stream], "rb") as f:
            return f.read().decode("utf-8", "replace")[start:]

    def lines(self, stream="out"):
        """The complete lines so far."""
        return self.text(stream).split("\n")[:-1]

    def report(self):
        return "--- stdout:\n%s--- stderr:\n%s%s" % (self.text("out"), self.text(), self.details())

    def wait_line(self, pattern, stream="err", start=0):
        """The first match of pattern (a multi-line regex) after `start`."""
        found = wait_until(lambda: re.search(pattern, self.text(stream, start), re.M))
        if not found:
            raise AssertionError("no line matching %r on std%s\n%s"
                                 % (pattern, stream, self.report()))
        return found

    def wait_exit(self, timeout=WAIT):
        try:
            return self.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("still running\n" + self.report()) from None
