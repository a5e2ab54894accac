#!/usr/bin/env python3
"""The Python package beside the C++ library it wraps: reads, payload streams, a cluster.

Measures, on files it records first:

* index() of a file of a million entries into numpy, against the same
  summaries visit done in C++ alone (target: at least 0.8x the C++ speed);
* iterating payloads with entries() at 16 KiB and 256 KiB, against a C++
  visit that touches every payload (target: at least 0.8x);
* 64-byte entries per second through entries();
* map_entries over a fleet on a local Dask cluster, 2 workers against 1.

Prints each figure, its ratio and MET / NOT MET. The C++ timings come from a
helper of the native module that runs the visit without Python in the loop.

    PYTHONPATH=build/python python3 python/bench/bench_python.py [--quick]
"""

from __future__ import annotations

import argparse
import os
import sys
import tempfile
import time
from typing import Callable, List, Tuple

import numpy as np

import marivane_logging as ml
from marivane_logging import _core

START = 1_700_000_000_000


def record(path: str, count: int, size: int, level: int = -1) -> None:
    """`count` entries of `size` bytes: half random, half repeated, so they compress like sensor data."""
    rng = np.random.default_rng(count + size)
    random_part = size // 2
    pool = rng.integers(0, 256, size=(64, random_part), dtype=np.uint8)
    filler = bytes(size - random_part)
    with ml.LogFile.create(path, application="bench_python", version=ml.__version__, level=level) as f:
        sources = [f.add_data_source(ml.SourceType.GENERIC, f"source-{n}") for n in range(4)]
        batch = 50_000
        for begin in range(0, count, batch):
            with f.batch():
                for i in range(begin, min(begin + batch, count)):
                    f.log(sources[i & 3], 1, pool[i & 63].tobytes() + filler, START + i)


def best_of(repeats: int, run: Callable[[], float]) -> float:
    return min(run() for _ in range(repeats))


def timed(function: Callable[[], object]) -> float:
    start = time.perf_counter()
    function()
    return time.perf_counter() - start


def cpp_seconds(path: str, summaries_only: bool) -> float:
    with ml.LogFile.open(path) as f:
        return _core._bench_visit(f._native, summaries_only)[2]


def python_index_seconds(path: str) -> float:
    with ml.LogFile.open(path) as f:
        return timed(f.index)


def python_entries_seconds(path: str) -> float:
    # Opening is outside the timing, as for the C++ visit.
    with ml.LogFile.open(path) as f:

        def run() -> None:
            total = 0
            for entry in f.entries():
                total += len(entry.payload)

        return timed(run)


def fleet_seconds(pattern: str, workers: int) -> float:
    from dask.distributed import Client, LocalCluster

    with LocalCluster(n_workers=workers, processes=True, threads_per_worker=1, host="127.0.0.1",
                      dashboard_address=None) as cluster, Client(cluster):
        import marivane_logging.dask as mld

        def run() -> None:
            bag = mld.map_entries(pattern, lambda e: len(e.payload), reduce=lambda a, b: a + b, initial=0)
            bag.compute()

        run()  # warm the workers' imports
        return best_of(2, lambda: timed(run))


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="a tenth of the sizes, for a smoke run")
    parser.add_argument("--dir", help="where to record the files (default: a temporary directory)")
    parser.add_argument("--repeats", type=int, default=3)
    arguments = parser.parse_args(argv)
    scale = 10 if arguments.quick else 1

    results: List[Tuple[str, str, str, str]] = []

    def report(name: str, value: str, ratio: float = float("nan"), target: float = float("nan")) -> None:
        if target == target:
            verdict = "MET" if ratio >= target else "NOT MET"
            results.append((name, value, f"{ratio:.2f}x (target >= {target:.1f}x)", verdict))
        else:
            results.append((name, value, f"{ratio:.2f}x" if ratio == ratio else "", ""))
        print(f"  {name}: {value}", flush=True)

    with tempfile.TemporaryDirectory(prefix="bench-python-") as scratch:
        directory = arguments.dir or scratch
        os.makedirs(directory, exist_ok=True)
        files = {
            "small": (1_000_000 // scale, 64),
            "16k": (6_000 // scale, 16 << 10),
            "256k": (400 // scale, 256 << 10),
        }
        paths = {}
        for name, (count, size) in files.items():
            path = os.path.join(directory, f"bench-{name}.mvlog")
            if not os.path.exists(path):
                print(f"recording {count} entries of {size} B into {path}", flush=True)
                record(path, count, size)
            paths[name] = path

        small_count = files["small"][0]
        print("index()", flush=True)
        cpp = best_of(arguments.repeats, lambda: cpp_seconds(paths["small"], True))
        python = best_of(arguments.repeats, lambda: python_index_seconds(paths["small"]))
        report(f"index() of {small_count} entries", f"{python * 1000:.1f} ms (C++ {cpp * 1000:.1f} ms)",
               cpp / python, 0.8)

        print("entries()", flush=True)
        for name in ("16k", "256k"):
            count, size = files[name]
            cpp = best_of(arguments.repeats, lambda: cpp_seconds(paths[name], False))
            python = best_of(arguments.repeats, lambda: python_entries_seconds(paths[name]))
            volume = count * size / 2**20
            report(f"entries() at {size >> 10} KiB", f"{volume / python:.0f} MiB/s (C++ {volume / cpp:.0f} MiB/s)",
                   cpp / python, 0.8)

        cpp = best_of(arguments.repeats, lambda: cpp_seconds(paths["small"], False))
        python = best_of(arguments.repeats, lambda: python_entries_seconds(paths["small"]))
        report("entries() at 64 B", f"{small_count / python / 1e6:.2f} M entries/s (C++ "
               f"{small_count / cpp / 1e6:.2f} M entries/s)", cpp / python)

        print("Dask map_entries, 1 and 2 workers", flush=True)
        fleet = os.path.join(directory, "fleet")
        os.makedirs(fleet, exist_ok=True)
        for n in range(8):
            path = os.path.join(fleet, f"unit-{n}.mvlog")
            if not os.path.exists(path):
                record(path, 100_000 // scale, 256)
        pattern = os.path.join(fleet, "unit-*.mvlog")
        one = fleet_seconds(pattern, 1)
        two = fleet_seconds(pattern, 2)
        report("map_entries over 8 files", f"1 worker {one:.2f} s, 2 workers {two:.2f} s "
               f"({os.cpu_count()} cores)", one / two)

    print()
    width = max(len(name) for name, *_ in results)
    for name, value, ratio, verdict in results:
        print(f"{name:<{width}}  {value:<52}  {ratio:<26}  {verdict}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
