"""The lab: the whole picture of real parts on one machine, for the
real-parts tests, the demo and the benchmarks, and taken down again.

    namespace "relay" (10.77.0.1)            namespace "endpoint" (10.77.0.2,
    sshd + the reference relay  <-- ssh ---    nothing inbound)
      its forwarded ports on 127.0.0.1       relaytool-endpoint -> relaytool
    far-side GridFTP server                    -> pdeath -> ssh
    globus-url-copy (the client)               GridFTP server per connection

Everything but the relay runs as the endpoint's user (Globus wants a key's
owner to be the one using it), from copies that the lab stages; see
net.py for names and stage.py for staging.

    lab = Lab()
    endpoint = lab.endpoint(RELAYTOOL_SHARED_DIRS=...)
    endpoint.setup("code"); endpoint.start_idle()
    far = lab.far_side(endpoint.client()["user_dn"])
    done = endpoint.copy(endpoint.url(path), far.url(path))
    lab.close()
"""

import atexit
import os
import shutil
import signal
import subprocess
import sys

from . import gridftp, net
from .accounts import SETPRIV, Account, OTHER, USER
from .endpoint import Endpoint
from .gridftp import FarSide
from .process import WAIT, Run, wait_until
from .stage import Stage
from .tool import ToolConfig

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path.insert(0, os.path.join(REPO, "relay"))
import sshd_fixture  # noqa: E402

SOURCE_PASV = gridftp.SOURCE_PASV  # for users of the lab
KEYS = os.path.join(REPO, "tests", "keys")
# the test authority, whose key is committed: a test package is built to
# trust it before any relay runs
TEST_AUTHORITY = tuple(os.path.join(KEYS, "relay_authority." + ext) for ext in ("pem", "key"))
# the programs under test: as CTest passes them in, or from a build tree
PROGRAMS = {"endpoint": ("RELAYTOOL_ENDPOINT_BIN", "endpoint/relaytool-endpoint"),
            "tool": ("RELAYTOOL_TESTRELAY_BIN", "tests/relaytool-testrelay"),
            "pdeath": ("PDEATH_BIN", "pdeath/pdeath")}


def built_programs(build=os.path.join(REPO, "build")):
    return {name: os.environ.get(var) or os.path.join(build, path)
            for name, (var, path) in PROGRAMS.items()}


def missing_requirement():
    """What the lab needs and lacks here, or None."""
    missing = net.missing_requirement() or sshd_fixture.missing_requirement()
    for program, package in ((gridftp.SERVER, "globus-gridftp-server-progs"),
                             (gridftp.CLIENT, "globus-gass-copy-progs"),
                             (SETPRIV, "util-linux"), (net.NSENTER, "util-linux")):
        if not missing and not os.access(program, os.X_OK):
            missing = "%s from Debian's %s" % (program, package)
    return missing


def skip_reason():
    missing = missing_requirement()
    return missing and "real end-to-end tests skipped because they need " + missing


