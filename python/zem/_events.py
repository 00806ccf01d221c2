# SPDX-License-Identifier: Apache-2.0
"""What a reply consists of."""

from __future__ import annotations

import ctypes
import json
from dataclasses import dataclass, field
from typing import Any, Dict, List, NamedTuple, Optional

from ._library import EventRecord

_KINDS = {
    1: "prompt",
    2: "token",
    3: "reasoning",
    4: "content",
    5: "call_begin",
    6: "call_arguments",
    7: "call_end",
    8: "end",
}
_REASONS = ("stop", "stop_text", "length", "context", "cancelled", "error")


class Likelihood(NamedTuple):
    """A token and the logarithm of its probability."""

    token: int
    log_probability: float


class Usage(NamedTuple):
    """Tokens and times of a request."""

    prompt_tokens: int
    reused_tokens: int
    generated_tokens: int
    reasoning_tokens: int
    waited_seconds: float
    prompt_seconds: float
    generate_seconds: float


@dataclass(frozen=True)
class Event:
    """One event of a reply.

    `kind` is "reasoning" or "content" with a piece of the text; "call_begin" with the function's
    name, "call_arguments" with a piece of the arguments' JSON, "call_end"; and where they were
    asked for, "token" and "prompt".
    """

    kind: str
    text: str = ""
    call: int = 0
    """Of calls: which, from 0."""
    complete: bool = True
    """Of "call_end": False for a call that is malformed or was cut."""
    token: Optional[int] = None
    """Of "token": its id."""
    data: bytes = b""
    """Of "token": its bytes, maybe part of a character."""
    log_probability: Optional[float] = None
    """Of "token", where it was asked for."""
    likeliest: List[Likelihood] = field(default_factory=list)
    """Of "token", where they were asked for: the likeliest first."""
    done: int = 0
    """Of "prompt": tokens that are done."""
    total: int = 0
    """Of "prompt": tokens of the prompt."""


@dataclass
class Call:
    """A call of a function."""

    name: str
    arguments_text: str = ""
    """JSON of an object."""
    complete: bool = False
    """False for a call that is malformed or was cut: arguments may be missing."""

    @property
    def arguments(self) -> Dict[str, Any]:
        """The arguments by name."""
        return json.loads(self.arguments_text) if self.arguments_text else {}


@dataclass
class Reply:
    """A reply, as far as it has come."""

    reasoning: str = ""
    content: str = ""
    calls: List[Call] = field(default_factory=list)
    tokens: List[Event] = field(default_factory=list)
    """The "token" events, where they were asked for."""
    end_reason: Optional[str] = None
    """"stop", "stop_text", "length", "context", "cancelled" or "error"; None until the end."""
    stop_text: Optional[int] = None
    """Which stop text came, from 0."""
    usage: Optional[Usage] = None
    """At the end."""

    def message(self) -> Dict[str, Any]:
        """The reply as a message of a conversation."""
        message: Dict[str, Any] = {"role": "assistant", "content": self.content}
        if self.reasoning:
            message["reasoning_content"] = self.reasoning
        if self.calls:
            message["tool_calls"] = [
                {"type": "function",
                 "function": {"name": call.name, "arguments": call.arguments_text or "{}"}}
                for call in self.calls]
        return message

    def add(self, event: Event) -> None:
        """Takes in the next event."""
        if event.kind == "reasoning":
            self.reasoning += event.text
        elif event.kind == "content":
            self.content += event.text
        elif event.kind == "call_begin":
            self.calls.append(Call(event.text))
        elif event.kind == "call_arguments":
            self.calls[event.call].arguments_text += event.text
        elif event.kind == "call_end":
            self.calls[event.call].complete = event.complete
        elif event.kind == "token":
            self.tokens.append(event)


def data_of(record: EventRecord) -> bytes:
    """The bytes of an event."""
    return ctypes.string_at(record.text, record.text_size)


def event_of(record: EventRecord) -> Event:
    """A copy of the library's event."""
    kind = _KINDS.get(record.kind, "unknown")
    data = data_of(record)
    event: Dict[str, Any] = {"kind": kind, "text": data.decode("utf-8", "replace")}
    if kind.startswith("call_"):
        event.update(call=record.call, complete=kind != "call_end" or bool(record.complete))
    elif kind == "prompt":
        event.update(done=record.done, total=record.total)
    elif kind == "token":
        event.update(token=record.token, data=data)
        if record.log_probability == record.log_probability:  # a number
            likeliest = [Likelihood(one.token, one.log_probability)
                         for one in record.likeliest[: record.likely_count]]
            event.update(log_probability=record.log_probability, likeliest=likeliest)
    return Event(**event)


def finish(reply: Reply, record: EventRecord) -> None:
    """Takes in the library's last event."""
    reply.end_reason = _REASONS[record.end_reason]
    reply.stop_text = record.stop_text if record.stop_text >= 0 else None
    reply.usage = Usage(*(getattr(record.usage, name) for name in Usage._fields))
