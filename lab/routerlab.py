"""Router lab: the real plaitd in simulated routers on one host, a CAP and one RE (or n on a
switch). A router is a network namespace "<lab>-<name>" and a PID + mount namespace whose init is
chrooted into <lab dir>/<name>/root, a host directory (Router.path()); killing the init ends the
router. Busybox userland, a uci emulator, platform stand-ins that record each call (README.md)."""
import atexit
import contextlib
import functools
import json
import os
import re
import secrets
import shlex
import shutil
import signal
import subprocess
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOTFS = os.path.join(HERE, "rootfs")
UDHCPC_HOOK = os.path.join(HERE, "..", "openwrt", "plaitd", "files", "plaitd.udhcpc")
PLAITD_BIN = os.environ.get("PLAITD_BIN", os.path.join(HERE, "..", "build", "release", "plaitd"))
LAB_BASE = os.environ.get("LAB_BASE", "/tmp")
BUSYBOX = "/bin/busybox"
NSENTER = shutil.which("nsenter") or "/usr/bin/nsenter"
FACTORY_IP, RE_STATIC_IP = "192.168.77.1", "192.168.77.20"
RE_MAC = "28:6C:07:20:00:01"   # the first RE's uplink (Router.mac); the CAP's is 28:6C:07:10:00:01
ROUTER_ENV = {"PATH": "/bin:/sbin:/usr/bin:/usr/sbin", "HOME": "/root", "TERM": "dumb"}
CALLS = "/tmp/lab-calls.log"
WIRE_ENDS = ("w0", "w1")   # Lab(wire=True): the cable's ends at the CAP's eth0 and the RE's eth4
LISTENING, LOCK = "enter server looping....\n", "/var/run/plaitd.lock"   # the CAP listens; the mesh lock
STATUS = "/var/run/plaitd.json"   # the daemon's status file
VALGRIND_BINS = ("/usr/bin/valgrind", "/usr/bin/valgrind.bin")   # Lab(valgrind=True)
VALGRIND_LIBEXEC = "/usr/libexec/valgrind"
PROC_PIDS = 4096   # /proc/<pid> links for the router's own pids (LeakSanitizer reads them)
STANDINS = {"boardkv": "/usr/sbin", "macinfo": "/usr/sbin", "vsled": "/usr/sbin",
            "mesh_tool": "/usr/sbin", "mesh_setup.sh": "/usr/sbin", "linkprobe": "/sbin",
            "lua": "/usr/bin", "uci": "/sbin"}
PROC_TOOLS = ("killall", "pidof", "ps", "top")   # see rootfs/withproc
DEVS = ("null", "zero", "full", "random", "urandom")
DIRS = ("bin", "sbin", "usr/bin", "usr/sbin", "usr/lib", "usr/lib64", "usr/share/udhcpc",
        "usr/share/veltrasso/cc", "etc/config", "etc/udhcpc.user.d", "dev", "proc/veltrasso",
        ".kproc", ".pview", "sys", "tmp/mq/cc", "tmp/.uci", "run", "var", "root", "lab/ans")
LINKS = (("lib", "usr/lib"), ("lib64", "usr/lib64"), ("var/run", "../run"), ("proc/self", "/.kproc/self"),
         ("proc/net", "self/net"), ("proc/mounts", "self/mounts"), ("dev/fd", "/proc/self/fd"),
         ("dev/stdin", "fd/0"), ("dev/stdout", "fd/1"), ("dev/stderr", "fd/2"))

UDHCPD_CONF = "\n".join([   # the CAP's DHCP server on br-lan (Lab.dhcp_uplink)
    "interface br-lan", "start 192.168.77.100", "end 192.168.77.150", "lease_file /tmp/udhcpd.leases",
    "pidfile /var/run/udhcpd.pid", "option subnet 255.255.255.0", f"option router {FACTORY_IP}",
    "option lease 3600", ""])

