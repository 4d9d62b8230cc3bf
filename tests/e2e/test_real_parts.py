#!/usr/bin/python3
"""The relay tool and relaytool-endpoint made of real parts, on the lab
(lab/): two network namespaces, Debian's sshd with the reference relay, ssh,
the watcher, Debian's GridFTP server and client, as the endpoint's user
from staged copies, under a host name of the lab's own.  Needs root and the
Debian packages; without them every test is skipped.

The programs are CTest's (RELAYTOOL_ENDPOINT_BIN, RELAYTOOL_TESTRELAY_BIN,
PDEATH_BIN) or build/'s; the package check gives its unpacked ones, and
their etc directory in RELAYTOOL_ETC_DIR.
"""

import atexit
import hashlib
import os
import re
import shutil
import sys
import tempfile
import threading
import time
import unittest

REPO = os.path.dirname(os.path.dirname(os.path.dirname(os.path.realpath(__file__))))
sys.path.insert(0, REPO)

import lab  # noqa: E402
from lab import SOURCE_PASV, gridftp, wait_until  # noqa: E402
from lab.endpoint import FORWARD  # noqa: E402
from lab.process import children, command_name  # noqa: E402
from lab.tool import STATUS  # noqa: E402

SKIP = lab.skip_reason()


def sha256_of(path):
    with open(path, "rb") as f:
        return hashlib.sha256(f.read()).hexdigest()


