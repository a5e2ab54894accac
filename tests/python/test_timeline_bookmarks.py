"""Bookmark titles on the timeline picture: beside their lines, never over one another."""

from __future__ import annotations

import itertools

import pytest

import marivane_logging as ml
from marivane_logging.timeline import plot_timeline
from conftest import BASE

matplotlib = pytest.importorskip("matplotlib")
matplotlib.use("Agg")

HOUR = 3_600_000


@pytest.fixture(scope="module")
def long_survey(tmp_path_factory):
    """Nine hours at one entry a second, with bookmarks in clusters seconds apart and alone."""
    path = tmp_path_factory.mktemp("bookmarks") / "survey.mvlog"
    with ml.LogFile.create(path, application="t", version="1", created=BASE) as f:
        gnss = f.add_data_source(ml.SourceType.NAVIGATION, "gnss")
        with f.batch():
            for second in range(0, 9 * 3600):
                f.log(gnss, 1, b"g", BASE + 1000 * second)
        marked = [10, 12, 14, 20, 3600, 3602, 3604, 3606, 3608, 4 * 3600, 8 * 3600 + 3590, 9 * 3600 - 1]
        for number, second in enumerate(marked):
            f.add_bookmark(second + 1, f"Bookmark number {number} at {second} s")
    return path, len(marked)


def bookmark_labels(figure):
    top = figure.axes[0]
    return [text for text in top.texts if text.get_gid() == "bookmark"]


def test_labels_never_overlap_and_every_bookmark_is_accounted_for(long_survey):
    path, count = long_survey
    figure = plot_timeline(path)
    figure.canvas.draw()
    renderer = figure.canvas.get_renderer()
    labels = bookmark_labels(figure)
    extents = [label.get_window_extent(renderer) for label in labels]
    for (first, a), (second, b) in itertools.combinations(zip(labels, extents), 2):
        assert not a.overlaps(b), (first.get_text(), second.get_text())
    # Every label stays inside the lanes' axes.
    box = figure.axes[0].get_window_extent(renderer)
    for label, extent in zip(labels, extents):
        assert box.x0 - 1 <= extent.x0 and extent.x1 <= box.x1 + 1, label.get_text()
    hidden = [text for text in figure.axes[0].texts if text.get_gid() == "bookmarks-hidden"]
    shown = len(labels)
    if hidden:
        missing = count - shown
        assert hidden[0].get_text() == f"+{missing} bookmark{'' if missing == 1 else 's'} not labelled"
    else:
        assert shown == count
    # The clustered ones go to rows of their own rather than over each other.
    assert len({round(extent.y0) for extent in extents}) >= 2
    figure.clf()


def test_a_title_near_the_end_is_written_left_of_its_line(long_survey):
    path, _ = long_survey
    figure = plot_timeline(path)
    figure.canvas.draw()
    last = [label for label in bookmark_labels(figure) if label.get_text().endswith(f"at {9 * 3600 - 1} s")]
    assert len(last) == 1
    assert last[0].get_horizontalalignment() == "right"
    figure.clf()


def test_a_single_bookmark_is_labelled_at_its_line(tmp_path):
    path = tmp_path / "one.mvlog"
    with ml.LogFile.create(path, application="t", version="1", created=BASE) as f:
        text = f.add_data_source(ml.SourceType.TEXT, "text")
        for i in range(10):
            f.log(text, 1, b"x", BASE + 1_000 * i)
        f.add_bookmark(4, "Buoy")
    figure = plot_timeline(path)
    labels = bookmark_labels(figure)
    assert [label.get_text() for label in labels] == ["Buoy"]
    assert labels[0].xy == (3.0, 1.0)
    assert [t for t in figure.axes[0].texts if t.get_gid() == "bookmarks-hidden"] == []
    figure.clf()
