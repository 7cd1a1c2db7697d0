"""Logging wrappers around the real nft, redis-server and redis-cli, whose binaries the sandbox
keeps in /usr/libexec/devhost."""

import os
import signal
import subprocess
import time

from .common import injected

REAL = "/usr/libexec/devhost"


def run_real(name, call, stdin_text=None):
    """Runs the real tool with the caller's arguments and returns its exit status, 128 + N when
    signal N ended it (as a shell reports it). Termination signals sent to the wrapper are passed
    on, so stopping the wrapper stops the tool."""
    stdin = subprocess.PIPE if stdin_text is not None else None
    child = subprocess.Popen([call.argv[0]] + call.args, executable=REAL + "/" + name, stdin=stdin)

    def forward(signum, _frame):
        try:
            child.send_signal(signum)
        except ProcessLookupError:
            pass

    for signum in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT):
        signal.signal(signum, forward)
    if stdin_text is not None:
        child.communicate(stdin_text.encode("utf-8"))
    status = child.wait()
    return 128 - status if status < 0 else status


def nft(call):
    injected("nft", "nft")
    args = call.args
    reads_stdin = any(a in ("-f", "--file") and args[i + 1:i + 2] in (["-"], ["/dev/stdin"])
                      for i, a in enumerate(args))
    text = call.read_stdin() if reads_stdin else None
    return run_real("nft", call, text)


def redis_server(call):
    return run_real("redis-server", call)


def redis_cli(call):
    status = run_real("redis-cli", call)
    command, address = cli_command(call.args)
    if status == 0 and command.lower() == "bgrewriteaof":
        write_single_file_aof(address)
    return status


# redis-cli options that take a value: the ones that address the store, and the others.
CLI_ADDRESS_OPTIONS = {"-h", "-p", "-s", "-a", "-u", "--user", "--pass"}
CLI_VALUE_OPTIONS = CLI_ADDRESS_OPTIONS | {"-n", "-r", "-i", "-d", "-D"}


def cli_command(args):
    """The command name of a redis-cli call and the options that address the store."""
    address = []
    i = 0
    while i < len(args) and args[i].startswith("-"):
        if args[i] in CLI_ADDRESS_OPTIONS:
            address += args[i:i + 2]
        i += 2 if args[i] in CLI_VALUE_OPTIONS else 1
    return (args[i] if i < len(args) else ""), address


def write_single_file_aof(address, timeout=10):
    """The device's redis keeps its append-only file as one file, <dir>/<appendfilename>, which
    the deepest factory reset copies; redis 7 keeps a directory of parts listed in a manifest.
    Once the rewrite is over, the parts are joined into that one file (base, then increments):
    redis 7 reads such a file at its next start when no part directory exists."""
    def query(*command):
        return subprocess.run([REAL + "/redis-cli"] + address + list(command), capture_output=True,
                              text=True, timeout=5).stdout.split()

    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        info = query("INFO", "persistence")
        if "aof_rewrite_in_progress:0" in info and "aof_rewrite_scheduled:0" in info:
            break
        time.sleep(0.02)
    else:
        return
    config = query("CONFIG", "GET", "dir", "appenddirname", "appendfilename")
    config = dict(zip(config[::2], config[1::2]))
    parts = os.path.join(config["dir"], config["appenddirname"])
    try:
        with open(os.path.join(parts, config["appendfilename"] + ".manifest")) as f:
            manifest = [line.split() for line in f]
    except FileNotFoundError:
        return
    files = [m[1] for m in manifest if m[-1] == "b"] + [m[1] for m in manifest if m[-1] == "i"]
    target = os.path.join(config["dir"], config["appendfilename"])
    with open(target + ".tmp", "wb") as out:
        for name in files:
            with open(os.path.join(parts, name), "rb") as part:
                out.write(part.read())
    os.replace(target + ".tmp", target)
