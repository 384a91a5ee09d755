"""The fixture of the system tests: make_lab(uplink="static"|"dhcp"|None,
**routerlab.Lab keywords) -> an up Lab, torn down after the test (lab/README.md)."""
import os
import signal

import pytest
import routerlab   # PYTHONPATH=lab


def _interrupt(signum, frame):
    raise KeyboardInterrupt   # pytest then runs the fixture finalizers


@pytest.fixture(scope="session", autouse=True)
def lab_session():
    if os.geteuid() != 0 or not os.access(routerlab.PLAITD_BIN, os.X_OK):
        pytest.skip(f"the lab needs root and the binary at {routerlab.PLAITD_BIN} (PLAITD_BIN)")
    routerlab.cleanup_stale()
    signal.signal(signal.SIGTERM, _interrupt), signal.signal(signal.SIGHUP, _interrupt)


@pytest.fixture
def make_lab():
    labs = []

    def make(uplink="static", **kw):
        labs.append(routerlab.Lab(**kw))
        labs[-1].up()
        getattr(labs[-1], f"{uplink}_uplink", lambda: None)()
        return labs[-1]
    yield make
    for lab in labs:
        lab.down()
