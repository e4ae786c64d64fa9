"""Asynchronous calls: futures from many threads, out-of-order replies, asyncio."""

import asyncio
import threading
from concurrent.futures import wait

import pytest

import kvlclient
import kvlclient.aio
from kvlclient import _library


def test_futures_from_many_threads_get_their_own_replies(conn):
    results = {}
    errors = []

    def worker(n):
        try:
            futures = {(n, i): conn.call_async("ECHO", b"T%02dC%03d" % (n, i) + bytes([n]) * i)
                       for i in range(25)}
            sync = conn.call("ECHO", b"sync%d" % n)  # sync calls interleave with the async ones
            assert sync.data == b"sync%d" % n
            for key, f in futures.items():
                results[key] = f.result(30).data
        except Exception as e:  # reported below, with the thread's key
            errors.append((n, e))

    threads = [threading.Thread(target=worker, args=(n,)) for n in range(8)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(60)
    assert errors == []
    assert len(results) == 8 * 25
    for (n, i), data in results.items():
        assert data == b"T%02dC%03d" % (n, i) + bytes([n]) * i


def test_replies_complete_out_of_order(conn):
    slow = conn.call_async("DELAY", b"400")
    fast = conn.call_async("ECHO", b"fast")
    assert fast.result(10).data == b"fast"
    assert not slow.done()
    assert slow.result(10).data == b"400"


@pytest.mark.parametrize("program, commarea, kw, cls, code", [
    ("ABEND", b"QQQQ", {}, kvlclient.ProgramAbend, -7),
    ("ECHO", b"x", {"server": "NOPE"}, kvlclient.UnknownServer, -22),
    ("ECHO", b"x", {"server": "ORISB"}, kvlclient.SecurityError, -27),
])
def test_async_failures_are_raised_by_the_future(conn, program, commarea, kw, cls, code):
    with pytest.raises(cls) as info:
        conn.call_async(program, commarea, **kw).result(10)
    assert info.value.code == code
    if cls is kvlclient.ProgramAbend:
        assert info.value.abend == "QQQQ"


def test_async_reply_length_matches_sync(conn):
    sync = conn.call("SHORT", b"abcdefgh", reply_length=12)
    assert conn.call_async("SHORT", b"abcdefgh", reply_length=12).result(10) == sync


def test_close_waits_for_outstanding_futures(emu):
    conn = kvlclient.connect(emu.host, emu.port)
    futures = [conn.call_async("DELAY", b"%d" % (50 + 10 * i)) for i in range(5)]
    conn.close()
    assert all(f.done() for f in futures)
    assert [f.result().data for f in futures] == [b"%d" % (50 + 10 * i) for i in range(5)]
    with pytest.raises(kvlclient.ConnectionClosed):
        conn.call_async("ECHO", b"x")


def test_channel_call_async(conn):
    with kvlclient.Channel("ASYNCCH", {"A": b"\x00\x01", "T": "tekst"}) as ch:
        result = conn.call_channel_async("CHANECHO", ch).result(10)
        assert result.containers is ch
        assert ch.to_dict() == {"A": b"\x00\x01", "T": "tekst"}
    plain = conn.call_channel_async("CHANCTL", {"EMUCTL": "ADD NEW made"}).result(10)
    assert plain.containers == {"EMUCTL": "ADD NEW made", "NEW": "made"}


def test_asyncio_gathers_many_calls(emu):
    async def main():
        async with await kvlclient.aio.connect(emu.host, emu.port) as aconn:
            assert aconn.uses_completion_handle == _library.lib().has("KVL_EXT_getCompletionHandle")
            replies = await asyncio.gather(*(aconn.call("ECHO", b"aio%03d" % i) for i in range(50)))
            with pytest.raises(kvlclient.ProgramAbend):
                await aconn.call("ABEND", b"AIOX")
            chan = await aconn.call_channel("CHANECHO", {"C": "x"})
            # In flight when the block ends: close waits for it.
            pending = asyncio.ensure_future(aconn.call("DELAY", b"100"))
            await asyncio.sleep(0)
        return replies, chan, aconn, await pending

    replies, chan, aconn, late = asyncio.run(asyncio.wait_for(main(), 60))
    assert [r.data for r in replies] == [b"aio%03d" % i for i in range(50)]
    assert chan.containers == {"C": "x"}
    assert late.data == b"100"
    assert aconn.connection.closed


def test_collecting_without_waiting_as_an_event_loop_does(conn):
    # The event loop's path (completion handle readable -> drain), driven by hand.
    import time
    conn._dispatcher.use_thread = False
    futures = [conn.call_async("ECHO", b"drain%d" % i) for i in range(10)]
    futures.append(conn.call_async("ABEND", b"DRNX"))
    deadline = time.monotonic() + 30
    while not all(f.done() for f in futures) and time.monotonic() < deadline:
        conn._dispatcher.drain()  # returns at once when nothing is queued
        time.sleep(0.01)
    assert [f.result().data for f in futures[:10]] == [b"drain%d" % i for i in range(10)]
    assert futures[10].exception().abend == "DRNX"
