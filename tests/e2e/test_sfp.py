"""Optical modules in the simulated device: presence, powers, temperature margins and inventory
of the SFP+ ports follow a module put into and taken out of a port (DIR/sim/sfp/PORT.txt), and
the device's temperature margin is that of its warmest module."""

import unittest

import dhtest
from dhtest import Device, RpcError, wait_until

# A hot module with no light: what ethtool -m shows for it.
HOT_MODULE = "".join("\t%-41s : %s\n" % line for line in (
    ("Identifier", "0x03 (SFP)"), ("Connector", "0x07 (LC)"), ("Transceiver type", "Extended: 25GBASE-LR"),
    ("Length (SMF,km)", "10km"), ("Laser wavelength", "1310nm"), ("Vendor name", "QMX OPTICS"),
    ("Vendor PN", "QXS-25G-LR"), ("Vendor rev", "B2"), ("Vendor SN", "QX25119999"),
    ("Laser output power", "0.7943 mW / -1.00 dBm"),
    ("Receiver signal average optical power", "0.0001 mW / -40.00 dBm"),
    ("Module temperature", "70.00 degrees C / 158.00 degrees F"),
    ("Module temperature high alarm threshold", "75.00 degrees C / 167.00 degrees F")))


class SfpTest(unittest.TestCase):
    def test_modules_follow_insertion_and_removal(self):
        dev = Device(self)

        def get(path):  # values not read yet are refused
            try:
                return dev.get(path)
            except RpcError as e:
                return (e.code, e.message)

        # The default device has modules in e13 and e14, found by the reader's first pass.
        wait_until(lambda: get("e14/sfp/present") is True, timeout=5)
        wait_until(lambda: get("data/e14/sfp/temperatureMargin") == 33.5)
        expected = {"e13/sfp/present": True, "e15/sfp/present": False,
                    "e13/sfp/inventory/serialNumber": "QX25110401", "e15/sfp/inventory/serialNumber": "",
                    "e13/sfp/inventory/description": "SFP, 10G Base-LR, 1310nm, 10km, LC",
                    "data/e13/sfp/rxPower": -3.98, "data/e13/sfp/temperatureMargin": 40.0,
                    "data/e15/sfp/rxPower": (-61, "Value has not been set")}
        self.assertEqual({path: get(path) for path in expected}, expected)
        wait_until(lambda: get("data/temperatureMargin") == 33.5, timeout=12)

        # A hot module with no light goes into e15.
        dev.subscribe("e15/sfp/inventory/serialNumber")
        dev.write("sfp/e15.txt", HOT_MODULE)
        dev.wait_event("e15/sfp/inventory/serialNumber", lambda v: v == "QX25119999", timeout=5)
        wait_until(lambda: get("e15/sfp/present") is True, timeout=2)
        self.assertEqual(get("e15/sfp/inventory/description"), "SFP28, 25GBASE-LR, 1310nm, 10km, LC")
        wait_until(lambda: get("data/e15/sfp/rxPower") == -99.0, timeout=6)
        wait_until(lambda: get("data/e15/sfp/temperatureMargin") == 5.0, timeout=6)
        self.assertEqual(get("data/e15/sfp/txPower"), -1.0)
        wait_until(lambda: get("data/temperatureMargin") == 5.0, timeout=12)

        # Taken out again: presence and inventory follow, the device margin is e14's again.
        dev.exec("rm", "-f", "/sim/sfp/e15.txt")
        dev.wait_event("e15/sfp/inventory/serialNumber", lambda v: v == "", timeout=5)
        wait_until(lambda: get("e15/sfp/present") is False, timeout=2)
        self.assertEqual(get("e15/sfp/inventory/description"), "")
        wait_until(lambda: get("data/temperatureMargin") == 33.5, timeout=12)


if __name__ == "__main__":
    dhtest.main()
