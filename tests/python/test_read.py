"""Reading: what a file holds, entries, filters, time, indexes."""

from __future__ import annotations

import datetime as dt

import numpy as np
import pytest

import marivane_logging as ml
from marivane_logging import _logfile
from conftest import BASE, ENTRIES, payload_of

UTC = dt.timezone.utc
CAM_IDS = list(range(1, ENTRIES + 1, 3))
GNSS_IDS = [i for i in range(1, ENTRIES + 1) if i not in CAM_IDS]


def test_metadata(sample):
    assert sample.metadata == {
        "createdDateTime": BASE - 1000,
        "applicationName": "sample",
        "applicationVersion": "1.2.3",
        "currentTimeZone": "Etc/UTC",
        "logVersion": 4,
        "compressionLevel": -1,
        "vessel": "RV Test",
    }


def test_data_sources_with_properties(sample):
    cam, gnss = sample.data_sources
    assert (cam.id, cam.type, cam.name) == (1, ml.SourceType.CAMERA, "cam")
    assert cam.properties == {"width": 640, "pixelFormat": "GRAY8"}
    assert (gnss.id, gnss.type, gnss.name) == (2, ml.SourceType.NAVIGATION, "gnss")
    assert gnss.properties == {"rateHz": 20.0}
    assert isinstance(gnss.properties["rateHz"], float)
    assert sample.data_source("gnss") == gnss
    assert sample.data_source(1) == cam
    with pytest.raises(KeyError):
        sample.data_source("radar")


def test_resources_thumbnail_bookmarks(sample):
    assert sample.resources == {"calibration.json": b'{"k": 1}', "thumbnail": b"\x89PNG-thumb"}
    assert sample.thumbnail == b"\x89PNG-thumb"
    assert sample.bookmarks == [
        ml.Bookmark(5, "Turn", "to port", b"\x01\x02"),
        ml.Bookmark(20, "Stop", "", b""),
    ]


def test_length_lookup_and_membership(sample):
    assert len(sample) == ENTRIES
    assert (sample.first_entry_id, sample.last_entry_id) == (1, ENTRIES)
    entry = sample[4]
    assert (entry.id, entry.source, entry.type, entry.timestamp) == (4, 1, 1, BASE + 300)
    assert entry.payload == payload_of(3)
    assert entry.size == 1000
    assert entry.datetime == dt.datetime(2023, 11, 14, 22, 13, 20, 300000, tzinfo=UTC)
    assert repr(entry) == f"Entry(id=4, source=1, type=1, timestamp={BASE + 300}, size=1000)"
    assert 30 in sample and 31 not in sample and "1" not in sample
    with pytest.raises(KeyError):
        sample[31]
    with pytest.raises(KeyError):
        sample[0]
    with pytest.raises(TypeError):
        sample["1"]


def test_entries_streams_everything_in_order(sample):
    entries = list(sample.entries())
    assert [e.id for e in entries] == list(range(1, ENTRIES + 1))
    assert [e.payload for e in entries] == [payload_of(i) for i in range(ENTRIES)]
    assert [e.timestamp for e in entries] == [BASE + 100 * i for i in range(ENTRIES)]
    assert all(isinstance(e.payload, bytes) for e in entries)
    assert [e.id for e in sample] == list(range(1, ENTRIES + 1))


def test_entries_id_range_and_filters(sample):
    assert [e.id for e in sample.entries(5, 9)] == [5, 6, 7, 8, 9]
    assert [e.id for e in sample.entries(28)] == [28, 29, 30]
    assert [e.id for e in sample.entries(end=3)] == [1, 2, 3]
    assert [e.id for e in sample.entries(sources=1)] == CAM_IDS
    assert [e.id for e in sample.entries(sources="gnss")] == GNSS_IDS
    assert [e.id for e in sample.entries(sources=["cam", 2])] == list(range(1, ENTRIES + 1))
    assert [e.id for e in sample.entries(types=[2])] == GNSS_IDS
    assert [e.id for e in sample.entries(source_types=ml.SourceType.CAMERA)] == CAM_IDS
    assert [e.id for e in sample.entries(1, 10, sources="cam", types=1)] == [1, 4, 7, 10]
    assert list(sample.entries(sources="cam", types=2)) == []
    with pytest.raises(KeyError, match="radar"):
        sample.entries(sources="radar")
    with pytest.raises(ValueError):
        sample.entries(0)


