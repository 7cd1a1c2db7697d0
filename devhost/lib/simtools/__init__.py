"""The simulated host tools of the sandbox, and the paths each one is installed at."""

from . import rauc, sysrepocfg, tools, wrappers

# name: (installed paths, implementation). Paths that resolve to the same file are installed once.
TOOLS = {
    "sysrepocfg": (["/bin/sysrepocfg", "/usr/bin/sysrepocfg"], sysrepocfg.main),
    "nft": (["/usr/sbin/nft", "/sbin/nft"], wrappers.nft),
    "chronyc": (["/bin/chronyc", "/usr/bin/chronyc"], tools.chronyc),
    "lldpctl": (["/sbin/lldpctl", "/usr/sbin/lldpctl"], tools.lldpctl),
    "klish": (["/usr/bin/klish"], tools.klish),
    "rauc": (["/usr/bin/rauc"], rauc.main),
    "ethtool": (["/usr/sbin/ethtool", "/sbin/ethtool"], tools.ethtool),
    "reboot": (["/sbin/reboot", "/usr/sbin/reboot"], tools.recorder("reboot")),
    "factory": (["/sbin/factory", "/usr/sbin/factory"], tools.recorder("factory")),
    "ntpd": (["/etc/init.d/ntpd"], tools.recorder("ntpd")),
    "init.d/redis-server": (["/etc/init.d/redis-server"], tools.init_redis_server),
    "confd-init": (["/etc/init.d/confd-init"], tools.recorder("confd-init")),
    "confd-data-provider-init": (["/etc/init.d/confd-data-provider-init"],
                                 tools.recorder("confd-data-provider-init")),
    "techlog": (["/usr/bin/techlog.sh"], tools.script("techlog", "techlog")),
    "extra-package": (["/usr/bin/handle_extra_package.sh"], tools.script("extra-package", "extra package")),
    "redis-server": (["/usr/bin/redis-server"], wrappers.redis_server),
    "redis-cli": (["/usr/bin/redis-cli"], wrappers.redis_cli),
}

# Tools the device runs as bash scripts ("/bin/bash.bash /usr/bin/techlog.sh ..."), so they must
# be scripts rather than the binary launcher.
SCRIPT_TOOLS = {"techlog", "extra-package"}

# Real programs the wrappers run, kept apart before their paths get the wrappers.
REAL_PROGRAMS = {"nft": "/usr/sbin/nft", "redis-server": "/usr/bin/redis-server",
                 "redis-cli": "/usr/bin/redis-cli"}
