# SPDX-License-Identifier: Apache-2.0
"""The shared library: its records and functions, as zem/engine.h declares them."""

from __future__ import annotations

import ctypes
import os
import sys
from ctypes import POINTER, Structure, c_char_p, c_double, c_int32, c_size_t, c_uint32, c_uint64
from ctypes import c_void_p
from pathlib import Path
from typing import Any, Callable, List, Tuple

from ._errors import SPACE, error_of

LIBRARY_VARIABLE = "ZEM_LIBRARY"
"""The environment variable that names the library's file, where that lies in another place."""

API_VERSION = 1
NONE = 2**64 - 1
SPECIAL_TOKENS = 1
TELL_PROMPT, TELL_TOKENS = 1, 2


class Record(Structure):
    """A record that knows its size."""

    def __init__(self, **fields: Any) -> None:
        super().__init__(struct_size=ctypes.sizeof(type(self)), **fields)


class EngineOptions(Record):
    _fields_ = [
        ("struct_size", c_uint32),
        ("threads", c_uint32),
        ("cache_numbers", c_uint32),
        ("math", c_uint32),
        ("sequences", c_uint64),
        ("waiting", c_uint64),
        ("context", c_uint64),
        ("batch_tokens", c_uint64),
        ("memory_bytes", c_uint64),
        ("cache_bytes", c_uint64),
        ("chat_format", c_char_p),
    ]


class DescriptionRecord(Record):
    _fields_ = [
        ("struct_size", c_uint32),
        ("layers", c_uint32),
        ("width", c_uint32),
        ("vocabulary", c_uint32),
        ("parameters", c_uint64),
        ("weight_bytes", c_uint64),
        ("trained", c_uint64),
        ("context", c_uint64),
        ("state_bytes", c_uint64),
        ("position_bytes", c_uint64),
        ("name", c_char_p),
        ("tokenizer", c_char_p),
        ("chat_format", c_char_p),
    ]


class StatisticsRecord(Record):
    _fields_ = [
        ("struct_size", c_uint32),
        ("reserved", c_uint32),
        ("running", c_uint64),
        ("waiting", c_uint64),
        ("kept_states", c_uint64),
        ("kept_bytes", c_uint64),
        ("requests", c_uint64),
        ("prompt_tokens", c_uint64),
        ("reused_tokens", c_uint64),
        ("generated_tokens", c_uint64),
    ]


class LikelihoodRecord(Structure):
    _fields_ = [("token", c_uint32), ("reserved", c_uint32), ("log_probability", c_double)]


class UsageRecord(Structure):
    _fields_ = [
        ("prompt_tokens", c_uint64),
        ("reused_tokens", c_uint64),
        ("generated_tokens", c_uint64),
        ("reasoning_tokens", c_uint64),
        ("waited_seconds", c_double),
        ("prompt_seconds", c_double),
        ("generate_seconds", c_double),
    ]


class EventRecord(Record):
    _fields_ = [
        ("struct_size", c_uint32),
        ("kind", c_uint32),
        ("text", c_void_p),
        ("text_size", c_size_t),
        ("token", c_uint32),
        ("call", c_uint32),
        ("complete", c_uint32),
        ("end_reason", c_uint32),
        ("stop_text", c_int32),
        ("likely_count", c_uint32),
        ("log_probability", c_double),
        ("likeliest", POINTER(LikelihoodRecord)),
        ("done", c_uint64),
        ("total", c_uint64),
        ("usage", UsageRecord),
    ]


class DeliveryRecord(Record):
    _fields_ = [
        ("struct_size", c_uint32),
        ("flags", c_uint32),
        ("callback", c_void_p),
        ("user", c_void_p),
        ("queue_bytes", c_uint64),
    ]


class CompletionRecord(Record):
    _fields_ = [
        ("struct_size", c_uint32),
        ("flags", c_uint32),
        ("prompt", c_char_p),
        ("prompt_size", c_size_t),
        ("ids", POINTER(c_uint32)),
        ("id_count", c_size_t),
        ("settings", c_char_p),
    ]


