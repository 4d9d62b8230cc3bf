"""relaytool-endpoint as an endpoint's user runs it, inside the endpoint's
namespace: its home, its configuration directory and its log in the lab's
stage; the settings a test gives added to what every endpoint needs."""

import json
import os
import re
import signal

from . import gridftp
from .process import WAIT, command_name, json_file, wait_until

FORWARD = r"Allocated port (\d+) for remote forward"


class Endpoint:
    """config_in_home: the configuration directory where an operator's is,
    ~/.config/relaytool, inside what is served by default."""

    def __init__(self, lab, name, settings, config_in_home=False):
        self.lab, self.account = lab, lab.user
        self.root = lab.stage.mkdir(name, mode=0o755)
        self.home = lab.stage.mkdir(name + "/home", owner=self.account)
        if config_in_home:
            lab.stage.mkdir(name + "/home/.config", owner=self.account)
        # elsewhere with a blank, as the tool must pass paths to ssh and the server
        self.config_dir = lab.stage.mkdir(
            name + ("/home/.config/relaytool" if config_in_home else "/config dir"),
            owner=self.account)
        self.log_path = lab.stage.path(name, "endpoint.log")
        self.out_path = lab.stage.path(name, "endpoint.out")
        self.run, self.credentials = None, None
        self.settings = dict(
            PATH="/usr/bin:/bin", HOME=self.home, LANG="C.UTF-8",
            RELAYTOOL_PATH=lab.programs["tool"], HVN_PDEATH_PATH=lab.programs["pdeath"],
            HVN_GLOBAL_ETC_DIR=lab.etc_dir, HVN_CONFIG_DIR=self.config_dir,
            HVN_GRIDFTP_PATH=gridftp.SERVER, RELAYTOOL_TRUST_DIR=lab.trust_dir,
            HVN_RELAY_SERVER="%s:%d" % (lab.relay.address, lab.relay.port),
            RELAYTOOL_BACKOFF_MIN="0.2", RELAYTOOL_BACKOFF_MAX="1.6",
            # no system bus but the lab's stand-in, when a test starts one
            DBUS_SYSTEM_BUS_ADDRESS="unix:path=" + lab.stage.path("no-bus"),
            **lab.stage.sanitizer_options(os.environ))
        self.settings.update(settings)

    def env(self, **settings):
        """The endpoint's environment; keyword arguments add to it, None
        removes."""
        env = dict(self.settings, **settings)
        return {k: v for k, v in env.items() if v is not None}

    def path(self, *names):
        return os.path.join(self.config_dir, *names)

    # -- commands

    def command(self, *args, input=None, env=None, account="user"):
        """relaytool-endpoint ARGS to its end: a CompletedProcess."""
        return self.lab.run([self.lab.programs["endpoint"]] + list(args), account=account,
                            env=env or self.env(), input=input)

    def setup(self, code):
        """Registers the code with the relay and gives it to setup on its
        standard input, never on a command line that every user could read."""
        self.lab.relay.add_code(code)
        return self.command("setup", input=code + "\n")

    def start(self, *args, env=None, wrapper=(), program=None):
        """relaytool-endpoint ARGS (default: run) in the background, or
        another build of it (`program`, staged), behind `wrapper`; its
        standard error, the endpoint's log, goes to log_path."""
        argv = list(wrapper) + [program or self.lab.programs["endpoint"]] + list(args or ["run"])
        self.run = self.lab.start(argv, self.out_path, self.log_path, env=env or self.env(),
                                  details=self.details)
        return self.run

    def start_idle(self, **start):
        """run, until the endpoint is logged in and idle."""
        self.start(**start)
        return self.wait_state(lambda s: s["state"] == "idle", "idle")

    def stop(self):
        """SIGTERM, as systemd stops it: the exit status."""
        self.run.send_signal(signal.SIGTERM)
        return self.run.wait_exit()

    def status(self):
        """status --json: (exit status, the object)."""
        done = self.command("status", "--json")
        return done.returncode, json.loads(done.stdout or "null")

    # -- what it shows

    def state(self):
        """The state file, or {} while there is none."""
        return json_file(self.path("endpoint-state.json"))

    def states(self):
        """The "state: ..." lines of the log, without the prefix."""
        return re.findall(r"^state: (.*)$", self.log(), re.M)

    def log(self, start=0):
        """The endpoint's log from byte `start` on."""
        try:
            with open(self.log_path, "rb") as f:
                return f.read().decode("utf-8", "replace")[start:]
        except FileNotFoundError:
            return ""

    def log_size(self):
        return len(self.log())

    def wait_log(self, pattern, start=0):
        return self.run.wait_line(pattern, start=start)

    def wait_state(self, predicate, what, timeout=WAIT):
        """Waits until the state file satisfies the predicate; the state."""
        state = wait_until(lambda: (lambda s: s if s and predicate(s) else None)(self.state()),
                           timeout)
        if not state:
            raise AssertionError("no state with %s\n%s" % (what, self.details()))
        return state

    def details(self):
        return "--- endpoint log:\n%s--- state file:\n%s\n%s" % (
            self.log(), json.dumps(self.state(), indent=1), self.lab.relay.logs())

    def forwarded(self):
        """The relay's port of the latest forward the endpoint got."""
        return int(re.findall(FORWARD, self.log())[-1])

    def url(self, path):
        """Through the relay: its forwarded port on the relay's 127.0.0.1."""
        return "gsiftp://127.0.0.1:%d%s" % (self.forwarded(), path)

    def client(self):
        """The relay's test user for this endpoint, as the GridFTP client
        needs it: user_cert, user_key (copies the endpoint's user owns),
        user_dn, endpoint_subject, ..."""
        if not self.credentials:
            with open(self.path("client-id.txt")) as f:
                endpoint_id = f.read().strip()
            self.credentials = self.lab.relay.client_credentials(
                endpoint_id, self.account.name, os.path.join(self.root, "client"))
        return self.credentials

    def copy(self, source, dest, *options, env=None, cert=None, key=None):
        """globus-url-copy with this endpoint's test user (or the
        certificate and key given): a CompletedProcess."""
        client = self.client()
        return gridftp.copy(self.lab, source, dest, *options, env=env,
                            cert=cert or client["user_cert"], key=key or client["user_key"],
                            home=os.path.join(self.root, "client"))

    def operate(self, op, *paths):
        """op ("delete", "mkdir" or "move" from the first path to the
        second) through the relay: None, or the error."""
        client = self.client()
        return gridftp.operate(self.lab, op, client["endpoint_subject"],
                               *[self.url(path) for path in paths], cert=client["user_cert"],
                               key=client["user_key"], home=os.path.join(self.root, "client"))

    def processes(self, name=None):
        """The live processes in the endpoint's namespace (named `name`)."""
        return [pid for pid in self.lab.net.pids("endpoint")
                if command_name(pid) and (name is None or command_name(pid) == name)]
