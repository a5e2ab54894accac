"""Recorder: records into a new log file from many threads without waiting for the disk."""

from __future__ import annotations

import datetime as _dt
import math
import operator
import os
from dataclasses import dataclass
from typing import Any, Optional, Union

from . import _core, _paths
from ._core import Durability, OverflowPolicy
from ._selection import INT64_MAX, Time, compression_level, int32, source_id, to_ms, uint64

PathLike = Union[str, "os.PathLike[str]"]
PropertyValue = Union[int, float, str]

_POLICIES = {
    "block": OverflowPolicy.BLOCK,
    "drop_newest": OverflowPolicy.DROP_NEWEST,
    "refuse": OverflowPolicy.REFUSE,
}


@dataclass(frozen=True)
class RecorderStats:
    """What a :class:`Recorder` has done so far (a snapshot).

    Of the entries :meth:`Recorder.record` took (`accepted`): `written` were
    committed to the file, `failed` were not written because the file refused
    them (an unknown data source) or the writer failed. Entries record() turned
    away are `dropped` (overflow ``"drop_newest"``) or `refused` (overflow
    ``"refuse"``, or recorded after the recorder stopped). `bytes_in` are the
    payload bytes accepted, `bytes_stored` those stored for the written entries
    (compressed when the file compresses); `queue_high_water_bytes` the most
    payload bytes that waited in the queue at once. `max_latency_us` is the
    longest time, in microseconds, from record() to the commit that made an
    entry durable (`max_latency` is the same in seconds). `last_error` says why
    the recorder stopped, or what the file last refused; empty when nothing
    went wrong. `late` counts the written entries whose timestamp is earlier
    than that of an entry written before them: out of time order in the file
    despite the recorder's `reorder_window` (every such entry without one).
    """

    accepted: int
    written: int
    dropped: int
    refused: int
    failed: int
    bytes_in: int
    bytes_stored: int
    queue_high_water_bytes: int
    max_latency_us: int
    last_error: str
    late: int = 0

    @property
    def max_latency(self) -> float:
        """The longest time from record() to commit, in seconds."""
        return self.max_latency_us / 1e6


def _overflow_policy(value: Union[str, OverflowPolicy]) -> OverflowPolicy:
    if isinstance(value, OverflowPolicy):
        return value
    if isinstance(value, str):
        try:
            return _POLICIES[value.lower()]
        except KeyError:
            pass
    raise ValueError(f"overflow is one of {', '.join(repr(name) for name in _POLICIES)} or an OverflowPolicy, "
                     f"not {value!r}")


def _delay_ms(value: Union[float, int, _dt.timedelta], name: str = "max_commit_delay") -> int:
    if isinstance(value, _dt.timedelta):
        seconds = value.total_seconds()
    elif isinstance(value, (int, float)) and not isinstance(value, bool):
        seconds = float(value)
    else:
        raise TypeError(f"{name} is seconds (a float) or a timedelta, not {type(value).__name__}")
    if math.isnan(seconds) or seconds < 0:
        raise ValueError(f"{name} must be 0 or more seconds, not {value!r}")
    # The library counts whole milliseconds: round up, so that a short delay
    # is not turned into "commit every entry at once" by accident.
    if seconds * 1000 > INT64_MAX:
        raise OverflowError(f"{name} must fit in 64 bits of milliseconds: {value!r} is out of range")
    return math.ceil(seconds * 1000 - 1e-9)


def _check_record_ints(source: Any, type: Any) -> None:
    try:
        source, type = operator.index(source), operator.index(type)
    except TypeError:
        return  # not ints: the native TypeError says so
    source_id(source)
    int32(type, "type")


