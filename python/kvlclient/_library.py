"""Finding and loading the shared library, and the prototypes of its functions.

Search order (the first that exists wins):

1. the ``KVLCLIENT_LIBRARY`` environment variable: a file, or a directory holding it;
2. next to the package: the package's own folder, then the ``lib`` folder of the
   prefix it is installed under (``<prefix>/lib/python3.X/site-packages/kvlclient``);
3. installed on the system: the loader's own search (``LD_LIBRARY_PATH``, the
   ld.so cache; ``PATH`` on Windows).
"""

from __future__ import annotations

import ctypes
import ctypes.util
import os
import sys
import threading
from ctypes import POINTER, c_char_p, c_int, c_size_t, c_ushort, c_void_p
from pathlib import Path
from typing import List, Optional

from . import _types as t
from .errors import LibraryNotFound, _set_namer

ENV_VAR = "KVLCLIENT_LIBRARY"

if sys.platform == "win32":
    LIBRARY_NAMES = ["KVLCLIENT.dll"]
elif sys.platform == "darwin":
    LIBRARY_NAMES = ["libkvlclient.dylib"]
else:
    LIBRARY_NAMES = ["libkvlclient.so", "libkvlclient.so.9"]

_PACKAGE_DIR = Path(__file__).resolve().parent


def _in_directory(folder: Path) -> Optional[Path]:
    for name in LIBRARY_NAMES:
        candidate = folder / name
        if candidate.is_file():
            return candidate
    return None


def candidate_paths() -> List[str]:
    """Where the library would be loaded from, in order; the last entries may be bare names."""
    found: List[str] = []
    env = os.environ.get(ENV_VAR, "")
    if env:
        p = Path(env)
        hit = _in_directory(p) if p.is_dir() else (p if p.is_file() else None)
        if hit is None:
            raise LibraryNotFound(f"{ENV_VAR}={env} names no {' or '.join(LIBRARY_NAMES)}")
        return [str(hit)]
    nearby = [_PACKAGE_DIR]
    if len(_PACKAGE_DIR.parents) >= 3 and _PACKAGE_DIR.parents[2].name in ("lib", "lib64", "Lib"):
        nearby.append(_PACKAGE_DIR.parents[2])
    for folder in nearby:
        hit = _in_directory(folder)
        if hit is not None:
            found.append(str(hit))
    system = ctypes.util.find_library("KVLCLIENT" if sys.platform == "win32" else "kvlclient")
    if system:
        found.append(system)
    found.extend(LIBRARY_NAMES)  # the loader's own search path
    return found


