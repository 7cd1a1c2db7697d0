"""Write integrity in the simulated device: an acknowledged write is never undone by a later one,
a failed write changes nothing (datastores, in-memory models, stored values), regenerating OSPF
keeps the static route, the deepest factory reset keeps its store keys or refuses and wipes
nothing, client text never becomes an option or a glob, and inventory-less modules are not
reported present."""

import errno
import json
import os
import threading
import time
import unittest

import dhtest
from dhtest import Device, RpcError, wait_until

OSPF, STATIC = "infix-routing:ospfv2", "infix-routing:static"
REDIS = ["redis-cli", "-p", "50001"]
KEPT = ["{conf}:dh/sysrepo:config/e28/ipv4Settings", "{conf}:dh/sysrepo:config/dnsSettings",
        "{conf}:dh/network:config/dnsSettings"]
E17_UP = ("/ietf-routing:routing/control-plane-protocols/control-plane-protocol/infix-routing:ospfv2|default"
          "/ietf-ospf:ospf/areas/area/0.0.0.1/interfaces/interface/e17/enabled: False -> True")
STORE_CONFIG = "/etc/redis/50001.conf"
URL = "http://images.example/qmx-2.4.0.raucb"


def protocols(doc):
    return doc["ietf-routing:routing"]["control-plane-protocols"]["control-plane-protocol"]


def ospf_area(doc):
    entry = next(p for p in protocols(doc) if p["type"] == OSPF)
    return entry["ietf-ospf:ospf"]["areas"]["area"][0]


def mode(doc, port):
    """The interface mode a configuration gives an internal port (bridge membership, eN.8)."""
    entries = {e["name"]: e for e in doc["ietf-interfaces:interfaces"]["interface"]}
    bridged = entries[port].get("infix-interfaces:bridge-port", {}).get("bridge") == "br0"
    tunnel = entries[port + ".8"].get("enabled", True)
    return {(False, False): "tunnelOnly", (True, False): "mgmtOnly", (True, True): "mgmtAndTunnel"}.get(
        (bridged, tunnel), "unknown")


def keyed(value):
    """A list as {key: entry}, entries keyed by their type, name or area id (else position)."""
    if isinstance(value, dict):
        return value
    out = {}
    for i, e in enumerate(value):
        key = "|".join(str(e[k]) for k in ("type", "name", "area-id") if isinstance(e, dict) and k in e)
        out[key if key and key not in out else "%s#%d" % (key, i)] = e
    return out


def changes(old, new, path=""):
    """What differs between two documents: one line per changed leaf, added or removed member."""
    if not (isinstance(old, (dict, list)) and type(old) is type(new)):
        return [] if old == new else ["%s: %r -> %r" % (path, old, new)]
    a, b = keyed(old), keyed(new)
    return [line for k in sorted(a.keys() | b.keys()) for line in (
        ["%s/%s added" % (path, k)] if k not in a else ["%s/%s removed" % (path, k)] if k not in b
        else changes(a[k], b[k], "%s/%s" % (path, k)))]


def datastores(dev):
    return {name: dev.datastore(name) for name in ("running", "startup")}


def holds_for(condition, seconds):
    """True when condition() stays true for the given time: for what must not happen later."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if not condition():
            return False
        time.sleep(0.1)
    return True


def refusal(dev, method, path, value, timeout=None):
    """(code, message) of a refused request, or None when it was accepted."""
    try:
        dev.call(method, {"path": path, "value": value}, timeout)
    except RpcError as e:
        return e.code, e.message
    return None


def fifo_writer(path):
    """A descriptor writing to the FIFO once a reader has opened it, else None."""
    try:
        return os.open(path, os.O_WRONLY | os.O_NONBLOCK)
    except OSError as e:
        if e.errno != errno.ENXIO:
            raise
        return None


def feed(fd, text):
    """Writes text to the FIFO through fd and closes it: the reader sees the text, then its end."""
    os.set_blocking(fd, True)
    os.write(fd, text.encode())
    os.close(fd)


BUSY_PORT = """import socket
s = socket.socket()
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("127.0.0.1", 50003))
s.listen(16)
while True:
    s.accept()[0].close()
