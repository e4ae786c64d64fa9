"""TLS through the package: a call over mutual TLS, and refused certificates as
TlsError with the library's reason. The certificates are the TLS tests' own
(made at run time by ``kvl_test_certs``, named by KVLCLIENT_TLS_CERT_TOOL)."""

import os
import subprocess

import pytest

import kvlclient
from kvlclient import codes
from kvlclient.testing import Emulator


@pytest.fixture(scope="module")
def certs(tmp_path_factory):
    tool = os.environ.get("KVLCLIENT_TLS_CERT_TOOL", "")
    if not kvlclient.tls_available():
        pytest.skip("the library has no TLS")
    if not os.path.isfile(tool):
        pytest.skip("no certificate tool: set KVLCLIENT_TLS_CERT_TOOL to kvl_test_certs")
    folder = tmp_path_factory.mktemp("certs")
    env = dict(os.environ, ASAN_OPTIONS="detect_leaks=0")
    subprocess.run([tool, str(folder)], check=True, env=env, timeout=60)
    return folder


@pytest.fixture(scope="module")
def tls_emu(certs):
    args = ["--tls-cert", certs / "server.pem", "--tls-key", certs / "server.key",
            "--tls-client-ca", certs / "ca.pem", "--tls-require-client-cert"]
    with Emulator(extra_args=args) as e:
        yield e


def test_call_over_mutual_tls(tls_emu, certs):
    with kvlclient.connect(tls_emu.host, tls_emu.port, connect_timeout=10, tls=True, ca_file=str(certs / "ca.pem"),
                           cert_file=str(certs / "client.pem"), key_file=str(certs / "client.key")) as conn:
        assert conn.call("ECHO", b"over TLS").data == b"over TLS"
        assert conn.call_async("ECHO", b"async TLS").result(10).data == b"async TLS"
    options = kvlclient.TlsOptions(ca_file=str(certs / "ca.pem"), cert_file=str(certs / "client.pem"),
                                   key_file=str(certs / "client.key"), server_name="localhost")
    with kvlclient.connect(tls_emu.host, tls_emu.port, connect_timeout=10, tls=options) as conn:
        assert conn.call("ECHO", b"by options").data == b"by options"


@pytest.mark.parametrize("kw, code", [
    ({"ca_file": "rogue-ca.pem"}, codes.KVL_EXT_ERR_TLS_VERIFY),
    ({"ca_file": "ca.pem", "server_name": "gateway.example"}, codes.KVL_EXT_ERR_TLS_VERIFY),
    ({"ca_file": "none.pem"}, codes.KVL_EXT_ERR_TLS_CONFIG),
])
def test_refused_certificates_raise_tls_errors_with_the_reason(tls_emu, certs, kw, code):
    kw = dict(kw)
    kw["ca_file"] = str(certs / kw["ca_file"])
    with pytest.raises(kvlclient.TlsError) as info:
        kvlclient.connect(tls_emu.host, tls_emu.port, connect_timeout=10, cert_file=str(certs / "client.pem"),
                          key_file=str(certs / "client.key"), **kw)
    assert info.value.code == code
    assert info.value.detail, "the library's reason"
    # Not verifying (tests only) accepts what the untrusted CA signed.
    if kw["ca_file"].endswith("rogue-ca.pem"):
        with kvlclient.connect(tls_emu.host, tls_emu.port, connect_timeout=10, verify=False,
                               cert_file=str(certs / "client.pem"), key_file=str(certs / "client.key"),
                               **kw) as conn:
            assert conn.call("ECHO", b"unverified").data == b"unverified"