# Init of the router's PID + mount namespace, run inside its netns.
HOLDER_SETUP = r"""
set -e
R=$1
for d in usr/lib usr/lib64; do mount --bind -o ro /$d "$R/$d"; done
V=usr/libexec/valgrind   # only routers built for valgrind have it
if [ -d "$R/$V" ]; then mount --bind -o ro /$V "$R/$V"; fi
G=${PLAITD_GCOV_DIR:-}   # a coverage build: the daemon adds its counts to its .gcda files
if [ -n "$G" ]; then mkdir -p "$R$G"; mount --bind "$G" "$R$G"; fi
for d in null zero full random urandom; do mount --bind /dev/$d "$R/dev/$d"; done
mount -t proc proc "$R/.kproc"
mount -t sysfs sysfs "$R/sys" 2>/dev/null || true
mount --rbind "$R" "$R/.pview"
mount -t proc proc "$R/.pview/proc"
for k in all default; do echo 1 > /proc/sys/net/ipv6/conf/$k/disable_ipv6; done
# A port-less br-lan keeps its route, which would shadow eth4's; ARP answers only for the asking
# port's addresses, as on OpenWrt (else every RE on the factory address answers for the CAP).
for k in ignore_routes_with_linkdown arp_ignore; do echo 1 > /proc/sys/net/ipv4/conf/all/$k; done
exec chroot "$R" /bin/sh -c 'while :; do sleep 3600 & wait; done'
"""


def seed_uci(role, m):
    """uci.seed for a role, MAC byte m: "pkg.sec" -> section type, "pkg.sec.opt" -> value."""
    sub = {"TAG": role.upper(), "t": role, "m": m, "INITTED": "YES" if role == "cap" else "NO"}
    with open(os.path.join(HERE, "uci.seed")) as f:
        return dict(l.rstrip("\n").format(**sub).split("=", 1) for l in f if not l.startswith("#"))


def default_answers(role, mac, k):
    """Stand-in answers: tool -> {argument text ("$*"), None for any: (stdout, status)}."""
    return {"boardkv": {"get SN": ("KV24A10001%02d\n" % (k + 1), 0)}, "macinfo": {"wan": (mac + "\n", 0)},
            "mesh_tool": {"initbuf": ('{"mesh":{"role":"%s","bh_band":"5g","ch_5g":36,"ch_2g":6}}\n'
                                      % role, 0), "backhaul get band": ("5g\n", 0)},
            "linkprobe": {"link": ("wan up\nlan up\n", 0)}}


def _run(argv, timeout=10, **kw):
    kw.setdefault("stdin", None if "input" in kw else subprocess.DEVNULL)
    return subprocess.run(argv, check=True, timeout=timeout, capture_output=True, text=True, **kw)


def _children(pid):
    with contextlib.suppress(OSError), open(f"/proc/{pid}/task/{pid}/children") as f:
        return [int(x) for x in f.read().split()]
    return []


def _text(path):
    with open(path, "rb") as f:
        return f.read().decode("utf-8", "replace")


def _alive(pid):
    return os.path.exists(f"/proc/{pid}")


def wait_until(pred, timeout, step=0.05):
    """Polls pred() until it is true or timeout seconds pass; returns its last value."""
    end = time.monotonic() + timeout
    while not (v := pred()) and time.monotonic() < end:
        time.sleep(step)
    return v


@functools.lru_cache(None)
def _tls_material():
    """A CA (mq_a1) and a router certificate signed by it, made once per process
    (cleanup_stale() removes them once the process is gone)."""
    d = os.path.join(LAB_BASE, f"lab-{os.getpid()}-tls")
    os.makedirs(d, exist_ok=True)
    atexit.register(shutil.rmtree, d, True)
    key = ["-newkey", "rsa:2048", "-nodes", "-keyout"]
    _run(["openssl", "req", "-x509"] + key + ["ca.key", "-out", "ca.crt", "-days", "3650",
                                                "-subj", "/CN=lab-ca"], cwd=d)
    _run(["openssl", "req"] + key + ["dev.key", "-out", "dev.csr", "-subj", "/CN=lab-router"], cwd=d)
    _run(["openssl", "x509", "-req", "-in", "dev.csr", "-CA", "ca.crt", "-CAkey", "ca.key",
          "-CAcreateserial", "-out", "dev.crt", "-days", "3650"], cwd=d)
    return d


