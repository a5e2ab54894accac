"""Fleets of log files on Dask: one index of many files, functions over their payloads.

Every task opens its own file by path (read-only), so the functions work on
a ``distributed`` cluster as long as the workers reach the files under the
same paths (a shared disk, or a local cluster)::

    from dask.distributed import Client, LocalCluster
    import marivane_logging.dask as mld

    with LocalCluster(n_workers=4, threads_per_worker=1) as cluster, Client(cluster):
        index = mld.read_index("/data/fleet/*.mvlog")         # dask DataFrame, no payloads
        per_source = index.groupby(["file", "source_name"]).size().compute()

        volume = mld.map_entries("/data/fleet/*.mvlog", lambda e: len(e.payload),
                                 reduce=lambda a, b: a + b, initial=0)
        total = sum(value for path, value in volume.compute())

Partitions are one file each, or id ranges of at most `partition_entries`
entries when given (large files then spread over several tasks), or with
``partition="time"`` windows of time of one file each: ``period=`` seconds
long from the file's first entry, or ``parts=`` windows per file. Each
partition is read in time order unless ``order="id"`` is given, so a file's
time windows, one after the other, are the whole file in time order::

        per_minute = mld.read_index("/data/fleet/*.mvlog", partition="time", period=60)
"""

from __future__ import annotations

import functools
import glob
import math
import os
from typing import Any, Callable, Iterable, List, NamedTuple, Optional, Sequence, Tuple, Union

import numpy as np
import pandas as pd

from ._logfile import LogFile, index_frame
from ._selection import Ids, Ints, Time, entry_order, time_bounds

PathLike = Union[str, "os.PathLike[str]"]
Paths = Union[PathLike, Iterable[PathLike]]


class TimePart(NamedTuple):
    """A partition by time: the file and the inclusive window of timestamps (ms) it covers."""

    path: str
    start_ms: int
    end_ms: int


#: A partition: the file and the inclusive id range it covers (None: all),
#: or a :class:`TimePart`.
Part = Union[Tuple[str, Optional[int], Optional[int]], TimePart]

_PARTITIONINGS = ("file", "id", "time")

_GLOB_CHARACTERS = set("*?[")


def expand_paths(paths_or_glob: Paths) -> List[str]:
    """Absolute paths from one path, a glob pattern, or an iterable of paths (patterns expanded)."""
    if isinstance(paths_or_glob, (str, os.PathLike)):
        items = [os.fspath(paths_or_glob)]
    else:
        items = [os.fspath(item) for item in paths_or_glob]
    result: List[str] = []
    for item in items:
        if _GLOB_CHARACTERS & set(item):
            matches = sorted(glob.glob(item))
            if not matches:
                raise FileNotFoundError(f"no file matches '{item}'")
            result.extend(os.path.abspath(match) for match in matches)
        else:
            result.append(os.path.abspath(item))
    return result


def _partitioning(
    partition: Optional[str], partition_entries: Optional[int], period: Optional[float], parts: Optional[int]
) -> str:
    if partition is None:
        partition = "id" if partition_entries is not None else ("time" if (period, parts) != (None, None) else "file")
    if partition not in _PARTITIONINGS:
        raise ValueError(f"partition is 'file', 'id' or 'time', not {partition!r}")
    if partition == "time":
        if partition_entries is not None:
            raise ValueError("partition_entries sizes id ranges; a time partition takes period or parts")
        if (period is None) == (parts is None):
            raise ValueError("a time partition takes either period (seconds) or parts (windows per file)")
        if period is not None and not (isinstance(period, (int, float)) and math.isfinite(period) and period > 0):
            raise ValueError(f"period must be a positive number of seconds, not {period!r}")
        if parts is not None and (isinstance(parts, bool) or not isinstance(parts, int) or parts < 1):
            raise ValueError(f"parts must be a positive number of windows, not {parts!r}")
    else:
        if (period, parts) != (None, None):
            raise ValueError("period and parts size time windows: give partition='time'")
        if partition == "id" and partition_entries is None:
            raise ValueError("an id partition takes partition_entries")
        if partition == "file" and partition_entries is not None:
            raise ValueError("partition_entries sizes id ranges: give partition='id'")
    return partition