_IDS = POINTER(c_uint32)
_LENGTH = POINTER(c_size_t)
_FUNCTIONS = {
    "zem_engine_open": [c_char_p, POINTER(EngineOptions), POINTER(c_void_p)],
    "zem_engine_close": [c_void_p],
    "zem_engine_cancel_all": [c_void_p],
    "zem_engine_describe": [c_void_p, POINTER(DescriptionRecord)],
    "zem_engine_statistics": [c_void_p, POINTER(StatisticsRecord)],
    "zem_engine_tokenize": [c_void_p, c_char_p, c_size_t, c_uint32, _IDS, c_size_t, _LENGTH],
    "zem_engine_detokenize": [c_void_p, _IDS, c_size_t, c_uint32, c_char_p, c_size_t, _LENGTH],
    "zem_engine_render": [
        c_void_p, c_char_p, c_size_t, c_char_p, c_size_t, _LENGTH, _IDS, c_size_t, _LENGTH],
    "zem_engine_complete": [
        c_void_p, POINTER(CompletionRecord), POINTER(DeliveryRecord), POINTER(c_void_p)],
    "zem_engine_chat": [c_void_p, c_char_p, c_size_t, POINTER(DeliveryRecord), POINTER(c_void_p)],
    "zem_request_next": [c_void_p, c_uint32, POINTER(EventRecord)],
    "zem_request_cancel": [c_void_p],
    "zem_request_tokens": [c_void_p, _IDS, c_size_t, _LENGTH],
    "zem_request_close": [c_void_p],
    "zem_engine_save": [c_void_p, _IDS, c_size_t, c_char_p, _LENGTH],
    "zem_engine_restore": [c_void_p, c_char_p, _IDS, c_size_t, _LENGTH],
}


def _places() -> List[str]:
    """Where the library may be, in the order in which it is looked for."""
    named = os.environ.get(LIBRARY_VARIABLE)
    if named:
        return [named]
    name = "libzem.dll" if sys.platform == "win32" else "libzem.so.1"
    beside = Path(__file__).resolve().parent / name
    return [str(beside), name] if beside.exists() else [name]


def _open() -> ctypes.CDLL:
    problems = []
    for place in _places():
        try:
            return ctypes.CDLL(place)
        except OSError as problem:
            problems.append(str(problem))
    raise ImportError(
        f"the library libzem cannot be loaded: {'; '.join(problems)}. Install it, or let "
        f"{LIBRARY_VARIABLE} name its file.")


def _load() -> ctypes.CDLL:
    loaded = _open()
    loaded.zem_api_version.restype = c_uint32
    loaded.zem_version.restype = c_char_p
    loaded.zem_last_error.restype = c_char_p
    if loaded.zem_api_version() < API_VERSION:
        raise ImportError(
            f"the library libzem has interface {loaded.zem_api_version()}, and this package needs "
            f"{API_VERSION}: install a newer library")
    for name, arguments in _FUNCTIONS.items():
        function = getattr(loaded, name)
        function.argtypes = arguments
        function.restype = c_int32
    return loaded


library = _load()


def library_version() -> str:
    """The version of the library that is loaded."""
    return library.zem_version().decode()


def last_error() -> str:
    return library.zem_last_error().decode("utf-8", "replace")


def call(name: str, *arguments: Any, allowed: Tuple[int, ...] = ()) -> int:
    """Calls a function; raises the exception for a code that is neither success nor allowed."""
    code = getattr(library, name)(*arguments)
    if code != 0 and code not in allowed:
        raise error_of(code, last_error())
    return code


def ids_of(ids: Any) -> Any:
    """An array of ids for the library."""
    numbers = list(ids)
    for at, number in enumerate(numbers):
        if not isinstance(number, int) or not 0 <= number < 2**32:
            raise ValueError(f"ids[{at}]: found {number!r}, needed a token's id")
    return (c_uint32 * len(numbers))(*numbers)


def filled(kind: Any, ask: Callable[[Any, int, Any], int]) -> Any:
    """An array of the library's. `ask(buffer, capacity, length)` makes the call, first with no room
    and then with as much as it needs."""
    length = c_size_t()
    room = 0
    buffer = None
    while ask(buffer, room, ctypes.byref(length)) == SPACE:
        room = length.value
        buffer = (kind * room)()
    return buffer[: length.value] if buffer is not None else []
