# SPDX-License-Identifier: Apache-2.0
"""Rows of a capture, each a mapping with the members that `sealscope … --json` prints, and attributes for those of every row."""
from __future__ import annotations

import base64
import json
from collections.abc import Iterator, Mapping
from typing import TYPE_CHECKING, Any, Generic, TypeVar, overload

if TYPE_CHECKING:
    from . import Capture

T = TypeVar("T")

_parsed = json.JSONDecoder().decode


class _Member(Generic[T]):
    """An attribute that is a member of the row, or of one of its objects: None where there is none."""

    def __init__(self, *path: str, doc: str) -> None:
        self._path = path
        self.__doc__ = doc

    @overload
    def __get__(self, record: None, owner: type) -> _Member[T]: ...
    @overload
    def __get__(self, record: Record, owner: type) -> T: ...
    def __get__(self, record: Record | None, owner: type) -> Any:
        if record is None:
            return self
        value: Any = record._members()
        for name in self._path:
            if value is None:
                return None
            value = value.get(name)
        return value


class Record(Mapping[str, Any]):
    """One row. `dict(record)` is the object that the command line prints, `record.json` its line.

    A row is taken apart when it is looked into for the first time, so rows that are only passed on cost little.
    """

    __slots__ = ("_line", "_object")

    def __init__(self, line: str) -> None:
        self._line = line
        self._object: dict[str, Any] | None = None

    @property
    def json(self) -> str:
        """The row as the command line prints it."""
        return self._line

    def _members(self) -> dict[str, Any]:
        if self._object is None:
            self._object = _parsed(self._line)
        return self._object

    def __getitem__(self, name: str) -> Any:
        return self._members()[name]

    def __iter__(self) -> Iterator[str]:
        return iter(self._members())

    def __len__(self) -> int:
        return len(self._members())

    def __repr__(self) -> str:
        return f"{type(self).__name__}({self._line})"

    def __reduce__(self) -> Any:
        return type(self), (self._line,)

    def __hash__(self) -> int:
        return hash(self._line)


class Packet(Record):
    """A packet whose TCP payload a plug-in recognises: a row of `sealscope packets`."""

    __slots__ = ()
    number = _Member[int]("number", doc="Counts the capture's packets from 1.")
    time = _Member[float]("time", doc="Seconds since 1970.")
    source = _Member[str]("source", doc='"192.0.2.1:50000" or "[2001:db8::1]:443"')
    destination = _Member[str]("destination", doc="As `source`.")
    info = _Member["str | None"]("info", doc="A summary.")


class Message(Record):
    """A message of a stream: an element of "messages" of `sealscope follow`."""

    __slots__ = ()
    direction = _Member[str]("direction", doc='"clientToServer" or "serverToClient"')
    kind = _Member[str]("kind", doc='"data", "handshake", "request" or "reply"')
    summary = _Member[str]("summary", doc="One line.")
    detail = _Member["list[dict[str, str]]"]("detail", doc='Rows of "name" and "value".')
    byte_range = _Member["list[int] | None"]("byteRange", doc="Half open, in the bytes of its direction.")
    packet_ids = _Member["list[int]"]("packetIds", doc="Numbers of the packets that carried it.")
    timestamp = _Member[float]("timestamp", doc="Of its first byte, seconds since 1970.")
    filename = _Member["str | None"]("filename", doc="That its body suggests.")
    is_decrypted = _Member[bool]("isDecrypted", doc="Whether it was under encryption.")
    attributes = _Member["dict[str, Any] | None"]("attributes", doc="What machines ask for: method, url, status …")

    @property
    def body(self) -> bytes | None:
        """The bytes of the body; the row itself has them as Base64."""
        text = self._members()["body"]
        return None if text is None else base64.b64decode(text)


