"""LogFile: one log file, open for reading or writing."""

from __future__ import annotations

import contextlib
import os
from dataclasses import dataclass, field
from typing import Any, Callable, Dict, Iterator, List, Optional, Tuple, Union

import numpy as np

from . import _core, _paths
from ._core import CopyReport, Durability, Entry, FailureKind
from ._encoding import ENCODING_PROPERTY, declared_encoding, decode
from ._selection import (
    INT32_MAX,
    INT32_MIN,
    Ids,
    Ints,
    SourceType,
    Time,
    TimeRange,
    compression_level,
    entry_order,
    filter_lists,
    int32,
    listed_sources,
    selection,
    source_id,
    source_type,
    to_datetime,
    to_ms,
)

PathLike = Union[str, "os.PathLike[str]"]
PropertyValue = Union[int, float, str]


# Entry is a named tuple made by the native module; what it derives from its
# fields is added here.
def _entry_datetime(entry: Entry) -> "datetime.datetime":  # noqa: F821
    return to_datetime(entry.timestamp)


def _entry_size(entry: Entry) -> int:
    return len(entry.payload)


def _entry_repr(entry: Entry) -> str:
    return (
        f"Entry(id={entry.id}, source={entry.source}, type={entry.type}, timestamp={entry.timestamp}, "
        f"size={len(entry.payload)})"
    )


Entry.datetime = property(_entry_datetime, doc="The timestamp as a timezone-aware datetime in UTC.")
Entry.size = property(_entry_size, doc="The payload's length in bytes.")
Entry.__repr__ = _entry_repr

#: Entries per chunk of a streaming read, and the payload bytes after which a
#: chunk ends early: a read holds at most about this much at once. Chunks that
#: stay in the processor's cache while Python takes them are the fastest.
CHUNK_ENTRIES = 256
CHUNK_BYTES = 1 << 20


@dataclass(frozen=True)
class DataSource:
    """A producer of entries: its id in the file, its type, its name and its properties."""

    id: int
    type: Union[SourceType, int]
    name: str
    properties: Dict[str, PropertyValue] = field(default_factory=dict)

    @property
    def encoding(self) -> Optional[str]:
        """The media type the source declares for its payloads (its text property ``"encoding"``), or None."""
        return declared_encoding(self.properties)


@dataclass(frozen=True)
class Bookmark:
    """A mark on one entry. Bookmarks are addressed by their entry id."""

    entry_id: int
    title: str
    comments: str = ""
    payload: bytes = b""


