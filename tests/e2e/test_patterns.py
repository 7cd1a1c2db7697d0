"""Pattern reads against the daemon in the simulated device: a read of many leaves reports the one
whose host command fails beside the others, in the answer and in dhctl. Resumed subscriptions
(since_seq) are tested against the server in the unit tests."""

import os
import subprocess
import time
import unittest

import dhtest
from dhtest import Device, RpcError

DHCTL = os.environ.get("DHCTL") or os.path.join(dhtest.REPO, "build", "bin", "dhctl")


class PatternTest(unittest.TestCase):
    def test_one_failing_leaf_hides_no_other(self):
        dev = Device(self)
        healthy = dev.get("data/e1/...")
        self.assertEqual(healthy["errors"], {})
        self.assertEqual(healthy["values"]["data/e1/macAddress"], "02:00:00:00:00:01")
        self.assertIn("data/e1/ipv4Settings", healthy["values"])

        # Every export of the operational datastore fails: the address read through it does,
        # the values the daemon holds do not. The error is the one a single read gives.
        dev.write("fail/sysrepocfg-export-operational", "always")
        time.sleep(1.1)  # the daemon keeps an export for a second
        broken = dev.get("data/e1/...")
        try:
            dev.get("data/e1/ipv4Settings")
            self.fail("the single read did not fail")
        except RpcError as e:
            single = {"code": e.code, "message": e.message}
        self.assertEqual(broken["errors"], {"data/e1/ipv4Settings": single})
        self.assertEqual(set(broken["values"]), set(healthy["values"]) - {"data/e1/ipv4Settings"})
        self.assertEqual(broken["values"]["data/e1/macAddress"], "02:00:00:00:00:01")

        # dhctl prints the failed leaf among the others and ends with status 1.
        r = subprocess.run([DHCTL, "--socket", dev.socket_path, "get", "data/e1/..."],
                           capture_output=True, text=True, timeout=30)
        self.assertEqual(r.returncode, 1)
        rows = dict(line.split(None, 1) for line in r.stdout.splitlines())
        self.assertEqual(rows["data/e1/ipv4Settings"], "error %d: %s" % (single["code"], single["message"]))
        self.assertEqual(rows["data/e1/macAddress"], "02:00:00:00:00:01")
        os.unlink(dev.path("fail", "sysrepocfg-export-operational"))

        with self.assertRaises(RpcError) as e:
            dev.get("data/*/noSuchLeaf")
        self.assertEqual((e.exception.code, e.exception.message), (-32001, "No such node: data/*/noSuchLeaf"))


if __name__ == "__main__":
    dhtest.main()
