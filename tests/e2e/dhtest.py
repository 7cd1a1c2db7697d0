"""Harness of the end-to-end tests: a simulated device (devhost) with the daemon inside, a
JSON-RPC client for the daemon's socket, and helpers to look at the device's state (see
docs/devhost.md). The tests need root; without it they are skipped."""

import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
DEVHOST = os.environ.get("DEVHOST") or os.path.join(REPO, "devhost", "devhost")
FAKE_DAEMON = os.path.join(HERE, "fake_daemon.py")
NSENTER_CMD = "nsenter -m/1/ns/mnt -u/1/ns/uts -i/1/ns/ipc -n/1/ns/net "
NOT_ROOT = "end-to-end tests need root: they start the simulated device (devhost)"
SANITIZER_MARKERS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer",
                     "runtime error:")


def wait_until(condition, timeout=10.0, message=None):
    """Polls condition() until it returns something true and returns that; fails after timeout s."""
    deadline = time.monotonic() + timeout
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise AssertionError(message or "condition not met within %.1f s" % timeout)
        time.sleep(0.05)
    return value


def datastore_runs(dev, since):
    """(exports of running or startup, imports) among the sysrepocfg runs after since."""
    exports = imports = 0
    for e in dev.commands(since, program="sysrepocfg"):
        argv = e["argv"]
        ds = argv[argv.index("-d") + 1] if "-d" in argv else ""
        exports += "--export" in argv and ds in ("running", "startup")
        imports += "--import" in argv
    return exports, imports


class RpcError(Exception):
    def __init__(self, error):
        super().__init__("%s (%s)" % (error.get("message"), error.get("code")))
        self.code, self.message, self.data = error.get("code"), error.get("message"), error.get("data")


class Client:
    """A JSON-RPC connection to the daemon; events that arrive while a call waits are queued."""

    def __init__(self, path, timeout=20.0):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.connect(path)
        self.timeout, self.next_id, self.buf, self.events = timeout, 0, b"", []

    def _receive(self, deadline, what):
        while b"\n" not in self.buf:
            left = deadline - time.monotonic()
            if left <= 0:
                raise AssertionError("%s in time" % what)
            self.sock.settimeout(left)
            try:
                chunk = self.sock.recv(65536)
            except TimeoutError:
                continue
            if not chunk:
                raise AssertionError("%s: connection closed" % what)
            self.buf += chunk
        line, self.buf = self.buf.split(b"\n", 1)
        msg = json.loads(line)
        if msg.get("method") == "event":
            self.events.append(msg["params"])
        return msg

    def call(self, method, params, timeout=None):
        """Sends one request and returns its result; raises RpcError for an error answer."""
        self.next_id += 1
        self.sock.settimeout(self.timeout)
        request = {"jsonrpc": "2.0", "id": self.next_id, "method": method, "params": params}
        self.sock.sendall((json.dumps(request) + "\n").encode())
        deadline = time.monotonic() + (timeout or self.timeout)
        msg = {}
        while msg.get("id") != self.next_id:
            msg = self._receive(deadline, "no answer to %s %s" % (method, params))
        if "error" in msg:
            raise RpcError(msg["error"])
        return msg["result"]

    def get(self, path):
        return self.call("get", {"path": path})

    def set(self, path, value):
        return self.call("set", {"path": path, "value": value})

    def run(self, path, value=None, timeout=None):
        return self.call("run", {"path": path, "value": value}, timeout)

    def subscribe(self, path):
        return self.call("subscribe", {"path": path})

    def error(self, method, path, value=None, timeout=None):
        """(code, message) of a refused set or run; None when it was accepted."""
        try:
            self.call(method, {"path": path, "value": value}, timeout)
        except RpcError as e:
            return e.code, e.message
        return None

    def wait_event(self, path, predicate=lambda value: True, timeout=10.0):
        """Removes and returns the first event of path whose value satisfies predicate."""
        deadline = time.monotonic() + timeout
        while True:
            event = next((e for e in self.events if e["path"] == path and predicate(e["value"])), None)
            if event is not None:
                self.events.remove(event)
                return event
            self._receive(deadline, "no event for %s" % path)


