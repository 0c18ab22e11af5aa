# SPDX-License-Identifier: Apache-2.0
"""Rows of captures in many files, made on a Dask cluster: the same rows as one machine makes of all the files together.

>>> from sealscope import cluster
>>> with cluster.streams(["examples/tls12.pcap", "examples/https.pcapng"], keylog="examples/tls12.keylog") as rows:  # doctest: +SKIP
...     for stream in rows:
...         print(stream.number, stream.server_name, stream.verdict)

How it goes. A first look through each file, wherever a worker is free, indexes it and finds the pairs of endpoints in it; the index stays
there. Then rows are made from it, where it is; the packets of pairs that several files have are left out, and travel to where they are all
together. Numbers of streams are put right at the end, when it is known how many connections each part has. So a file's bytes are looked at
twice, and of them only those travel that belong to connections which may go on in another file.

Files are named as the workers see them: on storage that all share, or each on the machine that wrote it. Workers need this package.
A cluster that is started here runs on this machine; a script then needs the usual `if __name__ == "__main__":`.
"""
from __future__ import annotations

import array
import bisect
import contextlib
import functools
import heapq
import json
import os
import re
import signal
import socket
import struct
import threading
import time
import uuid
from collections.abc import Callable, Iterable, Iterator
from fractions import Fraction
from multiprocessing import resource_tracker
from typing import TYPE_CHECKING, Any, Generic, TypeVar

import dask
from distributed import Client, LocalCluster, as_completed
from distributed.scheduler import KilledWorker

from . import CaptureError, Exchange, Object, Path, Record, Stream, _core, _names

if TYPE_CHECKING:
    from ._following import Following

__all__ = ["Rows", "Secret", "exchanges", "find", "follow", "objects", "streams"]

_Row = TypeVar("_Row", bound=Record)
_Travelling = tuple[bytes, bytes]  # pairs, and the group that each goes to
_HEAD = len(b'{"stream":')


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


class _Piece:
    """A file that was indexed. Whoever gets it from elsewhere, or from the disk, indexes it once more when it is asked for."""

    def __init__(self, file: str, filter: str, reach: str) -> None:
        self._arguments = file, filter, reach
        self._lock = threading.Lock()
        self._core: _core.Piece | None = None

    def core(self) -> _core.Piece:
        with self._lock:
            if self._core is None:
                self._core = _core.Piece(*self._arguments)
            return self._core

    def __sizeof__(self) -> int:
        return self._core.memory if self._core else 0

    def __reduce__(self) -> Any:
        return _Piece, self._arguments

    def __repr__(self) -> str:
        return f"_Piece({self._arguments[0]!r})"


def _look(file: str, filter: str, reach: str) -> _Piece | _Failed:
    piece = _Piece(file, filter, reach)
    try:
        piece.core()
    except CaptureError as error:
        return _Failed(_told(error))
    return piece


def _scan(piece: _Piece | _Failed) -> dict[str, Any] | _Failed:
    if isinstance(piece, _Failed):
        return piece
    try:
        scan = piece.core().scan()
    except CaptureError as error:
        return _Failed(_told(error))
    scan["secrets"] = Secret(scan["secrets"])
    return scan


def _prepared(options: dict[str, Any]) -> dict[str, Any]:
    if options["folder"]:
        os.makedirs(options["folder"], mode=0o700, exist_ok=True)
    return options


def _work_on_file(piece: _Piece | _Failed, travelling: _Travelling, packets_before: int, options: dict[str, Any]) -> _Work | _Failed:
    if isinstance(piece, _Failed):
        return piece
    try:
        return _Work(piece.core().rows(*travelling, packets_before, _prepared(options)))
    except CaptureError as error:
        return _Failed(_told(error))


def _packets_by_group(piece: _Piece | _Failed, travelling: _Travelling, groups: list[int], packets_before: int) -> list[Secret] | _Failed:
    if isinstance(piece, _Failed):
        return piece
    try:
        return [Secret(packets) for packets in piece.core().packets(*travelling, groups, packets_before)]
    except CaptureError as error:
        return _Failed(_told(error))


