"""Salvage of damaged log files: recover."""

from __future__ import annotations

import contextlib
import dataclasses
import hashlib
import os
import sqlite3

import pytest

import marivane_logging as ml

BASE = 1_700_000_000_000
COUNT = 3000
TABLE_LEAF = 0x0D  # the first byte of a table b-tree leaf page


def payload_of(entry_id: int) -> bytes:
    """Bytes of 64 to 383 bytes, different for each id."""
    seed = hashlib.sha256(b"entry-%d" % entry_id).digest()
    length = 64 + (entry_id * 37) % 320
    return (seed * (length // len(seed) + 1))[:length]


def source_of(entry_id: int, cam: int, gnss: int) -> int:
    return cam if entry_id % 3 == 0 else gnss


def make_file(path: str, level: int = -1) -> dict:
    """COUNT entries; answers {id: (source, type, timestamp, payload)}."""
    originals = {}
    with ml.LogFile.create(path, application="maker", version="0.9", level=level) as f:
        cam = f.add_data_source(ml.SourceType.CAMERA, "cam")
        gnss = f.add_data_source(ml.SourceType.NAVIGATION, "gnss")
        f.add_property(cam, "width", 640)
        f.add_property(gnss, "rateHz", 20.0)
        f.add_metadata("vessel", "RV Salvage")
        f.add_resource("calibration.json", b'{"k": 1}')
        with f.batch():
            for entry_id in range(1, COUNT + 1):
                source = source_of(entry_id, cam, gnss)
                record = (source, entry_id % 5, BASE + 10 * entry_id, payload_of(entry_id))
                f.log(source, record[1], record[3], record[2])
                originals[entry_id] = record
        f.add_bookmark(2, "Start", "first fix", b"\x01\x02")
        f.add_bookmark(COUNT - 1, "End")
    return originals


def page_size(path: str) -> int:
    with open(path, "rb") as stream:
        header = stream.read(100)
    size = int.from_bytes(header[16:18], "big")
    return 65536 if size == 1 else size


def leaf_pages_in_the_middle(path: str, wanted: int) -> list:
    """Page numbers (1-based) of `wanted` table leaf pages spread over the middle third of the file."""
    size = page_size(path)
    with open(path, "rb") as stream:
        data = stream.read()
    pages = len(data) // size
    leaves = [n for n in range(pages // 3, 2 * pages // 3) if data[(n - 1) * size] == TABLE_LEAF]
    assert len(leaves) >= wanted * 4, f"only {len(leaves)} leaf pages among {pages}"
    step = len(leaves) // wanted
    return [leaves[step // 2 + k * step] for k in range(wanted)]


def zero_pages(path: str, numbers: list) -> None:
    size = page_size(path)
    with open(path, "r+b") as stream:
        for number in numbers:
            stream.seek((number - 1) * size)
            stream.write(bytes(size))


def digest(path: str) -> str:
    with open(path, "rb") as stream:
        return hashlib.sha256(stream.read()).hexdigest()


def lost_ids(report: ml.RecoveryReport) -> set:
    ids = set()
    previous = 0
    for first, last in report.lost_entry_ids:
        assert previous < first <= last, report.lost_entry_ids
        previous = last
        ids.update(range(first, last + 1))
    assert len(ids) == report.entries_lost
    return ids


def check_entries(output: str, originals: dict, report: ml.RecoveryReport) -> set:
    """Checks every recovered entry against its original; answers the recovered ids."""
    with ml.LogFile.open(output) as f:
        recovered = {e.id: (e.source, e.type, e.timestamp, bytes(e.payload)) for e in f.entries()}
        assert len(f) == report.entries_recovered
    assert len(recovered) == report.entries_recovered
    for entry_id, record in recovered.items():
        assert record == originals[entry_id], entry_id
    return set(recovered)


@pytest.fixture
def damaged(tmp_path):
    return os.fspath(tmp_path / "damaged.mvlog")


def test_an_intact_file_comes_back_whole(damaged, tmp_path):
    originals = make_file(damaged)
    output = os.fspath(tmp_path / "saved.mvlog")
    report = ml.recover(damaged, output, application="rescuer", version="3.1")
    assert isinstance(report, ml.RecoveryReport)
    assert (report.entries_recovered, report.entries_lost, report.lost_entry_ids) == (COUNT, 0, [])
    assert not report.entries_lost_is_lower_bound
    assert not report.pages_scanned
    assert (report.data_sources_recovered, report.data_sources_recreated) == (2, 0)
    assert (report.properties_recovered, report.properties_lost) == (2, 0)
    assert (report.resources_recovered, report.resources_lost) == (1, 0)
    assert (report.bookmarks_recovered, report.bookmarks_lost) == (2, 0)
    assert report.metadata_lost == 0 and report.metadata_recovered > 0
    assert check_entries(output, originals, report) == set(originals)
    with ml.LogFile.open(output) as f:
        meta = f.metadata
        assert (meta["applicationName"], meta["applicationVersion"]) == ("rescuer", "3.1")
        assert (meta["oldApplicationName"], meta["oldApplicationVersion"]) == ("maker", "0.9")
        assert meta["vessel"] == "RV Salvage"
        assert [(s.name, s.type, s.properties) for s in f.data_sources] == [
            ("cam", ml.SourceType.CAMERA, {"width": 640}),
            ("gnss", ml.SourceType.NAVIGATION, {"rateHz": 20.0}),
        ]
        assert f.resources == {"calibration.json": b'{"k": 1}'}
        assert f.bookmarks == [ml.Bookmark(2, "Start", "first fix", b"\x01\x02"),
                               ml.Bookmark(COUNT - 1, "End", "", b"")]


def test_the_report_is_a_frozen_value(damaged, tmp_path):
    make_file(damaged)
    report = ml.recover(damaged, tmp_path / "saved.mvlog")
    with pytest.raises(dataclasses.FrozenInstanceError):
        report.entries_lost = 1  # type: ignore[misc]
    assert [f.name for f in dataclasses.fields(report)] == [
        "entries_recovered", "entries_lost", "lost_entry_ids",
        "data_sources_recovered", "data_sources_recreated",
        "properties_recovered", "properties_lost",
        "metadata_recovered", "metadata_lost",
        "resources_recovered", "resources_lost",
        "bookmarks_recovered", "bookmarks_lost",
        "pages_scanned", "notes", "entries_lost_is_lower_bound",
    ]
    assert repr(report).startswith(f"RecoveryReport(entries_recovered={COUNT}, entries_lost=0,")
    assert all(isinstance(note, str) for note in report.notes)
    with ml.LogFile.open(tmp_path / "saved.mvlog") as f:
        assert f.metadata["applicationName"] == "marivane_logging"
        assert f.metadata["applicationVersion"] == ml.__version__


@pytest.mark.parametrize("level", [-1, 0], ids=["compressed", "uncompressed"])
def test_zeroed_pages_in_the_middle_lose_only_their_entries(damaged, tmp_path, level):
    originals = make_file(damaged, level)
    zero_pages(damaged, leaf_pages_in_the_middle(damaged, 3))
    before = digest(damaged)
    listing = sorted(os.listdir(tmp_path))
    output = os.fspath(tmp_path / "saved.mvlog")

    report = ml.recover(damaged, output)

    assert digest(damaged) == before
    assert sorted(os.listdir(tmp_path)) == sorted(listing + ["saved.mvlog"])
    assert report.pages_scanned
    assert report.entries_lost > 0 and report.entries_recovered > COUNT // 2
    # Only pages in the middle were damaged: the last id is still known.
    assert report.entries_recovered + report.entries_lost == COUNT
    recovered = check_entries(output, originals, report)
    lost = lost_ids(report)
    assert not recovered & lost
    assert recovered | lost == set(originals)
    assert 1 in recovered and COUNT in recovered
    assert report.data_sources_recovered == 2 and report.data_sources_recreated == 0
    assert report.bookmarks_recovered + report.bookmarks_lost == 2
    with ml.LogFile.open(output) as f:
        assert [b.entry_id for b in f.bookmarks] == [i for i in (2, COUNT - 1) if i in recovered]
        assert [s.name for s in f.data_sources] == ["cam", "gnss"]


def test_a_file_cut_short_keeps_what_is_left(damaged, tmp_path):
    originals = make_file(damaged)
    size = page_size(damaged)
    pages = os.path.getsize(damaged) // size
    with open(damaged, "r+b") as stream:
        stream.truncate((pages * 3 // 5) * size)
    before = digest(damaged)
    output = os.fspath(tmp_path / "saved.mvlog")

    report = ml.recover(damaged, output)

    assert digest(damaged) == before
    assert report.pages_scanned
    assert 0 < report.entries_recovered < COUNT
    # Entries past the highest id still seen leave no trace: at most COUNT,
    # and exactly COUNT unless the report says the count is a lower bound.
    assert report.entries_recovered + report.entries_lost <= COUNT
    if not report.entries_lost_is_lower_bound:
        assert report.entries_recovered + report.entries_lost == COUNT
    recovered = check_entries(output, originals, report)
    lost = lost_ids(report)
    assert not recovered & lost
    highest = max(recovered | lost)
    assert recovered | lost == set(range(1, highest + 1))


def root_page(path: str, name: str) -> int:
    with contextlib.closing(sqlite3.connect(f"file:{path}?mode=ro", uri=True)) as db:
        (page,) = db.execute("SELECT rootpage FROM sqlite_master WHERE name = ?", (name,)).fetchone()
    return page


@pytest.mark.parametrize("level", [-1, 0], ids=["compressed", "uncompressed"])
def test_a_cut_file_counts_every_id_it_still_shows(damaged, tmp_path, level):
    """The tail and the index on the entries are gone; a bookmark near the end still shows its id."""
    originals = make_file(damaged, level)
    size = page_size(damaged)
    pages = os.path.getsize(damaged) // size
    zero_pages(damaged, [root_page(damaged, "dataDataSourceIndex")])
    with open(damaged, "r+b") as stream:
        stream.truncate((pages // 2) * size)
    output = os.fspath(tmp_path / "saved.mvlog")

    report = ml.recover(damaged, output)

    assert report.entries_lost_is_lower_bound
    recovered = check_entries(output, originals, report)
    lost = lost_ids(report)
    assert recovered == set(range(1, len(recovered) + 1))
    # The bookmark on COUNT - 1 is the highest id the file still shows.
    assert lost == set(range(len(recovered) + 1, COUNT))
    assert report.entries_recovered + report.entries_lost == COUNT - 1
    assert (report.bookmarks_recovered, report.bookmarks_lost) == (1, 1)
    assert (
        f"The number of lost entries is a lower bound: the file shows ids up to {COUNT - 1}, and entries "
        "after that, if there were any, left no trace that could be counted."
    ) in report.notes


def test_a_file_cut_by_one_byte_loses_what_was_on_its_last_page(damaged, tmp_path):
    originals = make_file(damaged, 0)
    size = page_size(damaged)
    pages = os.path.getsize(damaged) // size
    with open(damaged, "r+b") as stream:
        stream.truncate(pages * size - 1)
    output = os.fspath(tmp_path / "saved.mvlog")

    report = ml.recover(damaged, output)

    # The index on the entries is whole: the count is exact.
    assert not report.entries_lost_is_lower_bound
    assert report.entries_lost > 0
    assert report.entries_recovered + report.entries_lost == COUNT
    recovered = check_entries(output, originals, report)
    assert recovered | lost_ids(report) == set(originals)
    assert (
        f"The file ends inside page {pages}: that page is missing, and so is every entry whose bytes "
        "were on it."
    ) in report.notes


def test_progress_reports_the_entries_recovered(damaged, tmp_path):
    make_file(damaged)
    calls = []
    report = ml.recover(damaged, tmp_path / "saved.mvlog", progress=calls.append)
    assert calls and calls == sorted(calls)
    assert calls[-1] == report.entries_recovered == COUNT


def test_an_exception_from_progress_stops_the_salvage(damaged, tmp_path):
    make_file(damaged)
    listing = sorted(os.listdir(tmp_path))

    class Enough(Exception):
        pass

    def stop(recovered):
        raise Enough(f"enough after {recovered}")

    with pytest.raises(Enough, match="enough after"):
        ml.recover(damaged, tmp_path / "stopped.mvlog", progress=stop)
    assert sorted(os.listdir(tmp_path)) == listing


def test_an_existing_output_is_refused(damaged, tmp_path):
    make_file(damaged)
    output = tmp_path / "exists.mvlog"
    output.write_bytes(b"keep me")
    before = digest(damaged)
    with pytest.raises(ml.LogFileError) as raised:
        ml.recover(damaged, output)
    assert str(raised.value) == f"Cannot write '{output}': a file already exists there and is never overwritten."
    assert output.read_bytes() == b"keep me"
    assert digest(damaged) == before
    assert sorted(os.listdir(tmp_path)) == ["damaged.mvlog", "exists.mvlog"]


def test_a_missing_damaged_file_is_an_error(tmp_path):
    missing = tmp_path / "missing.mvlog"
    output = tmp_path / "saved.mvlog"
    with pytest.raises(ml.LogFileError) as raised:
        ml.recover(missing, output)
    assert str(raised.value) == f"Cannot read '{missing}': it is missing or not a regular file."
    assert os.listdir(tmp_path) == []
