"""Connections to the Gateway: program calls, units of work, security, the system list."""

from __future__ import annotations

import ctypes
import datetime as _dt
import threading
from concurrent.futures import Future
from ctypes import byref, c_char_p, c_int, c_ushort
from dataclasses import dataclass
from typing import Any, List, Mapping, NamedTuple, Optional, Union

from . import _types as t
from . import codes as c
from ._dispatch import MAX_COMMAREA, ReplyDispatcher
from ._library import Library, lib
from .channel import Channel, Value
from .errors import ConnectionClosed, NotSupported, error_for

ECI_VERSION = 6


class CallResult(NamedTuple):
    """The reply of a COMMAREA call."""

    data: bytes  #: the reply COMMAREA (``reply_length`` bytes, zero-filled past what the program sent)
    abend: str  #: the abend code of the reply ('' when none)
    luw_token: int = 0  #: the unit of work the call ran in (0: none)


class ChannelResult(NamedTuple):
    """The reply of a channel call: the reply's containers."""

    containers: Mapping[str, Value]  #: the Channel passed in, or a dict snapshot for a plain mapping
    abend: str
    luw_token: int = 0


class SystemInfo(NamedTuple):
    """One server known to the Gateway."""

    name: str
    description: str


class SecurityDetails(NamedTuple):
    """What a successful password verification or change reports."""

    last_verified: Optional[_dt.datetime]
    expiry: Optional[_dt.datetime]
    last_access: Optional[_dt.datetime]
    invalid_attempts: int


@dataclass
class TlsOptions:
    """TLS settings of :func:`connect` (needs a library with the extension API and TLS)."""

    ca_file: Optional[str] = None
    cert_file: Optional[str] = None
    key_file: Optional[str] = None
    server_name: Optional[str] = None
    min_version: int = 0
    cipher_list: Optional[str] = None
    verify: bool = True
    check_hostname: bool = True


def _field(value: Optional[str], width: int, what: str) -> bytes:
    """A blank-padded fixed-width character field."""
    raw = (value or "").encode("ascii")
    if len(raw) > width:
        raise ValueError(f"{what} {value!r} is longer than {width} characters")
    return raw.ljust(width, b" ")


def _text(raw: bytes) -> str:
    return raw.split(b"\0", 1)[0].decode("ascii", "replace").rstrip()


def _esi_time(v: t.EsiTime) -> Optional[_dt.datetime]:
    if v.year == 0:
        return None
    try:  # the month counts from 0
        return _dt.datetime(v.year, v.month + 1, v.day, v.hour, v.minute, v.second)
    except ValueError:
        return None  # not a time: the Gateway's values are reported, not trusted


def _opt(s: Optional[str]) -> Optional[bytes]:
    return None if s is None else s.encode("utf-8")


class _Credentials:
    """NUL-terminated user id and password for the block; the password copy is wiped after use."""

    def __init__(self, userid: Optional[str], password: Optional[str]) -> None:
        self.userid = ctypes.create_string_buffer(userid.encode("utf-8")) if userid else None
        self.password = ctypes.create_string_buffer(password.encode("utf-8")) if password else None

    def apply(self, parms: t.EciParms) -> None:
        if self.userid is not None:
            parms.eci_userid_ptr = ctypes.cast(self.userid, c_char_p)
        if self.password is not None:
            parms.eci_password_ptr = ctypes.cast(self.password, c_char_p)

    def wipe(self) -> None:
        if self.password is not None:
            ctypes.memset(self.password, 0, len(self.password))


