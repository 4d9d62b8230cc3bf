#!/usr/bin/python3
"""Local relay server for testing the relay tool end to end.

sshd runs this program as the forced command of the login "x_relay2"; it
speaks the relay line protocol on its own standard input and output:

  setup:    SETUP_C   -> SETUP_S (fresh credentials), then the connection ends
  login:    LOGIN_C   -> CHALLENGE_S, CHALLENGE_C -> LOGIN_S, then heartbeats
  upgrade:  UPGRADE_C -> UPGRADE_S (fresh credentials), then a login as above

The credentials are signed by the relay directory's own certificate
authority (relay_ca.py), so that a GridFTP server on the endpoint and a test
client can authenticate each other.

Anything the client gets wrong is answered with ERROR_S and the process ends.
The checks are deliberately strict (key order, canonical URL encoding,
lower-case hex), so that this server doubles as a conformance check of the
client.

Standard output is the protocol and nothing else goes there; every line
received and sent is logged to relay.log in the state directory.

State directory layout:
  relay.conf   optional settings, "key = value" lines (see Settings)
  state.json   setup codes, issued client ids with their public keys, and a
               record of the authority
  state.lock   lock file serialising the relay processes that sshd starts
  relay.log    conversation log of all relay processes
  authority/   the certificate authority and its trust directory
  endpoints/   per endpoint id: the test user's certificate and key, and the
               endpoint's certificate

Other modes (not run by sshd):
  --add-code CODE [--add-code CODE ...]   register one-time setup codes
  --generate-code                         register a random code and print it
  --init-authority                        make the authority unless the
                                          directory has one; print its paths
  --show-endpoint ID                      print what a test client of
                                          endpoint ID needs
  --make-v1-credentials OUTDIR            write an old-style ltacert.pem and
                                          ltakey.pem pair for upgrade tests
  --issue-server NAME OUTDIR              write server-cert.pem and
                                          server-key.pem for a GridFTP server
                                          reached as NAME

Exit status: 0 done; 1 a client refused with ERROR_S, an unknown endpoint
id, or a bad relay.conf; 2 bad command line; 3 the authority is missing,
damaged or expired (a client gets ERROR_S saying so).
"""

import argparse
import contextlib
import datetime
import fcntl
import json
import os
import re
import secrets
import select
import sys
import time
import uuid

from cryptography import x509
from cryptography.exceptions import InvalidSignature
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import padding

import relay_ca
import relay_files
from relay_ca import new_rsa_key, private_key_pem

# ---------------------------------------------------------------------------
# Wire format

_SAFE_BYTES = frozenset(
    b"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-~/")
_HEX_DIGITS = b"0123456789abcdefABCDEF"

MAX_LINE = 1 << 20  # a certificate plus key, encoded, is far below this


class ProtocolError(Exception):
    """A fault of the client; the text goes back to it in ERROR_S."""


class PeerGone(Exception):
    """The client closed its side, or our output is no longer writable."""


def url_encode(data):
    """Encodes every byte outside letters, digits and "_.-~/" as %XX."""
    if isinstance(data, str):
        data = data.encode("utf-8")
    out = []
    for b in data:
        out.append(chr(b) if b in _SAFE_BYTES else "%%%02X" % b)
    return "".join(out)


def url_decode(text):
    """Decodes %XX escapes (either case); a stray "%" is kept as it is."""
    data = text.encode("latin-1") if isinstance(text, str) else text
    out = bytearray()
    i = 0
    while i < len(data):
        if (data[i] == 0x25 and i + 2 < len(data) and
                data[i + 1] in _HEX_DIGITS and data[i + 2] in _HEX_DIGITS):
            out.append(int(data[i + 1:i + 3], 16))
            i += 3
        else:
            out.append(data[i])
            i += 1
    return bytes(out)