def _packets_for(piece: _Piece | _Failed, travelling: _Travelling, group: int, packets_before: int) -> Secret | _Failed:
    found = _packets_by_group(piece, travelling, [group], packets_before)
    return found if isinstance(found, _Failed) else found[0]


def _work_on_packets(pieces: list[Secret | _Failed], options: dict[str, Any]) -> _Work | _Failed:
    packets = [piece for piece in pieces if isinstance(piece, Secret)]
    try:
        work = _Work(_core.work_on_packets(packets, _prepared(options)))
    except CaptureError as error:
        return _Failed(_told(error))
    work["errors"] += [piece.error for piece in pieces if isinstance(piece, _Failed)]
    work["travelled"] = sum(map(len, packets))
    return work


def _starts(work: _Work | _Failed) -> dict[str, Any] | _Failed:
    """Where the connections of a group begin, what begins before them in their files, and what travelled for it."""
    if isinstance(work, _Failed):
        return work
    return {"first_packets": work["first_packets"], "before": work["before"], "travelled": work["travelled"]}


def _numbers(packed: bytes) -> tuple[int, ...]:
    return struct.unpack(f"={len(packed) // 8}q", packed)


def _packed(numbers: Iterable[int]) -> bytes:
    return array.array("q", numbers).tobytes()


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


def _finish(work: _Work | _Failed, numbers: list[int] | tuple[int, list[int]], wanted: dict[str, str], path: str) -> tuple[Any, list[Any]]:
    """The rows with their final numbers, written to `path` where there is one, in one go, else given; and what was the matter."""
    if isinstance(work, _Failed):
        return b"", [work.error]
    if isinstance(numbers, tuple):  # a number for the first, and the packets at which a connection elsewhere takes one
        start, elsewhere = numbers
        numbers = [start + i + bisect.bisect_left(elsewhere, packet) for i, packet in enumerate(_numbers(work["first_packets"]))]
    rows = _core.numbered(work["rows"], work["numbers"], _packed(numbers))
    if wanted:
        rows = b"".join(line for line in rows.splitlines(keepends=True) if _matches(json.loads(line), wanted))
    try:
        return _written(rows, path) if path else rows, work["errors"]
    except OSError as problem:
        return b"", [*work["errors"], (path, problem.strerror or str(problem), -1, "")]


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
_LOCAL = {"distributed.worker.profile.interval": "1s", "distributed.admin.tick.interval": "500ms",
          "distributed.worker.memory.monitor-interval": "1s", "distributed.scheduler.work-stealing-interval": "500ms"}


