"""COMMAREA calls, units of work and the mapping of failures to exceptions."""

import socket
import threading

import pytest

import kvlclient
from kvlclient import codes


@pytest.mark.parametrize("program, commarea, kw, expected", [
    ("ECHO", b"hello", {}, b"hello"),
    ("PAYROLL", b"abc", {}, b"abc"),  # a configured alias of ECHO
    ("ECHO", b"abc", {"reply_length": 6}, b"abc\0\0\0"),  # the buffer grows to the reply length
    ("SHORT", b"abcdefgh", {}, b"abcd\0\0\0\0"),  # fewer bytes back: zero-filled
    ("ECHO", b"", {"reply_length": 4}, b"\0\0\0\0"),
    ("ECHO", b"", {}, b""),
    ("ECHO", bytes(range(256)) * 100, {}, bytes(range(256)) * 100),
    ("ECHO", b"x", {"server": "ORISA", "tran_id": "TRN1", "timeout": 5}, b"x"),
])
def test_call_returns_reply_bytes(conn, program, commarea, kw, expected):
    result = conn.call(program, commarea, **kw)
    assert result == kvlclient.CallResult(expected, "", 0)


def test_program_abend_carries_abend_code_and_data(conn):
    with pytest.raises(kvlclient.ProgramAbend) as info:
        conn.call("ABEND", b"XYZWrest")
    e = info.value
    assert (e.code, e.name, e.abend, e.data) == (-7, "ECI_ERR_TRANSACTION_ABEND", "XYZW", b"XYZWrest")
    with pytest.raises(kvlclient.ProgramAbend) as info:
        conn.call("NOSUCHPG", b"x")
    assert info.value.abend == "NOPG"


@pytest.mark.parametrize("kw, cls, code", [
    ({"server": "NOPE"}, kvlclient.UnknownServer, codes.ECI_ERR_UNKNOWN_SERVER),
    ({"server": "ORISB"}, kvlclient.SecurityError, codes.ECI_ERR_SECURITY_ERROR),
    ({"server": "ORISB", "userid": "ALICE", "password": "wrong"}, kvlclient.SecurityError,
     codes.ECI_ERR_SECURITY_ERROR),
    ({"server": "ORISB", "userid": "CAROL", "password": "pw1"}, kvlclient.SecurityError,
     codes.ECI_ERR_SECURITY_ERROR),
])
def test_server_refusals_raise_their_family(conn, kw, cls, code):
    with pytest.raises(cls) as info:
        conn.call("ECHO", b"x", **kw)
    assert info.value.code == code
    assert info.value.name == kvlclient.rc_name(code) and info.value.name in str(info.value)


def test_secured_server_accepts_valid_credentials(conn):
    long_password = "p" * 40  # passed by pointer: longer than the block's 16-byte field
    assert conn.call("ECHO", b"ok", server="ORISB", userid="ALICE", password="secret").data == b"ok"
    with pytest.raises(kvlclient.SecurityError):
        conn.call("ECHO", b"ok", server="ORISB", userid="ALICE", password=long_password)


@pytest.mark.parametrize("kw", [
    {"program": "TOOLONGNAME"}, {"server": "SERVER123"}, {"tran_id": "TRANS"}, {"timeout": -1},
    {"reply_length": 40000}, {"commarea": b"x" * 32768},
])
def test_arguments_checked_before_sending(conn, kw):
    args = {"program": "ECHO", "commarea": b"x", **kw}
    with pytest.raises(ValueError):
        conn.call(args.pop("program"), args.pop("commarea"), **args)
    assert conn.call("ECHO", b"still usable").data == b"still usable"


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


