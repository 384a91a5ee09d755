"""The report of scripts/bench: the summary rows and docs/performance.md."""
import argparse

from analysis import med
from benchlab import md_row

# Command lines timed in the RE router before the first and the last pairing.
CALIBRATE = {"sh -c true": "sh -c true",
             "sh -c 'vsled x' (stand-in)": "sh -c 'vsled x'",
             "sh -c 'uci -q get ...' (emulator)": "sh -c 'uci -q get network.lan.ipaddr'"}


def fmt_mem(m):
    return f"VmRSS {m['rss']} kB, Private_Dirty {m['priv_dirty']} kB, Pss {m['pss']} kB, Anonymous {m['anon']} kB"


def ok(c):
    return "met" if c else "MISSED"


def figures(ctx):
    """The per-pairing series and the idle records the report is made of."""
    P, idl = ctx["pairs"], ctx["idle"]
    f = argparse.Namespace(P=P, st=ctx["static"], idl=idl, cm=idl["cap_mem"], bm=idl["bare_mem"],
                           rf=idl["refusal"], hwm=[p["re_hwm_kb"] for p in P if p["re_hwm_kb"]])
    for k in ("t_re", "t_cap", "floor_re", "floor_cap", "own_re", "cmd_re", "load", "busy", "cmd_time",
              "n_cmds"):
        setattr(f, k, [p[k] for p in P])
    f.ex_re = [p["t_re"] - p["floor_re"] for p in P]
    f.ex_cap = [p["t_cap"] - p["floor_cap"] for p in P]
    f.rest = [p["t_cap"] - p["busy"] for p in P]      # the daemons' own share up to cap_init
    return f


def latency_memory_rows(f):
    tre, tcap, fre, fcap, own = f.t_re, f.t_cap, f.floor_re, f.floor_cap, f.own_re
    st, cm, bm, idl, hwm = f.st, f.cm, f.bm, f.idl, f.hwm
    d_rss, d_pd = cm["rss"] - bm["rss"], cm["priv_dirty"] - bm["priv_dirty"]
    return [
        ("Pairing: RE start -> RE `re_init`, median (min-max)",
         f"{med(tre):.3f} s ({min(tre):.3f}-{max(tre):.3f})",
         f"floor {med(fre):.3f} s; excess {med(f.ex_re):.3f} s; ratio {med(tre) / med(fre):.2f}",
         "excess <= 0.25 s", ok(med(f.ex_re) <= 0.25)),
        ("Daemons' own share of RE start -> `re_init`, median (min-max)",
         f"{med(own):.3f} s ({min(own):.3f}-{max(own):.3f})",
         f"total {med(tre):.3f} s - fixed waits {med(fre):.3f} s - platform commands beyond them "
         f"{med(tre) - med(fre) - med(own):.3f} s", "-", "-"),
        ("Pairing: RE start -> CAP `cap_init`, median (min-max)",
         f"{med(tcap):.3f} s ({min(tcap):.3f}-{max(tcap):.3f})",
         f"floor {med(fcap):.3f} s; excess {med(f.ex_cap):.3f} s; ratio {med(tcap) / med(fcap):.2f}",
         "excess <= 0.25 s", ok(med(f.ex_cap) <= 0.25)),
        ("Stripped size of plaitd", f"{st['stripped']} B",
         f"text {st['text']}, data {st['data']}, bss {st['bss']}; unstripped {st['file']} B", "-", "-"),
        ("NEEDED", ", ".join(st["needed"]), "extra: " + (", ".join(st["needed_extra"]) or "none"),
         "libc, libssl, libcrypto, libiw only", ok(not st["needed_extra"])),
        (f"CAP idle VmRSS after {idl['mem_at']:.0f} s (bare OpenSSL server context)",
         f"{cm['rss']} kB ({bm['rss']} kB)", f"difference {d_rss:+d} kB", "within 1024 kB",
         ok(d_rss <= 1024)),
        (f"CAP idle Private_Dirty after {idl['mem_at']:.0f} s (bare)",
         f"{cm['priv_dirty']} kB ({bm['priv_dirty']} kB)", f"difference {d_pd:+d} kB",
         "within 1024 kB", ok(d_pd <= 1024)),
        ("RE peak VmHWM over a pairing, median (max)",
         f"{int(med(hwm))} kB ({max(hwm)} kB)" if hwm else "n/a", "read by the RE itself at exit()",
         "-", "-"),
    ]


