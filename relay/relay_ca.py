"""The local relay's certificate authority.

Each relay directory has one authority, made once and kept under
STATE/authority; it signs every credential the relay hands out, so that a
GridFTP server on an endpoint and a client can trust each other through it:

  endpoint certificate  sent as ftp_cert (with its key, ftp_key): server and
                        client authentication, for localhost and 127.0.0.1
  user certificate      subject = the ftp_user_dn that goes into gridmap;
                        kept in STATE/endpoints/ID for test clients, never
                        sent to the endpoint
  old-style pair        ltacert.pem/ltakey.pem for upgrade tests
  server certificate    for a GridFTP server standing for the far side of
                        a transfer (tests, the demo)

Layout:
  authority/ca-key.pem        the authority's key (0600)
  authority/ca-cert.pem       its certificate
  authority/trust/            trust directory: <hash>.0 (OpenSSL's hashed
                              names, for -CApath), <hash>.signing_policy
                              (for Globus GSI) and ca-bundle.pem
  endpoints/ID/               user-cert.pem, user-key.pem (0600) and
                              endpoint-cert.pem of endpoint ID
"""

import contextlib
import datetime
import hashlib
import ipaddress
import os
import secrets
import shutil

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import rsa
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

import relay_files

KEY_BITS = 2048
CA_LIFETIME = datetime.timedelta(days=3 * 365 + 1)
LEAF_LIFETIME = datetime.timedelta(days=365)
BACKDATE = datetime.timedelta(hours=1)  # tolerates a client's slow clock
ORGANIZATION = "Relay Test"


class AuthorityError(Exception):
    """The directory's authority is missing, damaged or expired: the relay
    cannot issue credentials until an operator looks at it."""


def _utcnow():
    return datetime.datetime.now(datetime.timezone.utc)


def _utc(naive):
    """cryptography 38 gives certificate times as naive UTC datetimes."""
    return naive.replace(tzinfo=datetime.timezone.utc)


# ---------------------------------------------------------------------------
# Names

# Only these attributes: their values are UTF8Strings, which subject_hash
# relies on, and their short names are the ones gridmap files use.
_NAME_OIDS = {"O": NameOID.ORGANIZATION_NAME,
              "OU": NameOID.ORGANIZATIONAL_UNIT_NAME,
              "CN": NameOID.COMMON_NAME}
_SHORT_NAMES = {oid: short for short, oid in _NAME_OIDS.items()}


def make_name(*pairs):
    """x509.Name from ("O", "Relay Test"), ("CN", ...) pairs, in order.

    Values must be printable ASCII without "/": the slash-separated form
    has no escape for "/", and anything else would be escaped in it.
    """
    for short, value in pairs:
        if not value or "/" in value or not all(" " <= c <= "~"
                                                for c in value):
            raise ValueError("unusable name value %r" % value)
    return x509.Name([x509.NameAttribute(_NAME_OIDS[short], value)
                      for short, value in pairs])


def slash_form(name):
    """The "/O=.../CN=..." form that gridmap files hold, as
    `openssl x509 -subject -nameopt compat` prints it."""
    return "".join("/%s=%s" % (_SHORT_NAMES[a.oid], a.value) for a in name)


def _strip_der_header(der):
    """The contents of a DER TLV, without its tag and length."""
    first = der[1]
    return der[2 + (first & 0x7F if first & 0x80 else 0):]


def subject_hash(name):
    """OpenSSL's hash of a name, which names the <hash>.0 files of a trust
    directory (`openssl x509 -subject_hash`): the first four bytes, read
    little-endian, of SHA-1 over the name's canonical encoding, in which
    every value is a UTF8String, lower-cased, with blanks trimmed and runs
    of blanks collapsed, and the RDN sets are not wrapped in a SEQUENCE.
    Holds for names of make_name (ASCII, one attribute per RDN)."""
    canonical = x509.Name([
        x509.NameAttribute(a.oid, " ".join(a.value.lower().split()))
        for a in name])
    digest = hashlib.sha1(_strip_der_header(canonical.public_bytes())).digest()
    return "%08x" % int.from_bytes(digest[:4], "little")


# ---------------------------------------------------------------------------
# Keys and certificates


def new_rsa_key():
    return rsa.generate_private_key(public_exponent=65537, key_size=KEY_BITS)


