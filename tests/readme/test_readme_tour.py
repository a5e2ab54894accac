"""README.md's examples, run as printed.

Every fenced ``sh``, ``python``, ``c`` and ``cpp`` block of README.md carries
an HTML comment on the line before it that says what this test does with it:

* ``<!-- tour -->``: run it in the tour's session, in the order of the page.
  The session starts in an empty directory and keeps its working directory
  from one block to the next (so ``$ cd survey`` holds for what follows).
* ``<!-- tour: from the source tree -->``: run it, apart from the session, in
  an empty directory where ``build`` is the build tree, as from the top of the
  source tree.
* ``<!-- not in the tour: why -->``: leave it alone (``make test`` itself).

A block with none of these fails the test, so a new example is never left
out by accident.

Shell blocks are commands after ``$ `` (a line ending in a backslash goes on
on the next line), each followed by the output the page shows, if any. They
run in one ``bash`` with ``set -e``, with ``mvlog`` and ``python3`` on PATH
and the Python package on PYTHONPATH; every command must exit with 0, and
where output is shown, standard output must be it, line by line. In shown
output ``...`` stands for text that changes from run to run (times, ids,
sizes on disk, speeds), and a line that is ``...`` alone for any number of
lines, none included. Trailing blanks do not count.

Python blocks run as scripts of their own (``python3 block.py``) in the
session's directory. C and C++ blocks with a ``main`` are compiled against the
build tree's headers and libraries (C99, C++17, warnings as errors) and run in
the session's directory; one without a ``main`` is compiled, wrapped in a
function, and not run.

The build tree comes from the environment CTest gives (MARIVANE_SOURCE_DIR,
MARIVANE_BUILD_DIR, MARIVANE_LIBRARY_DIR, MVLOG, CC, CXX, PYTHONPATH); without
it the test assumes ``build/`` in the source tree.
"""

from __future__ import annotations

import os
import re
import shlex
import subprocess
import sys
from dataclasses import dataclass, field
from pathlib import Path
from typing import Dict, List, Optional

import pytest

SOURCE_DIR = Path(os.environ.get("MARIVANE_SOURCE_DIR", Path(__file__).resolve().parents[2])).resolve()
BUILD_DIR = Path(os.environ.get("MARIVANE_BUILD_DIR", SOURCE_DIR / "build")).resolve()
README = SOURCE_DIR / "README.md"

ELISION = "..."
SHELL_LANGUAGES = {"sh", "bash", "shell", "console"}
EXAMPLE_LANGUAGES = SHELL_LANGUAGES | {"python", "c", "cpp"}
MARKER = re.compile(r"^<!--\s*(tour|not in the tour)\s*(?::\s*(.*?))?\s*-->\s*$")
FENCE = re.compile(r"^```\s*([\w+-]*)\s*$")
SOURCE_TREE = "from the source tree"
BLOCK_TIMEOUT_S = 300


# ---- reading the page ---------------------------------------------------------


@dataclass
class Block:
    line: int  # the line of the opening fence, from 1
    language: str
    text: str
    marker: Optional[str]  # "tour", "not in the tour" or None
    note: str = ""

    @property
    def where(self) -> str:
        return f"README.md:{self.line}"


@dataclass
class Command:
    line: int
    text: str
    expected: List[str] = field(default_factory=list)


def read_blocks(text: str) -> List[Block]:
    """The fenced blocks of a Markdown text, with the marker comment before each."""
    blocks: List[Block] = []
    lines = text.splitlines()
    at = 0
    while at < len(lines):
        opening = FENCE.match(lines[at])
        if not opening:
            at += 1
            continue
        previous = at - 1
        while previous >= 0 and not lines[previous].strip():
            previous -= 1
        marker = MARKER.match(lines[previous].strip()) if previous >= 0 else None
        end = at + 1
        while end < len(lines) and lines[end].strip() != "```":
            end += 1
        language = opening.group(1).lower()
        language = {"c++": "cpp", "py": "python"}.get(language, language)
        blocks.append(Block(
            line=at + 1,
            language=language,
            text="\n".join(lines[at + 1:end]) + "\n",
            marker=marker.group(1) if marker else None,
            note=(marker.group(2) or "") if marker else "",
        ))
        at = end + 1
    return blocks