"""
CONNECT = "import socket; socket.create_connection(('127.0.0.1', 50003), timeout=1)"


class IntegrityTest(unittest.TestCase):
    def test_startup_only_mode_survives_an_unrelated_write(self):
        dev = Device(self)
        dev.set("config/e3/mode", "mgmtOnly")
        dev.set("config/ntp/secondaryServer", "192.0.2.124")
        startup, running = dev.datastore("startup"), dev.datastore("running")
        self.assertEqual(mode(startup, "e3"), "mgmtOnly", "the NTP write undid the acknowledged mode")
        self.assertEqual(dev.get("config/e3/mode"), mode(startup, "e3"))
        self.assertEqual(mode(running, "e3"), "tunnelOnly")
        servers = startup["ietf-system:system"]["ntp"]["server"]
        self.assertIn("192.0.2.124", [s["udp"]["address"] for s in servers])

    def assert_unchanged(self, before, dev, what):
        for name, doc in datastores(dev).items():
            self.assertEqual(changes(before[name], doc), [], "%s changed %s" % (what, name))

    def test_failed_running_import_leaves_no_trace_in_the_models(self):
        dev = Device(self)
        before = datastores(dev)
        writes = (("config/ospf/e4/metric", 20), ("config/ospf/e5/passive", True),
                  ("config/ospf/e6/adminStatus", "up"), ("config/ospf/adminStatus", "down"),
                  ("config/ospf/areaId", "0.0.0.9"))
        for i, (path, value) in enumerate(writes):
            old, just_before = dev.get(path), datastores(dev)
            dev.fail("sysrepocfg-import-running")
            self.assertIsNotNone(refusal(dev, "set", path, value), path)
            self.assert_unchanged(just_before, dev, "failed write of " + path)
            self.assertEqual(dev.get(path), old, path)
            # An unrelated OSPF write regenerates the entry from the models: it must carry none
            # of the failed values.
            dev.set("config/ospf/e17/adminStatus", ("up", "down")[i % 2])
            self.assertEqual(changes(before["running"], dev.datastore("running")), [E17_UP][i % 2:],
                             "an OSPF write after the failed write of " + path)
        # Once the fault is gone every value reaches both datastores.
        for path, value in writes[:3]:
            dev.set(path, value)
        for name, doc in datastores(dev).items():
            ifaces = {i["name"]: i for i in ospf_area(doc)["interfaces"]["interface"]}
            self.assertEqual((ifaces["e4"].get("cost"), ifaces["e5"]["passive"], ifaces["e6"]["enabled"]),
                             (20, True, True), name)

    def test_failed_startup_import_rolls_running_back(self):
        dev = Device(self)
        before = datastores(dev)
        dev.fail("sysrepocfg-import-startup")
        self.assertIsNotNone(refusal(dev, "set", "config/ospf/areaId", "0.0.0.7"))
        self.assert_unchanged(before, dev, "a write whose startup import failed")
        self.assertEqual(dev.get("config/ospf/areaId"), ospf_area(dev.datastore("running"))["area-id"])
        # Writing again after the fault reaches both datastores, whatever the node last answered.
        for area in (dev.get("config/ospf/areaId"), "0.0.0.7"):
            dev.set("config/ospf/areaId", area)
            self.assertEqual([ospf_area(doc)["area-id"] for doc in datastores(dev).values()], [area, area])

    def test_ospf_down_up_and_area_change_keep_the_static_route(self):
        dev = Device(self)
        for path, value in (("config/ospf/adminStatus", "down"), ("config/ospf/adminStatus", "up"),
                            ("config/ospf/areaId", "0.0.0.2")):
            dev.set(path, value)
        self.assertEqual(dev.get("data/gateway"), "192.0.2.1")
        for name in ("running", "startup"):
            entries = protocols(dev.datastore(name))
            self.assertEqual(sorted(p["type"] for p in entries), [OSPF, STATIC], name)
            self.assertEqual(ospf_area(dev.datastore(name))["area-id"], "0.0.0.2")

    def test_level_4_waits_for_the_keeping_store(self):
        dev = Device(self)
        for i, key in enumerate(KEPT):
            dev.exec(*REDIS, "SET", key, "kept-%d" % i)
        # The keeping instance comes up slowly: the test holds its configuration file back for
        # 1.5 s after the instance began reading it.
        config, fifo = dev.exec("cat", STORE_CONFIG).stdout, dev.path("store-config.fifo")
        os.mkfifo(fifo)
        dev.exec("mv", STORE_CONFIG, STORE_CONFIG + ".real")
        dev.exec("ln", "-s", "/sim/store-config.fifo", STORE_CONFIG)

        def release():
            reader = wait_until(lambda: fifo_writer(fifo), timeout=30)
            time.sleep(1.5)
            feed(reader, config)

        releaser = threading.Thread(target=release, daemon=True)
        releaser.start()
        self.assertIs(dev.run("command/restoreFactoryDefaults", 4, timeout=60), True)
        releaser.join(30)
        dev.exec("mv", STORE_CONFIG + ".real", STORE_CONFIG)
        wait_until(lambda: "Restore factory default is done." in dev.log(), timeout=30)
        dev.restart()
        self.assertEqual([dev.exec(*REDIS, "GET", key).stdout for key in KEPT], ["kept-0\n", "kept-1\n", "kept-2\n"],
                         "keys lost by the level-4 reset")

    def test_level_4_refuses_and_wipes_nothing_when_the_keys_cannot_be_kept(self):
        dev = Device(self)
        dev.write("busy_port.py", BUSY_PORT)  # the keeping instance cannot listen on its port
        dev.sh("python3 /sim/busy_port.py </dev/null >/dev/null 2>&1 &")
        wait_until(lambda: dev.exec("python3", "-c", CONNECT).returncode == 0)
        dev.sh("touch /home/canary /var/log/canary /var/persistent/etc/canary")
        dev.exec(*REDIS, "SET", KEPT[0], "kept")
        mark = dev.mark()
        code, message = refusal(dev, "run", "command/restoreFactoryDefaults", 4, 60) or (None, "accepted")
        self.assertEqual(code, -5, message)
        self.assertTrue(message)
        intact = lambda: (dev.sh("ls /home/canary /var/log/canary /var/persistent/etc/canary").returncode == 0
                          and dev.exec(*REDIS, "GET", KEPT[0]).stdout == "kept\n")
        self.assertTrue(holds_for(intact, 2.5), "the refused reset wiped the device")
        self.assertEqual([e["argv"] for e in dev.commands(mark) if e["argv"][0].startswith(("/etc/init.d", "/sbin"))], [])

    def test_client_text_never_becomes_an_option_or_a_glob(self):
        dev = Device(self)
        mark = dev.mark()
        techlog = refusal(dev, "run", "command/techlogGenerate", {"url": "/*", "interface": "e1"})
        runs = [e["argv"][1:] for e in dev.commands(mark, program="techlog.sh")]
        self.assertIn((techlog, runs), [((-22, "Techlog parameters not valid."), []),
                                        (None, [["/tmp/techlog", "/*", "e1"]])])
        mark = dev.mark()
        self.assertEqual(refusal(dev, "run", "command/techlogGenerate", {"url": "-x", "interface": "e1"}),
                         (-22, "Techlog parameters not valid."))
        for value, bad in (("--help", "--help"), ({"pkg": URL, "extra": "-rf"}, "-rf")):
            self.assertEqual(refusal(dev, "run", "command/bootImage", value, 60),
                             (-22, "Failed to install image from url: %s, invalid url." % bad))
        # A NUL would cut the text the checks see, not the one stored.
        for path, value, message in (
                ("config/ospf/areaId", "0.0.0.9\0x", 'OSPF area id must be an IP address: "0.0.0.9\0x".'),
                ("config/ntp/primaryServer", "10.0.0.1\0x", "Invalid NTP server address: 10.0.0.1\0x")):
            self.assertEqual(refusal(dev, "set", path, value), (-22, message))
        self.assertEqual([e["argv"] for e in dev.commands(mark) if e["argv"][0].endswith(
            ("techlog.sh", "rauc", "handle_extra_package.sh", "ntpd")) or "--import" in e["argv"]], [])

    def test_switch_by_version_without_a_slot_name_is_refused(self):
        dev = Device(self)
        state = json.loads(dev.read("rauc/state.json"))
        # A slot outside the system slots (a boot loader): listed in RAUC_SLOTS, not by name.
        state["slots"].append(dict(state["slots"][1], name="", bootname="", bundle_version="1.0.7",
                                   bundle_description="QMX-RB-16E boot loader"))
        dev.write("rauc/state.json", state)
        mark = dev.mark()
        answer = refusal(dev, "run", "command/switchImage", "1.0.7")
        self.assertEqual((answer, [e["argv"] for e in dev.commands(mark, program="rauc") if "mark-active" in e["argv"]]),
                         ((-22, "Failed to find the image with version: 1.0.7"), []))

    def test_module_is_present_only_with_its_inventory(self):
        dev = Device(self)
        module = dev.read("sfp/e13.txt")
        # Only e15 is read from here on, so every ethtool run below is that port's.
        for port in ("e13", "e14"):
            os.remove(dev.path("sfp", port + ".txt"))
        wait_until(lambda: dev.get("e13/sfp/present") is False and dev.get("e14/sfp/present") is False)
        fifo, mark = dev.path("sfp", "e15.txt"), dev.mark()
        os.mkfifo(fifo)
        # The module goes in: the read that finds it succeeds (the test holds it in the FIFO while
        # arming the fault), the inventory reads after it fail.
        reader = wait_until(lambda: fifo_writer(fifo), timeout=5, message="e15 never read")
        dev.fail("ethtool", 4)
        feed(reader, module)
        wait_until(lambda: [e for e in dev.commands(mark, program="ethtool") if e["status"] == 0])
        # The port's next read: the module must not be present with an empty inventory meanwhile.
        reader = wait_until(lambda: fifo_writer(fifo), timeout=10, message="e15 not read again")
        inventory = lambda: [dev.get("e15/sfp/present")] + [
            dev.get("e15/sfp/inventory/" + leaf) for leaf in ("serialNumber", "partName")]
        seen, expected = inventory(), [True, "QX25110401", "QXS-10G-LR"]
        with open(fifo + ".tmp", "w") as f:
            f.write(module)
        os.replace(fifo + ".tmp", fifo)
        feed(reader, module)
        if seen[0]:
            self.assertEqual(seen, expected, "e15 present without its inventory after a failed read")
        # This read and the ones after it succeed: the module is present with its inventory.
        wait_until(lambda: inventory() == expected, timeout=5, message="e15 inventory never read")


if __name__ == "__main__":
    dhtest.main()
