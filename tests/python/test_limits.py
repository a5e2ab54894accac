"""Ids, timestamps, levels and counts beyond what the file or the library can hold.

An entry id is 32-bit, a timestamp 64-bit (milliseconds), a data-source id
8-bit. A value beyond is never an entry: lookups answer KeyError or False,
writes and selections OverflowError (ValueError where a narrower range was
already checked with one), and nothing reaches the file.
"""

from __future__ import annotations

import numpy as np
import pytest

import marivane_logging as ml

BEYOND_IDS = [2**31, 2**32 + 1, 2**64, -(2**31) - 1, -(2**70)]
BEYOND_TIMES = [2**63, 2**70, -(2**63) - 1, -(2**70)]


def entry_id_message(what: str, value: int) -> str:
    return f"{what} must be an entry id (1 to 2147483647), not {value}"


def bits32(what: str, value: int) -> str:
    return f"{what} must fit in 32 bits: {value} is out of range"


def bits64(what: str, value: int) -> str:
    return f"{what} must fit in 64 bits: {value} is out of range"


def time_message(value: int) -> str:
    return bits64("a time in milliseconds", value)


def source_message(value: int) -> str:
    return f"data source ids are 8-bit: {value} is out of range"


def level_message(value: int) -> str:
    return f"compression level out of range: {value}"


def raises(cls, message, call) -> None:
    with pytest.raises(cls) as caught:
        call()
    assert type(caught.value) is cls
    assert str(caught.value) == message


def test_lookups_of_ids_beyond_32_bits(sample):
    for value in BEYOND_IDS + [np.int64(2**40)]:
        assert value not in sample
        with pytest.raises(KeyError) as caught:
            sample[value]
        assert caught.value.args == (value,)
    assert 30 in sample and 31 not in sample and sample[30].id == 30
    sample.close()
    for call in (lambda: 2**40 in sample, lambda: sample[2**40]):
        with pytest.raises(ValueError, match="closed log file"):
            call()


def test_selections_beyond_the_ranges(sample):
    reads = {
        "entries": lambda **k: list(sample.entries(**k)),
        "visit": lambda **k: sample.visit(lambda e: None, **k),
        "index": lambda **k: sample.index(**k),
        "to_pandas": lambda **k: sample.to_pandas(**k),
    }
    for read in reads.values():
        raises(OverflowError, entry_id_message("start", 2**32 + 1), lambda: read(start=2**32 + 1))
        raises(OverflowError, entry_id_message("end", 2**31), lambda: read(end=2**31))
        # Below 1 was refused before, and still is, the same way.
        raises(ValueError, "start must be an entry id (1 or more), not -1180591620717411303424",
               lambda: read(start=-(2**70)))
        for value in BEYOND_TIMES:
            raises(OverflowError, time_message(value), lambda: read(time=(value, None)))
            raises(OverflowError, time_message(value), lambda: read(time=(None, value)))
        raises(OverflowError, bits32("types", 2**40), lambda: read(types=[1, 2**40]))
        raises(OverflowError, bits32("source_types", -(2**40)), lambda: read(source_types=-(2**40)))
        raises(ValueError, source_message(2**40), lambda: read(sources=2**40))
        raises(ValueError, source_message(300), lambda: read(sources=[1, 300]))
    raises(OverflowError, bits32("types", 2**32), lambda: sample.time_range(types=2**32))
    raises(ValueError, source_message(-(2**40)), lambda: sample.time_range(sources=-(2**40)))
    raises(OverflowError, time_message(2**63), lambda: sample.find_entry_at_or_after(2**63))
    raises(OverflowError, bits32("types", 2**32), lambda: sample.find_entry_at_or_after(0, types=2**32))
    # The largest values that fit select nothing, as before.
    assert list(sample.entries(2**31 - 1)) == []
    assert sample.find_entry_at_or_after(2**63 - 1) is None
    assert len(sample.index(time=(-(2**63), 2**63 - 1))) == 30


def test_writes_beyond_the_ranges(tmp_path):
    path = tmp_path / "writes.mvlog"
    with ml.LogFile.create(path, application="a", version="1") as f:
        source = f.add_data_source(0, "s")
        f.log(source, 1, b"x", 5)
        f.add_bookmark(1, "kept")
        raises(ValueError, source_message(2**40), lambda: f.log(2**40, 1, b"x", 5))
        raises(ValueError, source_message(np.int64(-(2**40))), lambda: f.log(np.int64(-(2**40)), 1, b"x", 5))
        raises(OverflowError, bits32("type", 2**32), lambda: f.log(source, 2**32, b"x", 5))
        for value in BEYOND_TIMES:
            raises(OverflowError, time_message(value), lambda: f.log(source, 1, b"x", value))
        raises(OverflowError, bits32("type", 2**31), lambda: f.add_data_source(2**31, "t"))
        raises(ValueError, source_message(2**40), lambda: f.add_property(2**40, "k", 1))
        for write in (f.add_bookmark, f.update_bookmark):
            raises(OverflowError, bits32("entry_id", 2**32 + 1), lambda: write(2**32 + 1, "t"))
        raises(OverflowError, bits32("entry_id", -(2**70)), lambda: f.remove_bookmark(-(2**70)))
        # Payloads that are not bytes are still refused by the native call.
        with pytest.raises(TypeError):
            f.log(source, 1, "text", 5)
        assert (len(f), [b.title for b in f.bookmarks], len(f.data_sources)) == (1, ["kept"], 1)
    raises(ValueError, level_message(2**40), lambda: ml.LogFile.create(
        tmp_path / "level.mvlog", application="a", version="1", level=2**40))
    raises(OverflowError, time_message(2**64), lambda: ml.LogFile.create(
        tmp_path / "created.mvlog", application="a", version="1", created=2**64))
    assert sorted(p.name for p in tmp_path.iterdir()) == ["writes.mvlog"]


