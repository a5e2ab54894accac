"""The command line: info and the timeline picture."""

from __future__ import annotations

import io
import os
import subprocess
import sys

import numpy as np
import pytest

import marivane_logging as ml
from marivane_logging.__main__ import info, main
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


def test_info(sample_path):
    out = io.StringIO()
    info(sample_path, out)
    text = out.getvalue()
    size = os.path.getsize(sample_path)
    assert text.startswith(f"File               {sample_path}\n")
    assert "Compression level  -1 (codec default)\n" in text
    assert "Durability         fast (no flushes, journal in memory)\n" in text
    assert 'Created            2023-11-14T22:13:19.000Z (stored time zone "Etc/UTC")\n' in text
    assert "Application        sample 1.2.3\n" in text
    assert "Entries            30 (ids 1 to 30)\n" in text
    assert "Time span          2023-11-14T22:13:20.000Z to 2023-11-14T22:13:22.900Z\n" in text
    assert "Duration           2.900 s\n" in text
    assert f"Size on disk       " in text and f"({size} bytes)" in text
    assert '  [1] Camera "cam": 10 entries' in text and "3.33 Hz mean rate" in text
    assert '      pixelFormat = "GRAY8" (text)\n' in text
    assert '  [2] Navigation "gnss": 20 entries' in text and "6.79 Hz mean rate" in text
    assert "      rateHz = 20 (double)\n" in text
    assert "Entry types (2)\n  type 1: 10 entries\n  type 2: 20 entries\n" in text
    assert "  calibration.json: 8 B (8 bytes)\n" in text
    assert 'Bookmarks (2)\n  entry 5: "Turn" - to port [payload 2 B]\n  entry 20: "Stop"\n' in text


def test_info_matches_the_tool_on_the_shared_lines(sample_path):
    mvlog = os.environ.get("MVLOG")
    if not mvlog or not os.path.exists(mvlog):
        pytest.skip("mvlog is not built")
    tool = subprocess.run([mvlog, "info", sample_path], capture_output=True, text=True, check=True).stdout
    out = io.StringIO()
    info(sample_path, out)
    ours = out.getvalue().splitlines()
    for label in ("File", "Size on disk", "Format version", "Compression level", "Durability", "Created",
                  "Entries", "Time span", "Duration"):
        line = next(line for line in ours if line.startswith(label + " "))
        assert line in tool.splitlines(), line


def test_errors_on_the_command_line(tmp_path, capsys):
    bogus = tmp_path / "bogus.mvlog"
    bogus.write_bytes(b"not a log file at all, just text that is long enough" * 4)
    assert main(["info", str(bogus)]) == 1
    assert capsys.readouterr().err == f"error: '{bogus}': This file is not in a supported log file format.\n"
