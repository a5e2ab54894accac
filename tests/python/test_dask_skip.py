"""Fleets on Dask with files that cannot be read: on_error="raise" or "skip", the SkippedFiles report, progress."""

from __future__ import annotations

import logging
import os

import pytest

import marivane_logging as ml
import marivane_logging.dask as mld
from conftest import BASE

dask = pytest.importorskip("dask")

GOOD_ENTRIES = 12
DAMAGED_ENTRIES = 3000
TABLE_LEAF = 0x0D  # the first byte of a table b-tree leaf page
NOT_A_LOG_FILE = "This file is not in a supported log file format."


def write_good(path: str) -> None:
    with ml.LogFile.create(path, application="fleet", version="1") as f:
        cam = f.add_data_source(ml.SourceType.CAMERA, "cam")
        with f.batch():
            for i in range(GOOD_ENTRIES):
                f.log(cam, 1, bytes([i]) * (i + 1), BASE + 100 * i)


def write_damaged(path: str) -> None:
    """A file that opens, and whose entries cannot all be read: table pages in its middle are zeroed."""
    with ml.LogFile.create(path, application="fleet", version="1", level=0) as f:
        gnss = f.add_data_source(ml.SourceType.NAVIGATION, "gnss")
        with f.batch():
            for i in range(DAMAGED_ENTRIES):
                f.log(gnss, 2, bytes([i % 251]) * (64 + i % 300), BASE + 10 * i)
    with open(path, "rb") as stream:
        data = stream.read()
    size = int.from_bytes(data[16:18], "big")
    size = 65536 if size == 1 else size
    pages = len(data) // size
    leaves = [n for n in range(pages // 3, 2 * pages // 3) if data[(n - 1) * size] == TABLE_LEAF]
    assert len(leaves) >= 4
    with open(path, "r+b") as stream:
        for number in (leaves[len(leaves) // 4], leaves[3 * len(leaves) // 4]):
            stream.seek((number - 1) * size)
            stream.write(bytes(size))


@pytest.fixture(scope="module")
def fleet(tmp_path_factory):
    """A good file, a missing one, one of garbage and a damaged one (absolute paths)."""
    directory = tmp_path_factory.mktemp("skip-fleet")
    good = os.fspath(directory / "good.mvlog")
    write_good(good)
    garbage = os.fspath(directory / "garbage.mvlog")
    with open(garbage, "wb") as stream:
        stream.write(b"not a log file, only text long enough to look like a header" * 8)
    damaged = os.fspath(directory / "damaged.mvlog")
    write_damaged(damaged)
    with ml.LogFile.open(damaged) as f:
        assert len(f) == DAMAGED_ENTRIES  # it opens; reading its entries fails
        with pytest.raises(ml.LogFileError):
            f.index()
    return {"good": good, "missing": os.fspath(directory / "missing.mvlog"), "garbage": garbage, "damaged": damaged}


def missing_reason(path: str) -> str:
    return f"[Errno 2] No such file or directory: '{path}'"


def garbage_reason(path: str) -> str:
    return f"'{path}': {NOT_A_LOG_FILE}"


def three(fleet) -> list:
    return [fleet["good"], fleet["missing"], fleet["garbage"]]


def test_on_error_takes_raise_or_skip(fleet):
    for call in (
        lambda: mld.read_index(fleet["good"], on_error="ignore"),
        lambda: mld.map_entries(fleet["good"], len, on_error="ignore"),
        lambda: mld.map_files(fleet["good"], lambda path, f: len(f), on_error="ignore"),
        lambda: mld.partitions([fleet["good"]], on_error="ignore"),
        lambda: mld.read_index(fleet["good"], on_error=None),
    ):
        with pytest.raises(ValueError) as caught:
            call()
        assert str(caught.value).startswith("on_error is 'raise' or 'skip', not ")


def test_raise_names_the_file_that_cannot_be_read(fleet):
    good, missing, garbage, damaged = fleet["good"], fleet["missing"], fleet["garbage"], fleet["damaged"]
    # Whole files are opened by the tasks: the error comes when computing.
    index = mld.read_index([good, missing, garbage])
    with pytest.raises(ml.LogFileNotFoundError) as caught:
        index.compute(scheduler="sync")
    assert str(caught.value) == missing_reason(missing)
    with pytest.raises(ml.NotALogFileError) as caught:
        mld.map_files([good, garbage], lambda path, f: len(f)).compute(scheduler="sync")
    assert str(caught.value) == garbage_reason(garbage)
    # Id and time partitions open the files to build the collection: the error comes at once.
    with pytest.raises(ml.NotALogFileError) as caught:
        mld.read_index([good, garbage], partition_entries=5)
    assert str(caught.value) == garbage_reason(garbage)
    with pytest.raises(ml.LogFileNotFoundError) as caught:
        mld.map_entries([good, missing], len, period=1.0)
    assert str(caught.value) == missing_reason(missing)
    # Damage found while reading names the file too.
    with pytest.raises(ml.LogFileError) as caught:
        mld.read_index([good, damaged]).compute(scheduler="sync")
    assert f"'{damaged}'" in str(caught.value) and "malformed" in str(caught.value)
    with pytest.raises(ml.LogFileError) as caught:
        mld.map_entries([damaged], len, reduce=lambda a, b: a + b, initial=0).compute(scheduler="sync")
    assert f"'{damaged}'" in str(caught.value)


def test_skip_leaves_out_the_files_that_do_not_open(fleet):
    good, missing, garbage = three(fleet)
    skipped = mld.SkippedFiles()
    index = mld.read_index([good, missing, garbage], on_error="skip", skipped=skipped)
    # Known as soon as the collection is built.
    assert list(skipped) == [
        mld.SkippedFile(missing, missing_reason(missing)),
        mld.SkippedFile(garbage, garbage_reason(garbage)),
    ]
    assert skipped.paths == [missing, garbage]
    assert skipped[0].path == missing and skipped[1].reason == garbage_reason(garbage)
    assert index.npartitions == 1
    (frame,) = skipped.compute(index)
    assert frame["file"].unique().tolist() == [good]
    assert frame["id"].tolist() == list(range(1, GOOD_ENTRIES + 1))
    assert len(skipped) == 2
    assert repr(skipped).startswith(f"SkippedFiles([SkippedFile(path='{missing}', reason=")


@pytest.mark.parametrize("how", [{}, {"partition_entries": 5}, {"parts": 3}])
def test_every_partitioning_skips_the_same_files(fleet, how):
    good, missing, garbage = three(fleet)
    skipped = mld.SkippedFiles()
    chosen = mld.partitions([good, missing, garbage], on_error="skip", skipped=skipped, **how)
    assert {part[0] for part in chosen} == {good}
    assert skipped.paths == [missing, garbage]
    frame = mld.read_index([missing, good, garbage], on_error="skip", **how).compute(scheduler="sync")
    assert sorted(frame["id"].tolist()) == list(range(1, GOOD_ENTRIES + 1))


def test_skip_with_map_entries_and_map_files(fleet):
    good, missing, garbage = three(fleet)
    skipped = mld.SkippedFiles()
    totals = mld.map_entries([good, missing, garbage], lambda e: len(e.payload), reduce=lambda a, b: a + b,
                             initial=0, on_error="skip", skipped=skipped)
    # Through the report on the bag's own scheduler (processes).
    (result,) = skipped.compute(totals)
    assert result == [(good, GOOD_ENTRIES * (GOOD_ENTRIES + 1) // 2)]
    assert skipped.paths == [missing, garbage]

    files = mld.SkippedFiles()
    counts = mld.map_files([garbage, good, missing], lambda path, f: len(f), on_error="skip", skipped=files)
    assert counts.compute(scheduler="sync") == [(good, GOOD_ENTRIES)]
    assert list(files) == [
        mld.SkippedFile(garbage, garbage_reason(garbage)),
        mld.SkippedFile(missing, missing_reason(missing)),
    ]


def test_a_file_damaged_inside_gives_an_empty_partition_and_is_reported_when_computed(fleet, caplog):
    good, damaged = fleet["good"], fleet["damaged"]
    skipped = mld.SkippedFiles()
    index = mld.read_index([good, damaged], on_error="skip", skipped=skipped)
    assert list(skipped) == []  # it opens: nothing is known yet
    assert index.npartitions == 2
    # The partition is empty, with the columns and dtypes of the others.
    with caplog.at_level(logging.WARNING, logger="marivane_logging.dask"):
        partition = index.get_partition(1).compute(scheduler="sync")
    assert len(partition) == 0
    assert partition.dtypes.to_dict() == mld.index_meta().dtypes.to_dict()
    assert [record.getMessage() for record in caplog.records] == [
        f"left out: Reading entries after entry 0 of '{damaged}' failed: database disk image is malformed"
    ]
    # Computed through the report, the failure is recorded; also for a collection built on the index.
    sizes, frame = skipped.compute(index.groupby("file").size(), index)
    assert sizes.to_dict() == {good: GOOD_ENTRIES}
    assert frame["file"].unique().tolist() == [good]
    assert skipped.paths == [damaged]
    assert skipped[0].reason == f"Reading entries after entry 0 of '{damaged}' failed: database disk image is malformed"
    # Computing again records nothing twice.
    skipped.compute(index)
    assert len(skipped) == 1

    entries = mld.SkippedFiles()
    values = mld.map_entries([damaged, good], lambda e: e.id, on_error="skip", skipped=entries)
    (ids,) = entries.compute(values, scheduler="sync")
    assert sorted(ids) == list(range(1, GOOD_ENTRIES + 1))
    assert entries.paths == [damaged] and f"'{damaged}'" in entries[0].reason


def test_computing_through_the_report_reads_each_partition_once(fleet, monkeypatch):
    reads = []
    for name in ("_index_partition", "_run_partition"):
        original = getattr(mld, name)
        monkeypatch.setattr(mld, name, lambda part, *rest, run=original: reads.append(part) or run(part, *rest))
    good, damaged = fleet["good"], fleet["damaged"]
    skipped = mld.SkippedFiles()
    index = mld.read_index([good, damaged], on_error="skip", skipped=skipped)
    skipped.compute(index.groupby("file").size(), index, scheduler="sync")
    assert sorted(part[0] for part in reads) == sorted([good, damaged])
    reads.clear()
    # Id ranges of the damaged file: those that read well count, the others are empty.
    values = mld.map_entries([good, damaged], lambda e: e.id, on_error="skip", skipped=skipped, partition_entries=500)
    (total,) = skipped.compute(values.map(lambda x: x + 1).sum(), scheduler="sync")
    assert len(reads) == len(mld.partitions([good, damaged], 500)) == 1 + DAMAGED_ENTRIES // 500
    assert skipped.paths == [damaged]
    good_total = sum(range(2, GOOD_ENTRIES + 2))
    assert good_total < total < good_total + sum(range(2, DAMAGED_ENTRIES + 2))
    assert values.map(lambda x: x + 1).sum().compute(scheduler="sync") == total


def test_a_report_records_only_what_the_computed_collection_met(fleet):
    good, damaged = fleet["good"], fleet["damaged"]
    skipped = mld.SkippedFiles()
    of_damaged = mld.read_index([damaged], on_error="skip", skipped=skipped)
    of_good = mld.read_index([good], on_error="skip", skipped=skipped)
    (frame,) = skipped.compute(of_good)
    assert len(frame) == GOOD_ENTRIES and list(skipped) == []
    (frame,) = skipped.compute(of_damaged)
    assert len(frame) == 0 and skipped.paths == [damaged]
    # A time partition reads the time range while the collection is built: damage shows at once there.
    early = mld.SkippedFiles()
    mld.read_index([good, damaged], on_error="skip", skipped=early, parts=2)
    assert early.paths == [damaged] and f"'{damaged}'" in early[0].reason


def test_skipping_everything_leaves_an_empty_collection(fleet):
    skipped = mld.SkippedFiles()
    index = mld.read_index([fleet["missing"], fleet["garbage"]], on_error="skip", skipped=skipped)
    frame = index.compute(scheduler="sync")
    assert len(frame) == 0 and list(frame.columns) == list(mld.index_meta().columns)
    assert mld.map_files([fleet["missing"]], lambda path, f: 1, on_error="skip").compute(scheduler="sync") == []
    assert skipped.paths == [fleet["missing"], fleet["garbage"]]


def test_progress_goes_to_stderr_only_when_asked(fleet, capsys):
    good, missing, garbage = three(fleet)
    mld.read_index([good, missing, garbage], on_error="skip")
    mld.read_index([good], partition_entries=4)
    assert capsys.readouterr() == ("", "")

    mld.read_index([good, missing, garbage], on_error="skip", progress=True)
    captured = capsys.readouterr()
    assert captured.out == ""
    assert captured.err == (
        f"marivane_logging.dask: skipped {missing_reason(missing)}\n"
        f"marivane_logging.dask: skipped {garbage_reason(garbage)}\n"
        "marivane_logging.dask: 3/3 files opened, 2 skipped\n"
    )
    mld.map_entries([good, good], len, partition_entries=4, progress=True)
    assert capsys.readouterr() == ("", "marivane_logging.dask: 2/2 files opened\n")

    skipped = mld.SkippedFiles()
    index = mld.read_index([good], on_error="skip", skipped=skipped)
    skipped.compute(index, scheduler="sync")
    assert capsys.readouterr() == ("", "")
    skipped.compute(index, progress=True, scheduler="sync")
    captured = capsys.readouterr()
    assert captured.out == "" and "100% Completed" in captured.err


def test_skip_on_a_cluster(fleet):
    distributed = pytest.importorskip("distributed")
    good, missing, garbage, damaged = fleet["good"], fleet["missing"], fleet["garbage"], fleet["damaged"]
    cluster = distributed.LocalCluster(n_workers=2, processes=True, threads_per_worker=1, host="127.0.0.1",
                                       dashboard_address=None)
    with cluster, distributed.Client(cluster):
        skipped = mld.SkippedFiles()
        index = mld.read_index([good, missing, damaged, garbage], on_error="skip", skipped=skipped)
        assert skipped.paths == [missing, garbage]
        (counts,) = skipped.compute(index.groupby("file")["id"].count())
        assert counts.to_dict() == {good: GOOD_ENTRIES}
        assert skipped.paths == [missing, garbage, damaged]
        with pytest.raises(ml.LogFileError, match=f"'{damaged}'"):
            mld.read_index([good, damaged]).compute()
