"""The simulated host tools of the sandbox, and the paths each one is installed at.

Each tool names its implementation as "module.function" of this package; only that module is
imported when the tool runs, which keeps the start of the frequently run tools short."""

# name: (installed paths, implementation). Paths that resolve to the same file are installed once.
TOOLS = {
    "sysrepocfg": (["/bin/sysrepocfg", "/usr/bin/sysrepocfg"], "sysrepocfg.main"),
    "nft": (["/usr/sbin/nft", "/sbin/nft"], "wrappers.nft"),
    "chronyc": (["/bin/chronyc", "/usr/bin/chronyc"], "tools.chronyc"),
    "lldpctl": (["/sbin/lldpctl", "/usr/sbin/lldpctl"], "tools.lldpctl"),
    "klish": (["/usr/bin/klish"], "klish.main"),
    "rauc": (["/usr/bin/rauc"], "rauc.main"),
    "ethtool": (["/usr/sbin/ethtool", "/sbin/ethtool"], "tools.ethtool"),
    "reboot": (["/sbin/reboot", "/usr/sbin/reboot"], "tools.reboot"),
    "factory": (["/sbin/factory", "/usr/sbin/factory"], "tools.factory"),
    "ntpd": (["/etc/init.d/ntpd"], "tools.ntpd"),
    "init.d/redis-server": (["/etc/init.d/redis-server"], "services.init_redis_server"),
    "confd-init": (["/etc/init.d/confd-init"], "tools.confd_init"),
    "confd-data-provider-init": (["/etc/init.d/confd-data-provider-init"], "tools.confd_data_provider_init"),
    "techlog": (["/usr/bin/techlog.sh"], "tools.techlog"),
    "extra-package": (["/usr/bin/handle_extra_package.sh"], "tools.extra_package"),
    "redis-server": (["/usr/bin/redis-server"], "wrappers.redis_server"),
    "redis-cli": (["/usr/bin/redis-cli"], "wrappers.redis_cli"),
}

# Tools the device runs as bash scripts ("/bin/bash.bash /usr/bin/techlog.sh ..."), so they must
# be scripts rather than the binary launcher.
SCRIPT_TOOLS = {"techlog", "extra-package"}

# Real programs the wrappers run, kept apart before their paths get the wrappers.
REAL_PROGRAMS = {"nft": "/usr/sbin/nft", "redis-server": "/usr/bin/redis-server",
                 "redis-cli": "/usr/bin/redis-cli"}
