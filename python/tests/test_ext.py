"""The extension API through the package: connection options, deadlines and their
exception, the library's texts in exceptions, statistics, the end of a connection
under many calls in flight, and asyncio on the completion handle."""

import asyncio
import socket

import pytest

import kvlclient
import kvlclient.aio
from kvlclient import codes


def _free_port():
    """A loopback port nobody listens on (bound, then let go)."""
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


@pytest.fixture
def ext_conn(emu):
    c = kvlclient.connect(emu.host, emu.port, "EXTAPPL", connect_timeout=5, deadline=2.5, keepalive=True)
    yield c
    if not c.closed:
        c.purge(0)


def test_options_open_and_deadline_round_trip(ext_conn):
    assert ext_conn.applid == "EXTAPPL"
    assert ext_conn.deadline == 2.5
    assert ext_conn.call("ECHO", b"opts").data == b"opts"
    ext_conn.deadline = 0.25
    assert ext_conn.call_deadline == 0.25
    with pytest.raises(ValueError):
        ext_conn.deadline = -1


def test_deadline_raises_a_timeout_with_the_library_text(ext_conn):
    ext_conn.deadline = 0.2
    with pytest.raises(kvlclient.CallTimeout) as info:
        ext_conn.call("DELAY", b"1500")
    e = info.value
    assert isinstance(e, TimeoutError)
    assert (e.code, e.name) == (codes.ECI_ERR_RESPONSE_TIMEOUT, "ECI_ERR_RESPONSE_TIMEOUT")
    assert e.detail == "no reply within 200 ms"
    assert str(e) == "ECI_ERR_RESPONSE_TIMEOUT (-6): no reply within 200 ms"
    # A later failure of another kind does not carry the old text.
    with pytest.raises(kvlclient.UnknownServer) as other:
        ext_conn.call("ECHO", b"x", server="NOPE")
    assert other.value.detail == ""
    ext_conn.deadline = 0
    assert ext_conn.call("ECHO", b"after").data == b"after"


def test_futures_are_not_ended_by_the_deadline(ext_conn):
    ext_conn.deadline = 0.1
    futures = [ext_conn.call_async("DELAY", b"%d" % ms) for ms in (300, 400)]
    assert [f.result(10).data for f in futures] == [b"300", b"400"]


@pytest.mark.parametrize("kw, cls, code, text", [
    ({"port": "free"}, kvlclient.ConnectFailed, codes.KVL_ERR_CONNECTFAILED, "connect to 127.0.0.1:"),
    ({"applid": "NINECHARS"}, kvlclient.InvalidArgument, codes.KVL_ERR_APPLIDTOOLONG, "longer than 8"),
])
def test_open_failures_carry_the_library_text(emu, kw, cls, code, text):
    args = {"host": emu.host, "port": emu.port, "applid": None}
    args.update(kw)
    if args["port"] == "free":
        args["port"] = _free_port()
    with pytest.raises(cls) as info:
        kvlclient.connect(args["host"], args["port"], args["applid"], connect_timeout=5)
    assert info.value.code == code
    assert text in info.value.detail
    assert text in str(info.value)


@pytest.mark.parametrize("kw", [
    {"deadline": -1}, {"connect_timeout": 4000}, {"tls": False, "ca_file": "ca.pem"},
    {"tls": kvlclient.TlsOptions(), "verify": False}, {"deadline": 1, "call_deadline": 2},
])
def test_bad_options_are_refused_before_the_open(emu, kw):
    with pytest.raises(ValueError):
        kvlclient.connect(emu.host, emu.port, **kw)


def test_tls_without_tls_in_the_library_says_so(emu):
    if kvlclient.tls_available():
        pytest.skip("this library has TLS (the TLS tests cover it)")
    with pytest.raises(kvlclient.TlsError) as info:
        kvlclient.connect(emu.host, emu.port, tls=True, verify=False)
    assert info.value.code == codes.KVL_EXT_ERR_TLS_UNAVAILABLE


