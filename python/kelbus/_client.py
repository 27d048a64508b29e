"""Clients of the bus: one that waits, one for asyncio."""

from __future__ import annotations

import asyncio
import enum
import math
import threading
import time
from collections.abc import Callable, Iterable, Mapping
from ctypes import POINTER, byref, c_void_p
from decimal import Decimal
from typing import TypeVar, Union, overload

from . import _library as c
from ._library import BadArgument, UnknownName, library

Default = TypeVar("Default")
Pairs = list[tuple[str, Union[str, None]]]
Settable = Union[str, bool, int, float]

_SLICE_MS = 200  # of waiting in the library, between two looks for Ctrl-C


class Kind(enum.IntEnum):
    """Where a value that is set is kept."""

    SET = 0  #: stored by the service soon after the answer
    DIRECT = 1  #: stored before the answer comes
    NO_DB = 2  #: in memory alone: gone when the service or the device restarts


def to_text(value: Settable) -> str:
    """A value as the parameters of a device hold it: "1" and "0", numbers without an exponent."""
    if isinstance(value, str):
        return value
    if isinstance(value, bool):
        return "1" if value else "0"
    if isinstance(value, int):
        return str(int(value))
    if not math.isfinite(value):
        raise BadArgument("only finite numbers can be set")
    return format(Decimal(repr(float(value))), "f").removesuffix(".0")


def to_bool(name: str, value: str) -> bool:
    if value not in ("0", "1"):
        raise BadArgument(f'"{name}": the value is neither 0 nor 1')
    return value == "1"


def _ascii_number(value: str) -> bool:
    return value.isascii() and "_" not in value and value == value.strip() and value[:1] != "+"


def to_int(name: str, value: str) -> int:
    if not _ascii_number(value) or not value.removeprefix("-").isdigit():
        raise BadArgument(f'"{name}": the value is no whole number')
    return int(value)


def to_float(name: str, value: str) -> float:
    try:
        number = float(value) if _ascii_number(value) else math.nan
    except ValueError:
        number = math.nan
    if not math.isfinite(number):
        raise BadArgument(f'"{name}": the value is no number')
    return number


class _Request:
    """A request under way. Ends with its answer, an error or cancel(), whichever comes first."""

    def __init__(self, owner: _Base, start: Callable[[c_void_p, c_void_p], int]) -> None:
        self.error: c.KelbusError | None = None
        self._owner = owner
        self._pointer = c_void_p()
        with owner._lock:
            code = start(owner._handle(), self._pointer)
            if code != c.OK:
                raise owner._error(code)
            owner._requests.add(self)

    def fileno(self) -> int:
        with self._owner._lock:
            return library.kelbus_request_fd(self._pointer)

    def finish(self, timeout_ms: int) -> Pairs | None:
        """What was answered, `error` then says whether well; None when it goes on."""
        values = POINTER(c.Values)()
        with self._owner._lock:
            if not self._pointer:
                raise c.error_of(1, "the client was closed")
            code = library.kelbus_request_finish(self._pointer, byref(values), timeout_ms)
            if code == c.TIMEOUT:
                return None
            self._end()
            self.error = None if code == c.OK else self._owner._error(code)
        return c.taken(values)

    def cancel(self) -> None:
        with self._owner._lock:
            if self._pointer:
                library.kelbus_request_cancel(self._pointer)
                self._end()

    def _end(self) -> None:
        self._pointer = c_void_p()
        self._owner._requests.discard(self)


class _Base:
    """What both clients share: the connection, and how each request begins."""

    def __init__(self, timeout: float | None = 5.0) -> None:
        """`timeout` in seconds bounds each call; None is no limit."""
        self.timeout = timeout
        self._lock = threading.RLock()
        self._requests: set[_Request] = set()
        self._pointer = c_void_p()
        code = library.kelbus_open(byref(self._pointer))
        if code != c.OK:
            raise c.error_of(code)

    def close(self) -> None:
        """Gives up what is under way and closes the connections. May be called again."""
        with self._lock:
            for request in list(self._requests):
                request.cancel()
            pointer, self._pointer = self._pointer, c_void_p()
            library.kelbus_close(pointer)

    def __del__(self) -> None:
        if getattr(self, "_pointer", None):
            self.close()

    def _handle(self) -> c_void_p:
        if not self._pointer:
            raise BadArgument("the client is closed")
        return self._pointer

    def _error(self, code: int) -> c.KelbusError:
        return c.error_of(code, c.text(library.kelbus_message(self._handle())))

    def _start_get(self, names: Iterable[str]) -> _Request:
        raw = c.raw_names(tuple(names))
        return _Request(
            self, lambda own, out: library.kelbus_start_get(own, raw, len(raw), byref(out))
        )

    def _start_group(self, names: Iterable[str]) -> _Request:
        raw = c.raw_names(tuple(names))
        return _Request(
            self, lambda own, out: library.kelbus_start_group(own, raw, len(raw), byref(out))
        )

    def _start_list(self, prefix: str) -> _Request:
        raw = c.raw(prefix)
        return _Request(self, lambda own, out: library.kelbus_start_list(own, raw, byref(out)))

    def _start_set(self, values: Mapping[str, Settable], kind: Kind) -> _Request:
        items = [c.Parameter(c.raw(name), c.raw(to_text(value))) for name, value in values.items()]
        raw = (c.Parameter * len(items))(*items)
        return _Request(
            self, lambda own, out: library.kelbus_start_set(own, raw, len(raw), kind, byref(out))
        )