class Proc:
    """A command running inside a router. pid is its host PID (None if it was
    gone before it could be seen); out/err are host files with its output."""

    def __init__(self, router, name, popen, pid, out, err):
        self.router, self.name, self.popen, self.pid = router, name, popen, pid
        self.out_path, self.err_path = out, err

    def out(self):
        return _text(self.out_path)

    def err(self):
        return _text(self.err_path)

    log = err   # plaitd -o logs to stderr

    def running(self):
        return self.popen.poll() is None

    def wait(self, timeout):
        """Exit status (255 for exit(-1), -N for signal N) or None after timeout."""
        try:
            return self.popen.wait(timeout)
        except subprocess.TimeoutExpired:
            return None

    def signal(self, sig):
        if self.pid and self.running():
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.pid, sig)

    def stop(self, timeout=5.0):
        """SIGTERM, then SIGKILL after timeout; returns the exit status."""
        self.signal(signal.SIGTERM)
        rc = self.wait(timeout)
        if rc is None:
            self.signal(signal.SIGKILL)
            if not self.pid:
                self.popen.kill()
            rc = self.wait(5)
        return rc

    def figures(self):
        """(open descriptors, threads, VmRSS kB) of the process."""
        with open(f"/proc/{self.pid}/status") as f:
            st = dict(l.split(":", 1) for l in f if ":" in l)
        return len(os.listdir(f"/proc/{self.pid}/fd")), int(st["Threads"]), int(st["VmRSS"].split()[0])

    def count(self, text, stream="err"):
        return (self.err() if stream == "err" else self.out()).count(text)

    def wait_log(self, text, timeout, count=1, stream="err"):
        """Waits until text occurs count times in the log (stream "out": the
        status records); raises with the tail if it does not in time."""
        if not wait_until(lambda: self.count(text, stream) >= count, timeout):
            tail = (self.err() if stream == "err" else self.out())[-3000:]
            raise AssertionError(f"{self.router.name}/{self.name}: {text!r} x{count} not seen "
                                 f"within {timeout}s (running={self.running()}); tail:\n{tail}")


class NetnsJob:
    """A host program in the background in a router's network namespace that
    prints one JSON object per line with a "step" key (peer.py, hostile.py)."""

    def __init__(self, router, argv, tag):
        self.path = os.path.join(router.dir, f"{tag}-{time.monotonic_ns()}.out")
        with open(self.path, "w") as f:
            self.p = subprocess.Popen(router.netns_argv(argv), stdout=f,
                                      stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)

    def lines(self, step=None):
        """What it printed so far; only the given step's lines if step is set."""
        with open(self.path) as f:
            res = [json.loads(l) for l in f if l.startswith("{")]
        return [x for x in res if step is None or x["step"] == step]

    def wait_step(self, step, timeout, count=1):
        """Waits for the count-th line of step and returns it."""
        assert wait_until(lambda: len(self.lines(step)) >= count, timeout), (step, self.lines())
        return self.lines(step)[count - 1]

    def finish(self, timeout):
        self.p.wait(timeout)
        return self.lines()

    def kill(self):
        if self.p.poll() is None:
            self.p.kill()
            self.p.wait(5)


