"""dhctl for people against a daemon in the simulated device: units after numbers, the live
table of `watch --table`, the versions of both programs, several PATH VALUE pairs and confirmed
commits, and the bash completion of commands, options and node paths (from the daemon's list,
cached for a few seconds per user)."""

import os
import re
import shutil
import signal
import subprocess
import tempfile
import threading
import time
import unittest

import dhtest
from dhtest import Device, wait_until

DHCTL = os.environ.get("DHCTL") or os.path.join(dhtest.REPO, "build", "bin", "dhctl")
COMPLETION = os.path.join(dhtest.REPO, "client", "dhctl-completion.bash")


class DhctlTest(unittest.TestCase):
    def setUp(self):
        self.dev = Device(self)
        self.env = dict(os.environ, DH_SOCKET=self.dev.socket_path)

    def dhctl(self, *args):
        r = subprocess.run([DHCTL] + list(args), env=self.env, capture_output=True, text=True, timeout=30)
        self.assertEqual(r.returncode, 0, r.stderr)
        return r.stdout

    def test_units_versions_and_live_table(self):
        def rx_power():  # refused until the first poll
            try:
                return self.dev.get("data/e13/sfp/rxPower")
            except dhtest.RpcError:
                return None

        wait_until(lambda: rx_power() == -3.98, timeout=6)
        self.assertEqual(self.dhctl("get", "data/e13/sfp/rxPower"), "-3.98 dBm\n")
        self.assertEqual(self.dhctl("--json", "get", "data/e13/sfp/rxPower"), "-3.98\n")

        version = self.dhctl("--version")
        self.assertRegex(version, r"^dhctl \d+\.\d+\.\d+\n$")
        daemon = self.dev.exec("/usr/bin/sysrepo-device-handler", "--version")
        self.assertEqual((daemon.returncode, daemon.stdout), (0, version.replace("dhctl", "sysrepo-device-handler")))

        # Not on a terminal, the table is printed anew after each change.
        watcher = subprocess.Popen([DHCTL, "watch", "--table", "data/e13/sfp/rxPower", "data/configStatus"],
                                   env=self.env, stdout=subprocess.PIPE, text=True)
        self.addCleanup(watcher.stdout.close)
        self.addCleanup(watcher.kill)
        lines = []
        threading.Thread(target=lambda: lines.extend(line.rstrip("\n") for line in watcher.stdout),
                         daemon=True).start()
        row = re.compile(r"^data/e13/sfp/rxPower +(\S+ dBm) +\d\d:\d\d:\d\d\.\d{3}$")
        values = lambda: [m.group(1) for m in map(row.match, lines) if m]
        wait_until(lambda: values() == ["-3.98 dBm"], timeout=5)
        module = self.dev.read("sfp/e13.txt")
        self.dev.write("sfp/e13.txt", module.replace("-3.98 dBm", "-9.00 dBm"))
        wait_until(lambda: values() == ["-3.98 dBm", "-9.0 dBm"], timeout=8, message=repr(lines))
        self.assertEqual(lines[3], "")
        watcher.send_signal(signal.SIGTERM)
        self.assertEqual(watcher.wait(timeout=5), 0)

    def test_several_pairs_and_confirmed_commits(self):
        mark = self.dev.mark()
        self.assertEqual(self.dhctl("set", "config/ntp/primaryServer", "198.51.100.1",
                                    "config/ospf/e4/metric", "20"), "")
        self.assertEqual((dhtest.datastore_runs(self.dev, mark), self.dev.get("config/ospf/e4/metric")), ((1, 2), 20))

        token = self.dhctl("--confirm", "60", "set", "config/ntp/secondaryServer", "198.51.100.2").strip()
        self.assertRegex(token, "^[0-9a-f]{32}$")
        self.assertEqual(self.dhctl("confirm", token), "")
        self.assertEqual(self.dev.get("data/commitStatus")["state"], "confirmed")
        self.assertEqual(self.dev.get("config/ntp/secondaryServer"), "198.51.100.2")

        for usage in (["set", "config/ntp/primaryServer", "1.1.1.1", "config/ospf/e4/metric"],
                      ["--confirm", "0", "set", "config/ntp/primaryServer", "1.1.1.1"],
                      ["--confirm", "5", "get", "config/ntp/primaryServer"]):
            r = subprocess.run([DHCTL] + usage, env=self.env, capture_output=True, text=True, timeout=30)
            self.assertEqual(r.returncode, 2, usage)

    def test_completion(self):
        cache_home = tempfile.mkdtemp(prefix="dhctl-completion-")
        self.addCleanup(shutil.rmtree, cache_home)
        env = dict(self.env, XDG_CACHE_HOME=cache_home,
                   PATH=os.path.dirname(os.path.realpath(DHCTL)) + ":" + os.environ["PATH"])

        def complete(line, socket=None):
            words = line.split(" ")
            script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); '
                      '_dhctl; printf "%s\\n" "${COMPREPLY[@]}"')
            e = dict(env, DH_SOCKET=socket or self.dev.socket_path)
            r = subprocess.run(["bash", "--norc", "--noprofile", "-c", script, "bash", COMPLETION] + words,
                               env=e, capture_output=True, text=True, timeout=30)
            self.assertEqual(r.stderr, "")
            return sorted(w for w in r.stdout.split("\n") if w)

        self.assertEqual(complete("dhctl h"), ["help", "history"])
        self.assertEqual(complete("dhctl get data/e13/sfp/rx"),
                         ["data/e13/sfp/rxPower", "data/e13/sfp/rxPowerLowWarningThreshold"])
        self.assertEqual(complete("dhctl watch data/e13/sfp/rxPower data/e14/sfp/tx"), ["data/e14/sfp/txPower"])
        # A set takes PATH VALUE pairs: values are not completed from the tree, paths are.
        self.assertEqual(complete("dhctl set config/ntp/adminStatus conf"), [])
        self.assertEqual(complete("dhctl set config/ntp/adminStatus up config/ntp/pri"),
                         ["config/ntp/primaryServer"])
        self.assertEqual(complete("dhctl get ", socket=self.dev.path("sock", "nothing.sock")), [])

        # The list just fetched is used for a few seconds, then asked for again.
        cache_dir = os.path.join(cache_home, "dhctl")
        self.assertEqual(oct(os.stat(cache_dir).st_mode & 0o777), "0o700")
        [cache] = [os.path.join(cache_dir, f) for f in os.listdir(cache_dir)]
        with open(cache, "w") as f:
            f.write("data/cachedOnly\n")
        self.assertEqual(complete("dhctl get data/cac"), ["data/cachedOnly"])
        old = time.time() - 11
        os.utime(cache, (old, old))
        self.assertEqual(complete("dhctl get data/cac"), [])
        self.assertEqual(complete("dhctl get data/configS"), ["data/configStatus"])

        # --socket on the line picks the daemon, whatever DH_SOCKET says.
        self.assertEqual(complete("dhctl --socket %s ls config/ospf/are" % self.dev.socket_path,
                                  socket="/nonexistent"), ["config/ospf/areaId"])


if __name__ == "__main__":
    dhtest.main()
