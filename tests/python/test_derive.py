"""Derived files: slice, clone, copy, merge."""

from __future__ import annotations

import os

import pytest

import marivane_logging as ml
from conftest import BASE, ENTRIES, payload_of


def test_slice_renumbers_and_keeps_bookmarks_inside(sample_path, tmp_path):
    output = tmp_path / "slice.mvlog"
    with ml.slice(sample_path, 4, 21, output, application="slicer", version="9") as part:
        assert part.path == str(output)
        assert len(part) == 18
        assert [e.payload for e in part.entries()] == [payload_of(i) for i in range(3, 21)]
        assert part[1].timestamp == BASE + 300
        assert part.bookmarks == [ml.Bookmark(2, "Turn", "to port", b"\x01\x02"),
                                  ml.Bookmark(17, "Stop", "", b"")]
        meta = part.metadata
        assert meta["applicationName"] == "slicer" and meta["applicationVersion"] == "9"
        assert meta["oldApplicationName"] == "sample" and meta["oldApplicationVersion"] == "1.2.3"
        assert meta["vessel"] == "RV Test"
        assert [s.name for s in part.data_sources] == ["cam", "gnss"]
        assert part.resources == {"calibration.json": b'{"k": 1}', "thumbnail": b"\x89PNG-thumb"}


def test_slice_of_an_open_file_without_output_goes_beside_it(tmp_path):
    from conftest import write_sample

    source = tmp_path / "src.mvlog"
    write_sample(os.fspath(source))
    with ml.LogFile.open(source) as f:
        with ml.slice(f, 1, 2) as part:
            assert part.path == str(tmp_path / "src_exported.mvlog")
            assert [e.id for e in part] == [1, 2]
        assert not f.closed


def test_slice_refusals(sample_path, tmp_path):
    existing = tmp_path / "exists.mvlog"
    existing.write_bytes(b"")
    with pytest.raises(ml.RefusedError, match="something exists there"):
        ml.slice(sample_path, 1, 2, existing)
    with pytest.raises(ml.RefusedError, match="range is reversed"):
        ml.slice(sample_path, 5, 2, tmp_path / "reversed.mvlog")
    with pytest.raises(ml.RefusedError):
        ml.slice(sample_path, 1, 99, tmp_path / "beyond.mvlog")
    assert not (tmp_path / "reversed.mvlog").exists()


def test_clone_recompresses_everything(sample_path, tmp_path):
    with ml.clone(sample_path, tmp_path / "clone.mvlog", level=0) as copy:
        assert len(copy) == ENTRIES
        assert copy.metadata["compressionLevel"] == 0
        assert [e.payload for e in copy] == [payload_of(i) for i in range(ENTRIES)]
        assert copy.index()["size"].tolist()[:2] == [1000, 5]
        assert len(copy.bookmarks) == 2


def test_copy_with_a_selection(sample_path, tmp_path):
    output = tmp_path / "copy.mvlog"
    report = ml.copy(sample_path, output, first_id=2, time=(BASE + 300, BASE + 1500), sources=[1],
                     application="copier", version="2.0")
    assert (report.entries, report.data_sources, report.resources) == (5, 2, 2)
    assert report.bookmarks == 1  # entry 5's bookmark moves to the next copied entry, id 7
    assert report.payloads_copied_as_stored == 5
    assert repr(report).startswith("CopyReport(entries=5, data_sources=2, bookmarks=1")
    with ml.LogFile.open(output) as f:
        assert [(e.id, e.timestamp, e.payload) for e in f] == [
            (n + 1, BASE + 100 * i, payload_of(i)) for n, i in enumerate([3, 6, 9, 12, 15])
        ]
        assert f.bookmarks == [ml.Bookmark(2, "Turn", "to port", b"\x01\x02")]
        assert f.metadata["applicationName"] == "copier"


def test_copy_notes_what_it_drops_and_refuses_an_existing_output(sample_path, tmp_path):
    output = tmp_path / "few.mvlog"
    report = ml.copy(sample_path, output, last_id=3, compression_level=5)
    assert report.entries == 3 and report.payloads_copied_as_stored == 0
    assert report.notes == [
        f"2 bookmark(s) of '{sample_path}' lie outside the selected id range and were not copied."
    ]
    with pytest.raises(ml.LogFileError, match="few.mvlog"):
        ml.copy(sample_path, output)


def test_copy_progress_and_its_errors(sample_path, tmp_path):
    calls = []
    ml.copy(sample_path, tmp_path / "p.mvlog", progress=lambda written, total: calls.append((written, total)))
    assert calls and calls[-1][1] == ENTRIES

    def stop(written, total):
        raise KeyboardInterrupt("enough")

    with pytest.raises(KeyboardInterrupt, match="enough"):
        ml.copy(sample_path, tmp_path / "stopped.mvlog", progress=stop)
    assert not (tmp_path / "stopped.mvlog").exists()


def test_merge_interleaves_by_time(sample_path, tmp_path):
    other = tmp_path / "other.mvlog"
    with ml.LogFile.create(other, application="b", version="1") as f:
        radar = f.add_data_source(ml.SourceType.RADAR, "radar")
        for i in range(3):
            f.log(radar, 5, b"radar%d" % i, BASE + 150 + 1000 * i)
    output = tmp_path / "merged.mvlog"
    report = ml.merge([sample_path, other], output)
    assert report.entries == ENTRIES + 3
    assert report.data_sources == 3
    assert report.notes == [
        f"Data source 1 (\"radar\") of '{other}' became data source 3: its id was taken by an earlier input."
    ]
    with ml.LogFile.open(output) as f:
        assert [s.name for s in f.data_sources] == ["cam", "gnss", "radar"]
        radar_id = f.data_source("radar").id
        assert radar_id == 3
        ids = [e.id for e in f.entries(sources="radar")]
        assert ids == [3, 14, 25]
        assert [e.payload for e in f.entries(sources=radar_id)] == [b"radar0", b"radar1", b"radar2"]
        meta = f.metadata
        assert (meta["mergedInput1ApplicationName"], meta["mergedInput2ApplicationName"]) == ("sample", "b")
        assert meta["mergedInput1Path"] == str(sample_path) and meta["mergedInput2Path"] == str(other)
