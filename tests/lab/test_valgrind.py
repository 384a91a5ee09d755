"""One whole pairing with both daemons under valgrind's memcheck: the pairing
still completes within the daemons' own time limits, and neither side shows a
memory error or a definitely lost block, the CAP's SIGTERM clean-up included.
Threads still running at exit and OpenSSL's global state may leave blocks
"possibly lost" or "still reachable"; those do not count."""
import glob
import os
import re
import shutil
import time

import pytest

import routerlab
from test_pairing import LISTENING, expected_re_init, scripts

VALGRIND = "/usr/bin/valgrind"
VG_LOG = "/tmp/valgrind.log"              # inside each router
VG_FAILED = 99                            # valgrind's exit status when it found errors
SUPP = os.path.join(routerlab.HERE, "valgrind.supp")
LEAK_KINDS = ("definitely lost", "indirectly lost", "possibly lost", "still reachable")


def sanitized(binary):
    """True for an AddressSanitizer build (linked against libasan or carrying
    its runtime): valgrind cannot run those."""
    with open(binary, "rb") as f:
        image = f.read()
    return b"__asan_init" in image or b"libasan.so" in image


@pytest.fixture
def vg_bin(plaitd_bin):
    if not (os.access(VALGRIND + ".bin", os.X_OK) and os.path.isdir(routerlab.VALGRIND_LIBEXEC)
            and glob.glob(os.path.join(routerlab.VALGRIND_LIBEXEC, "memcheck-*-linux"))):
        pytest.skip("valgrind (memcheck) is not installed")
    if sanitized(plaitd_bin):
        pytest.skip(f"{plaitd_bin} is an AddressSanitizer build, which valgrind cannot run")
    return plaitd_bin


def memcheck(router):
    """valgrind argv prefix for a daemon in router; the report goes to VG_LOG."""
    argv = [VALGRIND, "--tool=memcheck", "--leak-check=full", "--errors-for-leak-kinds=definite",
            "--show-leak-kinds=definite,indirect", f"--error-exitcode={VG_FAILED}",
            "--track-origins=yes", "--child-silent-after-fork=yes", "--num-callers=30",
            f"--log-file={VG_LOG}"]
    if os.path.exists(SUPP):
        shutil.copy2(SUPP, router.path("/lab/valgrind.supp"))
        argv.append("--suppressions=/lab/valgrind.supp")
    return argv


def report(router):
    """(error count, {leak kind: bytes}, summary lines, whole report) of the
    valgrind run in router."""
    text = router.read(VG_LOG, "")
    errors = re.search(r"ERROR SUMMARY: ([\d,]+) errors", text)
    assert errors, f"{router.name}: no valgrind summary:\n{text[-3000:]}"
    leaks = {k: 0 for k in LEAK_KINDS}   # "All heap blocks were freed" has no leak lines
    for kind, n in re.findall(r"(%s): ([\d,]+) bytes" % "|".join(LEAK_KINDS), text):
        leaks[kind] = int(n.replace(",", ""))
    lines = [l for l in text.splitlines()
             if re.search(r"ERROR SUMMARY|in use at exit|heap blocks were freed|suppressed:|"
                          + "|".join(LEAK_KINDS), l)]
    return int(errors.group(1).replace(",", "")), leaks, lines, text


def test_pairing_under_memcheck(make_lab, vg_bin):
    lab = make_lab(valgrind=True)
    t0 = time.monotonic()
    cap = lab.cap.plaitd("-S", "-o", "-i", "br-lan", prefix=memcheck(lab.cap))
    cap.wait_log(LISTENING, 90)
    time.sleep(1)   # past the server loop's first uptime sample, as in the plain pairing
    t_cap = time.monotonic() - t0
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4", prefix=memcheck(lab.re))
    re_rc = re_.wait(150)
    t_re = time.monotonic() - t0
    re_log = re_.log()
    assert re_rc is not None, "RE still running:\n" + re_log[-3000:]
    cap.wait_log("mesh.re.conn.type=wire:1", 30, stream="out")
    # the pairing itself, as without valgrind
    assert "RE cab mesh init done. exit.\n" in re_log
    assert "timer reached" not in re_log and "handshake timeout" not in cap.log()
    assert scripts(lab.re) == [expected_re_init(lab.cap.uci)]
    assert [c[:2] for c in scripts(lab.cap)] == [["cap_init", routerlab.RE_MAC]]
    assert "mesh.re.conn.fail" not in cap.out() + re_.out()

    cap_rc = cap.stop(90)   # the SIGTERM clean-up, then valgrind's leak search
    t_end = time.monotonic() - t0
    assert "cleanup cable-mesh resources before exit.\n" in cap.log()
    print(f"\nvalgrind pairing: CAP listening {t_cap:.1f}s, RE done {t_re:.1f}s, "
          f"CAP stopped {t_end:.1f}s")
    failures = []
    for router, rc, want in ((lab.re, re_rc, 0), (lab.cap, cap_rc, 255)):
        errors, leaks, lines, text = report(router)
        print(f"{router.name}: exit {rc}\n  " + "\n  ".join(lines))
        if errors or leaks["definitely lost"] or leaks["indirectly lost"] or rc != want:
            failures.append(f"--- {router.name}: exit {rc} (want {want}), {errors} errors, "
                            f"{leaks}\n{text[-20000:]}")
    assert not failures, "\n".join(failures)
