"""The player: frames to a Python callback on the worker thread, errors never lost."""

from __future__ import annotations

import threading
import time

import pytest

import marivane_logging as ml
from conftest import BASE, ENTRIES, payload_of

FAST = dict(speed=1000.0, max_frame_delay_ms=5)


def test_in_id_order_plays_every_frame_after_the_first(sample_path):
    frames = []
    threads = set()

    def on_frame(frame, entry):
        frames.append((frame, entry.id, entry.timestamp, entry.payload))
        threads.add(threading.get_ident())

    with ml.Player(sample_path, on_frame, order="id", **FAST) as player:
        assert player.frame_count == ENTRIES
        player.play()
        assert player.wait(timeout=30)
        assert player.delivered == ENTRIES - 1
    assert frames == [(i, i + 1, BASE + 100 * i, payload_of(i)) for i in range(1, ENTRIES)]
    assert threads and threading.get_ident() not in threads


def test_seek_delivers_on_the_calling_thread(sample_path):
    frames = []
    with ml.Player(sample_path, lambda frame, entry: frames.append((frame, entry.id, threading.get_ident()))) as p:
        p.seek(0)
        p.seek(7)
        assert p.seek_to_time(BASE + 1250) == 13
        assert p.total_play_time_ms == 2900
    me = threading.get_ident()
    assert frames == [(0, 1, me), (7, 8, me), (13, 14, me)]


def test_source_types_choose_the_frames(sample_path):
    ids = []
    with ml.Player(sample_path, lambda frame, entry: ids.append(entry.id),
                   source_types=[ml.SourceType.CAMERA], **FAST) as player:
        assert player.frame_count == 10
        assert player.data_sources == [(1, ml.SourceType.CAMERA, "cam")]
        player.seek(0)
        player.play()
        assert player.wait(timeout=30)
    assert ids == list(range(1, ENTRIES + 1, 3))


def test_a_callback_error_is_raised_by_wait_and_stops_delivery(sample_path):
    seen = []

    def on_frame(frame, entry):
        seen.append(frame)
        if frame == 3:
            raise ValueError(f"bad frame {frame}")

    player = ml.Player(sample_path, on_frame, **FAST)
    player.play()
    with pytest.raises(ValueError, match="^bad frame 3$"):
        player.wait(timeout=30)
    assert seen == [0, 1, 2, 3]
    player.stop()  # the error was raised once
    player.close()


def test_a_callback_error_is_raised_by_stop(sample_path):
    def on_frame(frame, entry):
        raise RuntimeError("from the callback")

    player = ml.Player(sample_path, on_frame, **FAST)
    player.play()
    while player.delivered == 0:
        threading.Event().wait(0.01)
    with pytest.raises(RuntimeError, match="from the callback"):
        player.stop()
    player.close()


def test_a_callback_error_is_raised_when_leaving_the_block(sample_path):
    with pytest.raises(ZeroDivisionError):
        with ml.Player(sample_path, lambda frame, entry: 1 / 0, **FAST) as player:
            player.seek(2)


def test_on_error_receives_errors_and_playback_goes_on(sample_path):
    errors = []

    def on_frame(frame, entry):
        if frame % 10 == 0:
            raise KeyError(frame)

    with ml.Player(sample_path, on_frame, on_error=errors.append, **FAST) as player:
        player.play()
        assert player.wait(timeout=30)
    assert [type(e) for e in errors] == [KeyError, KeyError, KeyError]
    assert [e.args for e in errors] == [(0,), (10,), (20,)]


def test_bookmarks_and_their_frames(tmp_path):
    from conftest import write_sample

    path = tmp_path / "marks.mvlog"
    write_sample(str(path))
    with ml.Player(path, lambda frame, entry: None) as player:
        assert player.bookmarks == [ml.PlayerBookmark(5, "Turn", "to port", 4),
                                    ml.PlayerBookmark(20, "Stop", "", 19)]
        player.add_bookmark(10, "Ten", "added")
        player.update_bookmark(20, "Halt")
        player.remove_bookmark(5)
        assert player.bookmarks == [ml.PlayerBookmark(20, "Halt", "", 19),
                                    ml.PlayerBookmark(10, "Ten", "added", 9)]
    with ml.LogFile.open(path) as f:
        assert [(b.entry_id, b.title) for b in f.bookmarks] == [(20, "Halt"), (10, "Ten")]


def test_wait_times_out_before_the_end(sample_path):
    frames = []
    with ml.Player(sample_path, lambda frame, entry: frames.append(frame), max_frame_delay_ms=20) as player:
        player.play()
        assert player.wait(timeout=0.05) is False
        player.stop()
    assert len(frames) < ENTRIES - 1


def test_a_closed_player_refuses_calls(sample_path):
    player = ml.Player(sample_path, lambda frame, entry: None)
    player.close()
    player.close()
    with pytest.raises(ValueError, match="closed"):
        player.play()


