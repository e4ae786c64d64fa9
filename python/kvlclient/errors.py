"""Exceptions raised by kvlclient, one class per family of return codes.

Every exception raised for a library code is a :class:`KvlError` and carries
``code`` (the library's return code) and ``name`` (its symbolic name, as the
library names it). :func:`error_for` picks the class for a code.
"""

from __future__ import annotations

from typing import Callable, Dict, Optional, Type

from . import codes as c


class KvlError(Exception):
    """A call of the library failed.

    Attributes:
        code: the library's return code (``None`` for failures found in Python).
        name: the code's symbolic name, e.g. ``"KVL_ERR_LOSTGWCON"``.
        detail: the library's own explanation when it gives one, else ``""``.
    """

    def __init__(self, code: Optional[int], name: str = "", detail: str = "", message: str = "") -> None:
        self.code = code
        self.name = name or (rc_name(code) if code is not None else "")
        self.detail = detail
        if not message:
            message = f"{self.name} ({code})" if code is not None else self.name
            if detail:
                message += f": {detail}"
        super().__init__(message)


class InvalidArgument(KvlError, ValueError):
    """The library refused an argument (a length, a name, a level, ...)."""


class ConnectFailed(KvlError, ConnectionError):
    """The connection to the Gateway could not be opened."""


class TlsError(ConnectFailed):
    """The TLS layer failed: configuration, handshake, verification or records."""


class ConnectionLost(KvlError, ConnectionError):
    """The connection broke or was ended by the Gateway while in use."""


class ConnectionClosed(ConnectionLost):
    """The connection is closed or closing, by this process or by the Gateway."""


class CallTimeout(KvlError, TimeoutError):
    """No reply in time (request or response time-out, or a deadline)."""


class ProgramAbend(KvlError):
    """The server program ended abnormally.

    Attributes:
        abend: the four-character abend code of the reply.
        data: the COMMAREA bytes of the reply, when it carried any.
    """

    def __init__(self, code: Optional[int], name: str = "", detail: str = "", message: str = "",
                 abend: str = "", data: bytes = b"") -> None:
        self.abend = abend
        self.data = data
        if not message and abend:
            message = f"{name or rc_name(code)} ({code}): abend {abend}"
        super().__init__(code, name, detail, message)


class ServerError(KvlError):
    """The Gateway could not run the request on a server (none, unknown, no sessions, ...)."""


class UnknownServer(ServerError):
    """The named server is not known to the Gateway."""


class NoServer(ServerError):
    """No server is available."""


class UnitOfWorkError(KvlError):
    """The unit of work is unknown or was rolled back."""


class SecurityError(KvlError, PermissionError):
    """A user id or password was refused."""


class PasswordExpired(SecurityError):
    """The password has expired; change it."""


class PasswordRejected(SecurityError):
    """The new password was not accepted."""


class ChannelError(KvlError):
    """A channel or container operation failed."""


class ContainerNotFound(ChannelError, KeyError):
    """The channel has no container of that name."""

    def __str__(self) -> str:  # KeyError would quote the message
        return Exception.__str__(self)


class NoReply(KvlError):
    """No asynchronous reply is there to collect (or none of that qualifier)."""


class LibrarySystemError(KvlError):
    """An internal failure of the library (lock, memory) or of the Gateway's system."""


class NotSupported(KvlError):
    """The loaded library lacks the function this feature needs."""

    def __init__(self, feature: str) -> None:
        super().__init__(None, "NOT_SUPPORTED", message=f"the loaded library does not support {feature}")


class LibraryNotFound(OSError):
    """The shared library could not be found or loaded."""


