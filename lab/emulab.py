"""Two emulated MIPS routers: each a qemu Malta board (MIPS 24Kc, 128 MiB) running Debian's
4kc-malta kernel from an initramfs that holds a lab router's root (routerlab.Router.build with the
mipsel busybox), a static mipsel plaitd, the NIC modules and emu/init as PID 1. The cable is a qemu
socket netdev over loopback, nothing else: the CAP's board listens on 127.0.0.1:<port>, the RE's
connects. Each guest plays its side of one pairing, then writes its figures and files to its second
serial port and powers off; the host copies the files back into the router roots, so Router.read()
and Router.calls() work as in the namespace lab.

The kit directory (scripts/pair --emulated fills build/emu) holds vmlinux, busybox,
busybox.applets (its applet names) and mod/<name>.ko."""
import base64
import contextlib
import gzip
import os
import shutil
import signal
import socket
import stat
import subprocess
import sys
import tempfile
import time
import types

import routerlab as rl

INIT = os.path.join(rl.HERE, "emu", "init")
MODULES = ("mii", "pcnet32", "llc", "stp", "bridge")   # insmod order: pcnet32 needs mii, bridge stp and llc
# Character devices of the initramfs; the lab's root has plain files for some (bind-mount targets).
DEVNODES = {"console": (5, 1), "ttyS0": (4, 64), "ttyS1": (4, 65), "null": (1, 3), "zero": (1, 5),
            "full": (1, 7), "random": (1, 8), "urandom": (1, 9)}
QEMU = "qemu-system-mipsel"
DONE = "@@ done"
# Roots and images are built on a tmpfs when there is one: thousands of small files and links.
WORK_BASE = os.environ.get("EMU_BASE") or ("/dev/shm" if os.access("/dev/shm", os.W_OK) else rl.LAB_BASE)


def cpio_newc(root, dest, nodes):
    """Writes the tree under root as a gzip'd cpio "newc" archive (what the kernel unpacks as its
    initramfs), every entry owned by root; nodes: dev name -> (major, minor), as /dev/<name>."""
    ino = [0]

    def entry(out, name, mode, data=b"", rdev=(0, 0)):
        ino[0] += 1
        nb = name.encode() + b"\0"
        fields = (ino[0], mode, 0, 0, 1, 0, len(data), 0, 0, rdev[0], rdev[1], len(nb), 0)
        hdr = b"070701" + b"".join(b"%08X" % f for f in fields)
        out.write(hdr + nb + b"\0" * (-(len(hdr) + len(nb)) % 4) + data + b"\0" * (-len(data) % 4))

    with gzip.open(dest, "wb", compresslevel=6) as out:
        for d, dirs, files in os.walk(root):
            dirs.sort()
            rel = os.path.relpath(d, root)
            if rel != ".":
                entry(out, rel, stat.S_IFDIR | 0o755)
            for f in sorted(files) + [x for x in dirs if os.path.islink(os.path.join(d, x))]:
                p, name = os.path.join(d, f), os.path.normpath(os.path.join(rel, f))
                if name.startswith("dev/") and name[4:] in nodes:
                    continue
                st = os.lstat(p)
                if stat.S_ISLNK(st.st_mode):
                    entry(out, name, stat.S_IFLNK | 0o777, os.readlink(p).encode())
                else:
                    with open(p, "rb") as fh:
                        entry(out, name, stat.S_IFREG | (st.st_mode & 0o777), fh.read())
        for n, rdev in sorted(nodes.items()):
            entry(out, "dev/" + n, stat.S_IFCHR | 0o600, rdev=rdev)
        entry(out, "TRAILER!!!", 0)


def build_router(work, name, k, kit, binary, limit):
    """A lab router's root for the emulated board (k: 0 CAP, 1 RE) and its initramfs;
    returns the Router (its root stays on the host for the files the guest sends back)."""
    stub = types.SimpleNamespace(uniq="emu", dir=work, valgrind=False)
    r = rl.Router(stub, name, k=k)
    os.makedirs(r.root)
    with open(os.path.join(kit, "busybox.applets")) as f:
        r.build(busybox=os.path.join(kit, "busybox"), applets=f.read().split())
    shutil.copy2(binary, r.path("/usr/sbin/plaitd"))
    shutil.copy2(INIT, r.path("/init"))
    os.makedirs(r.path("/lab/mod"))
    for m in MODULES:
        shutil.copy2(os.path.join(kit, "mod", m + ".ko"), r.path(f"/lab/mod/{m}.ko"))
    if not k:
        r.write("/etc/udhcpd.conf", rl.UDHCPD_CONF)
    r.write("/lab/emu.env", f"ROLE={r.role}\nLIMIT={limit}\nCALLS={rl.CALLS}\n")
    r.initrd = os.path.join(r.dir, "initrd.gz")
    cpio_newc(r.root, r.initrd, DEVNODES)
    return r


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def listening(port):
    """True when a socket listens on 127.0.0.1:port (read from /proc: a test connection would
    become the board's one peer)."""
    want = "0100007F:%04X" % port
    with open("/proc/net/tcp") as f:
        return any(l.split()[1] == want and l.split()[3] == "0A" for l in f.readlines()[1:])


