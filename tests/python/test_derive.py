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
        assert part.read_only and part.report is None
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
    with pytest.raises(ml.RefusedError, match="entry 99 is not in the file"):
        ml.slice(sample_path, 1, 99, tmp_path / "beyond.mvlog")
    assert not (tmp_path / "reversed.mvlog").exists()


def test_clone_recompresses_everything(sample_path, tmp_path):
    with ml.clone(sample_path, tmp_path / "clone.mvlog", level=0) as copy:
        assert copy.path == str(tmp_path / "clone.mvlog")
        assert copy.read_only and copy.report is None
        assert len(copy) == ENTRIES
        assert copy.metadata["compressionLevel"] == 0
        assert [e.payload for e in copy] == [payload_of(i) for i in range(ENTRIES)]
        assert copy.index()["size"].tolist()[:2] == [1000, 5]
        assert len(copy.bookmarks) == 2


def test_copy_with_a_selection(sample_path, tmp_path):
    output = tmp_path / "copy.mvlog"
    with ml.copy(sample_path, output, first_id=2, time=(BASE + 300, BASE + 1500), sources=[1],
                 application="copier", version="2.0") as copied:
        assert copied.path == str(output) and copied.read_only
        assert len(copied) == 5
        report = copied.report
    assert isinstance(report, ml.CopyReport)
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
    with ml.copy(sample_path, output, last_id=3, compression_level=5) as copied:
        report = copied.report
    assert report.entries == 3 and report.payloads_copied_as_stored == 0
    assert report.notes == [
        f"2 bookmark(s) of '{sample_path}' lie outside the selected id range and were not copied."
    ]
    with pytest.raises(ml.LogFileError, match="few.mvlog"):
        ml.copy(sample_path, output)


def test_copy_progress_and_its_errors(sample_path, tmp_path):
    calls = []
    ml.copy(sample_path, tmp_path / "p.mvlog", progress=lambda written, total: calls.append((written, total))).close()
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
    with ml.merge([sample_path, other], output) as merged:
        assert merged.path == str(output) and merged.read_only
        assert len(merged) == ENTRIES + 3
        report = merged.report
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


def derivations(sample_path, tmp_path):
    """Every derived call, as (name, call taking the output path)."""
    return [
        ("slice", lambda out: ml.slice(sample_path, 2, 9, out)),
        ("slice by time", lambda out: ml.slice(sample_path, output=out, time=("+0.1", "+0.8"))),
        ("clone", lambda out: ml.clone(sample_path, out)),
        ("copy", lambda out: ml.copy(sample_path, out, first_id=2, last_id=9)),
        ("merge", lambda out: ml.merge([sample_path], out, first_id=2, last_id=9)),
    ]


def test_every_derived_call_answers_the_new_file_read_only(sample_path, tmp_path):
    for name, derive in derivations(sample_path, tmp_path):
        output = tmp_path / f"{name.replace(' ', '-')}.mvlog"
        with derive(output) as made:
            assert isinstance(made, ml.LogFile), name
            assert made.path == str(output) and made.read_only and not made.closed, name
            assert len(made) == (ENTRIES if name == "clone" else 8), name
            with pytest.raises(ml.ReadOnlyError):
                made.add_metadata("note", "no")
            if name in ("copy", "merge"):
                assert isinstance(made.report, ml.CopyReport) and made.report.entries == 8, name
            else:
                assert made.report is None, name
        assert made.closed and (made.report is None) == (name not in ("copy", "merge"))
        # The file is whole: it opens for writing again.
        with ml.LogFile.open(output, read_only=False) as again:
            again.add_metadata("note", "yes")


def test_a_handle_that_was_opened_has_no_report(sample):
    assert sample.report is None


