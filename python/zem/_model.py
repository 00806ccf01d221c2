# SPDX-License-Identifier: Apache-2.0
"""A model that is open."""

from __future__ import annotations

import ctypes
import json
import os
from ctypes import c_char, c_size_t, c_uint32, c_void_p
from typing import Any, Dict, List, Literal, NamedTuple, Optional, Sequence, Union, overload

from ._closing import Closing
from ._events import Reply
from ._library import (
    NONE,
    SPACE,
    SPECIAL_TOKENS,
    TELL_PROMPT,
    TELL_TOKENS,
    CompletionRecord,
    DeliveryRecord,
    DescriptionRecord,
    EngineOptions,
    StatisticsRecord,
    call,
    filled,
    ids_of,
)
from ._stream import Stream

Path = Union[str, "os.PathLike[str]"]
Message = Dict[str, Any]


class Description(NamedTuple):
    """What a model is. Sizes in bytes, lengths in tokens."""

    name: str
    layers: int
    width: int
    vocabulary: int
    parameters: int
    weight_bytes: int
    trained: int
    context: int
    state_bytes: int
    position_bytes: int
    tokenizer: str
    chat_format: str


class Statistics(NamedTuple):
    """What a model does now, and the sums of the requests that ended."""

    running: int
    waiting: int
    kept_states: int
    kept_bytes: int
    requests: int
    prompt_tokens: int
    reused_tokens: int
    generated_tokens: int


class Prompt(NamedTuple):
    """The prompt of a chat."""

    text: str
    ids: List[int]


def _none_or(number: Optional[int], when_zero: int) -> int:
    """A number for a field in which 0 means the default."""
    if number is None:
        return 0
    return when_zero if number == 0 else number


def _json(fields: Dict[str, Any]) -> bytes:
    present = {name: value for name, value in fields.items() if value is not None}
    return json.dumps(present, ensure_ascii=False).encode("utf-8", "replace")


