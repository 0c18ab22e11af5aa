# SPDX-License-Identifier: Apache-2.0
"""Rows of captures in many files, made on a Dask cluster: the same rows as one machine makes of all the files together.

>>> from sealscope import cluster
>>> with cluster.streams(["examples/tls12.pcap", "examples/https.pcapng"], keylog="examples/tls12.keylog") as rows:  # doctest: +SKIP
...     for stream in rows:
...         print(stream.number, stream.server_name, stream.verdict)

How it goes. A first look through each file, wherever a worker is free, finds the pairs of endpoints in it. Then each file is worked on as
a capture of its own; the packets of pairs that several files have are left out there, and travel to where they are all together. Numbers of
streams and packets are put right at the end, when it is known how many connections each part has. So a file is read twice, and of its bytes
only those travel that belong to connections which may go on in another file.

Files are named as the workers see them: on storage that all share, or each on the machine that wrote it. Workers need this package.
A cluster that is started here runs on this machine; a script then needs the usual `if __name__ == "__main__":`.
"""
from __future__ import annotations

import bisect
import functools
import heapq
import json
import os
import re
import socket
import struct
import time
import uuid
from collections.abc import Callable, Iterable, Iterator
from fractions import Fraction
from typing import Any, Generic, TypeVar

import dask
from distributed import Client, LocalCluster, as_completed
from distributed.scheduler import KilledWorker

from . import CaptureError, Exchange, Object, Path, Record, Stream, _core, _names

__all__ = ["Rows", "Secret", "exchanges", "find", "objects", "streams"]

_Row = TypeVar("_Row", bound=Record)


class Secret:
    """Bytes that travel to workers, and show in no log, dashboard or traceback."""

    __slots__ = ("_bytes",)

    def __init__(self, content: bytes) -> None:
        self._bytes = content

    def reveal(self) -> bytes:
        return self._bytes

    def __len__(self) -> int:
        return len(self._bytes)

    def __repr__(self) -> str:
        return f"Secret({len(self._bytes)} bytes)"

    def __reduce__(self) -> Any:
        return Secret, (self._bytes,)


# What workers do. A task never fails because of a file: what is the matter with it is part of the answer.


class _Failed:
    """A file that could not be read, with the arguments of its `CaptureError`."""

    def __init__(self, error: tuple[str, str, int, str]) -> None:
        self.error = error


class _Work(dict[str, Any]):
    """What came of a file. Rows may be plaintext, and logs show the arguments of tasks that fail."""

    def __repr__(self) -> str:
        return f"_Work({len(self['rows'])} bytes of rows)"


def _told(error: CaptureError) -> tuple[str, str, int, str]:
    return error.file, error.reason, error.packets_before, str(error)


def _scan(file: str) -> dict[str, Any] | _Failed:
    try:
        scan = _core.scan_file(file)
    except CaptureError as error:
        return _Failed(_told(error))
    scan["secrets"] = Secret(scan["secrets"])
    return scan


def _opened(options: dict[str, Any]) -> dict[str, Any]:
    if options["folder"]:
        os.makedirs(options["folder"], mode=0o700, exist_ok=True)
    return {**options, "secrets": options["secrets"].reveal()}


def _work_on_file(file: str, packets_before: int, travelling: dict[int, int], filter: str, options: dict[str, Any]) -> dict[str, Any] | _Failed:
    try:
        return _Work(_core.work_on_file(file, filter, packets_before, travelling, _opened(options)))
    except CaptureError as error:
        return _Failed(_told(error))


def _packets_for(work: dict[str, Any], group: int) -> Secret:
    return Secret(work["packets"][group])


def _work_on_packets(pieces: list[Secret], options: dict[str, Any]) -> dict[str, Any]:
    return _Work(_core.work_on_packets([piece.reveal() for piece in pieces], _opened(options)))


