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
from typing import TYPE_CHECKING, Any, Generic, Self, TypeVar

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


def _look(file: str, filter: str, reach: str) -> _Looked | _Failed:
    try:
        core = _core.Piece(file, filter, reach)
        return _Looked((file, filter, reach), core, {**core.scan(), "worker": get_worker().address})
    except CaptureError as error:
        return _Failed(_told(error))


def _secrets_of(looked: _Looked | _Failed) -> Secret | _Failed:
    """Those that a file carries itself."""
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


def _work_on_file(looked: _Looked | _Failed, travelling: _Travelling, packets_before: int, options: dict[str, Any],
                  secrets: Secret) -> _Work | _Failed:
    """Works on pairs of this file alone; `secrets` are those of some files."""
    if isinstance(looked, _Failed):
        return looked
    keys = secrets.key_lines()
    _, (lines,), _ = keys.needs([(looked.scan["clients"], looked.scan["strangers"], *travelling)])
    secrets = Secret(keys.text([lines]))
    try:
        return _Work(looked.core().rows(*travelling, packets_before, _prepared(options, secrets)))
    except CaptureError as error:
        return _Failed(_told(error))


def _packets_by_group(looked: _Looked | _Failed, travelling: _Travelling, groups: list[int], packets_before: int) -> list[Secret] | _Failed:
    if isinstance(looked, _Failed):
        return looked
    try:
        return [Secret(packets) for packets in looked.core().packets(*travelling, groups, packets_before)]
    except CaptureError as error:
        return _Failed(_told(error))


def _packets_for(looked: _Looked | _Failed, travelling: _Travelling, group: int, packets_before: int) -> Secret | _Failed:
    found = _packets_by_group(looked, travelling, [group], packets_before)
    return found if isinstance(found, _Failed) else found[0]


def _work_on_packets(pieces: list[Secret | _Failed], options: dict[str, Any], secrets: Secret) -> _Work | _Failed:
    packets = [piece for piece in pieces if isinstance(piece, Secret)]
    try:
        work = _Work(_core.work_on_packets(packets, _prepared(options, secrets)))
    except CaptureError as error:
        return _Failed(_told(error))
    work["errors"] += [piece.error for piece in pieces if isinstance(piece, _Failed)]
    work["travelled"] = sum(map(len, packets))
    return work


def _work_on_shared(looked: _Looked | _Failed, travelling: _Travelling, group: int, packets_before: int, others: list[Secret | _Failed],
                    options: dict[str, Any], secrets: Secret) -> _Work | _Failed:
    """Works on pairs that begin here and go on in other files, whose packets of them came."""
    own = _packets_for(looked, travelling, group, packets_before)
    work = _work_on_packets([own, *others], options, secrets)
    if isinstance(work, _Work) and isinstance(own, Secret):
        work["travelled"] -= len(own)
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


def _finish(shared: _Work | _Failed | None, shared_numbers: list[int], own: _Work | _Failed, own_numbers: tuple[int, list[int]],
            wanted: dict[str, str], paths: tuple[str, str]) -> list[tuple[Any, list[Any]]]:
    """The rows of pairs that go on from a file, and those of its own: see `_finished`. Of the latter a number for the first one is given, and
    the packets at which a connection elsewhere takes one."""
    results = [] if shared is None else [_finished(shared, shared_numbers, wanted, paths[0])]
    start, elsewhere = own_numbers
    first_packets = () if isinstance(own, _Failed) else _numbers(own["first_packets"])
    numbers = [start + i + bisect.bisect_left(elsewhere, packet) for i, packet in enumerate(first_packets)]
    return [*results, _finished(own, numbers, wanted, paths[1])]


