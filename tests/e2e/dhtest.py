"""Harness of the end-to-end tests: a simulated device (devhost) with the daemon inside, a
JSON-RPC client for the daemon's socket, and helpers to look at the device's state.

    class NtpTest(unittest.TestCase):
        def test_primary_server(self):
            dev = dhtest.Device(self)                  # up now, down at the end of the test
            dev.set("config/ntp/primaryServer", "10.0.0.1")
            ntp = dev.datastore("running")["ietf-system:system"]["ntp"]
            ...

    if __name__ == "__main__":
        dhtest.main()

The tests need root (devhost creates namespaces); without it they are skipped. The daemon is
$DH_DAEMON or build/bin/sysrepo-device-handler; devhost is $DEVHOST or devhost/devhost.
"""

import collections
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(os.path.dirname(HERE))
DEVHOST = os.environ.get("DEVHOST") or os.path.join(REPO, "devhost", "devhost")
FAKE_DAEMON = os.path.join(HERE, "fake_daemon.py")
NSENTER_CMD = "nsenter -m/1/ns/mnt -u/1/ns/uts -i/1/ns/ipc -n/1/ns/net "
SKIP_STATUS = 77
NOT_ROOT = "end-to-end tests need root: they start the simulated device (devhost); run them as root or with sudo"


def require_root():
    if os.geteuid() != 0:
        raise unittest.SkipTest(NOT_ROOT)


def daemon_path():
    """The daemon under test; the test is skipped when it has not been built."""
    path = os.environ.get("DH_DAEMON") or os.path.join(REPO, "build", "bin", "sysrepo-device-handler")
    if not os.access(path, os.X_OK):
        raise unittest.SkipTest("the daemon is not built (%s); build it or set DH_DAEMON" % path)
    return path