def shell_commands(block: Block) -> List[Command]:
    """The commands of a shell block (after "$ "), each with the output shown after it."""
    commands: List[Command] = []
    continued = False
    for offset, line in enumerate(block.text.splitlines(), start=block.line + 1):
        if continued:
            commands[-1].text += "\n" + line
            continued = line.endswith("\\")
        elif line.startswith("$ "):
            commands.append(Command(line=offset, text=line[2:]))
            continued = line.endswith("\\")
        elif commands:
            commands[-1].expected.append(line)
        elif line.strip():
            raise AssertionError(f"README.md:{offset}: a line before the first '$ ' command: {line!r}")
    return commands


# ---- comparing output ---------------------------------------------------------


def output_pattern(expected: List[str]) -> "re.Pattern[str]":
    """A pattern for the whole output: "..." is any text within a line, alone any lines."""
    parts = []
    for line in expected:
        if line.strip() == ELISION:
            parts.append(r"(?:[^\n]*\n)*?")
        else:
            pieces = line.rstrip().split(ELISION)
            parts.append(r"[^\n]*?".join(re.escape(piece) for piece in pieces) + r"\n")
    return re.compile("".join(parts))


def normalized(output: str) -> str:
    lines = [line.rstrip() for line in output.splitlines()]
    return "".join(line + "\n" for line in lines)


def output_matches(expected: List[str], output: str) -> bool:
    return output_pattern(expected).fullmatch(normalized(output)) is not None


# ---- running it ---------------------------------------------------------------


def shown(text: str, limit: int = 4000) -> str:
    return text if len(text) <= limit else text[:limit] + f"\n[... {len(text) - limit} more characters]"


