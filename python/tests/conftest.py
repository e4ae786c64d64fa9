"""Tests of the Python package against the Gateway emulator.

The library comes from KVLCLIENT_LIBRARY (scripts/test.sh points it at a plain,
non-sanitised build), the emulator from KVLCLIENT_EMULATOR or beside it.
"""

import sys
from pathlib import Path

import pytest

PACKAGE_ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(PACKAGE_ROOT))

pytest_plugins = ["kvlclient.pytest_plugin"]

import kvlclient  # noqa: E402
from kvlclient.testing import Emulator  # noqa: E402

USERS = [("ALICE", "secret"), ("BOB", "oldpw", "expired"), ("CAROL", "pw1", "revoked"),
         ("DAVE", "pw2", "reject-new")]


@pytest.fixture(scope="module")
def emu():
    """An emulator with an open and a secured server and some users."""
    with Emulator(servers=[("ORISA", "First server")], secure_servers=[("ORISB", "Checks passwords")],
                  users=USERS, programs=[("PAYROLL", "ECHO")]) as e:
        yield e


@pytest.fixture
def conn(emu):
    c = kvlclient.connect(emu.host, emu.port)
    yield c
    if not c.closed:
        c.purge(5)
