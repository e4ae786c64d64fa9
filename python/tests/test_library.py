"""How the package finds the library: each route in a fresh interpreter."""

import ctypes.util
import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

import kvlclient

PACKAGE_ROOT = Path(__file__).resolve().parent.parent
PROBE = ("import kvlclient, sys\n"
         "try:\n"
         "    path = kvlclient.library_path()\n"
         "except kvlclient.LibraryNotFound as e:\n"
         "    print('NOTFOUND', e); sys.exit(3)\n"
         "maps = [l.split()[-1] for l in open('/proc/self/maps') if 'kvlclient.so' in l]\n"
         "print(path); print(maps[0] if maps else ''); print(kvlclient.api_version())\n")


@pytest.fixture(scope="module")
def built_library():
    return Path(kvlclient.library_path()).resolve()


def run_probe(pythonpath, cwd, **env_changes):
    env = {k: v for k, v in os.environ.items() if k not in ("KVLCLIENT_LIBRARY", "LD_LIBRARY_PATH", "PYTHONPATH")}
    env.update(PYTHONPATH=str(pythonpath), **env_changes)
    proc = subprocess.run([sys.executable, "-c", PROBE], cwd=cwd, env=env, capture_output=True, text=True,
                          timeout=60)
    return proc.returncode, proc.stdout.splitlines(), proc.stderr


def copy_package(dest):
    shutil.copytree(PACKAGE_ROOT / "kvlclient", dest / "kvlclient", ignore=shutil.ignore_patterns("__pycache__"))
    return dest / "kvlclient"


pytestmark = pytest.mark.skipif(not sys.platform.startswith("linux"), reason="routes checked on Linux")


def test_environment_variable_names_the_file_or_its_folder(built_library, tmp_path):
    for value in (built_library, built_library.parent):
        rc, out, err = run_probe(PACKAGE_ROOT, tmp_path, KVLCLIENT_LIBRARY=str(value))
        assert rc == 0, err
        assert Path(out[1]).resolve() == built_library.resolve()


def test_environment_variable_naming_nothing_is_reported(tmp_path):
    rc, out, _ = run_probe(PACKAGE_ROOT, tmp_path, KVLCLIENT_LIBRARY=str(tmp_path / "missing.so"))
    assert rc == 3 and "KVLCLIENT_LIBRARY" in out[0] and "missing.so" in out[0]


def test_library_next_to_the_package(built_library, tmp_path):
    pkg = copy_package(tmp_path)
    shutil.copy(built_library, pkg / "libkvlclient.so")
    rc, out, err = run_probe(tmp_path, tmp_path)
    assert rc == 0, err
    assert Path(out[1]) == (pkg / "libkvlclient.so").resolve()


def test_library_in_the_install_prefix(built_library, tmp_path):
    site = tmp_path / "lib" / "python3" / "site-packages"
    copy_package(site)
    shutil.copy(built_library, tmp_path / "lib" / "libkvlclient.so")
    rc, out, err = run_probe(site, tmp_path)
    assert rc == 0, err
    assert Path(out[1]) == (tmp_path / "lib" / "libkvlclient.so").resolve()


def test_library_installed_on_the_system(built_library, tmp_path):
    copy_package(tmp_path)
    rc, out, err = run_probe(tmp_path, tmp_path, LD_LIBRARY_PATH=str(built_library.parent))
    assert rc == 0, err
    assert Path(out[1]).parent == built_library.parent


@pytest.mark.skipif(bool(ctypes.util.find_library("kvlclient")), reason="a library is installed on this machine")
def test_no_library_anywhere(tmp_path):
    copy_package(tmp_path)
    rc, out, _ = run_probe(tmp_path, tmp_path)
    assert rc == 3 and out[0].startswith("NOTFOUND") and "KVLCLIENT_LIBRARY" in out[0]


def test_pip_installs_offline_into_a_venv(built_library, tmp_path):
    source = tmp_path / "src"
    shutil.copytree(PACKAGE_ROOT, source, ignore=shutil.ignore_patterns("__pycache__", "tests", "build",
                                                                         "*.egg-info"))
    venv = tmp_path / "venv"
    subprocess.run([sys.executable, "-m", "venv", str(venv)], check=True, timeout=120)
    py = venv / "bin" / "python"
    env = {k: v for k, v in os.environ.items() if not k.startswith("PIP_") and k != "PYTHONPATH"}
    pip = subprocess.run([str(py), "-m", "pip", "install", "--no-index", "--no-cache-dir", str(source)],
                         env=env, capture_output=True, text=True, timeout=300)
    assert pip.returncode == 0, pip.stdout + pip.stderr
    check = ("import kvlclient, importlib.metadata as m\n"
             "print(kvlclient.__file__)\n"
             "print(kvlclient.api_version())\n"
             "print([e.value for e in m.entry_points(group='pytest11') if e.name == 'kvlclient'])\n")
    env["KVLCLIENT_LIBRARY"] = str(built_library)
    proc = subprocess.run([str(py), "-c", check], cwd=tmp_path, env=env, capture_output=True, text=True,
                          timeout=60)
    assert proc.returncode == 0, proc.stderr
    lines = proc.stdout.splitlines()
    assert lines[0].startswith(str(venv)) and lines[2] == "['kvlclient.pytest_plugin']"
    assert (Path(lines[0]).parent / "py.typed").exists()
