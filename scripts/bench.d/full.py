"""The full run of scripts/bench: footprint, pairing latency (a CAP and an RE,
each pairing on a fresh lab), idle cost, resident memory and refusal rate of a
waiting CAP; a summary table and docs/performance.md (but its scale section)."""
import json
import os
import shutil
import subprocess
import time

import benchlab as bl
import faults
import scale
from analysis import cpu_cost, cpu_sample, mem, nfds, pairing_figures, rss_by_mapping
from report import CALIBRATE, report

OVERLOAD = "WARN: Cap overload threshold"
ALLOWED_NEEDED = ("libc.", "libssl.", "libcrypto.", "libiw.")


def static_footprint(binary, aux):
    stripped = os.path.join(aux, "plaitd.stripped")
    shutil.copy2(binary, stripped)
    bl.run(["strip", "--strip-all", stripped])
    dyn = bl.run(["readelf", "-d", binary]).stdout
    needed = [l.split("[", 1)[1].rstrip("]") for l in dyn.splitlines() if "(NEEDED)" in l]
    size = bl.run(["size", stripped]).stdout.splitlines()[-1].split()
    extra = [n for n in needed if not n.startswith(ALLOWED_NEEDED)]
    return {"file": os.path.getsize(binary), "stripped": os.path.getsize(stripped),
            "text": int(size[0]), "data": int(size[1]), "bss": int(size[2]),
            "needed": needed, "needed_extra": extra}


def command_costs(router, n=10):
    """Seconds per call of a shell command line in a router, as popen runs it."""
    out = {}
    for label, cmd in CALIBRATE.items():
        loop = (f't=$EPOCHREALTIME; i=0; while [ $i -lt {n} ]; do {cmd} >/dev/null; i=$((i+1)); done; '
                'echo $t $EPOCHREALTIME')
        a, b = map(float, router.sh(loop, timeout=60).stdout.split())
        out[label] = (b - a) / n
    return out


def one_pairing(b, lab, idx, calibrate=False):
    """One pairing; its raw records go to <aux>/pairing-<idx>.json."""
    costs = command_costs(lab.re) if calibrate else None
    cap = bl.start_cap(lab, True)
    re = bl.start(lab.re, bl.RE_ARGS, True)
    rc = re.wait(30)
    ok = bl.rl.wait_until(lambda: bl.stamp(lab.cap, "cap_init") is not None, 5)
    time.sleep(0.05)
    cap.stop()
    t0 = float(lab.re.read(bl.T0_FILE).strip())
    t_re, t_cap = bl.stamp(lab.re, "re_init"), bl.stamp(lab.cap, "cap_init")
    if rc != 0 or not ok or t_re is None or t_cap is None:
        raise RuntimeError(f"pairing {idx} failed: RE rc={rc}; RE log tail:\n{re.log()[-1500:]}"
                           f"\nCAP log tail:\n{cap.log()[-1500:]}")
    rec = {"t0": t0, "re_stamps": bl.stamps(lab.re), "cap_stamps": bl.stamps(lab.cap),
           "re": bl.trace(lab.re), "cap": bl.trace(lab.cap), "re_log": re.log(), "cap_log": cap.log()}
    with open(os.path.join(b.aux, f"pairing-{idx}.json"), "w") as f:
        json.dump(rec, f)
    res = pairing_figures(t0, t_re, t_cap, rec["re"], rec["cap"])
    res["costs"] = costs
    return res


def pairings(b, n):
    """n pairings, the command lines timed before the first and the last."""
    def line(i, r):
        return (f"pairing {i + 1}/{n}: re_init {r['t_re']:.3f} s (floor {r['floor_re']:.3f}), "
                f"cap_init {r['t_cap']:.3f} s (floor {r['floor_cap']:.3f}), RE VmHWM {r['re_hwm_kb']} kB")
    return bl.repeat(b, n, lambda lab, i: one_pairing(b, lab, i + 1, calibrate=i in (0, n - 1)), line)


def rss_diff(pid, bare_pid):
    """Rss per mapping of the CAP less that of the bare program, largest first."""
    cm, bm = rss_by_mapping(pid), rss_by_mapping(bare_pid)
    cm["(program)"], bm["(program)"] = cm.pop("plaitd", 0), bm.pop("bare", 0)
    return sorted(((k, cm.get(k, 0) - bm.get(k, 0)) for k in set(cm) | set(bm)), key=lambda kv: -abs(kv[1]))


