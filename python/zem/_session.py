# SPDX-License-Identifier: Apache-2.0
"""A conversation that keeps its messages."""

from __future__ import annotations

import json
import os
from pathlib import Path as FilePath
from typing import Any, Dict, Iterator, List, Optional, Union

from ._errors import RequestError, ZemError
from ._events import Event, Reply
from ._model import Message, Model, Path

_FORMAT = "zem session 1"


class Session:
    """A conversation with a model: its messages, and the settings of its replies.

    `settings` are those of Model.chat(), `tools` among them. A turn that fails or is left early
    leaves the messages as they were before it.
    """

    def __init__(self, model: Model, *, system: Optional[str] = None, **settings: Any) -> None:
        self.model = model
        self.settings: Dict[str, Any] = settings
        self.messages: List[Message] = []
        self.last_reply = Reply()
        """That of the last turn."""
        if system is not None:
            self.messages.append({"role": "system", "content": system})

    def send(self, message: Union[str, Message], **settings: Any) -> Reply:
        """Says something and waits for the reply. A text is what the user says; a message may have
        any role, such as "tool"."""
        events = self.stream(message, **settings)
        for _ in events:
            pass
        return self.last_reply

    def stream(self, message: Union[str, Message], **settings: Any) -> Iterator[Event]:
        """send(), event by event. The turn counts when all events were taken."""
        said = {"role": "user", "content": message} if isinstance(message, str) else dict(message)
        messages = [*self.messages, said]
        with self.model.chat(messages, stream=True, **{**self.settings, **settings}) as events:
            yield from events
            self.last_reply = events.reply
        self.messages = [*messages, events.reply.message()]

    def save(self, path: Path) -> None:
        """Writes messages and settings to a file, as JSON, and the model's state to a second one
        with ".state" behind the name. Without the state the conversation goes on all the same,
        but its prompt is computed again."""
        state = _state_of(path)
        # The state to save is one that the next turn can go on from.
        following = [*self.messages, {"role": "user", "content": ""}]
        try:
            self.model.save(self.model.render(following, **self.settings).ids, state)
        except RequestError:  # nothing is kept
            state.unlink(missing_ok=True)
        content = {"format": _FORMAT, "messages": self.messages, "settings": self.settings}
        written = FilePath(f"{os.fspath(path)}.new")
        written.write_text(json.dumps(content, ensure_ascii=False, indent=1), encoding="utf-8")
        written.replace(path)

    @classmethod
    def restore(cls, model: Model, path: Path) -> Session:
        """Reads a saved session. A state that is damaged or of another model is an error. A
        missing one is not."""
        try:
            content = json.loads(FilePath(path).read_text(encoding="utf-8"))
            if content["format"] != _FORMAT:
                raise KeyError("format")
            session = cls(model, **content["settings"])
            session.messages = list(content["messages"])
        except (KeyError, TypeError, ValueError) as problem:
            raise ZemError(f"{os.fspath(path)}: is not a saved session") from problem
        if _state_of(path).exists():
            model.restore(_state_of(path))
        return session


def _state_of(path: Path) -> FilePath:
    return FilePath(f"{os.fspath(path)}.state")
