#!/usr/bin/python3
"""The local relay (relay/relay_server.py) on pipes, the way sshd runs it:
the faults it must refuse with a readable ERROR_S, which the real-parts runs
never provoke, and setup codes used once by relays sharing one state."""
import json, os, select, subprocess, sys, tempfile, unittest

RELAY = os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(__file__))), "relay", "relay_server.py")
sys.path.insert(0, os.path.dirname(RELAY))

import relay_server  # noqa: E402
from cryptography.hazmat.primitives import hashes, serialization  # noqa: E402
from cryptography.hazmat.primitives.asymmetric import padding  # noqa: E402

VERSION = "appver=1.0%20beta ostype=Linux osver=Debian%2012"
enc, dec = relay_server.url_encode, relay_server.url_decode


def sign(key_pem, challenge):
    key = serialization.load_pem_private_key(key_pem, None)
    return key.sign(challenge.encode(), padding.PKCS1v15(), hashes.SHA256()).hex()


class RelayOnPipes:
    """Relays on pipes in a fresh state directory (a TestCase mixin)."""

    def setUp(self):
        self.state = self.enterContext(tempfile.TemporaryDirectory())

    def command(self, *options):
        return ["/usr/bin/python3", RELAY, "--state", self.state, *options]

    def relay(self, *options, send=None):
        """A relay on unbuffered pipes (select sees every line), ended at
        clean-up by the end of its input; the first line sent at once."""
        r = self.enterContext(subprocess.Popen(self.command("--heartbeat", "0.2", *options), bufsize=0,
                                               stdin=subprocess.PIPE, stdout=subprocess.PIPE))
        if send is not None:
            r.stdin.write(send.encode() + b"\n")
        return r

    def recv(self, r):
        """The relay's next line, or None at its end."""
        self.assertTrue(select.select([r.stdout], [], [], 20)[0], "no answer")
        line = r.stdout.readline()
        return line.decode().rstrip("\n") if line else None

    def record(self, r, msg):
        line = self.recv(r) or ""
        fields = dict(t.split("=", 1) for t in line.split(" ") if "=" in t)
        self.assertEqual(fields.get("msg"), msg, line[:300])
        return fields

    def assertRefused(self, r, fragment, status=1):
        self.assertIn(fragment, dec(self.record(r, "ERROR_S")["message"]).decode())
        self.assertIsNone(self.recv(r), "relay kept talking after ERROR_S")
        self.assertEqual(r.wait(20), status)

    def add_code(self, *codes):
        subprocess.run(self.command(*(a for c in codes for a in ("--add-code", c))), check=True)

    def read(self, name="state.json"):
        with open(os.path.join(self.state, name), "rb") as f:
            return json.loads(f.read()) if name.endswith(".json") else f.read()

    def setup_reply(self, code="code-1"):
        """The SETUP_S fields of a setup with a new code, values decoded."""
        self.add_code(code)
        r = self.relay(send="msg=SETUP_C code=%s %s" % (code, VERSION))
        creds = self.record(r, "SETUP_S")
        self.assertEqual(r.wait(20), 0)
        return {k: v if k in ("msg", "id") else dec(v) for k, v in creds.items()}


