#!/usr/bin/env python3
"""How the daemon's inside holds up under concurrent work, in the simulated device.

Figures (each on a fresh device; select with --figures, default all but startup):
  latency     set config/ospf/areaId and get data/mgmt/ipv4Settings, idle and while a 5 s
              techlog script runs on another connection (median, p90, ratio to idle).
  units       4 clients on 4 feature units whose work runs host tools made slow (50 ms) against
              each client alone: the sum over clients of (rate together / rate alone), 4 at best.
  writes      20 clients set 20 configuration nodes at once, for some rounds; after each round
              every acknowledged write must be in running.json and startup.json.
  spawn       daemon CPU time (its threads' schedstat) per host command over a run of cheap
              `get cli/show_ospf_neighbor` (one klish run each), the idle rate taken off.
  startup     bench/startup_bench.py (start-up CPU, RSS, idle CPU).

Needs root (devhost). Loopback only: the daemon's Unix socket inside DIR/sim.
Usage: sudo bench/house_bench.py [--figures latency,units,writes,spawn,startup] [--rounds 100]
"""

import argparse
import concurrent.futures
import itertools
import os
import statistics
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e"))
sys.path.insert(0, HERE)
import dhtest  # noqa: E402
from startup_bench import cpu_ns, daemon_pid  # noqa: E402

TECHLOG_REQUEST = {"url": "http://192.0.2.1/upload", "interface": "mgmt"}
CLI_NEIGHBOUR_TEXT = "Neighbor ID     Pri State   Dead Time Address   Interface\n192.0.2.20 1 Full/DR 35.1s 192.0.2.20 e1\n"


def quantile(values, q):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(q * len(ordered)))]


def summary(values):
    """(median, p90) in milliseconds of latencies in seconds."""
    return statistics.median(values) * 1000, quantile(values, 0.9) * 1000


def device(sim_files=None):
    dev = dhtest.Device(sim_files=sim_files)
    print("  device %s, load %s" % (dev.dir, load()), flush=True)
    return dev


def load():
    with open("/proc/loadavg") as f:
        return " ".join(f.read().split()[:3])


def timed(call):
    t0 = time.monotonic()
    call()
    return time.monotonic() - t0


def bench_latency(args):
    """Latency of a write and a read of the interfaces/OSPF area, idle and while a 5 s techlog runs.
    The samplers run on their own connections; only samples started while the techlog request is
    open count as "during"."""
    dev = device()
    try:
        # Every set changes the area (a set of the value held is answered without any work).
        areas = itertools.count()
        kinds = {
            "set config/ospf/areaId": lambda c: c.set("config/ospf/areaId", "0.0.0.%d" % (2 + next(areas) % 2)),
            "get data/mgmt/ipv4Settings": lambda c: c.get("data/mgmt/ipv4Settings"),
        }
        idle = {}
        for name, op in kinds.items():
            client = dev.connect()
            idle[name] = []
            for _ in range(args.samples):
                idle[name].append(timed(lambda: op(client)))
                time.sleep(args.pause)
        dev.slow("techlog", args.techlog_seconds)
        during = {name: [] for name in kinds}
        techlog_client = dev.connect()
        techlog_times = []
        for _ in range(args.techlog_runs):
            busy = threading.Event()
            busy.set()

            def sampler(name, op):
                client = dev.connect()
                for _ in range(args.samples):
                    if not busy.is_set():
                        break
                    during[name].append(timed(lambda: op(client)))
                    time.sleep(args.pause)

            t0 = time.monotonic()
            done = threading.Event()
            answers = []

            def techlog():
                try:
                    answers.append(techlog_client.run("command/techlogGenerate", TECHLOG_REQUEST,
                                                      timeout=args.techlog_seconds + 30))
                finally:
                    done.set()

            threading.Thread(target=techlog, daemon=True).start()
            time.sleep(0.3)  # the daemon has the request and is running the script
            samplers = [threading.Thread(target=sampler, args=item) for item in kinds.items()]
            for s in samplers:
                s.start()
            done.wait(args.techlog_seconds + 30)
            busy.clear()
            techlog_times.append(time.monotonic() - t0)
            if answers != [False]:
                raise RuntimeError("techlogGenerate did not answer false: %r" % answers)
            for s in samplers:
                s.join()
        print("techlog runs: %d, each answered after %s s" % (
            len(techlog_times), ", ".join("%.2f" % t for t in techlog_times)))
        print("%-28s %18s %28s %16s" % ("", "idle med / p90 ms", "during techlog med / p90 ms", "ratio med / p90"))
        for name in kinds:
            i_med, i_p90 = summary(idle[name])
            d_med, d_p90 = summary(during[name])
            print("%-28s %8.1f / %7.1f %11.1f / %8.1f (n=%3d) %7.1fx / %5.1fx" % (
                name, i_med, i_p90, d_med, d_p90, len(during[name]), d_med / i_med, d_p90 / i_p90))
    finally:
        dev.remove()


