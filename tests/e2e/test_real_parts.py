#!/usr/bin/python3
"""The relay tool and relaytool-endpoint made of real parts, on the lab
(lab/): two network namespaces, Debian's sshd with the reference relay, ssh,
the watcher, Debian's GridFTP server and client, as the endpoint's user
from staged copies, under a host name of the lab's own.  One lab per class.
Needs root and the Debian packages; without them every test is skipped.

    test_real_parts.py [-v] [Class[.test]]

The programs are CTest's (RELAYTOOL_ENDPOINT_BIN, RELAYTOOL_TESTRELAY_BIN,
PDEATH_BIN) or build/'s; the package check gives its unpacked ones, and
their etc directory in RELAYTOOL_ETC_DIR.
"""

import atexit
import hashlib
import os
import re
import shutil
import sys
import tempfile
import unittest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
sys.path.insert(0, REPO)

import lab  # noqa: E402
from lab import SOURCE_PASV, gridftp, wait_until  # noqa: E402
from lab.tool import STATUS  # noqa: E402

SKIP = lab.skip_reason()
CREDENTIAL_FILES = ("client-id.txt", "client-key.pem", "ftp-cert2.pem", "ftp-key2.pem",
                    "gridmap", "config", "v2done.txt")


def sha256_of(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


@unittest.skipIf(SKIP, SKIP)
class Tool(unittest.TestCase):
    """The tool run directly, as its parent runs it; each test has
    configuration directories of its own."""

    @classmethod
    def setUpClass(cls):
        cls.lab = lab.Lab(heartbeat=1)
        cls.addClassCleanup(cls.lab.close)

    def ready(self, name):
        tool = self.lab.tool(name)
        run, rc = tool.set_up(name)
        self.assertEqual(rc, 0, run.report())
        return tool

    def login(self, tool, **kw):
        """A login until CONNECTED and then IDLE: the run and the relay's
        port of its forward."""
        run = tool.start(HVN_FTP_PORT="0", **kw)
        run.wait_line("^" + STATUS + "CONNECTED ", "out")
        self.assertTrue(wait_until(lambda: run.counts()[:1] == [0]), run.report())
        port = run.wait_line(r"^\[ssh stderr\] Allocated port (\d+) for remote forward to "
                             r"127\.0\.0\.1:\d+$")
        return run, int(port.group(1))

    def test_setup(self):
        tool = self.lab.tool("setup")
        old = ("anon.cert", "anon.key", "ltacert.pem", "ltakey.pem")
        for name in old:
            self.lab.user_file(tool.path(name), "from an earlier generation\n")
        run, rc = tool.set_up("setup")
        self.assertEqual((rc, run.status_lines()), (0, []), run.report())
        self.assertEqual({n: os.stat(tool.path(n)).st_mode & 0o777 for n in CREDENTIAL_FILES},
                         dict.fromkeys(CREDENTIAL_FILES, 0o600))
        self.assertEqual([n for n in old if os.path.exists(tool.path(n))], [])
        self.assertEqual(tool.read("v2done.txt"), b"V2 Credentials Done.  Do not remove this file")
        used = self.lab.relay.state()["codes"]["setup"]["used"]
        self.assertEqual(tool.read("client-id.txt").decode(), used["id"] + "\n")

        again = self.lab.tool("setup again")
        run = again.start(HVN_SETUP_CODE="setup")
        self.assertEqual(run.wait_exit(), 1, run.report())
        run.wait_line(r"^Relay server error: .*already used")
        self.assertEqual(run.status_lines(), [])
        self.assertEqual([n for n in CREDENTIAL_FILES if os.path.exists(again.path(n))], [])

    def test_upgrade_of_old_credentials_then_login(self):
        tool = self.lab.tool("upgrade")
        self.lab.relay.make_v1_credentials(tool.config_dir)
        for name in os.listdir(tool.config_dir):
            os.chown(tool.path(name), self.lab.user.uid, self.lab.user.gid)
        run, _ = self.login(tool)
        log = run.lines("err")
        self.assertLess(log.index("Trying to upgrade to V2 creds"),
                        log.index("Upgrade complete, sending login"))
        self.assertFalse(any(os.path.exists(tool.path(n)) for n in ("ltacert.pem", "ltakey.pem")))
        client_id = tool.read("client-id.txt").decode().strip()
        self.assertEqual(self.lab.relay.state()["clients"][client_id]["via"], "upgrade")
        run.stdin.close()
        self.assertEqual(run.wait_exit(), 1, run.report())

        run, _ = self.login(tool)  # the upgrade happens once
        self.assertFalse(any("upgrade" in line for line in run.lines("err")))
        self.assertEqual(self.lab.relay.state()["clients"][client_id]["logins"], 2)

    def test_parent_goes_away(self):
        # Each case holds a transfer open, as a parent that dies in the
        # middle of one would leave it: ssh keeps running while a forwarded
        # connection is open, even without stdin, so only the watcher ends it.
        tool = self.ready("parent")
        for case in ("close stdin", "kill parent", "kill tool"):
            run, port = self.login(tool, via_middle=case == "kill parent")
            pid = run.pid
            if case == "kill parent":
                pid = int(run.wait_line(r"^middle: tool pid=(\d+)$", "out").group(1))
            _, greeting = gridftp.hold(self.lab, port)
            self.assertRegex(greeting, r"^220 .*GridFTP Server")
            run.wait_line("^" + STATUS + "ACTIVE nr_workers=1$", "out")
            ssh = [p for p in self.lab.net.pids("endpoint")
                   if lab.process.command_name(p) == "ssh"]
            self.assertEqual(len(ssh), 1, run.report())
            if case == "close stdin":
                run.stdin.close()
                self.assertEqual(run.wait_exit(), 1, run.report())
            else:
                run.kill()
                run.wait()
            self.assertTrue(wait_until(lambda: not {pid, ssh[0]} & set(
                self.lab.net.pids("endpoint"))), case + "\n" + run.report())


@unittest.skipIf(SKIP, SKIP)
class Gridftp(unittest.TestCase):
    """Files served for real: the endpoint set up and run once, then one
    client at a time, each test reading the endpoint's log from where it
    began.  The programs come from a directory that only root may enter,
    as a checkout in root's home is: the lab must stage them."""

    @classmethod
    def setUpClass(cls):
        # mode 0700; named so that a later lab sweeps it after a kill
        hidden = tempfile.mkdtemp(prefix="%s%d-private-" % (lab.stage.PREFIX, os.getpid()))
        atexit.register(shutil.rmtree, hidden, True)  # also when interrupted
        programs = {name: shutil.copy(path, hidden) for name, path in lab.built_programs().items()}
        cls.lab = lab.Lab(programs, installed=os.environ.get("RELAYTOOL_ETC_DIR"))
        cls.addClassCleanup(cls.lab.close)
        cls.endpoint = cls.lab.endpoint()
        done = cls.endpoint.setup("gridftp")
        if done.returncode:
            raise AssertionError("setup failed: " + done.stdout + done.stderr)
        cls.endpoint.start_idle()
        cls.client = cls.endpoint.client()
        cls.far = cls.lab.far_side(cls.client["user_dn"])

    def setUp(self):
        self.start = self.endpoint.log_size()

    def copy(self, source, dest, *options, **kw):
        done = self.endpoint.copy(source, dest, *options, **kw)
        self.endpoint.wait_log(r"^state: idle$", self.start)  # the worker has ended
        return done

    def log(self):
        return self.endpoint.log(self.start)

    def assertCopied(self, done, source, dest):
        self.assertEqual(done.returncode, 0, done.stderr + self.log())
        self.assertEqual(sha256_of(source), sha256_of(dest))
        self.assertEqual(re.findall(r"^state: (active, \d+ workers?|idle)$", self.log(), re.M),
                         ["active, 1 worker", "idle"])

    def test_third_party_transfers_both_ways(self):
        ep, far = self.endpoint, self.far
        with open(ep.path("gridftp.conf")) as f:
            text = f.read()
        self.assertTrue(text.startswith("# Written by relaytool-endpoint"), text)
        self.assertRegex(text, '\nrestrict_paths "%s"\n' % ep.home)  # the default share
        # each side must present the certificate the relay issued for it
        subjects = ("-ss", self.client["endpoint_subject"], "-ds", far.subject)

        # out of the endpoint: the far side is passive, the endpoint connects
        source = self.lab.user_file(ep.home + "/results.dat", os.urandom(1 << 20))
        done = self.copy(ep.url(source), far.url(far.files + "/results.dat"), *subjects)
        self.assertCopied(done, source, far.files + "/results.dat")
        self.assertIn("DN %s successfully authorized" % self.client["user_dn"], self.log())
        self.assertRegex(self.log(), r"\[CLIENT\]: PORT 10,77,0,1,")  # the far side's address
        self.assertNotRegex(self.log(), r"\[CLIENT\]: DCAU N")  # the default: authenticated
        self.assertIn("DN %s successfully authorized" % self.client["user_dn"], far.log())

        # into the endpoint: with the switch the far side is passive
        self.start = ep.log_size()
        source = self.lab.user_file(far.files + "/input.dat", os.urandom(1 << 20))
        done = self.copy(far.url(source), ep.url(ep.home + "/input.dat"), "-ss", far.subject,
                         "-ds", self.client["endpoint_subject"], env=SOURCE_PASV)
        self.assertCopied(done, source, ep.home + "/input.dat")
        self.assertEqual(os.stat(ep.home + "/input.dat").st_uid, self.lab.user.uid)
        self.assertRegex(self.log(), r"\[CLIENT\]: PORT 10,77,0,1,")
        rc, status = ep.status()
        self.assertEqual((rc, status["state"], status["workers"]), (0, "idle", 0), status)

    def test_data_connections_into_the_endpoint_fail(self):
        ep, far = self.endpoint, self.far
        # without the switch the far side is told to connect to the
        # endpoint's passive address, which is the endpoint's own loopback
        probe = self.lab.user_file(far.files + "/probe.dat", b"y" * 4096)
        done = self.copy(far.url(probe), ep.url(ep.home + "/in.dat"))
        self.assertNotEqual(done.returncode, 0, done.stdout + done.stderr + self.log() + far.log())
        self.assertIn("Entering Passive Mode (127,0,0,1,", self.log())

        # a client of its own gets the same address and no data; the stall
        # limit only makes it give up sooner
        self.start = ep.log_size()
        direct = self.lab.user_file(ep.home + "/direct.dat", b"x" * 4096)
        done = self.copy(ep.url(direct), "file://%s/client/direct.dat" % ep.root, "-st", "3")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("the operation was aborted", done.stderr)
        self.assertIn("Entering Passive Mode (127,0,0,1,", self.log())

    def test_clients_the_endpoint_refuses(self):
        ep = self.endpoint
        url = ep.url(self.lab.user_file(ep.home + "/secret.dat", b"not for strangers\n"))

        # a certificate from the relay's authority whose subject is not the
        # endpoint's user: the server says why in its log
        done = self.copy(url, "file:///dev/null", cert=self.far.cert, key=self.far.key)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("530", done.stderr)
        self.assertRegex(self.log(), r"\[SERVER\]: 530-Login incorrect\. : globus_gss_assist: "
                         r"Gridmap lookup failure: Could not map " + re.escape(self.far.subject))

        # the user's very name from another authority: the handshake fails,
        # which Debian's server tells only the client; its log shows a
        # connection that ended without a login
        self.start = ep.log_size()
        done = self.copy(url, "file:///dev/null", **self.impostor(self.client["user_dn"]))
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("Cannot find trusted CA certificate", done.stderr)
        self.assertRegex(self.log(), r"New connection from: localhost:\d+\n(.*\n)*.*Closed connection")
        self.assertNotIn("authorized", self.log())

    def impostor(self, dn):
        """A certificate and key for `dn` from an authority of its own."""
        import relay_ca
        key = relay_ca.new_rsa_key()
        cert = relay_ca.Authority.new().issue(relay_ca.make_name(
            *(part.split("=", 1) for part in dn[1:].split("/"))), key, relay_ca.USER_PROFILE)
        directory = self.lab.stage.mkdir("impostor", owner=self.lab.user)
        return {"cert": self.lab.user_file(directory + "/cert.pem", relay_ca.cert_pem(cert)),
                "key": self.lab.user_file(directory + "/key.pem", relay_ca.private_key_pem(key),
                                          mode=0o600)}


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
