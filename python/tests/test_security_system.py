"""Security calls, the system list, versions, trace settings and code names."""

import datetime
import re

import pytest

import kvlclient
from kvlclient import codes


def test_verify_password_reports_details(conn):
    details = conn.verify_password("ALICE", "secret", server="ORISB")
    assert isinstance(details, kvlclient.SecurityDetails)
    for value in (details.last_verified, details.expiry, details.last_access):
        assert value is None or isinstance(value, datetime.datetime)
    assert details.invalid_attempts >= 0


@pytest.mark.parametrize("userid, password, server, cls, code", [
    ("ALICE", "wrong", "ORISB", kvlclient.SecurityError, codes.ESI_ERR_PASSWORD_INVALID),
    ("NOBODY", "x", "ORISB", kvlclient.SecurityError, codes.ESI_ERR_USERID_INVALID),
    ("BOB", "oldpw", "ORISB", kvlclient.PasswordExpired, codes.ESI_ERR_PASSWORD_EXPIRED),
    ("CAROL", "pw1", "ORISB", kvlclient.SecurityError, codes.ESI_ERR_SECURITY_ERROR),
    ("ALICE", "secret", "NOPE", kvlclient.UnknownServer, codes.ESI_ERR_UNKNOWN_SERVER),
])
def test_verify_failures(conn, userid, password, server, cls, code):
    with pytest.raises(cls) as info:
        conn.verify_password(userid, password, server)
    assert (info.value.code, info.value.name) == (code, kvlclient.rc_name(code))


def test_change_password(emu):
    with kvlclient.connect(emu.host, emu.port) as conn:
        with pytest.raises(kvlclient.PasswordRejected) as info:
            conn.change_password("DAVE", "pw2", "newpw", "ORISB")
        assert info.value.code == codes.ESI_ERR_PASSWORD_REJECTED
        conn.change_password("BOB", "oldpw", "newpw", "ORISB")  # changing cures an expired password
        conn.verify_password("BOB", "newpw", "ORISB")
        with pytest.raises(kvlclient.SecurityError):
            conn.verify_password("BOB", "oldpw", "ORISB")


def test_list_systems_beyond_the_first_capacity(kvl_emulator_factory):
    servers = [("SRV%02d" % i, "Server number %d" % i) for i in range(40)]
    emu = kvl_emulator_factory(servers=servers)
    with kvlclient.connect(emu.host, emu.port) as conn:
        assert conn.list_systems() == [kvlclient.SystemInfo(n, d) for n, d in servers]


def test_list_systems_default(conn):
    assert conn.list_systems() == [kvlclient.SystemInfo("ORISA", "First server"),
                                   kvlclient.SystemInfo("ORISB", "Checks passwords")]


def test_versions():
    assert re.fullmatch(r"\d+(\.\d+)+", kvlclient.api_version())
    assert kvlclient.library_version().startswith("9.1.0")


def test_trace_settings_and_no_password_in_trace(emu, tmp_path):
    trace = tmp_path / "kvl.trace"
    before = kvlclient.get_trace_level()
    try:
        kvlclient.set_trace_file(trace)
        kvlclient.set_trace_level(4)
        assert kvlclient.get_trace_level() == 4
        with pytest.raises(kvlclient.InvalidArgument) as info:
            kvlclient.set_trace_level(6)
        assert info.value.code == codes.KVL_ERR_TRACELEVEL
        with kvlclient.connect(emu.host, emu.port) as conn:
            conn.call("ECHO", b"traced", server="ORISB", userid="ALICE", password="secret")
            conn.verify_password("ALICE", "secret", "ORISB")
        kvlclient.dump_state()
    finally:
        kvlclient.set_trace_level(before)
        kvlclient.set_trace_file(None)
    text = trace.read_text(errors="replace")
    assert "API.KVL_ECI_Execute" in text and "API.KVL_ESI_verifyPassword" in text
    assert "secret" not in text


@pytest.mark.parametrize("code, name", [
    (0, "KVL_OK"), (-102, "KVL_ERR_LOSTGWCON"), (61444, "KVL_ERR_GATEWAY_CLOSED"),
    (-7, "ECI_ERR_TRANSACTION_ABEND"), (-58, "ECI_ERR_CONTAINER_NOTFOUND"), (-306, "ESI_ERR_PASSWORD_EXPIRED"),
])
def test_code_names_come_from_the_library(code, name):
    assert kvlclient.rc_name(code) == name


@pytest.mark.parametrize("code, cls", [
    (-102, kvlclient.ConnectionLost), (61444, kvlclient.ConnectionClosed), (-140, kvlclient.ConnectionClosed),
    (-118, kvlclient.ConnectFailed), (-7, kvlclient.ProgramAbend), (-27, kvlclient.SecurityError),
    (-306, kvlclient.PasswordExpired), (-22, kvlclient.UnknownServer), (-3, kvlclient.NoServer),
    (-6, kvlclient.CallTimeout), (-8, kvlclient.UnitOfWorkError), (-58, kvlclient.ContainerNotFound),
    (-50, kvlclient.ChannelError), (-104, kvlclient.InvalidArgument), (-9, kvlclient.LibrarySystemError),
    (-922, kvlclient.TlsError), (-12345, kvlclient.KvlError),
])
def test_every_code_family_has_its_class(code, cls):
    e = kvlclient.error_for(code)
    assert type(e) is cls and e.code == code and e.name == kvlclient.rc_name(code)
    # Families also answer to the built-in exceptions a caller may already catch.
    builtin = {(kvlclient.ConnectionLost, kvlclient.ConnectFailed): ConnectionError, kvlclient.CallTimeout: TimeoutError,
               kvlclient.InvalidArgument: ValueError, kvlclient.ContainerNotFound: KeyError}
    for family, base in builtin.items():
        assert isinstance(e, base) == isinstance(e, family)
