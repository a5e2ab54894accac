"""A log file's timeline as a picture: one lane per data source, gaps, bookmarks, rates.

::

    from marivane_logging.timeline import plot_timeline
    figure = plot_timeline("survey.mvlog", "timeline.png")

or ``python3 -m marivane_logging timeline survey.mvlog -o timeline.png``.
Reads the file's index only (no payloads), so large files draw quickly.
"""

from __future__ import annotations

import os
from dataclasses import dataclass
from typing import Any, Dict, List, Optional, Tuple, Union

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
    (see :func:`find_gaps`) hatched in red, bookmarks as labelled vertical
    lines. Bottom: each source's entry rate (entries per second) over time.
    The x axis counts seconds since the file's first entry, as ``"+seconds"``
    times count them; the clock time (UTC) runs along the top as a second
    axis, and the bottom axis label names the first entry's time.
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
        for run_start, run_end in zip(edges[0::2], edges[1::2]):
            left = elapsed(run_start)
            right = elapsed(max(run_end, run_start + minimum))
            top.broken_barh([(left, right - left)], (lane - 0.35, 0.7), facecolors=colour)
        for gap in gaps:
            left, right = elapsed(gap.start), elapsed(gap.end)
            top.broken_barh([(left, right - left)], (lane - 0.35, 0.7), facecolors="none",
                            edgecolors="red", hatch="///", linewidth=0.8)
        counts, _ = np.histogram(stamps, bins=bins)
        centres = elapsed((bins[:-1] + bins[1:]) / 2)
        bottom.plot(centres, counts / bin_seconds, color=colour, label=data_source.name, linewidth=1.2)

    top.set_yticks(range(len(lanes)))
    top.set_yticklabels([f"[{s.id}] {s.name}" for s in lanes])
    top.set_ylim(-0.7, len(lanes) - 0.3)
    top.invert_yaxis()
    plural = "" if gap_total == 1 else "s"
    top.set_title(f"{title}: {len(index)} entries, {len(lanes)} data sources, {gap_total} gap{plural}")
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
    clock.xaxis.set_major_formatter(mdates.AutoDateFormatter(locator))
    clock.set_xlabel("time (UTC)", fontsize=8)
    clock.tick_params(labelsize=8)
    figure.tight_layout()
    _label_bookmarks(figure, top, sorted(marks))
    if output is not None:
        figure.savefig(os.fspath(output))
    return figure


def _label_bookmarks(figure: Any, axes: Any, marks: List[Tuple[float, str]]) -> None:
    """Writes each bookmark's title beside its line, in rows from the top of
    `axes` down, so that no two labels overlap however close the bookmarks
    are (a long file has many). Titles that find no free place in the rows
    the lanes leave room for are left out, and a note in the corner says how
    many."""
    if not marks:
        return
    renderer = figure.canvas.get_renderer()
    box = axes.get_window_extent(renderer)
    gap = 4.0  # pixels between two labels of a row
    row_ends: List[float] = []
    row_height = 0.0
    hidden = 0
    for when, title in marks:
        label = axes.annotate(title, xy=(when, 1.0), xycoords=("data", "axes fraction"), xytext=(3, -3),
                              textcoords="offset points", fontsize=8, va="top", ha="left", gid="bookmark",
                              bbox=dict(boxstyle="square,pad=0.1", facecolor="white", edgecolor="none", alpha=0.8))
        extent = label.get_window_extent(renderer)
        if extent.x1 > box.x1:
            # Near the right edge the title goes to the left of its line.
            label.set_horizontalalignment("right")
            label.xyann = (-3, -3)
            extent = label.get_window_extent(renderer)
        row_height = max(row_height, extent.height + 2.0)
        rows = max(1, int(box.height // row_height))
        row = next((i for i, end in enumerate(row_ends) if end + gap <= extent.x0), len(row_ends))
        if row >= rows or extent.x0 < box.x0 - 1.0:
            label.remove()
            hidden += 1
            continue
        if row == len(row_ends):
            row_ends.append(extent.x1)
        else:
            row_ends[row] = extent.x1
        label.xyann = (label.xyann[0], -3 - row * row_height * 72.0 / figure.dpi)
    if hidden:
        plural = "" if hidden == 1 else "s"
        axes.annotate(f"+{hidden} bookmark{plural} not labelled", xy=(1.0, 0.0), xycoords="axes fraction",
                      xytext=(-3, 3), textcoords="offset points", fontsize=7, ha="right", va="bottom",
                      gid="bookmarks-hidden")


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


__all__ = ["plot_timeline", "find_gaps", "Gap", "source_statistics"]
