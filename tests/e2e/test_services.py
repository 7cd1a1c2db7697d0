"""System services in the simulated device: DNS, the access-control whitelist in the real nft,
LLDP and the automation mode. NTP servers reach the datastores in the atomic-write tests; their
entries, the ntpd restart and refused client text are unit-tested."""

import json
import unittest

import dhtest

AUTOMATION_FILE = "/var/persistent/etc/automation_mode.env"


def nft_whitelist(dev):
    """The elements of the IPv4 whitelist set as the daemon writes them: address, addr/len, a-b."""
    found = json.loads(dev.exec("nft", "-j", "list", "set", "inet", "filter", "whitelist_ipv4").stdout)
    return sorted(e if isinstance(e, str) else "%(addr)s/%(len)d" % e["prefix"] if "prefix" in e
                  else "%s-%s" % tuple(e["range"]) for e in found["nftables"][1]["set"].get("elem", []))


class ServicesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dev = dhtest.Device()
        cls.addClassCleanup(cls.dev.remove)

    def test_dns_datastore_and_resolver_file(self):
        dev = self.dev
        dev.set("config/dnsSettings", {"primaryDnsIpAddress": "198.51.100.1", "secondaryDnsIpAddress": "2001:db8::53"})
        self.assertEqual(dev.datastore("startup")["ietf-system:system"]["dns-resolver"]["server"], [
            {"name": "primary", "udp-and-tcp": {"address": "198.51.100.1"}},
            {"udp-and-tcp": {"address": "2001:db8::53"}, "name": "secondary"}])
        self.assertEqual(dev.exec("cat", "/etc/resolv.conf").stdout,
                         "nameserver 198.51.100.1\nnameserver 2001:db8::53\noptions edns0 trust-ad\n")
        dev.set("config/dnsSettings", {"primaryDnsIpAddress": "198.51.100.2"})
        self.assertEqual(dev.exec("cat", "/etc/resolv.conf").stdout, "nameserver 198.51.100.2\noptions edns0 trust-ad\n")

    def test_whitelist_follows_the_switch(self):
        dev = self.dev
        dev.set("config/acl/adminStatus", "down")
        dev.set("config/acl/whitelist", ["10.0.0.0/8", {"prefix": {"addr": "192.168.1.0", "len": 24}},
                                         {"range": ["1.2.3.4", "1.2.3.9"]}])
        self.assertEqual(nft_whitelist(dev), ["0.0.0.0/0"])
        dev.set("config/acl/adminStatus", "up")
        self.assertEqual(nft_whitelist(dev), ["1.2.3.4-1.2.3.9", "10.0.0.0/8", "192.168.1.0/24"])
        dev.set("config/acl/adminStatus", "down")
        self.assertEqual(nft_whitelist(dev), ["0.0.0.0/0"])

    def test_lldp_switching_fetches_at_once(self):
        dev, watcher = self.dev, self.dev.connect()
        self.addCleanup(watcher.sock.close)
        self.assertEqual(watcher.subscribe("data/e2/lldp/neighbours"), [])
        dev.set("config/e2/lldp/enable", True)
        # Well within the 30 s poll interval: the switch itself fetched.
        event = watcher.wait_event("data/e2/lldp/neighbours", lambda v: v != [], timeout=5)
        self.assertEqual([list(n["chassis"]) for n in event["value"]], [["qmx-ila-2"], ["qmx-ila-3"]])
        dev.set("config/e2/lldp/enable", False)
        self.assertEqual(dev.get("data/e2/lldp/neighbours"), [])

    def test_automation_mode_file(self):
        dev = self.dev
        for mode, controller in (("managedILA", "ILA"), ("managedCLI", "managedCLI")):
            dev.set("config/automationMode", mode)
            self.assertEqual(dev.exec("cat", AUTOMATION_FILE).stdout, 'export QMX_CONTROLLER_TYPE="%s"\n' % controller)


if __name__ == "__main__":
    dhtest.main()
