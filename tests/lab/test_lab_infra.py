"""The lab itself: routers, userland, uci emulator, stand-ins, cable, DHCP,
process helpers and tear-down."""
import os
import signal
import subprocess

import routerlab

IFCONFIG_IP = "ifconfig %s |grep -o \"inet addr:[0-9.]*\"|awk -F: '{print $2}'"


def test_router_userland(lab):
    cap, re_ = lab.cap, lab.re
    assert cap.sh(IFCONFIG_IP % "br-lan").stdout == "192.168.77.1\n"
    assert re_.sh(IFCONFIG_IP % "eth4").stdout == "192.168.77.20\n"
    assert "HWaddr" in re_.sh("ifconfig eth4").stdout
    for r in lab.routers:
        assert r.sh("cat /proc/veltrasso/ft_mode").stdout == "0\n"
        assert r.sh("cat /tmp/boot_check_done").stdout == "1\n"
        assert r.sh("readlink /bin/sh; ls /var/run/ >/dev/null").stdout == "busybox\n"
        for f in ("/tmp/mq/cc/veltrasso_ct", "/tmp/mq/cc/veltrasso_ky",
                  "/usr/share/veltrasso/cc/mq_a1"):
            assert r.sh(f"head -1 {f}").stdout.startswith("-----BEGIN")
        # the process table is the router's own: its init is PID 1
        ps = r.sh("ps").stdout
        assert "    1 root     /bin/sh -c while" in ps
        assert "python3" not in ps
    # mounts stay inside the routers
    assert not os.path.ismount(cap.path("/usr/lib"))
    assert os.listdir(cap.path("/usr/lib")) == []


def test_uci_round_trip(make_lab):
    lab = make_lab(uplink=None, re_uci={"veltrasso.common.INITTED": "YES",
                                        "wireless.bh_ap": None})
    re_ = lab.re
    assert re_.sh("uci -q get veltrasso.common.INITTED").stdout == "YES\n"
    assert re_.sh("uci -q get wireless.wifi0").stdout == "wifi-iface\n"
    miss = re_.sh("uci -q get wireless.bh_ap.ssid", check=False)
    assert (miss.returncode, miss.stdout, miss.stderr) == (1, "", "")
    assert re_.sh("uci get network.wan.nope", check=False).stderr == "uci: Entry not found\n"

    # set is visible at once, reaches /etc/config only on commit
    re_.sh("uci -q set network.lan.ipaddr=192.168.77.20")
    assert re_.sh("uci -q get network.lan.ipaddr").stdout == "192.168.77.20\n"
    assert "'192.168.77.1'" in re_.read("/etc/config/network")
    re_.sh("uci commit network")
    assert "option ipaddr '192.168.77.20'" in re_.read("/etc/config/network")
    assert re_.sh("uci -q get network.lan.ipaddr").stdout == "192.168.77.20\n"

    # values with blanks and quotes survive set, commit and show
    re_.sh("uci set wireless.wifi1.ssid=\"it's my net\"; uci commit")
    assert re_.sh("uci -q get wireless.wifi1.ssid").stdout == "it's my net\n"
    show = re_.sh("uci show wireless").stdout.splitlines()
    assert "wireless.wifi1.ssid='it'\\''s my net'" in show
    assert "wireless.wifi0.ifname='wl0'" in show
    assert "wireless.wifi0=wifi-iface" in show
    # the daemon's section lookup
    cmd = "uci show wireless | grep -w \"ifname='%s'\" | cut -d '.' -f1-2"
    assert re_.sh(cmd % "wl1").stdout == "wireless.wifi1\n"
    assert re_.sh(cmd % "wl01", check=False).stdout == ""   # deleted by the seed override
    assert re_.sh("uci -q get misc.wireless.if_5GH").stdout == "\n"
    assert re_.calls("uci")[0] == "uci '-q' 'get' 'veltrasso.common.INITTED'"


