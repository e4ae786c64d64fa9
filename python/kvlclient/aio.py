"""asyncio on top of the asynchronous calls.

``AsyncConnection`` awaits calls without a thread per call. With a library that
exports ``KVL_EXT_getCompletionHandle`` (on Linux, where the handle is a file
descriptor) the event loop watches that handle and collects replies itself;
otherwise the connection's reply thread collects them and the loop is told.

    async with await kvlclient.aio.connect("127.0.0.1", 2006) as conn:
        result = await conn.call("ECHO", b"hello")
"""

from __future__ import annotations

import asyncio
import sys
from typing import Any, Mapping, Optional, Union

from .channel import Channel, Value
from .connection import CallResult, ChannelResult, Connection, connect as _connect


class AsyncConnection:
    """An awaitable view of a :class:`Connection`; sync methods stay on ``.connection``."""

    def __init__(self, connection: Connection, loop: Optional[asyncio.AbstractEventLoop] = None) -> None:
        self.connection = connection
        self._loop = loop or asyncio.get_running_loop()
        self._fd: Optional[int] = None
        if connection._lib.has("KVL_EXT_getCompletionHandle") and sys.platform != "win32":
            self._fd = connection.completion_handle()
            connection._dispatcher.use_thread = False
            self._loop.add_reader(self._fd, connection._dispatcher.drain)

    @property
    def uses_completion_handle(self) -> bool:
        """True when the event loop collects replies through the completion handle."""
        return self._fd is not None

    async def call(self, program: str, commarea: Union[bytes, bytearray, memoryview] = b"",
                   **kw: Any) -> CallResult:
        """As :meth:`Connection.call`, awaited."""
        return await asyncio.wrap_future(self.connection.call_async(program, commarea, **kw), loop=self._loop)

    async def call_channel(self, program: str, channel: Union[Channel, Mapping[str, Value]],
                           **kw: Any) -> ChannelResult:
        """As :meth:`Connection.call_channel`, awaited."""
        fut = self.connection.call_channel_async(program, channel, **kw)
        return await asyncio.wrap_future(fut, loop=self._loop)

    async def close(self) -> None:
        """Waits for every reply, then closes the connection (off the loop's thread)."""
        dispatcher = self.connection._dispatcher
        pending = [asyncio.wrap_future(f, loop=self._loop) for f in dispatcher.pending_futures()]
        if pending:  # collected by the reader (or the reply thread) meanwhile
            await asyncio.wait(pending)
        if self._fd is not None:
            self._loop.remove_reader(self._fd)
            self._fd = None
        await self._loop.run_in_executor(None, self.connection.close)

    async def __aenter__(self) -> "AsyncConnection":
        return self

    async def __aexit__(self, *exc: object) -> None:
        await self.close()


async def connect(host: str, port: int, applid: Optional[str] = None, applid_qualifier: Optional[str] = None,
                  **kw: Any) -> AsyncConnection:
    """Opens a connection (in an executor, the open blocks) and wraps it for asyncio."""
    loop = asyncio.get_running_loop()
    conn = await loop.run_in_executor(None, lambda: _connect(host, port, applid, applid_qualifier, **kw))
    return AsyncConnection(conn, loop)
