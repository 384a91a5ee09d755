"""The report of scripts/bench: the summary rows and docs/performance.md."""
import statistics

# Command lines timed in the RE router before the first and the last pairing.
CALIBRATE = {"sh -c true": "sh -c true",
             "sh -c 'vsled x' (stand-in)": "sh -c 'vsled x'",
             "sh -c 'uci -q get ...' (emulator)": "sh -c 'uci -q get network.lan.ipaddr'"}


def med(xs):
    return statistics.median(xs) if xs else float("nan")


def fmt_mem(m):
    return (f"VmRSS {m['rss']} kB, Private_Dirty {m['priv_dirty']} kB, Pss {m['pss']} kB, "
            f"Anonymous {m['anon']} kB")


def report(ctx):
    P, st, idl = ctx["pairs"], ctx["static"], ctx["idle"]
    tre = [p["t_re"] for p in P]
    tcap = [p["t_cap"] for p in P]
    fre = [p["floor_re"] for p in P]
    fcap = [p["floor_cap"] for p in P]
    own = [p["own_re"] for p in P]
    ex_re = [p["t_re"] - p["floor_re"] for p in P]
    ex_cap = [p["t_cap"] - p["floor_cap"] for p in P]
    hwm = [p["re_hwm_kb"] for p in P if p["re_hwm_kb"]]
    cm, bm = idl["cap_mem"], idl["bare_mem"]
    d_rss = cm["rss"] - bm["rss"]
    d_pd = cm["priv_dirty"] - bm["priv_dirty"]
    rf = idl["refusal"]
    ok = lambda c: "met" if c else "MISSED"   # noqa: E731

    summary = [
        ("Pairing: RE start -> RE `re_init`, median (min-max)",
         f"{med(tre):.3f} s ({min(tre):.3f}-{max(tre):.3f})",
         f"floor {med(fre):.3f} s; excess {med(ex_re):.3f} s; ratio {med(tre) / med(fre):.2f}",
         "excess <= 0.25 s", ok(med(ex_re) <= 0.25)),
        ("Daemons' own share of RE start -> `re_init`, median (min-max)",
         f"{med(own):.3f} s ({min(own):.3f}-{max(own):.3f})",
         f"total {med(tre):.3f} s - fixed waits {med(fre):.3f} s - platform commands beyond them "
         f"{med(tre) - med(fre) - med(own):.3f} s", "-", "-"),
        ("Pairing: RE start -> CAP `cap_init`, median (min-max)",
         f"{med(tcap):.3f} s ({min(tcap):.3f}-{max(tcap):.3f})",
         f"floor {med(fcap):.3f} s; excess {med(ex_cap):.3f} s; ratio {med(tcap) / med(fcap):.2f}",
         "excess <= 0.25 s", ok(med(ex_cap) <= 0.25)),
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
        (f"CAP idle CPU over {idl['idle']['seconds']:.0f} s",
         f"{idl['idle']['pct']:.4f} % of one core",
         f"schedstat {idl['idle']['cpu_sched_s']:.4f} s; utime+stime {idl['idle']['cpu_ticks_s']:.2f} s "
         f"= {idl['idle']['pct_ticks']:.3f} %",
         "< 0.1 %", ok(idl["idle"]["pct"] < 0.1)),
        ("CAP idle wake-ups (context switches, all threads)",
         f"{idl['idle']['wakeups_per_s']:.1f} /s", f"{idl['threads']} threads", "-", "-"),
        ("Reference loop with the same wake-ups, same window",
         f"{idl['ticker']['pct']:.4f} % of one core", f"{idl['ticker']['wakeups_per_s']:.1f} wake-ups/s",
         "-", "-"),
        ("Overload refusals while one peer holds the slot",
         f"{rf['rate']:.0f} /s", f"{rf['refused']} refused in {rf['seconds']:.1f} s, "
         f"{rf['served']} served/stalled, {rf['errors']} errors; CAP logged {rf['cap_logged']}", "-", "-"),
        ("CAP open descriptors: before / holding / after loop / released",
         f"{rf['fd_before']} / {rf['fd_held']} / {rf['fd_after']} / {rf['fd_released']}",
         "no descriptor leak" if rf["fd_after"] == rf["fd_held"] and rf["fd_released"] == rf["fd_before"]
         else "DESCRIPTOR COUNT CHANGED", "-", "-"),
    ]

    # Floor composition and where the rest of the time goes (medians).
    kinds = sorted({k for p in P for k in p["counts"]})
    floor_rows = [(k, med([p["counts"].get(k, 0) for p in P])) for k in kinds]
    per = {}
    for p in P:
        for k, (n, s) in p["per_cmd"].items():
            per.setdefault(k, []).append((n, s))
    cmd_rows = sorted(((k, med([n for n, _ in v]), med([s for _, s in v])) for k, v in per.items()),
                      key=lambda r: -r[2])
    tos = sorted({t for p in P for t in p["timeouts"]})

    m = ctx["machine"]
    lines = []
    a = lines.append
    a("# Performance")
    a("")
    a("Figures of the `plaitd` daemon measured in the two-router lab (lab/README.md) by "
      "`scripts/bench`. This file is written by that script; rerun it rather than editing by hand.")
    a("")
    a("## How to reproduce")
    a("")
    a("```sh")
    a("scripts/bench            # as root; full run, about 2 minutes")
    a("scripts/bench --quick    # 3 pairings, 10 s idle")
    a("```")
    a("")
    a(f"This run: `{ctx['command']}` ({len(P)} pairings, {idl['idle']['seconds']:.0f} s idle), {ctx['date']}, "
      f"{ctx['duration']:.0f} s.")
    a("")
    a(f"Binary: {ctx['btype']} build of the tree ({ctx['binary']}); a router image ships a size-optimised "
      "build, so the script builds one (`-DCMAKE_BUILD_TYPE=MinSizeRel`, into build/bench).")
    a("")
    a("## Machine")
    a("")
    a(f"- {m['nproc']} CPUs, {m['cpu']}, kernel {m['kernel']}")
    a(f"- load average (1, 5, 15 min) at start {ctx['load_start']}, before the pairings "
      f"{ctx['load_pairs']}, at the start and end of the idle window {idl['load_idle_start']} / "
      f"{idl['load_idle_end']}, at the end {ctx['load_end']}")
    a("- the lab's routers are namespaces on this host: both daemons share its CPUs with "
      "whatever else runs, and the cable is a veth pair")
    a("")
    a("## Summary")
    a("")
    a("| Measure | Result | Detail | Target | |")
    a("|---|---|---|---|---|")
    for r in summary:
        a("| " + " | ".join(str(x) for x in r) + " |")
    a("")
    a(f"## Pairing latency ({len(P)} pairings)")
    a("")
    a("Each pairing runs in a fresh lab (new namespaces, roots and daemons): the CAP "
      "(`plaitd " + " ".join(ctx["cap_args"]) + "`) is started and awaited until its discovery responder "
      "listens, then the RE (`plaitd " + " ".join(ctx["re_args"]) + "`, static uplink, factory LAN "
      "address still on its br-lan, so the address-clash path runs). t = 0 is the RE wrapper's "
      "`$EPOCHREALTIME` right before `exec plaitd`; the end points are the `$EPOCHREALTIME` written "
      "by the `mesh_setup.sh` wrapper when the `re_init` / `cap_init` call starts.")
    a("")
    a("The floor is the time the design spends in fixed waits before the call: every "
      "`usleep`/`sleep` (or nap: a poll of the signal wake-up pipe that runs out) either daemon "
      "made in the window, at its nominal length, overlapping waits counted once (getCmdResult: "
      "5 ms, getCmdResultSlow: 0.5 s, the clash path: 0.1 s). "
      "Conditional waits (the CAP's 200 ms select, the probe's 1 s receive time-out, the "
      "30 s TLS-accept select) are on the path only when they run out; those that did are "
      "listed below.")
    a("")
    a("| # | re_init s | floor s | commands s | own s | cap_init s | floor s | excess (cap_init) s | "
      "RE VmHWM kB | time-outs hit |")
    a("|---|---|---|---|---|---|---|---|---|---|")
    for i, p in enumerate(P, 1):
        a(f"| {i} | {p['t_re']:.3f} | {p['floor_re']:.3f} | {p['cmd_re']:.3f} | {p['own_re']:.3f} | "
          f"{p['t_cap']:.3f} | {p['floor_cap']:.3f} | {p['t_cap'] - p['floor_cap']:.3f} | "
          f"{p['re_hwm_kb']} | {len(p['timeouts'])} |")
    a(f"| median | {med(tre):.3f} | {med(fre):.3f} | {med([p['cmd_re'] for p in P]):.3f} | "
      f"{med(own):.3f} | {med(tcap):.3f} | {med(fcap):.3f} | {med(ex_cap):.3f} | "
      f"{int(med(hwm)) if hwm else '-'} | |")
    a("")
    a("\"commands\" is the time inside platform commands (popen..pclose, system, "
      "posix_spawn..waitpid) up to `re_init`, "
      "\"own\" what remains of the total after the fixed waits and those commands (their union): "
      "the daemons' own work (exec and loading, discovery, TCP, TLS, messages) and scheduling.")
    a("")
    a("Fixed waits up to `cap_init` (median count per pairing):")
    a("")
    for k, n in floor_rows:
        a(f"- {k}: {n:g}")
    a("- time-outs run out on the pairing's own threads: " + (", ".join(tos) or "none"))
    a("")
    busy = [p["busy"] for p in P]
    cmdt = [p["cmd_time"] for p in P]
    a("Where the time up to `cap_init` goes (medians): "
      f"exec and library loading of the RE {med([p['load'] for p in P]) * 1000:.1f} ms; "
      f"platform commands (popen..pclose, system and posix_spawn..waitpid spans of both daemons, "
      "which contain the "
      f"getCmdResult sleeps) {med(cmdt):.3f} s in {med([p['n_cmds'] for p in P]):g} commands; "
      f"commands, waits and loading together {med(busy):.3f} s; the remaining "
      f"{med([p['t_cap'] - p['busy'] for p in P]):.3f} s is the daemons' own work (discovery, TCP, "
      "TLS handshake, messages) and scheduling. By daemon: " +
      "; ".join(f"{w} {med([p['by_who'][w][0] for p in P]):g} commands, "
                f"{med([p['by_who'][w][1] for p in P]):.3f} s" for w in ("RE", "CAP")) + ".")
    a("")
    n_c = med([p["n_cmds"] for p in P])
    own = med([p["t_cap"] - p["busy"] for p in P])
    beyond = med([p["busy"] - p["floor_cap"] - p["load"] for p in P])
    a(f"So the excess over the floor is almost all the run time of the platform command lines: "
      f"{beyond:.3f} s beyond their fixed waits, {beyond / n_c * 1000:.1f} ms per command line on "
      f"average (a fork and exec of /bin/sh, then the command; the lab's uci is a busybox script). "
      f"With {n_c:g} command lines on the path, the 0.25 s target leaves "
      f"{max(0.0, 0.25 - own - med([p['load'] for p in P])) / n_c * 1000:.1f} ms per command line.")
    a("")
    a("| Platform command (daemon) | calls | time s (median) |")
    a("|---|---|---|")
    for k, n, s in cmd_rows[:15]:
        a(f"| `{k}` | {n:g} | {s:.3f} |")
    a("")
    cal = [p["costs"] for p in P if p["costs"]]
    if cal:
        a("Cost of one command line in the lab (busybox sh in the RE router, 10 calls each, "
          "before the first and the last pairing; each platform command the daemons run pays at "
          "least the first):")
        a("")
        for k in CALIBRATE:
            a(f"- `{k}`: " + " / ".join(f"{c[k] * 1000:.1f} ms" for c in cal))
        a("")
    a("## Footprint")
    a("")
    a(f"- `strip --strip-all` copy: {st['stripped']} bytes (text {st['text']}, data {st['data']}, "
      f"bss {st['bss']}).")
    a(f"- `readelf -d` NEEDED: {', '.join(st['needed'])}.")
    a(f"- CAP after {idl['mem_at']:.0f} s idle: {fmt_mem(cm)}; {idl['threads']} threads.")
    a(f"- Bare program (same OpenSSL server context: TLS_server_method, cipher list "
      f"\"{ctx['ciphers']}\", CA, certificate and key loaded, then pause()), built in the same run with "
      f"`cc -O2 -lssl -lcrypto` and run in the same router at the same time: {fmt_mem(bm)}.")
    a("- VmRSS difference CAP - bare by mapping (kB): " +
      ", ".join(f"{k} {v:+d}" for k, v in idl["rss_diff"] if abs(v) >= 8) +
      (" (libm is not NEEDED by plaitd: it comes in with libiw)."
       if dict(idl["rss_diff"]).get("libm.so.6", 0) > 0 and not any(n.startswith("libm.") for n in st["needed"])
       else "."))
    a(f"- RE peak: VmHWM median {int(med(hwm)) if hwm else '-'} kB, max {max(hwm) if hwm else '-'} kB "
      "over the pairings. Method: the trace library's destructor reads /proc/self/status as the "
      "last act of exit(), so VmHWM covers the whole life of the process (the kernel keeps the "
      "high-water mark; no polling gap). The library itself adds a few pages.")
    a("")
    a("## Idle cost")
    a("")
    a(f"The CAP waits for peers for {idl['idle']['seconds']:.0f} s (no trace library). CPU time: "
      f"utime+stime from /proc/<pid>/stat {idl['idle']['cpu_ticks_s']:.2f} s (clock-tick "
      f"resolution), on-CPU time of all threads from /proc/<pid>/task/*/schedstat "
      f"{idl['idle']['cpu_sched_s']:.4f} s: {idl['idle']['pct']:.4f} % of one core (schedstat; "
      f"utime+stime gives {idl['idle']['pct_ticks']:.3f} % within a tick per "
      f"{idl['idle']['seconds']:.0f} s). Wake-ups: voluntary + nonvoluntary context switches of all threads "
      f"{idl['idle']['wakeups_per_s']:.1f} per second (the 200 ms accept select gives 5, the "
      "discovery thread's 500 ms receive time-out 2).")
    a("")
    tk = idl["ticker"]
    a(f"Reference: a program built in the same run that only makes the same wake-ups (one thread "
      f"in a 200 ms select on a listening socket followed by sysinfo, one in a UDP receive with a 500 ms time-out), run "
      f"in the same router over the same window: {tk['pct']:.4f} % of one core "
      f"(schedstat {tk['cpu_sched_s']:.4f} s), {tk['wakeups_per_s']:.1f} wake-ups per second. The "
      "difference to the CAP is what the daemon itself does per wake-up.")
    a("")
    a("## Refusal rate")
    a("")
    a("A fake RE makes a plain TCP connection to port 19553 and never starts TLS, which holds "
      "the CAP's only serving slot (its TLS accept waits up to 30 s). A Python client in the RE's "
      "network namespace then connects in a loop for 5 s, one connection at a time, and counts "
      "connections the CAP accepts and closes at once.")
    a("")
    a(f"- {rf['refused']} refused in {rf['seconds']:.2f} s: **{rf['rate']:.0f} per second**; "
      f"{rf['served']} served or stalled, {rf['errors']} connect errors; the CAP logged "
      f"{rf['cap_logged']} overload warnings; CAP still running afterwards: {rf['cap_alive']}.")
    a(f"- CAP descriptors (ls /proc/<pid>/fd): {rf['fd_before']} before, {rf['fd_held']} while the "
      f"slot is held, {rf['fd_after']} after the loop, {rf['fd_released']} after the fake RE "
      "closes.")
    a("")
    return summary, "\n".join(lines)
