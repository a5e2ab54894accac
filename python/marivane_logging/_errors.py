"""The exceptions of marivane_logging.

Every error the library reports becomes one of these, carrying the library's
own message (which names the file and the reason). Catch ``LogFileError`` for
all of them; the subclasses say what a caller can do about it::

    LogFileError
    ├── NotALogFileError     the file is not a log file (or not a database)
    ├── LegacyLogFileError   a log file of the legacy format, refused
    ├── DatabaseError        SQLite could not open the file or run a statement
    │   ├── BusyError        another connection held a lock too long: retry
    │   ├── LogFileNotFoundError      nothing at the path (also a FileNotFoundError)
    │   └── LogFileIsADirectoryError  the path is a directory (also an IsADirectoryError)
    ├── DamagedError         the file's content is damaged
    ├── DiskError            reading or writing the disk failed
    │   └── DiskFullError    the disk is full
    ├── ReadOnlyError        the file was opened read-only
    └── RefusedError         a write was refused (unknown data source, duplicate)
"""

from __future__ import annotations

__all__ = [
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


class LogFileError(Exception):
    """Base class of every error the library reports."""


class NotALogFileError(LogFileError):
    """The file is neither a log file nor a database with the log tables."""


class LegacyLogFileError(LogFileError):
    """The file is a log file of the legacy, pre-database format."""


class DatabaseError(LogFileError):
    """SQLite cannot open the file or run a statement."""


class BusyError(DatabaseError):
    """Another connection held a lock past the wait: the file is fine, try again."""


class LogFileNotFoundError(DatabaseError, FileNotFoundError):
    """Nothing exists at the path to open (or its directory does not exist).

    Both a :class:`DatabaseError`, which such opens raised before, and a
    ``FileNotFoundError`` whose ``filename`` is the path.
    """


class LogFileIsADirectoryError(DatabaseError, IsADirectoryError):
    """The path to open is a directory.

    Both a :class:`DatabaseError`, which such opens raised before, and an
    ``IsADirectoryError`` whose ``filename`` is the path.
    """


class DamagedError(LogFileError):
    """The file's content is damaged."""


class DiskError(LogFileError, OSError):
    """Reading or writing the disk failed."""


class DiskFullError(DiskError):
    """The disk is full."""


class ReadOnlyError(LogFileError):
    """The file was opened read-only, or cannot be written."""


class RefusedError(LogFileError):
    """A write was refused: an unknown data source or entry, a duplicate key or name."""