def _facts(work: dict[str, Any] | _Failed) -> dict[str, Any]:
    """What the numbers of all are made from."""
    if isinstance(work, _Failed):
        return {"errors": [work.error], "connections": 0, "packets": {}}
    packets = {group: len(piece) for group, piece in work.get("packets", {}).items()}
    return {"errors": work["errors"], "connections": len(work["first_packets"]) // 8, "packets": packets}


def _numbers(packed: bytes) -> tuple[int, ...]:
    return struct.unpack(f"={len(packed) // 8}q", packed)


def _first_packets(work: dict[str, Any]) -> tuple[int, ...]:
    return _numbers(work["first_packets"])


def _before(work: dict[str, Any], packets: list[int]) -> list[int]:
    """Of each packet the number of connections that begin before it."""
    first = _first_packets(work)
    return [bisect.bisect_left(first, packet) for packet in packets]


_HEAD = len(b'{"stream":')


def _numbered(rows: bytes, numbers: list[int]) -> Iterator[bytes]:
    for line in rows.splitlines(keepends=True):
        comma = line.index(b",", _HEAD)
        yield b"%s%d%s" % (line[:_HEAD], numbers[int(line[_HEAD:comma])], line[comma:])


def _matches(row: dict[str, Any], wanted: dict[str, str]) -> bool:
    reason = row["reason"] or {}
    certificate = row.get("certificate") or {}

    def address(text: str) -> bool:
        ends = [row["client"], row["server"]]
        return text in ends or text in [end.rpartition(":")[0].strip("[]") for end in ends]

    tests: dict[str, Callable[[str], bool]] = {
        "server_name": lambda text: (reason.get("serverName") or "").lower() == text.lower(),
        "client_random": lambda text: reason.get("clientRandom") == text.lower(),
        "certificate": lambda text: certificate.get("sha256") == text.lower().replace(":", ""),
        "address": address,
        "ja4": lambda text: row.get("ja4") == text,
    }
    return all(tests[name](text) for name, text in wanted.items())


def _finish(work: dict[str, Any] | _Failed, numbers: list[int] | tuple[int, list[int]], wanted: dict[str, str], path: str) -> Any:
    """The rows with their final numbers; written to `path`, where there is one, in one go, else given."""
    if isinstance(work, _Failed):
        return b""
    if isinstance(numbers, tuple):  # a number for the first, and the packets at which a connection elsewhere takes one
        start, elsewhere = numbers
        numbers = [start + i + bisect.bisect_left(elsewhere, packet) for i, packet in enumerate(_first_packets(work))]
    lines = _numbered(work["rows"], numbers)
    if wanted:
        lines = (line for line in lines if _matches(json.loads(line), wanted))
    rows = b"".join(lines)
    try:
        return _written(rows, path) if path else rows
    except OSError as problem:
        return _Failed((path, problem.strerror or str(problem), -1, ""))


def _written(rows: bytes, path: str) -> str:
    # Whoever does it once more, because a worker was lost, puts the same in its place.
    draft = f"{path}.{socket.gethostname()}.{os.getpid()}.{uuid.uuid4().hex}"
    descriptor = os.open(draft, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600)
    try:
        with os.fdopen(descriptor, "wb") as file:
            file.write(rows)
        os.replace(draft, path)
    except BaseException:
        os.unlink(draft)
        raise
    return path


# What the one does who asks.


class _KeyLog:
    """The secrets of a whole capture, to be handed out file by file."""

    def __init__(self, text: bytes) -> None:
        self.lines = text.splitlines(keepends=True)
        self._of_client: dict[bytes, list[int]] = {}
        self._of_anybody: list[int] = []
        for index, line in enumerate(self.lines):
            words = line.split()
            if len(words) == 3 and len(words[1]) == 64:
                try:
                    self._of_client.setdefault(bytes.fromhex(words[1].decode())[:8], []).append(index)
                    continue
                except ValueError:
                    pass
            self._of_anybody.append(index)

    def has(self, client: bytes) -> bool:
        return client in self._of_client

    def for_clients(self, clients: Iterable[bytes], has_strangers: bool) -> Secret:
        """The lines for some clients, in the order of the key log; all of them where somebody may be any client."""
        if has_strangers:
            return Secret(b"".join(self.lines))
        found = [index for client in set(clients) for index in self._of_client.get(client, ())]
        if not found:
            return Secret(b"")
        return Secret(b"".join(self.lines[index] for index in sorted(found + self._of_anybody)))


def _entries(packed: bytes, size: int) -> list[bytes]:
    return [packed[at:at + size] for at in range(0, len(packed), size)]


# Looks at every worker's stack and event loop, up to a hundred times a second, tell nothing about code that is not Python.
_LOCAL = {"distributed.worker.profile.interval": "1s", "distributed.admin.tick.interval": "500ms"}


class _SchedulerLost(Exception):
    pass


class Rows(Generic[_Row]):
    """Rows as they become ready, in the order of one machine; a context manager that gives a local cluster back. They are gone through
    once."""

    problems: list[CaptureError]
    """Files that could not be read, or not to their end; complete when the rows are through."""
    partitions: list[str]
    """With `output`, the files of NDJSON that were written: one a capture file, and one more for connections that go on in others."""
    travelled_bytes: int
    """Of packets, from worker to worker."""
    total_bytes: int
    """Of all files."""

    def __init__(self, kind: str, make: Callable[[str], _Row], files: Path | Iterable[Path], *, client: Client | str | None = None,
                 keylog: Path | Iterable[Path] | None = None, reach: str = "full", filter: str = "", output: Path | None = None,
                 wanted: dict[str, str] | None = None, folder: Path | None = None, patience: float = 120.0,
                 progress: Callable[[str, int, int], None] | None = None) -> None:
        self.problems, self.partitions, self.travelled_bytes, self.total_bytes = [], [], 0, 0
        self._kind, self._make, self._files = kind, make, _names(files)
        self._key_logs, self._reach, self._filter, self._wanted = _names(keylog), reach, filter, wanted or {}
        self._output = os.path.abspath(output) if output is not None else ""
        self._folder = os.path.abspath(folder) if folder is not None else ""
        self._patience, self._progress = patience, progress or (lambda phase, done, total: None)
        self._owned: list[Any] = []
        if client is None:
            with dask.config.set(_LOCAL):
                local = LocalCluster(n_workers=os.cpu_count(), threads_per_worker=1, dashboard_address="127.0.0.1:0")
            client = Client(local)
            self._owned = [client, local]
        elif isinstance(client, str):
            client = Client(client)
            self._owned = [client]
        self._client: Client = client
        self._scans: dict[int, dict[str, Any] | _Failed] = {}
        self._places: dict[int, str] = {}
        self._told: set[tuple[Any, ...]] = set()
        if self._output:
            os.makedirs(self._output, mode=0o700, exist_ok=True)

    def __enter__(self) -> Rows[_Row]:
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def close(self) -> None:
        """Ends what was started here: the connection to a cluster, and a local cluster."""
        while self._owned:
            self._owned.pop(0).close()

    def __iter__(self) -> Iterator[_Row]:
        for line in self.lines():
            yield self._make(line)

    def lines(self) -> Iterator[str]:
        """The rows as lines of NDJSON, without line ends; none where partitions are written."""
        self._scan_all()
        plan = _Plan(self)
        heap: list[tuple[Any, int, bytes]] = []
        count = 0
        for part in plan.parts():
            if self._output:
                if part.result:
                    self.partitions.append(part.result)
                continue
            for line in part.result.splitlines():
                count += 1
                heapq.heappush(heap, (self._order(line), count, line))
            while heap and (part.bound is None or heap[0][0] < part.bound):
                yield heapq.heappop(heap)[2].decode()

    def run(self) -> Rows[_Row]:
        """Does everything, for who wants the partitions alone."""
        for _ in self.lines():
            pass
        return self

    # Which row comes first: as one machine has it.

    _EXCHANGE = re.compile(rb'\{"stream":(\d+),"protocol":(?:null|"(?:[^"\\]|\\.)*"),"time":([^,]+),')

    def _order(self, line: bytes) -> tuple[Any, ...]:
        if self._kind != "exchanges":
            return (int(line[_HEAD:line.index(b",", _HEAD)]),)
        found = self._EXCHANGE.match(line)
        assert found
        return float(found[2]), int(found[1])

    # Cluster.

    def _submit(self, work: Callable[..., Any], *arguments: Any, **where: Any) -> Any:
        # A key that is made from nothing tells nothing.
        key = f"sealscope{work.__name__.replace('_', '-')}-{uuid.uuid4().hex}"
        return self._client.submit(work, *arguments, key=key, pure=False, **where)

    def _result(self, future: Any, file: str) -> Any:
        """What a task gave; a `_Failed` for one that takes its workers down with it."""
        try:
            return future.result()
        except KilledWorker:
            return _Failed((file, "the workers that read it were lost, one after the other", -1, ""))
        except MemoryError:
            return _Failed((file, "a worker ran out of memory", -1, ""))
        except Exception as problem:
            if future.status != "error":  # not the task's own
                raise _SchedulerLost from None
            if isinstance(problem, OSError):  # of the folder for objects
                raise CaptureError(str(problem.filename or file), problem.strerror or str(problem)) from None
            raise

    def _again(self, attempt: Callable[[], Any]) -> Any:
        """Tries until the scheduler stays; it may be started anew while somebody waits for it."""
        while True:
            try:
                return attempt()
            except _SchedulerLost:
                self._wait_for_scheduler()

    def _wait_for_scheduler(self) -> None:
        address = self._client.scheduler.address
        end = time.monotonic() + self._patience
        while time.monotonic() < end:
            try:
                if self._client.status not in ("running", "connecting"):
                    security = self._client.security
                    self._client = Client(address, security=security, timeout=5)
                    self._owned.append(self._client)
                if self._client.status == "running" and self._client.scheduler_info()["workers"]:
                    self._client.wait_for_workers(1, timeout=5)
                    return
            except (OSError, TimeoutError):
                pass
            time.sleep(0.5)
        raise CaptureError("", f"the scheduler at {address} is gone, and did not come back within {self._patience:.0f} s")

    def _tell(self, error: tuple[str, str, int, str]) -> None:
        if (error[0], error[1]) not in self._told:
            self._told.add((error[0], error[1]))
            self.problems.append(CaptureError(*error))

    # The first look.

    def _scan_all(self) -> None:
        self._again(self._scan_missing)
        for index, scan in list(self._scans.items()):
            if isinstance(scan, _Failed):
                self._tell(scan.error)
            else:
                self.total_bytes += scan["bytes"]
                for error in scan["errors"]:
                    self._tell(error)

    def _scan_missing(self) -> None:
        futures = {self._submit(_scan, file): index for index, file in enumerate(self._files) if index not in self._scans}
        for future in as_completed(list(futures)):
            index = futures.pop(future)
            self._scans[index] = self._result(future, self._files[index])
            self._progress("looking through", len(self._scans), len(self._files))
        # What one worker does not have may lie on the machine of another.
        absent = [index for index, scan in self._scans.items() if isinstance(scan, _Failed) and index not in self._places]
        for address in self._one_worker_a_host():
            if not absent:
                break
            tried = {index: self._submit(_scan, self._files[index], workers=[address]) for index in absent}
            for index, future in tried.items():
                scan = self._result(future, self._files[index])
                if not isinstance(scan, _Failed):
                    self._scans[index] = scan
                    self._places[index] = address
            absent = [index for index in absent if index not in self._places]

    def _one_worker_a_host(self) -> list[str]:
        hosts: dict[str, str] = {}
        for address, worker in self._client.scheduler_info()["workers"].items():
            hosts.setdefault(worker["host"], address)
        return list(hosts.values()) if len(hosts) > 1 else []


class _Part:
    """Some rows, and what every later row comes after; None when there are none."""

    def __init__(self, result: Any, bound: tuple[Any, ...] | None) -> None:
        self.result, self.bound = result, bound


class _Plan:
    """Who works on what, and which numbers that gives."""

    def __init__(self, rows: Rows[Any]) -> None:
        self._rows = rows
        scans = {index: scan for index, scan in rows._scans.items() if isinstance(scan, dict)}

        def first(index: int) -> tuple[Any, ...]:
            found = scans[index]["first"]
            return (1,) if found is None else (0, found[0], Fraction(found[1], found[2]), index)

        self._order = sorted(scans, key=lambda index: (first(index), index))
        self._scans = [scans[index] for index in self._order]
        self._files = [rows._files[index] for index in self._order]
        self._packets_before = [0]
        for scan in self._scans:
            self._packets_before.append(self._packets_before[-1] + scan["packets"])

        # A group has the pairs that begin in one file, and go on in others.
        self._travelling: list[dict[int, int]] = [{} for _ in self._files]
        self._members: dict[int, set[int]] = {}
        for pair, files in _core.shared_pairs([scan["pairs"] for scan in self._scans]):
            for file in files:
                self._travelling[file][pair] = files[0]
                self._members.setdefault(files[0], set()).add(file)
        self._make_options()
        self._work: dict[int, Any] = {}
        self._group_work: dict[int, Any] = {}
        self._facts: dict[int, dict[str, Any]] = {}
        self._starts: dict[int, tuple[int, ...]] = {}
        self._done: set[tuple[str, int]] = set()

    def _make_options(self) -> None:
        rows = self._rows
        embedded = b"".join(text if text.endswith(b"\n") or not text else text + b"\n"
                            for text in (scan["secrets"].reveal() for scan in self._scans))
        text, facts = _core.key_log(embedded, rows._key_logs)
        keys = _KeyLog(text)
        known: set[bytes] = set()
        needs: list[tuple[set[bytes], bool]] = []
        unmet: dict[int, int] = {}
        group_needs: dict[int, tuple[set[bytes], list[bool]]] = {group: (set(), []) for group in self._members}
        for scan, travelling in zip(self._scans, self._travelling):
            own: set[bytes] = set()
            for entry in _entries(scan["clients"], 16):
                if not keys.has(entry[8:]):
                    continue
                known.add(entry)
                pair = int.from_bytes(entry[:8], "little")
                (group_needs[travelling[pair]][0] if pair in travelling else own).add(entry[8:])
            strangers = [int.from_bytes(entry, "little") for entry in _entries(scan["strangers"], 8)]
            needs.append((own, any(pair not in travelling for pair in strangers)))
            unmet.update((pair, travelling[pair]) for pair in strangers if pair in travelling)
        # A pair is a stranger where none of its files has its hello.
        if unmet:
            for scan in self._scans:
                for entry in _entries(scan["clients"], 16):
                    unmet.pop(int.from_bytes(entry[:8], "little"), None)
        for group in unmet.values():
            group_needs[group][1].append(True)
        facts["connections"] = len(known)
        self._common = {"kind": rows._kind, "reach": rows._reach, "facts": facts, "folder": ""}
        self._secrets = [keys.for_clients(clients, strangers) for clients, strangers in needs]
        self._group_secrets = {group: keys.for_clients(clients, bool(strangers)) for group, (clients, strangers) in group_needs.items()}

    def _options(self, secrets: Secret, name: str) -> dict[str, Any]:
        folder = os.path.join(self._rows._folder, name) if self._rows._folder else ""
        return {**self._common, "secrets": secrets, "folder": folder}

    def _name(self, kind: str, index: int) -> str:
        return f"part-{index:05}" + ("-shared" if kind == "group" else "")

    def _path(self, kind: str, index: int) -> str:
        return os.path.join(self._rows._output, self._name(kind, index) + ".ndjson") if self._rows._output else ""

    # Work: every file, then what travels. All of it can be done again when the scheduler was lost, except what was handed out.

    def _work_on_all(self) -> None:
        rows = self._rows
        wanted = {file for file in range(len(self._files)) if ("file", file) not in self._done}
        groups = {group for group in self._members if ("group", group) not in self._done}
        for group in groups:
            wanted |= self._members[group]
        for file in sorted(wanted - self._work.keys()):
            place = rows._places.get(self._order[file])
            where = {"workers": [place], "allow_other_workers": True} if place else {}
            self._work[file] = rows._submit(_work_on_file, self._files[file], self._packets_before[file], self._travelling[file],
                                            rows._filter, self._options(self._secrets[file], self._name("file", file)), **where)
        facts = {rows._submit(_facts, self._work[file]): file for file in wanted}
        for future in as_completed(list(facts)):
            file = facts.pop(future)
            found = rows._result(future, self._files[file])
            if isinstance(found, _Failed):
                self._work[file] = found
                found = _facts(found)
            self._facts[file] = found
            for error in found["errors"]:
                rows._tell(error)
            rows._progress("working on", len(self._facts), len(self._files))
        for group in sorted(groups - self._group_work.keys()):
            pieces = [rows._submit(_packets_for, self._work[file], group) for file in sorted(self._members[group])
                      if group in self._facts[file]["packets"]]
            self._group_work[group] = rows._submit(_work_on_packets, pieces,
                                                   self._options(self._group_secrets[group], self._name("group", group)))
        starts = {rows._submit(_first_packets, self._group_work[group]): group for group in groups - self._starts.keys()}
        for future in as_completed(list(starts)):
            group = starts.pop(future)
            found = rows._result(future, self._files[group])
            if isinstance(found, _Failed):
                rows._tell((self._files[group], "connections that go on in other files: " + found.error[1], -1, ""))
                self._group_work[group] = found
                found = ()
            self._starts[group] = found
        rows.travelled_bytes = sum(sum(facts["packets"].values()) for facts in self._facts.values())

    def _numbers_of_groups(self) -> dict[int, list[int]]:
        """Of each group the numbers of its connections, and in `_offsets` where those of each file begin."""
        elsewhere = sorted(start for starts in self._starts.values() for start in starts)
        self._elsewhere: list[list[int]] = []
        self._offsets = []
        own = 0
        for file in range(len(self._files)):
            low = bisect.bisect_left(elsewhere, self._packets_before[file] + 1)
            high = bisect.bisect_left(elsewhere, self._packets_before[file + 1] + 1)
            self._elsewhere.append(elsewhere[low:high])
            self._offsets.append(own + low)
            own += self._facts[file]["connections"]
        self._total = own + len(elsewhere)
        numbers: dict[int, int] = {}
        asked = {}
        for file, starts in enumerate(self._elsewhere):
            if starts and not isinstance(self._work.get(file), _Failed) and self._facts[file]["connections"]:
                if file not in self._work:
                    continue
                asked[file] = self._rows._submit(_before, self._work[file], starts)
        for file, starts in enumerate(self._elsewhere):
            before = self._rows._result(asked[file], self._files[file]) if file in asked else [0] * len(starts)
            if isinstance(before, _Failed):
                before = [0] * len(starts)
            for rank, (start, count) in enumerate(zip(starts, before)):
                numbers[start] = self._offsets[file] + rank + count
        return {group: [numbers[start] for start in starts] for group, starts in self._starts.items()}

    def _bound(self, file: int) -> tuple[Any, ...] | None:
        """What every row of the files behind this one comes after."""
        if file + 1 >= len(self._files):
            return None
        if self._rows._kind != "exchanges":
            return (self._offsets[file + 1],)
        first = self._scans[file + 1]["first"]
        return None if first is None else (first[0] + first[1] / first[2],)

    def parts(self) -> Iterator[_Part]:
        numbers: dict[int, list[int]] | None = None
        finished: dict[tuple[str, int], Any] = {}
        order = [entry for file in range(len(self._files)) for entry in (("group", file), ("file", file)) if entry[0] == "file" or file in self._members]

        def prepare() -> None:
            nonlocal numbers
            self._work_on_all()
            if numbers is None:
                numbers = self._numbers_of_groups()
            for kind, index in order:
                if (kind, index) in self._done or (kind, index) in finished:
                    continue
                work = (self._work if kind == "file" else self._group_work)[index]
                if isinstance(work, _Failed):
                    finished[kind, index] = None
                    continue
                found = numbers[index] if kind == "group" else (self._offsets[index], self._elsewhere[index])
                finished[kind, index] = self._rows._submit(_finish, work, found, self._rows._wanted, self._path(kind, index))

        def result(entry: tuple[str, int]) -> Any:
            if entry not in finished:
                prepare()
            future = finished[entry]
            if future is None:
                return b""
            try:
                found = self._rows._result(future, self._files[entry[1]])
            except _SchedulerLost:
                finished.clear()
                self._work.clear()
                self._group_work.clear()
                raise
            if isinstance(found, _Failed):
                self._rows._tell(found.error)
                return b""
            return found

        def prepared() -> None:
            try:
                prepare()
            except _SchedulerLost:
                finished.clear()
                self._work.clear()
                self._group_work.clear()
                raise

        self._rows._again(prepared)
        for count, entry in enumerate(order):
            found = self._rows._again(functools.partial(result, entry))
            self._done.add(entry)
            finished[entry] = None
            kind, file = entry
            if kind == "file":
                self._work.pop(file, None)  # its rows are through, and need no more room on a worker
            self._rows._progress("collecting", count + 1, len(order))
            # A group stands before the file that its first connections begin in.
            yield _Part(found, self._bound(file) if kind == "file" else (-1,))


def streams(files: Path | Iterable[Path], *, client: Client | str | None = None, keylog: Path | Iterable[Path] | None = None,
            reach: str = "full", filter: str = "", output: Path | None = None, patience: float = 120.0,
            progress: Callable[[str, int, int], None] | None = None) -> Rows[Stream]:
    """The TCP connections of all files together: rows as `Capture.streams` gives them.

    `client` is one of a cluster, or a scheduler's address; without it a cluster is started on this machine. With `output` the workers
    write partitions of NDJSON into that folder, which all of them must see; else rows come here as they are asked for.
    `patience` is how long, in seconds, a lost scheduler is waited for.
    """
    return Rows("streams", Stream, files, client=client, keylog=keylog, reach=reach, filter=filter, output=output, patience=patience,
                progress=progress)


def exchanges(files: Path | Iterable[Path], *, client: Client | str | None = None, keylog: Path | Iterable[Path] | None = None,
              reach: str = "full", filter: str = "", output: Path | None = None, patience: float = 120.0,
              progress: Callable[[str, int, int], None] | None = None) -> Rows[Exchange]:
    """What was asked and what came back, in the order of the requests' times; see `streams`."""
    return Rows("exchanges", Exchange, files, client=client, keylog=keylog, reach=reach, filter=filter, output=output, patience=patience,
                progress=progress)


def objects(files: Path | Iterable[Path], *, client: Client | str | None = None, keylog: Path | Iterable[Path] | None = None,
            reach: str = "full", filter: str = "", output: Path | None = None, folder: Path | None = None, patience: float = 120.0,
            progress: Callable[[str, int, int], None] | None = None) -> Rows[Object]:
    """The bodies that were carried; saved by the workers into subfolders of `folder`, else only measured; see `streams`."""
    return Rows("objects", Object, files, client=client, keylog=keylog, reach=reach, filter=filter, output=output, folder=folder,
                patience=patience, progress=progress)


def find(files: Path | Iterable[Path], *, server_name: str | None = None, client_random: str | None = None, certificate: str | None = None,
         address: str | None = None, ja4: str | None = None, client: Client | str | None = None,
         keylog: Path | Iterable[Path] | None = None, reach: str = "full", filter: str = "", output: Path | None = None,
         patience: float = 120.0, progress: Callable[[str, int, int], None] | None = None) -> Rows[Stream]:
    """The streams that have all of what is given: a server name, a client random, the SHA-256 of a certificate, an address (with or
    without its port), a JA4 fingerprint. Workers look; only what is found comes here."""
    given = {"server_name": server_name, "client_random": client_random, "certificate": certificate, "address": address, "ja4": ja4}
    wanted = {name: text for name, text in given.items() if text is not None}
    if not wanted:
        raise ValueError("find: expected a server name, a client random, a certificate, an address or a JA4 fingerprint")
    return Rows("streams", Stream, files, client=client, keylog=keylog, reach=reach, filter=filter, output=output, wanted=wanted,
                patience=patience, progress=progress)
