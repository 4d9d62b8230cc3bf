"""What systemd gives an endpoint, stood in for: the service manager's
notification socket, and logind on a private system bus."""

import os
import socket
import subprocess

CONFIG = """<busconfig>
  <listen>unix:path=%s</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
  </policy>
</busconfig>
"""


class Notify:
    """A datagram socket in place of the service manager's: an endpoint
    with NOTIFY_SOCKET=path sends READY=1, STATUS=..., WATCHDOG=1 to it."""

    def __init__(self, lab, name="notify"):
        self.path = lab.stage.path(name)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)
        os.chmod(self.path, 0o777)  # for the endpoint's user
        self.received = []

    def messages(self):
        """What arrived so far."""
        self.sock.setblocking(False)
        while True:
            try:
                self.received.append(self.sock.recv(65536).decode())
            except BlockingIOError:
                return self.received

    def close(self):
        self.sock.close()


class Logind:
    """A private system bus (Debian's dbus-daemon) on which the lab stands
    in for logind: it owns org.freedesktop.login1 and sends
    PrepareForSleep, as the computer going to sleep and resuming would.  An
    endpoint follows it with DBUS_SYSTEM_BUS_ADDRESS=address."""

    def __init__(self, lab):
        import dbus  # Debian's python3-dbus
        self.dbus = dbus
        config = lab.stage.write(lab.stage.path("bus.conf"),
                                 CONFIG % lab.stage.path("system_bus_socket"))
        daemon = lab.spawn(["dbus-daemon", "--config-file=" + config, "--nofork",
                            "--print-address=1"], ns=None, account=None, stderr=subprocess.DEVNULL,
                           stdout=subprocess.PIPE, text=True)
        with daemon.stdout:
            self.address = daemon.stdout.readline().strip()
        os.chmod(lab.stage.path("system_bus_socket"), 0o777)  # for the endpoint's user
        self.bus = dbus.bus.BusConnection(self.address)
        self.bus.request_name("org.freedesktop.login1")

    def prepare_for_sleep(self, sleeping):
        message = self.dbus.lowlevel.SignalMessage(
            "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep")
        message.append(sleeping, signature="b")
        self.bus.send_message(message)
        self.bus.flush()

    def close(self):
        self.bus.close()
