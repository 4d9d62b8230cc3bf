"""The tool itself, run as its parent would: every setting in the
environment, standard input a pipe held open and never written to (any
activity on it means the parent has gone), status lines read from standard
output.  It runs as the endpoint's user in the endpoint's namespace."""

import os
import subprocess

from . import gridftp

STATUS = "RELAYTOOL=1 status="
# a parent that starts the tool with a standard-input pipe of its own, then sits
MIDDLE = """import subprocess, sys, time
tool = subprocess.Popen(sys.argv[1:], stdin=subprocess.PIPE)
print("middle: tool pid=%d" % tool.pid, flush=True)
time.sleep(3600)"""


class ToolConfig:
    """A configuration directory for one endpoint of the tool's, and its
    runs; the installation directory is the lab's."""

    def __init__(self, lab, name):
        self.lab, self.name = lab, name
        lab.stage.mkdir(name, mode=0o755)
        # with a blank in the known-hosts path the tool gives ssh
        self.config_dir = lab.stage.mkdir(name + "/config dir", owner=lab.user)
        self.runs = []

    def start(self, via_middle=False, **mode):
        """The tool (or a middle process that starts it) with the settings
        `mode` added."""
        lab = self.lab
        env = dict(PATH="/usr/bin:/bin", HVN_OS="Linux", HVN_OS_VERSION="Debian 12",
                   HVN_APP_VERSION="4.1 beta", HVN_SSH_PATH="/usr/bin/ssh",
                   HVN_PDEATH_PATH=lab.programs["pdeath"], HVN_GRIDFTP_PATH=gridftp.SERVER,
                   HVN_RELAY_SERVER="%s:%d" % (lab.relay.address, lab.relay.port),
                   HVN_USER=lab.user.name, HVN_CONFIG_DIR=self.config_dir,
                   HVN_GLOBAL_ETC_DIR=lab.etc_dir, **lab.stage.sanitizer_options(os.environ))
        env.update(mode)
        argv = [lab.programs["tool"]]
        if via_middle:  # Debian's: what the endpoint's user can run
            argv = ["/usr/bin/python3", "-c", MIDDLE] + argv
        prefix = lab.stage.path(self.name, "run%d" % len(self.runs))
        run = lab.start(argv, prefix + ".out", prefix + ".err", env=env, stdin=subprocess.PIPE,
                        details=lab.relay.logs)
        self.runs.append(run)
        return run

    def set_up(self, code):
        """A setup with a new code: the run and its exit status."""
        self.lab.relay.add_code(code)
        run = self.start(HVN_SETUP_CODE=code)
        return run, run.wait_exit()
