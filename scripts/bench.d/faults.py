"""scripts/bench --faults: pairing through a bad cable. Each scenario runs n times on a lab of its own
whose cable is the fault relay (lab/wire.py: netem's loss, delay, reordering, duplication and
corruption in each direction, and the cable pulled), at most JOBS labs at once, each run bounded by
BOUND_S. Per scenario: how many runs paired, the median and worst time from the RE's start to its
`re_init`, what was left behind and which timers decided it; a table in the section SECTION of
docs/performance.md, the runs in <build dir>/bench-aux/faults.json (--only reruns merge into it)."""
import concurrent.futures
import json
import os
import signal
import threading
import time

import benchlab as bl
import faultnotes
from analysis import med

SECTION = "## Pairing through a bad cable"
BOUND_S = float(os.environ.get("FAULTS_BOUND_S", 300))   # a run that has not paired by then ends as not paired
JOBS = 3
RESTART_AFTER_S = 1.0
CAP_INIT_S = 3   # cap_init's stand-in sleeps this long in the cap_init phase, so that it can be hit
SLOW_LINK_MS = 50   # one-way cable delay that widens the handshake and authentication phases
NETEM = (("loss 5 %", {"loss": 5}), ("loss 20 %", {"loss": 20}), ("loss 40 %", {"loss": 40}),
         ("delay 200 ms ± 50 ms", {"delay": 200, "jitter": 50}),
         ("reorder 25 % (delay 10 ms)", {"delay": 10, "reorder": 25}),
         ("duplicate 10 %", {"duplicate": 10}), ("corrupt 1 %", {"corrupt": 1}))
# phase: (router, "log" or "calls", the text that marks it, cable delay ms that widens it)
PHASES = {"discovery": ("re", "log", "enable log with level:", 0),
          "handshake": ("cap", "log", "] SSL_accept()....\n", SLOW_LINK_MS),
          "authentication": ("cap", "log", "] recv msg, type: 4, body len:", SLOW_LINK_MS),
          "exchange": ("cap", "log", ": ST_AUTH_SENT -> ST_RUNNING \n", 0),
          "cap_init": ("cap", "calls", "mesh_setup.sh 'cap_init'", 0)}
EVENTS = (("cable pulled 2 s", "pull", 2.0), ("cable pulled 20 s", "pull", 20.0),
          ("CAP killed, restarted", "cap", None), ("RE killed, restarted", "re", None))


def scenarios():
    """[(name, settings)]: the netem ones, then each event at each phase."""
    out = [(name, {"netem": netem}) for name, netem in NETEM]
    for ev, kind, arg in EVENTS:
        out += [(f"{ev} at {ph}", {"event": kind, "arg": arg, "phase": ph}) for ph in PHASES]
    return out


class Run:
    """One run on its lab: the daemons (current and earlier instances), its start and its event."""

    def __init__(self, lab, sc):
        self.lab, self.sc, self.logs, self.fired, self.done = lab, sc, {"cap": [], "re": []}, None, False
        self.cap = bl.start_cap(lab, False, listening=True)
        self.base = self.cap.figures()[:2]
        if sc.get("netem"):
            lab.impair(**sc["netem"])
        ph = PHASES.get(sc.get("phase"), (None, None, None, 0))
        if ph[3]:
            lab.impair(delay=ph[3])
        if sc.get("phase") == "cap_init":
            lab.cap.write("/lab/ans/mesh_setup.sh", f'[ "$1" = cap_init ] && sleep {CAP_INIT_S}\nexit 0\n')
        self.thread = threading.Thread(target=self.event, daemon=True) if sc.get("event") else None
        if self.thread and self.at_start():   # the RE starts into the event
            self.thread.start()
            bl.rl.wait_until(lambda: self.fired is not None, 5)
        self.re = bl.start(lab.re, bl.RE_ARGS, False)
        if self.thread and not self.at_start():
            self.thread.start()
        bl.rl.wait_until(lambda: lab.re.read(bl.T0_FILE), 5)
        self.t0 = float(lab.re.read(bl.T0_FILE))

    def text(self, who):
        """Every log of that router's daemons so far, earlier instances first."""
        return "".join(self.logs[who]) + (self.cap if who == "cap" else self.re).log()

    def instances(self, who):
        """The logs of that router's daemons, one per instance."""
        return self.logs[who] + [(self.cap if who == "cap" else self.re).log()]

    def at_start(self):
        """Discovery starts with the RE: a pull or a CAP kill then comes just before the RE's start."""
        return self.sc.get("phase") == "discovery" and self.sc["event"] != "re"

    def marked(self):
        who, kind, mark, _ = PHASES[self.sc["phase"]]
        if self.at_start():
            return True
        router = self.lab.cap if who == "cap" else self.lab.re
        return mark in (self.text(who) if kind == "log" else router.read(bl.rl.CALLS) or "")

    def restart(self, who):
        """SIGKILL, then the same start as at first, RESTART_AFTER_S later (its log kept aside)."""
        p = self.cap if who == "cap" else self.re
        p.signal(signal.SIGKILL)
        p.wait(5)
        self.logs[who].append(p.log())
        time.sleep(RESTART_AFTER_S)
        if who == "cap":
            self.cap = bl.start_cap(self.lab, False)
        else:
            self.re = bl.start(self.lab.re, bl.RE_ARGS, False)

    def event(self):
        """The scenario's event once its phase is marked (at most BOUND_S)."""
        if not bl.rl.wait_until(self.marked, BOUND_S, step=0.002):
            return
        self.fired = time.time()
        if self.sc["event"] == "pull":
            self.lab.cable(False)
            time.sleep(self.sc["arg"])
            self.lab.cable(True)
        else:
            self.restart(self.sc["event"])
        self.done = True


