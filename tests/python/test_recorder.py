"""The recorder: many threads recording into one new file, overflow, flush, closing, errors."""

from __future__ import annotations

import contextlib
import datetime as dt
import os
import sqlite3
import subprocess
import sys
import textwrap
import threading
import time

import numpy as np
import pytest

import marivane_logging as ml

UTC = dt.timezone.utc
BASE = 1_700_000_000_000


def payload_for(thread: int, i: int) -> bytes:
    """A payload that names its thread and position, of a size that varies."""
    head = f"t{thread}-{i}:".encode()
    return head + bytes((thread * 31 + i + k) % 256 for k in range(i % 97))


@contextlib.contextmanager
def locked(path):
    """Holds an exclusive lock on the file, so that the recorder's writer waits (up to 5 s)."""
    connection = sqlite3.connect(path, isolation_level=None)
    connection.execute("BEGIN EXCLUSIVE")
    try:
        yield
    finally:
        connection.execute("COMMIT")
        connection.close()


def test_four_threads_keep_their_order_and_bytes(tmp_path):
    path = tmp_path / "threads.mvlog"
    per_thread = 500
    with ml.Recorder(path, application="rec", version="2.0", level=3, compression_threads=2) as rec:
        sources = [rec.add_data_source(ml.SourceType.GENERIC, f"sensor{t}") for t in range(4)]
        assert sources == [1, 2, 3, 4]
        start = threading.Barrier(4)
        answers = [[] for _ in range(4)]

        def capture(t):
            start.wait()
            for i in range(per_thread):
                payload = payload_for(t, i)
                # Every form of bytes-like object, one after another.
                form = i % 4
                if form == 1:
                    payload = bytearray(payload)
                elif form == 2:
                    payload = memoryview(b"xx" + payload)[2:]
                elif form == 3:
                    payload = np.frombuffer(payload, dtype=np.uint8).copy()
                answers[t].append(rec.record(sources[t], 10 + t, payload, BASE + i))

        threads = [threading.Thread(target=capture, args=(t,)) for t in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert all(all(a) for a in answers)
        rec.flush()
        stats = rec.stats
        total = 4 * per_thread
        assert (stats.accepted, stats.written, stats.dropped, stats.refused, stats.failed) == (total, total, 0, 0, 0)
        assert stats.bytes_in == sum(len(payload_for(t, i)) for t in range(4) for i in range(per_thread))
        assert stats.bytes_stored > 0
        assert 0 < stats.queue_high_water_bytes <= stats.bytes_in
        assert stats.max_latency_us > 0 and stats.max_latency == stats.max_latency_us / 1e6
        assert stats.last_error == ""

    with ml.LogFile.open(path) as f:
        assert f.metadata["applicationName"] == "rec" and f.metadata["compressionLevel"] == 3
        assert [s.name for s in f.data_sources] == ["sensor0", "sensor1", "sensor2", "sensor3"]
        assert len(f) == 4 * per_thread
        for t, source in enumerate(sources):
            entries = list(f.entries(sources=source))
            assert [e.timestamp for e in entries] == [BASE + i for i in range(per_thread)]
            assert all(e.type == 10 + t for e in entries)
            assert [e.payload for e in entries] == [payload_for(t, i) for i in range(per_thread)]
            ids = [e.id for e in entries]
            assert ids == sorted(ids)


def test_payload_forms_and_timestamps(tmp_path):
    path = tmp_path / "forms.mvlog"
    big = bytes(range(256)) * 1024  # copied without the GIL
    floats = np.arange(8, dtype=np.float64)
    before = time.time() * 1000
    with ml.Recorder(path, application="a", version="1", level=0, overflow=ml.OverflowPolicy.REFUSE) as rec:
        assert rec.overflow == ml.OverflowPolicy.REFUSE
        source = rec.add_data_source(ml.SourceType.LIDAR, "lidar")
        assert rec.record(source, 1, b"", 1)
        assert rec.record(source, 2, big, dt.datetime(2023, 11, 14, 22, 13, 20, tzinfo=UTC))
        assert rec.record(source, 3, floats, np.datetime64(BASE + 5, "ms"))
        assert rec.record(source, 4, b"now")
        with pytest.raises(ValueError, match="contiguous"):
            rec.record(source, 5, np.zeros((4, 4), dtype=np.uint8)[:, 1])
        with pytest.raises(ValueError, match="8-bit"):
            rec.record(300, 1, b"x")
        with pytest.raises(ValueError, match="naive datetime"):
            rec.record(source, 1, b"x", dt.datetime(2020, 1, 1))
    with ml.LogFile.open(path) as f:
        entries = list(f)
        assert [(e.id, e.type, e.timestamp) for e in entries[:3]] == [(1, 1, 1), (2, 2, BASE), (3, 3, BASE + 5)]
        assert [e.payload for e in entries[:3]] == [b"", big, floats.tobytes()]
        assert entries[3].payload == b"now"
        assert before - 1000 <= entries[3].timestamp <= time.time() * 1000 + 1000
        assert len(entries) == 4


def test_sources_properties_metadata_resources_bookmarks(tmp_path):
    path = tmp_path / "meta.mvlog"
    with ml.Recorder(path, application="a", version="1", time_zone="Europe/Oslo",
                     durability=ml.Durability.SAFE) as rec:
        cam = rec.add_data_source(ml.SourceType.CAMERA, "cam")
        rec.add_property(cam, "width", 640)
        rec.add_property(cam, "fps", 29.97)
        rec.add_property(cam, "format", "GRAY8")
        rec.add_metadata("vessel", "RV Test")
        rec.add_resource("calibration.json", b'{"k": 1}')
        for i in range(3):
            rec.record(cam, 1, bytes([i]), BASE + i)
        # In queue order: the bookmark reaches the writer after the entries.
        rec.add_bookmark(2, "Turn", "to port", b"\x01\x02")
        rec.add_bookmark(3, "Stop")
    with ml.LogFile.open(path) as f:
        assert f.durability == ml.Durability.SAFE
        assert f.metadata["currentTimeZone"] == "Europe/Oslo"
        assert f.metadata["vessel"] == "RV Test"
        assert f.data_sources == [ml.DataSource(cam, ml.SourceType.CAMERA, "cam",
                                                {"width": 640, "fps": 29.97, "format": "GRAY8"})]
        assert f.resources == {"calibration.json": b'{"k": 1}'}
        assert f.bookmarks == [ml.Bookmark(2, "Turn", "to port", b"\x01\x02"), ml.Bookmark(3, "Stop")]
        assert len(f) == 3


def overflow_run(tmp_path, overflow):
    path = tmp_path / f"{overflow}.mvlog"
    rec = ml.Recorder(path, application="a", version="1", level=0, queue_bytes=100, overflow=overflow)
    source = rec.add_data_source(0, "s")
    rec.flush()
    with locked(path):
        answers = [rec.record(source, 1, bytes([i]) * 60, BASE + i) for i in range(10)]
    rec.flush()
    stats = rec.stats
    rec.close()
    # The first entry fits an empty queue; the writer cannot write it while
    # the file is locked, so the others find the queue full.
    assert answers == [True] + [False] * 9
    with ml.LogFile.open(path) as f:
        assert [e.payload for e in f] == [bytes([0]) * 60]
    return stats


def test_drop_newest_with_a_tiny_queue(tmp_path):
    stats = overflow_run(tmp_path, "drop_newest")
    assert (stats.accepted, stats.written, stats.dropped, stats.refused, stats.failed) == (1, 1, 9, 0, 0)
    assert stats.bytes_in == 60 and stats.queue_high_water_bytes == 60


def test_refuse_with_a_tiny_queue(tmp_path):
    stats = overflow_run(tmp_path, ml.OverflowPolicy.REFUSE)
    assert (stats.accepted, stats.written, stats.dropped, stats.refused, stats.failed) == (1, 1, 0, 9, 0)


def test_a_blocked_record_lets_other_threads_run(tmp_path):
    path = tmp_path / "block.mvlog"
    with ml.Recorder(path, application="a", version="1", level=0, queue_bytes=100) as rec:
        source = rec.add_data_source(0, "s")
        rec.flush()
        done = threading.Event()

        def capture():
            for i in range(5):
                assert rec.record(source, 1, bytes([i]) * 60, BASE + i)
            done.set()

        with locked(path):
            thread = threading.Thread(target=capture)
            thread.start()
            # The capture thread waits for room without the GIL: this one runs.
            spins = 0
            deadline = time.monotonic() + 0.5
            while time.monotonic() < deadline:
                spins += 1
            assert spins > 1000
            assert not done.is_set()
            assert rec.stats.accepted == 1
        thread.join(timeout=10)
        assert done.is_set()
        rec.flush()
        stats = rec.stats
        assert (stats.accepted, stats.written, stats.dropped, stats.refused) == (5, 5, 0, 0)
        # The entry that waited for the lock waited longest.
        assert stats.max_latency >= 0.4
    with ml.LogFile.open(path) as f:
        assert [e.payload for e in f] == [bytes([i]) * 60 for i in range(5)]


def test_waiting_calls_release_the_gil(tmp_path):
    path = tmp_path / "gil.mvlog"
    with ml.Recorder(path, application="a", version="1", level=0) as rec:
        source = rec.add_data_source(0, "s")
        rec.flush()
        counted = []

        def count():
            n = 0
            deadline = time.monotonic() + 0.6
            while time.monotonic() < deadline:
                n += 1
            counted.append(n)

        with locked(path):
            rec.record(source, 1, b"x", BASE)
            # flush waits for the writer, which waits for the lock.
            flusher = threading.Thread(target=rec.flush)
            flusher.start()
            counter = threading.Thread(target=count)
            counter.start()
            counter.join()
            assert flusher.is_alive()
        flusher.join(timeout=10)
        assert not flusher.is_alive()
        assert counted and counted[0] > 1000
        assert rec.stats.written == 1


def test_flush_makes_entries_visible_to_a_reader(tmp_path):
    path = tmp_path / "visible.mvlog"
    with ml.Recorder(path, application="a", version="1", max_commit_delay=dt.timedelta(minutes=1)) as rec:
        source = rec.add_data_source(0, "s")
        rec.flush()
        for i in range(20):
            rec.record(source, 1, f"entry {i}".encode(), BASE + i)
        with ml.LogFile.open(path) as reader:
            assert len(reader) == 0  # not committed yet: the delay is a minute
        rec.flush()
        assert rec.stats.written == 20
        with ml.LogFile.open(path) as reader:
            assert [e.payload for e in reader] == [f"entry {i}".encode() for i in range(20)]
        for i in range(20, 25):
            rec.record(source, 1, f"entry {i}".encode(), BASE + i)
        rec.flush()
        with ml.LogFile.open(path) as reader:
            assert len(reader) == 25


def test_commits_without_flush_after_the_delay(tmp_path):
    path = tmp_path / "delay.mvlog"
    with ml.Recorder(path, application="a", version="1", max_commit_delay=0.05) as rec:
        source = rec.add_data_source(0, "s")
        rec.record(source, 1, b"x", BASE)
        deadline = time.monotonic() + 5
        while rec.stats.written < 1 and time.monotonic() < deadline:
            time.sleep(0.01)
        assert rec.stats.written == 1
        with ml.LogFile.open(path) as reader:
            assert len(reader) == 1


def test_context_manager_closes(tmp_path):
    path = tmp_path / "closing.mvlog"
    with ml.Recorder(path, application="a", version="1") as rec:
        source = rec.add_data_source(0, "s")
        rec.record(source, 1, b"kept", BASE)
        assert not rec.closed
        assert repr(rec) == f"<Recorder '{path}' open>"
    assert rec.closed
    assert repr(rec) == f"<Recorder '{path}' closed>"
    assert rec.record(source, 1, b"late", BASE) is False
    assert rec.stats.refused == 1 and rec.stats.written == 1
    for call in (rec.flush, lambda: rec.add_data_source(0, "t"), lambda: rec.add_metadata("k", 1),
                 lambda: rec.add_bookmark(1, "b")):
        with pytest.raises(ValueError, match="closed recorder"):
            call()
    rec.close()  # harmless
    with ml.LogFile.open(path) as f:
        assert [e.payload for e in f] == [b"kept"]


def test_an_exception_in_the_block_still_closes_and_commits(tmp_path):
    path = tmp_path / "raised.mvlog"
    with pytest.raises(ZeroDivisionError):
        with ml.Recorder(path, application="a", version="1") as rec:
            source = rec.add_data_source(0, "s")
            rec.record(source, 1, b"before", BASE)
            1 / 0
    assert rec.closed
    with ml.LogFile.open(path) as f:
        assert [e.payload for e in f] == [b"before"]


def test_closing_from_another_thread_while_recording(tmp_path):
    path = tmp_path / "race.mvlog"
    rec = ml.Recorder(path, application="a", version="1")
    source = rec.add_data_source(0, "s")
    answers = []

    def capture():
        i = 0
        while True:
            accepted = rec.record(source, 1, i.to_bytes(4, "little"), BASE + i)
            answers.append(accepted)
            if not accepted:
                return
            i += 1

    thread = threading.Thread(target=capture)
    thread.start()
    time.sleep(0.2)
    rec.close()
    thread.join(timeout=10)
    assert not thread.is_alive()
    accepted = sum(answers)
    stats = rec.stats
    assert stats.accepted == stats.written == accepted
    with ml.LogFile.open(path) as f:
        assert len(f) == accepted
        assert [int.from_bytes(e.payload, "little") for e in f] == list(range(accepted))


def test_errors(tmp_path):
    existing = tmp_path / "exists.mvlog"
    existing.write_bytes(b"")
    with pytest.raises(FileExistsError, match="exists"):
        ml.Recorder(existing, application="a", version="1")
    assert existing.read_bytes() == b""

    path = tmp_path / "errors.mvlog"
    with pytest.raises(ValueError, match="overflow"):
        ml.Recorder(path, application="a", version="1", overflow="sometimes")
    with pytest.raises(ValueError, match="max_commit_delay"):
        ml.Recorder(path, application="a", version="1", max_commit_delay=-1)
    with pytest.raises(TypeError, match="max_commit_delay"):
        ml.Recorder(path, application="a", version="1", max_commit_delay="soon")
    with pytest.raises(ValueError, match="compression level"):
        ml.Recorder(path, application="a", version="1", level=1000)
    with pytest.raises(ValueError, match="compression_threads"):
        ml.Recorder(path, application="a", version="1", compression_threads=-1)
    with pytest.raises(ValueError, match="queue_bytes"):
        ml.Recorder(path, application="a", version="1", queue_bytes=-1)
    assert not path.exists()
    with pytest.raises(ml.DatabaseError):
        ml.Recorder(tmp_path / "no" / "such" / "dir.mvlog", application="a", version="1")

    with ml.Recorder(path, application="a", version="1") as rec:
        source = rec.add_data_source(0, "s")
        with pytest.raises(ml.RefusedError) as caught:
            rec.add_property(9, "k", 1)
        assert str(caught.value) == (
            "Attempted to add a data source property for a data source that did not exist in the file."
        )
        with pytest.raises(TypeError):
            rec.add_property(source, "flag", True)
        rec.add_metadata("legs", 3)
        with pytest.raises(ml.RefusedError, match="^The log file already has a metadata key 'legs'.$"):
            rec.add_metadata("legs", 4)
        rec.add_resource("notes.txt", b"hello")
        with pytest.raises(ml.RefusedError, match="^The log file already has a resource named 'notes.txt'.$"):
            rec.add_resource("notes.txt", b"again")
        with pytest.raises(ml.RefusedError):
            rec.add_bookmark(1, "no such entry")
        # An entry of an unknown data source is accepted, then refused by the file.
        assert rec.record(9, 1, b"x", BASE)
        assert rec.record(source, 1, b"fine", BASE)
        rec.flush()  # the writer goes on after a refused entry
        stats = rec.stats
        assert (stats.accepted, stats.written, stats.failed) == (2, 1, 1)
        assert stats.last_error == "Attempted to log data against a data source that did not exist in the file."
    with ml.LogFile.open(path) as f:
        assert [e.payload for e in f] == [b"fine"]
        assert f.metadata["legs"] == 3


def test_a_failed_writer_stops_the_recorder(tmp_path):
    # In a process of its own, whose files may not grow past 256 KiB: the
    # writer's commit fails as on a full disk.
    path = tmp_path / "full.mvlog"
    script = textwrap.dedent(
        """
        import resource, signal, sys
        import marivane_logging as ml
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (256 * 1024, resource.RLIM_INFINITY))
        rec = ml.Recorder(sys.argv[1], application="a", version="1", level=0, max_commit_delay=60)
        source = rec.add_data_source(0, "s")
        rec.flush()
        assert all(rec.record(source, 1, bytes(10_000), i) for i in range(100))
        try:
            rec.flush()
            raise SystemExit("flush did not raise")
        except ml.LogFileError as error:
            print("flush:", type(error).__name__, error)
        assert rec.record(source, 1, b"x", 1000) is False
        stats = rec.stats
        print("stats:", stats.accepted, stats.written, stats.failed, stats.refused)
        try:
            rec.add_metadata("k", 1)
        except ml.LogFileError as error:
            print("metadata:", type(error).__name__)
        try:
            rec.close()
        except ml.LogFileError as error:
            print("close:", type(error).__name__)
        rec.close()
        print("closed:", rec.closed)
        """
    )
    result = subprocess.run([sys.executable, "-c", script, os.fspath(path)], capture_output=True, text=True,
                            timeout=120, env=os.environ.copy())
    assert result.returncode == 0, result.stderr
    lines = result.stdout.splitlines()
    assert lines[0] == f"flush: LogFileError Cannot commit to '{path}': IO error while reading or writing to the file."
    assert lines[1:] == ["stats: 100 0 100 1", "metadata: LogFileError", "close: LogFileError", "closed: True"]
    # What was committed before the failure stays readable.
    with ml.LogFile.open(path) as f:
        assert [s.name for s in f.data_sources] == ["s"]
        assert len(f) == 0


def test_exports_and_stats_type():
    assert {"Recorder", "RecorderStats", "OverflowPolicy"} <= set(ml.__all__)
    assert list(ml.OverflowPolicy.__members__) == ["BLOCK", "DROP_NEWEST", "REFUSE"]
    stats = ml.RecorderStats(1, 1, 0, 0, 0, 3, 3, 3, 2500, "")
    assert stats.max_latency == 0.0025
    with pytest.raises(AttributeError):
        stats.accepted = 2


def test_the_default_durability_is_balanced(tmp_path):
    assert ml.Durability.BALANCED.name == "BALANCED"
    with ml.Recorder(tmp_path / "default.mvlog", application="a", version="1") as rec:
        assert rec.durability == ml.Durability.BALANCED
    with ml.Recorder(tmp_path / "fast.mvlog", application="a", version="1", durability=ml.Durability.FAST) as rec:
        assert rec.durability == ml.Durability.FAST
    # A balanced file is an ordinary log file once closed; the mode belongs
    # to the connection that wrote it.
    with ml.LogFile.create(tmp_path / "created.mvlog", application="a", version="1",
                           durability=ml.Durability.BALANCED) as f:
        assert f.durability == ml.Durability.BALANCED
    with ml.LogFile.open(tmp_path / "created.mvlog") as f:
        assert f.durability == ml.Durability.FAST


def stored(path):
    with ml.LogFile.open(path) as f:
        return [(e.id, e.timestamp, e.payload) for e in f.entries(order="id")]


def test_a_reorder_window_writes_time_order_and_counts_late_entries(tmp_path):
    path = tmp_path / "window.mvlog"
    with ml.Recorder(path, application="a", version="1", reorder_window=0.05) as rec:
        assert rec.reorder_window == 0.05
        source = rec.add_data_source(ml.SourceType.CAMERA, "cam")
        rec.record(source, 1, b"a", 1000)
        rec.record(source, 1, b"b", 970)
        rec.record(source, 1, b"c", 1100)
        rec.flush()
        assert rec.stats.late == 0
        # 1100 is written already: 900 comes too late, and is written anyway.
        rec.record(source, 1, b"d", 900)
    assert rec.stats.late == 1
    assert rec.stats.written == 4
    assert stored(path) == [(1, 970, b"b"), (2, 1000, b"a"), (3, 1100, b"c"), (4, 900, b"d")]


def test_without_a_window_entries_keep_the_order_recorded(tmp_path):
    path = tmp_path / "plain.mvlog"
    with ml.Recorder(path, application="a", version="1", reorder_window=dt.timedelta(0)) as rec:
        assert rec.reorder_window == 0
        source = rec.add_data_source(ml.SourceType.CAMERA, "cam")
        rec.record(source, 1, b"a", 1000)
        rec.record(source, 1, b"b", 970)
        rec.record(source, 1, b"c", 1100)
    assert rec.stats.late == 1
    assert stored(path) == [(1, 1000, b"a"), (2, 970, b"b"), (3, 1100, b"c")]


def test_threads_lagging_less_than_the_window_give_ids_that_follow_time(tmp_path):
    path = tmp_path / "threads.mvlog"
    steps = 100
    barrier = threading.Barrier(3)
    with ml.Recorder(path, application="a", version="1", reorder_window=dt.timedelta(milliseconds=100)) as rec:
        sources = [rec.add_data_source(ml.SourceType.LIDAR, f"lidar-{t}") for t in range(3)]

        def capture(t):
            for step in range(steps):
                # Thread t's clock lags by 20 ms per thread.
                rec.record(sources[t], t, f"{t}:{step}".encode(), BASE + 10 * step - 20 * t)
                barrier.wait()

        threads = [threading.Thread(target=capture, args=(t,)) for t in range(3)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
    assert rec.stats.late == 0
    entries = stored(path)
    assert len(entries) == 3 * steps
    timestamps = [timestamp for _, timestamp, _ in entries]
    assert timestamps == sorted(timestamps)


def test_the_time_index_is_built_on_close_unless_told_not_to(tmp_path):
    for build, name in ((None, "default.mvlog"), (True, "with.mvlog"), (False, "without.mvlog")):
        options = {} if build is None else {"build_time_index": build}
        with ml.Recorder(tmp_path / name, application="a", version="1", **options) as rec:
            assert rec.build_time_index is (build is not False)
            source = rec.add_data_source(0, "s")
            rec.record(source, 1, b"x", BASE)
            rec.flush()
            with ml.LogFile.open(tmp_path / name) as f:
                assert not f.has_time_index
        with ml.LogFile.open(tmp_path / name) as f:
            assert f.has_time_index is (build is not False)


def test_a_negative_reorder_window_is_refused(tmp_path):
    with pytest.raises(ValueError, match="reorder_window must be 0 or more seconds, not -0.5"):
        ml.Recorder(tmp_path / "negative.mvlog", application="a", version="1", reorder_window=-0.5)
    with pytest.raises(TypeError, match="reorder_window is seconds"):
        ml.Recorder(tmp_path / "text.mvlog", application="a", version="1", reorder_window="1s")
    assert not os.path.exists(tmp_path / "negative.mvlog")
