"""New files from existing ones: slice, clone, copy, merge.

Each answers the file it wrote as a :class:`LogFile` open read-only (a
context manager; its ``path`` is the output's path), so that what was
written can be read at once::

    with ml.copy("run.mvlog", "gnss.mvlog", sources="gnss") as part:
        part.report.entries, len(part), part.time_range()

The :class:`CopyReport` of :func:`copy` and :func:`merge` is the handle's
:attr:`LogFile.report` (None for :func:`slice` and :func:`clone`). To write
to the new file, open it again with ``LogFile.open(path, read_only=False)``.
Errors name the files they concern.
"""

from __future__ import annotations

import os
from typing import Any, Callable, Dict, List, Optional, Sequence, Tuple, Union

from . import _core, _paths
from ._core import CopyReport, Durability
from ._errors import RefusedError
from ._logfile import LogFile
from ._selection import Ids, Ints, Time, entry_id, filter_lists, int32, listed_sources, time_bounds
from ._selection import compression_level as checked_level

PathLike = Union[str, "os.PathLike[str]"]
Source = Union[LogFile, PathLike]

APPLICATION = "marivane_logging"


def _open(source: Source) -> Tuple[LogFile, bool]:
    if isinstance(source, LogFile):
        return source, False
    return LogFile.open(source, read_only=True), True


def _output(output: PathLike) -> str:
    """The path of a new file: ValueError when empty, LogFileNotFoundError naming it when its directory is missing.

    Something already there is left to the call, which refuses it.
    """
    path = _paths.given(output)
    if not os.path.lexists(path):
        _paths.writable(path)
    return path


def _refused(what: str, source: LogFile, output: str, bounds: Optional[Tuple[int, int]] = None) -> RefusedError:
    if os.path.lexists(output):
        reason = "something exists there"
    elif bounds is not None and bounds[0] > bounds[1]:
        reason = f"the range is reversed ({bounds[0]} > {bounds[1]})"
    elif bounds is not None and any(bound not in source for bound in bounds):
        missing = next(bound for bound in bounds if bound not in source)
        reason = f"entry {missing} is not in the file"
    else:
        reason = "the output cannot be created"
    return RefusedError(f"{what} of '{source.path}' into '{output}' was refused: {reason}.")


def _reopened(native: Any) -> LogFile:
    # The library answers the new file open for writing; it is handed out
    # read-only, as every derived file is.
    path = native.path
    native.close()
    return LogFile.open(path, read_only=True)


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
    "<stem>_exported<ext>" beside the source ("<stem>_exported-2<ext>" and
    so on when that is taken). Answers the new file as a :class:`LogFile`
    open read-only (close it, or use it in a ``with``); its
    :attr:`~LogFile.report` is None. Raises :class:`RefusedError` naming the
    source and the output when the output exists, the range is reversed, or a
    bound is not an entry, and :class:`LogFileNotFoundError` when the
    output's directory is missing.

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
    first, last = int32(first_id, "first_id"), int32(last_id, "last_id")
    file, owned = _open(source)
    try:
        out = _beside(file.path) if output is None else _output(output)
        native = _core._slice(file._native, first, last, out, application, version or __version__,
                              checked_level(level))
        if native is None:
            raise _refused("A slice", file, out, (first, last))
    finally:
        if owned:
            file.close()
    return _reopened(native)


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
        out = _beside(file.path) if output is None else _output(output)
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
    return LogFile.open(out, read_only=True)


