"""Maintenance commands in the simulated device: reboot, factory defaults at every depth (the
deepest keeping three keys of the configuration store through a real redis), the technical log
and its failures, and parameters that would reach a shell."""

import re
import time
import unittest

import dhtest
from dhtest import Device, RpcError, wait_until

NS = dhtest.NSENTER_CMD
STORE_DIR = "/var/persistent/etc/sw_storage/redis"
KEPT = ["dh/sysrepo:config/e28/ipv4Settings", "dh/sysrepo:config/dnsSettings",
        "dh/network:config/dnsSettings"]
WIPE_TOOLS = [["/etc/init.d/redis-server", "stop"], ["/etc/init.d/confd-data-provider-init", "stop"],
              ["/etc/init.d/confd-init", "stop"]]
ERROR_FILE = re.compile(r"^[0-9a-f]{4}(-[0-9a-f]{4}){3}$", re.M)


def maintenance_tools(entries):
    """The runs of the reset and reboot tools, leaving out what the daemon polls meanwhile."""
    return [e["argv"] for e in entries
            if e["argv"][0] in ("reboot", "/sbin/reboot", "/sbin/factory")
            or e["argv"][0].startswith("/etc/init.d/")]


class MaintenanceTest(unittest.TestCase):
    def assert_refused(self, dev, path, value, code, message):
        with self.assertRaises(RpcError) as caught:
            dev.run(path, value, timeout=30)
        self.assertEqual((caught.exception.code, caught.exception.message), (code, message))

    def wait_done(self, dev, count):
        wait_until(lambda: dev.log().count("Restore factory default is done.") >= count, timeout=15,
                   message="factory-default thread did not finish")

    def test_reboot_and_factory_levels(self):
        dev = Device(self)
        mark = dev.mark()
        asked = time.time()
        self.assertIs(dev.run("command/reboot", True), True)
        reboot = dev.wait_command(lambda e: e["argv"] == ["reboot"], since=mark)
        self.assertGreaterEqual(reboot["time"] - asked, 0.45)
        self.assertIn("Rebooting the device in 500ms.", dev.log())

        # Level 0 schedules the operating-system reset and reboots nothing; level 1 reboots even
        # from deliveryClear; level 2 from deliveryClear writes startup from the factory datastore
        # and wipes without a reboot; level 3 wipes and reboots, keeping no store keys.
        factory = [["/sbin/factory", "-r", "-y"]]
        levels = (("restoreFactoryDefaults", 0, factory), ("deliveryClear", 1, factory + [["/sbin/reboot"]]),
                  ("deliveryClear", 2, WIPE_TOOLS), ("restoreFactoryDefaults", 3, WIPE_TOOLS + [["/sbin/reboot"]]))
        for done, (command, level, tools) in enumerate(levels, 1):
            dev.sh("touch /home/user-file")
            mark = dev.mark()
            self.assertIs(dev.run("command/" + command, level), True)
            self.wait_done(dev, done)
            self.assertEqual(maintenance_tools(dev.commands(mark)), tools, level)
            wiped = dev.exec("test", "-e", "/home/user-file").returncode != 0
            self.assertEqual(wiped, level >= 2, level)
            if level == 2:
                self.assertEqual(dev.datastore("startup"), dev.datastore("factory-default"))
        self.assertIn("Restore factory default is staring...", dev.log())

    def test_level_4_keeps_the_store_keys(self):
        dev = Device(self)
        cli = ["redis-cli", "-p", "50001"]
        for i, key in enumerate(KEPT):
            self.assertEqual(dev.exec(*cli, "SET", "{conf}:" + key, "kept-%d" % i).stdout.strip(), "OK")
        dev.exec(*cli, "SET", "{conf}:dh/other:config/x", "wiped")

        mark = dev.mark()
        self.assertIs(dev.run("command/restoreFactoryDefaults", 4, timeout=30), True)
        self.wait_done(dev, 1)

        migrate = ["redis-cli", "-p", "50001", "migrate", "localhost", "50003", "", "0", "120", "COPY",
                   "REPLACE", "KEYS"] + ["{conf}:" + k for k in KEPT]
        # (The second store's redis-server is killed by the wipe and leaves no entry.)
        self.assertEqual([e["argv"] for e in dev.commands(mark, program="redis-cli")],
                         [["redis-cli", "-p", "50003", "SHUTDOWN"], migrate,
                          ["redis-cli", "-p", "50003", "BGREWRITEAOF"]])
        self.assertEqual(maintenance_tools(dev.commands(mark)), WIPE_TOOLS + [["/sbin/reboot"]])

        aof = dev.sh("tr -c '[:print:]' '\\n' < %s/50001.aof" % STORE_DIR).stdout  # may hold an RDB part
        for key in KEPT:
            self.assertIn("{conf}:" + key, aof)
        self.assertNotIn("dh/other", aof)

        # At the next boot the store reads the kept keys back.
        dev.restart()
        for i, key in enumerate(KEPT):
            self.assertEqual(dev.exec(*cli, "GET", "{conf}:" + key).stdout.strip(), "kept-%d" % i)
        self.assertEqual(dev.exec(*cli, "EXISTS", "{conf}:dh/other:config/x").stdout.strip(), "0")

    def test_techlog(self):
        dev = Device(self)
        mark = dev.mark()
        doc = {"url": "sftp://logs@192.0.2.5/upload", "interface": "e28"}
        self.assertIs(dev.run("command/techlogGenerate", doc), False)
        self.assertEqual([e["argv"][1:] for e in dev.commands(mark, program="techlog.sh")],
                         [["/tmp/techlog", "sftp://logs@192.0.2.5/upload", "e28"]])
        self.assertIn("techlog: done", dev.exec("cat", "/var/persistent/log/techlog.log").stdout)
        self.assertIn("MSG_PERSISTENT - Successfully executed script: ERR_MSG_FILE='/tmp/", dev.log())

        dev.fail("techlog")
        self.assert_refused(dev, "command/techlogGenerate", doc, -14,
                            "Failed to execute the upgrade script: techlog failed: injected failure "
                            "(fail/techlog)\narguments: /tmp/techlog sftp://logs@192.0.2.5/upload e28\n")
        self.assertIn("MSG_PERSISTENT - Return code: 256 msg: techlog failed", dev.log())
        self.assertIsNone(ERROR_FILE.search(dev.exec("ls", "/tmp").stdout))

        self.assert_refused(dev, "command/techlogGenerate", {"url": "u"}, -22,
                            "Techlog parameters not present.")
        mark = dev.mark()
        for bad in ({"url": "u;touch /tmp/canary-1", "interface": "e1"},
                    {"url": "u", "interface": "e1 && touch /tmp/canary-2"},
                    {"url": "$(touch /tmp/canary-3)", "interface": "e1"},
                    {"url": "u", "interface": "`touch /tmp/canary-4`"},
                    {"url": "u'\"", "interface": "e1|touch /tmp/canary-5"},
                    {"url": 5, "interface": "e1"}):
            self.assert_refused(dev, "command/techlogGenerate", bad, -22, "Techlog parameters not valid.")
        self.assertEqual(dev.commands(mark, program="techlog.sh"), [])
        self.assertEqual(dev.sh("ls /tmp/canary-* 2>/dev/null | wc -l").stdout.strip(), "0")


if __name__ == "__main__":
    dhtest.main()