def private_key_pem(key):
    """PKCS#1 ("BEGIN RSA PRIVATE KEY"), unencrypted: the form every
    OpenSSL reads, and the one the tool writes to its key files as is."""
    return key.private_bytes(serialization.Encoding.PEM,
                             serialization.PrivateFormat.TraditionalOpenSSL,
                             serialization.NoEncryption())


def cert_pem(cert):
    return cert.public_bytes(serialization.Encoding.PEM)


def _key_usage(digital_signature=False, key_encipherment=False,
               key_cert_sign=False, crl_sign=False):
    return x509.KeyUsage(
        digital_signature=digital_signature, content_commitment=False,
        key_encipherment=key_encipherment, data_encipherment=False,
        key_agreement=False, key_cert_sign=key_cert_sign, crl_sign=crl_sign,
        encipher_only=False, decipher_only=False)


# What each kind of certificate may do: (extension, critical) pairs.
ENDPOINT_PROFILE = (
    (x509.BasicConstraints(ca=False, path_length=None), True),
    (_key_usage(digital_signature=True, key_encipherment=True), True),
    (x509.ExtendedKeyUsage([ExtendedKeyUsageOID.SERVER_AUTH,
                            ExtendedKeyUsageOID.CLIENT_AUTH]), False),
    (x509.SubjectAlternativeName([
        x509.DNSName("localhost"),
        x509.IPAddress(ipaddress.ip_address("127.0.0.1"))]), False),
)
USER_PROFILE = (
    (x509.BasicConstraints(ca=False, path_length=None), True),
    (_key_usage(digital_signature=True, key_encipherment=True), True),
    (x509.ExtendedKeyUsage([ExtendedKeyUsageOID.CLIENT_AUTH]), False),
)
SERVER_PROFILE = ENDPOINT_PROFILE[:3]  # plus the server's own names
CA_PROFILE = (
    (x509.BasicConstraints(ca=True, path_length=0), True),
    (_key_usage(key_cert_sign=True, crl_sign=True), True),
)


def _build(subject, issuer, public_key, not_after, profile):
    builder = (x509.CertificateBuilder()
               .subject_name(subject)
               .issuer_name(issuer)
               .public_key(public_key)
               .serial_number(x509.random_serial_number())
               .not_valid_before(_utcnow() - BACKDATE)
               .not_valid_after(not_after)
               .add_extension(
                   x509.SubjectKeyIdentifier.from_public_key(public_key),
                   critical=False))
    for extension, critical in profile:
        builder = builder.add_extension(extension, critical=critical)
    return builder


class Authority:
    """A CA key and its self-signed certificate."""

    def __init__(self, key, cert):
        self.key, self.cert = key, cert

    @classmethod
    def new(cls):
        key = new_rsa_key()
        # a random part, so that authorities of several relay directories
        # can share one trust directory without their names colliding
        name = make_name(
            ("O", ORGANIZATION), ("OU", "Local Relay"),
            ("CN", "Relay Test Authority " + secrets.token_hex(4)))
        cert = (_build(name, name, key.public_key(),
                       _utcnow() + CA_LIFETIME, CA_PROFILE)
                .sign(key, hashes.SHA256()))
        return cls(key, cert)

    @property
    def fingerprint(self):
        return self.cert.fingerprint(hashes.SHA256()).hex()

    def issue(self, subject, key, profile):
        """A certificate for `key`, signed by this authority; it ends a
        year from now, or with the authority if that comes first."""
        ski = self.cert.extensions.get_extension_for_class(
            x509.SubjectKeyIdentifier).value
        not_after = min(_utcnow() + LEAF_LIFETIME,
                        _utc(self.cert.not_valid_after))
        return (_build(subject, self.cert.subject, key.public_key(),
                       not_after, profile)
                .add_extension(x509.AuthorityKeyIdentifier
                               .from_issuer_subject_key_identifier(ski),
                               critical=False)
                .sign(self.key, hashes.SHA256()))


# ---------------------------------------------------------------------------
# The authority on disk


def authority_dir(state_dir):
    return os.path.join(state_dir, "authority")


def trust_dir(state_dir):
    return os.path.join(authority_dir(state_dir), "trust")


def signing_policy(cert):
    """The Globus signing policy that goes with the authority's <hash>.0:
    Debian's GridFTP server and client refuse a certificate whose issuer has
    none.  It lets the authority sign any subject; which subjects may log in
    is the business of each server's gridmap."""
    return ("# Globus signing policy of the local relay's authority\n"
            "access_id_CA      X509         '%s'\n"
            "pos_rights        globus        CA:sign\n"
            "cond_subjects     globus       '\"*\"'\n"
            % slash_form(cert.subject)).encode("ascii")


