#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""What 1,000 files of 1 GB cost a scheduler and whoever asks, without the files: the package's own plan, on a real scheduler with 100
workers in one process. Only the answers about files are made up, as large as those of real ones. Prints what is measured, and what
follows from it for real files at the speed of one processor.

    SEALSCOPE_BUILD=build/release bench/python/simulate.py [FILES] [WORKERS]
"""
import os
import pathlib
import pickle
import resource
import sys
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/python"))

import conftest  # noqa: E402,F401  finds the package
import dask  # noqa: E402
import numpy  # noqa: E402
from distributed import Client, LocalCluster  # noqa: E402

from sealscope import _core, cluster  # noqa: E402

# A gigabyte of web traffic in connections of 50 kB; one in 50 goes on in the next file.
CONNECTIONS = 20_000
GOING_ON = CONNECTIONS // 50
PACKETS = 1_200_000
STEP = PACKETS // CONNECTIONS
FILE = 10**9
ROW = 1_300  # bytes of a row of streams
SPEED = 100e6  # bytes a second that a processor works on, rows included; the first look aside
FIRST_LOOK = 900e6


def pairs(file):
    """Those that begin in a file, of which the last go on in the next; and those that go on from the one before."""
    return numpy.arange(file * CONNECTIONS - (GOING_ON if file else 0), (file + 1) * CONNECTIONS)


def packed(*range):
    # All workers are in this process, and must not keep each other waiting.
    return numpy.arange(*range).tobytes()


class MadeUp:
    """Answers in place of `sealscope._core`."""

    shared_pairs, key_lines = staticmethod(_core.shared_pairs), staticmethod(_core.key_lines)

    class Piece:
        memory = PACKETS * 76 + CONNECTIONS * 400  # as of a real one

        def __init__(self, file, filter, reach):
            self.number = int(file)

        def scan(self):
            clients = numpy.repeat(pairs(self.number), 2).tobytes()
            return {"first": (1_700_000_000 + 600 * self.number, 0, 1), "packets": PACKETS, "bytes": FILE,
                    "connections": len(pairs(self.number)), "others": b"", "pairs": pairs(self.number).tobytes(), "clients": clients,
                    "strangers": b"", "secrets": 0, "errors": []}

        def packets(self, travelling, groups, wanted, packets_before):
            counts = [numpy.count_nonzero(numpy.frombuffer(groups, "q") == group) for group in wanted]
            return [b"%8d %15d" % (count, packets_before) for count in counts]

        def rows(self, travelling, groups, packets_before, options):
            own = len(pairs(self.number)) - len(groups) // 8
            return {"numbers": packed(own), "first_packets": packed(1, 1 + own * STEP, STEP), "before": b"", "rows": b"", "errors": []}

    numbered = staticmethod(lambda rows, numbers, whole: b"")

    @staticmethod
    def work_on_packets(pieces, options):
        count, packets_before = map(int, pieces[0].reveal().split())
        first = packets_before + 2 + (CONNECTIONS - count) * STEP
        return {"numbers": packed(count), "before": numpy.full(count, CONNECTIONS - count).tobytes(),
                "first_packets": packed(first, first + count * STEP, STEP), "rows": b"", "errors": []}

    @staticmethod
    def key_log(embedded, files):
        return _core.key_lines(b""), {"secrets": 0, "client_randoms": 0, "labels": [], "connections": 0, "problems": []}


def memory():
    return int(pathlib.Path("/proc/self/statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def main():
    files, workers = (int(word) for word in (sys.argv[1:] + ["1000", "100"][len(sys.argv) - 1 :])[:2])
    cluster._core = MadeUp
    # All workers share this process and its one event loop, which keeps them waiting as no network would.
    patient = {**cluster._LOCAL, "distributed.comm.timeouts.connect": "600s"}
    with dask.config.set(patient), LocalCluster(n_workers=workers, threads_per_worker=1, processes=False, dashboard_address="127.0.0.1:0",
                                                memory_limit=0) as local, Client(local) as client:
        scheduler, most, tasks, is_watching = local.scheduler, [0, 0], set(), True

        def watch():
            while is_watching:
                most[0] = max(most[0], len(scheduler.tasks))
                most[1] = max(most[1], memory())
                tasks.update(list(scheduler.tasks))
                time.sleep(0.02)

        held = []

        def look_at_scheduler(phase, done, total):
            if phase == "working" and not held:
                held.append(sum(len(pickle.dumps(task.run_spec)) for task in list(scheduler.tasks.values())))

        watcher = threading.Thread(target=watch)
        watcher.start()
        base, used, begun = memory(), sum(resource.getrusage(resource.RUSAGE_SELF)[:2]), time.monotonic()
        rows = cluster.streams([str(number) for number in range(files)], client=client, progress=look_at_scheduler).run()
        used, wall = sum(resource.getrusage(resource.RUSAGE_SELF)[:2]) - used, time.monotonic() - begun
        is_watching = False
        watcher.join()
        answers = files * len(pickle.dumps(MadeUp.Piece("1", "", "").scan()))
    total = files * FILE
    print(f"{files} files of 1 GB, {CONNECTIONS} connections each, {workers} workers: {len(rows.problems)} problems")
    print(f"tasks: {len(tasks)} in all ({len(tasks) / files:.1f} a file), {most[0]} held at once, which are {held[0] / 1e6:.0f} MB of what "
          "workers are told")
    print(f"processor time of scheduler, workers' event loops and the one who asks: {used:.1f} s ({used / len(tasks) * 1e3:.2f} ms a task), "
          f"{wall:.1f} s of wall clock")
    print(f"memory of all of them: {(most[1] - base) / 1e6:.0f} MB more than before")
    print(f"to the one who asks: {answers / 1e6:.0f} MB of pairs and client randoms; {files * CONNECTIONS * ROW / 1e9:.1f} GB of rows where no "
          "--output is given")
    # What travelled stood for the packets of the connections that go on, of which half are in each file.
    travelled = rows.travelled_bytes // len(b"%8d %15d" % (0, 0)) * GOING_ON * (FILE // CONNECTIONS) // 2
    print(f"between workers: {travelled / 1e9:.1f} GB of packets, {travelled / total:.1%} of the bytes")
    work = total / FIRST_LOOK + total / SPEED
    print(f"workers compute {work / 3600:.1f} hours of processor time, so {work / workers / 60:.1f} minutes; the scheduler is busy for "
          f"{used / 60:.1f} of them")
    print(f"it would be as long as the work with {int(workers * (work / workers) / used)} workers")


if __name__ == "__main__":
    main()
