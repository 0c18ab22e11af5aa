# SPDX-License-Identifier: Apache-2.0
"""The command sealscope-cluster: rows as NDJSON on standard output, everything else on standard error."""
from __future__ import annotations

import argparse
import os
import signal
import sys
import time
from typing import Any

from . import Error

EXAMPLES = """examples:
  sealscope-cluster streams -k keys.txt ring/*.pcapng.zst
      all connections, on all processors of this machine
  sealscope-cluster exchanges --scheduler tcp://head:8786 -k keys.txt /captures/*.pcapng
      what was asked and what came back, on a cluster
  sealscope-cluster streams --scheduler tls://head:8786 --tls-ca ca.pem --tls-cert me.pem --tls-key me.key --output rows /captures/*.pcapng
      a file of rows for each capture file, written by the workers
  sealscope-cluster find --server-name www.example.org /captures/*.pcapng
      the connections to one server
  sealscope-cluster streams --follow-directory /ring --pattern '*.pcap' -k keys.txt --output rows
      the files of a sensor's ring as they are complete, until Ctrl-C
  sealscope-cluster find --ja4 t13d1516h2_8daaf6152771_e5627efa2ab1 --follow-directory /ring
      a client by its fingerprint, as its connections come
"""


class _Progress:
    """One line on a terminal, after half a second; gone when the work is."""

    WIDTH = 30

    def __init__(self, is_wanted: bool) -> None:
        self._is_shown = is_wanted and sys.stderr.isatty()
        self._next = time.monotonic() + 0.5

    def __call__(self, phase: str, done: int, total: int) -> None:
        if not self._is_shown or time.monotonic() < self._next:
            return
        self._next = time.monotonic() + 0.1
        filled = self.WIDTH * done // max(total, 1)
        sys.stderr.write(f"\r\033[K{phase} [{'#' * filled}{' ' * (self.WIDTH - filled)}] {done} of {total}")
        sys.stderr.flush()

    def erase(self) -> None:
        if self._is_shown:
            sys.stderr.write("\r\033[K")
            sys.stderr.flush()


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="sealscope-cluster", epilog=EXAMPLES, formatter_class=argparse.RawDescriptionHelpFormatter,
                                     description="Rows of captures in many files, made on a Dask cluster: the rows that 'sealscope' prints "
                                                 "for all the files together.")
    parser.add_argument("what", choices=["streams", "exchanges", "objects", "find"])
    parser.add_argument("files", nargs="*", metavar="FILE", help="as the workers see it")
    parser.add_argument("--scheduler", metavar="ADDRESS", help="of the cluster; without it one is started on this machine")
    parser.add_argument("--tls-ca", metavar="FILE", help="the cluster's certificate authority, for tls:// addresses")
    parser.add_argument("--tls-cert", metavar="FILE")
    parser.add_argument("--tls-key", metavar="FILE")
    parser.add_argument("-k", "--keylog", metavar="FILE", action="append", default=[], help="a key log, read here")
    parser.add_argument("--reach", choices=["strict", "full"], default="full")
    parser.add_argument("-f", "--filter", metavar="EXPR", default="", help="a capture filter")
    parser.add_argument("-o", "--output", metavar="DIR", help="the workers write a file of rows for each capture file into this folder")
    parser.add_argument("--save", metavar="DIR", help="'objects': the workers save the bodies into this folder")
    parser.add_argument("--patience", metavar="SECONDS", type=float, default=120.0, help="how long a lost scheduler is waited for")
    parser.add_argument("-q", "--quiet", action="store_true", help="no progress")
    following = parser.add_argument_group("following", "files of a folder as they are complete, in place of FILE; Ctrl-C ends it")
    following.add_argument("--follow-directory", metavar="DIR", help="seen here and by the workers; a file is complete when there is a newer one")
    following.add_argument("--pattern", metavar="GLOB", default="*", help="of the names of files that count (default: *)")
    following.add_argument("--settle", metavar="SECONDS", type=float, help="a file that was left alone for so long is complete, too")
    following.add_argument("--interval", metavar="SECONDS", type=float, default=5.0, help="between looks at the folder (default: 5)")
    following.add_argument("--most-held", metavar="MB", type=int, default=256,
                           help="of packets whose connections may go on in files to come (default: 256)")
    found = parser.add_argument_group("find", "the connections that have all of these")
    found.add_argument("--server-name", metavar="NAME")
    found.add_argument("--client-random", metavar="HEX")
    found.add_argument("--certificate", metavar="SHA256")
    found.add_argument("--address", metavar="ADDRESS")
    found.add_argument("--ja4", metavar="FINGERPRINT")
    return parser


