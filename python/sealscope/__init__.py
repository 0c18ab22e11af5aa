# SPDX-License-Identifier: Apache-2.0
"""Sees into TLS traffic: packets, streams, exchanges and plaintext of packet captures.

>>> import sealscope
>>> capture = sealscope.open("examples/tls12.pcap", keylog="examples/tls12.keylog")
>>> for stream in capture.streams():
...     print(stream.server_name, stream.version, stream.verdict)
example.org TLS 1.2 decrypted

Rows are mappings with the members that `sealscope … --json` prints, so `dict(row)` is what scripts know, and
`pandas.DataFrame(capture.streams())` is a table of them.

Work is done by threads of the library without the interpreter's lock, ahead of who iterates, and ends on Ctrl-C. What needs several
machines is in `sealscope.cluster`.
"""
from __future__ import annotations

import os
import pathlib
import warnings
from collections.abc import Callable, Iterable, Iterator
from typing import TypeVar

from . import _core
from ._errors import CaptureError, CaptureWarning, DecryptionError, Error
from ._records import Exchange, Message, Object, Packet, Record, Stream

__all__ = ["Capture", "CaptureError", "CaptureWarning", "DecryptionError", "Error", "Exchange", "Message", "Object", "Packet", "Record",
           "Stream", "open"]

Path = str | os.PathLike[str]
_Row = TypeVar("_Row", bound=Record)


def _load_plug_ins() -> None:
    package = pathlib.Path(__file__).resolve().parent
    folders = [package / "plugins", (package / _core.plug_ins_from_package).resolve()]
    for problem in _core.load_plug_ins([str(next((folder for folder in folders if folder.is_dir()), folders[-1]))]):
        warnings.warn(problem, RuntimeWarning, stacklevel=3)


_core.set_errors(CaptureError, DecryptionError)
_load_plug_ins()


def _names(paths: Path | Iterable[Path] | None) -> list[str]:
    if paths is None:
        return []
    return [os.fspath(path) for path in ([paths] if isinstance(paths, (str, os.PathLike)) else paths)]


def _rows(lines: _core.Lines, make: Callable[[str], _Row]) -> Iterator[_Row]:
    try:
        while (batch := lines.next()) is not None:
            yield from map(make, batch)
    finally:
        lines.close()


class Capture:
    """One or more capture files, opened as one. Made by `open`; any thread may use it."""

    def __init__(self, core: _core.Capture) -> None:
        self._core = core

    @property
    def stream_count(self) -> int:
        """TCP connections, numbered from 0."""
        return self._core.stream_count

    @property
    def packet_count(self) -> int:
        """Packets that were read and pass the filter."""
        return self._core.packet_count

    @property
    def errors(self) -> tuple[CaptureError, ...]:
        """What of the files could not be read, each with its place."""
        return tuple(CaptureError(*error) for error in self._core.errors)

    def packets(self) -> Iterator[Packet]:
        """The packets that a plug-in recognises, in the order of the capture.

        >>> capture = open("examples/tls12.pcap")
        >>> print(next(capture.packets()).info)
        TLS 1.0: Client Hello (example.org)
        """
        return _rows(self._core.packets(), Packet)

    def streams(self, numbers: Iterable[int] = ()) -> Iterator[Stream]:
        """The TCP connections, all of them or those with these numbers, in ascending order."""
        return _rows(self._core.streams(list(numbers)), lambda line: Stream(line, self))

    def stream(self, number: int) -> Stream:
        """One of them."""
        if number < 0:
            raise IndexError(f"stream {number}: numbers count from 0")
        return next(self.streams([number]))

    def exchanges(self, numbers: Iterable[int] = ()) -> Iterator[Exchange]:
        """What was asked and what came back, in the order of the requests' times.

        >>> capture = open("examples/https.pcapng")
        >>> exchange = next(capture.exchanges())
        >>> exchange.method, exchange.status
        ('GET', 200)
        """
        return _rows(self._core.exchanges(list(numbers)), Exchange)

    def objects(self, numbers: Iterable[int] = (), *, output: Path | None = None, force: bool = False) -> Iterator[Object]:
        """The bodies that were carried: saved into the folder `output`, else only measured."""
        folder = "" if output is None else os.fspath(output)
        if folder:
            os.makedirs(folder, mode=0o700, exist_ok=True)
        return _rows(self._core.objects(list(numbers), folder, force), Object)

    def messages(self, number: int) -> Iterator[Message]:
        """The messages of a stream, as `Stream.messages`."""
        return _rows(self._core.messages(number), Message)

    def __repr__(self) -> str:
        return f"<sealscope.Capture: {self.packet_count} packets, {self.stream_count} streams>"


def open(paths: Path | Iterable[Path], *, keylog: Path | Iterable[Path] | None = None, reach: str = "full", filter: str = "",
         largest_body: int = 1 << 30) -> Capture:
    """Opens capture files, which count as one capture in the order of their first packets' times, and indexes them.

    `keylog`: key logs in the SSLKEYLOGFILE format, in place of the user's. `reach`: "strict" opens what the TLS plug-in opens, "full"
    whatever the secrets can open. `filter`: in the pcap-filter language. Bodies are decoded up to `largest_body` bytes.

    Raises `CaptureError` when nothing could be read. What was not read of the rest is in `Capture.errors`, and told by a
    `CaptureWarning`.
    """
    core = _core.Capture(_names(paths), _names(keylog), reach, filter, largest_body)
    capture = Capture(core)
    for error in capture.errors:
        warnings.warn(str(error), CaptureWarning, stacklevel=2)
    return capture