def test_entries_time_selection(sample):
    t0 = dt.datetime(2023, 11, 14, 22, 13, 20, 250000, tzinfo=UTC)
    assert [e.id for e in sample.entries(time=(t0, BASE + 600))] == [4, 5, 6, 7]
    assert [e.id for e in sample.entries(time=(None, BASE + 100))] == [1, 2]
    assert [e.id for e in sample.entries(time=(np.datetime64(BASE + 2800, "ms"), None))] == [29, 30]
    assert [e.id for e in sample.entries(time=(BASE + 250, BASE + 650), sources="cam")] == [4, 7]
    with pytest.raises(ValueError, match="naive datetime"):
        sample.entries(time=(dt.datetime(2023, 1, 1), None))
    with pytest.raises(TypeError):
        sample.entries(time=BASE)


def test_entries_in_small_chunks_resume_after_the_last_id(sample, monkeypatch):
    monkeypatch.setattr(_logfile, "CHUNK_ENTRIES", 4)
    assert [e.id for e in sample.entries(sources="gnss")] == GNSS_IDS
    assert [e.payload for e in sample.entries(3, 12)] == [payload_of(i) for i in range(2, 12)]
    monkeypatch.setattr(_logfile, "CHUNK_ENTRIES", 1)
    assert [e.id for e in sample.entries(types=1, time=(BASE, BASE + 900))] == [1, 4, 7, 10]


def test_payload_as_memoryview_and_numpy(sample, monkeypatch):
    monkeypatch.setattr(_logfile, "CHUNK_ENTRIES", 7)
    views = list(sample.entries(payload_as="memoryview"))
    assert [bytes(e.payload) for e in views] == [payload_of(i) for i in range(ENTRIES)]
    assert all(isinstance(e.payload, memoryview) and e.payload.readonly for e in views)
    arrays = list(sample.entries(1, 4, payload_as="numpy"))
    assert arrays[0].payload.dtype == np.uint8
    assert arrays[0].payload.shape == (1000,)
    assert (arrays[3].payload == 3).all()
    assert arrays[1].payload.tobytes() == b"fix-1"
    with pytest.raises(ValueError):
        arrays[0].payload[0] = 7
    with pytest.raises(ValueError, match="payload_as"):
        sample.entries(payload_as="str")


def test_visit_hands_out_borrowed_views(sample):
    seen = []
    kept = []

    def collect(entry):
        seen.append((entry.id, bytes(entry.payload)))
        kept.append(entry.payload)

    assert sample.visit(collect, sources="cam") == len(CAM_IDS)
    assert seen == [(i, payload_of(i - 1)) for i in CAM_IDS]
    with pytest.raises(ValueError, match="released"):
        bytes(kept[0])

    ids = []
    assert sample.visit(lambda e: ids.append(e.id) or e.id < 3, payload_as="bytes") == 3
    assert ids == [1, 2, 3]

    def fail(entry):
        raise RuntimeError(f"stop at {entry.id}")

    with pytest.raises(RuntimeError, match="stop at 1"):
        sample.visit(fail)


def test_index_is_a_structured_array(sample):
    index = sample.index()
    assert index.dtype.names == ("id", "source", "type", "timestamp", "size")
    assert index.dtype["id"] == np.int32 and index.dtype["source"] == np.int8
    assert index.dtype["timestamp"] == np.int64 and index.dtype["size"] == np.int64
    assert index["id"].tolist() == list(range(1, ENTRIES + 1))
    assert index["source"].tolist() == [1 if i % 3 == 0 else 2 for i in range(ENTRIES)]
    assert index["type"].tolist() == [1 if i % 3 == 0 else 2 for i in range(ENTRIES)]
    assert index["timestamp"].tolist() == [BASE + 100 * i for i in range(ENTRIES)]
    assert (index["size"] > 0).all()
    assert sample.index(sources="cam", time=(BASE + 300, BASE + 900))["id"].tolist() == [4, 7, 10]
    assert len(sample.index(types=99)) == 0


