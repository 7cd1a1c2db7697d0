"""Start-up of the daemon in the simulated device: its environment, its command line, and a
failing first export. The node tree, the start-up reads and the poll are unit-tested."""

import unittest

import dhtest
from dhtest import Device


class StartupTest(unittest.TestCase):
    def test_environment_and_command_line(self):
        dev = Device(self, env={"QMX_CONTROLLER_TYPE": "ILA"})
        self.assertEqual(dev.get("config/automationMode"), "managedILA")
        # Bad command lines print the options and exit 1 before starting anything.
        mark = dev.mark()
        for args in (["--help"], ["--bogus"], ["--port", "abc"], ["-p"], ["--port", "1", "-p", "2"],
                     ["--metrics-listen", "localhost:9701"]):
            r = dev.exec("/usr/bin/sysrepo-device-handler", *args)
            self.assertEqual((r.returncode, r.stdout.split("\n")[0]), (1, "Available options:"), args)
        self.assertEqual([e["argv"] for e in dev.commands(mark) if "running" in e["argv"]], [])

    def test_failed_running_export_stops_start_up(self):
        dev = Device(self, sim_files={"fail/sysrepocfg-export-running": "always\n"}, up=False)
        self.assertNotEqual(dev.up(check=False).returncode, 0)
        self.assertIn("Failed to call: " + dhtest.NSENTER_CMD + "sysrepocfg --export -f json -d running", dev.log())


if __name__ == "__main__":
    dhtest.main()
