#!/usr/bin/python3
"""The second half of scripts/demo.sh: an endpoint behind the local relay
serves files with Debian's GridFTP server, and Debian's client moves one
file each way with certificates.  Built on the lab (lab/: two network
namespaces, the relay, relaytool-endpoint, a far-side server) and taken
down again at the end, namespaces included.  Needs root.

    demo_transfers.py BUILD_DIR
"""

import hashlib
import os
import re
import sys

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path.insert(0, REPO)

import lab  # noqa: E402

STEP = [3]


def step(title, *lines):
    print("\n==> %d. %s" % (STEP[0], title))
    STEP[0] += 1
    for line in lines:
        print("    " + line)


def show(prefix, text):
    for line in text.splitlines():
        print("    [%s] %s" % (prefix, line[:200]))


def sha256_of(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


def endpoint_log(endpoint, start, pattern):
    """The endpoint's log lines since `start` that match pattern."""
    return "\n".join(line for line in endpoint.log(start).splitlines() if re.search(pattern, line))


def transfer(endpoint, title, source, dest, source_file, dest_file, env=None):
    start = endpoint.log_size()
    done = endpoint.copy(source, dest, "-v", env=env)
    show("client", done.stdout + done.stderr)
    if done.returncode:
        raise SystemExit("globus-url-copy failed (status %d)\n%s"
                         % (done.returncode, endpoint.log(start)))
    endpoint.wait_log(r"^state: idle$", start)
    show("endpoint", endpoint_log(endpoint, start, r"^(state|transfer): |authorized\.|\[CLIENT\]: "
                                  r"(PORT|PASV|RETR|STOR)|\[SERVER\]: (227|226)"))
    want, got = sha256_of(source_file), sha256_of(dest_file)
    print("    %s: sha256 %s... %s" % (title, got[:16], "matches" if got == want else "DIFFERS"))
    if got != want:
        raise SystemExit("the file arrived damaged")


def main(build):
    missing = lab.missing_requirement()
    if missing:
        raise SystemExit("the demo needs " + missing)
    step("A network of two namespaces",
         "'relay' (10.77.0.1) and 'endpoint' (10.77.0.2), joined by a veth pair.",
         "The endpoint accepts no incoming connection (an nftables rule): only",
         "replies to connections it opens itself come in, as behind a home router.",
         "Then the local relay starts in 'relay': Debian's sshd with the reference",
         "relay as the only login, and the relay's own certificate authority.",
         "What the endpoint's user runs is copied into a directory of the demo's.")
    the_lab = lab.Lab(lab.built_programs(build), authority=None)
    endpoint = the_lab.endpoint()
    try:
        run_demo(the_lab, endpoint)
    finally:
        step("Tearing down",
             "relaytool-endpoint gets SIGTERM, closes the tool's standard input and",
             "exits 0; the servers, the relay and both namespaces are removed.")
        if endpoint.run and endpoint.run.poll() is None:
            print("    relaytool-endpoint exited with status %d" % endpoint.stop())
        the_lab.close()
        print("    done; the account %s stays on the system (userdel to remove it)" % lab.USER)


def run_demo(the_lab, endpoint):
    relay = the_lab.relay
    print("    relay: sshd at %s:%d; authority trust directory for everyone: %s"
          % (relay.address, relay.port, relay.trust_dir))
    print("    (%s)" % ", ".join(sorted(os.listdir(relay.trust_dir))))

    code = "demo-" + os.urandom(4).hex()
    step("Setup, as the endpoint's user %s in 'endpoint'" % lab.USER,
         "relaytool-endpoint setup, the code %s on its standard input (never on a" % code,
         "command line, where every user could read it): the tool logs in over ssh with the",
         "installation's anonymous key, trades the code for credentials and writes",
         "them: the endpoint's certificate and key from the relay's authority, and",
         "a gridmap that maps the relay user's certificate subject to %s." % lab.USER)
    done = endpoint.setup(code)
    show("relaytool-endpoint", done.stdout + done.stderr)
    if done.returncode:
        raise SystemExit("setup failed (status %d)" % done.returncode)

    step("relaytool-endpoint run",
         "It writes gridftp.conf for Debian's GridFTP server (no file was there),",
         "starts the tool, and the tool holds a reverse forward: a port on the",
         "relay's 127.0.0.1 leads, through ssh, to the tool's own listener, which",
         "starts one GridFTP server per connection.  RELAYTOOL_TRUST_DIR names the",
         "relay's trust directory (this build was given no authority).")
    endpoint.start_idle()
    with open(endpoint.path("gridftp.conf")) as f:
        show("gridftp.conf", "\n".join(line for line in f.read().splitlines()
                                       if line and not line.startswith("#")))
    show("endpoint", endpoint_log(endpoint, 0, r"^relaytool-endpoint: |^state: "))
    print("    the relay forwards its port %d; status --json says: %s"
          % (endpoint.forwarded(), endpoint.status()[1]["state"]))

    step("The far side: a second GridFTP server in 'relay' at %s" % relay.address,
         "with a certificate from the same authority, serving files to the same",
         "user.  globus-url-copy, run as %s in 'relay' with the user's" % lab.USER,
         "certificate and key (copies it owns: sshd_fixture.py client-credentials",
         "--for), orchestrates third-party transfers between the two servers.")
    far = the_lab.far_side(endpoint.client()["user_dn"])
    print("    far side: port %d, subject %s" % (far.port, far.subject))

    path = the_lab.user_file(endpoint.home + "/results.dat", os.urandom(3 << 20))
    step("A file out of the endpoint: %s" % path,
         "Control connections: client -> relay port %d -> ssh -> tool -> the"
         % endpoint.forwarded(),
         "endpoint's server, and client -> far side.  Both servers check the user's",
         "certificate against the relay's authority and their gridmap.  For the data,",
         "the far side (destination) is passive and the endpoint's server (source)",
         "connects out to it: PORT 10,77,0,1,... below.")
    transfer(endpoint, "results.dat arrived on the far side", endpoint.url(path),
             far.url(far.files + "/results.dat"), path, far.files + "/results.dat")

    upload = the_lab.user_file(far.files + "/upload.dat", os.urandom(2 << 20))
    step("A file into the endpoint",
         "Here the endpoint is the destination.  By default the destination would",
         "be passive, and its address is the endpoint's own 127.0.0.1, which nobody",
         "else can reach.  GLOBUS_FTP_CLIENT_SOURCE_PASV=1 in the client's",
         "environment makes the source (the far side) passive instead, so again the",
         "endpoint's server opens the data connection.")
    transfer(endpoint, "upload.dat arrived on the endpoint", far.url(upload),
             endpoint.url(endpoint.home + "/upload.dat"), upload, endpoint.home + "/upload.dat",
             env=lab.SOURCE_PASV)
    print("    relaytool-endpoint status, with the latest transfers:")
    show("status", endpoint.command("status").stdout)


if __name__ == "__main__":
    if os.geteuid() != 0:
        raise SystemExit("demo_transfers.py: run as root")
    main(os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(REPO, "build")))