class Tour:
    """One session through the page: a working directory and an environment."""

    def __init__(self, root: Path) -> None:
        self.root = root
        self.cwd = root / "tour"
        self.cwd.mkdir()
        self.work = root / "work"  # scripts, programs and captured output
        self.work.mkdir()
        self.mismatches: List[str] = []
        self.env = self._environment()

    def _environment(self) -> Dict[str, str]:
        env = dict(os.environ)
        shims = self.work / "bin"
        shims.mkdir()
        (shims / "python3").symlink_to(sys.executable)
        mvlog = Path(os.environ.get("MVLOG", BUILD_DIR / "tools" / "mvlog")).resolve()
        assert mvlog.is_file(), f"no mvlog at {mvlog}: build the tool first"
        env["PATH"] = os.pathsep.join([str(shims), str(mvlog.parent), env.get("PATH", "/usr/bin:/bin")])
        python_path = os.environ.get("PYTHONPATH") or str(BUILD_DIR / "python")
        env["PYTHONPATH"] = python_path
        env["PYTHONDONTWRITEBYTECODE"] = "1"
        return env

    # -- shell --------------------------------------------------------------------
    def run_shell(self, block: Block, cwd: Path) -> Path:
        """Runs the block's commands in one bash; answers the working directory it ends in."""
        commands = shell_commands(block)
        assert commands, f"{block.where}: a shell block without '$ ' commands"
        state = self.work / f"shell-{block.line}"
        state.mkdir()
        script = ["set -e", f"cd {shlex.quote(str(cwd))}"]
        for index, command in enumerate(commands):
            script += [
                f"echo {index} > {shlex.quote(str(state / 'at'))}",
                "{",
                command.text,
                f"}} > {shlex.quote(str(state / f'{index}.out'))} 2> {shlex.quote(str(state / f'{index}.err'))}"
                " < /dev/null",
            ]
        script.append(f"pwd > {shlex.quote(str(state / 'cwd'))}")
        (state / "script.sh").write_text("\n".join(script) + "\n")
        finished = subprocess.run(["bash", str(state / "script.sh")], env=self.env, cwd=cwd,
                                  stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                  timeout=BLOCK_TIMEOUT_S)
        if finished.returncode != 0:
            at = int((state / "at").read_text()) if (state / "at").exists() else 0
            command = commands[at]
            pytest.fail(
                f"README.md:{command.line}: `{command.text}` exited with {finished.returncode}\n"
                f"stdout:\n{shown(self._read(state / f'{at}.out'))}\n"
                f"stderr:\n{shown(self._read(state / f'{at}.err'))}{finished.stderr}",
                pytrace=False,
            )
        for index, command in enumerate(commands):
            if not command.expected:
                continue
            output = self._read(state / f"{index}.out")
            if not output_matches(command.expected, output):
                self.mismatches.append(
                    f"README.md:{command.line}: `{command.text}` printed\n{shown(output)}"
                    f"--- where the README shows\n" + "\n".join(command.expected) + "\n"
                )
        return Path((state / "cwd").read_text().strip())

    @staticmethod
    def _read(path: Path) -> str:
        return path.read_text(errors="replace") if path.exists() else ""

    # -- Python ---------------------------------------------------------------------
    def run_python(self, block: Block) -> None:
        script = self.work / f"block_{block.line}.py"
        script.write_text(block.text)
        finished = subprocess.run([sys.executable, str(script)], env=self.env, cwd=self.cwd,
                                  stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                  timeout=BLOCK_TIMEOUT_S)
        if finished.returncode != 0:
            pytest.fail(f"{block.where}: the Python block exited with {finished.returncode}\n"
                        f"stderr:\n{shown(finished.stderr)}", pytrace=False)

    # -- C and C++ ------------------------------------------------------------------
    def run_native(self, block: Block) -> None:
        is_cpp = block.language == "cpp"
        complete = re.search(r"\bmain\s*\(", block.text) is not None
        source = self.work / f"block_{block.line}.{'cpp' if is_cpp else 'c'}"
        if complete:
            source.write_text(block.text)
        else:
            source.write_text(wrapped_fragment(block.text, is_cpp))
        compiler = os.environ.get("CXX" if is_cpp else "CC") or ("c++" if is_cpp else "cc")
        library_dir = os.environ.get("MARIVANE_LIBRARY_DIR") or str(BUILD_DIR / "src")
        command = [compiler, "-std=c++17" if is_cpp else "-std=c99", "-Wall", "-Wextra", "-Werror",
                   "-I", str(SOURCE_DIR / "include"), str(source)]
        if complete:
            program = self.work / f"program_{block.line}"
            command += ["-o", str(program), "-L", library_dir, f"-Wl,-rpath,{library_dir}",
                        "-lmarivane-logging", "-pthread"]
        else:
            command += ["-Wno-unused", "-c", "-o", str(source.with_suffix(".o"))]
        built = subprocess.run(command, capture_output=True, text=True, timeout=BLOCK_TIMEOUT_S)
        if built.returncode != 0:
            pytest.fail(f"{block.where}: the {'C++' if is_cpp else 'C'} block does not build:\n"
                        f"{shlex.join(command)}\n{shown(built.stderr)}", pytrace=False)
        if not complete:
            return
        finished = subprocess.run([str(program)], env=self.env, cwd=self.cwd, stdin=subprocess.DEVNULL,
                                  capture_output=True, text=True, timeout=BLOCK_TIMEOUT_S)
        if finished.returncode != 0:
            pytest.fail(f"{block.where}: the program exited with {finished.returncode}\n"
                        f"stdout:\n{shown(finished.stdout)}\nstderr:\n{shown(finished.stderr)}",
                        pytrace=False)

    # -- the whole page -------------------------------------------------------------
    def run(self, blocks: List[Block]) -> None:
        for block in blocks:
            if block.marker != "tour":
                continue
            if block.language in SHELL_LANGUAGES:
                if block.note == SOURCE_TREE:
                    tree = self.root / f"source-tree-{block.line}"
                    tree.mkdir()
                    (tree / "build").symlink_to(BUILD_DIR, target_is_directory=True)
                    self.run_shell(block, tree)
                else:
                    assert not block.note, f"{block.where}: unknown tour marker note {block.note!r}"
                    self.cwd = self.run_shell(block, self.cwd)
            elif block.language == "python":
                self.run_python(block)
            elif block.language in ("c", "cpp"):
                self.run_native(block)
        if self.mismatches:
            pytest.fail("Output differs from what README.md shows:\n\n" + "\n".join(self.mismatches),
                        pytrace=False)