def idle_rows(f):
    idle, tk, rf = f.idl["idle"], f.idl["ticker"], f.rf
    return [
        (f"CAP idle CPU over {idle['seconds']:.0f} s", f"{idle['pct']:.4f} % of one core",
         f"schedstat {idle['cpu_sched_s']:.4f} s; utime+stime {idle['cpu_ticks_s']:.2f} s "
         f"= {idle['pct_ticks']:.3f} %", "< 0.1 %", ok(idle["pct"] < 0.1)),
        ("CAP idle wake-ups (context switches, all threads)",
         f"{idle['wakeups_per_s']:.1f} /s", f"{f.idl['threads']} threads", "-", "-"),
        ("Reference loop with the same wake-ups, same window",
         f"{tk['pct']:.4f} % of one core", f"{tk['wakeups_per_s']:.1f} wake-ups/s", "-", "-"),
        ("Overload refusals while one peer holds the slot",
         f"{rf['rate']:.0f} /s", f"{rf['refused']} refused in {rf['seconds']:.1f} s, "
         f"{rf['served']} served/stalled, {rf['errors']} errors; CAP logged {rf['cap_logged']}", "-", "-"),
        ("CAP open descriptors: before / holding / after loop / released",
         f"{rf['fd_before']} / {rf['fd_held']} / {rf['fd_after']} / {rf['fd_released']}",
         "no descriptor leak" if rf["fd_after"] == rf["fd_held"] and rf["fd_released"] == rf["fd_before"]
         else "DESCRIPTOR COUNT CHANGED", "-", "-"),
    ]


def head(ctx, f, summary):
    m = ctx["machine"]
    return [
        "# Performance", "",
        "Figures of the `plaitd` daemon measured in the two-router lab (lab/README.md) by "
        "`scripts/bench`. This file is written by that script; rerun it rather than editing by hand.", "",
        "## How to reproduce", "",
        "```sh",
        "scripts/bench            # as root; full run, about 2 minutes",
        "scripts/bench --quick    # 3 pairings, 10 s idle",
        "scripts/bench --scale    # 1, 2, 4 and 8 REs at once; only its own section",
        "scripts/bench --faults   # every fault and event, 3 runs each, about 30 min; only its own section",
        "```", "",
        f"This run: `{ctx['command']}` ({len(f.P)} pairings, {f.idl['idle']['seconds']:.0f} s idle), "
        f"{ctx['date']}, {ctx['duration']:.0f} s.", "",
        f"Binary: {ctx['btype']} build of the tree ({ctx['binary']}); a router image ships a size-optimised "
        "build, so the script builds one (`-DCMAKE_BUILD_TYPE=MinSizeRel`, into build/bench).", "",
        "## Machine", "",
        f"- {m['nproc']} CPUs, {m['cpu']}, kernel {m['kernel']}",
        f"- load average (1, 5, 15 min) at start {ctx['load_start']}, before the pairings "
        f"{ctx['load_pairs']}, at the start and end of the idle window {f.idl['load_idle_start']} / "
        f"{f.idl['load_idle_end']}, at the end {ctx['load_end']}",
        "- the lab's routers are namespaces on this host: both daemons share its CPUs with "
        "whatever else runs, and the cable is a veth pair", "",
        "## Summary", "",
        "| Measure | Result | Detail | Target | |",
        "|---|---|---|---|---|",
    ] + [md_row(r) for r in summary] + [""]


