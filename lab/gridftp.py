"""The far side of a transfer, a GridFTP server in the relay's namespace
with a certificate from the relay's authority, and the GridFTP client
(globus-url-copy) as the endpoint's user, with the credential the relay
issued for that user."""

import os
import re
import subprocess

SERVER = "/usr/sbin/globus-gridftp-server"
CLIENT = "/usr/bin/globus-url-copy"
# with this in its environment the client makes the source passive and the
# destination connect to it
SOURCE_PASV = {"GLOBUS_FTP_CLIENT_SOURCE_PASV": "1"}

# A daemon that forks a process per connection, not root; told its address
# to listen and offer data ports on, since the machine's own name need not
# resolve.
CONF = """\
$X509_USER_CERT "{cert}"
$X509_USER_KEY "{key}"
$X509_CERT_DIR "{trust}"
$GRIDMAP "{gridmap}"
hostname {address}
restrict_paths "{files}"
home_dir "{files}"
log_single "{log}"
log_level ERROR,WARN,INFO
"""


class FarSide:
    """Serves `files` to the endpoint's user, whom the relay's authority
    knows as `user_dn`; `url(path)` reaches it."""

    def __init__(self, lab, user_dn):
        self.lab, address, user = lab, lab.net.relay_addr, lab.user
        directory = lab.stage.mkdir("far side", owner=user)
        creds = lab.relay.server_credentials(address, user.name, directory)
        self.cert, self.key, self.subject = creds["cert"], creds["key"], creds["subject"]
        self.files = lab.stage.mkdir("far side/files", owner=user)
        self.log_path = os.path.join(directory, "server.log")
        conf = lab.stage.write(os.path.join(directory, "gridftp.conf"), CONF.format(
            cert=self.cert, key=self.key, trust=lab.relay.trust_dir, address=address,
            gridmap=lab.stage.write(os.path.join(directory, "gridmap"), '"%s" %s\n' % (
                user_dn, user.name), owner=user),
            files=self.files, log=self.log_path), owner=user)
        # GLOBUS_HOSTNAME: the name its libraries take for the machine's,
        # which they look up for every passive data port
        server = lab.spawn([SERVER, "-c", conf], ns="relay", stdout=subprocess.PIPE, text=True,
                           env={"PATH": "/usr/bin:/bin", "GLOBUS_HOSTNAME": address})
        # the one line a daemon prints: "Server listening at HOST:PORT"
        line = server.stdout.readline()
        server.stdout.close()
        match = re.search(r"Server listening at .*:(\d+)$", line.strip())
        if not match:
            raise AssertionError("the far side did not start: %r\n%s" % (line, self.log()))
        self.port = int(match.group(1))

    def url(self, path):
        return "gsiftp://%s:%d%s" % (self.lab.net.relay_addr, self.port, path)

    def log(self):
        try:
            with open(self.log_path, errors="replace") as f:
                return f.read()
        except FileNotFoundError:
            return ""


def copy(lab, source, dest, *options, cert, key, home, env=None, account=None):
    """globus-url-copy in the relay's namespace, as the endpoint's user (or
    `account`) with the credential given and the relay's trust: a
    CompletedProcess (the exit status, the output)."""
    client_env = dict(PATH="/usr/bin:/bin", HOME=home, X509_CERT_DIR=lab.relay.trust_dir,
                      X509_USER_CERT=cert, X509_USER_KEY=key, **(env or {}))
    return lab.run([CLIENT] + list(options) + [source, dest], ns="relay",
                   account=account or lab.user, env=client_env)


# Delete, mkdir and move (a rename), which globus-url-copy does not do,
# through Debian's GridFTP client library: exit 0, or 1 with its error.
OPERATE = """import ctypes, sys, threading
ftp, common = ctypes.CDLL("libglobus_ftp_client.so.2"), ctypes.CDLL("libglobus_common.so.0")
P, ref = ctypes.c_void_p, ctypes.byref
common.globus_module_activate(P(ctypes.addressof(ctypes.c_byte.in_dll(
    ftp, "globus_i_ftp_client_module"))))
handle, attr, done, errors = P(), P(), threading.Event(), []
ftp.globus_ftp_client_handle_init(ref(handle), None)
ftp.globus_ftp_client_operationattr_init(ref(attr))
ftp.globus_ftp_client_operationattr_set_authorization(ref(attr), None, None, None, None,
                                                      sys.argv[2].encode())
common.globus_object_printable_to_string.restype = ctypes.c_char_p
@ctypes.CFUNCTYPE(None, P, P, P)
def complete(arg, handle, error):
    if error:
        errors.append(common.globus_object_printable_to_string(P(error)).decode())
    done.set()
getattr(ftp, "globus_ftp_client_" + sys.argv[1])(
    ref(handle), *[url.encode() for url in sys.argv[3:]], ref(attr), complete, None)
done.wait(60)
sys.exit(errors[0] if errors or not done.is_set() else 0)"""


def operate(lab, op, subject, *urls, cert, key, home):
    """op ("delete", "mkdir" or "move", from the first URL to the second)
    as copy() runs, with the server's subject: None, or the error."""
    done = lab.run(["/usr/bin/python3", "-c", OPERATE, op, subject] + list(urls), ns="relay",
                   account=lab.user, env=dict(
                       PATH="/usr/bin:/bin", HOME=home, X509_CERT_DIR=lab.relay.trust_dir,
                       X509_USER_CERT=cert, X509_USER_KEY=key, GLOBUS_THREAD_MODEL="pthread"))
    return done.returncode and (done.stderr.strip() or "exit status %d" % done.returncode)


# a client that connects, reads the server's greeting and holds the
# connection until its standard input closes
HOLD = """import socket, sys
s = socket.create_connection(("127.0.0.1", int(sys.argv[1])), 60)
print(s.makefile("rb").readline().decode().strip(), flush=True)
sys.stdin.read()"""


def hold(lab, port):
    """A control connection through the relay's port, held open: the server
    greets and then waits for a login, so it keeps running, as a transfer
    would.  (the process, the greeting); closing its stdin lets go."""
    proc = lab.spawn(["/usr/bin/python3", "-c", HOLD, str(port)], ns="relay",
                     stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    return proc, proc.stdout.readline()
