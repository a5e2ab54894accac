"""Player: replays a log file's entries at their recorded pace."""

from __future__ import annotations

import os
from typing import Any, Callable, List, NamedTuple, Optional, Sequence, Tuple, Union

from . import _core, _paths
from ._core import Entry, FrameOrder, Pacing
from ._selection import SourceType, Time, int32, source_type, to_ms

FrameCallback = Callable[[int, Entry], Any]


class PlayerBookmark(NamedTuple):
    """A bookmark as the player shows it: with the frame at which playback reaches it."""

    entry_id: int
    title: str
    comments: str
    frame: int


_ORDERS = {"id": FrameOrder.ID, "time": FrameOrder.TIME}


def _frame_order(value: Union[str, FrameOrder]) -> FrameOrder:
    if isinstance(value, FrameOrder):
        return value
    if isinstance(value, str):
        try:
            return _ORDERS[value.lower()]
        except KeyError:
            pass
    raise ValueError(f"order is 'id' or 'time', not {value!r}")


class Player:
    """Replays a log file on a worker thread, calling `callback(frame, entry)` per frame.

    Frames are the entries whose data source has one of `source_types` (every
    entry when none matches or the list is empty), in time order (ascending
    timestamp, equal timestamps by id). The worker waits for each entry's
    timestamp gap to the previous one divided by `speed` (at most
    `max_frame_delay_ms` when given), then calls the callback with the GIL
    held; the player otherwise runs without it::

        def show(frame, entry):
            print(frame, entry.source, entry.timestamp, len(entry.payload))

        with Player("run.mvlog", show, speed=4.0) as player:
            player.play()
            player.wait()          # until the last frame was delivered

    Errors are never lost: an exception raised by the callback stops the
    delivery of further frames, is kept, and is raised again by the next
    :meth:`stop`, :meth:`wait`, :meth:`seek` or on leaving the ``with`` block.
    Give ``on_error=function`` to receive such exceptions instead (playback
    then goes on). A frame the file cannot read is delivered as a placeholder
    and reported as :class:`DamagedError` the same way, or to
    ``on_unreadable(frame, entry_id, reason)``.

    The callbacks run while the player is at work, so the methods that
    control it (:meth:`play`, :meth:`stop`, :meth:`close`, :meth:`wait`,
    :meth:`seek`, :meth:`seek_to_time`, :attr:`total_play_time_ms`,
    :meth:`set_pacing` and the bookmark edits) raise RuntimeError when a
    callback calls them; :meth:`set_loop`, :meth:`set_speed` and the other
    properties may be used there. A player whose last reference a callback
    drops stops once that callback returns.

    In time order (the default) the frames come in time order whatever order
    the entries were written in: :meth:`play` starts at frame 0,
    :meth:`seek_to_time` finds the earliest frame at or after a time,
    bookmarks show at their entry's frame, and the speed scales every gap;
    `max_frame_delay_ms`, when given, caps the scaled gap, and `pacing` is
    :attr:`Pacing.EXACT` unless given. With ``order="id"`` the frames are in
    id order as they were written, each wait is at most `max_frame_delay_ms`
    (1000 unless given) before the speed divides it, pacing is
    :attr:`Pacing.CARRY_MILLISECONDS` unless given, and the first
    :meth:`play` starts at frame 1 (seek to 0 first to see frame 0).

    The file must exist: a missing path raises :class:`LogFileNotFoundError`,
    a directory :class:`LogFileIsADirectoryError`.
    """

    def __init__(
        self,
        path: Union[str, "os.PathLike[str]"],
        callback: FrameCallback,
        *,
        source_types: Sequence[int] = (),
        loop: bool = False,
        max_frame_delay_ms: Optional[int] = None,
        speed: float = 1.0,
        pacing: Optional[Pacing] = None,
        on_error: Optional[Callable[[BaseException], Any]] = None,
        on_unreadable: Optional[Callable[[int, int, str], Any]] = None,
        order: Union[str, FrameOrder] = "time",
    ) -> None:
        if not callable(callback):
            raise TypeError("callback must be callable as callback(frame, entry)")
        frame_order = _frame_order(order)
        # The player opens the file for writing (for its bookmark edits),
        # which would make a new file of a missing path.
        path = _paths.existing(path)
        self._path = path
        source_types = [int32(t, "source_types") for t in source_types]
        if max_frame_delay_ms is not None:
            max_frame_delay_ms = int32(max_frame_delay_ms, "max_frame_delay_ms")
        if pacing is None:
            pacing = Pacing.EXACT if frame_order == FrameOrder.TIME else Pacing.CARRY_MILLISECONDS
        with _paths.naming(path):
            self._native = _core._Player(
                path,
                callback,
                source_types,
                bool(loop),
                max_frame_delay_ms,
                float(speed),
                pacing,
                on_error,
                on_unreadable,
                frame_order,
            )

    def __enter__(self) -> "Player":
        return self

    def __exit__(self, exc_type: Any, *rest: Any) -> None:
        try:
            self._native.stop()
        finally:
            self._native.close()

    def play(self) -> None:
        """Starts (or resumes) playback on the worker thread."""
        self._native.play()

    def stop(self) -> None:
        """Stops playback and waits for the worker; raises an error the callback raised."""
        self._native.stop()

    def close(self) -> None:
        """Stops playback and closes the file."""
        self._native.close()

    def wait(self, timeout: Optional[float] = None) -> bool:
        """Waits until the last frame has been delivered; False when `timeout` (seconds) passed first.

        Raises the error the callback raised, if any (playback is stopped first).
        """
        return self._native.wait(timeout)

    def seek(self, frame: int) -> None:
        """Positions on `frame` and delivers it to the callback on this thread."""
        self._native.seek(int32(frame, "frame"))

    def seek_to_time(self, timestamp: Time) -> int:
        """Seeks to the first frame at or after `timestamp`; answers its number.

        `timestamp` is any time :class:`LogFile` takes, ``"+12.5"`` (seconds
        after the file's first entry) included.
        """
        return self._native.seek_to_time(to_ms(timestamp, self._first_timestamp))

    def _first_timestamp(self) -> int:
        from ._logfile import LogFile

        with LogFile.open(self._path) as f:
            return f._first_timestamp()

    @property
    def frame_count(self) -> int:
        return self._native.frame_count

    @property
    def order(self) -> str:
        """``"id"`` or ``"time"``: the order the frames are played in."""
        return "time" if self._native.order == FrameOrder.TIME else "id"

    @property
    def delivered(self) -> int:
        """How many frames have reached the callback so far."""
        return self._native.delivered

    @property
    def total_play_time_ms(self) -> int:
        """The last frame's timestamp minus the first's."""
        return self._native.total_play_time_ms()

    @property
    def data_sources(self) -> List[Tuple[int, Union[SourceType, int], str]]:
        """The (id, type, name) of the data sources of the chosen types."""
        return [(id, source_type(type), name) for id, type, name in self._native.data_sources]

    @property
    def bookmarks(self) -> List[PlayerBookmark]:
        return [PlayerBookmark(*fields) for fields in self._native.bookmarks]

    def set_loop(self, loop: bool) -> None:
        self._native.set_loop(bool(loop))

    def set_speed(self, speed: float) -> None:
        self._native.set_speed(float(speed))

    def set_pacing(self, pacing: Pacing) -> None:
        """Call while stopped."""
        self._native.set_pacing(pacing)

    def add_bookmark(self, entry_id: int, title: str, comments: str = "") -> None:
        self._native.add_bookmark(int32(entry_id, "entry_id"), title, comments)

    def update_bookmark(self, entry_id: int, title: str, comments: str = "") -> None:
        self._native.update_bookmark(int32(entry_id, "entry_id"), title, comments)

    def remove_bookmark(self, entry_id: int) -> None:
        self._native.remove_bookmark(int32(entry_id, "entry_id"))


__all__ = ["Player", "PlayerBookmark", "Pacing"]
