"""Software images in the simulated device: installing a bundle into the slot that does not
run, an installation that does not verify, the extra package that comes first, switching
slots, and URLs that would reach a shell."""

import json
import unittest

import dhtest
from dhtest import Device, RpcError

NS = dhtest.NSENTER_CMD


class ImagesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dev = Device()

    @classmethod
    def tearDownClass(cls):
        cls.dev.remove()

    def rauc_state(self):
        return json.loads(self.dev.read("rauc/state.json"))

    def installed_count(self):
        return next(s for s in self.rauc_state()["slots"] if s["name"] == "rootfs.1")["installed_count"]

    def assert_refused(self, path, value, code, message):
        with self.assertRaises(RpcError) as caught:
            self.dev.run(path, value, timeout=60)
        self.assertEqual((caught.exception.code, caught.exception.message), (code, message))

    def test_install_verify_and_switch(self):
        dev = self.dev
        url = "http://images.example/qmx-2.4.0.raucb"
        mark, count = dev.mark(), self.installed_count()
        self.assertIs(dev.run("command/bootImage", url, timeout=60), True)
        self.assertEqual(dev.get("data/installStatus"),
                         "Succsessfully verified the activation of the installation to slot target : secondary")
        status = ["status", "--detailed", "--output-format=shell"]
        self.assertEqual([e["argv"][1:] for e in dev.commands(mark, program="rauc")], [status, ["install", url], status])
        self.assertEqual(self.installed_count(), count + 1)
        self.assertEqual(self.rauc_state()["primary"], "rootfs.1")

        # A bundle that installs but never activates: the counts do not move.
        dev.fail("rauc-install-unverified")
        text = "Failed verified the activation of the installation to slot target : secondary"
        self.assert_refused("command/bootImage", {"pkg": "http://images.example/b.raucb"}, -5, text)
        self.assertEqual(dev.get("data/installStatus"), text)
        self.assertEqual(self.installed_count(), count + 1)

        # The install command itself fails.
        dev.fail("rauc-install")
        self.assert_refused("command/bootImage", url, -5, "Failed Installing to slot target : secondary, error: "
                            "Failed to call: " + NS + "rauc install " + url)
        self.assertEqual(dev.get("data/installStatus"), "Failed Installing to slot target : secondary")

        # "other" in any case flips the primary slot; a version selects the slot that holds it,
        # as does a description (the first one).
        for image, primary in (("Other", "rootfs.0"), ("2.4.0", "rootfs.1"), ("QMX-RB-16E", "rootfs.0")):
            self.assertIs(dev.run("command/switchImage", image), True)
            self.assertEqual(self.rauc_state()["primary"], primary, image)
        self.assert_refused("command/switchImage", "9.9.9", -22, "Failed to find the image with version: 9.9.9")
        dev.fail("rauc-mark-active")
        self.assert_refused("command/switchImage", "other", -5, "Failed to switch image to slot: rootfs.1, error: "
                            "Failed to call: " + NS + "rauc status mark-active rootfs.1")
        # Switching leaves the install status alone.
        self.assertEqual(dev.get("data/installStatus"), "Failed Installing to slot target : secondary")

    def test_extra_package_runs_first(self):
        dev = self.dev
        mark = dev.mark()
        doc = {"pkg": "http://images.example/c.raucb", "extra": "http://images.example/extra.tgz"}
        self.assertIs(dev.run("command/bootImage", json.dumps(doc), timeout=60), True)
        ran = [e["argv"][1:] for e in dev.commands(mark) if e["argv"][0].endswith(("handle_extra_package.sh", "rauc"))]
        self.assertEqual((ran[0], ran[2]), (["--url", "http://images.example/extra.tgz"],
                                            ["install", "http://images.example/c.raucb"]))
        self.assertIn("extra package: done", dev.exec("cat", "/var/persistent/log/upgrade.log").stdout)

        # A failing script ends the operation before anything is installed; its status stays.
        dev.fail("extra-package")
        mark = dev.mark()
        self.assert_refused("command/bootImage", doc, -14,
                            "Failed to execute the upgrade script: extra package failed: injected failure "
                            "(fail/extra-package)\narguments: --url http://images.example/extra.tgz\n")
        self.assertEqual(dev.get("data/installStatus"), "Executing upgrade script")
        self.assertEqual(dev.commands(mark, program="rauc"), [])
        self.assertEqual(dev.sh("ls /tmp | grep -cE '^[0-9a-f]{4}(-[0-9a-f]{4}){3}$'").stdout.strip(), "0")

    def test_urls_that_would_reach_a_shell_are_refused(self):
        dev = self.dev
        mark = dev.mark()
        for url in ("http://x/b.raucb;touch /tmp/canary-1", "http://x/$(touch /tmp/canary-2)",
                    "http://x/`touch /tmp/canary-3`", "http://x/a' && touch /tmp/canary-4 '",
                    "http://x/a\ntouch /tmp/canary-5", "http://x/a\\\"|touch /tmp/canary-6"):
            message = "Failed to install image from url: %s, invalid url." % url
            self.assert_refused("command/bootImage", url, -22, message)
            self.assertEqual(dev.get("data/installStatus"), message)
        extra = "http://x/e.tgz $(touch /tmp/canary-7)"
        self.assert_refused("command/bootImage", {"pkg": "http://x/ok.raucb", "extra": extra}, -22,
                            "Failed to install image from url: %s, invalid url." % extra)
        self.assertEqual(dev.commands(mark, program="rauc"), [])
        self.assertEqual(dev.commands(mark, program="handle_extra_package.sh"), [])
        self.assertEqual(dev.sh("ls /tmp/canary-* 2>/dev/null | wc -l").stdout.strip(), "0")
        self.assert_refused("command/bootImage", {"pkg": 5}, -22, "Invalid document, missing 'pkg' field.")


if __name__ == "__main__":
    dhtest.main()
