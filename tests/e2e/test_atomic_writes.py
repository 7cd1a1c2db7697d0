"""set_many and confirmed commits in the simulated device: one export and one import of each
datastore for several updates, nothing changed when one of them is refused, and a commit that is
not confirmed rolled back at its timeout, firewall set included. Confirming, and the rollback at
the next start, are unit-tested."""

import json
import unittest

import dhtest

MGMT_SET = ("nft", "-j", "list", "set", "inet", "filter", "mgmt_ip_addresses")
NEW_MGMT = {"ipAddress": "192.0.2.20", "netmask": "255.255.255.0"}


def mgmt_addresses(dev):
    found = json.loads(dev.exec(*MGMT_SET).stdout)
    return [e for e in found["nftables"][1]["set"].get("elem", [])]


def error_of(call):
    try:
        call()
    except dhtest.RpcError as e:
        return e.code, e.message, e.data
    raise AssertionError("accepted")


class AtomicWritesTest(unittest.TestCase):
    def test_set_many_is_one_write_and_all_or_nothing(self):
        dev = dhtest.Device(self)
        mark = dev.mark()
        self.assertIsNone(dev.call("set_many", {"updates": [
            {"path": "config/ntp/primaryServer", "value": "198.51.100.1"},
            {"path": "config/dnsSettings", "value": {"primaryDnsIpAddress": "198.51.100.53"}},
            {"path": "config/ospf/e4/metric", "value": 20}]}))
        self.assertEqual(dhtest.datastore_runs(dev, mark), (1, 2))
        for name in ("running", "startup"):
            system = dev.datastore(name)["ietf-system:system"]
            self.assertEqual(system["ntp"]["server"][0]["udp"]["address"], "198.51.100.1", name)
            self.assertEqual(system["dns-resolver"]["server"], [
                {"name": "primary", "udp-and-tcp": {"address": "198.51.100.53"}}], name)
        self.assertEqual(dev.exec("cat", "/etc/resolv.conf").stdout,
                         "nameserver 198.51.100.53\noptions edns0 trust-ad\n")

        # The third update is refused, with its place in the list: nothing is imported (that
        # neither the firewall set nor the resolver file changes is unit-tested).
        mark = dev.mark()
        self.assertEqual(error_of(lambda: dev.call("set_many", {"updates": [
            {"path": "config/e28/ipv4Settings", "value": NEW_MGMT},
            {"path": "config/dnsSettings", "value": {"primaryDnsIpAddress": "198.51.100.54"}},
            {"path": "config/ntp/primaryServer", "value": "no host!"}]})),
            (-22, "Invalid NTP server address: no host!", {"index": 2, "path": "config/ntp/primaryServer"}))
        self.assertEqual(dhtest.datastore_runs(dev, mark)[1], 0)
        self.assertEqual(dev.get("config/e28/ipv4Settings")["ipAddress"], "192.0.2.10")

    def test_an_unconfirmed_management_address_change_is_rolled_back(self):
        dev = dhtest.Device(self)
        watcher = dev.connect()
        self.addCleanup(watcher.sock.close)
        self.assertEqual(watcher.subscribe("data/commitStatus"), {"state": "idle"})
        before = {name: dev.datastore(name) for name in ("running", "startup")}

        token = dev.call("set", {"path": "config/e28/ipv4Settings", "value": NEW_MGMT, "confirm_timeout": 2})["token"]
        self.assertRegex(token, "^[0-9a-f]{32}$")
        self.assertEqual(mgmt_addresses(dev), ["192.0.2.20"])
        self.assertEqual(dev.datastore("startup")["ietf-interfaces:interfaces"], dev.datastore("running")["ietf-interfaces:interfaces"])
        self.assertEqual(error_of(lambda: dev.set("config/ntp/adminStatus", "down"))[:2],
                         (-16, "A confirmed commit awaits confirmation: confirm it or wait for its rollback"))

        event = watcher.wait_event("data/commitStatus", lambda v: v["state"] == "rolledBack", timeout=10)
        self.assertEqual(event["value"], {"state": "rolledBack", "token": token,
                                          "paths": ["config/e28/ipv4Settings"], "reason": "timeout"})
        self.assertEqual({name: dev.datastore(name) for name in before}, before)
        self.assertEqual(mgmt_addresses(dev), ["192.0.2.10"])
        self.assertEqual(dev.get("config/e28/ipv4Settings")["ipAddress"], "192.0.2.10")


if __name__ == "__main__":
    dhtest.main()
