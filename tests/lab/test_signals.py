"""SIGTERM/SIGINT at random moments of every phase of both daemons.
PLAITD_STRESS_SCALE scales the counts (default 1, 0.25 for a sanitizer build)."""
import os
import random
import time

import routerlab

FACTORY, P = routerlab.FACTORY_IP, f"peer-{routerlab.RE_STATIC_IP}"
SCALE = float(os.environ.get("PLAITD_STRESS_SCALE", "0.25" if routerlab.sanitizer() else "1"))
# An honest RE up to the CAP's cap_init: both authentications, then the sync reply.
HONEST = [["auth_req", {}], ["recv", {}], ["recv", {}], ["reply", {}], ["recv", {}], ["reply", {"sync": True}],
          ["sleep", {"s": 3}]]


def stop_and_check(router, proc, sig, bad):
    """Signal: exit 255 within 2 s, with the clean-up and no lock file left.
    None when the daemon had paired (the stop came after, or on its way out)."""
    proc.signal(sig)
    rc, log = proc.wait(2.0), proc.log()
    if rc in (0, 255) and "RE cab mesh init done. exit.\n" in log:
        return None   # paired: a stop on its way out keeps the paired address
    if not (rc == 255 and f"NOTE: get sig: {int(sig)}.\n" in log and "cleanup cable-mesh resources before exit.\n"
            in log and router.read(routerlab.LOCK) is None):
        bad.append((rc, log[-1500:]))
        proc.stop(1), router.drop_mesh_lock()
    return True


def test_cap_stops_cleanly_on_signals_in_every_phase(make_lab):
    lab = make_lab(re_lan_ip=None)
    lab.cap.write("/lab/ans/mesh_setup.sh", "sleep 0.5\n")   # a signal can land while cap_init runs
    lab.cap.plaitd("-h").wait(5)   # puts the binary in place
    rng, bad, n = random.Random(11), [], max(10, int(200 * SCALE))
    phases = {"idle": None, "hostile_hello": ("hostile.py", "plans", "incoming peer"), "tls": ("peer.py", "re", "incoming peer"),
              "auth": ("peer.py", "re", f"[{P}]: ST_TCP_DONE -> ST_SSL_DONE"), "cap_init": ("peer.py", "re", "NOTE: execute tolvaInitCap")}
    for i in range(n):
        phase = list(phases)[i % 5]
        cap = lab.cap.spawn(["/usr/sbin/plaitd", "-S", "-o", "-i", "br-lan"], "plaitd")
        assert routerlab.wait_until(lambda: routerlab.LISTENING in cap.err(), 10, step=0.002), cap.log()[-2000:]
        peer = None
        if phases[phase]:
            prog, cmd, mark = phases[phase]
            steps = {"hostile_hello": {"plans": [["half", [["hello_part", rng.choice([0.3, 0.7, 1.0])], ["closed", 5]]]]},
                     "tls": [["sleep", {"s": 5}]]}.get(phase, HONEST)
            peer = lab.re.job(prog, cmd, steps) if prog == "hostile.py" else lab.re.job(prog, cmd, steps, {})
            routerlab.wait_until(lambda: mark in cap.err(), 10, step=0.002)
        time.sleep(rng.uniform(0, 0.3 if phase in ("idle", "cap_init") else 0.02))
        stop_and_check(lab.cap, cap, (15, 2)[i % 2], bad)
        if peer:
            peer.kill()
    assert not bad, (len(bad), bad[:3])


def test_re_stops_cleanly_on_signals_in_every_phase(make_lab):
    lab = make_lab()
    uci = lab.re.read("/lab/ans/uci")
    cap = lab.cap.start_cap()
    lab.re.plaitd("-h").wait(5)
    rng, bad, n, signals, paired = random.Random(12), [], max(10, int(100 * SCALE)), 0, 0
    while signals < n and paired < n:
        phase = ("any", "any", "busy", "re_init", "usr1")[signals % 5]
        busy = phase in ("busy", "usr1")   # the CAP refuses: the RE waits and retries
        if busy:
            lab.cap.hold_mesh_lock()
        # Slow platform commands: a stop must not wait for them.
        lab.re.write("/lab/ans/mesh_setup.sh", "sleep 5\n" if phase == "re_init" else "sleep 0.3\n")
        lab.re.write("/lab/ans/uci", ('[ "$*" = "-q get network.wan.ifname" ] && sleep 5\n' if phase == "usr1" else "") + uci)
        re_ = lab.re.spawn(["/usr/sbin/plaitd", "-C", "-o"], "plaitd")
        routerlab.wait_until(re_.log, 5, step=0.01)   # started: a signal before its handler kills it
        if phase == "re_init":
            routerlab.wait_until(lambda: "NOTE: execute tolvaInitRE" in re_.log(), 10, step=0.01)
        elif phase == "usr1":
            time.sleep(0.5)
            re_.signal(10)
        time.sleep(rng.uniform(0.05, 4.0 if phase == "busy" else 0.5 if phase == "usr1" else 1.2))
        if not re_.running() or stop_and_check(lab.re, re_, (15, 2)[signals % 2], bad) is None:
            paired += 1   # paired before the signal: not a signal case
        else:
            signals += 1
            lan = lab.re.sh("uci -q get network.lan.ipaddr").stdout.strip(), lab.re.ipv4("br-lan")
            if lan != (FACTORY, [FACTORY]):   # the clean-up puts the LAN address back
                bad.append(("lan", lan, re_.log()[-1500:]))
        lab.re.sh(f"uci -q set network.lan.ipaddr={FACTORY}; uci commit network; ifconfig br-lan {FACTORY}")
        if busy:   # ours, not the CAP's
            lab.cap.drop_mesh_lock()
    assert not bad and cap.running(), (len(bad), bad[:3])
