"""End-to-end tests of the IPv4 settings, the management firewall sets and the OSPF interface
settings, through the daemon in the simulated device."""

import unittest

import dhtest

RDM = ["e%d" % i for i in range(1, 13)]
TUNNELS = ["e%d.8" % i for i in range(1, 17)] + [
    "e%d.%d" % (port, vlan) for port in range(13, 17) for vlan in (21, 22, 23, 24)]
RULE_FILE = "/var/persistent/etc/nftables//ruleset-mgmt-ip.nft"


def interfaces(doc):
    return {e["name"]: e for e in doc["ietf-interfaces:interfaces"]["interface"]}


def ipv4(entry):
    return entry.get("ietf-ip:ipv4")


def ospf_interfaces(doc):
    """name -> generated OSPF interface object, over every area."""
    protocols = doc["ietf-routing:routing"]["control-plane-protocols"]["control-plane-protocol"]
    ospf = next(p for p in protocols if p["type"] == "infix-routing:ospfv2")
    return {i["name"]: i for area in ospf["ietf-ospf:ospf"]["areas"]["area"]
            for i in area["interfaces"]["interface"]}


def imports(dev, since, datastore):
    return [e for e in dev.commands(since, program="sysrepocfg")
            if "--import" in e["argv"] and datastore in e["argv"]]


class InterfacesTest(unittest.TestCase):
    def test_management_address_reaches_every_interface_firewall_and_ospf(self):
        dev = dhtest.Device(self)
        mark = dev.mark()
        dev.set("config/e28/ipv4Settings", {"ipAddress": "198.51.100.7", "netmask": "255.255.255.0"})

        self.assertEqual(len(imports(dev, mark, "running")), 1)
        self.assertEqual(len(imports(dev, mark, "startup")), 1)
        for name in ("running", "startup"):
            doc = dev.datastore(name)
            ifaces = interfaces(doc)
            self.assertEqual(ipv4(ifaces["mgmt"]), {
                "forwarding": True, "address": [{"ip": "198.51.100.7", "prefix-length": 24}]})
            self.assertEqual(ipv4(ifaces["lo"]), {
                "forwarding": False, "address": [{"ip": "198.51.100.7", "prefix-length": 32}]})
            for internal in RDM + TUNNELS:
                self.assertEqual(ipv4(ifaces[internal]), {
                    "forwarding": True, "address": [{"ip": "198.51.100.7", "prefix-length": 32}]},
                    "%s in %s" % (internal, name))
            protocols = doc["ietf-routing:routing"]["control-plane-protocols"]["control-plane-protocol"]
            ospf = next(p for p in protocols if p["type"] == "infix-routing:ospfv2")
            self.assertEqual(ospf["ietf-ospf:ospf"]["explicit-router-id"], "198.51.100.7")

        listing = dev.exec("/usr/sbin/nft", "list", "set", "inet", "filter", "mgmt_ip_addresses")
        self.assertEqual(listing.returncode, 0, listing.stderr)
        self.assertIn("198.51.100.7", listing.stdout)
        saved = dev.exec("cat", RULE_FILE)
        self.assertEqual(saved.returncode, 0, saved.stderr)
        self.assertIn("mgmt_ip_addresses", saved.stdout)
        self.assertIn("198.51.100.7", saved.stdout)
        self.assertEqual(dev.get("data/mgmt/ipv4Settings"),
                         {"ipAddress": "198.51.100.7", "netmask": "255.255.255.0", "prefix-length": 24})

        # A metric on an internal interface is written to its VLAN 8 companion in the same import.
        mark = dev.mark()
        dev.set("config/ospf/e4/metric", 20)
        self.assertEqual(len(imports(dev, mark, "running")), 1)
        ospf = ospf_interfaces(dev.datastore("running"))
        self.assertEqual(ospf["e4"]["cost"], 20)
        self.assertEqual(ospf["e4.8"]["cost"], 20)
        self.assertNotIn("cost", ospf["e5"])
        self.assertEqual(dev.get("config/ospf/e4/metric"), 20)

    def test_refused_and_failed_requests_leave_the_configuration(self):
        dev = dhtest.Device(self)
        before = {name: dev.read("datastore/%s.json" % name) for name in ("running", "startup")}
        old = dev.get("config/e5/ipv4Settings")

        with self.assertRaises(dhtest.RpcError) as refused:
            dev.set("config/e28/ipv4Settings", {
                "ipAddress": "198.51.100.7", "netmask": "255.255.255.0",
                "interface": {"ipAddress": "10.0.0.1", "netmask": "255.0.255.0"}})
        self.assertEqual(refused.exception.code, -22)
        self.assertEqual(refused.exception.message,
                         "Invalid parameter <netmask>, '255.0.255.0' is not a valid netmask format.")
        for name, text in before.items():
            self.assertEqual(dev.read("datastore/%s.json" % name), text, name)
        listing = dev.exec("/usr/sbin/nft", "list", "set", "inet", "filter", "mgmt_ip_addresses")
        self.assertNotIn("198.51.100.7", listing.stdout)

        # The running import fails: startup is never written and the parameter keeps its value.
        dev.fail("sysrepocfg-import-running")
        mark = dev.mark()
        with self.assertRaises(dhtest.RpcError) as failed:
            dev.set("config/e5/ipv4Settings", {"ipAddress": "10.5.0.1", "netmask": "255.255.0.0"})
        self.assertIn("sysrepocfg --import -f json -d running", failed.exception.message)
        self.assertEqual(imports(dev, mark, "startup"), [])
        for name, text in before.items():
            self.assertEqual(dev.read("datastore/%s.json" % name), text, name)
        self.assertEqual(dev.get("config/e5/ipv4Settings"), old)


if __name__ == "__main__":
    dhtest.main()
