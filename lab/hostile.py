#!/usr/bin/python3
"""Hostile traffic against a CAP, for the lab's soak tests. Runs inside the
RE's network namespace (the host's python3 through nsenter --net):

    python3 hostile.py plans    '<json>'   # connections that misbehave, one after another
    python3 hostile.py cycles   '<json>'   # rapid connect/close
    python3 hostile.py halfopen '<json>'   # connections that never send
    python3 hostile.py ddflood  '<json>'   # discovery datagrams, valid and not

Each prints JSON lines: progress lines ({"step": ...}) and a last line
{"step": "done", ...} with the figures; {"step": "error", ...} on a fault of
its own. Every loop is bounded in count and in time.
"""
import json
import os
import select
import socket
import ssl
import struct
import sys
import time

import peer   # frame(), client_context(), PORT

CAP_IP = "192.168.77.1"
REQ = b"KORVANE_RE_DDv1.0"


def emit(obj):
    print(json.dumps(obj), flush=True)


def _wait_closed(sock, timeout):
    """Reads until the other end closes; (closed, seconds, bytes read)."""
    start = time.monotonic()
    got = 0
    while True:
        left = timeout - (time.monotonic() - start)
        if left <= 0:
            return False, round(time.monotonic() - start, 3), got
        sock.settimeout(left)
        try:
            data = sock.recv(4096)
        except (socket.timeout, TimeoutError):
            continue
        except ssl.SSLWantReadError:
            continue
        except (ConnectionError, ssl.SSLError, OSError):
            return True, round(time.monotonic() - start, 3), got
        if not data:
            return True, round(time.monotonic() - start, 3), got
        got += len(data)


def _hold(path, max_s):
    """Sleeps until path exists (the test's release signal) or max_s pass."""
    end = time.monotonic() + max_s
    while time.monotonic() < end and not (path and os.path.exists(path)):
        time.sleep(0.02)
    return path is not None and os.path.exists(path)


def _rst(sock):
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


def client_hello():
    """The bytes of a real TLS ClientHello, made without a peer."""
    inc, out = ssl.MemoryBIO(), ssl.MemoryBIO()
    obj = peer.client_context().wrap_bio(inc, out)
    try:
        obj.do_handshake()
    except ssl.SSLWantReadError:
        pass
    return out.read()


def run_plan(steps, host):
    """One connection. Steps: ["send", hex] raw bytes; ["tls"] handshake;
    ["tls_send", hex] bytes inside the session; ["raw", hex] bytes under an
    established session (corrupt records); ["frame", type, body_len, body_hex];
    ["hello_part", fraction] the first part of a real ClientHello;
    ["hold", path, max_s]; ["closed", timeout] wait for the CAP to close;
    ["rst"] close with a reset; ["close_notify"] orderly TLS close."""
    res = []
    raw = socket.create_connection((host, peer.PORT), timeout=5)
    conn = raw
    try:
        for st in steps:
            op = st[0]
            r = {"op": op}
            if op == "send":
                raw.sendall(bytes.fromhex(st[1]))
            elif op == "tls":
                try:
                    conn = peer.client_context().wrap_socket(raw)
                    r["version"] = conn.version()
                except (ssl.SSLError, OSError) as e:
                    r.update(ok=False, error=str(e))
                    res.append(r)
                    break
            elif op == "tls_send":
                conn.sendall(bytes.fromhex(st[1]))
            elif op == "raw":
                raw_dup = socket.socket(fileno=os.dup(conn.fileno()))
                raw_dup.sendall(bytes.fromhex(st[1]))
                raw_dup.close()
            elif op == "frame":
                conn.sendall(peer.frame(st[1], bytes.fromhex(st[3]), body_len=st[2]))
            elif op == "hello_part":
                hello = client_hello()
                raw.sendall(hello[:int(len(hello) * st[1])])
                r["of"] = len(hello)
            elif op == "hold":
                emit({"step": "holding", "path": st[1]})
                r["released"] = _hold(st[1], st[2])
            elif op == "closed":
                r["closed"], r["after"], r["read"] = _wait_closed(conn, st[1])
                emit({"step": "closed", **r})
            elif op == "rst":
                _rst(conn)
            elif op == "close_notify":
                try:
                    conn = conn.unwrap()
                except (ssl.SSLError, OSError) as e:
                    r["error"] = str(e)
            res.append(r)
    except (ConnectionError, OSError) as e:
        res.append({"op": "fault", "error": str(e)})
    finally:
        try:
            conn.close()
        except OSError:
            pass
        raw.close()
    return res


def cmd_plans(a):
    out = []
    for name, steps in a["plans"]:
        out.append([name, run_plan(steps, a.get("host", CAP_IP))])
        emit({"step": "plan", "name": name, "result": out[-1][1]})
    emit({"step": "done", "plans": out})


