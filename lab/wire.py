"""The cable of a lab with faults (Lab(wire=True)): a relay in the namespace <lab>-wire between the
veth ends w0 (the CAP's eth0) and w1 (the RE's eth4) that copies every frame across and does to it
what netem would on the way: loss, delay with jitter, reordering, duplication, corruption, each
direction on its own. It stands in for `tc qdisc ... netem` on kernels built without sch_netem.
Pulling the cable is `ip link set w0/w1 down` (both routers lose carrier), not this program's job.

  wire.py <settings.json>

The settings file is read again whenever it changes: {"loss": %, "delay": ms, "jitter": ms
(uniform, +-), "reorder": % sent at once while the others wait `delay`, "duplicate": %,
"corrupt": % with one bit flipped, "seed": n}; missing keys are 0. Prints "ready" once both
ends are open; ends when its parent does.

  wire.py hello <dev> <seconds>    (in one router) broadcasts a test frame every 20 ms on dev
  wire.py heard <dev> <seconds>    (in the other) exits 0 once one arrives on dev, 1 if none did
A new cable does not carry frames into the CAP's bridge at once (for up to about a second after
the links came up): the lab waits for the first test frame to arrive before it runs a daemon."""
import ctypes
import heapq
import json
import os
import random
import select
import signal
import socket
import sys
import time

ETH_P_ALL, PACKET_OUTGOING, PR_SET_PDEATHSIG = 3, 4, 1
ETH_P_TEST = 0x88B5   # IEEE local experimental ethertype
ENDS = ("w0", "w1")


def load(path, old):
    """(settings, mtime): the file's settings when it changed since old, else old."""
    try:
        mtime = os.stat(path).st_mtime_ns
    except OSError:
        return old
    if old and mtime == old[1]:
        return old
    with open(path) as f:
        cfg = json.load(f)
    return dict({k: 0 for k in ("loss", "delay", "jitter", "reorder", "duplicate", "corrupt")}, **cfg), mtime


def fate(frame, cfg, rng, now):
    """[(due time, frame)] for one received frame: none when lost, two when duplicated."""
    if rng.random() * 100 < cfg["loss"]:
        return []
    out = []
    for _ in range(2 if rng.random() * 100 < cfg["duplicate"] else 1):
        f = frame
        if rng.random() * 100 < cfg["corrupt"]:
            i = rng.randrange(len(f))
            f = f[:i] + bytes([f[i] ^ (1 << rng.randrange(8))]) + f[i + 1:]
        d = cfg["delay"] + rng.uniform(-cfg["jitter"], cfg["jitter"])
        if cfg["reorder"] and rng.random() * 100 < cfg["reorder"]:
            d = 0
        out.append((now + max(d, 0) / 1000, f))
    return out


def relay(path):
    socks = []
    for end in ENDS:
        s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
        s.bind((end, 0))
        socks.append(s)
    other = {socks[0]: socks[1], socks[1]: socks[0]}
    cfg, queue, seq = load(path, None), [], 0
    rng = random.Random(cfg[0].get("seed"))
    print("ready", flush=True)
    while True:
        cfg = load(path, cfg)
        wait = min(0.1, max(0.0, queue[0][0] - time.monotonic())) if queue else 0.1
        for s in select.select(socks, [], [], wait)[0]:
            try:
                frame, addr = s.recvfrom(65535)
            except OSError:   # ENETDOWN once after a pull
                continue
            if addr[2] == PACKET_OUTGOING:   # what this relay sent itself
                continue
            for due, f in fate(frame, cfg[0], rng, time.monotonic()):
                seq += 1
                heapq.heappush(queue, (due, seq, other[s], f))
        while queue and queue[0][0] <= time.monotonic():
            _, _, s, f = heapq.heappop(queue)
            try:
                s.send(f)
            except OSError:   # the cable is pulled: the frame is lost
                pass


def hello(dev, seconds):
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_TEST))
    s.bind((dev, ETH_P_TEST))
    frame = b"\xff" * 6 + s.getsockname()[4] + ETH_P_TEST.to_bytes(2, "big") + b"lab cable check".ljust(46)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        s.send(frame)
        time.sleep(0.02)


def heard(dev, seconds):
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_TEST))
    s.bind((dev, ETH_P_TEST))
    print("listening", flush=True)
    return 0 if select.select([s], [], [], seconds)[0] else 1


if __name__ == "__main__":
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    if sys.argv[1] in ("hello", "heard"):
        sys.exit((hello if sys.argv[1] == "hello" else heard)(sys.argv[2], float(sys.argv[3])))
    relay(sys.argv[1])
