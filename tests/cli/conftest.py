"""Fixtures of the kvl command tests: the stand-alone emulator on a free port and
a runner for kvl with a clean environment."""
import json
import os
import subprocess
import time

import pytest

BIN = os.environ.get("KVL_BIN_DIR", "")


def _exe(name):
    return os.path.join(BIN, name)


@pytest.fixture(scope="session")
def gateway(tmp_path_factory):
    """Starts kvl-gateway-emulator with two servers and two users; yields its port."""
    tmp = tmp_path_factory.mktemp("gw")
    conf = tmp / "gw.conf"
    conf.write_text(
        "server EMUSRV Gateway emulator server\n"
        "secure-server SECURE Checks passwords\n"
        "user ALICE secret\n"
        "user CAROL oldpw\n"
    )
    port_file = tmp / "port"
    proc = subprocess.Popen(
        [_exe("kvl-gateway-emulator"), "-p", "0", "-c", str(conf), "--port-file", str(port_file)],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.time() + 20
    while time.time() < deadline and not (port_file.exists() and port_file.read_text().strip()):
        time.sleep(0.05)
    assert port_file.exists(), "the emulator did not start"
    yield int(port_file.read_text().strip())
    proc.terminate()
    proc.wait(timeout=20)


@pytest.fixture
def kvl(gateway, tmp_path):
    """Runs kvl against the emulator, with no terminal (a new session), bounded in time."""

    def run(*args, env=None, input=None, json_out=False):
        environment = {k: v for k, v in os.environ.items() if not k.startswith("KVL_")}
        environment.update({"KVL_PORT": str(gateway), "HOME": str(tmp_path), "APPDATA": str(tmp_path)})
        for key, value in (env or {}).items():
            if value is None:
                environment.pop(key, None)
            else:
                environment[key] = value
        argv = [_exe("kvl")] + (["--json"] if json_out else []) + [str(a) for a in args]
        done = subprocess.run(argv, input=input, capture_output=True, env=environment, timeout=60,
                              start_new_session=True)
        if json_out and done.stdout.strip():
            done.json = json.loads(done.stdout)
        return done

    return run