class Lab:
    """programs: {"endpoint", "tool", "pdeath": path} (default: built_programs());
    installed: an installation's etc directory (relay-anonymous.key and the
    trust directory of the test authority), or None for the test key and
    the relay's own trust directory; authority: as for the relay fixture."""

    def __init__(self, programs=None, installed=None, authority=TEST_AUTHORITY, heartbeat=5):
        self.procs, self.closers, self.relays = [], [], []
        if signal.getsignal(signal.SIGTERM) == signal.SIG_DFL:
            # a stop by a time limit or a person takes the lab down as
            # Ctrl-C does: unittest lets KeyboardInterrupt through
            signal.signal(signal.SIGTERM, signal.default_int_handler)
        atexit.register(self.close)
        try:
            self._build(programs or built_programs(), installed, authority, heartbeat)
        except BaseException:
            self.close()
            raise

    def _build(self, programs, installed, authority, heartbeat):
        self.stage = Stage()
        self.closers.append(self.stage.close)
        self.user = Account(USER)
        self.programs = {name: self.stage.program(path) for name, path in programs.items()}
        self.net = net.Network(self.stage.path("uts"))
        self.closers.append(self.net.close)
        self.relay = self.new_relay(authority=authority, heartbeat=heartbeat)
        self.net.block_inbound("endpoint")
        if installed:
            self.etc_dir = self.stage.tree(installed, "etc")
            self.trust_dir = os.path.join(self.etc_dir, "trust")
        else:
            self.etc_dir = self.stage.mkdir("etc", mode=0o755)
            shutil.copyfile(os.path.join(KEYS, "anonymous.key"),
                            os.path.join(self.etc_dir, "relay-anonymous.key"))
            os.chmod(os.path.join(self.etc_dir, "relay-anonymous.key"), 0o644)
            self.trust_dir = self.relay.trust_dir

    @property
    def other(self):
        """A second local user, made when a test first wants one."""
        if not hasattr(self, "_other"):
            self._other = Account(OTHER)
        return self._other

    def new_relay(self, **options):
        """A relay (sshd and the reference relay) in the relay's namespace;
        the lab has one, `relay`, and a test may want another (such as one
        with a host key the tool does not know)."""
        relay = sshd_fixture.RelayFixture(
            directory=self.stage.path("relay%d" % len(self.relays)),
            address=self.net.relay_addr, netns=self.net.relay, **options)
        self.relays.append(relay)
        return relay.start()

    # -- processes

    def argv(self, argv, ns="endpoint", account="user"):
        """argv as `account` ("user", "other", an Account or None for root)
        in namespace ns ("endpoint", "relay" or None for ours)."""
        account = getattr(self, account) if isinstance(account, str) else account
        argv = account.argv(argv) if account else list(argv)
        return self.net.argv(ns, argv) if ns else argv

    def spawn(self, argv, ns="endpoint", account="user", **popen):
        """A Popen, stopped by close()."""
        proc = subprocess.Popen(self.argv(argv, ns, account), **popen)
        self.procs.append(proc)
        return proc

    def start(self, argv, out, err, env, ns="endpoint", account="user", kind=Run, **run):
        """A Run (output to files), stopped by close()."""
        proc = kind(self.argv(argv, ns, account), out, err, env, **run)
        self.procs.append(proc)
        return proc

    def run(self, argv, ns="endpoint", account="user", env=None, input=None, timeout=WAIT):
        """argv to its end: a CompletedProcess with text output."""
        return subprocess.run(self.argv(argv, ns, account), env=env or {"PATH": "/usr/bin:/bin"},
                              input=input, stdin=None if input else subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=timeout)

    def user_file(self, path, data, mode=0o644):
        """A file of the endpoint's user's, as the user would have made it
        (in its home, the far side's files, ...): its path."""
        return self.stage.write(path, data, owner=self.user, mode=mode)

    def kill_all(self, ns="endpoint"):
        """Ends every process in namespace ns, such as what a test left."""
        for pid in self.net.pids(ns):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        wait_until(lambda: not self.net.pids(ns))

    # -- the parts

    def endpoint(self, name="endpoint", config_in_home=False, **settings):
        """relaytool-endpoint for a new endpoint; settings add to its
        environment (None removes one)."""
        return Endpoint(self, name, settings, config_in_home)

    def tool(self, name="tool"):
        """A configuration for the tool run directly, as its parent would."""
        return ToolConfig(self, name)

    def far_side(self, user_dn):
        return FarSide(self, user_dn)

    def logind(self):
        from .systemd import Logind
        bus = Logind(self)
        self.closers.append(bus.close)
        return bus

    def notify(self, name="notify"):
        from .systemd import Notify
        sock = Notify(self, name)
        self.closers.append(sock.close)
        return sock

    def close(self):
        """Takes everything down, also after a failure half-way; again does
        nothing."""
        for proc in self.procs:
            if proc.poll() is None:
                proc.kill()
            proc.wait()
            for pipe in (proc.stdin, proc.stdout, proc.stderr):
                if pipe:
                    pipe.close()
        self.procs = []
        for relay in self.relays:
            relay.stop()
        self.relays = []
        while self.closers:
            self.closers.pop()()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()
