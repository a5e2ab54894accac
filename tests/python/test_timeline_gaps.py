"""Gap durations on the timeline picture: in or beside their gaps, never over one another, nor over another gap."""

from __future__ import annotations

import datetime as dt
import itertools
import re

import numpy as np
import pytest

import marivane_logging as ml
from marivane_logging.timeline import GAP_FONT_SIZE, find_gaps, format_duration, plot_timeline
from conftest import BASE

matplotlib = pytest.importorskip("matplotlib")
matplotlib.use("Agg")

HOUR = 3600  # seconds

# Nine hours: outages of gnss (1 Hz) every 700 s, 8 s to 5 min long, too close together for every
# duration to be written; three long ones of the camera (0.5 Hz); one a minute long each hour of
# the imu (1 Hz), with room beside it; and bookmarks, some of them in clusters.
GNSS_OUTAGES = [(600 + 700 * k, 600 + 700 * k + 8 + (k * 37) % 300) for k in range(44)]
CAMERA_OUTAGES = [(2 * HOUR, 2 * HOUR + 1200), (5 * HOUR, 5 * HOUR + 46), (7 * HOUR + 100, 7 * HOUR + 3000)]
IMU_OUTAGES = [(hour * HOUR + 900, hour * HOUR + 960) for hour in range(9)]
BOOKMARKS = [10, 12, 14, HOUR, HOUR + 2, 4 * HOUR + 35, 8 * HOUR]


def silent(second: float, outages) -> bool:
    return any(start < second < end for start, end in outages)


@pytest.fixture(scope="module")
def nine_hours(tmp_path_factory):
    path = tmp_path_factory.mktemp("gaps") / "nine-hours.mvlog"
    with ml.LogFile.create(path, application="t", version="1", created=BASE) as f:
        gnss = f.add_data_source(ml.SourceType.NAVIGATION, "gnss")
        camera = f.add_data_source(ml.SourceType.CAMERA, "camera")
        imu = f.add_data_source(ml.SourceType.INERTIAL, "imu")
        with f.batch():
            for second in range(9 * HOUR):
                if not silent(second, GNSS_OUTAGES):
                    f.log(gnss, 1, b"g", BASE + 1000 * second)
                if second % 2 == 0 and not silent(second, CAMERA_OUTAGES):
                    f.log(camera, 2, b"c", BASE + 1000 * second)
                if not silent(second, IMU_OUTAGES):
                    f.log(imu, 3, b"i", BASE + 1000 * second)
        for number, second in enumerate(BOOKMARKS):
            f.add_bookmark(f.find_entry_at_or_after(BASE + 1000 * second), f"Bookmark {number} at {second} s")
    return path


def expected_gaps(path):
    """Per lane (the data sources' order): the gaps the picture marks."""
    with ml.LogFile.open(path) as f:
        index = f.index()
        sources = f.data_sources
    return [find_gaps(np.sort(index["timestamp"][index["source"] == s.id]), s.id) for s in sources]


def texts(figure, gid):
    return [text for text in figure.axes[0].texts if text.get_gid() == gid]


def test_durations_are_written_as_people_read_them():
    assert [format_duration(ms) for ms in (250, 999, 1000, 12_500, 59_940, 59_960, 65_000, 3_599_400,
                                           3_599_600, 7_620_000, 9 * HOUR * 1000)] == [
        "250 ms", "999 ms", "1.0 s", "12.5 s", "59.9 s", "1 min 00 s", "1 min 05 s", "59 min 59 s",
        "1 h 00 min", "2 h 07 min", "9 h 00 min",
    ]


def write_lanes(path, seconds, silences, rate_hz=10):
    """One "gnss" source at `rate_hz` over `seconds`, silent over each (start, end) of `silences`."""
    with ml.LogFile.create(path, application="t", version="1", created=BASE) as f:
        gnss = f.add_data_source(ml.SourceType.NAVIGATION, "gnss")
        with f.batch():
            for step in range(int(seconds * rate_hz)):
                second = step / rate_hz
                if not silent(second, silences):
                    f.log(gnss, 1, b"g", BASE + round(1000 * second))


def test_a_wide_gap_has_its_duration_inside(tmp_path):
    path = tmp_path / "wide.mvlog"
    write_lanes(path, 20, [(5.0, 8.0)])
    figure = plot_timeline(path)
    figure.canvas.draw()
    renderer = figure.canvas.get_renderer()
    top = figure.axes[0]
    assert top.get_title() == "wide.mvlog: 171 entries, 1 data source, 1 gap"
    (label,) = texts(figure, "gap-duration")
    assert label.get_text() == "3.0 s"
    assert label.xy == (6.5, 0) and label.get_horizontalalignment() == "center"
    assert label.get_fontsize() == GAP_FONT_SIZE >= 8
    # Inside the hatched gap, centred on its lane.
    extent = label.get_window_extent(renderer)
    (left, lane_y), (right, _) = top.transData.transform([(5.0, 0), (8.0, 0)])
    assert left < extent.x0 < extent.x1 < right
    assert extent.y0 < lane_y < extent.y1
    assert texts(figure, "gap-durations-hidden") == []
    figure.clf()


