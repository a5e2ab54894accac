"""Paths to open, checked before the library sees them, and its errors named after them."""

from __future__ import annotations

import contextlib
import errno
import os
import stat
from typing import Iterator, Union

from ._errors import DamagedError, DatabaseError, LogFileIsADirectoryError, LogFileNotFoundError, NotALogFileError

PathLike = Union[str, "os.PathLike[str]"]

# SQLite opens "" as a private temporary database: a file made there is
# written nowhere the caller could find again.
EMPTY_PATH = "The path is empty: a log file needs a path."


def given(path: PathLike) -> str:
    """The path as a str; ValueError when it is empty."""
    path = os.fspath(path)
    if not isinstance(path, str):
        raise TypeError(f"a log file path is a str or an os.PathLike of str, not {type(path).__name__}")
    if path == "":
        raise ValueError(EMPTY_PATH)
    return path


def _not_found(path: str) -> LogFileNotFoundError:
    return LogFileNotFoundError(errno.ENOENT, "No such file or directory", path)


def _a_directory(path: str) -> LogFileIsADirectoryError:
    return LogFileIsADirectoryError(errno.EISDIR, "Is a directory", path)


def existing(path: PathLike) -> str:
    """The path of a file to read: LogFileNotFoundError when nothing is there, LogFileIsADirectoryError for a directory.

    Other problems (permissions, a file that is not a log file) are the
    library's to report.
    """
    path = given(path)
    try:
        mode = os.stat(path).st_mode
    except FileNotFoundError:
        raise _not_found(path) from None
    except OSError:
        return path
    if stat.S_ISDIR(mode):
        raise _a_directory(path)
    return path


def writable(path: PathLike) -> str:
    """The path of a file that an open for writing may create: its directory must exist, and it is no directory."""
    path = given(path)
    try:
        mode = os.stat(path).st_mode
    except FileNotFoundError:
        directory = os.path.dirname(path) or "."
        if not os.path.exists(directory):
            raise _not_found(path) from None
        return path
    except OSError:
        return path
    if stat.S_ISDIR(mode):
        raise _a_directory(path)
    return path


@contextlib.contextmanager
def naming(path: str) -> Iterator[None]:
    """Re-raises the library's failures to open `path` with the path in front when their message lacks it."""
    try:
        yield
    except (NotALogFileError, DatabaseError, DamagedError) as error:
        message = str(error)
        if f"'{path}'" in message or isinstance(error, OSError):
            raise
        raise type(error)(f"'{path}': {message}").with_traceback(error.__traceback__) from None
