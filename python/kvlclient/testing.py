"""The Gateway emulator as a process, for tests of code that uses kvlclient.

    with Emulator(servers=[("ORISA", "First")], users=[("ALICE", "secret")]) as emu:
        with kvlclient.connect(emu.host, emu.port) as conn:
            conn.call("ECHO", b"hi", server="ORISA")

The program ``kvl-gateway-emulator`` is found through ``KVLCLIENT_EMULATOR``
(its path), next to the package, next to the loaded library's build tree
(``../bin``), or on ``PATH``. pytest fixtures: :mod:`kvlclient.pytest_plugin`.
"""

from __future__ import annotations

import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Iterable, List, Optional, Sequence, Tuple

ENV_VAR = "KVLCLIENT_EMULATOR"
PROGRAM = "kvl-gateway-emulator" + (".exe" if sys.platform == "win32" else "")


def find_emulator() -> str:
    """The emulator program's path; raises FileNotFoundError naming what was tried."""
    env = os.environ.get(ENV_VAR)
    if env:
        if Path(env).is_file():
            return env
        raise FileNotFoundError(f"{ENV_VAR}={env} is not a file")
    tried = []
    folders = [Path(__file__).resolve().parent]
    lib_path = os.environ.get("KVLCLIENT_LIBRARY")
    if lib_path:
        lp = Path(lib_path)
        folders.append((lp if lp.is_dir() else lp.parent).parent / "bin")
    for folder in folders:
        candidate = folder / PROGRAM
        tried.append(str(candidate))
        if candidate.is_file():
            return str(candidate)
    found = shutil.which(PROGRAM)
    if found:
        return found
    raise FileNotFoundError(f"{PROGRAM} not found (tried {', '.join(tried)} and PATH); set {ENV_VAR}")


class Emulator:
    """A ``kvl-gateway-emulator`` process on a free loopback port.

    Args:
        servers: (name, description) pairs replacing the default server EMUSRV.
        secure_servers: (name, description) pairs of servers that check passwords.
        users: (userid, password, *flags) with flags among expired, revoked,
            reject-new, rc=CODE.
        programs: (name, builtin) pairs: NAME behaves like a built-in program.
        handshake: accept (default), refuse, silent, drop-on-accept, ...
        extra_config: further configuration lines.
        start_timeout: seconds to wait for the port.
    """

    def __init__(self, *, servers: Sequence[Tuple[str, str]] = (), secure_servers: Sequence[Tuple[str, str]] = (),
                 users: Iterable[Sequence[str]] = (), programs: Sequence[Tuple[str, str]] = (),
                 handshake: Optional[str] = None, extra_config: Sequence[str] = (), program: Optional[str] = None,
                 start_timeout: float = 20.0) -> None:
        lines: List[str] = []
        lines += [f"server {n} {d}" for n, d in servers]
        lines += [f"secure-server {n} {d}" for n, d in secure_servers]
        lines += ["user " + " ".join(u) for u in users]
        lines += [f"program {n} {b}" for n, b in programs]
        if handshake:
            lines.append(f"handshake {handshake}")
        lines += list(extra_config)
        self.config = "\n".join(lines) + "\n"
        self.program = program or find_emulator()
        self.start_timeout = start_timeout
        self.host = "127.0.0.1"
        self.port = 0
        self._proc: Optional[subprocess.Popen] = None
        self._dir: Optional[tempfile.TemporaryDirectory] = None

    def start(self) -> "Emulator":
        """Starts the process and waits until it listens; returns self."""
        self._dir = tempfile.TemporaryDirectory(prefix="kvlemu-")
        folder = Path(self._dir.name)
        (folder / "emulator.conf").write_text(self.config)
        port_file = folder / "port"
        self.log_path = folder / "emulator.log"
        self._log = open(self.log_path, "wb")
        self._proc = subprocess.Popen(
            [self.program, "-a", self.host, "-p", "0", "-c", str(folder / "emulator.conf"), "--port-file",
             str(port_file), "-v", "1"], stdout=self._log, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + self.start_timeout
        while time.monotonic() < deadline:
            if self._proc.poll() is not None:
                self.stop()
                raise RuntimeError(f"the emulator ended at start (exit {self._proc.returncode}): {self.log()}")
            text = port_file.read_text().strip() if port_file.exists() else ""
            if text.isdigit() and int(text) > 0:
                self.port = int(text)
                return self
            time.sleep(0.02)
        self.stop()
        raise TimeoutError(f"the emulator did not listen within {self.start_timeout} s")

    def log(self) -> str:
        """What the emulator has printed (one line per flow)."""
        try:
            return Path(self.log_path).read_text(errors="replace")
        except OSError:
            return ""

    def wait_for_log(self, text: str, count: int = 1, timeout: float = 10.0) -> bool:
        """Waits until ``text`` appears ``count`` times in the log; False on time-out."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.log().count(text) >= count:
                return True
            time.sleep(0.02)
        return False

    def kill(self) -> None:
        """Ends the process at once, as a crash would: its connections drop without replies."""
        if self._proc is not None and self._proc.poll() is None:
            self._proc.kill()
            self._proc.wait(10)

    @property
    def running(self) -> bool:
        return self._proc is not None and self._proc.poll() is None

    def stop(self) -> None:
        """Ends the process (SIGTERM, then kill after 10 s). Safe to call twice."""
        if self._proc is not None and self._proc.poll() is None:
            self._proc.terminate()
            try:
                self._proc.wait(10)
            except subprocess.TimeoutExpired:
                self._proc.kill()
                self._proc.wait(10)
        if getattr(self, "_log", None) is not None:
            self._log.close()
            self._log = None
        if self._dir is not None:
            self._dir.cleanup()
            self._dir = None

    def __enter__(self) -> "Emulator":
        return self.start()

    def __exit__(self, *exc: object) -> None:
        self.stop()
