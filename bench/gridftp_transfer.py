#!/usr/bin/python3
"""Throughput and time to the first byte of third-party GridFTP transfers,
with the endpoint behind the relay against the same endpoint reached
directly (needs root and the GridFTP packages; not part of the test suite,
whose tests never time anything).

The lab (lab/): the endpoint under relaytool-endpoint in a namespace that
accepts nothing inbound, the relay and a far-side GridFTP server in the
other.  Each way, a file of
--size bytes is copied --runs times:

  behind the relay  the client's control connection to the endpoint goes
                    through the relay's forwarded port and ssh to a server
                    the tool starts;
  direct            the inbound rule is lifted and the client reaches a
                    GridFTP daemon in the endpoint's namespace, with the same
                    configuration, at the endpoint's own address.

In both, the endpoint's server opens the data connection to the far side
(GLOBUS_FTP_CLIENT_SOURCE_PASV into the endpoint), so the data takes the same
path; only the control connection differs.  The two take turns.  The
figures: MB/s (10^6 bytes over the whole command), median and best run,
the ratio behind the relay / direct of both, and the median time from
starting globus-url-copy to the first byte in the destination file.

    python3 bench/gridftp_transfer.py [--size BYTES] [--runs N] [--dir DIR]
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import threading
import time

REPO = os.path.dirname(os.path.dirname(os.path.realpath(__file__)))
sys.path.insert(0, REPO)

import lab  # noqa: E402
from lab.gridftp import SERVER, SOURCE_PASV  # noqa: E402

BLOCK = 64 << 20


def make_file(the_lab, path, size):
    """size bytes: one random block over and over, which is quick to make
    and which nothing on the way compresses."""
    block = os.urandom(BLOCK)
    the_lab.user_file(path, b"")
    with open(path, "wb") as f:
        for _ in range(size // BLOCK):
            f.write(block)
        f.write(block[:size % BLOCK])


def timed_copy(endpoint, source, dest, dest_file, options, env):
    """(seconds to the end, seconds to the first byte at dest_file)."""
    first = []

    def watch():
        while not first and not done.is_set():
            try:
                if os.stat(dest_file).st_size > 0:
                    first.append(time.monotonic())
            except FileNotFoundError:
                pass
            time.sleep(0.002)

    done = threading.Event()
    watcher = threading.Thread(target=watch)
    start = time.monotonic()
    watcher.start()
    result = endpoint.copy(source, dest, *options, env=env)
    end = time.monotonic()
    done.set()
    watcher.join()
    if result.returncode:
        raise SystemExit("globus-url-copy failed: %s" % result.stderr)
    return end - start, (first[0] if first else end) - start


def direct_server(the_lab, endpoint):
    """A GridFTP daemon in the endpoint's namespace with the configuration
    relaytool-endpoint wrote; returns a URL maker for it."""
    server = the_lab.spawn([SERVER, "-c", endpoint.path("gridftp.conf")],
                           env={"PATH": "/usr/bin:/bin"}, stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, text=True)
    port = int(server.stdout.readline().strip().rsplit(":", 1)[1])
    return lambda path: "gsiftp://%s:%d%s" % (the_lab.net.endpoint_addr, port, path)


def measure(the_lab, endpoint, far, size, runs):
    """{(mode, way): [(seconds, seconds to the first byte)]}, the modes
    taking turns so that a busy moment of the machine hits both alike."""
    # one file under two names, one on each side
    data = endpoint.home + "/bench.dat"
    make_file(the_lab, data, size)
    os.link(data, far.files + "/bench.dat")
    subject = endpoint.client()["endpoint_subject"]  # the direct name is not on the certificate
    modes = {"behind the relay": endpoint.url, "direct": direct_server(the_lab, endpoint)}
    samples, blocked, net = {}, True, the_lab.net  # as the lab starts
    for _ in range(runs):
        for mode, url in modes.items():
            if blocked == (mode == "direct"):  # the inbound rule only for the relay
                (net.allow_inbound if blocked else net.block_inbound)("endpoint")
                blocked = not blocked
            for way, source, dest, dest_file, options, env in (
                    ("out of the endpoint", url(data), far.url(far.files + "/got"),
                     far.files + "/got", ["-ss", subject], None),
                    ("into the endpoint", far.url(far.files + "/bench.dat"),
                     url(endpoint.home + "/got"), endpoint.home + "/got", ["-ds", subject],
                     SOURCE_PASV)):
                took, first = timed_copy(endpoint, source, dest, dest_file, options, env)
                samples.setdefault((mode, way), []).append((took, first))
                os.unlink(dest_file)
                print("    %-17s %-19s %6.2f s, first byte after %.3f s"
                      % (mode, way, took, first), flush=True)
    return samples


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--size", type=int, default=2 << 30, help="bytes per file (default 2 GiB)")
    p.add_argument("--runs", type=int, default=5, help="transfers per way and mode")
    p.add_argument("--dir", default="/dev/shm",
                   help="where the lab and its files live (default /dev/shm: the "
                        "file and one copy at a time must fit in memory)")
    args = p.parse_args()
    if lab.missing_requirement():
        raise SystemExit("the benchmark needs " + lab.missing_requirement())
    # in memory, so that the disk's write-back does not decide the figures
    tempfile.tempdir = args.dir
    the_lab = lab.Lab()
    try:
        endpoint = the_lab.endpoint()
        if endpoint.setup("bench").returncode:
            raise SystemExit("setup failed")
        endpoint.start_idle()
        far = the_lab.far_side(endpoint.client()["user_dn"])
        print("%d-byte third-party transfers, %d cores, %s"
              % (args.size, os.cpu_count(), time.strftime("%Y-%m-%d %H:%M")))
        samples = measure(the_lab, endpoint, far, args.size, args.runs)
    finally:
        the_lab.close()
    # The machine is shared: another busy process only ever slows a run
    # down, so the best run is shown beside the median.
    rate = {key: [args.size / s[0] / 1e6 for s in runs] for key, runs in samples.items()}
    for (mode, way), runs in samples.items():
        print("  %-17s %-19s median %7.1f MB/s, best %7.1f MB/s; first byte after %.3f s"
              " (median of %d)" % (mode, way, statistics.median(rate[mode, way]),
                                   max(rate[mode, way]),
                                   statistics.median(s[1] for s in runs), len(runs)))
    for way in ("out of the endpoint", "into the endpoint"):
        relay, direct = rate["behind the relay", way], rate["direct", way]
        print("  %-19s behind the relay / direct: %.2f (medians), %.2f (best runs);"
              " goal at least 0.9" % (way, statistics.median(relay) / statistics.median(direct),
                                      max(relay) / max(direct)))

if __name__ == "__main__":
    main()