class LogFile:
    """One log file: entries of several data sources, metadata, resources, bookmarks.

    Open one with :meth:`LogFile.open` or make one with :meth:`LogFile.create`;
    both are context managers that close the file on exit::

        with LogFile.create("run.mvlog", application="probe", version="1.0") as f:
            gps = f.add_data_source(SourceType.NAVIGATION, "gps")
            f.add_property(gps, "rateHz", 10.0)
            with f.batch():                       # one transaction: fast
                for i in range(100):
                    f.log(gps, type=1, payload=b"fix", timestamp=1_700_000_000_000 + 100 * i)

        with LogFile.open("run.mvlog") as f:      # read-only unless asked
            print(f.metadata["applicationName"], len(f), f.time_range())
            for entry in f.entries(sources="gps", time=(start, end)):
                handle(entry.timestamp, entry.payload)
            table = f.to_pandas()                 # one row per entry, no payloads

    Reads stream: :meth:`entries` holds a bounded chunk of entries at a time,
    :meth:`index` builds a numpy array without a Python object per entry.
    They come in time order (ascending timestamp, equal timestamps by id)
    unless ``order="id"`` asks for the order the entries were written in.
    Times are what ``mvlog`` takes as well: ``"2026-11-21T11:58:05.5Z"`` or
    ``"+12.5"`` (seconds after the first entry).
    Failures raise :class:`LogFileError` subclasses with the library's message.
    A LogFile may be shared between threads; calls on one file take turns.

    The derived files (:func:`slice`, :func:`clone`, :func:`copy`,
    :func:`merge`) come back as a LogFile too, open read-only; the
    :class:`CopyReport` of a copy or a merge is its :attr:`report`.
    """

    __slots__ = ("_native", "_report", "__weakref__")

    def __init__(self, native: Any) -> None:
        """Not for direct use: call LogFile.open(path) or LogFile.create(path, ...)."""
        if not isinstance(native, _core._LogFile):
            raise TypeError("use LogFile.open(path) or LogFile.create(path, application=..., version=...)")
        self._native = native
        self._report: Optional[CopyReport] = None

    # ---- opening ------------------------------------------------------------
    @classmethod
    def open(cls, path: PathLike, read_only: bool = True) -> "LogFile":
        """Opens an existing log file.

        With ``read_only=True`` (the default) nothing in the file is ever
        changed and a missing file is an error; every write raises
        :class:`ReadOnlyError`. With ``read_only=False`` a missing file or an
        empty database becomes an empty log file, and writes are allowed.

        Raises :class:`LogFileNotFoundError` (a ``FileNotFoundError``) when
        nothing is at `path` (or, for writing, when its directory is missing),
        :class:`LogFileIsADirectoryError` (an ``IsADirectoryError``) for a
        directory, ValueError for an empty path, and otherwise
        :class:`NotALogFileError`, :class:`LegacyLogFileError`,
        :class:`BusyError` or :class:`DatabaseError` with a message that names
        the path.
        """
        path = _paths.existing(path) if read_only else _paths.writable(path)
        with _paths.naming(path):
            return cls(_core._LogFile.open(path, bool(read_only)))

    @classmethod
    def create(
        cls,
        path: PathLike,
        application: str,
        version: str,
        time_zone: str = "Etc/UTC",
        level: int = -1,
        durability: Durability = Durability.FAST,
        created: Optional[Time] = None,
        checksums: bool = False,
    ) -> "LogFile":
        """Creates a log file and writes its fixed metadata.

        `application` and `version` name the program that records; `level` is
        the zstd compression level of payloads (-1 is the codec's default, 0
        stores them uncompressed); `durability` is kept by the file
        (:attr:`Durability.SAFE` survives crashes at some cost in speed);
        `created` defaults to now. With ``checksums=True`` the file keeps a
        checksum of every entry's stored payload, so that damage inside a
        payload can be told from data (``verify_checksums`` of :meth:`entries`
        and :meth:`visit`, :func:`recover`); a file created without them is
        exactly what it always was. An existing file is refused
        (:class:`FileExistsError`): the library would keep its metadata. A
        missing directory raises :class:`LogFileNotFoundError`, an empty path
        ValueError.
        """
        path = _paths.given(path)
        if os.path.exists(path):
            raise FileExistsError(f"'{path}' exists: LogFile.create makes new files only")
        path = _paths.writable(path)
        native = _core._LogFile.create(
            path,
            application,
            version,
            time_zone,
            compression_level(level),
            durability,
            None if created is None else to_ms(created),
            bool(checksums),
        )
        return cls(native)

    def close(self) -> None:
        """Closes the file (committing an open batch). Closing twice is harmless.

        Raises RuntimeError when called from a :meth:`visit` callback of this file.
        """
        self._native.close()

    @property
    def closed(self) -> bool:
        return not self._native.is_open

    def _require_open(self) -> None:
        # What the native calls raise on a closed file.
        if not self._native.is_open:
            raise ValueError("I/O operation on a closed log file")

    def __enter__(self) -> "LogFile":
        return self

    def __exit__(self, *exc_info: Any) -> None:
        self.close()

    def __repr__(self) -> str:
        if self.closed:
            return "<LogFile (closed)>"
        mode = "read-only" if self.read_only else "read-write"
        return f"<LogFile '{self.path}' {mode}>"

    # ---- the file -----------------------------------------------------------
    @property
    def path(self) -> str:
        return self._native.path

    @property
    def read_only(self) -> bool:
        return self._native.read_only

    @property
    def report(self) -> Optional[CopyReport]:
        """What :func:`copy` or :func:`merge` wrote into this file, when this handle is the one it answered.

        None for every other handle (opened, created, or made by
        :func:`slice` or :func:`clone`). It stays readable after
        :meth:`close`.
        """
        return self._report

    @property
    def durability(self) -> Durability:
        return self._native.durability

    @property
    def has_checksums(self) -> bool:
        """Whether the file keeps a checksum of every entry (chosen when it was created)."""
        return self._native.has_checksums

    @property
    def failure_count(self) -> int:
        """Failures inside the database since opening (see the library's getFailureCount)."""
        return self._native.failure_count

    @property
    def last_failure(self) -> str:
        """The message of the most recent failure; empty before the first."""
        return self._native.last_failure

    @property
    def last_failure_kind(self) -> FailureKind:
        return self._native.last_failure_kind

    # ---- what the file holds ------------------------------------------------
    @property
    def metadata(self) -> Dict[str, PropertyValue]:
        """The file's metadata as a dict (integers come back as int, whatever their width)."""
        return dict(self._native.metadata())

    @property
    def data_sources(self) -> List[DataSource]:
        """The data sources in the file's order, each with its properties as a dict.

        Property keys need not be unique in a file; the dict keeps the last
        value of a repeated key.
        """
        sources, properties = self._native.data_sources()
        by_source: Dict[int, Dict[str, PropertyValue]] = {}
        for source, key, value in properties:
            by_source.setdefault(source, {})[key] = value
        return [DataSource(id, source_type(type), name, by_source.get(id, {})) for id, type, name in sources]

    def data_source(self, name_or_id: Union[str, int]) -> DataSource:
        """One data source by name or id (KeyError when there is none)."""
        for source in self.data_sources:
            if source.name == name_or_id or (not isinstance(name_or_id, str) and source.id == name_or_id):
                return source
        raise KeyError(name_or_id)

    @property
    def resources(self) -> Dict[str, bytes]:
        """The named resources (the thumbnail among them) as a dict of bytes."""
        return dict(self._native.resources())

    @property
    def thumbnail(self) -> Optional[bytes]:
        """The "thumbnail" resource, or None."""
        return self._native.thumbnail()

    @property
    def bookmarks(self) -> List[Bookmark]:
        """The bookmarks in the file's order."""
        return [Bookmark(*fields) for fields in self._native.bookmarks()]

    def __len__(self) -> int:
        return self._native.entry_count()

    @property
    def first_entry_id(self) -> Optional[int]:
        """The lowest entry id, or None for a file without entries."""
        value = self._native.first_entry_id()
        return None if value < 0 else value

    @property
    def last_entry_id(self) -> Optional[int]:
        """The highest entry id, or None for a file without entries."""
        value = self._native.last_entry_id()
        return None if value < 0 else value

    def __contains__(self, entry_id: object) -> bool:
        if not isinstance(entry_id, (int, np.integer)) or isinstance(entry_id, bool):
            return False
        entry_id = int(entry_id)
        # Entry ids are 32-bit: no file holds an entry beyond.
        if not INT32_MIN <= entry_id <= INT32_MAX:
            self._require_open()
            return False
        return self._native.has_entry(entry_id)

    def __getitem__(self, entry_id: int) -> Entry:
        """The entry with this id (payload as bytes); KeyError when there is none (ids beyond 32 bits included)."""
        if isinstance(entry_id, bool) or not isinstance(entry_id, (int, np.integer)):
            raise TypeError(f"entries are indexed by their int id, not {type(entry_id).__name__}")
        if not INT32_MIN <= int(entry_id) <= INT32_MAX:
            self._require_open()
            raise KeyError(entry_id)
        entry = _core._read_entry(self._native, int(entry_id))
        if entry is None:
            raise KeyError(entry_id)
        return entry

    def __iter__(self) -> Iterator[Entry]:
        return self.entries()

    def _names(self, sources: Ids) -> Optional[Dict[str, int]]:
        # The ids of the data sources named in `sources`; KeyError naming the
        # file for a name none of its sources has.
        if sources is None:
            return None
        values = [sources] if isinstance(sources, (str, int)) else list(sources)
        if not any(isinstance(value, str) for value in values):
            return None
        names = {source.name: source.id for source in self.data_sources}
        for value in values:
            if isinstance(value, str) and value not in names:
                raise KeyError(f"no data source named {value!r} in '{self.path}'")
        return names

    def _first_timestamp(self) -> int:
        # A relative time counts from the first entry, as mvlog counts it.
        first = self.first_entry_id
        rows = None if first is None else _core._index(
            self._native, **selection(first, first, None, None, None, None)
        )
        if rows is None or len(rows) == 0:
            raise ValueError(
                f"a time relative to the first entry needs a file with entries: '{self.path}' has none"
            )
        return int(rows["timestamp"][0])

    # ---- streaming reads ----------------------------------------------------
    def entries(
        self,
        start: Optional[int] = None,
        end: Optional[int] = None,
        *,
        sources: Ids = None,
        types: Ints = None,
        source_types: Ints = None,
        time: Optional[Tuple[Optional[Time], Optional[Time]]] = None,
        payload_as: str = "bytes",
        verify_checksums: bool = False,
        order: str = "time",
    ) -> Iterator[Entry]:
        """Streams the selected entries in time order, or with ``order="id"`` in id order.

        Each entry is a named tuple ``(id, source, type, timestamp, payload)``
        with ``.datetime`` (UTC) and ``.size`` besides.

        `start` and `end` are entry ids (inclusive); `sources` data-source ids
        or names; `types` entry types; `source_types` data-source types; `time`
        a (start, end) pair of times (ms ints, aware datetimes, datetime64, ISO
        8601 text or ``"+seconds"`` after the first entry), inclusive, either
        may be None. Time order is ascending timestamp, equal timestamps by id. The lists are alternatives; the
        arguments combine with AND.

        `payload_as` chooses the payload's form:

        * ``"bytes"`` (default): each payload its own ``bytes``.
        * ``"memoryview"`` / ``"numpy"``: read-only views (uint8 arrays) into a
          buffer shared by the entries of one chunk (up to 256 entries or
          1 MiB, or one larger payload). A view stays valid as long as you hold it, and holding it
          keeps its whole chunk in memory: take ``bytes(view)`` to keep one
          payload for long.
        * ``"auto"``: each payload as what its source declares it is
          (:attr:`DataSource.encoding`), or what its first bytes say when the
          source declares nothing: images as numpy arrays, JSON as objects,
          text as ``str``, anything else as ``bytes`` (see :func:`decode`).

        With ``verify_checksums=True``, in a file that keeps checksums
        (:attr:`has_checksums`), each stored payload is compared with the
        checksum written with it: an entry that does not match, or has none,
        raises :class:`DamagedError` naming the entry and the file, as a
        payload that does not expand does. Files without checksums read as
        they always do.

        For zero-copy access use :meth:`visit`.
        """
        sources = listed_sources(sources)
        names = self._names(sources)
        entries = _core._entries(
            self._native,
            **selection(start, end, sources, types, source_types, time, names, self._first_timestamp),
            payload_as="bytes" if payload_as == "auto" else payload_as,
            chunk_entries=CHUNK_ENTRIES,
            chunk_bytes=CHUNK_BYTES,
            verify_checksums=bool(verify_checksums),
            order=entry_order(order),
        )
        if payload_as != "auto":
            return entries
        declared = {source.id: source.encoding for source in self.data_sources}
        return (Entry((e.id, e.source, e.type, e.timestamp, decode(e.payload, declared.get(e.source)))) for e in entries)

    def visit(
        self,
        callback: Callable[[Entry], Optional[bool]],
        start: Optional[int] = None,
        end: Optional[int] = None,
        *,
        sources: Ids = None,
        types: Ints = None,
        source_types: Ints = None,
        time: Optional[Tuple[Optional[Time], Optional[Time]]] = None,
        payload_as: str = "memoryview",
        verify_checksums: bool = False,
        order: str = "time",
    ) -> int:
        """Calls `callback(entry)` for each selected entry; answers how many it saw.

        The entries come in time order, or with ``order="id"`` in id order;
        the selection is as in :meth:`entries`.

        With ``payload_as="memoryview"`` (the default) the payload is a
        read-only view of a buffer the visit reuses from entry to entry, no
        bytes object per payload: it is valid during the call only and
        released when the callback returns (using it later raises
        ValueError). A slice of it, or an array made from it, that the
        callback keeps stays valid with its own bytes. Return False from the
        callback to stop. An exception from the callback ends the read and
        propagates. Compressed payloads are expanded on every core while the
        callback runs, still handed over in order.

        The callback may read this file (look entries up, visit again), but
        closing the file or writing to it while the visit walks it raises
        RuntimeError: close or write after visit() returns.

        ``verify_checksums=True`` compares each stored payload with its
        checksum, as in :meth:`entries`: the visit ends at the first entry
        that does not match (the callback has seen the entries before it) and
        raises :class:`DamagedError`.
        """
        sources = listed_sources(sources)
        names = self._names(sources)
        return _core._visit(
            self._native,
            callback,
            **selection(start, end, sources, types, source_types, time, names, self._first_timestamp),
            payload_as=payload_as,
            verify_checksums=bool(verify_checksums),
            order=entry_order(order),
        )

    def index(
        self,
        start: Optional[int] = None,
        end: Optional[int] = None,
        *,
        sources: Ids = None,
        types: Ints = None,
        source_types: Ints = None,
        time: Optional[Tuple[Optional[Time], Optional[Time]]] = None,
        order: str = "time",
    ) -> np.ndarray:
        """The selected entries without payloads, as a numpy structured array.

        Rows in time order, or with ``order="id"`` in id order; the selection
        is as in :meth:`entries`.

        Fields: ``id`` (int32), ``source`` (int8), ``type`` (int32),
        ``timestamp`` (int64 ms since the epoch, UTC) and ``size`` (int64: the
        payload's size as stored, compressed when the file compresses). Built
        in C++ without a Python object per entry.
        """
        sources = listed_sources(sources)
        names = self._names(sources)
        return _core._index(
            self._native,
            **selection(start, end, sources, types, source_types, time, names, self._first_timestamp),
            order=entry_order(order),
        )

    def to_pandas(
        self,
        start: Optional[int] = None,
        end: Optional[int] = None,
        *,
        sources: Ids = None,
        types: Ints = None,
        source_types: Ints = None,
        time: Optional[Tuple[Optional[Time], Optional[Time]]] = None,
        order: str = "time",
    ) -> "pandas.DataFrame":  # noqa: F821
        """:meth:`index` as a pandas DataFrame (rows in time order unless ``order="id"``).

        Columns: id, source, source_name (categorical), type, timestamp
        (timezone-aware UTC: ``datetime64[ms, UTC]`` with pandas 2, nanosecond
        resolution with older pandas) and size (stored bytes).
        """
        rows = self.index(
            start, end, sources=sources, types=types, source_types=source_types, time=time, order=order
        )
        names = {source.id: source.name for source in self.data_sources}
        return index_frame(rows, names)

    # ---- time ---------------------------------------------------------------
    def time_range(
        self, *, sources: Ids = None, types: Ints = None, source_types: Ints = None
    ) -> Optional[TimeRange]:
        """The first and last timestamp of the selected entries, or None when there are none."""
        sources = listed_sources(sources)
        value = self._native.time_range(**filter_lists(sources, types, source_types, self._names(sources)))
        return None if value is None else TimeRange(*value)

    def find_entry_at_or_after(
        self, timestamp: Time, *, sources: Ids = None, types: Ints = None, source_types: Ints = None
    ) -> Optional[int]:
        """The id of the earliest entry at or after `timestamp` (lowest id among equals), or None."""
        sources = listed_sources(sources)
        return self._native.find_entry_at_or_after(
            to_ms(timestamp, self._first_timestamp), **filter_lists(sources, types, source_types, self._names(sources))
        )

    def create_time_index(self) -> None:
        """Builds the index on timestamps that makes time queries fast (idempotent; writes the file)."""
        self._native.create_time_index()

    @property
    def has_time_index(self) -> bool:
        return self._native.has_time_index

    # ---- writing ------------------------------------------------------------
    def add_data_source(self, type: int, name: str) -> int:
        """Adds a data source and answers the id the file gave it."""
        return self._native.add_data_source(int32(type, "type"), name)

    def add_property(self, source: int, key: str, value: PropertyValue) -> None:
        """Attaches a key/value property (int, float or str) to a data source."""
        if isinstance(value, bool) or not isinstance(value, (int, float, str)):
            raise TypeError(f"property values are int, float or str, not {type(value).__name__}")
        self._native.add_property(source_id(source), key, value)

    def add_encoding(self, source: int, media_type: str) -> None:
        """Declares the media type of a source's payloads (``ml.Encoding.PNG``, ``"application/json"``, ...).

        It is the text property ``"encoding"``, added like any property.
        """
        self.add_property(source, ENCODING_PROPERTY, str(media_type))

    def log(self, source: int, type: int, payload: Any, timestamp: Optional[Time] = None) -> None:
        """Appends an entry: `payload` is any bytes-like object; `timestamp` defaults to now.

        A data-source id beyond 8 bits raises ValueError, a type beyond 32 bits
        or a timestamp beyond 64 bits OverflowError.
        """
        timestamp = None if timestamp is None else to_ms(timestamp)
        try:
            self._native.log(int(source), int(type), payload, timestamp)
        except TypeError:
            # The native call refuses ints wider than its own with a TypeError
            # that names no argument; checked here only then, off the fast path.
            source_id(source)
            int32(type, "type")
            raise

    @contextlib.contextmanager
    def batch(self) -> Iterator["LogFile"]:
        """Groups the writes of a ``with`` block into one transaction (much faster).

        A batch is about speed, not atomicity: what was written is kept even
        when the block raises. Leaving the block commits; a failed commit
        raises.
        """
        self._native.begin_batch()
        try:
            yield self
        except BaseException:
            with contextlib.suppress(Exception):
                self._native.commit_batch()
            raise
        self._native.commit_batch()

    def add_metadata(self, key: str, value: PropertyValue) -> None:
        """Adds a metadata entry; an existing key is refused (:class:`RefusedError`)."""
        if isinstance(value, bool) or not isinstance(value, (int, float, str)):
            raise TypeError(f"metadata values are int, float or str, not {type(value).__name__}")
        self._native.add_metadata(key, value)

    def add_resource(self, name: str, data: Any) -> None:
        """Adds a named resource; an existing name is refused (:class:`RefusedError`)."""
        self._native.add_resource(name, data)

    def set_metadata(self, key: str, value: PropertyValue) -> None:
        """Gives `key` this value, replacing the one it has (or adding the key).

        The six keys a file is created with (createdDateTime, applicationName,
        applicationVersion, currentTimeZone, logVersion, compressionLevel) are
        refused with :class:`RefusedError`: readers rely on them.
        """
        if isinstance(value, bool) or not isinstance(value, (int, float, str)):
            raise TypeError(f"metadata values are int, float or str, not {type(value).__name__}")
        self._native.set_metadata(key, value)

    def remove_metadata(self, key: str) -> None:
        """Removes `key`; a missing or fixed key raises :class:`RefusedError`."""
        self._native.remove_metadata(key)

    def replace_resource(self, name: str, data: Any) -> None:
        """Gives the resource `name` these bytes (adding it if absent), stored as
        :meth:`add_resource` stores them, so a replaced thumbnail reads back."""
        self._native.replace_resource(name, data)

    def remove_resource(self, name: str) -> None:
        """Removes the resource `name`; a missing one raises :class:`RefusedError`."""
        self._native.remove_resource(name)

    def set_thumbnail(self, data: Any) -> None:
        """Replaces the thumbnail (stored uncompressed), or adds one."""
        self._native.set_thumbnail(data)

    def add_bookmark(self, entry_id: int, title: str, comments: str = "", payload: Any = None) -> None:
        """Marks an entry."""
        self._native.add_bookmark(int32(entry_id, "entry_id"), title, comments, payload)

    def update_bookmark(self, entry_id: int, title: str, comments: str = "", payload: Any = None) -> None:
        """Rewrites every bookmark of `entry_id`."""
        self._native.update_bookmark(int32(entry_id, "entry_id"), title, comments, payload)

    def remove_bookmark(self, entry_id: int) -> None:
        """Removes every bookmark of `entry_id`."""
        self._native.remove_bookmark(int32(entry_id, "entry_id"))


def index_frame(rows: np.ndarray, names: Dict[int, str]) -> "pandas.DataFrame":  # noqa: F821
    """A DataFrame of index rows (shared with marivane_logging.dask)."""
    import pandas as pd

    timestamps = pd.to_datetime(rows["timestamp"], unit="ms", utc=True)
    if int(pd.__version__.split(".")[0]) >= 2:
        timestamps = timestamps.astype("datetime64[ms, UTC]")
    categories = sorted(set(names.values()))
    source_names = pd.Categorical(pd.Series(rows["source"]).map(names), categories=categories)
    return pd.DataFrame(
        {
            "id": rows["id"],
            "source": rows["source"],
            "source_name": source_names,
            "type": rows["type"],
            "timestamp": timestamps,
            "size": rows["size"],
        }
    )


__all__ = ["LogFile", "DataSource", "Bookmark"]
