"""IPv4 settings, the management firewall set and the OSPF router id, through the daemon
in the simulated device."""

import unittest

import dhtest

INTERNAL = ["e%d" % i for i in range(1, 13)] + ["e%d.8" % i for i in range(1, 17)] + [
    "e%d.%d" % (port, vlan) for port in range(13, 17) for vlan in (21, 22, 23, 24)]
MGMT_SET = ("nft", "list", "set", "inet", "filter", "mgmt_ip_addresses")


def ospf(doc):
    protocols = doc["ietf-routing:routing"]["control-plane-protocols"]["control-plane-protocol"]
    return next(p for p in protocols if p["type"] == "infix-routing:ospfv2")["ietf-ospf:ospf"]


class InterfacesTest(unittest.TestCase):
    def test_addresses_firewall_and_ospf(self):
        dev = dhtest.Device(self)
        # A refused request changes nothing.
        address = {"ipAddress": "198.51.100.7", "netmask": "255.255.255.0"}
        self.assertEqual(dev.error("set", "config/e28/ipv4Settings",
                                   dict(address, interface={"ipAddress": "10.0.0.1", "netmask": "255.0.255.0"})),
                         (-22, "Invalid parameter <netmask>, '255.0.255.0' is not a valid netmask format."))
        self.assertNotIn("198.51.100.7", dev.exec(*MGMT_SET).stdout)

        # The management address reaches every internal interface, the firewall set, its saved
        # rules and the OSPF router id, with one import of each datastore.
        mark = dev.mark()
        dev.set("config/e28/ipv4Settings", address)
        self.assertEqual(dhtest.datastore_runs(dev, mark), (1, 2))
        host = {"forwarding": True, "address": [{"ip": "198.51.100.7", "prefix-length": 32}]}
        for name in ("running", "startup"):
            doc = dev.datastore(name)
            ipv4 = {e["name"]: e.get("ietf-ip:ipv4") for e in doc["ietf-interfaces:interfaces"]["interface"]}
            self.assertEqual(ipv4["mgmt"], {"forwarding": True, "address": [{"ip": "198.51.100.7", "prefix-length": 24}]})
            self.assertEqual({i: ipv4[i] for i in INTERNAL + ["lo"]}, dict({i: host for i in INTERNAL},
                                                                         lo=dict(host, forwarding=False)), name)
            self.assertEqual(ospf(doc)["explicit-router-id"], "198.51.100.7")
        self.assertIn("198.51.100.7", dev.exec(*MGMT_SET).stdout)
        self.assertRegex(dev.exec("cat", "/var/persistent/etc/nftables//ruleset-mgmt-ip.nft").stdout,
                         r"mgmt_ip_addresses[^}]*198\.51\.100\.7")


if __name__ == "__main__":
    dhtest.main()
