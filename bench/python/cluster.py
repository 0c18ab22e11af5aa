#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The same rows by the command line, by one worker and by two, in turn: wall clock, processor time of all processes with and without what
starting them takes, and what travelled. The more connections, the less counts what the cluster's processes take for themselves.

    SEALSCOPE_BUILD=build/release bench/python/cluster.py [CONNECTIONS] [FILES] [ROUNDS] [streams | exchanges]
"""
import mmap
import os
import pathlib
import random
import resource
import struct
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/python"))

from conftest import BUILD, make_capture  # noqa: E402
import dask  # noqa: E402
from distributed import Client, LocalCluster  # noqa: E402

from sealscope import cluster  # noqa: E402


def cut(capture, folder, count):
    """A pcap file in `count` files, cut at random packets."""
    with open(capture, "rb") as file, mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as data:
        chance, size = random.Random(1), len(data)
        places = [size * (i + 1 + chance.uniform(-0.3, 0.3)) / count for i in range(count - 1)] + [size]
        at = begun = 24
        ring = []
        while at < size:
            at += 16 + struct.unpack_from("<I", data, at + 8)[0]
            if at >= places[len(ring)]:
                ring.append(folder / f"ring-{len(ring):04}.pcap")
                ring[-1].write_bytes(data[:24] + data[begun:at])
                begun = at
    return ring


def processor_time():
    """Of this process, and of those that it started and that have ended."""
    return sum(sum(resource.getrusage(who)[:2]) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN))


def worker_time(client):
    return sum(client.run(lambda: sum(__import__("resource").getrusage(0)[:2])).values())


def run_command(kind, whole, keys):
    begun, used = time.monotonic(), processor_time()
    subprocess.run([BUILD / "bin/sealscope", kind, "--json", "-k", keys, whole], stdout=subprocess.DEVNULL, check=True)
    return time.monotonic() - begun, processor_time() - used


def run_cluster(kind, ring, keys, workers, output):
    """Wall clock and processor time of the work, processor time of everything, and the rows."""
    started = processor_time()
    with dask.config.set(cluster._LOCAL), LocalCluster(n_workers=workers, threads_per_worker=1, dashboard_address="127.0.0.1:0") as local, \
            Client(local) as client:
        client.run(lambda: __import__("sealscope.cluster"))
        before, used, begun = worker_time(client), processor_time(), time.monotonic()
        rows = getattr(cluster, kind)(ring, client=client, keylog=keys, output=output).run()
        wall, used = time.monotonic() - begun, processor_time() - used + worker_time(client) - before
    return wall, used, processor_time() - started, rows


def main():
    connections, files, rounds = (int(word) for word in (sys.argv[1:] + ["150000", "40", "3"][len(sys.argv) - 1 :])[:3])
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        keys = folder / "keys.txt"
        whole = make_capture(folder / "whole.pcap", "--shape", "small", "--connections", str(connections), "--payload", "12000", "--sessions",
                             "2000", "--concurrent", "20", "--keylog", keys, "--out")
        ring = cut(whole, folder, files)
        print(f"{connections} connections, {whole.stat().st_size / 1e6:.0f} MB, {files} files", flush=True)
        for number in range(rounds):
            for kind in sys.argv[4:] or ("streams", "exchanges"):
                wall, alone = run_command(kind, whole, keys)
                print(f"{kind:10} command line  {wall:6.2f} s, processor {alone:6.2f} s")
                walls = {}
                for workers in (1, 2):
                    walls[workers], used, everything, rows = run_cluster(kind, ring, keys, workers, folder / f"{kind}-{workers}-{number}")
                    assert not rows.problems
                    print(f"{kind:10} {workers} worker{'s' * (workers > 1):1}     {walls[workers]:6.2f} s, processor {used:6.2f} s, {used / alone:.2f} "
                          f"of the command line, {everything / alone:.2f} with start-up; {rows.travelled_bytes / rows.total_bytes:.2%} travelled")
                print(f"{kind:10} two workers take {walls[2] / walls[1]:.2f} of the time of one", flush=True)


if __name__ == "__main__":
    main()
