"""Callbacks that call back into what is calling them: never a crash.

A visit's callback, the garbage collector during a streaming read and a
player's callbacks run Python code while the library walks a file or plays
it. Closing, writing or dropping what they walk either raises RuntimeError or
waits until the walk ends. Each case runs in a child interpreter, so that a
crash fails its test (with the child's output) instead of ending the run.
"""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import textwrap

import pytest

PRELUDE = textwrap.dedent(
    """
    import gc, os, sys, threading, time
    import numpy as np
    import marivane_logging as ml

    def make(path, count=30, level=-1, size=None):
        with ml.LogFile.create(path, application="t", version="1", level=level) as f:
            source = f.add_data_source(ml.SourceType.GENERIC, "s")
            with f.batch():
                for i in range(count):
                    payload = bytes([i % 256]) * (size or 100 + 7 * i)
                    f.log(source, 1, payload, 1_000 + 10 * i)
        return [bytes([i % 256]) * (size or 100 + 7 * i) for i in range(count)]
    """
)


def run_child(tmp_path, body: str, timeout: float = 120) -> str:
    """Runs PRELUDE + body in a new interpreter with PATH = a file path in tmp_path; answers its stdout."""
    script = PRELUDE + "\nPATH = " + repr(os.fspath(tmp_path / "file.mvlog")) + "\n" + textwrap.dedent(body)
    try:
        completed = subprocess.run(
            [sys.executable, "-c", script], capture_output=True, text=True, timeout=timeout, env=os.environ.copy()
        )
    except subprocess.TimeoutExpired as expired:
        pytest.fail(f"the child hung for {timeout} s\n--- stdout\n{expired.stdout}\n--- stderr\n{expired.stderr}")
    if completed.returncode != 0:
        how = (
            f"killed by {signal.Signals(-completed.returncode).name}"
            if completed.returncode < 0
            else f"exit code {completed.returncode}"
        )
        pytest.fail(f"the child failed ({how})\n--- stdout\n{completed.stdout}\n--- stderr\n{completed.stderr}")
    return completed.stdout


def visited_message(operation: str, path: str, advice: str) -> str:
    return f"Cannot {operation} '{path}' while it is being visited; {advice}."


def test_closing_a_file_in_its_own_visit_raises_and_the_file_stays_usable(tmp_path):
    path = os.fspath(tmp_path / "file.mvlog")
    out = run_child(
        tmp_path,
        """
        payloads = make(PATH)
        f = ml.LogFile.open(PATH)
        def close_it(entry):
            f.close()
        try:
            f.visit(close_it)
        except RuntimeError as error:
            print("raised:", error)
        print("closed:", f.closed)
        # The read goes on when the callback swallows the refusal.
        seen = []
        def try_to_close(entry):
            try:
                f.close()
            except RuntimeError:
                pass
            seen.append(bytes(entry.payload))
        print("visited:", f.visit(try_to_close), seen == payloads)
        print("after:", len(f), f[30].payload == payloads[29])
        f.close()
        print("closed:", f.closed)
        """,
    )
    advice = "return False from the callback to stop, and close after visit() returns"
    assert out.splitlines() == [
        "raised: " + visited_message("close", path, advice),
        "closed: False",
        "visited: 30 True",
        "after: 30 True",
        "closed: True",
    ]