def test_a_narrow_gap_has_its_duration_beside_it_and_to_its_left_near_the_end(tmp_path):
    path = tmp_path / "narrow.mvlog"
    write_lanes(path, 60, [(20.0, 20.8), (59.0, 59.7)])
    figure = plot_timeline(path)
    labels = sorted(texts(figure, "gap-duration"), key=lambda label: label.xy[0])
    assert [label.get_text() for label in labels] == ["800 ms", "700 ms"]
    # After the gap's end, or, with no room there, before its start.
    assert labels[0].xy == pytest.approx((20.8, 0)) and labels[0].get_horizontalalignment() == "left"
    assert labels[1].xy == pytest.approx((59.0, 0)) and labels[1].get_horizontalalignment() == "right"
    figure.canvas.draw()
    renderer = figure.canvas.get_renderer()
    top = figure.axes[0]
    gap_end = top.transData.transform((20.8, 0))[0]
    assert labels[0].get_window_extent(renderer).x0 > gap_end
    assert labels[1].get_window_extent(renderer).x1 < top.transData.transform((59.0, 0))[0]
    figure.clf()


def test_nine_hours_of_gaps_labelled_without_overlaps(nine_hours):
    figure = plot_timeline(nine_hours)
    figure.canvas.draw()
    renderer = figure.canvas.get_renderer()
    top = figure.axes[0]
    box = top.get_window_extent(renderer)
    lanes = expected_gaps(nine_hours)
    total = sum(len(gaps) for gaps in lanes)
    assert total == len(GNSS_OUTAGES) + len(CAMERA_OUTAGES) + len(IMU_OUTAGES)
    with ml.LogFile.open(nine_hours) as f:
        entries = len(f)
    assert top.get_title() == f"nine-hours.mvlog: {entries} entries, 3 data sources, {total} gaps"

    labels = texts(figure, "gap-duration")
    extents = [label.get_window_extent(renderer) for label in labels]
    # Nothing written on the lanes overlaps anything else written there.
    everything = [(text.get_text(), text.get_window_extent(renderer)) for text in top.texts]
    for (first, a), (second, b) in itertools.combinations(everything, 2):
        assert not a.overlaps(b), (first, second)

    def pixels_y(y):
        return top.transData.transform((0, y))[1]

    labelled = {}
    rows = {"bar": 0, "under": 0}
    for label, extent in zip(labels, extents):
        # Inside the lanes' axes, on the bar of its lane or just under it, before the next lane's bar.
        assert box.x0 <= extent.x0 and extent.x1 <= box.x1, label.get_text()
        x, y = label.xy
        lane = round(y)
        assert lane in (0, 1, 2) and y in (lane, lane + 0.35)
        row = "bar" if y == lane else "under"
        rows[row] += 1
        if row == "bar":
            assert pixels_y(lane + 0.35) < extent.y0 < extent.y1 < pixels_y(lane - 0.35), label.get_text()
        else:
            assert pixels_y(lane + 0.65) < extent.y0 < extent.y1 < pixels_y(lane + 0.35), label.get_text()
        # The duration of the gap it is written in, beside or under.
        gap = next(g for g in lanes[lane] if x in ((g.start - BASE) / 1000, (g.end - BASE) / 1000,
                                                   (g.start + g.end - 2 * BASE) / 2000))
        assert label.get_text() == format_duration(gap.duration_ms)
        labelled[(lane, gap.start)] = gap
        # On the bar, over no other gap of its lane.
        for other in lanes[lane] if row == "bar" else []:
            if other is gap:
                continue
            left, right = top.transData.transform([((other.start - BASE) / 1000, lane),
                                                   ((other.end - BASE) / 1000, lane)])[:, 0]
            assert extent.x1 < left or right < extent.x0, (label.get_text(), other)
    assert len(labelled) == len(labels)
    assert rows["bar"] > 0 and rows["under"] > 0

    # The imu's hourly minute has room beside it every time; the camera's long gaps are written inside.
    imu = sorted(gap.start for (lane, _), gap in labelled.items() if lane == 2)
    assert imu == [g.start for g in lanes[2]]
    inside = [label.get_text() for label in labels if label.get_horizontalalignment() == "center"
              and label.xy[1] == round(label.xy[1])]
    assert "48 min 20 s" in inside
    # Those without room are counted, with the longest of them.
    unlabelled = [g for lane, gaps in enumerate(lanes) for g in gaps if (lane, g.start) not in labelled]
    assert unlabelled, "the gnss outages are too close together to write every duration"
    (note,) = texts(figure, "gap-durations-hidden")
    assert note.get_text() == (
        f"+{len(unlabelled)} gap durations not labelled, the longest "
        f"{format_duration(max(g.duration_ms for g in unlabelled))}"
    )
    assert len(labels) + len(unlabelled) == total
    # The longest gap of each lane is labelled.
    for lane, gaps in enumerate(lanes):
        longest = max(gaps, key=lambda g: g.duration_ms)
        assert (lane, longest.start) in labelled, lane
    figure.clf()


