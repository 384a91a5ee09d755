#!/usr/bin/python3
"""One pairing in the two-router lab, narrated.

CAP: plaitd -S -i br-lan      RE: plaitd -C -i eth4 (uplink address by DHCP)
Both log to their router's syslog (busybox syslogd), as on a router. Prints
the timeline (with each phase of both status files as it changes), both logs, the status records, the platform calls of each side
and a one-line verdict. Exit status 0 when the routers paired.

--emulated: the same pairing between two emulated MIPS routers (qemu Malta
boards, lab/emulab.py) from the kit in $EMU_KIT, with PLAITD_BIN a static
mipsel build; the pairing time is measured by the RE's own clock.
"""
import base64
import json
import os
import shlex
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.realpath(__file__)), "..", "lab"))
import routerlab as rl  # noqa: E402

TIMEOUT = 60
PLATFORM = ("mesh_setup.sh", "vsled", "lua")
T0 = time.monotonic()


def say(msg):
    print(f"[{time.monotonic() - T0:6.2f}s] {msg}", flush=True)


def section(title, lines):
    print(f"\n── {title} " + "─" * max(0, 66 - len(title)))
    for line in lines:
        print("  " + line)
    if not lines:
        print("  (none)")


def syslog(router):
    """The router's syslog, without the syslog header up to the ident."""
    text = router.read("/tmp/messages") or ""
    out = []
    for line in text.splitlines():
        i = line.find("plaitd[")
        out.append(line[i:] if i >= 0 else line)
    return out


def start_syslog(router):
    router.spawn(["syslogd", "-n", "-S", "-O", "/tmp/messages"], "syslogd")
    if not rl.wait_until(lambda: os.path.exists(router.path("/dev/log")), 5):
        raise RuntimeError(f"{router.name}: syslogd did not start")


def status(router):
    """The router's status file as read (None when missing or caught half-made)."""
    try:
        return json.loads(router.read(rl.STATUS) or "null")
    except ValueError:
        return None


def phases(lab, seen):
    """Narrates each router's status-file phase that differs from seen[name]; the CAP's phase."""
    for r in lab.routers:
        st = status(r)
        if st and st["phase"] != seen.get(r.name):
            seen[r.name] = st["phase"]
            peer, fail = st["peer"], st["last_failure"]
            why = f" ({fail['reason']} in {fail['phase']})" if st["phase"] == "failed" else ""
            who = f", peer {peer['addr']} {peer['mac']}".rstrip() if peer["addr"] else ""
            say(f"{r.name.upper() + ':':4} status {st['phase']}{why}{who}, attempts {st['attempts']}")
    return seen.get("cap")


def pair(lab):
    say(f"lab up: routers {lab.cap.ns} and {lab.re.ns}, cable eth0 (CAP br-lan) <-> eth4 (RE)")
    for r in lab.routers:
        start_syslog(r)
    lab.dhcp_uplink()
    gw, ip = lab.re.read("/tmp/cab_plaitd_gw_ip").split()[:2]
    say(f"DHCP: RE eth4 leased {ip} from the CAP's udhcpd, gateway {gw}")
    cap = lab.cap.plaitd("-S", "-i", "br-lan")
    rl.wait_until(lambda: "enter broadcast recving loop" in "\n".join(syslog(lab.cap)), 10)
    say("CAP: plaitd -S -i br-lan is answering discovery and listening on TCP 19553")
    seen = {}
    phases(lab, seen)
    t_re = time.monotonic()
    re_ = lab.re.plaitd("-C", "-i", "eth4")
    say("RE:  plaitd -C -i eth4 started")
    rc = None
    while rc is None and time.monotonic() - t_re < TIMEOUT:   # the status files polled every 5 ms
        phases(lab, seen)
        rc = re_.wait(0.005)
    took = time.monotonic() - t_re
    phases(lab, seen)
    rl.wait_until(lambda: phases(lab, seen) == "paired", 3, 0.005)
    rl.wait_until(lambda: lab.cap.calls("mesh_setup.sh"), 3)
    say(f"RE:  exited with status {rc}" if rc is not None else f"RE:  still running after {TIMEOUT}s")
    return cap, re_, rc, took