def paired(run):
    """Waits until the RE (its latest instance) has ended, up to BOUND_S after its first start;
    (paired, seconds to its last re_init)."""
    end = run.t0 + BOUND_S
    while time.time() < end:
        if not run.re.running() and (run.sc.get("event") != "re" or run.done):
            break
        time.sleep(0.1)
    rc = run.re.wait(0.1)
    t = [t for t, w in bl.stamps(run.lab.re) if w.startswith("re_init")]
    ok = rc == 0 and bool(t) and bl.rl.wait_until(lambda: bl.stamp(run.lab.cap, "cap_init"), 5)
    return bool(ok), (t[-1] - run.t0) if ok else None


def left_behind(run):
    """What the run left: lock files, status files, the CAP's descriptors and threads against
    before the RE started, and whether the CAP still takes a new peer (its serving count)."""
    lab, cap = run.lab, run.cap
    lab.impair()   # a good cable for the checks
    idle = bl.rl.wait_until(lambda: cap.running() and cap.figures()[:2] == run.base, 5 + CAP_INIT_S)
    out = {"cap_lock": os.path.exists(lab.cap.path(bl.rl.LOCK)), "re_lock": os.path.exists(lab.re.path(bl.rl.LOCK)),
           "status": sorted(f for f in os.listdir(lab.cap.path("/tmp")) if f.endswith("-status")),
           "cap_alive": cap.running(), "figures": list(cap.figures()[:2]) if cap.running() else None,
           "base": list(run.base), "idle": bool(idle)}
    if cap.running():   # the RE's own br-lan may still hold the CAP's address
        bl.rl._run(["ip", "-n", lab.re.ns, "addr", "flush", "dev", "br-lan"])
        n = cap.count("incoming peer:"), cap.count("WARN: Cap overload threshold")
        probe = "import socket, time; s = socket.create_connection(('192.168.77.1', 19553), 3); time.sleep(0.5)"
        lab.re.netns_run(["/usr/bin/python3", "-c", probe], check=False)
        bl.rl.wait_until(lambda: (cap.count("incoming peer:"), cap.count("WARN: Cap overload threshold")) != n, 2)
        out["serving"] = ("busy" if cap.count("WARN: Cap overload threshold") > n[1] else
                          "free" if cap.count("incoming peer:") > n[0] else "unreachable")
    return out


def timers(run):
    """The timers seen in the run's logs, as (name, count), longest first."""
    re_, cap = run.text("re"), run.text("cap")
    seen = [("RE's lock live", re_.count("other process locked MeshLock")),
            ("CAP's lock live", cap.count("dd srv: meshing")),
            ("120 s sweep", cap.count("too long > timeout")),
            ("60 s watchdog", re_.count("interaction timeout")),
            ("30 s handshake deadline", cap.count("ssl handshake timeout 30s")),
            ("probe rhythm", re_.count("dd_clt: no CAP found")),
            ("3 s retry", sum(max(0, log.count("for client/server interaction") - 1) for log in run.instances("re")))]
    return [(name, n) for name, n in seen if n]