def test_derived_files_beyond_the_ranges(sample_path, tmp_path):
    out = tmp_path / "out.mvlog"
    raises(OverflowError, bits32("last_id", 2**40), lambda: ml.slice(sample_path, 1, 2**40, out))
    raises(OverflowError, bits32("first_id", -(2**40)), lambda: ml.slice(sample_path, -(2**40), 2, out))
    raises(ValueError, level_message(2**40), lambda: ml.slice(sample_path, 1, 2, out, level=2**40))
    raises(ValueError, level_message(-(2**40)), lambda: ml.clone(sample_path, out, level=-(2**40)))
    for derive in (lambda **k: ml.copy(sample_path, out, **k), lambda **k: ml.merge([sample_path], out, **k)):
        raises(ValueError, level_message(2**40), lambda: derive(compression_level=2**40))
        raises(OverflowError, entry_id_message("first_id", 2**40), lambda: derive(first_id=2**40))
        raises(OverflowError, entry_id_message("last_id", 2**40), lambda: derive(last_id=2**40))
        raises(OverflowError, time_message(2**64), lambda: derive(time=(2**64, None)))
        raises(OverflowError, bits32("types", 2**40), lambda: derive(types=2**40))
        raises(ValueError, source_message(2**40), lambda: derive(sources=2**40))
    assert not out.exists()


def test_recorder_arguments_beyond_the_ranges(tmp_path):
    path = tmp_path / "recorded.mvlog"

    def recorder(**options):
        return ml.Recorder(path, application="a", version="1", **options)

    raises(ValueError, level_message(2**40), lambda: recorder(level=2**40))
    raises(OverflowError, bits64("queue_bytes", 2**64), lambda: recorder(queue_bytes=2**64))
    raises(OverflowError, bits32("compression_threads", 2**40), lambda: recorder(compression_threads=2**40))
    raises(ValueError, "compression_threads must be 0 (automatic) or more",
           lambda: recorder(compression_threads=-(2**40)))
    raises(OverflowError, bits64("max_transaction_entries", 2**64), lambda: recorder(max_transaction_entries=2**64))
    raises(ValueError, "max_transaction_entries must be 1 or more", lambda: recorder(max_transaction_entries=-(2**70)))
    raises(OverflowError, "max_commit_delay must fit in 64 bits of milliseconds: 1e+300 is out of range",
           lambda: recorder(max_commit_delay=1e300))
    assert not path.exists()
    with recorder() as rec:
        source = rec.add_data_source(0, "s")
        assert rec.record(source, 1, b"kept", 5)
        raises(ValueError, source_message(2**40), lambda: rec.record(2**40, 1, b"x", 5))
        raises(ValueError, source_message(np.int64(2**40)), lambda: rec.record(np.int64(2**40), 1, b"x", 5))
        raises(OverflowError, bits32("type", -(2**31) - 1), lambda: rec.record(source, -(2**31) - 1, b"x", 5))
        for value in BEYOND_TIMES:
            raises(OverflowError, time_message(value), lambda: rec.record(source, 1, b"x", value))
        with pytest.raises(TypeError):
            rec.record(1.5, 1, b"x", 5)
        raises(OverflowError, bits32("type", 2**32), lambda: rec.add_data_source(2**32, "t"))
        raises(ValueError, source_message(2**40), lambda: rec.add_property(2**40, "k", 1))
        raises(OverflowError, bits32("entry_id", 2**32), lambda: rec.add_bookmark(2**32, "t"))
        rec.flush()
        assert rec.stats.accepted == 1
    with ml.LogFile.open(path) as f:
        assert [e.payload for e in f] == [b"kept"] and len(f.data_sources) == 1 and f.bookmarks == []


def test_player_arguments_beyond_the_ranges(sample_path):
    delivered = []

    def on_frame(frame, entry):
        delivered.append(frame)

    raises(OverflowError, bits32("source_types", 2**40),
           lambda: ml.Player(sample_path, on_frame, source_types=[2**40]))
    raises(OverflowError, bits32("max_frame_delay_ms", 2**40),
           lambda: ml.Player(sample_path, on_frame, max_frame_delay_ms=2**40))
    with ml.Player(sample_path, on_frame) as player:
        raises(OverflowError, bits32("frame", 2**40), lambda: player.seek(2**40))
        raises(OverflowError, time_message(2**63), lambda: player.seek_to_time(2**63))
        for edit in (player.add_bookmark, player.update_bookmark):
            raises(OverflowError, bits32("entry_id", 2**32), lambda: edit(2**32, "t"))
        raises(OverflowError, bits32("entry_id", -(2**40)), lambda: player.remove_bookmark(-(2**40)))
        assert delivered == [] and len(player.bookmarks) == 2
