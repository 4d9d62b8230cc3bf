#!/usr/bin/python3
"""End-to-end runs of the relay tool against the local relay.

Everything here is real except the GridFTP worker: the tool binary, the
pdeath watcher, Debian's ssh client and sshd (relay/sshd_fixture.py), and
the relay server behind it.  The worker is standin_worker.py, which serves
one file request per forwarded connection.

The binaries come from the environment (set by CTest) or from build/:
    RELAYTOOL_TESTRELAY_BIN   the tool built to trust the test relay's keys
    RELAYTOOL_BIN             the default build (trusts no test key)
    PDEATH_BIN                the watcher
Needs root (the fixture creates a login account and runs a private sshd);
without it every test is skipped with a message saying so.
"""

import hashlib
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
sys.path.insert(0, os.path.join(REPO, "relay"))

import sshd_fixture  # noqa: E402
from sshd_fixture import RelayFixture  # noqa: E402

BUILD = os.path.join(REPO, "build")
TOOL = os.environ.get("RELAYTOOL_TESTRELAY_BIN",
                      os.path.join(BUILD, "tests", "relaytool-testrelay"))
DEFAULT_TOOL = os.environ.get("RELAYTOOL_BIN",
                              os.path.join(BUILD, "src", "relaytool"))
PDEATH = os.environ.get("PDEATH_BIN", os.path.join(BUILD, "pdeath", "pdeath"))
WORKER = os.path.join(HERE, "standin_worker.py")
SSH = "/usr/bin/ssh"
KEYS = os.path.join(REPO, "tests", "keys")

WAIT = 30          # seconds; generous, the machine is shared and noisy
DISPLAY_NAME = "Lab PC #2 = main"
APP_VERSION = "4.1 beta"
V2_MARKER = b"V2 Credentials Done.  Do not remove this file"
CREDENTIAL_FILES = ("client-id.txt", "client-key.pem", "ftp-cert2.pem",
                    "ftp-key2.pem", "gridmap", "config", "v2done.txt")
OLD_FILES = ("anon.cert", "anon.key", "ltacert.pem", "ltakey.pem")


def skip_reason():
    reason = sshd_fixture.skip_reason()
    if reason is None and not os.access(SSH, os.X_OK):
        reason = ("real end-to-end tests skipped because they need %s from "
                  "Debian's openssh-client" % SSH)
    return reason


SKIP = skip_reason()
if not SKIP:
    import relay_server  # noqa: E402  (needs python3-cryptography)
    from cryptography.hazmat.primitives import serialization  # noqa: E402
    from cryptography import x509  # noqa: E402


# -- processes -------------------------------------------------------------

