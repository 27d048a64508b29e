"""The watch of changes: an iterator, and one for asyncio."""

from __future__ import annotations

import asyncio
import select
import threading
import time
from collections.abc import AsyncIterator, Iterator
from ctypes import byref, c_void_p
from typing import NamedTuple

from . import _library as c
from ._client import readable
from ._library import library

_LOOK = 1.0  # seconds between two looks for a service that keeps this program out


class Change(NamedTuple):
    """A parameter that was changed, a value that a watch begins with, or a gap."""

    name: str  #: empty for a gap
    value: str
    previous: str | None  #: what the change replaced; None for a value that the watch begins with

    @property
    def is_gap(self) -> bool:
        """The watch was disconnected for a while: changes may have been missed."""
        return not self.name


class Watch:
    """The changes of all parameters whose names begin with one of the prefixes (none: all).

    >>> with kelbus.Watch("network.", values=True) as watch:
    ...     for change in watch:            # for ever; or watch.next(timeout=10)
    ...         print(change.name, change.value)

    `values`: first the values as they are, then the changes, without a gap between.
    `gaps`: tell with Change.is_gap that changes may have been missed, when the service was
    restarted; with `values` this is told in any case, and the values come again after it.

    In asyncio: `async for change in watch`. One thread or task at a time takes changes.
    """

    def __init__(self, *prefixes: str, values: bool = False, gaps: bool = False) -> None:
        self._lock = threading.RLock()
        self._pointer = c_void_p()
        self._heard = False
        raw = c.raw_names(prefixes)
        options = (c.WATCH_GAPS if gaps else 0) + (c.WATCH_VALUES if values else 0)
        code = library.kelbus_watch_open_with(byref(self._pointer), raw, len(raw), options)
        if code != c.OK:
            raise c.error_of(code)

    def close(self) -> None:
        """Ends the subscription. May be called again."""
        with self._lock:
            pointer, self._pointer = self._pointer, c_void_p()
            library.kelbus_watch_close(pointer)

    def __del__(self) -> None:
        if getattr(self, "_pointer", None):
            self.close()

    def __enter__(self) -> Watch:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def fileno(self) -> int:
        """For poll() and the like: when it is readable, call next(0) until that is None."""
        with self._lock:
            return library.kelbus_watch_fd(self._handle())

    def next(self, timeout: float | None = None) -> Change | None:
        """The next change, waited for up to `timeout` seconds (None: for ever); None: none came."""
        end = None if timeout is None else time.monotonic() + timeout
        source = select.poll()
        source.register(self.fileno(), select.POLLIN)
        while (change := self._take()) is None:
            left = None if end is None else end - time.monotonic()
            if left is not None and left <= 0:
                return None
            # Waiting here, not in the library, leaves Ctrl-C its effect.
            waits = [wait for wait in (left, self._look_again()) if wait is not None]
            source.poll(min(waits) * 1000 + 1 if waits else None)
        return change

    def __iter__(self) -> Iterator[Change]:
        while (change := self.next()) is not None:
            yield change

    async def __aiter__(self) -> AsyncIterator[Change]:
        while True:
            if (change := self._take()) is not None:
                yield change
                continue
            try:
                await asyncio.wait_for(readable(self.fileno()), self._look_again())
            except asyncio.TimeoutError:
                pass

    def _look_again(self) -> float | None:
        """Seconds until the library is to look whether a service has come that keeps us out."""
        return None if self._heard else _LOOK

    def _handle(self) -> c_void_p:
        if not self._pointer:
            raise c.BadArgument("the watch is closed")
        return self._pointer

    def _take(self) -> Change | None:
        change = c.RawChange()
        with self._lock:
            code = c.BROKEN_REPLY
            while code == c.BROKEN_REPLY:  # something that is no event: dropped
                code = library.kelbus_watch_next(self._handle(), byref(change), 0)
            if code == c.TIMEOUT:
                return None
            if code != c.OK:
                raise c.error_of(code)
            self._heard = True
            previous = None if change.prev_value is None else c.text(change.prev_value)
            return Change(c.text(change.name), c.text(change.value), previous)