# The four units and one operation of each whose work runs host tools: NTP (a datastore write and
# the ntpd restart), the access list (nft), the CLI passthrough (klish), the images (rauc).
UNIT_OPS = {
    "ntp: set config/ntp/secondaryServer": lambda c, i: c.set("config/ntp/secondaryServer", "192.0.2.%d" % (124 + i % 2)),
    "acl: set config/acl/whitelist": lambda c, i: c.set("config/acl/whitelist", ["198.51.100.0/%d" % (24 + i % 2)]),
    "cli: get cli/show_ospf_neighbor": lambda c, i: c.get("cli/show_ospf_neighbor"),
    "images: run command/switchImage other": lambda c, i: c.run("command/switchImage", "other"),
}
UNIT_TOOLS = ("sysrepocfg", "ntpd", "nft", "klish", "rauc")


def run_clients(dev, ops, seconds):
    """Runs each operation in a loop on its own connection for the given time; requests per
    second of each."""
    deadline = time.monotonic() + seconds

    def loop(op):
        client = dev.connect()
        count, t0 = 0, time.monotonic()
        while time.monotonic() < deadline:
            op(client, count)
            count += 1
        return count / (time.monotonic() - t0)

    with concurrent.futures.ThreadPoolExecutor(len(ops)) as pool:
        return list(pool.map(loop, ops))


def bench_units(args):
    dev = device({"klish/show_ospf_neighbor.txt": CLI_NEIGHBOUR_TEXT})
    try:
        dev.set("config/acl/adminStatus", "up")
        for tool in UNIT_TOOLS:
            dev.slow(tool, args.slow)
        names, ops = list(UNIT_OPS), list(UNIT_OPS.values())
        alone = [run_clients(dev, [op], args.seconds)[0] for op in ops]
        together = run_clients(dev, ops, args.seconds)
        print("host tools %s slowed by %.0f ms; %.0f s per run" % (", ".join(UNIT_TOOLS), args.slow * 1000, args.seconds))
        print("%-40s %12s %12s %8s" % ("", "alone req/s", "4 at once", "share"))
        for name, a, t in zip(names, alone, together):
            print("%-40s %12.2f %12.2f %8.2f" % (name, a, t, t / a))
        one_client = len(ops) / sum(1 / a for a in alone)  # one client going round the four
        print("speed-up of 4 clients over 1 (sum of shares, 4 at best): %.2fx" % sum(t / a for a, t in zip(alone, together)))
        print("requests/s: 1 client round the four %.2f, 4 clients %.2f" % (one_client, sum(together)))
    finally:
        dev.remove()


def interface_entry(doc, name):
    for entry in doc.get("ietf-interfaces:interfaces", {}).get("interface", []):
        if entry.get("name") == name:
            return entry
    return {}


def ospf_interface(doc, name):
    protocols = doc.get("ietf-routing:routing", {}).get("control-plane-protocols", {}).get("control-plane-protocol", [])
    for protocol in protocols:
        for area in protocol.get("ietf-ospf:ospf", {}).get("areas", {}).get("area", []):
            for entry in area.get("interfaces", {}).get("interface", []):
                if entry.get("name") == name:
                    return entry
    return {}


