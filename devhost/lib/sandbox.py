"""Process 1 of a devhost sandbox.

`devhost up` starts this under `unshare --mount --net --pid --uts --ipc --fork`, so it begins as
PID 1 of fresh namespaces that still see the host's file system. It builds the device's root
(an overlay of the host's "/" whose writes go to a scratch directory under DIR), enters it with
pivot_root and drops every view of the host file system except DIR/sim (/sim), DIR/sim/sock
(/tmp/device_handlers), its control directory (/run/devhost), the tool sources (/usr/lib/devhost,
read only) and the daemon binary (read only). Then it installs the simulated tools, sets up the
network, packet filter and store, reports ready, starts the daemon when asked (SIGUSR1), reaps
orphans, and on SIGTERM stops everything in the sandbox.

Usage: sandbox.py CONFIG (JSON with the host paths: merged, upper, work, sim, box, lib, daemon).
"""

import ctypes
import errno
import json
import os
import platform
import select
import shutil
import signal
import subprocess
import sys
import time
import traceback

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from simtools import REAL_PROGRAMS, SCRIPT_TOOLS, TOOLS  # noqa: E402

MS_RDONLY, MS_NOSUID, MS_NODEV, MS_NOEXEC = 1, 2, 4, 8
MS_REMOUNT, MS_BIND, MS_REC, MS_PRIVATE = 32, 4096, 16384, 1 << 18
MNT_DETACH = 2
SYS_PIVOT_ROOT = {"x86_64": 155, "aarch64": 41, "riscv64": 41}

OLD = "/.oldroot"
BOX = "/run/devhost"
LIB = "/usr/lib/devhost"
REAL = "/usr/libexec/devhost"
DAEMON = "/usr/bin/sysrepo-device-handler"
HOSTNAME = b"qmx-devhost"
MARKER = b"devhost-simulated-tool"

libc = ctypes.CDLL(None, use_errno=True)


def check(result, what):
    if result != 0:
        err = ctypes.get_errno()
        raise OSError(err, "%s: %s" % (what, os.strerror(err)))


def c_text(text):
    return text.encode() if text is not None else None


def mount(source, target, fstype=None, flags=0, data=None):
    check(libc.mount(c_text(source), c_text(target), c_text(fstype), ctypes.c_ulong(flags), c_text(data)),
          "mount %s on %s" % (source, target))


def bind(source, target, readonly=False):
    mount(source, target, None, MS_BIND | MS_REC)
    if readonly:
        mount(None, target, None, MS_BIND | MS_REMOUNT | MS_RDONLY | MS_NOSUID | MS_NODEV)


def pivot_root(new_root):
    os.chdir(new_root)
    os.makedirs(new_root + OLD, exist_ok=True)
    number = SYS_PIVOT_ROOT.get(platform.machine())
    if number is None:
        raise OSError("pivot_root: unknown system call number on %s" % platform.machine())
    check(libc.syscall(ctypes.c_long(number), b".", OLD[1:].encode()), "pivot_root")
    os.chdir("/")


def quiet_run(argv, stdin_text=None):
    return subprocess.run(argv, input=stdin_text.encode() if stdin_text is not None else None,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=True).stdout


def mkdirs(path, mode=0o755):
    os.makedirs(path, mode=mode, exist_ok=True)


def touch(path):
    mkdirs(os.path.dirname(path))
    if not os.path.exists(path):
        open(path, "a").close()


def resolved(path):
    """The path with its directory resolved but its last component kept, so that replacing a
    tool never follows a link to some other file."""
    return os.path.join(os.path.realpath(os.path.dirname(path)), os.path.basename(path))


def replace_file(path):
    """Removes what stands at the resolved path and returns that path."""
    target = resolved(path)
    if os.path.lexists(target):
        os.unlink(target)
    return target


