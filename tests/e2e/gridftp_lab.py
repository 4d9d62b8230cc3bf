"""A GridFTP endpoint behind the local relay, made of real parts, for the
end-to-end test, the benchmark and the demo:

    namespace "relay"                     namespace "endpoint" (nothing inbound)
    sshd + relay_server.py   <--- ssh ---  relaytool-endpoint run -> relaytool
      forwarded port on 127.0.0.1          globus-gridftp-server per connection
    remote globus-gridftp-server           (its gridftp.conf written by
    globus-url-copy (the client)            relaytool-endpoint)

The relay's authority is the test authority in tests/keys by default, so that
an installation built to trust it (the test package) can be used as well.
Everything but the relay runs as the unprivileged account ACCOUNT, as an
endpoint's user would: Globus wants the owner of a key to be the one using it.
"""

import json
import os
import pwd
import re
import shutil
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.realpath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(REPO, "relay"))
sys.path.insert(0, os.path.dirname(HERE))

import netns  # noqa: E402
import sshd_fixture  # noqa: E402

ACCOUNT = "x_relayuser"
SERVER = "/usr/sbin/globus-gridftp-server"
CLIENT = "/usr/bin/globus-url-copy"
SETPRIV = "/usr/bin/setpriv"
TEST_AUTHORITY = tuple(os.path.join(REPO, "tests", "keys", "relay_authority." + ext)
                       for ext in ("pem", "key"))
# with this in its environment the client makes the source server passive
# and the destination connect to it
SOURCE_PASV = {"GLOBUS_FTP_CLIENT_SOURCE_PASV": "1"}
WAIT = 60  # seconds; a limit for conditions, never a measure


def missing_requirement():
    """What the lab needs and lacks here, or None."""
    for missing in (netns.missing_requirement(), sshd_fixture.missing_requirement()):
        if missing:
            return missing
    for program, package in ((SERVER, "globus-gridftp-server-progs"),
                             (CLIENT, "globus-gass-copy-progs")):
        if not os.access(program, os.X_OK):
            return "%s from Debian's %s" % (program, package)
    return None


def skip_reason():
    missing = missing_requirement()
    return "GridFTP end-to-end tests skipped because they need " + missing if missing else None


def wait_until(predicate, timeout=WAIT):
    """The predicate's first true value, or its last false one."""
    deadline = time.monotonic() + timeout
    while not (value := predicate()) and time.monotonic() < deadline:
        time.sleep(0.05)
    return value


