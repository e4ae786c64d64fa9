"""Collects the replies of asynchronous calls and completes their futures."""

from __future__ import annotations

import ctypes
import threading
from collections import deque
from concurrent.futures import Future
from typing import TYPE_CHECKING, Any, Callable, Dict, Optional

from . import _types as t
from . import codes as c
from .errors import ConnectionClosed, error_for

if TYPE_CHECKING:
    from .connection import Connection

MAX_COMMAREA = 32767

# Builds a future's result from the retrieved block and the collection buffer;
# raises for a failed call.
Finisher = Callable[[int, t.EciParms, bytes], Any]


class _Pending:
    __slots__ = ("future", "finish", "keep")

    def __init__(self, future: Future, finish: Finisher, keep: Any) -> None:
        self.future = future
        self.finish = finish
        self.keep = keep  # what must outlive the request (a channel)


class ReplyDispatcher:
    """One per connection. Replies are collected by one waiting thread
    (ECI_GET_REPLY_WAIT), started with the first asynchronous call, or by
    :meth:`drain` from an event loop when the completion handle is used.

    The thread waits in the library only while calls are pending, so closing the
    connection after the last reply never races with it.

    A message qualifier names the library's slot of a request, and the slot is
    reused as soon as its reply is collected: a new request may get the same
    qualifier before the collected reply is handed over here. Entries of one
    qualifier are therefore kept in sending order, and one collector at a time
    (``_collect``) takes replies, so the older entry always gets the older reply."""

    def __init__(self, conn: "Connection") -> None:
        self._conn = conn
        self._cond = threading.Condition()
        self._pending: Dict[int, "deque[_Pending]"] = {}
        self._count = 0
        self._collect = threading.Lock()
        self._thread: Optional[threading.Thread] = None
        self._stopping = False
        self.use_thread = True
        self._drain_buffer = ctypes.create_string_buffer(MAX_COMMAREA)

    @property
    def pending(self) -> int:
        with self._cond:
            return self._count

    def pending_futures(self) -> list:
        with self._cond:
            return [p.future for q in self._pending.values() for p in q]

    def submit(self, parms: t.EciParms, channel: bool, finish: Finisher, keep: Any = None) -> Future:
        """Sends an ECI_ASYNC request; the future completes with ``finish``'s value."""
        fut: Future = Future()
        fut.set_running_or_notify_cancel()  # a sent request cannot be taken back
        with self._cond:
            if self._stopping:
                raise ConnectionClosed(c.KVL_ERR_GWTOK_CLOSED, detail="the connection is closing")
            # Registered under the lock the collector takes, so a fast reply finds its future.
            rc = self._conn._execute(parms, channel)
            if rc != 0:
                try:
                    finish(rc, parms, b"")
                except BaseException as e:  # finish raises the call's error
                    fut.set_exception(e)
                return fut
            self._pending.setdefault(parms.eci_msg_qual, deque()).append(_Pending(fut, finish, keep))
            self._count += 1
            self._cond.notify_all()
            if self.use_thread and (self._thread is None or not self._thread.is_alive()):
                self._thread = threading.Thread(target=self._run, name="kvlclient-replies", daemon=True)
                self._thread.start()
        return fut

    def _deliver(self, rc: int, parms: t.EciParms, data: bytes) -> None:
        with self._cond:
            queue = self._pending.get(parms.eci_msg_qual)
            if not queue:
                return  # a request this package did not send
            entry = queue.popleft()
            if not queue:
                del self._pending[parms.eci_msg_qual]
            self._count -= 1
            self._cond.notify_all()
        try:
            entry.future.set_result(entry.finish(rc, parms, data))
        except BaseException as e:
            entry.future.set_exception(e)

    def _retrieve(self, call_type: int, buffer: ctypes.Array) -> Optional[tuple]:
        """One retrieval; (rc, parms, data) when a reply was taken, else (rc, None, b'')."""
        parms = t.EciParms()
        parms.eci_call_type = call_type
        parms.eci_version = 6
        parms.eci_commarea = ctypes.cast(buffer, ctypes.c_void_p)
        parms.eci_commarea_length = MAX_COMMAREA
        rc = self._conn._execute(parms, False)
        # A delivered reply carries its request's call type.
        if parms.eci_call_type != c.ECI_ASYNC:
            return rc, None, b""
        n = max(0, min(parms.commarea_inbound_length, MAX_COMMAREA))
        return rc, parms, buffer.raw[:n]

    def _run(self) -> None:
        buffer = ctypes.create_string_buffer(MAX_COMMAREA)
        while True:
            with self._cond:
                while not self._count and not self._stopping:
                    self._cond.wait()
                if not self._count:
                    return
            with self._collect:
                rc, parms, data = self._retrieve(c.ECI_GET_REPLY_WAIT, buffer)
                if parms is None:
                    # The connection ended under the wait: nothing more will come.
                    self.fail_all(rc)
                    return
                self._deliver(rc, parms, data)

    def drain(self) -> None:
        """Collects every reply queued now, without waiting (for an event loop)."""
        if not self._collect.acquire(blocking=False):
            return  # the reply thread is collecting
        try:
            while self.pending:
                rc, parms, data = self._retrieve(c.ECI_GET_REPLY, self._drain_buffer)
                if parms is None:
                    if rc != c.ECI_ERR_NO_REPLY:
                        self.fail_all(rc)
                    return
                self._deliver(rc, parms, data)
        finally:
            self._collect.release()

    def fail_all(self, rc: int) -> None:
        with self._cond:
            entries = [p for q in self._pending.values() for p in q]
            self._pending.clear()
            self._count = 0
            self._cond.notify_all()
        for entry in entries:
            entry.future.set_exception(error_for(rc))

    def stop(self, wait_for_replies: bool) -> None:
        """Stops collecting: after every pending reply when ``wait_for_replies``."""
        with self._cond:
            if wait_for_replies and self._count and (self._thread is None or not self._thread.is_alive()):
                # The library's close waits for every reply to be collected: collect them.
                self._thread = threading.Thread(target=self._run, name="kvlclient-replies", daemon=True)
                self._thread.start()
            while wait_for_replies and self._count and self._thread is not None and self._thread.is_alive():
                self._cond.wait(0.5)
            self._stopping = True
            self._cond.notify_all()
            thread = self._thread
        if thread is not None and thread is not threading.current_thread() and not self._count:
            thread.join(10)
