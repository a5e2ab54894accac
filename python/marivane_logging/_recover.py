"""Salvage of damaged log files: recover."""

from __future__ import annotations

import os
from dataclasses import dataclass, field
from typing import Any, Callable, List, Optional, Tuple, Union

from . import _core

PathLike = Union[str, "os.PathLike[str]"]

APPLICATION = "marivane_logging"


@dataclass(frozen=True)
class RecoveryReport:
    """What :func:`recover` salvaged from a damaged log file and what it had to leave behind.

    `entries_lost` counts the ids from 1 to the highest id the damaged file
    still shows (the entries found, bookmark targets, the data table's
    interior pages and indexes) that did not come back.
    `entries_lost_is_lower_bound` is true when the file's last id could not
    be found (the end of the file or of the data table is gone): entries
    after that highest id may have existed, so at least `entries_lost`
    entries were lost. `lost_entry_ids` lists the lost ids as ascending,
    non-overlapping inclusive ``(first, last)`` runs. Data sources that
    entries or properties needed but that were lost are made up again as
    "recovered data source <id>" (`data_sources_recreated`).
    `metadata_lost` also counts the keys every log file holds that could not
    be found; `bookmarks_lost` also counts bookmarks whose entry was lost.
    `pages_scanned` is true when SQLite could not read everything and the
    file's pages were searched for records directly. `notes` are remarks on
    how the salvage went, one sentence each.
    """

    entries_recovered: int = 0
    entries_lost: int = 0
    lost_entry_ids: List[Tuple[int, int]] = field(default_factory=list)
    data_sources_recovered: int = 0
    data_sources_recreated: int = 0
    properties_recovered: int = 0
    properties_lost: int = 0
    metadata_recovered: int = 0
    metadata_lost: int = 0
    resources_recovered: int = 0
    resources_lost: int = 0
    bookmarks_recovered: int = 0
    bookmarks_lost: int = 0
    pages_scanned: bool = False
    notes: List[str] = field(default_factory=list)
    entries_lost_is_lower_bound: bool = False


def recover(
    damaged: PathLike,
    output: PathLike,
    *,
    application: str = APPLICATION,
    version: Optional[str] = None,
    progress: Optional[Callable[[int], Any]] = None,
) -> RecoveryReport:
    """Salvages the damaged log file `damaged` into a new, healthy one at `output`.

    Every entry whose stored bytes are intact keeps its id, timestamp, type,
    data source and stored bytes, at the damaged file's compression level;
    every readable data source, property, metadata entry, resource and
    bookmark comes along. What SQLite can no longer reach is searched for in
    the file's pages directly. `application` and `version` (default: the
    library's version) are recorded as the new file's producer; the damaged
    file's producer becomes "oldApplicationName"/"oldApplicationVersion".

    The damaged file and its journal or write-ahead log are never written:
    their bytes are copied into a private directory beside `output` and only
    the copies are opened. The output takes its name only when complete, so
    nothing is left at `output` on failure. `progress(entries_recovered)` is
    called now and then (a salvage reads the file more than once, so there is
    no total); an exception from it stops the salvage and is raised again.
    The GIL is released while the salvage runs.

    Answers a :class:`RecoveryReport`. Raises :class:`LogFileError` with the
    library's message when something exists at `output`, when `damaged`
    cannot be read at all (missing, too short to hold a page) or when writing
    the output fails. A file with nothing left to salvage still gives a
    (possibly empty) output and a report saying so.
    """
    from . import __version__

    fields = _core._recover(
        os.fspath(damaged), os.fspath(output), application, version or __version__, progress
    )
    return RecoveryReport(**fields)


__all__ = ["recover", "RecoveryReport"]
