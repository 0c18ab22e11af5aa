# SPDX-License-Identifier: Apache-2.0
"""Rows of captures in many files, made on a Dask cluster: the same rows as one machine makes of all the files together.

>>> from sealscope import cluster
>>> with cluster.streams(["examples/tls12.pcap", "examples/https.pcapng"], keylog="examples/tls12.keylog") as rows:  # doctest: +SKIP
...     for stream in rows:
...         print(stream.number, stream.server_name, stream.verdict)

How it goes. A first look through each file, wherever a worker is free, indexes it and finds the pairs of endpoints in it; the index stays
there. Then rows are made from it, where it is; the packets of pairs that several files have are left out, and travel to where they are all
together. Numbers of streams are put right at the end, when it is known how many connections each part has. So a file's bytes are looked at
twice, and of them only those travel that belong to connections which may go on in another file. Where there are many files for each worker,
a task has several of them, since a task costs the scheduler the same whatever is in it.

Files are named as the workers see them: on storage that all share, or each on the machine that wrote it. Workers need this package.
A cluster that is started here runs on this machine; a script then needs the usual `if __name__ == "__main__":`.
"""
from __future__ import annotations

import array
import bisect
import collections
import contextlib
import functools
import heapq
import itertools
import json
import operator
import os
import pickle
import re
import signal
import socket
import struct
import threading
import time
import uuid
from collections.abc import Callable, Iterable, Iterator, Sequence
from fractions import Fraction
from multiprocessing import resource_tracker
from typing import TYPE_CHECKING, Any, Generic, NamedTuple, Self, TypeVar

import dask
from distributed import Client, LocalCluster, as_completed, get_worker, wait
from distributed.scheduler import KilledWorker
from distributed.utils_comm import gather_from_workers

from . import CaptureError, Exchange, Object, Path, Record, Stream, _core, _names

if TYPE_CHECKING:
    from ._following import Following

__all__ = ["Rows", "Secret", "exchanges", "find", "follow", "objects", "streams"]

_Row = TypeVar("_Row", bound=Record)
_For = TypeVar("_For")
_Travelling = tuple[bytes, bytes]  # pairs, and the group that each goes to
_Result = tuple[Any, list[Any]]  # rows or where they were written, and what was the matter
_HEAD = len(b'{"stream":')


class Secret:
    """Bytes that travel to workers, and show in no log, dashboard or traceback."""

    __slots__ = ("_bytes", "_lines")

    def __init__(self, content: bytes | memoryview) -> None:
        self._bytes = content
        self._lines: _core.KeyLines | None = None

    def reveal(self) -> bytes:
        return self._bytes if isinstance(self._bytes, bytes) else bytes(self._bytes)

    def key_lines(self) -> _core.KeyLines:
        """As a key log, which is looked through once."""
        if self._lines is None:
            self._lines = _core.key_lines(self.reveal())
        return self._lines

    def __len__(self) -> int:
        return len(self._bytes)

    def __sizeof__(self) -> int:
        return len(self._bytes)

    def __repr__(self) -> str:
        return f"Secret({len(self._bytes)} bytes)"

    def __reduce_ex__(self, protocol: Any) -> Any:
        # Travels uncopied where it can.
        return Secret, (pickle.PickleBuffer(self._bytes) if protocol >= 5 else self.reveal(),)


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


class _Looked:
    """A file that was indexed, and what was found in it. Who asks gets what was found; a worker that gets it from another, or from the disk,
    indexes the file once more when it needs that."""

    def __init__(self, arguments: tuple[str, str, str], core: _core.Piece | None, scan: dict[str, Any]) -> None:
        self._arguments, self._core, self.scan = arguments, core, scan
        self._lock = threading.Lock()

    def core(self) -> _core.Piece:
        with self._lock:
            if self._core is None:
                self._core = _core.Piece(*self._arguments)
            return self._core

    def __sizeof__(self) -> int:
        return self._core.memory if self._core else 0

    def __reduce__(self) -> Any:
        return _Looked, (self._arguments, None, self.scan)

    def __repr__(self) -> str:
        return f"_Looked({self._arguments[0]!r})"


