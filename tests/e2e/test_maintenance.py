"""Maintenance commands in the simulated device: the factory reset that keeps the device running
(level 4 is in test_integrity; the unit tests hold every level's steps), and the technical log
and its failures."""

import re
import unittest

import dhtest
from dhtest import Device, wait_until


class MaintenanceTest(unittest.TestCase):
    def test_level_2_writes_startup_from_the_factory_datastore_and_wipes(self):
        dev = Device(self)
        dev.sh("touch /home/user-file")
        mark = dev.mark()
        self.assertIs(dev.run("command/deliveryClear", 2, timeout=30), True)
        wait_until(lambda: "Restore factory default is done." in dev.log(), timeout=15)
        self.assertEqual(dev.commands(mark, program="reboot"), [])
        self.assertNotEqual(dev.exec("test", "-e", "/home/user-file").returncode, 0)
        self.assertEqual(dev.datastore("startup"), dev.datastore("factory-default"))

    def test_techlog(self):
        dev = Device(self)
        mark = dev.mark()
        doc = {"url": "sftp://logs@192.0.2.5/upload", "interface": "e28"}
        self.assertIs(dev.run("command/techlogGenerate", doc), False)
        self.assertEqual([e["argv"][1:] for e in dev.commands(mark, program="techlog.sh")],
                         [["/tmp/techlog", "sftp://logs@192.0.2.5/upload", "e28"]])

        dev.fail("techlog")
        self.assertEqual(dev.error("run", "command/techlogGenerate", doc), (
            -14, "Failed to execute the upgrade script: techlog failed: injected failure "
            "(fail/techlog)\narguments: /tmp/techlog sftp://logs@192.0.2.5/upload e28\n"))
        self.assertNotRegex(dev.exec("ls", "/tmp").stdout, re.compile(r"^[0-9a-f]{4}(-[0-9a-f]{4}){3}$", re.M))


if __name__ == "__main__":
    dhtest.main()
