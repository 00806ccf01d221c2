# SPDX-License-Identifier: Apache-2.0
"""Replies of a language model, from Python.

    import zem

    with zem.Model("model.zem") as model:
        for event in model.chat([{"role": "user", "content": "Hello"}], stream=True):
            if event.kind == "content":
                print(event.text, end="", flush=True)

The package drives the shared library libzem with ctypes; it needs no compiler and nothing beside
the standard library. The library computes on threads of its own, and waiting for it lets other
threads of the program run.
"""

from ._errors import (
    BusyError,
    CallbackError,
    ClosedError,
    FileFormatError,
    InternalError,
    ModelFileError,
    QueueFullError,
    ReplyError,
    RequestError,
    UnsupportedError,
    ZemError,
)
from ._events import Call, Event, Likelihood, Reply, Usage
from ._library import LIBRARY_VARIABLE, library_version
from ._model import Description, Model, Prompt, Statistics
from ._session import Session
from ._stream import Stream

__version__ = "0.2.0"

__all__ = [
    "BusyError",
    "Call",
    "CallbackError",
    "ClosedError",
    "Description",
    "Event",
    "FileFormatError",
    "InternalError",
    "LIBRARY_VARIABLE",
    "Likelihood",
    "Model",
    "ModelFileError",
    "Prompt",
    "QueueFullError",
    "Reply",
    "ReplyError",
    "RequestError",
    "Session",
    "Statistics",
    "Stream",
    "UnsupportedError",
    "Usage",
    "ZemError",
    "library_version",
]