def cmd_cycles(a):
    """n connect/close cycles; stops early after max_s seconds. A cycle waits
    up to wait_ms for the CAP to hang up (its answer to a second peer) before
    it closes, so the client keeps the CAP's pace instead of overrunning its
    accept backlog of 10; every eager_every-th cycle closes at once, before
    the CAP has looked at it. Every rst_every-th close is a reset. Each cycle
    has its own source port: the CAP closes first and so keeps the
    TIME_WAIT, and a re-used port would meet it and wait out a SYN
    retransmission (1 s)."""
    n, max_s = a["n"], a.get("max_s", 30)
    rst_every, eager_every = a.get("rst_every", 2), a.get("eager_every", 10)
    wait = a.get("wait_ms", 20) / 1000.0
    ok = failed = resets = refused = eager = stalls = 0
    slowest = 0.0
    t0 = time.monotonic()
    for i in range(n):
        if time.monotonic() - t0 > max_s:
            break
        s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        s.settimeout(3)
        c0 = time.monotonic()
        try:
            s.bind(("", a.get("port0", 30000) + i))
            s.connect((a.get("host", CAP_IP), peer.PORT))
            ok += 1
            took = time.monotonic() - c0
            slowest = max(slowest, took)
            stalls += took > 0.5
            if eager_every and i % eager_every == 0:
                eager += 1
            elif select.select([s], [], [], wait)[0]:
                refused += 1
            if rst_every and i % rst_every == 0:
                _rst(s)
                resets += 1
        except OSError:
            failed += 1
        s.close()
    emit({"step": "done", "ok": ok, "failed": failed, "resets": resets, "refused": refused,
          "eager": eager, "stalls": stalls, "slowest_connect": round(slowest, 3),
          "elapsed": round(time.monotonic() - t0, 3)})


def _is_closed(s):
    """True once the other end has closed s (non-blocking look)."""
    r, _, _ = select.select([s], [], [], 0)
    if not r:
        return False
    try:
        return s.recv(1, socket.MSG_PEEK) == b""
    except OSError:
        return True


def cmd_halfopen(a):
    """k connections that send nothing. After probe_s, reports how many the
    CAP has closed; then holds the rest until the path `release` appears (or
    max_s), or, with wait_close, until the CAP closes them."""
    socks = []
    for _ in range(a["k"]):
        s = socket.create_connection((a.get("host", CAP_IP), peer.PORT), timeout=5)
        socks.append(s)
    time.sleep(a.get("probe_s", 1.0))
    closed = [_is_closed(s) for s in socks]
    emit({"step": "held", "open": closed.count(False), "closed": closed.count(True)})
    if a.get("wait_close"):
        t0 = time.monotonic()
        end = t0 + a["wait_close"]
        while time.monotonic() < end and not all(_is_closed(s) for s in socks):
            time.sleep(0.1)
        emit({"step": "cap_closed", "all": all(_is_closed(s) for s in socks),
              "after": round(time.monotonic() - t0, 2)})
    else:
        released = _hold(a.get("release"), a.get("max_s", 20))
        emit({"step": "released", "by_test": released})
    for s in socks:
        s.close()
    emit({"step": "done"})


def flood_payloads():
    """(kind, payload) cycle of discovery datagrams, valid and not."""
    return [
        ("valid", REQ + b"\0"),
        ("valid_tail", REQ + b"\0" + os.urandom(40)),
        ("no_nul", REQ),
        ("v1.1", b"KORVANE_RE_DDv1.1\0"),
        ("cap_answer", b"KORVANE_CAP_DDv1.0" + b"6.6.6.6\0"),
        ("empty", b""),
        ("short", REQ[:5]),
        ("nuls", b"\0" * 64),
        ("random", os.urandom(300)),
        ("fmt", b"%s%n%x%s%s%s%n" * 8),
        ("mtu", b"A" * 1472),
        ("2047", b"B" * 2047),
        ("2048", b"C" * 2048),
        ("4000", b"D" * 4000),
    ]


def _udp_payload(frame):
    if len(frame) < 34 or frame[12:14] != b"\x08\x00" or frame[23] != 17:
        return None
    ihl = (frame[14] & 0x0F) * 4
    dport, length = struct.unpack("!HH", frame[14 + ihl + 2:14 + ihl + 6])
    if dport != peer.PORT:
        return None
    return frame[14 + ihl + 8:14 + ihl + length]


def cmd_ddflood(a):
    """n datagrams broadcast on ifname in bursts, cycling through the kinds
    above; counts the CAP's answers heard on the wire."""
    ifname = a.get("ifname", "eth4")
    n, burst, gap = a["n"], a.get("burst", 20), a.get("gap", 0.01)
    rx = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0800))
    rx.bind((ifname, 0x0800))
    rx.setblocking(False)
    tx = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    tx.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    tx.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, ifname.encode())
    kinds = flood_payloads()
    sent = {}
    answers = 0

    def drain():
        nonlocal answers
        while True:
            try:
                data = _udp_payload(rx.recv(4096))
            except (BlockingIOError, InterruptedError):
                return
            if data and data.startswith(b"KORVANE_CAP_DDv1.0192.168.77.1"):
                answers += 1

    t0 = time.monotonic()
    for i in range(n):
        if time.monotonic() - t0 > a.get("max_s", 20):
            break
        kind, payload = kinds[i % len(kinds)]
        tx.sendto(payload, ("255.255.255.255", peer.PORT))
        sent[kind] = sent.get(kind, 0) + 1
        if i % burst == burst - 1:
            time.sleep(gap)
            drain()
    end = time.monotonic() + a.get("tail_s", 1.0)
    while time.monotonic() < end:
        time.sleep(0.05)
        drain()
    emit({"step": "done", "sent": sent, "total": sum(sent.values()), "answers": answers,
          "elapsed": round(time.monotonic() - t0, 3)})


COMMANDS = {"plans": cmd_plans, "cycles": cmd_cycles, "halfopen": cmd_halfopen,
            "ddflood": cmd_ddflood}


def main():
    try:
        COMMANDS[sys.argv[1]](json.loads(sys.argv[2]))
    except Exception as e:  # report; the test decides
        emit({"step": "error", "error": "%s: %s" % (type(e).__name__, e)})


if __name__ == "__main__":
    main()
