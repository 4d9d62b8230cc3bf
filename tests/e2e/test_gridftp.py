#!/usr/bin/python3
"""Files served for real: Debian's GridFTP server behind the relay, started
by the tool under `relaytool-endpoint run` in a namespace that accepts no
incoming connection, with the configuration relaytool-endpoint wrote; a
second GridFTP server for the far side; Debian's client moving files between
them with the test user's certificate (see gridftp_lab.py).  Needs root and
the GridFTP packages; without them every test is skipped."""

import hashlib
import os
import re
import sys
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, HERE)

from gridftp_lab import ACCOUNT, SOURCE_PASV, GridftpLab, skip_reason  # noqa: E402

REPO = os.path.dirname(os.path.dirname(HERE))
ENDPOINT, TOOL, PDEATH = (os.environ.get(var, os.path.join(REPO, "build", path)) for var, path in (
    ("RELAYTOOL_ENDPOINT_BIN", "endpoint/relaytool-endpoint"),
    ("RELAYTOOL_TESTRELAY_BIN", "tests/relaytool-testrelay"),
    ("PDEATH_BIN", "pdeath/pdeath")))
# an unpacked installation's etc directory (the package check), whose trust
# directory is the test authority's
INSTALLED_ETC = os.environ.get("RELAYTOOL_ETC_DIR")
SKIP = skip_reason()
STATES = re.compile(r"^state: (active, \d+ workers?|idle)$", re.M)


