#!/usr/bin/env python3
"""Three parameters written by one set_many against three sets, in the simulated device.

On one fresh device, --rounds times each way (alternating, values changing every round): the
wall time of the write as the client sees it, and the sysrepocfg exports of running or startup
and the imports it caused (from commands.log). Needs root (devhost).
Usage: sudo bench/set_many_bench.py [--rounds 20]
"""

import argparse
import os
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import dhtest  # noqa: E402


def updates(n):
    return [("config/ntp/primaryServer", "198.51.100.%d" % (n % 200 + 1)),
            ("config/dnsSettings", {"primaryDnsIpAddress": "198.51.100.%d" % (n % 200 + 1)}),
            ("config/ospf/e4/metric", n % 200 + 1)]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rounds", type=int, default=20)
    args = parser.parse_args()
    dev = dhtest.Device()
    try:
        figures = {"set_many": ([], []), "3 x set": ([], [])}
        for n in range(2 * args.rounds):
            way = "set_many" if n % 2 == 0 else "3 x set"
            mark, start = dev.mark(), time.monotonic()
            if way == "set_many":
                dev.call("set_many", {"updates": [{"path": p, "value": v} for p, v in updates(n)]})
            else:
                for p, v in updates(n):
                    dev.set(p, v)
            figures[way][0].append((time.monotonic() - start) * 1000)
            figures[way][1].append(dhtest.datastore_runs(dev, mark))
        for way, (times, runs) in figures.items():
            print("%-9s median %.0f ms, p90 %.0f ms; exports/imports per write: %s" % (
                way, statistics.median(times), sorted(times)[int(len(times) * 0.9) - 1],
                sorted(set(runs))))
        print("load: %s" % open("/proc/loadavg").read().strip())
    finally:
        dev.remove()


if __name__ == "__main__":
    main()
