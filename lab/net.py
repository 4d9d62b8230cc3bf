"""Two network namespaces of the lab's own, "relay" and "endpoint", joined
by a veth pair, with addresses that exist only inside them.

Every process runs in them under one host name, in a UTS namespace of the
lab's, so that the machine's own name and /etc/hosts play no part.  Each
namespace has its own /etc/hosts (iproute2 mounts /etc/netns/NAME/hosts
over /etc/hosts for `ip netns exec`): localhost and the lab's addresses,
the names a real network gives its addresses.  Only the endpoint's file
knows the host name, as Debian's installer writes it (127.0.1.1), so that
the endpoint is a usual endpoint machine; on the relay's side it resolves
nowhere, so that whatever runs there (the relay, the far side's server)
must be told its address.  (Where the name does not resolve, the GridFTP
server cannot offer a passive data port unless told one.)
"""

import os
import re
import shutil
import signal
import subprocess

from .process import wait_until

IP = "/usr/sbin/ip" if os.path.exists("/usr/sbin/ip") else "/sbin/ip"
NFT = "/usr/sbin/nft"
TC = "/usr/sbin/tc" if os.path.exists("/usr/sbin/tc") else "/sbin/tc"
NSENTER = "/usr/bin/nsenter"
UNSHARE = "/usr/bin/unshare"
PREFIX = 24
FIREWALL_TABLE = "relaytool_lab"
HOST_NAME = "relaytool-lab"
NAMES = "rtlab"  # a lab's namespaces: rtlab<pid of its maker>-<n>r and ...e
DEVICE = "veth0"  # the link's name in both namespaces


def missing_requirement():
    """What a network needs and lacks here, or None."""
    if os.geteuid() != 0:
        return "root (to create network namespaces)"
    for program, package in ((IP, "iproute2"), (TC, "iproute2"), (NFT, "nftables")):
        if not os.access(program, os.X_OK):
            return "%s from Debian's %s" % (program, package)
    return None


def run(argv, **kw):
    return subprocess.run(argv, check=True, capture_output=True, text=True, **kw)


def pid_alive(pid):
    try:
        os.kill(pid, 0)
        return True
    except ProcessLookupError:
        return False
    except PermissionError:
        return True


