#!/usr/bin/python3
"""Traffic against a CAP, run in the RE's network namespace:
python3 hostile.py plans|cycles|ddflood|ddchatter|ddsend '<json args>' (see
the cmd_ functions). Prints JSON lines ({"step": ...}), the last {"step":
"done", ...} with the figures, or {"step": "error", ...}. Every loop is
bounded in count and time."""
import contextlib
import json
import os
import select
import socket
import ssl
import struct
import sys
import time

import peer   # frame(), client_context(), PORT
from peer import emit

CAP_IP = "192.168.77.1"
REQ = b"KORVANE_RE_DDv1.0"


def _wait_closed(sock, timeout):
    """Reads until the other end closes; (closed, seconds, bytes read)."""
    start, got = time.monotonic(), 0
    while (left := timeout - (time.monotonic() - start)) > 0:
        sock.settimeout(left)
        try:
            data = sock.recv(4096)
        except (socket.timeout, ssl.SSLWantReadError):
            continue
        except OSError:
            data = b""
        if not data:
            return True, round(time.monotonic() - start, 3), got
        got += len(data)
    return False, round(time.monotonic() - start, 3), got


def _hold(path, max_s):
    """Sleeps until path exists (the test's release signal) or max_s pass."""
    end = time.monotonic() + max_s
    while time.monotonic() < end and not (path and os.path.exists(path)):
        time.sleep(0.02)
    return bool(path and os.path.exists(path))


def _rst(sock):
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def client_hello():
    """The bytes of a real TLS ClientHello, made without a peer."""
    out = ssl.MemoryBIO()
    with contextlib.suppress(ssl.SSLWantReadError):
        peer.client_context().wrap_bio(ssl.MemoryBIO(), out).do_handshake()
    return out.read()


def _tls(c, st, r):
    try:
        c["conn"] = peer.client_context().wrap_socket(c["raw"])
        r["version"] = c["conn"].version()
    except OSError as e:
        r.update(ok=False, error=str(e))
        return False    # a failed handshake ends the plan
    return True


def _raw(c, st, r):
    with socket.socket(fileno=os.dup(c["conn"].fileno())) as dup:
        dup.sendall(bytes.fromhex(st[1]))


def _hello_part(c, st, r):
    hello = client_hello()
    c["raw"].sendall(hello[:int(len(hello) * st[1])])
    r["of"] = len(hello)


def _hold_step(c, st, r):
    emit({"step": "holding", "path": st[1]})
    r["released"] = _hold(st[1], st[2])


def _closed(c, st, r):
    r["closed"], r["after"], r["read"] = _wait_closed(c["conn"], st[1])
    emit({"step": "closed", **r})


def _close_notify(c, st, r):
    try:
        c["conn"] = c["conn"].unwrap()
    except OSError as e:
        r["error"] = str(e)


# What each step of a plan does to the connection c ({"raw": socket, "conn":
# the TLS session once there is one, else the socket}); r is the step's result.
# A step that returns False ends the plan.
STEPS = {
    "send": lambda c, st, r: c["raw"].sendall(bytes.fromhex(st[1])),
    "tls": _tls,
    "tls_send": lambda c, st, r: c["conn"].sendall(bytes.fromhex(st[1])),
    "raw": _raw,
    "frame": lambda c, st, r: c["conn"].sendall(peer.frame(st[1], bytes.fromhex(st[3]), body_len=st[2])),
    "hello_part": _hello_part,
    "hold": _hold_step,
    "closed": _closed,
    "rst": lambda c, st, r: _rst(c["conn"]),
    "close_notify": _close_notify,
}


def run_plan(steps, host):
    """One connection. Steps: ["send", hex] raw bytes; ["tls"] handshake;
    ["tls_send", hex] bytes inside the session; ["raw", hex] bytes under an
    established session (corrupt records); ["frame", type, body_len, body_hex];
    ["hello_part", fraction] the first part of a real ClientHello;
    ["hold", path, max_s]; ["closed", timeout] wait for the CAP to close;
    ["rst"] close with a reset; ["close_notify"] orderly TLS close.
    A failed handshake ends the plan."""
    res = []
    raw = socket.create_connection((host, peer.PORT), timeout=5)
    c = {"raw": raw, "conn": raw}
    try:
        for st in steps:
            r = {"op": st[0]}
            go_on = STEPS.get(st[0], lambda *_: None)(c, st, r) is not False
            res.append(r)
            if not go_on:
                break
    except OSError as e:
        res.append({"op": "fault", "error": str(e)})
    finally:
        for s in (c["conn"], raw):
            with contextlib.suppress(OSError):
                s.close()
    return res


def cmd_plans(a):
    """Connections that misbehave, one after another (see run_plan)."""
    out = []
    for name, steps in a["plans"]:
        out.append([name, run_plan(steps, a.get("host", CAP_IP))])
        emit({"step": "plan", "name": name, "result": out[-1][1]})
    emit({"step": "done", "plans": out})


