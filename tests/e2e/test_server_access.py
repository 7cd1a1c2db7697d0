"""Remote access to the daemon in the simulated device: dhctl over TLS with client certificates
and roles, the audit trail, the connection budgets, and log lines that client text cannot
forge. Certificates are made for each run with tests/tools/make-test-certs.sh."""

import json
import os
import shutil
import subprocess
import unittest

import dhtest
from dhtest import DEVHOST, REPO, Device, wait_until

DHCTL = os.environ.get("DHCTL") or os.path.join(REPO, "build", "bin", "dhctl")
MAKE_CERTS = os.path.join(REPO, "tests", "tools", "make-test-certs.sh")
ROLES = {"certificates": {"CN=monitor,O=Test": "monitor", "CN=operator,O=Test": "operator",
                          "CN=admin,O=Test": "admin"}}
TLS_ARGS = ["-p", "9711", "--tls-port", "9712", "--tls-cert", "/sim/certs/server.pem",
            "--tls-key", "/sim/certs/server.key", "--tls-client-ca", "/sim/certs/ca.pem",
            "--roles", "/sim/roles.json"]

# Opens N TCP connections that never send a byte, says "ready", and holds them until stdin ends;
# then reports what one more connection was answered.
HOLD = r"""
import resource, socket, sys
soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
held = [socket.create_connection(("127.0.0.1", 9711)) for _ in range(int(sys.argv[1]))]
extra = socket.create_connection(("127.0.0.1", 9711))
extra.settimeout(10)
print(extra.recv(4096).decode().strip(), flush=True)
print("ready", flush=True)
sys.stdin.read()
"""

# A TLS client without a certificate: prints what became of its request.
NO_CERT = r"""
import socket, ssl
ctx = ssl.create_default_context(cafile="/sim/certs/ca.pem")
try:
    with socket.create_connection(("127.0.0.1", 9712)) as raw:
        with ctx.wrap_socket(raw, server_hostname="localhost") as s:
            s.sendall(b'{"jsonrpc":"2.0","id":1,"method":"get","params":{"path":"data/fwVersion"}}\n')
            print("answer:", s.recv(4096))
except (ssl.SSLError, OSError) as e:
    print("refused:", type(e).__name__)
"""


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

        # The change names its author in the history and, once, in the audit log.
        entry = [e for e in dev.call("history", {"limit": 1000}) if e["path"] == "config/ospf/areaId"][-1]
        self.assertEqual(entry["who"], "CN=operator,O=Test")
        audit = [line for line in dev.log().splitlines() if "[audit]" in line and "areaId" in line]
        self.assertEqual(len(audit), 1, audit)
        self.assertIn("CN=operator,O=Test set config/ospf/areaId: done", audit[0])

        r = dev.exec("python3", "-c", NO_CERT)
        self.assertIn("refused:", r.stdout, r.stdout + r.stderr)
        # The plain port is open by default; its clients are monitors under a role file.
        self.assertIn("is open: clients there are not authenticated", dev.log())

    def test_idle_tcp_connections_leave_the_unix_socket_answering(self):
        dev = Device(self, daemon_args=["-p", "9711", "--max-per-address", "5000"])
        hold = subprocess.Popen([DEVHOST, "exec", dev.dir, "--", "python3", "-c", HOLD, "1000"],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        try:
            refusal = hold.stdout.readline()
            self.assertEqual(json.loads(refusal)["error"],
                             {"code": -32000, "message": "Too many connections"})
            self.assertEqual(hold.stdout.readline(), "ready\n")
            self.assertEqual(dev.get("data/fwVersion"), "2.3.1")
            other = dev.connect()
            self.addCleanup(other.sock.close)
            self.assertIs(other.get("data/configStatus"), True)
        finally:
            hold.stdin.close()
            hold.wait(timeout=60)
            hold.stdout.close()

    def test_client_text_cannot_forge_log_lines(self):
        dev = Device(self, daemon_args=["-p", "9711"])
        forged = "x\n2026-11-23T08:00:00.000Z critical [server] FORGED\x00\x1b[2J"
        self.assertEqual(dev.error("set", "config/automationMode", forged)[0], -22)
        log = dev.log()
        self.assertNotIn("\x00", log)
        self.assertNotIn("\x1b", log)
        # The refusal and its audit record each carry the text, escaped, inside their own line.
        lines = [line for line in log.splitlines() if "FORGED" in line]
        self.assertEqual(len(lines), 2, lines)
        escaped = "x\\n2026-11-23T08:00:00.000Z critical [server] FORGED\\x00\\x1b[2J"
        self.assertIn("Invalid automation mode: " + escaped, lines[0])
        self.assertIn("set config/automationMode: failed: Invalid automation mode: " + escaped,
                      lines[1])
        self.assertFalse(any(line.startswith("2026-11-23T08:00:00") for line in log.splitlines()))


if __name__ == "__main__":
    dhtest.main()