class Recorder:
    """Records into a new log file from any number of threads at once.

    :meth:`record` only queues the entry and returns: compression runs on a
    pool of native threads and one writer thread inserts the entries, committing
    at least every `max_commit_delay`. Entries are stored in the order record()
    accepted them, across threads, so each thread's entries keep their order
    (or in time order, with a `reorder_window`)::

        with ml.Recorder("run.mvlog", application="probe", version="1.0") as rec:
            cam = rec.add_data_source(ml.SourceType.CAMERA, "cam")
            rec.record(cam, 1, frame_bytes)          # from any thread; True when accepted
            rec.flush()                              # everything so far is committed
            print(rec.stats.written, rec.stats.max_latency)

    `application`, `version`, `time_zone`, `level` and `durability` are the new
    file's settings, as for :meth:`LogFile.create`; the recorder's durability
    is :attr:`Durability.BALANCED` unless told otherwise (a journal on disk
    without flushes: every committed entry survives a kill of the process,
    at nearly the speed of :attr:`Durability.FAST`; :attr:`Durability.SAFE`
    also survives power cuts). `queue_bytes` is the budget of payload bytes
    that may wait in the queue; when it is full, `overflow` decides:
    ``"block"`` (the default) waits for room, ``"drop_newest"`` and
    ``"refuse"`` return False at once and count the entry as dropped or
    refused. `compression_threads` = 0 uses the cores but one.

    `reorder_window` (seconds of timestamps, or a timedelta; 0, the default,
    is off) writes the file in time order when sources lag each other by less
    than it: each entry is held until one at least that much later (by
    timestamp) was recorded, and the held entries are written by timestamp
    (equal timestamps in the order recorded). Entry ids then follow time, not
    the order of record() calls. An entry that arrives after a later one was
    written is written anyway and counted in :attr:`RecorderStats.late`.
    :meth:`flush`, :meth:`close` and the other calls write everything held
    first. `build_time_index` (True by default) builds the time index when the
    recorder closes, so the file answers time queries without a scan.
    `checksums` (False by default) makes a file that keeps a checksum of every
    entry, as :meth:`LogFile.create` does with it.

    The path must not exist (:class:`FileExistsError`), its directory must
    (:class:`LogFileNotFoundError`), and it must not be empty (ValueError).

    Data sources, properties, metadata, resources and bookmarks go through the
    same queue, keep their place among the entries, and wait for the writer.
    Every call that waits releases the GIL, so other Python threads go on
    recording meanwhile; record() releases it too when it may block.

    A failure of the writer (a full disk, an I/O error) never raises in
    record(): the recorder stops accepting (record() returns False),
    :attr:`stats` says why, and what was committed stays in the file.
    :meth:`flush` and :meth:`close` then raise :class:`LogFileError`.
    """

    __slots__ = ("_native", "__weakref__")

    def __init__(
        self,
        path: PathLike,
        *,
        application: str,
        version: str,
        time_zone: str = "Etc/UTC",
        level: int = -1,
        durability: Durability = Durability.BALANCED,
        queue_bytes: int = 256 << 20,
        compression_threads: int = 0,
        max_commit_delay: Union[float, _dt.timedelta] = 0.1,
        max_transaction_entries: int = 65536,
        overflow: Union[str, OverflowPolicy] = "block",
        reorder_window: Union[float, _dt.timedelta] = 0,
        build_time_index: bool = True,
        checksums: bool = False,
    ) -> None:
        path = _paths.given(path)
        if os.path.lexists(path):
            raise FileExistsError(f"'{path}' exists: Recorder makes new files only")
        path = _paths.writable(path)
        queue_bytes = int(queue_bytes)
        if queue_bytes < 0:
            raise ValueError(f"queue_bytes must be 0 or more, not {queue_bytes}")
        queue_bytes = uint64(queue_bytes, "queue_bytes")
        compression_threads = int(compression_threads)
        if compression_threads < 0:
            raise ValueError("compression_threads must be 0 (automatic) or more")
        compression_threads = int32(compression_threads, "compression_threads")
        max_transaction_entries = int(max_transaction_entries)
        if max_transaction_entries < 1:
            raise ValueError("max_transaction_entries must be 1 or more")
        max_transaction_entries = uint64(max_transaction_entries, "max_transaction_entries")
        self._native = _core._Recorder(
            path,
            application,
            version,
            time_zone,
            compression_level(level),
            durability,
            queue_bytes,
            compression_threads,
            _delay_ms(max_commit_delay),
            max_transaction_entries,
            _overflow_policy(overflow),
            _delay_ms(reorder_window, "reorder_window"),
            bool(build_time_index),
            bool(checksums),
        )

    # ---- life ---------------------------------------------------------------
    def close(self) -> None:
        """Commits everything accepted, stops the threads and closes the file.

        Waits without the GIL. Closing twice is harmless; record() returns
        False afterwards and the other calls raise ValueError. Raises
        :class:`LogFileError` when the writer had failed (see :attr:`stats`).
        """
        self._native.close()

    @property
    def closed(self) -> bool:
        return not self._native.is_open

    def __enter__(self) -> "Recorder":
        return self

    def __exit__(self, exc_type: Any, *rest: Any) -> None:
        if exc_type is None:
            self.close()
            return
        # Do not hide the block's own exception behind the writer's.
        try:
            self.close()
        except Exception:
            pass

    def __repr__(self) -> str:
        state = "closed" if self.closed else "open"
        return f"<Recorder '{self.path}' {state}>"

    @property
    def path(self) -> str:
        return self._native.path

    @property
    def overflow(self) -> OverflowPolicy:
        return self._native.overflow

    @property
    def durability(self) -> Durability:
        """The durability the file is written with (:attr:`Durability.BALANCED` unless told otherwise)."""
        return self._native.durability

    @property
    def reorder_window(self) -> float:
        """The reorder window in seconds (0: entries are written in the order recorded)."""
        return self._native.reorder_window_ms / 1000

    @property
    def build_time_index(self) -> bool:
        """Whether closing builds the file's time index."""
        return self._native.build_time_index

    # ---- recording ----------------------------------------------------------
    def record(self, source: int, type: int, payload: Any, timestamp: Optional[Time] = None) -> bool:
        """Queues one entry; True when accepted.

        `payload` is any contiguous bytes-like object (bytes, bytearray,
        memoryview, numpy array): it is copied before record() returns, so the
        caller may reuse it. `timestamp` defaults to now (milliseconds since
        the epoch, an aware datetime or a datetime64). False when the entry was
        dropped or refused under the overflow policy, or the recorder has
        stopped (failed or closed). An entry of an unknown data source is
        accepted here and counted as failed when the file refuses it. A
        data-source id beyond 8 bits raises ValueError, a type beyond 32 bits
        or a timestamp beyond 64 bits OverflowError.
        """
        timestamp = None if timestamp is None else to_ms(timestamp)
        try:
            return self._native.record(source, type, payload, timestamp)
        except TypeError:
            # The native call refuses ints wider than its own with a TypeError
            # that names no argument; checked here only then, off the fast path.
            _check_record_ints(source, type)
            raise

    def add_data_source(self, type: int, name: str) -> int:
        """Adds a data source in queue order; waits for the writer and answers its id."""
        return self._native.add_data_source(int32(type, "type"), name)

    def add_property(self, source: int, key: str, value: PropertyValue) -> None:
        """Attaches a key/value property (int, float or str) to a data source."""
        if isinstance(value, bool) or not isinstance(value, (int, float, str)):
            raise TypeError(f"property values are int, float or str, not {type(value).__name__}")
        self._native.add_property(source_id(source), key, value)

    def add_encoding(self, source: int, media_type: str) -> None:
        """Declares the media type of a source's payloads: the text property ``"encoding"``."""
        self.add_property(source, "encoding", str(media_type))

    def add_metadata(self, key: str, value: PropertyValue) -> None:
        """Adds a metadata entry; an existing key is refused (:class:`RefusedError`)."""
        if isinstance(value, bool) or not isinstance(value, (int, float, str)):
            raise TypeError(f"metadata values are int, float or str, not {type(value).__name__}")
        self._native.add_metadata(key, value)

    def add_resource(self, name: str, data: Any) -> None:
        """Adds a named resource; an existing name is refused (:class:`RefusedError`)."""
        self._native.add_resource(name, data)

    def add_bookmark(self, entry_id: int, title: str, comments: str = "", payload: Any = b"") -> None:
        """Marks an entry by its id: the n-th accepted entry has id n in a new file (without a reorder window)."""
        self._native.add_bookmark(int32(entry_id, "entry_id"), title, comments, payload)

    def flush(self) -> None:
        """Returns once everything accepted before the call is committed (visible to readers).

        Waits without the GIL. Raises :class:`LogFileError` when the writer
        has failed.
        """
        self._native.flush()

    @property
    def stats(self) -> RecorderStats:
        """A snapshot of the counters (:class:`RecorderStats`)."""
        return RecorderStats(*self._native.stats())


__all__ = ["Recorder", "RecorderStats", "OverflowPolicy"]
