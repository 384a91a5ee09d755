"""Figures of scripts/bench: trace analysis of one pairing and /proc samples."""
import collections
import contextlib
import os
import statistics
import time


def med(xs):
    return statistics.median(xs) if xs else float("nan")


def union(intervals, lo, hi):
    """Length of the union of [a, b) intervals clipped to [lo, hi)."""
    tot, reach = 0.0, lo
    for a, b in sorted((max(a, lo), min(b, hi)) for a, b in intervals if b > lo and a < hi):
        if b > reach:
            tot += b - max(a, reach)
            reach = b
    return tot


def fixed_waits(events):
    """(start, start + nominal) of every sleep (or nap on the wake-up pipe) the daemons made."""
    return [(e["t0"], e["t0"] + e["arg"]) for e in events if e["kind"] in ("usleep", "sleep", "nap")]


def cmd_name(text):
    """Short label of a command line: program and up to two plain arguments."""
    first = text.replace("|", ";").split(";")[0].split()
    if not first:
        return "?"
    name = os.path.basename(first[0])
    words = [w[:32] for w in first[1:] if not w.startswith("-")]
    return " ".join([name] + words[:1 if name == "mesh_setup.sh" else 2])


def pairing_figures(t0, t_re, t_cap, ev_re, ev_cap):
    """Latency of one pairing, its floor of fixed waits and where the rest goes."""
    ev = ev_re + ev_cap
    waits = fixed_waits(ev)
    res = {"t_re": t_re - t0, "t_cap": t_cap - t0,
           "floor_re": union(waits, t0, t_re), "floor_cap": union(waits, t0, t_cap)}
    # Counts of each kind of fixed wait inside the window up to cap_init.
    res["counts"] = dict(collections.Counter(f"{e['kind']}({e['arg']:g} s)" for e in ev
                                             if e["kind"] in ("usleep", "sleep", "nap") and t0 <= e["t0"] < t_cap))
    # Time-outs that ran out inside the window on the pairing's own threads
    # (the CAP's idle loops, select every 200 ms and discovery recv every
    # 500 ms, run beside the pairing and are left out).
    cap_main = next(e["tid"] for e in ev_cap if e["kind"] == "start")
    dd_tids = {e["tid"] for e in ev_cap if e["kind"] == "recv_to"}   # the discovery responder
    res["timeouts"] = [f"{e['who']} {e['kind']} {e['t1'] - e['t0']:.3f} s"
                       for e in ev if e["kind"] in ("select_to", "recv_to") and t0 <= e["t0"] < t_cap
                       and not (e["who"] == "CAP" and (e["tid"] == cap_main or e["tid"] in dd_tids))]
    # Where the time goes up to cap_init: platform commands (popen..pclose,
    # system; they contain the getCmdResult sleeps) and the loader.
    start_ev = next(e for e in ev_re if e["kind"] == "start")
    res["load"] = start_ev["t0"] - t0
    cmds = [e for e in ev if e["kind"] in ("popen", "system", "spawn") and e["t1"] > t0 and e["t0"] < t_cap]
    spans = [(e["t0"], e["t1"]) for e in cmds]
    res["cmd_time"] = union(spans, t0, t_cap)
    # The daemons' own share up to re_init: what is left after the fixed
    # waits and the platform commands (their union, so nothing counts twice).
    res["cmd_re"] = union(spans, t0, t_re)
    res["own_re"] = res["t_re"] - union(spans + waits, t0, t_re)
    res["busy"] = union(spans + waits + [(t0, start_ev["t0"])], t0, t_cap)
    per = {}
    for e in cmds:
        k = e["who"] + " " + cmd_name(e["text"])
        n, s = per.get(k, (0, 0.0))
        per[k] = (n + 1, s + min(e["t1"], t_cap) - max(e["t0"], t0))
    res["per_cmd"] = per
    res["by_who"] = {w: (sum(1 for e in cmds if e["who"] == w),
                         union([(e["t0"], e["t1"]) for e in cmds if e["who"] == w], t0, t_cap))
                     for w in ("RE", "CAP")}
    res["n_cmds"] = len(cmds)
    hwm = [e for e in ev_re if e["kind"] == "exit"]
    res["re_hwm_kb"] = int(hwm[0]["arg"]) if hwm else None
    res["re_exit_rss_kb"] = int(hwm[0]["text"].split("=")[1]) if hwm else None
    return res


def read_kv(path):
    d = {}
    with contextlib.suppress(OSError), open(path) as f:
        for line in f:
            k, _, v = line.partition(":")
            d[k.strip()] = v.strip()
    return d


def kb(v):
    return int(v.split()[0]) if v else None


def mem(pid):
    st, sr = read_kv(f"/proc/{pid}/status"), read_kv(f"/proc/{pid}/smaps_rollup")
    return {"rss": kb(st.get("VmRSS")), "hwm": kb(st.get("VmHWM")), "pss": kb(sr.get("Pss")),
            "priv_dirty": kb(sr.get("Private_Dirty")), "priv_clean": kb(sr.get("Private_Clean")),
            "anon": kb(sr.get("Anonymous")), "threads": int(st.get("Threads", "0"))}


def rss_by_mapping(pid):
    """Rss in kB per mapped file ([heap], [anon], ... for the others)."""
    out, name = {}, None
    with open(f"/proc/{pid}/smaps") as f:
        for line in f:
            w = line.split()
            if not w[0].endswith(":"):
                name = os.path.basename(w[5]) if len(w) > 5 else "[anon]"
            elif w[0] == "Rss:":
                out[name] = out.get(name, 0) + int(w[1])
    return out


def cpu_sample(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    ticks = int(fields[11]) + int(fields[12])      # utime + stime
    cticks = int(fields[13]) + int(fields[14])     # cutime + cstime: reaped children
    ctx, ns = 0, 0
    for tid in os.listdir(f"/proc/{pid}/task"):
        st = read_kv(f"/proc/{pid}/task/{tid}/status")
        ctx += int(st.get("voluntary_ctxt_switches", 0)) + int(st.get("nonvoluntary_ctxt_switches", 0))
        with contextlib.suppress(OSError), open(f"/proc/{pid}/task/{tid}/schedstat") as f:
            ns += int(f.read().split()[0])
    return {"t": time.monotonic(), "ticks": ticks, "cticks": cticks, "ctx": ctx, "ns": ns}


def cpu_cost(a, b):
    """CPU use and wake-ups between two cpu_sample()s of one process."""
    el = b["t"] - a["t"]
    hz = os.sysconf("SC_CLK_TCK")
    r = {"seconds": el, "cpu_ticks_s": (b["ticks"] - a["ticks"]) / hz,
         "cmd_ticks_s": (b["cticks"] - a["cticks"]) / hz, "cpu_sched_s": (b["ns"] - a["ns"]) / 1e9,
         "wakeups_per_s": (b["ctx"] - a["ctx"]) / el}
    r["pct"] = 100.0 * r["cpu_sched_s"] / el
    r["pct_ticks"] = 100.0 * r["cpu_ticks_s"] / el
    return r


def nfds(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))
