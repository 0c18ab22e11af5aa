# SPDX-License-Identifier: Apache-2.0
"""What can go wrong."""
from __future__ import annotations

import re


class Error(Exception):
    """Whatever this package raises of its own."""


class CaptureError(Error):
    """A capture that could not be read, or not to its end.

    >>> import sealscope
    >>> try:
    ...     sealscope.open("no-such-file.pcap")
    ... except sealscope.CaptureError as error:
    ...     print(error.file, error.offset)
    no-such-file.pcap None
    """

    file: str
    """As it was named; empty when no file is at fault, but the filter."""
    reason: str
    """Without the file's name."""
    offset: int | None
    """The byte of the file that the damage begins at, where it has a place."""
    packets_before: int
    """Packets of the file that were read before the damage; negative when it has no place."""

    def __init__(self, file: str, reason: str, packets_before: int = -1, sentence: str = "") -> None:
        super().__init__(file, reason, packets_before, sentence)
        self.file = file
        self.reason = reason
        self.packets_before = packets_before
        self._sentence = sentence or (f"{file}: {reason}" if file else reason)
        place = re.search(r"\bat byte (\d+)", reason)
        self.offset = int(place[1]) if place else None

    def __str__(self) -> str:
        return self._sentence


class DecryptionError(Error):
    """A stream that is wanted in the clear, and does not open; the text says why, and what can be done."""


class CaptureWarning(UserWarning):
    """A capture that was read in part; `Capture.errors` has what was not."""
