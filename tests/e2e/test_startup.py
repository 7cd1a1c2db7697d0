"""Start-up of the daemon in the simulated device: readiness, its environment, the poll thread,
its command line, and a failing first export."""

import time
import unittest

import dhtest
from dhtest import Device, wait_until


def exports(entries, datastore):
    return [e for e in entries if "--export" in e["argv"] and e["argv"][e["argv"].index("-d") + 1] == datastore]


class StartupTest(unittest.TestCase):
    def test_start_up_environment_poll_and_command_line(self):
        dev = Device(self, env={"QMX_CONTROLLER_TYPE": "ILA"})
        started = dev.commands(program="sysrepocfg")
        # configStatus is true once up returns; a subscriber gets it at once.
        self.assertIs(dev.get("data/configStatus"), True)
        watcher = dev.connect()
        self.addCleanup(watcher.sock.close)
        self.assertIs(watcher.subscribe("data/configStatus"), True)
        self.assertIs(watcher.wait_event("data/configStatus")["value"], True)

        self.assertEqual(dev.get("config/automationMode"), "managedILA")

        # The poll's operational reads start a second after the export of running.
        running, oper = exports(started, "running"), exports(started, "o")
        self.assertEqual(len([e for e in oper if e["time"] < running[-1]["time"] + 0.9]), 1, started)

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
        for args in (["--help"], ["--bogus"], ["--port", "abc"], ["-p"], ["--port", "1", "-p", "2"],
                     ["--metrics-listen", "localhost:9701"]):
            r = dev.exec("/usr/bin/sysrepo-device-handler", *args)
            self.assertEqual((r.returncode, r.stdout.split("\n")[0]), (1, "Available options:"), args)

    def test_failed_running_export_stops_start_up(self):
        dev = Device(self, sim_files={"fail/sysrepocfg-export-running": "always\n"}, up=False)
        self.assertNotEqual(dev.up(check=False).returncode, 0)
        self.assertIn("Failed to call: " + dhtest.NSENTER_CMD + "sysrepocfg --export -f json -d running", dev.log())


if __name__ == "__main__":
    dhtest.main()
