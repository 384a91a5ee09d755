"""A scriptable pairing peer, written from the wire protocol, for lab tests.

It speaks the plaitd frame protocol over TLS as either side, honestly or
not, so tests can watch how the real daemon reacts to a bad peer. Run inside
a router's namespace:

    python3 peer.py re  '<json steps>' ['<json opts>']  # connect to a CAP
    python3 peer.py cap '<json steps>' ['<json opts>']  # accept one RE

Each step is [action, {args}]; the result of every step (and of the TCP and
TLS set-up) is printed as one JSON line, so a test reads back what the peer
saw. Options: re: host, no_tls, tls ("1.1": offer TLS 1.1 only), ciphers
(TLS 1.2 cipher list); cap: bind, cert, key, accept_timeout.
"""
import base64
import hashlib
import hmac
import json
import os
import socket
import ssl
import struct
import sys
import time

PORT = 19553
VERSION = 0x1001
MSG_AUTH_REQ, MSG_AUTH_REPLY, MSG_SYNC_REQ, MSG_SYNC_REPLY = 4, 5, 6, 7
HDR = struct.Struct(">HHH19s19s")
KEY = "5f0c2a9e71b4d3866a0e9c1f24b7d058"
WIFI_CONFIG_SIZE = 1051
CERT = "/tmp/mq/cc/veltrasso_ct"
PRIVKEY = "/tmp/mq/cc/veltrasso_ky"


def key_of(pw, ident):
    """Which role's key made pw for ident: "cap", "re" or None."""
    for role in ("cap", "re"):
        if hmac.compare_digest(pw, password(ident, role == "cap")):
            return role
    return None


def password(ident, cap_key):
    """Base64 HMAC-SHA256 of the id under the shared key of one role."""
    key = ("x" if cap_key else "q") + KEY[1:]
    digest = hmac.new(key.encode(), ident.encode(), hashlib.sha256).digest()
    return base64.b64encode(digest).decode()


def frame(mtype, body=b"", version=VERSION, body_len=None, mac2=b"", mac5=b""):
    n = len(body) if body_len is None else body_len
    return HDR.pack(version, n, mtype, mac2, mac5) + body


def auth_body(ident, pw, mac=""):
    return struct.pack("16s128s19s", ident.encode(), pw.encode(), mac.encode())


def reply_body(code, text=""):
    return struct.pack("b31s", code, text.encode()[:31])


def wifi_config(**fields):
    """A WiFiConfig record; fields by name, texts cut to their sizes."""
    layout = [("type", 0, 1), ("bsd", 1, 1), ("ssid_2g", 2, 33), ("key_2g", 35, 65),
              ("enc_2g", 100, 16), ("ssid_5g", 116, 33), ("key_5g", 149, 65),
              ("enc_5g", 214, 16), ("bh_ssid", 230, 33), ("bh_key", 263, 65),
              ("bh_enc", 328, 16), ("bh_maclist_2g", 344, 320),
              ("bh_maclist_5g", 664, 320), ("locale", 984, 67)]
    rec = bytearray(WIFI_CONFIG_SIZE)
    for name, off, size in layout:
        val = fields.get(name)
        if val is None:
            continue
        raw = bytes([val]) if isinstance(val, int) else val.encode()[:size - 1]
        rec[off:off + len(raw)] = raw
    return bytes(rec)


def parse_wifi_config(rec):
    def text(off, size):
        return rec[off:off + size].split(b"\0", 1)[0].decode(errors="replace")
    return {"type": rec[0], "bsd": rec[1], "ssid_2g": text(2, 33), "key_2g": text(35, 65),
            "enc_2g": text(100, 16), "ssid_5g": text(116, 33), "key_5g": text(149, 65),
            "enc_5g": text(214, 16), "bh_ssid": text(230, 33), "bh_key": text(263, 65),
            "bh_enc": text(328, 16), "locale": text(984, 67)}


class Peer:
    def __init__(self, sock, role):
        self.sock, self.role = sock, role

    def recv_exact(self, n):
        data = b""
        while len(data) < n:
            chunk = self.sock.recv(n - len(data))
            if not chunk:
                raise EOFError("closed after %d of %d bytes" % (len(data), n))
            data += chunk
        return data

    def recv_frame(self):
        version, n, mtype, mac2, mac5 = HDR.unpack(self.recv_exact(HDR.size))
        body = self.recv_exact(n) if n else b""
        out = {"version": version, "type": mtype, "body_len": n,
               "mac2": mac2.rstrip(b"\0").decode(), "mac5": mac5.rstrip(b"\0").decode()}
        if mtype in (MSG_AUTH_REPLY, MSG_SYNC_REPLY) and len(body) >= 32:
            code, text = struct.unpack("b31s", body[:32])
            out.update(code=code, text=text.split(b"\0", 1)[0].decode())
        elif mtype == MSG_AUTH_REQ and len(body) >= 163:
            ident, pw, mac = (f.split(b"\0", 1)[0].decode(errors="replace")
                              for f in struct.unpack("16s128s19s", body[:163]))
            out.update(id=ident, pw=pw, mac=mac, key=key_of(pw, ident))
        elif mtype == MSG_SYNC_REQ and len(body) >= WIFI_CONFIG_SIZE:
            out["config"] = parse_wifi_config(body[:WIFI_CONFIG_SIZE])
            out["ext"] = body[WIFI_CONFIG_SIZE:].split(b"\0", 1)[0].decode(errors="replace")
        return out