def idle(cap, bare, ticker, idle_s):
    """CPU and wake-ups of the CAP and of the reference loop over idle_s; memory after at most 30 s."""
    a, ta = cpu_sample(cap.pid), cpu_sample(ticker.pid)
    res = {"load_idle_start": bl.loadavg(), "mem_at": min(30.0, idle_s)}
    time.sleep(res["mem_at"])
    res["cap_mem"], res["bare_mem"] = mem(cap.pid), mem(bare.pid)
    res["rss_diff"] = rss_diff(cap.pid, bare.pid)
    time.sleep(idle_s - res["mem_at"])
    b, tb = cpu_sample(cap.pid), cpu_sample(ticker.pid)
    res["load_idle_end"] = bl.loadavg()
    res["idle"], res["ticker"] = cpu_cost(a, b), cpu_cost(ta, tb)
    return res


def refusal(lab, cap):
    """Refusal rate: one fake RE holds the only serving slot while refuse.py connects in a loop."""
    fd0 = nfds(cap.pid)
    n_warn0 = cap.count(OVERLOAD)
    p = subprocess.Popen(lab.re.netns_argv(["/usr/bin/python3", os.path.join(bl.AUX_SRC, "refuse.py"),
                                            bl.rl.FACTORY_IP, "19553", "5"]),
                         stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        if p.stdout.readline().strip() != "HELD":
            raise RuntimeError("refusal client: " + p.stderr.read())
        bl.rl.wait_until(lambda: "SSL_accept" in cap.log() or nfds(cap.pid) > fd0, 2)
        time.sleep(0.2)
        fd_held = nfds(cap.pid)
        print("go", file=p.stdin, flush=True)
        got = json.loads(p.stdout.readline())
        time.sleep(0.2)
        fd_after = nfds(cap.pid)
        print("end", file=p.stdin, flush=True)
        p.wait(10)
    finally:
        if p.poll() is None:
            p.kill()
            p.wait()
    bl.rl.wait_until(lambda: nfds(cap.pid) <= fd0, 3)
    got.update({"fd_before": fd0, "fd_held": fd_held, "fd_after": fd_after, "fd_released": nfds(cap.pid),
                "cap_logged": cap.count(OVERLOAD) - n_warn0, "rate": got["refused"] / got["seconds"],
                "cap_alive": cap.running()})
    return got


def idle_and_refusal(b, idle_s):
    # The refusal client must reach the CAP from the RE side: no factory address on the RE.
    with bl.fresh_lab(b, re_lan_ip=None) as lab:
        bare = lab.cap.spawn([bl.BENCH_DIR + "/bare"], "bare")
        ticker = lab.cap.spawn([bl.BENCH_DIR + "/ticker"], "ticker")
        cap = bl.start_cap(lab, False, listening=True)
        bare.wait_log("bare: ready", 10)
        ticker.wait_log("ticker: ready", 10)
        time.sleep(0.5)
        res = idle(cap, bare, ticker, idle_s)
        ticker.stop()
        res["threads"] = mem(cap.pid)["threads"]
        res["refusal"] = refusal(lab, cap)
        cap.stop()
        bare.stop()
    return res


def print_summary(ctx, summary):
    w = max(len(r[0]) for r in summary)
    m = ctx["machine"]
    print(f"plaitd bench ({ctx['btype']}, {m['nproc']} CPUs {m['cpu']}, "
          f"kernel {m['kernel']}, load {ctx['load_start']} -> {ctx['load_end']})")
    for name, result, detail, target, verdict in summary:
        print(f"{name:<{w}}  {result}")
        print(f"{'':<{w}}    {detail}" + (f"; target {target}: {verdict}" if target != "-" else ""))


def full(args):
    """The whole bench: footprint, pairings, idle window and refusals; every section but the scale one."""
    n = args.pairings or (3 if args.quick else 10)
    idle_s = args.idle or (10.0 if args.quick else 60.0)
    t_start = time.monotonic()
    ctx = bl.context(quick=args.quick)
    b = bl.build(args)
    ctx.update(btype=b.btype, static=static_footprint(b.binary, b.aux), cap_args=bl.CAP_ARGS, re_args=bl.RE_ARGS,
               binary=os.path.relpath(b.binary, bl.TOP) if b.binary.startswith(bl.TOP) else b.binary,
               ciphers=bl.CIPHERS, load_pairs=bl.loadavg())
    ctx["pairs"] = pairings(b, n)
    bl.log(f"idle window {idle_s:.0f} s ...")
    ctx["idle"] = idle_and_refusal(b, idle_s)
    ctx.update(load_end=bl.loadavg(), duration=time.monotonic() - t_start)
    summary, doc = report(ctx)
    print_summary(ctx, summary)
    if not args.no_doc:
        # Sections other runs write: --scale's, --faults', scripts/routerkit's and the emulated
        # routers'.
        keep = (scale.SECTION, faults.SECTION, "## Router builds", "## Emulated routers")
        bl.write_doc(doc, keep=keep)
        bl.log("wrote docs/performance.md")