# Keys of each client message, in the order the client must send them.
#   enc      URL-encoded with the canonical rule above
#   token    plain token (letters, digits, "_.-~")
#   decimal  unsigned decimal number
#   hex      lower-case hexadecimal
CLIENT_MESSAGES = {
    "SETUP_C": [("code", "enc"), ("appver", "enc"), ("ostype", "enc"),
                ("osver", "enc")],
    "LOGIN_C": [("id", "token"), ("operation", "token"),
                ("protocol_version", "decimal"), ("appver", "enc"),
                ("ostype", "enc"), ("osver", "enc")],
    "CHALLENGE_C": [("sig", "hex")],
    "UPGRADE_C": [("ftp_cert", "enc"), ("ftp_key", "enc"), ("appver", "enc"),
                  ("ostype", "enc"), ("osver", "enc")],
}

_KEY_RE = re.compile(r"[A-Za-z0-9_]+\Z")
_TOKEN_RE = re.compile(r"[A-Za-z0-9_.~-]+\Z")
_DECIMAL_RE = re.compile(r"[0-9]+\Z")
_HEX_RE = re.compile(r"(?:[0-9a-f]{2})+\Z")


def _check_value(key, kind, value):
    """Validates one raw value and returns it decoded (bytes for enc)."""
    if kind == "enc":
        if url_encode(url_decode(value)) != value:
            raise ProtocolError(
                "value of %s is not URL-encoded as required (every byte "
                "outside letters, digits and _.-~/ as %%XX with upper-case "
                "hex digits)" % key)
        return url_decode(value)
    if kind == "token" and not _TOKEN_RE.match(value):
        raise ProtocolError("value of %s must be a plain token" % key)
    if kind == "decimal" and not _DECIMAL_RE.match(value):
        raise ProtocolError("value of %s must be a decimal number" % key)
    if kind == "hex" and not _HEX_RE.match(value):
        raise ProtocolError(
            "value of %s must be lower-case hexadecimal, two digits per byte"
            % key)
    return value


def parse_client_line(line, allowed):
    """Parses one client line (bytes, without its newline).

    Returns (name, values): values maps each key to its value, decoded where
    the key is URL-encoded.  `allowed` lists the acceptable message names.
    """
    try:
        text = line.decode("ascii")
    except UnicodeDecodeError:
        raise ProtocolError("line contains a byte outside ASCII")
    tokens = text.split(" ")
    if any(t == "" for t in tokens):
        raise ProtocolError(
            "tokens must be separated by single spaces, with none at either "
            "end of the line")
    pairs = []
    for tok in tokens:
        key, eq, value = tok.partition("=")
        if not eq or not _KEY_RE.match(key):
            raise ProtocolError("malformed token '%s' (expected key=value)"
                                % tok[:40])
        pairs.append((key, value))
    if pairs[0][0] != "msg":
        raise ProtocolError("the first token must be msg=NAME")
    name = pairs[0][1]
    if name not in CLIENT_MESSAGES:
        raise ProtocolError("unknown message '%s'" % name[:40])
    if name not in allowed:
        raise ProtocolError("unexpected message %s, expected %s"
                            % (name, " or ".join(allowed)))
    layout = CLIENT_MESSAGES[name]
    got_keys = [k for k, _ in pairs[1:]]
    want_keys = [k for k, _ in layout]
    if got_keys != want_keys:
        raise ProtocolError("%s must carry the keys %s in this order, got %s"
                            % (name, " ".join(want_keys),
                               " ".join(got_keys) or "none"))
    raw = dict(pairs[1:])
    return name, {key: _check_value(key, kind, raw[key])
                  for key, kind in layout}


def format_server_line(name, fields):
    """Builds "msg=NAME k=v ...\\n"; fields are (key, value, encode?)."""
    parts = ["msg=" + name]
    for key, value, encode in fields:
        parts.append("%s=%s" % (key, url_encode(value) if encode else value))
    return ("%s\n" % " ".join(parts)).encode("ascii")


# ---------------------------------------------------------------------------
# Settings