class Connection:
    """An open connection to a Gateway; use :func:`connect` to make one.

    Thread safety: any number of threads may call on one connection at once;
    each synchronous caller waits for its own reply only.
    """

    def __init__(self, token: t.GwTok, library: Library) -> None:
        self._lib = library
        self._tok = token
        self._lock = threading.Lock()
        self._dispatcher = ReplyDispatcher(self)

    # -- lifetime ---------------------------------------------------------------
    @property
    def closed(self) -> bool:
        return not self._tok

    def _handle(self) -> int:
        tok = self._tok.value
        if not tok:
            raise ConnectionClosed(c.KVL_ERR_GWTOK_CLOSED, detail="the connection was closed")
        return tok

    def close(self) -> None:
        """Closes the connection after every outstanding call, including asynchronous
        ones, has its reply. Safe to call twice."""
        with self._lock:
            if not self._tok:
                return
            self._dispatcher.stop(wait_for_replies=True)
            rc = self._lib.KVL_closeGatewayConnection(byref(self._tok))
        if rc != 0 and rc != c.KVL_ERR_GWTOK_CLOSED:
            raise error_for(rc)

    def purge(self, timeout: int = 0) -> None:
        """Closes the connection without waiting for outstanding calls for more than
        ``timeout`` seconds (0: not at all); their futures fail with ConnectionClosed."""
        with self._lock:
            if not self._tok:
                return
            self._dispatcher.stop(wait_for_replies=False)
            rc = self._lib.KVL_purgeGatewayConnection(byref(self._tok), int(timeout))
            self._dispatcher.fail_all(c.KVL_ERR_GWTOK_CLOSED)
        if rc != 0 and rc != c.KVL_ERR_GWTOK_CLOSED:
            raise error_for(rc)

    def __enter__(self) -> "Connection":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return "<Connection closed>" if self.closed else f"<Connection applid={self.applid!r}>"

    @property
    def applid(self) -> str:
        """The applid the connection was opened with ('' when none)."""
        out = c_char_p()
        self._check(self._lib.KVL_getApplid(self._handle(), byref(out)))
        return (out.value or b"").decode("ascii", "replace").rstrip()

    @property
    def applid_qualifier(self) -> str:
        out = c_char_p()
        self._check(self._lib.KVL_getApplidQualifier(self._handle(), byref(out)))
        return (out.value or b"").decode("ascii", "replace").rstrip()

    # -- plumbing -----------------------------------------------------------------
    def _check(self, rc: int) -> None:
        if rc != 0:
            raise error_for(rc, detail=self._lib.last_error_text())

    def _execute(self, parms: t.EciParms, channel: bool) -> int:
        fn = self._lib.KVL_ECI_Execute_Channel if channel else self._lib.KVL_ECI_Execute
        return fn(self._handle(), byref(parms))

    def _parms(self, call_type: int, program: str, server: Optional[str], tran_id: Optional[str],
               timeout: int, extend_mode: int = c.ECI_NO_EXTEND, luw_token: int = 0) -> t.EciParms:
        if not 0 <= timeout <= 32767:
            raise ValueError("timeout is 0..32767 seconds")
        parms = t.EciParms()
        parms.eci_call_type = call_type
        parms.eci_version = ECI_VERSION
        parms.eci_program = _field(program, 8, "program")
        parms.eci_server_name = _field(server, 8, "server")
        parms.eci_tran_id = _field(tran_id, 4, "transaction id")
        parms.eci_timeout = timeout
        parms.eci_extend_mode = extend_mode
        parms.eci_luw_token = luw_token
        return parms

    @staticmethod
    def _commarea(commarea: Union[bytes, bytearray, memoryview], reply_length: Optional[int]):
        data = bytes(commarea)
        if reply_length is not None and not 0 <= reply_length <= MAX_COMMAREA:
            raise ValueError(f"reply_length is 0..{MAX_COMMAREA}")
        if len(data) > MAX_COMMAREA:
            raise ValueError(f"a COMMAREA holds at most {MAX_COMMAREA} bytes")
        size = max(len(data), reply_length or 0)
        inbound = size if reply_length is None else reply_length
        buf = ctypes.create_string_buffer(data, size) if size else None
        return buf, size, inbound, len(data)

    @staticmethod
    def _finish_commarea(rc: int, parms: t.EciParms, data: bytes) -> CallResult:
        abend = _text(bytes(parms.eci_abend))
        if rc != 0:
            raise error_for(rc, abend=abend, data=data)
        return CallResult(data, abend, parms.eci_luw_token)

    # -- program calls ------------------------------------------------------------
    def call(self, program: str, commarea: Union[bytes, bytearray, memoryview] = b"", *,
             reply_length: Optional[int] = None, server: Optional[str] = None, userid: Optional[str] = None,
             password: Optional[str] = None, tran_id: Optional[str] = None, timeout: int = 0,
             _extend_mode: int = c.ECI_NO_EXTEND, _luw: Optional[List[int]] = None) -> CallResult:
        """Runs ``program`` with a COMMAREA and waits for its reply.

        Args:
            program: the program's name, at most 8 characters.
            commarea: the bytes sent (at most 32767).
            reply_length: bytes expected back; the COMMAREA buffer is the larger of
                this and ``len(commarea)``. Default: ``len(commarea)``.
            server: the server to run on (default: the Gateway's first).
            userid, password: credentials for a secured server.
            tran_id: the transaction id to run under (at most 4 characters).
            timeout: seconds the server may take (0: no limit).

        Returns:
            CallResult(data, abend, luw_token).

        Raises:
            ProgramAbend: the program ended abnormally (``.abend``, ``.data``).
            ConnectionLost, SecurityError, UnknownServer, CallTimeout, ...: see errors.
        """
        buf, size, inbound, outbound = self._commarea(commarea, reply_length)
        parms = self._parms(c.ECI_SYNC, program, server, tran_id, timeout, _extend_mode, _luw[0] if _luw else 0)
        if buf is not None and _extend_mode not in (c.ECI_COMMIT, c.ECI_BACKOUT):
            parms.eci_commarea = ctypes.cast(buf, ctypes.c_void_p)
            parms.eci_commarea_length = size
            parms.commarea_inbound_length = inbound
            parms.commarea_outbound_length = outbound
        creds = _Credentials(userid, password)
        creds.apply(parms)
        try:
            rc = self._execute(parms, False)
        finally:
            creds.wipe()
        if _luw is not None:
            _luw[0] = parms.eci_luw_token
        data = buf.raw[:inbound] if buf is not None and parms.eci_commarea else b""
        if rc != 0 and rc != c.ECI_ERR_TRANSACTION_ABEND:
            raise error_for(rc, detail=self._lib.last_error_text())
        return self._finish_commarea(rc, parms, data)

    def call_channel(self, program: str, channel: Union[Channel, Mapping[str, Value]], *,
                     server: Optional[str] = None, userid: Optional[str] = None, password: Optional[str] = None,
                     tran_id: Optional[str] = None, timeout: int = 0,
                     _extend_mode: int = c.ECI_NO_EXTEND, _luw: Optional[List[int]] = None) -> ChannelResult:
        """Runs ``program`` with a channel and waits for its reply.

        ``channel`` is a :class:`Channel`, which receives the reply's containers in
        place, or any mapping of name to bytes/str, sent in a temporary channel
        whose reply comes back as a dict. Other arguments as for :meth:`call`.
        """
        own = not isinstance(channel, Channel)
        chan = Channel(containers=channel) if own else channel
        try:
            parms = self._parms(c.ECI_SYNC, program, server, tran_id, timeout, _extend_mode,
                                _luw[0] if _luw else 0)
            parms.eci_channel = chan.handle
            creds = _Credentials(userid, password)
            creds.apply(parms)
            try:
                rc = self._execute(parms, True)
            finally:
                creds.wipe()
            if _luw is not None:
                _luw[0] = parms.eci_luw_token
            abend = _text(bytes(parms.eci_abend))
            if rc != 0:
                raise error_for(rc, detail=self._lib.last_error_text(), abend=abend)
            return ChannelResult(chan.to_dict() if own else chan, abend, parms.eci_luw_token)
        finally:
            if own:
                chan.close()

    def call_async(self, program: str, commarea: Union[bytes, bytearray, memoryview] = b"", *,
                   reply_length: Optional[int] = None, server: Optional[str] = None,
                   userid: Optional[str] = None, password: Optional[str] = None, tran_id: Optional[str] = None,
                   timeout: int = 0) -> "Future[CallResult]":
        """Sends a COMMAREA call and returns at once with a Future of its CallResult.

        Arguments as for :meth:`call`; the future raises what :meth:`call` would.
        """
        buf, size, inbound, outbound = self._commarea(commarea, reply_length)
        parms = self._parms(c.ECI_ASYNC, program, server, tran_id, timeout)
        if buf is not None:
            parms.eci_commarea = ctypes.cast(buf, ctypes.c_void_p)
            parms.eci_commarea_length = size
            parms.commarea_inbound_length = inbound
            parms.commarea_outbound_length = outbound
        creds = _Credentials(userid, password)
        creds.apply(parms)

        def finish(rc: int, reply: t.EciParms, data: bytes) -> CallResult:
            # As a synchronous call gives it: the expected length, zero-filled.
            return self._finish_commarea(rc, reply, data[:inbound].ljust(inbound, b"\0"))

        try:
            return self._dispatcher.submit(parms, False, finish)
        finally:
            creds.wipe()

    def call_channel_async(self, program: str, channel: Union[Channel, Mapping[str, Value]], *,
                           server: Optional[str] = None, userid: Optional[str] = None,
                           password: Optional[str] = None, tran_id: Optional[str] = None,
                           timeout: int = 0) -> "Future[ChannelResult]":
        """Sends a channel call and returns at once with a Future of its ChannelResult.

        A :class:`Channel` passed in belongs to the call until the future is done."""
        own = not isinstance(channel, Channel)
        chan = Channel(containers=channel) if own else channel
        parms = self._parms(c.ECI_ASYNC, program, server, tran_id, timeout)
        parms.eci_channel = chan.handle
        creds = _Credentials(userid, password)
        creds.apply(parms)

        def finish(rc: int, reply: t.EciParms, data: bytes) -> ChannelResult:
            try:
                abend = _text(bytes(reply.eci_abend))
                if rc != 0:
                    raise error_for(rc, abend=abend)
                return ChannelResult(chan.to_dict() if own else chan, abend, reply.eci_luw_token)
            finally:
                if own:
                    chan.close()

        try:
            return self._dispatcher.submit(parms, True, finish, keep=chan)
        finally:
            creds.wipe()

    def unit_of_work(self, *, server: Optional[str] = None, userid: Optional[str] = None,
                     password: Optional[str] = None) -> "UnitOfWork":
        """A unit of work on one server: commits when the ``with`` block ends, backs
        out when it ends with an exception."""
        return UnitOfWork(self, server, userid, password)

    # -- security, systems, extensions ----------------------------------------
    def _esi(self, fn: Any, *args: Optional[bytes]) -> SecurityDetails:
        details = t.EsiDetails()
        self._check(fn(self._handle(), *args, byref(details)))
        return SecurityDetails(_esi_time(details.lastVerifiedTime), _esi_time(details.expiryTime),
                               _esi_time(details.lastAccessTime), details.invalidAttemptCount)

    def verify_password(self, userid: str, password: str, server: Optional[str] = None) -> SecurityDetails:
        """Verifies a user's password on a server; raises SecurityError (or a subclass) when refused."""
        return self._esi(self._lib.KVL_ESI_verifyPassword, _opt(userid), _opt(password), _opt(server))

    def change_password(self, userid: str, old_password: str, new_password: str,
                        server: Optional[str] = None) -> SecurityDetails:
        """Changes a user's password; raises PasswordRejected when the new one is refused."""
        return self._esi(self._lib.KVL_ESI_changePassword, _opt(userid), _opt(old_password), _opt(new_password),
                         _opt(server))

    def list_systems(self) -> List[SystemInfo]:
        """The servers the Gateway knows (empty when it knows none)."""
        capacity = 16
        for _ in range(4):  # the list may grow between two asks
            count = c_ushort(capacity)
            entries = (t.SystemInfo * capacity)()
            rc = self._lib.KVL_listSystems(self._handle(), byref(count), entries)
            if rc == c.KVL_ERR_NO_SYSTEMS:
                return []
            if rc == c.KVL_ERR_MORE_SYSTEMS and count.value > capacity:
                capacity = count.value
                continue
            self._check(rc)
            n = min(count.value, capacity)
            return [SystemInfo(_text(bytes(e.SystemName)), _text(bytes(e.SystemDescription))) for e in entries[:n]]
        raise error_for(c.KVL_ERR_MORE_SYSTEMS)

    def _need(self, symbol: str, feature: str) -> Any:
        if not self._lib.has(symbol):
            raise NotSupported(feature)
        return getattr(self._lib, symbol)

    @property
    def call_deadline(self) -> float:
        """Deadline in seconds of synchronous calls (0: none). Needs the extension API."""
        ms = c_int(0)
        self._check(self._need("KVL_EXT_getCallDeadline", "call deadlines")(self._handle(), byref(ms)))
        return ms.value / 1000.0

    @call_deadline.setter
    def call_deadline(self, seconds: float) -> None:
        fn = self._need("KVL_EXT_setCallDeadline", "call deadlines")
        self._check(fn(self._handle(), int(round(seconds * 1000))))

    def completion_handle(self) -> int:
        """The pollable handle that is readable while async replies are queued
        (a file descriptor on Linux). Needs the extension API."""
        h = ctypes.c_ssize_t(0)
        self._check(self._need("KVL_EXT_getCompletionHandle", "the completion handle")(self._handle(), byref(h)))
        return h.value

    def statistics(self) -> dict:
        """The connection's figures as a dict. Needs the extension API."""
        s = t.Statistics()
        s.size = ctypes.sizeof(s)
        self._check(self._need("KVL_EXT_getStatistics", "statistics")(self._handle(), byref(s)))
        out = {}
        for name, _ in t.Statistics._fields_[1:]:
            v = getattr(s, name)
            out[name] = list(v) if isinstance(v, ctypes.Array) else v
        return out


