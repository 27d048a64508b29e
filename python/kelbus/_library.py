"""libkelbus as ctypes sees it: loading, signatures, errors."""

from __future__ import annotations

import ctypes
from collections.abc import Iterator
from ctypes import POINTER, c_char_p, c_int, c_size_t, c_uint, c_void_p
from pathlib import Path


class KelbusError(Exception):
    """What went wrong, in words; never a value. The base of all errors of this module."""

    def __str__(self) -> str:  # a KeyError would show its text in quotes
        return str(self.args[0]) if self.args else ""


class NoService(KelbusError, ConnectionError):
    """Nobody serves the bus, or the service ended before it answered."""


class Timeout(KelbusError, TimeoutError):
    """The service runs and did not answer in time."""


class UnknownName(KelbusError, KeyError):
    """The service has no parameter of a name that was given."""


class Refused(KelbusError, PermissionError):
    """The service answered with failure, or its socket is not open to this program."""


class BrokenReply(KelbusError):
    """What came is no answer to the request."""


class BadArgument(KelbusError, ValueError):
    """A name or text that cannot be sent, or a value that is not of the type asked for."""


class NoCatalog(KelbusError, OSError):
    """The factory defaults cannot be read."""


class NoMemory(KelbusError, MemoryError):
    """Memory, threads or descriptors are short in this process."""


OK, TIMEOUT, BROKEN_REPLY = 0, 2, 5
_ERRORS = [KelbusError, NoService, Timeout, UnknownName, Refused, BrokenReply, BadArgument, NoMemory,
           NoCatalog]
WATCH_GAPS, WATCH_VALUES = 1, 2


class Parameter(ctypes.Structure):
    _fields_ = [("name", c_char_p), ("value", c_char_p)]


class Values(ctypes.Structure):
    _fields_ = [("count", c_size_t), ("items", POINTER(Parameter))]


class RawChange(ctypes.Structure):
    _fields_ = [("name", c_char_p), ("value", c_char_p), ("prev_value", c_char_p)]


def _candidates(name: str) -> Iterator[str]:
    """The library that was installed with this module, then whichever the loader finds."""
    for directory in Path(__file__).resolve().parents[2:4]:
        for place in (directory, *directory.glob("*-linux-*")):
            if (place / name).exists():
                yield str(place / name)
    yield name


def load(name: str, prefix: str, signatures: dict[str, tuple[object, list]]) -> ctypes.CDLL:
    """A library with the result and arguments of its functions, whose names begin alike."""
    for path in _candidates(name):
        try:
            loaded = ctypes.CDLL(path)
            break
        except OSError as error:
            reason = error
    else:
        raise ImportError(f"{name} cannot be loaded: {reason}")
    for function, (result, arguments) in signatures.items():
        entry = getattr(loaded, prefix + function)
        entry.restype, entry.argtypes = result, arguments
    return loaded


_NAMES = POINTER(c_char_p)
_SIGNATURES = {
    "strerror": (c_char_p, [c_int]),
    "version": (c_char_p, []),
    "open": (c_int, [POINTER(c_void_p)]),
    "close": (None, [c_void_p]),
    "message": (c_char_p, [c_void_p]),
    "values_free": (None, [POINTER(Values)]),
    "start_get": (c_int, [c_void_p, _NAMES, c_size_t, POINTER(c_void_p)]),
    "start_group": (c_int, [c_void_p, _NAMES, c_size_t, POINTER(c_void_p)]),
    "start_list": (c_int, [c_void_p, c_char_p, POINTER(c_void_p)]),
    "start_set": (c_int, [c_void_p, POINTER(Parameter), c_size_t, c_int, POINTER(c_void_p)]),
    "request_fd": (c_int, [c_void_p]),
    "request_finish": (c_int, [c_void_p, POINTER(POINTER(Values)), c_int]),
    "request_cancel": (None, [c_void_p]),
    "watch_open_with": (c_int, [POINTER(c_void_p), _NAMES, c_size_t, c_uint]),
    "watch_fd": (c_int, [c_void_p]),
    "watch_next": (c_int, [c_void_p, POINTER(RawChange), c_int]),
    "watch_close": (None, [c_void_p]),
}

library = load("libkelbus.so.0", "kelbus_", _SIGNATURES)


def text(raw: bytes | None) -> str:
    return (raw or b"").decode()


def raw(value: str) -> bytes:
    """A text for C. One that C would cut is refused like one that XML cannot carry."""
    try:
        encoded = value.encode()
    except UnicodeEncodeError as error:
        raise BadArgument(f"no UTF-8: {error.reason}") from None
    if b"\0" in encoded:
        raise BadArgument("a text holds a zero byte")
    return encoded


def raw_names(names: tuple[str, ...]) -> ctypes.Array[c_char_p]:
    return (c_char_p * len(names))(*map(raw, names))


def error_of(code: int, message: str = "") -> KelbusError:
    kind = _ERRORS[code] if 0 < code < len(_ERRORS) else KelbusError
    return kind(message or text(library.kelbus_strerror(code)))


def taken(values: ctypes._Pointer[Values]) -> list[tuple[str, str | None]]:
    """The content of an answer, which is released."""
    if not values:
        return []
    try:
        items = values.contents.items
        return [
            (text(items[i].name), None if items[i].value is None else text(items[i].value))
            for i in range(values.contents.count)
        ]
    finally:
        library.kelbus_values_free(values)