DEFAULTS = {
    "heartbeat": 5.0,         # seconds between "." lines after LOGIN_S; 0 = none
    "display_name": "Test Endpoint",
    "web_url": "https://relay.example/ep?id={id}",   # {id}: the client id
    "idle_timeout": 120.0,    # seconds to wait for each request before login
    "challenge": "hex",       # hex | base64url | percent (see make_challenge)
    "error_after_login": "",  # if set, ERROR_S with this text right after LOGIN_S
    "error_logins": "0",      # for an endpoint's first N logins only; 0: for every one
}


def load_settings(state_dir, overrides):
    """Defaults, then STATE/relay.conf, then command-line overrides."""
    settings = dict(DEFAULTS)
    path = os.path.join(state_dir, "relay.conf")
    if os.path.exists(path):
        with open(path, encoding="utf-8") as f:
            for n, line in enumerate(f, 1):
                line = line.strip()
                if not line or line.startswith("#"):
                    continue
                key, eq, value = line.partition("=")
                key = key.strip()
                if not eq or key not in DEFAULTS:
                    raise SystemExit("%s:%d: unknown setting '%s'"
                                     % (path, n, key))
                settings[key] = value.strip()
    for key, value in overrides.items():
        if value is not None:
            settings[key] = value
    for key in ("heartbeat", "idle_timeout"):
        settings[key] = float(settings[key])
    if settings["challenge"] not in ("hex", "base64url", "percent"):
        raise SystemExit("challenge must be hex, base64url or percent")
    return settings


def make_challenge(style):
    """A fresh random challenge token.

    "percent" puts %XX sequences into the text: the client must sign the
    bytes exactly as sent, so a client that URL-decodes the challenge first
    fails the login.
    """
    if style == "base64url":
        return secrets.token_urlsafe(32).rstrip("=")
    if style == "percent":
        return "%41" + secrets.token_hex(16) + "%20" + secrets.token_hex(8)
    return secrets.token_hex(32)


# ---------------------------------------------------------------------------
# State directory


def _now():
    return datetime.datetime.now(datetime.timezone.utc).strftime(
        "%Y-%m-%dT%H:%M:%S.%fZ")


class StateStore:
    """state.json under an exclusive flock on state.lock.

    sshd starts one relay process per connection, so readers and writers
    may run concurrently; every read-modify-write happens inside
    transaction(), and writes go to a temporary file that replaces
    state.json in one rename.
    """

    def __init__(self, state_dir):
        self.dir = state_dir
        self.path = os.path.join(state_dir, "state.json")
        self.lock_path = os.path.join(state_dir, "state.lock")

    @contextlib.contextmanager
    def transaction(self):
        fd = os.open(self.lock_path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC,
                     0o600)
        try:
            relay_files.own_like_dir(fd, self.dir)
            fcntl.flock(fd, fcntl.LOCK_EX)
            data = self._load()
            before = json.dumps(data, sort_keys=True)
            yield data
            if json.dumps(data, sort_keys=True) != before:
                self._save(data)
        finally:
            os.close(fd)  # also releases the lock

    def read(self):
        with self.transaction() as data:
            return data

    def _load(self):
        try:
            with open(self.path, encoding="utf-8") as f:
                data = json.load(f)
        except FileNotFoundError:
            data = {}
        data.setdefault("codes", {})
        data.setdefault("clients", {})
        data.setdefault("upgrades", [])
        return data

    def _save(self, data):
        relay_files.write_atomically(
            self.path, json.dumps(data, indent=1, sort_keys=True) + "\n")

    def add_codes(self, codes):
        with self.transaction() as data:
            for code in codes:
                if not code or code != code.strip():
                    raise SystemExit("a setup code must be non-empty and "
                                     "without surrounding white space")
                data["codes"].setdefault(code, {"added": _now(),
                                                "used": None})


