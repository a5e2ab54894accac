"""Entry checksums: chosen when a file is created, verified by reads that ask."""

from __future__ import annotations

import hashlib
import os
import sqlite3

import pytest

import marivane_logging as ml

BASE = 1_700_000_000_000
COUNT = 600  # more than two chunks of a streaming read


def payload_of(entry_id: int) -> bytes:
    """200 bytes, different for each id in every stretch of a few bytes."""
    seed = b"".join(hashlib.sha256(b"entry-%d-%d" % (entry_id, k)).digest() for k in range(7))
    return seed[:200]


def make_file(path, level: int = 0, checksums: bool = True) -> None:
    with ml.LogFile.create(path, application="maker", version="1", level=level, checksums=checksums) as f:
        source = f.add_data_source(ml.SourceType.LIDAR, "lidar")
        with f.batch():
            for entry_id in range(1, COUNT + 1):
                f.log(source, 1, payload_of(entry_id), BASE + entry_id)


def execute(path, sql: str) -> None:
    with sqlite3.connect(path) as connection:
        connection.execute(sql)
    connection.close()


def flip_byte_of(path, entry_id: int, at: int) -> bytes:
    """Changes one byte of an uncompressed payload where the file stores it; answers the changed payload."""
    with open(path, "rb") as stream:
        data = bytearray(stream.read())
    payload = payload_of(entry_id)
    where = data.find(payload)
    assert where >= 0 and data.find(payload, where + 1) < 0
    data[where + at] ^= 0x5A
    with open(path, "wb") as stream:
        stream.write(data)
    return bytes(data[where : where + len(payload)])


def message(path, entry_id: int, reason: str) -> str:
    return f"Entry {entry_id} of '{path}' cannot be read: {reason}"


MISMATCH = "its payload does not match its checksum"


def test_checksums_are_chosen_at_creation_and_kept_by_the_file(tmp_path):
    checked = tmp_path / "checked.mvlog"
    plain = tmp_path / "plain.mvlog"
    make_file(checked)
    make_file(plain, checksums=False)
    with ml.LogFile.create(tmp_path / "default.mvlog", application="a", version="1") as f:
        assert not f.has_checksums
    with ml.LogFile.open(checked) as f:
        assert f.has_checksums
    with ml.LogFile.open(checked, read_only=False) as f:
        assert f.has_checksums
    with ml.LogFile.open(plain) as f:
        assert not f.has_checksums
    with sqlite3.connect(checked) as connection:
        assert connection.execute("SELECT COUNT(*) FROM entryChecksums").fetchone() == (COUNT,)
    connection.close()
    with sqlite3.connect(plain) as connection:
        tables = [row[0] for row in connection.execute("SELECT name FROM sqlite_master WHERE type = 'table'")]
    connection.close()
    assert "entryChecksums" not in tables


@pytest.mark.parametrize("level", [0, -1])
def test_verified_reads_of_a_sound_file_give_every_entry(tmp_path, level):
    path = tmp_path / "sound.mvlog"
    make_file(path, level=level)
    with ml.LogFile.open(path) as f:
        assert [e.payload for e in f.entries(verify_checksums=True)] == [
            payload_of(i) for i in range(1, COUNT + 1)
        ]
        seen = []
        assert f.visit(lambda e: seen.append(bytes(e.payload)), verify_checksums=True) == COUNT
        assert seen == [payload_of(i) for i in range(1, COUNT + 1)]


def test_a_byte_changed_inside_a_payload_is_damage_to_a_verified_read(tmp_path):
    path = tmp_path / "garbled.mvlog"
    make_file(path)
    changed = flip_byte_of(path, 400, 17)
    expected = message(os.fspath(path), 400, MISMATCH)
    with ml.LogFile.open(path) as f:
        # Unverified reads cannot tell.
        assert f[400].payload == changed
        assert [e.payload for e in f.entries(390, 410)][10] == changed

        for payload_as in ("bytes", "memoryview", "numpy"):
            read = []
            with pytest.raises(ml.DamagedError) as caught:
                for entry in f.entries(verify_checksums=True, payload_as=payload_as):
                    read.append(entry.id)
            assert str(caught.value) == expected
            assert read and read[-1] < 400
        assert f.last_failure_kind == ml.FailureKind.DAMAGED

        seen = []
        with pytest.raises(ml.DamagedError) as caught:
            f.visit(lambda e: seen.append(e.id), verify_checksums=True)
        assert str(caught.value) == expected
        assert seen == list(range(1, 400))

        # Entries around it still read verified.
        assert [e.id for e in f.entries(401, verify_checksums=True)] == list(range(401, COUNT + 1))
        assert f.visit(lambda e: None, end=399, verify_checksums=True, payload_as="bytes") == 399


