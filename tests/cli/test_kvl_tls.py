"""kvl over TLS against the stand-alone emulator serving mutual TLS, with the
TLS tests' certificates (written by kvl_test_certs at run time)."""
import os
import subprocess
import time

import pytest

from conftest import _exe

OK, CONNECTION = 0, 3


@pytest.fixture(scope="module")
def tls_gateway(tmp_path_factory):
    """A TLS emulator and the folder of certificates; skipped when this build has no TLS."""
    tool = _exe("kvl_test_certs")
    if not os.path.isfile(tool):
        pytest.skip("no TLS in this build")
    folder = tmp_path_factory.mktemp("tls")
    subprocess.run([tool, str(folder)], check=True, timeout=60, env=dict(os.environ, ASAN_OPTIONS="detect_leaks=0"))
    port_file = folder / "port"
    proc = subprocess.Popen(
        [_exe("kvl-gateway-emulator"), "-p", "0", "--port-file", str(port_file),
         "--tls-cert", str(folder / "server.pem"), "--tls-key", str(folder / "server.key"),
         "--tls-client-ca", str(folder / "ca.pem"), "--tls-require-client-cert"],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.time() + 20
    while time.time() < deadline and not (port_file.exists() and port_file.read_text().strip()):
        time.sleep(0.05)
    assert port_file.exists(), "the emulator did not start"
    yield int(port_file.read_text().strip()), folder
    proc.terminate()
    proc.wait(timeout=20)


def test_call_over_mutual_tls_and_refusals(kvl, tls_gateway):
    port, certs = tls_gateway
    client = ["--tls", "--cert", certs / "client.pem", "--key", certs / "client.key"]
    done = kvl("--port", port, *client, "--ca", certs / "ca.pem", "call", "ECHO", "over TLS", json_out=True)
    assert done.returncode == OK, done.stderr
    assert done.json["text"] == "over TLS"

    refused = kvl("--port", port, *client, "--ca", certs / "rogue-ca.pem", "ping")
    assert refused.returncode == CONNECTION
    assert "KVL_EXT_ERR_TLS_VERIFY" in refused.stderr.decode()
    named = kvl("--port", port, *client, "--ca", certs / "ca.pem", "--server-name", "gateway.example", "ping",
                json_out=True)
    assert named.json["name"] == "KVL_EXT_ERR_TLS_VERIFY" and named.json["detail"]
    insecure = kvl("--port", port, *client, "--ca", certs / "rogue-ca.pem", "--insecure", "ping")
    assert insecure.returncode == OK, insecure.stderr
    plain = kvl("--port", port, "--connect-timeout", "3", "ping")
    assert plain.returncode == CONNECTION, "a plain client is not served by a TLS Gateway"
