#!/usr/bin/env python3
"""A fleet of recordings on a Dask cluster: counts, rates, gaps and payload volume.

Records a fleet of small synthetic recordings (a camera at 10 Hz, a GNSS
receiver at 20 Hz and an IMU at 50 Hz, with dropouts here and there), then on
a local cluster of worker processes computes, per file and per data source,
the entry count, the mean rate, the gaps above a threshold and the payload
volume, and prints them as a table.

    PYTHONPATH=build/python python3 examples/python/fleet.py --files 20 --seconds 60
"""

from __future__ import annotations

import argparse
import os
import random
import sys
import tempfile

import pandas as pd

import marivane_logging as ml
import marivane_logging.dask as mld

START = 1_700_000_000_000
SOURCES = [  # type, name, period in ms, payload bytes
    (ml.SourceType.CAMERA, "camera", 100, 4096),
    (ml.SourceType.NAVIGATION, "gnss", 50, 96),
    (ml.SourceType.INERTIAL, "imu", 20, 48),
]


def record(path: str, seconds: int, seed: int) -> None:
    """One recording; some sources drop out for a while, as real ones do."""
    rng = random.Random(seed)
    with ml.LogFile.create(path, application="fleet-example", version=ml.__version__,
                           created=START + seed * 3_600_000) as f:
        f.add_metadata("vehicle", f"unit-{seed:02d}")
        ids = [f.add_data_source(kind, name) for kind, name, _, _ in SOURCES]
        dropouts = {}
        for source_id in ids:
            if rng.random() < 0.4:
                begin = rng.randrange(0, max(seconds * 1000 - 2000, 1))
                dropouts[source_id] = (begin, begin + rng.randrange(600, 2000))
        events = []
        for source_id, (_, _, period, size) in zip(ids, SOURCES):
            for ms in range(0, seconds * 1000, period):
                low, high = dropouts.get(source_id, (0, -1))
                if not low <= ms <= high:
                    events.append((ms, source_id, size))
        events.sort()
        with f.batch():
            for ms, source_id, size in events:
                payload = bytes([source_id]) * (size - 8) + rng.getrandbits(64).to_bytes(8, "little")
                f.log(source_id, 1, payload, START + seed * 3_600_000 + ms)


def gaps_in_partition(frame: pd.DataFrame, threshold_ms: int) -> pd.DataFrame:
    """Per (file, source): gaps above the threshold and their total length (one file per partition)."""
    rows = []
    for (path, name), group in frame.groupby(["file", "source_name"], observed=True, sort=False):
        stamps = group["timestamp"].astype("int64").to_numpy() // 10**6
        stamps.sort()
        intervals = stamps[1:] - stamps[:-1]
        big = intervals[intervals > threshold_ms]
        rows.append((path, name, len(big), int(big.sum())))
    return pd.DataFrame(rows, columns=["file", "source_name", "gaps", "gap_ms"])


def volume_by_source(entry: ml.Entry) -> dict:
    return {entry.source: len(entry.payload)}


def add_volumes(total: dict, volume: dict) -> dict:
    for source, size in volume.items():
        total[source] = total.get(source, 0) + size
    return total


def analyse(pattern: str, threshold_ms: int) -> pd.DataFrame:
    index = mld.read_index(pattern)

    summary = index.groupby(["file", "source_name"]).agg(
        {"id": "count", "timestamp": ["min", "max"], "size": "sum"}
    ).compute()
    summary.columns = ["entries", "first", "last", "stored"]
    summary = summary.reset_index()
    duration_s = (summary["last"] - summary["first"]).dt.total_seconds()
    summary["rate_hz"] = ((summary["entries"] - 1) / duration_s).where(duration_s > 0, 0.0)

    meta = pd.DataFrame({"file": pd.Series([], dtype=object), "source_name": pd.Series([], dtype=object),
                         "gaps": pd.Series([], dtype="int64"), "gap_ms": pd.Series([], dtype="int64")})
    gaps = index.map_partitions(gaps_in_partition, threshold_ms, meta=meta).compute()

    volumes = mld.map_entries(pattern, volume_by_source, reduce=add_volumes, initial={}).compute()
    names = {}
    rows = []
    for path, by_source in volumes:
        if path not in names:
            with ml.LogFile.open(path) as f:
                names[path] = {s.id: s.name for s in f.data_sources}
        for source, size in by_source.items():
            rows.append((path, names[path][source], size))
    volume = pd.DataFrame(rows, columns=["file", "source_name", "payload"])
    volume = volume.groupby(["file", "source_name"], as_index=False)["payload"].sum()

    table = summary.merge(gaps, on=["file", "source_name"]).merge(volume, on=["file", "source_name"])
    table["file"] = table["file"].map(os.path.basename)
    return table[["file", "source_name", "entries", "rate_hz", "gaps", "gap_ms", "payload", "stored"]]


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--files", type=int, default=20, help="recordings in the fleet (default: %(default)s)")
    parser.add_argument("--seconds", type=int, default=30, help="length of each recording (default: %(default)s)")
    parser.add_argument("--workers", type=int, default=2, help="worker processes (default: %(default)s)")
    parser.add_argument("--gap-ms", type=int, default=500, help="gaps are silences above this (default: %(default)s)")
    parser.add_argument("--dir", help="where to record (default: a temporary directory)")
    arguments = parser.parse_args(argv)

    from dask.distributed import Client, LocalCluster

    with tempfile.TemporaryDirectory(prefix="fleet-") as scratch:
        directory = arguments.dir or scratch
        os.makedirs(directory, exist_ok=True)
        for n in range(arguments.files):
            path = os.path.join(directory, f"unit-{n:02d}.mvlog")
            if os.path.exists(path):
                os.remove(path)
            record(path, arguments.seconds, n)
        pattern = os.path.join(directory, "unit-*.mvlog")

        with LocalCluster(n_workers=arguments.workers, processes=True, threads_per_worker=1, host="127.0.0.1",
                          dashboard_address=None) as cluster, Client(cluster):
            table = analyse(pattern, arguments.gap_ms)

    with pd.option_context("display.max_rows", None, "display.width", 120):
        print(table.to_string(index=False, formatters={"rate_hz": "{:.2f}".format}))
    print(f"Fleet of {arguments.files} files: {int(table['entries'].sum())} entries, "
          f"{int(table['gaps'].sum())} gaps above {arguments.gap_ms} ms, "
          f"{table['payload'].sum() / 2**20:.2f} MiB of payload ({table['stored'].sum() / 2**20:.2f} MiB stored)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
