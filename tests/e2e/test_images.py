"""Software images in the simulated device: installing a bundle into the slot that does not run,
an installation that does not verify, and switching slots."""

import json
import unittest

import dhtest

URL = "http://images.example/qmx-2.4.0.raucb"


class ImagesTest(unittest.TestCase):
    def test_install_verify_and_switch(self):
        dev = dhtest.Device(self)
        rauc = lambda: json.loads(dev.read("rauc/state.json"))
        installed = lambda: next(s for s in rauc()["slots"] if s["name"] == "rootfs.1")["installed_count"]
        mark, count = dev.mark(), installed()
        self.assertIs(dev.run("command/bootImage", URL, timeout=60), True)
        self.assertEqual(dev.get("data/installStatus"),
                         "Succsessfully verified the activation of the installation to slot target : secondary")
        status = ["status", "--detailed", "--output-format=shell"]
        self.assertEqual([e["argv"][1:] for e in dev.commands(mark, program="rauc")], [status, ["install", URL], status])
        self.assertEqual((installed(), rauc()["primary"]), (count + 1, "rootfs.1"))

        # A bundle that installs but never activates: the counts do not move.
        dev.fail("rauc-install-unverified")
        text = "Failed verified the activation of the installation to slot target : secondary"
        self.assertEqual(dev.error("run", "command/bootImage", {"pkg": "http://images.example/b.raucb"}, 60), (-5, text))
        self.assertEqual((dev.get("data/installStatus"), installed()), (text, count + 1))

        # "other" in any case flips the primary slot; a version selects the slot that holds it.
        for image, primary in (("Other", "rootfs.0"), ("2.4.0", "rootfs.1")):
            self.assertIs(dev.run("command/switchImage", image), True)
            self.assertEqual(rauc()["primary"], primary, image)


if __name__ == "__main__":
    dhtest.main()
