"""rauc: the two system slots of /sim/rauc/state.json.

state.json holds {"booted": SLOT, "primary": SLOT, "slots": [SLOT_STATE, ...]}, each slot state
{"name", "bootname", "status", "installed_count", "activated_count", "bundle_description",
"bundle_version"}."""

import json
import time
import urllib.parse

from .common import Locked, ToolExit, injected, read_text, should_fail, sim_path, write_atomic

COMPATIBLE = "qmx-rb-16e"


def state_file():
    return sim_path("rauc", "state.json")


def load():
    text = read_text(state_file())
    if text is None:
        raise ToolExit(1, "rauc: Failed to load system config: no slots (rauc/state.json missing)")
    return json.loads(text)


def save(state):
    write_atomic(state_file(), json.dumps(state, indent=2) + "\n")


def quote(value):
    return "'" + str(value).replace("'", "'\\''") + "'"


def shell_status(state):
    slots = state.get("slots", [])
    by_name = {s["name"]: s for s in slots}
    booted = by_name.get(state.get("booted"), {})
    lines = [
        ("RAUC_SYSTEM_COMPATIBLE", COMPATIBLE),
        ("RAUC_SYSTEM_VARIANT", ""),
        ("RAUC_SYSTEM_BOOTED_BOOTNAME", booted.get("bootname", "")),
        ("RAUC_BOOT_PRIMARY", state.get("primary", "")),
        ("RAUC_SYSTEM_SLOTS", " ".join(s["name"] for s in slots)),
        ("RAUC_SLOTS", " ".join(str(i) for i in range(1, len(slots) + 1))),
    ]
    for i, slot in enumerate(slots, 1):
        is_booted = slot["name"] == state.get("booted")
        lines += [
            ("RAUC_SLOT_STATE_%d" % i, "booted" if is_booted else "inactive"),
            ("RAUC_SLOT_CLASS_%d" % i, slot["name"].split(".")[0]),
            ("RAUC_SLOT_DEVICE_%d" % i, "/dev/mmcblk0p%d" % i),
            ("RAUC_SLOT_TYPE_%d" % i, "ext4"),
            ("RAUC_SLOT_BOOTNAME_%d" % i, slot.get("bootname", "")),
            ("RAUC_SLOT_PARENT_%d" % i, ""),
            ("RAUC_SLOT_MOUNTPOINT_%d" % i, "/" if is_booted else ""),
            ("RAUC_SLOT_BOOT_STATUS_%d" % i, "good"),
            ("RAUC_SLOT_STATUS_BUNDLE_COMPATIBLE_%d" % i, COMPATIBLE),
            ("RAUC_SLOT_STATUS_BUNDLE_VERSION_%d" % i, slot.get("bundle_version", "")),
            ("RAUC_SLOT_STATUS_BUNDLE_DESCRIPTION_%d" % i, slot.get("bundle_description", "")),
            ("RAUC_SLOT_STATUS_BUNDLE_BUILD_%d" % i, slot.get("bundle_build", "")),
            ("RAUC_SLOT_STATUS_INSTALLED_TIMESTAMP_%d" % i, slot.get("installed_timestamp", "")),
            ("RAUC_SLOT_STATUS_INSTALLED_COUNT_%d" % i, slot.get("installed_count", 0)),
            ("RAUC_SLOT_STATUS_ACTIVATED_TIMESTAMP_%d" % i, slot.get("activated_timestamp", "")),
            ("RAUC_SLOT_STATUS_ACTIVATED_COUNT_%d" % i, slot.get("activated_count", 0)),
            ("RAUC_SLOT_STATUS_STATUS_%d" % i, slot.get("status", "")),
        ]
    return "".join("%s=%s\n" % (k, quote(v)) for k, v in lines)


def bundle_version(url):
    path = urllib.parse.urlsplit(url).path or url
    return path.rstrip("/").rsplit("/", 1)[-1]


def status(call, args):
    if args[:1] == ["mark-active"]:
        return mark_active(call, args[1:])
    formats = [a.split("=", 1)[1] for a in args if a.startswith("--output-format=")]
    formats += [value for option, value in zip(args, args[1:]) if option == "--output-format"]
    if formats != ["shell"]:
        raise ToolExit(1, "rauc: the simulated device prints the status only with --output-format=shell")
    injected("rauc", "rauc-status")
    call.out(shell_status(load()))
    return 0


def install(call, args):
    if len(args) != 1:
        raise ToolExit(1, "rauc: install needs exactly one bundle URL")
    url = args[0]
    injected("rauc", "rauc-install")
    unverified = should_fail("rauc-install-unverified")
    with Locked(sim_path("rauc", ".lock")):
        state = load()
        target = next((s for s in state["slots"] if s["name"] != state.get("booted")), None)
        if target is None:
            raise ToolExit(1, "rauc: LastError: no inactive slot to install into")
        if not unverified:
            now = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime())
            target["installed_count"] = int(target.get("installed_count", 0)) + 1
            target["activated_count"] = int(target.get("activated_count", 0)) + 1
            target["status"] = "ok"
            target["bundle_version"] = bundle_version(url)
            target["installed_timestamp"] = now
            target["activated_timestamp"] = now
            state["primary"] = target["name"]
            save(state)
    steps = [
        "  0% Installing",
        "  0% Determining slot states",
        " 20% Determining slot states done.",
        " 20% Checking bundle",
        " 40% Checking bundle done.",
        " 40% Checking manifest contents",
        " 60% Checking manifest contents done.",
        " 60% Determining target install group",
        " 80% Determining target install group done.",
        " 80% Updating slots",
        " 90% Updating slots done.",
        "100% Installing done.",
        "Installing `%s' succeeded" % url,
    ]
    call.out("installing\n" + "\n".join(steps) + "\n")
    return 0


def mark_active(call, args):
    injected("rauc", "rauc-mark-active")
    name = args[0] if args else "booted"
    with Locked(sim_path("rauc", ".lock")):
        state = load()
        names = [s["name"] for s in state["slots"]]
        if name == "booted":
            name = state.get("booted")
        elif name == "other":
            name = next((n for n in names if n != state.get("booted")), None)
        if name not in names:
            raise ToolExit(1, "rauc: Failed to mark slot active: no slot with name '%s' found" % name)
        state["primary"] = name
        save(state)
    call.out("rauc status: marked slot %s as active\n" % name)
    return 0


def main(call):
    args = call.args
    if args[:1] == ["status"]:
        return status(call, args[1:])
    if args[:1] == ["install"]:
        return install(call, args[1:])
    raise ToolExit(1, "rauc: command not simulated: %s" % " ".join(args))
