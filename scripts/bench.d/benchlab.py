"""What every run of scripts/bench shares: the build, the bench files in a
router, the stamped start of a daemon and its records, a fresh lab per run,
the runner that repeats a scenario, and the writer of docs/performance.md and
its sections."""
import argparse
import contextlib
import os
import platform
import shutil
import subprocess
import sys
import time

AUX_SRC = os.path.dirname(os.path.realpath(__file__))
TOP = os.path.realpath(os.path.join(AUX_SRC, "..", ".."))
DOC = os.path.join(TOP, "docs", "performance.md")
sys.path.insert(0, os.path.join(TOP, "lab"))
import routerlab as rl  # noqa: E402

CAP_ARGS = ("-S", "-o", "-i", "br-lan")
RE_ARGS = ("-C", "-o", "-i", "eth4")
READY = "dd_srv: enter broadcast recving loop.\n"
BENCH_DIR = "/lab/bench"            # inside a router
TRACE = "/tmp/bench-trace.log"      # shim output, inside a router
STAMPS = "/tmp/bench-stamps.log"    # mesh_setup.sh wrapper output
T0_FILE = "/tmp/bench-t0"           # RE start time
GO = "/tmp/bench-go"                # the start gate, a FIFO in each RE (start(gate=True))
CIPHERS = "HIGH:!aNULL:!MD5:!SHA1:!SHA256:!SHA384"


def log(msg):
    print(msg, file=sys.stderr, flush=True)


def run(argv, **kw):
    r = subprocess.run(argv, capture_output=True, text=True, **kw)
    if r.returncode != 0:
        sys.exit(f"bench: {' '.join(argv)} failed ({r.returncode}):\n{r.stdout[-3000:]}{r.stderr[-3000:]}")
    return r


def loadavg():
    return "%.2f %.2f %.2f" % os.getloadavg()


def machine():
    with open("/proc/cpuinfo") as f:
        model = next((line.split(":", 1)[1].strip() for line in f if line.startswith("model name")), "?")
    return {"nproc": os.cpu_count(), "cpu": model, "kernel": platform.release(),
            "host": platform.node()}


def context(**extra):
    """The record every run starts from: command line, date, machine, load."""
    return dict({"command": " ".join(["scripts/bench"] + sys.argv[1:]),
                 "date": time.strftime("%Y-%m-%d %H:%M %Z"), "machine": machine(),
                 "load_start": loadavg()}, **extra)


def build(args):
    """The daemon (or --bin) and the bench's helper programs; (binary, build type, aux dir)."""
    bdir = args.build_dir
    aux = os.path.join(bdir, "bench-aux")
    os.makedirs(aux, exist_ok=True)
    if args.bin:
        binary, btype = os.path.realpath(args.bin), "given (--bin)"
    else:
        log(f"building MinSizeRel plaitd in {bdir} ...")
        run(["cmake", "-S", TOP, "-B", bdir, "-DCMAKE_BUILD_TYPE=MinSizeRel", "-DPLAITD_TESTS=OFF"])
        run(["cmake", "--build", bdir, "-j2", "--target", "plaitd"], timeout=900)
        binary, btype = os.path.join(bdir, "plaitd"), "MinSizeRel (-Os)"
    for name, extra in (("shim.so", ["-shared", "-fPIC", "-ldl"]),
                        ("bare", [f'-DBENCH_CIPHERS="{CIPHERS}"', "-lssl", "-lcrypto"]),
                        ("ticker", ["-pthread"])):
        c = os.path.join(AUX_SRC, name.split(".")[0] + ".c")
        run(["cc", "-O2", "-Wall", "-o", os.path.join(aux, name), c] + extra)
    return argparse.Namespace(binary=binary, btype=btype, aux=aux)


def install(router, b):
    """Bench files into a router that is up: binary, wrappers, shim, bare, ticker."""
    shutil.copy2(b.binary, router.path("/usr/sbin/plaitd"))
    os.makedirs(router.path(BENCH_DIR), exist_ok=True)
    shutil.copy2(os.path.join(AUX_SRC, "run.sh"), router.path(BENCH_DIR + "/run"))
    for f in ("shim.so", "bare", "ticker"):
        shutil.copy2(os.path.join(b.aux, f), router.path(f"{BENCH_DIR}/{f}"))
    os.remove(router.path("/usr/sbin/mesh_setup.sh"))
    shutil.copy2(os.path.join(AUX_SRC, "mesh_setup.sh"), router.path("/usr/sbin/mesh_setup.sh"))


