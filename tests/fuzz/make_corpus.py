#!/usr/bin/env python3
"""Writes the seed inputs of every fuzz target under corpus/<target>/.

The seeds are real wire data (frames, datagrams, records) built with the
layouts the daemon uses; the fuzzers start from them. Run once; the fuzzers'
merged corpora are committed beside them.
"""
import base64
import hashlib
import hmac
import os
import struct
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
KEY = b"5f0c2a9e71b4d3866a0e9c1f24b7d058"


def out(target, name, data):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, "seed-" + name), "wb") as f:
        f.write(data)


def password(ident, first):
    key = first + KEY[1:]
    return base64.b64encode(hmac.new(key, ident, hashlib.sha256).digest())


def frame(mtype, body, mac2=b"", mac5=b"", version=0x1001, length=None):
    hdr = struct.pack(">HHH", version, len(body) if length is None else length, mtype)
    hdr += mac2.ljust(19, b"\0") + mac5.ljust(19, b"\0")
    return hdr + body


def auth_req(ident, pw, mac=b""):
    return ident.ljust(16, b"\0") + pw.ljust(128, b"\0") + mac.ljust(19, b"\0")


def reply(code, text=b""):
    return bytes([code]) + text[:31].ljust(31, b"\0")


def record(ssid2=b"Home-2G", key2=b"psk-secret", enc2=b"psk2", ssid5=b"Home-5G",
           key5=b"psk-secret-5", enc5=b"ccmp", bh_ssid=b"KvMesh_0a1b2c3d",
           bh_key=b"00112233445566ff", bh_enc=b"psk2", ml2=b"", ml5=b"", locale=b"",
           bsd=0):
    fields = [(bytes([4, bsd]), 2), (ssid2, 33), (key2, 65), (enc2, 16), (ssid5, 33),
              (key5, 65), (enc5, 16), (bh_ssid, 33), (bh_key, 65), (bh_enc, 16),
              (ml2, 320), (ml5, 320), (locale, 67)]
    r = b"".join(v[:n].ljust(n, b"\0") for v, n in fields)
    assert len(r) == 1051
    return r