def system_server(doc, part, name, transport):
    system = doc.get("ietf-system:system", {})
    for entry in system.get(part, {}).get("server", []):
        if entry.get("name") == name:
            return entry.get(transport, {}).get("address", "")
    return ""


def mode_of(doc, port):
    bridged = "infix-interfaces:bridge-port" in interface_entry(doc, port)
    tunnel = interface_entry(doc, port + ".8").get("enabled", True)
    return {(False, False): "tunnelOnly", (True, False): "mgmtOnly", (True, True): "mgmtAndTunnel"}.get(
        (bridged, tunnel), "unknown")


def write_nodes():
    """The 20 nodes: (path, value of round r, reader of a datastore document, datastores it goes to)."""
    both = ("running", "startup")
    nodes = []
    for n in range(13, 23):
        port = "e%d" % n
        nodes.append(("config/%s/adminStatus" % port, lambda r: "down" if r % 2 == 0 else "up",
                      lambda doc, p=port: "up" if interface_entry(doc, p).get("enabled", True) else "down", both))
    for k, n in enumerate(range(17, 24)):
        port = "e%d" % n
        nodes.append(("config/ospf/%s/metric" % port, lambda r, k=k: 10 + k + 10 * (r % 2),
                      lambda doc, p=port: ospf_interface(doc, p).get("cost", 100), both))
    nodes.append(("config/ntp/secondaryServer", lambda r: "192.0.2.%d" % (124 + r % 2),
                  lambda doc: system_server(doc, "ntp", "secondary", "udp"), both))
    nodes.append(("config/dnsSettings",
                  lambda r: {"primaryDnsIpAddress": "192.0.2.53", "secondaryDnsIpAddress": "192.0.2.%d" % (54 + r % 2)},
                  lambda doc: {"primaryDnsIpAddress": system_server(doc, "dns-resolver", "primary", "udp-and-tcp"),
                               "secondaryDnsIpAddress": system_server(doc, "dns-resolver", "secondary", "udp-and-tcp")},
                  both))
    # An interface mode is written to startup only (it takes effect at the next boot).
    nodes.append(("config/e3/mode", lambda r: "mgmtOnly" if r % 2 == 0 else "tunnelOnly",
                  lambda doc: mode_of(doc, "e3"), ("startup",)))
    return nodes


def bench_writes(args):
    dev = device()
    try:
        nodes = write_nodes()
        clients = [dev.connect() for _ in nodes]
        lost = {path: 0 for path, *_ in nodes}
        refused = {path: 0 for path, *_ in nodes}
        barrier = threading.Barrier(len(nodes))

        def write(index, r):
            path, value, _, _ = nodes[index]
            barrier.wait()
            try:
                clients[index].set(path, value(r))
                return True
            except dhtest.RpcError as e:
                print("  round %d: %s refused: %s" % (r, path, e))
                return False

        t0 = time.monotonic()
        with concurrent.futures.ThreadPoolExecutor(len(nodes)) as pool:
            for r in range(args.rounds):
                answered = list(pool.map(lambda i: write(i, r), range(len(nodes))))
                docs = {ds: dev.datastore(ds) for ds in ("running", "startup")}
                for ok, (path, value, read, stores) in zip(answered, nodes):
                    if not ok:
                        refused[path] += 1
                    elif any(read(docs[ds]) != value(r) for ds in stores):
                        lost[path] += 1
        elapsed = time.monotonic() - t0
        total = len(nodes) * args.rounds
        print("%d clients x %d rounds = %d writes in %.0f s; refused %d; acknowledged but not in "
              "running and startup: %d" % (len(nodes), args.rounds, total, elapsed, sum(refused.values()),
                                           sum(lost.values())))
        for path in lost:
            if lost[path] or refused[path]:
                print("  %-32s lost %3d  refused %3d" % (path, lost[path], refused[path]))
    finally:
        dev.remove()


