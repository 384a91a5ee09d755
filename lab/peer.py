"""A scriptable pairing peer, written from the wire protocol: speaks the
plaitd frames over TLS as either side, honestly or not. In a router's netns:
python3 peer.py re|cap '<json steps>' ['<json opts>'] (re connects to a CAP,
cap accepts one RE). A step is [action, {args}] (see step()); each step's
result and the TCP/TLS set-up are printed as JSON lines. Options: re: host,
no_tls, tls ("1.1": TLS 1.1 only), ciphers (TLS 1.2 list); cap: bind, cert,
key, accept_timeout."""
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
AUTH = struct.Struct("16s128s19s")
KEY = "5f0c2a9e71b4d3866a0e9c1f24b7d058"
CERT, PRIVKEY = "/tmp/mq/cc/veltrasso_ct", "/tmp/mq/cc/veltrasso_ky"
WIFI_CONFIG_SIZE = 1051
WIFI_LAYOUT = (("type", 0, 1), ("bsd", 1, 1), ("ssid_2g", 2, 33), ("key_2g", 35, 65),
               ("enc_2g", 100, 16), ("ssid_5g", 116, 33), ("key_5g", 149, 65), ("enc_5g", 214, 16),
               ("bh_ssid", 230, 33), ("bh_key", 263, 65), ("bh_enc", 328, 16),
               ("bh_maclist_2g", 344, 320), ("bh_maclist_5g", 664, 320), ("locale", 984, 67))


def password(ident, cap_key):
    """Base64 HMAC-SHA256 of the id under the shared key of one role."""
    key = ("x" if cap_key else "q") + KEY[1:]
    return base64.b64encode(hmac.new(key.encode(), ident.encode(), hashlib.sha256).digest()).decode()


def key_of(pw, ident):
    """Which role's key made pw for ident: "cap", "re" or None."""
    return next((r for r in ("cap", "re") if hmac.compare_digest(pw, password(ident, r == "cap"))), None)


def frame(mtype, body=b"", version=VERSION, body_len=None):
    return HDR.pack(version, len(body) if body_len is None else body_len, mtype, b"", b"") + body


def text(raw):
    return raw.split(b"\0", 1)[0].decode(errors="replace")


def wifi_config(**fields):
    """A WiFiConfig record; fields by name, texts cut to their sizes."""
    rec = bytearray(WIFI_CONFIG_SIZE)
    for name, off, size in WIFI_LAYOUT:
        val = fields.get(name)
        if val is not None:
            raw = bytes([val]) if isinstance(val, int) else val.encode()[:size - 1]
            rec[off:off + len(raw)] = raw
    return bytes(rec)


def recv_exact(sock, n):
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            raise EOFError("closed after %d of %d bytes" % (len(data), n))
        data += chunk
    return data


def recv_frame(sock):
    version, n, mtype, mac2, mac5 = HDR.unpack(recv_exact(sock, HDR.size))
    body = recv_exact(sock, n) if n else b""
    out = {"version": version, "type": mtype, "body_len": n, "mac2": text(mac2), "mac5": text(mac5)}
    if mtype in (MSG_AUTH_REPLY, MSG_SYNC_REPLY) and len(body) >= 32:
        out.update(code=struct.unpack("b", body[:1])[0], text=text(body[1:32]))
    elif mtype == MSG_AUTH_REQ and len(body) >= AUTH.size:
        ident, pw, mac = map(text, AUTH.unpack(body[:AUTH.size]))
        out.update(id=ident, pw=pw, mac=mac, key=key_of(pw, ident))
    elif mtype == MSG_SYNC_REQ and len(body) >= WIFI_CONFIG_SIZE:
        cfg = {n: body[o] if s == 1 else text(body[o:o + s]) for n, o, s in WIFI_LAYOUT if "maclist" not in n}
        out.update(config=cfg, ext=text(body[WIFI_CONFIG_SIZE:]))
    return out