def one(b, name, sc, i):
    """One run of a scenario on a fresh lab; its record."""
    with bl.fresh_lab(b, wire=True) as lab:
        run = Run(lab, sc)
        ev = run.thread
        ok, t = paired(run)
        if ev:
            ev.join(30)
        if run.re.running():
            run.re.stop()
        fired = run.fired - run.t0 if run.fired is not None else None
        rec = {"name": name, "i": i, "paired": ok, "t": t, "fired": fired, "left": left_behind(run),
               "timers": timers(run)}
        if not ok or t > 30:
            rec["log"] = {"re": run.text("re"), "cap": run.text("cap")}
        run.cap.stop()
    bl.log(f"faults: {name} run {i + 1}: paired {ok} in {t if t is None else round(t, 2)} s; "
           f"event at {fired}; timers {rec['timers']}; left {rec['left']}")
    return rec


def measure(b, todo, runs):
    """The records of runs runs of each scenario in todo, JOBS labs at a time."""
    bl.rl._tls_material()   # made once, before the threads
    with concurrent.futures.ThreadPoolExecutor(JOBS) as pool:
        futs = [pool.submit(one, b, name, sc, i) for name, sc in todo for i in range(runs)]
        return [f.result() for f in futs]


def leftovers(recs):
    """The table cell: what any run left behind."""
    out = set()
    for r in recs:
        lf = r["left"]
        out |= {"CAP lock file"} if lf["cap_lock"] else set()
        out |= {"RE lock file"} if lf["re_lock"] else set()
        out |= {"status file " + ", ".join(lf["status"])} if lf["status"] else set()
        out |= {"CAP gone"} if not lf["cap_alive"] else set()
        out |= {f"CAP fds/threads {lf['figures']} (before {lf['base']})"} if lf["cap_alive"] and not lf["idle"] else set()
        out |= {"CAP busy (refuses a new peer)"} if lf.get("serving") == "busy" else set()
    return "; ".join(sorted(out)) or "nothing"


def row(name, recs):
    ts = [r["t"] for r in recs if r["paired"]]
    seen = {}
    for r in recs:
        for t, n in r["timers"]:
            seen[t] = seen.get(t, 0) + n
    decided = ", ".join(f"{t} x{n}" for t, n in seen.items()) or "none (first attempt)"
    return [name, f"{len(ts)} of {len(recs)}", f"{med(ts):.1f}" if ts else "-", f"{max(ts):.1f}" if ts else "-",
            leftovers(recs), decided]


def section(ctx, rows):
    head = ["scenario", "paired", "median s to re_init", "worst s", "left behind", "timers seen (all runs)"]
    intro = [SECTION, "", f"Written by `{ctx['command']}`, {ctx['date']}, {ctx['duration']:.0f} s; "
             f"{ctx['btype']} build; {ctx['runs']} runs per scenario, at most {JOBS} labs at once, each run "
             f"bounded at {BOUND_S:.0f} s; {ctx['machine']['nproc']} CPUs, load {ctx['load_start']} -> "
             f"{ctx['load_end']}.", ""] + faultnotes.SETUP
    return "\n".join(intro + [""] + bl.md_table(head, rows) + [""] + faultnotes.COLUMNS + [""]
                     + faultnotes.FINDINGS) + "\n"


def at_faults(args):
    """scripts/bench --faults [--only TEXT] [--runs N]: runs, merges into faults.json, writes the section."""
    t_start = time.monotonic()
    ctx = bl.context(runs=args.runs)
    b = bl.build(args)
    ctx["btype"] = b.btype
    todo = [(n, sc) for n, sc in scenarios() if not args.only or any(o in n for o in args.only.split("|"))]
    recs = measure(b, todo, args.runs)
    path = os.path.join(b.aux, "faults.json")
    old = []
    if args.only and os.path.exists(path):
        with open(path) as f:
            old = [r for r in json.load(f) if r["name"] not in {n for n, _ in todo}]
    recs = old + recs
    with open(path, "w") as f:
        json.dump(recs, f, indent=1)
    ctx.update(duration=time.monotonic() - t_start, load_end=bl.loadavg())
    rows = [row(n, [r for r in recs if r["name"] == n]) for n, _ in scenarios() if any(r["name"] == n for r in recs)]
    bl.print_table("pairing through a bad cable", ["scenario", "paired", "median", "worst", "left", "timers"], rows)
    if not args.no_doc:
        bl.write_section(SECTION, section(ctx, rows))
        bl.log("wrote docs/performance.md")
