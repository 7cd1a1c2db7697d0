"""The simulated device itself, with a stand-in daemon (fake_daemon.py): isolation from the host,
a sandbox holding a real reboot, and the rules of the simulated tools that the daemon's tests rely on (strict
imports, fault counts, the command log)."""

import os
import secrets
import unittest

import dhtest
from dhtest import FAKE_DAEMON, NSENTER_CMD, Device


class DevhostTest(unittest.TestCase):
    def test_factory_reset_inside_leaves_the_host_untouched(self):
        canary = "/home/devhost-canary-" + secrets.token_hex(6)
        with open(canary, "w") as f:
            f.write("canary\n")
        self.addCleanup(os.unlink, canary)
        with open("/etc/resolv.conf", "rb") as f:
            resolv = f.read()
        one, two = Device(self, daemon=FAKE_DAEMON), Device(self, daemon=FAKE_DAEMON)

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
        self.assertNotRegex(two.sh("ls /etc/devhost-one; cat /etc/resolv.conf").stdout, "devhost-one|203.0.113.9")
        self.assertEqual(two.sh("redis-cli -p 50001 ping").stdout, "PONG\n")
        self.assertEqual([e["argv"] for e in one.commands(program="reboot")], [["reboot"], ["/sbin/reboot"]])
        self.assertEqual(two.commands(program="reboot"), [])

    def test_up_refuses_a_sandbox_with_a_real_reboot(self):
        dev = Device(self, daemon=FAKE_DAEMON, sim_files={"files/sbin/reboot": "#!/bin/sh\necho rebooting\n"}, up=False)
        os.chmod(dev.path("files", "sbin", "reboot"), 0o755)
        r = dev.up(check=False)
        self.assertEqual((r.returncode, dev.log()), (1, ""))
        self.assertIn("'reboot' inside the sandbox is not the simulated one", r.stderr)

    def test_strict_imports_fault_injection_and_command_log(self):
        dev = Device(self, daemon=FAKE_DAEMON)
        # Bad documents and options are refused as the device's tools refuse them.
        startup, mark = dev.datastore("startup"), dev.mark()
        documents = ['[1, 2]', '{"no-module": {}}', '{"a:b": {"x": 1, "x": 2}}', '{"a:b": ']
        for bad in documents:
            self.assertEqual(dev.sh(NSENTER_CMD + " sysrepocfg --import -f json -d startup -t 30", input=bad).returncode, 1)
        self.assertEqual(dev.datastore("startup"), startup)
        self.assertEqual([(e["stdin"], e["status"]) for e in dev.commands(mark)], [(d, 1) for d in documents])

        # A fault hits its own step for its count of runs, and every run is logged.
        mark = dev.mark()
        dev.fail("sysrepocfg-export-running", 2)
        results = [dev.sh(NSENTER_CMD + " sysrepocfg --export -f json -d running -t 30") for _ in range(3)]
        self.assertEqual(dev.sh("sysrepocfg --export -f json -d startup").returncode, 0)
        self.assertEqual([r.returncode for r in results], [1, 1, 0])
        self.assertEqual(results[0].stderr, "sysrepocfg: injected failure (fail/sysrepocfg-export-running)\n")
        datastore = lambda argv: argv[argv.index("-d") + 1]
        self.assertEqual([(datastore(e["argv"]), e["status"], e["stdin"]) for e in dev.commands(mark)],
                         [("running", 1, None), ("running", 1, None), ("running", 0, None), ("startup", 0, None)])


if __name__ == "__main__":
    dhtest.main()