def proc_stat(pid):
    """(state, ppid) from /proc, or None when the process is gone."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return fields[0], int(fields[1])
    except (OSError, IndexError, ValueError):
        return None


def alive(pid):
    stat = proc_stat(pid)
    return stat is not None and stat[0] != "Z"


def children(pid):
    out = []
    for name in os.listdir("/proc"):
        if name.isdigit():
            stat = proc_stat(int(name))
            if stat and stat[1] == pid and stat[0] != "Z":
                out.append(int(name))
    return out


def comm(pid):
    try:
        with open("/proc/%d/comm" % pid) as f:
            return f.read().strip()
    except OSError:
        return None


def mentions(pid, text):
    """Whether the command line or environment of pid contains text; keeps
    the clean-up from signalling an unrelated process that reused a pid."""
    for part in ("cmdline", "environ"):
        try:
            with open("/proc/%d/%s" % (pid, part), "rb") as f:
                if text.encode() in f.read():
                    return True
        except OSError:
            pass
    return False


def wait_until(predicate, timeout=WAIT, interval=0.05):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(interval)
    return predicate()


# -- the stand-in worker's protocol ----------------------------------------

def worker_request(port, request, payload=b"", hold=None, answered=None):
    """One request to a worker through the relay-side port.  Returns a dict
    with size, the worker's sha256, pid, ppid and (for GET) the data.  With
    `hold` (an Event) the connection stays open until it is set, so that the
    worker keeps running; `answered` is then called with the reply first."""
    with socket.create_connection(("127.0.0.1", port), timeout=WAIT * 2) as s:
        s.sendall(request + b"\n" + payload)
        f = s.makefile("rb")
        header = f.readline().decode().split()
        if not header or header[0] != "OK":
            raise AssertionError("worker answered %r" % (header,))
        reply = dict(w.split("=") for w in header[3:])
        reply = {"size": int(header[1]), "sha256": header[2],
                 "pid": int(reply["pid"]), "ppid": int(reply["ppid"])}
        if request.startswith(b"GET"):
            reply["data"] = f.read(reply["size"])
        if answered is not None:
            answered(reply)
        if hold is not None:
            hold.wait(WAIT * 4)
        # the worker ends when we stop sending; the connection must close
        # with it (it would stay open if the tool kept a copy)
        s.shutdown(socket.SHUT_WR)
        rest = f.read()
        if rest:
            raise AssertionError("worker sent %d bytes too many" % len(rest))
        return reply


class Transfers:
    """Requests to workers, each on a thread of its own; their connections
    (and so their workers) stay open until finish()."""

    def __init__(self, port):
        self.port = port
        self.hold = threading.Event()
        self.results, self.threads = [], []

    def start(self, request, payload=b""):
        i = len(self.results)
        self.results.append(None)

        def answered(reply):
            self.results[i] = reply

        def client():
            try:
                worker_request(self.port, request, payload, self.hold,
                               answered)
            except Exception as e:  # reported by finish()
                self.results[i] = e
        self.threads.append(threading.Thread(target=client))
        self.threads[-1].start()

    def wait_answered(self):
        wait_until(lambda: all(r is not None for r in self.results), WAIT * 2)

    def finish(self, run):
        """Closes every connection; returns the replies, or fails."""
        self.hold.set()
        for t in self.threads:
            t.join(WAIT * 4)
        for i, r in enumerate(self.results):
            if not isinstance(r, dict):
                raise AssertionError("connection %d: %r\n%s"
                                     % (i, r, run.report()))
        return self.results


# -- one run of the tool ---------------------------------------------------

class ToolRun:
    """The tool (or a middle process that started it) with its output
    collected line by line.  stdin is a pipe that stays open and silent
    until close_stdin(): the tool takes any readiness of it as its parent
    gone."""

    def __init__(self, argv, env, context):
        self.context = context
        self.proc = subprocess.Popen(argv, env=env, stdin=subprocess.PIPE,
                                     stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE)
        self.pid = self.proc.pid
        self.out, self.err = [], []
        self.cond = threading.Condition()
        self.readers = [threading.Thread(target=self._read, args=(s, l),
                                         daemon=True)
                        for s, l in ((self.proc.stdout, self.out),
                                     (self.proc.stderr, self.err))]
        for t in self.readers:
            t.start()

    def _read(self, stream, lines):
        for raw in stream:
            with self.cond:
                lines.append(raw.decode("utf-8", "replace").rstrip("\n"))
                self.cond.notify_all()
        stream.close()

    def report(self):
        with self.cond:
            return ("--- tool stdout:\n%s\n--- tool stderr:\n%s\n%s"
                    % ("\n".join(self.out), "\n".join(self.err),
                       self.context()))

    def wait_line(self, pattern, stream="out", start=0, timeout=WAIT):
        """Index and match of the first line from `start` on that matches."""
        lines = self.out if stream == "out" else self.err
        regex = re.compile(pattern)
        deadline = time.monotonic() + timeout
        with self.cond:
            while True:
                for i in range(start, len(lines)):
                    m = regex.search(lines[i])
                    if m:
                        return i, m
                left = deadline - time.monotonic()
                if left <= 0:
                    break
                self.cond.wait(min(left, 0.5))
        raise AssertionError("no line matching %r on std%s\n%s"
                             % (pattern, stream, self.report()))

    def status_lines(self):
        with self.cond:
            return [l for l in self.out if l.startswith("RELAYTOOL=1 ")]

    def wait_exit(self, timeout=WAIT):
        try:
            rc = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            raise AssertionError("tool still running after %ss\n%s"
                                 % (timeout, self.report()))
        for t in self.readers:
            t.join(timeout)
        return rc

    def close_stdin(self):
        self.proc.stdin.close()

    def forwarded_port(self):
        _, m = self.wait_line(r"^\[ssh stderr\] Allocated port (\d+) for "
                              r"remote forward to 127\.0\.0\.1:(\d+)$", "err")
        return int(m.group(1))

    def ssh_pid(self, tool_pid=None):
        """The ssh client below the tool: with the Linux watcher pdeath
        replaces itself with ssh, which is then the tool's child; a watcher
        that forks makes it a grandchild."""
        found = []

        def look():
            below = children(tool_pid or self.pid)
            below += [g for c in below for g in children(c)]
            found[:] = [p for p in below if comm(p) == "ssh"]
            return found
        if not wait_until(look):
            raise AssertionError("no ssh below the tool\n" + self.report())
        return found[0]


class Endpoint:
    """A configuration and an installation directory for one endpoint."""

    def __init__(self, test, fixture):
        self.test, self.fixture = test, fixture
        self.root = tempfile.mkdtemp(prefix="relaytool-e2e-")
        test.addCleanup(shutil.rmtree, self.root, True)
        self.config_dir = os.path.join(self.root, "config dir")  # ssh must
        # cope with the blank in the known-hosts path the tool gives it
        self.etc_dir = os.path.join(self.root, "etc")
        self.serve_dir = os.path.join(self.root, "files")
        for d in (self.config_dir, self.etc_dir, self.serve_dir):
            os.mkdir(d)
        shutil.copyfile(os.path.join(KEYS, "anonymous.key"),
                        os.path.join(self.etc_dir, "relay-anonymous.key"))
        with open(self.path("gridftp.conf"), "w") as f:
            f.write("# stand-in worker\nserve_dir = %s\n" % self.serve_dir)
        self.blob = os.urandom(1 << 20)
        with open(os.path.join(self.serve_dir, "blob"), "wb") as f:
            f.write(self.blob)
        self.runs = []
        test.addCleanup(self.stop_all)

    def path(self, name):
        return os.path.join(self.config_dir, name)

    def read(self, name):
        with open(self.path(name), "rb") as f:
            return f.read()

    def env(self, **mode):
        env = {
            "PATH": "/usr/bin:/bin",
            "HVN_OS": "Linux",
            "HVN_OS_VERSION": "Debian 12",
            "HVN_APP_VERSION": APP_VERSION,
            "HVN_SSH_PATH": SSH,
            "HVN_GRIDFTP_PATH": WORKER,
            "HVN_PDEATH_PATH": PDEATH,
            "HVN_RELAY_SERVER": "127.0.0.1:%d" % self.fixture.port,
            "HVN_USER": "alice",
            "HVN_CONFIG_DIR": self.config_dir,
            "HVN_GLOBAL_ETC_DIR": self.etc_dir,
        }
        env.update(mode)
        return env

    def start(self, tool=TOOL, via_middle=False, **mode):
        argv = [tool]
        if via_middle:
            # A parent that starts the tool with a stdin pipe of its own
            # and then just sits there; the test can kill it.
            argv = [sys.executable, "-c", MIDDLE, tool]
        run = ToolRun(argv, self.env(**mode), self.fixture.logs)
        self.runs.append(run)
        return run

    def login(self, **kw):
        return self.start(HVN_FTP_PORT="0", **kw)

    def set_up(self, code, tool=TOOL):
        self.fixture.add_code(code)
        run = self.start(tool, HVN_SETUP_CODE=code)
        return run, run.wait_exit()

    def stop_all(self):
        """Ends every process of this endpoint that is still running: the
        tools, their middle processes and any ssh client left behind."""
        for run in self.runs:
            if run.proc.poll() is None:
                run.proc.kill()
                run.proc.wait()
            run.proc.stdin.close()
        for name in os.listdir("/proc"):
            if name.isdigit() and alive(int(name)) and \
                    mentions(int(name), self.config_dir):
                try:
                    os.kill(int(name), signal.SIGKILL)
                except ProcessLookupError:
                    pass


MIDDLE = """\
import subprocess, sys, time
tool = subprocess.Popen(sys.argv[1:], stdin=subprocess.PIPE)
print("middle: tool pid=%d" % tool.pid, flush=True)
time.sleep(3600)
"""


def sha256(data):
    return hashlib.sha256(data).hexdigest()


def public_pem(private_pem):
    key = serialization.load_pem_private_key(private_pem, None)
    return key.public_key().public_bytes(
        serialization.Encoding.PEM,
        serialization.PublicFormat.SubjectPublicKeyInfo)


def counts(status_lines):
    """The worker counts that the IDLE/ACTIVE lines report, in order."""
    out = []
    for line in status_lines:
        m = re.match(r"RELAYTOOL=1 status=(IDLE|ACTIVE nr_workers=(\d+))$",
                     line)
        if m:
            out.append(int(m.group(2) or 0))
    return out


@unittest.skipIf(SKIP, SKIP)
class EndToEndTests(unittest.TestCase):
    """One relay for the whole class; each test has endpoints of its own."""

    @classmethod
    def setUpClass(cls):
        cls.fixture = RelayFixture(
            heartbeat=1, relay_options=["--display-name", DISPLAY_NAME])
        cls.fixture.start()

    @classmethod
    def tearDownClass(cls):
        cls.fixture.stop()

    def endpoint(self):
        return Endpoint(self, self.fixture)

    def code(self):
        return "e2e-" + self.id().rsplit(".", 1)[-1]

    def ready_endpoint(self):
        ep = self.endpoint()
        run, rc = ep.set_up(self.code())
        self.assertEqual(rc, 0, run.report())
        return ep

    def connected(self, run):
        """Waits for CONNECTED followed by IDLE; returns the CONNECTED line."""
        i, m = run.wait_line(r"^RELAYTOOL=1 status=CONNECTED ")
        run.wait_line(r"^RELAYTOOL=1 status=", start=i + 1)
        self.assertEqual(run.status_lines()[1], "RELAYTOOL=1 status=IDLE",
                         run.report())
        return m.string

    # -- setup

    def test_setup_writes_credentials_and_a_code_works_once(self):
        ep = self.endpoint()
        for name in OLD_FILES:
            with open(ep.path(name), "w") as f:
                f.write("left over from an earlier generation\n")
        code = self.code()
        run, rc = ep.set_up(code)
        self.assertEqual(rc, 0, run.report())
        self.assertEqual(run.status_lines(), [], run.report())

        for name in CREDENTIAL_FILES:
            self.assertTrue(os.path.isfile(ep.path(name)), name)
            self.assertEqual(os.stat(ep.path(name)).st_mode & 0o777, 0o600,
                             name)
        for name in OLD_FILES:
            self.assertFalse(os.path.exists(ep.path(name)), name)
        self.assertEqual(ep.read("v2done.txt"), V2_MARKER)  # 45 bytes

        state = self.fixture.state()
        client_id = state["codes"][code]["used"]["id"]
        self.assertEqual(ep.read("client-id.txt"), client_id.encode() + b"\n")
        client = state["clients"][client_id]
        self.assertEqual(public_pem(ep.read("client-key.pem")).decode(),
                         client["public_key"])
        self.assertEqual(ep.read("gridmap").decode(),
                         '"%s" alice\n' % client["ftp_user_dn"])
        self.assertEqual(ep.read("config").decode(),
                         "SERVER=127.0.0.1\nSERVER_PORT=%d\n"
                         % self.fixture.port)
        cert = x509.load_pem_x509_certificate(ep.read("ftp-cert2.pem"))
        self.assertEqual(
            public_pem(ep.read("ftp-key2.pem")),
            cert.public_key().public_bytes(
                serialization.Encoding.PEM,
                serialization.PublicFormat.SubjectPublicKeyInfo))
        self.assertEqual(client["client"], {"appver": APP_VERSION,
                                            "ostype": "Linux",
                                            "osver": "Debian 12"})

        again = self.endpoint()
        run = again.start(HVN_SETUP_CODE=code)
        self.assertEqual(run.wait_exit(), 1, run.report())
        run.wait_line(r"^Relay server error: .*already used", "err")
        for name in CREDENTIAL_FILES:
            self.assertFalse(os.path.exists(again.path(name)), name)

    # -- login and transfers

    def test_login_serves_a_connection_through_the_forward(self):
        ep = self.ready_endpoint()
        client_id = ep.read("client-id.txt").decode().strip()
        run = ep.login()
        line = self.connected(run)
        enc = relay_server.url_encode
        self.assertEqual(
            line, "RELAYTOOL=1 status=CONNECTED ep_display_name=%s "
            "web_ux_url=%s" % (enc(DISPLAY_NAME),
                               enc("https://relay.example/ep?id=" + client_id)))
        last = self.fixture.state()["clients"][client_id]["last_login"]
        self.assertEqual((last["operation"], last["protocol_version"],
                          last["appver"]), ("FORWARD", 2, APP_VERSION))

        port = run.forwarded_port()
        self.assertIn(port, self.fixture.forwarded_ports())
        transfers = Transfers(port)
        transfers.start(b"GET blob")
        try:
            run.wait_line(r"^RELAYTOOL=1 status=ACTIVE nr_workers=1$")
        finally:
            got, = transfers.finish(run)
        self.assertEqual(got["data"], ep.blob)
        self.assertEqual(got["sha256"], sha256(ep.blob))
        self.assertEqual(got["ppid"], run.pid, "worker not started by the tool")
        run.wait_line(r"^\[ftp stderr\] standin worker %d: sent blob, %d "
                      r"bytes$" % (got["pid"], len(ep.blob)), "err")
        self.assertTrue(wait_until(lambda: counts(run.status_lines()) ==
                                   [0, 1, 0]), run.report())

        # the other direction: data sent to the worker arrives intact
        payload = os.urandom(3 << 20)
        put = worker_request(port, b"PUT %d" % len(payload), payload)
        self.assertEqual((put["size"], put["sha256"]),
                         (len(payload), sha256(payload)))
        self.assertEqual(put["ppid"], run.pid)
        self.assertTrue(wait_until(lambda: counts(run.status_lines()) ==
                                   [0, 1, 0, 1, 0]), run.report())
        self.assertIsNone(run.proc.poll(), run.report())

    def test_twenty_connections_at_once(self):
        ep = self.ready_endpoint()
        run = ep.login()
        self.connected(run)
        n = 20
        payloads = [os.urandom(256 << 10) for _ in range(n // 2)]
        transfers = Transfers(run.forwarded_port())
        for payload in payloads:
            transfers.start(b"GET blob")
            transfers.start(b"PUT %d" % len(payload), payload)
        try:
            transfers.wait_answered()
            # every worker is still running, held by its open connection
            run.wait_line(r"^RELAYTOOL=1 status=ACTIVE nr_workers=%d$" % n)
        finally:
            results = transfers.finish(run)
        for i, r in enumerate(results):
            if i % 2:
                self.assertEqual(r["sha256"], sha256(payloads[i // 2]))
            else:
                self.assertEqual(r["data"], ep.blob, "connection %d" % i)
            self.assertEqual(r["ppid"], run.pid)
        self.assertEqual(len({r["pid"] for r in results}), n)

        # the count climbs to n while the connections arrive and falls back
        # to IDLE as the workers end, one step per line
        self.assertTrue(wait_until(lambda: counts(run.status_lines())[-1:] ==
                                   [0]), run.report())
        seen = counts(run.status_lines())
        top = seen.index(n)
        self.assertEqual(seen[0], 0)
        self.assertEqual(seen[:top + 1], sorted(set(seen[:top + 1])),
                         run.report())
        self.assertEqual(seen[top:], sorted(set(seen[top:]), reverse=True),
                         run.report())
        self.assertEqual(len(run.status_lines()), 1 + len(seen))
        served = [l for l in run.err if l.startswith("[ftp stderr] standin")]
        self.assertEqual(len(served), n, run.report())

    # -- upgrade of old-generation credentials

    def test_upgrade_of_old_credentials_then_login(self):
        ep = self.endpoint()
        relay_server.write_v1_credentials(ep.config_dir)
        run = ep.login()
        self.connected(run)
        i, _ = run.wait_line(r"^Trying to upgrade to V2 creds$", "err")
        run.wait_line(r"^Upgrade complete, sending login$", "err", i)
        self.assertEqual(ep.read("v2done.txt"), V2_MARKER)
        for name in ("ltacert.pem", "ltakey.pem"):
            self.assertFalse(os.path.exists(ep.path(name)), name)
        client_id = ep.read("client-id.txt").decode().strip()
        state = self.fixture.state()
        self.assertEqual(state["clients"][client_id]["via"], "upgrade")
        self.assertEqual(state["clients"][client_id]["logins"], 1)
        self.assertIn(client_id, [u["id"] for u in state["upgrades"]])
        run.close_stdin()
        self.assertEqual(run.wait_exit(), 1, run.report())

        # the upgrade happens once: the next start logs in directly
        run = ep.login()
        self.connected(run)
        self.assertFalse(any("upgrade" in l for l in run.err), run.report())
        self.assertEqual(
            self.fixture.state()["clients"][client_id]["logins"], 2)

    # -- the parent goes away
    #
    # Each case holds a transfer open through the forward, as a parent that
    # dies in the middle of a transfer would leave it.  ssh keeps running
    # while a forwarded connection is open, even after its stdin is gone, so
    # only the watcher ends it.

    def logged_in_with_open_transfer(self, via_middle=False):
        ep = self.ready_endpoint()
        run = ep.login(via_middle=via_middle)
        tool = run.pid
        if via_middle:
            tool = int(run.wait_line(r"^middle: tool pid=(\d+)$")[1].group(1))
        i, _ = run.wait_line(r"^RELAYTOOL=1 status=CONNECTED ")
        run.wait_line(r"^RELAYTOOL=1 status=IDLE$", start=i + 1)
        port = run.forwarded_port()
        conn = socket.create_connection(("127.0.0.1", port), timeout=WAIT)
        self.addCleanup(conn.close)
        conn.sendall(b"GET blob\n")
        conn.recv(1)  # the worker is up and answering
        run.wait_line(r"^RELAYTOOL=1 status=ACTIVE nr_workers=1$")
        return run, tool, run.ssh_pid(tool), port

    def assertGone(self, pid, what, run):
        self.assertTrue(wait_until(lambda: not alive(pid)),
                        "%s (pid %d) still running\n%s"
                        % (what, pid, run.report()))

    def test_parent_closes_stdin(self):
        run, _, ssh, port = self.logged_in_with_open_transfer()
        run.close_stdin()
        self.assertEqual(run.wait_exit(), 1, run.report())
        self.assertGone(ssh, "ssh", run)
        self.assertTrue(wait_until(
            lambda: port not in self.fixture.forwarded_ports()),
            "relay still holds the forward\n" + run.report())

    def test_parent_killed(self):
        run, tool, ssh, _ = self.logged_in_with_open_transfer(via_middle=True)
        run.proc.kill()  # the middle process, the tool's parent
        run.proc.wait()
        self.assertGone(tool, "the tool", run)
        self.assertGone(ssh, "ssh", run)

    def test_tool_killed(self):
        run, _, ssh, _ = self.logged_in_with_open_transfer()
        run.proc.kill()
        self.assertEqual(run.wait_exit(), -signal.SIGKILL)
        self.assertGone(ssh, "ssh", run)

    # -- host keys

    def test_default_build_does_not_trust_the_test_relay(self):
        ep = self.endpoint()
        code = self.code()
        run, rc = ep.set_up(code, tool=DEFAULT_TOOL)
        self.assertEqual(rc, 1, run.report())
        assert_host_key_refused(self, run, ep)
        self.assertIsNone(self.fixture.state()["codes"][code]["used"])


def assert_host_key_refused(test, run, ep):
    test.assertTrue(any(re.match(r"\[ssh stderr\] .*(Host key verification "
                                 r"failed|REMOTE HOST IDENTIFICATION)", l)
                        for l in run.err), run.report())
    test.assertEqual(run.status_lines(), [])
    for name in CREDENTIAL_FILES:
        test.assertFalse(os.path.exists(ep.path(name)), name)


@unittest.skipIf(SKIP, SKIP)
class UntrustedRelayTests(unittest.TestCase):

    def test_relay_with_another_host_key_is_refused(self):
        tmp = tempfile.mkdtemp(prefix="relaytool-e2e-hostkey-")
        self.addCleanup(shutil.rmtree, tmp, True)
        key = os.path.join(tmp, "host_key")
        subprocess.run([sshd_fixture.SSH_KEYGEN, "-q", "-t", "rsa", "-b",
                        "2048", "-N", "", "-f", key], check=True)
        with RelayFixture(host_key=key) as fixture:
            ep = Endpoint(self, fixture)
            run, rc = ep.set_up("e2e-untrusted")
            self.assertEqual(rc, 1, run.report())
            assert_host_key_refused(self, run, ep)
            self.assertFalse(os.path.exists(fixture.relay_log),
                             "the relay was reached")


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
