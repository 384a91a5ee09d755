"""Whole pairings in the lab: the real CAP (plaitd -S) and RE (plaitd -C)
authenticate, exchange the configuration and hand it to the platform scripts;
a scripted CAP (peer.py) sends configurations the real one never would."""
import base64
import json
import os
import re
import shlex
import subprocess
import time

import pytest

import routerlab

PEER = os.path.join(routerlab.HERE, "peer.py")
RE_IP, FACTORY = routerlab.RE_STATIC_IP, routerlab.FACTORY_IP
P = f"peer-{RE_IP}"                      # the CAP's name for the RE
LISTENING = "enter server looping....\n"
LOCK = "/var/run/plaitd.lock"
MACLISTS = ("/tmp/bh_maclist_2g", "/tmp/bh_maclist_5g")
EXTRA = "/tmp/extra_wifi_param"
SYNC_FAILED = "mesh.re.conn.fail=SYNC_FAILED:1"
RESTORE = "NOTE: !!! restore br-lan ip to origin ip-addr.\n"
INITBUF = '{"mesh":{"role":"cap","bh_band":"5g","ch_5g":36,"ch_2g":6}}'


def b64(s):
    return base64.b64encode(s.encode()).decode()


def unb64(s):
    return base64.b64decode(s).decode()


def calls(router, *tools):
    """Recorded stand-in calls of tools as argv lists."""
    return [shlex.split(l) for l in router.calls() if l.split(" ", 1)[0] in tools]


def scripts(router):
    return [c[1:] for c in calls(router, "mesh_setup.sh")]


def start_cap(lab, *extra):
    cap = lab.cap.plaitd("-S", "-o", "-i", "br-lan", *extra)
    cap.wait_log(LISTENING, 10)
    time.sleep(0.5)   # a peer taken before the loop's first uptime sample is never swept
    return cap


def pair(lab, cap_args=(), re_args=()):
    """Real CAP and real RE with discovery; returns both once the RE is done."""
    cap = start_cap(lab, *cap_args)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4", *re_args)
    assert re_.wait(30) == 0, re_.log()[-3000:]
    cap.wait_log("mesh.re.conn.type=wire:1", 5, stream="out")
    return cap, re_


def re_lan(lab):
    """The RE's committed uci LAN address and the addresses on its br-lan."""
    uci = lab.re.sh("uci -q get network.lan.ipaddr", check=False).stdout.strip()
    addrs = subprocess.run(["ip", "-n", lab.re.ns, "-4", "-o", "addr", "show", "br-lan"],
                           capture_output=True, text=True, check=True).stdout
    return uci, re.findall(r"inet ([\d.]+)/", addrs)


class Peer(routerlab.NetnsJob):
    """peer.py in a router's network namespace, in the background."""

    def __init__(self, router, role, steps, opts):
        super().__init__(router, ["/usr/bin/python3", PEER, role, json.dumps(steps),
                                  json.dumps(opts)], "peer")

    def finish(self, timeout):
        res = super().finish(timeout)
        assert not [x for x in res if x["step"] == "error"], res
        return res


@pytest.fixture
def peers():
    started = []
    yield lambda *a: started.append(Peer(*a)) or started[-1]
    for p in started:
        p.kill()


AUTHED = [["recv", {"timeout": 20}], ["reply", {}], ["auth_req", {}], ["recv", {}]]


@pytest.fixture
def fake_cap(lab, plaitd_bin, peers):
    """fake_cap(steps) -> (peer, RE): the scripted CAP listens on the CAP's side;
    the RE runs without -i (no discovery) and pairs with its gateway."""
    def start(steps):
        peer = peers(lab.cap, "cap", steps, {"cert": lab.cap.path("/tmp/mq/cc/veltrasso_ct"),
                                             "key": lab.cap.path("/tmp/mq/cc/veltrasso_ky"),
                                             "accept_timeout": 20})
        peer.wait_step("listen", 5)
        return peer, lab.re.plaitd("-C", "-o")
    return start


# --- whole pairings between the real daemons ------------------------------

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


