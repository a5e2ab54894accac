"""New files from existing ones: slice, clone, copy, merge."""

from __future__ import annotations

import os
from typing import Any, Callable, Optional, Sequence, Tuple, Union

from . import _core, _paths
from ._core import CopyReport, Durability
from ._errors import RefusedError
from ._logfile import LogFile
from ._selection import Ids, Ints, Time, entry_id, filter_lists, int32, time_bounds
from ._selection import compression_level as checked_level

PathLike = Union[str, "os.PathLike[str]"]
Source = Union[LogFile, PathLike]

APPLICATION = "marivane_logging"


def _open(source: Source) -> Tuple[LogFile, bool]:
    if isinstance(source, LogFile):
        return source, False
    return LogFile.open(source, read_only=True), True


def _refused(what: str, source: LogFile, output: str) -> RefusedError:
    reason = "something exists there" if output and os.path.exists(output) else (
        "the range is reversed or a bound is not an entry of the file, or the output cannot be created"
    )
    return RefusedError(f"{what} of '{source.path}' into '{output}' was refused: {reason}.")


def slice(  # noqa: A001 - the library's name for it
    source: Source,
    first_id: Optional[int] = None,
    last_id: Optional[int] = None,
    output: Optional[PathLike] = None,
    *,
    time: Optional[Tuple[Optional[Time], Optional[Time]]] = None,
    application: str = APPLICATION,
    version: Optional[str] = None,
    level: int = -1,
) -> LogFile:
    """Writes entries `first_id`..`last_id` of `source` to a new file, renumbered from 1.

    Metadata, resources, data sources and their properties come along, with
    the bookmarks inside the range. Without `output` the new file is
    "<stem>_exported<ext>" beside the source. Answers the new file, open for
    writing (close it, or use it in a ``with``). Raises :class:`RefusedError`
    when the output exists, the range is reversed, or a bound is not an entry.

    With `time` (start, end), the entries are those :func:`copy` selects with
    that range (and the id bounds, when given, as well), whatever their ids:
    times are taken as :func:`copy` takes them, plus ``"+seconds"`` after the
    source's first entry. Bookmarks then move to the first entry written at or
    after their own, as :func:`copy` moves them.
    """
    from . import __version__

    if time is not None:
        return _slice_by_time(source, first_id, last_id, output, time, application, version, level)
    if first_id is None or last_id is None:
        raise TypeError("slice takes first_id and last_id, or time=(start, end)")
    file, owned = _open(source)
    try:
        out = "" if output is None else os.fspath(output)
        native = _core._slice(
            file._native,
            int32(first_id, "first_id"),
            int32(last_id, "last_id"),
            out,
            application,
            version or __version__,
            checked_level(level),
        )
        if native is None:
            raise _refused("A slice", file, out)
        return LogFile(native)
    finally:
        if owned:
            file.close()


def _beside(path: str) -> str:
    # The name a slice without output takes: "<stem>_exported<ext>", then
    # "<stem>_exported-2<ext>" and so on while something is there.
    folder, name = os.path.split(path)
    stem, extension = os.path.splitext(name)
    candidate = os.path.join(folder, f"{stem}_exported{extension}")
    counter = 2
    while os.path.lexists(candidate):
        candidate = os.path.join(folder, f"{stem}_exported-{counter}{extension}")
        counter += 1
    return candidate


def _slice_by_time(
    source: Source,
    first_id: Optional[int],
    last_id: Optional[int],
    output: Optional[PathLike],
    time: Tuple[Optional[Time], Optional[Time]],
    application: str,
    version: Optional[str],
    level: int,
) -> LogFile:
    # Entries in a time window need not be neighbours by id, so the window
    # goes through copy, which selects them in one pass at flat memory.
    file, owned = _open(source)
    try:
        start_ms, end_ms = time_bounds(time, file._first_timestamp)
        out = _beside(file.path) if output is None else os.fspath(output)
        if os.path.lexists(out):
            raise _refused("A slice", file, out)
        arguments = _copy_arguments(
            first_id, last_id, None, None, None, None, level, Durability.FAST, application, version, None
        )
        arguments.update(start_ms=start_ms, end_ms=end_ms)
        _core._copy(file.path, out, **arguments)
    finally:
        if owned:
            file.close()
    return LogFile.open(out, read_only=False)


