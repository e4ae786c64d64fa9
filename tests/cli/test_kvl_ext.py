"""kvl's connection options: --connect-timeout, --deadline, TLS options checked
before the open, the library's texts in messages, and statistics."""
import socket

import pytest

OK, PROGRAM, USAGE, CONNECTION = 0, 1, 2, 3


def _free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def test_deadline_ends_a_slow_call_with_its_text(kvl):
    done = kvl("--deadline", "0.2", "call", "DELAY", "2000")
    assert done.returncode == PROGRAM
    assert "ECI_ERR_RESPONSE_TIMEOUT (-6): no reply within 200 ms" in done.stderr.decode()
    j = kvl("--deadline", "0.2", "call", "DELAY", "2000", json_out=True).json
    assert (j["rc"], j["name"], j["detail"]) == (-6, "ECI_ERR_RESPONSE_TIMEOUT", "no reply within 200 ms")
    assert kvl("--deadline", "5", "call", "DELAY", "50", json_out=True).json["text"] == "50"


def test_deadline_from_the_environment_bounds_the_async_collection(kvl):
    done = kvl("call", "DELAY", "2000", "--async", env={"KVL_DEADLINE": "0.2"}, json_out=True)
    assert done.returncode == PROGRAM
    assert done.json["detail"] == "no reply within 200 ms"


def test_connect_failure_names_the_address_and_reason(kvl):
    port = _free_port()
    done = kvl("--port", port, "--connect-timeout", "2.5", "ping")
    assert done.returncode == CONNECTION
    err = done.stderr.decode()
    assert "KVL_ERR_CONNECTFAILED" in err and f"connect to 127.0.0.1:{port}" in err
    j = kvl("--port", port, "ping", json_out=True).json
    assert j["name"] == "KVL_ERR_CONNECTFAILED" and f"127.0.0.1:{port}" in j["detail"]


@pytest.mark.parametrize("args, text", [
    (["--ca", "ca.pem", "ping"], "need --tls"),
    (["--insecure", "ping"], "need --tls"),
    (["--tls", "--cert", "c.pem", "ping"], "--cert and --key go together"),
    (["--deadline", "-1", "ping"], "--deadline"),
    (["--connect-timeout", "4000", "ping"], "--connect-timeout"),
])
def test_option_mistakes_are_usage_errors(kvl, args, text):
    done = kvl(*args)
    assert done.returncode == USAGE
    assert text in done.stderr.decode()


def test_stats_after_a_call_and_in_repeat_output(kvl):
    j = kvl("call", "ECHO", "hello", "--stats", json_out=True).json
    st = j["statistics"]
    assert (st["sent"], st["completed"], st["failures"]["program"]) == (1, 1, 0)
    assert st["bytesOut"] > 5 and st["bytesIn"] > 5
    text = kvl("call", "ABEND", "AB12", "-n", "6", "-C", "2").stdout.decode()
    assert "connection: 6 sent, 6 completed, 6 failed (connection 0, deadline 0, program 6" in text
    assert "library latency ms: p50" in text
    load = kvl("call", "ECHO", "x", "-n", "30", "-C", "3", json_out=True).json["statistics"]
    assert load["sent"] == 30 and 1 <= load["inFlightMax"] <= 3
    assert kvl("call", "ECHO", "x", "--async", "--stats").returncode == USAGE
