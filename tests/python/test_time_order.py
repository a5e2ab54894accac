"""Reads and replay in time order by default, id order on request; times written as mvlog takes them."""

from __future__ import annotations

import datetime as dt

import numpy as np
import pandas as pd
import pytest

import marivane_logging as ml
from marivane_logging import _logfile
from conftest import BASE

UTC = dt.timezone.utc

# Two capture threads written one after the other: "early" every 100 ms
# from BASE (ids 1-6), "late" 50 ms after each of the first five (ids 7-11).
TIME_ORDER = [1, 7, 2, 8, 3, 9, 4, 10, 5, 11, 6]
ID_ORDER = list(range(1, 12))


def timestamp_of(entry_id: int) -> int:
    return BASE + (100 * (entry_id - 1) if entry_id <= 6 else 50 + 100 * (entry_id - 7))


@pytest.fixture
def shuffled(tmp_path):
    path = tmp_path / "two-threads.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        early = f.add_data_source(ml.SourceType.TEXT, "early")
        late = f.add_data_source(ml.SourceType.TEXT, "late")
        for i in range(6):
            f.log(early, 4, b"early %d" % i, BASE + 100 * i)
        for i in range(5):
            f.log(late, 5, b"late %d" % i, BASE + 50 + 100 * i)
    with ml.LogFile.open(path) as f:
        yield f


def test_entries_visit_index_and_pandas_come_in_time_order(shuffled):
    assert [e.id for e in shuffled.entries()] == TIME_ORDER
    assert [e.id for e in shuffled] == TIME_ORDER
    assert [e.timestamp for e in shuffled.entries()] == [timestamp_of(i) for i in TIME_ORDER]
    seen = []
    assert shuffled.visit(lambda e: seen.append((e.id, bytes(e.payload)))) == 11
    assert [entry_id for entry_id, _ in seen] == TIME_ORDER
    assert seen[1] == (7, b"late 0")
    assert shuffled.index()["id"].tolist() == TIME_ORDER
    assert shuffled.to_pandas()["id"].tolist() == TIME_ORDER
    assert shuffled.to_pandas()["source_name"].tolist()[:3] == ["early", "late", "early"]


def test_order_id_keeps_the_order_written(shuffled):
    assert [e.id for e in shuffled.entries(order="id")] == ID_ORDER
    seen = []
    shuffled.visit(lambda e: seen.append(e.id), order="id")
    assert seen == ID_ORDER
    assert shuffled.index(order="id")["id"].tolist() == ID_ORDER
    assert shuffled.to_pandas(order="id")["id"].tolist() == ID_ORDER
    assert [e.id for e in shuffled.entries(order="TIME")] == TIME_ORDER
    for read in (shuffled.entries, shuffled.index, shuffled.to_pandas):
        with pytest.raises(ValueError, match="order is 'id' or 'time', not 'random'"):
            read(order="random")


def test_selections_apply_in_time_order(shuffled):
    assert [e.id for e in shuffled.entries(time=(BASE + 100, BASE + 300))] == [2, 8, 3, 9, 4]
    assert [e.id for e in shuffled.entries(time=(BASE + 100, BASE + 300), order="id")] == [2, 3, 4, 8, 9]
    assert [e.id for e in shuffled.entries(5, 8)] == [7, 8, 5, 6]
    assert [e.id for e in shuffled.entries(sources="late")] == [7, 8, 9, 10, 11]
    assert shuffled.index(types=4, time=(BASE + 250, None))["id"].tolist() == [4, 5, 6]


@pytest.mark.parametrize("chunk", [1, 2, 3, 256])
def test_chunks_resume_after_the_last_timestamp_and_id(tmp_path, monkeypatch, chunk):
    # Runs of equal timestamps longer than a chunk, written out of order.
    path = tmp_path / "ties.mvlog"
    stamps = [30, 10, 20, 10, 30, 10, 20, 10, 30, 10]
    with ml.LogFile.create(path, application="a", version="1") as f:
        source = f.add_data_source(ml.SourceType.TEXT, "s")
        for i, stamp in enumerate(stamps):
            f.log(source, 1, b"%d" % i, BASE + stamp)
    expected = sorted(range(1, len(stamps) + 1), key=lambda entry_id: (stamps[entry_id - 1], entry_id))
    monkeypatch.setattr(_logfile, "CHUNK_ENTRIES", chunk)
    with ml.LogFile.open(path) as f:
        assert [e.id for e in f.entries()] == expected
        assert [e.id for e in f.entries(payload_as="numpy")] == expected
        assert [e.id for e in f.entries(time=(BASE + 10, BASE + 20))] == expected[:7]
        assert [e.id for e in f.entries(order="id")] == list(range(1, 11))


def test_times_are_written_as_mvlog_takes_them(shuffled):
    window = [2, 8, 3, 9, 4]
    for start, end in [
        ("2023-11-14T22:13:20.1Z", "2023-11-14T22:13:20.300Z"),
        ("2023-11-14T23:13:20.100+01:00", "2023-11-14T22:13:20.3"),
        ("+0.1", "+0.3"),
        (BASE + 100, BASE + 300),
        (dt.datetime(2023, 11, 14, 22, 13, 20, 100000, tzinfo=UTC), "+.3"),
        (pd.Timestamp("2023-11-14T22:13:20.100Z"), np.datetime64(BASE + 300, "ms")),
    ]:
        assert [e.id for e in shuffled.entries(time=(start, end))] == window, (start, end)
        assert shuffled.index(time=(start, end))["id"].tolist() == window, (start, end)
    assert shuffled.find_entry_at_or_after("+0.42") == 11
    assert shuffled.find_entry_at_or_after("2023-11-14T22:13:20.42Z") == 11
    for text in ("soon", "+", "+ 1", "+nan", "2023-11-14", "2023-11-14T22:13:20.1Zulu", "2023-13-14T22:13:20Z"):
        with pytest.raises(ValueError, match="is not a time"):
            shuffled.entries(time=(text, None))
    with pytest.raises(ValueError, match="naive datetime"):
        shuffled.entries(time=(pd.Timestamp("2023-11-14T22:13:20"), None))


def test_a_relative_time_needs_entries(tmp_path):
    path = tmp_path / "empty.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        f.add_data_source(ml.SourceType.TEXT, "s")
    with ml.LogFile.open(path) as f:
        with pytest.raises(ValueError, match="a time relative to the first entry needs a file with entries"):
            f.entries(time=("+1", None))
        assert f.index(time=("2023-11-14T22:13:20Z", None)).size == 0


def test_player_plays_in_time_order_from_frame_zero_by_default(shuffled):
    seen = []
    with ml.Player(shuffled.path, lambda frame, e: seen.append((frame, e.id)), speed=100.0) as player:
        assert player.order == "time"
        player.play()
        assert player.wait(timeout=30)
    assert seen == list(enumerate(TIME_ORDER))
    sought = []
    with ml.Player(shuffled.path, lambda frame, e: sought.append((frame, e.id))) as player:
        assert player.seek_to_time("+0.25") == 5
        assert player.seek_to_time("2023-11-14T22:13:20.050Z") == 1
    assert sought == [(5, 9), (1, 7)]
    in_ids = []
    with ml.Player(shuffled.path, lambda frame, e: in_ids.append(e.id), order="id", speed=1000.0) as player:
        player.seek(0)
        player.play()
        assert player.wait(timeout=30)
    assert in_ids == ID_ORDER
