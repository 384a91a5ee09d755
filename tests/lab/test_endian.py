"""A big-endian MIPS daemon under qemu-user pairs with the native one, as CAP and as RE:
every multi-byte field of discovery and the wire protocol crosses a byte-order boundary."""
import os
import shutil

import pytest
import routerlab

MIPS_BIN = os.environ.get("PLAITD_MIPS_BIN", "")
QEMU = shutil.which("qemu-mips-static")


@pytest.mark.parametrize("emulated", ["cap", "re"])
def test_cross_endian_pairing(make_lab, emulated):
    if not (os.access(MIPS_BIN, os.X_OK) and QEMU):
        pytest.skip("needs PLAITD_MIPS_BIN (scripts/routerkit static mips) and qemu-mips-static")
    lab = make_lab()
    router = getattr(lab, emulated)
    shutil.copy2(QEMU, router.path("/usr/sbin/qemu-mips-static"))
    mips = dict(binary=MIPS_BIN, prefix=["/usr/sbin/qemu-mips-static"])
    cap = lab.cap.plaitd("-S", "-o", "-i", "br-lan", **(mips if emulated == "cap" else {}))
    cap.wait_log(routerlab.LISTENING, 20)
    re_ = lab.re.plaitd("-C", "-o", "-i", "eth4", **(mips if emulated == "re" else {}))
    assert re_.wait(60) == 0, re_.log()[-3000:] + cap.log()[-3000:]
    cap.wait_log("mesh.re.conn.type=wire:1", 10, stream="out")
    assert [c[1] for c in lab.cap.calls("mesh_setup.sh", argv=True)] == ["cap_init"]
    assert [c[1] for c in lab.re.calls("mesh_setup.sh", argv=True)] == ["re_init"]
    assert lab.cap.calls("mesh_setup.sh", argv=True)[0][2] == routerlab.RE_MAC
    assert cap.stop() == 255, cap.log()[-3000:]