def test_writes_in_a_visit_raise_and_change_nothing(tmp_path):
    path = os.fspath(tmp_path / "file.mvlog")
    out = run_child(
        tmp_path,
        """
        make(PATH, count=5)
        f = ml.LogFile.open(PATH, read_only=False)
        before = (len(f), f.metadata, f.resources, f.bookmarks, f.data_sources, f.has_time_index)
        writes = {
            "log": lambda: f.log(1, 1, b"more", 5),
            "add_data_source": lambda: f.add_data_source(0, "other"),
            "add_property": lambda: f.add_property(1, "k", 1),
            "add_metadata": lambda: f.add_metadata("k", "v"),
            "add_resource": lambda: f.add_resource("r", b"x"),
            "set_thumbnail": lambda: f.set_thumbnail(b"png"),
            "add_bookmark": lambda: f.add_bookmark(1, "t"),
            "update_bookmark": lambda: f.update_bookmark(1, "t"),
            "remove_bookmark": lambda: f.remove_bookmark(1),
            "create_time_index": f.create_time_index,
            "batch": lambda: f.batch().__enter__(),
        }
        messages = set()
        def write_everything(entry):
            for name, write in writes.items():
                try:
                    write()
                    print("not refused:", name)
                except RuntimeError as error:
                    messages.add(str(error))
            return False
        print("visited:", f.visit(write_everything))
        for message in messages:
            print("raised:", message)
        after = (len(f), f.metadata, f.resources, f.bookmarks, f.data_sources, f.has_time_index)
        print("unchanged:", after == before, f._native.batch_open)
        # A batch begun before the visit is committed after it, not inside.
        with f.batch():
            f.log(1, 1, b"in the batch", 6)
            def commit_it(entry):
                try:
                    f._native.commit_batch()
                except RuntimeError as error:
                    print("commit raised:", error)
                return False
            f.visit(commit_it)
        print("written after:", len(f), f[6].payload)
        f.close()
        """,
    )
    assert out.splitlines() == [
        "visited: 1",
        "raised: " + visited_message("write to", path, "write after visit() returns"),
        "unchanged: True False",
        "commit raised: " + visited_message("write to", path, "write after visit() returns"),
        "written after: 6 b'in the batch'",
    ]


def test_reads_inside_a_visit_see_the_file(tmp_path):
    out = run_child(
        tmp_path,
        """
        payloads = make(PATH, count=12, level=0)
        with ml.LogFile.open(PATH) as f:
            pairs = []
            def outer(entry):
                inner = []
                f.visit(lambda e: inner.append(bytes(e.payload)), payload_as="memoryview")
                assert inner == payloads
                assert [e.payload for e in f.entries(1, 3)] == payloads[:3]
                assert f[entry.id].payload == payloads[entry.id - 1]
                assert len(f.index()) == 12 and f.metadata["applicationName"] == "t"
                pairs.append((entry.id, bytes(entry.payload) == payloads[entry.id - 1]))
            print(f.visit(outer), pairs == [(i, True) for i in range(1, 13)])
        """,
    )
    assert out.splitlines() == ["12 True"]


@pytest.mark.parametrize("level", [-1, 0])
def test_views_kept_beyond_the_callback_keep_their_own_bytes(tmp_path, level):
    out = run_child(
        tmp_path,
        f"""
        payloads = make(PATH, count=40, level={level})
        with ml.LogFile.open(PATH) as f:
            slices, arrays, views = [], [], []
            def keep(entry):
                slices.append(entry.payload[:])
                arrays.append(np.frombuffer(entry.payload, dtype=np.uint8))
                views.append(entry.payload)
            print("visited:", f.visit(keep))
        # Later reads and allocations must not show through the kept ones.
        with ml.LogFile.open(PATH) as f:
            junk = [bytes([255]) * len(p) for p in payloads]
            list(f.entries())
        print("slices:", [bytes(s) for s in slices] == payloads)
        print("arrays:", [a.tobytes() for a in arrays] == payloads)
        print("read-only:", all(s.readonly for s in slices), not arrays[0].flags.writeable)
        try:
            bytes(views[0])
        except ValueError as error:
            print("released:", "released" in str(error))
        """,
    )
    assert out.splitlines() == [
        "visited: 40",
        "slices: True",
        "arrays: True",
        "read-only: True True",
        "released: True",
    ]


def test_a_visit_reuses_its_buffer_while_nothing_keeps_it(tmp_path):
    out = run_child(
        tmp_path,
        """
        payloads = make(PATH, count=20, size=64)
        with ml.LogFile.open(PATH) as f:
            owners = set()
            f.visit(lambda entry: owners.add(id(entry.payload.obj)))
            print("reused:", len(owners))
            kept = []
            f.visit(lambda entry: kept.append(entry.payload.obj))
            print("kept:", len(set(map(id, kept))), [bytes(memoryview(k)) for k in kept] == payloads)
        """,
    )
    assert out.splitlines() == ["reused: 1", "kept: 20 True"]


