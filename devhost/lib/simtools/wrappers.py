"""Logging wrappers around the real nft, redis-server and redis-cli, whose binaries the sandbox
keeps in /usr/libexec/devhost."""

import signal
import subprocess

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
    return run_real("redis-cli", call)