def clone(
    source: Source,
    output: PathLike,
    *,
    application: str = APPLICATION,
    version: Optional[str] = None,
    level: int = -1,
) -> LogFile:
    """A slice over the whole file: every entry, re-compressed at `level`.

    Answers the new file as a :class:`LogFile` open read-only, whose
    :attr:`~LogFile.report` is None. Raises :class:`RefusedError` naming the
    source and the output when the output exists or cannot be created, and
    :class:`LogFileNotFoundError` when its directory is missing.
    """
    from . import __version__

    file, owned = _open(source)
    try:
        out = _output(output)
        native = _core._clone(file._native, out, application, version or __version__, checked_level(level))
        if native is None:
            raise _refused("A clone", file, out)
    finally:
        if owned:
            file.close()
    return _reopened(native)


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
    first: Optional[Callable[[], int]] = None,
    names: Optional[Dict[str, int]] = None,
) -> dict:
    from . import __version__

    start_ms, end_ms = time_bounds(time, first)
    return dict(
        first_id=entry_id(first_id, "first_id"),
        last_id=entry_id(last_id, "last_id"),
        start_ms=start_ms,
        end_ms=end_ms,
        **filter_lists(sources, types, source_types, names),
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
) -> LogFile:
    """Writes the selected entries of `source` to a new file at `output`, in flat memory.

    Selects by id range, `time` (start, end), data sources (ids or names),
    entry types and data-source types at once; a ``"+seconds"`` time counts
    from the source's first entry. `compression_level` None keeps the source's
    level (payloads are then copied as stored). `progress(written, total)` is
    called now and then; an exception from it stops the copy. Nothing is left
    at `output` on failure.

    Answers the new file as a :class:`LogFile` open read-only, whose
    :attr:`~LogFile.report` is the :class:`CopyReport` of what was written.
    Raises :class:`LogFileNotFoundError` or :class:`LogFileIsADirectoryError`
    for a source that is missing or a directory, :class:`LogFileNotFoundError`
    for an output whose directory is missing, and :class:`LogFileError` with
    the library's message, which names the file, otherwise (also when
    `output` exists).
    """
    path = _paths.existing(source)
    out = _output(output)
    sources = listed_sources(sources)
    arguments = _copy_arguments(
        first_id, last_id, time, sources, types, source_types, compression_level, durability, application,
        version, progress, lambda: _first_timestamp_of(path), _source_names(path, sources),
    )
    return _answer(out, _core._copy(path, out, **arguments))


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
) -> LogFile:
    """Writes the selected entries of every input to one new file, interleaved by timestamp.

    Data sources keep their ids unless an earlier input uses the id for
    another source (they are then renumbered, and a note says so); see
    :func:`copy` for the selection and the other arguments. The inputs'
    data sources are selected by id, and times are absolute: a name or a
    ``"+seconds"`` time means something else in each input, and is refused.
    Answers the new file as a :class:`LogFile` open read-only, whose
    :attr:`~LogFile.report` is the :class:`CopyReport` of what was written.
    """
    paths = [_paths.existing(path) for path in inputs]
    out = _output(output)
    sources = listed_sources(sources)
    named = [value for value in sources or [] if isinstance(value, str)]
    if named:
        raise KeyError(f"no data source named {named[0]!r}: a merge of {_listed(paths)} selects data sources by id")
    arguments = _copy_arguments(
        first_id, last_id, time, sources, types, source_types, compression_level, durability, application,
        version, progress, lambda: _no_first_timestamp(paths),
    )
    return _answer(out, _core._merge(paths, out, **arguments))


def _first_timestamp_of(path: str) -> int:
    with LogFile.open(path) as file:
        return file._first_timestamp()


def _source_names(path: str, sources: Optional[List[Union[int, str]]]) -> Optional[Dict[str, int]]:
    # Data sources named rather than numbered are looked up in the source.
    if not any(isinstance(value, str) for value in sources or []):
        return None
    with LogFile.open(path) as file:
        return file._names(sources)


def _listed(paths: List[str]) -> str:
    return ", ".join(f"'{path}'" for path in paths)


def _no_first_timestamp(paths: List[str]) -> int:
    raise ValueError(
        f"a time relative to the first entry counts from one file's first entry; a merge of {_listed(paths)} "
        "takes milliseconds, datetimes or ISO 8601 text"
    )


def _answer(output: str, report: CopyReport) -> LogFile:
    """The file a copy or a merge wrote, open read-only, carrying its report."""
    result = LogFile.open(output, read_only=True)
    result._report = report
    return result


__all__ = ["slice", "clone", "copy", "merge", "CopyReport"]