def test_closing_a_file_while_a_streaming_read_fills_its_chunk(tmp_path):
    path = os.fspath(tmp_path / "file.mvlog")
    out = run_child(
        tmp_path,
        """
        payloads = make(PATH)
        f = ml.LogFile.open(PATH)
        it = f.entries()
        state = {"armed": False, "tries": 0}
        raised = []
        sys.unraisablehook = lambda unraisable: raised.append(repr(unraisable.exc_value))
        def on_collect(phase, info):
            # The collector runs inside the chunk's read, while entries are made.
            if state["armed"] and phase == "start":
                state["armed"] = False
                state["tries"] += 1
                f.close()
        gc.callbacks.append(on_collect)
        # Few objects are made before the read starts, and 30 entries inside
        # it: the first collection falls inside.
        gc.set_threshold(10)
        gc.collect()
        state["armed"] = True
        got = [next(it).payload]
        state["armed"] = False
        gc.set_threshold(700)
        gc.callbacks.remove(on_collect)
        got += [e.payload for e in it]
        print("tries:", state["tries"])
        print("raised:", raised)
        print("entries:", got == payloads, f.closed)
        f.close()
        """,
    )
    message = visited_message(
        "close", path, "return False from the callback to stop, and close after visit() returns"
    )
    assert out.splitlines() == [
        "tries: 1",
        "raised: [" + repr(repr(RuntimeError(message))) + "]",
        "entries: True False",
    ]


def test_an_entry_iterator_refuses_to_refill_during_its_own_fill(tmp_path):
    out = run_child(
        tmp_path,
        """
        payloads = make(PATH)
        with ml.LogFile.open(PATH) as f:
            it = f.entries()
            state = {"armed": False}
            raised = []
            sys.unraisablehook = lambda unraisable: raised.append(str(unraisable.exc_value))
            def on_collect(phase, info):
                if state["armed"] and phase == "start":
                    state["armed"] = False
                    next(it)
            gc.callbacks.append(on_collect)
            gc.set_threshold(10)
            gc.collect()
            state["armed"] = True
            got = [next(it).payload]
            state["armed"] = False
            gc.set_threshold(700)
            gc.callbacks.remove(on_collect)
            got += [e.payload for e in it]
            print("raised:", raised)
            print("entries:", got == payloads)
        """,
    )
    assert out.splitlines() == [
        "raised: ['This entry iterator is already reading its next entries.']",
        "entries: True",
    ]


def player_message(what: str) -> str:
    return (
        f"Player.{what} cannot be used from the player's own callback; use it from the thread that controls "
        "the player."
    )


CONTROLS = """
controls = {
    "close()": lambda p: p.close(),
    "stop()": lambda p: p.stop(),
    "play()": lambda p: p.play(),
    "wait()": lambda p: p.wait(),
    "seek()": lambda p: p.seek(0),
    "seek_to_time()": lambda p: p.seek_to_time(0),
    "total_play_time_ms": lambda p: p.total_play_time_ms,
    "set_pacing()": lambda p: p.set_pacing(ml.Pacing.EXACT),
    "add_bookmark()": lambda p: p.add_bookmark(1, "t"),
    "update_bookmark()": lambda p: p.update_bookmark(1, "t"),
    "remove_bookmark()": lambda p: p.remove_bookmark(1),
}
def try_controls(player, messages):
    for name, control in controls.items():
        try:
            control(player)
            messages.append("not refused: " + name)
        except RuntimeError as error:
            messages.append(str(error))
"""


def test_a_player_callback_cannot_control_its_player(tmp_path):
    out = run_child(
        tmp_path,
        CONTROLS
        + textwrap.dedent(
            """
        make(PATH, count=6)
        messages = []
        frames = []
        holder = []
        def on_frame(frame, entry):
            if frame == 2:
                try_controls(holder[0], messages)
                holder[0].set_speed(1000.0)
                holder[0].set_loop(False)
                frames.append((frame, holder[0].frame_count, len(holder[0].bookmarks), holder[0].delivered))
            else:
                frames.append(frame)
        with ml.Player(PATH, on_frame, max_frame_delay_ms=1) as player:
            holder.append(player)
            player.play()
            print("finished:", player.wait(timeout=60))
        print("frames:", frames)
        for message in messages:
            print(message)
        """
        ),
    )
    lines = out.splitlines()
    assert lines[:2] == ["finished: True", "frames: [0, 1, (2, 6, 0, 2), 3, 4, 5]"]
    assert lines[2:] == [
        player_message(name)
        for name in (
            "close()",
            "stop()",
            "play()",
            "wait()",
            "seek()",
            "seek_to_time()",
            "total_play_time_ms",
            "set_pacing()",
            "add_bookmark()",
            "update_bookmark()",
            "remove_bookmark()",
        )
    ]


