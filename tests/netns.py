"""A small network of our own: two network namespaces, "relay" and
"endpoint", joined by a veth pair, for tests of what crosses a network (a
link that drops, an address that changes, a host that accepts nothing
inbound).  Addresses exist only inside the two namespaces, and close()
removes them with every process still inside.  Needs root, iproute2 and,
for block_inbound, nftables.

    lab = Lab()
    relay = RelayFixture(address=lab.relay_addr, netns=lab.relay)
    lab.popen(lab.endpoint, ["relaytool-endpoint", "run"], ...)
    lab.link(lab.endpoint, up=False)
    lab.close()
"""

import os
import signal
import subprocess
import time

IP = "/usr/sbin/ip" if os.path.exists("/usr/sbin/ip") else "/sbin/ip"
NFT = "/usr/sbin/nft"
PREFIX = 24
FIREWALL_TABLE = "relaytool_lab"


def missing_requirement():
    """What a lab needs and lacks here, or None."""
    if os.geteuid() != 0:
        return "root (to create network namespaces)"
    if not os.access(IP, os.X_OK):
        return "ip from Debian's iproute2"
    if not os.access(NFT, os.X_OK):
        return "nft from Debian's nftables"
    return None


def _run(argv):
    return subprocess.run(argv, check=True, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, text=True)


class Lab:
    """Namespaces named after this process (several test runs may share the
    machine); the endpoint side is 10.77.0.2, the relay side 10.77.0.1."""

    relay_addr = "10.77.0.1"
    endpoint_addr = "10.77.0.2"
    device = "veth0"  # the name in both namespaces

    def __init__(self, tag=""):
        base = "rtlab%d%s" % (os.getpid(), tag)
        self.relay = base + "r"
        self.endpoint = base + "e"
        self.addresses = {self.relay: self.relay_addr,
                          self.endpoint: self.endpoint_addr}
        try:
            for ns in (self.relay, self.endpoint):
                _run([IP, "netns", "add", ns])
            # Made inside the namespaces at once, so the name never has to
            # be free in ours.
            _run([IP, "link", "add", self.device, "netns", self.relay,
                  "type", "veth", "peer", "name", self.device,
                  "netns", self.endpoint])
            for ns, addr in self.addresses.items():
                _run([IP, "-n", ns, "link", "set", "lo", "up"])
                _run([IP, "-n", ns, "addr", "add", "%s/%d" % (addr, PREFIX),
                      "dev", self.device])
                _run([IP, "-n", ns, "link", "set", self.device, "up"])
        except BaseException:
            self.close()
            raise

    def argv(self, ns, argv):
        """argv run inside namespace ns (ip execs it: the pid is argv's)."""
        return [IP, "netns", "exec", ns] + list(argv)

    def popen(self, ns, argv, **kw):
        return subprocess.Popen(self.argv(ns, argv), **kw)

    def run(self, ns, argv, **kw):
        kw.setdefault("stdout", subprocess.PIPE)
        kw.setdefault("stderr", subprocess.PIPE)
        kw.setdefault("text", True)
        return subprocess.run(self.argv(ns, argv), **kw)

    def block_inbound(self, ns):
        """Nothing new comes into ns from outside: only loopback and the
        replies to connections made from inside."""
        rules = ("table inet %s {\n chain input {\n"
                 "  type filter hook input priority 0; policy drop;\n"
                 "  iif \"lo\" accept\n"
                 "  ct state established,related accept\n }\n}\n"
                 % FIREWALL_TABLE)
        subprocess.run(self.argv(ns, [NFT, "-f", "-"]), input=rules,
                       text=True, check=True)

    def allow_inbound(self, ns):
        subprocess.run(self.argv(ns, [NFT, "delete", "table", "inet",
                                      FIREWALL_TABLE]), check=True)

    def link(self, ns, up):
        """Takes ns's end of the link down or up; down takes the route
        between the namespaces with it."""
        _run([IP, "-n", ns, "link", "set", self.device,
              "up" if up else "down"])

    def set_address(self, ns, address):
        """Gives ns's end of the link a new address in place of the old."""
        _run([IP, "-n", ns, "addr", "add", "%s/%d" % (address, PREFIX),
              "dev", self.device])
        # Without this the kernel deletes the new address (a secondary one
        # in the same subnet) together with the old primary.
        _run(self.argv(ns, ["sysctl", "-qw", "net.ipv4.conf.%s.promote_secondaries=1"
                            % self.device]))
        _run([IP, "-n", ns, "addr", "del",
              "%s/%d" % (self.addresses[ns], PREFIX), "dev", self.device])
        self.addresses[ns] = address

    def pids(self, ns):
        out = subprocess.run([IP, "netns", "pids", ns], stdout=subprocess.PIPE,
                             stderr=subprocess.DEVNULL, text=True).stdout
        return [int(p) for p in out.split()]

    def close(self):
        """Ends every process left in the namespaces, then removes them
        (the veth pair goes with them)."""
        for ns in (self.relay, self.endpoint):
            pids = self.pids(ns)
            for pid in pids:
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            deadline = time.monotonic() + 10
            while self.pids(ns) and time.monotonic() < deadline:
                time.sleep(0.05)
            subprocess.run([IP, "netns", "del", ns], stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()


def skip_reason():
    missing = missing_requirement()
    return "network tests skipped because they need " + missing if missing else None

