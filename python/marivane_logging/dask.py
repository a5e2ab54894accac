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

A fleet may hold files that cannot be read: missing, not log files,
damaged. By default (``on_error="raise"``) the first one stops the work
with an error naming it. With ``on_error="skip"`` each such file is left
out, and a :class:`SkippedFiles` given as ``skipped=`` says which and why::

        skipped = mld.SkippedFiles()
        index = mld.read_index("/data/fleet/*.mvlog", on_error="skip", skipped=skipped, progress=True)
        skipped.paths                      # files that did not open: known now
        (frame,) = skipped.compute(index)  # and files whose reading failed in a task
        for path, reason in skipped:
            print(path, reason)

With ``on_error="skip"`` the files are opened (read-only) when the
collection is built, so those that do not open are known at once and get no
partition. Damage that shows only while a partition is read gives an empty
partition (of the collection's columns and dtypes) in its place; it is
recorded when the collection, or one built from it, is computed through
:meth:`SkippedFiles.compute`, and logged on the ``marivane_logging.dask``
logger wherever the task ran (a plain ``.compute()`` gives the same result
without recording). ``progress=True`` writes how far the opening of the
files has come on stderr.
"""

from __future__ import annotations

import contextlib
import functools
import glob
import logging
import math
import os
import sys
import threading
import time as _time
import uuid
from typing import Any, Callable, Iterable, Iterator, List, NamedTuple, Optional, Sequence, Tuple, TypeVar, Union

import numpy as np
import pandas as pd

from ._errors import LogFileError
from ._logfile import LogFile, index_frame
from ._selection import Ids, Ints, Time, entry_order, time_bounds

PathLike = Union[str, "os.PathLike[str]"]
Paths = Union[PathLike, Iterable[PathLike]]
T = TypeVar("T")

_log = logging.getLogger(__name__)

#: What ``on_error`` takes: stop at the first file that cannot be read, or leave it out.
ON_ERROR = ("raise", "skip")


class SkippedFile(NamedTuple):
    """A file left out with ``on_error="skip"``: its path and why (the error's message, which names it)."""

    path: str
    reason: str


class SkippedFiles(Sequence[SkippedFile]):
    """The files that calls with ``on_error="skip"`` left out, each a :class:`SkippedFile`, in the order found.

    Give one as ``skipped=`` to :func:`read_index`, :func:`map_entries`,
    :func:`map_files` or :func:`partitions`. Files that do not open, or
    whose entries cannot be counted, are recorded when the collection is
    built. A file that opens but fails while a task reads it gives an empty
    partition; such failures are recorded by :meth:`compute`, which computes
    the collections and the failures of their tasks together (each task
    runs once). A file is recorded once per reason, however many calls or
    partitions meet it. Safe to share between threads.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._files: List[SkippedFile] = []
        # Per collection built with this report: the keys of its guarded
        # tasks, and a delayed list of the failures they met.
        self._pending: List[Tuple[frozenset, Any]] = []

    def __len__(self) -> int:
        with self._lock:
            return len(self._files)

    def __getitem__(self, index: Any) -> Any:
        with self._lock:
            return self._files[index]

    def __iter__(self) -> Iterator[SkippedFile]:
        with self._lock:
            return iter(list(self._files))

    def __repr__(self) -> str:
        return f"SkippedFiles({list(self)!r})"

    @property
    def paths(self) -> List[str]:
        """The paths of the files left out, each once."""
        return list(dict.fromkeys(skipped.path for skipped in self))

    def _add(self, path: str, reason: str) -> None:
        skipped = SkippedFile(path, reason)
        with self._lock:
            if skipped not in self._files:
                self._files.append(skipped)

    def _watch(self, tasks: List[Any]) -> None:
        import dask

        failures = dask.delayed(_failures, pure=False)([task[1] for task in tasks])
        with self._lock:
            self._pending.append((frozenset(task.key for task in tasks), failures))

    def _failures_of(self, collections: Sequence[Any]) -> List[Any]:
        names: set = set()
        for collection in collections:
            graph = collection.__dask_graph__()
            names.update(getattr(graph, "layers", graph).keys())
        with self._lock:
            return [failures for keys, failures in self._pending if keys & names]

    def compute(self, *collections: Any, progress: bool = False, **kwargs: Any) -> tuple:
        """``dask.compute(*collections, **kwargs)``, recording the files whose tasks failed.

        Answers what :func:`dask.compute` answers: a tuple of results, one
        per collection. The collections may be those the functions of this
        module answered or any built from them (``index.groupby(...).size()``).
        With ``progress=True`` a :class:`dask.diagnostics.ProgressBar` is drawn
        on stderr (on the local schedulers; a ``distributed`` client has its
        own dashboard).
        """
        import dask

        failures = self._failures_of(collections)
        if failures and kwargs.get("scheduler") is None and dask.config.get("scheduler", None) is None:
            # The failures are delayed values: the collections choose the scheduler.
            from dask.base import get_scheduler

            kwargs["scheduler"] = get_scheduler(collections=list(collections))
        if progress:
            from dask.diagnostics import ProgressBar

            bar: Any = ProgressBar(out=sys.stderr)
        else:
            bar = contextlib.nullcontext()
        # The collections and their failures share the partitions' tasks; fusing
        # a task into one of them alone would run it twice.
        unfused = dask.config.set({"optimization.fuse.active": False}) if failures else contextlib.nullcontext()
        with bar, unfused:
            results = dask.compute(*collections, *failures, **kwargs)
        for found in results[len(collections):]:
            for skipped in found:
                self._add(*skipped)
        return tuple(results[: len(collections)])


def _failures(found: List[Optional[SkippedFile]]) -> List[Tuple[str, str]]:
    return [tuple(skipped) for skipped in found if skipped is not None]


def _on_error(value: Any) -> str:
    if value not in ON_ERROR:
        raise ValueError(f"on_error is 'raise' or 'skip', not {value!r}")
    return value


@contextlib.contextmanager
def _naming(path: str) -> Iterator[None]:
    """Re-raises a LogFileError whose message does not name `path` with the path in front."""
    try:
        yield
    except LogFileError as error:
        if path in str(error) or getattr(error, "filename", None) == path:
            raise
        raise type(error)(f"'{path}': {error}").with_traceback(error.__traceback__) from None


class _Progress:
    """How far the opening of the files has come, on stderr: a line a second at most, and the last."""

    INTERVAL = 1.0

    def __init__(self, total: int, enabled: bool) -> None:
        self.total, self.enabled = total, enabled
        self.done = self.skipped = 0
        self.last = _time.monotonic()

    def _write(self, text: str) -> None:
        sys.stderr.write(f"marivane_logging.dask: {text}\n")
        sys.stderr.flush()

    def skip(self, reason: str) -> None:
        self.skipped += 1
        if self.enabled:
            self._write(f"skipped {reason}")

    def step(self) -> None:
        self.done += 1
        now = _time.monotonic()
        if self.enabled and (self.done == self.total or now - self.last >= self.INTERVAL):
            self.last = now
            skipped = f", {self.skipped} skipped" if self.skipped else ""
            self._write(f"{self.done}/{self.total} files opened{skipped}")


def _each_file(
    paths: Sequence[str],
    on_error: str,
    skipped: Optional[SkippedFiles],
    progress: bool,
    visit: Callable[[LogFile], T],
) -> List[Tuple[str, T]]:
    """``(path, visit(file))`` for each file opened read-only; with "skip", those that fail are recorded instead."""
    meter = _Progress(len(paths), progress)
    result: List[Tuple[str, T]] = []
    for path in paths:
        try:
            with _naming(path), LogFile.open(path) as f:
                result.append((path, visit(f)))
        except LogFileError as error:
            if on_error == "raise":
                raise
            _skip(skipped, path, str(error))
            meter.skip(str(error))
        meter.step()
    return result


def _skip(skipped: Optional[SkippedFiles], path: str, reason: str) -> None:
    _log.warning("left out: %s", reason)
    if skipped is not None:
        skipped._add(path, reason)


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
    on_error: str = "raise",
    skipped: Optional[SkippedFiles] = None,
    progress: bool = False,
) -> List[Part]:
    """The partitions of `paths`.

    Whole files; id ranges of at most `partition_entries` entries
    (``partition="id"``, implied by `partition_entries`); or with
    ``partition="time"`` (implied by `period` or `parts`) one
    :class:`TimePart` per window of `period` seconds from each file's first
    timestamp, or `parts` windows of equal span per file. A file without
    entries is one partition ``(path, None, None)`` whatever the partitioning.

    Id and time partitions open every file here; whole files are opened
    here only with ``on_error="skip"``, which leaves out (and records in
    `skipped`) each file that does not open or whose entries cannot be
    counted. With ``on_error="raise"`` the first such file raises its error,
    which names it. ``progress=True`` reports the opening on stderr.
    """
    how = _partitioning(partition, partition_entries, period, parts)
    on_error = _on_error(on_error)
    if how == "time":
        result: List[Part] = []
        for path, span in _each_file(paths, on_error, skipped, progress, lambda f: f.time_range()):
            if span is None:
                result.append((path, None, None))
                continue
            result.extend(TimePart(path, start, end) for start, end in _windows(span.first, span.last, period, parts))
        return result
    if partition_entries is None:
        if on_error == "skip":
            paths = [path for path, _ in _each_file(paths, on_error, skipped, progress, lambda f: None)]
        return [(path, None, None) for path in paths]
    if partition_entries < 1:
        raise ValueError("partition_entries must be positive")
    chosen: List[Part] = []
    bounds = _each_file(paths, on_error, skipped, progress, lambda f: (f.first_entry_id, f.last_entry_id))
    for path, (first, last) in bounds:
        if first is None or last is None:
            chosen.append((path, None, None))
            continue
        for start in range(first, last + 1, partition_entries):
            chosen.append((path, start, min(start + partition_entries - 1, last)))
    return chosen


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
    with _naming(path), LogFile.open(path) as f:
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
    on_error: str = "raise",
    skipped: Optional[SkippedFiles] = None,
    progress: bool = False,
) -> "dask.dataframe.DataFrame":  # noqa: F821
    """A dask DataFrame of every selected entry of many files, without payloads.

    Columns: file (absolute path), id, source, source_name, type, timestamp
    (UTC) and size (stored bytes). One partition per file, per id range of
    `partition_entries` entries, or per time window (see :func:`partitions`).
    Rows come in time order within each partition, or in id order with
    ``order="id"``. The selection arguments are those of
    :meth:`LogFile.index`; a relative `time` counts from each file's first entry.

    With ``on_error="raise"`` (the default) a file that cannot be read raises
    its error, naming it, when the collection is built or computed. With
    ``on_error="skip"`` every file is opened here: those that do not open
    have no partition, and a partition whose reading fails is empty; each
    such file is recorded in `skipped` (see :class:`SkippedFiles`).
    ``progress=True`` reports the opening of the files on stderr.
    """
    import dask.dataframe as dd

    on_error = _on_error(on_error)
    paths = expand_paths(paths_or_glob)
    selection = dict(sources=sources, types=types, source_types=source_types, time=time, order=entry_order(order))
    chosen = partitions(paths, partition_entries, partition=partition, period=period, parts=parts,
                        on_error=on_error, skipped=skipped, progress=progress)
    if on_error == "raise":
        return dd.from_map(
            _index_partition,
            _task_parts(chosen),
            selection=selection,
            meta=index_meta(),
            label="marivane-read-index",
            enforce_metadata=False,
        )
    tasks = _guarded_tasks("marivane-read-index", _index_partition, index_meta, _task_parts(chosen), skipped,
                           selection)
    if not tasks:
        return dd.from_pandas(index_meta(), npartitions=1)
    return dd.from_delayed([task[0] for task in tasks], meta=index_meta(), verify_meta=False)


def _run_partition(
    part: Part,
    function: Callable[[Any], Any],
    reduce: Optional[Callable[[Any, Any], Any]],
    initial: Any,
    selection: dict,
    payload_as: str,
) -> list:
    path = part[0]
    with _naming(path), LogFile.open(path) as f:
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
    on_error: str = "raise",
    skipped: Optional[SkippedFiles] = None,
    progress: bool = False,
) -> "dask.bag.Bag":  # noqa: F821
    """Runs `function(entry)` over the selected entries of many files in parallel.

    Each task streams one partition's entries (see :meth:`LogFile.entries`),
    so memory stays flat however large the files are.

    * Without `reduce`: a bag of every non-None ``function(entry)``.
    * With `reduce`: a bag of one ``(path, value)`` per partition, where value
      is ``functools.reduce(reduce, map(function, entries), initial)`` —
      aggregate inside the tasks, combine the few results afterwards.

    Partitions as for :func:`read_index`; each streams its entries in time
    order, or in id order with ``order="id"``. `on_error`, `skipped` and
    `progress` as for :func:`read_index`: with ``on_error="skip"`` a
    partition whose reading fails (a :class:`LogFileError` while it runs)
    contributes nothing, not even the values of the entries it read before
    the failure; other exceptions, those of `function` among them, still
    propagate.

    `function` and `reduce` travel to the workers, so they must pickle
    (lambdas do, through cloudpickle).
    """
    import dask

    on_error = _on_error(on_error)
    selection = dict(sources=sources, types=types, source_types=source_types, time=time, order=entry_order(order))
    chosen = partitions(expand_paths(paths_or_glob), partition_entries, partition=partition, period=period,
                        parts=parts, on_error=on_error, skipped=skipped, progress=progress)
    arguments = (function, reduce, initial, selection, payload_as)
    if on_error == "raise":
        task = dask.delayed(_run_partition, pure=False)
        return _bag([task(part, *arguments) for part in _task_parts(chosen)])
    tasks = _guarded_tasks("marivane-map-entries", _run_partition, list, _task_parts(chosen), skipped, *arguments)
    return _bag([task[0] for task in tasks])


def _run_file(part: Part, function: Callable[[str, LogFile], Any]) -> list:
    path = part[0]
    with _naming(path), LogFile.open(path) as f:
        return [(path, function(path, f))]


def _guarded(work: Callable[..., T], empty: Callable[[], T], part: Part, *arguments: Any) -> Tuple[T, Any]:
    """``(work(part, ...), None)``, or when reading the file fails ``(empty(), (path, reason))``."""
    try:
        return work(part, *arguments), None
    except LogFileError as error:
        _log.warning("left out: %s", error)
        return empty(), (part[0], str(error))


def _guarded_tasks(name: str, work: Callable[..., Any], empty: Callable[[], Any], chosen: List[tuple],
                   skipped: Optional[SkippedFiles], *arguments: Any) -> List[Any]:
    """One task per partition answering (its data, its failure or None); `skipped` watches their failures."""
    import dask

    token = uuid.uuid4().hex
    tasks = [
        dask.delayed(_guarded, pure=False)(work, empty, part, *arguments, dask_key_name=f"{name}-{token}-{number}")
        for number, part in enumerate(chosen)
    ]
    if skipped is not None and tasks:
        skipped._watch(tasks)
    return tasks


def _bag(tasks: List[Any]) -> "dask.bag.Bag":  # noqa: F821
    import dask.bag as db

    if not tasks:
        return db.from_sequence([], npartitions=1)
    return db.from_delayed(tasks)


def map_files(
    paths_or_glob: Paths,
    function: Callable[[str, LogFile], Any],
    *,
    on_error: str = "raise",
    skipped: Optional[SkippedFiles] = None,
    progress: bool = False,
) -> "dask.bag.Bag":  # noqa: F821
    """A bag of ``(path, function(path, log_file))``, one task per file (opened read-only).

    With ``on_error="skip"`` the files are opened here first: one that does
    not open is left out, and so is one whose task meets a
    :class:`LogFileError` (reading a damaged file in `function`); both are
    recorded in `skipped` as for :func:`read_index`. ``progress=True``
    reports that opening on stderr.
    """
    import dask

    on_error = _on_error(on_error)
    paths = expand_paths(paths_or_glob)
    if on_error == "raise":
        task = dask.delayed(_run_file, pure=False)
        return _bag([task((path,), function) for path in paths])
    opened = [(path,) for path, _ in _each_file(paths, on_error, skipped, progress, lambda f: None)]
    tasks = _guarded_tasks("marivane-map-files", _run_file, list, opened, skipped, function)
    return _bag([task[0] for task in tasks])


__all__ = [
    "read_index",
    "map_entries",
    "map_files",
    "expand_paths",
    "partitions",
    "index_meta",
    "TimePart",
    "SkippedFile",
    "SkippedFiles",
    "ON_ERROR",
]
