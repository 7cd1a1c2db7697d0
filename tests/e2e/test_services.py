"""System services in the simulated device: NTP, DNS, the access-control whitelist, LLDP, date
and time, the CLI passthrough, the automation mode, and the refusal of client text that would
reach a shell or a system file."""

import json
import os
import unittest
import uuid

import dhtest
from dhtest import wait_until

NTPD_RESTART = ["/etc/init.d/ntpd", "restart"]
AUTOMATION_FILE = "/var/persistent/etc/automation_mode.env"
OSPF_NEIGHBOURS = "Neighbor ID     Pri State      Address\n192.0.2.21        1 Full/DR    10.0.0.2\n"


def nft_whitelist(dev):
    """The elements of the IPv4 whitelist set as the daemon writes them: address, addr/len, a-b."""
    found = json.loads(dev.exec("nft", "-j", "list", "set", "inet", "filter", "whitelist_ipv4").stdout)
    return sorted(e if isinstance(e, str) else "%(addr)s/%(len)d" % e["prefix"] if "prefix" in e
                  else "%s-%s" % tuple(e["range"]) for e in found["nftables"][1]["set"].get("elem", []))


def shell_reaching(entries):
    """Runs of the tools that take client text: klish, nft, the NTP restart, datastore imports."""
    return [e for e in entries if os.path.basename(e["argv"][0]) in ("klish", "nft", "ntpd", "lldpctl")
            or os.path.basename(e["argv"][0]) == "sysrepocfg" and "--import" in e["argv"]]


class ServicesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dev = dhtest.Device(sim_files={"klish/show_ospf_neighbor.txt": OSPF_NEIGHBOURS})

    @classmethod
    def tearDownClass(cls):
        cls.dev.remove()

    def assertRefused(self, message, call, *args):
        with self.assertRaises(dhtest.RpcError) as cm:
            call(*args)
        self.assertEqual((cm.exception.code, cm.exception.message), (-22, message))

    def system(self, datastore="running"):
        return self.dev.datastore(datastore)["ietf-system:system"]

    def test_ntp_settings_restart_and_status(self):
        dev = self.dev
        mark = dev.mark()
        dev.set("config/ntp/primaryServer", "10.0.0.1")
        dev.set("config/ntp/secondaryServer", "10.0.0.2")
        for name in ("running", "startup"):
            self.assertEqual(self.system(name)["ntp"], {"enabled": True, "server": [
                {"udp": {"address": "10.0.0.1"}, "name": "primary", "association-type": "server",
                 "iburst": True, "prefer": True},
                {"udp": {"address": "10.0.0.2"}, "name": "secondary", "association-type": "server",
                 "iburst": True}]}, name)
        dev.wait_command(lambda e: e["argv"] == NTPD_RESTART, since=mark)
        self.assertRefused("Both NTP servers must be either IP address or DNS name: (ntp.example, 10.0.0.1).",
                           dev.set, "config/ntp/secondaryServer", "ntp.example")

        dev.write("chrony/selectdata", "+,10.0.0.1,N,1\n*,10.0.0.1,N,1\nW,10.0.0.2,N,1\n?,10.0.0.9,N,1\n")
        self.assertEqual(dev.get("data/ntp/serverStatus"),
                         {"primary": "synchronized (*)", "secondary": "not synchronized (W)", "overall": 2})

        dev.set("config/ntp/adminStatus", "down")
        self.assertFalse(self.system()["ntp"]["enabled"])
        mark = dev.mark()
        self.assertEqual(dev.get("data/ntp/serverStatus"), {"primary": "-", "secondary": "-", "overall": 0})
        self.assertEqual(dev.commands(mark, program="chronyc"), [])
        self.assertRefused("ntp admin status should be either 'up' or 'down' , not:Up",
                           dev.set, "config/ntp/adminStatus", "Up")

        mark = dev.mark()
        dev.set("config/ntp/secondaryServer", "")
        self.assertEqual([s["name"] for s in self.system()["ntp"]["server"]], ["primary"])
        self.assertFalse(self.system()["ntp"]["enabled"])
        dev.wait_command(lambda e: e["argv"] == NTPD_RESTART, since=mark)

    def test_dns_datastore_and_resolver_file(self):
        dev = self.dev
        dev.set("config/dnsSettings", {"primaryDnsIpAddress": "198.51.100.1",
                                       "secondaryDnsIpAddress": "2001:db8::53"})
        self.assertEqual(self.system("startup")["dns-resolver"]["server"], [
            {"name": "primary", "udp-and-tcp": {"address": "198.51.100.1"}},
            {"udp-and-tcp": {"address": "2001:db8::53"}, "name": "secondary"}])
        self.assertEqual(dev.exec("cat", "/etc/resolv.conf").stdout,
                         "nameserver 198.51.100.1\nnameserver 2001:db8::53\noptions edns0 trust-ad\n")

        dev.set("config/dnsSettings", {"primaryDnsIpAddress": "198.51.100.2"})
        self.assertEqual(self.system()["dns-resolver"]["server"],
                         [{"name": "primary", "udp-and-tcp": {"address": "198.51.100.2"}}])
        self.assertEqual(dev.exec("cat", "/etc/resolv.conf").stdout,
                         "nameserver 198.51.100.2\noptions edns0 trust-ad\n")
        self.assertEqual(dev.get("config/dnsSettings"), {"primaryDnsIpAddress": "198.51.100.2"})

    def test_whitelist_follows_the_switch(self):
        dev = self.dev
        dev.set("config/acl/adminStatus", "down")
        self.assertEqual(nft_whitelist(dev), ["0.0.0.0/0"])
        mark = dev.mark()
        dev.set("config/acl/whitelist", ["10.0.0.0/8", {"prefix": {"addr": "192.168.1.0", "len": 24}},
                                         {"range": ["1.2.3.4", "1.2.3.9"]}])
        self.assertEqual(dev.commands(mark, program="nft"), [])
        self.assertEqual(nft_whitelist(dev), ["0.0.0.0/0"])
        listed = ["10.0.0.0/8", "192.168.1.0/24", "1.2.3.4-1.2.3.9"]
        self.assertEqual(dev.get("data/acl/whitelist"), listed)

        dev.set("config/acl/adminStatus", "up")
        self.assertEqual(nft_whitelist(dev), sorted(listed))
        dev.set("config/acl/whitelist", ["10.9.0.0/16"])
        self.assertEqual(nft_whitelist(dev), ["10.9.0.0/16"])

        dev.set("config/acl/adminStatus", "down")
        self.assertEqual(nft_whitelist(dev), ["0.0.0.0/0"])
        self.assertEqual(dev.get("data/acl/whitelist"), ["10.9.0.0/16"])
        self.assertRefused("Invalid ACL admin status: Up", dev.set, "config/acl/adminStatus", "Up")
        self.assertRefused("Invalid whitelist format.", dev.set, "config/acl/whitelist", {"a": 1})

    def test_lldp_switching_fetches_at_once(self):
        dev = self.dev
        info = dev.call("info", {"path": "data/any/lldp/neighbours"})
        self.assertEqual((info["pollInterval"], info["hysteresis"]["filter"]), (30000, "equal"))
        watcher = dev.connect()
        self.addCleanup(watcher.close)
        self.assertEqual(watcher.subscribe("data/e2/lldp/neighbours"), [])

        mark = dev.mark()
        dev.set("config/e2/lldp/enable", True)
        # Well within the 30 s poll interval: the switch itself fetched.
        event = watcher.wait_event("data/e2/lldp/neighbours", lambda v: v != [], timeout=5)
        self.assertEqual([list(n["chassis"]) for n in event["value"]], [["qmx-ila-2"], ["qmx-ila-3"]])
        self.assertTrue(dev.commands(mark, program="lldpctl"))
        self.assertEqual(dev.get("data/e1/lldp/neighbours"), [])
        # The ports' values are set while the poll runs, the value of all ports once it is done.
        wait_until(lambda: [list(i) for i in dev.get("data/any/lldp/neighbours")] == [["e1"], ["e2"], ["e2"]])

        dev.set("config/e2/lldp/enable", False)
        self.assertEqual(dev.get("data/e2/lldp/neighbours"), [])
        self.assertEqual(dev.get("config/e2/lldp/enable"), False)

    def test_date_time_and_cli(self):
        dev = self.dev
        mark = dev.mark()
        self.assertIs(dev.run("command/dateTime", "2024-05-01 12:00:00"), True)
        self.assertEqual([e["argv"] for e in dev.commands(mark, program="klish")],
                         [["/usr/bin/klish", "-c", "set datetime 2024-05-01T12:00:00Z"]])
        dev.wait_command(lambda e: e["argv"] == NTPD_RESTART, since=mark)
        self.assertRegex(dev.get("data/dateTime"), r"^2024-05-01 12:0\d:\d\d$")
        self.assertEqual(dev.get("cli/show_ospf_neighbor"), OSPF_NEIGHBOURS)
        self.assertRefused("Unexpected format of date/time: 2024-05-01", dev.run, "command/dateTime", "2024-05-01")

    def test_automation_mode_file(self):
        dev = self.dev
        self.assertEqual(dev.get("config/automationMode"), "managedNetconf")
        for mode, controller in (("managedILA", "ILA"), ("managedCLI", "managedCLI")):
            dev.set("config/automationMode", mode)
            self.assertEqual(dev.exec("cat", AUTOMATION_FILE).stdout, 'export QMX_CONTROLLER_TYPE="%s"\n' % controller)
        self.assertRefused("Invalid automation mode: managedila", dev.set, "config/automationMode", "managedila")
        self.assertEqual(dev.exec("cat", AUTOMATION_FILE).stdout, 'export QMX_CONTROLLER_TYPE="managedCLI"\n')

    def test_hardening_keeps_client_text_from_shells_and_files(self):
        dev = self.dev
        dev.set("config/acl/whitelist", ["10.1.0.0/16"])
        dev.set("config/acl/adminStatus", "up")
        canary = "/tmp/dh-canary-" + uuid.uuid4().hex
        touch = "'; touch %s; '" % canary
        before = (dev.datastore("running"), dev.exec("cat", "/etc/resolv.conf").stdout, nft_whitelist(dev),
                  dev.get("data/acl/whitelist"))
        mark = dev.mark()

        when = "2024-05-01 12:00:00" + touch
        self.assertRefused('Invalid cli command: "set datetime 2024-05-01T12:00:00%sZ".' % touch,
                           dev.run, "command/dateTime", when)
        self.assertRefused('Invalid cli command: "set datetime 2024-05-01T12:00:00\ntouch %sZ".' % canary,
                           dev.run, "command/dateTime", "2024-05-01 12:00:00\ntouch " + canary)
        self.assertRefused("Unexpected format of date/time: x" + touch + "xxxxxxxx",
                           dev.run, "command/dateTime", "x" + touch + "xxxxxxxx")
        self.assertRefused("Invalid DNS server address: 1.1.1.1" + touch,
                           dev.set, "config/dnsSettings", {"primaryDnsIpAddress": "1.1.1.1" + touch})
        self.assertRefused("Invalid DNS server address: 1.1.1.1\nnameserver 6.6.6.6",
                           dev.set, "config/dnsSettings", {"secondaryDnsIpAddress": "1.1.1.1\nnameserver 6.6.6.6"})
        self.assertRefused("Invalid whitelist entry: 10.0.0.1" + touch,
                           dev.set, "config/acl/whitelist", ["10.0.0.2", "10.0.0.1" + touch])
        self.assertRefused("Invalid whitelist entry: 1.1.1.1-1.1.1.2" + touch,
                           dev.set, "config/acl/whitelist", [{"range": ["1.1.1.1", "1.1.1.2" + touch]}])
        self.assertRefused("Invalid NTP server address: x" + touch,
                           dev.set, "config/ntp/primaryServer", "x" + touch)

        self.assertEqual(shell_reaching(dev.commands(mark)), [])
        self.assertNotEqual(dev.exec("test", "-e", canary).returncode, 0)
        self.assertFalse(os.path.exists(canary))
        after = (dev.datastore("running"), dev.exec("cat", "/etc/resolv.conf").stdout, nft_whitelist(dev),
                 dev.get("data/acl/whitelist"))
        self.assertEqual(after, before)


if __name__ == "__main__":
    dhtest.main()