def write_trust_files(directory, cert):
    """The files of a trust directory, in `directory` (new and still
    unpublished): the certificate under OpenSSL's hashed name and as a
    bundle, and its signing policy.  Nothing secret."""
    pem, base = cert_pem(cert), subject_hash(cert.subject)
    for name, data in ((base + ".0", pem), ("ca-bundle.pem", pem),
                       (base + ".signing_policy", signing_policy(cert))):
        relay_files.write_new_file(os.path.join(directory, name), data, 0o644)


def publish_trust_dir(cert, dest):
    """Makes `dest` a trust directory for `cert` that any local user may
    read, replacing whatever it held; unchanged if it is one already."""
    with contextlib.suppress(OSError):
        with open(os.path.join(dest, subject_hash(cert.subject) + ".0"),
                  "rb") as f:
            if (f.read() == cert_pem(cert) and
                    len(os.listdir(dest)) == 3 and
                    os.stat(dest).st_mode & 0o777 == 0o755):
                return
    shutil.rmtree(dest, ignore_errors=True)
    with relay_files.publish_directory(dest, 0o755) as tmp:
        write_trust_files(tmp, cert)


def _write_authority(state_dir, authority):
    """Publishes the key, certificate and trust directory as one set."""
    pem = cert_pem(authority.cert)
    with relay_files.publish_directory(authority_dir(state_dir),
                                       0o755) as tmp:
        relay_files.write_new_file(os.path.join(tmp, "ca-key.pem"),
                                   private_key_pem(authority.key), 0o600)
        relay_files.write_new_file(os.path.join(tmp, "ca-cert.pem"), pem,
                                   0o644)
        trust = os.path.join(tmp, "trust")
        relay_files.make_dir(trust, 0o755)
        write_trust_files(trust, authority.cert)


def adopt_authority(state_dir, key_pem, cert_pem_bytes):
    """Gives a directory without an authority the one given (a test
    authority whose files are kept elsewhere) instead of a new one."""
    key = serialization.load_pem_private_key(key_pem, None)
    cert = x509.load_pem_x509_certificate(cert_pem_bytes)
    _write_authority(state_dir, Authority(key, cert))


def _read_authority(state_dir):
    directory = authority_dir(state_dir)
    try:
        with open(os.path.join(directory, "ca-key.pem"), "rb") as f:
            key = serialization.load_pem_private_key(f.read(), None)
        with open(os.path.join(directory, "ca-cert.pem"), "rb") as f:
            cert = x509.load_pem_x509_certificate(f.read())
    except (OSError, ValueError, TypeError) as e:
        raise AuthorityError("the authority in %s is damaged: %s"
                             % (directory, e))
    spki = (serialization.Encoding.DER,
            serialization.PublicFormat.SubjectPublicKeyInfo)
    if (key.public_key().public_bytes(*spki) !=
            cert.public_key().public_bytes(*spki)):
        raise AuthorityError("the authority in %s is damaged: ca-key.pem "
                             "does not belong to ca-cert.pem" % directory)
    return Authority(key, cert)


def open_authority(state_dir, state):
    """The directory's authority, made now if this directory never had one.

    `state` is the relay's state (state.json), read under its lock: the
    caller holds that lock, so two relays never make two authorities.
    state["authority"] records the one made, so that it is never silently
    made again: a recorded authority that went missing is an error, since
    every credential issued so far depends on it.
    """
    record = state.get("authority")
    if not os.path.lexists(authority_dir(state_dir)):
        if record:
            raise AuthorityError(
                "the authority of this relay directory (%s, made %s) is "
                "missing; it is not made again, since the credentials "
                "issued so far depend on it: restore it, or start a new "
                "relay directory" % (authority_dir(state_dir),
                                     record["created"]))
        _write_authority(state_dir, Authority.new())
    authority = _read_authority(state_dir)
    if record and record["sha256"] != authority.fingerprint:
        raise AuthorityError("the authority in %s is not the one this "
                             "directory made (sha256 %s)"
                             % (authority_dir(state_dir), record["sha256"]))
    if _utc(authority.cert.not_valid_after) < _utcnow() + datetime.timedelta(
            days=1):
        raise AuthorityError("the authority in %s expires on %s; start a "
                             "new relay directory"
                             % (authority_dir(state_dir),
                                authority.cert.not_valid_after))
    if not record:
        state["authority"] = {
            "created": _utcnow().strftime("%Y-%m-%dT%H:%M:%SZ"),
            "subject": slash_form(authority.cert.subject),
            "sha256": authority.fingerprint}
    return authority