def cmd_cycles(a):
    """n connect/close cycles within max_s seconds. A cycle waits up to wait_ms
    for the CAP to hang up (its answer to a second peer), so it keeps the
    CAP's pace; every eager_every-th closes at once, every rst_every-th with a
    reset. Each binds its own source port: the CAP keeps the TIME_WAIT."""
    n, max_s = a["n"], a.get("max_s", 30)
    rst_every, eager_every = a.get("rst_every", 2), a.get("eager_every", 10)
    c = dict.fromkeys(("ok", "failed", "resets", "refused", "eager", "stalls"), 0)
    slowest, t0 = 0.0, time.monotonic()
    for i in range(n):
        if time.monotonic() - t0 > max_s:
            break
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
            s.settimeout(3)
            c0 = time.monotonic()
            try:
                s.bind(("", a.get("port0", 30000) + i))
                s.connect((a.get("host", CAP_IP), peer.PORT))
                took = time.monotonic() - c0
                slowest = max(slowest, took)
                c["ok"] += 1
                c["stalls"] += took > 0.5
                if eager_every and i % eager_every == 0:
                    c["eager"] += 1
                elif select.select([s], [], [], a.get("wait_ms", 20) / 1000.0)[0]:
                    c["refused"] += 1
                if rst_every and i % rst_every == 0:
                    _rst(s)
                    c["resets"] += 1
            except OSError:
                c["failed"] += 1
    emit({"step": "done", **c, "slowest_connect": round(slowest, 3),
          "elapsed": round(time.monotonic() - t0, 3)})


FLOOD = (("valid", REQ + b"\0"), ("valid_tail", REQ + b"\0" + os.urandom(40)), ("no_nul", REQ),
         ("v1.1", b"KORVANE_RE_DDv1.1\0"), ("cap_answer", b"KORVANE_CAP_DDv1.06.6.6.6\0"),
         ("empty", b""), ("short", REQ[:5]), ("nuls", b"\0" * 64), ("random", os.urandom(300)),
         ("fmt", b"%s%n%x%s%s%s%n" * 8), ("mtu", b"A" * 1472), ("2047", b"B" * 2047),
         ("2048", b"C" * 2048), ("4000", b"D" * 4000))


class Wire:
    """Broadcasts on ifname and sniffs the CAP's discovery answers on a packet
    socket: their source may be the RE's own factory address, which the RE's
    IP stack drops as martian."""

    def __init__(self, ifname):
        self.rx = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0800))
        self.rx.bind((ifname, 0x0800))
        self.tx = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.tx.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        self.tx.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, ifname.encode())

    def send(self, payload):
        self.tx.sendto(payload, ("255.255.255.255", peer.PORT))

    def answers(self, timeout):
        """CAP answers (UDP payloads to PORT) heard within timeout seconds."""
        out, end = [], time.monotonic() + timeout
        while select.select([self.rx], [], [], max(0.0, end - time.monotonic()))[0]:
            f, addr = self.rx.recvfrom(4096)
            if addr[2] == socket.PACKET_OUTGOING or len(f) < 34 or f[12:14] != b"\x08\x00" or f[23] != 17:
                continue
            ihl = (f[14] & 0x0F) * 4
            dport, length = struct.unpack("!HH", f[14 + ihl + 2:14 + ihl + 6])
            data = f[14 + ihl + 8:14 + ihl + length]
            if dport == peer.PORT and data.startswith(b"KORVANE_CAP_DD"):
                out.append(data)
        return out


def cmd_ddsend(a):
    """One datagram; the CAP answers heard within wait seconds."""
    w = Wire(a.get("ifname", "eth4"))
    w.send(bytes.fromhex(a["hex"]))
    emit({"step": "done", "answers": [x.hex() for x in w.answers(a.get("wait", 1.5))]})


def cmd_ddchatter(a):
    """A chatty host: a datagram that is no request (hex, default "chatter") broadcast to the
    discovery port every gap seconds, n at most, for max_s seconds at most."""
    w, t0, sent = Wire(a.get("ifname", "eth4")), time.monotonic(), 0
    payload = bytes.fromhex(a.get("hex", b"chatter\0".hex()))
    emit({"step": "started"})
    while sent < a.get("n", 1000) and time.monotonic() - t0 < a.get("max_s", 60):
        w.send(payload)
        sent += 1
        time.sleep(a.get("gap", 0.5))
    emit({"step": "done", "sent": sent})


def cmd_ddflood(a):
    """n datagrams broadcast in bursts, cycling through FLOOD; counts the
    CAP's answers heard on the wire."""
    w = Wire(a.get("ifname", "eth4"))
    n, burst, sent, answers = a["n"], a.get("burst", 20), {}, 0
    t0 = time.monotonic()
    for i in range(n):
        if time.monotonic() - t0 > a.get("max_s", 20):
            break
        kind, payload = FLOOD[i % len(FLOOD)]
        w.send(payload)
        sent[kind] = sent.get(kind, 0) + 1
        if i % burst == burst - 1:
            time.sleep(a.get("gap", 0.01))
            answers += len(w.answers(0))
    answers += len(w.answers(a.get("tail_s", 1.0)))
    emit({"step": "done", "sent": sent, "total": sum(sent.values()), "answers": answers,
          "elapsed": round(time.monotonic() - t0, 3)})


if __name__ == "__main__":
    try:
        globals()["cmd_" + sys.argv[1]](json.loads(sys.argv[2]))
    except Exception as e:  # report; the test decides
        emit({"step": "error", "error": "%s: %s" % (type(e).__name__, e)})
