"""python3 -m marivane_logging: describe a log file, or draw its timeline.

    python3 -m marivane_logging info FILE
    python3 -m marivane_logging timeline FILE -o timeline.png [--gap-ms 500]
"""

from __future__ import annotations

import argparse
import os
import sys
from typing import List, Optional

from ._errors import LogFileError
from ._logfile import LogFile
from ._selection import SourceType, to_datetime


def _size(count: int) -> str:
    """Sizes as `mvlog` writes them."""
    if count < 1024:
        return f"{count} B"
    if count < 1024**2:
        return f"{count / 1024:.1f} KiB"
    if count < 1024**3:
        return f"{count / 1024**2:.2f} MiB"
    return f"{count / 1024**3:.2f} GiB"


def _iso(ms: int) -> str:
    return to_datetime(ms).strftime("%Y-%m-%dT%H:%M:%S.") + f"{ms % 1000:03d}Z"


def _value(value: object) -> str:
    if isinstance(value, str):
        return f'"{value}" (text)'
    if isinstance(value, float):
        return f"{value:g} (double)"
    return f"{value} (int64)"


_DURABILITY = {"FAST": "fast (no flushes, journal in memory)", "SAFE": "safe (write-ahead log, flushed at checkpoints)"}


def _level(level: object) -> str:
    if level == -1:
        return "-1 (codec default)"
    if level == 0:
        return "0 (payloads stored uncompressed)"
    return "?" if level is None else str(level)


def _type_name(value: int) -> str:
    try:
        return SourceType(value).name.replace("_", " ").title().replace(" ", "")
    except ValueError:
        return f"type {value}"


def info(path: str, out=sys.stdout) -> None:
    """Prints a summary in the layout of `mvlog info`."""
    from .timeline import source_statistics

    with LogFile.open(path) as f:
        meta = f.metadata
        index = f.index()
        rows = [
            ("File", path),
            ("Size on disk", f"{_size(os.path.getsize(path))} ({os.path.getsize(path)} bytes)"),
            ("Format version", str(meta.get("logVersion", "?"))),
            ("Compression level", _level(meta.get("compressionLevel"))),
            ("Durability", _DURABILITY[f.durability.name]),
        ]
        if "createdDateTime" in meta:
            rows.append(("Created", f'{_iso(int(meta["createdDateTime"]))} (stored time zone '
                                    f'"{meta.get("currentTimeZone", "")}")'))
        rows.append(("Application", f'{meta.get("applicationName", "?")} {meta.get("applicationVersion", "")}'.strip()))
        if len(index):
            rows.append(("Entries", f"{len(index)} (ids {int(index['id'].min())} to {int(index['id'].max())})"))
            span = f.time_range()
            rows.append(("Time span", f"{_iso(span.first)} to {_iso(span.last)}"))
            rows.append(("Duration", f"{span.duration_ms / 1000:.3f} s"))
            rows.append(("Stored bytes", f"{_size(int(index['size'].sum()))} ({int(index['size'].sum())} bytes), "
                                         "as stored (after compression)"))
        else:
            rows.append(("Entries", "0"))
        for label, text in rows:
            print(f"{label:<19}{text}", file=out)

        print(f"\nMetadata ({len(meta)})", file=out)
        width = max((len(key) for key in meta), default=0) + 2
        for key, value in meta.items():
            print(f"  {key:<{width}} {_value(value)}", file=out)

        sources = f.data_sources
        statistics = source_statistics(f)
        print(f"\nData sources ({len(sources)})", file=out)
        for source in sources:
            count, stored, rate = statistics[source.id]
            print(f'  [{source.id}] {_type_name(int(source.type))} "{source.name}": {count} entries, '
                  f"{_size(stored)} stored, {rate:.2f} Hz mean rate", file=out)
            for key, value in source.properties.items():
                print(f"      {key} = {_value(value)}", file=out)

        types = {}
        for value in index["type"].tolist():
            types[value] = types.get(value, 0) + 1
        print(f"\nEntry types ({len(types)})", file=out)
        for value in sorted(types):
            print(f"  type {value}: {types[value]} entries", file=out)

        resources = f.resources
        print(f"\nResources ({len(resources)})", file=out)
        for name, data in resources.items():
            print(f"  {name}: {_size(len(data))} ({len(data)} bytes)", file=out)

        bookmarks = f.bookmarks
        print(f"\nBookmarks ({len(bookmarks)})", file=out)
        for bookmark in bookmarks:
            line = f'  entry {bookmark.entry_id}: "{bookmark.title}"'
            if bookmark.comments:
                line += f" - {bookmark.comments}"
            if bookmark.payload:
                line += f" [payload {_size(len(bookmark.payload))}]"
            print(line, file=out)


def main(argv: Optional[List[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m marivane_logging", description=__doc__.splitlines()[0])
    commands = parser.add_subparsers(dest="command", required=True)
    info_parser = commands.add_parser("info", help="describe a log file")
    info_parser.add_argument("file")
    timeline_parser = commands.add_parser("timeline", help="draw a log file's timeline")
    timeline_parser.add_argument("file")
    timeline_parser.add_argument("-o", "--output", default="timeline.png", help="picture to write (default: %(default)s)")
    timeline_parser.add_argument("--gap-ms", type=float, default=None,
                                 help="gaps are silences longer than this (default: 5x each source's median interval)")
    timeline_parser.add_argument("--width", type=float, default=12.0, help="width in inches")
    arguments = parser.parse_args(argv)
    try:
        if arguments.command == "info":
            info(arguments.file)
        else:
            from .timeline import plot_timeline

            plot_timeline(arguments.file, arguments.output, gap_threshold_ms=arguments.gap_ms, width=arguments.width)
            print(f"Wrote {arguments.output}")
    except (LogFileError, OSError) as error:
        print(f"error: {error}", file=sys.stderr)
        return 1
    except BrokenPipeError:
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