def frames():
    t = "fuzz_frame"
    re_id, cap_id = b"0123456789abcd", b"fedcba98765432"
    re_pw, cap_pw = password(re_id, b"q"), password(cap_id, b"x")
    m2, m5 = b"28:6c:07:11:22:33", b"28:6c:07:11:22:34"
    re_req = frame(4, auth_req(re_id, re_pw, b"28:6c:07:aa:bb:cc"), m2, m5)
    ok = frame(5, reply(1), m2, m5)
    # Scene byte: bit 0 CAP, bits 1-2 state (SSL_DONE, AUTH_SENT, AUTH_SENT_2,
    # RUNNING), bit 3 dry run, bit 4 scripts fail, bit 5 MACs known.
    out(t, "cap-full-pairing", b"\x01" + re_req + ok + frame(7, reply(1, b"recv config sync correctly.\n"), m2, m5))
    out(t, "cap-sync-rejected", b"\x01" + re_req + ok + frame(7, reply(2, b"read jsonBuf with NULL."), m2, m5))
    out(t, "cap-bad-pass", b"\x01" + frame(4, auth_req(re_id, re_pw + b"x")))
    out(t, "cap-empty-id", b"\x01" + frame(4, auth_req(b"", b"")))
    out(t, "cap-req-wrong-state", b"\x03" + re_req)
    out(t, "cap-reply-then-sync", b"\x03" + ok + frame(7, reply(1, b"recv config sync correctly.\n")))
    out(t, "cap-reply-bodylen0", b"\x03" + frame(5, b""))
    out(t, "cap-reply-code2", b"\x03" + frame(5, reply(2, b"account/pass invalid.")))
    out(t, "cap-type6", b"\x07" + frame(6, record() + b"{}\0"))
    out(t, "cap-type3", b"\x01" + frame(3, b"abc"))
    out(t, "cap-type8", b"\x01" + frame(8, b""))
    out(t, "cap-bad-version", b"\x01" + frame(4, auth_req(re_id, re_pw), version=0x1002))
    out(t, "cap-short-header", b"\x01" + frame(4, b"")[:20])
    out(t, "cap-short-body", b"\x01" + frame(4, auth_req(re_id, re_pw), length=163)[:100])
    out(t, "cap-dry-run", b"\x09" + re_req + ok + frame(7, reply(1)))
    out(t, "cap-macs-known", b"\x21" + re_req + ok + frame(7, reply(1)))
    out(t, "cap-long-macs", b"\x01" + frame(4, auth_req(re_id, re_pw, b"M" * 19), b"A" * 19, b"B" * 19) + ok + frame(7, reply(1)))
    sync = frame(6, record() + b"{\"mesh\":{\"id\":\"0a1b\"}}\0")
    out(t, "re-full-pairing", b"\x02" + ok + frame(4, auth_req(cap_id, cap_pw)) + sync)
    out(t, "re-bad-pass", b"\x04" + frame(4, auth_req(cap_id, re_pw)))
    out(t, "re-req-wrong-state", b"\x02" + frame(4, auth_req(cap_id, cap_pw)))
    out(t, "re-sync", b"\x06" + sync)
    out(t, "re-sync-no-text", b"\x06" + frame(6, record() + b"\0"))
    out(t, "re-sync-bsd-locale", b"\x06" + frame(6, record(bsd=1, locale=b"US", ml2=b"aa:bb:cc:dd:ee:ff") + b"x\0"))
    out(t, "re-sync-injection", b"\x06" + frame(6, record(enc2=b"psk2;reboot", ssid2=b"it's") + b"t\0"))
    out(t, "re-sync-script-fails", b"\x16" + sync)
    out(t, "re-sync-dry-run", b"\x0e" + sync)
    out(t, "re-sync-max", b"\x06" + frame(6, record() + b"J" * (2048 - 1051)))
    out(t, "re-sync-reply-at-re", b"\x06" + frame(7, reply(1)))
    out(t, "re-reply-bodylen0", b"\x02" + frame(5, b""))


def eth_udp(payload, sport=19553, dport=19553, ethertype=0x0800, proto=17, ihl=5,
            udp_len=None, frag=0):
    eth = b"\xff" * 6 + b"\x02\x00\x00\x00\x00\x01" + struct.pack(">H", ethertype)
    opts = b"\0" * (4 * ihl - 20)
    ulen = 8 + len(payload) if udp_len is None else udp_len
    ip = struct.pack(">BBHHHBBH4s4s", 0x40 | ihl, 0, 4 * ihl + 8 + len(payload), 1, frag, 64,
                     proto, 0, bytes([192, 168, 77, 1]), b"\xff\xff\xff\xff") + opts
    udp = struct.pack(">HHHH", sport, dport, ulen, 0)
    return eth + ip + udp + payload


CAP_ANSWER = b"KORVANE_CAP_DDv1.0" + b"192.168.77.1\0"
RE_REQUEST = b"KORVANE_RE_DDv1.0\0"


def raw_frames():
    t = "fuzz_raw_frame"
    bl = lambda n: struct.pack(">H", n)
    out(t, "cap-answer", bl(2048) + eth_udp(CAP_ANSWER))
    out(t, "re-request", bl(2048) + eth_udp(RE_REQUEST))
    out(t, "small-buf", bl(20) + eth_udp(CAP_ANSWER))
    out(t, "exact-buf", bl(8 + len(CAP_ANSWER)) + eth_udp(CAP_ANSWER))
    out(t, "zero-buf", bl(0) + eth_udp(b""))
    out(t, "empty-payload", bl(2048) + eth_udp(b""))
    out(t, "udp-len-7", bl(2048) + eth_udp(b"abc", udp_len=7))
    out(t, "udp-len-large", bl(2048) + eth_udp(b"abc", udp_len=500))
    out(t, "ip-options", bl(2048) + eth_udp(CAP_ANSWER, ihl=15))
    out(t, "ihl-zero", bl(2048) + eth_udp(CAP_ANSWER, ihl=5)[:14] + b"\x40" + eth_udp(CAP_ANSWER)[15:])
    out(t, "not-ip", bl(2048) + eth_udp(CAP_ANSWER, ethertype=0x86dd))
    out(t, "tcp", bl(2048) + eth_udp(CAP_ANSWER, proto=6))
    out(t, "short", bl(2048) + eth_udp(CAP_ANSWER)[:33])
    out(t, "max-payload", bl(2048) + eth_udp(b"P" * 2040)[:2048])


