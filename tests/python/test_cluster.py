# SPDX-License-Identifier: Apache-2.0
"""The cluster against one machine: the same rows, whatever happens to workers, scheduler and files. Each process is one of its own."""
import json
import os
import shutil
import signal
import subprocess
import sys
import threading
import time

import captures
import pytest
from conftest import BUILD, PACKAGE, RECORDED, SOURCE, command, with_keys
from distributed import Client

from sealscope import CaptureError, _core, cluster

NAMES = ["nginx-http1", "nginx-http2", "nginx-http1-tls12", "node-tls13", "openssl-tls12-renegotiation", "gnutls-tls12"]
SOURCES = [next(path for path in RECORDED if path.parent.name == name) for name in NAMES]


class Cluster:
    """A scheduler and workers, each a process on loopback."""

    def __init__(self, folder, workers=3, security=()):
        self.folder, self.security, self.workers, self.port = folder, security, [], 0
        self.start_scheduler()
        for _ in range(workers):
            self.start_worker()

    def _start(self, program, name, *arguments):
        log = open(self.folder / f"{name}.log", "ab")
        environment = {**os.environ, "PYTHONPATH": str(PACKAGE), "DASK_DISTRIBUTED__COMM__TIMEOUTS__CONNECT": "5s"}
        return subprocess.Popen([sys.executable, "-m", f"distributed.cli.dask_{program}", *arguments, *self.security], stdout=log, stderr=log,
                                env=environment)

    def start_scheduler(self):
        file = self.folder / "scheduler.json"
        file.unlink(missing_ok=True)
        host = "tls://127.0.0.1" if self.security else "tcp://127.0.0.1"
        self.scheduler = self._start("scheduler", "scheduler", "--host", host, "--port", str(self.port), "--no-dashboard", "--scheduler-file",
                                     str(file))
        while not file.exists() or not file.read_text().endswith("}"):
            assert self.scheduler.poll() is None
            time.sleep(0.1)
        self.address = json.loads(file.read_text())["address"]
        self.port = int(self.address.rpartition(":")[2])

    def start_worker(self):
        self.workers.append(self._start("worker", f"worker-{len(self.workers)}", self.address, "--nthreads", "1", "--no-nanny", "--no-dashboard",
                                        "--local-directory", str(self.folder)))

    def stop(self):
        for process in [*self.workers, self.scheduler]:
            process.kill()
            process.wait()


@pytest.fixture(scope="module")
def running(tmp_path_factory):
    started = Cluster(tmp_path_factory.mktemp("cluster"))
    yield started
    started.stop()


@pytest.fixture(scope="module")
def client(running):
    with Client(running.address, timeout=120) as connected:
        connected.wait_for_workers(3, timeout=240)
        yield connected


@pytest.fixture(scope="module")
def keys(tmp_path_factory):
    """Secrets of some of the connections."""
    path = tmp_path_factory.mktemp("keys") / "keys.txt"
    path.write_bytes(b"".join(source.with_name("keylog.txt").read_bytes() for source in SOURCES[:4]))
    return path


@pytest.fixture(scope="module")
def packets():
    return captures.many_connections(SOURCES, 240)


@pytest.fixture(scope="module")
def whole(tmp_path_factory, packets):
    return captures.write(tmp_path_factory.mktemp("whole") / "whole.pcap", packets)


@pytest.fixture(scope="module")
def ring(tmp_path_factory, packets):
    return captures.cut(tmp_path_factory.mktemp("ring"), packets, 40)


def test_files_give_the_rows_of_the_uncut_capture(client, ring, whole, keys, tmp_path):
    for kind in ("streams", "exchanges"):
        expected = command(kind, str(whole), *with_keys([keys]))
        rows = getattr(cluster, kind)(reversed(ring), client=client, keylog=keys)
        assert list(rows.lines()) == expected and len(expected) > 150
        assert not rows.problems and 0 < rows.travelled_bytes < rows.total_bytes
        written = getattr(cluster, kind)(ring, client=client, keylog=keys, output=tmp_path / kind).run()
        assert sorted(line for part in written.partitions for line in open(part).read().splitlines()) == sorted(expected)
        assert sorted(os.listdir(tmp_path / kind)) == sorted(os.path.basename(part) for part in written.partitions)
    saved = [dict(row) for row in cluster.objects(ring, client=client, keylog=keys, folder=tmp_path / "saved")]
    expected = [json.loads(line) for line in command("objects", str(whole), *with_keys([keys]), "--output", str(tmp_path / "objects"))]
    assert [{**row, "file": None} for row in saved] == [{**row, "file": None} for row in expected]
    assert [open(row["file"], "rb").read() for row in saved] == [open(row["file"], "rb").read() for row in expected]


