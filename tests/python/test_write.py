"""Writing: new files, sources, entries, batches, metadata, resources, bookmarks."""

from __future__ import annotations

import datetime as dt
import os

import pytest

import marivane_logging as ml

UTC = dt.timezone.utc


def test_create_and_read_back(tmp_path):
    path = tmp_path / "new.mvlog"
    with ml.LogFile.create(path, application="writer", version="0.1", time_zone="Europe/Oslo", level=3,
                           durability=ml.Durability.SAFE, created=1_600_000_000_000) as f:
        assert not f.read_only and f.durability == ml.Durability.SAFE
        lidar = f.add_data_source(ml.SourceType.LIDAR, "lidar")
        imu = f.add_data_source(5, "imu")
        custom = f.add_data_source(1234, "custom")
        assert (lidar, imu, custom) == (1, 2, 3)
        f.add_property(lidar, "channels", 64)
        f.add_property(lidar, "big", 2**40)
        f.add_property(imu, "name", "xsens")
        f.add_property(imu, "rate", 400.5)
        f.log(lidar, 7, b"\x00\x01\x02", 1_600_000_000_001)
        f.log(imu, 8, bytearray(b"abc"), dt.datetime(2020, 9, 13, 12, 26, 40, 5000, tzinfo=UTC))
        f.log(custom, 9, memoryview(b"xyz")[1:], 1_600_000_000_010)
        f.log(custom, 10, b"")
        assert len(f) == 4  # reads its own writes
    with ml.LogFile.open(path) as f:
        assert f.durability == ml.Durability.SAFE
        assert f.metadata["applicationName"] == "writer"
        assert f.metadata["currentTimeZone"] == "Europe/Oslo"
        assert f.metadata["compressionLevel"] == 3
        assert f.metadata["createdDateTime"] == 1_600_000_000_000
        sources = f.data_sources
        assert [(s.id, s.type, s.name) for s in sources] == [
            (1, ml.SourceType.LIDAR, "lidar"),
            (2, ml.SourceType.INERTIAL, "imu"),
            (3, 1234, "custom"),
        ]
        assert sources[0].properties == {"channels": 64, "big": 2**40}
        assert sources[1].properties == {"name": "xsens", "rate": 400.5}
        assert [(e.id, e.source, e.type, e.timestamp, e.payload) for e in f.entries(end=3)] == [
            (1, 1, 7, 1_600_000_000_001, b"\x00\x01\x02"),
            (2, 2, 8, 1_600_000_000_005, b"abc"),
            (3, 3, 9, 1_600_000_000_010, b"yz"),
        ]
        last = f[4]
        assert last.payload == b""
        now = dt.datetime.now(UTC).timestamp() * 1000
        assert abs(last.timestamp - now) < 60_000


def test_create_refuses_an_existing_file(tmp_path):
    path = tmp_path / "x.mvlog"
    path.write_bytes(b"")
    with pytest.raises(FileExistsError):
        ml.LogFile.create(path, application="a", version="1")


def test_batch_commits_and_keeps_writes_when_the_block_raises(tmp_path):
    path = tmp_path / "batch.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        source = f.add_data_source(0, "s")
        with f.batch():
            for i in range(100):
                f.log(source, 1, bytes([i]), 1000 + i)
            assert f._native.batch_open
            assert len(f) == 100
        assert not f._native.batch_open
        with pytest.raises(ZeroDivisionError):
            with f.batch():
                f.log(source, 2, b"kept", 5000)
                1 / 0
        with f.batch():
            with pytest.raises(ValueError, match="already open"):
                with f.batch():
                    pass
    with ml.LogFile.open(path) as f:
        assert len(f) == 101
        assert f[101].payload == b"kept"
        assert [e.payload for e in f.entries(end=3)] == [b"\x00", b"\x01", b"\x02"]


def test_an_open_batch_is_committed_on_close(tmp_path):
    path = tmp_path / "close.mvlog"
    f = ml.LogFile.create(path, application="a", version="1")
    source = f.add_data_source(0, "s")
    f._native.begin_batch()
    f.log(source, 1, b"one", 1)
    f.close()
    with ml.LogFile.open(path) as f:
        assert [e.payload for e in f] == [b"one"]


def test_metadata_resources_thumbnail(tmp_path):
    path = tmp_path / "meta.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        f.add_metadata("survey", "Harbour")
        f.add_metadata("legs", 3)
        f.add_metadata("depth", 12.5)
        with pytest.raises(ml.RefusedError, match="^The log file already has a metadata key 'legs'.$"):
            f.add_metadata("legs", 4)
        with pytest.raises(TypeError):
            f.add_metadata("flag", True)
        f.add_resource("notes.txt", b"hello")
        with pytest.raises(ml.RefusedError, match="^The log file already has a resource named 'notes.txt'.$"):
            f.add_resource("notes.txt", b"again")
        assert f.thumbnail is None
        f.set_thumbnail(b"first")
    with ml.LogFile.open(path) as f:
        meta = f.metadata
        assert (meta["survey"], meta["legs"], meta["depth"]) == ("Harbour", 3, 12.5)
        assert f.resources == {"notes.txt": b"hello", "thumbnail": b"first"}
        assert f.thumbnail == b"first"


def test_replacing_the_thumbnail_of_an_uncompressed_file(tmp_path):
    # A replaced thumbnail is stored as it is: files that compress their
    # resources cannot expand it again, so this is shown without compression.
    path = tmp_path / "thumb.mvlog"
    with ml.LogFile.create(path, application="a", version="1", level=0) as f:
        f.set_thumbnail(b"first")
        f.set_thumbnail(b"second")
        assert f.thumbnail == b"second"
    with ml.LogFile.open(path) as f:
        assert f.resources == {"thumbnail": b"second"}


def test_bookmarks_add_update_remove(tmp_path):
    path = tmp_path / "marks.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        source = f.add_data_source(0, "s")
        for i in range(5):
            f.log(source, 1, b"x", i)
        f.add_bookmark(2, "two", "second entry", b"\xff")
        f.add_bookmark(4, "four")
        f.update_bookmark(2, "TWO", "renamed")
        assert f.bookmarks == [ml.Bookmark(2, "TWO", "renamed", b""), ml.Bookmark(4, "four", "", b"")]
        f.remove_bookmark(4)
        assert f.bookmarks == [ml.Bookmark(2, "TWO", "renamed", b"")]
    with ml.LogFile.open(path) as f:
        assert f.bookmarks == [ml.Bookmark(2, "TWO", "renamed", b"")]


def test_time_index(tmp_path):
    path = tmp_path / "time.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        source = f.add_data_source(0, "s")
        for i in range(10):
            f.log(source, 1, b"x", 1000 * i)
        assert not f.has_time_index
        f.create_time_index()
        f.create_time_index()
        assert f.has_time_index
        assert f.find_entry_at_or_after(4500) == 6
        assert f.time_range() == (0, 9000)


def test_open_for_writing_makes_an_empty_log_file(tmp_path):
    path = tmp_path / "empty.mvlog"
    with ml.LogFile.open(path, read_only=False) as f:
        assert len(f) == 0
        assert f.first_entry_id is None and f.last_entry_id is None
        assert f.time_range() is None
        assert f.metadata == {}
        assert list(f.entries()) == []
        assert f.index().shape == (0,)
    assert os.path.exists(path)