class ConversationLog:
    """Appends timestamped lines, tagged with our pid, to relay.log."""

    def __init__(self, state_dir):
        path = os.path.join(state_dir, "relay.log")
        self.fd = os.open(path, os.O_WRONLY | os.O_APPEND | os.O_CREAT |
                          os.O_CLOEXEC, 0o600)
        relay_files.own_like_dir(self.fd, state_dir)
        self.pid = os.getpid()

    def write(self, tag, text):
        if isinstance(text, bytes):
            text = text.decode("ascii", "backslashreplace")
        text = text.rstrip("\n").replace("\n", "\\n")
        line = "%s pid=%d %s %s\n" % (_now(), self.pid, tag, text)
        os.write(self.fd, line.encode("utf-8", "backslashreplace"))


# ---------------------------------------------------------------------------
# Credentials


def public_key_pem(key):
    return key.public_key().public_bytes(
        serialization.Encoding.PEM,
        serialization.PublicFormat.SubjectPublicKeyInfo).decode("ascii")


def issue_credentials(state_dir, authority):
    """A fresh client id with client key, and the endpoint's credentials
    signed by `authority`; the test user's are kept in the state directory.
    """
    client_id = str(uuid.uuid4())
    client_key = new_rsa_key()
    issued = relay_ca.issue_endpoint_set(authority, client_id)
    relay_ca.keep_endpoint_set(state_dir, client_id, issued)
    return {
        "id": client_id,
        "client_key": client_key,
        "secret": private_key_pem(client_key),
        "ftp_cert": issued["ftp_cert"],
        "ftp_key": issued["ftp_key"],
        "ftp_user_dn": issued["user_dn"],
    }


def credentials_fields(creds):
    return [("id", creds["id"], False),
            ("secret", creds["secret"], True),
            ("ftp_cert", creds["ftp_cert"], True),
            ("ftp_key", creds["ftp_key"], True),
            ("ftp_user_dn", creds["ftp_user_dn"], True)]


def check_v1_pair(cert_pem, key_pem):
    """Returns the certificate's SHA-256 fingerprint if the key matches it."""
    try:
        cert = x509.load_pem_x509_certificate(cert_pem)
    except ValueError:
        raise ProtocolError("upgrade refused: ftp_cert is not a PEM "
                            "certificate")
    try:
        key = serialization.load_pem_private_key(key_pem, password=None)
    except (ValueError, TypeError):
        raise ProtocolError("upgrade refused: ftp_key is not an unencrypted "
                            "PEM private key")
    spki = serialization.PublicFormat.SubjectPublicKeyInfo
    der = serialization.Encoding.DER
    if (cert.public_key().public_bytes(der, spki) !=
            key.public_key().public_bytes(der, spki)):
        raise ProtocolError("upgrade refused: ftp_key does not belong to "
                            "ftp_cert")
    return cert.fingerprint(hashes.SHA256()).hex()


def write_v1_credentials(state_dir, outdir):
    """Writes an old-style ltacert.pem/ltakey.pem pair, signed by the
    authority of state_dir, into outdir."""
    with StateStore(state_dir).transaction() as state:
        authority = relay_ca.open_authority(state_dir, state)
    cert, key = relay_ca.issue_v1_pair(authority)
    os.makedirs(outdir, exist_ok=True)
    relay_files.write_atomically(os.path.join(outdir, "ltacert.pem"), cert,
                                 0o644)
    relay_files.write_atomically(os.path.join(outdir, "ltakey.pem"), key,
                                 0o600)


def write_server_credentials(state_dir, name, outdir):
    """Writes a certificate and key for a GridFTP server reached as `name`,
    signed by the authority of state_dir, into outdir."""
    with StateStore(state_dir).transaction() as state:
        authority = relay_ca.open_authority(state_dir, state)
    cert, key = relay_ca.issue_server_pair(authority, name)
    os.makedirs(outdir, exist_ok=True)
    relay_files.write_atomically(os.path.join(outdir, "server-cert.pem"),
                                 cert, 0o644)
    relay_files.write_atomically(os.path.join(outdir, "server-key.pem"), key,
                                 0o600)


