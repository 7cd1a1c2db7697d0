"""Maintenance commands in the simulated device: reboot, factory defaults at every depth (the
deepest keeping three keys of the configuration store through a real redis), the technical log
and its failures, and parameters that would reach a shell."""

import re
import time
import unittest

import dhtest
from dhtest import Device, wait_until

KEPT = ["dh/sysrepo:config/e28/ipv4Settings", "dh/sysrepo:config/dnsSettings", "dh/network:config/dnsSettings"]
WIPE_TOOLS = [["/etc/init.d/redis-server", "stop"], ["/etc/init.d/confd-data-provider-init", "stop"],
              ["/etc/init.d/confd-init", "stop"]]
REDIS = ["redis-cli", "-p", "50001"]


def reset(dev, command, level, done):
    """Runs a factory reset and returns the reset and reboot tools it ran, once its thread is done."""
    mark = dev.mark()
    assert dev.run("command/" + command, level, timeout=30) is True
    wait_until(lambda: dev.log().count("Restore factory default is done.") >= done, timeout=15)
    return [e["argv"] for e in dev.commands(mark) if e["argv"][0] in ("reboot", "/sbin/reboot", "/sbin/factory")
            or e["argv"][0].startswith("/etc/init.d/")]


class MaintenanceTest(unittest.TestCase):
    def test_reboot_and_factory_levels(self):
        dev = Device(self)
        mark, asked = dev.mark(), time.time()
        self.assertIs(dev.run("command/reboot", True), True)
        reboot = wait_until(lambda: [e for e in dev.commands(mark) if e["argv"] == ["reboot"]])
        self.assertGreaterEqual(reboot[0]["time"] - asked, 0.45)

        # Level 0 schedules the operating-system reset and reboots nothing; level 1 reboots even
        # from deliveryClear; level 2 from deliveryClear writes startup from the factory datastore
        # and wipes without a reboot; level 3 wipes and reboots.
        factory = [["/sbin/factory", "-r", "-y"]]
        levels = (("restoreFactoryDefaults", 0, factory), ("deliveryClear", 1, factory + [["/sbin/reboot"]]),
                  ("deliveryClear", 2, WIPE_TOOLS), ("restoreFactoryDefaults", 3, WIPE_TOOLS + [["/sbin/reboot"]]))
        for done, (command, level, tools) in enumerate(levels, 1):
            dev.sh("touch /home/user-file")
            self.assertEqual(reset(dev, command, level, done), tools, level)
            self.assertEqual(dev.exec("test", "-e", "/home/user-file").returncode != 0, level >= 2, level)
            if level == 2:
                self.assertEqual(dev.datastore("startup"), dev.datastore("factory-default"))

    def test_level_4_keeps_the_store_keys(self):
        dev = Device(self)
        for i, key in enumerate(KEPT + ["dh/other:config/x"]):
            self.assertEqual(dev.exec(*REDIS, "SET", "{conf}:" + key, "kept-%d" % i).stdout, "OK\n")
        self.assertEqual(reset(dev, "restoreFactoryDefaults", 4, 1), WIPE_TOOLS + [["/sbin/reboot"]])
        # At the next boot the store reads the kept keys back from its append-only file.
        dev.restart()
        for i, key in enumerate(KEPT):
            self.assertEqual(dev.exec(*REDIS, "GET", "{conf}:" + key).stdout, "kept-%d\n" % i)
        self.assertEqual(dev.exec(*REDIS, "EXISTS", "{conf}:dh/other:config/x").stdout, "0\n")

    def test_techlog(self):
        dev = Device(self)
        mark = dev.mark()
        doc = {"url": "sftp://logs@192.0.2.5/upload", "interface": "e28"}
        self.assertIs(dev.run("command/techlogGenerate", doc), False)
        self.assertEqual([e["argv"][1:] for e in dev.commands(mark, program="techlog.sh")],
                         [["/tmp/techlog", "sftp://logs@192.0.2.5/upload", "e28"]])
        self.assertIn("MSG_PERSISTENT - Successfully executed script: ERR_MSG_FILE='/tmp/", dev.log())

        dev.fail("techlog")
        self.assertEqual(dev.error("run", "command/techlogGenerate", doc), (
            -14, "Failed to execute the upgrade script: techlog failed: injected failure "
            "(fail/techlog)\narguments: /tmp/techlog sftp://logs@192.0.2.5/upload e28\n"))
        self.assertIn("MSG_PERSISTENT - Return code: 256 msg: techlog failed", dev.log())
        self.assertNotRegex(dev.exec("ls", "/tmp").stdout, re.compile(r"^[0-9a-f]{4}(-[0-9a-f]{4}){3}$", re.M))

        mark = dev.mark()
        for bad in ({"url": "u;touch /tmp/canary-1", "interface": "e1"},
                    {"url": "u", "interface": "e1 && touch /tmp/canary-2"}):
            self.assertEqual(dev.error("run", "command/techlogGenerate", bad), (-22, "Techlog parameters not valid."))
        self.assertEqual(dev.commands(mark, program="techlog.sh"), [])
        self.assertEqual(dev.sh("ls /tmp/canary-* 2>/dev/null | wc -l").stdout.strip(), "0")


if __name__ == "__main__":
    dhtest.main()
