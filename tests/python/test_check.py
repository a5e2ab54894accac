"""The check of a log file: check."""

from __future__ import annotations

import sqlite3

import pytest

import marivane_logging as ml

BASE = 1_700_000_000_000


def make_file(path: str) -> None:
    """Five entries of one source at level 3, a bookmark on entry 2."""
    with ml.LogFile.create(path, application="checker", version="1.0", level=3) as f:
        cam = f.add_data_source(ml.SourceType.CAMERA, "cam")
        for entry_id in range(1, 6):
            f.log(cam, type=1, payload=b"frame %d" % entry_id, timestamp=BASE + entry_id)
        f.add_bookmark(2, "two")


def test_a_sound_file_is_clean_and_counted(tmp_path):
    path = str(tmp_path / "sound.mvlog")
    make_file(path)
    report = ml.check(tmp_path / "sound.mvlog")
    assert isinstance(report, ml.CheckReport)
    assert report.clean
    assert not report.damaged
    assert report.problems == []
    assert report.checked == ml.CheckCounts(entries=5, data_sources=1, resources=0, bookmarks=1)


def test_a_damaged_payload_is_named_with_its_entry(tmp_path):
    path = str(tmp_path / "damaged.mvlog")
    make_file(path)
    with sqlite3.connect(path) as db:
        db.execute("UPDATE data SET payload = x'28b52ffd0000' WHERE entryId = 4")
    report = ml.check(path)
    assert not report.clean
    assert report.damaged
    assert report.problems == [
        ml.CheckProblem(
            kind=ml.CheckProblemKind.ENTRY,
            message="entry 4: payload cannot be expanded: Cannot uncompress data: the data is truncated",
            entry_id=4,
            damage=True,
        )
    ]
    assert report.checked is not None and report.checked.entries == 4


def test_missing_metadata_is_a_problem_that_is_not_damage(tmp_path):
    path = str(tmp_path / "metadata.mvlog")
    make_file(path)
    with sqlite3.connect(path) as db:
        db.execute("DELETE FROM metadata WHERE key = 'currentTimeZone'")
    report = ml.check(path)
    assert [(p.kind, p.message, p.entry_id, p.damage) for p in report.problems] == [
        (ml.CheckProblemKind.METADATA, 'metadata key "currentTimeZone" is missing', None, False)
    ]
    assert not report.damaged


def test_an_empty_file_has_no_counts(tmp_path):
    path = tmp_path / "empty.mvlog"
    path.write_bytes(b"")
    report = ml.check(path)
    assert [p.message for p in report.problems] == ["the file is empty (0 bytes)"]
    assert report.problems[0].kind is ml.CheckProblemKind.FILE
    assert report.checked is None


def test_a_file_held_locked_raises_instead_of_reporting(tmp_path):
    path = str(tmp_path / "locked.mvlog")
    make_file(path)
    holder = sqlite3.connect(path, isolation_level=None)
    try:
        holder.execute("BEGIN EXCLUSIVE")
        with pytest.raises(ml.DatabaseError, match="is busy: another connection kept it locked"):
            ml.check(path)
    finally:
        holder.execute("ROLLBACK")
        holder.close()
