# SPDX-License-Identifier: Apache-2.0
"""What the tests of the Python package share: the captures of the tree, and the command line to compare with."""
import os
import pathlib
import subprocess
import sys

import pytest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["SEALSCOPE_BUILD"])
PACKAGE = BUILD / "lib/python3/dist-packages"
sys.path.insert(0, str(PACKAGE))
# Nobody's own key logs and settings, here and in what is started here.
os.environ["XDG_CONFIG_HOME"] = os.environ["XDG_DATA_HOME"] = "/proc/none"
os.environ.pop("SSLKEYLOGFILE", None)
os.environ["PYTHONPATH"] = str(PACKAGE)

RECORDED = sorted((SOURCE / "tests/captures").glob("*/capture.pcap"))


def key_logs(capture):
    return [str(path) for path in (capture.with_name("keylog.txt"), capture.with_suffix(".keylog")) if path.exists()]


def command(*arguments, status=(0,)):
    """Lines that the command line prints."""
    program = [BUILD / "bin/sealscope", *arguments, "--json", "--quiet"]
    done = subprocess.run(program, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False, text=True)
    assert done.returncode in status, done.stderr
    return done.stdout.splitlines()


def with_keys(keys):
    return [word for key in keys for word in ("-k", key)]


def make_capture(path, *arguments):
    subprocess.run([BUILD / "bin/make-capture", *arguments, path], check=True, stdout=subprocess.DEVNULL)
    return path


@pytest.fixture(scope="session")
def large_capture(tmp_path_factory):
    return make_capture(tmp_path_factory.mktemp("large") / "large.pcap", "--shape", "small", "--connections", "60000", "--payload", "100", "--out")


@pytest.fixture(params=[*RECORDED, *sorted((SOURCE / "examples").glob("*.pcap*"))], ids=lambda path: f"{path.parent.name}/{path.name}")
def capture(request):
    return request.param
