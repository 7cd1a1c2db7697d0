"""klish: the device's command shell, answering `klish -c 'COMMAND'` from /sim/klish."""

import datetime
import json
import os
import time

from .common import ToolExit, injected, read_text, sim_path, write_atomic

CLI_HELP_TEXT = "See the 'help' command for an introduction to the system"


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


def main(call):
    injected("klish", "klish")
    if len(call.args) != 2 or call.args[0] != "-c":
        raise ToolExit(1, "klish: the simulated device runs only -c 'COMMAND'")
    text, status = klish_output(call.args[1])
    if text and not text.endswith("\n"):
        text += "\n"
    call.out(text + CLI_HELP_TEXT + "\n")
    return status