class Model(Closing):
    """A model file that is open, with threads that compute. Any thread may use it.

    threads        that compute; None: all processors
    math           "exact", or "fast": with activations of 14 bits, where the weights allow
    cache_numbers  "half" or "float": what keys and values are stored as
    sequences      replies that are computed at the same time; None: 4
    waiting        requests that may wait for a place; None: 64
    context        tokens of prompt and reply together; None: as the model says
    batch_tokens   tokens that are computed together; None: 48
    memory_bytes   for replies that are computed; None: no limit
    cache_bytes    for what later requests may reuse; None: 1 GiB
    chat_format    name of the chat template's revision; None: the model's own
    """

    def __init__(
        self,
        path: Path,
        *,
        threads: Optional[int] = None,
        math: str = "exact",
        cache_numbers: str = "half",
        sequences: Optional[int] = None,
        waiting: Optional[int] = None,
        context: Optional[int] = None,
        batch_tokens: Optional[int] = None,
        memory_bytes: Optional[int] = None,
        cache_bytes: Optional[int] = None,
        chat_format: Optional[str] = None,
    ) -> None:
        self._handle: Optional[int] = None
        options = EngineOptions(
            threads=threads or 0,
            math=_choice("math", math, ("exact", "fast")),
            cache_numbers=_choice("cache_numbers", cache_numbers, ("half", "float")),
            sequences=sequences or 0,
            waiting=_none_or(waiting, NONE),
            context=context or 0,
            batch_tokens=batch_tokens or 0,
            memory_bytes=memory_bytes or 0,
            cache_bytes=_none_or(cache_bytes, NONE),
            chat_format=chat_format.encode() if chat_format is not None else None,
        )
        handle = c_void_p()
        call("zem_engine_open", os.fsencode(path), ctypes.byref(options), ctypes.byref(handle))
        self._handle = handle.value

    def close(self) -> None:
        """Ends all replies and closes the file. May be repeated."""
        handle, self._handle = self._handle, None
        if handle is None:
            return
        call("zem_engine_cancel_all", handle)
        call("zem_engine_close", handle)

    @property
    def description(self) -> Description:
        """What the model is."""
        record = DescriptionRecord()
        call("zem_engine_describe", self._handle, ctypes.byref(record))
        values = (getattr(record, name) for name in Description._fields)
        return Description(*(value.decode("utf-8", "replace") if isinstance(value, bytes) else value
                             for value in values))

    @property
    def statistics(self) -> Statistics:
        """What it does and did, after its latest step."""
        record = StatisticsRecord()
        call("zem_engine_statistics", self._handle, ctypes.byref(record))
        return Statistics(*(getattr(record, name) for name in Statistics._fields))

    def tokenize(self, text: str, *, special: bool = False) -> List[int]:
        """The ids of a text. With `special`, texts such as "<|im_start|>" are the tokens that
        they name."""
        data = text.encode("utf-8", "replace")
        flags = SPECIAL_TOKENS if special else 0
        return list(filled(c_uint32, lambda buffer, room, length: call(
            "zem_engine_tokenize", self._handle, data, len(data), flags, buffer, room, length,
            allowed=(SPACE,))))

    def detokenize(self, ids: Sequence[int], *, special: bool = False) -> str:
        """The text of ids. Without `special`, tokens that steer the model are left out."""
        array = ids_of(ids)
        flags = SPECIAL_TOKENS if special else 0
        data = filled(c_char, lambda buffer, room, length: call(
            "zem_engine_detokenize", self._handle, array, len(array), flags, buffer, room, length,
            allowed=(SPACE,)))
        return bytes(data).decode("utf-8", "replace")

    def render(self, messages: Sequence[Message], **settings: Any) -> Prompt:
        """The prompt of a chat, which chat() would compute."""
        request = _json({"messages": list(messages), **settings})
        data = filled(c_char, lambda buffer, room, length: call(
            "zem_engine_render", self._handle, request, len(request), buffer, room, length,
            None, 0, None, allowed=(SPACE,)))
        ids = filled(c_uint32, lambda buffer, room, length: call(
            "zem_engine_render", self._handle, request, len(request), None, 0, None,
            buffer, room, length, allowed=(SPACE,)))
        return Prompt(bytes(data).decode("utf-8", "replace"), list(ids))

    @overload
    def chat(self, messages: Sequence[Message], *, tools: Optional[Sequence[Dict[str, Any]]] = None,
             stream: Literal[False] = False, tell_tokens: bool = False, tell_prompt: bool = False,
             queue_bytes: Optional[int] = None, **settings: Any) -> Reply: ...

    @overload
    def chat(self, messages: Sequence[Message], *, tools: Optional[Sequence[Dict[str, Any]]] = None,
             stream: Literal[True], tell_tokens: bool = False, tell_prompt: bool = False,
             queue_bytes: Optional[int] = None, **settings: Any) -> Stream: ...

    def chat(
        self,
        messages: Sequence[Message],
        *,
        tools: Optional[Sequence[Dict[str, Any]]] = None,
        stream: bool = False,
        tell_tokens: bool = False,
        tell_prompt: bool = False,
        queue_bytes: Optional[int] = None,
        **settings: Any,
    ) -> Union[Reply, Stream]:
        """The next turn of a conversation: a Reply, or with `stream` a Stream.

        `settings` are the members of a request that docs/libzem.md lists: temperature, top_p,
        max_tokens, stop, seed, enable_thinking, thinking_budget, response_format, tool_choice, ...
        None counts as absent. `tell_tokens` and `tell_prompt` ask for such events, and
        `queue_bytes` limits what waits to be read.
        """
        request = _json({
            "messages": list(messages),
            "tools": list(tools) if tools is not None else None,
            **settings,
        })
        delivery = _delivery(tell_tokens, tell_prompt, queue_bytes)
        handle = c_void_p()
        call("zem_engine_chat", self._handle, request, len(request), ctypes.byref(delivery),
             ctypes.byref(handle))
        return self._reply_or_stream(handle, stream)

    @overload
    def complete(self, prompt: Union[str, Sequence[int]], *, stream: Literal[False] = False,
                 special: bool = False, tell_tokens: bool = False, tell_prompt: bool = False,
                 queue_bytes: Optional[int] = None, **settings: Any) -> Reply: ...

    @overload
    def complete(self, prompt: Union[str, Sequence[int]], *, stream: Literal[True],
                 special: bool = False, tell_tokens: bool = False, tell_prompt: bool = False,
                 queue_bytes: Optional[int] = None, **settings: Any) -> Stream: ...

    def complete(
        self,
        prompt: Union[str, Sequence[int]],
        *,
        stream: bool = False,
        special: bool = False,
        tell_tokens: bool = False,
        tell_prompt: bool = False,
        queue_bytes: Optional[int] = None,
        **settings: Any,
    ) -> Union[Reply, Stream]:
        """What follows a text, or ids; otherwise as chat(). `special` is that of tokenize()."""
        what = CompletionRecord(settings=_json(settings))
        if isinstance(prompt, str):
            data = prompt.encode("utf-8", "replace")
            what.prompt, what.prompt_size = data, len(data)
            what.flags = SPECIAL_TOKENS if special else 0
        else:
            what.ids = ids_of(prompt)
            what.id_count = len(prompt)
        delivery = _delivery(tell_tokens, tell_prompt, queue_bytes)
        handle = c_void_p()
        call("zem_engine_complete", self._handle, ctypes.byref(what), ctypes.byref(delivery),
             ctypes.byref(handle))
        return self._reply_or_stream(handle, stream)

    def _reply_or_stream(self, handle: c_void_p, stream: bool) -> Union[Reply, Stream]:
        assert handle.value is not None
        events = Stream(handle.value, self)
        return events if stream else events.read()

    def save(self, ids: Sequence[int], path: Path) -> int:
        """Writes the state of a conversation to a file; `ids` are its tokens, as Stream.tokens()
        gives them. Returns how many of them the state has behind it."""
        array = ids_of(ids)
        saved = c_size_t()
        call("zem_engine_save", self._handle, array, len(array), os.fsencode(path),
             ctypes.byref(saved))
        return saved.value

    def restore(self, path: Path) -> List[int]:
        """Reads a saved state and gives its tokens. A prompt that begins with them goes on
        from there."""
        return list(filled(c_uint32, lambda buffer, room, length: call(
            "zem_engine_restore", self._handle, os.fsencode(path), buffer, room, length,
            allowed=(SPACE,))))


def _choice(name: str, value: str, choices: Sequence[str]) -> int:
    if value not in choices:
        raise ValueError(f"{name}: found {value!r}, needed one of {', '.join(choices)}")
    return choices.index(value)


def _delivery(tokens: bool, prompt: bool, queue_bytes: Optional[int]) -> DeliveryRecord:
    flags = (TELL_TOKENS if tokens else 0) | (TELL_PROMPT if prompt else 0)
    return DeliveryRecord(flags=flags, queue_bytes=queue_bytes or 0)
