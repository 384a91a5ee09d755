"""L2 discovery between the real daemons on the lab cable: the CAP's
responder (plaitd -S -i br-lan) and the RE's probe (plaitd -C -i eth4)."""
import os
import time

import pytest

REQ = b"KORVANE_RE_DDv1.0"
CAP_ANSWER = b"KORVANE_CAP_DDv1.0192.168.77.1\0"
NO_CAP = "dd_clt: no CAP found in L2-net. just exit. \n"


@pytest.fixture
def cap(lab, plaitd_bin):
    d = lab.cap.plaitd("-S", "-o", "-i", "br-lan")
    d.wait_log("dd_srv: enter broadcast recving loop.\n", 10)
    yield d
    d.stop()


def test_re_finds_cap(lab, cap):
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    re_.wait_log("dd_clt: ====== Found CAP in L2-NET. Well Done.\n", 15)
    re_.wait_log("dd_clt: CAP found in L2-net. Continue for meshing...\n", 5)
    # the answer is magic + address + NUL, broadcast
    assert "send msg to [255.255.255.255:19553] Success, len: 31. \n" in cap.log()
    assert re_.running()
    assert re_.stop() == 255


def test_cap_answers_v10_prefix_only(lab, cap):
    assert lab.dd_request(REQ + b"\0and more bytes") == [CAP_ANSWER]
    assert lab.dd_request(b"KORVANE_RE_DDv1.1\0") == []
    cap.wait_log("dd_srv: it's not msg from RE. data:[KORVANE_RE_DDv1.1]\n", 3)


def test_live_mesh_lock_silences_cap(lab, cap):
    with open("/proc/uptime") as f:
        now = int(float(f.read().split()[0]))
    lab.cap.write("/var/run/plaitd.lock", str(now))
    assert lab.dd_request(REQ + b"\0") == []
    cap.wait_log("dd srv: meshing\n", 3)
    os.remove(lab.cap.path("/var/run/plaitd.lock"))
    assert lab.dd_request(REQ + b"\0") == [CAP_ANSWER]


def test_cap_without_interface_has_no_responder(lab, plaitd_bin):
    d = lab.cap.plaitd("-S", "-o")
    time.sleep(1.5)
    assert lab.dd_request(REQ + b"\0", wait=1.0) == []
    assert d.running() and "dd_srv" not in d.log()
    d.stop()


def test_re_without_cap_keeps_probing(lab, plaitd_bin):
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    re_.wait_log(NO_CAP, 10)
    t1 = time.monotonic()
    re_.wait_log(NO_CAP, 10, count=2)
    gap = time.monotonic() - t1
    assert 3.5 < gap < 7.5, gap   # 4 s sleep plus the 1 s probe window
    assert re_.running()


def test_initted_re_exits_before_probing(make_lab, plaitd_bin):
    lab = make_lab(re_uci={"veltrasso.common.INITTED": "YES"})
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    assert re_.wait(10) == 0
    log = re_.log()
    assert "RE already initted, exit.\n" in log
    assert "dd_clt" not in log and "dd_send_msg" not in log
    assert "uci '-q' 'get' 'veltrasso.common.INITTED'" in lab.re.calls("uci")
