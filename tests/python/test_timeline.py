"""The timeline picture and its command line."""

from __future__ import annotations

import os
import subprocess
import sys

import numpy as np
import pytest

import marivane_logging as ml
from marivane_logging.timeline import Gap, find_gaps, plot_timeline
from conftest import BASE


@pytest.fixture(scope="module")
def gappy(tmp_path_factory):
    """Two sources over 20 s: gnss at 10 Hz with a 3 s gap from 5 s, camera at 2 Hz."""
    path = tmp_path_factory.mktemp("gappy") / "gappy.mvlog"
    with ml.LogFile.create(path, application="t", version="1", created=BASE) as f:
        gnss = f.add_data_source(ml.SourceType.NAVIGATION, "gnss")
        camera = f.add_data_source(ml.SourceType.CAMERA, "camera")
        with f.batch():
            for ms in range(0, 20_000, 100):
                if not 5_000 < ms < 8_000:
                    f.log(gnss, 1, b"g" * 16, BASE + ms)
                if ms % 500 == 0:
                    f.log(camera, 2, b"c" * 100, BASE + ms)
        gnss_id = f.find_entry_at_or_after(BASE + 8_000, sources="gnss")
        f.add_bookmark(gnss_id, "Back online", "after the gap")
    return path


def test_find_gaps():
    stamps = np.array([0, 100, 200, 300, 1300, 1400, 1500])
    assert find_gaps(stamps, 3) == [Gap(3, 300, 1300)]
    assert find_gaps(stamps, 3)[0].duration_ms == 1000
    assert find_gaps(stamps, 3, threshold_ms=50) == [Gap(3, s, s + (1000 if s == 300 else 100))
                                                     for s in (0, 100, 200, 300, 1300, 1400)]
    assert find_gaps(np.array([5]), 1) == []


def test_timeline_picture(gappy, tmp_path):
    output = tmp_path / "timeline.png"
    figure = plot_timeline(gappy, output)
    assert figure.axes[0].get_title() == "gappy.mvlog: 211 entries, 2 data sources, 1 gap"
    assert [label.get_text() for label in figure.axes[0].get_yticklabels()] == ["[1] gnss", "[2] camera"]
    assert output.stat().st_size > 20_000
    import matplotlib.image

    pixels = matplotlib.image.imread(output)
    assert pixels.shape[1] == 1200
    colours = np.unique((pixels[..., :3] * 255).astype(np.uint8).reshape(-1, 3), axis=0)
    assert len(colours) >= 8
    # The lanes' two colours (tab10 blue and orange) and the gap's red are drawn.
    for rgb in ((31, 119, 180), (255, 127, 14), (255, 0, 0)):
        assert (np.abs(colours.astype(int) - rgb).sum(axis=1) <= 3).any(), rgb


def test_timeline_command(gappy, tmp_path):
    output = tmp_path / "cli.png"
    result = subprocess.run([sys.executable, "-m", "marivane_logging", "timeline", str(gappy), "-o", str(output)],
                            capture_output=True, text=True, env={**os.environ, "MPLBACKEND": "Agg"})
    assert result.returncode == 0, result.stderr
    assert result.stdout == f"Wrote {output}\n"
    assert output.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