def test_to_pandas(sample):
    frame = sample.to_pandas(end=4)
    assert list(frame.columns) == ["id", "source", "source_name", "type", "timestamp", "size"]
    assert frame["id"].tolist() == [1, 2, 3, 4]
    assert frame["source_name"].tolist() == ["cam", "gnss", "gnss", "cam"]
    assert str(frame["timestamp"].dt.tz) == "UTC"
    assert frame["timestamp"].iloc[1].value // 1_000_000 == BASE + 100
    assert frame["size"].tolist() == sample.index(end=4)["size"].tolist()


def test_time_queries(sample):
    assert sample.time_range() == (BASE, BASE + 2900)
    assert sample.time_range().duration_ms == 2900
    assert sample.time_range().start == dt.datetime(2023, 11, 14, 22, 13, 20, tzinfo=UTC)
    assert sample.time_range(sources="gnss") == (BASE + 100, BASE + 2900)
    assert sample.time_range(sources="cam") == (BASE, BASE + 2700)
    assert sample.time_range(types=99) is None
    assert sample.find_entry_at_or_after(BASE + 150) == 3
    assert sample.find_entry_at_or_after(BASE + 150, sources="cam") == 4
    assert sample.find_entry_at_or_after(dt.datetime(2023, 11, 14, 22, 13, 22, tzinfo=UTC)) == 21
    assert sample.find_entry_at_or_after(BASE + 3000) is None


def test_closed_file_refuses_calls(sample_path):
    f = ml.LogFile.open(sample_path)
    f.close()
    f.close()
    assert f.closed
    assert repr(f) == "<LogFile (closed)>"
    with pytest.raises(ValueError, match="closed log file"):
        len(f)
    with pytest.raises(ValueError, match="closed log file"):
        f.entries()


def test_iterator_keeps_reading_after_the_file_object_is_gone(sample_path):
    iterator = ml.LogFile.open(sample_path).entries()
    assert [e.id for e in iterator] == list(range(1, ENTRIES + 1))


def test_large_file_streams_across_chunks(tmp_path):
    path = tmp_path / "large.mvlog"
    with ml.LogFile.create(path, application="t", version="1", level=0) as f:
        source = f.add_data_source(0, "s")
        with f.batch():
            for i in range(1000):
                f.log(source, i % 5, i.to_bytes(4, "little") * 64, BASE + i)
    with ml.LogFile.open(path) as f:
        total = 0
        for n, entry in enumerate(f.entries(types=[3])):
            assert entry.id == 5 * n + 4
            assert entry.payload == (entry.id - 1).to_bytes(4, "little") * 64
            total += 1
        assert total == 200
        assert f.index()["id"].tolist() == list(range(1, 1001))


def test_entries_are_named_tuples(sample):
    entry = sample[2]
    id, source, type, timestamp, payload = entry
    assert (id, source, type, timestamp, payload) == (2, 2, 2, BASE + 100, b"fix-1")
    assert entry == (2, 2, 2, BASE + 100, b"fix-1")
    assert isinstance(entry, tuple) and isinstance(entry, ml.Entry)
    import pickle

    assert pickle.loads(pickle.dumps(entry)) == entry


def test_sources_from_a_generator_select_as_a_list_does(sample_path):
    with ml.LogFile.open(sample_path) as f:
        listed = [entry.id for entry in f.entries(sources=["cam"])]
        assert listed and len(listed) < len(f)
        assert [entry.id for entry in f.entries(sources=(name for name in ["cam"]))] == listed
        assert len(f.index(sources=iter(["cam"]))) == len(listed)
        assert f.time_range(sources=iter(["cam"])) == f.time_range(sources=["cam"])
        first = f.time_range(sources=["gnss"]).first
        assert f.find_entry_at_or_after(first, sources=iter(["gnss"])) == f.find_entry_at_or_after(first, sources="gnss")
