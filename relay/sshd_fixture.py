#!/usr/bin/python3
"""A private OpenSSH server on 127.0.0.1 that runs the local relay.

Brings up Debian's /usr/sbin/sshd with its own configuration in a directory
of its own (never /etc/ssh), listening on 127.0.0.1 at a free port (or on
another address, inside a network namespace of the caller's).  The only
login is "x_relay2" with the installation's anonymous key; its forced command
is relay_server.py, and it may hold remote forwards bound to loopback.

As a module (needs root):

    with RelayFixture(heartbeat=1) as relay:
        relay.add_code("code-1")
        argv = relay.ssh_argv(identity, known_hosts, forward_port=12345)
        ...

From the command line:

    sshd_fixture.py start --dir D [--host-key F] [--anon-key F] [--heartbeat N]
                          [--address A --netns NS]
                          [--authority-cert F --authority-key F]
    sshd_fixture.py add-code --dir D CODE
    sshd_fixture.py client-credentials --dir D ID [--for USER --into DIR]
    sshd_fixture.py server-credentials --dir D NAME [--for USER --into DIR]
    sshd_fixture.py make-v1-credentials --dir D OUTDIR
    sshd_fixture.py stop --dir D

Layout of the fixture directory:
    sshd_config, sshd.log, sshd.pid   the server's configuration and log
    host_key, host_key.pub            copy of the host key (0600) and its
                                      public half
    anon_key                          0600 copy of the anonymous key
    authorized_keys                   its public half (root, 0644)
    known_hosts                       "<address> <host key>" for clients
    relay_server.py, relay_ca.py,     copy of the relay run by sshd
    relay_files.py
    state/                            relay state dir, owned by x_relay2;
                                      state/authority is the relay's
                                      certificate authority, made at the
                                      first start of the directory
    trust/                            the authority's trust directory for
                                      everyone: <hash>.0, its signing policy
                                      and ca-bundle.pem (certificates only)
    issued/                           server credentials issued (root only)
    fixture.json                      pid and port, for "stop"
"""

import argparse
import json
import os
import pwd
import shlex
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

SSHD = "/usr/sbin/sshd"
SSH = "/usr/bin/ssh"
SSH_KEYGEN = "/usr/bin/ssh-keygen"
PYTHON = "/usr/bin/python3"
RELAY_USER = "x_relay2"

HERE = os.path.dirname(os.path.realpath(__file__))
REPO = os.path.dirname(HERE)
RELAY_SERVER = os.path.join(HERE, "relay_server.py")
# what sshd runs: the relay and the modules it imports
RELAY_FILES = ("relay_server.py", "relay_ca.py", "relay_files.py")
DEFAULT_HOST_KEY = os.path.join(REPO, "tests", "keys", "relay_host_rsa")
DEFAULT_ANON_KEY = os.path.join(REPO, "tests", "keys", "anonymous.key")


class FixtureError(Exception):
    pass


def missing_requirement():
    """What the fixture needs and lacks here, or None."""
    if os.geteuid() != 0:
        return "root (to create the x_relay2 account and run a private sshd)"
    if not os.access(SSHD, os.X_OK):
        return "%s from Debian's openssh-server" % SSHD
    return None


def skip_reason():
    """Why the real-sshd tests cannot run here, or None if they can."""
    missing = missing_requirement()
    if missing:
        return "real end-to-end tests skipped because they need " + missing
    return None


def _run(argv, **kw):
    return subprocess.run(argv, check=True, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True, **kw)


def ensure_relay_account():
    """Creates x_relay2 if needed, with a shell and a usable (not locked)
    password field; returns its pwd entry.

    With UsePAM no, sshd refuses every login, public-key ones included, to
    an account whose password field starts with "!" (useradd's default for a
    new account).  "*" matches no password yet does not count as locked.
    """
    try:
        pw = pwd.getpwnam(RELAY_USER)
    except KeyError:
        try:
            _run(["useradd", "--system", "--create-home", "--shell",
                  "/bin/sh", "--comment", "relay test login", RELAY_USER])
        except subprocess.CalledProcessError:
            pass  # another fixture starting at the same time may have won
        pw = pwd.getpwnam(RELAY_USER)
    if pw.pw_shell in ("", "/usr/sbin/nologin", "/bin/false", "/sbin/nologin"):
        _run(["usermod", "--shell", "/bin/sh", RELAY_USER])
    shadow = _run(["getent", "shadow", RELAY_USER]).stdout.split(":")
    if len(shadow) > 1 and shadow[1].startswith("!"):
        _run(["usermod", "--password", "*", RELAY_USER])
    return pwd.getpwnam(RELAY_USER)