def records(proc):
    return [l for l in proc.out().splitlines() if l.startswith("mesh.")]


RE_INIT_ARGS = ("2.4 GHz SSID", "2.4 GHz key", "2.4 GHz encryption", "5 GHz SSID", "5 GHz key",
                "5 GHz encryption", "backhaul SSID", "backhaul key", "backhaul encryption", "flag")


def decoded(call):
    """The re_init arguments, base64 texts decoded, one per line."""
    args = shlex.split(call)[2:]
    out = []
    for name, val in zip(RE_INIT_ARGS, args):
        if ("SSID" in name or "key" in name) and val != "null":
            val = base64.b64decode(val).decode(errors="replace")
        out.append(f"{name:20} {val}")
    return out


def report(lab, cap, re_, rc, took, clock=""):
    section("CAP log (syslog)", syslog(lab.cap))
    section("RE log (syslog)", syslog(lab.re))
    section("status records (CAP stdout)", records(cap))
    section("status records (RE stdout)", records(re_))
    for r in lab.routers:
        section(f"status file {rl.STATUS} ({r.name.upper()})", (r.read(rl.STATUS) or "").splitlines())
    for r in lab.routers:
        section(f"platform calls ({r.name.upper()})",
                [c for c in r.calls() if c.split(" ", 1)[0] in PLATFORM])
    cap_init = [c for c in lab.cap.calls("mesh_setup.sh") if c.startswith("mesh_setup.sh 'cap_init")]
    re_init = [c for c in lab.re.calls("mesh_setup.sh") if c.startswith("mesh_setup.sh 're_init")]
    if re_init and not re_init[0].startswith("mesh_setup.sh 're_init_bsd'"):
        section("what the RE was told (re_init arguments, base64 decoded)", decoded(re_init[0]))
    print()
    if rc == 0 and cap_init and re_init:
        print(f"PAIRED in {took:.2f} s{clock}: the RE ran re_init and exited 0, the CAP ran cap_init.")
        return 0
    why = []
    if rc != 0:
        why.append(f"RE exit status {rc}")
    if not re_init:
        why.append("no re_init on the RE")
    if not cap_init:
        why.append("no cap_init on the CAP")
    print(f"NOT PAIRED after {took:.2f} s{clock}: " + ", ".join(why) + ".")
    return 1


def emulated_report(lab, cap, re_, fr, fc):
    """report() for lab/emulab.py's guests, after the figures they sent."""
    for name, f in (("CAP", fc), ("RE", fr)):
        if f["boot"] is not None:
            say(f"{name}: init ran {f['boot']:.2f} s after the kernel started (guest clock), "
                f"{f['wall_init']:.1f} s after qemu did; reported {f['wall_done']:.1f} s after")
    rc = None if fr["rc"] is None else int(fr["rc"])
    took = fr["end"] - fr["start"] if fr["end"] is not None and fr["start"] is not None else 0.0
    return report(lab, cap, re_, rc, took, " (measured in the guests)")


def emulated():
    import emulab
    say("emulated routers: two qemu Malta boards, Debian's 4kc-malta kernel, "
        "each booting a lab router's root as its initramfs")
    try:
        return emulab.pair(os.environ["EMU_KIT"], rl.PLAITD_BIN, emulated_report, say,
                           cpu=os.environ.get("EMU_CPU", "24Kc"))
    except RuntimeError as e:
        print(f"\nNOT PAIRED: {e}")
        return 1


def main():
    if not os.access(rl.PLAITD_BIN, os.X_OK):
        sys.exit(f"no plaitd binary at {rl.PLAITD_BIN}")
    if sys.argv[1:] == ["--emulated"]:
        return emulated()
    rl.cleanup_stale()
    lab = rl.Lab()
    try:
        lab.up()
        cap, re_, rc, took = pair(lab)
        cap.stop()
        return report(lab, cap, re_, rc, took)
    finally:
        lab.down()


if __name__ == "__main__":
    sys.exit(main())