def test_a_checksum_that_does_not_match_a_compressed_payload_is_damage(tmp_path):
    path = tmp_path / "compressed.mvlog"
    make_file(path, level=3)
    execute(path, "UPDATE entryChecksums SET checksum = checksum + 1 WHERE entryId = 5")
    with ml.LogFile.open(path) as f:
        assert f[5].payload == payload_of(5)
        with pytest.raises(ml.DamagedError) as caught:
            list(f.entries(verify_checksums=True))
        assert str(caught.value) == message(os.fspath(path), 5, MISMATCH)


def test_an_entry_without_a_checksum_is_damage_to_a_verified_read(tmp_path):
    path = tmp_path / "missing.mvlog"
    make_file(path)
    execute(path, "DELETE FROM entryChecksums WHERE entryId = 9")
    with ml.LogFile.open(path) as f:
        with pytest.raises(ml.DamagedError) as caught:
            f.visit(lambda e: None, verify_checksums=True)
        assert str(caught.value) == message(os.fspath(path), 9, "it has no checksum")
        assert len(list(f.entries())) == COUNT


def test_a_file_without_checksums_reads_the_same_verified_or_not(tmp_path):
    path = tmp_path / "plain.mvlog"
    make_file(path, checksums=False)
    changed = flip_byte_of(path, 7, 3)
    with ml.LogFile.open(path) as f:
        verified = [e.payload for e in f.entries(verify_checksums=True)]
        assert verified == [e.payload for e in f.entries()]
        assert verified[6] == changed
        assert f.visit(lambda e: None, verify_checksums=True) == COUNT


def test_writes_keep_checksums_and_recover_loses_what_fails_them(tmp_path):
    path = tmp_path / "written.mvlog"
    with ml.LogFile.create(path, application="a", version="1", level=0, checksums=True) as f:
        source = f.add_data_source(ml.SourceType.LIDAR, "lidar")
        f.log(source, 1, payload_of(1), BASE)
        with f.batch():
            for entry_id in range(2, 11):
                f.log(source, 1, payload_of(entry_id), BASE + entry_id)
    flip_byte_of(path, 6, 100)

    output = tmp_path / "recovered.mvlog"
    report = ml.recover(path, output)
    assert report.entries_recovered == 9
    assert report.entries_lost == 1
    assert report.lost_entry_ids == [(6, 6)]
    assert (
        "1 entry failed its checksum and is lost: its stored payload is not the one that was written."
        in report.notes
    )
    with ml.LogFile.open(output) as f:
        assert f.has_checksums
        assert [(e.id, e.payload) for e in f.entries(verify_checksums=True)] == [
            (i, payload_of(i)) for i in range(1, 11) if i != 6
        ]


def test_the_recorder_makes_files_that_keep_checksums(tmp_path):
    path = tmp_path / "recorded.mvlog"
    with ml.Recorder(path, application="rec", version="1", level=0, checksums=True) as recorder:
        source = recorder.add_data_source(ml.SourceType.GENERIC, "generic")
        for n in range(1, 21):
            recorder.record(source, 1, payload_of(n), n)
    with ml.LogFile.open(path) as f:
        assert f.has_checksums
        assert [e.payload for e in f.entries(verify_checksums=True, order="id")] == [
            payload_of(n) for n in range(1, 21)
        ]
    plain = tmp_path / "plain.mvlog"
    with ml.Recorder(plain, application="rec", version="1", level=0) as recorder:
        recorder.add_data_source(ml.SourceType.GENERIC, "generic")
    with ml.LogFile.open(plain) as f:
        assert not f.has_checksums
