"""Times and entry selections as the native module takes them."""

from __future__ import annotations

import datetime as _dt
import enum
import math
import re
from typing import Any, Callable, Iterable, NamedTuple, Optional, Sequence, Tuple, Union

import numpy as np

from . import _core

INT64_MIN = -(2**63)
INT64_MAX = 2**63 - 1
INT32_MIN = -(2**31)
INT32_MAX = 2**31 - 1
UINT64_MAX = 2**64 - 1

#: A point in time: milliseconds since the Unix epoch (UTC), a timezone-aware
#: ``datetime`` (a pandas ``Timestamp`` is one), a ``numpy.datetime64``, or
#: text as ``mvlog`` takes it: ISO 8601 (``"2026-11-21T11:58:05.5Z"``, UTC
#: without a zone) or seconds after the file's first entry (``"+12.5"``).
Time = Union[int, str, _dt.datetime, np.datetime64]

#: Answers the timestamp of the file's first entry, for a relative time.
FirstTimestamp = Callable[[], int]

_ISO_TIME = re.compile(
    r"(\d{4})-(\d{2})-(\d{2})T(\d{2}):(\d{2}):(\d{2})(?:\.(\d*))?(?:(Z)|([+-])(\d{2}):(\d{2}))?"
)

_EPOCH = _dt.datetime(1970, 1, 1, tzinfo=_dt.timezone.utc)


def _member_name(name: str) -> str:
    """The library's short name as an enum member is spelled: VehicleBus -> VEHICLE_BUS."""
    return re.sub(r"(?<=[a-z0-9])(?=[A-Z])", "_", name).upper()


# The members come from the library's table, so that Python, mvlog and the C
# interface name the same types the same way.
SourceType = enum.IntEnum(  # type: ignore[misc]
    "SourceType",
    [(_member_name(name), value) for value, name in _core._common_data_source_types()],
    module=__name__,
)
SourceType.__doc__ = """The common vocabulary of data-source types.

    The library stores any 32-bit value as a type; these are only the usual
    ones. Every function taking a type takes a plain ``int`` as well.
    """


def source_type(value: int) -> Union[SourceType, int]:
    """The value as a SourceType when it is one of the usual types, else the int."""
    try:
        return SourceType(value)
    except ValueError:
        return value


def _text_to_ms(text: str, first: Optional[FirstTimestamp]) -> int:
    """Milliseconds for a time written as ``mvlog`` takes it; ValueError for other text."""
    if text.startswith("+"):
        try:
            seconds = float(text[1:])
        except ValueError:
            seconds = math.nan
        if math.isfinite(seconds) and text[1:].strip() == text[1:]:
            if first is None:
                raise ValueError(f"{text!r}: a time relative to the first entry needs a file")
            return int64(first() + round(seconds * 1000.0), "a time in milliseconds")
    match = _ISO_TIME.fullmatch(text)
    if match is None:
        raise ValueError(
            f"{text!r} is not a time (use ISO 8601 such as 2026-11-21T11:58:05.5Z, or seconds after the "
            "first entry such as +12.5)"
        )
    year, month, day, hour, minute, second = (int(part) for part in match.group(1, 2, 3, 4, 5, 6))
    fraction = (match.group(7) or "")[:3].ljust(3, "0")
    offset = 0
    if match.group(9):
        offset = (int(match.group(10)) * 60 + int(match.group(11))) * (-1 if match.group(9) == "-" else 1)
    try:
        moment = _dt.datetime(year, month, day, hour, minute, second, tzinfo=_dt.timezone.utc)
    except ValueError as error:
        raise ValueError(f"{text!r} is not a time: {error}") from None
    delta = moment - _EPOCH
    return (delta.days * 86_400 + delta.seconds - offset * 60) * 1000 + int(fraction)


def to_ms(value: Time, first: Optional[FirstTimestamp] = None) -> int:
    """Milliseconds since the Unix epoch for an int, an aware datetime, a datetime64 or text.

    Text is ISO 8601 or ``"+seconds"`` after the first entry, which `first`
    answers (a relative time without it raises ValueError).
    """
    if isinstance(value, (bool, np.bool_)):
        raise TypeError("a time is an int (milliseconds), a datetime or a numpy.datetime64, not a bool")
    if isinstance(value, str):
        return _text_to_ms(value, first)
    if isinstance(value, (int, np.integer)):
        return int64(int(value), "a time in milliseconds")
    if isinstance(value, _dt.datetime):
        if value.tzinfo is None or value.utcoffset() is None:
            raise ValueError(
                f"naive datetime {value.isoformat()}: give a timezone-aware one (for example tzinfo=timezone.utc)"
            )
        delta = value - _EPOCH
        return (delta.days * 86_400 + delta.seconds) * 1000 + delta.microseconds // 1000
    if isinstance(value, np.datetime64):
        return int(value.astype("datetime64[ms]").astype(np.int64))
    raise TypeError(f"a time is an int (milliseconds), a datetime or a numpy.datetime64, not {type(value).__name__}")


def int64(value: int, what: str) -> int:
    """`value` when it fits in 64 bits; OverflowError otherwise."""
    if not INT64_MIN <= value <= INT64_MAX:
        raise OverflowError(f"{what} must fit in 64 bits: {value} is out of range")
    return value