def test_filter_and_reach_count_as_on_one_machine(client, ring, whole, keys):
    options = {"filter": "tcp and host 10.0.0.7", "reach": "strict"}
    rows = cluster.streams(ring, client=client, keylog=keys, **options)
    assert list(rows.lines()) == command("streams", str(whole), *with_keys([keys]), "-f", options["filter"], "--reach", "strict")


def test_finds_connections(client, ring, whole, keys):
    everything = [json.loads(line) for line in command("streams", str(whole), *with_keys([keys]))]
    some = everything[7]
    cases = {
        "server_name": (some["reason"]["serverName"].upper(), lambda row: row["reason"]["serverName"] == some["reason"]["serverName"]),
        "client_random": (some["reason"]["clientRandom"], lambda row: row["reason"]["clientRandom"] == some["reason"]["clientRandom"]),
        "certificate": (some["certificate"]["sha256"], lambda row: (row["certificate"] or {}).get("sha256") == some["certificate"]["sha256"]),
        "address": (some["client"].rpartition(":")[0], lambda row: row["client"] == some["client"]),
        "ja4": (some["ja4"], lambda row: row["ja4"] == some["ja4"]),
    }
    for name, (text, test) in cases.items():
        found = [dict(row) for row in cluster.find(ring, client=client, keylog=keys, **{name: text})]
        assert found == [row for row in everything if test(row)] and found, name
    with pytest.raises(ValueError):
        cluster.find(ring, client=client)


def test_bad_files_are_told_and_the_rest_is_complete(client, ring, keys, tmp_path):
    files = [str(path) for path in ring]
    files[3] = str(tmp_path / "missing.pcap")
    (tmp_path / "noise.pcap").write_bytes(b"no capture at all" * 9)
    files[11] = str(tmp_path / "noise.pcap")
    (tmp_path / "cut.pcap").write_bytes(ring[20].read_bytes()[:-70])
    files[20] = str(tmp_path / "cut.pcap")
    rows = cluster.streams(files, client=client, keylog=keys)
    assert list(rows.lines()) == command("streams", *files, *with_keys([keys]), status=(1,))
    assert sorted(os.path.basename(problem.file) for problem in rows.problems) == ["cut.pcap", "missing.pcap", "noise.pcap"]
    assert all(isinstance(problem, CaptureError) and problem.reason for problem in rows.problems)
    cut, = (problem for problem in rows.problems if problem.file.endswith("cut.pcap"))
    assert cut.offset
    (tmp_path / "full").mkdir()
    (tmp_path / "full/part-00000.ndjson").mkdir()
    refused = cluster.streams(ring[:2], client=client, output=tmp_path / "full").run()
    assert [problem.file for problem in refused.problems] == [str(tmp_path / "full/part-00000.ndjson")] and refused.partitions
    assert not [name for name in os.listdir(tmp_path / "full") if not name.endswith(".ndjson")]


def test_command_prints_ndjson(running, client, ring, whole, keys):
    program = [BUILD / "bin/sealscope-cluster", "exchanges", "-k", keys, "--scheduler", running.address, *ring, "/nonexistent.pcap"]
    done = subprocess.run(program, capture_output=True, text=True, check=False)
    assert done.stdout.splitlines() == command("exchanges", str(whole), *with_keys([keys]))
    assert done.returncode == 1 and "sealscope-cluster: /nonexistent.pcap: No such file or directory" in done.stderr
    alone = subprocess.run([BUILD / "bin/sealscope-cluster", "find", "--address", "10.0.0.7", "-k", keys, *ring[:8]], capture_output=True, text=True,
                           check=False)
    every = map(json.loads, command("streams", *map(str, ring[:8]), *with_keys([keys])))
    assert list(map(json.loads, alone.stdout.splitlines())) == [row for row in every if row["client"].startswith("10.0.0.7:")], alone.stderr
    assert alone.stdout and alone.returncode == 0


def test_a_cluster_may_have_tls(ring, keys, tmp_path):
    subprocess.run(["openssl", "req", "-x509", "-nodes", "-batch", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-subj", "/CN=cluster",
                    "-keyout", tmp_path / "key.pem", "-out", tmp_path / "cert.pem"], check=True, capture_output=True)
    names = [str(tmp_path / name) for name in ("cert.pem", "cert.pem", "key.pem")]
    running = Cluster(tmp_path, 2, [word for pair in zip(("--tls-ca-file", "--tls-cert", "--tls-key"), names) for word in pair])
    try:
        assert running.address.startswith("tls://")
        security = [word for pair in zip(("--tls-ca", "--tls-cert", "--tls-key"), names) for word in pair]
        program = [BUILD / "bin/sealscope-cluster", "streams", "--scheduler", running.address, *security, "-k", keys, *ring[:6]]
        done = subprocess.run(program, capture_output=True, text=True, check=False)
        assert done.stdout.splitlines() == command("streams", *map(str, ring[:6]), *with_keys([keys])), done.stderr
    finally:
        running.stop()