def _finished(work: _Work | _Failed, numbers: list[int], wanted: dict[str, str], path: str) -> tuple[Any, list[Any]]:
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
        self._pieces: dict[int, Any] = {}
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
        raise CaptureError("", f"key lines go to workers directly, and {failed[0] if failed else 'a worker'} cannot be reached from here: {reason}")

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
        futures = self._submit_all(_look, [(self._files[index], self._filter, self._reach) for index in waiting])
        self._pieces.update(zip(waiting, futures))
        indices = {future.key: index for index, future in zip(waiting, futures)}
        for future in as_completed(futures, loop=self._client.loop):
            index = indices[future.key]
            self._scans[index] = self._found(future, index)
            self._progress("looking through", len(self._scans), len(self._files))
        # What one worker does not have may lie on the machine of another.
        absent = [index for index, scan in self._scans.items() if isinstance(scan, _Failed) and index not in self._places]
        for address in self._one_worker_a_host():
            if not absent:
                break
            tried = {}
            for index in absent:
                tried[index] = self._submit(_look, self._files[index], self._filter, self._reach, workers=[address])
            for index, piece in tried.items():
                scan = self._found(piece, index)
                if not isinstance(scan, _Failed):
                    self._scans[index] = scan
                    self._pieces[index] = piece
                    self._places[index] = address
            absent = [index for index in absent if index not in self._places]

    def _fetch_secrets(self) -> None:
        """The secrets that captures carry themselves, past the scheduler."""
        carrying = {index: scan for index, scan in self._scans.items() if isinstance(scan, dict) and not isinstance(scan["secrets"], Secret)}
        asked = {index: self._submit(_secrets_of, self._piece(index)) for index, scan in carrying.items() if scan["secrets"]}
        for index, scan in carrying.items():
            found: Any = self._from_worker(asked[index], self._files[index]) if index in asked else Secret(b"")
            if isinstance(found, _Failed):
                self._tell(found.error)
                found = Secret(b"")
            scan["secrets"] = found

    def _found(self, future: Any, index: int) -> dict[str, Any] | _Failed:
        looked = self._result(future, self._files[index])
        return looked if isinstance(looked, _Failed) else looked.scan

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
        self._work: dict[int, Any] = {}
        self._group_work: dict[int, Any] = {}
        self._starts_work: dict[int, Any] = {}
        self._starts: dict[int, dict[int, int]] = {}
        self._numbers: dict[int, list[int]] | None = None
        self._finished: dict[int, Any] = {}
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
            starts = dict(self._starts_work)
            for future in as_completed(list(starts.values())):
                group = next(group for group, one in starts.items() if one is future)
                try:
                    found = self._rows._result(future, self._files[group])
                except _SchedulerLost:
                    self._drop_lost(group)
                    continue
                self._starts_work.pop(group, None)
                if isinstance(found, _Failed):
                    self._rows._tell((self._files[group], "connections that go on in other files: " + found.error[1], -1, ""))
                    self._group_work[group] = found
                    self._starts[group] = {}
                    continue
                self._starts[group] = dict(zip(_numbers(found["first_packets"]), _numbers(found["before"])))
                self._rows.travelled_bytes += found["travelled"]
            if self._members.keys() <= self._starts.keys():
                return

    def _begin_work(self) -> None:
        """Submits what is not: what others wait for first."""
        rows = self._rows
        groups = sorted(group for group in self._members if group not in self._done and group not in self._group_work)
        files = [file for file in range(len(self._files)) if file not in self._done and file not in self._work]
        places = [scan["worker"] for scan in self._scans]
        # What a worker's files need goes there in one piece; packets that come together have few clients.
        of_places: dict[str, list[bytes | None]] = {}
        for file in files:
            of_places.setdefault(places[file], []).append(self._lines[file])
        of_place = {place: self._secret(several) for place, several in of_places.items()}
        secrets = rows._hand_out({("group", group): (places[group], self._secret([self._group_lines[group]])) for group in groups}
                                 | {("file", file): (places[file], of_place[places[file]]) for file in files})
        travelling = [(group, file) for group in groups for file in sorted(self._members[group]) if file != group]
        packets: dict[int, list[Any]] = {group: [] for group in groups}
        calls: list[tuple[Any, ...]] = [(*self._of_file(file), group, self._packets_before[file]) for group, file in travelling]
        for (group, _), future in zip(travelling, rows._submit_all(_packets_for, calls, priority=2)):
            packets[group].append(future)
        calls = [(*self._of_file(group), group, self._packets_before[group], packets[group], self._options(self._name("group", group)),
                  secrets["group", group]) for group in groups]
        self._group_work.update(zip(groups, rows._submit_all(_work_on_shared, calls, priority=1)))
        waiting = sorted(self._members.keys() - self._starts.keys() - self._starts_work.keys())
        self._starts_work.update(zip(waiting, rows._submit_all(_starts, [(self._group_work[group],) for group in waiting], priority=2)))
        calls = [(*self._of_file(file), self._packets_before[file], self._options(self._name("file", file)), secrets["file", file])
                 for file in files]
        self._work.update(zip(files, rows._submit_all(_work_on_file, calls)))

    def _secret(self, several: list[bytes | None]) -> Secret:
        if None in several:  # it is made once, and goes to each worker once
            self._whole = self._whole or Secret(self._keys.text([None]))
            return self._whole
        return Secret(self._keys.text(several))

    def _of_file(self, file: int) -> tuple[Any, _Travelling]:
        return self._rows._piece(self._order[file]), self._packed[file]

    def _drop_lost(self, file: int) -> None:
        """Forgets work that was lost with the secrets for it, which a worker had that is no more. When the scheduler was lost, it is more."""
        if self._rows._client.status != "running" or self._rows._piece(self._order[file]).status in ("cancelled", "lost"):
            raise _SchedulerLost
        for futures in (self._work, self._group_work, self._starts_work, self._finished):
            for index in [index for index, future in futures.items() if getattr(future, "status", "") in ("cancelled", "lost")]:
                del futures[index]
        self._group_work.pop(file, None)
        self._work.pop(file, None)
        self._starts_work.pop(file, None)
        self._finished.pop(file, None)

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
            self._done.add(file)
            # Its rows are through, and need no more room on a worker.
            for futures in (self._work, self._group_work, self._finished):
                futures.pop(file, None)
            self._rows._pieces.pop(self._order[file], None)
            for _, errors in results:
                for error in errors:
                    self._rows._tell(error)
            self._rows._progress("working", file + 1, len(self._files))
            for rows, _ in results[:-1]:
                yield _Part(rows, (-1,))  # its connections stand before those of the file
            yield _Part(results[-1][0], self._bound(file))

    def _result(self, file: int) -> list[tuple[Any, list[Any]]]:
        while True:
            try:
                if file not in self._finished:
                    self._finish_all()
                found: list[tuple[Any, list[Any]]] | _Failed = self._rows._result(self._finished[file], self._files[file])
                return [(b"", [found.error])] if isinstance(found, _Failed) else found
            except _SchedulerLost:
                try:
                    self._drop_lost(file)
                except _SchedulerLost:
                    self._finished.clear()
                    self._work.clear()
                    self._starts_work.clear()
                    self._group_work = {group: work for group, work in self._group_work.items() if isinstance(work, _Failed)}
                    raise

    def _finish_all(self) -> None:
        self._work_on_all()
        if self._numbers is None:
            self._numbers = self._numbers_of_groups()
        files = [file for file in range(len(self._files)) if file not in self._done and file not in self._finished]
        calls = [(self._group_work.get(file) if self._starts.get(file) else None, self._numbers.get(file, []), self._work[file],
                  (self._offsets[file], self._elsewhere[file]), self._rows._wanted, (self._path("group", file), self._path("file", file)))
                 for file in files]
        self._finished.update(zip(files, self._rows._submit_all(_finish, calls, priority=3)))


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
