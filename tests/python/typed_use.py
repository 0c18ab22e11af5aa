# SPDX-License-Identifier: Apache-2.0
"""A program over the whole package, for a type checker to read: nobody runs it. What must be an error is marked as one, and an unneeded mark
is an error too."""
from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path
from typing import Any, assert_type

import sealscope
from sealscope import cluster


def module(path: Path) -> None:
    capture = sealscope.open([path, "b.pcapng.zst"], keylog=[path], reach="strict", filter="tcp", largest_body=1 << 20)
    assert_type(capture, sealscope.Capture)
    assert_type((capture.stream_count, capture.packet_count, capture.errors), tuple[int, int, tuple[sealscope.CaptureError, ...]])
    for packet in capture.packets():
        assert_type((packet.number, packet.time, packet.source, packet.destination, packet.info), tuple[int, float, str, str, str | None])
    for stream in capture.streams([0, 1]):
        assert_type(stream, sealscope.Stream)
        assert_type((stream.number, stream.client, stream.server, stream.missing_bytes), tuple[int, str, str, int])
        assert_type((stream.server_name, stream.version, stream.verdict, stream.ja4), tuple[str | None, str | None, str | None, str | None])
        assert_type((stream.reason, stream.certificate), tuple[dict[str, Any] | None, dict[str, Any] | None])
        assert_type(dict(stream), dict[str, Any])
        assert_type(stream.plaintext("server"), bytes)
        assert_type(stream.plaintext_chunks("client"), Iterator[bytes])
        for message in stream.messages():
            assert_type((message.body, message.packet_ids, message.attributes), tuple[bytes | None, list[int], dict[str, Any] | None])
        stream.plaintext(1)  # type: ignore[arg-type]
        stream.nothing  # type: ignore[attr-defined]
        stream.number + ""  # type: ignore[operator]
    assert_type(capture.stream(7).json, str)
    for exchange in capture.exchanges():
        assert_type((exchange.method, exchange.url, exchange.status, exchange.duration), tuple[str | None, str | None, int | None, float | None])
    for found in capture.objects(output=path, force=True):
        assert_type((found.file, found.name, found.bytes, found.complete), tuple[str | None, str, int, bool])
    sealscope.open(7)  # type: ignore[arg-type]
    try:
        sealscope.open("a.pcap")
    except sealscope.CaptureError as error:
        assert_type((error.file, error.reason, error.offset, error.packets_before), tuple[str, str, int | None, int])
    except sealscope.DecryptionError as closed:
        assert isinstance(closed, sealscope.Error)


def many(files: list[Path]) -> None:
    def progress(phase: str, done: int, total: int) -> None:
        print(phase, done, total)

    with cluster.streams(files, client="tcp://head:8786", keylog=files[0], output="rows", progress=progress) as rows:
        assert_type(rows, cluster.Rows[sealscope.Stream])
        assert_type((rows.run().partitions, rows.problems), tuple[list[str], list[sealscope.CaptureError]])
        assert_type((rows.travelled_bytes, rows.total_bytes), tuple[int, int])
    for row in cluster.find(files, server_name="www.example.org"):
        assert_type(row, sealscope.Stream)
    for exchange in cluster.exchanges(files, patience=5):
        assert_type(exchange, sealscope.Exchange)
    for found in cluster.objects(files, folder="saved"):
        assert_type(found, sealscope.Object)
    with cluster.follow("/ring", "find", "*.pcap", ja4="t13d1516h2_8daaf6152771_e5627efa2ab1", report=print) as following:
        for line in following.lines():
            assert_type(line, str)
            following.stop()
    cluster.streams(files, progress=print, nothing=1)  # type: ignore[call-arg]