@pytest.fixture(scope="module")
def steady(tmp_path_factory):
    """A capture, and the same as a ring, in which no connection is silent for longer than a file."""
    folder = tmp_path_factory.mktemp("steady")
    packets = captures.many_connections(SOURCES[:4], 160)
    return captures.write(folder / "whole.pcap", packets), captures.cut(folder, packets, 20)


def without_place(line):
    """A row without its number, and without what it says of the capture as a whole."""
    row = json.loads(line)
    if row.get("verdict") not in (None, "decrypted"):
        row["reason"]["sentence"] = None
    return {**row, "stream": None}


@pytest.mark.parametrize("kind", ["streams", "exchanges"])
def test_follows_a_ring_as_it_is_written(client, steady, keys, kind, tmp_path):
    whole, ring = steady
    folder = tmp_path / "ring"
    folder.mkdir()
    rows = cluster.follow(folder, kind, "*.pcap", interval=0.02, client=client, keylog=keys)

    def write():
        for number, path in enumerate(ring):
            begun = folder / path.name
            begun.write_bytes(path.read_bytes()[: path.stat().st_size // 2 + 8 * (number % 2)])
            if number % 5 == 0:
                time.sleep(0.2)
            shutil.copyfile(path, begun)
        (folder / "ring-next.pcap").write_bytes(b"")
        while rows.total_bytes < sum(path.stat().st_size for path in ring):
            time.sleep(0.05)
        rows.stop()

    writer = threading.Thread(target=write)
    writer.start()
    found = list(rows.lines())
    writer.join()
    expected = command(kind, str(whole), *with_keys([keys]))
    assert sorted(map(without_place, found), key=str) == sorted(map(without_place, expected), key=str)
    assert {json.loads(line)["stream"] for line in found} <= set(range(160)) and not rows.problems and not rows._held


def test_following_has_bounds_and_ends_on_interrupt(running, client, steady, tmp_path):
    first = [shutil.copy(path, tmp_path) for path in steady[1][:4]]
    os.utime(first[3], (4e9, 4e9))  # and still written
    rows = cluster.follow(tmp_path, "streams", "ring*", interval=0.02, most_held=0, client=client, progress=lambda *_: rows.stop())
    cut = list(rows.lines())
    assert "cut here" in str(rows.problems[0]) and rows.problems[0].file in first
    program = [BUILD / "bin/sealscope-cluster", "streams", "--follow-directory", tmp_path, "--pattern", "ring*", "--interval", "0.02", "--scheduler",
               running.address]
    with subprocess.Popen(program, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as process:
        found = [process.stdout.readline()]
        process.send_signal(signal.SIGINT)
        found += process.stdout.readlines()
        errors = process.stderr.read()
    expected = command("streams", *first[:3])
    assert sorted(map(without_place, found), key=str) == sorted(map(without_place, expected), key=str)
    assert (process.returncode, errors) == (0, "") and len(cut) > len(expected)
    with pytest.raises(FileNotFoundError):
        cluster.follow(tmp_path / "missing", client=client)


def test_following_finds_connections(running, client, steady, keys, tmp_path):
    files = [shutil.copy(path, tmp_path) for path in steady[1][:5]]
    os.utime(files[4], (4e9, 4e9))  # and still written
    every = [json.loads(line) for line in command("streams", *files[:4], *with_keys([keys]))]
    name = every[0]["reason"]["serverName"]
    expected = [row for row in every if (row["reason"] or {}).get("serverName") == name]
    rows = cluster.follow(tmp_path, "find", "ring*", server_name=name.upper(), interval=0.02, client=client, keylog=keys,
                          progress=lambda *_: rows.stop())
    found = [row.json for row in rows]
    assert sorted(map(without_place, found), key=str) == sorted(map(without_place, map(json.dumps, expected)), key=str) and len(found) < len(every)
    with pytest.raises(ValueError):
        cluster.follow(tmp_path, "find", client=client)
    with pytest.raises(ValueError):
        cluster.follow(tmp_path, "streams", server_name=name, client=client)


def test_secrets_stay_where_they_are_needed(running, client, keys):
    lines = keys.read_bytes().splitlines(keepends=True)
    log = _core.key_lines(b"# comment\n" + b"".join(lines))
    random = bytes.fromhex(lines[0].split()[1].decode())[:8]
    handed = cluster._lines_for(log, [random], False).reveal().splitlines(keepends=True)
    assert handed == [b"# comment\n", *(line for line in lines if line.split()[1] == lines[0].split()[1])]
    assert cluster._lines_for(log, [b"\0" * 8], False).reveal() == b""
    assert cluster._lines_for(log, [], True).reveal() == b"# comment\n" + b"".join(lines)
    # A task that fails is told with its arguments in the worker's log, and with its name everywhere.
    secret = cluster.Secret(keys.read_bytes())
    rows = cluster.Rows("streams", str, [], client=client)
    future = rows._submit(cluster._work_on_packets, [], {"folder": ""}, *rows._hand_out({"": ("", secret)}).values())
    with pytest.raises(KeyError):
        future.result()
    told = "".join(path.read_text() for path in running.folder.glob("*.log")) + future.key + repr(client.get_task_stream()) + repr(secret)
    assert "Secret(" in told
    for line in lines:
        assert line.split()[2].decode() not in told


def test_key_lines_that_do_not_arrive_go_again(client, ring, whole, keys, monkeypatch):
    scatter, arrived = client.scatter, []

    def scatter_late(*arguments, **options):
        # The first time they arrive and nobody hears of it, the second time they do not.
        arrived.append(None if len(arrived) == 1 else scatter(*arguments, **options))
        if len(arrived) <= 2:
            raise TimeoutError("too late")
        return arrived[-1]

    def scatter_never(*arguments, **options):
        raise TimeoutError("not today")

    monkeypatch.setattr(client, "scatter", scatter_late)
    assert list(cluster.streams(ring, client=client, keylog=keys).lines()) == command("streams", str(whole), *with_keys([keys]))
    assert len(arrived) > 3
    monkeypatch.setattr(client, "scatter", scatter_never)
    with pytest.raises(CaptureError, match="tcp://.* cannot be reached from here: not today"):
        cluster.streams(ring, client=client, keylog=keys).run()


def memory_has(process, texts):
    """Those of some texts that a process has anywhere in its memory."""
    found = set()
    with open(f"/proc/{process.pid}/maps") as maps, open(f"/proc/{process.pid}/mem", "rb", 0) as memory:
        for begin, end in (map(lambda text: int(text, 16), line.split()[0].split("-")) for line in maps if " rw" in line):
            try:
                memory.seek(begin)
                part = memory.read(end - begin)
            except OSError:  # a page that nobody may read
                continue
            found |= {text for text in texts if text in part}
    return found


def test_secrets_pass_the_scheduler_by(running, ring, whole, keys, tmp_path):
    carrying = tmp_path / "carrying.pcapng"
    carrying.write_bytes((SOURCE / "examples/https.pcapng").read_bytes())
    files = [*map(str, ring), str(carrying)]
    carried = bytes(_core.Piece(str(carrying), "", "full").secrets())
    assert carried
    secrets = {line.split()[2] for line in keys.read_bytes().splitlines() + carried.splitlines() if len(line.split()) == 3}
    names = {path.name.encode() for path in ring}
    while_working = Once("working", 20, lambda: seen.update(memory_has(running.scheduler, secrets | names)))
    seen = set()
    with cluster.streams(files, client=running.address, keylog=keys, progress=while_working) as rows:
        assert list(rows.lines()) == command("streams", *files, *with_keys([keys]))
        assert seen and seen <= names  # of some file or other; what is done it forgets
        assert memory_has(running.scheduler, secrets) == set()
        assert memory_has(running.workers[0], secrets)


class Once:
    """Does something when so much is done, once."""

    def __init__(self, phase, done, action):
        self.phase, self.done, self.action = phase, done, action

    def __call__(self, phase, done, total):
        if self.action and (phase, done) == (self.phase, self.done):
            action, self.action = self.action, None
            action()


@pytest.mark.parametrize("phase", ["looking through", "working"])
def test_a_lost_worker_costs_nothing(running, client, ring, whole, keys, phase):
    worker = running.workers.pop(0)
    kill = Once(phase, 5, worker.kill)
    rows = cluster.streams(ring, client=client, keylog=keys, progress=kill)
    assert list(rows.lines()) == command("streams", str(whole), *with_keys([keys]))
    assert kill.action is None and worker.wait() != 0 and not rows.problems
    running.start_worker()


@pytest.mark.parametrize("phase", ["looking through", "working"])
def test_a_scheduler_started_anew_costs_nothing(running, ring, whole, keys, phase, tmp_path):
    def restart():
        running.scheduler.kill()
        running.scheduler.wait()
        for worker in running.workers:
            worker.kill()
            worker.wait()
        running.workers.clear()
        running.start_scheduler()
        for _ in range(3):
            running.start_worker()

    again = Once(phase, 5, restart)
    with cluster.streams(ring, client=running.address, keylog=keys, progress=again) as rows:
        assert list(rows.lines()) == command("streams", str(whole), *with_keys([keys]))
    assert again.action is None and not rows.problems
