"""Channels as mappings: bytes and text containers, CCSIDs, reply containers."""

import pytest

import kvlclient
from kvlclient import codes


@pytest.fixture
def channel():
    with kvlclient.Channel("TESTCHAN") as ch:
        yield ch


@pytest.mark.parametrize("value, ccsid, info_type, info_ccsid, raw", [
    (b"\x00\xffbin", None, codes.ECI_BIT, 0, b"\x00\xffbin"),
    (b"", None, codes.ECI_BIT, 0, b""),
    ("caf\u00e9 \u20ac", None, codes.ECI_CHAR, 1208, "caf\u00e9 \u20ac".encode("utf-8")),
    ("HELLO", 37, codes.ECI_CHAR, 37, b"\xc8\xc5\xd3\xd3\xd6"),  # EBCDIC
    ("\u00e9t\u00e9", 819, codes.ECI_CHAR, 819, b"\xe9t\xe9"),
])
def test_container_values_round_trip(channel, value, ccsid, info_type, info_ccsid, raw):
    channel.set("C1", value, ccsid=ccsid)
    info = channel.info("C1")
    assert (info.type, info.ccsid, info.length) == (info_type, info_ccsid, len(raw))
    assert channel.raw("C1") == raw
    assert channel["C1"] == value


def test_char_bytes_of_an_unknown_ccsid_read_as_bytes(channel):
    channel.set("ODD", b"\x01\x02", ccsid=4711)
    assert channel.info("ODD").type == codes.ECI_CHAR
    assert channel["ODD"] == b"\x01\x02"


def test_mapping_behaviour(channel):
    channel.update({"A": b"1", "B": "two"})
    channel["A"] = "now text"  # replacing changes the type
    assert channel.info("A").type == codes.ECI_CHAR
    assert sorted(channel) == ["A", "B"] and len(channel) == 2 and "A" in channel and "Z" not in channel
    del channel["B"]
    assert channel.to_dict() == {"A": "now text"}
    with pytest.raises(KeyError):
        channel["B"]
    with pytest.raises(kvlclient.ContainerNotFound) as info:
        del channel["B"]
    assert info.value.code == codes.ECI_ERR_CONTAINER_NOTFOUND
    assert channel.get("B", "default") == "default"
    assert channel.name == "TESTCHAN"


@pytest.mark.parametrize("name", ["", "X" * 17, "bad name", "caf\u00e9"])
def test_invalid_names_are_refused(channel, name):
    with pytest.raises(kvlclient.InvalidArgument) as info:
        channel[name] = b"x"
    assert info.value.code == codes.ECI_ERR_INVALID_NAME


def test_invalid_values_and_closed_channel():
    ch = kvlclient.Channel("CLOSEME")
    with pytest.raises(TypeError):
        ch["A"] = 42
    with pytest.raises(ValueError):
        ch.set("A", "text", ccsid=4711)  # no codec to encode with
    with pytest.raises(kvlclient.InvalidArgument):
        kvlclient.Channel("bad name")
    ch.close()
    ch.close()
    assert ch.closed
    with pytest.raises(ValueError):
        ch["A"] = b"x"


def test_reply_containers_are_applied_to_the_channel(conn):
    with kvlclient.Channel("CTL") as ch:
        ch.update({"KEEP": b"k", "GONE": b"g", "CHANGE": "old", "EMUCTL": "ADD NEW fresh;ADDBIT BIN raw;"
                   "MOD CHANGE new text;DEL GONE"})
        result = conn.call_channel("CHANCTL", ch)
        assert result.containers is ch and result.abend == ""
        assert {k: v for k, v in ch.items() if k != "EMUCTL"} == {
            "KEEP": b"k", "CHANGE": "new text", "NEW": "fresh", "BIN": b"raw"}


def test_plain_mapping_call_returns_a_dict(conn):
    sent = {"B": bytes(range(256)) * 40, "T": "\u00fcber " * 100, "E": ""}
    result = conn.call_channel("CHANECHO", sent)
    assert result.containers == sent and isinstance(result.containers, dict)


def test_channel_call_failures(conn):
    with pytest.raises(kvlclient.UnknownServer):
        conn.call_channel("CHANECHO", {"A": b"x"}, server="NOPE")
    with kvlclient.Channel("REUSED", {"A": b"x"}) as ch:
        with pytest.raises(kvlclient.SecurityError):
            conn.call_channel("CHANECHO", ch, server="ORISB")
        # The channel is free again after a failed call.
        assert conn.call_channel("CHANECHO", ch, server="ORISB", userid="ALICE", password="secret").containers is ch


def test_channel_in_a_unit_of_work(conn):
    with conn.unit_of_work() as uow:
        r = uow.call_channel("CHANECHO", {"A": b"1"})
        assert r.luw_token == uow.token > 0
    assert uow.token == 0
