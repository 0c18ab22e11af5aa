# SPDX-License-Identifier: Apache-2.0
"""Rows of a folder of captures that grows: see `cluster.follow`.

Files come in rounds, each of what has become complete since the last one. The last file of a round is held back, since only the next
file tells which of its connections go on:

    round 1   files A B C     rows of A and B; what goes on from B to C is held: its packets in A and B, and C is the file held back
    round 2   files C D       rows of C; what was held, and C has, but D has not, is over and comes too

So there is one file's index to hold, and the packets of connections that go on, whatever the number of files.
"""
from __future__ import annotations

import collections
import fnmatch
import functools
import os
import struct
import threading
import time
from collections.abc import Callable, Iterable, Iterator
from typing import Any, TypeVar

from distributed import as_completed

from . import CaptureError, Path, Record, _core
from . import cluster

_Row = TypeVar("_Row", bound=Record)
_Identity = tuple[int, int, int]  # of a file: a ring takes names again


class _Held:
    """The packets of two endpoints who may not be through, and what opens them."""

    def __init__(self) -> None:
        self.packets: list[cluster.Secret] = []
        self.clients: set[bytes] = set()
        self.secrets = cluster.Secret(b"")
        self.is_stranger = False

    def size(self) -> int:
        return sum(map(len, self.packets))


class _Group:
    """Connections whose packets are brought together: those of some pairs, held ones first."""

    def __init__(self) -> None:
        self.pairs: dict[int, list[int]] = {}  # and the files that have them
        self.held: list[_Held] = []
        self.clients: set[bytes] = set()
        self.is_stranger = False


def _runs(files: list[int]) -> Iterator[list[int]]:
    run: list[int] = []
    for file in files:
        if run and file != run[-1] + 1:
            yield run
            run = []
        run.append(file)
    yield run


class Following(cluster.Rows[_Row]):
    """Rows of a folder's files, as these are complete. `problems` and `partitions` have the latest ones."""

    LATEST = 1_000

    def __init__(self, kind: str, make: Callable[[str], _Row], watched: Path, pattern: str, *, interval: float, settle: float | None,
                 most_held: int, report: Callable[[CaptureError], None] | None, **options: Any) -> None:
        self._watched, self._pattern = os.path.abspath(watched), pattern
        os.listdir(self._watched)
        self._interval, self._settle, self._most_held, self._report = interval, settle, most_held, report
        self._stopping = threading.Event()
        self._taken: dict[str, _Identity] = {}
        self._still: dict[str, tuple[_Identity, float]] = {}
        self._held: dict[int, _Held] = {}
        self._has_last = False  # the file at 0 is the one held back
        self._packets_before = 0
        self._connections = 0
        super().__init__(kind, make, [], **options)
        self.problems = collections.deque(maxlen=self.LATEST)  # type: ignore[assignment]
        self.partitions = collections.deque(maxlen=self.LATEST)  # type: ignore[assignment]

    def stop(self) -> None:
        """Takes no more files; what is held comes, and then the iteration ends."""
        self._stopping.set()

    def lines(self) -> Iterator[str]:
        while not self._stopping.is_set():
            if new := self._complete():
                yield from self._round(new, is_last=False)
            else:
                self._stopping.wait(self._interval)
        yield from self._round([], is_last=True)

    def _tell(self, error: tuple[str, str, int, str]) -> None:
        if (error[0], error[1]) not in self._told:
            self._told.add((error[0], error[1]))
            self.problems.append(CaptureError(*error))
            if self._report:
                self._report(self.problems[-1])

    def _complete(self) -> list[str]:
        """Files that have become complete, the oldest first; some of them, when there are many."""
        found: list[tuple[int, str, _Identity]] = []
        with os.scandir(self._watched) as entries:
            for entry in entries:
                try:
                    if fnmatch.fnmatch(entry.name, self._pattern) and not entry.name.startswith(".") and entry.is_file():
                        facts = entry.stat()
                        found.append((facts.st_mtime_ns, entry.path, (facts.st_ino, facts.st_mtime_ns, facts.st_size)))
                except FileNotFoundError:  # the ring has let it go
                    pass
        found.sort()
        self._taken = {path: self._taken[path] for _, path, _ in found if path in self._taken}
        now = time.monotonic()
        still = {}
        for _, path, identity in found[-1:]:
            before = self._still.get(path)
            still[path] = before if before and before[0] == identity else (identity, now)
        self._still = still
        complete = found[:-1]
        if found and self._settle is not None and now - still[found[-1][1]][1] >= self._settle:
            complete = found
        threads = sum(worker["nthreads"] for worker in self._client.scheduler_info()["workers"].values())
        new = [(path, identity) for _, path, identity in complete if self._taken.get(path) != identity][:4 * max(threads, 1)]
        self._taken.update(new)
        return [path for path, _ in new]

    def _round(self, new: list[str], is_last: bool) -> Iterator[str]:
        self._told.clear()
        self._files = [*self._files, *new]
        self._scan_all()
        work = _Round(self, is_last)
        for rows in work.parts():
            if self._output:
                if rows:
                    self.partitions.append(rows)
                continue
            for line in rows.splitlines():
                yield line.decode()
        last = work.order[-1] if work.order and not is_last else None
        if last is None:
            self._files, self._scans, self._pieces, self._places, self._has_last = [], {}, {}, {}, False
            return
        self._files, self._has_last = [self._files[last]], True
        self._scans = {0: self._scans[last]}
        self._pieces = {0: self._pieces[last]} if last in self._pieces else {}
        self._places = {0: self._places[last]} if last in self._places else {}