def tick_texts(axis, renderer):
    return [(label.get_text(), label.get_window_extent(renderer)) for label in axis.get_ticklabels()
            if label.get_visible() and label.get_text()]


def test_both_axes_of_a_long_file_are_readable(nine_hours):
    figure = plot_timeline(nine_hours)
    figure.canvas.draw()
    renderer = figure.canvas.get_renderer()
    top, bottom = figure.axes
    clock = top.child_axes[0]
    elapsed = tick_texts(bottom.xaxis, renderer)
    hours = tick_texts(clock.xaxis, renderer)
    for ticks in (elapsed, hours):
        assert len(ticks) >= 5
        for (first, a), (second, b) in itertools.combinations(ticks, 2):
            assert not a.overlaps(b), (first, second)
    # Elapsed seconds below, in plain numbers; the hours of the clock (UTC) along the top.
    assert [int(text) for text, _ in elapsed] == sorted(int(text) for text, _ in elapsed)
    assert all(re.fullmatch(r"\d+", text) for text, _ in elapsed)
    assert bottom.get_xlim() == (0.0, 9 * HOUR - 1.0)
    assert bottom.get_xlabel() == "seconds since the first entry (2023-11-14 22:13:20.000 UTC)"
    assert clock.get_xlabel() == "time (UTC)"
    first = dt.datetime.fromtimestamp(BASE / 1000, dt.timezone.utc)
    expected = [(first + dt.timedelta(hours=h)).replace(minute=0, second=0).strftime("%H:%M") for h in range(1, 10)]
    assert [text for text, _ in hours] == expected[: len(hours)]
    figure.clf()


def test_bookmark_titles_keep_clear_of_the_durations(tmp_path):
    # Bookmarks just before a gap, their titles in rows from the top down over the gap's middle,
    # where its duration is written.
    path = tmp_path / "clash.mvlog"
    write_lanes(path, 100, [(40.0, 60.0)], rate_hz=1)
    with ml.LogFile.open(path, read_only=False) as f:
        for second in range(34, 40):
            f.add_bookmark(second + 1, f"Bookmark at {second} s, with a title long enough to pass the gap's middle")
    figure = plot_timeline(path)
    figure.canvas.draw()
    renderer = figure.canvas.get_renderer()
    (duration,) = texts(figure, "gap-duration")
    assert duration.get_text() == "20.0 s" and duration.xy == (50.0, 0)
    written = duration.get_window_extent(renderer)
    titles = [title.get_window_extent(renderer) for title in texts(figure, "bookmark")]
    assert all(not title.overlaps(written) for title in titles)
    # The rows go on below the duration rather than stop above it.
    assert any(title.y0 > written.y1 for title in titles) and any(title.y1 < written.y0 for title in titles)
    hidden = texts(figure, "bookmarks-hidden")
    assert len(titles) + (int(hidden[0].get_text().split()[0]) if hidden else 0) == 6
    figure.clf()


def test_thousands_of_gaps_in_one_lane(tmp_path):
    # Nine hours of a source that delivers three seconds in ten: a gap every ten seconds.
    path = tmp_path / "flaky.mvlog"
    with ml.LogFile.create(path, application="t", version="1", created=BASE) as f:
        flaky = f.add_data_source(ml.SourceType.NAVIGATION, "flaky")
        with f.batch():
            for second in range(9 * HOUR):
                if second % 10 < 3:
                    f.log(flaky, 1, b"x", BASE + 1000 * second)
    figure = plot_timeline(path)
    figure.canvas.draw()
    renderer = figure.canvas.get_renderer()
    top = figure.axes[0]
    assert top.get_title() == "flaky.mvlog: 9720 entries, 1 data source, 3239 gaps"
    # A collection for the lane's runs and one for its gaps, not one per bar.
    assert len(top.collections) == 2
    labels = texts(figure, "gap-duration")
    assert labels and {label.get_text() for label in labels} == {"8.0 s"}
    (note,) = texts(figure, "gap-durations-hidden")
    assert note.get_text() == f"+{3239 - len(labels)} gap durations not labelled, the longest 8.0 s"
    extents = [text.get_window_extent(renderer) for text in top.texts]
    for first, second in itertools.combinations(extents, 2):
        assert not first.overlaps(second)
    figure.clf()
