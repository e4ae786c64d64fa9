"""The kvl command end to end against the emulator: every sub-command, each input
form, JSON parsed back, exit codes per failure class, and passwords kept out of
sight."""
import os
import subprocess
import time

import pytest

OK, PROGRAM, USAGE, CONNECTION = 0, 1, 2, 3


@pytest.mark.parametrize("args,stdin,expected", [
    (["ECHO", "hello"], None, b"hello"),
    (["ECHO", "--hex", "00 01 ff"], None, b"\x00\x01\xff"),
    (["ECHO", "--stdin"], b"from stdin\x00\x01", b"from stdin\x00\x01"),
    (["ECHO", "caf\u00e9", "--codepage", "CP1252"], None, b"caf\xe9"),
    (["ECHO", "AB", "--codepage", "IBM037"], None, b"\xc1\xc2"),
    (["ECHO", "abc", "--length", "6"], None, b"abc\x00\x00\x00"),
    (["ECHO", "abcdef", "--reply-length", "2"], None, b"ab"),
    (["SHORT", "abcdefgh"], None, b"abcd\x00\x00\x00\x00"),
])
def test_call_input_forms(kvl, args, stdin, expected):
    done = kvl("call", *args, input=stdin, json_out=True)
    assert done.returncode == OK, done.stderr
    assert bytes.fromhex(done.json["hex"]) == expected
    assert done.json["rc"] == 0 and done.json["name"] == "ECI_NO_ERROR"


def test_call_from_file_and_human_output(kvl, tmp_path):
    f = tmp_path / "area.bin"
    f.write_bytes(b"file data 0123456789")
    done = kvl("call", "ECHO", "--file", f)
    assert done.returncode == OK
    out = done.stdout.decode()
    assert "ECHO: rc 0 (ECI_NO_ERROR), 20 bytes" in out
    assert "66 69 6c 65 20 64 61 74  61 20 30 31 32 33 34 35  |file data 012345|" in out


def test_codepage_reply_shown_decoded(kvl):
    done = kvl("call", "ECHO", "HELLO", "--codepage", "IBM037", json_out=True)
    assert done.json["hex"] == "c8c5d3d3d6"
    assert done.json["text"] == "HELLO"


@pytest.mark.parametrize("args,code,name", [
    (["call", "ABEND", "AB12"], PROGRAM, "ECI_ERR_TRANSACTION_ABEND"),
    (["call", "ECHO", "x", "--server", "NOWHERE"], PROGRAM, "ECI_ERR_UNKNOWN_SERVER"),
    (["call", "ECHO", "x", "--server", "SECURE"], PROGRAM, "ECI_ERR_SECURITY_ERROR"),
    (["call", "PROGRAM99", "x"], USAGE, "KVL_CPP_ERR_BADFIELD"),
    (["--port", "1", "ping"], CONNECTION, "KVL_ERR_CONNECTFAILED"),
])
def test_exit_codes_by_failure_class(kvl, args, code, name):
    done = kvl(*args, json_out=True)
    assert done.returncode == code, done.stderr
    assert done.json["name"] == name
    assert done.json["exit"] == code


@pytest.mark.parametrize("args", [
    ["call"],
    ["call", "ECHO", "--hex", "abc"],
    ["call", "ECHO", "x", "--hex", "41"],
    ["call", "ECHO", "--file", "/no/such/file"],
    ["call", "ECHO", "x", "--commit"],
    ["call", "ECHO", "x", "--codepage", "NO-SUCH-PAGE"],
    ["call", "CHANECHO", "-c", "BAD"],
    ["--trace", "9", "version"],
    ["nosuchcommand"],
    ["--port", "0", "ping"],
])
def test_usage_errors_name_the_problem(kvl, args):
    done = kvl(*args)
    assert done.returncode == USAGE
    assert done.stderr.strip(), "a usage error says what was wrong"


