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
entries when given (large files then spread over several tasks).
"""

from __future__ import annotations

import functools
import glob
import os
from typing import Any, Callable, Iterable, List, Optional, Sequence, Tuple, Union

import numpy as np
import pandas as pd

from ._logfile import LogFile, index_frame
from ._selection import Ids, Ints, Time

PathLike = Union[str, "os.PathLike[str]"]
Paths = Union[PathLike, Iterable[PathLike]]
#: A partition: the file and the inclusive id range it covers (None: all).
Part = Tuple[str, Optional[int], Optional[int]]

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


def partitions(paths: Sequence[str], partition_entries: Optional[int] = None) -> List[Part]:
    """The partitions of `paths`: whole files, or id ranges of at most `partition_entries` entries."""
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


def _index_partition(part: Part, selection: dict) -> pd.DataFrame:
    path, first, last = part
    with LogFile.open(path) as f:
        rows = f.index(first, last, **selection)
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
) -> "dask.dataframe.DataFrame":  # noqa: F821
    """A dask DataFrame of every selected entry of many files, without payloads.

    Columns: file (absolute path), id, source, source_name, type, timestamp
    (UTC) and size (stored bytes). One partition per file, or per id range of
    `partition_entries` entries. The selection arguments are those of
    :meth:`LogFile.index`.
    """
    import dask.dataframe as dd

    paths = expand_paths(paths_or_glob)
    selection = dict(sources=sources, types=types, source_types=source_types, time=time)
    parts = partitions(paths, partition_entries)
    return dd.from_map(
        _index_partition,
        parts,
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
    path, first, last = part
    with LogFile.open(path) as f:
        values = map(function, f.entries(first, last, payload_as=payload_as, **selection))
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
) -> "dask.bag.Bag":  # noqa: F821
    """Runs `function(entry)` over the selected entries of many files in parallel.

    Each task streams one partition's entries (see :meth:`LogFile.entries`),
    so memory stays flat however large the files are.

    * Without `reduce`: a bag of every non-None ``function(entry)``.
    * With `reduce`: a bag of one ``(path, value)`` per partition, where value
      is ``functools.reduce(reduce, map(function, entries), initial)`` —
      aggregate inside the tasks, combine the few results afterwards.

    `function` and `reduce` travel to the workers, so they must pickle
    (lambdas do, through cloudpickle).
    """
    import dask
    import dask.bag as db

    selection = dict(sources=sources, types=types, source_types=source_types, time=time)
    parts = partitions(expand_paths(paths_or_glob), partition_entries)
    task = dask.delayed(_run_partition, pure=False)
    return db.from_delayed([task(part, function, reduce, initial, selection, payload_as) for part in parts])


def _run_file(path: str, function: Callable[[str, LogFile], Any]) -> list:
    with LogFile.open(path) as f:
        return [(path, function(path, f))]


def map_files(paths_or_glob: Paths, function: Callable[[str, LogFile], Any]) -> "dask.bag.Bag":  # noqa: F821
    """A bag of ``(path, function(path, log_file))``, one task per file (opened read-only)."""
    import dask
    import dask.bag as db

    task = dask.delayed(_run_file, pure=False)
    return db.from_delayed([task(path, function) for path in expand_paths(paths_or_glob)])


__all__ = ["read_index", "map_entries", "map_files", "expand_paths", "partitions", "index_meta"]
