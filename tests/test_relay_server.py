#!/usr/bin/python3
"""Tests of relay/relay_server.py on pipes, the way sshd runs it: faults it
must refuse with a readable ERROR_S, which the tool's end-to-end runs never
provoke, and relays sharing one state directory."""

import json
import os
import select
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.realpath(__file__))
RELAY = os.path.join(os.path.dirname(HERE), "relay", "relay_server.py")
sys.path.insert(0, os.path.dirname(RELAY))

import relay_server  # noqa: E402
from cryptography.hazmat.primitives import hashes, serialization  # noqa: E402
from cryptography.hazmat.primitives.asymmetric import padding  # noqa: E402

PYTHON = "/usr/bin/python3"
VERSION = "appver=1.0%20beta ostype=Linux osver=Debian%2012"
enc, dec = relay_server.url_encode, relay_server.url_decode


def sign(key_pem, challenge):
    key = serialization.load_pem_private_key(key_pem, None)
    return key.sign(challenge.encode(), padding.PKCS1v15(),
                    hashes.SHA256()).hex()


class RelayOnPipes:
    """Helpers for tests that talk to relays on pipes in a fresh state
    directory of their own (a unittest.TestCase mixin)."""

    def setUp(self):
        self.state = self.enterContext(tempfile.TemporaryDirectory())

    def command(self, *options):
        return [PYTHON, RELAY, "--state", self.state] + list(options)

    def relay(self, *options, send=None):
        """A relay on pipes (unbuffered, so that select sees every line),
        ended at clean-up by the end of its input; stderr goes to ours."""
        r = self.enterContext(subprocess.Popen(
            self.command("--heartbeat", "0.2", *options), bufsize=0,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE))
        if send is not None:
            self.send(r, send)
        return r

    def send(self, r, line):
        r.stdin.write(line.encode() + b"\n")

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
        self.assertIn(fragment, dec(self.record(r, "ERROR_S")["message"])
                      .decode())
        self.assertIsNone(self.recv(r), "relay kept talking after ERROR_S")
        self.assertEqual(r.wait(20), status)

    def add_code(self, code):
        subprocess.run(self.command("--add-code", code), check=True)

    def read(self, name="state.json"):
        with open(os.path.join(self.state, name), "rb") as f:
            return json.loads(f.read()) if name.endswith(".json") else f.read()

    def setup_reply(self, code="code-1"):
        """The SETUP_S fields of a setup with a new code, values decoded."""
        self.add_code(code)
        r = self.relay(send="msg=SETUP_C code=%s %s" % (code, VERSION))
        creds = self.record(r, "SETUP_S")
        self.assertEqual(r.wait(20), 0)
        return {k: v if k in ("msg", "id") else dec(v)
                for k, v in creds.items()}

    def credentials(self):
        creds = self.setup_reply()
        return creds["id"], creds["secret"]


class ProtocolTests(RelayOnPipes, unittest.TestCase):

    def test_setup_codes_are_used_once_even_by_concurrent_relays(self):
        writers = [subprocess.Popen(self.command("--add-code", "c%d" % i))
                   for i in range(4)]
        self.assertEqual([p.wait(20) for p in writers], [0] * 4)
        self.assertEqual(sorted(self.read()["codes"]),
                         ["c0", "c1", "c2", "c3"])
        relays = [self.relay(send="msg=SETUP_C code=%s %s" % (c, VERSION))
                  for c in ("c0", "c0", "c1", "c2", "unknown")]
        answers = [self.recv(r) for r in relays]
        answers[:2] = sorted(answers[:2])  # ERROR_S before SETUP_S
        for answer, want in zip(answers, (
                "ERROR_S .*already%20used", "SETUP_S ", "SETUP_S ",
                "SETUP_S ", "ERROR_S .*unknown%20setup%20code")):
            self.assertRegex(answer, "^msg=" + want)
        state = self.read()
        self.assertEqual(len(state["clients"]), 3)
        self.assertIsNone(state["codes"]["c3"]["used"])

    def test_login_needs_the_signature_over_the_challenge_as_sent(self):
        client_id, secret = self.credentials()
        other = relay_server.private_key_pem(relay_server.new_rsa_key())
        cases = [  # the challenge holds %XX, to catch a signer decoding it
            ("wrong key", lambda ch: sign(other, ch), "does not verify"),
            ("decoded challenge", lambda ch: sign(secret, dec(ch).decode()),
             "does not verify"),
            ("upper-case hex", lambda ch: sign(secret, ch).upper(),
             "lower-case hexadecimal"),
            ("as sent", lambda ch: sign(secret, ch), None)]
        for name, signature, fragment in cases:
            with self.subTest(name):
                r = self.relay("--challenge", "percent", send="msg=LOGIN_C "
                               "id=%s operation=PAUSED protocol_version=2 %s"
                               % (client_id, VERSION))
                challenge = self.record(r, "CHALLENGE_S")["string"]
                self.assertIn("%", challenge)
                self.send(r, "msg=CHALLENGE_C sig=" + signature(challenge))
                if fragment:
                    self.assertRefused(r, fragment)
                    continue
                self.record(r, "LOGIN_S")
                self.assertEqual(self.recv(r), ".")  # heartbeats follow
                self.send(r, "msg=CHALLENGE_C sig=00")
                self.assertRefused(r, "after login")

    def test_upgrade_refusals(self):
        relay_server.write_v1_credentials(self.state, self.state)
        cert, key = map(self.read, ("ltacert.pem", "ltakey.pem"))
        other = relay_server.private_key_pem(relay_server.new_rsa_key())

        def upgrade(c, k):
            return self.relay(send="msg=UPGRADE_C ftp_cert=%s ftp_key=%s %s"
                              % (enc(c), enc(k), VERSION))
        self.assertRefused(upgrade(cert, other), "does not belong")
        self.assertEqual(self.read()["clients"], {})
        # the login after UPGRADE_S must use the id just issued
        old_id, _ = self.credentials()
        r = upgrade(cert, key)
        self.record(r, "UPGRADE_S")
        self.send(r, "msg=LOGIN_C id=%s operation=FORWARD protocol_version=2 "
                  "%s" % (old_id, VERSION))
        self.assertRefused(r, "must use the new id")

    def test_malformed_lines_and_unknown_ids(self):
        self.add_code("a/b")
        cases = [
            ("hello", "malformed token"),
            ("", "single spaces"),
            ("msg=SETUP_C  code=a/b " + VERSION, "single spaces"),
            ("code=a/b msg=SETUP_C " + VERSION, "first token must be msg"),
            ("msg=NOPE", "unknown message"),
            ("msg=CHALLENGE_C sig=00", "unexpected message CHALLENGE_C"),
            ("msg=SETUP_C code=a%2fb " + VERSION, "not URL-encoded"),
            ("msg=SETUP_C code=a/b " + VERSION + "\r", "not URL-encoded"),
            ("msg=SETUP_C appver=1 code=a/b ostype=L osver=1", "this order"),
            ("msg=LOGIN_C id=x operation=FORWARD protocol_version=two "
             + VERSION, "decimal"),
            ("msg=LOGIN_C id=x operation=PUSH protocol_version=2 "
             + VERSION, "FORWARD or PAUSED"),
            ("msg=LOGIN_C id=no-such-id operation=FORWARD protocol_version=2 "
             + VERSION, "unknown endpoint id"),
        ]
        for line, fragment in cases:
            with self.subTest(line):
                self.assertRefused(self.relay(send=line), fragment)
        self.assertIsNone(self.read()["codes"]["a/b"]["used"])


if __name__ == "__main__":
    unittest.main()