# ---------------------------------------------------------------------------
# What the relay issues


def issue_endpoint_set(authority, endpoint_id):
    """The endpoint's certificate and key, and the user certificate and key
    behind its ftp_user_dn; PEM bytes, and the DN in gridmap form."""
    ftp_key, user_key = new_rsa_key(), new_rsa_key()
    ftp_cert = authority.issue(
        make_name(("O", ORGANIZATION), ("OU", "Endpoints"),
                  ("CN", endpoint_id)), ftp_key, ENDPOINT_PROFILE)
    user_cert = authority.issue(
        make_name(("O", ORGANIZATION), ("OU", "Users"),
                  ("CN", "Relay User " + endpoint_id)), user_key, USER_PROFILE)
    return {"ftp_cert": cert_pem(ftp_cert),
            "ftp_key": private_key_pem(ftp_key),
            "user_cert": cert_pem(user_cert),
            "user_key": private_key_pem(user_key),
            "user_dn": slash_form(user_cert.subject)}


def issue_v1_pair(authority):
    """An old-style endpoint certificate and key (ltacert.pem, ltakey.pem)."""
    key = new_rsa_key()
    cert = authority.issue(
        make_name(("O", ORGANIZATION), ("OU", "Endpoints"),
                  ("CN", "Old Endpoint " + secrets.token_hex(4))),
        key, ENDPOINT_PROFILE)
    return cert_pem(cert), private_key_pem(key)


def issue_server_pair(authority, name):
    """A certificate and key for a GridFTP server reached as `name` (an IP
    address or a host name), with the endpoint's uses."""
    try:
        san = x509.IPAddress(ipaddress.ip_address(name))
    except ValueError:
        san = x509.DNSName(name)
    key = new_rsa_key()
    cert = authority.issue(
        make_name(("O", ORGANIZATION), ("OU", "Servers"), ("CN", name)), key,
        SERVER_PROFILE + ((x509.SubjectAlternativeName([san]), False),))
    return cert_pem(cert), private_key_pem(key)


# ---------------------------------------------------------------------------
# What test clients find for an endpoint

_ENDPOINT_FILES = (("user_cert", "user-cert.pem", 0o644),
                   ("user_key", "user-key.pem", 0o600),
                   ("ftp_cert", "endpoint-cert.pem", 0o644))


def endpoint_dir(state_dir, endpoint_id):
    return os.path.join(state_dir, "endpoints", endpoint_id)


def keep_endpoint_set(state_dir, endpoint_id, issued):
    """Keeps the user certificate and key, and the endpoint certificate (not
    its key: that is the endpoint's alone), for test clients."""
    final = endpoint_dir(state_dir, endpoint_id)
    relay_files.make_dir(os.path.dirname(final), 0o700)
    with relay_files.publish_directory(final, 0o700) as tmp:
        for field, name, mode in _ENDPOINT_FILES:
            relay_files.write_new_file(os.path.join(tmp, name),
                                       issued[field], mode)


def describe_endpoint(state_dir, endpoint_id):
    """(key, value) pairs: what a test client of the endpoint needs.
    Raises LookupError for an endpoint whose credentials were not kept."""
    if not endpoint_id or endpoint_id.startswith(".") or "/" in endpoint_id:
        raise LookupError("%r is not an endpoint id" % endpoint_id)
    directory = endpoint_dir(state_dir, endpoint_id)
    paths = {field: os.path.join(directory, name)
             for field, name, _ in _ENDPOINT_FILES}
    try:
        subjects = {}
        for field in ("user_cert", "ftp_cert"):
            with open(paths[field], "rb") as f:
                subjects[field] = slash_form(
                    x509.load_pem_x509_certificate(f.read()).subject)
    except FileNotFoundError:
        raise LookupError("no credentials kept for endpoint %s (not issued "
                          "by this relay directory?)" % endpoint_id)
    return [("user_cert", paths["user_cert"]),
            ("user_key", paths["user_key"]),
            ("user_dn", subjects["user_cert"]),
            ("endpoint_cert", paths["ftp_cert"]),
            ("endpoint_subject", subjects["ftp_cert"]),
            ("trust_dir", trust_dir(state_dir)),
            ("ca_bundle", os.path.join(trust_dir(state_dir),
                                       "ca-bundle.pem"))]
