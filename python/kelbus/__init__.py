"""The configuration bus kelbus: read, set and watch the parameters of the device.

    import kelbus

    with kelbus.Client() as bus:
        print(bus["system.info.location"])          # UnknownName, a KeyError, where there is none
        bus.set("network.http.port", 8080)
        for name, value in bus.list("network.").items():
            print(name, value)

    with kelbus.Watch("network.", values=True) as watch:
        for change in watch:
            print(change.name, change.previous, "->", change.value)

    kelbus.Catalog()["network.http.port"].default   # what the factory gave it; needs no service

The same for asyncio: AsyncClient, and `async for change in watch`. Errors are KelbusError and what
derives from it. It stands on libkelbus, whose header kelbus.h says more of what is guaranteed.
"""

from ._catalog import Catalog, Definition
from ._client import AsyncClient, Client, Kind
from ._library import (
    BadArgument,
    BrokenReply,
    KelbusError,
    NoCatalog,
    NoMemory,
    NoService,
    Refused,
    Timeout,
    UnknownName,
    library,
    text,
)
from ._watch import Change, Watch

__all__ = [
    "AsyncClient",
    "BadArgument",
    "BrokenReply",
    "Catalog",
    "Change",
    "Client",
    "Definition",
    "KelbusError",
    "Kind",
    "NoCatalog",
    "NoMemory",
    "NoService",
    "Refused",
    "Timeout",
    "UnknownName",
    "Watch",
]
__version__ = text(library.kelbus_version())
