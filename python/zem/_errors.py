# SPDX-License-Identifier: Apache-2.0
"""The library's errors as exceptions."""

from __future__ import annotations


class ZemError(Exception):
    """Something that the library refused or could not do. Its text says what was wrong."""


class ClosedError(ZemError):
    """The model or the stream is closed."""


class CallbackError(ZemError):
    """Not possible inside a callback of the library."""


class BusyError(ZemError):
    """Something else has to end first."""


class RequestError(ZemError, ValueError):
    """The request is wrong; the text names the field."""


class QueueFullError(ZemError):
    """Too many requests wait; later there may be room."""


class ModelFileError(ZemError, OSError):
    """A file cannot be read or written."""


class FileFormatError(ZemError, ValueError):
    """A file is damaged, or is not what it should be."""


class UnsupportedError(ZemError):
    """The model or the library lacks what this needs."""


class InternalError(ZemError):
    """A mistake in the library."""


class ReplyError(ZemError):
    """A reply that had begun failed."""


_ARGUMENT, _HANDLE, _CALLBACK, _BUSY, SPACE = 1, 2, 3, 4, 5
_MEMORY = 11
TIMEOUT, FINISHED = 13, 14

_BY_CODE = {
    _ARGUMENT: RequestError,
    _HANDLE: ClosedError,
    _CALLBACK: CallbackError,
    _BUSY: BusyError,
    6: RequestError,
    7: QueueFullError,
    8: ModelFileError,
    9: FileFormatError,
    10: UnsupportedError,
    12: InternalError,
}


def error_of(code: int, text: str) -> Exception:
    """The exception for a code of the library, with its text."""
    if code == _MEMORY:
        return MemoryError(text)
    return _BY_CODE.get(code, ZemError)(text)
