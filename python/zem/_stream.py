# SPDX-License-Identifier: Apache-2.0
"""A reply while it comes."""

from __future__ import annotations

import asyncio
import ctypes
import threading
from ctypes import c_uint32
from typing import AsyncIterator, Iterator, List, Optional

from ._closing import Closing
from ._errors import FINISHED, SPACE, TIMEOUT, ClosedError, ReplyError
from ._events import Event, Reply, data_of, event_of, finish
from ._library import EventRecord, call, filled

# How long a wait lasts before the interpreter looks at signals.
_SLICE_MILLISECONDS = 100
_END = 8


class Stream(Closing):
    """The events of a reply, to be iterated over, once, with `for` or with `async for`.

    The iteration ends with the reply. `reply` has what came so far. A loop that is left early, by
    Ctrl-C for example, ends the reply once the stream is closed or garbage; `with` closes it.
    One thread at a time iterates; `cancel()` may be called from any.
    """

    def __init__(self, handle: int, model: object) -> None:
        self.reply = Reply()
        """What came so far."""
        self._handle: Optional[int] = handle
        self._model = model  # stays open while this stream is read
        self._lock = threading.Lock()  # held while an event is read from the library's memory
        self._ids: List[int] = []

    def __iter__(self) -> Iterator[Event]:
        return self

    def __next__(self) -> Event:
        try:
            while not self._is_over():
                event = self._wait()
                if event is not None:
                    return event
        except BaseException:  # Ctrl-C among them
            self.close()
            raise
        raise StopIteration

    def __aiter__(self) -> AsyncIterator[Event]:
        return self

    async def __anext__(self) -> Event:
        loop = asyncio.get_running_loop()
        try:
            while not self._is_over():
                event = await loop.run_in_executor(None, self._wait)
                if event is not None:
                    return event
        except BaseException:  # the task was cancelled, for example
            self.cancel()
            loop.run_in_executor(None, self.close)
            raise
        raise StopAsyncIteration

    def read(self) -> Reply:
        """Waits for the end, and gives the whole reply."""
        for _ in self:
            pass
        return self.reply

    async def aread(self) -> Reply:
        """read() for asyncio."""
        async for _ in self:
            pass
        return self.reply

    def cancel(self) -> None:
        """Ends the reply soon, with the reason "cancelled". Nothing happens when it has ended."""
        handle = self._handle
        if handle is not None:
            try:
                call("zem_request_cancel", handle)
            except ClosedError:  # another thread was faster
                pass

    def close(self) -> None:
        """Gives back what the stream holds, and ends its reply if that is under way."""
        self.cancel()
        with self._lock:
            self._close()

    def tokens(self) -> List[int]:
        """The ids of the prompt and of the reply so far."""
        with self._lock:
            if self._handle is not None:
                self._take_tokens()
            return list(self._ids)

    def _is_over(self) -> bool:
        return self.reply.end_reason is not None

    def _wait(self) -> Optional[Event]:
        """The next event; None when none came within a moment, and at the end."""
        record = EventRecord()
        with self._lock:
            if self._handle is None:
                raise ClosedError("the stream is closed")
            code = call("zem_request_next", self._handle, _SLICE_MILLISECONDS,
                        ctypes.byref(record), allowed=(TIMEOUT, FINISHED))
            if code != 0:
                return None
            if record.kind == _END:
                return self._end(record)
            event = event_of(record)
        self.reply.add(event)
        return event

    def _end(self, record: EventRecord) -> None:
        finish(self.reply, record)
        text = data_of(record).decode("utf-8", "replace")
        self._close()
        if self.reply.end_reason == "error":
            raise ReplyError(text)

    def _close(self) -> None:
        if self._handle is None:
            return
        self._take_tokens()
        handle, self._handle = self._handle, None
        call("zem_request_close", handle)

    def _take_tokens(self) -> None:
        handle = self._handle
        self._ids = list(filled(c_uint32, lambda buffer, room, length: call(
            "zem_request_tokens", handle, buffer, room, length, allowed=(SPACE,))))
