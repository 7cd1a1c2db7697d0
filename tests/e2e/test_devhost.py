"""The simulated device itself: isolation from the host, the command line, and the simulated
host tools. A stand-in daemon (fake_daemon.py) is used, so these tests do not need the daemon."""

import concurrent.futures
import json
import os
import secrets
import unittest

import dhtest
from dhtest import FAKE_DAEMON, NSENTER_CMD, Device, wait_until


class IsolationTest(unittest.TestCase):
    def test_factory_reset_inside_leaves_the_host_untouched(self):
        canary = "/home/devhost-canary-" + secrets.token_hex(6)
        with open(canary, "w") as f:
            f.write("canary\n")
        self.addCleanup(os.unlink, canary)
        with open("/etc/resolv.conf", "rb") as f:
            resolv = f.read()
        one = Device(self, daemon=FAKE_DAEMON)
        two = Device(self, daemon=FAKE_DAEMON)

        # From the daemon's seat, through the exact host-namespace prefix it uses.
        r = one.run("command/shell", NSENTER_CMD + " rm -rf /home/* /var/log/* /var/persistent/etc/* 2>/dev/null;"
                    "echo nameserver 203.0.113.9 > /etc/resolv.conf; touch /etc/devhost-one;"
                    "ls -A /home; cat /etc/resolv.conf")
        self.assertEqual(r, {"status": 0, "stdout": "nameserver 203.0.113.9\n"})
        r = one.sh("killall -9 redis-server; reboot; /sbin/factory -r -y; /sbin/reboot; echo alive")
        self.assertEqual(r.stdout.strip(), "alive")

        self.assertTrue(os.path.exists(canary))
        with open("/etc/resolv.conf", "rb") as f:
            self.assertEqual(f.read(), resolv)
        # A second device running at the same time is a world of its own.
        self.assertFalse(os.path.exists("/etc/devhost-one"))
        self.assertEqual(two.exec("test", "-e", "/etc/devhost-one").returncode, 1)
        self.assertNotIn("203.0.113.9", two.sh("cat /etc/resolv.conf").stdout)
        self.assertEqual(two.sh("redis-cli -p 50001 ping").stdout, "PONG\n")
        self.assertEqual([e["argv"] for e in one.commands(program="reboot")], [["reboot"], ["/sbin/reboot"]])
        self.assertEqual(two.commands(program="reboot"), [])

    def test_up_refuses_a_sandbox_with_a_real_reboot(self):
        dev = Device(self, daemon=FAKE_DAEMON, files={"/sbin/reboot": "#!/bin/sh\necho rebooting\n"}, up=False)
        os.chmod(dev.path("files", "sbin", "reboot"), 0o755)
        r = dev.devhost("up", dev.dir, check=False)
        self.assertEqual(r.returncode, 1)
        self.assertIn("'reboot' inside the sandbox is not the simulated one", r.stderr)
        self.assertEqual(dev.log(), "", "the daemon must not have been started")
        self.assertNotEqual(dev.exec("true").returncode, 0)


class CommandLineTest(unittest.TestCase):
    def test_up_passes_arguments_and_restart_reuses_them(self):
        startup = {"ietf-system:system": {"hostname": "from-startup"}}
        dev = Device(self, daemon=FAKE_DAEMON, startup=startup, env={"QMX_CONTROLLER_TYPE": "ILA"},
                     daemon_args=["--port", "9711"])
        started = json.loads(dev.log().splitlines()[0])
        self.assertEqual(started["argv"][1:], ["--port", "9711"])
        self.assertEqual(started["env"]["QMX_CONTROLLER_TYPE"], "ILA")
        self.assertEqual(dev.datastore("running"), startup)

        # The running datastore starts again from startup at every up.
        dev.write_datastore("running", {"ietf-system:system": {"hostname": "changed"}})
        dev.restart()
        self.assertEqual(dev.datastore("running"), startup)
        self.assertEqual(json.loads(dev.log().splitlines()[0])["argv"][1:], ["--port", "9711"])
        self.assertEqual(dev.get("data/configStatus"), True)

        r = dev.exec("sh", "-c", "cat; exit 7", input="through\n")
        self.assertEqual((r.returncode, r.stdout), (7, "through\n"))

    def test_up_fails_when_the_daemon_exits(self):
        dev = Device(self, daemon=FAKE_DAEMON, env={"FAKE_DAEMON_MODE": "exit"}, up=False)
        r = dev.devhost("up", dev.dir, *dev.up_args(), check=False)
        self.assertEqual(r.returncode, 1)
        self.assertIn("fake daemon: exiting at start as asked", r.stderr)
        self.assertEqual(r.stderr.splitlines()[-1], "devhost: the daemon exited with status 3 before it was ready")
        self.assertNotEqual(dev.exec("true").returncode, 0, "the sandbox must be torn down")
        self.assertTrue(os.path.exists(dev.path("datastore", "startup.json")), "DIR/sim stays")