def ensure_account():
    """The endpoint's user: a system account with a shell, since the GridFTP
    server refuses a login to an account it finds disabled."""
    try:
        return pwd.getpwnam(ACCOUNT)
    except KeyError:
        subprocess.run(["useradd", "--system", "--create-home", "--shell", "/bin/sh",
                        "--comment", "relaytool test endpoint user", ACCOUNT],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return pwd.getpwnam(ACCOUNT)  # made by us or by a run at the same time


class GridftpLab:
    """Builds the whole picture above; close() takes it down again.

    binaries: relaytool-endpoint, the tool and pdeath to use; installed: an
    unpacked installation's etc directory (relay-anonymous.key, trust/),
    or None for the test key and the relay's own trust directory;
    authority: as for RelayFixture (None: the relay makes its own)."""

    def __init__(self, endpoint_bin, tool_bin, pdeath_bin, installed=None,
                 authority=TEST_AUTHORITY):
        self.given_authority = authority
        self.account = ensure_account()
        self.root = tempfile.mkdtemp(prefix="relaytool-gridftp-")
        os.chmod(self.root, 0o755)  # the account reaches its directories
        self.procs, self.lab, self.relay = [], None, None
        try:
            self._build(endpoint_bin, tool_bin, pdeath_bin, installed)
        except BaseException:
            self.close()
            raise

    def _build(self, endpoint_bin, tool_bin, pdeath_bin, installed):
        for program in (endpoint_bin, tool_bin, pdeath_bin):
            if self.as_account(["test", "-x", program]).returncode:
                raise RuntimeError("%s cannot run %s: is every directory above it "
                                   "searchable by others?" % (ACCOUNT, program))
        self.lab = netns.Lab()
        self.relay = sshd_fixture.RelayFixture(
            directory=self.mkdir("relay", owned=False), address=self.lab.relay_addr,
            netns=self.lab.relay, authority=self.given_authority, heartbeat=5)
        self.relay.start()
        self.lab.block_inbound(self.lab.endpoint)
        self.home, self.config_dir = self.mkdir("home"), self.mkdir("config dir")
        if installed:
            etc, trust = installed, os.path.join(installed, "trust")
        else:
            etc, trust = self.mkdir("etc"), self.relay.trust_dir
            shutil.copyfile(os.path.join(REPO, "tests", "keys", "anonymous.key"),
                            os.path.join(etc, "relay-anonymous.key"))
        self.endpoint_bin, self.log_path = endpoint_bin, self.path("endpoint.log")
        self.endpoint_env = dict(
            PATH="/usr/bin:/bin", HOME=self.home, LANG="C.UTF-8", RELAYTOOL_PATH=tool_bin,
            HVN_PDEATH_PATH=pdeath_bin, HVN_GLOBAL_ETC_DIR=etc,
            HVN_CONFIG_DIR=self.config_dir, HVN_GRIDFTP_PATH=SERVER,
            HVN_RELAY_SERVER="%s:%d" % (self.lab.relay_addr, self.relay.port),
            RELAYTOOL_TRUST_DIR=trust)
        # sanitizer settings reach the sanitized programs
        self.endpoint_env.update({k: v for k, v in os.environ.items()
                                  if k.endswith("SAN_OPTIONS")})

    # -- helpers

    def path(self, *names):
        return os.path.join(self.root, *names)

    def mkdir(self, name, owned=True, mode=0o700):
        path = self.path(name)
        os.makedirs(path, mode=mode)
        if owned:
            os.chown(path, self.account.pw_uid, self.account.pw_gid)
        return path

    def write(self, path, data):
        """A file of the account's, as it would have made it."""
        with open(path, "wb") as f:
            os.fchown(f.fileno(), self.account.pw_uid, self.account.pw_gid)
            f.write(data)

    def as_account(self, argv, ns=None, env=None, **kw):
        """Runs argv to its end as the account, inside namespace ns."""
        argv = self._account_argv(argv, ns)
        kw.setdefault("timeout", WAIT)
        kw.setdefault("stdin", subprocess.DEVNULL)
        return subprocess.run(argv, env=env or {"PATH": "/usr/bin:/bin"},
                              capture_output=True, text=True, **kw)

    def _account_argv(self, argv, ns):
        argv = [SETPRIV, "--reuid=%d" % self.account.pw_uid,
                "--regid=%d" % self.account.pw_gid, "--init-groups", "--"] + list(argv)
        return self.lab.argv(ns, argv) if ns else argv

    def spawn(self, argv, ns, env, **kw):
        """Starts argv as the account in namespace ns; stopped by close()."""
        proc = subprocess.Popen(self._account_argv(argv, ns), env=env,
                                stdin=subprocess.DEVNULL, **kw)
        self.procs.append(proc)
        return proc

    # -- the endpoint

    def set_up(self, code):
        self.relay.add_code(code)
        # the code on standard input: on a command line every user could read it
        return self.as_account([self.endpoint_bin, "setup"], self.lab.endpoint,
                               self.endpoint_env, input=code + "\n", stdin=None)

    def run_endpoint(self):
        """relaytool-endpoint run, until the endpoint is idle; its standard
        error (the endpoint's log) goes to log_path."""
        with open(self.log_path, "ab") as log:
            self.endpoint = self.spawn([self.endpoint_bin, "run"], self.lab.endpoint,
                                       self.endpoint_env, stdout=log, stderr=log)
        if not wait_until(lambda: self.state().get("state") == "idle"):
            raise AssertionError("the endpoint never became idle\n" + self.log())
        self.endpoint_id = self.read("config dir", "client-id.txt").strip()
        self.forwarded = self.relay.forwarded_ports()[0]

    def state(self):
        try:
            with open(os.path.join(self.config_dir, "endpoint-state.json")) as f:
                return json.load(f)
        except (OSError, ValueError):
            return {}

    def status(self):
        """`relaytool-endpoint status --json`: the exit status and the object."""
        done = self.as_account([self.endpoint_bin, "status", "--json"], None,
                               self.endpoint_env)
        return done.returncode, json.loads(done.stdout)

    def read(self, *names):
        with open(self.path(*names), errors="replace") as f:
            return f.read()

    def log(self, start=0):
        """The endpoint's log from byte `start` on."""
        return self.read("endpoint.log")[start:]

    def log_size(self):
        return os.path.getsize(self.log_path)

    def wait_log(self, pattern, start=0):
        """Waits for a line matching pattern after byte `start`."""
        found = wait_until(lambda: re.search(pattern, self.log(start), re.M))
        if not found:
            raise AssertionError("no line matching %r in the endpoint's log:\n%s"
                                 % (pattern, self.log(start)))
        return found

    def endpoint_url(self, path):
        """Through the relay: the forwarded port on the relay's 127.0.0.1."""
        return "gsiftp://127.0.0.1:%d%s" % (self.forwarded, path)

    # -- the far side

    def start_remote(self):
        """A GridFTP server in the relay's namespace, with a certificate
        from the relay's authority, serving remote/files to the same user."""
        creds = self.relay.server_credentials(self.lab.relay_addr, ACCOUNT,
                                              self.path("remote"))
        self.remote_subject, self.remote_files = creds["subject"], self.path("remote", "files")
        self.client = self.relay.client_credentials(self.endpoint_id, ACCOUNT,
                                                    self.path("client"))
        os.makedirs(self.remote_files)
        os.chown(self.remote_files, self.account.pw_uid, self.account.pw_gid)
        conf = self.path("remote", "gridftp.conf")
        self.write(self.path("remote", "gridmap"),
                   ('"%s" %s\n' % (self.client["user_dn"], ACCOUNT)).encode())
        self.write(conf, REMOTE_CONF.format(
            cert=creds["cert"], key=creds["key"], trust=self.relay.trust_dir,
            gridmap=self.path("remote", "gridmap"), address=self.lab.relay_addr,
            files=self.remote_files, log=self.path("remote", "server.log")).encode())
        server = self.spawn([SERVER, "-c", conf], self.lab.relay, {"PATH": "/usr/bin:/bin"},
                            stdout=subprocess.PIPE, text=True)
        # the one line a daemon prints: "Server listening at HOST:PORT"
        line = server.stdout.readline()
        match = re.search(r"Server listening at .*:(\d+)$", line.strip())
        if not match:
            raise AssertionError("the remote server did not start: %r\n%s"
                                 % (line, self.read("remote", "server.log")))
        self.remote_port = int(match.group(1))
        return creds

    def remote_url(self, path):
        return "gsiftp://%s:%d%s" % (self.lab.relay_addr, self.remote_port, path)

    def copy(self, source, dest, *options, cert=None, key=None, env=None):
        """globus-url-copy as the account in the relay's namespace, with the
        test user's credential (or the one given) and the relay's trust."""
        client_env = dict(PATH="/usr/bin:/bin", HOME=self.home,
                          X509_USER_CERT=cert or self.client["user_cert"],
                          X509_USER_KEY=key or self.client["user_key"],
                          X509_CERT_DIR=self.relay.trust_dir, **(env or {}))
        return self.as_account([CLIENT] + list(options) + [source, dest], self.lab.relay,
                               client_env)

    def close(self):
        for proc in self.procs:
            if proc.poll() is None:
                proc.terminate()
                try:
                    proc.wait(10)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()
            if proc.stdout:
                proc.stdout.close()
        if self.relay:
            self.relay.stop()
        if self.lab:
            self.lab.close()  # what is left inside the namespaces goes with them
        shutil.rmtree(self.root, ignore_errors=True)


# The far side: a daemon that forks a process per connection, not root, and
# offers its data port on the relay's address.
REMOTE_CONF = """\
$X509_USER_CERT "{cert}"
$X509_USER_KEY "{key}"
$X509_CERT_DIR "{trust}"
$GRIDMAP "{gridmap}"
data_interface {address}
restrict_paths "{files}"
home_dir "{files}"
log_single "{log}"
log_level ERROR,WARN,INFO
"""
