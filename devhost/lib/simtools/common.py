"""Shared pieces of the simulated host tools: the device state under /sim, the command log
and fault injection. Everything here runs inside the sandbox."""

import fcntl
import json
import os
import sys
import time

SIM = os.environ.get("DEVHOST_SIM", "/sim")
COMMANDS_LOG = os.path.join(SIM, "log", "commands.log")
FAIL_DIR = os.path.join(SIM, "fail")
SLOW_DIR = os.path.join(SIM, "slow")


def sim_path(*parts):
    return os.path.join(SIM, *parts)


def read_text(path, default=None):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read()
    except FileNotFoundError:
        return default


def write_atomic(path, text):
    """Replaces a file in one step, so a concurrent reader sees the old or the new text."""
    tmp = "%s.tmp.%d" % (path, os.getpid())
    with open(tmp, "w", encoding="utf-8") as f:
        f.write(text)
    os.replace(tmp, path)


class Locked:
    """An flock on a lock file, held for a with-block."""

    def __init__(self, path, exclusive=True):
        self.path = path
        self.mode = fcntl.LOCK_EX if exclusive else fcntl.LOCK_SH

    def __enter__(self):
        os.makedirs(os.path.dirname(self.path), exist_ok=True)
        self.fd = os.open(self.path, os.O_RDWR | os.O_CREAT, 0o644)
        fcntl.flock(self.fd, self.mode)
        return self

    def __exit__(self, *exc):
        os.close(self.fd)


def log_command(argv, stdin, status):
    """Appends one line to commands.log: one write() on an O_APPEND descriptor under an flock,
    so lines of tools that end at the same time never interleave."""
    entry = {"time": time.time(), "argv": list(argv), "stdin": stdin, "status": status}
    line = (json.dumps(entry, ensure_ascii=False) + "\n").encode("utf-8")
    os.makedirs(os.path.dirname(COMMANDS_LOG), exist_ok=True)
    fd = os.open(COMMANDS_LOG, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        os.write(fd, line)
    finally:
        os.close(fd)


def should_fail(name):
    """True when fail/NAME asks this run to fail. A count goes down by one per failed run and the
    file is removed at 0; the word "always" never runs out."""
    path = os.path.join(FAIL_DIR, name)
    if not os.path.exists(path):
        return False
    with Locked(os.path.join(FAIL_DIR, ".lock")):
        text = read_text(path)
        if text is None:
            return False
        text = text.strip()
        if text == "always":
            return True
        try:
            count = int(text)
        except ValueError:
            count = 0
        if count <= 0:
            os.unlink(path)
            return False
        if count == 1:
            os.unlink(path)
        else:
            write_atomic(path, "%d\n" % (count - 1))
        return True


def slow_down(name):
    """Waits as long as slow/NAME asks (seconds, fractions allowed) before the tool does its work,
    so that benchmarks can give one host tool the latency of a slow device."""
    text = read_text(os.path.join(SLOW_DIR, name))
    try:
        seconds = float(text) if text is not None else 0.0
    except ValueError:
        seconds = 0.0
    if seconds > 0:
        time.sleep(seconds)


class ToolExit(Exception):
    """Ends a tool with an exit status, after an optional one-line message on standard error."""

    def __init__(self, status, message=None):
        super().__init__(message)
        self.status = status
        self.message = message


def injected(tool, name):
    """Raises the failure that fail/NAME injects, if it does."""
    if should_fail(name):
        raise ToolExit(1, "%s: injected failure (fail/%s)" % (tool, name))


class Call:
    """One run of a tool: its argument vector as called, the standard input it consumed and the
    output it produced."""

    def __init__(self, argv):
        self.argv = argv
        self.args = argv[1:]
        self.stdin = None

    def read_stdin(self):
        data = sys.stdin.buffer.read()
        self.stdin = data.decode("utf-8", errors="replace")
        return self.stdin

    @staticmethod
    def out(text):
        sys.stdout.write(text)

    @staticmethod
    def err(text):
        sys.stderr.write(text if text.endswith("\n") else text + "\n")


def run_tool(func, argv, name):
    """Runs one tool function with logging: the log line is written when the tool ends, with the
    status it ends with. slow/NAME delays the tool first."""
    call = Call(argv)
    try:
        slow_down(name)
        status = func(call) or 0
    except ToolExit as e:
        if e.message:
            call.err(e.message)
        status = e.status
    except BrokenPipeError:
        status = 141
    except Exception as e:  # a fault of the simulation itself: report it like a failing tool
        call.err("%s: devhost tool error: %s" % (os.path.basename(argv[0]), e))
        status = 70
    try:
        sys.stdout.flush()
    except BrokenPipeError:
        pass
    log_command(argv, call.stdin, status)
    return status
