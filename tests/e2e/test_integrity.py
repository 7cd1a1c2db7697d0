"""Write integrity in the simulated device: an acknowledged write is never undone by a later one,
a failed write changes nothing (datastores, in-memory models, stored values), the deepest factory
reset keeps its store keys (and only those), and text after a NUL is not lost to the checks. The
unit tests hold the refusals of that reset, the OSPF entry replaced where it stands, and the
rollback of running when the startup import fails."""

import copy
import json
import unittest

import dhtest
from dhtest import Device, wait_until

OSPF = "infix-routing:ospfv2"
REDIS = ["redis-cli", "-p", "50001"]
KEPT = ["{conf}:dh/sysrepo:config/e28/ipv4Settings", "{conf}:dh/sysrepo:config/dnsSettings",
        "{conf}:dh/network:config/dnsSettings"]
OTHER = "{conf}:dh/other:config/x"


def protocols(doc):
    return doc["ietf-routing:routing"]["control-plane-protocols"]["control-plane-protocol"]


def ospf_area(doc):
    entry = next(p for p in protocols(doc) if p["type"] == OSPF)
    return entry["ietf-ospf:ospf"]["areas"]["area"][0]


def e17(doc):
    return next(i for i in ospf_area(doc)["interfaces"]["interface"] if i["name"] == "e17")


def mode(doc, port):
    """The interface mode a configuration gives an internal port (bridge membership, eN.8)."""
    entries = {e["name"]: e for e in doc["ietf-interfaces:interfaces"]["interface"]}
    bridged = entries[port].get("infix-interfaces:bridge-port", {}).get("bridge") == "br0"
    tunnel = entries[port + ".8"].get("enabled", True)
    return {(False, False): "tunnelOnly", (True, False): "mgmtOnly", (True, True): "mgmtAndTunnel"}.get(
        (bridged, tunnel), "unknown")


def datastores(dev):
    return {name: dev.datastore(name) for name in ("running", "startup")}


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
            self.assertEqual(doc, before[name], "%s changed %s" % (what, name))

    def test_failed_running_import_leaves_no_trace_in_the_models(self):
        dev = Device(self)
        before = datastores(dev)
        writes = (("config/ospf/e4/metric", 20), ("config/ospf/e5/passive", True),
                  ("config/ospf/e6/adminStatus", "up"), ("config/ospf/adminStatus", "down"),
                  ("config/ospf/areaId", "0.0.0.9"))
        for i, (path, value) in enumerate(writes):
            old, just_before = dev.get(path), datastores(dev)
            dev.fail("sysrepocfg-import-running")
            self.assertIsNotNone(dev.error("set", path, value), path)
            self.assert_unchanged(just_before, dev, "failed write of " + path)
            self.assertEqual(dev.get(path), old, path)
            # An unrelated OSPF write regenerates the entry from the models: it must carry none
            # of the failed values.
            dev.set("config/ospf/e17/adminStatus", ("up", "down")[i % 2])
            expected = copy.deepcopy(before["running"])
            e17(expected)["enabled"] = i % 2 == 0
            self.assertEqual(dev.datastore("running"), expected, "an OSPF write after the failed write of " + path)
        # Once the fault is gone every value reaches both datastores.
        for path, value in writes[:3]:
            dev.set(path, value)
        for name, doc in datastores(dev).items():
            ifaces = {i["name"]: i for i in ospf_area(doc)["interfaces"]["interface"]}
            self.assertEqual((ifaces["e4"].get("cost"), ifaces["e5"]["passive"], ifaces["e6"]["enabled"]),
                             (20, True, True), name)

    def test_level_4_keeps_the_store_keys_and_only_those(self):
        dev = Device(self)
        for i, key in enumerate(KEPT + [OTHER]):
            dev.exec(*REDIS, "SET", key, "kept-%d" % i)
        self.assertIs(dev.run("command/restoreFactoryDefaults", 4, timeout=60), True)
        wait_until(lambda: "Restore factory default is done." in dev.log(), timeout=30)
        # At the next boot the store reads the kept keys back from its file.
        dev.restart()
        store = [dev.exec(*REDIS, "GET", key).stdout for key in KEPT] + [dev.exec(*REDIS, "EXISTS", OTHER).stdout]
        self.assertEqual(store, ["kept-0\n", "kept-1\n", "kept-2\n", "0\n"], "the level-4 reset kept the wrong keys")

    def test_text_after_a_nul_is_neither_checked_nor_stored(self):
        dev = Device(self)
        mark = dev.mark()
        for path, value, message in (
                ("config/ospf/areaId", "0.0.0.9\0x", 'OSPF area id must be an IP address: "0.0.0.9\0x".'),
                ("config/ntp/primaryServer", "10.0.0.1\0x", "Invalid NTP server address: 10.0.0.1\0x")):
            self.assertEqual(dev.error("set", path, value), (-22, message))
        self.assertEqual([e["argv"] for e in dev.commands(mark) if e["argv"][0].endswith("ntpd")
                          or "--import" in e["argv"]], [])

    def test_switch_by_version_without_a_slot_name_is_refused(self):
        dev = Device(self)
        state = json.loads(dev.read("rauc/state.json"))
        # A slot outside the system slots (a boot loader): listed in RAUC_SLOTS, not by name.
        state["slots"].append(dict(state["slots"][1], name="", bootname="", bundle_version="1.0.7",
                                   bundle_description="QMX-RB-16E boot loader"))
        dev.write("rauc/state.json", state)
        mark = dev.mark()
        answer = dev.error("run", "command/switchImage", "1.0.7")
        self.assertEqual((answer, [e["argv"] for e in dev.commands(mark, program="rauc") if "mark-active" in e["argv"]]),
                         ((-22, "Failed to find the image with version: 1.0.7"), []))


if __name__ == "__main__":
    dhtest.main()