# name: (CAP uci, RE uci, first octets of the four derived MACs A, B, C, D)
PAIRINGS = {
    "psk2": ({}, {}, ("32", "32", "2E", "2E")),
    "bsd_on": ({"wireless.wifi0.bsd": "1"}, {}, ("32", "32", "2E", "2E")),
    "enc_none": ({"wireless.wifi1.encryption": "none"}, {}, ("32", "32", "2E", "2E")),
    "enc_empty": ({"wireless.wifi1.encryption": ""}, {}, ("32", "32", "2E", "2E")),
    "enc_ccmp": ({"wireless.wifi1.encryption": "ccmp", "wireless.wifi1.sae_password": "sae 24!"},
                 {}, ("32", "32", "2E", "2E")),
    # o + 4n wraps past 0xff and keeps its low two bits, bit 1 set
    "mac_wraps": ({}, {"wireless.wifi1.macaddr": "fd:6c:07:20:00:02",
                       "wireless.wifi0.macaddr": "fe:6c:07:20:00:03"}, ("07", "06", "03", "02")),
}


@pytest.mark.parametrize("case", PAIRINGS)
def test_whole_pairing(make_lab, plaitd_bin, case):
    cap_uci, re_uci, octets = PAIRINGS[case]
    lab = make_lab(cap_uci=cap_uci, re_uci=re_uci)
    for f in MACLISTS:
        lab.re.write(f, "stale")
    cap, re_ = pair(lab)
    assert cap.running()
    assert "RE cab mesh init done. exit.\n" in re_.log()
    expect = expected_re_init(lab.cap.uci)
    assert scripts(lab.re) == [expect]
    assert len(expect) == (8 if case == "bsd_on" else 11)
    # CAP: the RE's MAC, four addresses derived from its radio MACs, the backhaul
    mac2, mac5 = (lab.re.uci[f"wireless.{s}.macaddr"].upper() for s in ("wifi1", "wifi0"))
    derived = [o + m[2:] for o, m in zip(octets, (mac2, mac5, mac2, mac5))]
    sub = "cap_init_bsd" if case == "bsd_on" else "cap_init"
    assert scripts(lab.cap) == [[sub, routerlab.RE_MAC] + derived + [
        b64("KvMesh_3f9a1c2e"), b64("bh3f9a1c2e7d6b5a"), "1"]]
    # light and script order on both sides
    assert [c[:2] for c in calls(lab.cap, "vsled", "mesh_setup.sh")] == [
        ["vsled", "meshing"], ["mesh_setup.sh", sub], ["vsled", "mesh_finish"]]
    assert [c[:2] for c in calls(lab.re, "vsled", "mesh_setup.sh", "lua")] == [
        ["vsled", "mesh_join"], ["lua", "/usr/sbin/mesh_info.lua"], ["mesh_setup.sh", expect[0]],
        ["vsled", "mesh_finish"]]
    assert calls(lab.re, "lua")[0][2:] == ["locale", b64("default")]
    # records are written exactly as formatted: no line feed between them
    assert re.search(r"\nmesh\.re\.conn\.duration=wire:\d+mesh\.re\.conn\.type=wire:1$", cap.out()), cap.out()
    assert "mesh.re.conn.fail" not in cap.out() + re_.out()
    assert lab.re.read(EXTRA) == INITBUF
    assert [lab.re.read(f) for f in MACLISTS] == [None, None]
    assert [r.read(LOCK) for r in lab.routers] == [None, None]
    # the factory address clash moved the RE's LAN address to its uplink address
    assert re_lan(lab) == (RE_IP, [RE_IP])
    assert [" ".join(c[1:]) for c in calls(lab.re, "uci") if "get" not in c] == [
        f"-q set network.lan.ipaddr={RE_IP}", "commit network"]
    # a sanitizer build (the TSan pass runs this test) reports nothing, stop included
    assert cap.stop() == 255 and "Sanitizer" not in cap.log() + re_.log(), cap.log()[-3000:]