def latency_table(ctx, f):
    return [
        f"## Pairing latency ({len(f.P)} pairings)", "",
        "Each pairing runs in a fresh lab (new namespaces, roots and daemons): the CAP "
        "(`plaitd " + " ".join(ctx["cap_args"]) + "`) is started and awaited until its discovery responder "
        "listens, then the RE (`plaitd " + " ".join(ctx["re_args"]) + "`, static uplink, factory LAN "
        "address still on its br-lan, so the address-clash path runs). t = 0 is the RE wrapper's "
        "`$EPOCHREALTIME` right before `exec plaitd`; the end points are the `$EPOCHREALTIME` written "
        "by the `mesh_setup.sh` wrapper when the `re_init` / `cap_init` call starts.", "",
        "The floor is the time the design spends in fixed waits before the call: every `usleep`/`sleep` (or nap: a "
        "poll of the signal wake-up pipe that runs out) either daemon made in the window, at its nominal length, "
        "overlapping waits counted once (getCmdResult: 5 ms, getCmdResultSlow: 0.5 s, the clash path: 0.1 s). "
        "Conditional waits (the CAP's 200 ms select, the probe's 1 s receive time-out, the 30 s TLS-accept select) "
        "are on the path only when they run out; those that did are listed below.", "",
        "| # | re_init s | floor s | commands s | own s | cap_init s | floor s | excess (cap_init) s | "
        "RE VmHWM kB | time-outs hit |",
        "|---|---|---|---|---|---|---|---|---|---|",
    ] + [md_row([i, f"{p['t_re']:.3f}", f"{p['floor_re']:.3f}", f"{p['cmd_re']:.3f}", f"{p['own_re']:.3f}",
                 f"{p['t_cap']:.3f}", f"{p['floor_cap']:.3f}", f"{p['t_cap'] - p['floor_cap']:.3f}",
                 p["re_hwm_kb"], len(p["timeouts"])]) for i, p in enumerate(f.P, 1)] + [
        f"| median | {med(f.t_re):.3f} | {med(f.floor_re):.3f} | {med(f.cmd_re):.3f} | "
        f"{med(f.own_re):.3f} | {med(f.t_cap):.3f} | {med(f.floor_cap):.3f} | {med(f.ex_cap):.3f} | "
        f"{int(med(f.hwm)) if f.hwm else '-'} | |", "",
        "\"commands\" is the time inside platform commands (popen..pclose, system, posix_spawn..waitpid) up to "
        "`re_init`, \"own\" what remains of the total after the fixed waits and those commands (their union): the "
        "daemons' own work (exec and loading, discovery, TCP, TLS, messages) and scheduling.", "",
    ]


def where_time_goes(f):
    """The fixed waits and time-outs of the pairings, and where the rest of their time goes."""
    P, n_c, load = f.P, med(f.n_cmds), med(f.load)
    kinds = sorted({k for p in P for k in p["counts"]})
    tos = sorted({t for p in P for t in p["timeouts"]})
    beyond = med([p["busy"] - p["floor_cap"] - p["load"] for p in P])
    by_who = "; ".join(f"{w} {med([p['by_who'][w][0] for p in P]):g} commands, "
                       f"{med([p['by_who'][w][1] for p in P]):.3f} s" for w in ("RE", "CAP"))
    waits = [f"- {k}: {med([p['counts'].get(k, 0) for p in P]):g}" for k in kinds]
    return ["Fixed waits up to `cap_init` (median count per pairing):", ""] + waits + [
        "- time-outs run out on the pairing's own threads: " + (", ".join(tos) or "none"), "",
        f"Where the time up to `cap_init` goes (medians): exec and library loading of the RE {load * 1000:.1f} ms; "
        f"platform commands (popen..pclose, system and posix_spawn..waitpid spans of both daemons, which contain the "
        f"getCmdResult sleeps) {med(f.cmd_time):.3f} s in {n_c:g} commands; commands, waits and loading together "
        f"{med(f.busy):.3f} s; the remaining {med(f.rest):.3f} s is the daemons' own work (discovery, TCP, TLS "
        f"handshake, messages) and scheduling. By daemon: {by_who}.", "",
        f"So the excess over the floor is almost all the run time of the platform command lines: {beyond:.3f} s "
        f"beyond their fixed waits, {beyond / n_c * 1000:.1f} ms per command line on average (a fork and exec of "
        f"/bin/sh, then the command; the lab's uci is a busybox script). With {n_c:g} command lines on the path, the "
        f"0.25 s target leaves {max(0.0, 0.25 - med(f.rest) - load) / n_c * 1000:.1f} ms per command line.", "",
    ]


def commands(f):
    """The costliest platform commands, and the cost of one command line in the lab."""
    per = {}
    for p in f.P:
        for k, (n, s) in p["per_cmd"].items():
            per.setdefault(k, []).append((n, s))
    rows = sorted(((k, med([n for n, _ in v]), med([s for _, s in v])) for k, v in per.items()),
                  key=lambda r: -r[2])
    out = ["| Platform command (daemon) | calls | time s (median) |", "|---|---|---|"]
    out += [f"| `{k}` | {n:g} | {s:.3f} |" for k, n, s in rows[:15]] + [""]
    cal = [p["costs"] for p in f.P if p["costs"]]
    if cal:
        out += ["Cost of one command line in the lab (busybox sh in the RE router, 10 calls each, before the first "
                "and the last pairing; each platform command the daemons run pays at least the first):", ""]
        out += [f"- `{k}`: " + " / ".join(f"{c[k] * 1000:.1f} ms" for c in cal) for k in CALIBRATE] + [""]
    return out