class Board:
    """One qemu Malta board: console on ttyS0 (<dir>/console.log), figures and files on ttyS1
    (<dir>/data.log)."""

    def __init__(self, router, kit, netdev, cpu):
        self.router = router
        self.console, self.data = (os.path.join(router.dir, x) for x in ("console.log", "data.log"))
        argv = [QEMU, "-M", "malta", "-cpu", cpu, "-m", "128", "-nodefaults", "-vga", "none",
                "-display", "none", "-no-reboot", "-kernel", os.path.join(kit, "vmlinux"),
                "-initrd", router.initrd, "-append", "console=ttyS0 rdinit=/init quiet",
                "-netdev", netdev + ",id=cable",
                "-device", f"pcnet,netdev=cable,mac={router.mac.lower()},romfile=",
                "-serial", "file:" + self.console, "-serial", "file:" + self.data]
        self.t0, self.wall_init, self.wall_done, self.said = time.monotonic(), None, None, 0
        with open(os.path.join(router.dir, "qemu.err"), "w") as err:
            self.p = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=err, stderr=err)

    def text(self, path):
        with contextlib.suppress(FileNotFoundError):
            return rl._text(path).replace("\r", "")
        return ""

    def poll(self, say):
        """True once the guest has reported (or its board is gone). Narrates the guest's new
        timeline lines ("@ <uptime> <text>" on its console) and notes the wall times of init's
        start (wall_init) and of the report (wall_done), seconds since qemu started."""
        now = time.monotonic() - self.t0
        lines = [l[2:].split(" ", 1) for l in self.text(self.console).splitlines() if l.startswith("@ ")]
        for up, text in lines[self.said:]:
            say(f"{self.router.name.upper():3} [guest {float(up):6.2f} s] {text}")
            if self.wall_init is None:
                self.wall_init = now
        self.said = len(lines)
        if self.wall_done is None and (DONE in self.text(self.data) or self.p.poll() is not None):
            self.wall_done = now
        return self.wall_done is not None

    def stop(self):
        if self.p.poll() is None:
            self.p.kill()
        self.p.wait(10)

    def result(self):
        """The guest's figures (dict of floats, None when missing) after copying the files it sent
        into the router's root."""
        figures, cur, chunks = {}, None, {}
        for line in self.text(self.data).splitlines():
            if line.startswith("@@ file "):
                cur = line[8:]
                chunks[cur] = []
            elif line.startswith("@@ "):
                cur = None
                figures.update(w.split("=", 1) for w in line[3:].split() if "=" in w)
            elif cur:
                chunks[cur].append(line)
        for path, lines in chunks.items():
            data = base64.b64decode("".join(lines))
            os.makedirs(os.path.dirname(self.router.path(path)), exist_ok=True)
            with open(self.router.path(path), "wb") as f:
                f.write(data)

        def num(k):
            with contextlib.suppress(KeyError, ValueError):
                return float(figures[k])
        return {k: num(k) for k in ("boot", "start", "end", "rc")}

    def tail(self, n=1500):
        return self.text(self.console)[-n:] + self.text(os.path.join(self.router.dir, "qemu.err"))[-n:]


class GuestProc:
    """plaitd as it ran in a guest, for the narration: out() its status records, err() stderr."""

    def __init__(self, router):
        self.router = router

    def out(self):
        return self.router.read("/tmp/plaitd.out", "")

    def err(self):
        return self.router.read("/tmp/plaitd.err", "")


def pair(kit, binary, report, say=print, limit=90, timeout=240, cpu="24Kc"):
    """Boots both boards, waits (timeout s of wall time at most) for both to report and returns
    report(lab, cap proc, re proc, RE figures, CAP figures), called before the routers' files are
    removed. Figures: guest uptimes at init ("boot"), at plaitd's start and end, its exit status
    ("rc"), and the wall times since qemu started of init's start and of the report ("wall_init",
    "wall_done"); None when missing."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))   # run the clean-up
    work = tempfile.mkdtemp(prefix="emu-", dir=WORK_BASE)
    boards, ok = [], False
    try:
        cap = build_router(work, "cap", 0, kit, binary, limit)
        re_ = build_router(work, "re", 1, kit, binary, limit)
        lab = types.SimpleNamespace(cap=cap, re=re_, routers=(cap, re_), dir=work)
        say(f"initramfs: {os.path.getsize(cap.initrd) // 1024} KiB (CAP), "
            f"{os.path.getsize(re_.initrd) // 1024} KiB (RE)")
        port = free_port()
        boards.append(Board(cap, kit, f"socket,listen=127.0.0.1:{port}", cpu))
        if not rl.wait_until(lambda: listening(port) or boards[0].p.poll() is not None, 10) \
                or boards[0].p.poll() is not None:
            raise RuntimeError("the CAP's board did not start: " + boards[0].tail())
        boards.append(Board(re_, kit, f"socket,connect=127.0.0.1:{port}", cpu))
        say(f"booting two Malta boards (MIPS {cpu}), cable: qemu socket netdev on 127.0.0.1:{port}")
        if not rl.wait_until(lambda: all([b.poll(say) for b in boards]), timeout, step=0.1):
            late = [b for b in boards if b.wall_done is None]
            raise RuntimeError(f"{late[0].router.name}: no report within {timeout} s; console:\n"
                               + late[0].tail())
        for b in boards:   # the guests power off once they have reported
            with contextlib.suppress(subprocess.TimeoutExpired):
                b.p.wait(5)
            b.poll(say)
        fc, fr = (b.result() for b in boards)
        for b, f in zip(boards, (fc, fr)):
            f.update(wall_init=b.wall_init, wall_done=b.wall_done)
        rc = report(lab, GuestProc(cap), GuestProc(re_), fr, fc)
        ok = rc == 0
        return rc
    finally:
        for b in boards:
            b.stop()
        if ok or not os.environ.get("LAB_KEEP"):
            shutil.rmtree(work, ignore_errors=True)
        else:
            say(f"kept {work} (roots, console.log, data.log and qemu.err of each board)")
