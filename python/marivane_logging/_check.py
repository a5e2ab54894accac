"""The check of a log file: check."""

from __future__ import annotations

import enum
import os
from dataclasses import dataclass, field
from typing import List, Optional, Union

from . import _core

PathLike = Union[str, "os.PathLike[str]"]


class CheckProblemKind(str, enum.Enum):
    """What part of a log file a :class:`CheckProblem` is about."""

    FILE = "file"
    """The file itself: empty, cut short, or not openable as a log file."""
    DATABASE = "database"
    """SQLite's view of the database: its integrity and foreign-key checks."""
    METADATA = "metadata"
    """The fixed metadata keys and their values."""
    ENTRY = "entry"
    """One entry or a run of entries, or the entry index."""
    BOOKMARK = "bookmark"
    RESOURCE = "resource"
    """A resource or the thumbnail."""
    INCOMPLETE = "incomplete"
    """A read failed for a reason other than damage: the check is incomplete."""


@dataclass(frozen=True)
class CheckProblem:
    """One thing :func:`check` found wrong.

    `entry_id` is the entry the problem names, if it names one; `message` is
    the sentence ``mvlog check`` prints; `damage` is true when damaged bytes
    cause it, so that :func:`recover` salvages what is still intact.
    """

    kind: CheckProblemKind
    message: str
    entry_id: Optional[int] = None
    damage: bool = False


@dataclass(frozen=True)
class CheckCounts:
    """What a check that got as far as reading the file went through; `entries` counts those read in full."""

    entries: int = 0
    data_sources: int = 0
    resources: int = 0
    bookmarks: int = 0


@dataclass(frozen=True)
class CheckReport:
    """What :func:`check` found: the problems in the order found, and the counts.

    `checked` is None when the file could not be opened as a log file, or the
    check stopped before it had counted.
    """

    problems: List[CheckProblem] = field(default_factory=list)
    checked: Optional[CheckCounts] = None

    @property
    def clean(self) -> bool:
        """True when the check found nothing wrong."""
        return not self.problems

    @property
    def damaged(self) -> bool:
        """True when a problem comes from damaged bytes."""
        return any(problem.damage for problem in self.problems)


def check(path: PathLike) -> CheckReport:
    """Checks the log file at `path` without changing it, as ``mvlog check`` does.

    SQLite's integrity and foreign-key checks, the file's length against its
    pages, the fixed metadata keys, every entry's payload (and its checksum
    when the file keeps them), the entries a damaged page hides from the
    index, the bookmarks, the resources and the thumbnail. Every finding is
    a :class:`CheckProblem` of the report; :class:`DatabaseError` is raised
    only when the check cannot run, e.g. while another connection keeps the
    file locked. The GIL is released while the check runs.
    """
    fields = _core._check(os.fspath(path))
    problems = [
        CheckProblem(
            kind=CheckProblemKind(problem["kind"]),
            message=problem["message"],
            entry_id=problem["entry_id"],
            damage=problem["damage"],
        )
        for problem in fields["problems"]
    ]
    checked = fields["checked"]
    return CheckReport(problems=problems, checked=CheckCounts(**checked) if checked is not None else None)
