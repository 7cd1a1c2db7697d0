"""sysrepocfg: export and import of the YANG datastores kept as JSON documents in /sim/datastore."""

import copy
import json
import os
import re

from .common import Locked, ToolExit, injected, read_text, should_fail, sim_path, write_atomic

DATASTORES = ("running", "startup", "operational", "factory-default", "candidate")
MODULE_NAME = re.compile(r"^[A-Za-z_][A-Za-z0-9_.-]*:[A-Za-z_][A-Za-z0-9_.-]*$")
XPATH_CONTAINER = re.compile(r"^/([A-Za-z_][\w.-]*:[A-Za-z_][\w.-]*)$")
XPATH_LIST_ENTRY = re.compile(
    r"""^/([A-Za-z_][\w.-]*:[A-Za-z_][\w.-]*)/([A-Za-z_][\w.-]*)\[([A-Za-z_][\w.-]*)=(['"])(.*)\4\]$"""
)


def datastore_file(ds):
    return sim_path("datastore", ds + ".json")


def lock(exclusive):
    return Locked(sim_path("datastore", ".lock"), exclusive)


def resolve_datastore(text):
    """Any unambiguous prefix of a datastore name names it, as `-d r` does on the device."""
    matches = [ds for ds in DATASTORES if ds.startswith(text)] if text else []
    if len(matches) != 1:
        raise ToolExit(1, "sysrepocfg error: Unknown datastore \"%s\"" % text)
    return matches[0]


def load(ds):
    path = datastore_file(ds)
    if ds == "candidate" and not os.path.exists(path):
        path = datastore_file("running")  # the candidate equals running until someone edits it
    text = read_text(path)
    if text is None or not text.strip():
        return {}
    return json.loads(text)


def dump(doc):
    """Pretty-printed the way the real tool prints JSON data: two blanks per level."""
    return json.dumps(doc, indent=2, ensure_ascii=False) + "\n"


class DuplicateMember(ValueError):
    pass


def merge_members(pairs):
    """Builds an object as the datastore reads JSON: two members that name the same list are one
    list with the entries of both in order. Any other repeated member is an error, as a leaf or a
    container given twice is for the real datastore."""
    obj = {}
    for name, value in pairs:
        if name not in obj:
            obj[name] = value
        elif isinstance(obj[name], list) and isinstance(value, list):
            obj[name] = obj[name] + value
        else:
            raise DuplicateMember("Duplicate instance of \"%s\"." % name)
    return obj


def parse_import(text):
    try:
        doc = json.loads(text, object_pairs_hook=merge_members)
    except DuplicateMember as e:
        raise ToolExit(1, "sysrepocfg error: Data parsing failed: %s" % e)
    except ValueError as e:
        raise ToolExit(1, "sysrepocfg error: Data parsing failed: %s" % e)
    if not isinstance(doc, dict):
        raise ToolExit(1, "sysrepocfg error: Data parsing failed: top-level JSON value is not an object")
    for name in doc:
        if not MODULE_NAME.match(name):
            raise ToolExit(1, "sysrepocfg error: Data parsing failed: top-level node \"%s\" has no module name" % name)
    return doc


def select_module(doc, module):
    return {k: v for k, v in doc.items() if k.split(":", 1)[0] == module}


def select_xpath(doc, xpath):
    m = XPATH_CONTAINER.match(xpath)
    if m:
        name = m.group(1)
        return {name: doc[name]} if name in doc else {}
    m = XPATH_LIST_ENTRY.match(xpath)
    if m:
        top, list_name, key, _, value = m.groups()
        entries = (doc.get(top) or {}).get(list_name) if isinstance(doc.get(top), dict) else None
        found = [e for e in entries or [] if isinstance(e, dict) and str(e.get(key)) == value]
        return {top: {list_name: found}} if found else {}
    raise ToolExit(1, "sysrepocfg error: XPath \"%s\" is not supported by the simulated device" % xpath)


def interfaces_by_name(doc):
    ifaces = (doc.get("ietf-interfaces:interfaces") or {}).get("interface") or []
    return {e.get("name"): e for e in ifaces if isinstance(e, dict)}


def follow_running_addresses(running):
    """After a running import, operational interfaces show the IPv4 configuration of running, as
    the device's network stack would once the change is applied."""
    oper = load("operational")
    configured = interfaces_by_name(running)
    changed = False
    for name, entry in interfaces_by_name(oper).items():
        ipv4 = (configured.get(name) or {}).get("ietf-ip:ipv4")
        if ipv4 is not None:
            new = copy.deepcopy(ipv4)
            if entry.get("ietf-ip:ipv4") != new:
                entry["ietf-ip:ipv4"] = new
                changed = True
        elif "ietf-ip:ipv4" in entry:
            del entry["ietf-ip:ipv4"]
            changed = True
    if changed:
        write_atomic(datastore_file("operational"), dump(oper))


def parse_args(args):
    opts = {"op": None, "format": "json", "ds": "running", "module": None, "xpath": None}
    with_value = {
        "-f": "format", "--format": "format", "-d": "ds", "--datastore": "ds",
        "-m": "module", "--module": "module", "-x": "xpath", "--xpath": "xpath",
        "-t": "timeout", "--timeout": "timeout",
    }
    i = 0
    while i < len(args):
        arg = args[i]
        if arg in ("--export", "-X"):
            opts["op"] = "export"
        elif arg in ("--import", "-I"):
            opts["op"] = "import"
        elif arg in with_value:
            if i + 1 >= len(args):
                raise ToolExit(1, "sysrepocfg error: option %s needs a value" % arg)
            opts[with_value[arg]] = args[i + 1]
            i += 1
        elif arg.startswith("--") and "=" in arg and arg.split("=", 1)[0] in with_value:
            name, value = arg.split("=", 1)
            opts[with_value[name]] = value
        elif len(arg) > 2 and arg[:2] in with_value:
            opts[with_value[arg[:2]]] = arg[2:]
        else:
            raise ToolExit(1, "sysrepocfg error: unsupported argument \"%s\"" % arg)
        i += 1
    if opts["op"] is None:
        raise ToolExit(1, "sysrepocfg error: neither --export nor --import given")
    if opts["format"] != "json":
        raise ToolExit(1, "sysrepocfg error: the simulated device speaks JSON only (-f json)")
    opts["ds"] = resolve_datastore(opts["ds"])
    return opts


def export(call, opts):
    ds = opts["ds"]
    injected("sysrepocfg", "sysrepocfg-export-" + ds)
    injected("sysrepocfg", "sysrepocfg-export")
    with lock(False):
        doc = load(ds)
    if opts["module"]:
        doc = select_module(doc, opts["module"])
    if opts["xpath"]:
        doc = select_xpath(doc, opts["xpath"])
    if should_fail("sysrepocfg-garbage"):
        call.out("libyang[0]: garbage <not json> {\"ietf-interfaces:inter\n")
        return 0
    call.out(dump(doc))
    return 0


def import_(call, opts):
    ds = opts["ds"]
    text = call.read_stdin()
    if ds in ("running", "startup"):
        injected("sysrepocfg", "sysrepocfg-import-" + ds)
    doc = parse_import(text)
    with lock(True):
        if opts["module"]:
            merged = {k: v for k, v in load(ds).items() if k.split(":", 1)[0] != opts["module"]}
            merged.update(select_module(doc, opts["module"]))
            doc = merged
        write_atomic(datastore_file(ds), dump(doc))
        if ds == "running":
            follow_running_addresses(doc)
    return 0


def main(call):
    opts = parse_args(call.args)
    return export(call, opts) if opts["op"] == "export" else import_(call, opts)