def test_pairing_with_dhcp_uplink(make_lab, plaitd_bin):
    lab = make_lab(uplink=None)
    cap = start_cap(lab)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")   # no address yet: it waits for the lease
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


def test_three_res_at_once(make_lab, plaitd_bin):
    """Three REs let loose in the same instant (a gate file) on one CAP, each
    with its own lease: the CAP serves one at a time, the others come back on
    their own retry rhythm until every one is paired, and the CAP is as before."""
    lab = make_lab(uplink="dhcp", n=3)
    cap = start_cap(lab)
    held = lambda: (len(os.listdir(f"/proc/{cap.pid}/fd")), len(os.listdir(f"/proc/{cap.pid}/task")))  # noqa
    idle = held()
    gate = ["/bin/sh", "-c", 'until [ -e /tmp/go ]; do usleep 2000; done; exec "$@"', "gate"]
    res = [r.plaitd("-C", "-o", "-i", "eth4", prefix=gate) for r in lab.res]
    for r in lab.res:
        r.write("/tmp/go", "")
    assert [p.wait(45) for p in res] == [0] * 3, [p.log()[-2000:] for p in res]
    cap.wait_log("mesh.re.conn.type=wire:1", 5, count=3, stream="out")
    for r, p in zip(lab.res, res):
        assert [c[0] for c in scripts(r)] == ["re_init"] and p.count("RE cab mesh init done.") == 1
        mac2, mac5 = (r.uci[f"wireless.{s}.macaddr"].upper() for s in ("wifi1", "wifi0"))
        mine = [c for c in scripts(lab.cap) if c[1] == r.mac]
        assert [[c[0]] + [m[2:] for m in c[2:6]] for c in mine] == [["cap_init"] + [
            m[2:] for m in (mac2, mac5, mac2, mac5)]], (r.name, scripts(lab.cap))
    assert len(scripts(lab.cap)) == 3 and cap.out().count("mesh.re.conn.duration=wire:") == 3
    assert "mesh.re.conn.fail" not in cap.out() + "".join(p.out() for p in res)
    assert routerlab.wait_until(lambda: held() == idle, 10), (idle, held())
    assert cap.stop() == 255   # LeakSanitizer, if built in, reports at this exit
    assert not re.search("Sanitizer|runtime error:", cap.log() + "".join(p.log() for p in res))


def test_random_backhaul_without_bh_section(make_lab, plaitd_bin):
    lab = make_lab(cap_uci={"wireless.bh_ap": None})
    cap = start_cap(lab)
    for n in (1, 2):
        # the first pairing left br-lan on the uplink's subnet, where the discovery
        # broadcast (bound to an address, not a device) would leave by br-lan
        lab.re.sh(f"ifconfig br-lan {FACTORY}")
        re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
        assert re_.wait(30) == 0, re_.log()[-3000:]
        cap.wait_log("mesh.re.conn.type=wire:1", 5, count=n, stream="out")
    caps, res = scripts(lab.cap), scripts(lab.re)
    assert len(caps) == len(res) == 2
    names = [unb64(c[6]) for c in caps]
    keys = [unb64(c[7]) for c in caps]
    for i in (0, 1):
        assert re.fullmatch(r"KvMesh_[0-9a-f]{8}", names[i]), names
        assert re.fullmatch(r"[0-9a-f]{16}", keys[i]), keys
        assert res[i][7:10] == [b64(names[i]), b64(keys[i]), "psk2"]   # both sides agree
    assert names[0] != names[1] and keys[0] != keys[1]


@pytest.mark.parametrize("n", [952, 953])
def test_ext_text_limit(make_lab, plaitd_bin, n):
    text = '{"pad":"' + "x" * (n - 10) + '"}'
    lab = make_lab(cap_answers={"mesh_tool": {"initbuf": (text, 0)}})
    cap = start_cap(lab)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    if n == 952:
        assert re_.wait(30) == 0, re_.log()[-3000:]
        cap.wait_log(f"[{P}] sent msg, type: [6], body len: 2004, DONE. \n", 3)
        assert lab.re.read(EXTRA) == text
        assert scripts(lab.re)[0][0] == "re_init"
    else:
        cap.wait_log(SYNC_FAILED, 15, stream="out")
        cap.wait_log(f"[{P}] send_mesh_conf failed.\n", 1)
        re_.wait_log(RESTORE, 5)
        assert re_.running() and scripts(lab.re) == [] and scripts(lab.cap) == []
        assert re_.stop() == 255