_Batch = list[_Looked | _Failed]
_Wanted = tuple["_File", list[int]]  # packets of these groups
_Packets = dict[tuple[int, int], "Secret | _Failed"]  # by group and file


class _File(NamedTuple):
    """A file of a batch, and what is to be known of it to work on it."""

    at: int
    number: int
    travelling: _Travelling
    packets_before: int


def _look(files: list[str], filter: str, reach: str) -> _Batch:
    worker = get_worker().address

    def look(file: str) -> _Looked | _Failed:
        try:
            core = _core.Piece(file, filter, reach)
            return _Looked((file, filter, reach), core, {**core.scan(), "worker": worker})
        except CaptureError as error:
            return _Failed(_told(error))

    return [look(file) for file in files]


def _secrets_of(batch: _Batch, at: int) -> Secret | _Failed:
    """Those that a file carries itself."""
    looked = batch[at]
    if isinstance(looked, _Failed):
        return looked
    try:
        return Secret(looked.core().secrets())
    except CaptureError as error:
        return _Failed(_told(error))


def _prepared(options: dict[str, Any], secrets: Secret) -> dict[str, Any]:
    if options["folder"]:
        os.makedirs(options["folder"], mode=0o700, exist_ok=True)
    return {**options, "secrets": secrets}


def _work_on_files(batch: _Batch, files: list[_File], options: list[dict[str, Any]], secrets: Secret) -> list[_Work | _Failed]:
    """Works on pairs of one file alone, file by file; `secrets` are those of several files."""
    return [_work_on_file(batch, *of_file) for of_file in zip(files, options, itertools.repeat(secrets))]


def _work_on_file(batch: _Batch, file: _File, options: dict[str, Any], secrets: Secret) -> _Work | _Failed:
    looked = batch[file.at]
    if isinstance(looked, _Failed):
        return looked
    keys = secrets.key_lines()
    _, (lines,), _ = keys.needs([(looked.scan["clients"], looked.scan["strangers"], *file.travelling)])
    try:
        return _Work(looked.core().rows(*file.travelling, file.packets_before, _prepared(options, Secret(keys.text([lines])))))
    except CaptureError as error:
        return _Failed(_told(error))


def _given_up(file: str) -> list[_Failed]:
    return [_Failed((file, "the workers that worked on it were lost, one after the other", -1, ""))]


def _packets(batch: _Batch, wanted: list[_Wanted]) -> _Packets:
    packets: _Packets = {}
    for file, groups in wanted:
        looked = batch[file.at]
        numbers = [(group, file.number) for group in groups]
        if isinstance(looked, _Failed):
            packets.update(dict.fromkeys(numbers, looked))
            continue
        try:
            packets.update(zip(numbers, map(Secret, looked.core().packets(*file.travelling, groups, file.packets_before))))
        except CaptureError as error:
            packets.update(dict.fromkeys(numbers, _Failed(_told(error))))
    return packets


def _work_on_packets(parts: list[Secret | _Packets], options: dict[str, Any], secrets: Secret) -> _Work | _Failed:
    pieces = [piece for part in parts for piece in (part.values() if isinstance(part, dict) else [part])]
    packets = [piece for piece in pieces if isinstance(piece, Secret)]
    try:
        work = _Work(_core.work_on_packets(packets, _prepared(options, secrets)))
    except CaptureError as error:
        return _Failed(_told(error))
    work["errors"] += [piece.error for piece in pieces if isinstance(piece, _Failed)]
    work["travelled"] = sum(map(len, packets))
    return work


def _work_on_shared(batch: _Batch, here: list[_Wanted], groups: list[tuple[int, dict[str, Any]]],
                    elsewhere: list[_Packets], secrets: Secret) -> list[_Work | _Failed]:
    """Works on pairs that go on in other files: groups of which files here have packets, and whose packets of other files came."""
    own = _packets(batch, here)
    packets = functools.reduce(operator.or_, elsewhere, own)
    works = []
    for group, options in groups:
        parts = sorted(part for part in packets if part[0] == group)
        work = _work_on_packets([{part: packets[part] for part in parts}], options, secrets)
        if isinstance(work, _Work):
            work["travelled"] -= sum(len(found) for part in parts if isinstance(found := own.get(part), Secret))
        works.append(work)
    return works


