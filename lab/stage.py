"""The lab's own directory for everything its accounts run or read: copies
of the programs under test, an installation's etc directory, keys, homes,
configuration directories and data.  It lies in the temporary directory,
searchable by everyone, so that nothing depends on where the checkout or
the build lies (root's home, mode 0700, is a common place); close()
removes it.  No directory the lab did not make is ever changed."""

import glob
import os
import re
import shutil
import subprocess
import tempfile

from .net import pid_alive

PREFIX = "relaytool-lab-"


class Stage:
    def __init__(self):
        sweep_stale()
        self.root = tempfile.mkdtemp(prefix="%s%d-" % (PREFIX, os.getpid()))
        os.chmod(self.root, 0o755)
        self.reports = {}  # sanitizer report directory here -> the caller's

    def path(self, *names):
        return os.path.join(self.root, *names)

    def program(self, source, name=None):
        """A copy of the program `source` that every account may run."""
        os.makedirs(self.path("bin"), mode=0o755, exist_ok=True)
        target = self.path("bin", name or os.path.basename(source))
        shutil.copyfile(source, target)
        os.chmod(target, 0o755)
        return target

    def tree(self, source, name):
        """A copy of the directory `source` that every account may read."""
        target = self.path(name)
        shutil.copytree(source, target)
        for directory, _, files in os.walk(target):
            os.chmod(directory, 0o755)
            for f in files:
                os.chmod(os.path.join(directory, f), 0o644)
        return target

    def mkdir(self, name, owner=None, mode=0o700):
        """A directory in the stage, owned by the account `owner` (or root)."""
        path = self.path(name)
        os.makedirs(path, mode=mode)
        os.chmod(path, mode)
        if owner:
            os.chown(path, owner.uid, owner.gid)
        return path

    def write(self, path, data, owner=None, mode=0o644):
        """A file as the account `owner` would have made it."""
        with open(path, "wb") as f:
            if owner:
                os.fchown(f.fileno(), owner.uid, owner.gid)
            os.fchmod(f.fileno(), mode)
            f.write(data if isinstance(data, bytes) else data.encode())
        return path

    def sanitizer_options(self, environ):
        """The sanitizers' settings of `environ` for programs run by the
        accounts: their reports go to a directory here that everyone may
        write to, and close() moves them to where the caller wanted them."""
        options = {}
        for key, value in environ.items():
            if not key.endswith("SAN_OPTIONS"):
                continue
            match = re.search(r"(^|:)log_path=([^:]*)", value)
            if match:
                reports = self.path("sanitizer-reports")
                if not os.path.isdir(reports):
                    os.mkdir(reports)
                    os.chmod(reports, 0o1777)
                target = os.path.join(reports, os.path.basename(match.group(2)))
                self.reports[reports] = os.path.dirname(match.group(2))
                value = value[:match.start(2)] + target + value[match.end(2):]
            options[key] = value
        return options

    def close(self):
        for here, there in self.reports.items():
            for report in glob.glob(os.path.join(here, "*")):
                shutil.copyfile(report, os.path.join(there, os.path.basename(report)))
        remove(self.root)


def remove(root):
    """Unmounts what the lab or a test mounted inside (the UTS namespace, a
    small file system), then removes the directory."""
    with open("/proc/self/mounts") as f:  # blanks and such as octal escapes
        mounts = [re.sub(r"\\([0-7]{3})", lambda m: chr(int(m.group(1), 8)), line.split()[1])
                  for line in f]
    for mount in sorted(mounts, reverse=True):
        if mount.startswith(root + "/"):
            subprocess.run(["umount", "-l", mount], capture_output=True)
    shutil.rmtree(root, ignore_errors=True)


def sweep_stale():
    """Removes the stages of labs whose maker died without closing them."""
    for root in glob.glob(os.path.join(tempfile.gettempdir(), PREFIX + "*")):
        pid = os.path.basename(root)[len(PREFIX):].split("-")[0]
        if pid.isdigit() and not pid_alive(int(pid)):
            remove(root)