class Sandbox:
    def __init__(self, config):
        self.cfg = config
        self.daemon = None
        self.pending = set()

    def host(self, path):
        return OLD + path

    def build_root(self):
        cfg = self.cfg
        mount("none", "/", None, MS_REC | MS_PRIVATE)
        try:
            mount("overlay", cfg["merged"], "overlay", 0,
                  "lowerdir=/,upperdir=%s,workdir=%s" % (cfg["upper"], cfg["work"]))
        except OSError as e:
            if e.errno == errno.ELOOP:
                raise OSError(e.errno, "this kernel's overlayfs refuses a DIR inside the host's root file "
                              "system; use a DIR on another file system (e.g. a tmpfs such as /dev/shm)")
            raise
        pivot_root(cfg["merged"])

        mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC)
        mount("sysfs", "/sys", "sysfs", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC)
        self.build_dev()
        for path, mode in (("/tmp", "1777"), ("/run", "755")):
            mount("tmpfs", path, "tmpfs", MS_NOSUID | MS_NODEV, "mode=" + mode)
        mkdirs("/sim")
        bind(self.host(cfg["sim"]), "/sim")
        mkdirs("/tmp/device_handlers")
        bind(self.host(os.path.join(cfg["sim"], "sock")), "/tmp/device_handlers")
        mkdirs(BOX)
        bind(self.host(cfg["box"]), BOX)
        mkdirs(LIB)
        bind(self.host(cfg["lib"]), LIB, readonly=True)
        touch(DAEMON)
        bind(self.host(cfg["daemon"]), DAEMON, readonly=True)

        check(libc.umount2(OLD.encode(), MNT_DETACH), "umount " + OLD)
        os.rmdir(OLD)
        check(libc.sethostname(HOSTNAME, len(HOSTNAME)), "sethostname")
        if os.path.lexists("/1"):
            os.unlink("/1")
        os.symlink("/proc/1", "/1")

    def build_dev(self):
        mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=755")
        for name in ("null", "zero", "full", "random", "urandom", "tty"):
            touch("/dev/" + name)
            bind(self.host("/dev/" + name), "/dev/" + name)
        mkdirs("/dev/pts")
        mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC, "newinstance,ptmxmode=0666,mode=620")
        os.symlink("pts/ptmx", "/dev/ptmx")
        mkdirs("/dev/shm")
        mount("tmpfs", "/dev/shm", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777")
        for name, target in (("fd", "/proc/self/fd"), ("stdin", "/proc/self/fd/0"),
                             ("stdout", "/proc/self/fd/1"), ("stderr", "/proc/self/fd/2")):
            os.symlink(target, "/dev/" + name)

    def install_tools(self):
        """Puts a simulated tool at every path of the tool table; the real programs that the
        wrappers run are kept in /usr/libexec/devhost first."""
        mkdirs(REAL)
        for name, path in REAL_PROGRAMS.items():
            real = os.path.realpath(path)
            kept = os.path.join(REAL, name)
            with open(real, "rb") as f:
                ours = MARKER in f.read()
            if not ours:
                shutil.copy2(real, kept)
            elif not os.path.exists(kept):
                raise RuntimeError("the real %s is gone from this sandbox's disk" % name)
        launcher_file = os.path.join(BOX, "launcher")
        launcher = open(launcher_file, "rb").read() if os.path.exists(launcher_file) else None
        done = set()
        for name, (paths, _) in TOOLS.items():
            for path in paths:
                if not os.path.isdir(os.path.dirname(path)):
                    continue
                target = resolved(path)
                if target in done:
                    continue
                done.add(target)
                replace_file(target)
                if launcher is None or name in SCRIPT_TOOLS:
                    content = ('#!/bin/bash\n# %s\nexec /usr/bin/python3 -IS %s/simtool.py %s "$0" "$@"\n'
                               % (MARKER.decode(), LIB, target)).encode()
                else:
                    content = launcher
                with open(target, "wb") as f:
                    f.write(content)
                os.chmod(target, 0o755)
        # The daemon's system() commands use bash syntax (&>>), and the device's /bin/sh is bash.
        for path in ("/bin/sh", "/bin/bash.bash"):
            os.symlink("bash", replace_file(path))

    def own_resolver_file(self):
        """The daemon rewrites /etc/resolv.conf in place, as on the device, where it is a file of
        its own; a host's link to a resolver daemon's file (which /run no longer holds) is
        replaced by a plain file with what it showed."""
        path = "/etc/resolv.conf"
        if os.path.islink(path):
            try:
                with open(path) as f:
                    text = f.read()
            except OSError:
                text = ""
            os.unlink(path)
            with open(path, "w") as f:
                f.write(text)

    def copy_files(self):
        """Copies /sim/files over the sandbox's files, path for path."""
        top = "/sim/files"
        for root, dirs, files in os.walk(top):
            rel = os.path.relpath(root, top)
            dest_dir = "/" if rel == "." else "/" + rel
            mkdirs(dest_dir)
            for name in files:
                src = os.path.join(root, name)
                dest = os.path.join(os.path.realpath(dest_dir), name)
                if os.path.lexists(dest) and not os.path.isdir(dest):
                    os.unlink(dest)
                shutil.copy2(src, dest)

    def setup_network(self):
        with open("/proc/sys/net/ipv6/conf/default/accept_dad", "w") as f:
            f.write("0")
        quiet_run(["ip", "link", "set", "lo", "up"])
        quiet_run(["ip", "link", "add", "br1", "type", "bridge"])
        with open("/proc/sys/net/ipv6/conf/br1/accept_dad", "w") as f:
            f.write("0")
        quiet_run(["ip", "link", "set", "br1", "up"])
        # The daemon binds a socket to br1 at start: wait for a usable link-local address.
        deadline = time.monotonic() + 5
        while True:
            addrs = json.loads(quiet_run(["ip", "-6", "-j", "addr", "show", "dev", "br1"]))
            if any(a.get("scope") == "link" and not a.get("tentative")
                   for entry in addrs for a in entry.get("addr_info", [])):
                break
            if time.monotonic() > deadline:
                raise RuntimeError("br1 got no usable IPv6 link-local address")
            time.sleep(0.02)

    def setup_firewall(self):
        ruleset = (
            "table inet filter {\n"
            "  set whitelist_ipv4 { type ipv4_addr; flags interval; elements = { 0.0.0.0/0 } }\n"
            "  set whitelist_ipv6 { type ipv6_addr; flags interval; }\n"
            "  set e27_ip_addresses { type ipv4_addr; flags interval; }\n"
            "  set e28_ip_addresses { type ipv4_addr; flags interval; }\n"
            "  set mgmt_ip_addresses { type ipv4_addr; flags interval; }\n"
            "}\n")
        quiet_run([REAL + "/nft", "-f", "-"], ruleset)
        # As at a device boot, the saved management sets are loaded again.
        saved = "/var/persistent/etc/nftables"
        if os.path.isdir(saved):
            for name in sorted(os.listdir(saved)):
                if name.startswith("ruleset-") and name.endswith(".nft"):
                    try:
                        quiet_run([REAL + "/nft", "-f", os.path.join(saved, name)])
                    except subprocess.CalledProcessError as e:
                        print("devhost: could not load %s: %s" % (name, e.stdout.decode().strip()), flush=True)

    def setup_store(self):
        for d in ("/var/persistent/etc/sw_storage/redis", "/var/persistent/log", "/home", "/etc/redis"):
            mkdirs(d)
        if not os.path.exists("/etc/redis/50001.conf"):
            with open("/etc/redis/50001.conf", "w") as f:
                f.write("port 50001\n"
                        "bind 127.0.0.1 -::1\n"
                        "protected-mode no\n"
                        "daemonize no\n"
                        "logfile \"\"\n"
                        "save \"\"\n"
                        "dir /var/persistent/etc/sw_storage/redis\n"
                        "appendonly yes\n"
                        "appendfilename \"50001.aof\"\n")
        log = open("/sim/log/redis.log", "ab")
        subprocess.Popen(["redis-server", "/etc/redis/50001.conf"], stdin=subprocess.DEVNULL,
                         stdout=log, stderr=log, start_new_session=True)
        log.close()
        deadline = time.monotonic() + 3
        while time.monotonic() < deadline:
            if subprocess.run([REAL + "/redis-cli", "-p", "50001", "ping"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL).returncode == 0:
                return
            time.sleep(0.02)
        print("devhost: the store on port 50001 did not answer", flush=True)

    def harden_proc(self):
        """Kernel settings that are not per namespace stay out of reach."""
        bind("/proc/sys", "/proc/sys", readonly=True)
        if os.path.exists("/proc/sysrq-trigger"):
            bind("/dev/null", "/proc/sysrq-trigger")

    def setup(self):
        self.build_root()
        os.environ.update({"PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                           "HOME": "/root", "DEVHOST_SIM": "/sim"})
        mkdirs("/var/persistent/etc")
        self.own_resolver_file()
        self.install_tools()
        self.copy_files()
        self.setup_network()
        self.harden_proc()
        self.setup_firewall()
        self.setup_store()

    def report(self, name, doc):
        tmp = os.path.join(BOX, name + ".tmp")
        with open(tmp, "w") as f:
            json.dump(doc, f)
        os.replace(tmp, os.path.join(BOX, name))

    def start_daemon(self):
        with open(os.path.join(BOX, "daemon.json")) as f:
            request = json.load(f)
        log = open("/sim/log/daemon.log", "ab")
        try:
            self.daemon = subprocess.Popen(request["argv"], env=request["env"], cwd="/",
                                           stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                           start_new_session=True)
            self.report("daemon.pid", {"pid": self.daemon.pid})
        except OSError as e:
            self.report("daemon.exit", {"status": 127, "error": str(e)})
        finally:
            log.close()

    def reap(self):
        while True:
            try:
                pid, status = os.waitpid(-1, os.WNOHANG)
            except ChildProcessError:
                return
            if pid == 0:
                return
            if self.daemon is not None and pid == self.daemon.pid:
                self.daemon.returncode = os.waitstatus_to_exitcode(status)
                code = self.daemon.returncode
                self.report("daemon.exit", {"status": 128 - code if code < 0 else code})
                self.daemon = None

    def shutdown(self):
        os.kill(-1, signal.SIGTERM)
        deadline = time.monotonic() + 2
        while time.monotonic() < deadline:
            self.reap()
            if not any(p.isdigit() and p != "1" for p in os.listdir("/proc")):
                break
            time.sleep(0.02)
        os.kill(-1, signal.SIGKILL)
        sys.exit(0)

    def serve(self):
        wake_r, wake_w = os.pipe()
        os.set_blocking(wake_w, False)
        signal.set_wakeup_fd(wake_w)
        for signum in (signal.SIGUSR1, signal.SIGTERM, signal.SIGINT, signal.SIGCHLD):
            signal.signal(signum, lambda num, _frame: self.pending.add(num))
        while True:
            select.select([wake_r], [], [], 1.0)
            try:
                os.read(wake_r, 512)
            except BlockingIOError:
                pass
            pending, self.pending = self.pending, set()
            if signal.SIGTERM in pending or signal.SIGINT in pending:
                self.shutdown()
            self.reap()
            if signal.SIGUSR1 in pending:
                self.start_daemon()


def main():
    with open(sys.argv[1]) as f:
        config = json.load(f)
    box = config["box"]
    sandbox = Sandbox(config)
    try:
        sandbox.setup()
    except Exception as e:
        traceback.print_exc()
        sys.stdout.flush()
        doc = {"error": "%s: %s" % (type(e).__name__, e)}
        path = os.path.join(BOX if os.path.isdir(BOX) and os.path.ismount(BOX) else box, "ready")
        with open(path, "w") as f:
            json.dump(doc, f)
        sys.exit(1)
    sandbox.report("ready", {"ok": True})
    sandbox.serve()


if __name__ == "__main__":
    main()
