#!/usr/bin/env python3
"""Start-up and idle cost of the daemon in the simulated device.

For each of --runs fresh devices: `devhost up` (which returns once data/configStatus is true),
then at once the daemon's own CPU time since exec (its threads' run time from
/proc/PID/task/*/schedstat, children excluded; /proc/PID/stat utime+stime as a cross-check),
its resident memory (VmRSS) and the sysrepocfg runs in commands.log up to that moment. Then one
device is left idle for --idle seconds with both poll threads running and its CPU share is
measured. Needs root (devhost). Usage: sudo bench/startup_bench.py [--runs 5] [--idle 30]
"""

import argparse
import os
import statistics
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "e2e"))
import dhtest  # noqa: E402

TICK = os.sysconf("SC_CLK_TCK")


def stat_fields(pid):
    with open("/proc/%d/stat" % pid) as f:
        text = f.read()
    # The command name may hold blanks: fields start after its closing parenthesis.
    return text[text.rindex(")") + 2:].split()


def descendants(root):
    children = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                ppid = int(stat_fields(int(entry))[1])
            except (OSError, ValueError):
                continue
            children.setdefault(ppid, []).append(int(entry))
    out, todo = [], [root]
    while todo:
        pid = todo.pop()
        out.append(pid)
        todo.extend(children.get(pid, []))
    return out


def daemon_pid(dev):
    import json
    with open(os.path.join(dev.dir, ".devhost", "state.json")) as f:
        init = json.load(f)["init_pid"]
    for pid in descendants(init):
        try:
            with open("/proc/%d/comm" % pid) as f:
                if f.read().startswith("sysrepo-device"):
                    return pid
        except OSError:
            pass
    raise RuntimeError("daemon process not found")


def cpu_ns(pid):
    """Run time of the process's threads (ns) from schedstat, and utime+stime (ns) from stat."""
    total = 0
    for tid in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/schedstat" % (pid, tid)) as f:
                total += int(f.read().split()[0])
        except OSError:
            pass
    fields = stat_fields(pid)
    ticks = int(fields[11]) + int(fields[12])
    return total, ticks * 1_000_000_000 // TICK


def rss_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def sysrepocfg_runs(dev):
    return [e for e in dev.commands() if e["argv"] and os.path.basename(e["argv"][0]) == "sysrepocfg"]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--idle", type=float, default=30.0)
    args = ap.parse_args()
    if os.geteuid() != 0:
        sys.exit("startup_bench: needs root (it starts the simulated device)")

    cpu, cpu_stat, rss, exports, wall = [], [], [], [], []
    idle_dev = None
    for i in range(args.runs):
        dev = dhtest.Device(up=False)
        t0 = time.monotonic()
        dev.up()
        wall.append(time.monotonic() - t0)
        pid = daemon_pid(dev)
        sched, stat = cpu_ns(pid)
        runs = sysrepocfg_runs(dev)
        cpu.append(sched / 1e6)
        cpu_stat.append(stat / 1e6)
        rss.append(rss_kib(pid) / 1024)
        exports.append(len(runs))
        if i == args.runs - 1:
            idle_dev = dev
        else:
            dev.remove()

    def line(name, values, unit):
        print("%-40s min %8.2f  median %8.2f  max %8.2f %s" % (
            name, min(values), statistics.median(values), max(values), unit))

    print("runs: %d, daemon %s" % (args.runs, idle_dev.daemon))
    line("devhost up (wall)", [w * 1000 for w in wall], "ms")
    line("daemon CPU to configStatus (schedstat)", cpu, "ms")
    line("daemon CPU to configStatus (stat)", cpu_stat, "ms")
    line("VmRSS after start-up", rss, "MiB")
    line("sysrepocfg runs at start-up", exports, "")

    try:
        pid = daemon_pid(idle_dev)
        before, before_stat = cpu_ns(pid)
        t0 = time.monotonic()
        time.sleep(args.idle)
        after, after_stat = cpu_ns(pid)
        elapsed = time.monotonic() - t0
        print("idle over %.0f s: %.3f %% of a core (schedstat), %.3f %% (stat); VmRSS %.2f MiB" % (
            elapsed, (after - before) / 1e9 / elapsed * 100, (after_stat - before_stat) / 1e9 / elapsed * 100,
            rss_kib(pid) / 1024))
    finally:
        idle_dev.remove()


if __name__ == "__main__":
    main()
