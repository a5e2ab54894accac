"""Fleets on Dask by time: windows of time as partitions, reads in time order or id order."""

from __future__ import annotations

import os

import pytest

import marivane_logging as ml
import marivane_logging.dask as mld
from conftest import BASE

distributed = pytest.importorskip("distributed")


def write_two_threads(path, n, lag):
    # Two capture threads written one after the other, so ids do not follow
    # time: "early" every 100 ms from BASE, then "late" `lag` ms after each.
    with ml.LogFile.create(path, application="fleet", version="1") as f:
        early = f.add_data_source(ml.SourceType.TEXT, "early")
        late = f.add_data_source(ml.SourceType.TEXT, "late")
        with f.batch():
            for i in range(n):
                f.log(early, 1, b"e%d" % i, BASE + 100 * i)
            for i in range(n):
                f.log(late, 2, b"l%d" % i, BASE + 100 * i + lag)


@pytest.fixture(scope="module")
def fleet(tmp_path_factory):
    directory = tmp_path_factory.mktemp("time-fleet")
    write_two_threads(os.fspath(directory / "a.mvlog"), 10, 50)  # BASE .. BASE + 950
    write_two_threads(os.fspath(directory / "b.mvlog"), 4, 30)  # BASE .. BASE + 330
    ml.LogFile.create(directory / "empty.mvlog", application="fleet", version="1").close()
    return directory


@pytest.fixture(scope="module")
def client():
    cluster = distributed.LocalCluster(n_workers=1, processes=True, threads_per_worker=2, host="127.0.0.1",
                                       dashboard_address=None)
    with cluster, distributed.Client(cluster) as client:
        yield client


def time_order(path):
    with ml.LogFile.open(path) as f:
        return [(e.id, e.timestamp) for e in f.entries()]


def test_time_partitions_by_period_and_by_parts(fleet):
    a, b, empty = (str(fleet / name) for name in ("a.mvlog", "b.mvlog", "empty.mvlog"))
    assert mld.partitions([a, b, empty], period=0.4) == [
        mld.TimePart(a, BASE, BASE + 399), mld.TimePart(a, BASE + 400, BASE + 799),
        mld.TimePart(a, BASE + 800, BASE + 950),
        mld.TimePart(b, BASE, BASE + 330),
        (empty, None, None),
    ]
    assert mld.partitions([a, b], partition="time", parts=3) == [
        mld.TimePart(a, BASE, BASE + 316), mld.TimePart(a, BASE + 317, BASE + 633),
        mld.TimePart(a, BASE + 634, BASE + 950),
        mld.TimePart(b, BASE, BASE + 109), mld.TimePart(b, BASE + 110, BASE + 219),
        mld.TimePart(b, BASE + 220, BASE + 330),
    ]
    assert mld.partitions([a, b]) == [(a, None, None), (b, None, None)]
    assert mld.partitions([b], 5) == mld.partitions([b], 5, partition="id") == [(b, 1, 5), (b, 6, 8)]


def test_time_partitioning_arguments_are_checked(fleet):
    paths = [str(fleet / "a.mvlog")]
    with pytest.raises(ValueError, match="either period .* or parts"):
        mld.partitions(paths, partition="time")
    with pytest.raises(ValueError, match="either period .* or parts"):
        mld.partitions(paths, period=1, parts=2)
    with pytest.raises(ValueError, match="period must be a positive number of seconds, not 0"):
        mld.partitions(paths, period=0)
    with pytest.raises(ValueError, match="parts must be a positive number of windows, not 0"):
        mld.partitions(paths, parts=0)
    with pytest.raises(ValueError, match="partition_entries sizes id ranges; a time partition"):
        mld.partitions(paths, 4, partition="time", period=1)
    with pytest.raises(ValueError, match="period and parts size time windows: give partition='time'"):
        mld.partitions(paths, 4, period=1)
    with pytest.raises(ValueError, match="partition is 'file', 'id' or 'time', not 'day'"):
        mld.partitions(paths, partition="day")
    with pytest.raises(ValueError, match="an id partition takes partition_entries"):
        mld.partitions(paths, partition="id")
    with pytest.raises(ValueError, match="order is 'id' or 'time'"):
        mld.read_index(paths, order="random")


def test_read_index_by_time_windows_in_time_order(fleet, client):
    index = mld.read_index(str(fleet / "*.mvlog"), period=0.4)
    assert index.npartitions == 5
    frames = [index.get_partition(i).compute() for i in range(index.npartitions)]
    a_rows = [(int(i), t.value // 1_000_000) for frame in frames[:3] for i, t in zip(frame["id"], frame["timestamp"])]
    assert a_rows == time_order(fleet / "a.mvlog")
    assert a_rows[:4] == [(1, BASE), (11, BASE + 50), (2, BASE + 100), (12, BASE + 150)]
    assert [len(frame) for frame in frames] == [8, 8, 4, 8, 0]
    assert frames[1]["timestamp"].min().value // 1_000_000 == BASE + 400
    by_id = mld.read_index(str(fleet / "a.mvlog"), order="id").compute()
    assert by_id["id"].tolist() == list(range(1, 21))
    by_time = mld.read_index(str(fleet / "a.mvlog")).compute()
    assert by_time["id"].tolist() == [entry_id for entry_id, _ in time_order(fleet / "a.mvlog")]


def test_read_index_windows_meet_the_selection(fleet, client):
    index = mld.read_index(str(fleet / "a.mvlog"), parts=2, time=("+0.3", BASE + 620), sources="late")
    frames = [index.get_partition(i).compute() for i in range(index.npartitions)]
    assert [frame["id"].tolist() for frame in frames] == [[14, 15], [16]]
    # The second window starts at BASE + 475, after the whole selection.
    outside = mld.read_index(str(fleet / "a.mvlog"), parts=2, time=(None, BASE + 200)).compute()
    assert outside["id"].tolist() == [1, 11, 2, 12, 3]


def test_map_entries_by_time_and_in_id_order(fleet, client):
    pattern = str(fleet / "*.mvlog")
    payloads = mld.map_entries(pattern, lambda e: bytes(e.payload), period=0.4).compute()
    assert payloads[:6] == [b"e0", b"l0", b"e1", b"l1", b"e2", b"l2"]
    assert len(payloads) == 28
    by_id = mld.map_entries(str(fleet / "b.mvlog"), lambda e: bytes(e.payload), order="id").compute()
    assert by_id == [b"e0", b"e1", b"e2", b"e3", b"l0", b"l1", b"l2", b"l3"]
    counts = mld.map_entries(pattern, lambda e: 1, reduce=lambda x, y: x + y, initial=0, parts=2).compute()
    assert counts == [
        (str(fleet / "a.mvlog"), 10), (str(fleet / "a.mvlog"), 10),
        (str(fleet / "b.mvlog"), 4), (str(fleet / "b.mvlog"), 4),
        (str(fleet / "empty.mvlog"), 0),
    ]
