"""The OpenSSL command-line tool as the judge of the local relay's X.509
credentials: chain verification against a trust directory, subjects in the
form that gridmap files use, and key pairs.  (Handshakes with them are
Debian's GridFTP server and client's business: e2e/test_real_parts.py.)

The relay itself only uses python3-cryptography; checking it with a second,
independent implementation is the point.
"""

import os
import subprocess

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