def sha256_of(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


@unittest.skipIf(SKIP, SKIP)
class GridftpThroughRelay(unittest.TestCase):
    """One lab for the class: set up and run once, then one client at a
    time, each test reading the endpoint's log from where it began."""

    @classmethod
    def setUpClass(cls):
        cls.lab = GridftpLab(ENDPOINT, TOOL, PDEATH, INSTALLED_ETC)
        try:
            done = cls.lab.set_up("gridftp-e2e")
            if done.returncode:
                raise AssertionError("setup failed: %s%s\n%s" % (
                    done.stdout, done.stderr, cls.lab.relay.logs()))
            cls.lab.run_endpoint()
            cls.remote = cls.lab.start_remote()
        except BaseException:
            cls.lab.close()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.lab.close()

    def setUp(self):
        self.start = self.lab.log_size()

    def copy(self, source, dest, *options, **kw):
        done = self.lab.copy(source, dest, *options, **kw)
        self.lab.wait_log(r"^state: idle$", self.start)  # the worker has ended
        return done

    def assertCopied(self, done, source, dest):
        self.assertEqual(done.returncode, 0, done.stderr + self.lab.log(self.start))
        self.assertEqual(sha256_of(source), sha256_of(dest))
        self.assertEqual(STATES.findall(self.lab.log(self.start)), ["active, 1 worker", "idle"])

    def test_third_party_transfers_both_ways(self):
        lab, client = self.lab, self.lab.client
        text = lab.read("config dir", "gridftp.conf")
        self.assertTrue(text.startswith("# Written by relaytool-endpoint"), text)
        self.assertIn('restrict_paths "%s"' % lab.home, text)  # the default share
        # each side must present the certificate the relay issued for it
        subjects = ("-ss", client["endpoint_subject"], "-ds", self.remote["subject"])

        # out of the endpoint: the far side is passive, the endpoint connects
        lab.write(os.path.join(lab.home, "results.dat"), os.urandom(1 << 20))
        done = self.copy(lab.endpoint_url(lab.home + "/results.dat"),
                         lab.remote_url(lab.remote_files + "/results.dat"), *subjects)
        self.assertCopied(done, lab.home + "/results.dat", lab.remote_files + "/results.dat")
        log = lab.log(self.start)
        self.assertIn("DN %s successfully authorized" % client["user_dn"], log)
        self.assertRegex(log, r"\[CLIENT\]: PORT 10,77,0,1,")  # the far side's address
        self.assertNotRegex(log, r"\[CLIENT\]: DCAU N")  # the default: authenticated
        self.assertIn("DN %s successfully authorized" % client["user_dn"],
                      lab.read("remote", "server.log"))

        # into the endpoint: with the switch the far side is passive
        self.start = lab.log_size()
        lab.write(os.path.join(lab.remote_files, "input.dat"), os.urandom(1 << 20))
        done = self.copy(lab.remote_url(lab.remote_files + "/input.dat"),
                         lab.endpoint_url(lab.home + "/input.dat"), "-ss", self.remote["subject"],
                         "-ds", client["endpoint_subject"], env=SOURCE_PASV)
        self.assertCopied(done, lab.remote_files + "/input.dat", lab.home + "/input.dat")
        self.assertEqual(os.stat(lab.home + "/input.dat").st_uid, lab.account.pw_uid)
        self.assertRegex(lab.log(self.start), r"\[CLIENT\]: PORT 10,77,0,1,")
        rc, status = lab.status()
        self.assertEqual((rc, status["state"], status["workers"]), (0, "idle", 0), status)

    def test_data_connections_into_the_endpoint_fail(self):
        lab = self.lab
        lab.write(os.path.join(lab.home, "direct.dat"), b"x" * 4096)
        lab.write(os.path.join(lab.remote_files, "probe.dat"), b"y" * 4096)
        # without the switch the far side is told to connect to the
        # endpoint's passive address, which is the endpoint's own loopback
        done = self.copy(lab.remote_url(lab.remote_files + "/probe.dat"),
                         lab.endpoint_url(lab.home + "/in.dat"))
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("Entering Passive Mode (127,0,0,1,", lab.log(self.start))

        # a client of its own gets the same address and no data; the stall
        # limit only makes it give up sooner
        self.start = lab.log_size()
        done = self.copy(lab.endpoint_url(lab.home + "/direct.dat"),
                         "file://%s/direct.dat" % lab.path("client"), "-st", "3")
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("the operation was aborted", done.stderr)
        self.assertIn("Entering Passive Mode (127,0,0,1,", lab.log(self.start))

    def test_clients_the_endpoint_refuses(self):
        lab = self.lab
        lab.write(os.path.join(lab.home, "secret.dat"), b"not for strangers\n")
        url = lab.endpoint_url(lab.home + "/secret.dat")
        target = "file://%s/secret.dat" % lab.path("client")

        # a certificate from the relay's authority whose subject is not the
        # endpoint's user: the server says why in its log
        done = self.copy(url, target, cert=self.remote["cert"], key=self.remote["key"])
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("530", done.stderr)
        self.assertRegex(lab.log(self.start), r"\[SERVER\]: 530-Login incorrect\. : "
                         r"globus_gss_assist: Gridmap lookup failure: Could not map "
                         + re.escape(self.remote["subject"]))

        # the user's very name from another authority: the handshake fails,
        # which Debian's server tells only the client; its log shows a
        # connection that ended without a login
        self.start = lab.log_size()
        cert, key = self.impostor(lab.client["user_dn"])
        done = self.copy(url, target, cert=cert, key=key)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("Cannot find trusted CA certificate", done.stderr)
        log = lab.log(self.start)
        self.assertRegex(log, r"New connection from: localhost:\d+\n(.*\n)*.*Closed connection")
        self.assertNotIn("authorized", log)

    def impostor(self, dn):
        """A certificate and key for `dn` from an authority of its own."""
        import relay_ca
        other = relay_ca.Authority.new()
        key = relay_ca.new_rsa_key()
        cert = other.issue(relay_ca.make_name(*(part.split("=", 1) for part in dn[1:].split("/"))),
                           key, relay_ca.USER_PROFILE)
        paths = [self.lab.path("client", name) for name in ("impostor.pem", "impostor.key")]
        for path, data in zip(paths, (relay_ca.cert_pem(cert), relay_ca.private_key_pem(key))):
            self.lab.write(path, data)
        os.chmod(paths[1], 0o600)
        return paths


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