class Exchange(Record):
    """A request with its reply: a row of `sealscope exchanges`."""

    __slots__ = ()
    stream = _Member[int]("stream", doc="Number of the stream.")
    protocol = _Member["str | None"]("protocol", doc='"HTTP/2" and the like.')
    time = _Member[float]("time", doc="Of the first byte, seconds since 1970.")
    duration = _Member["float | None"]("duration", doc="From the request's first byte to the reply's last, in seconds.")
    client = _Member[str]("client", doc="Endpoint of the client.")
    server = _Member[str]("server", doc="Endpoint of the server.")
    request = _Member["dict[str, Any] | None"]("request", doc="None where the capture lacks it.")
    reply = _Member["dict[str, Any] | None"]("reply", doc="None where there is none.")
    method = _Member["str | None"]("request", "method", doc="Of the request.")
    url = _Member["str | None"]("request", "url", doc="Of the request.")
    status = _Member["int | None"]("reply", "status", doc="Of the reply.")


class Object(Record):
    """A body that was carried: a row of `sealscope objects`."""

    __slots__ = ()
    stream = _Member[int]("stream", doc="Number of the stream.")
    direction = _Member[str]("direction", doc="Who sent it.")
    file = _Member["str | None"]("file", doc="Where it was saved; None when it was only measured.")
    name = _Member[str]("name", doc="That it suggests, made safe.")
    url = _Member["str | None"]("url", doc="Of its request.")
    content_type = _Member["str | None"]("contentType", doc="As declared.")
    bytes = _Member[int]("bytes", doc="After decoding.")
    complete = _Member[bool]("complete", doc="False when the capture holds it in part.")


class Stream(Record):
    """A TCP connection: a row of `sealscope streams`."""

    __slots__ = ("_capture",)
    number = _Member[int]("stream", doc="Counts the capture's connections from 0.")
    client = _Member[str]("client", doc='"192.0.2.1:50000" or "[2001:db8::1]:443"')
    server = _Member[str]("server", doc="As `client`.")
    client_bytes = _Member[int]("clientBytes", doc="That the client sent, lost ones included.")
    server_bytes = _Member[int]("serverBytes", doc="That the server sent, lost ones included.")
    missing_bytes = _Member[int]("missingBytes", doc="That no packet carried.")
    start_time = _Member[float]("startTime", doc="Of the earliest packet, seconds since 1970.")
    end_time = _Member[float]("endTime", doc="Of the latest packet.")
    can_interpret = _Member[bool]("canInterpret", doc="Whether it is TLS.")
    verdict = _Member["str | None"]("verdict", doc='"decrypted", "noHandshake", "unsupportedVersion", "noKeyMaterial" or "keyMismatch"')
    reason = _Member["dict[str, Any] | None"]("reason", doc="What lies behind the verdict.")
    sentence = _Member["str | None"]("reason", "sentence", doc="Why it does not open, and what can be done; or how much did.")
    server_name = _Member["str | None"]("reason", "serverName", doc="That the client asked for.")
    version = _Member["str | None"]("reason", "version", doc='Negotiated: "TLS 1.3".')
    cipher_suite = _Member["str | None"]("reason", "cipherSuite", doc="Negotiated.")
    client_random = _Member["str | None"]("reason", "clientRandom", doc="64 hexadecimal digits.")
    ja3 = _Member["str | None"]("ja3", doc="Fingerprint of the client's hello.")
    ja3s = _Member["str | None"]("ja3s", doc="Fingerprint of the server's hello.")
    ja4 = _Member["str | None"]("ja4", doc="Fingerprint of the client's hello.")
    certificate = _Member["dict[str, Any] | None"]("certificate", doc="The server's: sha256, subject, issuer, notBefore, notAfter, names.")

    def __init__(self, line: str, capture: Capture | None = None) -> None:
        super().__init__(line)
        self._capture = capture

    def _of(self) -> Capture:
        if self._capture is None:
            raise ValueError("this row stands alone; a stream of an opened capture has its bytes")
        return self._capture

    def messages(self) -> Iterator[Message]:
        """What was said, message by message; decrypted where that is possible."""
        return self._of().messages(self.number)

    def plaintext(self, side: str) -> bytes:
        """All that the "client" or the "server" sent, decrypted where it was protected.

        Raises `DecryptionError` for a stream that stays closed. Lost bytes of an unprotected stream are zeros.
        """
        return b"".join(self.plaintext_chunks(side))

    def plaintext_chunks(self, side: str) -> Iterator[bytes]:
        """The same in pieces of some hundred kilobytes, for what is larger than memory."""
        plaintext = self._of()._core.plaintext(self.number, side)
        while chunk := plaintext.next():
            yield chunk