def int32(value: Any, what: str) -> int:
    """int(value) when it fits in 32 bits; OverflowError otherwise."""
    value = int(value)
    if not INT32_MIN <= value <= INT32_MAX:
        raise OverflowError(f"{what} must fit in 32 bits: {value} is out of range")
    return value


def uint64(value: Any, what: str) -> int:
    """int(value) for a count the library keeps in 64 bits; OverflowError beyond (negatives are the caller's)."""
    value = int(value)
    if value > UINT64_MAX:
        raise OverflowError(f"{what} must fit in 64 bits: {value} is out of range")
    return value


def source_id(value: Any) -> int:
    """int(value) when it is an 8-bit data-source id; ValueError otherwise, as the library says it."""
    value = int(value)
    if not -128 <= value <= 127:
        raise ValueError(f"data source ids are 8-bit: {value} is out of range")
    return value


def compression_level(value: Any) -> int:
    """int(value) when it is a zstd level the file can keep (8 bits); ValueError otherwise."""
    value = int(value)
    if not -128 <= value <= 127:
        raise ValueError(f"compression level out of range: {value}")
    return value


def to_datetime(ms: int) -> _dt.datetime:
    """The timezone-aware UTC datetime of milliseconds since the Unix epoch."""
    return _EPOCH + _dt.timedelta(milliseconds=int(ms))


class TimeRange(NamedTuple):
    """The first and the last timestamp of some entries (milliseconds, inclusive)."""

    first: int
    last: int

    @property
    def duration_ms(self) -> int:
        return self.last - self.first

    @property
    def start(self) -> _dt.datetime:
        """The first timestamp as a UTC datetime."""
        return to_datetime(self.first)

    @property
    def end(self) -> _dt.datetime:
        """The last timestamp as a UTC datetime."""
        return to_datetime(self.last)


def time_bounds(
    time: Optional[Tuple[Optional[Time], Optional[Time]]], first: Optional[FirstTimestamp] = None
) -> Tuple[int, int]:
    """The inclusive (start, end) of a ``time=(start, end)`` argument; None is unbounded."""
    if time is None:
        return INT64_MIN, INT64_MAX
    if isinstance(time, str):
        raise TypeError("time is a (start, end) pair; either may be None")
    try:
        start, end = time
    except (TypeError, ValueError):
        raise TypeError("time is a (start, end) pair; either may be None") from None
    return (INT64_MIN if start is None else to_ms(start, first), INT64_MAX if end is None else to_ms(end, first))


def int_list(values: Any, what: str) -> list:
    """A list of ints from None, one int or an iterable of them."""
    if values is None:
        return []
    if isinstance(values, (int, np.integer)):
        return [int32(values, what)]
    if isinstance(values, (str, bytes)):
        raise TypeError(f"{what} takes ints, not {values!r}")
    return [int32(v, what) for v in values]


def entry_id(value: Optional[int], what: str) -> int:
    if value is None:
        return -1
    value = int(value)
    if value < 1:
        raise ValueError(f"{what} must be an entry id (1 or more), not {value}")
    if value > INT32_MAX:
        raise OverflowError(f"{what} must be an entry id (1 to {INT32_MAX}), not {value}")
    return value


def listed_sources(sources: Any) -> Optional[list]:
    """The data sources as a list, read once (they may come from a generator); None stays None."""
    if sources is None:
        return None
    if isinstance(sources, (str, int, np.integer)):
        return [sources]
    return list(sources)


def source_ids(values: Any, names: Optional[dict]) -> list:
    """Data-source ids from ids or, when `names` maps names to ids, names."""
    if values is None:
        return []
    if isinstance(values, (str, int, np.integer)):
        values = [values]
    result = []
    for value in values:
        if isinstance(value, str):
            if names is None or value not in names:
                raise KeyError(f"no data source named {value!r}")
            result.append(names[value])
        else:
            result.append(source_id(value))
    return result


def selection(
    start: Optional[int],
    end: Optional[int],
    sources: Any,
    types: Any,
    source_types: Any,
    time: Optional[Tuple[Optional[Time], Optional[Time]]],
    names: Optional[dict] = None,
    first: Optional[FirstTimestamp] = None,
) -> dict:
    """The native selection keywords."""
    start_ms, end_ms = time_bounds(time, first)
    return dict(
        first_id=entry_id(start, "start"),
        last_id=entry_id(end, "end"),
        start_ms=start_ms,
        end_ms=end_ms,
        sources=source_ids(sources, names),
        types=int_list(types, "types"),
        source_types=int_list(source_types, "source_types"),
    )


def filter_lists(sources: Any, types: Any, source_types: Any, names: Optional[dict] = None) -> dict:
    return dict(
        sources=source_ids(sources, names),
        types=int_list(types, "types"),
        source_types=int_list(source_types, "source_types"),
    )


def entry_order(value: Any) -> str:
    """``"id"`` or ``"time"`` as the native reads take it; ValueError otherwise."""
    if isinstance(value, str) and value.lower() in ("id", "time"):
        return value.lower()
    raise ValueError(f"order is 'id' or 'time', not {value!r}")


Ids = Union[None, int, str, Iterable[Union[int, str]]]
Ints = Union[None, int, Sequence[int]]
