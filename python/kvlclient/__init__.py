"""kvlclient for Python: call transaction programs through a Gateway.

Loads the kvlclient shared library with ctypes (no compiler needed) and wraps
its C API::

    import kvlclient

    with kvlclient.connect("gateway.example", 2006) as conn:
        reply = conn.call("PAYROLL", b"0042", reply_length=200, server="ORISA")
        print(reply.data, reply.abend)

The library is found through ``KVLCLIENT_LIBRARY``, next to this package, or
on the system (see :mod:`kvlclient._library`).
"""

from __future__ import annotations

from . import codes
from ._library import ENV_VAR as LIBRARY_ENV_VAR
from ._library import load_library
from .channel import CCSID_CODECS, Channel, ContainerInfo
from .connection import (CallResult, ChannelResult, Connection, SecurityDetails, SystemInfo, TlsOptions,
                         UnitOfWork, close_all, connect)
from .errors import (CallTimeout, ChannelError, ConnectFailed, ConnectionClosed, ConnectionLost,
                     ContainerNotFound, InvalidArgument, KvlError, LibraryNotFound, LibrarySystemError, NoReply,
                     NoServer, NotSupported, PasswordExpired, PasswordRejected, ProgramAbend, SecurityError,
                     ServerError, TlsError, UnitOfWorkError, UnknownServer, error_for, rc_name)
from .system import (api_version, dump_channels, dump_state, get_trace_level, has_extensions, library_version,
                     set_trace_data_length, set_trace_data_offset, set_trace_file, set_trace_level, tls_available)

__version__ = "9.1.0.4"


def library_path() -> str:
    """The file the shared library was loaded from (loading it if need be)."""
    return load_library().path


__all__ = [
    "codes", "LIBRARY_ENV_VAR", "load_library", "library_path",
    "Channel", "ContainerInfo", "CCSID_CODECS",
    "CallResult", "ChannelResult", "Connection", "SecurityDetails", "SystemInfo", "TlsOptions", "UnitOfWork",
    "close_all", "connect",
    "KvlError", "InvalidArgument", "ConnectFailed", "TlsError", "ConnectionLost", "ConnectionClosed",
    "CallTimeout", "ProgramAbend", "ServerError", "UnknownServer", "NoServer", "UnitOfWorkError",
    "SecurityError", "PasswordExpired", "PasswordRejected", "ChannelError", "ContainerNotFound", "NoReply",
    "LibrarySystemError", "NotSupported", "LibraryNotFound", "error_for", "rc_name",
    "api_version", "library_version", "set_trace_level", "get_trace_level", "set_trace_file",
    "set_trace_data_length", "set_trace_data_offset", "dump_state", "dump_channels", "has_extensions",
    "tls_available",
]