class Device:
    """One simulated device with a daemon inside; sim_files ({path under DIR/sim: text or JSON})
    are written before `up`. With a test case it is removed when the test ends. Methods it lacks
    are its main client's: dev.get()."""

    def __init__(self, test=None, sim_files=None, env=None, daemon_args=(), daemon=None, up=True):
        if os.geteuid() != 0:
            raise unittest.SkipTest(NOT_ROOT)
        self.daemon = daemon or os.environ.get("DH_DAEMON") or os.path.join(
            REPO, "build", "bin", "sysrepo-device-handler")
        if daemon is None and not os.access(self.daemon, os.X_OK):
            raise unittest.SkipTest("the daemon is not built (%s); set DH_DAEMON" % self.daemon)
        self.dir = tempfile.mkdtemp(prefix="dh-e2e-")
        self.socket_path = self.path("sock", "sysrepo", "dh.sock")
        env_args = [arg for item in (env or {}).items() for arg in ("-e", "%s=%s" % item)]
        self.up_args = env_args + ["--"] + list(daemon_args)
        self._client = None
        for rel, content in (sim_files or {}).items():
            self.write(rel, content)
        if test is not None:
            test.addCleanup(self.remove)
        if up:
            self.up()

    def __getattr__(self, name):
        if name.startswith("_"):
            raise AttributeError(name)
        return getattr(self.client, name)

    def path(self, *parts):
        return os.path.join(self.dir, "sim", *parts)

    def write(self, rel, content):
        os.makedirs(os.path.dirname(self.path(rel)), exist_ok=True)
        with open(self.path(rel), "w") as f:
            f.write(content if isinstance(content, str) else json.dumps(content, indent=2) + "\n")

    def read(self, rel, default=None):
        try:
            with open(self.path(rel)) as f:
                return f.read()
        except FileNotFoundError:
            return default

    def devhost(self, command, *args, check=True, input=None):
        r = subprocess.run([DEVHOST, command, self.dir, *args], input=input, capture_output=True,
                           text=True, env=dict(os.environ, DH_DAEMON=self.daemon), timeout=60)
        if check and r.returncode != 0:
            raise AssertionError("devhost %s failed (%d): %s" % (command, r.returncode, r.stderr.strip()))
        return r

    def up(self, check=True):
        return self.devhost("up", *self.up_args, check=check)

    def down(self):
        self.close_client()
        self.devhost("down", check=False)
        self.check_sanitizers("log/daemon.log")

    def restart(self):
        """down and up with the same arguments; the datastores and DIR/sim stay."""
        self.close_client()
        self.devhost("restart")
        self.check_sanitizers("log/daemon.log.1")  # the stopped daemon's log, rotated at up

    def check_sanitizers(self, rel):
        """Fails when a sanitized daemon reported a fault: the daemon may have kept answering."""
        text = self.read(rel, "")
        found = next((m for m in SANITIZER_MARKERS if m in text), None)
        if found:
            start = text.index(found)
            raise AssertionError("sanitizer report in %s:\n%s" % (rel, text[start:start + 4000]))

    def remove(self):
        try:
            self.down()
        finally:
            shutil.rmtree(self.dir, ignore_errors=True)

    @property
    def client(self):
        if self._client is None:
            self._client = Client(self.socket_path)
        return self._client

    def connect(self):
        """A further connection (for subscriptions apart from the main client)."""
        return Client(self.socket_path)

    def close_client(self):
        if self._client is not None:
            self._client.sock.close()
            self._client = None

    def datastore(self, name):
        text = self.read("datastore/%s.json" % name)
        return json.loads(text) if text and text.strip() else {}

    def fail(self, name, count=1):
        """Makes the step NAME fail for its next count runs ("always": every run)."""
        self.write("fail/" + name, "%s\n" % count)

    def slow(self, name, seconds):
        """Makes every run of the tool NAME wait that many seconds first."""
        self.write("slow/" + name, "%s\n" % seconds)

    def mark(self):
        """A position in commands.log; commands(since=mark) gives what ran after it."""
        return len(self.commands())

    def commands(self, since=0, program=None):
        """commands.log entries after since; program keeps those whose argv[0] ends with that name."""
        lines = self.read("log/commands.log", "").splitlines()
        entries = [json.loads(line) for line in lines if line.strip()][since:]
        return [e for e in entries if program is None or os.path.basename(e["argv"][0]) == program]

    def log(self):
        return self.read("log/daemon.log", "")

    def exec(self, *argv, input=None):
        """Runs a command inside the device; returns the CompletedProcess (text mode)."""
        return self.devhost("exec", "--", *argv, check=False, input=input)

    def sh(self, command, input=None):
        return self.exec("/bin/sh", "-c", command, input=input)


def main():
    """Entry of an end-to-end test file: exits with status 77 (skipped) when not root."""
    if os.geteuid() != 0:
        sys.stderr.write("SKIP: %s\n" % NOT_ROOT)
        sys.exit(77)
    unittest.main()
