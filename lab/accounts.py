"""The lab's unprivileged accounts: the endpoint's user, as whom the
endpoint, the tool, the GridFTP servers and the client run, and a second
local user who must be refused what is the first one's."""

import pwd
import subprocess

SETPRIV = "/usr/bin/setpriv"
USER = "x_relayuser"
OTHER = "x_relayother"


class Account:
    def __init__(self, name):
        self.name = name
        try:
            entry = pwd.getpwnam(name)
        except KeyError:
            # a system account with a shell: the GridFTP server refuses a
            # login to an account it finds disabled
            subprocess.run(["useradd", "--system", "--create-home", "--shell", "/bin/sh",
                            "--comment", "relaytool lab user", name], capture_output=True)
            entry = pwd.getpwnam(name)  # made by us or by a lab at the same time
        self.uid, self.gid, self.home = entry.pw_uid, entry.pw_gid, entry.pw_dir

    def argv(self, argv):
        """argv run as this account (setpriv execs it: the pid is argv's)."""
        return [SETPRIV, "--reuid=%d" % self.uid, "--regid=%d" % self.gid, "--init-groups",
                "--"] + list(argv)