# ---------------------------------------------------------------------------
# The conversation


class LineReader:
    """Reads "\\n"-terminated lines from a descriptor with a deadline."""

    TIMEOUT = object()

    def __init__(self, fd):
        self.fd = fd
        self.buf = b""

    def readline(self, timeout):
        """Returns the line without "\\n", None at end of input (a partial
        last line counts as end of input), or TIMEOUT."""
        deadline = None if timeout is None else time.monotonic() + timeout
        while b"\n" not in self.buf:
            if len(self.buf) > MAX_LINE:
                raise ProtocolError("line longer than %d bytes" % MAX_LINE)
            wait = None
            if deadline is not None:
                wait = max(0.0, deadline - time.monotonic())
            ready, _, _ = select.select([self.fd], [], [], wait)
            if not ready:
                return self.TIMEOUT
            chunk = os.read(self.fd, 65536)
            if not chunk:
                return None
            self.buf += chunk
        line, _, self.buf = self.buf.partition(b"\n")
        return line


EXIT_REFUSED = 1     # ERROR_S sent to a client; an unknown endpoint id
EXIT_AUTHORITY = 3   # the authority is missing, damaged or expired


class Conversation:

    def __init__(self, store, settings, log, infd=0, outfd=1):
        self.store = store
        self.settings = settings
        self.log = log
        self.reader = LineReader(infd)
        self.outfd = outfd

    def run(self):
        """Serves one connection; returns the exit status."""
        self.log.write("note", "connection from %s"
                       % os.environ.get("SSH_CONNECTION", "a pipe"))
        try:
            self._serve()
            return 0
        except ProtocolError as e:
            self.log.write("note", "refusing: %s" % e)
            with contextlib.suppress(PeerGone):
                self.send("ERROR_S", [("message", str(e), True)])
            return EXIT_REFUSED
        except relay_ca.AuthorityError as e:
            # the relay's own fault: the client learns why nothing was issued
            self.log.write("note", "cannot issue: %s" % e)
            with contextlib.suppress(PeerGone):
                self.send("ERROR_S", [("message", "relay cannot issue "
                                       "credentials: %s" % e, True)])
            return EXIT_AUTHORITY
        except PeerGone:
            self.log.write("note", "client gone")
            return 0
        finally:
            self.log.write("note", "exit")

    def _serve(self):
        name, req = self.receive(("SETUP_C", "LOGIN_C", "UPGRADE_C"))
        if name == "SETUP_C":
            self.setup(req)
            return
        if name == "UPGRADE_C":
            new_id = self.upgrade(req)
            name, req = self.receive(("LOGIN_C",))
            if req["id"] != new_id:
                raise ProtocolError("the login after an upgrade must use the "
                                    "new id %s, not %s" % (new_id, req["id"]))
        logins = self.login(req)
        limit = int(self.settings["error_logins"])
        if self.settings["error_after_login"] and (not limit or logins <= limit):
            # The relay's own trouble, for tests. The client takes what one
            # read gives it as one record, so the error goes in a write of
            # its own, a moment after LOGIN_S.
            if self.reader.readline(1.0) is None:
                raise PeerGone()
            raise ProtocolError(self.settings["error_after_login"])
        self.heartbeats()

    # -- transport

    def receive(self, allowed):
        line = self.reader.readline(self.settings["idle_timeout"])
        if line is LineReader.TIMEOUT:
            raise ProtocolError("timed out waiting for %s"
                                % " or ".join(allowed))
        if line is None:
            raise PeerGone()
        self.log.write("recv", line)
        return parse_client_line(line, allowed)

    def send(self, name, fields):
        self._write(format_server_line(name, fields))

    def _write(self, data):
        self.log.write("send", data)
        try:
            while data:
                n = os.write(self.outfd, data)
                data = data[n:]
        except OSError:
            raise PeerGone()

    # -- the three requests

    def setup(self, req):
        code = req["code"].decode("utf-8", "replace")
        with self.store.transaction() as state:
            entry = state["codes"].get(code)
            if entry is None:
                raise ProtocolError("unknown setup code")
            if entry["used"] is not None:
                raise ProtocolError("setup code already used")
            creds = self._issue(state)
            entry["used"] = {"at": _now(), "id": creds["id"]}
            self._remember(state, creds, "setup", req)
        self.send("SETUP_S", credentials_fields(creds))

    def upgrade(self, req):
        fingerprint = check_v1_pair(req["ftp_cert"], req["ftp_key"])
        with self.store.transaction() as state:
            creds = self._issue(state)
            self._remember(state, creds, "upgrade", req)
            state["upgrades"].append({"at": _now(), "id": creds["id"],
                                      "v1_cert_sha256": fingerprint})
        self.send("UPGRADE_S", credentials_fields(creds))
        return creds["id"]

    def login(self, req):
        if req["operation"] not in ("FORWARD", "PAUSED"):
            raise ProtocolError("operation must be FORWARD or PAUSED")
        client_id = req["id"]
        client = self.store.read()["clients"].get(client_id)
        if client is None:
            raise ProtocolError("unknown endpoint id %s" % client_id)
        challenge = make_challenge(self.settings["challenge"])
        self.send("CHALLENGE_S", [("string", challenge, False)])
        _, answer = self.receive(("CHALLENGE_C",))
        public_key = serialization.load_pem_public_key(
            client["public_key"].encode("ascii"))
        try:
            public_key.verify(bytes.fromhex(answer["sig"]),
                              challenge.encode("ascii"),
                              padding.PKCS1v15(), hashes.SHA256())
        except InvalidSignature:
            raise ProtocolError("challenge signature does not verify")
        with self.store.transaction() as state:
            entry = state["clients"][client_id]
            entry["logins"] = entry.get("logins", 0) + 1
            entry["last_login"] = {
                "at": _now(),
                "operation": req["operation"],
                "protocol_version": int(req["protocol_version"]),
                "appver": req["appver"].decode("utf-8", "replace"),
                "ostype": req["ostype"].decode("utf-8", "replace"),
                "osver": req["osver"].decode("utf-8", "replace"),
            }
        web_url = self.settings["web_url"].replace("{id}", client_id)
        self.send("LOGIN_S", [
            ("ep_display_name", self.settings["display_name"], True),
            ("web_ux_url", web_url, True)])
        return entry["logins"]

    def _issue(self, state):
        """Fresh credentials; `state` must be held under its lock, which is
        what makes the authority once if the directory has none yet."""
        authority = relay_ca.open_authority(self.store.dir, state)
        return issue_credentials(self.store.dir, authority)

    def _remember(self, state, creds, via, req):
        state["clients"][creds["id"]] = {
            "created": _now(),
            "via": via,
            "public_key": public_key_pem(creds["client_key"]),
            "ftp_user_dn": creds["ftp_user_dn"],
            "client": {k: req[k].decode("utf-8", "replace")
                       for k in ("appver", "ostype", "osver")},
        }

    def heartbeats(self):
        """Keeps the logged-in connection alive until the client leaves.

        Heartbeats start only after LOGIN_S: the client recognises a "."
        only at the end of what it has buffered, so one sent while it waits
        for a reply could be glued to the front of that reply.
        """
        interval = self.settings["heartbeat"] or None
        while True:
            line = self.reader.readline(interval)
            if line is None:
                raise PeerGone()
            if line is LineReader.TIMEOUT:
                self._write(b".\n")
                continue
            self.log.write("recv", line)
            raise ProtocolError("unexpected message after login")


