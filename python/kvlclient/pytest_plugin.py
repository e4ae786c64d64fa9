"""pytest fixtures for testing code that uses kvlclient against the Gateway emulator.

Enable with ``pytest -p kvlclient.pytest_plugin`` or, in a conftest.py,
``pytest_plugins = ["kvlclient.pytest_plugin"]``. Fixtures:

* ``kvl_emulator``: a running :class:`~kvlclient.testing.Emulator` with the
  default configuration, one per test module;
* ``kvl_emulator_factory``: makes emulators with your configuration
  (``kvl_emulator_factory(users=[("ALICE", "pw")])``), all stopped after the test;
* ``kvl_connection``: a connection to ``kvl_emulator``, closed after the test.
"""

from __future__ import annotations

from typing import Any, Callable, Iterator, List

import pytest

import kvlclient
from kvlclient.testing import Emulator


@pytest.fixture(scope="module")
def kvl_emulator() -> Iterator[Emulator]:
    with Emulator() as emu:
        yield emu


@pytest.fixture
def kvl_emulator_factory() -> Iterator[Callable[..., Emulator]]:
    started: List[Emulator] = []

    def make(**kw: Any) -> Emulator:
        emu = Emulator(**kw).start()
        started.append(emu)
        return emu

    yield make
    for emu in started:
        emu.stop()


@pytest.fixture
def kvl_connection(kvl_emulator: Emulator) -> Iterator[kvlclient.Connection]:
    conn = kvlclient.connect(kvl_emulator.host, kvl_emulator.port)
    try:
        yield conn
    finally:
        if not conn.closed:
            conn.purge(5)