@contextlib.contextmanager
def _interrupts_blocked() -> Iterator[None]:
    """Whoever is started meanwhile gets no Ctrl-C of the terminal: that is for the one who asks, and workers end when that one says so."""
    resource_tracker.ensure_running()  # which would let interrupts through
    before = signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGINT])
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)


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
            with dask.config.set(_LOCAL), _interrupts_blocked():
                local = LocalCluster(n_workers=os.cpu_count(), threads_per_worker=1, dashboard_address="127.0.0.1:0")
            client = Client(local)
            self._owned = [client, local]
        elif isinstance(client, str):
            client = Client(client)
            self._owned = [client]
        self._client: Client = client
        self._scans: dict[int, dict[str, Any] | _Failed] = {}
        self._pieces: dict[int, Any] = {}
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
                self._pieces.clear()
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

    def _folder_for(self, part: str) -> str:
        return os.path.join(self._folder, part) if self._folder else ""

    def _path_for(self, part: str) -> str:
        return os.path.join(self._output, part + ".ndjson") if self._output else ""

    def _tell(self, error: tuple[str, str, int, str]) -> None:
        if (error[0], error[1]) not in self._told:
            self._told.add((error[0], error[1]))
            self.problems.append(CaptureError(*error))

    # The first look.

    def _scan_all(self) -> None:
        known = set(self._scans)
        self._again(self._scan_missing)
        for index, scan in list(self._scans.items()):
            if index in known:
                continue
            if isinstance(scan, _Failed):
                self._tell(scan.error)
            else:
                self.total_bytes += scan["bytes"]
                for error in scan["errors"]:
                    self._tell(error)

    def _scan_missing(self) -> None:
        waiting = [index for index in range(len(self._files)) if index not in self._scans]
        waiting.reverse()
        futures: dict[Any, int] = {}
        running = as_completed(loop=self._client.loop)

        def begin() -> None:
            # A few at a time, so that each worker gets as many bytes as it has time for: rows are made where a file was looked at.
            threads = sum(worker["nthreads"] for worker in self._client.scheduler_info()["workers"].values())
            while waiting and len(futures) < 2 * max(threads, 1):
                index = waiting.pop()
                self._pieces[index] = self._submit(_look, self._files[index], self._filter, self._reach)
                future = self._submit(_scan, self._pieces[index])
                futures[future] = index
                running.add(future)

        begin()
        for future in running:
            index = futures.pop(future)
            self._scans[index] = self._result(future, self._files[index])
            self._progress("looking through", len(self._scans), len(self._files))
            begin()
        # What one worker does not have may lie on the machine of another.
        absent = [index for index, scan in self._scans.items() if isinstance(scan, _Failed) and index not in self._places]
        for address in self._one_worker_a_host():
            if not absent:
                break
            tried = {}
            for index in absent:
                piece = self._submit(_look, self._files[index], self._filter, self._reach, workers=[address])
                tried[index] = piece, self._submit(_scan, piece)
            for index, (piece, future) in tried.items():
                scan = self._result(future, self._files[index])
                if not isinstance(scan, _Failed):
                    self._scans[index] = scan
                    self._pieces[index] = piece
                    self._places[index] = address
            absent = [index for index in absent if index not in self._places]

    def _piece(self, index: int) -> Any:
        """A file's index; made once more when the scheduler that knew of it was lost."""
        if index not in self._pieces:
            place = self._places.get(index)
            where = {"workers": [place], "allow_other_workers": True} if place else {}
            self._pieces[index] = self._submit(_look, self._files[index], self._filter, self._reach, **where)
        return self._pieces[index]

    def _one_worker_a_host(self) -> list[str]:
        hosts: dict[str, str] = {}
        for address, worker in self._client.scheduler_info()["workers"].items():
            hosts.setdefault(worker["host"], address)
        return list(hosts.values()) if len(hosts) > 1 else []


class _Part:
    """Some rows, and what every later row comes after; None when there are none."""

    def __init__(self, result: Any, bound: tuple[Any, ...] | None) -> None:
        self.result, self.bound = result, bound


def _first(scan: dict[str, Any]) -> tuple[Any, ...]:
    """By which files are ordered; those without packets come last."""
    found = scan["first"]
    return (1,) if found is None else (0, found[0], Fraction(found[1], found[2]))


def _clients(scan: dict[str, Any]) -> Iterator[tuple[int, bytes]]:
    """Pairs, and the first bytes of client randoms of them."""
    for entry in _entries(scan["clients"], 16):
        yield int.from_bytes(entry[:8], "little"), entry[8:]


def _embedded(scans: Iterable[dict[str, Any]]) -> bytes:
    """The secrets that captures carry themselves."""
    texts = (scan["secrets"].reveal() for scan in scans)
    return b"".join(text if text.endswith(b"\n") or not text else text + b"\n" for text in texts)


def _pack(travelling: dict[int, int]) -> _Travelling:
    return array.array("Q", travelling.keys()).tobytes(), _packed(travelling.values())