def clone(
    source: Source,
    output: PathLike,
    *,
    application: str = APPLICATION,
    version: Optional[str] = None,
    level: int = -1,
) -> LogFile:
    """A slice over the whole file: every entry, re-compressed at `level`. Answers the new file, open."""
    from . import __version__

    file, owned = _open(source)
    try:
        out = os.fspath(output)
        native = _core._clone(file._native, out, application, version or __version__, checked_level(level))
        if native is None:
            raise _refused("A clone", file, out)
        return LogFile(native)
    finally:
        if owned:
            file.close()


def _copy_arguments(
    first_id: Optional[int],
    last_id: Optional[int],
    time: Optional[Tuple[Optional[Time], Optional[Time]]],
    sources: Ids,
    types: Ints,
    source_types: Ints,
    level: Optional[int],
    durability: Durability,
    application: str,
    version: Optional[str],
    progress: Optional[Callable[[int, int], Any]],
) -> dict:
    from . import __version__

    start_ms, end_ms = time_bounds(time)
    return dict(
        first_id=entry_id(first_id, "first_id"),
        last_id=entry_id(last_id, "last_id"),
        start_ms=start_ms,
        end_ms=end_ms,
        **filter_lists(sources, types, source_types),
        compression_level=None if level is None else checked_level(level),
        durability=durability,
        application=application,
        version=version or __version__,
        progress=progress,
    )


def copy(
    source: PathLike,
    output: PathLike,
    *,
    first_id: Optional[int] = None,
    last_id: Optional[int] = None,
    time: Optional[Tuple[Optional[Time], Optional[Time]]] = None,
    sources: Ids = None,
    types: Ints = None,
    source_types: Ints = None,
    compression_level: Optional[int] = None,
    durability: Durability = Durability.FAST,
    application: str = APPLICATION,
    version: Optional[str] = None,
    progress: Optional[Callable[[int, int], Any]] = None,
) -> CopyReport:
    """Writes the selected entries of `source` to a new file at `output`, in flat memory.

    Selects by id range, `time` (start, end), data-source ids, entry types and
    data-source types at once. `compression_level` None keeps the source's
    level (payloads are then copied as stored). `progress(written, total)` is
    called now and then; an exception from it stops the copy. Nothing is left
    at `output` on failure. Answers a :class:`CopyReport`; raises
    :class:`LogFileNotFoundError` or :class:`LogFileIsADirectoryError` for a
    source that is missing or a directory, and :class:`LogFileError` with the
    library's message otherwise (also when `output` exists).
    """
    arguments = _copy_arguments(
        first_id, last_id, time, sources, types, source_types, compression_level, durability, application,
        version, progress,
    )
    return _core._copy(_paths.existing(source), os.fspath(output), **arguments)


def merge(
    inputs: Sequence[PathLike],
    output: PathLike,
    *,
    first_id: Optional[int] = None,
    last_id: Optional[int] = None,
    time: Optional[Tuple[Optional[Time], Optional[Time]]] = None,
    sources: Ids = None,
    types: Ints = None,
    source_types: Ints = None,
    compression_level: Optional[int] = None,
    durability: Durability = Durability.FAST,
    application: str = APPLICATION,
    version: Optional[str] = None,
    progress: Optional[Callable[[int, int], Any]] = None,
) -> CopyReport:
    """Writes the selected entries of every input to one new file, interleaved by timestamp.

    Data sources keep their ids unless an earlier input uses the id for
    another source (they are then renumbered, and a note says so); see
    :func:`copy` for the selection and the other arguments.
    """
    arguments = _copy_arguments(
        first_id, last_id, time, sources, types, source_types, compression_level, durability, application,
        version, progress,
    )
    return _core._merge([_paths.existing(path) for path in inputs], os.fspath(output), **arguments)


__all__ = ["slice", "clone", "copy", "merge", "CopyReport"]
