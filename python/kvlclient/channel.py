"""Channels: named containers of bytes (BIT) or text (CHAR with a CCSID)."""

from __future__ import annotations

import ctypes
import threading
from ctypes import byref, c_size_t
from typing import Dict, Iterator, List, Mapping, MutableMapping, NamedTuple, Optional, Union

from . import _types as t
from . import codes as c
from ._library import lib
from .errors import InvalidArgument, error_for

Value = Union[bytes, str]

#: CCSIDs this package can turn into text, and the Python codec for each.
CCSID_CODECS: Dict[int, str] = {
    37: "cp037", 273: "cp273", 367: "ascii", 437: "cp437", 500: "cp500", 819: "latin-1", 850: "cp850",
    852: "cp852", 858: "cp858", 866: "cp866", 875: "cp875", 923: "iso8859-15", 943: "cp932",
    1026: "cp1026", 1140: "cp1140", 1200: "utf-16-be", 1202: "utf-16-le", 1208: "utf-8", 1250: "cp1250",
    1251: "cp1251", 1252: "cp1252", 1253: "cp1253", 1254: "cp1254", 1255: "cp1255", 1256: "cp1256",
    1257: "cp1257", 1258: "cp1258", 13488: "utf-16-be",
}

#: The CCSID given to text containers unless another is asked for: UTF-8.
DEFAULT_TEXT_CCSID = 1208


def codec_for(ccsid: int) -> Optional[str]:
    """The Python codec of a CCSID, or None when this package does not know it."""
    return CCSID_CODECS.get(ccsid)


class ContainerInfo(NamedTuple):
    """What the library reports about one container."""

    name: str
    type: int  #: ECI_BIT or ECI_CHAR
    ccsid: int  #: 0 for BIT containers
    length: int  #: bytes of data


def _name(name: str) -> bytes:
    if not isinstance(name, str):
        raise TypeError(f"container and channel names are str, not {type(name).__name__}")
    try:
        return name.encode("ascii")
    except UnicodeEncodeError:
        raise InvalidArgument(c.ECI_ERR_INVALID_NAME, detail=f"name {name!r} is not ASCII") from None


def _check(rc: int) -> None:
    if rc != 0:
        raise error_for(rc)


