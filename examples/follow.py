#!/usr/bin/env python3
"""Keeps a copy of some parameters up to date, beside other work: follow.py [PREFIX...]."""

import asyncio
import sys

import kelbus


async def follow(prefixes: list[str], state: dict[str, str]) -> None:
    with kelbus.Watch(*prefixes, values=True) as watch:
        async for change in watch:
            if change.is_gap:
                state.clear()  # the values come again
            else:
                state[change.name] = change.value
                print(f"{change.name}={change.value}", flush=True)


async def main() -> None:
    state: dict[str, str] = {}
    follower = asyncio.create_task(follow(sys.argv[1:], state))
    while not follower.done():  # the other work
        await asyncio.sleep(10)
        print(f"{len(state)} parameters known", file=sys.stderr)
    follower.result()


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except kelbus.KelbusError as error:
        sys.exit(f"follow: {error}")
    except KeyboardInterrupt:
        pass