def test_dropping_a_playing_player_does_not_deadlock(sample_path):
    player = ml.Player(sample_path, lambda frame, entry: None, speed=1.0, max_frame_delay_ms=50)
    player.play()
    del player  # joins the worker without the GIL


def damaged_file(path):
    import sqlite3

    with ml.LogFile.create(path, application="a", version="1") as f:
        source = f.add_data_source(0, "s")
        for i in range(5):
            f.log(source, 1, b"payload" * 50, 1000 + i)
    with sqlite3.connect(path) as connection:
        connection.execute("UPDATE data SET payload = x'00010203' WHERE entryId = 3")


REASON = "Cannot uncompress data: the data is not a valid compressed frame or is truncated"


def test_an_unreadable_frame_is_a_placeholder_and_an_error(tmp_path):
    path = tmp_path / "damaged.mvlog"
    damaged_file(path)
    seen = []
    player = ml.Player(path, lambda frame, e: seen.append((frame, e.id, e.source, len(e.payload))), **FAST)
    player.play()
    with pytest.raises(ml.DamagedError) as caught:
        player.wait(timeout=30)
    assert str(caught.value) == f"Frame 2 (entry 3) cannot be read: {REASON}"
    assert seen == [(0, 1, 1, 350), (1, 2, 1, 350), (2, 3, -1, 0), (3, 4, 1, 350), (4, 5, 1, 350)]
    player.close()


def test_on_unreadable_receives_unreadable_frames(tmp_path):
    path = tmp_path / "damaged.mvlog"
    damaged_file(path)
    reports = []
    with ml.Player(path, lambda frame, e: None, on_unreadable=lambda *report: reports.append(report), **FAST) as p:
        p.play()
        assert p.wait(timeout=30)
    assert reports == [(2, 3, REASON)]


OFFSETS = (50, 10, 70, 30, 20, 60, 40, 0)


def shuffled_file(path):
    """Ids 1 to 8 at OFFSETS (ms) after BASE; in time order: 8, 2, 5, 4, 7, 1, 6, 3."""
    with ml.LogFile.create(path, application="a", version="1") as f:
        cam = f.add_data_source(ml.SourceType.CAMERA, "cam")
        for offset in OFFSETS:
            f.log(cam, 1, b"%d" % offset, BASE + offset)
        f.add_bookmark(4, "at 30")
        f.add_bookmark(3, "last in time")


TIME_ORDER = [8, 2, 5, 4, 7, 1, 6, 3]


def test_time_order_plays_every_frame_from_frame_zero(tmp_path):
    path = tmp_path / "shuffled.mvlog"
    shuffled_file(path)
    seen = []
    with ml.Player(path, lambda frame, e: seen.append((frame, e.id, e.payload)), order="time", speed=100.0) as p:
        assert p.order == "time"
        assert p.frame_count == 8
        assert p.total_play_time_ms == 70
        p.play()
        assert p.wait(timeout=30)
    assert seen == [(i, id, b"%d" % OFFSETS[id - 1]) for i, id in enumerate(TIME_ORDER)]
    with ml.Player(path, lambda frame, e: None) as p:
        assert p.order == "time"
    with ml.Player(path, lambda frame, e: None, order="id") as p:
        assert p.order == "id"


def test_time_order_seeks_by_time_and_maps_bookmarks(tmp_path):
    path = tmp_path / "shuffled.mvlog"
    shuffled_file(path)
    seen = []
    with ml.Player(path, lambda frame, e: seen.append((frame, e.id)), order=ml._core.FrameOrder.TIME) as p:
        assert p.seek_to_time(BASE + 25) == 3
        assert p.seek_to_time(BASE - 5) == 0
        assert sorted(p.bookmarks) == [ml.PlayerBookmark(3, "last in time", "", 7),
                                       ml.PlayerBookmark(4, "at 30", "", 3)]
    assert seen == [(3, 4), (0, 8)]


def test_time_order_scales_every_gap_by_the_speed(tmp_path):
    path = tmp_path / "slow.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        mast = f.add_data_source(ml.SourceType.ENVIRONMENT, "mast")
        for i in range(6):
            f.log(mast, 1, b"reading", BASE + 1000 * i)
    # 5 s of 1 Hz readings at 20x: 250 ms, where a 1 s cap would make it 5 s.
    with ml.Player(path, lambda frame, e: None, order="time", speed=20.0, max_frame_delay_ms=1000) as p:
        started = time.monotonic()
        p.play()
        assert p.wait(timeout=30)
        elapsed = time.monotonic() - started
    assert 0.2 <= elapsed < 2.0


def test_an_unknown_order_is_refused(sample_path):
    with pytest.raises(ValueError, match="order is 'id' or 'time', not 'random'"):
        ml.Player(sample_path, lambda frame, e: None, order="random")