def test_dry_run_cap(make_lab, plaitd_bin):
    lab = make_lab()
    cap, re_ = pair(lab, cap_args=("-d",))
    cap.wait_log(f"[{P}] NOTE: execute tolvaInitCap procedure ........\n", 3)
    assert scripts(lab.cap) == [] and "direct drop" not in cap.log()
    assert scripts(lab.re)[0][0] == "re_init"   # the RE was not dry
    assert cap.running() and lab.cap.read(LOCK) is None


def test_dry_run_re(make_lab, plaitd_bin):
    lab = make_lab()
    cap = start_cap(lab)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4", "-d")
    cap.wait_log(f"[{P}] sync config success.\n", 20)   # the RE answered code 1
    re_.wait_log("[RE] NOTE: execute tolvaInitRE procedure ........\n", 5)
    re_.wait_log(RESTORE, 5)                            # the attempt returned -1
    re_.wait_log("[RE]: ST_STOP -> ST_TCP_DONE \n", 10, count=2)   # and it tries again
    assert re_.running() and "RE cab mesh init done" not in re_.log()
    assert scripts(lab.re) == [] and lab.re.read(EXTRA) is None
    assert scripts(lab.cap)[0][0] == "cap_init"          # the CAP was not dry
    assert re_.stop() == 255


# --- empty and hostile configurations -------------------------------------

def test_cap_without_initbuf_text_fails_sync(make_lab, plaitd_bin):
    lab = make_lab(cap_answers={"mesh_tool": {"initbuf": ("", 0)}})
    cap = start_cap(lab)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    cap.wait_log(f"[{P}] mesh_ops.sh initbuf failed.\n", 20)
    cap.wait_log(SYNC_FAILED, 3, stream="out")
    re_.wait_log(RESTORE, 5)
    assert scripts(lab.cap) == scripts(lab.re) == []
    assert re_.stop() == 255


def test_re_rejects_config_without_text(fake_cap):
    peer, re_ = fake_cap(AUTHED + [["sync_req", {"config": {"type": 4, "ssid_2g": "x"}}],
                                   ["recv", {}], ["expect_closed", {"timeout": 5}]])
    res = peer.finish(30)
    last = [x for x in res if x["step"] == "recv"][-1]
    assert (last["type"], last["code"], last["text"]) == (7, 2, "read jsonBuf with NULL."), res
    assert res[-1]["closed"], res
    re_.wait_log("[RE] process error.\n", 3)
    re_.wait_log(RESTORE, 5)
    assert scripts(re_.router) == [] and re_.router.read(EXTRA) is None
    assert re_.stop() == 255


HOSTILE_SSID = "it's $(touch /tmp/pwned)`id`"
# name: (config fields, script expected to run)
HOSTILE = {
    "quoted_names": ({"ssid_2g": HOSTILE_SSID, "ssid_5g": "a'b\"c;d", "bh_ssid": "x$(reboot)",
                      "key_2g": "k'; rm -rf /", "enc_2g": "psk2", "enc_5g": "psk2",
                      "bh_key": "bhkey", "bh_enc": "psk2"}, True),
    "semicolon_enc": ({"ssid_2g": "ok", "enc_2g": "psk2;reboot", "enc_5g": "psk2",
                       "bh_enc": "psk2", "bh_maclist_2g": "aa:bb:cc:dd:ee:ff"}, False),
}