def bench_spawn(args):
    """Daemon CPU per host command. The idle rate (poll threads: operational export, ethtool per
    port) is measured first and taken off, so the figure is the cost of one request that runs one
    cheap tool: mostly starting the process and reading its output."""
    dev = device({"klish/show_ospf_neighbor.txt": CLI_NEIGHBOUR_TEXT})
    try:
        pid = daemon_pid(dev)

        def sample():
            sched, stat = cpu_ns(pid)
            return time.monotonic(), sched, stat, dev.mark()

        time.sleep(2)
        a = sample()
        time.sleep(args.idle)
        b = sample()
        clients = [dev.connect() for _ in range(2)]
        per_client = args.requests // len(clients)

        def loop(client):
            for _ in range(per_client):
                client.get("cli/show_ospf_neighbor")

        with concurrent.futures.ThreadPoolExecutor(len(clients)) as pool:
            list(pool.map(loop, clients))
        c = sample()
        idle_time, work_time = b[0] - a[0], c[0] - b[0]
        idle_rate = [(b[k] - a[k]) / idle_time for k in (1, 2, 3)]
        work = [c[k] - b[k] for k in (1, 2, 3)]
        klish = len(dev.commands(b[3], "klish"))
        print("idle %.0f s: %.2f ms CPU/s (schedstat), %.1f commands/s" % (idle_time, idle_rate[0] / 1e6, idle_rate[2]))
        print("workload: %d gets in %.1f s, %d commands (%d klish), daemon CPU %.1f ms (schedstat) / %.1f ms (stat)" % (
            per_client * len(clients), work_time, work[2], klish, work[0] / 1e6, work[1] / 1e6))
        print("all commands: %.3f ms (schedstat) / %.3f ms (stat) of daemon CPU per command" % (
            work[0] / 1e6 / work[2], work[1] / 1e6 / work[2]))
        print("idle rate taken off, per klish run: %.3f ms (schedstat) / %.3f ms (stat)" % (
            (work[0] - idle_rate[0] * work_time) / 1e6 / klish, (work[1] - idle_rate[1] * work_time) / 1e6 / klish))
    finally:
        dev.remove()


def bench_startup(args):
    subprocess.run([sys.executable, os.path.join(HERE, "startup_bench.py"), "--runs", str(args.startup_runs),
                    "--idle", str(args.startup_idle)], check=True)


FIGURES = {"latency": bench_latency, "units": bench_units, "writes": bench_writes, "spawn": bench_spawn,
           "startup": bench_startup}


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--figures", default="latency,units,writes,spawn",
                    help="comma-separated: " + ", ".join(FIGURES))
    ap.add_argument("--samples", type=int, default=25, help="latency: samples per kind, idle and per techlog run")
    ap.add_argument("--pause", type=float, default=0.1, help="latency: seconds between samples of a kind")
    ap.add_argument("--techlog-seconds", type=float, default=5.0)
    ap.add_argument("--techlog-runs", type=int, default=4)
    ap.add_argument("--slow", type=float, default=0.05, help="units: delay of the slowed tools, seconds")
    ap.add_argument("--seconds", type=float, default=15.0, help="units: length of each run")
    ap.add_argument("--rounds", type=int, default=100, help="writes: rounds of 20 writes")
    ap.add_argument("--requests", type=int, default=400, help="spawn: gets in the workload")
    ap.add_argument("--idle", type=float, default=10.0, help="spawn: idle seconds measured first")
    ap.add_argument("--startup-runs", type=int, default=5)
    ap.add_argument("--startup-idle", type=float, default=30.0)
    args = ap.parse_args()
    if os.geteuid() != 0:
        sys.exit("house_bench: needs root (it starts the simulated device)")
    chosen = [f.strip() for f in args.figures.split(",") if f.strip()]
    unknown = [f for f in chosen if f not in FIGURES]
    if unknown:
        ap.error("unknown figure: " + ", ".join(unknown))
    daemon = os.environ.get("DH_DAEMON") or os.path.join(dhtest.REPO, "build", "bin", "sysrepo-device-handler")
    print("== %s, daemon %s, load %s" % (time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()), daemon, load()))
    for name in chosen:
        print("== %s" % name, flush=True)
        FIGURES[name](args)
    print("== load after: %s" % load())


if __name__ == "__main__":
    main()
