"""marivane_logging: record and replay multi-source sensor log files from Python.

A log file is one SQLite database of timestamped, compressed payloads from
several data sources, with typed properties, file metadata, named resources
(the thumbnail among them) and bookmarks.

Reading::

    import marivane_logging as ml

    with ml.LogFile.open("survey.mvlog") as f:
        f.metadata                       # {"applicationName": "...", ...}
        f.data_sources                   # [DataSource(id=1, type=CAMERA, name="cam", properties={...}), ...]
        len(f), f.time_range()           # entry count, TimeRange(first=..., last=...)
        f[1]                             # Entry(id=1, ...); KeyError when absent
        for e in f.entries(sources="gnss", time=(t0, t1)):
            e.id, e.source, e.type, e.timestamp, e.datetime, e.payload
        f.index()                        # numpy structured array, no payloads
        f.to_pandas()                    # the same as a DataFrame

Writing::

    with ml.LogFile.create("new.mvlog", application="probe", version="1.0") as f:
        cam = f.add_data_source(ml.SourceType.CAMERA, "cam")
        with f.batch():
            f.log(cam, type=1, payload=b"...", timestamp=1_700_000_000_000)

Recording from capture threads (record() queues and returns; native threads
compress and write)::

    with ml.Recorder("run.mvlog", application="probe", version="1.0", overflow="drop_newest") as rec:
        cam = rec.add_data_source(ml.SourceType.CAMERA, "cam")
        rec.record(cam, 1, frame)            # from any thread; False when dropped
        rec.flush()                          # committed: visible to readers
        rec.stats                            # RecorderStats(accepted=..., written=..., ...)

Derived files: :func:`slice`, :func:`clone`, :func:`copy`, :func:`merge`.
Each answers the new file as a :class:`LogFile` open read-only; the
:class:`CopyReport` of a copy or a merge is its ``report``::

    with ml.copy("run.mvlog", "gnss.mvlog", sources="gnss", time=("+60", "+120")) as part:
        part.path, len(part), part.report.entries, part.report.notes

Salvage of a damaged file into a new one: :func:`recover`, which answers a
:class:`RecoveryReport` of what came back and what was lost. What is wrong
with a file: :func:`check`, which answers a :class:`CheckReport`.
Replay: :class:`Player`. Many files at once on Dask: :mod:`marivane_logging.dask`.
Command line: ``python3 -m marivane_logging info FILE`` and
``python3 -m marivane_logging timeline FILE -o timeline.png``.

Errors are :class:`LogFileError` subclasses carrying the library's messages.
"""

from __future__ import annotations

from ._core import LIBRARY_VERSION as __version__
from ._core import CopyReport, Durability, Entry, EntryIterator, FailureKind, Pacing
from ._errors import (
    BusyError,
    DamagedError,
    DatabaseError,
    DiskError,
    DiskFullError,
    LegacyLogFileError,
    LogFileError,
    LogFileIsADirectoryError,
    LogFileNotFoundError,
    NotALogFileError,
    ReadOnlyError,
    RefusedError,
)
from ._selection import SourceType, TimeRange
from ._logfile import Bookmark, DataSource, LogFile

# What payloads are: declared media types, sniffing, decoding.
from ._encoding import ENCODING_PROPERTY, Encoding, decode, sniff

# Derived files.
from ._derive import clone, copy, merge, slice  # noqa: A004

# Playback.
from ._player import Player, PlayerBookmark

# Recording from many threads.
from ._recorder import OverflowPolicy, Recorder, RecorderStats

# Salvage of damaged files.
from ._recover import RecoveryReport, recover

# The check of a file.
from ._check import CheckCounts, CheckProblem, CheckProblemKind, CheckReport, check

__all__ = [
    "__version__",
    "LogFile",
    "Entry",
    "EntryIterator",
    "DataSource",
    "Bookmark",
    "SourceType",
    "TimeRange",
    "Encoding",
    "ENCODING_PROPERTY",
    "decode",
    "sniff",
    "Durability",
    "FailureKind",
    "slice",
    "clone",
    "copy",
    "merge",
    "CopyReport",
    "recover",
    "RecoveryReport",
    "check",
    "CheckReport",
    "CheckProblem",
    "CheckProblemKind",
    "CheckCounts",
    "Player",
    "PlayerBookmark",
    "Pacing",
    "Recorder",
    "RecorderStats",
    "OverflowPolicy",
    "LogFileError",
    "NotALogFileError",
    "LegacyLogFileError",
    "DatabaseError",
    "BusyError",
    "LogFileNotFoundError",
    "LogFileIsADirectoryError",
    "DamagedError",
    "DiskError",
    "DiskFullError",
    "ReadOnlyError",
    "RefusedError",
]
