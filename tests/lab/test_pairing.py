"""Whole pairings in the lab between the real CAP (plaitd -S) and RE (plaitd -C),
and each of them against a scripted peer (lab/peer.py) that uses the other
role's key or a weak TLS."""
import base64
import json
import os
import re
import shlex
import subprocess

import pytest

import routerlab

PEER = os.path.join(routerlab.HERE, "peer.py")
RE_IP, FACTORY = routerlab.RE_STATIC_IP, routerlab.FACTORY_IP
P = f"peer-{RE_IP}"                      # the CAP's name for the RE
LISTENING = "enter server looping....\n"
LOCK = "/var/run/plaitd.lock"
MACLISTS = ("/tmp/bh_maclist_2g", "/tmp/bh_maclist_5g")
RESTORE = "NOTE: !!! restore br-lan ip to origin ip-addr.\n"
AUTH_FAILED = "mesh.re.conn.fail=AUTH_FAILED:1"
CLOSED = ["expect_closed", {"timeout": 5}]


def b64(s):
    return base64.b64encode(s.encode()).decode()


def calls(router, *tools):
    """Recorded stand-in calls of tools as argv lists."""
    return [shlex.split(l) for l in router.calls() if l.split(" ", 1)[0] in tools]


def scripts(router):
    return [c[1:] for c in calls(router, "mesh_setup.sh")]


def start_cap(lab, *extra):
    cap = lab.cap.plaitd("-S", "-o", "-i", "br-lan", *extra)
    cap.wait_log(LISTENING, 10)
    return cap


def re_lan(lab):
    """The RE's committed uci LAN address and the addresses on its br-lan."""
    uci = lab.re.sh("uci -q get network.lan.ipaddr", check=False).stdout.strip()
    addrs = subprocess.run(["ip", "-n", lab.re.ns, "-4", "-o", "addr", "show", "br-lan"],
                           capture_output=True, text=True, check=True).stdout
    return uci, re.findall(r"inet ([\d.]+)/", addrs)


def lan_cmds(lab):
    return [" ".join(c[1:]) for c in calls(lab.re, "uci") if "get" not in c]


def expected_re_init(uci):
    """re_init / re_init_bsd arguments for the CAP's uci seed."""
    def band(sec):
        enc = uci.get(f"wireless.{sec}.encryption", "")
        opt = "sae_password" if enc.startswith("ccmp") else "key"
        key = "null" if "none".startswith(enc) else b64(uci.get(f"wireless.{sec}.{opt}", ""))
        return [b64(uci[f"wireless.{sec}.ssid"]), key, enc]
    bh = [b64(uci["wireless.bh_ap.ssid"]), b64(uci["wireless.bh_ap.key"]), "psk2", "1"]
    if uci.get("wireless.wifi0.bsd", "0")[:1] not in ("", "0"):
        return ["re_init_bsd"] + band("wifi1") + bh
    return ["re_init"] + band("wifi1") + band("wifi0") + bh


@pytest.mark.parametrize("case", ["psk2", "bsd_on"])
def test_whole_pairing(make_lab, plaitd_bin, case):
    lab = make_lab(cap_uci={"wireless.wifi0.bsd": "1"} if case == "bsd_on" else {})
    for f in MACLISTS:
        lab.re.write(f, "stale")
    cap = start_cap(lab)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    assert re_.wait(30) == 0, re_.log()[-3000:]
    cap.wait_log("mesh.re.conn.type=wire:1", 5, stream="out")
    expect = expected_re_init(lab.cap.uci)
    assert scripts(lab.re) == [expect]
    # the CAP: the RE's MAC, four addresses derived from its radio MACs, the backhaul
    mac2, mac5 = (lab.re.uci[f"wireless.{s}.macaddr"].upper() for s in ("wifi1", "wifi0"))
    derived = [o + m[2:] for o, m in zip(("32", "32", "2E", "2E"), (mac2, mac5, mac2, mac5))]
    sub = "cap_init_bsd" if case == "bsd_on" else "cap_init"
    assert scripts(lab.cap) == [[sub, routerlab.RE_MAC] + derived + [
        b64("KvMesh_3f9a1c2e"), b64("bh3f9a1c2e7d6b5a"), "1"]]
    assert [c[:2] for c in calls(lab.cap, "vsled", "mesh_setup.sh")] == [
        ["vsled", "meshing"], ["mesh_setup.sh", sub], ["vsled", "mesh_finish"]]
    assert [c[:2] for c in calls(lab.re, "vsled", "mesh_setup.sh", "lua")] == [
        ["vsled", "mesh_join"], ["lua", "/usr/sbin/mesh_info.lua"], ["mesh_setup.sh", expect[0]],
        ["vsled", "mesh_finish"]]
    # status records exactly as formatted: no line feed between them
    assert re.search(r"\nmesh\.re\.conn\.duration=wire:\d+mesh\.re\.conn\.type=wire:1$", cap.out()), cap.out()
    assert "mesh.re.conn.fail" not in cap.out() + re_.out()
    assert lab.re.read("/tmp/extra_wifi_param").startswith('{"mesh":')
    assert [lab.re.read(f) for f in MACLISTS] == [None, None]
    assert [r.read(LOCK) for r in lab.routers] == [None, None]
    # the factory address clash moved the RE's LAN address to its uplink address
    assert re_lan(lab) == (RE_IP, [RE_IP])
    assert lan_cmds(lab) == [f"-q set network.lan.ipaddr={RE_IP}", "commit network"]
    # a sanitizer build (the TSan pass runs this test) reports nothing, stop included
    assert cap.stop() == 255 and "Sanitizer" not in cap.log() + re_.log(), cap.log()[-3000:]


