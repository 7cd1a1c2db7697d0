"""The small simulated tools: chronyc, lldpctl, ethtool, reboot, factory, the init scripts that
only record their run, and the maintenance scripts."""

import os

from .common import ToolExit, injected, read_text, should_fail, sim_path


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


reboot = recorder("reboot")
factory = recorder("factory")
ntpd = recorder("ntpd")
confd_init = recorder("confd-init")
confd_data_provider_init = recorder("confd-data-provider-init")
techlog = script("techlog", "techlog")
extra_package = script("extra-package", "extra package")