def discovery():
    t = "fuzz_discovery"
    ip = b"192.168.77.1\n"
    out(t, "srv-request", b"\x00" + bytes([len(ip)]) + ip + RE_REQUEST)
    out(t, "srv-request-longer", b"\x00" + bytes([len(ip)]) + ip + b"KORVANE_RE_DDv1.0 and more")
    out(t, "srv-request-v11", b"\x00" + bytes([len(ip)]) + ip + b"KORVANE_RE_DDv1.1\0")
    out(t, "srv-locked", b"\x02" + bytes([len(ip)]) + ip + RE_REQUEST)
    out(t, "srv-no-ip", b"\x00\x00" + RE_REQUEST)
    long_ip = b"  10.100.200.250.1234\r\n"
    out(t, "srv-long-ip", b"\x00" + bytes([len(long_ip)]) + long_ip + RE_REQUEST)
    out(t, "srv-big", b"\x00" + bytes([len(ip)]) + ip + b"X" * 2100)
    out(t, "clt-answer", b"\x01" + eth_udp(CAP_ANSWER))
    out(t, "clt-answer-noip", b"\x01" + eth_udp(b"KORVANE_CAP_DDv1.0\0"))
    out(t, "clt-answer-long", b"\x01" + eth_udp(b"KORVANE_CAP_DDv1.0" + b"1" * 40))
    out(t, "clt-own-request", b"\x01" + eth_udp(RE_REQUEST))
    out(t, "clt-short-magic", b"\x01" + eth_udp(b"KORVANE_CAP_DD"))


def gwfiles():
    t = "fuzz_gwfile"
    out(t, "plain", b"\x00192.168.1.1\n192.168.1.100\n")
    out(t, "padded", b"\x00  \t192.168.1.1 \r\n\t192.168.1.100\r\n")
    out(t, "one-line", b"\x00192.168.1.1\n")
    out(t, "empty", b"\x00")
    out(t, "missing", b"\x01")
    out(t, "three-lines", b"\x0010.0.0.1\n10.0.0.2\nextra\n")
    out(t, "no-newline", b"\x0010.0.0.1\n10.0.0.2")
    out(t, "blank-lines", b"\x00\n\n")


def initre():
    t = "fuzz_initre"
    out(t, "psk2", record() + b"{\"mesh\":1}")
    out(t, "none", record(enc2=b"none", enc5=b"no"))
    out(t, "empty-enc", record(enc2=b"", enc5=b""))
    out(t, "bsd", record(bsd=1))
    out(t, "locale", record(locale=b"US"))
    out(t, "maclists", record(ml2=b"aa:bb:cc:dd:ee:01 aa:bb:cc:dd:ee:02", ml5=b"aa:bb:cc:dd:ee:03"))
    out(t, "quote-ssid", record(ssid2=b"it's; reboot", key2=b"$(reboot)"))
    out(t, "inject-enc", record(enc2=b"psk2';reboot;'"))
    out(t, "inject-bh-enc", record(bh_enc=b"psk2`id`", bsd=1))
    out(t, "full-fields", record(ssid2=b"S" * 33, key2=b"K" * 65, enc2=b"E" * 16, ssid5=b"s" * 33,
                                 key5=b"k" * 65, enc5=b"e" * 16, bh_ssid=b"B" * 33, bh_key=b"b" * 65,
                                 bh_enc=b"p" * 16, ml2=b"m" * 320, ml5=b"n" * 320, locale=b"L" * 67))
    out(t, "short-record", record()[:300])


if __name__ == "__main__":
    frames()
    raw_frames()
    discovery()
    gwfiles()
    initre()
    print("seeds written under", os.path.join(HERE, "corpus"), file=sys.stderr)