def client_context(tls=None, ciphers=None):
    ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    ctx.check_hostname, ctx.verify_mode = False, ssl.CERT_NONE
    if tls == "1.1":
        ctx.set_ciphers("DEFAULT:@SECLEVEL=0")
        ctx.minimum_version = ctx.maximum_version = ssl.TLSVersion.TLSv1_1
    if ciphers:
        ctx.set_ciphers(ciphers + ":@SECLEVEL=0")
        ctx.maximum_version = ssl.TLSVersion.TLSv1_2
    return ctx


def step(sock, role, action, a):
    """One step; returns what it saw. auth_req: credentials made with key "re"
    or "cap" (default: the peer's own, i.e. honest), extra_char spoils the
    password by one character; reply/raw/bytes/sync_req send; recv reads one
    frame; expect_closed waits for the other end to close; sleep."""
    if action == "auth_req":
        ident = a.get("id", os.urandom(7).hex())
        pw = password(ident, a.get("key", role) == "cap") + ("A" if a.get("extra_char") else "")
        sock.sendall(frame(MSG_AUTH_REQ, AUTH.pack(ident.encode(), pw.encode(), a.get("mac", "").encode())))
    elif action == "reply":
        body = struct.pack("b31s", a.get("code", 1), a.get("text", "").encode()[:31])
        sock.sendall(frame(MSG_SYNC_REPLY if a.get("sync") else MSG_AUTH_REPLY, body))
    elif action == "raw":
        sock.sendall(frame(a["type"], bytes.fromhex(a.get("body_hex", "")), a.get("version", VERSION),
                           a.get("body_len")))
    elif action == "bytes":
        sock.sendall(bytes.fromhex(a["hex"]))
    elif action == "sync_req":
        rec = wifi_config(**a.get("config", {}))
        sock.sendall(frame(MSG_SYNC_REQ, rec + a.get("ext", "").encode() + b"\0"))
    elif action == "sleep":
        time.sleep(a.get("s", 1))
        return {"slept": a.get("s", 1)}
    elif action in ("recv", "expect_closed"):
        sock.settimeout(a.get("timeout", 10))
        start = time.monotonic()
        after = lambda: round(time.monotonic() - start, 2)   # noqa: E731
        try:
            if action == "recv":
                return recv_frame(sock)
            data = sock.recv(4096)
            return {"closed": not data, "after": after(), "data": data[:64].hex()}
        except (socket.timeout, TimeoutError) as e:
            return {"closed": action == "recv", "after": after(), "error": str(e)}
        except (EOFError, OSError) as e:   # ssl.SSLError and ConnectionError are OSErrors
            return {"closed": True, "after": after(), "error": str(e)}
    else:
        raise ValueError("unknown step " + action)
    return {"sent": action}


def emit(obj):
    print(json.dumps(obj), flush=True)


def run_steps(sock, role, steps):
    for action, args in steps:
        emit({"step": action, **step(sock, role, action, args or {})})


def run(role, opts, steps):
    if role == "re":
        sock = socket.create_connection((opts.get("host", "192.168.77.1"), PORT), timeout=10)
        emit({"step": "tcp", "ok": True})
        if opts.get("no_tls"):
            return run_steps(sock, role, steps)
        ctx, name, info = client_context(opts.get("tls"), opts.get("ciphers")), "tls", {}
    else:
        ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        ctx.load_cert_chain(opts.get("cert", CERT), opts.get("key", PRIVKEY))
        srv = socket.create_server((opts.get("bind", "0.0.0.0"), PORT))
        srv.settimeout(opts.get("accept_timeout", 60))
        emit({"step": "listen", "ok": True})
        sock, addr = srv.accept()
        sock.settimeout(30)
        name, info = "accepted", {"from": addr[0]}
    try:
        tls = ctx.wrap_socket(sock, server_side=role == "cap")
    except OSError as e:
        return emit({"step": name, **info, "ok": False, "error": str(e)})
    if role == "re":
        info = {"version": tls.version(), "cipher": tls.cipher()[0]}
    emit({"step": name, **info, "ok": True})
    run_steps(tls, role, steps)


if __name__ == "__main__":
    try:
        run(sys.argv[1], json.loads(sys.argv[3]) if len(sys.argv) > 3 else {}, json.loads(sys.argv[2]))
    except Exception as e:  # report, the test decides
        emit({"step": "error", "error": "%s: %s" % (type(e).__name__, e)})