def _starts(works: list[_Work | _Failed]) -> list[dict[str, Any] | _Failed]:
    """Of groups where their connections begin, what begins before them in their files, and what travelled for it."""
    return [work if isinstance(work, _Failed) else {name: work[name] for name in ("first_packets", "before", "travelled")} for work in works]


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


class _Finish(NamedTuple):
    """What is left to do for a file: its place among the works of several, that of its group, the numbers of both and where rows go."""

    own: int
    shared: int | None
    shared_numbers: list[int]
    start: int  # of the numbers of its own connections
    elsewhere: list[int]  # packets at which a connection elsewhere takes a number
    paths: tuple[str, str]


def _finish(shared: list[_Work | _Failed], own: list[_Work | _Failed], files: list[_Finish], wanted: dict[str, str]) -> list[list[_Result]]:
    """For each file the rows of pairs that go on from it, and those of its own: see `_finished`."""
    results = []
    for file in files:
        work = own[file.own]
        first_packets = () if isinstance(work, _Failed) else _numbers(work["first_packets"])
        numbers = [file.start + i + bisect.bisect_left(file.elsewhere, packet) for i, packet in enumerate(first_packets)]
        of_file = [] if file.shared is None else [_finished(shared[file.shared], file.shared_numbers, wanted, file.paths[0])]
        results.append([*of_file, _finished(work, numbers, wanted, file.paths[1])])
    return results


def _finished(work: _Work | _Failed, numbers: list[int], wanted: dict[str, str], path: str) -> _Result:
    """The rows with their final numbers, written to `path` where there is one, in one go, else given; and what was the matter."""
    if isinstance(work, _Failed):
        return b"", [work.error]
    rows = _core.numbered(work["rows"], work["numbers"], _packed(numbers))
    if wanted:
        rows = _found_in(rows, wanted)
    try:
        return _written(rows, path) if path else rows, work["errors"]
    except OSError as problem:
        return b"", [*work["errors"], (path, problem.strerror or str(problem), -1, "")]


def _found_in(rows: bytes, wanted: dict[str, str]) -> bytes:
    # Most rows lack the text altogether, and need not be taken apart to tell; what JSON would write otherwise is not looked for so.
    texts = [text.lower().replace(":", "") if name == "certificate" else text.lower() for name, text in wanted.items()]
    marks = [text.encode() for text in texts if text.isascii() and json.dumps(text)[1:-1] == text]

    def has_marks(line: bytes) -> bool:
        line = line.lower()
        return all(mark in line for mark in marks)

    return b"".join(line for line in rows.splitlines(keepends=True) if has_marks(line) and _matches(json.loads(line), wanted))


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


def _entries(packed: bytes, size: int) -> list[bytes]:
    return [packed[at:at + size] for at in range(0, len(packed), size)]


def _lines_for(keys: _core.KeyLines, clients: Iterable[bytes], has_strangers: bool) -> Secret:
    """The lines for some clients, in the order of the key log; all of them where somebody may be any client."""
    return Secret(keys.text([None if has_strangers else keys.lines_of(b"".join(clients))]))


_MOST_IN_BATCH = 16
# A worker takes the key lines with it that it had, and with them everybody's work that needs these; so some are lost who are not at fault.
_LOSSES_TOGETHER, _LOSSES_ALONE = 3, 6

