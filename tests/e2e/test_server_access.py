"""Remote access to the daemon in the simulated device: dhctl over TLS with client certificates
and roles, and the audit trail. Certificates are made for each run with
tests/tools/make-test-certs.sh."""

import os
import shutil
import subprocess
import unittest

import dhtest
from dhtest import REPO, Device

DHCTL = os.environ.get("DHCTL") or os.path.join(REPO, "build", "bin", "dhctl")
MAKE_CERTS = os.path.join(REPO, "tests", "tools", "make-test-certs.sh")
ROLES = {"certificates": {"CN=monitor,O=Test": "monitor", "CN=operator,O=Test": "operator",
                          "CN=admin,O=Test": "admin"}}
TLS_ARGS = ["-p", "9711", "--tls-port", "9712", "--tls-cert", "/sim/certs/server.pem",
            "--tls-key", "/sim/certs/server.key", "--tls-client-ca", "/sim/certs/ca.pem",
            "--roles", "/sim/roles.json"]


def device_with_tls(test):
    dev = Device(test, daemon_args=TLS_ARGS, up=False)
    subprocess.run([MAKE_CERTS, dev.path("certs")], check=True)
    dev.write("roles.json", ROLES)
    shutil.copy(DHCTL, dev.path("dhctl"))
    dev.up()
    return dev


def dhctl(dev, who, *args):
    return dev.exec("/sim/dhctl", "--tls", "--host", "localhost", "--port", "9712",
                    "--cert", "/sim/certs/%s.pem" % who, "--key", "/sim/certs/%s.key" % who,
                    "--ca", "/sim/certs/ca.pem", *args)


class AccessTest(unittest.TestCase):
    def test_tls_clients_get_what_their_certificate_allows(self):
        dev = device_with_tls(self)
        r = dhctl(dev, "monitor", "get", "data/fwVersion")
        self.assertEqual((r.returncode, r.stdout), (0, "2.3.1\n"), r.stderr)
        r = dhctl(dev, "monitor", "set", "config/automationMode", "managedILA")
        self.assertNotEqual(r.returncode, 0)
        self.assertIn("Permission denied", r.stderr)

        r = dhctl(dev, "operator", "set", "config/ospf/areaId", "0.0.0.7")
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(dev.get("config/ospf/areaId"), "0.0.0.7")
        mark = dev.mark()
        r = dhctl(dev, "operator", "run", "command/reboot", "true")
        self.assertIn("Permission denied", r.stderr)
        self.assertEqual(dev.commands(since=mark, program="reboot"), [])

        # The change names its author, once, in the audit log.
        audit = [line for line in dev.log().splitlines() if "[audit]" in line and "areaId" in line]
        self.assertEqual(len(audit), 1, audit)
        self.assertIn("CN=operator,O=Test set config/ospf/areaId: done", audit[0])


if __name__ == "__main__":
    dhtest.main()
