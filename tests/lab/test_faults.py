"""Pairing through a bad cable (lab/wire.py): frames lost, the cable pulled for 2 s mid-authentication
(50 ms each way, so that it lands there), br-lan left on the uplink's address by a killed RE."""
import os
import time

import routerlab

CASES = (("loss 20 %", {"loss": 20}, None, None),
         ("pull mid-authentication", {"delay": 50}, "] recv msg, type: 4, body len:", None),
         ("br-lan on the uplink's address", {}, None, routerlab.RE_STATIC_IP))


def test_pairs_through_a_bad_cable(make_lab):
    for name, netem, pull_at, lan in CASES:
        lab = make_lab(wire=True)
        if lan:   # added after eth4's: a broadcast from that address left by br-lan
            lab.re.readdress("br-lan", lan)
        cap = lab.cap.start_cap()
        idle = cap.figures()[:2]
        lab.impair(**netem)
        re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
        if pull_at:
            cap.wait_log(pull_at, 20)
            lab.cable(False)
            time.sleep(2)
            lab.cable(True)
        assert re_.wait(60) == 0, f"{name}: the RE paired\n{re_.log()[-3000:]}"
        cap.wait_log("mesh.re.conn.type=wire:1", 10, stream="out")
        back = routerlab.wait_until(lambda: cap.figures()[:2] == idle, 5)
        assert back, f"{name}: the CAP's descriptors and threads {cap.figures()[:2]} back to {idle}"
        for r in lab.routers:
            assert r.read(routerlab.LOCK) is None, f"{name}: no mesh lock left on the {r.name}"
        status = [f for f in os.listdir(lab.cap.path("/tmp")) if f.endswith("-status")]
        assert status == [], f"{name}: no status file on the CAP"
        lab.down()