def _copy_private(src, dst):
    """Copies a key file with mode 0600 (git does not keep file modes)."""
    with open(src, "rb") as f:
        data = f.read()
    fd = os.open(dst, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    with os.fdopen(fd, "wb") as f:
        f.write(data)
    os.chmod(dst, 0o600)


def _public_key(private_path):
    """ "ssh-rsa AAAA..." of a private key file, without comment."""
    out = _run([SSH_KEYGEN, "-y", "-f", private_path]).stdout.split()
    return " ".join(out[:2])


def _write(path, text, mode=0o644):
    with open(path, "w") as f:
        f.write(text)
    os.chmod(path, mode)


def _free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def _children_map():
    """ppid -> [pid] for every process, read from /proc."""
    children = {}
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            with open("/proc/%s/stat" % name) as f:
                stat = f.read()
        except OSError:
            continue
        # the command name may hold blanks and parentheses: skip past it
        ppid = int(stat[stat.rindex(")") + 2:].split()[1])
        children.setdefault(ppid, []).append(int(name))
    return children


def _descendants(pid):
    children = _children_map()
    out, todo = [], [pid]
    while todo:
        for child in children.get(todo.pop(), []):
            out.append(child)
            todo.append(child)
    return out


def _alive(pid):
    try:
        with open("/proc/%d/stat" % pid) as f:
            state = f.read().rsplit(")", 1)[1].split()[0]
        return state != "Z"
    except (OSError, IndexError):
        return False


def _signal(pids, sig):
    for pid in pids:
        try:
            os.kill(pid, sig)
        except ProcessLookupError:
            pass


def _is_our_sshd(pid, config):
    """Guards against signalling an unrelated process that reused the pid."""
    try:
        with open("/proc/%d/cmdline" % pid, "rb") as f:
            cmdline = f.read()
    except OSError:
        return False
    # sshd rewrites its title to "sshd: /usr/sbin/sshd -D -f CONFIG ...
    # [listener] ...", one string with blanks instead of separate arguments
    cfg = config.encode()
    return any(sep + cfg + end in cmdline + b"\0"
               for sep in (b"-f\0", b"-f ") for end in (b"\0", b" "))


def stop_sshd(pid, config, timeout=5.0):
    """Stops the listener and every per-connection sshd (and relay) below
    it.  The process tree is read before anything is signalled, since the
    session processes lose their parent link once the listener is gone."""
    if not _is_our_sshd(pid, config):
        return
    tree = _descendants(pid)
    _signal([pid] + tree, signal.SIGTERM)
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if not any(_alive(p) for p in [pid] + tree):
            return
        time.sleep(0.05)
    _signal([p for p in [pid] + tree if _alive(p)], signal.SIGKILL)


def ssh_argv(port, identity, known_hosts, forward_port=None,
             host="127.0.0.1", verbose=False):
    """The client command line that the relay tool builds (without the
    parent-death watcher), for tests and manual runs."""
    argv = [SSH, "-F", "/dev/null",
            "-o", "CheckHostIP no",
            "-o", "ServerAliveInterval 15",
            "-o", "ServerAliveCountMax 8",
            "-o", "StrictHostKeyChecking yes",
            "-o", 'UserKnownHostsFile "%s"' % known_hosts,
            "-o", "IdentitiesOnly yes",
            "-o", "IdentityAgent none",
            "-o", "IPQoS lowdelay",
            "-T", "-l", RELAY_USER, "-i", identity]
    if verbose:
        argv.append("-v")
    if forward_port is not None:
        argv += ["-R", "0:127.0.0.1:%d" % forward_port]
    return argv + ["-p", str(port), host]


class RelayFixture:
    """A private sshd running the local relay; a context manager.

    directory: where everything lives; a fresh temporary directory (removed
        again by stop()) when None.
    host_key: private host key file (default tests/keys/relay_host_rsa).
    anon_key: the anonymous client key whose public half is authorised
        (default tests/keys/anonymous.key).
    relay_options: extra relay_server.py options, e.g. ["--challenge",
        "percent"]; heartbeat is a shortcut for --heartbeat.
    address, netns: sshd listens on address inside the network namespace
        netns (made by the caller, e.g. the lab's, lab/net.py) instead of on
        127.0.0.1 in ours; forwarded ports then live in that namespace.
    authority: (certificate file, key file) of the authority a new
        directory gets instead of a fresh one, such as the test authority
        in tests/keys that a test package is built to trust.
    """

    def __init__(self, directory=None, host_key=None, anon_key=None,
                 heartbeat=None, relay_options=(), port=None,
                 address="127.0.0.1", netns=None, authority=None):
        self.dir = directory
        self.host_key = host_key or DEFAULT_HOST_KEY
        self.anon_key = anon_key or DEFAULT_ANON_KEY
        self.relay_options = list(relay_options)
        if heartbeat is not None:
            self.relay_options += ["--heartbeat", str(heartbeat)]
        self.requested_port = port
        self.address = address
        self.netns = netns
        self.given_authority = authority
        self.port = None
        self.authority = {}  # authority=, trust_dir= of the relay, by start()
        self.pid = None
        self._proc = None
        self._own_dir = False

    # -- paths

    def path(self, name):
        return os.path.join(self.dir, name)

    @property
    def state_dir(self):
        return self.path("state")

    @property
    def config_path(self):
        return self.path("sshd_config")

    @property
    def sshd_log(self):
        return self.path("sshd.log")

    @property
    def relay_log(self):
        return os.path.join(self.state_dir, "relay.log")

    @property
    def known_hosts(self):
        return self.path("known_hosts")

    @property
    def trust_dir(self):
        """The authority's trust directory that any local user may read."""
        return self.path("trust")

    # -- life cycle

    def __enter__(self):
        return self.start()

    def __exit__(self, *exc):
        self.stop()

    def start(self):
        missing = missing_requirement()
        if missing:
            raise FixtureError("the relay sshd fixture needs " + missing)
        account = ensure_relay_account()
        if self.dir is None:
            self.dir = tempfile.mkdtemp(prefix="relay-sshd-")
            self._own_dir = True
        self.dir = os.path.abspath(self.dir)
        os.makedirs(self.dir, exist_ok=True)
        self._refuse_if_running()
        self._prepare(account)
        os.makedirs("/run/sshd", mode=0o755, exist_ok=True)
        for attempt in range(3):
            self.port = self.requested_port or _free_port()
            if self._launch():
                break
            if self.requested_port or attempt == 2:
                raise FixtureError("sshd did not start:\n" + self.logs())
        _write(self.path("fixture.json"),
               json.dumps({"pid": self.pid, "port": self.port}) + "\n")
        return self

    def stop(self):
        pid = self.pid
        if pid is None:
            pid = self._recorded().get("pid")
        if pid:
            stop_sshd(pid, self.config_path)
        if self._proc is not None:
            self._proc.wait(timeout=10)
            self._proc = None
        self.pid = None
        if self._own_dir:
            shutil.rmtree(self.dir, ignore_errors=True)
        elif self.dir and os.path.exists(self.path("fixture.json")):
            os.unlink(self.path("fixture.json"))

    def _recorded(self):
        """What start() recorded; falls back to sshd's own pid file."""
        try:
            with open(self.path("fixture.json")) as f:
                return json.load(f)
        except (OSError, ValueError):
            pass
        try:
            with open(self.path("sshd.pid")) as f:
                return {"pid": int(f.read().strip())}
        except (OSError, ValueError):
            return {}

    def _refuse_if_running(self):
        pid = self._recorded().get("pid")
        if pid and _alive(pid) and _is_our_sshd(pid, self.config_path):
            raise FixtureError("a fixture sshd (pid %d) already runs in %s"
                               % (pid, self.dir))

    def _prepare(self, account):
        # sshd runs the relay as x_relay2, which must get through this
        # directory to its state dir and the relay copy.
        os.chown(self.dir, 0, 0)
        os.chmod(self.dir, 0o755)
        _check_traversable(self.dir)

        _copy_private(self.host_key, self.path("host_key"))
        host_public = _public_key(self.path("host_key"))
        _write(self.path("host_key.pub"), host_public + "\n")
        _write(self.known_hosts, "%s %s\n" % (self.address, host_public))

        _copy_private(self.anon_key, self.path("anon_key"))
        _write(self.path("authorized_keys"),
               _public_key(self.path("anon_key")) + "\n", 0o644)

        for name in RELAY_FILES:
            shutil.copyfile(os.path.join(HERE, name), self.path(name))
            os.chmod(self.path(name), 0o644)

        os.makedirs(self.state_dir, exist_ok=True)
        os.chmod(self.state_dir, 0o700)
        for root, dirs, files in os.walk(self.state_dir):
            for name in [root] + [os.path.join(root, n) for n in files]:
                os.chown(name, account.pw_uid, account.pw_gid)
        # made here, not by the first setup, so that a new directory's
        # trust directory is there before any endpoint; an existing
        # directory keeps its authority (the relay never makes a second)
        if self.given_authority:
            self._adopt_authority(*self.given_authority)
        self.authority = dict(self._relay_admin("--init-authority"))
        self._publish_trust()

        command = [PYTHON, self.path("relay_server.py"), "--state",
                   self.state_dir] + self.relay_options
        self._config_text = SSHD_CONFIG.format(
            dir=self.dir, user=RELAY_USER,
            command=" ".join(shlex.quote(a) for a in command))

    def _adopt_authority(self, cert_file, key_file):
        import relay_ca  # needs python3-cryptography, as the relay does
        with open(cert_file, "rb") as f:
            cert = f.read()
        existing = os.path.join(self.state_dir, "authority", "ca-cert.pem")
        if os.path.lexists(os.path.dirname(existing)):
            with open(existing, "rb") as f:
                if f.read() != cert:
                    raise FixtureError("%s already has another authority"
                                       % self.dir)
            return
        with open(key_file, "rb") as f:
            relay_ca.adopt_authority(self.state_dir, f.read(), cert)

    def _publish_trust(self):
        """Copies the authority's certificate out of the root-only state
        directory into trust/, with the signing policy that Globus GSI
        needs, for servers and clients running as any user."""
        import relay_ca
        from cryptography import x509
        with open(self.authority["authority"], "rb") as f:
            cert = x509.load_pem_x509_certificate(f.read())
        relay_ca.publish_trust_dir(cert, self.trust_dir)
        self.authority["trust_dir"] = self.trust_dir

    def _launch(self):
        """Starts sshd on self.port; False if the port was taken."""
        _write(self.sshd_log, "", 0o600)
        _write(self.config_path, self._config_text +
               "ListenAddress %s:%d\n" % (self.address, self.port))
        argv = [SSHD, "-D", "-f", self.config_path, "-E", self.sshd_log]
        if self.netns:  # ip execs sshd in the namespace: the pid is sshd's
            argv = ["ip", "netns", "exec", self.netns] + argv
        self._proc = subprocess.Popen(
            argv,
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, start_new_session=True)
        self.pid = self._proc.pid
        deadline = time.monotonic() + 10
        needle = "Server listening on %s port %d." % (self.address, self.port)
        while time.monotonic() < deadline:
            if needle in self.logs():
                return True
            if self._proc.poll() is not None:
                self._proc, self.pid = None, None
                return False
            time.sleep(0.02)
        stop_sshd(self.pid, self.config_path)
        raise FixtureError("sshd did not start listening:\n" + self.logs())

    # -- helpers for clients and tests

    def logs(self):
        """The sshd log followed by the relay log, for failure messages."""
        out = []
        for path in (self.sshd_log, self.relay_log):
            try:
                with open(path, errors="replace") as f:
                    out.append("==> %s <==\n%s" % (path, f.read()))
            except OSError:
                pass
        return "\n".join(out)

    def forwarded_ports(self):
        """Relay-side ports of the remote forwards that clients hold now:
        the loopback TCP listeners of the per-connection sshd processes."""
        if not self.pid:
            return []
        inodes = set()
        for pid in _descendants(self.pid):
            fd_dir = "/proc/%d/fd" % pid
            try:
                for fd in os.listdir(fd_dir):
                    link = os.readlink(os.path.join(fd_dir, fd))
                    if link.startswith("socket:["):
                        inodes.add(link[8:-1])
            except OSError:
                continue
        ports = set()
        # the table of sshd's network namespace, which may not be ours
        with open("/proc/%d/net/tcp" % self.pid) as f:
            for line in f.readlines()[1:]:
                fields = line.split()
                local, state, inode = fields[1], fields[3], fields[9]
                if state == "0A" and inode in inodes:  # 0A: LISTEN
                    ports.add(int(local.split(":")[1], 16))
        return sorted(ports)

    def relay_command(self, *options):
        return [PYTHON, RELAY_SERVER, "--state", self.state_dir] + list(options)

    def _relay_admin(self, *options):
        """Runs the relay in one of its administrative modes; returns the
        (key, value) pairs of its key=value output lines."""
        try:
            out = _run(self.relay_command(*options)).stdout
        except subprocess.CalledProcessError as e:
            raise FixtureError(e.stderr.strip() or str(e))
        return [tuple(line.split("=", 1)) for line in out.splitlines()
                if "=" in line]

    def add_code(self, code):
        self._relay_admin("--add-code", code)

    def client_credentials(self, endpoint_id, user=None, into=None):
        """What a test client of the endpoint needs, as a dict: user_cert,
        user_key (its key, PEM), user_dn (its subject, as in gridmap),
        endpoint_cert, endpoint_subject, trust_dir (the authority in
        OpenSSL's hashed layout with its signing policy, for -CApath and
        X509_CERT_DIR) and ca_bundle (for -CAfile).  With user and into,
        the certificate and key are copies in `into` that `user` owns.
        """
        creds = dict(self._relay_admin("--show-endpoint", endpoint_id))
        creds.update(trust_dir=self.trust_dir,
                     ca_bundle=os.path.join(self.trust_dir, "ca-bundle.pem"))
        if user:
            creds.update(hand_over(
                {"user_cert": creds["user_cert"],
                 "user_key": creds["user_key"]}, user, into))
        return creds

    def server_credentials(self, name, user=None, into=None):
        """A certificate signed by the relay's authority, with its key, for
        a GridFTP server reached as `name` (an address or host name), as a
        dict: cert, key, subject, trust_dir.  With user and into, as in
        client_credentials."""
        issued = os.path.join(self.path("issued"), name)
        os.makedirs(self.path("issued"), mode=0o700, exist_ok=True)
        self._relay_admin("--issue-server", name, issued)
        creds = {"cert": os.path.join(issued, "server-cert.pem"),
                 "key": os.path.join(issued, "server-key.pem")}
        if user:
            creds = hand_over(creds, user, into)
        import relay_ca
        from cryptography import x509
        with open(creds["cert"], "rb") as f:
            subject = x509.load_pem_x509_certificate(f.read()).subject
        creds.update(subject=relay_ca.slash_form(subject),
                     trust_dir=self.trust_dir)
        return creds

    def make_v1_credentials(self, outdir):
        """Writes an old-style ltacert.pem/ltakey.pem pair signed by the
        relay's authority into outdir, for upgrade tests."""
        self._relay_admin("--make-v1-credentials", outdir)

    def state(self):
        with open(os.path.join(self.state_dir, "state.json")) as f:
            return json.load(f)

    def ssh_argv(self, identity, known_hosts=None, forward_port=None,
                 verbose=False):
        return ssh_argv(self.port, identity, known_hosts or self.known_hosts,
                        forward_port, host=self.address, verbose=verbose)


def hand_over(files, user, into):
    """Copies {name: path} into the directory `into` for a program that
    runs as `user`: the directory (made if missing, mode 0700) and the
    copies belong to the user, a key (a name ending in "key") with mode
    0600.  Returns {name: new path}."""
    account = pwd.getpwnam(user)
    os.makedirs(into, mode=0o700, exist_ok=True)
    os.chown(into, account.pw_uid, account.pw_gid)
    os.chmod(into, 0o700)
    copies = {}
    for name, src in files.items():
        dst = os.path.join(into, os.path.basename(src))
        with open(src, "rb") as f:
            data = f.read()
        fd = os.open(dst, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
        with os.fdopen(fd, "wb") as f:
            os.fchown(f.fileno(), account.pw_uid, account.pw_gid)
            os.fchmod(f.fileno(), 0o600 if name.endswith("key") else 0o644)
            f.write(data)
        copies[name] = dst
    return copies


def _check_traversable(path):
    """x_relay2 needs search permission on every directory above `path`."""
    parent = os.path.dirname(path)
    while parent != os.path.dirname(parent):
        if not os.stat(parent).st_mode & 0o001:
            raise FixtureError("%s is not searchable by others; x_relay2 "
                               "could not reach %s" % (parent, path))
        parent = os.path.dirname(parent)


# StrictModes is off: sshd checks every directory above AuthorizedKeysFile,
# and a fixture under /tmp (world-writable) would always fail that check.
# The files themselves are still root-owned and not writable by others.
SSHD_CONFIG = """\
# private sshd for the local relay; written by relay/sshd_fixture.py
HostKey {dir}/host_key
PidFile {dir}/sshd.pid
LogLevel VERBOSE
UseDNS no
StrictModes no
UsePAM no
AllowUsers {user}
PermitRootLogin no
PubkeyAuthentication yes
AuthorizedKeysFile {dir}/authorized_keys
AuthorizedPrincipalsFile none
AuthorizedKeysCommand none
HostbasedAuthentication no
PasswordAuthentication no
KbdInteractiveAuthentication no
PermitEmptyPasswords no
PermitUserEnvironment no
AllowAgentForwarding no
X11Forwarding no
PermitTTY no
PermitTunnel no
AllowStreamLocalForwarding no
AllowTcpForwarding remote
GatewayPorts no
PrintMotd no
PrintLastLog no
Banner none
ForceCommand {command}
"""


def main(argv=None):
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    sub = p.add_subparsers(dest="cmd", required=True)
    start = sub.add_parser("start", help="start sshd and leave it running")
    start.add_argument("--dir", required=True)
    start.add_argument("--host-key", help="private host key file")
    start.add_argument("--anon-key", help="anonymous client key to authorise")
    start.add_argument("--heartbeat", type=float)
    start.add_argument("--port", type=int, help="port (default: a free one)")
    start.add_argument("--address", default="127.0.0.1",
                       help="address to listen on (default 127.0.0.1)")
    start.add_argument("--netns",
                       help="network namespace to run sshd in (ip netns)")
    start.add_argument("--authority-cert",
                       help="for a new directory: the authority's "
                            "certificate to use instead of a new one")
    start.add_argument("--authority-key", help="... and its key")
    start.add_argument("--relay-option", action="append", default=[],
                       help="extra relay_server.py argument (repeatable), "
                            "e.g. --relay-option=--challenge=percent")
    stop = sub.add_parser("stop", help="stop the sshd started in --dir")
    stop.add_argument("--dir", required=True)
    code = sub.add_parser("add-code", help="register a setup code")
    code.add_argument("--dir", required=True)
    code.add_argument("code")
    creds = sub.add_parser(
        "client-credentials",
        help="print the test user's certificate and key, the endpoint's "
             "subject and the trust directory for endpoint ID")
    creds.add_argument("--dir", required=True)
    creds.add_argument("id")
    server = sub.add_parser(
        "server-credentials",
        help="issue a certificate and key for a GridFTP server reached as "
             "NAME, and print their paths, the subject and the trust "
             "directory")
    server.add_argument("--dir", required=True)
    server.add_argument("name")
    for command in (creds, server):
        command.add_argument("--for", dest="user",
                             help="hand the certificate and key over to "
                                  "this user, as copies it owns in --into")
        command.add_argument("--into", help="directory for those copies")
    v1 = sub.add_parser(
        "make-v1-credentials",
        help="write an old-style ltacert.pem/ltakey.pem pair, signed by the "
             "relay's authority, into OUTDIR (for upgrade tests)")
    v1.add_argument("--dir", required=True)
    v1.add_argument("outdir")
    args = p.parse_args(argv)

    fixture = RelayFixture(os.path.abspath(args.dir),
                           host_key=getattr(args, "host_key", None),
                           anon_key=getattr(args, "anon_key", None),
                           heartbeat=getattr(args, "heartbeat", None),
                           relay_options=getattr(args, "relay_option", []),
                           port=getattr(args, "port", None),
                           address=getattr(args, "address", "127.0.0.1"),
                           netns=getattr(args, "netns", None),
                           authority=(args.authority_cert, args.authority_key)
                           if getattr(args, "authority_cert", None) else None)
    if getattr(args, "user", None) and not args.into:
        p.error("--for needs --into")
    try:
        if args.cmd == "start":
            fixture.start()
            fixture._proc = None  # leave it running when we exit
            print("port=%d" % fixture.port)
            print("pid=%d" % fixture.pid)
            print("state=%s" % fixture.state_dir)
            print("known_hosts=%s" % fixture.known_hosts)
            print("identity=%s" % fixture.path("anon_key"))
            for key, value in fixture.authority.items():
                print("%s=%s" % (key, value))
        elif args.cmd == "stop":
            fixture.stop()
        elif args.cmd in ("client-credentials", "server-credentials"):
            issue = (fixture.client_credentials
                     if args.cmd == "client-credentials"
                     else fixture.server_credentials)
            into = args.into and os.path.abspath(args.into)
            for key, value in issue(getattr(args, "id", None) or args.name,
                                    args.user, into).items():
                print("%s=%s" % (key, value))
        elif args.cmd == "make-v1-credentials":
            fixture.make_v1_credentials(os.path.abspath(args.outdir))
        else:
            fixture.add_code(args.code)
    except (FixtureError, subprocess.CalledProcessError) as e:
        detail = getattr(e, "stderr", "") or ""
        print("sshd_fixture: %s %s" % (e, detail), file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