def wait_until(condition, timeout=10.0, interval=0.05, message=None):
    """Polls condition() until it returns something true and returns that; fails the test with
    message after timeout seconds."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(message or "condition not met within %.1f s" % timeout)
        time.sleep(interval)


class RpcError(Exception):
    def __init__(self, error):
        super().__init__("%s (%s)" % (error.get("message"), error.get("code")))
        self.code = error.get("code")
        self.message = error.get("message")
        self.data = error.get("data")


def connect_unix(path, timeout):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    sock.settimeout(timeout)
    if len(path.encode()) < 100:
        sock.connect(path)
    else:  # longer than sockaddr_un allows: go through the directory's descriptor
        fd = os.open(os.path.dirname(path), os.O_PATH)
        try:
            sock.connect("/proc/self/fd/%d/%s" % (fd, os.path.basename(path)))
        finally:
            os.close(fd)
    sock.settimeout(None)
    return sock


class Client:
    """A JSON-RPC connection to the daemon. Responses are matched by id; event notifications
    are queued for wait_event."""

    def __init__(self, path, timeout=20.0):
        self.timeout = timeout
        self.sock = connect_unix(path, timeout)
        self.next_id = 1
        self.responses = {}
        self.events = collections.deque()
        self.cond = threading.Condition()
        self.closed = False
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        buf = b""
        try:
            while True:
                chunk = self.sock.recv(65536)
                if not chunk:
                    break
                buf += chunk
                while b"\n" in buf:
                    line, buf = buf.split(b"\n", 1)
                    msg = json.loads(line)
                    with self.cond:
                        if isinstance(msg, dict) and msg.get("method") == "event":
                            self.events.append(msg.get("params"))
                        elif isinstance(msg, dict):
                            self.responses[msg.get("id")] = msg
                        self.cond.notify_all()
        except (OSError, ValueError):
            pass
        with self.cond:
            self.closed = True
            self.cond.notify_all()

    def send_raw(self, data):
        self.sock.sendall(data if isinstance(data, bytes) else data.encode())

    def call(self, method, params=None, timeout=None):
        """Sends one request and returns its result; raises RpcError for an error answer."""
        with self.cond:
            rid = self.next_id
            self.next_id += 1
        request = {"jsonrpc": "2.0", "id": rid, "method": method}
        if params is not None:
            request["params"] = params
        self.send_raw(json.dumps(request) + "\n")
        deadline = time.monotonic() + (timeout or self.timeout)
        with self.cond:
            while rid not in self.responses:
                left = deadline - time.monotonic()
                if self.closed or left <= 0:
                    raise TimeoutError("no answer to %s %s" % (method, params))
                self.cond.wait(left)
            msg = self.responses.pop(rid)
        if "error" in msg:
            raise RpcError(msg["error"])
        return msg.get("result")

    def get(self, path):
        return self.call("get", {"path": path})

    def set(self, path, value):
        return self.call("set", {"path": path, "value": value})

    def run(self, path, value=None, timeout=None):
        return self.call("run", {"path": path, "value": value}, timeout)

    def subscribe(self, path):
        return self.call("subscribe", {"path": path})

    def unsubscribe(self, path):
        return self.call("unsubscribe", {"path": path})

    def info(self, path):
        return self.call("info", {"path": path})

    def list(self, prefix=""):
        return self.call("list", {"path": prefix})

    def history(self, limit=100):
        return self.call("history", {"limit": limit})

    def wait_event(self, path=None, predicate=None, timeout=10.0):
        """Returns (and removes) the first queued event of path that satisfies predicate(value),
        waiting for it until timeout."""
        deadline = time.monotonic() + timeout
        with self.cond:
            while True:
                for event in list(self.events):
                    if (path is None or event.get("path") == path) and (predicate is None or predicate(event.get("value"))):
                        self.events.remove(event)
                        return event
                left = deadline - time.monotonic()
                if left <= 0 or self.closed:
                    raise AssertionError("no event for %s within %.1f s" % (path, timeout))
                self.cond.wait(left)

    def close(self):
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.sock.close()
        self.reader.join(2)


class DevhostError(AssertionError):
    pass


class Device:
    """One simulated device with a daemon inside.

    Everything given is written into DIR/sim before `up`: startup (a configuration document,
    which the running datastore copies at up), sim_files ({path under DIR/sim: text or JSON
    value}), files ({path in the device: text}, copied over the device's files) and fail
    ({fault name: count or "always"}). env and daemon_args go to the daemon. The device comes up
    at once unless up=False; with a test case it goes down and is removed when the test ends
    (otherwise call remove())."""

    def __init__(self, test=None, startup=None, sim_files=None, files=None, fail=None, env=None,
                 daemon_args=(), daemon=None, up=True):
        require_root()
        self.daemon = daemon or daemon_path()
        self.dir = tempfile.mkdtemp(prefix="dh-e2e-")
        self.sim = os.path.join(self.dir, "sim")
        self.socket_path = os.path.join(self.sim, "sock", "sysrepo", "dh.sock")
        self.env = dict(env or {})
        self.daemon_args = list(daemon_args)
        self._client = None
        self.is_up = False
        if startup is not None:
            self.write("datastore/startup.json", startup)
        for rel, content in (sim_files or {}).items():
            self.write(rel, content)
        for path, content in (files or {}).items():
            self.write(os.path.join("files", path.lstrip("/")), content)
        for name, count in (fail or {}).items():
            self.fail(name, count)
        if test is not None:
            test.addCleanup(self.remove)
        if up:
            self.up()

    def path(self, *parts):
        return os.path.join(self.sim, *parts)

    def write(self, rel, content):
        """Writes a file under DIR/sim; a value that is not text is written as JSON."""
        path = self.path(rel)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w") as f:
            f.write(content if isinstance(content, str) else json.dumps(content, indent=2) + "\n")

    def read(self, rel, default=None):
        try:
            with open(self.path(rel)) as f:
                return f.read()
        except FileNotFoundError:
            return default

    def devhost(self, *args, check=True, input=None, timeout=60):
        env = dict(os.environ, DH_DAEMON=self.daemon)
        r = subprocess.run([DEVHOST] + list(args), input=input, capture_output=True, text=True,
                           env=env, timeout=timeout)
        if check and r.returncode != 0:
            raise DevhostError("devhost %s failed (%d): %s" % (args[0], r.returncode, r.stderr.strip()))
        return r

    def up_args(self):
        args = []
        for name, value in self.env.items():
            args += ["-e", "%s=%s" % (name, value)]
        return args + ["--"] + self.daemon_args

    def up(self):
        self.devhost("up", self.dir, *self.up_args())
        self.is_up = True

    def down(self):
        self.close_client()
        if self.is_up:
            self.devhost("down", self.dir)
            self.is_up = False

    def restart(self):
        """down and up with the same arguments; the datastores and DIR/sim stay."""
        self.close_client()
        self.devhost("restart", self.dir)
        self.is_up = True

    def remove(self):
        try:
            self.down()
        finally:
            shutil.rmtree(self.dir, ignore_errors=True)

    # The daemon's socket.
    @property
    def client(self):
        if self._client is None:
            self._client = Client(self.socket_path)
        return self._client

    def connect(self):
        """A further connection of its own (for subscriptions apart from the main client)."""
        return Client(self.socket_path)

    def close_client(self):
        if self._client is not None:
            self._client.close()
            self._client = None

    def call(self, method, params=None, timeout=None):
        return self.client.call(method, params, timeout)

    def get(self, path):
        return self.client.get(path)

    def set(self, path, value):
        return self.client.set(path, value)

    def run(self, path, value=None, timeout=None):
        return self.client.run(path, value, timeout)

    def subscribe(self, path):
        return self.client.subscribe(path)

    def wait_event(self, path=None, predicate=None, timeout=10.0):
        return self.client.wait_event(path, predicate, timeout)

    # The device's state.
    def datastore(self, name):
        """A datastore document (running, startup, operational, factory-default)."""
        text = self.read(os.path.join("datastore", name + ".json"))
        return json.loads(text) if text and text.strip() else {}

    def write_datastore(self, name, doc):
        self.write(os.path.join("datastore", name + ".json"), doc)

    def fail(self, name, count=1):
        """Makes the step NAME fail for its next count runs ("always": every run)."""
        self.write(os.path.join("fail", name), "%s\n" % count)

    def mark(self):
        """A position in commands.log; commands(since=mark) gives what ran after it."""
        return len(self.commands())

    def commands(self, since=0, program=None):
        """Entries of commands.log after position since; program keeps those whose argv[0]
        ends with that name."""
        text = self.read(os.path.join("log", "commands.log"), "")
        entries = [json.loads(line) for line in text.splitlines() if line.strip()][since:]
        if program is not None:
            entries = [e for e in entries if e["argv"] and os.path.basename(e["argv"][0]) == program]
        return entries

    def wait_command(self, predicate, since=0, timeout=10.0):
        """Waits for a commands.log entry after since that satisfies predicate(entry)."""
        def found():
            return next((e for e in self.commands(since) if predicate(e)), None)
        return wait_until(found, timeout, message="no matching command in commands.log within %.1f s" % timeout)

    def log(self):
        """The daemon's standard output and error so far."""
        return self.read(os.path.join("log", "daemon.log"), "")

    def exec(self, *argv, input=None):
        """Runs a command inside the device; returns the CompletedProcess (text mode)."""
        return self.devhost("exec", self.dir, "--", *argv, check=False, input=input)

    def sh(self, command, input=None):
        """Runs a shell command text inside the device, as the daemon's system() would."""
        return self.exec("/bin/sh", "-c", command, input=input)


def main():
    """Entry of an end-to-end test file: exits with status 77 (skipped) when not root."""
    if os.geteuid() != 0:
        sys.stderr.write("SKIP: %s\n" % NOT_ROOT)
        sys.exit(SKIP_STATUS)
    unittest.main()