def test_standins_record_and_answer(lab):
    cap = lab.cap
    assert cap.sh("boardkv get SN").stdout == "KV24A1000101\n"
    assert cap.sh("macinfo wan 2>/dev/null").stdout == routerlab.CAP_MAC + "\n"
    assert cap.sh("mesh_tool backhaul get band").stdout == "5g\n"
    assert cap.sh("mesh_tool initbuf").stdout.startswith("{")
    assert cap.sh("/sbin/linkprobe link").stdout == "wan up\nlan up\n"
    cap.answer("linkprobe", "wan down\nlan up\n", args="link")
    cap.answer("mesh_setup.sh", "", rc=3)
    assert cap.sh("/sbin/linkprobe link").stdout == "wan down\nlan up\n"
    r = cap.sh("/usr/sbin/mesh_setup.sh cap_init 'a b' \"it's\" '' 1", check=False)
    assert r.returncode == 3
    cap.sh("/usr/bin/lua /usr/sbin/mesh_info.lua locale ZGVmYXVsdA==; vsled meshing ")
    assert cap.calls()[-4:] == [
        "linkprobe 'link'",
        "mesh_setup.sh 'cap_init' 'a b' 'it'\\''s' '' '1'",
        "lua '/usr/sbin/mesh_info.lua' 'locale' 'ZGVmYXVsdA=='",
        "vsled 'meshing'"]
    assert lab.re.calls("mesh_setup.sh") == []


def test_cable_ping(make_lab):
    # without the RE's factory br-lan address, which shadows the CAP's
    lab = make_lab(re_lan_ip=None)
    lab.re.sh("ping -c 1 -W 2 192.168.77.1", timeout=10)
    lab.cap.sh("ping -c 1 -W 2 192.168.77.20", timeout=10)


def test_factory_clash_and_move(lab):
    # the RE's br-lan holds the CAP's address until it moves out of the way
    re_ = lab.re
    assert re_.sh(IFCONFIG_IP % "br-lan").stdout == "192.168.77.1\n"
    re_.sh("uci -q set network.lan.ipaddr=192.168.77.20;uci commit network;"
           "ifconfig br-lan 192.168.77.20")
    re_.sh("ping -c 1 -W 2 192.168.77.1", timeout=10)


def test_dhcp_uplink_and_process_helpers(make_lab):
    lab = make_lab(uplink=None)
    # a fake daemon under the name the udhcpc hook signals
    fake = lab.re.spawn(["sh", "-c", 'trap "echo usr1 >&2" USR1; echo ready >&2; '
                                     'while :; do sleep 0.1; done'], name="plaitd")
    fake.wait_log("ready", 5)
    srv, clt = lab.dhcp_uplink()
    gw, ip = lab.re.read("/tmp/cab_plaitd_gw_ip").split()
    assert gw == "192.168.77.1" and ip.startswith("192.168.77.1")
    assert lab.re.sh(IFCONFIG_IP % "eth4").stdout == ip + "\n"
    fake.wait_log("usr1", 5)
    # killall inside a router reaches the router's own processes only
    lab.re.sh("killall -9 udhcpc")
    assert clt.wait(5) == -signal.SIGKILL
    assert srv.running()
    assert fake.stop(3) == -signal.SIGTERM


def test_teardown_leaves_nothing(make_lab):
    lab = make_lab()
    proc = lab.cap.spawn(["sleep", "600"])
    pids = [r.init_pid for r in lab.routers] + [proc.pid]
    lab.down()
    netns = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout
    assert lab.uniq not in netns
    assert not os.path.exists(lab.dir)
    for pid in pids:
        assert not os.path.exists(f"/proc/{pid}") or \
            open(f"/proc/{pid}/stat").read().split()[2] == "Z"


def test_stale_lab_of_killed_run_is_removed():
    code = ("import sys, time; sys.path.insert(0, %r); import routerlab as rl; "
            "lab = rl.Lab(); lab.up(); lab.cap.spawn(['sleep', '600']); "
            "print(lab.uniq, lab.cap.init_pid, flush=True); time.sleep(60)"
            % os.path.dirname(routerlab.__file__))
    p = subprocess.Popen(["/usr/bin/python3", "-c", code], stdout=subprocess.PIPE, text=True)
    try:
        uniq, init = p.stdout.readline().split()
    finally:
        p.kill()
        p.wait(5)
    assert uniq in routerlab.cleanup_stale()
    netns = subprocess.run(["ip", "netns", "list"], capture_output=True, text=True).stdout
    assert uniq not in netns
    assert not os.path.exists(os.path.join(routerlab.LAB_BASE, uniq))
    assert routerlab.wait_until(lambda: not os.path.exists(f"/proc/{init}"), 5)
