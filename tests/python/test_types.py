# SPDX-License-Identifier: Apache-2.0
"""The package's types, and a program that uses them, under a strict type checker; its stub of the module against the module."""
import os
import subprocess
import sys

import pytest
from conftest import PACKAGE, SOURCE


def checked(*arguments, folder):
    environment = {**os.environ, "MYPYPATH": str(PACKAGE), "PYTHONPATH": str(PACKAGE)}
    done = subprocess.run([sys.executable, "-m", *arguments, "--mypy-config-file" if "stubtest" in arguments[0] else "--config-file",
                           str(SOURCE / "python/pyproject.toml")], cwd=folder, env=environment, capture_output=True, text=True, check=False)
    return done.returncode, done.stdout + done.stderr


def test_types_are_complete(tmp_path):
    pytest.importorskip("mypy")
    program = SOURCE / "tests/python/typed_use.py"
    status, told = checked("mypy", "--cache-dir", str(tmp_path), str(PACKAGE / "sealscope"), str(program), folder=tmp_path)
    assert status == 0, told
    wrong = tmp_path / "wrong.py"
    wrong.write_text(program.read_text().replace("  # type: ignore[attr-defined]", ""))
    status, told = checked("mypy", "--cache-dir", str(tmp_path), str(wrong), folder=tmp_path)
    assert status == 1 and '"Stream" has no attribute "nothing"' in told


def test_stub_is_of_the_module(tmp_path):
    pytest.importorskip("mypy")
    _, told = checked("mypy.stubtest", "sealscope._core", "--concise", folder=tmp_path)
    # Its classes have a metaclass of their library, which no stub can name; so there is something to tell, if it looked.
    differences = [line for line in told.splitlines() if not line.endswith("metaclass differs")]
    assert "sealscope._core.Piece" in told and not differences, told