class Library:
    """The loaded library with typed functions. ``ext`` tells whether the extension API is there."""

    def __init__(self, path: str) -> None:
        self.path = path
        self.dll = ctypes.CDLL(path)
        self._declare()
        self.ext = self.has("KVL_EXT_getCompletionHandle")

    def has(self, symbol: str) -> bool:
        """Whether the library exports ``symbol``."""
        try:
            getattr(self.dll, symbol)
            return True
        except AttributeError:
            return False

    def _fn(self, name: str, restype, *argtypes) -> None:
        f = getattr(self.dll, name)
        f.restype = restype
        f.argtypes = list(argtypes)
        setattr(self, name, f)

    def _declare(self) -> None:
        pGw = POINTER(t.GwTok)
        pChan = POINTER(t.ChanTok)
        I = c_int
        # kvlclient.h
        self._fn("KVL_setAPITraceLevel", I, I)
        self._fn("KVL_getAPITraceLevel", I, POINTER(I))
        self._fn("KVL_setAPITraceFile", I, c_char_p)
        self._fn("KVL_setAPITraceDataLength", None, I)
        self._fn("KVL_setAPITraceDataOffset", None, I)
        self._fn("KVL_dumpState", I)
        self._fn("KVL_getAPIVersion", I, POINTER(c_char_p))
        self._fn("KVL_getDLLVersion", I, POINTER(c_char_p))
        self._fn("KVL_getRcString", c_char_p, I, c_char_p)
        self._fn("KVL_openRemoteGatewayConnectionApplid", I, c_char_p, I, pGw, I, c_char_p, c_char_p)
        self._fn("KVL_closeGatewayConnection", I, pGw)
        self._fn("KVL_purgeGatewayConnection", I, pGw, I)
        self._fn("KVL_closeAllGatewayConnections", I)
        self._fn("KVL_getApplid", I, t.GwTok, POINTER(c_char_p))
        self._fn("KVL_getApplidQualifier", I, t.GwTok, POINTER(c_char_p))
        self._fn("KVL_listSystems", I, t.GwTok, POINTER(c_ushort), POINTER(t.SystemInfo))
        # kvl_eci.h
        self._fn("KVL_ECI_Execute", I, t.GwTok, POINTER(t.EciParms))
        self._fn("KVL_ECI_Execute_Channel", I, t.GwTok, POINTER(t.EciParms))
        # kvl_channel.h
        self._fn("ECI_createChannel", I, c_char_p, pChan)
        self._fn("ECI_deleteChannel", I, pChan)
        self._fn("ECI_deleteAllChannels", I)
        self._fn("ECI_getChannelName", I, t.ChanTok, c_char_p)
        self._fn("KVL_ECI_dumpChannels", I)
        self._fn("ECI_createContainer", I, t.ChanTok, c_char_p, I, I, c_void_p, c_size_t)
        self._fn("ECI_deleteContainer", I, t.ChanTok, c_char_p)
        self._fn("ECI_getContainerData", I, t.ChanTok, c_char_p, c_void_p, c_size_t, c_size_t, POINTER(c_size_t))
        self._fn("ECI_getContainerInfo", I, t.ChanTok, c_char_p, POINTER(t.EciContainerInfo))
        self._fn("ECI_getFirstContainer", I, t.ChanTok, POINTER(t.EciContainerInfo))
        self._fn("ECI_getNextContainer", I, t.ChanTok, POINTER(t.EciContainerInfo))
        self._fn("ECI_setContainerData", I, t.ChanTok, c_char_p, c_void_p, c_size_t)
        # kvl_esi.h
        self._fn("KVL_ESI_verifyPassword", I, t.GwTok, c_char_p, c_char_p, c_char_p, POINTER(t.EsiDetails))
        self._fn("KVL_ESI_changePassword", I, t.GwTok, c_char_p, c_char_p, c_char_p, c_char_p,
                 POINTER(t.EsiDetails))
        # kvl_ext.h: only what this build exports.
        optional = [
            ("KVL_EXT_initConnectOptions", None, POINTER(t.ConnectOptions)),
            ("KVL_EXT_openConnection", I, POINTER(t.ConnectOptions), pGw),
            ("KVL_EXT_setCallDeadline", I, t.GwTok, I),
            ("KVL_EXT_getCallDeadline", I, t.GwTok, POINTER(I)),
            ("KVL_EXT_getCompletionHandle", I, t.GwTok, POINTER(ctypes.c_ssize_t)),
            ("KVL_EXT_getLastErrorText", I, c_char_p, c_size_t),
            ("KVL_EXT_getStatistics", I, t.GwTok, POINTER(t.Statistics)),
            ("KVL_EXT_getRcName", c_char_p, I),
            ("KVL_EXT_tlsAvailable", I),
        ]
        for name, restype, *argtypes in optional:
            if self.has(name):
                self._fn(name, restype, *argtypes)

    def rc_name(self, rc: int) -> str:
        if self.has("KVL_EXT_getRcName"):
            name = self.KVL_EXT_getRcName(rc)
            return name.decode("ascii", "replace") if name else "UNKNOWN"
        buf = ctypes.create_string_buffer(40)
        self.KVL_getRcString(rc, buf)
        return buf.value.decode("ascii", "replace")

    def last_error_text(self) -> str:
        """The extension API's reason for this thread's last failure, or ''."""
        if not self.has("KVL_EXT_getLastErrorText"):
            return ""
        buf = ctypes.create_string_buffer(512)
        if self.KVL_EXT_getLastErrorText(buf, len(buf)) != 0:
            return ""
        return buf.value.decode("utf-8", "replace")


_lock = threading.Lock()
_loaded: Optional[Library] = None


def load_library(path: Optional[str] = None) -> Library:
    """Loads the library (once per process) and returns it.

    Args:
        path: a file to load instead of searching. Ignored once a library is loaded.

    Raises:
        LibraryNotFound: nothing loadable was found; the message lists what was tried.
    """
    global _loaded
    with _lock:
        if _loaded is not None:
            return _loaded
        tried: List[str] = []
        for candidate in ([path] if path else candidate_paths()):
            try:
                lib = Library(candidate)
            except OSError as e:
                tried.append(f"{candidate} ({e})")
                continue
            _loaded = lib
            _set_namer(lib.rc_name)
            return lib
        raise LibraryNotFound("kvlclient library not found; tried: " + "; ".join(tried)
                              + f". Set {ENV_VAR} to its path.")


def lib() -> Library:
    """The loaded library, loading it on first use."""
    return _loaded if _loaded is not None else load_library()
