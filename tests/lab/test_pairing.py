"""A whole pairing between the real CAP (plaitd -S) and RE (plaitd -C)."""
import json
import re
import signal

import routerlab

MACLISTS = ("/tmp/bh_maclist_2g", "/tmp/bh_maclist_5g")


def test_whole_pairing(make_lab):
    """The RE starts without a lease; the udhcpc hook writes the gateway file and sends SIGUSR1;
    discovery, authentication, configuration, both sides' scripts and the address clash follow."""
    lab = make_lab(uplink=None)
    for f in MACLISTS:
        lab.re.write(f, "stale")
    cap = lab.cap.start_cap()
    fds = cap.figures()[0]   # the status records add no descriptor (the syslog socket is open from the start)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    re_.wait_log("dd_clt: no CAP found in L2-net. just exit. \n", 10)
    lab.dhcp_uplink()
    gw, ip = lab.re.read("/tmp/cab_plaitd_gw_ip").split()
    assert gw == routerlab.FACTORY_IP and ip.startswith("192.168.77.")
    seen = set()   # every version of both status files met while the pairing runs
    routerlab.wait_until(lambda: seen.update(r.read(routerlab.STATUS) for r in lab.routers) or not re_.running(), 20, 0.01)
    assert re_.wait(1) == 0, re_.log()[-3000:]
    assert f"RE triggered to get new gw:[{gw}] and ip:[{ip}] from iface: [eth4]\n" in re_.log()
    cap.wait_log("mesh.re.conn.type=wire:1", 5, stream="out")
    seen.update(r.read(routerlab.STATUS) for r in lab.routers)
    final = [json.loads(r.read(routerlab.STATUS))["phase"] for r in lab.routers]
    assert final == ["paired"] * 2, f"both status files end paired: {final}"
    secrets = [v for r in lab.routers for k, v in r.uci.items() if k.endswith((".ssid", ".key")) and v]
    secrets += re.findall(r"(?:id|pass):([^,\s]+)", re_.log() + cap.log())
    assert len(secrets) >= 10, f"the SSIDs, keys, ids and passes looked for: {secrets}"
    leaked = [s for s in secrets if any(s in v for v in seen if v)]
    assert leaked == [], f"no secret in any status file version: {leaked}"
    # each side ran its script once (the unit pairing checks every argument and the order of calls)
    assert [c[1] for c in lab.cap.calls("mesh_setup.sh", argv=True)] == ["cap_init"]
    assert [c[1] for c in lab.re.calls("mesh_setup.sh", argv=True)] == ["re_init"]
    assert "mesh.re.conn.fail" not in cap.out() + re_.out()
    assert lab.re.read("/tmp/extra_wifi_param").startswith('{"mesh":')
    assert [lab.re.read(f) for f in MACLISTS] + [r.read(routerlab.LOCK) for r in lab.routers] == [None] * 4
    assert lab.re.ipv4("br-lan") == [ip]   # the clash moved br-lan to the uplink's address
    assert lab.re.sh("uci -q get network.lan.ipaddr").stdout.strip() == ip
    assert routerlab.wait_until(lambda: cap.figures()[0] == fds, 5), (fds, cap.figures())
    # a sanitizer build (the TSan pass runs this test) reports nothing, stop included
    assert cap.stop() == 255 and "Sanitizer" not in cap.log() + re_.log(), cap.log()[-3000:]


def test_three_res_at_once(make_lab):
    """Three REs with their own leases let loose at once (a gate file): the CAP serves one at a time,
    the others retry until every one is paired, and the CAP is as before."""
    lab = make_lab(uplink="dhcp", n=3)
    cap = lab.cap.start_cap()
    cap.wait_log("dd_srv: enter broadcast recving loop.\n", 10)   # both responder sockets are open
    idle = cap.figures()[:2]
    gate = ["/bin/sh", "-c", 'until [ -e /tmp/go ]; do usleep 2000; done; exec "$@"', "gate"]
    res = [r.plaitd("-C", "-o", "-i", "eth4", prefix=gate) for r in lab.res]
    for r in lab.res:
        r.write("/tmp/go", "")
    assert [p.wait(45) for p in res] == [0] * 3, [p.log()[-2000:] for p in res]
    cap.wait_log("mesh.re.conn.type=wire:1", 5, count=3, stream="out")
    setups = [c[1:] for c in lab.cap.calls("mesh_setup.sh", argv=True)]
    for r, p in zip(lab.res, res):
        assert [c[1] for c in r.calls("mesh_setup.sh", argv=True)] == ["re_init"]
        assert p.count("RE cab mesh init done.") == 1
        mac2, mac5 = (r.uci[f"wireless.{s}.macaddr"].upper() for s in ("wifi1", "wifi0"))
        mine = [c for c in setups if c[1] == r.mac]
        assert [[c[0]] + [m[2:] for m in c[2:6]] for c in mine] == [["cap_init"] + [
            m[2:] for m in (mac2, mac5, mac2, mac5)]], (r.name, setups)
    assert len(setups) == 3 and cap.out().count("mesh.re.conn.duration=wire:") == 3
    assert "mesh.re.conn.fail" not in cap.out() + "".join(p.out() for p in res)
    assert routerlab.wait_until(lambda: cap.figures()[:2] == idle, 10), (idle, cap.figures())
    assert cap.stop() == 255   # LeakSanitizer, if built in, reports at this exit
    assert not re.search("Sanitizer|runtime error:", cap.log() + "".join(p.log() for p in res))


def test_re_finds_a_cap_that_moved(make_lab):
    """The RE learnt the CAP's address; the CAP moves (its server restarts on the new one) before
    the RE may pair (no gateway file yet): the RE gives the old address up, probes and pairs."""
    lab = make_lab(uplink=None)
    cap = lab.cap.start_cap()
    lab.re.readdress("eth4", routerlab.RE_STATIC_IP)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    re_.wait_log("dd_clt: CAP found in L2-net. Continue for meshing...\n", 10)
    lab.cap.readdress("br-lan", "192.168.77.2")
    lab.re.write("/tmp/cab_plaitd_gw_ip", f"{routerlab.FACTORY_IP}\n{routerlab.RE_STATIC_IP}\n")
    re_.signal(signal.SIGUSR1)
    assert re_.wait(90) == 0, re_.log()[-3000:]
    assert cap.count("ip changed, restart server") == 1
    assert re_.count("dd_clt: CAP found in L2-net.") >= 2   # found again, at the new address


def test_unanswered_probe_asks_again_while_a_host_chatters(make_lab):
    """Nothing answers the RE's first request (the CAP starts after it) while another host sends
    to the discovery port every 0.5 s: the probe still ends, asks again, and the RE pairs."""
    lab = make_lab()
    chatter = lab.cap.job("hostile.py", "ddchatter", {"ifname": "br-lan", "gap": 0.5, "max_s": 60})
    chatter.wait_step("started", 5)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    re_.wait_log("dd_send_msg: send msg to [255.255.255.255:19553] Success", 10)
    lab.cap.start_cap()
    assert re_.wait(45) == 0, re_.log()[-3000:]
    assert chatter.p.poll() is None   # still talking: the probe ended by itself
    chatter.kill()