class _Plan:
    """Who works on what, and which numbers that gives."""

    def __init__(self, rows: Rows[Any]) -> None:
        self._rows = rows
        scans = {index: scan for index, scan in rows._scans.items() if isinstance(scan, dict)}
        self._order = sorted(scans, key=lambda index: (_first(scans[index]), index))
        self._scans = [scans[index] for index in self._order]
        self._files = [rows._files[index] for index in self._order]
        self._packets_before = [0]
        for scan in self._scans:
            self._packets_before.append(self._packets_before[-1] + scan["packets"])

        # A group has the pairs that begin in one file, and go on in others.
        self._travelling: list[dict[int, int]] = [{} for _ in self._files]
        self._own = [scan["connections"] for scan in self._scans]
        others = [dict(struct.iter_unpack("=Qq", scan["others"])) for scan in self._scans]
        self._members: dict[int, set[int]] = {}
        for pair, files in _core.shared_pairs([scan["pairs"] for scan in self._scans]):
            for file in files:
                self._travelling[file][pair] = files[0]
                self._own[file] -= others[file].get(pair, 1)
                self._members.setdefault(files[0], set()).add(file)
        self._packed = [_pack(travelling) for travelling in self._travelling]
        self._make_options()
        self._work: dict[int, Any] = {}
        self._group_work: dict[int, Any] = {}
        self._starts: dict[int, dict[int, int]] = {}
        self._done: set[tuple[str, int]] = set()

    def _make_options(self) -> None:
        rows = self._rows
        text, facts = _core.key_log(_embedded(self._scans), rows._key_logs)
        keys = _KeyLog(text)
        known: set[tuple[int, bytes]] = set()
        needs: list[tuple[set[bytes], bool]] = []
        unmet: dict[int, int] = {}
        group_needs: dict[int, tuple[set[bytes], list[bool]]] = {group: (set(), []) for group in self._members}
        for scan, travelling in zip(self._scans, self._travelling):
            own: set[bytes] = set()
            for pair, client in _clients(scan):
                if not keys.has(client):
                    continue
                known.add((pair, client))
                (group_needs[travelling[pair]][0] if pair in travelling else own).add(client)
            strangers = array.array("Q", scan["strangers"])
            needs.append((own, any(pair not in travelling for pair in strangers)))
            unmet.update((pair, travelling[pair]) for pair in strangers if pair in travelling)
        # A pair is a stranger where none of its files has its hello.
        if unmet:
            for scan in self._scans:
                for pair, _ in _clients(scan):
                    unmet.pop(pair, None)
        for group in unmet.values():
            group_needs[group][1].append(True)
        facts["connections"] = len(known)
        self._common = {"kind": rows._kind, "reach": rows._reach, "facts": facts, "folder": ""}
        self._secrets = [keys.for_clients(clients, strangers) for clients, strangers in needs]
        self._group_secrets = {group: keys.for_clients(clients, bool(strangers)) for group, (clients, strangers) in group_needs.items()}

    def _options(self, secrets: Secret, name: str) -> dict[str, Any]:
        return {**self._common, "secrets": secrets, "folder": self._rows._folder_for(name)}

    def _name(self, kind: str, index: int) -> str:
        return f"part-{index:05}" + ("-shared" if kind == "group" else "")

    def _path(self, kind: str, index: int) -> str:
        return self._rows._path_for(self._name(kind, index))

    # Work: what travels, and every file. All of it can be done again when the scheduler was lost, except what was handed out.

    def _work_on_all(self) -> None:
        rows = self._rows
        groups = sorted(group for group in self._members if ("group", group) not in self._done and group not in self._group_work)
        for group in groups:
            pieces = [rows._submit(_packets_for, rows._piece(self._order[file]), self._packed[file], group, self._packets_before[file])
                      for file in sorted(self._members[group])]
            self._group_work[group] = rows._submit(_work_on_packets, pieces,
                                                   self._options(self._group_secrets[group], self._name("group", group)))
        for file in range(len(self._files)):
            if ("file", file) not in self._done and file not in self._work:
                self._work[file] = rows._submit(_work_on_file, rows._piece(self._order[file]), self._packed[file], self._packets_before[file],
                                                self._options(self._secrets[file], self._name("file", file)))
        starts = {rows._submit(_starts, self._group_work[group]): group for group in self._members.keys() - self._starts.keys()}
        for future in as_completed(list(starts)):
            group = starts.pop(future)
            found = rows._result(future, self._files[group])
            if isinstance(found, _Failed):
                rows._tell((self._files[group], "connections that go on in other files: " + found.error[1], -1, ""))
                self._group_work[group] = found
                self._starts[group] = {}
                continue
            self._starts[group] = dict(zip(_numbers(found["first_packets"]), _numbers(found["before"])))
            rows.travelled_bytes += found["travelled"]

    def _numbers_of_groups(self) -> dict[int, list[int]]:
        """Of each group the numbers of its connections, and in `_offsets` where those of each file begin."""
        elsewhere = sorted(start for starts in self._starts.values() for start in starts)
        before = {start: count for starts in self._starts.values() for start, count in starts.items()}
        self._elsewhere: list[list[int]] = []  # counted in their files
        self._offsets = []
        own = 0
        numbers: dict[int, int] = {}
        for file, packets in enumerate(self._packets_before[:-1]):
            low = bisect.bisect_left(elsewhere, packets + 1)
            high = bisect.bisect_left(elsewhere, self._packets_before[file + 1] + 1)
            self._elsewhere.append([start - packets for start in elsewhere[low:high]])
            self._offsets.append(own + low)
            numbers.update((start, own + low + rank + before[start]) for rank, start in enumerate(elsewhere[low:high]))
            own += self._own[file]
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
                found = numbers[index] if kind == "group" else (self._offsets[index], self._elsewhere[index])
                finished[kind, index] = None if isinstance(work, _Failed) else self._rows._submit(
                    _finish, work, found, self._rows._wanted, self._path(kind, index))

        def result(entry: tuple[str, int]) -> Any:
            try:
                if entry not in finished:
                    prepare()
                future = finished[entry]
                return (b"", []) if future is None else self._rows._result(future, self._files[entry[1]])
            except _SchedulerLost:
                finished.clear()
                self._work.clear()
                self._group_work = {group: work for group, work in self._group_work.items() if isinstance(work, _Failed)}
                raise

        for count, entry in enumerate(order):
            found = self._rows._again(functools.partial(result, entry))
            rows, errors = (b"", [found.error]) if isinstance(found, _Failed) else found
            for error in errors:
                self._rows._tell(error)
            kind, file = entry
            self._done.add(entry)
            finished[entry] = None
            # Its rows are through, and need no more room on a worker.
            (self._work if kind == "file" else self._group_work).pop(file, None)
            if kind == "file":
                self._rows._pieces.pop(self._order[file], None)
            self._rows._progress("working", count + 1, len(order))
            # A group stands before the file that its first connections begin in.
            yield _Part(rows, self._bound(file) if kind == "file" else (-1,))


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