_FAMILIES: Dict[Type[KvlError], tuple] = {
    InvalidArgument: (c.ECI_ERR_INVALID_DATA_LENGTH, c.ECI_ERR_INVALID_EXTEND_MODE, c.ECI_ERR_INVALID_CALL_TYPE,
                      c.ECI_ERR_INVALID_DATA_AREA, c.ECI_ERR_INVALID_VERSION, c.KVL_ERR_NULLGWTOK,
                      c.KVL_ERR_NULLPARM, c.KVL_ERR_TRACELEVEL, c.KVL_ERR_BADPORT, c.KVL_ERR_NULLGWTOKPTR,
                      c.KVL_ERR_NULLPTR, c.KVL_ERR_TRACEFILE, c.KVL_ERR_NULLADDRESS, c.KVL_ERR_NULLECIPOINTER,
                      c.KVL_ERR_INVALIDTIMEOUTPARM, c.KVL_ERR_APPLIDTOOLONG, c.ECI_ERR_INVALID_NAME,
                      c.ECI_ERR_NULLCHANNELPTR, c.ECI_ERR_NULLINFOPTR, c.ECI_ERR_INVALID_TYPE,
                      c.KVL_EXT_ERR_BADOPTIONS, c.KVL_EXT_ERR_BADDEADLINE, c.KVL_EXT_ERR_BUFFERTOOSMALL),
    ConnectFailed: (c.KVL_ERR_CONNECTFAILED, c.KVL_ERR_BADHOST, c.KVL_ERR_CONNECTTIMEOUT,
                    c.KVL_ERR_WORK_WAS_REFUSED, c.KVL_ERR_GATEWAY_BACK_LEVEL, c.KVL_EXT_ERR_NOADDRESS),
    TlsError: (c.KVL_EXT_ERR_TLS_UNAVAILABLE, c.KVL_EXT_ERR_TLS_CONFIG, c.KVL_EXT_ERR_TLS_HANDSHAKE,
               c.KVL_EXT_ERR_TLS_VERIFY, c.KVL_EXT_ERR_TLS_IO),
    ConnectionLost: (c.KVL_ERR_LOSTGWCON, c.KVL_ERR_GATEWAY_EXCEPTION, c.KVL_ERR_INVALID_REQUEST_TYPE),
    ConnectionClosed: (c.KVL_ERR_GWTOK_CLOSED, c.KVL_ERR_GATEWAY_CLOSED, c.KVL_ERR_BADGWTOK),
    CallTimeout: (c.ECI_ERR_REQUEST_TIMEOUT, c.ECI_ERR_RESPONSE_TIMEOUT),
    ProgramAbend: (c.ECI_ERR_TRANSACTION_ABEND,),
    ServerError: (c.ECI_ERR_ORIS_DIED, c.ECI_ERR_ALREADY_ACTIVE, c.ECI_ERR_RESOURCE_SHORTAGE, c.ECI_ERR_NO_SESSIONS,
                  c.ECI_ERR_MAX_SYSTEMS, c.ECI_ERR_MAX_SESSIONS, c.ESI_ERR_ORIS_DIED, c.ESI_ERR_RESOURCE_SHORTAGE,
                  c.ESI_ERR_NO_SESSIONS, c.ESI_ERR_MAX_SYSTEMS, c.ESI_ERR_MAX_SESSIONS),
    UnknownServer: (c.ECI_ERR_UNKNOWN_SERVER, c.ESI_ERR_UNKNOWN_SERVER),
    NoServer: (c.ECI_ERR_NO_ORIS, c.ESI_ERR_NO_ORIS, c.KVL_ERR_NO_SYSTEMS),
    UnitOfWorkError: (c.ECI_ERR_LUW_TOKEN, c.ECI_ERR_ROLLEDBACK),
    SecurityError: (c.ECI_ERR_SECURITY_ERROR, c.ESI_ERR_USERID_INVALID, c.ESI_ERR_NULL_USERID,
                    c.ESI_ERR_PASSWORD_INVALID, c.ESI_ERR_NULL_PASSWORD, c.ESI_ERR_PEM_NOT_SUPPORTED,
                    c.ESI_ERR_PEM_NOT_ACTIVE, c.ESI_ERR_SECURITY_ERROR, c.ESI_ERR_NULL_NEW_PASSWORD),
    PasswordExpired: (c.ESI_ERR_PASSWORD_EXPIRED,),
    PasswordRejected: (c.ESI_ERR_PASSWORD_REJECTED,),
    ChannelError: (c.ECI_ERR_INVALID_CHANNEL, c.ECI_ERR_CHANNELLOCKFAIL, c.ECI_ERR_ENDOFCONTAINERS,
                   c.ECI_ERR_CONTAINER_EXISTS, c.ECI_ERR_COMMAREA_AND_CHANNEL, c.ECI_ERR_LOCKFAIL),
    ContainerNotFound: (c.ECI_ERR_CONTAINER_NOTFOUND,),
    NoReply: (c.ECI_ERR_NO_REPLY, c.ECI_ERR_INVALID_MSG_QUAL),
    LibrarySystemError: (c.KVL_ERR_SYSTEM_ERROR, c.KVL_ERR_MALLOCFAIL, c.ESI_ERR_SYSTEM_ERROR, c.KVL_ERR_MORE_SYSTEMS,
                         c.KVL_EXT_ERR_NOHANDLE),
}

#: The exception class of each code; codes not listed raise a plain KvlError.
ERROR_CLASSES: Dict[int, Type[KvlError]] = {code: cls for cls, group in _FAMILIES.items() for code in group}

# Names for when no library is loaded; the library's own names win otherwise.
_LOCAL_NAMES: Dict[int, str] = {}
for _name, _value in vars(c).items():
    if _name.isupper() and "_ERR_" in _name:
        _LOCAL_NAMES.setdefault(_value, _name)
_LOCAL_NAMES[0] = "KVL_OK"

_library_namer: Optional[Callable[[int], str]] = None


def _set_namer(namer: Optional[Callable[[int], str]]) -> None:
    global _library_namer
    _library_namer = namer


def rc_name(code: Optional[int]) -> str:
    """The symbolic name of a return code, as the loaded library names it."""
    if code is None:
        return ""
    if _library_namer is not None:
        try:
            name = _library_namer(code)
            if name and name != "UNKNOWN":
                return name
        except Exception:  # naming must never hide the error being raised
            pass
    return _LOCAL_NAMES.get(code, "UNKNOWN")


def error_for(code: int, detail: str = "", **extra: object) -> KvlError:
    """The exception for a failing return code (not raised)."""
    cls = ERROR_CLASSES.get(code, KvlError)
    if cls is ProgramAbend:
        return ProgramAbend(code, detail=detail, abend=str(extra.get("abend", "")),
                            data=bytes(extra.get("data", b"")))  # type: ignore[arg-type]
    return cls(code, detail=detail)
