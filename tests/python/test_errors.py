"""Errors: the library's failures as exceptions, with its messages."""

from __future__ import annotations

import sqlite3
import struct

import pytest

import marivane_logging as ml


def test_hierarchy():
    for cls in (ml.NotALogFileError, ml.LegacyLogFileError, ml.DatabaseError, ml.DamagedError, ml.DiskError,
                ml.ReadOnlyError, ml.RefusedError):
        assert issubclass(cls, ml.LogFileError)
    assert issubclass(ml.BusyError, ml.DatabaseError)
    assert issubclass(ml.DiskFullError, ml.DiskError)


def test_not_a_log_file(tmp_path):
    text = tmp_path / "text.mvlog"
    text.write_bytes(b"just some text, long enough to be a header of something else entirely" * 2)
    with pytest.raises(ml.NotALogFileError) as caught:
        ml.LogFile.open(text)
    assert str(caught.value) == f"'{text}': This file is not in a supported log file format."


def test_a_database_without_the_log_tables(tmp_path):
    path = tmp_path / "other.db"
    with sqlite3.connect(path) as connection:
        connection.execute("CREATE TABLE t (x)")
    with pytest.raises(ml.NotALogFileError) as caught:
        ml.LogFile.open(path)
    assert str(caught.value) == f"'{path}': This file is not in a supported log file format."


def test_legacy_log_file(tmp_path):
    path = tmp_path / "legacy.log"
    path.write_bytes(struct.pack("<I", 0x11223344) + b"\0" * 200)
    with pytest.raises(ml.LegacyLogFileError) as caught:
        ml.LogFile.open(path)
    assert str(caught.value) == "Tried to open a legacy log file."


def test_missing_file_read_only(tmp_path):
    path = tmp_path / "missing.mvlog"
    with pytest.raises(ml.DatabaseError) as caught:
        ml.LogFile.open(path)
    assert isinstance(caught.value, FileNotFoundError)
    assert str(caught.value) == f"[Errno 2] No such file or directory: '{path}'"
    assert not path.exists()


def test_writes_on_a_read_only_file(sample_path):
    with ml.LogFile.open(sample_path) as f:
        message = f"The log file '{sample_path}' was opened read-only: it cannot be changed."
        with pytest.raises(ml.ReadOnlyError) as caught:
            f.log(1, 1, b"x", 5)
        assert str(caught.value) == message
        assert f.last_failure_kind == ml.FailureKind.READ_ONLY
        for write in (
            lambda: f.add_data_source(0, "x"),
            lambda: f.add_property(1, "k", 1),
            lambda: f.add_metadata("k", "v"),
            lambda: f.add_resource("r", b"x"),
            lambda: f.set_thumbnail(b"x"),
            lambda: f.add_bookmark(1, "t"),
            lambda: f.update_bookmark(5, "t"),
            lambda: f.remove_bookmark(5),
            f.create_time_index,
        ):
            with pytest.raises(ml.ReadOnlyError, match="^" + message.replace(".", r"\.") + "$"):
                write()
        with pytest.raises(ml.ReadOnlyError, match="opened read-only"):
            with f.batch():
                pass
        assert len(f) == 30


def test_refused_writes(tmp_path):
    path = tmp_path / "refused.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        with pytest.raises(ml.RefusedError) as caught:
            f.log(9, 1, b"x", 5)
        assert str(caught.value) == "Attempted to log data against a data source that did not exist in the file."
        assert f.last_failure_kind == ml.FailureKind.REFUSED
        with pytest.raises(ml.RefusedError) as caught:
            f.add_property(9, "k", 1)
        assert str(caught.value) == (
            "Attempted to add a data source property for a data source that did not exist in the file."
        )
        with pytest.raises(ml.RefusedError, match="^Unknown internal error$"):
            f.add_bookmark(1, "no such entry")
        with pytest.raises(ValueError, match="8-bit"):
            f.log(300, 1, b"x")


def test_busy_file_names_the_file(tmp_path):
    path = tmp_path / "busy.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        f.add_data_source(0, "s")
    locker = sqlite3.connect(path, isolation_level=None)
    locker.execute("BEGIN EXCLUSIVE")
    try:
        with pytest.raises(ml.BusyError) as caught:
            ml.LogFile.open(path)
        assert str(path) in str(caught.value)
    finally:
        locker.execute("ROLLBACK")
        locker.close()
    with ml.LogFile.open(path) as f:
        assert len(f) == 0


def test_a_payload_that_does_not_expand_is_damage(tmp_path):
    path = tmp_path / "damaged.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        source = f.add_data_source(0, "s")
        f.log(source, 1, b"payload" * 100, 1)
        f.log(source, 1, b"fine", 2)
    with sqlite3.connect(path) as connection:
        connection.execute("UPDATE data SET payload = x'00010203' WHERE entryId = 1")
    with ml.LogFile.open(path) as f:
        with pytest.raises(ml.DamagedError) as caught:
            list(f.entries())
        assert str(caught.value) == (
            f"Entry 1 of '{path}' cannot be read: "
            "Cannot uncompress data: the data is not a valid compressed frame or is truncated"
        )
        assert f.last_failure_kind == ml.FailureKind.DAMAGED
        assert [e.payload for e in f.entries(2)] == [b"fine"]