def follow(folder: Path, kind: str = "streams", pattern: str = "*", *, interval: float = 5.0, settle: float | None = None,
           most_held: int = 256 << 20, client: Client | str | None = None, keylog: Path | Iterable[Path] | None = None, reach: str = "full",
           filter: str = "", output: Path | None = None, folder_for_objects: Path | None = None, patience: float = 120.0,
           progress: Callable[[str, int, int], None] | None = None, report: Callable[[CaptureError], None] | None = None) -> Following[Any]:
    """Rows of the files of a folder that a sensor fills, as they are complete: of `kind` "streams", "exchanges" or "objects".

    A file is complete when there is a newer one, or when it was left alone for `settle` seconds, where that is given. Its rows come when
    the file behind it is complete too, since connections may go on there; such connections come when a file has nothing of them. Their
    packets are held until then, here, up to `most_held` bytes; beyond that the largest are let go as they are. `Following.stop` ends it,
    from any thread or a signal's handler: what is held comes then, and the iteration ends. `report` is given every problem as it is met.
    Numbers of streams count the rows' connections as they come. Key logs are read anew for every round of files.
    """
    from ._following import Following

    makers: dict[str, Callable[[str], Any]] = {"streams": Stream, "exchanges": Exchange, "objects": Object}
    if kind not in makers:
        raise ValueError("follow: expected 'streams', 'exchanges' or 'objects'")
    return Following(kind, makers[kind], folder, pattern, interval=interval, settle=settle, most_held=most_held, report=report, client=client,
                     keylog=keylog, reach=reach, filter=filter, output=output, folder=folder_for_objects, patience=patience, progress=progress)
