"""python3 -m marivane_logging: info, cat and check print exactly what mvlog prints."""

from __future__ import annotations

import os
import signal
import subprocess
import sys

import pytest

import marivane_logging as ml


@pytest.fixture(scope="module")
def mvlog() -> str:
    path = os.environ.get("MVLOG")
    if not path or not os.path.exists(path):
        pytest.skip("mvlog is not built")
    return path


def _python_m(*arguments: str) -> subprocess.CompletedProcess:
    return subprocess.run([sys.executable, "-m", "marivane_logging", *arguments], capture_output=True)


def _same_as_mvlog(mvlog: str, *arguments: str) -> subprocess.CompletedProcess:
    tool = subprocess.run([mvlog, *arguments], capture_output=True)
    ours = _python_m(*arguments)
    assert ours.returncode == tool.returncode, ours.stderr
    assert ours.stdout == tool.stdout
    assert ours.stderr == tool.stderr
    return ours


@pytest.mark.parametrize("options", [[], ["--json"]])
def test_info_is_the_tools(mvlog, sample_path, options):
    result = _same_as_mvlog(mvlog, "info", sample_path, *options)
    assert result.returncode == 0
    assert f"{sample_path}".encode() in result.stdout
    assert b"Bookmarks" in result.stdout or b'"bookmarks"' in result.stdout


@pytest.mark.parametrize("options", [[], ["--format", "json"], ["--source", "gnss", "--limit", "3"],
                                     ["--start", "+1", "--end", "+2", "--format", "hex"], ["--order", "id"]])
def test_cat_is_the_tools(mvlog, sample_path, options):
    result = _same_as_mvlog(mvlog, "cat", sample_path, *options)
    assert result.returncode == 0
    assert result.stdout


def test_cat_with_a_source_that_is_not_there_is_the_tools_usage_error(mvlog, sample_path):
    result = _same_as_mvlog(mvlog, "cat", sample_path, "--source", "lidar")
    assert result.returncode == 2
    assert result.stdout == b""
    assert b"lidar" in result.stderr


@pytest.mark.parametrize("options", [[], ["--json"]])
def test_check_is_the_tools(mvlog, sample_path, options):
    result = _same_as_mvlog(mvlog, "check", sample_path, *options)
    assert result.returncode == 0


def test_a_file_that_is_not_a_log_file_fails_as_in_the_tool(mvlog, tmp_path):
    bogus = tmp_path / "bogus.mvlog"
    bogus.write_bytes(b"not a log file at all, just text that is long enough" * 4)
    for command in ("info", "cat", "check"):
        result = _same_as_mvlog(mvlog, command, str(bogus))
        assert result.returncode == 1
        assert str(bogus).encode() in result.stdout + result.stderr


def test_help_of_a_tool_command_is_the_tools(mvlog):
    result = _same_as_mvlog(mvlog, "check", "--help")
    assert result.returncode == 0
    assert result.stdout.startswith(b"Verify the database")


def test_a_closed_pipe_ends_cat_quietly(tmp_path):
    # Far more output than a pipe holds, so that cat is still writing when
    # the reader goes away.
    path = tmp_path / "long.mvlog"
    with ml.LogFile.create(path, application="t", version="1") as f:
        source = f.add_data_source(ml.SourceType.GENERIC, "s")
        with f.batch():
            for i in range(20_000):
                f.log(source, 1, b"x" * 64, 1_700_000_000_000 + i)
    reader = subprocess.Popen([sys.executable, "-m", "marivane_logging", "cat", str(path)],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert reader.stdout is not None and reader.stderr is not None
    reader.stdout.readline()
    reader.stdout.close()
    assert reader.wait(timeout=30) == -signal.SIGPIPE
    assert reader.stderr.read() == b""


def test_only_the_reading_commands_run_in_python():
    from marivane_logging import _core

    for arguments in (["slice", "a.mvlog", "-o", "b.mvlog"], ["demo"], []):
        with pytest.raises(ValueError, match="the tool commands that run in Python are info, cat and check"):
            _core._run_tool(arguments)


def test_usage():
    result = _python_m()
    assert result.returncode == 2
    assert result.stderr.startswith(b"usage: python3 -m marivane_logging {info,cat,check,timeline} ...\n")
    result = _python_m("--help")
    assert result.returncode == 0
    assert result.stdout.startswith(b"usage: python3 -m marivane_logging {info,cat,check,timeline} ...\n")
    result = _python_m("slice", "x.mvlog")
    assert result.returncode == 2
    assert result.stderr == (b"python3 -m marivane_logging: 'slice' is not a command; "
                             b"the commands are info, cat, check and timeline\n")


def test_timeline_errors(tmp_path):
    bogus = tmp_path / "bogus.mvlog"
    bogus.write_bytes(b"not a log file at all, just text that is long enough" * 4)
    result = _python_m("timeline", str(bogus), "-o", str(tmp_path / "t.png"))
    assert result.returncode == 1
    assert result.stderr == f"error: '{bogus}': This file is not in a supported log file format.\n".encode()
    assert not (tmp_path / "t.png").exists()