@pytest.mark.parametrize("args, kw, cls, code", [
    (("127.0.0.1", 0), {}, kvlclient.InvalidArgument, codes.KVL_ERR_BADPORT),
    (("127.0.0.1", None), {"applid": "APPLID123"}, kvlclient.InvalidArgument, codes.KVL_ERR_APPLIDTOOLONG),
    (("127.0.0.1", None), {"timeout": 5000}, kvlclient.InvalidArgument, codes.KVL_ERR_INVALIDTIMEOUTPARM),
    (("127.0.0.1", "closed"), {"timeout": 5}, kvlclient.ConnectFailed, codes.KVL_ERR_CONNECTFAILED),
    (("no.such.host.invalid", None), {}, kvlclient.ConnectFailed, codes.KVL_ERR_BADHOST),
])
def test_connect_failures(emu, args, kw, cls, code):
    host, port = args
    port = emu.port if port is None else free_port() if port == "closed" else port
    with pytest.raises(cls) as info:
        kvlclient.connect(host, port, **kw)
    assert info.value.code == code


def test_refused_handshake_is_connect_failed(kvl_emulator_factory):
    emu = kvl_emulator_factory(handshake="refuse")
    with pytest.raises(kvlclient.ConnectFailed) as info:
        kvlclient.connect(emu.host, emu.port)
    assert info.value.code == codes.KVL_ERR_WORK_WAS_REFUSED


def test_applid_and_close(emu):
    with kvlclient.connect(emu.host, emu.port, "APP1", "QUAL") as conn:
        assert (conn.applid, conn.applid_qualifier) == ("APP1", "QUAL")
    assert conn.closed
    conn.close()  # twice is harmless
    with pytest.raises(kvlclient.ConnectionClosed):
        conn.call("ECHO", b"x")


def test_lost_connection_fails_calls_in_flight(kvl_emulator_factory):
    emu = kvl_emulator_factory()
    conn = kvlclient.connect(emu.host, emu.port)
    try:
        future = conn.call_async("DELAY", b"20000")
        errors = []

        def sync_call():
            try:
                conn.call("DELAY", b"20000")
            except kvlclient.KvlError as e:
                errors.append(e)

        t = threading.Thread(target=sync_call)
        t.start()
        assert emu.wait_for_log("program=DELAY", 2)
        emu.kill()
        t.join(30)
        assert not t.is_alive()
        with pytest.raises(kvlclient.ConnectionLost) as info:
            future.result(30)
        assert info.value.code == codes.KVL_ERR_LOSTGWCON
        assert [type(e) for e in errors] == [kvlclient.ConnectionLost]
        with pytest.raises(kvlclient.ConnectionLost):
            conn.call("ECHO", b"x")
    finally:
        conn.purge(1)


def test_unit_of_work_commits_and_backs_out(conn):
    with conn.unit_of_work() as uow:
        first = uow.call("LUW", b"." * 16)
        second = uow.call("LUW", b"." * 16)
        assert first.luw_token == second.luw_token == uow.token > 0
        assert first.data.startswith(b"LUW %d CALL 1" % uow.token)
        assert second.data.startswith(b"LUW %d CALL 2" % uow.token)
    assert uow.token == 0  # committed

    with pytest.raises(RuntimeError):
        with conn.unit_of_work() as uow:
            uow.call("LUW", b"." * 16)
            opened = uow.token
            raise RuntimeError("application failure")
    assert opened > 0 and uow.token == 0  # backed out
    # The backed-out token is gone on the server: reusing it is refused.
    with pytest.raises(kvlclient.UnitOfWorkError) as info:
        conn.call("ECHO", b"x", _extend_mode=codes.ECI_EXTENDED, _luw=[opened])
    assert info.value.code == codes.ECI_ERR_LUW_TOKEN


def test_failed_call_ends_the_unit_of_work(conn):
    with conn.unit_of_work() as uow:
        uow.call("LUW", b"." * 16)
        with pytest.raises(kvlclient.ProgramAbend):
            uow.call("ABEND", b"ABCD")
        assert uow.token == 0  # the server backed it out; nothing left to commit
    with conn.unit_of_work() as empty:
        pass
    assert empty.token == 0


def test_plugin_fixtures_give_a_working_emulator_and_connection(kvl_emulator, kvl_connection):
    assert kvl_emulator.running and kvl_emulator.port > 0
    assert kvl_connection.call("ECHO", b"plugin").data == b"plugin"
    assert kvl_connection.list_systems() == [kvlclient.SystemInfo("EMUSRV", "Gateway emulator server")]
