"""The CAP kept to a pairing window (the package's option pair_window): the window opens with the
CAP's start and ends with its SIGTERM, as procd runs them on "pair" and at the window's end."""
NO_CAP = "dd_clt: no CAP found in L2-net. just exit. \n"
CONNECT = "import socket; socket.create_connection(('192.168.77.1', 19553), 3)"


def assert_closed(lab, when):   # a hostile RE's connect is refused, and nothing answers discovery
    hostile = lab.re.netns_run(["/usr/bin/python3", "-c", CONNECT], check=False)
    assert "ConnectionRefusedError" in hostile.stderr, (when, hostile.stderr)
    assert lab.dd_request(b"KORVANE_RE_DDv1.0\0") == [], when


def test_re_probing_before_the_window_pairs_at_its_next_probe(make_lab):
    lab = make_lab(re_lan_ip=None)   # the hostile connect reaches the CAP's 192.168.77.1 over eth4
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4")
    re_.wait_log(NO_CAP, 10)
    assert_closed(lab, "before the window")
    misses = re_.count(NO_CAP)
    cap = lab.cap.start_cap()
    assert re_.wait(30) == 0, re_.log()[-3000:]
    # only a probe already under way when the window opened goes unanswered
    assert re_.count(NO_CAP) <= misses + 1, re_.log()[-3000:]
    assert cap.stop() == 255, cap.log()[-3000:]
    assert_closed(lab, "after the window")
