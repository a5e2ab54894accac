"""python3 -m marivane_logging: describe, print, check a log file, or draw its timeline.

    python3 -m marivane_logging info FILE [--json]
    python3 -m marivane_logging cat FILE [--source gnss] [--start 10s] [--format json] ...
    python3 -m marivane_logging check FILE [--json]
    python3 -m marivane_logging timeline FILE -o timeline.png [--gap-ms 500]

info, cat and check are mvlog's own commands, run in this process through the
native module: they take the same options and print the same bytes as
`mvlog info|cat|check` (`python3 -m marivane_logging info --help` lists them).
The exit code is theirs too: 0 done, 1 failed, 2 a usage error.
"""

from __future__ import annotations

import argparse
import signal
import sys
from typing import List, Optional

from ._errors import LogFileError

#: The tool commands this entry point runs: mvlog's, through the native module.
TOOL_COMMANDS = ("info", "cat", "check")


def run_tool(arguments: List[str]) -> int:
    """Runs ``mvlog ARGUMENTS...`` in this process and returns its exit code.

    The command writes to the process's standard output and error (file
    descriptors 1 and 2), after anything Python had buffered there.
    """
    from . import _core

    if not hasattr(_core, "_run_tool"):
        print(f"python3 -m marivane_logging: {arguments[0]} comes with mvlog, and this build of the package has "
              "no mvlog (built without the tool)", file=sys.stderr)
        return 1
    sys.stdout.flush()
    sys.stderr.flush()
    return _core._run_tool([str(argument) for argument in arguments])


def _timeline(argv: List[str]) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m marivane_logging timeline",
                                     description="Draw a log file's timeline: a lane per data source, gaps marked.")
    parser.add_argument("file")
    parser.add_argument("-o", "--output", default="timeline.png", help="picture to write (default: %(default)s)")
    parser.add_argument("--gap-ms", type=float, default=None,
                        help="gaps are silences longer than this (default: 5x each source's median interval)")
    parser.add_argument("--width", type=float, default=12.0, help="width in inches")
    arguments = parser.parse_args(argv)
    from .timeline import plot_timeline

    try:
        plot_timeline(arguments.file, arguments.output, gap_threshold_ms=arguments.gap_ms, width=arguments.width)
    except (LogFileError, OSError) as error:
        print(f"error: {error}", file=sys.stderr)
        return 1
    print(f"Wrote {arguments.output}")
    return 0


def _usage() -> str:
    return (f"usage: python3 -m marivane_logging {{{','.join(TOOL_COMMANDS)},timeline}} ...\n\n"
            f"{__doc__}")


def main(argv: Optional[List[str]] = None) -> int:
    """The command line; returns the exit code."""
    arguments = list(sys.argv[1:] if argv is None else argv)
    if not arguments or arguments[0] in ("-h", "--help"):
        (sys.stdout if arguments else sys.stderr).write(_usage())
        return 0 if arguments else 2
    command, rest = arguments[0], arguments[1:]
    if command in TOOL_COMMANDS:
        return run_tool([command, *rest])
    if command == "timeline":
        return _timeline(rest)
    print(f"python3 -m marivane_logging: '{command}' is not a command; the commands are "
          f"{', '.join(TOOL_COMMANDS)} and timeline", file=sys.stderr)
    return 2


if __name__ == "__main__":
    # As mvlog does: a closed pipe (`... cat FILE | head`) ends the command
    # quietly, and Ctrl-C stops a long command at once.
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    sys.exit(main())