def test_statistics_count_calls_failures_and_bytes(ext_conn):
    assert sum(ext_conn.statistics()["requestsSent"]) == 0
    for _ in range(4):
        ext_conn.call("ECHO", b"count")
    with pytest.raises(kvlclient.ProgramAbend):
        ext_conn.call("ABEND", b"STAT")
    assert ext_conn.call_async("ECHO", b"a").result(10).data == b"a"
    ext_conn.deadline = 0.1
    with pytest.raises(kvlclient.CallTimeout):
        ext_conn.call("DELAY", b"1000")
    s = ext_conn.statistics()
    sync, asynchronous = 0, 1
    assert s["requestsSent"][sync] == 6 and s["requestsCompleted"][sync] == 5
    assert s["requestsSent"][asynchronous] == 1 and s["requestsCompleted"][asynchronous] == 1
    program, deadline = 2, 1
    assert s["failures"][program] == 1 and s["failures"][deadline] == 1
    assert s["bytesOut"] > 6 * 5 and s["bytesIn"] > 0
    assert 0 < s["latencyP50Us"] <= s["latencyMaxUs"]


@pytest.mark.filterwarnings("error::pytest.PytestUnhandledThreadExceptionWarning")
def test_purge_under_many_calls_in_flight_fails_them_cleanly(emu, tmp_path):
    # A retrieval with an ended token would be refused and traced at level 1 ("... not found").
    trace = tmp_path / "trace.txt"
    kvlclient.set_trace_file(trace)
    kvlclient.set_trace_level(1)
    try:
        _purge_rounds(emu, 150)
    finally:
        kvlclient.set_trace_level(0)
        kvlclient.set_trace_file(None)
    assert [line for line in trace.read_text(errors="replace").splitlines() if "not found" in line] == []


def _purge_rounds(emu, rounds):
    for round_ in range(rounds):
        conn = kvlclient.connect(emu.host, emu.port)
        futures = [conn.call_async("DELAY" if i % 3 == 0 else "ECHO", b"3000" if i % 3 == 0 else b"e%d" % i)
                   for i in range(18)]
        conn.purge(0)
        # A connection opened at once keeps every reply of its own.
        nxt = kvlclient.connect(emu.host, emu.port)
        own = [nxt.call_async("ECHO", b"own%d" % i) for i in range(6)]
        for i, f in enumerate(futures):
            err = f.exception(10)
            if i % 3 == 0:
                assert isinstance(err, kvlclient.ConnectionClosed), (round_, i, err)
            elif err is None:
                assert f.result().data == b"e%d" % i
            else:
                assert isinstance(err, kvlclient.ConnectionClosed), (round_, i, err)
        assert [f.result(10).data for f in own] == [b"own%d" % i for i in range(6)]
        nxt.purge(0)


@pytest.mark.filterwarnings("error::pytest.PytestUnhandledThreadExceptionWarning")
def test_a_done_callback_may_purge_the_connection(emu):
    conn = kvlclient.connect(emu.host, emu.port)
    first = conn.call_async("ECHO", b"first")
    later = [conn.call_async("DELAY", b"2000") for _ in range(3)]
    first.add_done_callback(lambda f: conn.purge(0))
    assert first.result(10).data == b"first"
    for f in later:
        assert isinstance(f.exception(10), kvlclient.ConnectionClosed)
    assert conn.closed


def test_asyncio_on_the_completion_handle_with_options(emu):
    async def main():
        aconn = await kvlclient.aio.connect(emu.host, emu.port, connect_timeout=5, deadline=0.1)
        try:
            assert aconn.uses_completion_handle
            # The deadline bounds synchronous calls only: awaited calls get their replies.
            slow = [aconn.call("DELAY", b"%d" % (200 + i)) for i in range(3)]
            fast = [aconn.call("ECHO", b"f%d" % i) for i in range(20)]
            replies = await asyncio.gather(*slow, *fast)
            stats = aconn.connection.statistics()
        finally:
            await aconn.close()
        return replies, stats

    replies, stats = asyncio.run(asyncio.wait_for(main(), 60))
    assert [r.data for r in replies] == [b"200", b"201", b"202"] + [b"f%d" % i for i in range(20)]
    assert stats["requestsCompleted"][1] == 23 and stats["inFlightMax"] >= 3