class Router:
    """k: 0 for the CAP, 1..n for the REs "re", "re2", ...: own MACs (mac: the uplink's), serial, ip."""

    def __init__(self, lab, name, uci=None, answers=None, k=0):
        self.lab, self.name, self.k, self.role = lab, name, k, "re" if k else "cap"
        m = "%02X" % (0x1F + k if k else 0x10)
        self.mac, self.ip = f"28:6C:07:{m}:00:01", f"192.168.77.{19 + k}"
        self.ns, self.dir = f"{lab.uniq}-{name}", os.path.join(lab.dir, name)
        self.root = os.path.realpath(os.path.join(self.dir, "root"))
        self.init_pid, self.holder, self.procs = None, None, []
        self.uci = seed_uci(self.role, m.lower())
        for k, v in (uci or {}).items():
            if v is None:   # drops an option, or a section with its options
                for key in [x for x in self.uci if x == k or x.startswith(k + ".")]:
                    del self.uci[key]
            else:
                self.uci[k] = v
        self.answers = default_answers(self.role, self.mac, self.k)
        for tool, a in (answers or {}).items():
            self.answers.setdefault(tool, {}).update(a)

    def path(self, p):
        """Host path of the router's absolute path p."""
        return os.path.join(self.root, p.lstrip("/"))

    def write(self, p, text):
        os.makedirs(os.path.dirname(self.path(p)), exist_ok=True)
        with open(self.path(p), "w") as f:
            f.write(text)

    def read(self, p, default=None):
        with contextlib.suppress(FileNotFoundError), open(self.path(p)) as f:
            return f.read()
        return default

    def calls(self, *tools, argv=False):
        """Recorded stand-in calls, e.g. "boardkv 'get' 'SN'" (argv: as lists);
        only those of tools if given."""
        lines = [l for l in (self.read(CALLS) or "").splitlines() if not tools or l.split(" ", 1)[0] in tools]
        return [shlex.split(l) for l in lines] if argv else lines

    def write_uci(self):
        """Writes self.uci as /etc/config files (drops pending changes)."""
        pkgs = {}
        for k, v in self.uci.items():
            pkg, sec, *opt = k.split(".", 2)
            s = pkgs.setdefault(pkg, {}).setdefault(sec, {"": None})
            s[opt[0] if opt else ""] = v
        for pkg, secs in pkgs.items():
            lines = []
            for sname, opts in secs.items():
                lines.append(f"\nconfig {opts[''] or 'section'} {shlex.quote(sname)}")
                lines += [f"\toption {o} {shlex.quote(str(v))}" for o, v in opts.items() if o]
            self.write(f"/etc/config/{pkg}", "\n".join(lines) + "\n")
            self.write(f"/tmp/.uci/{pkg}", "")

    def answer(self, tool, out="", rc=0, args=None):
        """Sets what a stand-in prints and returns, for calls whose joined
        arguments equal args (None: any call without a more specific answer)."""
        self.answers.setdefault(tool, {})[args] = (out, rc)
        self._write_answers(tool)

    def _write_answers(self, tool):
        table = sorted(self.answers.get(tool, {}).items(), key=lambda kv: kv[0] is None)
        cases = [f"{'*' if a is None else shlex.quote(a)}) printf %s {shlex.quote(o)}; exit {int(rc)} ;;"
                 for a, (o, rc) in table]
        self.write(f"/lab/ans/{tool}", "\n".join(['case "$*" in'] + cases + ["esac"]) + "\n")

    def build(self, busybox=BUSYBOX, applets=None):
        """Writes the router's root. busybox and its applet names: another build of it (an
        emulated router's, whose --list cannot run here) instead of the host's."""
        for d in DIRS:
            os.makedirs(self.path(d), exist_ok=True)
        for link, target in LINKS:
            os.symlink(target, self.path(link))
        for pid in range(1, PROC_PIDS + 1):
            os.symlink(f"/.kproc/{pid}", self.path(f"/proc/{pid}"))
        for d in DEVS:
            open(self.path("/dev/" + d), "w").close()
        shutil.copy2(busybox, self.path("/bin/busybox"))
        for a in applets or _run([BUSYBOX, "--list"]).stdout.split():
            if a != "busybox":
                os.symlink("/lab/withproc" if a in PROC_TOOLS else "busybox", self.path("/bin/" + a))
        for f, dest in (("standin", "/lab/standin"), ("withproc", "/lab/withproc"),
                        ("uci", "/lab/ans/uci"), ("uci.awk", "/lab/uci.awk"),
                        ("dhcp.script", "/lab/dhcp.script")):
            shutil.copy2(os.path.join(ROOTFS, f), self.path(dest))
        if self.k:   # the package's own DHCP hook, as the package installs it
            shutil.copy2(UDHCPC_HOOK, self.path("/etc/udhcpc.user.d/plaitd"))
        for tool, d in STANDINS.items():
            os.symlink("/lab/standin", self.path(f"{d}/{tool}"))
        for tool in self.answers:
            self._write_answers(tool)
        shutil.copy2("/etc/ld.so.cache", self.path("/etc/ld.so.cache"))
        for p, text in (("/etc/passwd", "root:x:0:0:root:/root:/bin/sh\n"),
                        ("/etc/group", "root:x:0:\n"), ("/etc/hosts", "127.0.0.1 localhost\n"),
                        ("/usr/sbin/mesh_info.lua", "-- read by the lua stand-in only\n"),
                        ("/proc/veltrasso/ft_mode", "0\n"), ("/tmp/boot_check_done", "1\n"),
                        (CALLS, "")):
            self.write(p, text)
        if self.lab.valgrind:
            os.makedirs(self.path(VALGRIND_LIBEXEC), exist_ok=True)
            for f in VALGRIND_BINS:
                shutil.copy2(f, self.path(f))
        tls = _tls_material()
        for f, dest in (("ca.crt", "/usr/share/veltrasso/cc/mq_a1"),
                        ("dev.crt", "/tmp/mq/cc/veltrasso_ct"), ("dev.key", "/tmp/mq/cc/veltrasso_ky")):
            shutil.copy2(os.path.join(tls, f), self.path(dest))
        self.write_uci()

    def start_holder(self):
        with open(os.path.join(self.dir, "holder.err"), "w") as err:
            self.holder = subprocess.Popen(
                [NSENTER, f"--net=/run/netns/{self.ns}", "unshare", "-m", "-p", "-f",
                 "--propagation", "private", "--kill-child", "/bin/sh", "-c", HOLDER_SETUP,
                 "holder", self.root],
                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err,
                start_new_session=True)

    def wait_holder(self, timeout=10):
        """Waits until the router's init has chrooted into the root (before
        that, nsenter -r would give a program the host's root)."""
        def init():
            kids = _children(self.holder.pid)
            with contextlib.suppress(OSError):
                return kids[0] if kids and os.readlink(f"/proc/{kids[0]}/root") == self.root else None
        wait_until(lambda: init() or self.holder.poll() is not None, timeout)
        self.init_pid = init()
        if not self.init_pid:
            with open(os.path.join(self.dir, "holder.err")) as f:
                raise RuntimeError(f"router {self.name} did not come up: " + f.read())

    def enter(self):
        """argv prefix that runs a program inside the router."""
        return [NSENTER, "-t", str(self.init_pid), "-m", "-n", "-p", "-r", "-w", "--"]

    def sh(self, cmd, timeout=10, check=True):
        """Runs a busybox sh command line in the router; returns CompletedProcess."""
        r = subprocess.run(self.enter() + ["/bin/sh", "-c", cmd], env=ROUTER_ENV, capture_output=True,
                           text=True, timeout=timeout, stdin=subprocess.DEVNULL)
        if check and r.returncode != 0:
            raise AssertionError(f"{self.name}: {cmd!r} -> {r.returncode}\n{r.stdout}{r.stderr}")
        return r

    def netns_argv(self, argv):
        """argv to run a host program (e.g. /usr/bin/python3) in the router's
        network namespace only: it sees the host's files, not the router's."""
        return [NSENTER, f"--net=/run/netns/{self.ns}"] + list(argv)

    def netns_run(self, argv, timeout=10, check=True):
        return subprocess.run(self.netns_argv(argv), capture_output=True, text=True,
                              timeout=timeout, check=check, stdin=subprocess.DEVNULL)

    def spawn(self, argv, name=None):
        """Starts argv in the router in the background. Its router PID goes to
        /var/run/<name>.pid (the udhcpc hook signals plaitd through it)."""
        name = name or os.path.basename(argv[0])
        out, err = (os.path.join(self.dir, f"{name}.{x}") for x in ("out", "err"))
        with open(out, "wb") as fo, open(err, "wb") as fe:
            p = subprocess.Popen(self.enter() + ["/bin/sh", "-c", 'echo $$ > "/run/$0.pid"; exec "$@"',
                                                 name] + list(argv),
                                 env=ROUTER_ENV, stdin=subprocess.DEVNULL, stdout=fo, stderr=fe,
                                 start_new_session=True)
        kids = wait_until(lambda: _children(p.pid) or p.poll() is not None, 3)
        self.procs.append(Proc(self, name, p, kids[0] if isinstance(kids, list) else None, out, err))
        return self.procs[-1]

    def plaitd(self, *args, binary=None, prefix=()):
        """Starts the real daemon (stdout: status records, stderr: log with -o).
        prefix runs in front of it (valgrind ...) and must exec it in the same
        process, so that Proc.pid and /var/run/plaitd.pid stay the daemon's."""
        shutil.copy2(binary or PLAITD_BIN, self.path("/usr/sbin/plaitd"))
        return self.spawn(list(prefix) + ["/usr/sbin/plaitd"] + list(args), "plaitd")

    def job(self, prog, *args):
        """lab/<prog> (peer.py, hostile.py) in the router's namespace, args
        JSON-encoded unless strings."""
        argv = [a if isinstance(a, str) else json.dumps(a) for a in args]
        return NetnsJob(self, ["/usr/bin/python3", os.path.join(HERE, prog)] + argv, prog.split(".")[0])

    def hold_mesh_lock(self):
        """Writes the daemon's mesh lock as if another process had just taken it."""
        with open("/proc/uptime") as f:
            self.write(LOCK, str(int(float(f.read().split()[0]))))

    def drop_mesh_lock(self):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path(LOCK))

    def ipv4(self, dev):
        """The IPv4 addresses on dev, in order."""
        out = subprocess.run(["ip", "-n", self.ns, "-4", "-o", "addr", "show", dev], capture_output=True, text=True)
        return re.findall(r"inet ([\d.]+)/", out.stdout)

    def readdress(self, dev, ip):
        """Gives dev the single IPv4 address ip/24 in place of any it had (a CAP's responder
        notices a new br-lan address at its next answer and restarts the server on it)."""
        _run(["ip", "-n", self.ns, "addr", "flush", "dev", dev])
        _run(["ip", "-n", self.ns, "addr", "add", f"{ip}/24", "brd", "+", "dev", dev])

    def start_cap(self, *args):
        """plaitd -S on br-lan (args added), once it listens."""
        p = self.plaitd("-S", "-o", "-i", "br-lan", *args)
        p.wait_log(LISTENING, 10)
        return p

    def stop_all(self):
        for p in self.procs:
            if p.running():
                p.stop(2)
        self.procs = []

    def kill_init(self):
        if self.init_pid and _alive(self.init_pid):
            os.kill(self.init_pid, signal.SIGKILL)
        if self.holder is not None:
            try:
                self.holder.wait(5)
            except subprocess.TimeoutExpired:
                self.holder.kill()