@unittest.skipIf(SKIP, SKIP)
class ThroughTheRelay(unittest.TestCase):
    """One lab, with an endpoint set up and running and a far side.  The
    programs come from a directory that only root may enter, as a checkout
    in root's home is: the lab must stage them."""

    @classmethod
    def setUpClass(cls):
        # mode 0700; named so that a later lab sweeps it after a kill
        hidden = tempfile.mkdtemp(prefix="%s%d-private-" % (lab.stage.PREFIX, os.getpid()))
        atexit.register(shutil.rmtree, hidden, True)  # also when interrupted
        programs = {name: shutil.copy(path, hidden) for name, path in lab.built_programs().items()}
        cls.lab = lab.Lab(programs, installed=os.environ.get("RELAYTOOL_ETC_DIR"), heartbeat=1)
        cls.addClassCleanup(cls.lab.close)
        cls.logind = cls.lab.logind()
        # the whole home, with the configuration directory where an
        # operator's is, and one folder read-only
        home = cls.lab.stage.path("endpoint", "home")
        cls.endpoint = cls.lab.endpoint(config_in_home=True,
                                        RELAYTOOL_SHARED_DIRS=home + ":%s/results:ro" % home,
                                        DBUS_SYSTEM_BUS_ADDRESS=cls.logind.address)
        for name in ("results", "work", ".ssh"):
            cls.lab.stage.mkdir("endpoint/home/" + name, owner=cls.lab.user)
        done = cls.endpoint.setup("gridftp")
        if done.returncode:
            raise AssertionError("setup failed: " + done.stdout + done.stderr)
        cls.endpoint.start_idle()
        cls.client = cls.endpoint.client()
        cls.far = cls.lab.far_side(cls.client["user_dn"])

    def copy(self, source, dest, *options, **kw):
        start = self.endpoint.log_size()
        done = self.endpoint.copy(source, dest, *options, **kw)
        self.endpoint.wait_log(r"^state: idle$", start)  # the worker has ended
        return done, self.endpoint.log(start)

    def assertCopied(self, done, log, source, dest):
        self.assertEqual(done.returncode, 0, done.stderr + log)
        self.assertEqual(sha256_of(source), sha256_of(dest))
        self.assertEqual(re.findall(r"^state: (active, \d+ workers?|idle)$", log, re.M),
                         ["active, 1 worker", "idle"])
        # the far side is passive, the endpoint's server connects to its address
        self.assertRegex(log, r"\[CLIENT\]: PORT 10,77,0,1,")
        self.assertIn("DN %s successfully authorized" % self.client["user_dn"], log)

    def test_third_party_transfers_both_ways(self):
        ep, far = self.endpoint, self.far
        with open(ep.path("gridftp.conf")) as f:
            text = f.read()
        self.assertTrue(text.startswith("# Written by relaytool-endpoint"), text)
        self.assertIn('\nrestrict_paths "%s,' % ep.home, text)
        # each side must present the certificate the relay issued for it
        subjects = ("-ss", self.client["endpoint_subject"], "-ds", far.subject)

        # out of the endpoint (a read-only folder): the default of the client
        source = self.lab.user_file(ep.home + "/results/r.dat", os.urandom(1 << 20))
        done, log = self.copy(ep.url(source), far.url(far.files + "/results.dat"), *subjects)
        self.assertCopied(done, log, source, far.files + "/results.dat")
        self.assertNotRegex(log, r"\[CLIENT\]: DCAU N")  # the default: authenticated
        self.assertIn("DN %s successfully authorized" % self.client["user_dn"], far.log())

        # into the endpoint: with the switch the far side is passive
        source = self.lab.user_file(far.files + "/input.dat", os.urandom(1 << 20))
        done, log = self.copy(far.url(source), ep.url(ep.home + "/input.dat"), "-ss", far.subject,
                              "-ds", self.client["endpoint_subject"], env=SOURCE_PASV)
        self.assertCopied(done, log, source, ep.home + "/input.dat")
        self.assertEqual(os.stat(ep.home + "/input.dat").st_uid, self.lab.user.uid)
        rc, status = ep.status()
        self.assertEqual((rc, status["state"], status["workers"]), (0, "idle", 0), status)
        # the history, as the server recorded each transfer
        self.assertEqual([(t["direction"], t["path"], t["bytes"], t["subject"], t["outcome"])
                          for t in status["transfers"][-2:]],
                         [("sent", ep.home + "/results/r.dat", 1 << 20, self.client["user_dn"],
                           "ok"), ("received", ep.home + "/input.dat", 1 << 20,
                                   self.client["user_dn"], "ok")])

    def test_secrets_are_never_served_and_read_only_folders_stay_as_they_are(self):
        ep, far = self.endpoint, self.far
        into_far = far.url(far.files + "/taken")
        # neither the private stores nor the endpoint's own key, also not
        # through a link inside the share
        key = self.lab.user_file(ep.home + "/.ssh/id_rsa", "private\n", mode=0o600)
        os.symlink(ep.home + "/.ssh", ep.home + "/keys")
        for secret in (key, ep.home + "/keys/id_rsa", ep.path("ftp-key2.pem")):
            self.assertNotEqual(self.copy(ep.url(secret), into_far)[0].returncode, 0, secret)
            # the far side may have made the file before the refusal
            with open(far.files + "/taken", "a+b") as taken:
                taken.seek(0)
                self.assertEqual(taken.read(), b"", secret)
        # nothing comes into them, and none can be found under a new name
        source = far.url(self.lab.user_file(far.files + "/in.dat", os.urandom(4096)))
        done, log = self.copy(source, ep.url(ep.home + "/.ssh/authorized_keys"), env=SOURCE_PASV)
        self.assertNotEqual(done.returncode, 0, log)
        self.assertFalse(os.path.exists(ep.home + "/.ssh/authorized_keys"))
        self.assertTrue(ep.operate("move", ep.home + "/.config", ep.home + "/config"))

        # a read-only folder refuses every change, a writable one takes them
        for folder, writable in ((ep.home + "/results", False), (ep.home + "/work", True)):
            for name in ("a.dat", "c.dat"):
                self.lab.user_file(folder + "/" + name, name)
            done, log = self.copy(source, ep.url(folder + "/in.dat"), env=SOURCE_PASV)
            refused = [done.returncode != 0] + [bool(ep.operate(op, *[folder + p for p in paths]))
                                                for op, paths in (("mkdir", ["/new"]),
                                                                  ("move", ["/a.dat", "/b.dat"]),
                                                                  ("delete", ["/c.dat"]))]
            self.assertEqual(refused, [not writable] * 4, folder + log)
            self.assertEqual(sorted(os.listdir(folder)),
                             ["b.dat", "in.dat", "new"] if writable else ["a.dat", "c.dat"])

    def test_network_blip_address_change_and_resume(self):
        ep, far, net = self.endpoint, self.far, self.lab.net
        tools = [ep.wait_state(lambda s: s["state"] == "idle", "idle")["tool_pid"]]
        # A transfer in flight over a slow link that is down for three
        # seconds: the same address comes back and the tool is left alone.
        net.shape("endpoint", "16mbit")
        self.addCleanup(net.shape, "endpoint", None)
        source = self.lab.user_file(ep.home + "/big.dat", os.urandom(6 << 20))
        start, copied = ep.log_size(), {}
        copier = threading.Thread(target=lambda: copied.update(done=self.copy(
            ep.url(source), far.url(far.files + "/big.dat"))[0]))
        copier.start()
        self.assertTrue(wait_until(lambda: os.path.exists(far.files + "/big.dat") and
                                   os.path.getsize(far.files + "/big.dat") > 0), ep.details())
        net.link("endpoint", up=False)
        time.sleep(3)
        net.link("endpoint", up=True)
        copier.join()
        self.assertEqual(copied["done"].returncode, 0, copied["done"].stderr + ep.log(start))
        self.assertEqual(sha256_of(source), sha256_of(far.files + "/big.dat"))
        self.assertNotIn("starting the tool again", ep.log(start))
        self.assertEqual(ep.state()["tool_pid"], tools[0])

        # a new address or a resume: a new tunnel at once, without a failure
        def connected_again(reason):
            state = ep.wait_state(lambda s: s["state"] == "idle" and s["tool_pid"] not in tools,
                                  "idle with a new tool after: " + reason)
            tools.append(state["tool_pid"])
            self.assertIn(reason, ep.log(start), ep.details())
            self.assertIsNone(state["last_failure"], ep.details())  # no back-off

        net.set_address("endpoint", "10.77.0.3")
        connected_again("the local address for the relay changed from 10.77.0.2 to 10.77.0.3")
        self.logind.prepare_for_sleep(True)
        ep.wait_log("^relaytool-endpoint: the computer is going to sleep", start)
        self.logind.prepare_for_sleep(False)
        connected_again("the computer has resumed")

    def test_pause_and_resume(self):
        ep, relay = self.endpoint, self.lab.relay
        with open(ep.path("client-id.txt")) as f:
            endpoint_id = f.read().strip()

        def login():
            return relay.state()["clients"][endpoint_id]["last_login"]["operation"]

        serving, start = ep.forwarded(), ep.log_size()
        self.assertEqual(ep.command("pause").returncode, 0)
        ep.wait_state(lambda s: s["state"] == "paused", "paused")
        # logged in as paused, with no forward
        self.assertEqual(login(), "PAUSED")
        self.assertTrue(wait_until(lambda: serving not in relay.forwarded_ports()))
        self.assertNotRegex(ep.log(start), FORWARD)
        self.assertEqual(ep.command("resume").returncode, 0)
        ep.wait_state(lambda s: s["state"] == "idle", "idle")
        self.assertEqual(login(), "FORWARD")
        self.assertIn(ep.forwarded(), relay.forwarded_ports())

    def test_the_watcher_ends_ssh_when_the_tool_goes(self):
        # The tool run directly, as its parent runs it.  Each case holds a
        # transfer open, as a parent that dies in the middle of one would
        # leave it: OpenSSH keeps running while a forwarded connection is
        # open, even without its standard input, so only the watcher ends it.
        tool = self.lab.tool("parent")
        run, rc = tool.set_up("parent")
        self.assertEqual(rc, 0, run.report())
        for case in ("close stdin", "kill parent", "kill tool"):
            run = tool.start(HVN_FTP_PORT="0", via_middle=case == "kill parent")
            pid = run.pid
            if case == "kill parent":
                pid = int(run.wait_line(r"^middle: tool pid=(\d+)$", "out").group(1))
            port = run.wait_line(r"^\[ssh stderr\] Allocated port (\d+) for remote forward to "
                                 r"127\.0\.0\.1:\d+$").group(1)
            _, greeting = gridftp.hold(self.lab, port)
            self.assertRegex(greeting, r"^220 .*GridFTP Server")
            run.wait_line("^" + STATUS + "ACTIVE nr_workers=1$", "out")
            ssh = [p for p in children(pid) if command_name(p) == "ssh"]  # pdeath execs it
            self.assertEqual(len(ssh), 1, run.report())
            if case == "close stdin":
                run.stdin.close()
                self.assertEqual(run.wait_exit(), 1, run.report())
            else:
                run.kill()
                run.wait()
            self.assertTrue(wait_until(lambda: not {pid, ssh[0]} & set(self.lab.net.pids(
                "endpoint"))), case + "\n" + run.report())


if __name__ == "__main__":
    if SKIP:
        print(SKIP, file=sys.stderr)
    unittest.main()
