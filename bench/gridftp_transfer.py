#!/usr/bin/python3
"""Throughput and time to the first byte of third-party GridFTP transfers,
with the endpoint behind the relay against the same endpoint reached
directly (needs root and the GridFTP packages; not part of the test suite,
whose tests never time anything).

The lab is the end-to-end test's (tests/e2e/gridftp_lab.py): the endpoint
under relaytool-endpoint in a namespace that accepts nothing inbound, the
relay and a far-side GridFTP server in the other.  Each way, a file of
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
sys.path.insert(0, os.path.join(REPO, "tests", "e2e"))

from gridftp_lab import SERVER, SOURCE_PASV, GridftpLab, skip_reason  # noqa: E402

BUILD = os.path.join(REPO, "build")
BLOCK = 64 << 20


def make_file(lab, path, size):
    """size bytes: one random block over and over, which is quick to make
    and which nothing on the way compresses."""
    block = os.urandom(BLOCK)
    lab.write(path, b"")
    with open(path, "wb") as f:
        for _ in range(size // BLOCK):
            f.write(block)
        f.write(block[:size % BLOCK])


def timed_copy(lab, source, dest, dest_file, options, env):
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
    result = lab.copy(source, dest, *options, env=env)
    end = time.monotonic()
    done.set()
    watcher.join()
    if result.returncode:
        raise SystemExit("globus-url-copy failed: %s" % result.stderr)
    return end - start, (first[0] if first else end) - start


def direct_server(lab):
    """A GridFTP daemon in the endpoint's namespace with the configuration
    relaytool-endpoint wrote; returns a URL maker for it."""
    conf = os.path.join(lab.config_dir, "gridftp.conf")
    server = lab.spawn([SERVER, "-c", conf], lab.lab.endpoint, {"PATH": "/usr/bin:/bin"},
                       stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    port = int(server.stdout.readline().strip().rsplit(":", 1)[1])
    return lambda path: "gsiftp://%s:%d%s" % (lab.lab.endpoint_addr, port, path)


def measure(lab, size, runs):
    """{(mode, way): [(seconds, seconds to the first byte)]}, the modes
    taking turns so that a busy moment of the machine hits both alike."""
    # one file under two names, one on each side
    data = lab.home + "/bench.dat"
    make_file(lab, data, size)
    os.link(data, lab.remote_files + "/bench.dat")
    subject = lab.client["endpoint_subject"]  # the direct name is not on the certificate
    modes = {"behind the relay": lab.endpoint_url, "direct": direct_server(lab)}
    samples, blocked = {}, True  # as the lab starts
    for _ in range(runs):
        for mode, endpoint in modes.items():
            if blocked == (mode == "direct"):  # the inbound rule only for the relay
                (lab.lab.allow_inbound if blocked else lab.lab.block_inbound)(lab.lab.endpoint)
                blocked = not blocked
            for way, source, dest, dest_file, options, env in (
                    ("out of the endpoint", endpoint(data), lab.remote_url(lab.remote_files + "/got"),
                     lab.remote_files + "/got", ["-ss", subject], None),
                    ("into the endpoint", lab.remote_url(lab.remote_files + "/bench.dat"),
                     endpoint(lab.home + "/got"), lab.home + "/got", ["-ds", subject], SOURCE_PASV)):
                took, first = timed_copy(lab, source, dest, dest_file, options, env)
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
    if skip_reason():
        raise SystemExit(skip_reason())
    # in memory, so that the disk's write-back does not decide the figures
    tempfile.tempdir = args.dir
    lab = GridftpLab(os.path.join(BUILD, "endpoint", "relaytool-endpoint"),
                     os.path.join(BUILD, "tests", "relaytool-testrelay"),
                     os.path.join(BUILD, "pdeath", "pdeath"))
    try:
        if lab.set_up("bench").returncode:
            raise SystemExit("setup failed")
        lab.run_endpoint()
        lab.start_remote()
        print("%d-byte third-party transfers, %d cores, %s"
              % (args.size, os.cpu_count(), time.strftime("%Y-%m-%d %H:%M")))
        samples = measure(lab, args.size, args.runs)
    finally:
        lab.close()
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
