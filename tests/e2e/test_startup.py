"""Start-up of the daemon in the simulated device: the node tree it builds, the datastore reads
it makes, its command line and environment, a failing first export, the poll thread and a clean
stop."""

import os
import time
import unittest

import dhtest
from dhtest import Device, wait_until

LEAVES = 523


def is_export(entry, datastore):
    argv = entry["argv"]
    return "--export" in argv and "-d" in argv and argv[argv.index("-d") + 1] == datastore


class StartupTest(unittest.TestCase):
    def test_start_up_builds_the_tree_from_three_exports(self):
        dev = Device(self, daemon_args=["-p", "9711"], env={"QMX_CONTROLLER_TYPE": "ILA"})
        started = dev.commands(program="sysrepocfg")

        # configStatus is true once up returns; a subscriber gets it at once.
        self.assertIs(dev.get("data/configStatus"), True)
        watcher = dev.connect()
        self.addCleanup(watcher.close)
        self.assertIs(watcher.subscribe("data/configStatus"), True)
        self.assertIs(watcher.wait_event("data/configStatus")["value"], True)

        leaves = dev.call("list", {"path": ""})
        self.assertEqual(len({leaf["path"] for leaf in leaves}), LEAVES)
        self.assertEqual(dev.get("data/fwVersion"), "2.3.1")
        self.assertEqual(dev.get("data/containerVersion"), "qmx-dh-container 1.0.0")
        self.assertEqual(dev.get("data/e12/macAddress"), "02:00:00:00:00:0c")
        self.assertEqual(dev.get("data/e27/linkMediaType"), "100BaseT")
        # The automation mode follows the controller type the daemon was started with.
        self.assertEqual(dev.get("config/automationMode"), "managedILA")
        info = dev.call("info", {"path": "config/automationMode"})
        self.assertEqual(sorted(info["constraints"]["allowed"]), ["managedCLI", "managedILA", "managedNetconf"])

        # Two exports of running (OSPF initialisation, then the one every initial value is read
        # from) and one of the operational state; nothing imported. The poll thread's operational
        # reads start a second after start-up.
        self.assertEqual([e for e in started if "--import" in e["argv"]], [])
        running = [e for e in started if is_export(e, "running")]
        self.assertEqual(len(running), 2, running)
        oper = [e for e in started if is_export(e, "o")]
        self.assertEqual(len([e for e in oper if e["time"] < running[-1]["time"] + 0.9]), 1, started)
        self.assertEqual(len(started), len(running) + len(oper))
        self.assertIn("Device handler initialized for sysrepo. Listening on port 9711. "
                      "(sysrepo_device_handler:3309)", dev.log())
        self.assertEqual(dev.log().count("sysrepo-device-handler created\n"), 1)

        # The poll thread pushes link changes of the operational datastore within about 2 s.
        watcher.subscribe("data/e1/linkStatus")
        watcher.wait_event("data/e1/linkStatus", lambda v: v == "up")
        state = dev.datastore("operational")
        e1 = next(i for i in state["ietf-interfaces:interfaces"]["interface"] if i["name"] == "e1")
        e1["oper-status"] = "down"
        del e1["ieee802-ethernet-interface:ethernet"]
        changed = time.monotonic()
        dev.write("datastore/operational.json", state)
        watcher.wait_event("data/e1/linkStatus", lambda v: v == "down", timeout=5)
        self.assertLess(time.monotonic() - changed, 2.5)
        wait_until(lambda: dev.get("data/e1/linkMediaType") == "unknown", timeout=3)

        # Bad command lines print the options and exit 1 before starting anything.
        outputs = set()
        for args in (["--help"], ["--bogus"], ["--port", "abc"], ["-p"], ["--port", "1", "-p", "2"]):
            r = dev.exec("/usr/bin/sysrepo-device-handler", *args)
            self.assertEqual((r.returncode, r.stderr), (1, ""), args)
            outputs.add(r.stdout)
        self.assertEqual(len(outputs), 1)
        text = outputs.pop()
        self.assertTrue(text.startswith("Available options:\n"), text)
        self.assertIn("-p [ --port ] arg (=9700)", text)
        self.assertIn("Print help message", text)
        self.assertIs(dev.get("data/configStatus"), True)

        # SIGTERM from `down` ends the serving loop: the server removes its socket on the way out.
        dev.down()
        self.assertFalse(os.path.exists(dev.socket_path))
        self.assertNotIn("terminate called", dev.log())

    def test_failed_running_export_stops_start_up(self):
        dev = Device(self, sim_files={"fail/sysrepocfg-export-running": "always\n"}, up=False)
        self.assertNotEqual(dev.up(check=False).returncode, 0)
        self.assertIn("Failed to call:", dev.log())
        self.assertNotIn("Listening on [::]", dev.log())


if __name__ == "__main__":
    dhtest.main()