def wrapped_fragment(text: str, is_cpp: bool) -> str:
    """A fragment as a translation unit: its #include lines first, the rest in a function."""
    lines = text.splitlines()
    includes = [line for line in lines if line.lstrip().startswith("#include")]
    body = [line for line in lines if not line.lstrip().startswith("#include")]
    default_includes = ["#include <logging/Logging.h>"] if is_cpp else ["#include <logging/MV_Logging.h>"]
    signature = "void readme_fragment()" if is_cpp else "void readme_fragment(void)"
    return "\n".join(default_includes + includes + [signature + " {"] + body + ["}", ""])


# ---- the tests ----------------------------------------------------------------


def readme_blocks() -> List[Block]:
    return read_blocks(README.read_text())


def test_every_example_says_whether_it_is_in_the_tour():
    unmarked = [block.where for block in readme_blocks()
                if block.language in EXAMPLE_LANGUAGES and block.marker is None]
    assert not unmarked, (
        "These README.md blocks need <!-- tour -->, <!-- tour: from the source tree --> or "
        "<!-- not in the tour: why --> on the line before them: " + ", ".join(unmarked))


def test_the_tour_has_every_kind_of_example():
    kinds = {block.language for block in readme_blocks() if block.marker == "tour"}
    assert {"sh", "python", "c", "cpp"} <= kinds, kinds


def test_readme_tour(tmp_path):
    Tour(tmp_path).run(readme_blocks())


# ---- the reading and comparing themselves ---------------------------------------


def test_shell_blocks_split_into_commands_and_their_output():
    block = Block(line=10, language="sh", marker="tour", text=(
        "$ mvlog info a.mvlog   # a comment\nFile  a.mvlog\n...\n$ echo one \\\n  two\n$ true\n"))
    commands = shell_commands(block)
    assert [(c.line, c.text, c.expected) for c in commands] == [
        (11, "mvlog info a.mvlog   # a comment", ["File  a.mvlog", "..."]),
        (14, "echo one \\\n  two", []),
        (16, "true", []),
    ]


def test_markers_are_read_from_the_line_before_the_fence():
    blocks = read_blocks("<!-- tour -->\n```sh\n$ true\n```\n\n<!-- not in the tour: builds it -->\n\n"
                         "```sh\nmake\n```\n```python\nx = 1\n```\n<!-- tour: from the source tree -->\n"
                         "```sh\n$ ls build\n```\n")
    assert [(b.line, b.language, b.marker, b.note) for b in blocks] == [
        (2, "sh", "tour", ""),
        (8, "sh", "not in the tour", "builds it"),
        (11, "python", None, ""),
        (15, "sh", "tour", SOURCE_TREE),
    ]


@pytest.mark.parametrize("expected, output, matches", [
    (["OK"], "OK\n", True),
    (["OK"], "OK  \n", True),
    (["OK"], "KO\n", False),
    (["OK"], "OK\nmore\n", False),
    (["Time span  ... to ..."], "Time span  2026-11-21T11:58:01.000Z to 2026-11-21T11:58:20.980Z\n", True),
    (["Time span  ... to ..."], "Time span  2026-11-21T11:58:01.000Z\n", False),
    (["a", "...", "z"], "a\nz\n", True),
    (["a", "...", "z"], "a\nb\nc\nz\n", True),
    (["a", "...", "z"], "a\nb\nc\n", False),
    (["  ...", "total 3"], "x\ny\ntotal 3\n", True),
    (["frame 199/199  entry ...  cam"], "frame 199/199  entry 12  2026-11-21T11:58:20Z  cam\n", True),
    (["frame 199/199  entry ...  cam"], "frame 198/199  entry 12  cam\n", False),
    (["Played 190 of 200 frames"], "Played 191 of 200 frames\n", False),
])
def test_shown_output_elides_with_three_dots(expected, output, matches):
    assert output_matches(expected, output) == matches
