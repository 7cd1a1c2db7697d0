"""Pattern reads and resumed subscriptions against the daemon in the simulated device: a read of
many leaves reports the one whose host command fails beside the others, and a subscriber that
reconnects with since_seq receives exactly the changes it missed."""

import os
import subprocess
import time
import unittest

import dhtest
from dhtest import Device, RpcError

DHCTL = os.environ.get("DHCTL") or os.path.join(dhtest.REPO, "build", "bin", "dhctl")


def notifications_until_sync(client, timeout=10.0):
    """The event params that come before the next sync notification, and the sync's params."""
    deadline = time.monotonic() + timeout
    events = []
    while True:
        msg = client._receive(deadline, "no sync")
        if msg.get("method") == "sync":
            return events, msg["params"]
        if msg.get("method") == "event":
            client.events.remove(msg["params"])
            events.append(msg["params"])


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

    def test_reconnecting_subscriber_gets_exactly_what_it_missed(self):
        dev = Device(self)
        watcher = dev.connect()
        subscribed = watcher.call("subscribe", {"path": "config/ntp/..."})
        self.assertIn("config/ntp/primaryServer", subscribed["values"])
        dev.set("config/ntp/primaryServer", "192.0.2.1")
        last = watcher.wait_event("config/ntp/primaryServer", lambda v: v == "192.0.2.1")["seq"]
        watcher.sock.close()

        # Changed while nobody watched; the OSPF change is not the watcher's business.
        dev.set("config/ntp/primaryServer", "192.0.2.2")
        dev.set("config/ospf/areaId", "0.0.0.2")
        dev.set("config/ntp/secondaryServer", "192.0.2.3")

        again = dev.connect()
        answer = again.call("subscribe", {"path": "config/ntp/...", "since_seq": last})
        self.assertEqual(answer["values"]["config/ntp/primaryServer"], "192.0.2.2")
        missed, sync = notifications_until_sync(again)
        self.assertEqual([(e["path"], e["value"]) for e in missed],
                         [("config/ntp/primaryServer", "192.0.2.2"), ("config/ntp/secondaryServer", "192.0.2.3")])
        self.assertTrue(last < missed[0]["seq"] < missed[1]["seq"])
        self.assertEqual(sync["complete"], True)
        self.assertGreaterEqual(sync["seq"], missed[1]["seq"])
        # Then live events, and nothing twice.
        dev.set("config/ntp/primaryServer", "192.0.2.4")
        event = again.wait_event("config/ntp/primaryServer")
        self.assertEqual(event["value"], "192.0.2.4")
        self.assertEqual(again.events, [])
        again.sock.close()


if __name__ == "__main__":
    dhtest.main()