class Channel(MutableMapping[str, Value]):
    """A channel of the library, used as a mapping of container name to value.

    ``bytes`` values become BIT containers; ``str`` values become CHAR containers,
    encoded with ``text_ccsid`` (UTF-8 unless told otherwise). Reading a CHAR
    container decodes it with its own CCSID; a CHAR container whose CCSID this
    package cannot decode (see :data:`CCSID_CODECS`) reads as ``bytes``.

    A channel holds library memory: close it (or use ``with``) when done.
    Thread safety: the library serialises use of one channel; iteration uses the
    channel's single browse cursor, so do not iterate one channel from two threads.
    """

    def __init__(self, name: str = "KVLPYCHANNEL", containers: Optional[Mapping[str, Value]] = None,
                 *, text_ccsid: int = DEFAULT_TEXT_CCSID) -> None:
        self._lib = lib()
        self._lock = threading.Lock()
        self._tok = t.ChanTok()
        if codec_for(text_ccsid) is None:
            raise ValueError(f"no codec for CCSID {text_ccsid}")
        self.text_ccsid = text_ccsid
        _check(self._lib.ECI_createChannel(_name(name), byref(self._tok)))
        if containers:
            self.update(containers)

    # -- lifetime ---------------------------------------------------------------
    @property
    def handle(self) -> int:
        """The library's channel handle (chanTok); raises once the channel is closed."""
        if not self._tok:
            raise ValueError("the channel is closed")
        return self._tok.value  # type: ignore[return-value]

    @property
    def closed(self) -> bool:
        return not self._tok

    def close(self) -> None:
        """Deletes the channel with its containers. Safe to call twice."""
        with self._lock:
            if self._tok:
                _check(self._lib.ECI_deleteChannel(byref(self._tok)))

    def __enter__(self) -> "Channel":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __del__(self) -> None:
        try:
            if getattr(self, "_tok", None):
                self._lib.ECI_deleteChannel(byref(self._tok))
        except Exception:
            pass

    @property
    def name(self) -> str:
        buf = ctypes.create_string_buffer(17)
        _check(self._lib.ECI_getChannelName(self.handle, buf))
        return buf.value.decode("ascii", "replace")

    # -- containers -------------------------------------------------------------
    def set(self, name: str, value: Value, *, ccsid: Optional[int] = None) -> None:
        """Creates or replaces a container: ``bytes`` as BIT (unless ccsid is given:
        then CHAR bytes already in that CCSID), ``str`` as CHAR encoded in ``ccsid``."""
        if isinstance(value, str):
            ccsid = self.text_ccsid if ccsid is None else ccsid
            codec = codec_for(ccsid)
            if codec is None:
                raise ValueError(f"no codec for CCSID {ccsid}")
            data, ctype = value.encode(codec), c.ECI_CHAR
        elif isinstance(value, (bytes, bytearray, memoryview)):
            data = bytes(value)
            ctype = c.ECI_BIT if ccsid is None else c.ECI_CHAR
        else:
            raise TypeError(f"container values are bytes or str, not {type(value).__name__}")
        key = _name(name)
        handle = self.handle
        rc = self._lib.ECI_createContainer(handle, key, ctype, ccsid or 0, data, len(data))
        if rc == c.ECI_ERR_CONTAINER_EXISTS:
            # The type and CCSID of a container are fixed: replace it whole.
            _check(self._lib.ECI_deleteContainer(handle, key))
            rc = self._lib.ECI_createContainer(handle, key, ctype, ccsid or 0, data, len(data))
        _check(rc)

    def __setitem__(self, name: str, value: Value) -> None:
        self.set(name, value)

    def info(self, name: str) -> ContainerInfo:
        """Type, CCSID and length of one container; raises ContainerNotFound (a KeyError)."""
        raw = t.EciContainerInfo()
        _check(self._lib.ECI_getContainerInfo(self.handle, _name(name), byref(raw)))
        return ContainerInfo(raw.name.decode("ascii", "replace"), raw.type, raw.ccsid, raw.dataLength)

    def raw(self, name: str) -> bytes:
        """The data of a container as bytes, whatever its type."""
        info = self.info(name)
        buf = ctypes.create_string_buffer(max(info.length, 1))
        got = c_size_t(0)
        _check(self._lib.ECI_getContainerData(self.handle, _name(name), buf, info.length, 0, byref(got)))
        return buf.raw[: min(got.value, info.length)]

    def __getitem__(self, name: str) -> Value:
        info = self.info(name)
        data = self.raw(name)
        if info.type == c.ECI_CHAR:
            codec = codec_for(info.ccsid)
            if codec is not None:
                return data.decode(codec, errors="replace")
        return data

    def __delitem__(self, name: str) -> None:
        _check(self._lib.ECI_deleteContainer(self.handle, _name(name)))

    def infos(self) -> List[ContainerInfo]:
        """Every container's info, newest first (the library's browse order)."""
        out: List[ContainerInfo] = []
        raw = t.EciContainerInfo()
        handle = self.handle
        with self._lock:
            rc = self._lib.ECI_getFirstContainer(handle, byref(raw))
            while rc == 0:
                out.append(ContainerInfo(raw.name.decode("ascii", "replace"), raw.type, raw.ccsid, raw.dataLength))
                rc = self._lib.ECI_getNextContainer(handle, byref(raw))
        if rc != c.ECI_ERR_ENDOFCONTAINERS:
            raise error_for(rc)
        return out

    def __iter__(self) -> Iterator[str]:
        return iter([i.name for i in self.infos()])

    def __len__(self) -> int:
        return len(self.infos())

    def __contains__(self, name: object) -> bool:
        if not isinstance(name, str):
            return False
        raw = t.EciContainerInfo()
        return self._lib.ECI_getContainerInfo(self.handle, _name(name), byref(raw)) == 0

    def to_dict(self) -> Dict[str, Value]:
        """A plain snapshot of the containers."""
        return {n: self[n] for n in self}

    def __repr__(self) -> str:
        if self.closed:
            return "<Channel closed>"
        return f"<Channel {self.name!r} {sorted(self)}>"