# Looks at every worker's stack and event loop, up to a hundred times a second, tell nothing about code that is not Python.
_LOCAL = {"distributed.worker.profile.enabled": False, "distributed.admin.tick.interval": "500ms",
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
        self._pieces: dict[int, _Place] = {}  # files: the batch that has them
        self._places: dict[int, str] = {}
        self._told: set[tuple[Any, ...]] = set()
        if self._output:
            os.makedirs(self._output, mode=0o700, exist_ok=True)

    def __enter__(self) -> Self:
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

    def run(self) -> Self:
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

    def _submit_all(self, work: Callable[..., Any], calls: Sequence[tuple[Any, ...]], **where: Any) -> list[Any]:
        """Many calls of the same: costs the scheduler less than one by one."""
        keys = [f"sealscope{work.__name__.replace('_', '-')}-{uuid.uuid4().hex}" for _ in calls]
        futures: list[Any] = self._client.map(work, *zip(*calls), key=keys, pure=False, **where) if calls else []
        return futures

    # Secrets go from here to the worker that needs them, and from worker to worker, but not through the scheduler. They live there as long
    # as this client does, and a worker that is lost has lost them.

    def _hand_out(self, wanted: dict[_For, tuple[str, Secret]]) -> dict[_For, Any]:
        """Secrets, each to a worker: futures, under who they are for. What is nothing needs no travel."""
        handed: dict[_For, Any] = {one: secret for one, (_, secret) in wanted.items()}
        by_place: dict[str, dict[int, list[_For]]] = {}
        for one, (place, secret) in wanted.items():
            if len(secret):
                by_place.setdefault(place, {}).setdefault(id(secret), []).append(one)
        for place, uses in by_place.items():
            keys = {f"sealscope-secret-{uuid.uuid4().hex}": several for several in uses.values()}
            futures = self._hand_to(place, {key: wanted[several[0]][1] for key, several in keys.items()})
            for key, several in keys.items():
                handed.update(dict.fromkeys(several, futures[key]))
        return handed

    def _hand_to(self, place: str, secrets: dict[str, Secret]) -> Any:
        """To a worker, twice if need be, else to another one, from which tasks get them too."""
        reason: Exception | str = "no worker is ready"
        failed: list[str] = []
        end = time.monotonic() + self._patience
        while len(failed) < 4:
            try:
                ready = self._client.sync(self._client.scheduler.ncores_running)
            except OSError:
                raise _SchedulerLost from None
            if place not in ready or failed.count(place) > 1:
                place = min(ready.keys() - set(failed), default="")
            if place:
                try:
                    # A scatter that fails leaves no future, so that nothing is let go while the next one brings it under the same names.
                    return self._client.scatter(secrets, workers=[place], direct=True, timeout=10)
                except (OSError, TimeoutError, ValueError) as problem:
                    reason = problem
                    failed.append(place)
            elif failed or time.monotonic() > end:
                break
            else:
                time.sleep(0.5)
        place = failed[0] if failed else "a worker"
        raise CaptureError("", f"key lines go to workers directly, and {place} cannot be reached from here: {reason}")

    def _from_worker(self, future: Any, file: str) -> Any:
        """What a task gave, as `_result`, but from its worker directly."""
        async def fetch() -> Any:
            places = await self._client.scheduler.who_has(keys=[future.key])
            data, _, _ = await gather_from_workers(places, rpc=self._client.rpc, close=False)
            return data.get(future.key)

        for _ in range(3):
            wait(future)
            if future.status != "finished":
                return self._result(future, file)
            try:
                found = self._client.sync(fetch)
            except OSError:
                raise _SchedulerLost from None
            if found is not None:
                return found
            time.sleep(0.5)
        return _Failed((file, "the secrets that it carries could not be fetched from the worker that read it", -1, ""))

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

    def _results(self, futures: list[Any], files: list[str]) -> list[Any]:
        """As `_result`, for many at once."""
        try:
            if all(future.status == "finished" for future in futures):
                found: list[Any] = self._client.gather(futures)
                return found
        except Exception:  # of one of them
            pass
        return [self._result(future, file) for future, file in zip(futures, files)]

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
        self._again(self._fetch_secrets)
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
        # The scheduler gives each worker as many as it has time for, and rows are made where a file was looked at.
        waiting = [index for index in range(len(self._files)) if index not in self._scans]
        # Of several files that took their workers down it may be one alone.
        self._look_at([[index] for index in self._look_at(self._in_batches(waiting))])
        # What one worker does not have may lie on the machine of another.
        absent = [index for index, scan in self._scans.items() if isinstance(scan, _Failed) and index not in self._places]
        for address in self._one_worker_a_host():
            if not absent:
                break
            tried = {index: self._submit(_look, [self._files[index]], self._filter, self._reach, workers=[address]) for index in absent}
            for index, future in tried.items():
                scan = self._found(self._result(future, self._files[index]), 0)
                if not isinstance(scan, _Failed):
                    self._scans[index] = scan
                    self._pieces[index] = future, 0
                    self._places[index] = address
            absent = [index for index in absent if index not in self._places]

    def _in_batches(self, files: list[int]) -> list[list[int]]:
        """Several together where there are many: so that a worker still gets several batches, and is not long behind others."""
        threads = sum(worker["nthreads"] for worker in self._client.scheduler_info()["workers"].values())
        size = min(max(len(files) // (4 * max(threads, 1)), 1), _MOST_IN_BATCH)
        return [files[at:at + size] for at in range(0, len(files), size)]

    def _look_at(self, batches: list[list[int]]) -> list[int]:
        """Gives those that were lost together with others."""
        futures = self._submit_all(_look, [([self._files[index] for index in batch], self._filter, self._reach) for batch in batches])
        files_of = {future.key: batch for future, batch in zip(futures, batches)}
        lost: list[int] = []
        for ready in as_completed(futures, loop=self._client.loop).batches():
            for future, looked in zip(ready, self._results(ready, [self._files[files_of[future.key][0]] for future in ready])):
                batch = files_of[future.key]
                if isinstance(looked, _Failed) and len(batch) > 1:
                    lost += batch
                    continue
                for at, index in enumerate(batch):
                    self._pieces[index] = future, at
                    self._scans[index] = self._found(looked, at)
                    self._progress("looking through", len(self._scans), len(self._files))
        return lost

    def _fetch_secrets(self) -> None:
        """The secrets that captures carry themselves, past the scheduler."""
        carrying = {index: scan for index, scan in self._scans.items() if isinstance(scan, dict) and not isinstance(scan["secrets"], Secret)}
        asked = {index: self._submit(_secrets_of, *self._piece(index)) for index, scan in carrying.items() if scan["secrets"]}
        for index, scan in carrying.items():
            found: Any = self._from_worker(asked[index], self._files[index]) if index in asked else Secret(b"")
            if isinstance(found, _Failed):
                self._tell(found.error)
                found = Secret(b"")
            scan["secrets"] = found

    def _found(self, looked: _Batch | _Failed, at: int) -> dict[str, Any] | _Failed:
        found = looked if isinstance(looked, _Failed) else looked[at]
        return found if isinstance(found, _Failed) else found.scan

    def _piece(self, index: int) -> _Place:
        """A file's index; made once more when the scheduler that knew of it was lost."""
        if index not in self._pieces:
            place = self._places.get(index)
            where = {"workers": [place], "allow_other_workers": True} if place else {}
            self._pieces[index] = self._submit(_look, [self._files[index]], self._filter, self._reach, **where), 0
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


_Place = tuple[Any, int]  # what a task gives, and the place in it


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
        others: list[dict[int, int]] = [dict(struct.iter_unpack("=Qq", scan["others"])) for scan in self._scans]  # type: ignore[arg-type]
        self._members: dict[int, set[int]] = {}
        for pair, files in _core.shared_pairs([scan["pairs"] for scan in self._scans]):
            for file in files:
                self._travelling[file][pair] = files[0]
                self._own[file] -= others[file].get(pair, 1)
                self._members.setdefault(files[0], set()).add(file)
        self._packed = [_pack(travelling) for travelling in self._travelling]
        self._make_options()
        self._whole: Secret | None = None
        # Files and groups: where their work is, a task's answer and the place in it.
        self._work: dict[int, _Place] = {}
        self._group_work: dict[int, _Place] = {}
        self._starts_work: dict[int, _Place] = {}
        self._finished: dict[int, _Place] = {}
        self._alone: set[int] = set()  # whose work took workers down, together with others
        self._losses: collections.Counter[int] = collections.Counter()  # of workers that had the key lines for a file
        self._starts: dict[int, dict[int, int]] = {}
        self._numbers: dict[int, list[int]] | None = None
        self._results: dict[int, list[_Result]] = {}
        self._done: set[int] = set()

    def _make_options(self) -> None:
        rows = self._rows
        self._keys, facts = _core.key_log(_embedded(self._scans), rows._key_logs)
        facts["connections"], self._lines, self._group_lines = self._keys.needs(
            [(scan["clients"], scan["strangers"], *packed) for scan, packed in zip(self._scans, self._packed)])
        self._common = {"kind": rows._kind, "reach": rows._reach, "facts": facts, "folder": ""}

    def _options(self, name: str) -> dict[str, Any]:
        return {**self._common, "folder": self._rows._folder_for(name)}

    def _name(self, kind: str, index: int) -> str:
        return f"part-{index:05}" + ("-shared" if kind == "group" else "")

    def _path(self, kind: str, index: int) -> str:
        return self._rows._path_for(self._name(kind, index))

    # Work: what travels, and every file. All of it can be done again when the scheduler was lost, except what was handed out.

    def _work_on_all(self) -> None:
        while True:
            self._begin_work()
            groups_of: dict[str, list[int]] = {}
            for group, (future, _) in self._starts_work.items():
                groups_of.setdefault(future.key, []).append(group)
            waiting = {future.key: future for future, _ in self._starts_work.values()}
            for future in as_completed(list(waiting.values()), loop=self._rows._client.loop):
                self._take_starts(future, groups_of[future.key])
            if self._members.keys() <= self._starts.keys():
                return

    def _take_starts(self, future: Any, groups: list[int]) -> None:
        rows = self._rows
        try:
            found = rows._result(future, self._files[groups[0]])
        except _SchedulerLost:
            self._drop_lost(groups[0])
            return
        places = {group: self._starts_work.pop(group)[1] for group in groups}
        if isinstance(found, _Failed) and len(groups) > 1:
            self._take_apart(groups, self._group_work)
            return
        for group, at in places.items():
            starts = found if isinstance(found, _Failed) else found[at]
            if isinstance(starts, _Failed):
                rows._tell((self._files[group], "connections that go on in other files: " + starts.error[1], -1, ""))
                self._starts[group] = {}
                continue
            self._starts[group] = dict(zip(_numbers(starts["first_packets"]), _numbers(starts["before"])))
            rows.travelled_bytes += starts["travelled"]

    def _take_apart(self, files: list[int], works: dict[int, _Place]) -> None:
        self._alone.update(files)
        for file in files:
            works.pop(file, None)

    def _begin_work(self) -> None:
        """Submits what is not: what others wait for first."""
        rows = self._rows
        # Groups without any start could not be worked on.
        groups = self._in_batches(group for group in self._left() if group in self._members and group not in self._group_work
                                  and self._starts.get(group, True))
        files = self._in_batches(file for file in self._left() if file not in self._work)
        for batches, works in ((groups, self._group_work), (files, self._work)):
            for batch in [batch for batch in batches if self._losses[batch[0]] > _LOSSES_TOGETHER + _LOSSES_ALONE]:
                batches.remove(batch)
                self._place([batch], [rows._submit(_given_up, self._files[batch[0]])], works)
        # What a worker's files need goes there in one piece; packets that come together have few clients.
        of_places: dict[str, list[bytes | None]] = {}
        for batch in files:
            of_places.setdefault(self._worker(batch), []).extend(self._lines[file] for file in batch)
        of_place = {place: self._secret(several) for place, several in of_places.items()}
        secrets = rows._hand_out({("group", batch[0]): (self._worker(batch), self._secret([self._group_lines[group] for group in batch]))
                                  for batch in groups}
                                 | {("file", batch[0]): (self._worker(batch), of_place[self._worker(batch)]) for batch in files})

        brought: list[tuple[list[_Wanted], list[tuple[Any, list[_Wanted]]]]] = []
        for batch in groups:
            wanted: dict[str, tuple[Any, dict[int, list[int]]]] = {}
            for group in batch:
                for file in sorted(self._members[group]):
                    piece = self._piece(file)
                    wanted.setdefault(piece.key, (piece, {}))[1].setdefault(file, []).append(group)
            parts = {key: (piece, [(self._file(file), several) for file, several in found.items()])
                     for key, (piece, found) in wanted.items()}
            own = parts.pop(self._piece(batch[0]).key)[1]
            brought.append((own, list(parts.values())))
        packets = iter(rows._submit_all(_packets, [part for _, parts in brought for part in parts], priority=2))
        calls: list[tuple[Any, ...]] = [
            (self._piece(batch[0]), own, [(group, self._options(self._name("group", group))) for group in batch], [next(packets) for _ in parts],
             secrets["group", batch[0]]) for batch, (own, parts) in zip(groups, brought)]
        self._place(groups, rows._submit_all(_work_on_shared, calls, priority=1), self._group_work)
        waiting: dict[str, tuple[Any, list[int]]] = {}
        for group in sorted(self._members.keys() - self._starts.keys() - self._starts_work.keys()):
            future, _ = self._group_work[group]
            waiting.setdefault(future.key, (future, []))[1].append(group)
        for (_, several), future in zip(waiting.values(), rows._submit_all(_starts, [(work,) for work, _ in waiting.values()], priority=2)):
            self._starts_work.update((group, (future, self._group_work[group][1])) for group in several)
        calls = [(self._piece(batch[0]), [self._file(file) for file in batch], [self._options(self._name("file", file)) for file in batch],
                  secrets["file", batch[0]]) for batch in files]
        self._place(files, rows._submit_all(_work_on_files, calls), self._work)

    def _worker(self, batch: list[int]) -> str:
        """Who gets the key lines: who has the files, or for one that took workers down others in turn, apart from its like."""
        place: str = self._scans[batch[0]]["worker"]
        workers: list[str] = sorted(self._rows._client.scheduler_info()["workers"])
        if batch[0] not in self._alone or not workers:
            return place
        return workers[(batch[0] + self._losses[batch[0]]) % len(workers)]

    def _left(self) -> list[int]:
        return [file for file in range(len(self._files)) if file not in self._done]

    @staticmethod
    def _place(batches: list[list[int]], futures: list[Any], works: dict[int, _Place]) -> None:
        for batch, future in zip(batches, futures):
            works.update((file, (future, at)) for at, file in enumerate(batch))

    def _in_batches(self, files: Iterable[int]) -> list[list[int]]:
        """Those together that were looked at together."""
        batches: dict[Any, list[int]] = {}
        for file in files:
            batches.setdefault(file if file in self._alone else self._piece(file).key, []).append(file)
        return list(batches.values())

    def _piece(self, file: int) -> Any:
        return self._rows._piece(self._order[file])[0]

    def _file(self, file: int) -> _File:
        return _File(self._rows._piece(self._order[file])[1], file, self._packed[file], self._packets_before[file])

    def _secret(self, several: list[bytes | None]) -> Secret:
        if None in several:  # it is made once, and goes to each worker once
            self._whole = self._whole or Secret(self._keys.text([None]))
            return self._whole
        return Secret(self._keys.text(several))

    def _drop_lost(self, file: int) -> None:
        """Forgets work that was lost with the secrets for it, which a worker had that is no more. When the scheduler was lost, it is more."""
        if self._rows._client.status != "running" or self._piece(file).status in ("cancelled", "lost"):
            raise _SchedulerLost
        all_works = (self._work, self._group_work, self._starts_work, self._finished)
        of_file = {works[file][0].key for works in all_works if file in works}
        lost: set[int] = set()
        for works in all_works:
            gone = [index for index, (future, _) in works.items() if future.key in of_file or future.status in ("cancelled", "lost")]
            lost.update(gone)
            for index in gone:
                del works[index]
        self._losses.update(lost)
        self._alone.update(index for index in lost if self._losses[index] > _LOSSES_TOGETHER)

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
        for file in range(len(self._files)):
            results = self._rows._again(functools.partial(self._result, file))
            for _, errors in results:
                for error in errors:
                    self._rows._tell(error)
            self._rows._progress("working", file + 1, len(self._files))
            for rows, _ in results[:-1]:
                yield _Part(rows, (-1,))  # its connections stand before those of the file
            yield _Part(results[-1][0], self._bound(file))

    def _result(self, file: int) -> list[_Result]:
        while file not in self._results:
            try:
                if file not in self._finished:
                    self._finish_all()
                self._take_results(self._finished[file][0])
            except _SchedulerLost:
                try:
                    self._drop_lost(file)
                except _SchedulerLost:
                    for works in (self._work, self._group_work, self._starts_work, self._finished):
                        works.clear()
                    raise
        return self._results.pop(file)

    def _take_results(self, future: Any) -> None:
        places = {file: at for file, (one, at) in self._finished.items() if one is future}
        found = self._rows._result(future, self._files[min(places)])
        for file in places:
            del self._finished[file]
        if isinstance(found, _Failed) and len(places) > 1:
            self._take_apart(list(places), self._work)
            return
        for file, at in places.items():
            self._results[file] = [(b"", [found.error])] if isinstance(found, _Failed) else found[at]
            self._done.add(file)
            # It needs no more room on a worker.
            self._work.pop(file, None)
            self._group_work.pop(file, None)
            self._rows._pieces.pop(self._order[file], None)

    def _finish_all(self) -> None:
        self._work_on_all()
        if self._numbers is None:
            self._numbers = self._numbers_of_groups()
        batches: dict[tuple[str, str], tuple[Any, Any, list[int]]] = {}
        for file in self._left():
            if file not in self._finished:
                own, shared = self._work[file][0], self._group_work[file][0] if self._starts.get(file) else None
                batches.setdefault((own.key, shared.key if shared else ""), (shared, own, []))[2].append(file)
        calls = [(shared or [], own, [self._finish(file) for file in several], self._rows._wanted) for shared, own, several in batches.values()]
        self._place([several for _, _, several in batches.values()], self._rows._submit_all(_finish, calls, priority=3), self._finished)

    def _finish(self, file: int) -> _Finish:
        numbers = self._numbers or {}
        return _Finish(self._work[file][1], self._group_work[file][1] if self._starts.get(file) else None, numbers.get(file, []),
                       self._offsets[file], self._elsewhere[file], (self._path("group", file), self._path("file", file)))


def _wanted(**given: str | None) -> dict[str, str]:
    return {name: text for name, text in given.items() if text is not None}


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
    wanted = _wanted(server_name=server_name, client_random=client_random, certificate=certificate, address=address, ja4=ja4)
    if not wanted:
        raise ValueError("find: expected a server name, a client random, a certificate, an address or a JA4 fingerprint")
    return Rows("streams", Stream, files, client=client, keylog=keylog, reach=reach, filter=filter, output=output, wanted=wanted,
                patience=patience, progress=progress)


def follow(folder: Path, kind: str = "streams", pattern: str = "*", *, interval: float = 5.0, settle: float | None = None,
           most_held: int = 256 << 20, client: Client | str | None = None, keylog: Path | Iterable[Path] | None = None, reach: str = "full",
           filter: str = "", output: Path | None = None, folder_for_objects: Path | None = None, patience: float = 120.0,
           progress: Callable[[str, int, int], None] | None = None, report: Callable[[CaptureError], None] | None = None,
           server_name: str | None = None, client_random: str | None = None, certificate: str | None = None, address: str | None = None,
           ja4: str | None = None) -> Following[Any]:
    """Rows of the files of a folder that a sensor fills, as they are complete: of `kind` "streams", "exchanges", "objects" or "find".

    A file is complete when there is a newer one, or when it was left alone for `settle` seconds, where that is given. Its rows come when
    the file behind it is complete too, since connections may go on there; such connections come when a file has nothing of them. Their
    packets are held until then, here, up to `most_held` bytes; beyond that the largest are let go as they are. `Following.stop` ends it,
    from any thread or a signal's handler: what is held comes then, and the iteration ends. `report` is given every problem as it is met.
    Numbers of streams count the connections as their rows come, those that "find" leaves out included. Key logs are read anew for every round of files.
    """
    from ._following import Following

    makers: dict[str, Callable[[str], Any]] = {"streams": Stream, "exchanges": Exchange, "objects": Object, "find": Stream}
    if kind not in makers:
        raise ValueError("follow: expected 'streams', 'exchanges', 'objects' or 'find'")
    wanted = _wanted(server_name=server_name, client_random=client_random, certificate=certificate, address=address, ja4=ja4)
    if (kind == "find") != bool(wanted):
        raise ValueError("follow: 'find' goes with a server name, a client random, a certificate, an address or a JA4 fingerprint")
    return Following("streams" if kind == "find" else kind, makers[kind], folder, pattern, interval=interval, settle=settle, most_held=most_held, report=report, client=client,
                     keylog=keylog, reach=reach, filter=filter, output=output, wanted=wanted, folder=folder_for_objects, patience=patience,
                     progress=progress)
