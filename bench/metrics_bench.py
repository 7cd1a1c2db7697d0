#!/usr/bin/env python3
"""What a Prometheus scrape of the daemon's metrics endpoint costs, in the simulated device.

  cpu       daemon CPU time (its threads' schedstat) over N scrapes of /metrics with every SFP+
            and link value present, the idle rate (polls, value groups) of an equally long quiet
            window taken off, per scrape.
  commands  host commands logged by the simulated tools during the scrapes, against a quiet
            window of the same length: a scrape that ran one would add N of them.

The device's network is its own, so the scrapes run inside it (one Python process making N
HTTP requests, a new connection each, as Prometheus does).
Needs root (devhost). Usage: sudo bench/metrics_bench.py [--scrapes 5000]
"""

import argparse
import collections
import json
import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e"))
sys.path.insert(0, HERE)
import dhtest  # noqa: E402
from startup_bench import cpu_ns, daemon_pid  # noqa: E402

ADDRESS = "127.0.0.1:9701"

# Runs inside the device: N scrapes, then one JSON line with their wall time and the last body.
SCRAPER = """\
import json, sys, time, urllib.request
url, n = sys.argv[1], int(sys.argv[2])
t0 = time.monotonic()
for _ in range(n):
    body = urllib.request.urlopen(url, timeout=5).read().decode()
print(json.dumps({"seconds": time.monotonic() - t0, "body": body}))
"""


def scrape(dev, n):
    r = dev.exec("python3", "-c", SCRAPER, "http://%s/metrics" % ADDRESS, str(n))
    if r.returncode != 0:
        raise RuntimeError("scraper failed: " + r.stderr)
    return json.loads(r.stdout)


def series(body, prefix):
    return [line for line in body.splitlines() if line.startswith(prefix)]


def kinds(entries):
    """Commands by program and first argument, e.g. 'ethtool -m': 12."""
    return dict(collections.Counter(
        " ".join([os.path.basename(e["argv"][0])] + e["argv"][1:2]) for e in entries))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--scrapes", type=int, default=5000)
    args = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("needs root (devhost)")

    dev = dhtest.Device(daemon_args=["--metrics-listen", ADDRESS])
    try:
        pid = daemon_pid(dev)
        # Every value in place: both modules' powers polled, every link state read.
        dhtest.wait_until(lambda: len(series(scrape(dev, 1)["body"], "dh_sfp_rx_power_dbm{")) == 2
                          and len(series(scrape(dev, 1)["body"], "dh_link_up{")) == 28, timeout=20)
        body = scrape(dev, 1)["body"]
        samples = [line for line in body.splitlines() if line and not line.startswith("#")]
        print("scrape: %d bytes, %d samples (%d SFP+, %d link and admin states)" % (
            len(body), len(samples), len(series(body, "dh_sfp_")),
            len(series(body, "dh_link_up")) + len(series(body, "dh_interface_admin_up"))))

        # Quiet window first, as long as the scrape window will be.
        t0 = time.monotonic()
        probe = scrape(dev, args.scrapes)
        window = time.monotonic() - t0

        mark = dev.mark()
        cpu_before, _ = cpu_ns(pid)
        t0 = time.monotonic()
        time.sleep(window)
        quiet_seconds = time.monotonic() - t0
        quiet_cpu = cpu_ns(pid)[0] - cpu_before
        quiet_commands = dev.commands(since=mark)

        mark = dev.mark()
        cpu_before, _ = cpu_ns(pid)
        t0 = time.monotonic()
        result = scrape(dev, args.scrapes)
        busy_seconds = time.monotonic() - t0
        busy_cpu = cpu_ns(pid)[0] - cpu_before
        busy_commands = dev.commands(since=mark)

        idle_rate = quiet_cpu / quiet_seconds
        per_scrape = (busy_cpu - idle_rate * busy_seconds) / args.scrapes
        print("quiet %.2f s: daemon CPU %.1f ms (%.2f ms/s), %d host commands (%.1f/s) %s" % (
            quiet_seconds, quiet_cpu / 1e6, idle_rate / 1e6, len(quiet_commands),
            len(quiet_commands) / quiet_seconds, kinds(quiet_commands)))
        print("%d scrapes in %.2f s (%.2f s in the scraper; first run %.2f s): daemon CPU %.1f ms, "
              "%d host commands (%.1f/s) %s" % (
                  args.scrapes, busy_seconds, result["seconds"], probe["seconds"], busy_cpu / 1e6,
                  len(busy_commands), len(busy_commands) / busy_seconds, kinds(busy_commands)))
        print("daemon CPU per scrape: %.3f ms (idle rate taken off), %.3f ms (raw)" % (
            per_scrape / 1e6, busy_cpu / args.scrapes / 1e6))
    finally:
        dev.remove()


if __name__ == "__main__":
    main()