# ---------------------------------------------------------------------------


def init_authority(state_dir):
    """The --init-authority mode: what the fixture runs on a new directory.
    Prints where the authority is."""
    with StateStore(state_dir).transaction() as state:
        relay_ca.open_authority(state_dir, state)
    directory = relay_ca.authority_dir(state_dir)
    print("authority=%s" % os.path.join(directory, "ca-cert.pem"))
    print("trust_dir=%s" % relay_ca.trust_dir(state_dir))


def show_endpoint(state_dir, endpoint_id):
    """The --show-endpoint mode: key=value lines for a test client."""
    for key, value in relay_ca.describe_endpoint(state_dir, endpoint_id):
        print("%s=%s" % (key, value))


def run_admin_mode(args):
    """The modes that sshd never runs; None if none was asked for."""
    if args.add_code or args.generate_code:
        codes = list(args.add_code or [])
        if args.generate_code:
            codes.append("code-" + secrets.token_hex(6))
            print(codes[-1])
        StateStore(args.state).add_codes(codes)
    elif args.init_authority:
        init_authority(args.state)
    elif args.show_endpoint:
        show_endpoint(args.state, args.show_endpoint)
    elif args.make_v1_credentials:
        write_v1_credentials(args.state, args.make_v1_credentials)
    elif args.issue_server:
        write_server_credentials(args.state, *args.issue_server)
    else:
        return None
    return 0