class UnitOfWork:
    """Calls that commit or back out together; made by :meth:`Connection.unit_of_work`.

    The first call opens the unit; :meth:`commit` or :meth:`backout` ends it (the
    ``with`` block does so itself). A call that fails ends it on the server side.
    """

    def __init__(self, conn: Connection, server: Optional[str], userid: Optional[str],
                 password: Optional[str]) -> None:
        self._conn = conn
        self._server = server
        self._userid = userid
        self._password = password
        self._luw = [0]

    @property
    def token(self) -> int:
        """The unit's token (0 before the first call and after it ends)."""
        return self._luw[0]

    def call(self, program: str, commarea: Union[bytes, bytearray, memoryview] = b"", **kw: Any) -> CallResult:
        """A COMMAREA call inside the unit; arguments as for :meth:`Connection.call`."""
        return self._conn.call(program, commarea, server=self._server, userid=self._userid,
                               password=self._password, _extend_mode=c.ECI_EXTENDED, _luw=self._luw, **kw)

    def call_channel(self, program: str, channel: Union[Channel, Mapping[str, Value]], **kw: Any) -> ChannelResult:
        """A channel call inside the unit; arguments as for :meth:`Connection.call_channel`."""
        return self._conn.call_channel(program, channel, server=self._server, userid=self._userid,
                                       password=self._password, _extend_mode=c.ECI_EXTENDED, _luw=self._luw, **kw)

    def _end(self, mode: int) -> None:
        if self._luw[0] == 0:
            return  # nothing open (no call yet, or the server already ended it)
        self._conn.call("", server=self._server, userid=self._userid, password=self._password,
                        _extend_mode=mode, _luw=self._luw)

    def commit(self) -> None:
        """Commits the work done so far."""
        self._end(c.ECI_COMMIT)

    def backout(self) -> None:
        """Backs out the work done so far."""
        self._end(c.ECI_BACKOUT)

    def __enter__(self) -> "UnitOfWork":
        return self

    def __exit__(self, exc_type: Any, exc: Any, tb: Any) -> None:
        if exc_type is None:
            self.commit()
            return
        try:
            self.backout()
        except Exception:
            pass  # the original exception is the one to see