class Network:
    """relay (10.77.0.1) and endpoint (10.77.0.2); close() removes them
    with every process still inside."""

    relay_addr, endpoint_addr = "10.77.0.1", "10.77.0.2"

    made = 0  # by this process, for the names

    def __init__(self, uts_file):
        sweep_stale()
        Network.made += 1
        base = "%s%d-%d" % (NAMES, os.getpid(), Network.made)
        self.relay, self.endpoint = base + "r", base + "e"
        self.addresses = {self.relay: self.relay_addr, self.endpoint: self.endpoint_addr}
        self.uts = uts_file
        try:
            for ns in self.addresses:
                run([IP, "netns", "add", ns])
                write_hosts(ns, "127.0.0.1 localhost\n%s relay.lab\n%s endpoint.lab\n%s" % (
                    self.relay_addr, self.endpoint_addr,
                    "127.0.1.1 %s\n" % HOST_NAME if ns == self.endpoint else ""))
            # made inside the namespaces at once: the name need not be free in ours
            run([IP, "link", "add", DEVICE, "netns", self.relay, "type", "veth",
                 "peer", "name", DEVICE, "netns", self.endpoint])
            for ns, addr in self.addresses.items():
                run([IP, "-n", ns, "link", "set", "lo", "up"])
                run([IP, "-n", ns, "addr", "add", "%s/%d" % (addr, PREFIX), "dev", DEVICE])
                run([IP, "-n", ns, "link", "set", DEVICE, "up"])
            with open(uts_file, "w"):
                pass
            run([UNSHARE, "--uts=" + uts_file, "hostname", HOST_NAME])
        except BaseException:
            self.close()
            raise

    def name(self, ns):
        """The namespace's name; every method takes "relay" and "endpoint"
        as well."""
        return {"relay": self.relay, "endpoint": self.endpoint}.get(ns, ns)

    def argv(self, ns, argv):
        """argv run inside namespace ns under the lab's host name; each
        wrapper execs the next, so the pid is argv's."""
        return [IP, "netns", "exec", self.name(ns), NSENTER, "--uts=" + self.uts, "--"] + list(argv)

    def block_inbound(self, ns):
        """Nothing new comes into ns from outside: only loopback and the
        replies to connections made from inside, as behind a home router."""
        rules = ("table inet %s {\n chain input {\n"
                 "  type filter hook input priority 0; policy drop;\n"
                 "  iif \"lo\" accept\n  ct state established,related accept\n }\n}\n"
                 % FIREWALL_TABLE)
        run(self.argv(ns, [NFT, "-f", "-"]), input=rules)

    def allow_inbound(self, ns):
        run(self.argv(ns, [NFT, "delete", "table", "inet", FIREWALL_TABLE]))

    def link(self, ns, up):
        """Takes ns's end of the link down or up; down takes the route
        between the namespaces with it."""
        run([IP, "-n", self.name(ns), "link", "set", DEVICE, "up" if up else "down"])

    def set_address(self, ns, address):
        """Gives ns's end of the link a new address in place of the old."""
        ns = self.name(ns)
        run([IP, "-n", ns, "addr", "add", "%s/%d" % (address, PREFIX), "dev", DEVICE])
        # without this the kernel deletes the new address (a secondary one
        # in the same subnet) together with the old primary
        run(self.argv(ns, ["sysctl", "-qw", "net.ipv4.conf.%s.promote_secondaries=1" % DEVICE]))
        run([IP, "-n", ns, "addr", "del", "%s/%d" % (self.addresses[ns], PREFIX), "dev", DEVICE])
        self.addresses[ns] = address

    def shape(self, ns, rate):
        """Everything ns sends over the link goes at `rate` (tc's units,
        such as "2mbit"), so that a transfer lasts; None lifts it."""
        ns = self.name(ns)
        if rate is None:
            run([TC, "-n", ns, "qdisc", "del", "dev", DEVICE, "root"])
        else:
            run([TC, "-n", ns, "qdisc", "replace", "dev", DEVICE, "root", "tbf",
                 "rate", rate, "burst", "32kbit", "latency", "1s"])

    def pids(self, ns):
        return ns_pids(self.name(ns))

    def close(self):
        """Ends every process left in the namespaces, then removes them
        (the veth pair goes with them), their hosts files and the UTS
        namespace."""
        for ns in self.addresses:
            remove(ns)
        if os.path.exists(self.uts):
            subprocess.run(["umount", self.uts], capture_output=True)
            os.unlink(self.uts)


def ns_pids(ns):
    out = subprocess.run([IP, "netns", "pids", ns], capture_output=True, text=True).stdout
    return [int(p) for p in out.split()]


def write_hosts(ns, text):
    for _ in range(3):  # another lab may remove /etc/netns when it empties it
        try:
            os.makedirs("/etc/netns/" + ns, exist_ok=True)
            with open("/etc/netns/%s/hosts" % ns, "w") as f:
                return f.write(text)
        except FileNotFoundError:
            pass
    raise RuntimeError("cannot write /etc/netns/%s/hosts" % ns)


def remove(ns):
    for pid in ns_pids(ns):
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
    wait_until(lambda: not ns_pids(ns), 10)
    subprocess.run([IP, "netns", "del", ns], capture_output=True)
    shutil.rmtree("/etc/netns/" + ns, ignore_errors=True)
    try:
        os.rmdir("/etc/netns")  # only when nothing else is there
    except OSError:
        pass


def sweep_stale():
    """Removes the namespaces of labs whose maker died without closing them
    (killed at a time limit, say)."""
    listed = subprocess.run([IP, "netns", "list"], capture_output=True, text=True).stdout
    for line in listed.splitlines():
        match = re.fullmatch(NAMES + r"(\d+)-\d+[re]", line.split(" ")[0])
        if match and not pid_alive(int(match.group(1))):
            remove(match.group(0))
