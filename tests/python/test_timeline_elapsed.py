"""The timeline picture's x axis: seconds since the first entry, the clock along the top."""

from __future__ import annotations

import datetime as dt

import numpy as np
import pytest

import marivane_logging as ml
from marivane_logging.timeline import plot_timeline
from conftest import BASE

matplotlib = pytest.importorskip("matplotlib")
matplotlib.use("Agg")


@pytest.fixture(scope="module")
def gappy(tmp_path_factory):
    """gnss at 10 Hz over 20 s with a gap from 5 s to 8 s (bookmarked at 8 s), camera at 2 Hz."""
    path = tmp_path_factory.mktemp("elapsed") / "gappy.mvlog"
    with ml.LogFile.create(path, application="t", version="1", created=BASE) as f:
        gnss = f.add_data_source(ml.SourceType.NAVIGATION, "gnss")
        camera = f.add_data_source(ml.SourceType.CAMERA, "camera")
        with f.batch():
            for ms in range(0, 20_000, 100):
                if not 5_000 < ms < 8_000:
                    f.log(gnss, 1, b"g" * 16, BASE + ms)
                if ms % 500 == 0:
                    f.log(camera, 2, b"c" * 100, BASE + ms)
        f.add_bookmark(f.find_entry_at_or_after(BASE + 8_000, sources="gnss"), "Back online")
    return path


def test_x_axis_counts_seconds_from_the_first_entry(gappy):
    figure = plot_timeline(gappy)
    figure.canvas.draw()
    top, bottom = figure.axes
    assert bottom.get_xlabel() == "seconds since the first entry (2023-11-14 22:13:20.000 UTC)"
    assert bottom.get_xlim() == (0.0, 19.9)
    assert top.get_xlim() == (0.0, 19.9)
    assert bottom.get_xticks().tolist() == [0.0, 2.5, 5.0, 7.5, 10.0, 12.5, 15.0, 17.5, 20.0]
    assert [label.get_text() for label in bottom.get_xticklabels()][:3] == ["0.0", "2.5", "5.0"]
    # The bookmark, the gap and the rate curves sit at their seconds.
    bookmark_lines = [line for line in bottom.get_lines() if line.get_linestyle() == "--"]
    assert [line.get_xdata() for line in bookmark_lines] == [[8.0, 8.0]]
    hatched = [c for c in top.collections if c.get_hatch() == "///"]
    assert len(hatched) == 1
    extent = hatched[0].get_paths()[0].get_extents()
    assert (extent.x0, extent.x1) == pytest.approx((5.0, 8.0))
    rates = [line for line in bottom.get_lines() if line.get_label() == "gnss"]
    assert 0.0 < np.min(rates[0].get_xdata()) and np.max(rates[0].get_xdata()) < 19.9
    figure.clf()


def test_clock_time_runs_along_the_top(gappy):
    import matplotlib.dates as mdates

    figure = plot_timeline(gappy)
    figure.canvas.draw()
    clock = figure.axes[0].child_axes[0]
    assert clock.get_xlabel() == "time (UTC)"
    ticks = [mdates.num2date(value) for value in clock.get_xticks()]
    first = dt.datetime(2023, 11, 14, 22, 13, 20, tzinfo=dt.timezone.utc)
    assert [round((tick - first).total_seconds(), 3) for tick in ticks] == [0.0, 5.0, 10.0, 15.0]
    assert [label.get_text() for label in clock.get_xticklabels()] == ["22:13:20", "22:13:25", "22:13:30", "22:13:35"]
    figure.clf()


def test_a_file_that_starts_later_still_starts_at_zero(tmp_path):
    path = tmp_path / "late.mvlog"
    with ml.LogFile.create(path, application="t", version="1") as f:
        text = f.add_data_source(ml.SourceType.TEXT, "text")
        for i in range(4):
            f.log(text, 1, b"x", BASE + 3_600_000 + 1_000 * i)
    figure = plot_timeline(path)
    bottom = figure.axes[1]
    assert bottom.get_xlim() == (0.0, 3.0)
    assert bottom.get_xlabel() == "seconds since the first entry (2023-11-14 23:13:20.000 UTC)"
    figure.clf()
