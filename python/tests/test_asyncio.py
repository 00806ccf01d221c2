# SPDX-License-Identifier: Apache-2.0
import asyncio

import pytest

from conftest import ENDLESS, USER


def test_async_iteration_gives_the_same_reply(model):
    settings = {"max_tokens": 12, "enable_thinking": False, **ENDLESS}

    async def ask():
        text = ""
        async for event in model.chat(USER, stream=True, **settings):
            text += event.text
        return text

    async def ask_three():
        return await asyncio.gather(ask(), ask(), ask())

    want = model.chat(USER, **settings).content
    assert asyncio.run(ask_three()) == [want] * 3


def test_whole_reply_can_be_awaited(model):
    async def ask():
        return await model.complete("Once", stream=True, max_tokens=5, **ENDLESS).aread()

    assert asyncio.run(ask()).end_reason == "length"


def test_the_loop_runs_while_a_reply_comes(model):
    async def ask():
        ticks = 0
        stream = model.complete("Once", stream=True, **ENDLESS)
        reading = asyncio.ensure_future(stream.aread())
        while ticks < 5:
            await asyncio.sleep(0.001)
            ticks += 1
        stream.cancel()
        return await reading

    assert asyncio.run(ask()).end_reason == "cancelled"


def test_a_cancelled_task_ends_its_reply(model):
    async def ask():
        stream = model.complete("Once", stream=True, **ENDLESS)
        reading = asyncio.ensure_future(stream.aread())
        await asyncio.sleep(0.02)
        reading.cancel()
        with pytest.raises(asyncio.CancelledError):
            await reading

    asyncio.run(ask())
    while model.statistics.running:
        pass