def test_pairing_with_dhcp_uplink(make_lab, plaitd_bin):
    """The RE starts without a lease; the udhcpc hook's SIGUSR1 brings the new one in."""
    lab = make_lab(uplink=None)
    cap = start_cap(lab)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    re_.wait_log("dd_clt: no CAP found in L2-net. just exit. \n", 10)
    lab.dhcp_uplink()
    gw, ip = lab.re.read("/tmp/cab_plaitd_gw_ip").split()
    assert gw == FACTORY and ip.startswith("192.168.77.")
    assert re_.wait(20) == 0, re_.log()[-3000:]
    assert f"RE triggered to get new gw:[{gw}] and ip:[{ip}] from iface: [eth4]\n" in re_.log()
    assert scripts(lab.re) == [expected_re_init(lab.cap.uci)]
    cap.wait_log("mesh.re.conn.type=wire:1", 5, stream="out")
    assert scripts(lab.cap)[0][:2] == ["cap_init", routerlab.RE_MAC]
    assert re_lan(lab) == (ip, [ip])


def test_clash_restores_factory_address(lab, plaitd_bin):
    re_ = lab.re.plaitd("-C", "-o")   # no -i, no CAP: the gateway 192.168.77.1 refuses
    re_.wait_log(RESTORE, 10)
    assert routerlab.wait_until(lambda: re_lan(lab) == (FACTORY, [FACTORY]), 3), re_lan(lab)
    assert lan_cmds(lab)[:4] == [f"-q set network.lan.ipaddr={RE_IP}", "commit network",
                                 f"-q set network.lan.ipaddr={FACTORY}", "commit network"]
    assert re_.running() and lab.re.read(LOCK) is None
    assert re_.stop() == 255


def run_peer(router, role, steps, opts=None):
    r = router.netns_run(["/usr/bin/python3", PEER, role, json.dumps(steps), json.dumps(opts or {})],
                         timeout=20, check=False)
    res = [json.loads(l) for l in r.stdout.splitlines()]
    assert not [x for x in res if x["step"] == "error"], (res, r.stderr)
    return res


def last_recv(res):
    x = [x for x in res if x["step"] == "recv"][-1]
    return x["type"], x.get("code"), x.get("text")


WEAK = "AES128-SHA:AES256-SHA:AES128-SHA256:AES256-SHA256:ECDHE-RSA-AES128-SHA:ECDHE-RSA-AES256-SHA"


def test_role_keys_and_tls(make_lab, plaitd_bin):
    """Each side takes only the other role's key; the CAP takes TLS 1.2 with a
    strong suite and refuses older versions and SHA-MAC suites; a live mesh
    lock turns a peer away before its handshake."""
    lab = make_lab(re_lan_ip=None)   # the scripted RE reaches 192.168.77.1 over eth4
    cap = start_cap(lab)
    res = run_peer(lab.re, "re", [["auth_req", {"key": "cap"}], ["recv", {}], CLOSED])
    assert last_recv(res) == (5, 2, "account/pass invalid.") and res[-1]["closed"], res
    cap.wait_log(AUTH_FAILED, 3, stream="out")
    res = run_peer(lab.re, "re", [["auth_req", {}], ["recv", {}]], {"ciphers": "ECDHE-RSA-AES256-GCM-SHA384"})
    assert (res[1]["version"], last_recv(res)[:2]) == ("TLSv1.2", (5, 1)), res
    for opts, reason in (({"tls": "1.1"}, "unsupported protocol"), ({"ciphers": WEAK}, "no shared cipher")):
        res = run_peer(lab.re, "re", [], opts)
        assert res[-1]["step"] == "tls" and not res[-1]["ok"], res
        cap.wait_log(f"[{P}] ssl accept failed: {reason}", 3)
    assert cap.count("mesh.re.conn.fail=CONNECT_FAILED:1", "out") == 2
    with open("/proc/uptime") as f:
        lab.cap.write(LOCK, str(int(float(f.read().split()[0]))))
    res = run_peer(lab.re, "re", [])
    assert res[-1]["step"] == "tls" and not res[-1]["ok"], res
    assert routerlab.wait_until(lambda: lab.cap.read("/tmp/-status") == "failed", 3)
    assert lab.cap.read(LOCK) is not None and cap.count("SSL_accept()") == 4
    assert cap.stop() == 255

    # a scripted CAP that signs with the RE's key
    peer = routerlab.NetnsJob(lab.cap, ["/usr/bin/python3", PEER, "cap", json.dumps(
        [["recv", {"timeout": 20}], ["reply", {}], ["auth_req", {"key": "re"}], ["recv", {}], CLOSED]),
        json.dumps({"cert": lab.cap.path("/tmp/mq/cc/veltrasso_ct"),
                    "key": lab.cap.path("/tmp/mq/cc/veltrasso_ky"), "accept_timeout": 20})], "peer")
    os.unlink(lab.cap.path(LOCK))
    lab.re.sh(f"ifconfig br-lan {FACTORY}")
    peer.wait_step("listen", 5)
    re_ = lab.re.plaitd("-C", "-o")
    res = peer.finish(30)
    req = [x for x in res if x["step"] == "recv"][0]
    assert req["type"] == 4 and req["key"] == "re" and len(req["id"]) == 14, res
    assert last_recv(res) == (5, 2, "account/pass invalid.") and res[-1]["closed"], res
    re_.wait_log(AUTH_FAILED, 3, stream="out")
    assert re_.stop() == 255