class Lab:
    """A CAP and n REs (lab.res; lab.re is the first): one RE on a cable (CAP eth0 - RE eth4), n > 1
    on a switch (bridge "sw" in netns "<lab>-sw", port p<k> per router). up() builds everything;
    down() removes it (also run at exit for labs that are still up)."""
    _live = set()

    def __init__(self, cap_uci=None, re_uci=None, cap_answers=None, re_answers=None,
                 re_lan_ip=FACTORY_IP, uniq=None, base=None, owned=True, valgrind=False, n=1, wire=False):
        self.valgrind = valgrind   # routers can run their programs under valgrind
        self.uniq = uniq or f"lab-{os.getpid()}-{secrets.token_hex(2)}"
        self.dir = os.path.join(base or LAB_BASE, self.uniq)
        self.re_lan_ip, self.owned = re_lan_ip, owned
        self.switch = f"{self.uniq}-sw" if n > 1 else None
        self.wire = f"{self.uniq}-wire" if wire and n == 1 else None   # the cable with faults (wire.py)
        self.relay = None
        self.cap = Router(self, "cap", cap_uci, cap_answers)
        self.res = [Router(self, "re" + str(k) * (k > 1), re_uci, re_answers, k) for k in range(1, n + 1)]
        self.re, self.routers = self.res[0], (self.cap, *self.res)

    def up(self):
        os.makedirs(self.dir)
        if self.owned:
            Lab._live.add(self)
        try:
            for r in self.routers:
                r.build()
            self._net()
            if self.wire:
                self._relay()
            for step in [r.start_holder for r in self.routers] + [r.wait_holder for r in self.routers]:
                step()
        except BaseException:
            self.down()
            raise
        return self

    def _net(self):
        sw, batches = self.switch, {}
        def bridge(b):
            return ["link set lo up", f"link add {b} type bridge forward_delay 0", f"link set {b} up"]
        def veth(a, r):   # from a on the switch (or the CAP) to r's port
            return (f"link add {a} type veth peer name eth{4 if r.k else 0} netns {r.ns}"
                    + (f" address {r.mac.lower()}" if r.k else ""))
        if sw:
            batches[sw] = bridge("sw") + [x for r in self.routers for x in (
                veth(f"p{r.k}", r), f"link set p{r.k} master sw", f"link set p{r.k} up")]
        if self.wire:
            batches[self.wire] = ["link set lo up"] + [x for r, w in zip(self.routers, WIRE_ENDS) for x in (
                veth(w, r), f"link set {w} up")]
        batches[self.cap.ns] = bridge("br-lan") + ([] if sw or self.wire else [veth("eth0", self.re)]) + [
            "link set eth0 master br-lan", "link set eth0 up", f"addr add {FACTORY_IP}/24 brd + dev br-lan"]
        lan = [f"addr add {self.re_lan_ip}/24 brd + dev br-lan"] if self.re_lan_ip else []
        batches.update((r.ns, bridge("br-lan") + ["link set eth4 up"] + lan) for r in self.res)
        for ns in batches:
            _run(["ip", "netns", "add", ns])
        for ns, lines in batches.items():
            _run(["ip", "-n", ns, "-batch", "-"], input="\n".join(lines) + "\n")

    def _relay(self):
        """Starts wire.py between w0 and w1, with no fault yet. Every frame on the cable is a wire
        frame: no segmentation or checksum offload at the ends, so a corrupted one fails its checksum."""
        _run(["ip", "netns", "exec", self.wire, "sysctl", "-qw", "net.ipv6.conf.all.disable_ipv6=1"])   # a quiet cable
        for ns, dev in [(self.cap.ns, "eth0"), (self.re.ns, "eth4")] + [(self.wire, w) for w in WIRE_ENDS]:
            _run(["ip", "netns", "exec", ns, "ethtool", "-K", dev, "tx", "off", "tso", "off", "gso", "off"])
        self.impair()
        out = os.path.join(self.dir, "wire.out")
        with open(out, "w") as f:
            self.relay = subprocess.Popen([NSENTER, f"--net=/run/netns/{self.wire}", "/usr/bin/python3",
                                           os.path.join(HERE, "wire.py"), os.path.join(self.dir, "wire.json")],
                                          stdin=subprocess.DEVNULL, stdout=f, stderr=subprocess.STDOUT)
        if not wait_until(lambda: "ready" in _text(out) or self.relay.poll() is not None, 10) or self.relay.poll():
            raise RuntimeError("the cable's relay did not start: " + _text(out))
        self._carries()

    def _carries(self, timeout=5):
        """Waits until a test frame from the RE's eth4 reaches the CAP's br-lan (wire.py heard)."""
        wire = os.path.join(HERE, "wire.py")
        ear = subprocess.Popen(self.cap.netns_argv(["/usr/bin/python3", wire, "heard", "br-lan", str(timeout)]),
                               stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        ear.stdout.readline()
        mouth = subprocess.Popen(self.re.netns_argv(["/usr/bin/python3", wire, "hello", "eth4", str(timeout)]),
                                 stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        rc = ear.wait(timeout + 5)
        mouth.kill()
        mouth.wait(5)
        if rc != 0:
            raise RuntimeError("the cable's relay carries no frame")

    def impair(self, **netem):
        """What the cable does to each frame from now on (wire.py): loss, delay, jitter, reorder,
        duplicate, corrupt (% or ms), seed; none: a good cable."""
        tmp = os.path.join(self.dir, "wire.json.new")
        with open(tmp, "w") as f:
            json.dump(netem, f)
        os.replace(tmp, os.path.join(self.dir, "wire.json"))

    def cable(self, plugged):
        """Pulls the cable (both routers lose carrier) or puts it back."""
        for w in WIRE_ENDS:
            _run(["ip", "-n", self.wire, "link", "set", w, "up" if plugged else "down"])

    def static_uplink(self, ip=None, gw=FACTORY_IP):
        """Gives each RE's eth4 a fixed address (ip, else r.ip: .20, .21, ...) and its gateway file."""
        for r in self.res:
            _run(["ip", "-n", r.ns, "addr", "add", f"{ip or r.ip}/24", "brd", "+", "dev", "eth4"])
            r.write("/tmp/cab_plaitd_gw_ip", f"{gw}\n{ip or r.ip}\n")

    def dhcp_uplink(self, timeout=15):
        """udhcpd on the CAP's br-lan, busybox udhcpc on each RE's eth4 run as netifd runs it for
        the network "wan" (rootfs/dhcp.script, which runs the package's hook); returns once every
        hook wrote its gateway file."""
        self.cap.write("/etc/udhcpd.conf", UDHCPD_CONF)
        self.cap.write("/tmp/udhcpd.leases", "")
        srv = self.cap.spawn(["udhcpd", "-f", "-a", "200", "/etc/udhcpd.conf"])   # ARP ping of an offer: 0.2 s
        clts = [r.spawn(["env", "INTERFACE=wan", "udhcpc", "-f", "-i", "eth4", "-s", "/lab/dhcp.script",
                         "-t", "30", "-T", "1", "-A", "1"], "udhcpc") for r in self.res]
        leased = lambda r: len((r.read("/tmp/cab_plaitd_gw_ip") or "").splitlines()) >= 2   # noqa: E731
        if not wait_until(lambda: all(map(leased, self.res)), timeout):
            raise AssertionError("no DHCP lease: " + "".join(c.err()[-500:] for c in clts) + srv.err()[-800:])

    def dd_request(self, payload, wait=1.5):
        """Broadcasts one discovery datagram from the RE's eth4 and returns the
        CAP answers heard within wait seconds, as bytes."""
        args = json.dumps({"hex": payload.hex(), "wait": wait})
        r = self.re.netns_run(["/usr/bin/python3", os.path.join(HERE, "hostile.py"), "ddsend", args],
                              timeout=wait + 10)
        return [bytes.fromhex(x) for x in json.loads(r.stdout.splitlines()[-1])["answers"]]

    def down(self):
        errors = []
        for step in [r.stop_all for r in self.routers] + [r.kill_init for r in self.routers]:
            try:
                step()
            except Exception as e:   # keep tearing down
                errors.append(e)
        if self.relay and self.relay.poll() is None:
            self.relay.kill()
            self.relay.wait(5)
        for ns in [r.ns for r in self.routers] + [self.switch, self.wire]:
            if ns and os.path.exists(f"/run/netns/{ns}"):
                subprocess.run(["ip", "netns", "del", ns], capture_output=True, timeout=10)
        if not os.environ.get("LAB_KEEP"):
            shutil.rmtree(self.dir, ignore_errors=True)
        Lab._live.discard(self)
        if errors:
            raise errors[0]


@atexit.register
def _down_all():
    for lab in list(Lab._live):
        with contextlib.suppress(Exception):
            lab.down()


def sanitizer(binary=None):
    """"asan" or "tsan" when the daemon binary is built with that sanitizer, else None."""
    try:
        with open(binary or PLAITD_BIN, "rb") as f:
            img = f.read()
    except OSError:   # no binary: the tests skip
        return None
    return "asan" if b"__asan_init" in img else "tsan" if b"__tsan_init" in img else None


def cleanup_stale(base=None):
    """Removes namespaces, processes and directories of labs whose owning
    process (the PID in "lab-<pid>-<hex>") is gone. Returns the names removed."""
    base = base or LAB_BASE
    pat = re.compile(r"^(lab-(\d+)-(?:[0-9a-f]{4}|tls))(?:-[a-z]+\d*)?$")
    nss = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout
    names = [l.split()[0] for l in nss.splitlines() if l.strip()]
    dead = {m.group(1) for m in map(pat.match, names + os.listdir(base))
            if m and not _alive(int(m.group(2)))}
    for uniq in dead:
        d = os.path.join(base, uniq)
        for pid in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError):
                if os.readlink(f"/proc/{pid}/root").startswith(d + "/"):
                    os.kill(int(pid), signal.SIGKILL)
        for n in names:
            if n.startswith(uniq + "-"):
                subprocess.run(["ip", "netns", "del", n], capture_output=True, timeout=10)
        shutil.rmtree(d, ignore_errors=True)
    return sorted(dead)