class ProtocolTests(RelayOnPipes, unittest.TestCase):
    def test_setup_codes_are_used_once_even_by_concurrent_relays(self):
        writers = [subprocess.Popen(self.command("--add-code", "c%d" % i)) for i in range(3)]
        self.assertEqual([p.wait(20) for p in writers], [0] * 3)
        relays = [self.relay(send="msg=SETUP_C code=%s %s" % (c, VERSION)) for c in ("c0", "c0", "c1", "nope")]
        answers = [self.recv(r) for r in relays]
        answers[:2] = sorted(answers[:2])  # ERROR_S before SETUP_S
        for answer, want in zip(answers, ("ERROR_S .*already%20used", "SETUP_S ", "SETUP_S ",
                                          "ERROR_S .*unknown%20setup%20code")):
            self.assertRegex(answer, "^msg=" + want)
        state = self.read()
        self.assertEqual((len(state["clients"]), state["codes"]["c2"]["used"]), (2, None))

    def test_login_needs_the_signature_over_the_challenge_as_sent(self):
        creds = self.setup_reply()
        other = relay_server.private_key_pem(relay_server.new_rsa_key())
        for name, signature, fragment in [  # the challenge holds %XX, to catch a signer decoding it
                ("wrong key", lambda ch: sign(other, ch), "does not verify"),
                ("decoded challenge", lambda ch: sign(creds["secret"], dec(ch).decode()), "does not verify"),
                ("upper-case hex", lambda ch: sign(creds["secret"], ch).upper(), "lower-case hexadecimal"),
                ("as sent", lambda ch: sign(creds["secret"], ch), None)]:
            with self.subTest(name):
                r = self.relay("--challenge", "percent", send="msg=LOGIN_C id=%s operation=PAUSED "
                               "protocol_version=2 %s" % (creds["id"], VERSION))
                challenge = self.record(r, "CHALLENGE_S")["string"]
                self.assertIn("%", challenge)
                r.stdin.write(b"msg=CHALLENGE_C sig=%s\n" % signature(challenge).encode())
                if fragment:
                    self.assertRefused(r, fragment)
                    continue
                self.record(r, "LOGIN_S")
                self.assertEqual(self.recv(r), ".")  # heartbeats follow
                r.stdin.write(b"msg=CHALLENGE_C sig=00\n")
                self.assertRefused(r, "after login")

    def test_upgrade_refusals(self):
        relay_server.write_v1_credentials(self.state, self.state)
        cert, key = map(self.read, ("ltacert.pem", "ltakey.pem"))
        upgrade = "msg=UPGRADE_C ftp_cert=%s ftp_key=%s " + VERSION.replace("%", "%%")
        other = relay_server.private_key_pem(relay_server.new_rsa_key())
        self.assertRefused(self.relay(send=upgrade % (enc(cert), enc(other))), "does not belong")
        self.assertEqual(self.read()["clients"], {})
        old_id = self.setup_reply()["id"]
        r = self.relay(send=upgrade % (enc(cert), enc(key)))
        self.record(r, "UPGRADE_S")
        r.stdin.write(b"msg=LOGIN_C id=%s operation=FORWARD protocol_version=2 %s\n" % (old_id.encode(),
                                                                                       VERSION.encode()))
        self.assertRefused(r, "must use the new id")

    def test_malformed_lines_and_unknown_ids(self):
        self.add_code("a/b")
        login = "msg=LOGIN_C id=%s operation=%s protocol_version=%s " + VERSION.replace("%", "%%")
        for line, fragment in [
                ("hello", "malformed token"), ("", "single spaces"),
                ("msg=SETUP_C  code=a/b " + VERSION, "single spaces"),
                ("code=a/b msg=SETUP_C " + VERSION, "first token must be msg"),
                ("msg=NOPE", "unknown message"), ("msg=CHALLENGE_C sig=00", "unexpected message CHALLENGE_C"),
                ("msg=SETUP_C code=a%2fb " + VERSION, "not URL-encoded"),
                ("msg=SETUP_C code=a/b " + VERSION + "\r", "not URL-encoded"),
                ("msg=SETUP_C appver=1 code=a/b ostype=L osver=1", "this order"),
                (login % ("x", "FORWARD", "two"), "decimal"), (login % ("x", "PUSH", "2"), "FORWARD or PAUSED"),
                (login % ("no-such-id", "FORWARD", "2"), "unknown endpoint id")]:
            with self.subTest(line):
                self.assertRefused(self.relay(send=line), fragment)
        self.assertIsNone(self.read()["codes"]["a/b"]["used"])


if __name__ == "__main__":
    unittest.main()