def connect(host: str, port: int, applid: Optional[str] = None, applid_qualifier: Optional[str] = None, *,
            timeout: int = 0, connect_timeout: Optional[float] = None, call_deadline: Optional[float] = None,
            keepalive: Optional[bool] = None, tls: Optional[TlsOptions] = None) -> Connection:
    """Opens a connection to a Gateway.

    Args:
        host, port: where the Gateway listens.
        applid, applid_qualifier: at most 8 characters each (``KVL_APPLID`` and
            ``KVL_APPLIDQUALIFIER`` in the environment replace them).
        timeout: seconds the connect may take (0..3600; 0: not bounded).
        connect_timeout, call_deadline, keepalive, tls: extension options (seconds
            for the times); they need a library with the extension API.

    Raises:
        ConnectFailed: the Gateway could not be reached or refused the connection.
        InvalidArgument: a bad port, applid or time-out.
    """
    library = lib()
    token = t.GwTok()
    ext_asked = any(v is not None for v in (connect_timeout, call_deadline, keepalive, tls))
    if not ext_asked:
        rc = library.KVL_openRemoteGatewayConnectionApplid(host.encode("utf-8"), int(port), byref(token),
                                                           int(timeout), (applid or "").encode("ascii"),
                                                           (applid_qualifier or "").encode("ascii"))
    else:
        if not library.has("KVL_EXT_openConnection"):
            raise NotSupported("connection options (connect_timeout, call_deadline, keepalive, tls)")
        o = t.ConnectOptions()
        library.KVL_EXT_initConnectOptions(byref(o))
        keep = [host.encode("utf-8"), _opt(applid), _opt(applid_qualifier)]
        o.host, o.port, o.applid, o.applidQualifier = keep[0], int(port), keep[1], keep[2]
        if connect_timeout is not None:
            o.connectTimeoutMs = int(round(connect_timeout * 1000))
        elif timeout:
            o.connectTimeoutMs = int(timeout) * 1000
        if call_deadline is not None:
            o.callDeadlineMs = int(round(call_deadline * 1000))
        if keepalive is not None:
            o.keepAlive = 1 if keepalive else 0
        if tls is not None:
            o.tls = 1
            o.tlsNoVerify = 0 if tls.verify else 1
            o.tlsNoHostnameCheck = 0 if tls.check_hostname else 1
            o.tlsMinVersion = tls.min_version
            o.tlsCaFile, o.tlsCertFile, o.tlsKeyFile = _opt(tls.ca_file), _opt(tls.cert_file), _opt(tls.key_file)
            o.tlsCipherList, o.tlsServerName = _opt(tls.cipher_list), _opt(tls.server_name)
        rc = library.KVL_EXT_openConnection(byref(o), byref(token))
    if rc != 0:
        raise error_for(rc, detail=library.last_error_text())
    return Connection(token, library)


def close_all() -> None:
    """Closes every connection of the process (also those opened outside Python)."""
    rc = lib().KVL_closeAllGatewayConnections()
    if rc != 0:
        raise error_for(rc)