@contextlib.contextmanager
def fresh_lab(b, uplink="static", **kw):
    """A lab of its own (routerlab.Lab(**kw)) with its uplink and the bench files; removed after."""
    lab = rl.Lab(**kw)
    lab.up()
    try:
        lab.static_uplink() if uplink == "static" else lab.dhcp_uplink()
        for r in lab.routers:
            install(r, b)
        yield lab
    finally:
        lab.down()


def repeat(b, runs, once, line, **lab_kw):
    """runs runs of the scenario once(lab, i), each on a fresh lab (fresh_lab(b, **lab_kw));
    the list of their results, line(i, result) logged after each."""
    out = []
    for i in range(runs):
        with fresh_lab(b, **lab_kw) as lab:
            out.append(once(lab, i))
        log(line(i, out[-1]))
    return out


def start(router, args, shim, gate=False):
    """plaitd <args> through the stamping wrapper; Proc as router.plaitd gives.
    gate: the wrapper first waits for a line from the FIFO GO."""
    argv = ["/bin/sh", "-c", f"BENCH_SHIM={int(shim)} BENCH_GATE={int(gate)} exec {BENCH_DIR}/run \"$@\"",
            "plaitd", "/usr/sbin/plaitd"] + list(args)
    return router.spawn(argv, "plaitd")


def start_cap(lab, shim, listening=False):
    """The CAP, awaited until its discovery responder (and with listening, its TLS server) waits."""
    cap = start(lab.cap, CAP_ARGS, shim)
    cap.wait_log(READY, 10)
    if listening:
        cap.wait_log(rl.LISTENING, 10)
    return cap


def stamps(router):
    """(wall-clock time, mesh_setup.sh arguments) of each call in the router."""
    lines = (router.read(STAMPS) or "").splitlines()
    return [(float(t), what) for t, _, what in (line.partition(" ") for line in lines)]


def stamp(router, what):
    """Time of the router's first mesh_setup.sh call <what>, None without one."""
    return next((t for t, w in stamps(router) if w.startswith(what)), None)


def trace(router):
    """The trace library's records in the router."""
    rows = [line.split(" ", 6) for line in (router.read(TRACE) or "").splitlines()]
    return [{"who": router.name.upper(), "pid": int(p[0]), "tid": int(p[1]), "kind": p[2], "t0": float(p[3]),
             "t1": float(p[4]), "arg": float(p[5]), "text": p[6] if len(p) > 6 else ""} for p in rows if len(p) >= 6]


def print_table(title, head, body):
    print("\n".join([title] + ["  ".join(line) for line in [head] + body]))


def md_row(cells):
    return "| " + " | ".join(str(x) for x in cells) + " |"


def md_table(head, body):
    """Lines of a markdown table."""
    return [md_row(head), "|" + "---|" * len(head)] + [md_row(row) for row in body]


def _bounds(doc, title):
    """(start, end) of the section `title` in doc; start < 0: absent, end < 0: to the end."""
    start = doc.find("\n" + title)
    end = doc.find("\n## ", start + 1) if start >= 0 else -1
    return start, end


def splice(doc, title, text):
    """doc with its section `title` replaced by text (appended when it has none)."""
    start, end = _bounds(doc, title)
    if start < 0:
        return doc.rstrip("\n") + "\n\n" + text
    return doc[:start + 1] + text + ("\n" + doc[end + 1:] if end >= 0 else "")


def write_doc(doc, keep=()):
    """docs/performance.md becomes doc, with its sections `keep` (written by other runs) as they stand."""
    with contextlib.suppress(OSError), open(DOC) as f:
        old = f.read()
        for title in keep:
            start, end = _bounds(old, title)
            doc = splice(doc, title, old[start + 1:end + 1 if end >= 0 else None]) if start >= 0 else doc
    with open(DOC, "w") as f:
        f.write(doc)


def write_section(title, text):
    """Only the section `title` of docs/performance.md becomes text."""
    with open(DOC) as f:
        write_doc(splice(f.read(), title, text))