def parse_args(argv):
    p = argparse.ArgumentParser(
        description="Local relay server for the relay tool (run by sshd as "
                    "the forced command of x_relay2).")
    p.add_argument("--state", required=True,
                   help="state directory (codes, clients, authority, "
                        "relay.log)")
    p.add_argument("--heartbeat", type=float,
                   help="seconds between heartbeats after login (0: none)")
    p.add_argument("--display-name", help="ep_display_name sent in LOGIN_S")
    p.add_argument("--web-url",
                   help="web_ux_url sent in LOGIN_S; {id} is replaced by the "
                        "client id")
    p.add_argument("--idle-timeout", type=float,
                   help="seconds to wait for each request before login")
    p.add_argument("--challenge", choices=("hex", "base64url", "percent"),
                   help="shape of the login challenge")
    p.add_argument("--add-code", action="append", metavar="CODE",
                   help="register a one-time setup code and exit")
    p.add_argument("--generate-code", action="store_true",
                   help="register a random setup code, print it and exit")
    p.add_argument("--init-authority", action="store_true",
                   help="make the directory's certificate authority unless "
                        "it has one, print its paths and exit")
    p.add_argument("--show-endpoint", metavar="ID",
                   help="print the test user's certificate and key, the "
                        "endpoint's subject and the trust directory of "
                        "endpoint ID, and exit")
    p.add_argument("--make-v1-credentials", metavar="OUTDIR",
                   help="write an old-style ltacert.pem/ltakey.pem pair, "
                        "signed by the authority, and exit")
    p.add_argument("--issue-server", nargs=2, metavar=("NAME", "OUTDIR"),
                   help="write server-cert.pem/server-key.pem for a GridFTP "
                        "server reached as NAME, signed by the authority, "
                        "and exit")
    return p.parse_args(argv)


def main(argv=None):
    args = parse_args(argv)
    args.state = os.path.abspath(args.state)  # printed paths work anywhere
    try:
        status = run_admin_mode(args)
    except relay_ca.AuthorityError as e:
        print("relay_server: %s" % e, file=sys.stderr)
        return EXIT_AUTHORITY
    except LookupError as e:
        print("relay_server: %s" % e, file=sys.stderr)
        return EXIT_REFUSED
    if status is not None:
        return status

    settings = load_settings(args.state, {
        "heartbeat": args.heartbeat, "display_name": args.display_name,
        "web_url": args.web_url, "idle_timeout": args.idle_timeout,
        "challenge": args.challenge})
    log = ConversationLog(args.state)
    try:
        return Conversation(StateStore(args.state), settings, log).run()
    except Exception as e:  # keep the reason in the log, not on stdout
        log.write("note", "crashed: %r" % e)
        raise


if __name__ == "__main__":
    sys.exit(main())
