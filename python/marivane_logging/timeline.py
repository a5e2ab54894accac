"""A log file's timeline as a picture: one lane per data source, gaps and their durations, bookmarks, rates.

::

    from marivane_logging.timeline import plot_timeline
    figure = plot_timeline("survey.mvlog", "timeline.png")

or ``python3 -m marivane_logging timeline survey.mvlog -o timeline.png``.
Reads the file's index only (no payloads), so large files draw quickly.
"""

from __future__ import annotations

import os
from dataclasses import dataclass
from typing import Any, Dict, List, Optional, Sequence, Tuple, Union

import numpy as np

from ._logfile import LogFile

PathLike = Union[str, "os.PathLike[str]"]


@dataclass(frozen=True)
class Gap:
    """A silence of one data source: no entry between `start` and `end` (ms)."""

    source: int
    start: int
    end: int

    @property
    def duration_ms(self) -> int:
        return self.end - self.start


def find_gaps(timestamps: np.ndarray, source: int, threshold_ms: Optional[float] = None,
              factor: float = 5.0, minimum_ms: float = 0.0) -> List[Gap]:
    """The gaps of one source's sorted timestamps.

    A gap is an interval longer than `threshold_ms`, or, without one, longer
    than `factor` times the source's median interval (and `minimum_ms`).
    """
    if len(timestamps) < 2:
        return []
    intervals = np.diff(timestamps)
    if threshold_ms is None:
        median = float(np.median(intervals))
        threshold_ms = max(factor * median, minimum_ms)
    where = np.nonzero(intervals > threshold_ms)[0]
    return [Gap(source, int(timestamps[i]), int(timestamps[i + 1])) for i in where]


def format_duration(ms: float) -> str:
    """A duration as the timeline writes it beside a gap: "250 ms", "12.5 s", "4 min 05 s", "2 h 07 min"."""
    if ms < 1000:
        return f"{ms:.0f} ms"
    if ms < 59_950:
        return f"{ms / 1000:.1f} s"
    seconds = int(round(ms / 1000))
    if seconds < 3600:
        return f"{seconds // 60} min {seconds % 60:02d} s"
    minutes = int(round(ms / 60_000))
    return f"{minutes // 60} h {minutes % 60:02d} min"


#: The sizes (points) of the gaps' durations, the bookmarks' titles and the
#: notes of what was left unlabelled.
GAP_FONT_SIZE = 8
BOOKMARK_FONT_SIZE = 8
NOTE_FONT_SIZE = 7


def _to_datetime64(ms: np.ndarray) -> np.ndarray:
    return np.asarray(ms, dtype="int64").astype("datetime64[ms]")


