"""slice(time=...): the entries copy selects with the same range, whatever their ids."""

from __future__ import annotations

import datetime as dt

import pandas as pd
import pytest

import marivane_logging as ml
from conftest import BASE

UTC = dt.timezone.utc


@pytest.fixture
def shuffled(tmp_path):
    # "early" every 100 ms from BASE (ids 1-6), then "late" 50 ms after each
    # of the first five (ids 7-11): a window of time is not a range of ids.
    path = tmp_path / "two-threads.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        early = f.add_data_source(ml.SourceType.TEXT, "early")
        late = f.add_data_source(ml.SourceType.TEXT, "late")
        for i in range(6):
            f.log(early, 4, b"early %d" % i, BASE + 100 * i)
        for i in range(5):
            f.log(late, 5, b"late %d" % i, BASE + 50 + 100 * i)
        f.add_bookmark(3, "Mark", "on early 2", b"")
    return path


def rows(path):
    with ml.LogFile.open(path) as f:
        return [(e.id, e.timestamp, e.source, e.type, bytes(e.payload)) for e in f.entries(order="id")]


def test_slice_by_time_writes_what_copy_writes(shuffled, tmp_path):
    window = (BASE + 150, BASE + 350)
    with ml.copy(shuffled, tmp_path / "copy.mvlog", time=window) as copied:
        report = copied.report
    with ml.slice(shuffled, output=tmp_path / "slice.mvlog", time=window) as part:
        assert part.path == str(tmp_path / "slice.mvlog")
        assert part.read_only and part.report is None
        assert len(part) == report.entries == 5
        assert part.bookmarks == [ml.Bookmark(1, "Mark", "on early 2", b"")]
        assert [s.name for s in part.data_sources] == ["early", "late"]
    expected = rows(tmp_path / "copy.mvlog")
    assert rows(tmp_path / "slice.mvlog") == expected
    assert [payload for *_, payload in expected] == [b"early 2", b"early 3", b"late 1", b"late 2", b"late 3"]


@pytest.mark.parametrize(
    "window",
    [
        ("+0.15", "+0.35"),
        (dt.datetime.fromtimestamp((BASE + 150) / 1000, UTC), pd.Timestamp(BASE + 350, unit="ms", tz="UTC")),
        (dt.datetime.fromtimestamp((BASE + 150) / 1000, UTC).isoformat(timespec="milliseconds")[:-6] + "Z", BASE + 350),
    ],
)
def test_slice_by_time_takes_every_form_of_time(shuffled, tmp_path, window):
    ml.copy(shuffled, tmp_path / "copy.mvlog", time=(BASE + 150, BASE + 350)).close()
    ml.slice(shuffled, output=tmp_path / "slice.mvlog", time=window).close()
    assert rows(tmp_path / "slice.mvlog") == rows(tmp_path / "copy.mvlog")


def test_slice_by_time_with_open_ends_and_id_bounds(shuffled, tmp_path):
    ml.slice(shuffled, output=tmp_path / "from.mvlog", time=(BASE + 420, None)).close()
    assert [p for *_, p in rows(tmp_path / "from.mvlog")] == [b"early 5", b"late 4"]
    ml.copy(shuffled, tmp_path / "copy.mvlog", first_id=2, last_id=8, time=(None, BASE + 250)).close()
    with ml.LogFile.open(shuffled) as f:
        ml.slice(f, 2, 8, tmp_path / "both.mvlog", time=(None, BASE + 250)).close()
    assert rows(tmp_path / "both.mvlog") == rows(tmp_path / "copy.mvlog")
    assert [p for *_, p in rows(tmp_path / "both.mvlog")] == [b"early 1", b"early 2", b"late 0", b"late 1"]


def test_slice_by_time_without_output_goes_beside_the_source(shuffled, tmp_path):
    first = ml.slice(shuffled, time=(BASE, BASE + 100))
    second = ml.slice(shuffled, time=(BASE, BASE + 100))
    try:
        assert first.path == str(tmp_path / "two-threads_exported.mvlog")
        assert second.path == str(tmp_path / "two-threads_exported-2.mvlog")
        assert [e.timestamp for e in second.entries()] == [BASE, BASE + 50, BASE + 100]
    finally:
        first.close()
        second.close()


def test_slice_by_time_refuses_an_existing_output_and_needs_a_selection(shuffled, tmp_path):
    existing = tmp_path / "exists.mvlog"
    existing.write_bytes(b"x")
    with pytest.raises(ml.RefusedError, match="something exists there"):
        ml.slice(shuffled, output=existing, time=(BASE, None))
    assert existing.read_bytes() == b"x"
    with pytest.raises(TypeError, match="first_id and last_id, or time"):
        ml.slice(shuffled, 1)
    with pytest.raises(TypeError, match="pair"):
        ml.slice(shuffled, output=tmp_path / "bad.mvlog", time="+1")
    assert not (tmp_path / "bad.mvlog").exists()
