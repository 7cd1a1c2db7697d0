"""The small simulated tools: chronyc, lldpctl, klish, ethtool, the init scripts, reboot and
factory, and the maintenance scripts."""

import datetime
import json
import os
import subprocess
import time

from .common import ToolExit, injected, read_text, should_fail, sim_path, write_atomic

CLI_HELP_TEXT = "See the 'help' command for an introduction to the system"
REAL = "/usr/libexec/devhost"


def chronyc(call):
    injected("chronyc", "chronyc")
    words = [a for a in call.args if not a.startswith("-")]
    if words != ["selectdata"]:
        raise ToolExit(1, "chronyc: command not simulated: %s" % " ".join(words))
    call.out(read_text(sim_path("chrony", "selectdata"), ""))
    return 0


def lldpctl(call):
    injected("lldpctl", "lldpctl")
    args = call.args
    if "-f" not in args or args[args.index("-f") + 1:args.index("-f") + 2] != ["json"]:
        raise ToolExit(1, "lldpctl: the simulated device answers only -f json")
    if should_fail("lldpctl-garbage"):
        call.out("-------------------------------------------------------------------------------\n"
                 "LLDP neighbors: <garbage, not JSON>\n")
        return 0
    call.out(read_text(sim_path("lldp", "neighbours.json"), '{"lldp": {}}\n'))
    return 0


class Clock:
    """The device clock as klish shows it: the host clock, or the time last set with
    `set datetime`, running on from then. klish/clock holds {"set": ISO, "at": host seconds}."""

    path = sim_path("klish", "clock")

    @classmethod
    def now(cls):
        text = read_text(cls.path)
        if text:
            state = json.loads(text)
            base = datetime.datetime.fromisoformat(state["set"])
            return base + datetime.timedelta(seconds=time.time() - state["at"])
        return datetime.datetime.now(datetime.timezone.utc)

    @classmethod
    def set(cls, iso):
        when = datetime.datetime.fromisoformat(iso.replace("Z", "+00:00"))
        if when.tzinfo is None:
            when = when.replace(tzinfo=datetime.timezone.utc)
        when = when.astimezone(datetime.timezone.utc)
        os.makedirs(os.path.dirname(cls.path), exist_ok=True)
        write_atomic(cls.path, json.dumps({"set": when.isoformat(), "at": time.time()}) + "\n")


def klish_output(command):
    """Returns (text, status) of one shell command."""
    text = read_text(sim_path("klish", command.replace(" ", "_") + ".txt"))
    if text is not None:
        return text, 0
    words = command.split()
    if words == ["show", "datetime", "iso"]:
        now = Clock.now().astimezone(datetime.timezone.utc)
        return now.strftime("%Y-%m-%dT%H:%M:%S+00:00") + "\n", 0
    if words[:2] == ["set", "datetime"] and len(words) == 3:
        try:
            Clock.set(words[2])
        except ValueError:
            return "% Invalid date and time: " + words[2] + "\n", 1
        return "", 0
    return "% Unknown command.\n", 1


def klish(call):
    injected("klish", "klish")
    if len(call.args) != 2 or call.args[0] != "-c":
        raise ToolExit(1, "klish: the simulated device runs only -c 'COMMAND'")
    text, status = klish_output(call.args[1])
    if text and not text.endswith("\n"):
        text += "\n"
    call.out(text + CLI_HELP_TEXT + "\n")
    return status


def ethtool(call):
    injected("ethtool", "ethtool")
    args = call.args
    if len(args) != 2 or args[0] not in ("-m", "--module-info", "--dump-module-eeprom"):
        raise ToolExit(1, "ethtool: the simulated device answers only -m PORT")
    text = read_text(sim_path("sfp", args[1] + ".txt"))
    if text is None:
        raise ToolExit(1, "Cannot get module EEPROM information: No such device")
    call.out(text)
    return 0


def recorder(fail_name):
    """A tool that only records its run and succeeds: reboot, factory, init scripts."""

    def run(call):
        injected(os.path.basename(call.argv[0]), fail_name)
        return 0

    return run


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


def script(fail_name, what):
    """techlog.sh and handle_extra_package.sh: record the run; an injected failure also writes two
    lines to the file named by ERR_MSG_FILE, as the device's scripts report their errors."""

    def run(call):
        if should_fail(fail_name):
            err_file = os.environ.get("ERR_MSG_FILE")
            if err_file:
                with open(err_file, "w") as f:
                    f.write("%s failed: injected failure (fail/%s)\n" % (what, fail_name))
                    f.write("arguments: %s\n" % " ".join(call.args))
            raise ToolExit(1, "%s: injected failure (fail/%s)" % (what, fail_name))
        call.out("%s: done (%s)\n" % (what, " ".join(call.args)))
        return 0

    return run