def test_abend_human_output_names_code(kvl):
    done = kvl("call", "ABEND", "XY99")
    assert done.returncode == PROGRAM
    assert "ECI_ERR_TRANSACTION_ABEND (-7), abend XY99" in done.stderr.decode()


def test_async_shows_qualifier_and_collection(kvl):
    done = kvl("call", "ECHO", "later", "--async")
    out = done.stdout.decode()
    assert done.returncode == OK
    assert "message qualifier" in out and "collected the reply" in out
    j = kvl("call", "ECHO", "later", "--async", json_out=True).json
    assert j["msgQual"] >= 1 and bytes.fromhex(j["hex"]) == b"later"


def test_channel_containers_every_form(kvl, tmp_path):
    f = tmp_path / "c.bin"
    f.write_bytes(b"\x01\x02")
    done = kvl("call", "CHANCTL", "--channel", "ORDERS",
               "-c", "EMUCTL=ADD NEWONE added;MOD TEXT changed;DEL GONE",
               "-c", "TEXT,CHAR,37=old", "-c", "GONE=bye", "-c", f"FILE@{f}", "-c", "HEX:cafe",
               json_out=True)
    assert done.returncode == OK, done.stderr
    reply = {c["name"]: c for c in done.json["reply"]["containers"]}
    assert done.json["reply"]["channel"] == "ORDERS"
    assert reply["NEWONE"]["text"] == "added"
    assert reply["TEXT"]["text"] == "changed" and reply["TEXT"]["ccsid"] == 37
    assert "GONE" not in reply
    assert reply["FILE"]["type"] == "BIT" and reply["FILE"]["hex"] == "0102"
    assert reply["HEX"]["hex"] == "cafe"
    table = kvl("call", "CHANECHO", "-c", "A=alpha").stdout.decode()
    assert "CONTAINER" in table and "alpha" in table


def test_channel_async(kvl):
    done = kvl("call", "CHANECHO", "-c", "A=alpha", "--async", json_out=True)
    assert done.returncode == OK
    assert done.json["reply"]["containers"][0]["text"] == "alpha"


@pytest.mark.parametrize("ending,outcome", [(["--commit"], "committed"), (["--backout"], "backed out"),
                                            ([], "backed out")])
def test_script_in_a_unit_of_work(kvl, ending, outcome):
    script = b"# two calls in one unit\nLUW first-call--------\n\nLUW hex:41424344454647484950515253545556\n"
    done = kvl("call", "--script", "-", "--begin", *ending, input=script, json_out=True)
    assert done.returncode == OK, done.stderr
    assert done.json["unit"] == outcome
    texts = [c["text"] for c in done.json["calls"]]
    assert "CALL 1" in texts[0] and "CALL 2" in texts[1]


def test_script_failure_backs_out_and_stops(kvl):
    script = b"LUW x\nABEND AB01\nECHO never\n"
    done = kvl("call", "--script", "-", "--begin", "--commit", input=script, json_out=True)
    assert done.returncode == PROGRAM
    assert [c["program"] for c in done.json["calls"]] == ["LUW", "ABEND"]
    assert done.json["calls"][1]["line"] == 2


def test_systems_ping_version(kvl):
    j = kvl("systems", json_out=True).json
    assert {"name": "SECURE", "description": "Checks passwords"} in j["systems"]
    ping = kvl("ping", json_out=True)
    assert ping.returncode == OK and ping.json["ms"] >= 0
    assert "answered" in kvl("ping").stdout.decode()
    v = kvl("version", json_out=True).json
    assert v["api"] and v["library"]


