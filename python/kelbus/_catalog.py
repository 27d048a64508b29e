"""What the factory gave a parameter, by libkelbus-catalog."""

from __future__ import annotations

import ctypes
import threading
from ctypes import POINTER, byref, c_bool, c_char_p, c_int, c_void_p
from functools import cache
from typing import NamedTuple

from . import _library as c
from ._client import Settable, to_text

_TEXTS = ("name", "default_value", "type", "range", "step", "options", "access")


class _Raw(ctypes.Structure):
    _fields_ = [(text, c_char_p) for text in _TEXTS] + [("is_secret", c_bool), ("is_state", c_bool)]


@cache
def _library() -> ctypes.CDLL:
    return c.load("libkelbus-catalog.so.0", "kelbus_catalog_", {
        "open": (c_int, [POINTER(c_void_p)]),
        "close": (None, [c_void_p]),
        "message": (c_char_p, [c_void_p]),
        "find": (c_int, [c_void_p, c_char_p, POINTER(_Raw)]),
        "check": (c_int, [c_void_p, c_char_p, c_char_p]),
    })


class Definition(NamedTuple):
    """A parameter as its tree defines it; empty where the tree says nothing."""

    name: str
    default: str
    type: str
    range: str
    step: str
    options: str
    access: str  #: from web pages: "r" or "rw"
    is_secret: bool  #: its values are not for everybody's eyes
    is_state: bool  #: a state of the device, no setting


class Catalog:
    """Default, type and rule of the parameters. Needs no service. Any thread may use it.

    >>> catalog = kelbus.Catalog()
    >>> catalog["network.http.port"].default
    '80'
    >>> catalog.check("network.http.port", 0)
    Traceback (most recent call last):
    kelbus.BadArgument: "network.http.port": must be 1 to 65535
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._pointer = c_void_p()
        code = _library().kelbus_catalog_open(byref(self._pointer))
        if code != c.OK:
            raise c.error_of(code)

    def __del__(self) -> None:
        if getattr(self, "_pointer", None):
            _library().kelbus_catalog_close(self._pointer)

    def find(self, name: str) -> Definition:
        """UnknownName where the factory has no such name."""
        found = _Raw()
        with self._lock:
            self._good(_library().kelbus_catalog_find(self._pointer, c.raw(name), byref(found)))
            texts = [c.text(getattr(found, text)) for text in _TEXTS]
        return Definition(*texts, found.is_secret, found.is_state)  # type: ignore[misc]

    def check(self, name: str, value: Settable) -> None:
        """BadArgument, which says what it must be, for a value that breaks the parameter's rule."""
        with self._lock:
            text = c.raw(to_text(value))
            self._good(_library().kelbus_catalog_check(self._pointer, c.raw(name), text))

    def __getitem__(self, name: str) -> Definition:
        return self.find(name)

    def __contains__(self, name: str) -> bool:
        try:
            return bool(self.find(name))
        except c.UnknownName:
            return False

    def _good(self, code: int) -> None:
        if code != c.OK:
            raise c.error_of(code, c.text(_library().kelbus_catalog_message(self._pointer)))