def client_context(tls=None, ciphers=None):
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    ctx.check_hostname = False
    ctx.verify_mode = ssl.CERT_NONE
    if tls == "1.1":
        ctx.set_ciphers("DEFAULT:@SECLEVEL=0")
        ctx.minimum_version = ssl.TLSVersion.TLSv1_1
        ctx.maximum_version = ssl.TLSVersion.TLSv1_1
    if ciphers:
        ctx.set_ciphers(ciphers + ":@SECLEVEL=0")
        ctx.maximum_version = ssl.TLSVersion.TLSv1_2
    return ctx


# ---- steps -------------------------------------------------------------

def step_auth_req(peer, a):
    """Send credentials made with key "re" or "cap" (default: the peer's own
    role's, i.e. honest); extra_char spoils the password by one character."""
    ident = a.get("id", os.urandom(7).hex())
    pw = password(ident, a.get("key", peer.role) == "cap")
    if a.get("extra_char"):
        pw += "A"
    peer.sock.sendall(frame(MSG_AUTH_REQ, auth_body(ident, pw, a.get("mac", "")),
                            mac2=a.get("mac2", "").encode(), mac5=a.get("mac5", "").encode()))
    return {"sent": "auth_req"}


def step_reply(peer, a):
    mtype = MSG_SYNC_REPLY if a.get("sync") else MSG_AUTH_REPLY
    peer.sock.sendall(frame(mtype, reply_body(a.get("code", 1), a.get("text", ""))))
    return {"sent": "reply"}


def step_raw(peer, a):
    body = bytes.fromhex(a.get("body_hex", ""))
    peer.sock.sendall(frame(a["type"], body, version=a.get("version", VERSION),
                            body_len=a.get("body_len")))
    return {"sent": "raw"}


def step_bytes(peer, a):
    peer.sock.sendall(bytes.fromhex(a["hex"]))
    return {"sent": "bytes"}


def step_sync_req(peer, a):
    rec = wifi_config(**a.get("config", {}))
    ext = a.get("ext", "")
    peer.sock.sendall(frame(MSG_SYNC_REQ, rec + ext.encode() + b"\0"))
    return {"sent": "sync_req"}


def step_recv(peer, a):
    peer.sock.settimeout(a.get("timeout", 10))
    try:
        return peer.recv_frame()
    except (EOFError, ConnectionError, ssl.SSLError, OSError) as e:
        return {"closed": True, "error": str(e)}


def step_expect_closed(peer, a):
    peer.sock.settimeout(a.get("timeout", 10))
    start = time.monotonic()
    try:
        data = peer.sock.recv(4096)
        return {"closed": not data, "after": round(time.monotonic() - start, 2),
                "data": data[:64].hex()}
    except (socket.timeout, TimeoutError):
        return {"closed": False, "after": round(time.monotonic() - start, 2)}
    except (ConnectionError, ssl.SSLError, OSError) as e:
        return {"closed": True, "after": round(time.monotonic() - start, 2), "error": str(e)}


def step_sleep(peer, a):
    time.sleep(a.get("s", 1))
    return {"slept": a.get("s", 1)}


STEPS = {"auth_req": step_auth_req, "reply": step_reply, "raw": step_raw,
         "bytes": step_bytes, "sync_req": step_sync_req, "recv": step_recv,
         "expect_closed": step_expect_closed, "sleep": step_sleep}


def emit(obj):
    print(json.dumps(obj), flush=True)


def run_steps(peer, steps):
    for action, args in steps:
        emit({"step": action, **STEPS[action](peer, args or {})})


def run_re(opts, steps):
    raw = socket.create_connection((opts.get("host", "192.168.77.1"), PORT), timeout=10)
    emit({"step": "tcp", "ok": True})
    if opts.get("no_tls"):
        run_steps(Peer(raw, "re"), steps)
        return
    ctx = client_context(opts.get("tls"), opts.get("ciphers"))
    try:
        tls = ctx.wrap_socket(raw)
    except (ssl.SSLError, OSError) as e:
        emit({"step": "tls", "ok": False, "error": str(e)})
        return
    emit({"step": "tls", "ok": True, "version": tls.version(), "cipher": tls.cipher()[0]})
    run_steps(Peer(tls, "re"), steps)


def run_cap(opts, steps):
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    ctx.load_cert_chain(opts.get("cert", CERT), opts.get("key", PRIVKEY))
    srv = socket.create_server((opts.get("bind", "0.0.0.0"), PORT), reuse_port=False)
    srv.settimeout(opts.get("accept_timeout", 60))
    emit({"step": "listen", "ok": True})
    conn, addr = srv.accept()
    conn.settimeout(30)
    try:
        tls = ctx.wrap_socket(conn, server_side=True)
    except (ssl.SSLError, OSError) as e:
        emit({"step": "accepted", "from": addr[0], "ok": False, "error": str(e)})
        return
    emit({"step": "accepted", "from": addr[0], "ok": True})
    run_steps(Peer(tls, "cap"), steps)


def main():
    role, steps = sys.argv[1], json.loads(sys.argv[2])
    opts = json.loads(sys.argv[3]) if len(sys.argv) > 3 else {}
    try:
        (run_re if role == "re" else run_cap)(opts, steps)
    except Exception as e:  # report, the test decides
        emit({"step": "error", "error": "%s: %s" % (type(e).__name__, e)})


if __name__ == "__main__":
    main()