def test_a_callback_run_by_seek_cannot_close_its_player(tmp_path):
    out = run_child(
        tmp_path,
        CONTROLS
        + textwrap.dedent(
            """
        make(PATH, count=6)
        messages = []
        holder = []
        def on_frame(frame, entry):
            try_controls(holder[0], messages)
        with ml.Player(PATH, on_frame) as player:
            holder.append(player)
            player.seek(3)
            print("delivered:", player.delivered)
        print("refused:", len(messages), sum(m.startswith("Player.") for m in messages))
        """
        ),
    )
    assert out.splitlines() == ["delivered: 1", "refused: 11 11"]


def test_a_player_dropped_by_its_own_callback_stops_and_closes_its_file(tmp_path):
    out = run_child(
        tmp_path,
        """
        make(PATH, count=200)
        frames = []
        players = []
        def on_frame(frame, entry):
            frames.append(frame)
            if frame == 3:
                players.clear()   # the last reference: the player goes away on its own worker
        players.append(ml.Player(PATH, on_frame, max_frame_delay_ms=2))
        players[0].play()
        def open_handles():
            return [p for p in os.listdir("/proc/self/fd")
                    if os.path.realpath("/proc/self/fd/" + p) == os.path.realpath(PATH)]
        deadline = time.monotonic() + 30
        while (len(frames) < 3 or open_handles()) and time.monotonic() < deadline:
            time.sleep(0.01)
        count = len(frames)
        time.sleep(0.2)
        print("frames:", frames[:3], count == len(frames), len(frames) < 200)
        print("open handles:", open_handles())
        """,
    )
    assert out.splitlines() == ["frames: [0, 1, 2] True True", "open handles: []"]


def test_player_bookmarks_read_by_a_callback_while_they_are_edited(tmp_path):
    out = run_child(
        tmp_path,
        """
        make(PATH, count=50)
        seen = []
        holder = []
        def on_frame(frame, entry):
            for _ in range(20):
                seen.append(len(holder[0].bookmarks))
        with ml.Player(PATH, on_frame, loop=True, max_frame_delay_ms=0, speed=1000.0) as player:
            holder.append(player)
            player.play()
            deadline = time.monotonic() + 3
            rounds = 0
            while time.monotonic() < deadline:
                for entry_id in range(1, 21):
                    player.add_bookmark(entry_id, "t" * 50)
                for entry_id in range(1, 21):
                    player.remove_bookmark(entry_id)
                rounds += 1
            player.stop()
        print("rounds:", rounds > 0, "reads:", len(seen) > 0, "sizes:", set(seen) <= set(range(21)))
        """,
    )
    assert out.splitlines() == ["rounds: True reads: True sizes: True"]


def test_closing_a_player_wakes_a_thread_that_waits_for_it(tmp_path):
    out = run_child(
        tmp_path,
        """
        make(PATH, count=50)
        player = ml.Player(PATH, lambda frame, entry: None, speed=0.01)  # a second per frame
        player.play()
        outcome = []
        def waiter():
            try:
                outcome.append(player.wait())
            except ValueError as error:
                outcome.append(str(error))
        thread = threading.Thread(target=waiter, daemon=True)
        thread.start()
        time.sleep(0.2)
        player.close()
        thread.join(30)
        print(outcome, thread.is_alive())
        """,
    )
    assert out.splitlines() == ["['The player is closed.'] False"]


def test_threads_that_stop_and_close_one_player_take_turns(tmp_path):
    out = run_child(
        tmp_path,
        """
        make(PATH, count=50)
        outcomes = set()
        for attempt in range(30):
            player = ml.Player(PATH, lambda frame, entry: None, loop=True, max_frame_delay_ms=0)
            player.play()
            def stopper():
                try:
                    while True:
                        player.stop()
                        player.play()
                except ValueError as error:
                    outcomes.add(str(error))
            threads = [threading.Thread(target=stopper) for _ in range(2)]
            for thread in threads:
                thread.start()
            time.sleep(0.01)
            player.close()
            for thread in threads:
                thread.join(30)
        print(outcomes)
        """,
    )
    assert out.splitlines() == ["{'The player is closed.'}"]