def test_derived_errors_name_their_files(sample_path, tmp_path):
    missing_directory = tmp_path / "no" / "such"
    for name, derive in derivations(sample_path, tmp_path):
        output = missing_directory / "out.mvlog"
        with pytest.raises(ml.LogFileNotFoundError) as caught:
            derive(output)
        assert str(caught.value) == f"[Errno 2] No such file or directory: '{output}'", name
        assert caught.value.filename == str(output), name
    assert not (tmp_path / "no").exists()

    existing = tmp_path / "exists.mvlog"
    existing.write_bytes(b"")
    for name, derive in derivations(sample_path, tmp_path):
        with pytest.raises(ml.LogFileError) as caught:
            derive(existing)
        if name in ("copy", "merge"):
            expected = f"Cannot write '{existing}': a file already exists there and is never overwritten."
        else:
            what = "A clone" if name == "clone" else "A slice"
            expected = f"{what} of '{sample_path}' into '{existing}' was refused: something exists there."
        assert str(caught.value) == expected, name
    assert existing.read_bytes() == b""

    out = tmp_path / "out.mvlog"
    with pytest.raises(ml.RefusedError) as caught:
        ml.slice(sample_path, 5, 2, out)
    assert str(caught.value) == (
        f"A slice of '{sample_path}' into '{out}' was refused: the range is reversed (5 > 2)."
    )
    with pytest.raises(ml.RefusedError) as caught:
        ml.slice(sample_path, 1, 99, out)
    assert str(caught.value) == f"A slice of '{sample_path}' into '{out}' was refused: entry 99 is not in the file."

    garbage = tmp_path / "garbage.mvlog"
    garbage.write_bytes(b"not a log file, only text long enough to look like a header" * 4)
    with pytest.raises(ml.NotALogFileError) as caught:
        ml.slice(garbage, 1, 2, out)
    assert str(caught.value) == f"'{garbage}': This file is not in a supported log file format."
    with pytest.raises(ml.LogFileError) as caught:
        ml.merge([sample_path, garbage], out)
    assert str(caught.value) == f"Cannot read '{garbage}': This file is not in a supported log file format."
    assert not out.exists()


def test_relative_times_of_derived_files(sample_path, tmp_path):
    # copy counts "+seconds" from the source's first entry, as slice does.
    with ml.copy(sample_path, tmp_path / "copy.mvlog", time=("+1", "+1.5")) as copied:
        assert [e.timestamp for e in copied] == [BASE + 100 * i for i in range(10, 16)]
    empty = tmp_path / "empty.mvlog"
    ml.LogFile.create(empty, application="a", version="1").close()
    for derive in (
        lambda: ml.copy(empty, tmp_path / "never.mvlog", time=("+1", None)),
        lambda: ml.slice(empty, output=tmp_path / "never.mvlog", time=("+1", None)),
    ):
        with pytest.raises(ValueError) as caught:
            derive()
        assert str(caught.value) == (
            f"a time relative to the first entry needs a file with entries: '{empty}' has none"
        )
    # A merge has a first entry per input: it takes absolute times only.
    with pytest.raises(ValueError) as caught:
        ml.merge([sample_path, empty], tmp_path / "never.mvlog", time=("+1", None))
    assert str(caught.value) == (
        f"a time relative to the first entry counts from one file's first entry; a merge of '{sample_path}', "
        f"'{empty}' takes milliseconds, datetimes or ISO 8601 text"
    )
    assert not (tmp_path / "never.mvlog").exists()


def test_copy_takes_data_sources_by_name_and_names_the_file_without_one(sample_path, tmp_path):
    with ml.copy(sample_path, tmp_path / "cam.mvlog", sources=iter(["cam"])) as copied:
        assert [e.id for e in copied] == list(range(1, 11))
        assert copied.report.entries == 10
    with pytest.raises(KeyError) as caught:
        ml.copy(sample_path, tmp_path / "never.mvlog", sources=["cam", "radar"])
    assert caught.value.args == (f"no data source named 'radar' in '{sample_path}'",)
    with pytest.raises(KeyError) as caught:
        ml.merge([sample_path], tmp_path / "never.mvlog", sources="cam")
    assert caught.value.args == (f"no data source named 'cam': a merge of '{sample_path}' selects data sources by id",)
    with ml.LogFile.open(sample_path) as f, pytest.raises(KeyError) as caught:
        f.entries(sources="radar")
    assert caught.value.args == (f"no data source named 'radar' in '{sample_path}'",)
    assert not (tmp_path / "never.mvlog").exists()