class _Round:
    """The files of one round, the one that was held back first. Its work can be done again when the scheduler was lost."""

    def __init__(self, rows: Following[Any], is_last: bool) -> None:
        self._rows = rows
        scans = {index: scan for index, scan in rows._scans.items() if isinstance(scan, dict)}
        self.order = sorted(scans, key=lambda index: (not (rows._has_last and index == 0), cluster._first(scans[index]), index))
        self._scans = [scans[index] for index in self.order]
        self._names = [rows._files[index] for index in self.order]
        self._through = len(self.order) - (0 if is_last else 1)  # files that rows are made of now
        self._travelling: list[dict[int, int]] = [{} for _ in self.order]
        self._groups: dict[int, _Group] = {}
        self._going_on: dict[int, tuple[int, list[int]]] = {}  # pairs: their number as a group, and the files to take packets from
        self._own: list[int] = []
        self._file_work: dict[int, Any] = {}
        self._group_work: dict[int, Any] = {}
        self._counts: dict[int, int] = {}
        self._new_packets: dict[int, list[cluster.Secret]] | None = None
        if self._through > 0:
            self._divide(is_last)
            self._make_options()

    def _divide(self, is_last: bool) -> None:
        held = self._rows._held
        shared = dict(_core.shared_pairs([scan["pairs"] for scan in self._scans]))
        for pair in held:
            shared.setdefault(pair, [0])
        others: list[dict[int, int]] = [dict(struct.iter_unpack("=Qq", scan["others"])) for scan in self._scans]  # type: ignore[arg-type]
        self._own = [scan["connections"] for scan in self._scans]
        last = len(self.order) - 1
        for pair, files in shared.items():
            for run in _runs(files):
                is_held = run[0] == 0 and pair in held
                if len(run) == 1 and not is_held:
                    continue
                if run[-1] == last and not is_last:
                    run = run[:-1]
                    group = len(self.order) + len(self._going_on)  # above those of groups
                    self._going_on[pair] = group, run
                else:
                    group = -1 if is_held else run[0]
                    self._groups.setdefault(group, _Group()).pairs[pair] = run
                    if is_held:
                        self._groups[group].held.append(held[pair])
                for file in run:
                    self._travelling[file][pair] = group
                    self._own[file] -= others[file].get(pair, 1)
        self._packed = [cluster._pack(travelling) for travelling in self._travelling]
        self._before = [self._rows._packets_before]
        for scan in self._scans:
            self._before.append(self._before[-1] + scan["packets"])

    def _make_options(self) -> None:
        rows = self._rows
        self._keys, facts = _core.key_log(cluster._embedded(self._scans), rows._key_logs)
        clients = [list(cluster._clients(scan)) for scan in self._scans]
        strangers = [set(memoryview(scan["strangers"]).cast("Q")) for scan in self._scans]
        facts["connections"] = len({entry for entries in clients for entry in entries if self._keys.has(entry[1])})
        self._common = {"kind": rows._kind, "reach": rows._reach, "facts": facts}
        self._secrets = [cluster._lines_for(self._keys, (client for pair, client in entries if pair not in travelling),
                                                any(pair not in travelling for pair in unmet))
                         for entries, travelling, unmet in zip(clients, self._travelling, strangers)]
        of_pair: list[dict[int, set[bytes]]] = []
        for entries in clients:
            of_pair.append({})
            for pair, client in entries:
                of_pair[-1].setdefault(pair, set()).add(client)

        def meet(pair: int, files: list[int], to: _Held | _Group, known: set[bytes]) -> None:
            found = set(known).union(*(of_pair[file].get(pair, set()) for file in files))
            to.clients |= found
            to.is_stranger |= not found and any(pair in strangers[file] for file in files)

        for group in self._groups.values():
            for pair, files in group.pairs.items():
                before = rows._held.get(pair) if files[0] == 0 else None
                meet(pair, files, group, before.clients if before else set())
                group.is_stranger |= before is not None and before.is_stranger and not before.clients
        self._next_held: dict[int, _Held] = {}
        for pair, (_, files) in self._going_on.items():
            after = self._next_held[pair] = _Held()
            before = rows._held.get(pair) if not files or files[0] == 0 else None
            meet(pair, files, after, before.clients if before else set())
            if before:
                after.packets += before.packets
                after.is_stranger |= before.is_stranger
            after.secrets = cluster.Secret((before.secrets.reveal() if before else b"")
                                           + cluster._lines_for(self._keys, after.clients, False).reveal())

    def _options(self, name: str) -> dict[str, Any]:
        return {**self._common, "folder": self._rows._folder_for(name)}

    def _name(self, file: int, suffix: str = "") -> str:
        first = self._scans[file]["first"]
        return f"{first[0] if first else 0}-{os.path.basename(self._names[file])}{suffix}"

    def _secrets_of(self, group: _Group) -> cluster.Secret:
        return self._group_secrets(group.clients, group.is_stranger, group.held)

    def _group_secrets(self, clients: Iterable[bytes], is_stranger: bool, held: Iterable[_Held]) -> cluster.Secret:
        known = cluster._lines_for(self._keys, clients, is_stranger).reveal()
        return cluster.Secret(b"".join([*(one.secrets.reveal() for one in held), known]))

    def parts(self) -> Iterator[Any]:
        """Rows, or the names of their files, one part after the other; then what is held for the next round is settled."""
        if self._through <= 0:
            return
        rows = self._rows
        entries = [entry for file in range(-1, self._through) for entry in (("group", file), ("file", file))
                   if (entry[0] == "group" and file in self._groups) or (entry[0] == "file" and file >= 0)]
        rows._again(self._work)
        finished: dict[tuple[str, int], Any] = {}
        starts: dict[tuple[str, int], int] = {}
        for kind, index in entries:
            starts[kind, index] = rows._connections
            rows._connections += self._counts[index] if kind == "group" else self._own[index]
        done: set[tuple[str, int]] = set()

        def result(entry: tuple[str, int]) -> Any:
            self._work()
            for kind, index in entries:
                if (kind, index) in done or (kind, index) in finished:
                    continue
                work = (self._group_work if kind == "group" else self._file_work)[index]
                start = starts[kind, index]
                numbers = list(range(start, start + (self._counts[index] if kind == "group" else self._own[index])))
                name = self._name(max(index, 0), "-shared" if kind == "group" and index >= 0 else "-before" if kind == "group" else "")
                finished[kind, index] = rows._submit(cluster._finished, work, numbers, rows._wanted, rows._path_for(name))
            return self._result(finished[entry], entry[1], finished)

        for count, entry in enumerate(entries):
            found = rows._again(functools.partial(result, entry))
            done.add(entry)
            finished.pop(entry)
            yield self._told(found)
            rows._progress("working", count + 1, len(entries))
        rows._held = self._next_held
        for pair, (group, _) in self._going_on.items():
            rows._held[pair].packets += (self._new_packets or {}).get(group, [])
        rows._packets_before = self._before[self._through]
        yield from self._let_go()

    def _told(self, found: Any) -> Any:
        result, errors = (b"", [found.error]) if isinstance(found, cluster._Failed) else found
        for error in errors:
            self._rows._tell(error)
        return result

    def _result(self, future: Any, file: int, finished: dict[tuple[str, int], Any]) -> Any:
        try:
            return self._rows._result(future, self._names[max(file, 0)])
        except cluster._SchedulerLost:
            finished.clear()
            self._file_work.clear()
            self._group_work.clear()
            raise

    def _work(self) -> None:
        """Begins what is not begun, and waits for what everybody's numbers need, and for packets to hold."""
        rows = self._rows

        def piece(file: int) -> tuple[Any, cluster._File]:
            batch, at = rows._piece(self.order[file])
            return batch, cluster._File(at, file, self._packed[file], self._before[file])

        def packets_of(file: int, groups: list[int]) -> Any:
            batch, found = piece(file)
            return rows._submit(cluster._packets, batch, [(found, groups)])

        groups = [index for index in self._groups if index not in self._group_work]
        files = [file for file in range(self._through) if file not in self._file_work]
        places = [scan["worker"] for scan in self._scans]
        secrets = rows._hand_out({("group", index): (places[max(index, 0)], self._secrets_of(self._groups[index])) for index in groups}
                                 | {("file", file): (places[file], self._secrets[file]) for file in files})
        for index in groups:
            group = self._groups[index]
            packets: list[Any] = [packet for held in group.held for packet in held.packets]
            packets += [packets_of(file, [index]) for file in sorted({file for run in group.pairs.values() for file in run})]
            self._group_work[index] = rows._submit(cluster._work_on_packets, packets,
                                                   self._options(self._name(max(index, 0), "-shared" if index >= 0 else "-before")),
                                                   secrets["group", index])
        for file in files:
            self._file_work[file] = rows._submit(cluster._work_on_file, *piece(file), self._options(self._name(file)), secrets["file", file])
        starts = {rows._submit(cluster._starts, [self._group_work[index]]): index for index in self._groups if index not in self._counts}
        for future in as_completed(list(starts), loop=rows._client.loop):
            index = starts.pop(future)
            found = self._result(future, index, {})
            found = found if isinstance(found, cluster._Failed) else found[0]
            self._counts[index] = 0 if isinstance(found, cluster._Failed) else len(found["first_packets"]) // 8
            if isinstance(found, cluster._Failed):
                rows._tell(found.error)
            else:
                rows.travelled_bytes += found["travelled"]
        if self._new_packets is None:
            wanted: dict[int, list[int]] = {}
            for number, files in self._going_on.values():
                for file in files:
                    wanted.setdefault(file, []).append(number)
            asked = {file: packets_of(file, groups) for file, groups in sorted(wanted.items())}
            came: dict[int, list[cluster.Secret]] = {}
            for file, future in asked.items():
                found = self._result(future, file, {})
                for (number, _), part in ({(0, file): found} if isinstance(found, cluster._Failed) else found).items():
                    if isinstance(part, cluster._Failed):
                        rows._tell(part.error)
                    else:
                        came.setdefault(number, []).append(part)
            self._new_packets = came

    def _let_go(self) -> Iterator[Any]:
        """Of more than may be held, the largest connections; what comes of them in later files counts as others."""
        rows = self._rows
        sizes = {pair: held.size() for pair, held in rows._held.items()}
        total, most = sum(sizes.values()), rows._most_held
        gone: list[_Held] = []
        for pair in sorted(sizes, key=sizes.__getitem__, reverse=True):
            if total <= most:
                break
            total -= sizes[pair]
            gone.append(rows._held.pop(pair))
        if not gone:
            return
        rows._tell((self._names[self._through - 1], f"{len(gone)} connections that go on in the next file are cut here: more than "
                    f"{most} bytes of such packets would have to be held", -1, ""))
        name = self._name(self._through - 1, "-cut")

        def work() -> Any:
            packets = [packet for held in gone for packet in held.packets]
            secret = self._group_secrets({client for held in gone for client in held.clients}, any(held.is_stranger for held in gone), gone)
            group = rows._submit(cluster._work_on_packets, packets, self._options(name), *rows._hand_out({name: ("", secret)}).values())
            starts = rows._result(rows._submit(cluster._starts, [group]), name)
            starts = starts if isinstance(starts, cluster._Failed) else starts[0]
            if isinstance(starts, cluster._Failed):
                return starts
            count = len(starts["first_packets"]) // 8
            found = rows._result(rows._submit(cluster._finished, group, list(range(rows._connections, rows._connections + count)), rows._wanted,
                                              rows._path_for(name)), name)
            rows._connections += count
            return found

        yield self._told(rows._again(work))
