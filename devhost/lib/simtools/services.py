"""/etc/init.d/redis-server: the init script of the configuration store on port 50001."""

import subprocess
import time

from .common import injected, sim_path

REAL = "/usr/libexec/devhost"


def init_redis_server(call):
    """/etc/init.d/redis-server: `stop` also shuts the store on port 50001 down, `start` starts
    it again (through the logging wrapper, as the device's init would)."""
    injected("redis-server", "redis-server")
    action = call.args[0] if call.args else ""
    if action in ("stop", "restart", "force-reload"):
        subprocess.run([REAL + "/redis-cli", "-p", "50001", "shutdown"],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 5
        while time.monotonic() < deadline and store_answers():
            time.sleep(0.05)
    if action in ("start", "restart", "force-reload") and not store_answers():
        start_store()
        deadline = time.monotonic() + 5
        while time.monotonic() < deadline and not store_answers():
            time.sleep(0.05)
    return 0


def store_answers():
    return subprocess.run([REAL + "/redis-cli", "-p", "50001", "ping"], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL).returncode == 0


def start_store():
    """Starts the store on port 50001 in the background, output to /sim/log/redis.log."""
    log = open(sim_path("log", "redis.log"), "ab")
    subprocess.Popen(["redis-server", "/etc/redis/50001.conf"], stdin=subprocess.DEVNULL,
                     stdout=log, stderr=log, start_new_session=True, close_fds=True)
