# SPDX-License-Identifier: Apache-2.0
"""What holds a handle of the library."""

from __future__ import annotations

from typing import TypeVar

_Self = TypeVar("_Self", bound="Closing")


class Closing:
    """Something with a close() that may be repeated: `with` calls it, and so does the end of the
    object."""

    def close(self) -> None:
        raise NotImplementedError

    def __enter__(self: _Self) -> _Self:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        try:
            self.close()
        except Exception:  # the interpreter ends and has lost its modules
            pass