def test_verify_and_passwd_with_passwords_from_environment(kvl):
    ok = kvl("verify", "ALICE", env={"KVL_PASSWORD": "secret"}, json_out=True)
    assert ok.returncode == OK and ok.json["details"]["invalidAttempts"] >= 0
    bad = kvl("verify", "ALICE", env={"KVL_PASSWORD": "wrong"}, json_out=True)
    assert bad.returncode == PROGRAM and bad.json["name"] == "ESI_ERR_PASSWORD_INVALID"
    changed = kvl("passwd", "CAROL", env={"KVL_PASSWORD": "oldpw", "KVL_NEW_PASSWORD": "newpw"})
    assert changed.returncode == OK, changed.stderr
    assert kvl("verify", "CAROL", env={"MYPW": "newpw"}, json_out=False).returncode == USAGE  # KVL_PASSWORD unset
    assert kvl("verify", "CAROL", "--password-env", "MYPW", env={"MYPW": "newpw"}).returncode == OK


def test_verify_without_terminal_or_password_is_a_usage_error(kvl):
    done = kvl("verify", "ALICE")
    assert done.returncode == USAGE
    assert "KVL_PASSWORD" in done.stderr.decode()


def test_password_insecure_warns(kvl):
    done = kvl("verify", "ALICE", "--password-insecure", "secret")
    assert done.returncode == OK
    assert "warning" in done.stderr.decode()


def test_password_never_in_arguments_or_trace(gateway, tmp_path):
    trace = tmp_path / "trace.txt"
    env = {k: v for k, v in os.environ.items() if not k.startswith("KVL_")}
    env.update({"KVL_PORT": str(gateway), "KVL_PASSWORD": "secret", "HOME": str(tmp_path)})
    bin_dir = os.environ.get("KVL_BIN_DIR", "")
    # A call that waits in the server, so that its process can be looked at.
    argv = [os.path.join(bin_dir, "kvl"), "--trace", f"5:{trace}", "call", "DELAY", "800",
            "--server", "SECURE", "--user", "ALICE"]
    proc = subprocess.Popen(argv, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, start_new_session=True)
    time.sleep(0.3)
    cmdline = open(f"/proc/{proc.pid}/cmdline", "rb").read()
    out, err = proc.communicate(timeout=60)
    assert proc.returncode == OK, err
    assert b"secret" not in cmdline
    text = trace.read_bytes()
    assert b"KVL_ECI_Execute" in text, "the trace was written"
    assert b"secret" not in text
    assert b"secret" not in out + err


def test_settings_from_profile_and_precedence(kvl, gateway, tmp_path):
    profile = tmp_path / "kvl.ini"
    profile.write_text(f"host = 127.0.0.1\nport = {gateway}\n")
    # The profile names the port; the environment's wrong port loses to an option only.
    assert kvl("--profile", profile, "ping", env={"KVL_PORT": None}).returncode == OK
    assert kvl("ping", env={"KVL_PROFILE": str(profile), "KVL_PORT": "1"}).returncode == CONNECTION
    assert kvl("--port", gateway, "ping", env={"KVL_PORT": "1"}).returncode == OK


def test_repeat_with_concurrency_reports_rate_and_quantiles(kvl):
    done = kvl("call", "ECHO", "load", "--repeat", "200", "--concurrency", "4", json_out=True)
    assert done.returncode == OK
    j = done.json
    assert j["calls"] == 200 and j["failed"] == 0 and j["concurrency"] == 4
    lat = j["latencyMs"]
    assert 0 < lat["p50"] <= lat["p90"] <= lat["p99"] <= lat["max"]
    assert j["callsPerSecond"] > 0
    failing = kvl("call", "ABEND", "AB12", "-n", "10", "-C", "2", json_out=True)
    assert failing.returncode == PROGRAM and failing.json["failed"] == 10
    assert "\r" not in kvl("call", "ECHO", "x", "-n", "20").stderr.decode(), "no progress line without a terminal"


@pytest.mark.parametrize("cmd", ["call", "systems", "verify", "passwd", "ping", "version"])
def test_help_for_each_subcommand(kvl, cmd):
    done = kvl(cmd, "--help")
    assert done.returncode == OK
    assert cmd in done.stdout.decode()