@pytest.mark.parametrize("case", HOSTILE)
def test_hostile_cap_config(lab, fake_cap, case):
    cfg, runs = HOSTILE[case]
    ext = '{"x":"$(reboot)"}'
    peer, re_ = fake_cap(AUTHED + [["sync_req", {"config": dict(cfg, type=4), "ext": ext}],
                                   ["recv", {}]])
    res = peer.finish(30)
    assert res[-1]["type"] == 7 and res[-1]["code"] == 1, res
    assert re_.wait(10) == 0, re_.log()[-3000:]   # counted as paired either way
    assert lab.re.read(EXTRA) == ext                # side files come before the checks
    assert lab.re.read(MACLISTS[0]) == cfg.get("bh_maclist_2g")
    assert lab.re.read("/tmp/pwned") is None
    if runs:
        (args,) = scripts(lab.re)
        assert args[0] == "re_init" and [unb64(args[i]) for i in (1, 2, 4, 7)] == [
            cfg["ssid_2g"], cfg["key_2g"], cfg["ssid_5g"], cfg["bh_ssid"]]
        assert "init RE failed" not in re_.log()
    else:
        assert scripts(lab.re) == []
        assert "check_injection failed: psk2;reboot[;].\n" in re_.log()
        assert "init check params failed: func[tolvaInitRe] line[" in re_.log()
        assert "[RE] init RE failed, need reset.\n" in re_.log()


# --- the factory-address clash and signals ----------------------------------

@pytest.mark.parametrize("refusal", ["cap_locked", "no_cap"])
def test_clash_restores_factory_address(make_lab, plaitd_bin, refusal):
    lab = make_lab()
    if refusal == "cap_locked":
        start_cap(lab)
        with open("/proc/uptime") as f:
            lab.cap.write(LOCK, str(int(float(f.read().split()[0]))))
    re_ = lab.re.plaitd("-C", "-o")   # no -i: the gateway 192.168.77.1 is the target
    re_.wait_log(f"NOTE: !!! br-lan and wan gateway ip are same: {FACTORY}, change ip to "
                 f"{RE_IP}\n", 10)
    re_.wait_log(RESTORE, 10)
    assert routerlab.wait_until(lambda: re_lan(lab) == (FACTORY, [FACTORY]), 3), re_lan(lab)
    assert [" ".join(c[1:]) for c in calls(lab.re, "uci") if "get" not in c][:4] == [
        f"-q set network.lan.ipaddr={RE_IP}", "commit network",
        f"-q set network.lan.ipaddr={FACTORY}", "commit network"]
    why = "ssl connect failed" if refusal == "cap_locked" else "connect(192.168.77.1) failed"
    assert f"[RE] {why}" in re_.log()
    assert re_.running() and lab.re.read(LOCK) is None
    assert re_.stop() == 255


@pytest.mark.parametrize("side", ["cap", "re"])
def test_sigterm_mid_pairing(make_lab, plaitd_bin, peers, side):
    lab = make_lab(re_lan_ip=None if side == "cap" else FACTORY)
    stall = [["sleep", {"s": 30}]]
    if side == "cap":   # real CAP, scripted RE that stops answering after the hello
        d = start_cap(lab)
        peers(lab.re, "re", [["auth_req", {}], ["recv", {}], ["recv", {}]] + stall, {})
        d.wait_log(f"[{P}]: ST_SSL_DONE -> ST_AUTH_SENT \n", 10)
        router, freed = lab.cap, f"freeing entity [{P}] at slot[1]\n"
    else:               # real RE, scripted CAP that stops after authentication
        peers(lab.cap, "cap", AUTHED + stall,
              {"cert": lab.cap.path("/tmp/mq/cc/veltrasso_ct"),
               "key": lab.cap.path("/tmp/mq/cc/veltrasso_ky"), "accept_timeout": 20})
        d = lab.re.plaitd("-C", "-o")
        d.wait_log("[RE]: ST_AUTH_SENT_2 -> ST_RUNNING \n", 15)
        router, freed = lab.re, "[RE] freeing main entity\n"
    assert router.read(LOCK) is not None
    assert d.stop() == 255
    log = d.log()
    assert "NOTE: get sig: 15.\n" in log and "cleanup cable-mesh resources before exit.\n" in log
    assert freed in log and "tolva mesh unLocked\n" in log
    assert router.read(LOCK) is None
