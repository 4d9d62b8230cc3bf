#!/usr/bin/python3
"""The credentials of a real setup and upgrade through the local relay (the
tool, pdeath, ssh and sshd), used the way a GridFTP deployment with
certificate authentication uses them: a TLS server on the endpoint's
ftp-cert2.pem and ftp-key2.pem, as the tool wrote them, and a client holding
the user certificate behind gridmap, each verifying the other against the
relay's authority.  Needs root; without it every test is skipped.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, os.path.dirname(HERE))

import x509_checks as x5  # noqa: E402
from test_end_to_end import (REPO, SKIP, STATUS, Endpoint,  # noqa: E402
                             sshd_fixture)

FIXTURE = os.path.join(REPO, "relay", "sshd_fixture.py")

if not SKIP:
    if x5.missing():
        sys.exit("the credential tests need " + x5.missing())
    import relay_ca  # noqa: E402  (needs python3-cryptography)


def slurp(path):
    with open(path, "rb") as f:
        return f.read()


@unittest.skipIf(SKIP, SKIP)
class CredentialsTests(unittest.TestCase):
    """One relay directory for the class, restarted once on purpose."""

    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="relay-ca-e2e-")
        cls.fixture = sshd_fixture.RelayFixture(cls.dir)
        cls.fixture.start()

    @classmethod
    def tearDownClass(cls):
        cls.fixture.stop()
        shutil.rmtree(cls.dir, ignore_errors=True)

    def fixture_command(self, *args):
        out = subprocess.run([FIXTURE, args[0], "--dir", self.dir] +
                             list(args[1:]), check=True, text=True,
                             stdout=subprocess.PIPE).stdout
        return dict(line.split("=", 1) for line in out.splitlines())

    def endpoint_credentials(self, ep):
        """What `sshd_fixture.py client-credentials` prints for the endpoint
        set up in ep, checked against what the tool wrote there."""
        endpoint_id = ep.read("client-id.txt").decode().strip()
        creds = self.fixture_command("client-credentials", endpoint_id)
        cert, key = ep.path("ftp-cert2.pem"), ep.path("ftp-key2.pem")
        trust = creds["trust_dir"]
        for cert_file, uses in ((cert, ("-purpose", "sslserver",
                                        "-verify_hostname", "localhost")),
                                (creds["user_cert"], ("-purpose",
                                                      "sslclient"))):
            ok, out = x5.verify(trust, cert_file, *uses)
            self.assertTrue(ok, out)
        self.assertTrue(x5.same_public_key(cert, key))
        # what gridmap maps to the user is what the user's certificate says
        user_dn = x5.subject(creds["user_cert"])
        self.assertEqual(ep.read("gridmap").decode(), '"%s" alice\n' % user_dn)
        self.assertEqual(creds["user_dn"], user_dn)
        self.assertEqual(x5.subject(cert), creds["endpoint_subject"])
        self.assertIn(endpoint_id, creds["endpoint_subject"])
        return creds

    def handshake(self, ep, client_cert, client_key, *verify_options):
        """A TLS server on the endpoint's files and one client connection;
        returns (client status, client output, server output)."""
        server = x5.TlsServer(ep.path("ftp-cert2.pem"),
                              ep.path("ftp-key2.pem"),
                              self.fixture.authority["trust_dir"],
                              os.path.join(ep.root, "s_server"))
        self.addCleanup(server.close)
        status, out = x5.tls_client(server.port,
                                    self.fixture.authority["trust_dir"],
                                    client_cert, client_key, *verify_options)
        return status, out, server.finish()

    def test_setup_credentials_authenticate_both_ways(self):
        self.assertTrue(os.listdir(self.fixture.authority["trust_dir"]),
                        "the fixture made no authority when it started")
        ep = Endpoint(self, self.fixture)
        run, rc = ep.set_up("ca-setup")
        self.assertEqual(rc, 0, run.report())
        creds = self.endpoint_credentials(ep)
        user = creds["user_dn"].rsplit("CN=", 1)[1]

        for verify_options in (("-verify_hostname", "localhost"),
                               ("-verify_ip", "127.0.0.1")):
            with self.subTest(verify_options[0]):
                status, out, server = self.handshake(
                    ep, creds["user_cert"], creds["user_key"],
                    *verify_options)
                self.assertEqual(status, 0, out)
                self.assertIn("Verification: OK", out)
                self.assertTrue(x5.server_accepted_client(server),
                                "\n".join(server))
                self.assertIn("subject=O = Relay Test, OU = Users, CN = "
                              + user, server[0])

        # the user's very name, signed by another authority, gets nowhere
        with self.subTest("impostor"):
            impostor = relay_ca.Authority.new()
            key = relay_ca.new_rsa_key()
            name = relay_ca.make_name(("O", "Relay Test"), ("OU", "Users"),
                                      ("CN", user))
            paths = [os.path.join(ep.root, n) for n in ("imp.pem", "imp.key")]
            for path, data in zip(paths, (relay_ca.cert_pem(impostor.issue(
                    name, key, relay_ca.USER_PROFILE)),
                    relay_ca.private_key_pem(key))):
                with open(path, "wb") as f:
                    f.write(data)
            _, _, server = self.handshake(ep, *paths)
            self.assertFalse(x5.server_accepted_client(server),
                             "\n".join(server))
            self.assertIn("verify error", server[1])

    def test_upgraded_credentials_and_a_restarted_relay(self):
        ep = Endpoint(self, self.fixture)
        self.fixture_command("make-v1-credentials", ep.config_dir)
        trust = self.fixture.authority["trust_dir"]
        ok, out = x5.verify(trust, ep.path("ltacert.pem"))
        self.assertTrue(ok, out)
        run = ep.start(HVN_FTP_PORT="-1")
        run.wait_line("^" + STATUS + "CONNECTED ")
        run.stdin.close()
        self.assertEqual(run.wait_exit(), 1, run.report())
        self.assertFalse(os.path.exists(ep.path("ltakey.pem")), run.report())
        self.endpoint_credentials(ep)

        # a relay started again on its directory keeps its authority, and
        # what it issued before still verifies
        bundle = slurp(os.path.join(trust, "ca-bundle.pem"))
        self.fixture.stop()
        self.fixture.start()
        self.assertEqual(self.fixture.authority["trust_dir"], trust)
        self.assertEqual(slurp(os.path.join(trust, "ca-bundle.pem")), bundle)
        self.endpoint_credentials(ep)


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
