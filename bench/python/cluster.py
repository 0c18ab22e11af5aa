#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The same rows by the command line, by one worker and by two: wall clock, processor time of all processes, and what travelled.

    SEALSCOPE_BUILD=build/release bench/python/cluster.py [CONNECTIONS] [FILES]
"""
import os
import pathlib
import resource
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests/python"))

import captures  # noqa: E402
from conftest import BUILD, RECORDED  # noqa: E402
import dask  # noqa: E402
from distributed import Client, LocalCluster  # noqa: E402

from sealscope import cluster  # noqa: E402

SOURCES = [path for path in RECORDED if path.parent.name in ("nginx-http1", "nginx-http2", "nginx-http1-tls12", "node-tls13")]


def processor_time():
    """Of this process, and of those that it started and that have ended."""
    return sum(sum(resource.getrusage(who)[:2]) for who in (resource.RUSAGE_SELF, resource.RUSAGE_CHILDREN))


def worker_time(client):
    return sum(client.run(lambda: sum(resource.getrusage(resource.RUSAGE_SELF)[:2])).values())


def main():
    dask.config.set(cluster._LOCAL)
    connections, files = (int(word) for word in (sys.argv[1:] + ["20000", "40"][len(sys.argv) - 1 :])[:2])
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        packets = captures.many_connections(SOURCES, connections)
        whole, ring = captures.write(folder / "whole.pcap", packets), captures.cut(folder, packets, files)
        keys = folder / "keys.txt"
        keys.write_bytes(b"".join(source.with_name("keylog.txt").read_bytes() for source in SOURCES))
        del packets
        print(f"{connections} connections, {whole.stat().st_size / 1e6:.0f} MB, {files} files")
        for kind in ("streams", "exchanges"):
            begun, used = time.monotonic(), processor_time()
            subprocess.run([BUILD / "bin/sealscope", kind, "--json", "-k", keys, whole], stdout=subprocess.DEVNULL, check=True)
            alone = processor_time() - used
            print(f"{kind:10} command line  {time.monotonic() - begun:6.2f} s, processor {alone:6.2f} s")
            walls = {}
            for workers in (1, 2):
                with LocalCluster(n_workers=workers, threads_per_worker=1, dashboard_address="127.0.0.1:0") as local, Client(local) as client:
                    client.run(lambda: __import__("sealscope.cluster"))
                    before, used, begun = worker_time(client), processor_time(), time.monotonic()
                    rows = getattr(cluster, kind)(ring, client=client, keylog=keys, output=folder / f"{kind}-{workers}").run()
                    walls[workers], here = time.monotonic() - begun, processor_time() - used
                    there = worker_time(client) - before
                share = rows.travelled_bytes / rows.total_bytes
                print(f"{kind:10} {workers} worker{'s' * (workers > 1):1}     {walls[workers]:6.2f} s, processor {here + there:6.2f} s "
                      f"({there:.2f} s of workers), {(here + there) / alone:.2f} of the command line; {share:.1%} of the bytes travelled")
            print(f"{kind:10} two workers take {walls[2] / walls[1]:.2f} of the time of one")


if __name__ == "__main__":
    main()