_MISSING = object()


def _good(request: _Request, answer: Pairs, *tolerated: type[c.KelbusError]) -> Pairs:
    if request.error is not None and not isinstance(request.error, tolerated):
        raise request.error
    return answer


class Client(_Base):
    """Reads and sets parameters. Any thread may use it; calls take turns.

    >>> with kelbus.Client() as bus:
    ...     bus["system.info.location"] = "gate 3"
    ...     port = bus.get_int("network.http.port")
    """

    def __enter__(self) -> Client:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def _finish(self, request: _Request) -> Pairs:
        end = math.inf if self.timeout is None else time.monotonic() + self.timeout
        try:
            while True:
                left = max(end - time.monotonic(), 0.0)
                finished = request.finish(min(_SLICE_MS, math.ceil(min(left, 1.0) * 1000)))
                if finished is not None:
                    return finished
                if left == 0.0:
                    raise c.error_of(c.TIMEOUT)
        finally:
            request.cancel()

    def _run(self, request: _Request) -> Pairs:
        return _good(request, self._finish(request))

    @overload
    def get(self, name: str) -> str: ...
    @overload
    def get(self, name: str, default: Default) -> str | Default: ...
    def get(self, name: str, default: object = _MISSING) -> object:
        """One value; `default`, where it is given, for an unknown name."""
        try:
            return self._run(self._start_get((name,)))[0][1]
        except UnknownName:
            if default is _MISSING:
                raise
            return default

    def get_bool(self, name: str) -> bool:
        return to_bool(name, self.get(name))

    def get_int(self, name: str) -> int:
        return to_int(name, self.get(name))

    def get_float(self, name: str) -> float:
        return to_float(name, self.get(name))

    def get_many(self, names: Iterable[str]) -> dict[str, str | None]:
        """Several values in one request; None for unknown names."""
        request = self._start_get(names)
        return dict(_good(request, self._finish(request), UnknownName))

    def list(self, prefix: str = "") -> dict[str, str]:
        """All parameters whose names begin with `prefix`, in order of their names."""
        return dict(self._run(self._start_list(prefix)))  # type: ignore[arg-type]

    def group(self, *names: str) -> dict[str, str]:
        """The parameters of groups, whose names agree in their first eight bytes."""
        return dict(self._run(self._start_group(names)))  # type: ignore[arg-type]

    def set(self, name: str, value: Settable, kind: Kind = Kind.SET) -> None:
        self.set_many({name: value}, kind)

    def set_many(
        self, values: Mapping[str, Settable], kind: Kind = Kind.SET
    ) -> None:
        """In one request. With UnknownName the values of the known names have been set."""
        self._run(self._start_set(values, kind))

    def __getitem__(self, name: str) -> str:
        return self.get(name)

    def __setitem__(self, name: str, value: Settable) -> None:
        self.set(name, value)

    def __contains__(self, name: str) -> bool:
        return self.get(name, None) is not None


async def readable(descriptor: int) -> None:
    """Until poll() finds it readable."""
    loop = asyncio.get_running_loop()
    ready: asyncio.Future[None] = loop.create_future()
    loop.add_reader(descriptor, lambda: ready.done() or ready.set_result(None))
    try:
        await ready
    finally:
        loop.remove_reader(descriptor)


class AsyncClient(_Base):
    """The same for asyncio. Requests may run side by side; cancelling a task gives its request up.

    >>> async with kelbus.AsyncClient() as bus:
    ...     await bus.set("system.info.location", "gate 3")
    """

    async def __aenter__(self) -> AsyncClient:
        return self

    async def __aexit__(self, *_: object) -> None:
        self.close()

    async def _finish(self, request: _Request) -> Pairs:
        async def answered() -> Pairs:
            descriptor = request.fileno()
            if descriptor < 0:
                raise c.error_of(7)
            while (finished := request.finish(0)) is None:
                await readable(descriptor)
            return finished

        try:
            return await asyncio.wait_for(answered(), self.timeout)
        except asyncio.TimeoutError:
            raise c.error_of(c.TIMEOUT) from None
        finally:
            request.cancel()

    async def _run(self, request: _Request) -> Pairs:
        return _good(request, await self._finish(request))

    async def get(self, name: str, default: object = _MISSING) -> str:
        try:
            return (await self._run(self._start_get((name,))))[0][1]  # type: ignore[return-value]
        except UnknownName:
            if default is _MISSING:
                raise
            return default  # type: ignore[return-value]

    async def get_bool(self, name: str) -> bool:
        return to_bool(name, await self.get(name))

    async def get_int(self, name: str) -> int:
        return to_int(name, await self.get(name))

    async def get_float(self, name: str) -> float:
        return to_float(name, await self.get(name))

    async def get_many(self, names: Iterable[str]) -> dict[str, str | None]:
        request = self._start_get(names)
        return dict(_good(request, await self._finish(request), UnknownName))

    async def list(self, prefix: str = "") -> dict[str, str]:
        return dict(await self._run(self._start_list(prefix)))  # type: ignore[arg-type]

    async def group(self, *names: str) -> dict[str, str]:
        return dict(await self._run(self._start_group(names)))  # type: ignore[arg-type]

    async def set(
        self, name: str, value: Settable, kind: Kind = Kind.SET
    ) -> None:
        await self.set_many({name: value}, kind)

    async def set_many(
        self, values: Mapping[str, Settable], kind: Kind = Kind.SET
    ) -> None:
        await self._run(self._start_set(values, kind))