class ToolsTest(unittest.TestCase):
    """The simulated host tools, on one device shared by the tests of this class."""

    @classmethod
    def setUpClass(cls):
        dhtest.require_root()
        cls.dev = Device(daemon=FAKE_DAEMON)

    @classmethod
    def tearDownClass(cls):
        cls.dev.remove()

    def keep_datastores(self):
        saved = {ds: self.dev.read("datastore/%s.json" % ds) for ds in ("running", "startup", "operational")}
        self.addCleanup(lambda: [self.dev.write("datastore/%s.json" % ds, text) for ds, text in saved.items()])

    def test_device_environment(self):
        dev = self.dev
        self.assertEqual(dev.sh("readlink /1; cat /etc/version /etc/image/image_name.txt").stdout,
                         "/proc/1\nQMX QMX-RB-16E 2.3.1 -- build 20261101\nqmx-dh-container 1.0.0\n")
        addrs = json.loads(dev.exec("ip", "-j", "-6", "addr", "show", "dev", "br1").stdout)[0]
        self.assertIn("UP", addrs["flags"])
        self.assertTrue(any(a["scope"] == "link" and not a.get("tentative") for a in addrs["addr_info"]))
        bind_ipv6 = ("import socket\n"
                     "s = socket.socket(socket.AF_INET6, socket.SOCK_STREAM)\n"
                     "s.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b'br1')\n"
                     "s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY, 1)\n"
                     "s.bind(('::', 9700)); s.listen(); print('listening')\n")
        self.assertEqual(dev.exec("python3", "-c", bind_ipv6).stdout, "listening\n")
        for name, family in (("whitelist_ipv4", "ipv4_addr"), ("e27_ip_addresses", "ipv4_addr"),
                             ("e28_ip_addresses", "ipv4_addr"), ("mgmt_ip_addresses", "ipv4_addr"),
                             ("whitelist_ipv6", "ipv6_addr")):
            r = dev.sh(NSENTER_CMD + " /usr/sbin/nft -j list set inet filter " + name)
            nft_set = json.loads(r.stdout)["nftables"][1]["set"]
            self.assertEqual((nft_set["type"], nft_set["flags"]), (family, ["interval"]), name)
        self.assertEqual(nft_set.get("elem"), None)
        r = dev.sh("echo 'flush set inet filter whitelist_ipv4; add element inet filter whitelist_ipv4 { 10.0.0.0/8 };'"
                   " | " + NSENTER_CMD + " /usr/sbin/nft -f -; nft -j list set inet filter whitelist_ipv4")
        self.assertEqual(json.loads(r.stdout)["nftables"][1]["set"]["elem"], [{"prefix": {"addr": "10.0.0.0", "len": 8}}])
        dev.sh("nft 'flush set inet filter whitelist_ipv4; add element inet filter whitelist_ipv4 { 0.0.0.0/0 }'")
        logged = dev.commands(program="nft")
        self.assertIn("add element inet filter whitelist_ipv4 { 10.0.0.0/8 };", logged[-3]["stdin"])
        self.assertEqual(logged[-3]["argv"], ["/usr/sbin/nft", "-f", "-"])

    def test_sysrepocfg_export(self):
        dev = self.dev
        running = dev.datastore("running")
        r = dev.sh(NSENTER_CMD + " /bin/sysrepocfg --export -f json -d r ")
        self.assertEqual(r.stdout, json.dumps(running, indent=2) + "\n")
        self.assertEqual(json.loads(dev.sh("sysrepocfg --export -f json -d f").stdout), dev.datastore("factory-default"))
        oper = json.loads(dev.sh("sysrepocfg --export -f json -d o -m 'ietf-interfaces'").stdout)
        self.assertEqual(list(oper), ["ietf-interfaces:interfaces"])
        r = dev.sh("sysrepocfg --export -f json -d running -x '/ietf-system:system'")
        self.assertEqual(json.loads(r.stdout), {"ietf-system:system": running["ietf-system:system"]})
        r = dev.sh("sysrepocfg --export -f json -d o -x '/ietf-interfaces:interfaces/interface[name=\"e13\"]'")
        entries = json.loads(r.stdout)["ietf-interfaces:interfaces"]["interface"]
        self.assertEqual([(e["name"], e["oper-status"], e["ieee802-ethernet-interface:ethernet"]["speed"]) for e in entries],
                         [("e13", "up", "10.0")])
        self.assertEqual(dev.sh("sysrepocfg --export -f json -d o -x \"/ietf-interfaces:interfaces/interface[name='nope']\"").stdout, "{}\n")
        for bad in ("-x '/ietf-interfaces:interfaces/interface'", "-d ru -d x", "-d xyz"):
            r = dev.sh("sysrepocfg --export -f json " + bad)
            self.assertEqual((r.returncode, r.stdout), (1, ""), bad)
            self.assertEqual(len(r.stderr.splitlines()), 1, bad)

    def test_sysrepocfg_import(self):
        self.keep_datastores()
        dev = self.dev
        startup_before = dev.datastore("startup")
        for bad in ('[1, 2]', '{"no-module": {}}', '{"a:b": {"x": 1, "x": 2}}', '{"a:b": '):
            r = dev.sh(NSENTER_CMD + " sysrepocfg --import -f json -d startup -t 30", input=bad)
            self.assertEqual(r.returncode, 1, bad)
            self.assertEqual(dev.datastore("startup"), startup_before, bad)

        # The OSPF generator writes "area" twice: the two lists are one list, in order.
        doc = ('{"ietf-routing:routing": {"control-plane-protocols": {"control-plane-protocol": [{"type": '
               '"infix-routing:ospfv2", "name": "default", "ietf-ospf:ospf": {"areas": {"area": [{"area-id": '
               '"0.0.0.1"}], "area": [{"area-id": "0.0.0.2"}, {"area-id": "0.0.0.3"}]}}}]}}}')
        r = dev.sh("sysrepocfg --import -f json -d s", input=doc)
        self.assertEqual(r.returncode, 0, r.stderr)
        protocol = dev.datastore("startup")["ietf-routing:routing"]["control-plane-protocols"]["control-plane-protocol"][0]
        self.assertEqual([a["area-id"] for a in protocol["ietf-ospf:ospf"]["areas"]["area"]], ["0.0.0.1", "0.0.0.2", "0.0.0.3"])

        # A running import moves the addresses of operational interfaces along.
        running = dev.datastore("running")
        ifaces = {e["name"]: e for e in running["ietf-interfaces:interfaces"]["interface"]}
        ifaces["e27"]["ietf-ip:ipv4"] = {"forwarding": True, "address": [{"ip": "198.51.100.7", "prefix-length": 24}]}
        del ifaces["mgmt"]["ietf-ip:ipv4"]
        r = dev.sh("sysrepocfg --import -f json -d running -t 30", input=json.dumps(running))
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(dev.datastore("running"), running)
        oper = {e["name"]: e for e in dev.datastore("operational")["ietf-interfaces:interfaces"]["interface"]}
        self.assertEqual(oper["e27"]["ietf-ip:ipv4"]["address"], [{"ip": "198.51.100.7", "prefix-length": 24}])
        self.assertNotIn("ietf-ip:ipv4", oper["mgmt"])
        self.assertEqual(oper["e12"]["phys-address"], "02:00:00:00:00:0c")

    def test_fault_injection_and_command_log(self):
        dev = self.dev
        mark = dev.mark()
        dev.fail("sysrepocfg-export-running", 2)
        results = [dev.sh(NSENTER_CMD + " sysrepocfg --export -f json -d running -t 30") for _ in range(3)]
        self.assertEqual([r.returncode for r in results], [1, 1, 0])
        self.assertEqual(results[0].stderr, "sysrepocfg: injected failure (fail/sysrepocfg-export-running)\n")
        self.assertFalse(os.path.exists(dev.path("fail", "sysrepocfg-export-running")))
        self.assertEqual(dev.sh("sysrepocfg --export -f json -d startup").returncode, 0, "another datastore is not hit")

        dev.fail("sysrepocfg-garbage")
        r = dev.sh("sysrepocfg --export -f json -d o")
        self.assertEqual(r.returncode, 0)
        self.assertRaises(ValueError, json.loads, r.stdout)

        dev.fail("sysrepocfg-import-running", "always")
        self.addCleanup(os.unlink, dev.path("fail", "sysrepocfg-import-running"))
        for _ in range(2):
            self.assertEqual(dev.sh("sysrepocfg --import -f json -d running", input="{}").returncode, 1)
        self.assertNotEqual(dev.datastore("running"), {})

        entries = dev.commands(since=mark)
        self.assertTrue(all(set(e) == {"time", "argv", "stdin", "status"} for e in entries))
        self.assertEqual([e["status"] for e in entries[:3]], [1, 1, 0])
        self.assertEqual(entries[0]["argv"], ["sysrepocfg", "--export", "-f", "json", "-d", "running", "-t", "30"])
        self.assertEqual(entries[-1]["stdin"], "{}")
        self.assertIsNone(entries[0]["stdin"])
        self.assertTrue(all(a["time"] <= b["time"] for a, b in zip(entries, entries[1:])))

        # Tools ending together never interleave their lines.
        mark = dev.mark()
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            list(pool.map(lambda i: dev.sh("for p in e13 e14 e15; do ethtool -m $p >/dev/null 2>&1 & done; wait"), range(8)))
        entries = dev.commands(since=mark, program="ethtool")
        self.assertEqual(len(entries), 24)
        self.assertEqual(sorted(e["status"] for e in entries), [0] * 16 + [1] * 8)

    def test_klish(self):
        dev = self.dev
        help_line = "See the 'help' command for an introduction to the system\n"
        dev.write("klish/show_ospf_neighbor.txt", "Neighbor ID  State\n192.0.2.21   Full\n")
        klish = NSENTER_CMD + " /usr/bin/klish -c "
        self.assertEqual(dev.sh(klish + "'show ospf neighbor'").stdout, "Neighbor ID  State\n192.0.2.21   Full\n" + help_line)
        r = dev.sh(klish + "'show ospf routes'")
        self.assertEqual((r.returncode, r.stdout), (1, "% Unknown command.\n" + help_line))
        self.assertEqual(dev.sh(klish + "'set datetime 2024-05-01T12:00:00Z'").returncode, 0)
        shown = dev.sh(klish + "'show datetime iso'").stdout
        self.assertRegex(shown, r"^2024-05-01T12:00:0\d\+00:00\n" + help_line + "$")

    def test_rauc(self):
        dev = self.dev
        saved = dev.read("rauc/state.json")
        self.addCleanup(dev.write, "rauc/state.json", saved)

        def status():
            out = dev.sh(NSENTER_CMD + " rauc status --detailed --output-format=shell").stdout
            return dict((k, v[1:-1]) for k, v in (line.split("=", 1) for line in out.splitlines()))

        before = status()
        self.assertEqual((before["RAUC_SYSTEM_BOOTED_BOOTNAME"], before["RAUC_SLOTS"], before["RAUC_SYSTEM_SLOTS"],
                          before["RAUC_BOOT_PRIMARY"], before["RAUC_SLOT_BOOTNAME_2"]),
                         ("primary", "1 2", "rootfs.0 rootfs.1", "rootfs.0", "secondary"))
        dev.fail("rauc-install-unverified")
        r = dev.sh(NSENTER_CMD + " rauc install http://example.test/images/qmx-2.4.0.raucb")
        self.assertEqual(r.stdout.splitlines()[-2:], ["100% Installing done.",
                                                      "Installing `http://example.test/images/qmx-2.4.0.raucb' succeeded"])
        self.assertEqual(status(), before)
        dev.sh(NSENTER_CMD + " rauc install http://example.test/images/qmx-2.4.0.raucb")
        after = status()
        self.assertEqual((after["RAUC_SLOT_STATUS_INSTALLED_COUNT_2"], after["RAUC_SLOT_STATUS_ACTIVATED_COUNT_2"],
                          after["RAUC_SLOT_STATUS_STATUS_2"], after["RAUC_SLOT_STATUS_BUNDLE_VERSION_2"],
                          after["RAUC_BOOT_PRIMARY"], after["RAUC_SLOT_STATUS_INSTALLED_COUNT_1"]),
                         ("2", "2", "ok", "qmx-2.4.0.raucb", "rootfs.1", "1"))
        self.assertEqual(dev.sh(NSENTER_CMD + " rauc status mark-active rootfs.0").returncode, 0)
        self.assertEqual(status()["RAUC_BOOT_PRIMARY"], "rootfs.0")
        dev.fail("rauc-mark-active")
        self.assertEqual(dev.sh("rauc status mark-active rootfs.1").returncode, 1)
        self.assertEqual(dev.sh("rauc status mark-active rootfs.9").returncode, 1)
        self.assertEqual(status()["RAUC_BOOT_PRIMARY"], "rootfs.0")

    def test_modules_neighbours_time_sources_and_scripts(self):
        dev = self.dev
        r = dev.sh(NSENTER_CMD + " ethtool -m e13 2>/dev/null")
        self.assertIn("\tLaser output power                        : 0.5012 mW / -3.00 dBm\n", r.stdout)
        self.assertIn("\tModule temperature high alarm threshold   : 75.00 degrees C / 167.00 degrees F\n", r.stdout)
        r = dev.sh("ethtool -m e16")
        self.assertEqual((r.returncode, r.stdout, r.stderr), (1, "", "Cannot get module EEPROM information: No such device\n"))

        neighbours = json.loads(dev.sh(NSENTER_CMD + " /sbin/lldpctl -f json").stdout)["lldp"]["interface"]
        self.assertEqual([list(n)[0] for n in neighbours], ["e1", "e2", "e2"])
        dev.fail("lldpctl-garbage")
        self.assertRaises(ValueError, json.loads, dev.sh("/sbin/lldpctl -f json").stdout)
        selected = dev.sh(NSENTER_CMD + " /bin/chronyc -cN selectdata").stdout.split(",")
        self.assertEqual(selected[:2], ["*", "192.0.2.123"])

        # The maintenance scripts run as the daemon runs them: bash syntax through /bin/sh.
        command = ("ERR_MSG_FILE='/tmp/err' /bin/bash.bash /usr/bin/techlog.sh /tmp/techlog http://x/u e1 "
                   "&>> /var/persistent/log/techlog.log; echo $?; cat /tmp/err 2>/dev/null")
        self.assertEqual(dev.sh(command).stdout, "0\n")
        dev.fail("techlog")
        lines = dev.sh(command).stdout.splitlines()
        self.assertEqual((lines[0], len(lines)), ("1", 3))
        self.assertEqual(dev.commands(program="techlog.sh")[-1]["argv"],
                         ["/usr/bin/techlog.sh", "/tmp/techlog", "http://x/u", "e1"])

        self.assertEqual(dev.sh("/etc/init.d/redis-server stop 2>/dev/null; redis-cli -p 50001 ping").stdout, "")
        self.assertEqual(dev.sh("/etc/init.d/redis-server start; redis-cli -p 50001 ping").stdout, "PONG\n")
        wait_until(lambda: any(e["argv"] == ["redis-server", "/etc/redis/50001.conf"] for e in dev.commands()),
                   message="the stopped store's run is logged")


if __name__ == "__main__":
    dhtest.main()