def _client(options: argparse.Namespace) -> Any:
    if not options.tls_ca:
        return options.scheduler
    from distributed import Client
    from distributed.security import Security
    return Client(options.scheduler, security=Security(tls_ca_file=options.tls_ca, tls_client_cert=options.tls_cert,
                                                       tls_client_key=options.tls_key, require_encryption=True))


def _run(options: argparse.Namespace, progress: _Progress) -> int:
    from . import cluster
    common = {"client": _client(options), "keylog": options.keylog, "reach": options.reach, "filter": options.filter,
              "output": options.output, "patience": options.patience, "progress": progress}
    names = ("server_name", "client_random", "certificate", "address", "ja4")
    wanted = {name: getattr(options, name) for name in names if getattr(options, name) is not None}
    if wanted and options.what != "find":
        raise ValueError(f"--{next(iter(wanted)).replace('_', '-')} goes with find")
    rows: cluster.Rows[Any]
    if options.follow_directory:
        rows = cluster.follow(options.follow_directory, options.what, options.pattern, interval=options.interval, settle=options.settle,
                              most_held=options.most_held << 20, folder_for_objects=options.save, report=_report, **wanted, **common)
        _end_on_signals(rows)
    elif options.what == "find":
        rows = cluster.find(options.files, **wanted, **common)
    elif options.what == "objects":
        rows = cluster.objects(options.files, folder=options.save, **common)
    else:
        rows = getattr(cluster, options.what)(options.files, **common)
    with rows:
        try:
            for line in rows.lines():
                sys.stdout.write(line + "\n")
                if options.follow_directory:  # somebody may wait for it
                    sys.stdout.flush()
            sys.stdout.flush()
        finally:
            progress.erase()
            if not options.follow_directory:
                for problem in rows.problems:
                    _report(problem)
        return 1 if rows.problems else 0


def _report(problem: Exception) -> None:
    print(f"sealscope-cluster: {problem}", file=sys.stderr)


def _end_on_signals(rows: Any) -> None:
    """The first signal ends the following, the next one the program."""
    def end(number: int, _: Any) -> None:
        signal.signal(number, signal.default_int_handler if number == signal.SIGINT else signal.SIG_DFL)
        rows.stop()

    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, end)


def main(arguments: list[str] | None = None) -> int:
    parser = _parser()
    options = parser.parse_intermixed_args(arguments)  # options may stand before files
    for key_log in options.keylog:
        if not os.access(key_log, os.R_OK):
            parser.error(f"--keylog {key_log}: cannot be read")
    if bool(options.files) == bool(options.follow_directory):
        parser.error("expected FILE, or --follow-directory")
    progress = _Progress(not options.quiet)
    try:
        return _run(options, progress)
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 0
    except KeyboardInterrupt:
        progress.erase()
        print("sealscope-cluster: interrupted", file=sys.stderr)
        return 1
    except ValueError as problem:
        parser.error(str(problem))
    except Error as problem:
        print(f"sealscope-cluster: {problem}", file=sys.stderr)
        return 1
    except (OSError, TimeoutError) as problem:
        print(f"sealscope-cluster: {options.scheduler or 'this machine'}: {problem}", file=sys.stderr)
        return 1
