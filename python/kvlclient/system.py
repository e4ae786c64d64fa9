"""Process-wide settings of the library: versions, the API trace, code names."""

from __future__ import annotations

import os
from ctypes import byref, c_char_p, c_int
from typing import Optional, Union

from ._library import lib
from .errors import error_for, rc_name  # noqa: F401  (rc_name is part of this module's interface)


def _check(rc: int) -> None:
    if rc != 0:
        raise error_for(rc)


def api_version() -> str:
    """The version of the API the library implements."""
    out = c_char_p()
    _check(lib().KVL_getAPIVersion(byref(out)))
    return (out.value or b"").decode("ascii", "replace")


def library_version() -> str:
    """The version and build level of the loaded library."""
    out = c_char_p()
    _check(lib().KVL_getDLLVersion(byref(out)))
    return (out.value or b"").decode("ascii", "replace")


def set_trace_level(level: int) -> None:
    """Sets the API trace level: 0 (off) to 5. Raises InvalidArgument otherwise."""
    _check(lib().KVL_setAPITraceLevel(int(level)))


def get_trace_level() -> int:
    """The API trace level in force."""
    level = c_int(0)
    _check(lib().KVL_getAPITraceLevel(byref(level)))
    return level.value


def set_trace_file(path: Optional[Union[str, "os.PathLike[str]"]]) -> None:
    """Appends the trace to ``path`` from now on; None returns it to standard error."""
    _check(lib().KVL_setAPITraceFile(None if path is None else os.fsencode(path)))


def set_trace_data_length(length: int) -> None:
    """Bounds the bytes shown by each hexadecimal dump of the trace."""
    lib().KVL_setAPITraceDataLength(int(length))


def set_trace_data_offset(offset: int) -> None:
    """The offset at which hexadecimal dumps start."""
    lib().KVL_setAPITraceDataOffset(int(offset))


def dump_state() -> None:
    """Writes the library's state to the trace destination, whatever the level."""
    _check(lib().KVL_dumpState())


def dump_channels() -> None:
    """Writes every channel and container to the trace destination."""
    _check(lib().KVL_ECI_dumpChannels())


def has_extensions() -> bool:
    """Whether the loaded library exports the extension API (kvl_ext.h)."""
    return lib().ext


def tls_available() -> bool:
    """Whether the loaded library can open TLS connections."""
    library = lib()
    return library.has("KVL_EXT_tlsAvailable") and library.KVL_EXT_tlsAvailable() == 1
