# SPDX-License-Identifier: Apache-2.0
"""The module against the command line, and what only the module has."""
import doctest
import json
import os
import pickle
import signal
import subprocess
import sys
import threading

import pytest
from conftest import BUILD, RECORDED, SOURCE, command, key_logs, with_keys

import sealscope


@pytest.mark.parametrize("reach", ["full", "strict"])
def test_rows_are_those_of_the_command_line(capture, reach, tmp_path):
    keys = key_logs(capture)
    options = [str(capture), *with_keys(keys), "--reach", reach]
    opened = sealscope.open(capture, keylog=keys, reach=reach)
    objects = [dict(row) for row in opened.objects(output=tmp_path / "module")]
    lines = {
        "packets": [row.json for row in opened.packets()],
        "streams": [row.json for row in opened.streams()],
        "exchanges": [row.json for row in opened.exchanges()],
    }
    for name, found in lines.items():
        assert found == command(name, *(options if name != "packets" else options[:1]))
    for row in opened.streams():
        line = lines["streams"][row.number]
        assert dict(row) == json.loads(line) and list(row) == list(json.loads(line))
        followed = [json.loads(text) for text in command("follow", *options, "--stream", str(row.number))]
        assert [dict(message) for message in row.messages()] == followed[0]["messages"]
    expected = [json.loads(line) for line in command("objects", *options, "--output", str(tmp_path / "command"))]
    assert [{**row, "file": None} for row in objects] == [{**row, "file": None} for row in expected]
    assert [dict(row) for row in opened.objects()] == [{**row, "file": None} for row in expected]
    for mine, its in zip(objects, expected):
        assert open(mine["file"], "rb").read() == open(its["file"], "rb").read()


@pytest.mark.parametrize("folder", [path.parent for path in RECORDED], ids=lambda path: path.name)
def test_plaintext_is_what_the_peers_said(folder):
    opened = sealscope.open(folder / "capture.pcap", keylog=folder / "keylog.txt")
    for stream in opened.streams():
        for side in ("client", "server"):
            said = folder / f"stream-{stream.number}-{side}.bin"
            if said.exists():
                assert stream.plaintext(side) == said.read_bytes()


def test_errors_have_file_and_place(tmp_path):
    cut = tmp_path / "cut.pcap"
    whole = RECORDED[0].read_bytes()
    cut.write_bytes(whole[: len(whole) * 2 // 3 + 1])
    with pytest.warns(sealscope.CaptureWarning, match=str(cut)):
        opened = sealscope.open(cut)
    error, = opened.errors
    assert (error.file, error.packets_before) == (str(cut), opened.packet_count) and 24 < error.offset < cut.stat().st_size
    with pytest.raises(sealscope.CaptureError) as missing:
        sealscope.open([tmp_path / "a.pcap"])
    assert missing.value.file == str(tmp_path / "a.pcap") and pickle.loads(pickle.dumps(missing.value)).file == missing.value.file
    with pytest.raises(sealscope.CaptureError, match="syntax") as filtered:
        sealscope.open(RECORDED[0], filter="nonsense and")
    assert filtered.value.file == ""
    opened = sealscope.open(RECORDED[0])
    with pytest.raises(sealscope.DecryptionError, match="key log"):
        opened.stream(0).plaintext("server")
    for wrong in (-1, opened.stream_count):
        with pytest.raises(IndexError):
            opened.stream(wrong)
    with pytest.raises(ValueError):
        opened.stream(0).plaintext("both")


def test_threads_and_half_read_iterators():
    opened = sealscope.open(RECORDED[-1], keylog=key_logs(RECORDED[-1]))
    expected = [row.json for row in opened.streams()]
    results = []
    threads = [threading.Thread(target=lambda: results.append([row.json for row in opened.streams()])) for _ in range(8)]
    for thread in threads:
        next(opened.packets())  # and is let go
        thread.start()
    for thread in threads:
        thread.join()
    assert results == [expected] * 8
    row = pickle.loads(pickle.dumps(next(opened.streams())))
    assert dict(row) == json.loads(expected[0])
    with pytest.raises(ValueError):
        next(row.messages())


def test_rows_make_a_table():
    pandas = pytest.importorskip("pandas")
    opened = sealscope.open(RECORDED[0])
    table = pandas.DataFrame(opened.streams())
    assert list(table["client"]) == [row.client for row in opened.streams()] and "ja4" in table.columns


@pytest.mark.parametrize("work", ["sealscope.open(file)", "list(sealscope.open(file).streams())"])
def test_ends_on_interrupt(work, large_capture):
    # In a function: of a loop in the `try` itself Python 3.11 leaves out the jump back, where a signal may be met as well.
    loop = f"def run():\n while True: {work}"
    script = f"import sys, sealscope\nfile = sys.argv[1]\n{loop}\nprint(flush=True)\ntry: run()\nexcept KeyboardInterrupt: print('ended')"
    with subprocess.Popen([sys.executable, "-c", script, large_capture], stdout=subprocess.PIPE, text=True) as process:
        process.stdout.readline()
        threading.Timer(0.7, lambda: os.kill(process.pid, signal.SIGINT)).start()
        assert process.communicate(timeout=20)[0] == "ended\n"


def test_documentation_is_true(monkeypatch):
    monkeypatch.chdir(SOURCE)
    for module in (sealscope, sealscope._records, sealscope._errors):
        found = doctest.testmod(module)
        assert found.failed == 0
    assert doctest.testmod(sealscope).attempted > 5
    assert BUILD.exists()
