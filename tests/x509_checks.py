"""The OpenSSL command-line tool as the judge of the local relay's X.509
credentials: chain verification against a trust directory, subjects in the
form that gridmap files use, key pairs, and TLS handshakes on loopback.

The relay itself only uses python3-cryptography; checking it with a second,
independent implementation is the point.
"""

import os
import re
import subprocess
import time

OPENSSL = "/usr/bin/openssl"
WAIT = 30  # seconds; generous, the machine is shared


def missing():
    """Why these checks cannot run here, or None."""
    if not os.access(OPENSSL, os.X_OK):
        return "%s (Debian package openssl)" % OPENSSL
    return None


def openssl(*args, check=True):
    return subprocess.run([OPENSSL] + list(args), check=check, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          stdin=subprocess.DEVNULL, timeout=WAIT)


def verify(trust_dir, cert, *options):
    """`openssl verify -CApath`: (True, output) if the chain verifies."""
    r = openssl("verify", "-CApath", trust_dir, *options, cert, check=False)
    out = r.stdout + r.stderr
    return r.returncode == 0 and out.strip() == cert + ": OK", out


def subject(cert):
    """The subject in the slash-separated form (-nameopt compat)."""
    out = openssl("x509", "-noout", "-subject", "-nameopt", "compat",
                  "-in", cert).stdout
    return out.rstrip("\n").removeprefix("subject=")


def same_public_key(cert, key):
    """Whether the private key in `key` belongs to the certificate."""
    from_cert = openssl("x509", "-noout", "-pubkey", "-in", cert).stdout
    from_key = openssl("pkey", "-pubout", "-in", key).stdout
    return from_cert == from_key


class TlsServer:
    """`openssl s_server` on 127.0.0.1 at a port the system picks, for one
    connection, requiring a client certificate that verifies.

    Its standard input stays an open pipe: s_server ends at end of input.
    """

    def __init__(self, cert, key, trust_dir, log_prefix):
        self.files = (log_prefix + ".out", log_prefix + ".err")
        with open(self.files[0], "w") as out, open(self.files[1], "w") as err:
            self.proc = subprocess.Popen(
                [OPENSSL, "s_server", "-cert", cert, "-key", key,
                 "-CApath", trust_dir, "-Verify", "1", "-verify_return_error",
                 "-accept", "127.0.0.1:0", "-naccept", "1"],
                stdin=subprocess.PIPE, stdout=out, stderr=err)
        self.port = self._wait_for_port()

    def _wait_for_port(self):
        deadline = time.monotonic() + WAIT
        while time.monotonic() < deadline:
            m = re.search(r"^ACCEPT 127\.0\.0\.1:(\d+)$", self.output()[0],
                          re.M)
            if m:
                return int(m.group(1))
            if self.proc.poll() is not None:
                break
            time.sleep(0.02)
        self.close()
        raise AssertionError("s_server did not start listening:\n%s\n%s"
                             % self.output())

    def output(self):
        """(stdout, stderr) so far."""
        texts = []
        for name in self.files:
            with open(name, errors="replace") as f:
                texts.append(f.read())
        return tuple(texts)

    def finish(self):
        """Waits until the server has closed the connection of a client
        that has ended, then stops it; returns (stdout, stderr).  (After a
        refused handshake s_server keeps listening, -naccept or not.)"""
        deadline = time.monotonic() + WAIT
        while ("CONNECTION CLOSED" not in self.output()[0] and
               self.proc.poll() is None and time.monotonic() < deadline):
            time.sleep(0.02)
        self.close()
        return self.output()

    def close(self):
        if self.proc.poll() is None:
            self.proc.kill()
            self.proc.wait()
        self.proc.stdin.close()


def tls_client(port, trust_dir, cert, key, *verify_options):
    """`openssl s_client` with a client certificate, failing on any
    verification error; returns (exit status, output)."""
    r = openssl("s_client", "-connect", "127.0.0.1:%d" % port, "-brief",
                "-CApath", trust_dir, "-verify_return_error",
                "-cert", cert, "-key", key, *verify_options, check=False)
    return r.returncode, r.stdout + r.stderr


def server_accepted_client(server_output):
    """Whether s_server completed a handshake with a client certificate
    that verified: it prints the certificate and the cipher only then."""
    out, err = server_output
    return ("Client certificate" in out and "CIPHER is" in out and
            "verify error" not in err)