def footprint(ctx, f):
    st, idl, hwm = f.st, f.idl, f.hwm
    libm = (dict(idl["rss_diff"]).get("libm.so.6", 0) > 0
            and not any(n.startswith("libm.") for n in st["needed"]))
    return [
        "## Footprint", "",
        f"- `strip --strip-all` copy: {st['stripped']} bytes (text {st['text']}, data {st['data']}, "
        f"bss {st['bss']}).",
        f"- `readelf -d` NEEDED: {', '.join(st['needed'])}.",
        f"- CAP after {idl['mem_at']:.0f} s idle: {fmt_mem(f.cm)}; {idl['threads']} threads.",
        f"- Bare program (same OpenSSL server context: TLS_server_method, cipher list "
        f"\"{ctx['ciphers']}\", CA, certificate and key loaded, then pause()), built in the same run with "
        f"`cc -O2 -lssl -lcrypto` and run in the same router at the same time: {fmt_mem(f.bm)}.",
        "- VmRSS difference CAP - bare by mapping (kB): "
        + ", ".join(f"{k} {v:+d}" for k, v in idl["rss_diff"] if abs(v) >= 8)
        + (" (libm is not NEEDED by plaitd: it comes in with libiw)." if libm else "."),
        f"- RE peak: VmHWM median {int(med(hwm)) if hwm else '-'} kB, max {max(hwm) if hwm else '-'} kB "
        "over the pairings. Method: the trace library's destructor reads /proc/self/status as the "
        "last act of exit(), so VmHWM covers the whole life of the process (the kernel keeps the "
        "high-water mark; no polling gap). The library itself adds a few pages.", "",
    ]


def idle_and_refusal(f):
    idle, tk, rf = f.idl["idle"], f.idl["ticker"], f.rf
    return [
        "## Idle cost", "",
        f"The CAP waits for peers for {idle['seconds']:.0f} s (no trace library). CPU time: utime+stime from "
        f"/proc/<pid>/stat {idle['cpu_ticks_s']:.2f} s (clock-tick resolution), on-CPU time of all threads from "
        f"/proc/<pid>/task/*/schedstat {idle['cpu_sched_s']:.4f} s: {idle['pct']:.4f} % of one core (schedstat; "
        f"utime+stime gives {idle['pct_ticks']:.3f} % within a tick per {idle['seconds']:.0f} s). Wake-ups: "
        f"voluntary + nonvoluntary context switches of all threads {idle['wakeups_per_s']:.1f} per second (the "
        f"200 ms accept select gives 5, the discovery thread's 500 ms receive time-out 2).", "",
        "Reference: a program built in the same run that only makes the same wake-ups (one thread "
        "in a 200 ms select on a listening socket followed by sysinfo, one in a UDP receive with a 500 ms "
        f"time-out), run in the same router over the same window: {tk['pct']:.4f} % of one core "
        f"(schedstat {tk['cpu_sched_s']:.4f} s), {tk['wakeups_per_s']:.1f} wake-ups per second. The "
        "difference to the CAP is what the daemon itself does per wake-up.", "",
        "## Refusal rate", "",
        "A fake RE makes a plain TCP connection to port 19553 and never starts TLS, which holds the CAP's only "
        "serving slot (its TLS accept waits up to 30 s). A Python client in the RE's network namespace then connects "
        "in a loop for 5 s, one connection at a time, and counts connections the CAP accepts and closes at once.", "",
        f"- {rf['refused']} refused in {rf['seconds']:.2f} s: **{rf['rate']:.0f} per second**; "
        f"{rf['served']} served or stalled, {rf['errors']} connect errors; the CAP logged "
        f"{rf['cap_logged']} overload warnings; CAP still running afterwards: {rf['cap_alive']}.",
        f"- CAP descriptors (ls /proc/<pid>/fd): {rf['fd_before']} before, {rf['fd_held']} while the slot is held, "
        f"{rf['fd_after']} after the loop, {rf['fd_released']} after the fake RE closes.", "",
    ]


def report(ctx):
    """(summary rows: measure, result, detail, target, verdict; the text of docs/performance.md)."""
    f = figures(ctx)
    summary = latency_memory_rows(f) + idle_rows(f)
    lines = (head(ctx, f, summary) + latency_table(ctx, f) + where_time_goes(f)
             + commands(f) + footprint(ctx, f) + idle_and_refusal(f))
    return summary, "\n".join(lines)