def _windows(first: int, last: int, period: Optional[float], parts: Optional[int]) -> List[Tuple[int, int]]:
    # Inclusive millisecond windows that tile first..last without overlap,
    # so each entry falls in exactly one of them.
    if period is not None:
        step = max(1, round(period * 1000.0))
        return [(start, min(start + step - 1, last)) for start in range(first, last + 1, step)]
    span = last - first + 1
    bounds = sorted({first + (span * k) // parts for k in range(parts)} | {last + 1})
    return [(start, end - 1) for start, end in zip(bounds, bounds[1:])]


def partitions(
    paths: Sequence[str],
    partition_entries: Optional[int] = None,
    *,
    partition: Optional[str] = None,
    period: Optional[float] = None,
    parts: Optional[int] = None,
) -> List[Part]:
    """The partitions of `paths`.

    Whole files; id ranges of at most `partition_entries` entries
    (``partition="id"``, implied by `partition_entries`); or with
    ``partition="time"`` (implied by `period` or `parts`) one
    :class:`TimePart` per window of `period` seconds from each file's first
    timestamp, or `parts` windows of equal span per file. A file without
    entries is one partition ``(path, None, None)`` whatever the partitioning.
    """
    how = _partitioning(partition, partition_entries, period, parts)
    if how == "time":
        result: List[Part] = []
        for path in paths:
            with LogFile.open(path) as f:
                span = f.time_range()
            if span is None:
                result.append((path, None, None))
                continue
            result.extend(TimePart(path, start, end) for start, end in _windows(span.first, span.last, period, parts))
        return result
    if partition_entries is None:
        return [(path, None, None) for path in paths]
    if partition_entries < 1:
        raise ValueError("partition_entries must be positive")
    parts: List[Part] = []
    for path in paths:
        with LogFile.open(path) as f:
            first, last = f.first_entry_id, f.last_entry_id
        if first is None or last is None:
            parts.append((path, None, None))
            continue
        for start in range(first, last + 1, partition_entries):
            parts.append((path, start, min(start + partition_entries - 1, last)))
    return parts


def index_meta() -> pd.DataFrame:
    """The empty frame whose columns and dtypes read_index's partitions have."""
    return pd.DataFrame(
        {
            "file": pd.Series([], dtype=object),
            "id": pd.Series([], dtype=np.int32),
            "source": pd.Series([], dtype=np.int8),
            "source_name": pd.Series([], dtype=object),
            "type": pd.Series([], dtype=np.int32),
            "timestamp": pd.Series([], dtype=index_frame(np.zeros(0, _index_dtype()), {})["timestamp"].dtype),
            "size": pd.Series([], dtype=np.int64),
        }
    )


def _index_dtype() -> np.dtype:
    return np.dtype([("id", "<i4"), ("source", "i1"), ("type", "<i4"), ("timestamp", "<i8"), ("size", "<i8")])


def _task_parts(chosen: List[Part]) -> List[tuple]:
    # Tasks get plain tuples: a distributed scheduler may hand a worker a
    # named tuple still wrapped for serialisation. A time window is tagged.
    return [(*part, "time") if isinstance(part, TimePart) else tuple(part) for part in chosen]


def _read_arguments(f: LogFile, part: tuple, selection: dict) -> Optional[Tuple[Optional[int], Optional[int], dict]]:
    """The id bounds and selection that read `part` of the open file; None when its window selects nothing."""
    if len(part) == 3:
        return part[1], part[2], selection
    start, end = time_bounds(selection.get("time"), f._first_timestamp)
    start, end = max(start, part[1]), min(end, part[2])
    if start > end:
        return None
    return None, None, dict(selection, time=(start, end))


def _index_partition(part: Part, selection: dict) -> pd.DataFrame:
    path = part[0]
    with LogFile.open(path) as f:
        arguments = _read_arguments(f, part, selection)
        if arguments is None:
            rows = np.zeros(0, _index_dtype())
        else:
            first, last, chosen = arguments
            rows = f.index(first, last, **chosen)
        names = {source.id: source.name for source in f.data_sources}
    frame = index_frame(rows, names)
    frame["source_name"] = frame["source_name"].astype(object)
    frame.insert(0, "file", path)
    return frame


def read_index(
    paths_or_glob: Paths,
    *,
    sources: Ids = None,
    types: Ints = None,
    source_types: Ints = None,
    time: Optional[Tuple[Optional[Time], Optional[Time]]] = None,
    partition_entries: Optional[int] = None,
    partition: Optional[str] = None,
    period: Optional[float] = None,
    parts: Optional[int] = None,
    order: str = "time",
) -> "dask.dataframe.DataFrame":  # noqa: F821
    """A dask DataFrame of every selected entry of many files, without payloads.

    Columns: file (absolute path), id, source, source_name, type, timestamp
    (UTC) and size (stored bytes). One partition per file, per id range of
    `partition_entries` entries, or per time window (see :func:`partitions`).
    Rows come in time order within each partition, or in id order with
    ``order="id"``. The selection arguments are those of
    :meth:`LogFile.index`; a relative `time` counts from each file's first entry.
    """
    import dask.dataframe as dd

    paths = expand_paths(paths_or_glob)
    selection = dict(sources=sources, types=types, source_types=source_types, time=time, order=entry_order(order))
    chosen = partitions(paths, partition_entries, partition=partition, period=period, parts=parts)
    return dd.from_map(
        _index_partition,
        _task_parts(chosen),
        selection=selection,
        meta=index_meta(),
        label="marivane-read-index",
        enforce_metadata=False,
    )


def _run_partition(
    part: Part,
    function: Callable[[Any], Any],
    reduce: Optional[Callable[[Any, Any], Any]],
    initial: Any,
    selection: dict,
    payload_as: str,
) -> list:
    path = part[0]
    with LogFile.open(path) as f:
        arguments = _read_arguments(f, part, selection)
        if arguments is None:
            values: Iterable[Any] = iter(())
        else:
            first, last, chosen = arguments
            values = map(function, f.entries(first, last, payload_as=payload_as, **chosen))
        if reduce is None:
            return [value for value in values if value is not None]
        return [(path, functools.reduce(reduce, values, initial))]


def map_entries(
    paths_or_glob: Paths,
    function: Callable[[Any], Any],
    *,
    reduce: Optional[Callable[[Any, Any], Any]] = None,
    initial: Any = None,
    sources: Ids = None,
    types: Ints = None,
    source_types: Ints = None,
    time: Optional[Tuple[Optional[Time], Optional[Time]]] = None,
    payload_as: str = "bytes",
    partition_entries: Optional[int] = None,
    partition: Optional[str] = None,
    period: Optional[float] = None,
    parts: Optional[int] = None,
    order: str = "time",
) -> "dask.bag.Bag":  # noqa: F821
    """Runs `function(entry)` over the selected entries of many files in parallel.

    Each task streams one partition's entries (see :meth:`LogFile.entries`),
    so memory stays flat however large the files are.

    * Without `reduce`: a bag of every non-None ``function(entry)``.
    * With `reduce`: a bag of one ``(path, value)`` per partition, where value
      is ``functools.reduce(reduce, map(function, entries), initial)`` —
      aggregate inside the tasks, combine the few results afterwards.

    Partitions as for :func:`read_index`; each streams its entries in time
    order, or in id order with ``order="id"``.

    `function` and `reduce` travel to the workers, so they must pickle
    (lambdas do, through cloudpickle).
    """
    import dask
    import dask.bag as db

    selection = dict(sources=sources, types=types, source_types=source_types, time=time, order=entry_order(order))
    chosen = partitions(expand_paths(paths_or_glob), partition_entries, partition=partition, period=period, parts=parts)
    task = dask.delayed(_run_partition, pure=False)
    return db.from_delayed(
        [task(part, function, reduce, initial, selection, payload_as) for part in _task_parts(chosen)]
    )


def _run_file(path: str, function: Callable[[str, LogFile], Any]) -> list:
    with LogFile.open(path) as f:
        return [(path, function(path, f))]


def map_files(paths_or_glob: Paths, function: Callable[[str, LogFile], Any]) -> "dask.bag.Bag":  # noqa: F821
    """A bag of ``(path, function(path, log_file))``, one task per file (opened read-only)."""
    import dask
    import dask.bag as db

    task = dask.delayed(_run_file, pure=False)
    return db.from_delayed([task(path, function) for path in expand_paths(paths_or_glob)])


__all__ = ["read_index", "map_entries", "map_files", "expand_paths", "partitions", "index_meta", "TimePart"]
