"""Fleets on Dask: read_index, map_entries and map_files on a local cluster of two processes."""

from __future__ import annotations

import os

import pytest

import marivane_logging as ml
import marivane_logging.dask as mld
from conftest import BASE

distributed = pytest.importorskip("distributed")


def write_file(path, n, seed):
    with ml.LogFile.create(path, application="fleet", version="1") as f:
        a = f.add_data_source(ml.SourceType.CAMERA, "cam")
        b = f.add_data_source(ml.SourceType.NAVIGATION, "gnss")
        with f.batch():
            for i in range(n):
                f.log(a if i % 2 == 0 else b, seed, bytes([seed]) * (i + 1), BASE + 10 * i)


@pytest.fixture(scope="module")
def fleet(tmp_path_factory):
    directory = tmp_path_factory.mktemp("fleet")
    sizes = {"a.mvlog": 10, "b.mvlog": 25, "c.mvlog": 4}
    for seed, (name, n) in enumerate(sorted(sizes.items()), start=1):
        write_file(os.fspath(directory / name), n, seed)
    return directory, sizes


@pytest.fixture(scope="module")
def client():
    cluster = distributed.LocalCluster(n_workers=2, processes=True, threads_per_worker=1, host="127.0.0.1",
                                       dashboard_address=None)
    with cluster, distributed.Client(cluster) as client:
        yield client


def test_expand_paths(fleet, tmp_path):
    directory, sizes = fleet
    paths = mld.expand_paths(str(directory / "*.mvlog"))
    assert paths == [str(directory / name) for name in sorted(sizes)]
    assert mld.expand_paths([directory / "b.mvlog"]) == [str(directory / "b.mvlog")]
    with pytest.raises(FileNotFoundError, match="no file matches"):
        mld.expand_paths(str(tmp_path / "*.none"))
    assert mld.partitions(paths[:2], 4) == [
        (paths[0], 1, 4), (paths[0], 5, 8), (paths[0], 9, 10),
        (paths[1], 1, 4), (paths[1], 5, 8), (paths[1], 9, 12), (paths[1], 13, 16),
        (paths[1], 17, 20), (paths[1], 21, 24), (paths[1], 25, 25),
    ]


def test_read_index_on_the_cluster(fleet, client):
    directory, sizes = fleet
    index = mld.read_index(str(directory / "*.mvlog"))
    assert index.npartitions == 3
    assert list(index.columns) == ["file", "id", "source", "source_name", "type", "timestamp", "size"]
    frame = index.compute()
    assert len(frame) == sum(sizes.values())
    counts = frame.groupby("file").size().to_dict()
    assert counts == {str(directory / name): n for name, n in sizes.items()}
    b = frame[frame["file"] == str(directory / "b.mvlog")]
    assert b["id"].tolist() == list(range(1, 26))
    assert b["source_name"].tolist() == ["cam", "gnss"] * 12 + ["cam"]
    assert b["type"].unique().tolist() == [2]
    assert (b["timestamp"].astype("int64") // 10**6).tolist() == [BASE + 10 * i for i in range(25)]

    split = mld.read_index([directory / "b.mvlog"], sources="gnss", partition_entries=10)
    assert split.npartitions == 3
    assert split["id"].compute().tolist() == list(range(2, 26, 2))


def test_map_entries_on_the_cluster(fleet, client):
    directory, sizes = fleet
    pattern = str(directory / "*.mvlog")
    sizes_of_c = mld.map_entries([directory / "c.mvlog"], lambda e: len(e.payload)).compute()
    assert sorted(sizes_of_c) == [1, 2, 3, 4]
    totals = dict(
        mld.map_entries(pattern, lambda e: len(e.payload), reduce=lambda a, b: a + b, initial=0).compute()
    )
    assert totals == {str(directory / name): n * (n + 1) // 2 for name, n in sizes.items()}
    firsts = mld.map_entries(pattern, lambda e: e.payload[0] if e.id == 1 else None, sources="cam").compute()
    assert sorted(firsts) == [1, 2, 3]
    split = mld.map_entries(pattern, lambda e: 1, reduce=lambda a, b: a + b, initial=0, partition_entries=10)
    assert sum(value for _, value in split.compute()) == sum(sizes.values())
    assert split.npartitions == 1 + 3 + 1


def test_map_files_on_the_cluster(fleet, client):
    directory, sizes = fleet
    result = dict(mld.map_files(str(directory / "*.mvlog"), lambda path, f: (len(f), f.metadata["applicationName"]))
                  .compute())
    assert result == {str(directory / name): (n, "fleet") for name, n in sizes.items()}
