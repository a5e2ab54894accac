"""Opening by path: a missing path, a directory, an empty path and a damaged file say so, naming the path."""

from __future__ import annotations

import errno
import os
import subprocess
import sys

import pytest

import marivane_logging as ml


def not_found(path) -> str:
    return f"[Errno 2] No such file or directory: '{path}'"


def a_directory(path) -> str:
    return f"[Errno 21] Is a directory: '{path}'"


def check_not_found(caught, path) -> None:
    error = caught.value
    assert type(error) is ml.LogFileNotFoundError
    # Both what such opens raised before and what Python raises for a missing file.
    assert isinstance(error, ml.DatabaseError) and isinstance(error, FileNotFoundError)
    assert (error.errno, error.filename, str(error)) == (errno.ENOENT, os.fspath(path), not_found(path))


def check_a_directory(caught, path) -> None:
    error = caught.value
    assert type(error) is ml.LogFileIsADirectoryError
    assert isinstance(error, ml.DatabaseError) and isinstance(error, IsADirectoryError)
    assert (error.errno, error.filename, str(error)) == (errno.EISDIR, os.fspath(path), a_directory(path))


def opens(sample_path):
    """Every way the package opens an existing file by path, as (name, call taking the path)."""
    return [
        ("open", lambda p: ml.LogFile.open(p)),
        ("open for writing", lambda p: ml.LogFile.open(p, read_only=False)),
        ("Player", lambda p: ml.Player(p, lambda frame, entry: None)),
        ("slice", lambda p: ml.slice(p, 1, 2, os.path.join(os.path.dirname(sample_path), "never.mvlog"))),
        ("clone", lambda p: ml.clone(p, os.path.join(os.path.dirname(sample_path), "never.mvlog"))),
        ("copy", lambda p: ml.copy(p, os.path.join(os.path.dirname(sample_path), "never.mvlog"))),
        ("merge", lambda p: ml.merge([sample_path, p], os.path.join(os.path.dirname(sample_path), "never.mvlog"))),
    ]


def test_a_missing_file_is_file_not_found_and_nothing_is_made(sample_path, tmp_path):
    missing = tmp_path / "missing.mvlog"
    for name, open_ in opens(sample_path):
        if name == "open for writing":
            continue  # makes a new log file, as documented
        with pytest.raises(FileNotFoundError) as caught:
            open_(missing)
        check_not_found(caught, missing)
        assert not missing.exists(), name
    assert sorted(os.listdir(tmp_path)) == []


def test_a_missing_directory_is_file_not_found_for_every_new_file(tmp_path):
    path = tmp_path / "no" / "such" / "dir.mvlog"
    for make in (
        lambda: ml.LogFile.open(path, read_only=False),
        lambda: ml.LogFile.create(path, application="a", version="1"),
        lambda: ml.Recorder(path, application="a", version="1"),
    ):
        with pytest.raises(FileNotFoundError) as caught:
            make()
        check_not_found(caught, path)
    assert not (tmp_path / "no").exists()


def test_a_directory_is_a_directory(sample_path, tmp_path):
    for name, open_ in opens(sample_path):
        with pytest.raises(IsADirectoryError) as caught:
            open_(tmp_path)
        check_a_directory(caught, tmp_path)
    assert sorted(os.listdir(tmp_path)) == []


def test_an_empty_path_is_refused(sample_path, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    for make in (
        lambda: ml.LogFile.open(""),
        lambda: ml.LogFile.open("", read_only=False),
        lambda: ml.LogFile.create("", application="a", version="1"),
        lambda: ml.Recorder("", application="a", version="1"),
        lambda: ml.Player("", lambda frame, entry: None),
        lambda: ml.copy("", tmp_path / "out.mvlog"),
        lambda: ml.merge([sample_path, ""], tmp_path / "out.mvlog"),
    ):
        with pytest.raises(ValueError) as caught:
            make()
        assert str(caught.value) == "The path is empty: a log file needs a path."
    assert sorted(os.listdir(tmp_path)) == []


def test_not_a_log_file_names_the_path(tmp_path):
    text = tmp_path / "text.mvlog"
    text.write_bytes(b"just some text, long enough to be a header of something else entirely" * 2)
    empty = tmp_path / "empty.mvlog"
    empty.write_bytes(b"")  # a log file once opened for writing; not one to read
    for path, open_ in (
        (text, lambda: ml.LogFile.open(text)),
        (text, lambda: ml.LogFile.open(text, read_only=False)),
        (text, lambda: ml.Player(text, lambda frame, entry: None)),
    ):
        with pytest.raises(ml.NotALogFileError) as caught:
            open_()
        assert type(caught.value) is ml.NotALogFileError
        assert str(caught.value) == f"'{path}': This file is not in a supported log file format."
    # An empty file may be a log file whose creation has not committed yet.
    with pytest.raises(ml.NotALogFileError) as caught:
        ml.LogFile.open(empty)
    assert str(caught.value) == (
        f"'{empty}' is not a log file yet: it holds no tables (it is empty, or still being created)."
    )
    # The derived files already named it.
    with pytest.raises(ml.LogFileError) as caught:
        ml.copy(text, tmp_path / "out.mvlog")
    assert str(caught.value) == f"Cannot read '{text}': This file is not in a supported log file format."


def test_a_damaged_file_names_the_path(sample_path, tmp_path):
    data = open(sample_path, "rb").read()
    cut = tmp_path / "cut.mvlog"
    cut.write_bytes(data[: len(data) // 2])
    for open_ in (
        lambda: ml.LogFile.open(cut),
        lambda: ml.LogFile.open(cut, read_only=False),
        lambda: ml.Player(cut, lambda frame, entry: None),
    ):
        with pytest.raises(ml.DatabaseError) as caught:
            open_()
        assert type(caught.value) is ml.DatabaseError
        assert str(caught.value) == (
            f"'{cut}': Cannot prepare 'SELECT COUNT(*) FROM sqlite_master WHERE type='table';': "
            "database disk image is malformed"
        )


def test_the_command_line_reports_a_missing_file(tmp_path):
    missing = tmp_path / "missing.mvlog"
    # info is mvlog's own command, with its message.
    completed = subprocess.run(
        [sys.executable, "-m", "marivane_logging", "info", os.fspath(missing)], capture_output=True, text=True
    )
    assert (completed.returncode, completed.stdout, completed.stderr) == (1, "", f"mvlog: {missing}: no such file\n")
    completed = subprocess.run(
        [sys.executable, "-m", "marivane_logging", "timeline", os.fspath(missing), "-o", os.fspath(tmp_path / "t.png")],
        capture_output=True,
        text=True,
    )
    assert (completed.returncode, completed.stdout, completed.stderr) == (1, "", f"error: {not_found(missing)}\n")


def test_a_file_that_cannot_be_made_is_a_database_error_naming_it(tmp_path):
    # A regular file where a directory should be: neither missing nor a directory.
    (tmp_path / "plain").write_bytes(b"x")
    path = tmp_path / "plain" / "new.mvlog"
    for make in (
        lambda: ml.LogFile.create(path, application="a", version="1"),
        lambda: ml.Recorder(path, application="a", version="1"),
    ):
        with pytest.raises(ml.DatabaseError) as caught:
            make()
        assert type(caught.value) is ml.DatabaseError
        assert f"'{path}'" in str(caught.value)
    assert sorted(os.listdir(tmp_path)) == ["plain"]