def plot_timeline(
    source: Union[LogFile, PathLike],
    output: Optional[PathLike] = None,
    *,
    gap_threshold_ms: Optional[float] = None,
    gap_factor: float = 5.0,
    rate_bins: int = 60,
    width: float = 12.0,
    dpi: int = 100,
) -> "matplotlib.figure.Figure":  # noqa: F821
    """Draws the file's timeline; saves it to `output` (PNG, SVG, PDF by extension) when given.

    Top: one lane per data source, a bar wherever the source delivered, gaps
    (see :func:`find_gaps`) hatched in red, each with its duration written
    inside it or, when it is too narrow, beside it or under the bar (see
    :func:`format_duration`), bookmarks as vertical lines with their titles.
    Bottom: each source's entry rate (entries per second) over time. The x
    axis counts seconds since the file's first entry, as ``"+seconds"``
    times count them; the clock time (UTC) runs along the top as a second
    axis (hours as "23:00" on a long file), and the bottom axis label names
    the first entry's time.

    No two labels overlap, however many gaps and bookmarks a long file has,
    and no duration covers another gap: the longest gaps are labelled first,
    a duration with no free place in its lane is left out, and a note in the
    lanes' bottom left corner says how many were ("+3 gap durations not
    labelled, the longest 4.5 s"); bookmark titles take the room the
    durations leave (with a note of their own in the bottom right corner).
    The labels are texts of the lanes' axes (``figure.axes[0].texts``) with
    the gid "gap-duration", "gap-durations-hidden", "bookmark" and
    "bookmarks-hidden".

    Uses matplotlib's Agg backend unless another was chosen already.
    """
    import matplotlib

    if output is not None and matplotlib.get_backend().lower() not in ("agg", "pdf", "svg", "cairo"):
        matplotlib.use("Agg")
    import matplotlib.dates as mdates
    import matplotlib.pyplot as plt

    from ._selection import to_datetime

    owned = not isinstance(source, LogFile)
    f = LogFile.open(source) if owned else source
    try:
        index = f.index()
        sources = f.data_sources
        bookmarks = f.bookmarks
        title = os.path.basename(f.path)
    finally:
        if owned:
            f.close()

    lanes = [s for s in sources if np.any(index["source"] == s.id)] or sources
    height = 2.0 + 0.5 * max(len(lanes), 1) + 2.5
    figure, (top, bottom) = plt.subplots(
        2, 1, sharex=True, figsize=(width, height), dpi=dpi,
        gridspec_kw={"height_ratios": [max(len(lanes), 1) * 0.5 + 0.6, 2.5]},
    )
    colours = plt.get_cmap("tab10")
    start = int(index["timestamp"].min()) if len(index) else 0
    end = int(index["timestamp"].max()) if len(index) else 1
    span = max(end - start, 1)
    # Bins of at least a second: narrower ones alias against slow sources.
    bin_count = max(1, min(rate_bins, int(span // 1000) or 1))
    bins = np.linspace(start, end + 1, bin_count + 1)
    bin_seconds = (bins[1] - bins[0]) / 1000.0
    gap_total = 0
    lane_gaps: List[Tuple[int, Gap, float, float]] = []

    def elapsed(ms):
        # Seconds since the first entry: the numbers a replay or a "+12.5"
        # time speaks in, where a wall clock of a long run says little.
        return (np.asarray(ms, dtype="float64") - start) / 1000.0

    for lane, data_source in enumerate(lanes):
        colour = colours(lane % 10)
        stamps = np.sort(index["timestamp"][index["source"] == data_source.id])
        gaps = find_gaps(stamps, data_source.id, gap_threshold_ms, gap_factor)
        gap_total += len(gaps)
        # Runs between gaps as bars; a run of one entry gets a visible width.
        edges = [int(stamps[0])] if len(stamps) else []
        for gap in gaps:
            edges += [gap.start, gap.end]
        if len(stamps):
            edges.append(int(stamps[-1]))
        minimum = span / 500.0
        # One collection for a lane's runs and one for its gaps: a long file
        # has thousands, and matplotlib rescales its axes for every one.
        runs = []
        for run_start, run_end in zip(edges[0::2], edges[1::2]):
            left = elapsed(run_start)
            right = elapsed(max(run_end, run_start + minimum))
            runs.append((left, right - left))
        if runs:
            top.broken_barh(runs, (lane - 0.35, 0.7), facecolors=colour)
        for gap in gaps:
            left, right = elapsed(gap.start), elapsed(gap.end)
            lane_gaps.append((lane, gap, float(left), float(right)))
        if gaps:
            top.broken_barh([(left, right - left) for _, _, left, right in lane_gaps[-len(gaps):]],
                            (lane - 0.35, 0.7), facecolors="none", edgecolors="red", hatch="///", linewidth=0.8)
        counts, _ = np.histogram(stamps, bins=bins)
        centres = elapsed((bins[:-1] + bins[1:]) / 2)
        bottom.plot(centres, counts / bin_seconds, color=colour, label=data_source.name, linewidth=1.2)

    top.set_yticks(range(len(lanes)))
    top.set_yticklabels([f"[{s.id}] {s.name}" for s in lanes])
    top.set_ylim(-0.7, len(lanes) - 0.3)
    top.invert_yaxis()
    entries = "1 entry" if len(index) == 1 else f"{len(index)} entries"
    sources_drawn = "1 data source" if len(lanes) == 1 else f"{len(lanes)} data sources"
    gaps_found = "1 gap" if gap_total == 1 else f"{gap_total} gaps"
    top.set_title(f"{title}: {entries}, {sources_drawn}, {gaps_found}")
    top.grid(axis="x", alpha=0.3)

    ids = index["id"]
    stamps_by_id = dict(zip(ids.tolist(), index["timestamp"].tolist())) if len(bookmarks) else {}
    marks: List[Tuple[float, str]] = []
    for bookmark in bookmarks:
        if bookmark.entry_id not in stamps_by_id:
            continue
        when = float(elapsed(stamps_by_id[bookmark.entry_id]))
        for axes in (top, bottom):
            axes.axvline(when, color="black", linestyle="--", linewidth=1)
        marks.append((when, bookmark.title or f"entry {bookmark.entry_id}"))

    bottom.set_ylabel("entries/s")
    bottom.grid(alpha=0.3)
    if lanes:
        bottom.legend(loc="upper right", fontsize=8)
    bottom.set_xlim(0.0, span / 1000.0)
    first_clock = to_datetime(start).strftime("%Y-%m-%d %H:%M:%S.%f")[:-3]
    bottom.set_xlabel(f"seconds since the first entry ({first_clock} UTC)")
    # The clock as a second axis on top: datenums are days since the epoch.
    start_days = mdates.date2num(_to_datetime64(np.array([start]))[0])
    clock = top.secondary_xaxis(
        "top",
        functions=(
            lambda seconds: start_days + np.asarray(seconds) / 86_400.0,
            lambda days: (np.asarray(days) - start_days) * 86_400.0,
        ),
    )
    locator = mdates.AutoDateLocator()
    clock.xaxis.set_major_locator(locator)
    formatter = mdates.AutoDateFormatter(locator)
    # Hours as a clock shows them ("23:00"), not as "11-14 23".
    formatter.scaled[1 / 24] = "%H:%M"
    clock.xaxis.set_major_formatter(formatter)
    clock.set_xlabel("time (UTC)", fontsize=8)
    clock.tick_params(labelsize=8)
    figure.tight_layout()
    # The corners where the notes of unlabelled gaps and bookmarks may go.
    notes = []
    if lane_gaps:
        longest = format_duration(max(gap.duration_ms for _, gap, _, _ in lane_gaps))
        notes.append(_note_place(figure, top, f"+{len(lane_gaps)} gap durations not labelled, the longest {longest}",
                                 "left"))
    if marks:
        notes.append(_note_place(figure, top, f"+{len(marks)} bookmarks not labelled", "right"))
    durations = _label_gaps(figure, top, lane_gaps, len(lanes), avoid=notes)
    _label_bookmarks(figure, top, sorted(marks), avoid=durations + notes)
    if output is not None:
        figure.savefig(os.fspath(output))
    return figure


def _label_gaps(figure: Any, axes: Any, gaps: List[Tuple[int, Gap, float, float]], lane_count: int,
                avoid: Sequence[Any] = ()) -> List[Any]:
    """Writes each gap's duration in its lane (of `lane_count`), the longest gaps first.

    On the lane's bar: inside the hatched gap when it fits, else just after
    the gap's end, else just before its start, never over another gap of
    the lane (which would hide it). When none of those is free, just under
    the bar, centred on the gap or starting or ending with it, where there is
    room before the next lane. A duration that finds no place clear of the
    lane's other durations and of the extents in `avoid` (the corner notes)
    inside `axes` is left out, and a note in the corner says how many.
    Answers the extents (in pixels) of the labels written, for the bookmark
    titles to keep clear of.
    """
    if not gaps:
        return []
    from matplotlib.font_manager import FontProperties

    renderer = figure.canvas.get_renderer()
    box = axes.get_window_extent(renderer)
    font = FontProperties(size=GAP_FONT_SIZE)
    points = figure.dpi / 72.0  # pixels per point
    offset = 3.0  # points between a gap's edge and a label beside it
    clearance = 6.0  # pixels between two labels of a row
    height = renderer.get_text_width_height_descent("lp", font, ismath=False)[1] + 2.0
    # Each gap's span in pixels, and the spans of each lane's gaps.
    spans = axes.transData.transform([(x, lane) for lane, _, left, right in gaps for x in (left, right)])[:, 0]
    spans = spans.reshape(-1, 2)
    lanes = np.array([lane for lane, *_ in gaps])
    by_lane = {lane: spans[lanes == lane] for lane in set(lanes.tolist())}

    def rows_of(lane: int) -> Dict[str, Tuple[float, float]]:
        # The pixels (bottom, top) a label takes on the lane's bar, and under
        # it when it fits before the next lane's bar or the axes' bottom.
        centre, bar_bottom = axes.transData.transform([(0.0, lane), (0.0, lane + 0.35)])[:, 1]
        limit = axes.transData.transform((0.0, lane + 0.65))[1] if lane + 1 < lane_count else box.y0 + 1.0
        rows = {"bar": (centre - height / 2, centre + height / 2)}
        if bar_bottom - points - height >= limit:
            rows["under"] = (bar_bottom - points - height, bar_bottom - points)
        return rows

    heights = {lane: rows_of(lane) for lane in by_lane}

    def clear(x: float, width: float, bottom: float, top: float) -> bool:
        return not any(x < other.x1 and other.x0 < x + width and bottom < other.y1 and other.y0 < top
                       for other in avoid)
    placed: Dict[Tuple[int, str], List[Any]] = {}
    written: List[Any] = []
    hidden: List[int] = []
    for k in sorted(range(len(gaps)), key=lambda k: (-gaps[k][1].duration_ms, gaps[k][1].start)):
        lane, gap, left, right = gaps[k]
        text = format_duration(gap.duration_ms)
        width = renderer.get_text_width_height_descent(text, font, ismath=False)[0]
        x0, x1 = spans[k].tolist()
        middle = (left + right) / 2
        # (row, anchor in seconds, offset in points, alignment, left edge in pixels)
        places = []
        if x1 - x0 >= width + 2 * offset * points:
            places.append(("bar", middle, 0.0, "center", (x0 + x1 - width) / 2))
        places.append(("bar", right, offset, "left", x1 + offset * points))
        places.append(("bar", left, -offset, "right", x0 - offset * points - width))
        if "under" in heights[lane]:
            places.append(("under", middle, 0.0, "center", (x0 + x1 - width) / 2))
            places.append(("under", left, 0.0, "left", x0))
            places.append(("under", right, 0.0, "right", x1 - width))
        for row, anchor, shift, alignment, x in places:
            if x < box.x0 + 1.0 or x + width > box.x1 - 1.0:
                continue
            row_labels = placed.setdefault((lane, row), [])
            if any(x < other.x1 + clearance and other.x0 < x + width + clearance for other in row_labels):
                continue
            if not clear(x, width, *heights[lane][row]):
                continue
            if row == "bar":
                others = by_lane[lane]
                covered = (others[:, 0] < x + width + 1.0) & (others[:, 1] > x - 1.0)
                if np.count_nonzero(covered) > (1 if alignment == "center" else 0):
                    continue
            on_bar = row == "bar"
            label = axes.annotate(text, xy=(anchor, lane if on_bar else lane + 0.35), xycoords="data",
                                  xytext=(shift, 0 if on_bar else -1), textcoords="offset points",
                                  fontsize=GAP_FONT_SIZE, ha=alignment, va="center" if on_bar else "top",
                                  gid="gap-duration", color="darkred",
                                  bbox=dict(boxstyle="square,pad=0.1", facecolor="white", edgecolor="none",
                                            alpha=0.85))
            extent = label.get_window_extent(renderer)
            row_labels.append(extent)
            written.append(extent)
            break
        else:
            hidden.append(gap.duration_ms)
    if hidden:
        plural = "" if len(hidden) == 1 else "s"
        longest = "" if len(hidden) == 1 else f", the longest {format_duration(max(hidden))}"
        axes.annotate(f"+{len(hidden)} gap duration{plural} not labelled{longest}", xy=(0.0, 0.0),
                      xycoords="axes fraction", xytext=(3, 3), textcoords="offset points", fontsize=NOTE_FONT_SIZE,
                      ha="left", va="bottom", gid="gap-durations-hidden", color="darkred")
    return written


def _label_bookmarks(figure: Any, axes: Any, marks: List[Tuple[float, str]], avoid: Sequence[Any] = ()) -> None:
    """Writes each bookmark's title beside its line, in rows from the top of
    `axes` down, so that no two labels overlap however close the bookmarks
    are (a long file has many), nor cover the extents in `avoid` (the gaps'
    durations and the corner notes). Titles that find no free place in the
    rows the lanes leave room for are left out, and a note in the corner
    says how many."""
    if not marks:
        return
    renderer = figure.canvas.get_renderer()
    box = axes.get_window_extent(renderer)
    gap = 4.0  # pixels between two labels of a row
    row_ends: Dict[int, float] = {}
    row_height = 0.0
    hidden = 0

    def clear(extent: Any) -> bool:
        return not any(
            extent.x0 < other.x1 + gap and other.x0 < extent.x1 + gap
            and extent.y0 < other.y1 + 1.0 and other.y0 < extent.y1 + 1.0
            for other in avoid
        )

    for when, title in marks:
        label = axes.annotate(title, xy=(when, 1.0), xycoords=("data", "axes fraction"), xytext=(3, -3),
                              textcoords="offset points", fontsize=BOOKMARK_FONT_SIZE, va="top", ha="left",
                              gid="bookmark",
                              bbox=dict(boxstyle="square,pad=0.1", facecolor="white", edgecolor="none", alpha=0.8))
        extent = label.get_window_extent(renderer)
        if extent.x1 > box.x1:
            # Near the right edge the title goes to the left of its line.
            label.set_horizontalalignment("right")
            label.xyann = (-3, -3)
            extent = label.get_window_extent(renderer)
        row_height = max(row_height, extent.height + 2.0)
        rows = max(1, int(box.height // row_height))
        row = next(
            (
                i for i in range(rows)
                if row_ends.get(i, -np.inf) + gap <= extent.x0 and extent.y0 - i * row_height >= box.y0
                and clear(extent.translated(0, -i * row_height))
            ),
            rows,
        )
        if row >= rows or extent.x0 < box.x0 - 1.0:
            label.remove()
            hidden += 1
            continue
        row_ends[row] = extent.x1
        label.xyann = (label.xyann[0], -3 - row * row_height * 72.0 / figure.dpi)
    if hidden:
        plural = "" if hidden == 1 else "s"
        axes.annotate(f"+{hidden} bookmark{plural} not labelled", xy=(1.0, 0.0), xycoords="axes fraction",
                      xytext=(-3, 3), textcoords="offset points", fontsize=NOTE_FONT_SIZE, ha="right", va="bottom",
                      gid="bookmarks-hidden")


def _note_place(figure: Any, axes: Any, text: str, corner: str) -> Any:
    """The extent (pixels) a note of at most `text` takes in the bottom left or right `corner` of `axes`."""
    from matplotlib.font_manager import FontProperties
    from matplotlib.transforms import Bbox

    renderer = figure.canvas.get_renderer()
    box = axes.get_window_extent(renderer)
    width, height, _ = renderer.get_text_width_height_descent(text, FontProperties(size=NOTE_FONT_SIZE), ismath=False)
    inset = 3.0 * figure.dpi / 72.0
    left = box.x0 + inset if corner == "left" else box.x1 - inset - width
    return Bbox.from_bounds(left - 2.0, box.y0, width + 4.0, inset + height + 4.0)


def source_statistics(f: LogFile) -> Dict[int, Tuple[int, int, float]]:
    """Per data-source id: entry count, stored bytes and mean rate in Hz."""
    index = f.index()
    result: Dict[int, Tuple[int, int, float]] = {}
    for source in f.data_sources:
        mask = index["source"] == source.id
        count = int(mask.sum())
        stored = int(index["size"][mask].sum())
        rate = 0.0
        if count > 1:
            stamps = index["timestamp"][mask]
            duration = (int(stamps.max()) - int(stamps.min())) / 1000.0
            rate = (count - 1) / duration if duration > 0 else 0.0
        result[source.id] = (count, stored, rate)
    return result


__all__ = ["plot_timeline", "find_gaps", "format_duration", "Gap", "source_statistics"]
